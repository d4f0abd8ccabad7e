#pragma once

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

}  // namespace ZARNUtils
