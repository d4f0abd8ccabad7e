#pragma once

#include <string>
#include <vector>

#include "core/export.h"
#include "package/payload_stream.h"
#include "package/tar_reader.h"

// Judging a package's payload: by its tar headers before anything of it is written, and on disk
// once it is unpacked, before anything of it runs or moves.
namespace ZARNPackageTool {

// The list of a gzip-compressed tar (the payload package.tgz), read once and never unpacked:
// the member names are vetted as for the archive, except that symbolic links may point
// anywhere, and the sum of their sizes is compared with `limit` while the walk runs, so a
// decompression bomb is stopped without writing anything. `total` gets the sum of the sizes
// seen.
ZARNPKG_API bool PMSPayloadVet(const std::string& tgz, unsigned long long limit,
                               unsigned long long& total, std::string& why);

// The payload package.tgz of a QAR file read in one pass (PMSReadPayload with its md5), which
// PMSMd5OfRange is then told of; the last file read is kept while it doesn't change, so that
// the checks of one file share the read. 1 when it was read, 0 when the file has no package.tgz,
// -1 with the reason in `why`. Nothing is logged: the callers judge.
ZARNPKG_API int PMSQarPayloadRead(const std::string& file, PMSPayloadRead& read, std::string& why);

// The payload of a QAR file judged by its headers (PMSPayloadVet), as the file check of the
// command line does. A file without package.tgz has nothing to judge and passes. False, logged,
// with the reason in `why`.
ZARNPKG_API bool PMSQarPayloadVet(const std::string& file, std::string& why);

// The unpacked package in `extractDir`, walked without following a link: device nodes, FIFOs,
// sockets and files that share their data with names outside the folder (hard links) are
// refused with a log line naming the member; set-user-ID and set-group-ID bits of regular files
// are cleared, except those that a "tool" entry of `<extractDir>/conf/privilege` gives that
// file of the payload. False with the member and the reason in `why`; the pipelines fail with
// 0x105.
ZARNPKG_API bool PMSVetUnpackedPackage(const std::string& extractDir, std::string& why);

}  // namespace ZARNPackageTool
