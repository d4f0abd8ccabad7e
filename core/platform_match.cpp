#include <algorithm>
#include <cstring>
#include <map>

#include "core/packagemanager.h"
#include "core/version.h"
#include "platform/errors.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kFactorySettings = "/etc.defaults/zarninfo.conf";

struct ArchName {
    unsigned long id;
    const char* name;
};

const ArchName kArchTable[] = {
    {2, "powerpc"},     {3, "ppc854x"},       {4, "ixp420"},          {5, "ppc853x"},
    {6, "88f5281"},     {7, "88f6281"},       {7, "88f6282"},         {8, "x86"},
    {8, "x64"},         {9, "bromolow"},      {10, "cedarview"},      {11, "qoriq"},
    {12, "armadaxp"},   {13, "armada370"},    {14, "ti816x"},         {15, "evansport"},
    {16, "catalina"},   {17, "avoton"},       {18, "armada375"},      {19, "braswell"},
    {20, "grantley"},   {21, "broadwell"},    {22, "dockerx64"},      {23, "kvmx64"},
    {24, "alpine"},     {25, "alpine4k"},     {26, "apollolake"},     {27, "denverton"},
    {28, "rtd1296"},    {29, "broadwellnk"},  {30, "purley"},         {31, "coffeelake"},
    {32, "armada37xx"}, {33, "broadwellntb"}, {34, "broadwellntbap"}, {35, "nextkvmx64"},
    {36, "geminilake"}, {37, "rtd1619"},      {38, "v1000"},          {39, "kvmcloud"},
    {40, "armada38x"},  {41, "comcerto2k"},   {42, "monaco"},         {1000, "noarch"},
    {1001, "x86_64"},   {1002, "i686"},       {1003, "armv7"},        {1004, "armv5"},
    {1005, "armv8"},    {1006, "ppc"},
};

const std::map<unsigned long, ArchIdSet> kArchGroups = {
    {1000, {1000}},
    {1001, {8, 9, 10, 17, 19, 20, 21, 22, 23, 26, 27, 29, 30, 31, 33, 34, 35, 36, 38, 39}},
    {1002, {15}},
    {1003, {24, 25}},
    {1004, {7}},
    {1005, {28, 32, 37}},
    {1006, {11}},
};

bool ReadUnique(std::string& unique) {
    if (VLIBCFileGetKeyValue(kFactorySettings, "unique", unique, 256) <= 0) {
        ZLOGERR("system unique not found");
        return false;
    }
    return true;
}

// "Is a at least b" of the limit list.
bool AtLeast(const std::string& a, const std::string& b) {
    int sign = 0;
    return PMSVersionSign(a, b, sign) && sign >= 0;
}

std::string JsonText(const Json::Value& v) {
    if (v.isString()) {
        return v.asString();
    }
    if (v.isNumeric() || v.isBool()) {
        return Json::toCompactString(v);
    }
    return "";
}

int CheckLimitArrayOfArrays(const Json::Value& entries, const std::string& version,
                            std::string& limit) {
    const Json::Value& first = entries[0];
    if (first.isArray() && !first.empty()) {
        limit = JsonText(first[first.size() - 1]);
    }
    bool refused = false;
    for (const auto& entry : entries) {
        if (!entry.isArray()) {
            return refused ? -2 : -1;
        }
        if (entry.size() == 1) {
            refused = refused || !AtLeast(version, JsonText(entry[0]));
        } else if (entry.size() == 2) {
            const std::string low = JsonText(entry[0]);
            const std::string high = JsonText(entry[1]);
            refused = refused || (!AtLeast(low, version) && !AtLeast(version, high));
        }
        if (!entry.empty()) {
            const std::string last = JsonText(entry[entry.size() - 1]);
            if (AtLeast(last, limit)) {
                limit = last;
            }
        }
    }
    if (!refused) {
        limit = version;
        return 0;
    }
    return -2;
}

}  // namespace

unsigned long PMSMapSystemArch(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    for (const auto& a : kArchTable) {
        if (std::strcmp(a.name, name) == 0) {
            return a.id;
        }
    }
    return 0;
}

const ArchIdSet& PMSGetArchGroup(unsigned long group) {
    static const ArchIdSet empty;
    auto it = kArchGroups.find(group);
    return it == kArchGroups.end() ? empty : it->second;
}

std::string PMSGetSystemArchString() {
    std::string unique;
    if (!ReadUnique(unique)) {
        return "";
    }
    size_t first = unique.find('_');
    size_t second = first == std::string::npos ? first : unique.find('_', first + 1);
    if (second == std::string::npos) {
        return "";
    }
    return unique.substr(first + 1, second - first - 1);
}

unsigned long PMSGetSystemArch() {
    const std::string arch = PMSGetSystemArchString();
    if (arch.empty()) {
        return PKG_ARCH_UNAVAILABLE;
    }
    unsigned long id = PMSMapSystemArch(arch.c_str());
    return id == 0 ? PKG_ARCH_UNKNOWN : id;
}

void PMSArchSetInsert(const std::vector<std::string>& names, ArchIdSet& out) {
    for (const auto& name : names) {
        unsigned long id = PMSMapSystemArch(name.c_str());
        if (id > 999) {
            const auto& members = PMSGetArchGroup(id);
            out.insert(members.begin(), members.end());
        } else {
            out.insert(id);
        }
    }
}

bool PMSCheckArchMatched(unsigned long arch, const std::vector<std::string>& names,
                         const ArchIdSet& ids) {
    if (ids == PMSGetArchGroup(PKG_ARCH_GROUP_NOARCH)) {
        return true;
    }
    if (arch == PKG_ARCH_UNKNOWN) {
        const std::string system = PMSGetSystemArchString();
        return std::find(names.begin(), names.end(), system) != names.end();
    }
    return ids.count(arch) > 0;
}

bool PMSCheckPackageArchMatched(const PackageInfo& info) {
    unsigned long arch = PMSGetSystemArch();
    if (arch == PKG_ARCH_UNAVAILABLE) {
        ZLOGERR("Failed to get system arch");
        return false;
    }
    const PackageInfoExtraPrivate& x = *info.extra.get();
    if (PMSCheckArchMatched(arch, info.exclude_arch, x.exclude_arch_ids)) {
        return false;
    }
    return PMSCheckArchMatched(arch, info.arch, x.arch_ids);
}

bool PMSCheckPackageArchMatched(const std::vector<std::string>& names) {
    unsigned long arch = PMSGetSystemArch();
    if (arch == PKG_ARCH_UNAVAILABLE) {
        ZLOGERR("Failed to get system arch");
        return false;
    }
    ArchIdSet ids;
    PMSArchSetInsert(names, ids);
    return PMSCheckArchMatched(arch, names, ids);
}

bool PMSCheckPackageModelMatched(const PackageInfo& info) {
    std::string unique;
    if (!ReadUnique(unique)) {
        return false;
    }
    const auto& excluded = info.extra.get()->exclude_model;
    if (std::find(excluded.begin(), excluded.end(), unique) != excluded.end()) {
        return false;
    }
    if (info.model.empty()) {
        return true;
    }
    return std::find(info.model.begin(), info.model.end(), unique) != info.model.end();
}

bool PMSCheckPackageArchModelMatched(const PackageInfo& info) {
    return PMSCheckPackageArchMatched(info) && PMSCheckPackageModelMatched(info);
}

int PMSThirdPartyCheckLimit(const char* name, const char* version, std::string& limit) {
    if (name == nullptr || version == nullptr) {
        ZARNSyslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", __FILE__, __LINE__,
                   name == nullptr ? "name" : "version", 0);
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    std::string value;
    int found = VLIBCFileGetKeyValue(PKG_LIMIT_FILE, name, value, 512);
    if (found < 0 && VLIBCErrGet() == ZARN_ERR_NO_FILE) {
        // A system image without a limit list limits nothing.
        return 0;
    }
    if (found < 0) {
        ZLOGERR("VLIBCFileGetKeyValue() failed, zarnerr=0x%04X", VLIBCErrGet());
        return -1;
    }
    if (found == 0) {
        return 0;
    }
    if (value == "system") {
        return -3;
    }
    if (value == "non") {
        return -4;
    }
    Json::Value parsed;
    if (Json::fromString(parsed, value) && parsed.isArray() && !parsed.empty()) {
        if (parsed[0].isString()) {
            if (parsed.size() < 2 || !parsed[1].isString()) {
                return -1;
            }
            const std::string low = parsed[0].asString();
            const std::string high = parsed[1].asString();
            if (AtLeast(low, version) || AtLeast(version, high)) {
                return 0;
            }
            limit = high;
            return -2;
        }
        if (parsed[0].isArray()) {
            return CheckLimitArrayOfArrays(parsed, version, limit);
        }
    }
    limit = value;
    return AtLeast(version, value) ? 0 : -2;
}

int PMSThirdPartyCheckLimit(const char* name, const char* version) {
    std::string limit;
    return PMSThirdPartyCheckLimit(name, version, limit);
}

bool PMSIsInInstallAllowList(const std::string& name) {
    std::string list;
    if (VLIBCFileGetKeyValue(kFactorySettings, "pkg_install_allow_list", list) <= 0) {
        return false;
    }
    const auto names = PMSExplodeString(list, " \t,");
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool PackageManager::CanPackageStartInThisFirmware(const PackageInfo& info) {
    std::string limit;
    int ret = PMSThirdPartyCheckLimit(info.name.c_str(), info.version.c_str(), limit);
    switch (ret) {
        case 0:
            return true;
        case -3:
            setResult(PKG_ERR_LIMIT_SYSTEM);
            break;
        case -2:
            insertMapParam("oldver", limit);
            insertMapParam("curver", info.version);
            setResult(PKG_ERR_VERSION_LIMIT);
            break;
        case -4:
            setResult(PKG_ERR_LIMIT_NON);
            break;
        default:
            setResult(PKG_ERR_LIMIT_UNKNOWN);
            break;
    }
    return false;
}

bool PackageManager::IsPkgUnavailable(const PackageInfo& info,
                                      const std::map<std::string, PackageInfo>& installed) {
    if (info.name.empty()) {
        return true;
    }
    if (!info.extra.get()->ctl_install && !PMSIsInInstallAllowList(info.name)) {
        return true;
    }
    if (!info.version.empty() &&
        PMSThirdPartyCheckLimit(info.name.c_str(), info.version.c_str()) != 0) {
        return true;
    }
    return IsBrokenByOtherPkg(PackageBasicInfo(info.name, info.version), nullptr, installed);
}

bool PackageManager::IsPkgUnavailable(const PackageInfo& info) {
    std::map<std::string, PackageInfo> installed;
    enumPackageInfoMap(installed, nullptr, PKG_MASK_ALL);
    return IsPkgUnavailable(info, installed);
}

bool PackageManager::IsPkgUnavailable(const Json::Value& info,
                                      const std::map<std::string, PackageInfo>& installed) {
    if (!info.isObject() || !info["package"].isString()) {
        return true;
    }
    PackageInfo record;
    record.name = info["package"].asString();
    record.version = info.get("version", "").isString() ? info.get("version", "").asString() : "";
    const Json::Value ctl = info.get("ctl_install", "yes");
    record.extra.get()->ctl_install = !(ctl.isString() && ctl.asString() == "no");
    return IsPkgUnavailable(record, installed);
}

bool PackageManager::IsPkgUnavailable(const Json::Value& info) {
    std::map<std::string, PackageInfo> installed;
    enumPackageInfoMap(installed, nullptr, PKG_MASK_ALL);
    return IsPkgUnavailable(info, installed);
}

}  // namespace ZARNPackageTool
