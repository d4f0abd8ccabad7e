#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/infoloader.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
#include "dependency/depparse.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/fsnames.h"
#include "platform/keyfile.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

constexpr unsigned long long kMaskDescription = 0x1;
constexpr unsigned long long kMaskDistributor = 0x8;
constexpr unsigned long long kMaskDistributorUrl = 0x10;
constexpr unsigned long long kMaskMaintainer = 0x20;
constexpr unsigned long long kMaskMaintainerUrl = 0x40;
constexpr unsigned long long kMaskAppName = 0x80;
constexpr unsigned long long kMaskHelpUrl = 0x100;
constexpr unsigned long long kMaskCtlStop = 0x400;
constexpr unsigned long long kMaskSupportUrl = 0x800;
constexpr unsigned long long kMaskInstallReboot = 0x1000;
constexpr unsigned long long kMaskAdmin = 0x2000;
constexpr unsigned long long kMaskSilentInstall = 0x40000;
constexpr unsigned long long kMaskSilentUpgrade = 0x80000;
constexpr unsigned long long kMaskSilentUninstall = 0x100000;
constexpr unsigned long long kMaskInstallType = 0x200000;
constexpr unsigned long long kMaskSupportCenter = 0x800000;
constexpr unsigned long long kMaskDepPackages = 0x1000000;
constexpr unsigned long long kMaskStartDepServices = 0x2000000;
constexpr unsigned long long kMaskIcons = 0x8000000;
constexpr unsigned long long kMaskDisplayName = 0x10000000;
constexpr unsigned long long kMaskRestartServices = 0x20000000;
constexpr unsigned long long kMaskInstallDepServices = 0x40000000;
constexpr unsigned long long kMaskConflicts = 0xffffffff80000000ULL;
constexpr unsigned long long kMaskCtlUninstall = 0x100000000ULL;
constexpr unsigned long long kMaskSupportMove = 0x2000000000ULL;
constexpr unsigned long long kMaskColdStorage = 0x10000000000ULL;
constexpr unsigned long long kMaskAppLaunchName = 0x20000000000ULL;

constexpr size_t kMaxNameLength = 492;

using KeyHash = std::map<std::string, std::string>;

const std::string* Get(const KeyHash& hash, const char* key) {
    auto it = hash.find(key);
    return it == hash.end() ? nullptr : &it->second;
}

const std::string* GetNonEmpty(const KeyHash& hash, const char* key) {
    const std::string* v = Get(hash, key);
    return (v == nullptr || v->empty()) ? nullptr : v;
}

bool IsYes(const std::string* v) { return v != nullptr && strcasecmp(v->c_str(), "yes") == 0; }
bool IsNo(const std::string* v) { return v != nullptr && strcasecmp(v->c_str(), "no") == 0; }

std::vector<std::string> Blanks(const std::string& text) { return PMSExplodeString(text, " \t"); }

// The keys of the table that a mask asks for, in ascending order of their type.
const std::vector<std::string>& KeysForMask(unsigned long long mask) {
    // Listings use very few masks; remember the last one.
    thread_local unsigned long long cachedMask = 0;
    thread_local std::vector<std::string> cachedKeys;
    thread_local bool cached = false;
    if (cached && cachedMask == mask) {
        return cachedKeys;
    }
    cachedKeys.clear();
    for (const auto& [type, key] : g_MappingPKGInfoFields) {
        auto extra = g_MappingPKGInfoAdditional.find(type);
        if (extra != g_MappingPKGInfoAdditional.end() && (extra->second & mask) == 0) {
            continue;
        }
        cachedKeys.push_back(key);
    }
    cachedMask = mask;
    cached = true;
    return cachedKeys;
}

bool ReadOSVersion(const std::string& text, OSVersionNumbers& v, int& nano) {
    int n = nano;
    std::sscanf(text.c_str(), "%d.%d-%d-%d", &v.major, &v.minor, &v.build, &n);
    nano = n;
    return true;
}

void LoadDepList(const std::string& dir, const char* file, const std::string* key,
                 DepPkgVector& out) {
    const std::string path = dir + "/conf/" + file;
    if (IsFileExists(path)) {
        PMSLoadDepConfFile(path.c_str(), out);
    } else if (key != nullptr) {
        PMSExplodeDepPKGString(key->c_str(), out);
    }
}

}  // namespace

bool PMSCheckName(const char* name, const char* forbidden) {
    if (name == nullptr || name[0] == '\0' || std::strcmp(name, ".") == 0 ||
        std::strcmp(name, "..") == 0 || ZARNEAIsHiddenDir(name)) {
        return false;
    }
    if (forbidden != nullptr && std::strpbrk(name, forbidden) != nullptr) {
        return false;
    }
    return std::strlen(name) < kMaxNameLength;
}

bool PMSLoadPKGInfoFileImpl(const std::string& dir, PackageInfo& info, const char* lang,
                            bool langGiven, unsigned long long mask) {
    info = PackageInfo();
    const std::string infoPath = dir + "/INFO";
    if (!ZARNIsDir(dir) || !IsFileExists(infoPath)) {
        return false;
    }
    std::vector<std::string> keys = KeysForMask(mask);
    std::string language;
    if (mask & (kMaskDescription | kMaskDisplayName)) {
        if (lang != nullptr) {
            language = lang;
        } else {
            VLIBCFileGetKeyValue("/etc/zarninfo.conf", "language", language);
        }
    }
    const bool wantEnglish =
        (mask & kMaskDescription) && !(langGiven && strcasecmp(language.c_str(), "enu") == 0);
    if (!language.empty()) {
        if (mask & kMaskDisplayName) {
            keys.push_back("displayname_" + language);
        }
        if (mask & kMaskDescription) {
            keys.push_back("description_" + language);
        }
    }
    if (wantEnglish) {
        keys.push_back("description_enu");
    }
    std::sort(keys.begin(), keys.end());

    KeyHash hash;
    if (!VLIBCFileGetKeys(infoPath, keys, hash, "=")) {
        ZLOGERR("VLIBCFileGetKeys() failed!! szFile=[%s], zarnerr=[0x%04X]", infoPath.c_str(),
                VLIBCErrGet());
        return false;
    }
    const std::string* name = Get(hash, "package");
    if (name == nullptr) {
        ZLOGERR("key [%s] not found in %s zarnerr=[0x%04X]", "package", infoPath.c_str(),
                VLIBCErrGet());
        return false;
    }
    if (!PMSCheckName(name->c_str(), ":/<>=|")) {
        ZLOGERR("key [%s] %s is illegal", "package", name->c_str());
        return false;
    }
    info.name = *name;
    const std::string* version = GetNonEmpty(hash, "version");
    if (version == nullptr) {
        ZLOGERR("key [%s] not found", "version");
        return false;
    }
    info.version = *version;
    PackageInfoExtraPrivate& x = *info.extra.get();

    if (mask & kMaskMaintainer) {
        const std::string* v = GetNonEmpty(hash, "maintainer");
        if (v == nullptr) {
            ZLOGERR("key [%s] not found", "maintainer");
            return false;
        }
        info.maintainer = *v;
    }
    if (mask & kMaskMaintainerUrl) {
        const std::string* v = Get(hash, "maintainer_url");
        info.maintainer_url = v ? *v : "";
    }
    if (mask & kMaskDistributor) {
        const std::string* v = Get(hash, "distributor");
        info.distributor = v ? *v : "";
    }
    if (mask & kMaskDistributorUrl) {
        const std::string* v = Get(hash, "distributor_url");
        info.distributor_url = v ? *v : "";
    }
    if (mask & kMaskDescription) {
        const std::string* v = GetNonEmpty(hash, "description");
        if (v == nullptr) {
            ZLOGERR("key [%s] not found", "description");
            return false;
        }
        info.description = *v;
        const std::string* enu = wantEnglish ? GetNonEmpty(hash, "description_enu") : nullptr;
        if (enu != nullptr) {
            info.description_enu = *enu;
        }
    }
    if (mask & kMaskAdmin) {
        if (const std::string* v = Get(hash, "adminurl")) {
            info.adminurl = *v;
        }
        if (const std::string* v = GetNonEmpty(hash, "adminport")) {
            unsigned long port = std::strtoul(v->c_str(), nullptr, 10);
            if (port > 65536) {
                ZLOGERR("key [%s] %d is illegal", "adminport", static_cast<int>(port));
                return false;
            }
            info.adminport = static_cast<unsigned int>(port);
        }
        const std::string* protocols = GetNonEmpty(hash, "adminprotocol");
        info.adminprotocol = protocols ? Blanks(*protocols) : std::vector<std::string>{"http"};
    }
    if (const std::string* v = GetNonEmpty(hash, "arch")) {
        info.arch = Blanks(*v);
        PMSArchSetInsert(info.arch, x.arch_ids);
    }
    if (x.arch_ids.empty()) {
        const auto& noarch = PMSGetArchGroup(PKG_ARCH_GROUP_NOARCH);
        x.arch_ids.insert(noarch.begin(), noarch.end());
    }
    if (const std::string* v = Get(hash, "exclude_arch")) {
        info.exclude_arch = Blanks(*v);
        PMSArchSetInsert(info.exclude_arch, x.exclude_arch_ids);
    }
    if (const std::string* v = Get(hash, "exclude_model")) {
        x.exclude_model = Blanks(*v);
    }
    if (const std::string* v = Get(hash, "model")) {
        info.model = Blanks(*v);
    }

    const std::string* minVer = Get(hash, "os_min_ver");
    if (minVer == nullptr) {
        minVer = Get(hash, "firmware");
    }
    if (minVer != nullptr) {
        ReadOSVersion(*minVer, x.os_min_ver, x.os_min_nano);
        int unused = 0;
        ReadOSVersion(*minVer, info.firmware, unused);
    }
    if (const std::string* maxVer = Get(hash, "os_max_ver")) {
        x.os_max_ver = OSVersionNumbers();
        ReadOSVersion(*maxVer, x.os_max_ver, x.os_max_nano);
    }

    if (mask & kMaskDisplayName) {
        const std::string* v = GetNonEmpty(hash, "displayname");
        info.displayname = v ? *v : info.name;
        if (!language.empty()) {
            if (const std::string* l = GetNonEmpty(hash, ("displayname_" + language).c_str())) {
                info.displayname = *l;
            }
        }
    }
    if ((mask & kMaskDescription) && !language.empty()) {
        if (const std::string* l = GetNonEmpty(hash, ("description_" + language).c_str())) {
            info.description = *l;
        }
    }

    if (IsNo(Get(hash, "checkport"))) {
        info.checkport = false;
    }
    if (mask & kMaskHelpUrl) {
        if (const std::string* v = Get(hash, "helpurl")) {
            info.helpurl = *v;
        }
    }
    if (mask & kMaskRestartServices) {
        if (const std::string* v = Get(hash, "instuninst_restart_services")) {
            info.instuninst_restart_services = PMSConvMapRestartService(v->c_str());
        }
        if (const std::string* v = Get(hash, "startstop_restart_services")) {
            info.startstop_restart_services = PMSConvMapRestartService(v->c_str());
        }
    }
    if (mask & kMaskInstallDepServices) {
        if (const std::string* v = Get(hash, "install_dep_services")) {
            info.install_dep_services = PackageManager::PMSExplodeServiceString(v->c_str());
            x.install_dep_service_set = PackageManager::getServiceSetFromString(v->c_str());
        }
    }
    if (mask & kMaskStartDepServices) {
        if (const std::string* v = Get(hash, "start_dep_services")) {
            info.start_dep_services = PackageManager::PMSExplodeServiceString(v->c_str());
            x.start_dep_service_set = PackageManager::getServiceSetFromString(v->c_str());
        }
    }

    if (const std::string* v = GetNonEmpty(hash, "kosuidir")) {
        if (!PMSCheckName(v->c_str(), ":/")) {
            ZLOGERR("key [%s] %s is illegal", "kosuidir", v->c_str());
            return false;
        }
        info.kosuidir = *v;
    }
    if (mask & kMaskAppName) {
        if (const std::string* v = Get(hash, "kosappname")) {
            info.kosappname = *v;
        }
    }
    if (mask & kMaskInstallReboot) {
        info.install_reboot = IsYes(Get(hash, "install_reboot"));
    }
    if (mask & kMaskCtlStop) {
        const std::string* ctl = Get(hash, "ctl_stop");
        info.startable = !IsNo(ctl != nullptr ? ctl : Get(hash, "startable"));
    }

    if (mask & kMaskDepPackages) {
        LoadDepList(dir, "PKG_DEPS", Get(hash, "install_dep_packages"), info.install_dep_packages);
    }
    if (mask & kMaskConflicts) {
        LoadDepList(dir, "PKG_CONX", Get(hash, "install_conflict_packages"),
                    info.install_conflict_packages);
    }
    if (mask & PKG_MASK_PARSE_BREAK) {
        if (const std::string* v = Get(hash, "install_break_packages")) {
            PMSExplodeDepPKGString(v->c_str(), x.install_break_packages);
        }
    }
    if (mask & PKG_MASK_PARSE_REPLACE) {
        if (const std::string* v = Get(hash, "install_replace_packages")) {
            PMSExplodeDepPKGString(v->c_str(), x.install_replace_packages);
        }
    }
    if (mask & PKG_MASK_PARSE_REPLACE_FORCE) {
        if (const std::string* v = Get(hash, "install_replace_force_packages")) {
            PMSExplodeDepPKGString(v->c_str(), x.install_replace_force_packages);
        }
    }

    if (mask & kMaskSilentInstall) {
        info.silent_install = IsYes(Get(hash, "silent_install"));
    }
    if (mask & kMaskSilentUpgrade) {
        info.silent_upgrade = IsYes(Get(hash, "silent_upgrade"));
    }
    if (mask & kMaskSilentUninstall) {
        info.silent_uninstall = IsYes(Get(hash, "silent_uninstall"));
    }
    if (const std::string* v = Get(hash, "checksum")) {
        info.checksum = *v;
    }
    if (mask & kMaskIcons) {
        if (const std::string* v = Get(hash, "package_icon")) {
            info.package_icon = *v;
        }
        if (const std::string* v = Get(hash, "package_icon_256")) {
            info.package_icon_256 = *v;
        }
    }
    if (const std::string* v = GetNonEmpty(hash, "report_url")) {
        info.report_url = *v;
        info.beta = true;
    }
    if (IsYes(Get(hash, "beta"))) {
        info.beta = true;
    }
    if (mask & kMaskSupportCenter) {
        info.support_center = IsYes(Get(hash, "support_center"));
    }

    x.target_volume = PMSGetPackageTargetVolByPath(PMSRegistryDir(info.name).c_str());

    if (mask & kMaskSupportUrl) {
        if (const std::string* v = Get(hash, "support_url")) {
            info.support_url = *v;
        }
    }
    if (const std::string* v = Get(hash, "extractsize")) {
        info.extractsize = std::strtoll(v->c_str(), nullptr, 10) * 1024;
    }
    if (mask & kMaskInstallType) {
        if (const std::string* v = Get(hash, "install_type")) {
            info.install_type = *v;
        }
    }
    if (mask & kMaskColdStorage) {
        x.install_on_cold_storage = IsYes(Get(hash, "install_on_cold_storage"));
    }
    if (mask & kMaskAppLaunchName) {
        if (const std::string* v = Get(hash, "kosapplaunchname")) {
            x.kosapplaunchname = *v;
        }
    }
    if (mask & kMaskSupportMove) {
        x.support_move = IsYes(Get(hash, "support_move"));
    }
    x.precheckstartstop = IsYes(Get(hash, "precheckstartstop"));
    x.use_deprecated_replace_mechanism = !IsNo(Get(hash, "use_deprecated_replace_mechanism"));
    if (mask & kMaskCtlUninstall) {
        x.ctl_uninstall = !IsNo(Get(hash, "ctl_uninstall"));
    }
    return true;
}

bool PMSLoadPKGInfoFile(const std::string& dir, PackageInfo& info, const char* lang,
                        unsigned long long mask) {
    return PMSLoadPKGInfoFileImpl(dir, info, lang, lang != nullptr, mask);
}

std::string PMSSystemLanguage() {
    std::string language;
    VLIBCFileGetKeyValue("/etc/zarninfo.conf", "language", language);
    return language;
}

}  // namespace ZARNPackageTool
