#include "package/payload_vet.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "package/archive.h"
#include "package/payload_stream.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/textsplit.h"
#include "privilege/revise_tool.h"

namespace ZARNPackageTool {

namespace {

// A relative path with empty and "." parts folded away, so that two spellings compare equal.
std::string FoldedPath(const std::string& rel) {
    std::string out;
    for (const std::string& part : ZARNPathNames(rel)) {
        out += (out.empty() ? "" : "/") + part;
    }
    return out;
}

// The set-ID bits that "tool" entries of conf/privilege give payload files, by their path in
// the extract folder. A file that can't be read grants none: the bits are then cleared, and
// the revision of the identity refuses the file later.
std::map<std::string, mode_t> ToolSetIdBits(const std::string& extractDir) {
    std::map<std::string, mode_t> bits;
    const std::string conf = extractDir + "/conf/privilege";
    Json::Value config;
    if (!ZARNIsRegularFile(conf) || !Json::fromFile(config, conf) || !config.isObject() ||
        !config["tool"].isArray()) {
        return bits;
    }
    for (const Json::Value& entry : config["tool"]) {
        mode_t mode = 0;
        if (entry.isObject() && entry["relpath"].isString() && entry["permission"].isString() &&
            Privilege::ParseToolPermission(entry["permission"].asString(), mode)) {
            bits["package/" + FoldedPath(entry["relpath"].asString())] = mode & 06000;
        }
    }
    return bits;
}

// Clears `bits` of the regular file at `path`, opened without following a link.
bool ClearModeBits(const std::string& path, const struct stat& seen, mode_t bits) {
    Fd fd = ZARNOpen(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    struct stat st;
    return fd.valid() && ZARNFStat(fd.get(), st) && st.st_ino == seen.st_ino &&
           ZARNFChmod(fd.get(), st.st_mode & 07777 & ~bits);
}

// Why a member that is no file, folder or link is refused; empty when it is one of those.
const char* ForeignKind(mode_t mode) {
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return "device node";
    }
    if (S_ISFIFO(mode)) {
        return "FIFO";
    }
    if (S_ISSOCK(mode)) {
        return "socket";
    }
    if (S_ISREG(mode) || S_ISDIR(mode) || S_ISLNK(mode)) {
        return "";
    }
    return "member of unknown kind";
}

}  // namespace

bool PMSPayloadVet(const std::string& tgz, unsigned long long limit, unsigned long long& total,
                   std::string& why) {
    total = 0;
    if (!ZARNIsRegularFile(tgz)) {
        why = "no payload file " + tgz;
        ZLOGERR("Refused payload %s: %s", tgz.c_str(), why.c_str());
        return false;
    }
    PMSPayloadRead read;
    const bool ok = PMSReadPayload(tgz, 0, ~0ULL, false, limit, read, why) &&
                    PMSTarVetMembers(read.members, why, true);
    total = read.total;
    if (!ok) {
        ZLOGERR("Refused payload %s: %s", tgz.c_str(), why.c_str());
    }
    return ok;
}

namespace {

// The last QAR whose payload was read, as the file was then: the file check, the payload check
// and the author's check of one file share a single read.
struct QarPayloadRead {
    std::string file;
    struct stat st = {};
    bool ok = false;
    std::string why;
    PMSPayloadRead read;
};

std::mutex g_lastLock;
QarPayloadRead g_last;

bool SameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

int PMSQarPayloadRead(const std::string& file, PMSPayloadRead& read, std::string& why) {
    struct stat st;
    if (!ZARNStat(file, st)) {
        why = "the package file can't be read";
        return -1;
    }
    {
        std::lock_guard<std::mutex> hold(g_lastLock);
        if (g_last.file == file && SameFile(g_last.st, st)) {
            read = g_last.read;
            why = g_last.why;
            return g_last.ok ? 1 : -1;
        }
    }
    std::vector<TarMember> members;
    if (PMSTarScan(file, members, why) != TarScanStatus::Ok) {
        return -1;
    }
    const TarMember* tgz = PMSTarFindMember(members, "package.tgz");
    if (tgz == nullptr) {
        return 0;
    }
    if (tgz->type != '0' && tgz->type != '7') {
        why = "the payload can't be read";
        return -1;
    }
    why.clear();
    const bool ok = PMSReadPayload(file, tgz->dataOffset, tgz->size, true, ~0ULL, read, why);
    // A read that a stop request cut short says nothing about the file.
    if (ZARNStopSignal() == 0) {
        std::lock_guard<std::mutex> hold(g_lastLock);
        g_last = {file, st, ok, why, read};
    }
    return ok ? 1 : -1;
}

bool PMSQarPayloadVet(const std::string& file, std::string& why) {
    std::vector<TarMember> members;
    if (!PMSQarListVetted(file, members, why)) {
        return false;
    }
    if (PMSTarFindMember(members, "package.tgz") == nullptr) {
        return true;
    }
    PMSPayloadRead read;
    const bool ok =
        PMSQarPayloadRead(file, read, why) > 0 && PMSTarVetMembers(read.members, why, true);
    if (!ok) {
        if (why.empty()) {
            why = "the payload can't be read";
        }
        ZLOGERR("Refused payload %s: %s", file.c_str(), why.c_str());
    }
    return ok;
}

bool PMSVetUnpackedPackage(const std::string& extractDir, std::string& why) {
    why.clear();
    const std::map<std::string, mode_t> toolBits = ToolSetIdBits(extractDir);
    // Each file with more than one name: when fewer of its names lie in the folder than it
    // has, the others lie outside.
    struct Shared {
        nlink_t links = 0;
        nlink_t seen = 0;
        std::string name;
    };
    std::map<std::pair<dev_t, ino_t>, Shared> shared;
    // Cleared only once no name of the file can lie outside, so no bits change out there.
    struct Clear {
        std::string rel;
        struct stat st;
        mode_t bits;
    };
    std::vector<Clear> toClear;
    const bool walked =
        ZARNWalkTree(extractDir, [&](const std::string& rel, const struct stat& st) {
            const std::string kind = ForeignKind(st.st_mode);
            if (!kind.empty()) {
                why = rel + ": " + kind;
                return false;
            }
            if (!S_ISREG(st.st_mode)) {
                return true;
            }
            if (st.st_nlink > 1) {
                Shared& file = shared[std::make_pair(st.st_dev, st.st_ino)];
                file.links = st.st_nlink;
                file.name = rel;
                ++file.seen;
            }
            auto tool = toolBits.find(rel);
            const mode_t clear = st.st_mode & 06000 & ~(tool == toolBits.end() ? 0 : tool->second);
            if (clear != 0) {
                toClear.push_back({rel, st, clear});
            }
            return true;
        });
    if (walked) {
        for (const auto& file : shared) {
            if (file.second.seen < file.second.links) {
                why = file.second.name + ": hard link to a file outside the package";
                break;
            }
        }
        for (const Clear& c : toClear) {
            if (why.empty() && !ClearModeBits(extractDir + "/" + c.rel, c.st, c.bits)) {
                why = c.rel + ": its set-ID bits can't be cleared";
            }
        }
    } else if (why.empty()) {
        why = "the folder can't be walked (" + std::string(strerror(errno)) + ")";
    }
    if (!why.empty()) {
        ZLOGERR("Refused package member %s in %s", why.c_str(), extractDir.c_str());
        return false;
    }
    return true;
}

}  // namespace ZARNPackageTool
