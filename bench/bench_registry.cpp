// Registry scan and version comparison figures.
//
//   bench_registry [packages]      (default 10000)
//
// Lays out a standalone root with that many installed packages whose INFO files are about
// 1 KB, then times enumPackageInfo with every key but the icons over a warm cache, and
// PackageBasicInfo::compare over mixed version strings.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "core/packagemanager.h"
#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"

using namespace ZARNPackageTool;
using Clock = std::chrono::steady_clock;

namespace {

std::string InfoText(int i) {
    std::string name = "pkg" + std::to_string(i);
    std::string text = "package=\"" + name + "\"\n";
    text += "version=\"" + std::to_string(1 + i % 7) + "." + std::to_string(i % 13) + "." +
            std::to_string(i % 5) + "-" + std::to_string(1000 + i) + "\"\n";
    text += "displayname=\"Package number " + std::to_string(i) + "\"\n";
    text += "description=\"A realistic description of package " + name +
            " that explains what it does, where its settings live and how to reach it from "
            "the desktop once it is running on the appliance.\"\n";
    text += "description_enu=\"English text of the package description for " + name + ".\"\n";
    text += "maintainer=\"Example Software Ltd.\"\nmaintainer_url=\"https://example.com/\"\n";
    text += "distributor=\"Example Distribution\"\ndistributor_url=\"https://example.com/d\"\n";
    text += "arch=\"x86_64 armv8\"\nos_min_ver=\"6.2-25556\"\n";
    text += "adminport=\"" + std::to_string(8000 + i % 1000) +
            "\"\nadminurl=\"/\"\nadminprotocol=\"http https\"\n";
    text += "kosuidir=\"ui\"\nkosappname=\"com.example." + name + "\"\n";
    text += "checksum=\"0123456789abcdef0123456789abcdef\"\nextractsize=\"20480\"\n";
    text += "install_dep_packages=\"pkg" + std::to_string(i / 2) + ">=1.0\"\n";
    text += "helpurl=\"https://example.com/help\"\nsupport_url=\"https://example.com/s\"\n";
    text += "startstop_restart_services=\"nginx\"\nctl_stop=\"yes\"\nbeta=\"no\"\n";
    text += "package_icon=\"" + std::string(200, 'A') + "\"\n";
    return text;
}

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "bench_registry: %s failed\n", what);
        std::exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    // BENCH_KEEP_ROOT=1 leaves the laid-out root behind for a closer look.
    const bool keep = std::getenv("BENCH_KEEP_ROOT") != nullptr;
    char tmpl[] = "/tmp/zarnpkg-bench.XXXXXX";
    Check(mkdtemp(tmpl) != nullptr, "mkdtemp");
    const std::string root = tmpl;
    ZARNPackageCore::SetSystemRoot(root);
    std::string error;
    Check(ZARNHostInit(error), "host-init");
    ZARNFSMkdirP("/volume1/@appstore", 0, 1, -1, -1, 0755);
    size_t bytes = 0;
    for (int i = 0; i < count; ++i) {
        const std::string dir = "/var/packages/pkg" + std::to_string(i);
        ZARNFSMkdirP(dir, 0, 1, -1, -1, 0755);
        const std::string info = InfoText(i);
        bytes += info.size();
        Check(ZARNFileWrite(dir + "/INFO", info), "write INFO");
        ZARNSymlink("/volume1/@appstore/pkg" + std::to_string(i), dir + "/target");
    }
    std::printf("packages: %d, mean INFO size: %zu bytes\n", count, bytes / count);

    const unsigned long long noIcons = PKG_MASK_ALL & ~PKG_MASK_ICONS;
    std::vector<double> runs;
    size_t found = 0;
    for (int r = 0; r < 6; ++r) {
        PackageManager pm;
        std::vector<PackageInfo> records;
        auto start = Clock::now();
        pm.enumPackageInfo(records, nullptr, noIcons);
        runs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        found = records.size();
    }
    Check(found == static_cast<size_t>(count), "scan found every package");
    // The first run warms the cache; report the rest.
    std::sort(runs.begin() + 1, runs.end());
    std::printf(
        "registry scan (enumPackageInfo, all but icons, warm): median %.1f ms, best %.1f ms"
        " (target <= 100 ms at 10000)\n",
        runs[1 + (runs.size() - 1) / 2], runs[1]);

    std::mt19937 rng(7);
    std::vector<PackageBasicInfo> versions;
    const char* forms[] = {"%d.%d", "%d.%d.%d", "%d.%d.%d-%d", "%d.%d-%d", "%d"};
    for (int i = 0; i < 4096; ++i) {
        char buf[64];
        std::snprintf(buf, sizeof(buf), forms[i % 5], rng() % 20, rng() % 20, rng() % 100,
                      rng() % 10000);
        versions.emplace_back("p", buf);
    }
    const long n = 2000000;
    long truths = 0;
    auto start = Clock::now();
    for (long i = 0; i < n; ++i) {
        truths += versions[i & 4095].compare(versions[(i * 7 + 3) & 4095],
                                             static_cast<PKG_VERSION_COMPOP>(1 + i % 5));
    }
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("PackageBasicInfo::compare: %.2f million comparisons/s (%ld true of %ld)\n",
                n / secs / 1e6, truths, n);

    if (keep) {
        std::printf("root kept at %s\n", root.c_str());
        return 0;
    }
    // The machine's rm, by argv: the root is a folder of this machine, not a logical path.
    ZARNUtils::ProcessRunner rm({ZARNMachineProgram("/bin/rm"), "-rf", "--", root});
    return rm.run() == 0 ? 0 : 1;
}
