#pragma once

#include <cstdlib>

// Whether an allocation of `bytes` fails on this machine, so that a test may give a file of
// that size to code that must survive it. Under the address sanitizer the answer is always no:
// its allocator ends the process instead of throwing from operator new.
inline bool AllocationFails(size_t bytes) {
#ifdef __SANITIZE_ADDRESS__
    (void)bytes;
    return false;
#else
    void* volatile probe = std::malloc(bytes);  // volatile: kept by the compiler
    std::free(probe);
    return probe == nullptr;
#endif
}
