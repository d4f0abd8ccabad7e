// The cost of starting a short program from a large process, the way a listing starts status
// scripts.
//
//   bench_spawn [runs] [MiB]       (default 2000 runs of /bin/true from a process of 88 MiB)
//
// Times, each as the best of three rounds: fork + exec, posix_spawn, the process runner as root,
// the runner with an identity switch (as root only), and the runner's parallel batch.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/parallel_runner.h"
#include "platform/process.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
const char* const kProgram = "/bin/true";

double BestMs(const std::function<bool()>& round) {
    double best = 1e18;
    for (int i = 0; i < 3; ++i) {
        const auto t0 = Clock::now();
        if (!round()) {
            std::fprintf(stderr, "bench_spawn: a run failed\n");
            std::exit(1);
        }
        best = std::min(best, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    return best;
}

bool Reap(pid_t pid) {
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::atoi(argv[1]) : 2000;
    const size_t mib = argc > 2 ? static_cast<size_t>(std::atoi(argv[2])) : 88;
    // Touched, so that every page has a table entry that a fork would copy.
    std::vector<char> ballast(mib << 20);
    std::memset(ballast.data(), 1, ballast.size());
    char* const args[] = {const_cast<char*>(kProgram), nullptr};

    const double forked = BestMs([&] {
        for (int i = 0; i < runs; ++i) {
            const pid_t pid = fork();
            if (pid == 0) {
                execve(kProgram, args, environ);
                _exit(127);
            }
            if (!Reap(pid)) {
                return false;
            }
        }
        return true;
    });
    const double spawned = BestMs([&] {
        for (int i = 0; i < runs; ++i) {
            pid_t pid = -1;
            if (posix_spawn(&pid, kProgram, nullptr, nullptr, args, environ) != 0 || !Reap(pid)) {
                return false;
            }
        }
        return true;
    });
    auto runner = [](bool identity) {
        auto r = std::make_unique<ZARNUtils::ProcessRunner>(std::vector<std::string>{kProgram});
        r->captureOutput();
        if (identity) {
            r->setIdentity(65534, 65534, {65534});
        }
        return r;
    };
    auto serial = [&](bool identity) {
        return BestMs([&] {
            for (int i = 0; i < runs; ++i) {
                if (runner(identity)->run() != 0) {
                    return false;
                }
            }
            return true;
        });
    };
    const double asRoot = serial(false);
    const bool root = geteuid() == 0;
    const double asAccount = root ? serial(true) : 0;
    const double batch = BestMs([&] {
        std::vector<std::unique_ptr<ZARNUtils::ProcessRunner>> owned;
        std::vector<ZARNUtils::ProcessRunner*> all;
        for (int i = 0; i < runs; ++i) {
            owned.push_back(runner(root && i % 2 == 1));
            all.push_back(owned.back().get());
        }
        for (int rc : ZARNUtils::RunAllProcesses(all)) {
            if (rc != 0) {
                return false;
            }
        }
        return true;
    });

    std::printf("%d runs of %s from a process of %zu MiB, best of 3:\n", runs, kProgram, mib);
    std::printf("  fork + exec                       %8.0f ms  %6.1f us each\n", forked,
                forked * 1000 / runs);
    std::printf("  posix_spawn                       %8.0f ms  %6.1f us each\n", spawned,
                spawned * 1000 / runs);
    std::printf("  runner, as root                   %8.0f ms  %6.1f us each\n", asRoot,
                asRoot * 1000 / runs);
    if (root) {
        std::printf("  runner, switching identity        %8.0f ms  %6.1f us each\n", asAccount,
                    asAccount * 1000 / runs);
    }
    std::printf("  runner batch, one per core%s %8.0f ms  %6.1f us each\n",
                root ? " (half switch)" : "              ", batch, batch * 1000 / runs);
    return 0;
}
