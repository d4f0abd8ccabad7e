#pragma once

#include <json/json.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {

// Operator of a version constraint; a value above 5 behaves as 0.
enum PKG_VERSION_COMPOP : int {
    PKG_VER_ANY = 0,
    PKG_VER_EQ = 1,
    PKG_VER_GT = 2,
    PKG_VER_LT = 3,
    PKG_VER_GE = 4,
    PKG_VER_LE = 5,
};

// A set of architecture identifiers, kept sorted in one block: every loaded record holds one
// or two, and a tree would cost a node per member to build, hold and free.
class ZARNPKG_API ArchIdSet {
public:
    ArchIdSet() = default;
    ArchIdSet(std::initializer_list<unsigned long> ids);
    void insert(unsigned long id);
    template <typename It>
    void insert(It first, It last) {
        ids_.insert(ids_.end(), first, last);
        std::sort(ids_.begin(), ids_.end());
        ids_.erase(std::unique(ids_.begin(), ids_.end()), ids_.end());
    }
    size_t count(unsigned long id) const;
    bool empty() const { return ids_.empty(); }
    size_t size() const { return ids_.size(); }
    std::vector<unsigned long>::const_iterator begin() const { return ids_.begin(); }
    std::vector<unsigned long>::const_iterator end() const { return ids_.end(); }
    bool operator==(const ArchIdSet& other) const { return ids_ == other.ids_; }
    bool operator!=(const ArchIdSet& other) const { return ids_ != other.ids_; }

private:
    std::vector<unsigned long> ids_;
};

struct PackageBasicInfoExtraPrivate {};

// Kept for later growth; a copy always starts empty.
class ZARNPKG_API PackageBasicInfoExtra {
public:
    PackageBasicInfoExtra();
    PackageBasicInfoExtra(const PackageBasicInfoExtra&);
    PackageBasicInfoExtra& operator=(const PackageBasicInfoExtra&);
    ~PackageBasicInfoExtra();

private:
    PackageBasicInfoExtraPrivate* d_;
};

// A package name with a version and how to compare it.
class ZARNPKG_API PackageBasicInfo {
public:
    PackageBasicInfo();
    PackageBasicInfo(std::string name, std::string version);

    // True when this record stands in relation `op` to `other`; false when the names differ.
    bool compare(const PackageBasicInfo& other, PKG_VERSION_COMPOP op) const;

    std::string name;
    std::string version;
    PKG_VERSION_COMPOP op = PKG_VER_ANY;
    bool beta = false;
    PackageBasicInfoExtra extra;
};

// A list of dependency constraints.
class ZARNPKG_API DepPkgVector : public std::vector<PackageBasicInfo> {
public:
    // Appends a constraint; a dependency on "Python" is dropped on purpose and gives false.
    bool pushDepPkg(const std::string& name, const std::string& version, PKG_VERSION_COMPOP op);
    // Null for an empty list; else {name: ""} or {name: {operator text: version}}.
    void toJSON(Json::Value& out) const;
};

class ZARNPKG_API PackageBasicInfoMap : public std::map<std::string, PackageBasicInfo> {
public:
    // Inserts unless the name is present: the first record stays.
    void insertPackagae(const std::string& name, const std::string& version, bool beta,
                        PKG_VERSION_COMPOP op);
};

struct PackageInfoExtraPrivate;

// The extended part of a record. A copy carries everything but the excluded models and the
// deprecated replace mechanism flag, which take their defaults.
class ZARNPKG_API PackageInfoExtra {
public:
    PackageInfoExtra();
    PackageInfoExtra(const PackageInfoExtra& other);
    PackageInfoExtra& operator=(const PackageInfoExtra& other);
    ~PackageInfoExtra();

    void copy(const PackageInfoExtra& other);
    // Gives the record the state that a copy of it has (containers of records hold copies).
    void dropUncopiedFields();
    PackageInfoExtraPrivate* get() { return d_; }
    const PackageInfoExtraPrivate* get() const { return d_; }

private:
    PackageInfoExtraPrivate* d_;
};

struct OSVersionNumbers {
    int major = 0;
    int minor = 0;
    int build = 0;
};

// Everything the system knows of a package. Field names follow the INFO keys.
struct ZARNPKG_API PackageInfo {
    std::string name;
    std::string version;
    std::string description;
    std::string description_enu;
    std::string maintainer;
    std::string maintainer_url;
    std::string distributor;
    std::string distributor_url;
    std::string adminurl;
    std::string displayname;
    std::string license;
    std::string kosuidir;
    std::string kosappname;
    std::string helpurl;
    std::string checksum;
    std::string package_icon;
    std::string package_icon_256;
    std::string report_url;
    bool beta = false;
    bool support_center = false;
    std::string support_url;
    std::vector<std::string> adminprotocol;
    unsigned int instuninst_restart_services = 0;
    unsigned int startstop_restart_services = 0;
    unsigned int install_dep_services = 0;
    unsigned int start_dep_services = 0;
    unsigned int adminport = 0;
    unsigned int script_mask = 0;
    bool checkport = true;
    bool startable = true;
    bool install_reboot = false;
    bool has_uninstall_wizard = false;
    std::vector<std::string> arch;
    std::vector<std::string> exclude_arch;
    std::vector<std::string> model;
    OSVersionNumbers firmware;
    DepPkgVector install_dep_packages;
    DepPkgVector install_conflict_packages;
    Json::Value wizard;
    long long extractsize = 0;  // bytes
    bool silent_install = false;
    bool silent_upgrade = false;
    bool silent_uninstall = false;
    std::string install_type;
    std::string link;
    unsigned long long size = 0;
    int type = 0;
    std::string md5;
    PackageInfoExtra extra;
};

struct PackageInfoExtraPrivate {
    bool precheckstartstop = false;
    bool use_deprecated_replace_mechanism = true;
    OSVersionNumbers os_min_ver;
    OSVersionNumbers os_max_ver;
    bool ctl_uninstall = true;
    bool ctl_install = true;
    std::string target_volume;
    std::set<std::string> install_dep_service_set;
    std::set<std::string> start_dep_service_set;
    ArchIdSet arch_ids;
    ArchIdSet exclude_arch_ids;
    std::vector<std::string> exclude_model;
    int os_min_nano = 0;
    int os_max_nano = 99999;
    bool support_move = false;
    bool install_on_cold_storage = false;
    std::string kosapplaunchname;
    DepPkgVector install_break_packages;
    DepPkgVector install_replace_packages;
    DepPkgVector install_replace_force_packages;
};

// Accessors of the extended part.
ZARNPKG_API OSVersionNumbers PMSGetOSMinVer(const PackageInfo& info);
ZARNPKG_API OSVersionNumbers PMSGetOSMaxVer(const PackageInfo& info);
ZARNPKG_API int PMSGetOSMinVerNano(const PackageInfo& info);
ZARNPKG_API int PMSGetOSMaxVerNano(const PackageInfo& info);
ZARNPKG_API bool PMSGetCtlUninstall(const PackageInfo& info);
ZARNPKG_API bool PMSGetSupportMove(const PackageInfo& info);
ZARNPKG_API bool PMSGetIntallOnColdStorage(const PackageInfo& info);
ZARNPKG_API std::string PMSGetAppLaunchName(const PackageInfo& info);
ZARNPKG_API bool PMSGetPrecheckStartStop(const PackageInfo& info);
ZARNPKG_API bool PMSGetUseDeprecatedReplaceMechanism(const PackageInfo& info);
ZARNPKG_API std::string PMSGetTargetVolume(const PackageInfo& info);
ZARNPKG_API const std::vector<std::string>& PMSGetExcludeModels(const PackageInfo& info);

// The enumeration of INFO keys; 33 does not exist.
enum PKG_INFO_TYPE : unsigned long long {
    PKG_INFO_PACKAGE = 0,
    PKG_INFO_VERSION = 1,
    PKG_INFO_DESCRIPTION = 2,
    PKG_INFO_DISPLAYNAME = 3,
    PKG_INFO_MAINTAINER = 4,
    PKG_INFO_DISTRIBUTOR = 5,
    PKG_INFO_ARCH = 6,
    PKG_INFO_EXCLUDE_ARCH = 7,
    PKG_INFO_MODEL = 8,
    PKG_INFO_ADMINPROTOCOL = 9,
    PKG_INFO_ADMINURL = 10,
    PKG_INFO_ADMINPORT = 11,
    PKG_INFO_FIRMWARE = 12,
    PKG_INFO_KOSUIDIR = 13,
    PKG_INFO_KOSAPPNAME = 14,
    PKG_INFO_CHECKPORT = 15,
    PKG_INFO_STARTABLE = 16,
    PKG_INFO_HELPURL = 17,
    PKG_INFO_INSTALL_REBOOT = 18,
    PKG_INFO_INSTALL_DEP_PACKAGES = 19,
    PKG_INFO_INSTALL_DEP_SERVICES = 20,
    PKG_INFO_INSTUNINST_RESTART_SERVICES = 21,
    PKG_INFO_STARTSTOP_RESTART_SERVICES = 22,
    PKG_INFO_START_DEP_SERVICES = 23,
    PKG_INFO_CHECKSUM = 24,
    PKG_INFO_PACKAGE_ICON = 25,
    PKG_INFO_PACKAGE_ICON_256 = 26,
    PKG_INFO_REPORT_URL = 27,
    PKG_INFO_SUPPORT_CENTER = 28,
    PKG_INFO_SUPPORT_URL = 29,
    PKG_INFO_ALLOW_ALTPORT = 30,
    PKG_INFO_EXTRACTSIZE = 31,
    PKG_INFO_INSTALL_CONFLICT_PACKAGES = 32,
    PKG_INFO_DISTRIBUTOR_URL = 34,
    PKG_INFO_MAINTAINER_URL = 35,
    PKG_INFO_SILENT_INSTALL = 36,
    PKG_INFO_SILENT_UPGRADE = 37,
    PKG_INFO_SILENT_UNINSTALL = 38,
    PKG_INFO_INSTALL_TYPE = 39,
    PKG_INFO_PRECHECKSTARTSTOP = 40,
    PKG_INFO_BETA = 41,
    PKG_INFO_OS_MIN_VER = 42,
    PKG_INFO_OS_MAX_VER = 43,
    PKG_INFO_CTL_UNINSTALL = 44,
    PKG_INFO_CTL_STOP = 45,
    PKG_INFO_INSTALL_REPLACE_PACKAGES = 46,
    PKG_INFO_INSTALL_REPLACE_FORCE_PACKAGES = 47,
    PKG_INFO_INSTALL_BREAK_PACKAGES = 48,
    PKG_INFO_SUPPORT_MOVE = 49,
    PKG_INFO_USE_DEPRECATED_REPLACE_MECHANISM = 50,
    PKG_INFO_INSTALL_ON_COLD_STORAGE = 51,
    PKG_INFO_EXCLUDE_MODEL = 52,
    PKG_INFO_KOSAPPLAUNCHNAME = 53,
};

// Key text of each PKG_INFO_TYPE, and the load mask bits that request a key.
ZARNPKG_API extern const std::map<unsigned long long, std::string> g_MappingPKGInfoFields;
ZARNPKG_API extern const std::map<unsigned long long, unsigned long long>
    g_MappingPKGInfoAdditional;

// Load mask bits: each requests the INFO keys that g_MappingPKGInfoAdditional gives it; a key
// without a row there is always read.
constexpr unsigned long long PKG_MASK_DESCRIPTION = 0x1ULL;
constexpr unsigned long long PKG_MASK_DISTRIBUTOR = 0x8ULL;
constexpr unsigned long long PKG_MASK_DISTRIBUTOR_URL = 0x10ULL;
constexpr unsigned long long PKG_MASK_MAINTAINER = 0x20ULL;
constexpr unsigned long long PKG_MASK_MAINTAINER_URL = 0x40ULL;
constexpr unsigned long long PKG_MASK_KOSAPPNAME = 0x80ULL;
constexpr unsigned long long PKG_MASK_HELPURL = 0x100ULL;
constexpr unsigned long long PKG_MASK_BETA = 0x204ULL;
constexpr unsigned long long PKG_MASK_CTL_STOP = 0x400ULL;
constexpr unsigned long long PKG_MASK_SUPPORT_URL = 0x800ULL;
constexpr unsigned long long PKG_MASK_INSTALL_REBOOT = 0x1000ULL;
constexpr unsigned long long PKG_MASK_ADMIN = 0x2000ULL;
constexpr unsigned long long PKG_MASK_SILENT_INSTALL = 0x40000ULL;
constexpr unsigned long long PKG_MASK_SILENT_UPGRADE = 0x80000ULL;
constexpr unsigned long long PKG_MASK_SILENT_UNINSTALL = 0x100000ULL;
constexpr unsigned long long PKG_MASK_INSTALL_TYPE = 0x200000ULL;
constexpr unsigned long long PKG_MASK_SUPPORT_CENTER = 0x800000ULL;
constexpr unsigned long long PKG_MASK_DEP_PACKAGES = 0x1000000ULL;
constexpr unsigned long long PKG_MASK_START_DEP_SERVICES = 0x2000000ULL;
constexpr unsigned long long PKG_MASK_ICONS = 0x8000000ULL;
constexpr unsigned long long PKG_MASK_DISPLAYNAME = 0x10000000ULL;
constexpr unsigned long long PKG_MASK_RESTART_SERVICES = 0x20000000ULL;
constexpr unsigned long long PKG_MASK_INSTALL_DEP_SERVICES = 0x40000000ULL;
// Any bit above 0x7fffffff asks for the conflicts.
constexpr unsigned long long PKG_MASK_CONFLICTS = 0xffffffff80000000ULL;
constexpr unsigned long long PKG_MASK_CTL_UNINSTALL = 0x100000000ULL;
constexpr unsigned long long PKG_MASK_SUPPORT_MOVE = 0x2000000000ULL;
constexpr unsigned long long PKG_MASK_COLD_STORAGE = 0x10000000000ULL;
constexpr unsigned long long PKG_MASK_APPLAUNCHNAME = 0x20000000000ULL;
// Bits that select parsing of a list without selecting a key.
constexpr unsigned long long PKG_MASK_PARSE_BREAK = 0x400000000ULL;
constexpr unsigned long long PKG_MASK_PARSE_REPLACE = 0x800000000ULL;
constexpr unsigned long long PKG_MASK_PARSE_REPLACE_FORCE = 0x8000000000ULL;
constexpr unsigned long long PKG_MASK_ALL = ~0ULL;
// What a scan for the packages that break others reads: their break lists and display names.
constexpr unsigned long long PKG_MASK_BREAKERS = PKG_MASK_PARSE_BREAK | PKG_MASK_DISPLAYNAME;
// What a status query reads of a record, with the keys whose absence or fault refuses a record
// in a full load: a listing loaded this way lists what a full load lists and answers each
// package's status from the record it has.
constexpr unsigned long long PKG_MASK_STATUS = PKG_MASK_CTL_STOP | PKG_MASK_BREAKERS |
                                               PKG_MASK_MAINTAINER | PKG_MASK_DESCRIPTION |
                                               PKG_MASK_ADMIN;

enum PKG_INSTALLATION_TYPE : int {
    PKG_INSTALLATION_NONE = 0,
    PKG_INSTALLATION_INSTALL = 1,
    PKG_INSTALLATION_UPGRADE = 2,
    PKG_INSTALLATION_UNINSTALL = 4,
    PKG_INSTALLATION_START = 8,
    PKG_INSTALLATION_STOP = 16,
    PKG_INSTALLATION_RESTART = 32,
};

// How a start or stop reports its messages: not at all; the workers' messages to the caller as
// the JSON parameter "worker_msg"; or, for an action taken on behalf of another package, the
// package's message file to the administrators as a notification.
enum MSG_TYPE : int {
    MSG_TYPE_NONE = 0,
    MSG_TYPE_WORKER = 1,
    MSG_TYPE_NOTIFY = 2,
};

// Wizard base file name of each installation type.
ZARNPKG_API extern const std::map<int, std::string> UIFileMapping;

// Restart bits of host services: first and second word.
struct RestartServiceBits {
    unsigned int first = 0;
    unsigned int second = 0;
};
ZARNPKG_API extern const std::map<std::string, RestartServiceBits> MappingPKGRestartServices;
// ORs the first word of every known name of a blank-separated list.
ZARNPKG_API unsigned int PMSConvMapRestartService(const char* names);

// What follows a good install: always start the package, leave it stopped, or start it only
// when it ran before the operation.
enum INST_RUN_OPTION : int {
    INST_RUN_START = 0,
    INST_RUN_NO_START = 1,
    INST_RUN_KEEP_RUNNING = 2,
};

// Fills `info` from dir/INFO, dir/conf/PKG_DEPS and dir/conf/PKG_CONX. `lang` may be null.
ZARNPKG_API bool PMSLoadPKGInfoFile(const std::string& dir, PackageInfo& info, const char* lang,
                                    unsigned long long mask);
// Fills `info` from a package server's JSON object.
ZARNPKG_API bool PMSMapJsonToPackageInfo(const Json::Value& data, PackageInfo& info);

// Name check of package names and UI folders.
ZARNPKG_API bool PMSCheckName(const char* name, const char* forbidden);

// The record as a JSON object keyed by INFO key names (the command line's record form).
ZARNPKG_API void PMSPackageInfoToJson(const PackageInfo& info, Json::Value& out);

}  // namespace ZARNPackageTool
