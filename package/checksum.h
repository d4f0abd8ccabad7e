#pragma once

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {

// Whether the md5 of `file` (by /usr/bin/openssl md5) equals `md5` exactly.
ZARNPKG_API bool PMSCompareCheckSum(const char* file, const char* md5);

// The md5 of the `size` bytes at `offset` in `file` (logical path), as 32 lower-case hex
// digits, hashed while they are read: a member of an archive needs no extraction to be checked.
// False when the file can't be opened or ends early.
ZARNPKG_API bool PMSMd5OfRange(const std::string& file, unsigned long long offset,
                               unsigned long long size, std::string& md5);

}  // namespace ZARNPackageTool
