#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/export.h"
#include "package/tar_reader.h"

// Judging a package's payload: by its tar headers before anything of it is written, and on disk
// once it is unpacked, before anything of it runs or moves.
namespace ZARNPackageTool {

// The list of a gzip-compressed tar (the payload package.tgz) as the machine's tar streams it,
// without unpacking it: the member names are vetted as for the archive, except that symbolic
// links may point anywhere, and the sum of their sizes is compared with `limit` while the
// listing runs, so a decompression bomb is stopped without writing anything. `total` gets the
// sum of the sizes seen.
ZARNPKG_API bool PMSPayloadVet(const std::string& tgz, unsigned long long limit,
                               unsigned long long& total, std::string& why);

// Takes package.tgz out of a vetted QAR into a fresh temporary folder and hands its path to
// `use`; the folder goes on every path out. False when there is no package.tgz or it can't be
// taken out (logged), else what `use` answers.
ZARNPKG_API bool PMSWithQarPayload(const std::string& file, const std::vector<TarMember>& members,
                                   const std::function<bool(const std::string& tgz)>& use);

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
