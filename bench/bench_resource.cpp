// Cost of one Acquire call (one fork) with no worker that applies, with ten built-in
// usr-local-linker entries (the moment "startup", ten packages' worth of one link each run in
// turn), with csp-rule beside them, and with service-cfg installing one job (the moment
// "postinst", jobs validated by the built zarn-initctl). Prints milliseconds per call.
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
    // The root's initctl leads to the built one, which works in the same root, so that
    // service-cfg can validate its jobs.
    setenv("ZARNPKG_TOOLS_DIR", ZARN_BINARY_DIR, 0);
    setenv("ZARNPKG_ROOT", tmpl, 1);
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
    ZARNFSMkdirP("/volume1/@appstore/bench/bin", 0, 1, -1, -1, 0755);
    for (int i = 0; i < 10; ++i) {
        ZARNFileWrite("/volume1/@appstore/bench/bin/t" + std::to_string(i), "");
        bin += std::string(i ? "," : "") + "\"bin/t" + std::to_string(i) + "\"";
    }
    ZARNFSMkdirP("/var/packages/bench/conf/upstart", 0, 1, -1, -1, 0755);
    ZARNSymlink("/volume1/@appstore/bench", "/var/packages/bench/target");
    ZARNFileWrite("/var/packages/bench/INFO",
                  "package=\"bench\"\nversion=\"1.0\"\nmaintainer=\"m\"\ndescription=\"d\"\n");
    const std::string linker = "\"usr-local-linker\": {\"bin\": [" + bin + "]}";
    ZARNFileWrite("/var/packages/bench/conf/resource", "{" + linker + "}");
    const int rounds = 200;
    std::printf("acquire, no worker applies (preinst): %.3f ms\n",
                MsPerCall(Resource::TIMING_PREINST, info, rounds));
    std::printf("acquire, usr-local-linker with ten links (startup): %.3f ms\n",
                MsPerCall(Resource::TIMING_STARTUP, info, rounds));
    ZARNFileWrite("/volume1/@appstore/bench/csp.json", "{\"script-src\": [\"'self'\"]}");
    ZARNFileWrite("/var/packages/bench/conf/upstart/pkg-bench.conf",
                  "start on runlevel\npost-stop script\n\ttrue\nend script\n");
    ZARNFileWrite("/var/packages/bench/conf/resource",
                  "{" + linker + ", \"csp-rule\": {\"conf\": \"csp.json\"}, \"service-cfg\": {}}");
    std::printf("acquire, usr-local-linker with ten links and csp-rule (startup): %.3f ms\n",
                MsPerCall(Resource::TIMING_STARTUP, info, rounds));
    std::printf("acquire, service-cfg with one job (postinst): %.3f ms\n",
                MsPerCall(Resource::TIMING_POSTINST, info, rounds / 4));
    ZARNPackageCore::SetSystemRoot("/");
    ZARNRemoveTree(tmpl);
    return 0;
}
