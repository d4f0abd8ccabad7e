#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {

// One member of an uncompressed tar archive as its headers describe it. Extended headers (pax
// "x", GNU long names) are already folded into the member they describe.
struct TarMember {
    std::string name;
    std::string linkname;
    char type = '0';                    // '0' file, '1' hard link, '2' symlink, '5' folder, ...
    unsigned long long size = 0;        // bytes of data
    unsigned long long dataOffset = 0;  // where the data starts in the archive
    unsigned int mode = 0;
};

enum class TarScanStatus {
    Ok,
    ReadError,  // the file can't be opened or read
    NotTar,     // the first header is no tar header
    BadHeader,  // a later header is damaged
    Truncated,  // the archive ends inside a header or inside member data
    Refused,    // the caller's member test stopped the walk
};

// The most members a walk accepts before it calls the archive damaged.
constexpr size_t PMS_TAR_MAX_MEMBERS = 200000;
// Changes that cap for the whole process and returns the one before: a test of the cap needs no
// archive of 200,000 headers.
ZARNPKG_API size_t PMSTarSetMaxMembers(size_t cap);

// Walks the headers of an uncompressed tar archive (logical path), seeking over member data, so
// the time does not depend on the size of the members. `why` says what is wrong when the status
// isn't Ok.
ZARNPKG_API TarScanStatus PMSTarScan(const std::string& file, std::vector<TarMember>& members,
                                     std::string& why);

// The same walk over a stream (a pipe from a decompressor), reading forward only. `onMember` sees
// each member as soon as its header is read and can stop the walk by returning false with a
// reason; the data of the members is read and dropped.
ZARNPKG_API TarScanStatus
PMSTarScanStream(int fd, std::vector<TarMember>& members, std::string& why,
                 const std::function<bool(const TarMember&, std::string&)>& onMember);

// The same walk over any forward-only source: `readSome(buf, len)` gives up to `len` bytes,
// 0 at the end and a negative count on failure.
ZARNPKG_API TarScanStatus PMSTarScanReader(
    const std::function<long long(char*, size_t)>& readSome, std::vector<TarMember>& members,
    std::string& why, const std::function<bool(const TarMember&, std::string&)>& onMember);

// Tests the member list of an untrusted archive before anything of it is written: absolute
// names, ".." components, links that leave the archive, members written through a symbolic link,
// device nodes, FIFOs and unknown member kinds are refused. With `linksAnywhere` a symbolic link
// may point anywhere, as links of a payload do; nothing may still be written through one.
// False with the reason in `why`.
ZARNPKG_API bool PMSTarVetMembers(const std::vector<TarMember>& members, std::string& why,
                                  bool linksAnywhere = false);

// The last member of that exact name, or null.
ZARNPKG_API const TarMember* PMSTarFindMember(const std::vector<TarMember>& members,
                                              const std::string& name);

// True when some member is `name` or lies below the folder `name`.
ZARNPKG_API bool PMSTarHasMemberUnder(const std::vector<TarMember>& members,
                                      const std::string& name);

// Reads the data of a regular member straight from the archive. False when the member is larger
// than `limit` bytes (nothing is read then) or the read fails.
ZARNPKG_API bool PMSTarReadMember(const std::string& file, const TarMember& member,
                                  unsigned long long limit, std::string& out);

}  // namespace ZARNPackageTool
