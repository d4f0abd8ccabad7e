// Times the reading of package files: queryPackageFileInfo on QARs with a small and a large
// payload (the time must not grow with the payload), and verifyPackageTgzFile on the large one
// beside the same tar extraction and openssl md5 run by hand. Prints the figures.
//
//   bench_qar [large_MiB [small_MiB [rounds]]]   (defaults 1024 1 20)
//
// The payloads are random bytes from /dev/urandom in a temporary root under /tmp, removed at
// the end.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/packagemanager.h"
#include "core/paths.h"
#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/process.h"
#include "platform/sysroot.h"

using namespace ZARNPackageTool;
using Clock = std::chrono::steady_clock;

namespace {

int Run(const std::vector<std::string>& argv, std::string* out = nullptr) {
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    int rc = runner.run();
    if (out != nullptr) {
        *out = runner.getStdout();
    }
    return rc;
}

double Ms(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

std::string Md5(const std::string& physical) {
    std::string out;
    Run({"/usr/bin/openssl", "md5", physical}, &out);
    const size_t pos = out.rfind("= ");
    return pos == std::string::npos ? "" : out.substr(pos + 2, 32);
}

// A QAR with INFO and a package.tgz of `mib` MiB of random bytes; returns its logical path.
std::string MakeQar(const std::string& name, unsigned long long mib, std::string& checksum) {
    const std::string dir = "/tmp/" + name;
    ZARNFSMkdirP(dir, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755);
    Fd fd = ZARNOpen(dir + "/package.tgz", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!fd.valid()) {
        return "";
    }
    ZARNUtils::ProcessRunner head(
        {"/usr/bin/head", "-c", std::to_string(mib * 1024 * 1024), "/dev/urandom"});
    head.setOutputFd(fd.get());
    const int rc = head.run();
    if (rc != 0) {
        return "";
    }
    checksum = Md5(ZARNPhysicalPath(dir + "/package.tgz"));
    ZARNFileWrite(dir + "/INFO", "package=\"" + name +
                                     "\"\nversion=\"1.0\"\n"
                                     "description=\"bench\"\nmaintainer=\"bench\"\n"
                                     "arch=\"noarch\"\nchecksum=\"" +
                                     checksum + "\"\n");
    const std::string qar = "/tmp/" + name + ".qar";
    Run({"/bin/tar", "cf", ZARNPhysicalPath(qar), "-C", ZARNPhysicalPath(dir), "INFO",
         "package.tgz"});
    ZARNRemoveTree(dir);  // only the QAR stays, so the disk holds one copy of the payload
    return qar;
}

double MedianQueryMs(const std::string& qar, int rounds) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        PackageManager pm;
        PackageInfo info;
        const auto t0 = Clock::now();
        const bool ok = pm.queryPackageFileInfo(qar, info, PKG_INSTALLATION_NONE, "enu");
        times.push_back(Ms(t0, Clock::now()));
        if (!ok || info.name.empty()) {
            std::fprintf(stderr, "query of %s failed\n", qar.c_str());
            return -1;
        }
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned long long largeMiB = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    const unsigned long long smallMiB = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 20;

    std::string rootDir;
    Run({"/bin/mktemp", "-d", "/tmp/zarnpkg-bench-XXXXXX"}, &rootDir);
    rootDir = rootDir.substr(0, rootDir.find('\n'));
    if (rootDir.empty()) {
        std::fprintf(stderr, "no temporary root\n");
        return 1;
    }
    ZARNPackageCore::SetSystemRoot(rootDir);
    std::string error;
    if (!ZARNHostInit(error)) {
        std::fprintf(stderr, "host-init failed: %s\n", error.c_str());
        return 1;
    }
    int status = 0;
    std::string smallSum, largeSum;
    const auto m0 = Clock::now();
    const std::string small = MakeQar("small", smallMiB, smallSum);
    const std::string large = MakeQar("large", largeMiB, largeSum);
    std::printf("built QARs of %llu MiB and %llu MiB in %.0f ms\n", smallMiB, largeMiB,
                Ms(m0, Clock::now()));
    if (small.empty() || large.empty()) {
        std::fprintf(stderr, "can't build the QARs\n");
        status = 1;
    } else {
        const double qs = MedianQueryMs(small, rounds);
        const double ql = MedianQueryMs(large, rounds);
        std::printf(
            "queryPackageFileInfo median of %d: %llu MiB payload %.2f ms, %llu MiB "
            "payload %.2f ms, ratio %.2f (target <= 2.0 and < 200 ms)\n",
            rounds, smallMiB, qs, largeMiB, ql, qs > 0 ? ql / qs : 0.0);

        // verifyPackageTgzFile against the same two steps run by hand, alternating.
        double lib = 1e300, hand = 1e300;
        for (int i = 0; i < 2; ++i) {
            PackageManager pm;
            auto t0 = Clock::now();
            const bool ok = pm.verifyPackageTgzFile(large, largeSum.c_str());
            lib = std::min(lib, Ms(t0, Clock::now()));
            if (!ok) {
                std::fprintf(stderr, "verifyPackageTgzFile failed\n");
                status = 1;
            }
            const std::string work = PMSMakeTmpDir("byhand");
            t0 = Clock::now();
            Run({"/bin/tar", "xf", ZARNPhysicalPath(large), "-C", ZARNPhysicalPath(work),
                 "package.tgz", "--no-same-owner"});
            const std::string sum = Md5(ZARNPhysicalPath(work + "/package.tgz"));
            Run({"/bin/rm", "-rf", ZARNPhysicalPath(work)});
            hand = std::min(hand, Ms(t0, Clock::now()));
            if (sum != largeSum) {
                std::fprintf(stderr, "by-hand checksum differs\n");
                status = 1;
            }
        }
        std::printf(
            "verifyPackageTgzFile on %llu MiB: %.0f ms; tar + openssl md5 + rm by hand: "
            "%.0f ms; ratio %.2f (target <= 1.3)\n",
            largeMiB, lib, hand, lib / hand);
    }
    ZARNPackageCore::SetSystemRoot("/");
    Run({"/bin/rm", "-rf", rootDir});
    return status;
}
