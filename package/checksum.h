#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "core/export.h"

namespace ZARNPackageTool {

// Whether the md5 of `file` (by /usr/bin/openssl md5) equals `md5` exactly.
ZARNPKG_API bool PMSCompareCheckSum(const char* file, const char* md5);

// The md5 of the `size` bytes at `offset` in `file` (logical path), as 32 lower-case hex
// digits, hashed while they are read: a member of an archive needs no extraction to be checked.
// A range that PMSMd5Remember was told of, in the file as it still is (same inode, size and
// modification time), is not read again. False when the file can't be opened or ends early.
ZARNPKG_API bool PMSMd5OfRange(const std::string& file, unsigned long long offset,
                               unsigned long long size, std::string& md5);

// Tells PMSMd5OfRange the md5 of a range that another reader hashed on its way through the
// file, whose state `st` was taken before that read and is still the same after it.
ZARNPKG_API void PMSMd5Remember(const std::string& file, const struct stat& st,
                                unsigned long long offset, unsigned long long size,
                                const std::string& md5);

// An md5 computed piece by piece.
class ZARNPKG_API PMSMd5Digest {
public:
    PMSMd5Digest();
    ~PMSMd5Digest();
    PMSMd5Digest(const PMSMd5Digest&) = delete;
    PMSMd5Digest& operator=(const PMSMd5Digest&) = delete;
    // False when the digest could not be set up.
    bool valid() const;
    void update(const void* data, size_t len);
    // 32 lower-case hex digits; the digest is used up.
    std::string hex();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ZARNPackageTool
