#include "package/tar_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include "platform/files.h"

namespace ZARNPackageTool {

namespace {

constexpr unsigned long long kBlock = 512;
// Extended headers and long names are small; anything bigger is an attack on our memory.
constexpr unsigned long long kMaxExtendedHeader = 1024 * 1024;
// An archive of a package has a few hundred members; this stops header floods.
size_t g_maxMembers = PMS_TAR_MAX_MEMBERS;
// No member of a real archive comes near this; it keeps offset sums far from overflow.
constexpr unsigned long long kMaxMemberSize = 1ULL << 62;

bool ReadAt(int fd, unsigned long long offset, char* buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = pread(fd, buf + done, len - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (n == 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool AllZero(const char* block) {
    for (size_t i = 0; i < kBlock; ++i) {
        if (block[i] != 0) {
            return false;
        }
    }
    return true;
}

// A NUL-terminated or full-width text field.
std::string Field(const char* p, size_t len) {
    size_t n = 0;
    while (n < len && p[n] != '\0') {
        ++n;
    }
    return std::string(p, n);
}

// An octal number field, or GNU base-256 when the high bit of the first byte is set.
bool Number(const char* p, size_t len, unsigned long long& out) {
    out = 0;
    const unsigned char first = static_cast<unsigned char>(p[0]);
    if (first & 0x80) {
        if (first != 0x80) {
            return false;  // negative or too large
        }
        for (size_t i = 1; i < len; ++i) {
            if (out >> 56) {
                return false;
            }
            out = (out << 8) | static_cast<unsigned char>(p[i]);
        }
        return true;
    }
    size_t i = 0;
    while (i < len && p[i] == ' ') {
        ++i;
    }
    bool any = false;
    for (; i < len && p[i] >= '0' && p[i] <= '7'; ++i) {
        if (out >> 60) {
            return false;
        }
        out = (out << 3) | static_cast<unsigned long long>(p[i] - '0');
        any = true;
    }
    for (; i < len; ++i) {
        if (p[i] != ' ' && p[i] != '\0') {
            return false;
        }
    }
    return any || len > 0;
}

bool ChecksumOk(const char* block) {
    unsigned long long stored = 0;
    if (!Number(block + 148, 8, stored)) {
        return false;
    }
    unsigned long long sum = 0;
    long long signedSum = 0;
    for (size_t i = 0; i < kBlock; ++i) {
        const bool inField = i >= 148 && i < 156;
        const unsigned char c = inField ? ' ' : static_cast<unsigned char>(block[i]);
        sum += c;
        signedSum += inField ? ' ' : static_cast<signed char>(block[i]);
    }
    return stored == sum || static_cast<long long>(stored) == signedSum;
}

// Pax records: "<len> <key>=<value>\n".
bool ParsePax(const std::string& data, std::map<std::string, std::string>& out) {
    size_t pos = 0;
    while (pos < data.size()) {
        size_t space = data.find(' ', pos);
        if (space == std::string::npos) {
            return false;
        }
        unsigned long long len = 0;
        for (size_t i = pos; i < space; ++i) {
            if (data[i] < '0' || data[i] > '9' || len > data.size()) {
                return false;
            }
            len = len * 10 + static_cast<unsigned long long>(data[i] - '0');
        }
        if (len == 0 || pos + len > data.size() || data[pos + len - 1] != '\n') {
            return false;
        }
        const std::string record = data.substr(space + 1, pos + len - space - 2);
        const size_t eq = record.find('=');
        if (eq == std::string::npos) {
            return false;
        }
        out[record.substr(0, eq)] = record.substr(eq + 1);
        pos += len;
    }
    return true;
}

// GNU tar takes the real name and size of a sparse member from these keys ("GNU.sparse.name"),
// so the name in the header would not be the name that is written. Packages have no sparse files.
bool HasSparseKey(const std::map<std::string, std::string>& pax) {
    for (const auto& entry : pax) {
        if (entry.first.compare(0, 11, "GNU.sparse.") == 0) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> Components(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) {
            slash = path.size();
        }
        if (slash > start) {
            parts.push_back(path.substr(start, slash - start));
        }
        start = slash + 1;
    }
    return parts;
}

// The name as tar would write it, without "./" parts and repeated or trailing slashes.
std::string Normal(const std::string& path) {
    std::string out;
    for (const auto& part : Components(path)) {
        if (part == ".") {
            continue;
        }
        if (!out.empty()) {
            out += '/';
        }
        out += part;
    }
    return out;
}

bool HasDotDot(const std::string& path) {
    for (const auto& part : Components(path)) {
        if (part == "..") {
            return true;
        }
    }
    return false;
}

}  // namespace

// Walks headers from any source that can read forward at an offset. `fileSize` is the size of
// the source, or ~0 for a stream whose end shows as a failed read. `onMember` may stop the walk.
template <typename ReadFn, typename MemberFn>
TarScanStatus ScanImpl(ReadFn readAt, unsigned long long fileSize, std::vector<TarMember>& members,
                       std::string& why, MemberFn onMember) {
    const bool stream = fileSize == ~0ULL;
    std::map<std::string, std::string> pax;
    std::string longName;
    std::string longLink;
    bool havePending = false;
    unsigned long long offset = 0;
    char block[kBlock];
    while (true) {
        if (!stream && offset == fileSize && !havePending && !members.empty()) {
            return TarScanStatus::Ok;  // no end blocks: GNU tar accepts this
        }
        if (!stream && offset + kBlock > fileSize) {
            why = "archive ends inside a header";
            return members.empty() ? TarScanStatus::NotTar : TarScanStatus::Truncated;
        }
        if (!readAt(offset, block, kBlock)) {
            why = stream ? "archive ends inside a header" : "read error";
            if (stream && offset == 0) {
                return TarScanStatus::NotTar;
            }
            return stream ? TarScanStatus::Truncated : TarScanStatus::ReadError;
        }
        if (AllZero(block)) {
            if (havePending) {
                why = "extended header without a member";
                return TarScanStatus::BadHeader;
            }
            return TarScanStatus::Ok;  // an archive without members is still an archive
        }
        if (!ChecksumOk(block)) {
            why = "bad header checksum at offset " + std::to_string(offset);
            return members.empty() ? TarScanStatus::NotTar : TarScanStatus::BadHeader;
        }
        unsigned long long size = 0;
        // Sizes near 2^64 would wrap the offset arithmetic below and desynchronise the walk.
        if (!Number(block + 124, 12, size) || size > kMaxMemberSize) {
            why = "bad size field at offset " + std::to_string(offset);
            return TarScanStatus::BadHeader;
        }
        const char type = block[156];
        const unsigned long long dataOffset = offset + kBlock;
        const unsigned long long padded = (size + kBlock - 1) / kBlock * kBlock;
        // The data of a member is checked below, once a pax header may have given its real size.
        if (!stream && (size > fileSize || dataOffset + padded > fileSize) &&
            (type == 'x' || type == 'g' || type == 'L' || type == 'K')) {
            why = "archive ends inside member data";
            return TarScanStatus::Truncated;
        }
        if (type == 'x' || type == 'g' || type == 'L' || type == 'K') {
            if (size > kMaxExtendedHeader) {
                why = "extended header too large";
                return TarScanStatus::BadHeader;
            }
            std::string data(static_cast<size_t>(size), '\0');
            if (size > 0 && !readAt(dataOffset, &data[0], data.size())) {
                why = "archive ends inside an extended header";
                return TarScanStatus::Truncated;
            }
            if (type == 'x') {
                if (!ParsePax(data, pax)) {
                    why = "bad pax header";
                    return TarScanStatus::BadHeader;
                }
                if (HasSparseKey(pax)) {
                    why = "sparse member";
                    return TarScanStatus::BadHeader;
                }
                havePending = true;
            } else if (type == 'L' || type == 'K') {
                (type == 'L' ? longName : longLink) = Field(data.data(), data.size());
                havePending = true;
            }
            // Global pax headers carry defaults for all members; tar applies them, and so do the
            // member checks below, since a global "path" would rename every member.
            if (type == 'g') {
                std::map<std::string, std::string> global;
                if (!ParsePax(data, global)) {
                    why = "bad pax header";
                    return TarScanStatus::BadHeader;
                }
                if (global.count("path") || global.count("linkpath") || global.count("size") ||
                    HasSparseKey(global)) {
                    why = "global header renames members";
                    return TarScanStatus::BadHeader;
                }
            }
            offset = dataOffset + padded;
            continue;
        }

        TarMember m;
        m.type = type == '\0' ? '0' : type;
        std::string name = Field(block, 100);
        const std::string magic = Field(block + 257, 6);
        if (magic == "ustar") {  // POSIX ustar: prefix field
            const std::string prefix = Field(block + 345, 155);
            if (!prefix.empty()) {
                name = prefix + "/" + name;
            }
        }
        m.name = name;
        m.linkname = Field(block + 157, 100);
        unsigned long long mode = 0;
        Number(block + 100, 8, mode);
        m.mode = static_cast<unsigned int>(mode & 07777);
        if (!longName.empty()) {
            m.name = longName;
        }
        if (!longLink.empty()) {
            m.linkname = longLink;
        }
        auto p = pax.find("path");
        if (p != pax.end()) {
            m.name = p->second;
        }
        p = pax.find("linkpath");
        if (p != pax.end()) {
            m.linkname = p->second;
        }
        p = pax.find("size");
        if (p != pax.end()) {
            char* end = nullptr;
            errno = 0;
            size = std::strtoull(p->second.c_str(), &end, 10);
            if (end == p->second.c_str() || *end != '\0' || errno != 0 || size > kMaxMemberSize) {
                why = "bad pax size";
                return TarScanStatus::BadHeader;
            }
        }
        pax.clear();
        longName.clear();
        longLink.clear();
        havePending = false;

        // Link, device, folder and FIFO members carry no data in the archive.
        const bool hasData = m.type == '0' || m.type == '7';
        const unsigned long long realPadded = (size + kBlock - 1) / kBlock * kBlock;
        if (!stream && hasData && (size > fileSize || dataOffset + realPadded > fileSize)) {
            why = "archive ends inside member data";
            return TarScanStatus::Truncated;
        }
        m.size = size;
        m.dataOffset = dataOffset;
        members.push_back(m);
        if (members.size() > g_maxMembers) {
            why = "too many members";
            return TarScanStatus::BadHeader;
        }
        if (!onMember(members.back(), why)) {
            return TarScanStatus::Refused;
        }
        if (hasData) {
            offset = dataOffset + realPadded;
        } else {
            if (size != 0 && m.type != '5') {
                why = "member " + m.name + " of a kind without data has a size";
                return TarScanStatus::BadHeader;
            }
            // GNU tar skips the size of a folder member as data too.
            offset = dataOffset + realPadded;
        }
    }
}

TarScanStatus PMSTarScan(const std::string& file, std::vector<TarMember>& members,
                         std::string& why) {
    members.clear();
    struct stat st;
    if (!ZARNStat(file, st) || !S_ISREG(st.st_mode)) {
        why = "not a regular file";
        return TarScanStatus::ReadError;
    }
    Fd fd = ZARNOpen(file, O_RDONLY);
    if (!fd.valid()) {
        why = "can't open";
        return TarScanStatus::ReadError;
    }
    auto readAt = [&fd](unsigned long long offset, char* buf, size_t len) {
        return ReadAt(fd.get(), offset, buf, len);
    };
    return ScanImpl(readAt, static_cast<unsigned long long>(st.st_size), members, why,
                    [](const TarMember&, std::string&) { return true; });
}

TarScanStatus PMSTarScanStream(
    int fd, std::vector<TarMember>& members, std::string& why,
    const std::function<bool(const TarMember&, std::string&)>& onMember) {
    auto readSome = [fd](char* buf, size_t len) {
        for (;;) {
            const ssize_t n = read(fd, buf, len);
            if (n >= 0 || errno != EINTR) {
                return static_cast<long long>(n);
            }
        }
    };
    return PMSTarScanReader(readSome, members, why, onMember);
}

TarScanStatus PMSTarScanReader(
    const std::function<long long(char*, size_t)>& readSome, std::vector<TarMember>& members,
    std::string& why, const std::function<bool(const TarMember&, std::string&)>& onMember) {
    members.clear();
    unsigned long long position = 0;
    std::vector<char> skip(64 * 1024);
    // Reads go forward only: whatever lies between is read and dropped.
    auto readAt = [&](unsigned long long offset, char* buf, size_t len) {
        while (position < offset) {
            size_t want =
                static_cast<size_t>(std::min<unsigned long long>(offset - position, skip.size()));
            const long long n = readSome(skip.data(), want);
            if (n <= 0) {
                return false;
            }
            position += static_cast<unsigned long long>(n);
        }
        size_t done = 0;
        while (done < len) {
            const long long n = readSome(buf + done, len - done);
            if (n <= 0) {
                return false;
            }
            done += static_cast<size_t>(n);
        }
        position += len;
        return true;
    };
    return ScanImpl(readAt, ~0ULL, members, why, onMember);
}

size_t PMSTarSetMaxMembers(size_t cap) {
    const size_t previous = g_maxMembers;
    g_maxMembers = cap;
    return previous;
}

bool PMSTarVetMembers(const std::vector<TarMember>& members, std::string& why, bool linksAnywhere) {
    std::set<std::string> symlinks;
    std::set<std::string> files;  // regular members, targets for hard links
    for (const auto& m : members) {
        if (m.name.empty()) {
            why = "member without a name";
            return false;
        }
        if (m.name[0] == '/') {
            why = "absolute member name " + m.name;
            return false;
        }
        if (HasDotDot(m.name)) {
            why = "member name with \"..\": " + m.name;
            return false;
        }
        if (m.name.find('\0') != std::string::npos) {
            why = "member name with a NUL byte";
            return false;
        }
        const std::string name = Normal(m.name);
        if (name.empty()) {
            if (m.type == '5') {
                continue;  // "./" itself
            }
            why = "member without a name";
            return false;
        }
        // A member below a symbolic link member would be written wherever the link points.
        const std::vector<std::string> parts = Components(name);
        std::string prefix;
        for (size_t i = 0; i + 1 < parts.size(); ++i) {
            prefix += (i ? "/" : "") + parts[i];
            if (symlinks.count(prefix)) {
                why = "member " + m.name + " lies under the symbolic link " + prefix;
                return false;
            }
        }
        switch (m.type) {
            case '0':
            case '7':
                files.insert(name);
                symlinks.erase(name);
                break;
            case '5':
                symlinks.erase(name);
                break;
            case '2':
                if (m.linkname.empty() ||
                    (!linksAnywhere && (m.linkname[0] == '/' || HasDotDot(m.linkname)))) {
                    why = "symbolic link " + m.name + " points outside the archive: " + m.linkname;
                    return false;
                }
                symlinks.insert(name);
                files.erase(name);
                break;
            case '1': {
                if (m.linkname.empty() || m.linkname[0] == '/' || HasDotDot(m.linkname)) {
                    why = "hard link " + m.name + " points outside the archive: " + m.linkname;
                    return false;
                }
                const std::string target = Normal(m.linkname);
                if (!files.count(target)) {
                    why = "hard link " + m.name + " to " + m.linkname +
                          ", which is no earlier file of the archive";
                    return false;
                }
                files.insert(name);
                symlinks.erase(name);
                break;
            }
            case '3':
            case '4':
                why = "device node " + m.name;
                return false;
            case '6':
                why = "FIFO " + m.name;
                return false;
            default:
                why = std::string("member ") + m.name + " of unsupported kind '" + m.type + "'";
                return false;
        }
    }
    return true;
}

const TarMember* PMSTarFindMember(const std::vector<TarMember>& members, const std::string& name) {
    const TarMember* found = nullptr;
    for (const auto& m : members) {
        if (m.name == name) {
            found = &m;
        }
    }
    return found;
}

bool PMSTarHasMemberUnder(const std::vector<TarMember>& members, const std::string& name) {
    for (const auto& m : members) {
        const std::string n = Normal(m.name);
        if (n == name || n.compare(0, name.size() + 1, name + "/") == 0) {
            return true;
        }
    }
    return false;
}

bool PMSTarReadMember(const std::string& file, const TarMember& member, unsigned long long limit,
                      std::string& out) {
    out.clear();
    if ((member.type != '0' && member.type != '7') || member.size > limit) {
        return false;
    }
    Fd fd = ZARNOpen(file, O_RDONLY);
    if (!fd.valid()) {
        return false;
    }
    out.resize(static_cast<size_t>(member.size));
    if (member.size > 0 && !ReadAt(fd.get(), member.dataOffset, &out[0], out.size())) {
        out.clear();
        return false;
    }
    return true;
}

}  // namespace ZARNPackageTool
