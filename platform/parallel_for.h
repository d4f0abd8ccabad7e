#pragma once

#include <cstddef>
#include <functional>

#include "platform/export.h"

// Calls `work(i)` for every i below `count`, spread over at most `width` threads (0: one per
// core), the calling thread among them, and returns once all calls are done. For steps that
// mostly wait on the file system and share nothing they change: each i has its own results.
ZARNHOST_API void ZARNParallelFor(size_t count, const std::function<void(size_t)>& work,
                                  unsigned width = 0);
