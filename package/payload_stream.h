#pragma once

#include <string>
#include <vector>

#include "core/export.h"
#include "package/tar_reader.h"

// Reading a package's payload (a gzip-compressed tar) once, with no decompressor process and no
// temporary copy: the compressed bytes are hashed as they are read, inflated in memory, and the
// tar headers of the result walked.
namespace ZARNPackageTool {

// What one read of a payload found.
struct PMSPayloadRead {
    std::string md5;                 // of the compressed bytes, when asked for
    std::vector<TarMember> members;  // of the payload's tar
    unsigned long long total = 0;    // the sum of the members' sizes
};

// Reads the payload that fills `size` bytes at `offset` of `file` (logical path; ~0 for `size`:
// the whole file). The walk stops as soon as the sizes add up to more than `limit`, so a
// decompression bomb costs nothing; more than 1 MiB after the end of the tar, or anything after
// the end of the gzip stream, is refused. With `hash` the md5 of the compressed bytes is
// computed meanwhile on a second core. False with the reason in `why`; nothing is logged.
ZARNPKG_API bool PMSReadPayload(const std::string& file, unsigned long long offset,
                                unsigned long long size, bool hash, unsigned long long limit,
                                PMSPayloadRead& out, std::string& why);

}  // namespace ZARNPackageTool
