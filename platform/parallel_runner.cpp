#include "platform/parallel_runner.h"

#include <system_error>
#include <thread>

#include "platform/log.h"
#include "platform/parallel_for.h"

namespace ZARNUtils {

struct BackgroundRuns::Impl {
    std::vector<ProcessRunner*> runners;
    std::vector<int> results;
    unsigned width = 0;
    // Runs the batch over `width` threads, this one among them; every result has a place of its
    // own, so no two threads write the same memory.
    std::thread worker;

    void work() {
        ZARNParallelFor(
            runners.size(), [this](size_t i) { results[i] = runners[i]->run(); }, width);
    }
    void join() {
        if (worker.joinable()) {
            worker.join();
        }
    }
};

BackgroundRuns::BackgroundRuns(std::vector<ProcessRunner*> runners, unsigned width)
    : impl_(std::make_unique<Impl>()) {
    Impl& d = *impl_;
    d.runners = std::move(runners);
    d.results.assign(d.runners.size(), -1);
    d.width = width;
    if (d.runners.empty()) {
        return;
    }
    try {
        d.worker = std::thread([&d] { d.work(); });
    } catch (const std::system_error& e) {
        // Without a thread of its own the batch runs in wait(), only later.
        ZLOGERR("Failed to start a worker thread for %zu programs: %s", d.runners.size(), e.what());
    }
}

BackgroundRuns::~BackgroundRuns() {
    impl_->join();
}

std::vector<int> BackgroundRuns::wait() {
    if (impl_->worker.joinable()) {
        impl_->join();
    } else {
        impl_->work();
    }
    return impl_->results;
}

std::vector<int> RunAllProcesses(const std::vector<ProcessRunner*>& runners, unsigned width) {
    return BackgroundRuns(runners, width).wait();
}

}  // namespace ZARNUtils
