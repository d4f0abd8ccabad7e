#include "platform/volumes.h"

#include <sys/statfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "platform/errors.h"
#include "platform/filecache.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/rootat.h"

namespace {

// What the storage manager of a real host would know about one volume.
struct VolumeConf {
    bool writable = true;
    bool generic = true;
    bool created = true;
    bool crashed = false;
    bool hasCap = false;
    unsigned long long cap = 0;
};

struct HostVolumeConf {
    bool dockHost = false;
    std::map<std::string, VolumeConf> volumes;
    std::map<std::string, unsigned long long> caps;  // place -> bytes, volumes included
};

bool ReadCap(const Json::Value& value, unsigned long long& out) {
    if (value.isUInt64()) {
        out = value.asUInt64();
        return true;
    }
    // Beyond 2^64 a double has no integer to turn into: such a cap is no cap.
    if (value.isNumeric() && value.asDouble() >= 0 && value.asDouble() < 18446744073709551616.0) {
        out = static_cast<unsigned long long>(value.asDouble());
        return true;
    }
    return false;
}

// The file is written by hand too: a flag of another type keeps its default.
bool ReadFlag(const Json::Value& object, const char* key, bool def) {
    const Json::Value& v = object[key];
    return v.isBool() ? v.asBool() : def;
}

// False, after a warning, when the file is there but unreadable: the volumes take their defaults.
bool ParseConf(HostVolumeConf& conf) {
    conf = HostVolumeConf();
    if (!IsFileExists(ZARN_VOLUMES_CONF)) {
        return true;
    }
    Json::Value root;
    if (!Json::fromFile(root, ZARN_VOLUMES_CONF) || !root.isObject()) {
        ZLOGWARN("Failed to read %s, volumes take their defaults", ZARN_VOLUMES_CONF);
        conf = HostVolumeConf();
        return false;
    }
    conf.dockHost = ReadFlag(root, "dock_host", false);
    const Json::Value& volumes = root["volumes"];
    if (volumes.isArray()) {
        for (const Json::Value& entry : volumes) {
            if (!entry.isObject() || !entry["path"].isString()) {
                continue;
            }
            VolumeConf vol;
            vol.writable = ReadFlag(entry, "writable", true);
            vol.generic = ReadFlag(entry, "generic", true);
            vol.created = ReadFlag(entry, "created", true);
            vol.crashed = ReadFlag(entry, "crashed", false);
            vol.hasCap = entry.isMember("space_cap") && ReadCap(entry["space_cap"], vol.cap);
            const std::string path = entry["path"].asString();
            if (vol.hasCap) {
                conf.caps[path] = vol.cap;
            }
            conf.volumes[path] = vol;
        }
    }
    const Json::Value& caps = root["space_caps"];
    if (caps.isObject()) {
        for (const std::string& place : caps.getMemberNames()) {
            unsigned long long cap = 0;
            if (ReadCap(caps[place], cap)) {
                conf.caps[place] = cap;
            }
        }
    }
    return true;
}

// Kept while the file is unchanged: a listing asks once per package, and the host's tools and
// tests change the file between calls.
HostVolumeConf LoadConf() {
    static ZARNFileCache<HostVolumeConf> cache;
    HostVolumeConf conf;
    cache.get(ZARN_VOLUMES_CONF, conf, ParseConf);
    return conf;
}

// "/volumeN" followed by the end or "/": the volume and N; false for anything else.
bool ParseVolumeText(const std::string& path, std::string& volume, int& id) {
    static const std::string prefix = "/volume";
    if (path.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    size_t end = prefix.size();
    while (end < path.size() && path[end] >= '0' && path[end] <= '9') {
        ++end;
    }
    if (end == prefix.size() || path[prefix.size()] == '0' || end - prefix.size() > 6) {
        return false;
    }
    if (end < path.size() && path[end] != '/') {
        return false;
    }
    volume = path.substr(0, end);
    id = std::stoi(path.substr(prefix.size(), end - prefix.size()));
    return true;
}

// The cap of the longest place that holds `path`, if any.
bool FindCap(const HostVolumeConf& conf, const std::string& path, unsigned long long& cap) {
    size_t best = 0;
    bool found = false;
    for (const auto& entry : conf.caps) {
        const std::string& place = entry.first;
        bool holds = place == "/" || path == place ||
                     (path.compare(0, place.size(), place) == 0 && path.size() > place.size() &&
                      path[place.size()] == '/');
        if (holds && (!found || place.size() > best)) {
            best = place.size();
            cap = entry.second;
            found = true;
        }
    }
    return found;
}

bool StatfsWithConf(const HostVolumeConf& conf, const std::string& path, ZARNStatfsInfo& out,
                    unsigned long long* totalBytes) {
    struct statfs st;
    const Fd fd = ZARNOpenInRoot(path, O_PATH);
    if (!fd.valid() || fstatfs(fd.get(), &st) != 0) {
        return false;
    }
    const unsigned long long bsize = static_cast<unsigned long long>(st.f_bsize);
    out.blockSize = bsize;
    out.availBlocks = st.f_bavail;
    out.freeBlocks = st.f_bfree;
    unsigned long long total = bsize * static_cast<unsigned long long>(st.f_blocks);
    unsigned long long cap = 0;
    if (FindCap(conf, path, cap)) {
        out.blockSize = 1;
        out.availBlocks = std::min(bsize * static_cast<unsigned long long>(st.f_bavail), cap);
        out.freeBlocks = std::min(bsize * static_cast<unsigned long long>(st.f_bfree), cap);
        total = std::min(total, cap);
    }
    if (totalBytes != nullptr) {
        *totalBytes = total;
    }
    return true;
}

// The volumes of the root, by N. A missing or unreadable root gives false.
bool ListVolumes(std::vector<std::pair<int, std::string>>& out) {
    out.clear();
    std::vector<ZARNDirEntry> entries;
    if (!ZARNListDir("/", entries)) {
        return false;
    }
    for (const ZARNDirEntry& entry : entries) {
        std::string volume;
        int id = 0;
        const std::string path = "/" + entry.name;
        if (ParseVolumeText(path, volume, id) && volume == path && ZARNIsDir(path)) {
            out.emplace_back(id, path);
        }
    }
    std::sort(out.begin(), out.end());
    return true;
}

void FillInfo(const HostVolumeConf& conf, int id, const std::string& volume,
              ZARNMountVolInfo& info) {
    VolumeConf vol;
    auto it = conf.volumes.find(volume);
    if (it != conf.volumes.end()) {
        vol = it->second;
    }
    info = ZARNMountVolInfo();
    info.id = id;
    info.path = volume;
    info.kind = ZARN_VOL_KIND_INTERNAL;
    info.generic = vol.generic;
    info.created = vol.created;
    info.crashed = vol.crashed;
    // A crashed volume is mounted read-only.
    info.writable = vol.writable && !vol.crashed;
    ZARNStatfsInfo st;
    unsigned long long total = 0;
    if (StatfsWithConf(conf, volume, st, &total)) {
        info.freeBytes = st.availBlocks * st.blockSize;
        info.totalBytes = total;
    }
}

bool Usable(const ZARNMountVolInfo& info) {
    return info.writable && info.created && !info.crashed;
}

}  // namespace

int ZARNMountVolInfoGet(const char* path, ZARNMountVolInfo* info) {
    if (path == nullptr || info == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    std::string volume;
    int id = 0;
    if (!ParseVolumeText(path, volume, id)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    if (!ZARNIsDir(volume)) {
        VLIBCErrSet(ZARN_ERR_VOL_UNKNOWN);
        return -1;
    }
    FillInfo(LoadConf(), id, volume, *info);
    return 0;
}

void ZARNMountVolInfoFree(ZARNMountVolInfo* info) {
    if (info != nullptr) {
        *info = ZARNMountVolInfo();
    }
}

int VolumeAvailGet(unsigned long long size, ZARNMountVolInfo* info, unsigned int* status,
                   int mode) {
    if (info == nullptr || status == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    *status = 0;
    *info = ZARNMountVolInfo();
    std::vector<std::pair<int, std::string>> volumes;
    if (!ListVolumes(volumes)) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    const HostVolumeConf conf = LoadConf();
    std::vector<ZARNMountVolInfo> candidates;
    for (const auto& volume : volumes) {
        ZARNMountVolInfo candidate;
        FillInfo(conf, volume.first, volume.second, candidate);
        if ((mode & ZARN_VOL_ENUM_ALL) != 0 || candidate.generic) {
            candidates.push_back(candidate);
        }
    }
    if (candidates.empty()) {
        return 0;
    }
    *status |= ZARN_VOL_AVAIL_HAS_VOLUME;
    const ZARNMountVolInfo* firstUsable = nullptr;
    const ZARNMountVolInfo* firstCreating = nullptr;
    for (const ZARNMountVolInfo& candidate : candidates) {
        if (Usable(candidate)) {
            if (candidate.freeBytes >= size) {
                *info = candidate;
                return candidate.id;
            }
            if (firstUsable == nullptr) {
                firstUsable = &candidate;
            }
        } else if (!candidate.created && firstCreating == nullptr) {
            firstCreating = &candidate;
        }
    }
    if (firstUsable != nullptr) {
        *status |= ZARN_VOL_AVAIL_NO_SPACE;
        *info = *firstUsable;
        return 0;
    }
    if (firstCreating != nullptr) {
        *info = *firstCreating;
        return 0;
    }
    // Every candidate is read-only or crashed.
    VLIBCErrSet(ZARN_ERR_VOL_READONLY);
    return -1;
}

int VolumePathParse(const char* path, std::string& volume) {
    int id = 0;
    std::string found;
    if (path == nullptr || !ParseVolumeText(path, found, id)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    volume = found;
    return 0;
}

int VolumePathParseEx(const char* path, std::string& volume) {
    if (path == nullptr || path[0] != '/') {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    // Follow links so that a path that reaches a volume through one is told by where it lands.
    std::string current = path;
    for (int hops = 0; hops < 40 && ZARNIsSymlink(current); ++hops) {
        std::string target;
        if (!ZARNReadLink(current, target)) {
            break;
        }
        if (target.empty() || target[0] != '/') {
            size_t slash = current.find_last_of('/');
            target = current.substr(0, slash + 1) + target;
        }
        current = target;
    }
    std::string found;
    if (VolumePathParse(current.c_str(), found) != 0) {
        return -1;
    }
    if (!ZARNIsDir(found)) {
        VLIBCErrSet(ZARN_ERR_VOL_UNKNOWN);
        return -1;
    }
    volume = found;
    return 0;
}

int ZARNShareTmpPathGet(const char* volume, char* buf, size_t size) {
    std::string found;
    if (buf == nullptr || size == 0 || VolumePathParse(volume, found) != 0) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    int n = snprintf(buf, size, "%s/@tmp", found.c_str());
    if (n < 0 || static_cast<size_t>(n) >= size) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    return 0;
}

int ZARNVolumeAttributeGet(const char* path, unsigned int* attr) {
    if (attr == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    ZARNMountVolInfo info;
    if (ZARNMountVolInfoGet(path, &info) != 0) {
        return -1;
    }
    *attr = (info.generic ? ZARN_VOL_ATTR_GENERIC : 0) |
            (info.writable ? ZARN_VOL_ATTR_WRITABLE : 0) |
            (info.created ? ZARN_VOL_ATTR_CREATED : 0) | (info.crashed ? ZARN_VOL_ATTR_CRASHED : 0);
    return 0;
}

int ZARNMountVolAllEnum(int owner, int kind, int flags, std::vector<ZARNMountVolInfo>& out) {
    (void)owner;
    out.clear();
    std::vector<std::pair<int, std::string>> volumes;
    if (!ListVolumes(volumes)) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    if ((kind & ZARN_VOL_KIND_INTERNAL) == 0) {
        return 0;
    }
    const HostVolumeConf conf = LoadConf();
    for (const auto& volume : volumes) {
        ZARNMountVolInfo info;
        FillInfo(conf, volume.first, volume.second, info);
        if ((flags & ZARN_VOL_ENUM_ALL) == 0 && !(info.generic && info.created)) {
            continue;
        }
        out.push_back(info);
    }
    return static_cast<int>(out.size());
}

bool VLIBCIsDockHost() {
    return LoadConf().dockHost;
}

int FSInfoGet(const char* volume, ZARNFSInfo* info) {
    std::string found;
    int id = 0;
    if (volume == nullptr || info == nullptr || !ParseVolumeText(volume, found, id)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    *info = ZARNFSInfo();
    if (!ZARNIsDir(found)) {
        VLIBCErrSet(ZARN_ERR_VOL_UNKNOWN);
        return 0;
    }
    const HostVolumeConf conf = LoadConf();
    info->volume = found;
    auto it = conf.volumes.find(found);
    if (it != conf.volumes.end() && it->second.crashed) {
        info->status |= ZARN_FS_STATUS_NOT_WORKING;
    }
    ZARNStatfsInfo st;
    unsigned long long total = 0;
    if (StatfsWithConf(conf, found, st, &total)) {
        info->freeBytes = st.availBlocks * st.blockSize;
        info->totalBytes = total;
    } else {
        info->status |= ZARN_FS_STATUS_NOT_WORKING;
    }
    return 1;
}

void FSInfoFree(ZARNFSInfo* info) {
    if (info != nullptr) {
        *info = ZARNFSInfo();
    }
}

bool ZARNStatfs(const std::string& path, ZARNStatfsInfo& out) {
    if (path.empty() || path[0] != '/') {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        errno = EINVAL;
        return false;
    }
    if (!StatfsWithConf(LoadConf(), path, out, nullptr)) {
        int saved = errno;
        VLIBCErrSet(saved == ENOENT ? ZARN_ERR_NO_FILE : ZARN_ERR_IO);
        errno = saved;
        return false;
    }
    return true;
}

namespace {

bool HostVolumesInit(int count, std::string& error) {
    if (count < 1) {
        error = "a host needs at least one volume";
        return false;
    }
    Json::Value root(Json::objectValue);
    if (IsFileExists(ZARN_VOLUMES_CONF) &&
        (!Json::fromFile(root, ZARN_VOLUMES_CONF) || !root.isObject())) {
        error = std::string("cannot read ") + ZARN_VOLUMES_CONF;
        return false;
    }
    bool changed = !root.isMember("volumes");
    if (!root.isMember("dock_host")) {
        root["dock_host"] = false;
        changed = true;
    }
    if (!root.isMember("space_caps")) {
        root["space_caps"] = Json::Value(Json::objectValue);
        changed = true;
    }
    Json::Value& volumes = root["volumes"];
    if (!volumes.isArray()) {
        volumes = Json::Value(Json::arrayValue);
        changed = true;
    }
    for (int n = 1; n <= count; ++n) {
        const std::string path = "/volume" + std::to_string(n);
        if (ZARNFSMkdirP(path, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) != 0) {
            error = "cannot create " + path + ": " + strerror(errno);
            return false;
        }
        // A volume's shared temporary folder, as the system keeps it: packages' own folders
        // below it are private, but every account must be able to reach them.
        const std::string tmp = path + "/@tmp";
        if (ZARNFSMkdirP(tmp, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 01777) != 0) {
            error = "cannot create " + tmp + ": " + strerror(errno);
            return false;
        }
        bool listed = false;
        for (const Json::Value& entry : volumes) {
            listed = listed || (entry.isObject() && entry["path"].isString() &&
                                entry["path"].asString() == path);
        }
        if (!listed) {
            Json::Value entry(Json::objectValue);
            entry["path"] = path;
            entry["writable"] = true;
            entry["generic"] = true;
            entry["created"] = true;
            entry["crashed"] = false;
            volumes.append(entry);
            changed = true;
        }
    }
    if (changed && !Json::toFile(root, ZARN_VOLUMES_CONF)) {
        error = std::string("cannot write ") + ZARN_VOLUMES_CONF + ": " + strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

bool ZARNHostVolumesInit(int count, std::string& error) {
    error.clear();
    if (!HostVolumesInit(count, error)) {
        ZLOGERR("Failed to prepare the volumes of the host: %s", error.c_str());
        return false;
    }
    return true;
}
