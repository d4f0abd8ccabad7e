// Cost of one Acquire call (one fork) with no worker that applies, and with ten built-in
// usr-local-linker entries (the moment "startup", ten packages' worth of one link each run in
// turn). Prints milliseconds per call.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/sysroot.h"
#include "resource/resource.h"
#include "resource/workers/builtin_workers.h"

using namespace ZARNPackageTool;

namespace {

double MsPerCall(Resource::TIMING timing, const PackageInfo& info, int rounds) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
        ZARNRemoveTree("/usr/local/bin");
        ZARN::PkgUtils::WorkerResp resp;
        if (!Resource::Acquire(timing, info, PKG_INSTALLATION_START, resp, nullptr, "")) {
            std::fprintf(stderr, "Acquire failed\n");
            std::exit(1);
        }
    }
    const std::chrono::duration<double, std::milli> spent =
        std::chrono::steady_clock::now() - start;
    return spent.count() / rounds;
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/zarnpkg-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        return 1;
    }
    ZARNPackageCore::SetSystemRoot(tmpl);
    std::string error;
    if (!ZARNHostInit(error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    PackageInfo info;
    info.name = "bench";
    // Ten patterns, one link each; every built-in row is a worker, so the ten run as one
    // usr-local-linker entry per pattern would: the work and the fork are what is measured.
    std::string bin;
    for (int i = 0; i < 10; ++i) {
        ZARNFileWrite("/volume1/@appstore/bench/bin/t" + std::to_string(i), "");
        bin += std::string(i ? "," : "") + "\"bin/t" + std::to_string(i) + "\"";
    }
    ZARNFSMkdirP("/var/packages/bench/conf", 0, 1, -1, -1, 0755);
    ZARNSymlink("/volume1/@appstore/bench", "/var/packages/bench/target");
    ZARNFileWrite("/var/packages/bench/conf/resource",
                  "{\"usr-local-linker\": {\"bin\": [" + bin + "]}}");
    const int rounds = 200;
    std::printf("acquire, no worker applies (preinst): %.3f ms\n",
                MsPerCall(Resource::TIMING_PREINST, info, rounds));
    std::printf("acquire, usr-local-linker with ten links (startup): %.3f ms\n",
                MsPerCall(Resource::TIMING_STARTUP, info, rounds));
    ZARNPackageCore::SetSystemRoot("/");
    ZARNRemoveTree(tmpl);
    return 0;
}
