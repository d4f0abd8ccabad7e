#pragma once

#include <memory>
#include <vector>

#include "platform/export.h"
#include "platform/process.h"

namespace ZARNUtils {

// Runs prepared runners, at most `width` at a time (0: one per core), and answers what each
// one's run() answers, at the runner's own place: the same results as running them one after
// another in that order. Many short scripts (status queries of a listing) then cost about their
// own time divided by the cores.
ZARNHOST_API std::vector<int> RunAllProcesses(const std::vector<ProcessRunner*>& runners,
                                              unsigned width = 0);

// The same batch run in the background, so that the caller can prepare the next one meanwhile.
// The runners must outlive it; wait() (or the destructor) ends it.
class ZARNHOST_API BackgroundRuns {
public:
    explicit BackgroundRuns(std::vector<ProcessRunner*> runners, unsigned width = 0);
    ~BackgroundRuns();
    BackgroundRuns(const BackgroundRuns&) = delete;
    BackgroundRuns& operator=(const BackgroundRuns&) = delete;

    // Waits for the batch and answers as RunAllProcesses does.
    std::vector<int> wait();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ZARNUtils
