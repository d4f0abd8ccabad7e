#include "package/payload_vet.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "core/paths.h"
#include "package/archive.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/scope_guard.h"
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
    // The decompressed stream is read here and never written anywhere: closing the pipe stops
    // the decompressor as soon as the sizes go beyond the limit.
    ZARNUtils::ProcessRunner runner(
        {ZARNMachineProgram("/bin/gzip"), "-dc", "--", PMSProgramPath(tgz)});
    const int stream = runner.startReading();
    if (stream < 0) {
        why = "the decompressor did not start";
        ZLOGERR("Refused payload %s: %s", tgz.c_str(), why.c_str());
        return false;
    }
    std::vector<TarMember> members;
    TarScanStatus st =
        PMSTarScanStream(stream, members, why, [&](const TarMember& m, std::string& reason) {
            total += m.size;
            if (total > limit) {
                reason = "payload unpacks to more than " + std::to_string(limit) + " bytes";
                return false;
            }
            return true;
        });
    if (st == TarScanStatus::Ok) {
        // Block padding follows the end of the archive; a lot more is something else.
        char buf[16384];
        size_t trailing = 0;
        ssize_t n;
        while ((n = read(stream, buf, sizeof(buf))) != 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0 || (trailing += static_cast<size_t>(n)) > 1024 * 1024) {
                st = TarScanStatus::BadHeader;
                why = "data after the end of the payload archive";
                break;
            }
        }
    }
    const int rc = runner.finish();
    if (st != TarScanStatus::Ok) {
        ZLOGERR("Refused payload %s: %s", tgz.c_str(), why.c_str());
        return false;
    }
    if (rc != 0) {
        why = "the payload is no gzip stream";
        ZLOGERR("Refused payload %s: %s", tgz.c_str(), why.c_str());
        return false;
    }
    if (!PMSTarVetMembers(members, why, true)) {
        ZLOGERR("Refused payload %s: %s", tgz.c_str(), why.c_str());
        return false;
    }
    return true;
}

bool PMSWithQarPayload(const std::string& file, const std::vector<TarMember>& members,
                       const std::function<bool(const std::string& tgz)>& use) {
    const TarMember* tgz = PMSTarFindMember(members, "package.tgz");
    if (tgz == nullptr || (tgz->type != '0' && tgz->type != '7')) {
        ZLOGERR("No payload package.tgz in %s", file.c_str());
        return false;
    }
    const std::string tmp = PMSMakeTmpDir("pkgpayload");
    if (tmp.empty()) {
        ZLOGERR("Failed to generate temp filename");
        return false;
    }
    ZARN_SCOPE_EXIT {
        ZARNRemoveTree(tmp);
    };
    std::string command, out, err;
    if (PMSQarExtract(file, members, {"package.tgz"}, tmp, tgz->size, command, out, err) != 0) {
        ZLOGERR("Failed to extract the package.tgz of %s: %s", file.c_str(), err.c_str());
        return false;
    }
    return use(tmp + "/package.tgz");
}

bool PMSQarPayloadVet(const std::string& file, std::string& why) {
    std::vector<TarMember> members;
    if (!PMSQarListVetted(file, members, why)) {
        return false;
    }
    if (PMSTarFindMember(members, "package.tgz") == nullptr) {
        return true;
    }
    unsigned long long total = 0;
    const bool ok = PMSWithQarPayload(file, members, [&](const std::string& tgz) {
        return PMSPayloadVet(tgz, ~0ULL, total, why);
    });
    if (!ok && why.empty()) {
        why = "the payload can't be read";
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
