#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/export.h"

// Volumes of the standalone host. Every directory /volumeN (N >= 1) of the system root is a
// volume. Free space comes from statfs on the physical folder; the state that a real host keeps
// in its storage manager (writable, generic, created, crashed, a space cap) comes from
// /etc/zarnhost/volumes.json:
//
//   {"dock_host": false,
//    "volumes": [{"path": "/volume1", "writable": true, "generic": true, "created": true,
//                 "crashed": false, "space_cap": 1048576}],
//    "space_caps": {"/": 1048576, "/tmp": 1048576}}
//
// A volume without an entry is writable, generic, created and not crashed. A space cap (bytes)
// limits the free space reported for the volume or for the place named in "space_caps", so that
// tests can make a place "full" without filling a disk.

constexpr const char* ZARN_VOLUMES_CONF = "/etc/zarnhost/volumes.json";

// Library error numbers of the volume services.
enum ZARNVolumeErrorCode : int {
    ZARN_ERR_VOL_UNKNOWN = 0x0600,  // volume unknown to the mount table
    ZARN_ERR_MKDIR = 0x0c00,        // folder could not be made
    ZARN_ERR_ERRNO_OTHER = 0x8100,  // an errno beyond the mapping table
    ZARN_ERR_NO_VOLUME = 0x8300,
    ZARN_ERR_VOL_READONLY = 0x8400,
    ZARN_ERR_NO_GENERIC_VOLUME = 0xd900,
    ZARN_ERR_VOL_CREATING = 0xdd00,
};

// Attribute bits of ZARNVolumeAttributeGet.
constexpr unsigned int ZARN_VOL_ATTR_GENERIC = 0x1;
constexpr unsigned int ZARN_VOL_ATTR_WRITABLE = 0x2;
constexpr unsigned int ZARN_VOL_ATTR_CREATED = 0x4;
constexpr unsigned int ZARN_VOL_ATTR_CRASHED = 0x8;

// Kinds of ZARNMountVolAllEnum: a mask. The standalone host's volumes are all internal.
constexpr int ZARN_VOL_KIND_INTERNAL = 0x1;
constexpr int ZARN_VOL_KIND_EXTERNAL = 0x2;
// Flag of ZARNMountVolAllEnum and mode of VolumeAvailGet: take every volume, not only the
// generic ones that are created.
constexpr int ZARN_VOL_ENUM_ALL = 0x2;

// Status bits that VolumeAvailGet leaves when it returns 0.
constexpr unsigned int ZARN_VOL_AVAIL_HAS_VOLUME = 0x1;  // some candidate volume exists
constexpr unsigned int ZARN_VOL_AVAIL_NO_SPACE = 0x4;    // volumes exist, none with room

struct ZARNMountVolInfo {
    int id = 0;        // N of /volumeN; 0 is no volume
    std::string path;  // logical mount path, "/volume1"
    int kind = ZARN_VOL_KIND_INTERNAL;
    bool writable = false;
    bool generic = false;
    bool created = false;
    bool crashed = false;
    unsigned long long freeBytes = 0;  // available to an ordinary user, after the cap
    unsigned long long totalBytes = 0;
};

// Mount information of the volume that holds `path` (a volume path or a path inside one).
// 0 on success; -1 with library error 0x0d00 (bad path) or 0x600 (no such volume).
ZARNHOST_API int ZARNMountVolInfoGet(const char* path, ZARNMountVolInfo* info);
// Releases what ZARNMountVolInfoGet filled in (nothing is heap-held; the record is reset).
ZARNHOST_API void ZARNMountVolInfoFree(ZARNMountVolInfo* info);

// Picks the first volume (lowest N) that is writable, created, not crashed and has at least
// `size` bytes free; mode 0 looks at generic volumes only, ZARN_VOL_ENUM_ALL at all volumes.
// Returns the volume's id (> 0) with `info` filled. Returns 0 when none fits: `status` tells
// why (ZARN_VOL_AVAIL_*), and `info` holds the first candidate, if any (a volume still being
// created shows there with created false). Returns -1 when the volumes can't be read or all
// candidates are read-only or crashed (library error set).
ZARNHOST_API int VolumeAvailGet(unsigned long long size, ZARNMountVolInfo* info,
                                unsigned int* status, int mode);

// Reduces a path to its volume ("/volume3/a/b" -> "/volume3"), by its text alone.
// 0 on success, -1 with library error 0x0d00 when it isn't under /volumeN.
ZARNHOST_API int VolumePathParse(const char* path, std::string& volume);
// As VolumePathParse, after following links inside the root; the volume must exist
// (else -1 with 0x600).
ZARNHOST_API int VolumePathParseEx(const char* path, std::string& volume);

// The temp folder of a volume, "<volume>/@tmp", written into `buf`. 0 or -1.
ZARNHOST_API int ZARNShareTmpPathGet(const char* volume, char* buf, size_t size);

// Attribute bits (ZARN_VOL_ATTR_*) of the volume that holds `path`. 0 or -1.
ZARNHOST_API int ZARNVolumeAttributeGet(const char* path, unsigned int* attr);

// Lists volumes of the kinds in the mask `kind`; without ZARN_VOL_ENUM_ALL in `flags` only
// generic volumes that are created. `owner` is unused on this host. Returns the count or -1.
ZARNHOST_API int ZARNMountVolAllEnum(int owner, int kind, int flags,
                                     std::vector<ZARNMountVolInfo>& out);

// A dock-type host has a single fixed volume, /volume1 ("dock_host" in volumes.json).
ZARNHOST_API bool VLIBCIsDockHost();

// File system state of a volume.
constexpr unsigned int ZARN_FS_STATUS_NOT_WORKING = 1u << 2;  // crashed or unreadable
struct ZARNFSInfo {
    std::string volume;
    unsigned int status = 0;  // ZARN_FS_STATUS_* bits
    unsigned long long freeBytes = 0;
    unsigned long long totalBytes = 0;
};
// 1 with `info` filled for a volume that exists; 0 for no such volume; -1 on bad arguments.
ZARNHOST_API int FSInfoGet(const char* volume, ZARNFSInfo* info);
ZARNHOST_API void FSInfoFree(ZARNFSInfo* info);

// statfs of the file system that holds a logical path, with the space caps of volumes.json
// applied (a capped place reports a block size of 1). false with errno set on failure.
struct ZARNStatfsInfo {
    unsigned long long blockSize = 0;
    unsigned long long availBlocks = 0;  // for ordinary users
    unsigned long long freeBlocks = 0;   // including reserved blocks
};
ZARNHOST_API bool ZARNStatfs(const std::string& path, ZARNStatfsInfo& out);

// Makes /volume1 .. /volumeN and lists each in volumes.json as writable, generic and created,
// keeping the entries and settings that are there already (host-init).
ZARNHOST_API bool ZARNHostVolumesInit(int count, std::string& error);
