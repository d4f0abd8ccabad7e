#include "platform/parallel_runner.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

#include "platform/log.h"

namespace ZARNUtils {

struct BackgroundRuns::Impl {
    std::vector<ProcessRunner*> runners;
    std::vector<int> results;
    // Each worker takes the next runner not yet taken; every result has a place of its own, so
    // no two workers write the same memory.
    std::atomic<size_t> next{0};
    std::vector<std::thread> workers;

    void work() {
        for (size_t i = next++; i < runners.size(); i = next++) {
            results[i] = runners[i]->run();
        }
    }
    void join() {
        for (std::thread& worker : workers) {
            worker.join();
        }
        workers.clear();
    }
};

BackgroundRuns::BackgroundRuns(std::vector<ProcessRunner*> runners, unsigned width)
    : impl_(std::make_unique<Impl>()) {
    Impl& d = *impl_;
    d.runners = std::move(runners);
    d.results.assign(d.runners.size(), -1);
    if (width == 0) {
        width = std::max(1U, std::thread::hardware_concurrency());
    }
    const size_t count = std::min<size_t>(width, d.runners.size());
    for (size_t i = 0; i < count; ++i) {
        try {
            d.workers.emplace_back([&d] { d.work(); });
        } catch (const std::system_error& e) {
            // Fewer workers only make the batch slower; without any, wait() runs it.
            ZLOGERR("Failed to start a worker thread for %zu programs: %s", d.runners.size(),
                    e.what());
            break;
        }
    }
}

BackgroundRuns::~BackgroundRuns() {
    impl_->join();
}

std::vector<int> BackgroundRuns::wait() {
    // Without a worker the caller runs them all itself; any worker takes all that is left.
    if (impl_->workers.empty()) {
        impl_->work();
    }
    impl_->join();
    return impl_->results;
}

std::vector<int> RunAllProcesses(const std::vector<ProcessRunner*>& runners, unsigned width) {
    return BackgroundRuns(runners, width).wait();
}

}  // namespace ZARNUtils
