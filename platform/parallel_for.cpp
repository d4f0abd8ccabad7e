#include "platform/parallel_for.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

void ZARNParallelFor(size_t count, const std::function<void(size_t)>& work, unsigned width) {
    if (width == 0) {
        width = std::max(1U, std::thread::hardware_concurrency());
    }
    std::atomic<size_t> next{0};
    auto drain = [&] {
        for (size_t i = next++; i < count; i = next++) {
            work(i);
        }
    };
    std::vector<std::thread> helpers;
    const size_t extra = std::min<size_t>(width, count) - (count == 0 ? 0 : 1);
    for (size_t i = 0; i < extra; ++i) {
        try {
            helpers.emplace_back(drain);
        } catch (const std::system_error&) {
            break;  // fewer helpers only take longer: the calling thread does the rest
        }
    }
    drain();
    for (std::thread& helper : helpers) {
        helper.join();
    }
}
