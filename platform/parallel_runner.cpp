#include "platform/parallel_runner.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

#include "platform/log.h"

namespace ZARNUtils {

std::vector<int> RunAllProcesses(const std::vector<ProcessRunner*>& runners, unsigned width) {
    std::vector<int> results(runners.size(), -1);
    if (width == 0) {
        width = std::max(1U, std::thread::hardware_concurrency());
    }
    // Each worker takes the next runner not yet taken; every result has a place of its own, so
    // no two workers write the same memory.
    std::atomic<size_t> next{0};
    auto work = [&runners, &results, &next] {
        for (size_t i = next++; i < runners.size(); i = next++) {
            results[i] = runners[i]->run();
        }
    };
    std::vector<std::thread> helpers;
    const size_t extra = std::min<size_t>(width, runners.size()) - (runners.empty() ? 0 : 1);
    for (size_t i = 0; i < extra; ++i) {
        try {
            helpers.emplace_back(work);
        } catch (const std::system_error& e) {
            // Fewer helpers only make the batch slower: the calling thread runs what is left.
            ZLOGERR("Failed to start a helper thread for %zu programs: %s", runners.size(),
                    e.what());
            break;
        }
    }
    work();
    for (std::thread& helper : helpers) {
        helper.join();
    }
    return results;
}

}  // namespace ZARNUtils
