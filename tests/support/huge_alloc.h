#pragma once

#include <cstdlib>

// GCC names an address-sanitized build with a macro, clang through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define ZARN_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZARN_UNDER_ASAN 1
#endif
#endif

// Whether an allocation of `bytes` fails on this machine, so that a test may give a file of
// that size to code that must survive it. Under the address sanitizer the answer is always no:
// its allocator ends the process instead of throwing from operator new.
inline bool AllocationFails(size_t bytes) {
#ifdef ZARN_UNDER_ASAN
    (void)bytes;
    return false;
#else
    void* volatile probe = std::malloc(bytes);  // volatile: kept by the compiler
    std::free(probe);
    return probe == nullptr;
#endif
}
