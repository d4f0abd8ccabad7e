#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/depparse.h"
#include "core/infoloader.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
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
// INFO files hold a few keys and two base64 icons; anything larger is no INFO, and reading it
// whole would let one file (a sparse one costs nothing on disk) exhaust the memory of a scan.
constexpr size_t kMaxInfoSize = 16 * 1024 * 1024;

// The values of one INFO file, as views into its text, looked up by key.
class InfoValues {
public:
    InfoValues(const std::string& text, const std::vector<std::string>& keys) : keys_(keys) {
        ZARNKeyTextParseViews(text, "=", keys, values_);
    }
    const std::string_view* get(std::string_view key) const {
        auto it = std::lower_bound(keys_.begin(), keys_.end(), key,
                                   [](const std::string& a, std::string_view b) { return a < b; });
        if (it == keys_.end() || *it != key) {
            return nullptr;
        }
        const std::string_view& v = values_[static_cast<size_t>(it - keys_.begin())];
        return v.data() == nullptr ? nullptr : &v;
    }

private:
    const std::vector<std::string>& keys_;
    std::vector<std::string_view> values_;
};

using Value = const std::string_view*;

Value Get(const InfoValues& hash, std::string_view key) {
    return hash.get(key);
}

Value GetNonEmpty(const InfoValues& hash, std::string_view key) {
    Value v = hash.get(key);
    return (v == nullptr || v->empty()) ? nullptr : v;
}

bool EqualsNoCase(Value v, const char* word) {
    return v != nullptr && v->size() == std::strlen(word) &&
           strncasecmp(v->data(), word, v->size()) == 0;
}
bool IsYes(Value v) {
    return EqualsNoCase(v, "yes");
}
bool IsNo(Value v) {
    return EqualsNoCase(v, "no");
}

std::string Str(Value v) {
    return v != nullptr ? std::string(*v) : std::string();
}

// The name check over the whole value: a NUL byte would end the C string and hide the rest.
bool CheckNameValue(Value v, const char* forbidden) {
    return v->find('\0') == std::string_view::npos && PMSCheckName(Str(v).c_str(), forbidden);
}

// Kilobytes to bytes, saturating where the product leaves the range.
long long KilobytesToBytes(long long kilobytes) {
    long long bytes = 0;
    if (__builtin_mul_overflow(kilobytes, 1024LL, &bytes)) {
        return kilobytes < 0 ? LLONG_MIN : LLONG_MAX;
    }
    return bytes;
}

std::vector<std::string> Blanks(Value v) {
    return PMSExplodeString(Str(v), " \t");
}

// The keys that a mask asks for, with the language keys, sorted for the key file reader.
// Scans load thousands of files with one mask and one language: remember the last list.
const std::vector<std::string>& KeysFor(unsigned long long mask, const std::string& language,
                                        bool wantEnglish) {
    thread_local unsigned long long cachedMask = 0;
    thread_local std::string cachedLanguage;
    thread_local bool cachedEnglish = false;
    thread_local std::vector<std::string> keys;
    thread_local bool cached = false;
    if (cached && cachedMask == mask && cachedLanguage == language &&
        cachedEnglish == wantEnglish) {
        return keys;
    }
    keys.clear();
    for (const auto& [type, key] : g_MappingPKGInfoFields) {
        auto extra = g_MappingPKGInfoAdditional.find(type);
        if (extra != g_MappingPKGInfoAdditional.end() && (extra->second & mask) == 0) {
            continue;
        }
        keys.push_back(key);
    }
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
    cachedMask = mask;
    cachedLanguage = language;
    cachedEnglish = wantEnglish;
    cached = true;
    return keys;
}

bool ReadOSVersion(Value text, OSVersionNumbers& v, int& nano) {
    int n = nano;
    std::sscanf(Str(text).c_str(), "%d.%d-%d-%d", &v.major, &v.minor, &v.build, &n);
    nano = n;
    return true;
}

void LoadDepList(const std::string& dir, bool hasConf, const char* file, Value key,
                 DepPkgVector& out) {
    const std::string path = dir + "/conf/" + file;
    if (hasConf && IsFileExists(path)) {
        PMSLoadDepConfFile(path.c_str(), out);
    } else if (key != nullptr) {
        PMSExplodeDepPKGString(Str(key).c_str(), out);
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
                            bool langGiven, unsigned long long mask, bool* missing) {
    // Scans hand in fresh records (with `missing`); spare them the reset.
    if (missing == nullptr) {
        info = PackageInfo();
    }
    const std::string infoPath = dir + "/INFO";
    if (missing != nullptr) {
        *missing = false;
    } else if (!ZARNIsDir(dir)) {
        return false;
    }
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
    // Read the file directly rather than testing for it first: a scan pays one open per package.
    // The buffer is reused so that a scan doesn't allocate a fresh one for every file.
    thread_local std::string text;
    if (!ZARNFileRead(infoPath, text, kMaxInfoSize + 1)) {
        if (errno == ENOENT || errno == ENOTDIR) {
            if (missing != nullptr) {
                *missing = true;
            }
            return false;
        }
        ZLOGERR("VLIBCFileGetKeys() failed!! szFile=[%s], zarnerr=[0x%04X]", infoPath.c_str(),
                VLIBCErrGet());
        return false;
    }
    if (text.size() > kMaxInfoSize) {
        text.clear();
        text.shrink_to_fit();
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
        ZLOGERR("VLIBCFileGetKeys() failed!! szFile=[%s], zarnerr=[0x%04X]", infoPath.c_str(),
                VLIBCErrGet());
        return false;
    }
    const InfoValues hash(text, KeysFor(mask, language, wantEnglish));
    Value name = Get(hash, "package");
    if (name == nullptr) {
        ZLOGERR("key [%s] not found in %s zarnerr=[0x%04X]", "package", infoPath.c_str(),
                VLIBCErrGet());
        return false;
    }
    if (!CheckNameValue(name, ":/<>=|")) {
        ZLOGERR("key [%s] %s is illegal", "package", Str(name).c_str());
        return false;
    }
    info.name = *name;
    Value version = GetNonEmpty(hash, "version");
    if (version == nullptr) {
        ZLOGERR("key [%s] not found", "version");
        return false;
    }
    info.version = *version;
    PackageInfoExtraPrivate& x = *info.extra.get();

    if (mask & kMaskMaintainer) {
        Value v = GetNonEmpty(hash, "maintainer");
        if (v == nullptr) {
            ZLOGERR("key [%s] not found", "maintainer");
            return false;
        }
        info.maintainer = *v;
    }
    if (mask & kMaskMaintainerUrl) {
        Value v = Get(hash, "maintainer_url");
        info.maintainer_url = Str(v);
    }
    if (mask & kMaskDistributor) {
        Value v = Get(hash, "distributor");
        info.distributor = Str(v);
    }
    if (mask & kMaskDistributorUrl) {
        Value v = Get(hash, "distributor_url");
        info.distributor_url = Str(v);
    }
    if (mask & kMaskDescription) {
        Value v = GetNonEmpty(hash, "description");
        if (v == nullptr) {
            ZLOGERR("key [%s] not found", "description");
            return false;
        }
        info.description = *v;
        Value enu = wantEnglish ? GetNonEmpty(hash, "description_enu") : nullptr;
        if (enu != nullptr) {
            info.description_enu = *enu;
        }
    }
    if (mask & kMaskAdmin) {
        if (Value v = Get(hash, "adminurl")) {
            info.adminurl = *v;
        }
        if (Value v = GetNonEmpty(hash, "adminport")) {
            unsigned long port = std::strtoul(Str(v).c_str(), nullptr, 10);
            if (port > 65536) {
                ZLOGERR("key [%s] %d is illegal", "adminport", static_cast<int>(port));
                return false;
            }
            info.adminport = static_cast<unsigned int>(port);
        }
        Value protocols = GetNonEmpty(hash, "adminprotocol");
        info.adminprotocol = protocols ? Blanks(protocols) : std::vector<std::string>{"http"};
    }
    if (Value v = GetNonEmpty(hash, "arch")) {
        info.arch = Blanks(v);
        PMSArchSetInsert(info.arch, x.arch_ids);
    } else {
        // Only a missing or empty "arch" means every machine; a list of blanks names none.
        const auto& noarch = PMSGetArchGroup(PKG_ARCH_GROUP_NOARCH);
        x.arch_ids.insert(noarch.begin(), noarch.end());
    }
    if (Value v = Get(hash, "exclude_arch")) {
        info.exclude_arch = Blanks(v);
        PMSArchSetInsert(info.exclude_arch, x.exclude_arch_ids);
    }
    if (Value v = Get(hash, "exclude_model")) {
        x.exclude_model = Blanks(v);
    }
    if (Value v = Get(hash, "model")) {
        info.model = Blanks(v);
    }

    Value minVer = Get(hash, "os_min_ver");
    if (minVer == nullptr) {
        minVer = Get(hash, "firmware");
    }
    if (minVer != nullptr) {
        ReadOSVersion(minVer, x.os_min_ver, x.os_min_nano);
        int unused = 0;
        ReadOSVersion(minVer, info.firmware, unused);
    }
    if (Value maxVer = Get(hash, "os_max_ver")) {
        x.os_max_ver = OSVersionNumbers();
        ReadOSVersion(maxVer, x.os_max_ver, x.os_max_nano);
    }

    if (mask & kMaskDisplayName) {
        Value v = GetNonEmpty(hash, "displayname");
        info.displayname = v ? Str(v) : info.name;
        if (!language.empty()) {
            if (Value l = GetNonEmpty(hash, "displayname_" + language)) {
                info.displayname = *l;
            }
        }
    }
    if ((mask & kMaskDescription) && !language.empty()) {
        if (Value l = GetNonEmpty(hash, "description_" + language)) {
            info.description = *l;
        }
    }

    if (IsNo(Get(hash, "checkport"))) {
        info.checkport = false;
    }
    if (mask & kMaskHelpUrl) {
        if (Value v = Get(hash, "helpurl")) {
            info.helpurl = *v;
        }
    }
    if (mask & kMaskRestartServices) {
        if (Value v = Get(hash, "instuninst_restart_services")) {
            info.instuninst_restart_services = PMSConvMapRestartService(Str(v).c_str());
        }
        if (Value v = Get(hash, "startstop_restart_services")) {
            info.startstop_restart_services = PMSConvMapRestartService(Str(v).c_str());
        }
    }
    if (mask & kMaskInstallDepServices) {
        if (Value v = Get(hash, "install_dep_services")) {
            info.install_dep_services = PackageManager::PMSExplodeServiceString(Str(v).c_str());
            x.install_dep_service_set = PackageManager::getServiceSetFromString(Str(v).c_str());
        }
    }
    if (mask & kMaskStartDepServices) {
        if (Value v = Get(hash, "start_dep_services")) {
            info.start_dep_services = PackageManager::PMSExplodeServiceString(Str(v).c_str());
            x.start_dep_service_set = PackageManager::getServiceSetFromString(Str(v).c_str());
        }
    }

    if (Value v = GetNonEmpty(hash, "kosuidir")) {
        if (!CheckNameValue(v, ":/")) {
            ZLOGERR("key [%s] %s is illegal", "kosuidir", Str(v).c_str());
            return false;
        }
        info.kosuidir = *v;
    }
    if (mask & kMaskAppName) {
        if (Value v = Get(hash, "kosappname")) {
            info.kosappname = *v;
        }
    }
    if (mask & kMaskInstallReboot) {
        info.install_reboot = IsYes(Get(hash, "install_reboot"));
    }
    if (mask & kMaskCtlStop) {
        Value ctl = Get(hash, "ctl_stop");
        info.startable = !IsNo(ctl != nullptr ? ctl : Get(hash, "startable"));
    }

    if (mask & (kMaskDepPackages | kMaskConflicts)) {
        // Most packages have no conf folder: one test spares two.
        const bool hasConf = ZARNIsDir(dir + "/conf");
        if (mask & kMaskDepPackages) {
            LoadDepList(dir, hasConf, "PKG_DEPS", Get(hash, "install_dep_packages"),
                        info.install_dep_packages);
        }
        if (mask & kMaskConflicts) {
            LoadDepList(dir, hasConf, "PKG_CONX", Get(hash, "install_conflict_packages"),
                        info.install_conflict_packages);
        }
    }
    if (mask & PKG_MASK_PARSE_BREAK) {
        if (Value v = Get(hash, "install_break_packages")) {
            PMSExplodeDepPKGString(Str(v).c_str(), x.install_break_packages);
        }
    }
    if (mask & PKG_MASK_PARSE_REPLACE) {
        if (Value v = Get(hash, "install_replace_packages")) {
            PMSExplodeDepPKGString(Str(v).c_str(), x.install_replace_packages);
        }
    }
    if (mask & PKG_MASK_PARSE_REPLACE_FORCE) {
        if (Value v = Get(hash, "install_replace_force_packages")) {
            PMSExplodeDepPKGString(Str(v).c_str(), x.install_replace_force_packages);
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
    if (Value v = Get(hash, "checksum")) {
        info.checksum = *v;
    }
    if (mask & kMaskIcons) {
        if (Value v = Get(hash, "package_icon")) {
            info.package_icon = *v;
        }
        if (Value v = Get(hash, "package_icon_256")) {
            info.package_icon_256 = *v;
        }
    }
    if (Value v = GetNonEmpty(hash, "report_url")) {
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
        if (Value v = Get(hash, "support_url")) {
            info.support_url = *v;
        }
    }
    if (Value v = Get(hash, "extractsize")) {
        info.extractsize = KilobytesToBytes(std::strtoll(Str(v).c_str(), nullptr, 10));
    }
    if (mask & kMaskInstallType) {
        if (Value v = Get(hash, "install_type")) {
            info.install_type = *v;
        }
    }
    if (mask & kMaskColdStorage) {
        x.install_on_cold_storage = IsYes(Get(hash, "install_on_cold_storage"));
    }
    if (mask & kMaskAppLaunchName) {
        if (Value v = Get(hash, "kosapplaunchname")) {
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
    return PMSLoadPKGInfoFileImpl(dir, info, lang, lang != nullptr, mask, nullptr);
}

std::string PMSSystemLanguage() {
    std::string language;
    VLIBCFileGetKeyValue("/etc/zarninfo.conf", "language", language);
    return language;
}

}  // namespace ZARNPackageTool
