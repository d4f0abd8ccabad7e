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
        if (mask & PKG_MASK_DISPLAYNAME) {
            keys.push_back("displayname_" + language);
        }
        if (mask & PKG_MASK_DESCRIPTION) {
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

// What the readers of one INFO file work on.
struct Load {
    const InfoValues& hash;
    PackageInfo& info;
    PackageInfoExtraPrivate& x;
    const ZARNFolder& folder;
    const std::string& infoPath;
    const std::string& language;
    bool wantEnglish;
    int hasConf;  // -1 until asked: most packages have no conf folder, and one test spares two
};

// Reads one key's value (null when the file lacks it) into the record; false fails the load,
// after a log line.
using Reader = bool (*)(Load& c, Value v, const std::string& key);

template <typename T>
struct MemberOf;
template <typename R, typename V>
struct MemberOf<V R::*> {
    using Record = R;
};
template <typename R>
R& RecordOf(Load& c);
template <>
PackageInfo& RecordOf<PackageInfo>(Load& c) {
    return c.info;
}
template <>
PackageInfoExtraPrivate& RecordOf<PackageInfoExtraPrivate>(Load& c) {
    return c.x;
}
// The field that the member pointer F names, in the record or in its extra part.
template <auto F>
auto& Field(Load& c) {
    return RecordOf<typename MemberOf<decltype(F)>::Record>(c).*F;
}

template <auto F>
bool Text(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        Field<F>(c) = *v;
    }
    return true;
}
// A text that must be there and not empty.
template <auto F>
bool Required(Load& c, Value v, const std::string& key) {
    if (v == nullptr || v->empty()) {
        ZLOGERR("key [%s] not found", key.c_str());
        return false;
    }
    Field<F>(c) = *v;
    return true;
}
template <auto F>
bool Yes(Load& c, Value v, const std::string&) {
    Field<F>(c) = IsYes(v);
    return true;
}
template <auto F>
bool NotNo(Load& c, Value v, const std::string&) {
    Field<F>(c) = !IsNo(v);
    return true;
}
template <auto F>
bool Words(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        Field<F>(c) = Blanks(v);
    }
    return true;
}
template <auto F>
bool DepString(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        PMSExplodeDepPKGString(Str(v).c_str(), Field<F>(c));
    }
    return true;
}
template <auto F>
bool RestartServices(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        Field<F>(c) = PMSConvMapRestartService(Str(v).c_str());
    }
    return true;
}
template <auto Mask, auto Set>
bool Services(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        Field<Mask>(c) = PackageManager::PMSExplodeServiceString(Str(v).c_str());
        Field<Set>(c) = PackageManager::getServiceSetFromString(Str(v).c_str());
    }
    return true;
}
// A list from conf/<file> when the package has one, else from the key: the file wins.
template <auto F>
bool DepList(Load& c, Value v, const char* file) {
    if (c.hasConf < 0) {
        c.hasConf = c.folder.isDir("conf") ? 1 : 0;
    }
    const std::string path = c.folder.path() + "/conf/" + file;
    if (c.hasConf == 1 && IsFileExists(path)) {
        PMSLoadDepConfFile(path.c_str(), Field<F>(c));
        return true;
    }
    return DepString<F>(c, v, file);
}

bool ReadName(Load& c, Value v, const std::string& key) {
    if (v == nullptr) {
        ZLOGERR("key [%s] not found in %s zarnerr=[0x%04X]", key.c_str(), c.infoPath.c_str(),
                VLIBCErrGet());
        return false;
    }
    if (!CheckNameValue(v, ":/<>=|")) {
        ZLOGERR("key [%s] %s is illegal", key.c_str(), Str(v).c_str());
        return false;
    }
    c.info.name = *v;
    return true;
}

bool ReadUIDir(Load& c, Value v, const std::string& key) {
    if (v == nullptr || v->empty()) {
        return true;
    }
    if (!CheckNameValue(v, ":/")) {
        ZLOGERR("key [%s] %s is illegal", key.c_str(), Str(v).c_str());
        return false;
    }
    c.info.kosuidir = *v;
    return true;
}

bool ReadDescription(Load& c, Value v, const std::string& key) {
    if (!Required<&PackageInfo::description>(c, v, key)) {
        return false;
    }
    Value enu = c.wantEnglish ? GetNonEmpty(c.hash, "description_enu") : nullptr;
    if (enu != nullptr) {
        c.info.description_enu = *enu;
    }
    if (!c.language.empty()) {
        if (Value l = GetNonEmpty(c.hash, "description_" + c.language)) {
            c.info.description = *l;
        }
    }
    return true;
}

bool ReadDisplayName(Load& c, Value v, const std::string&) {
    c.info.displayname = (v != nullptr && !v->empty()) ? Str(v) : c.info.name;
    if (!c.language.empty()) {
        if (Value l = GetNonEmpty(c.hash, "displayname_" + c.language)) {
            c.info.displayname = *l;
        }
    }
    return true;
}

bool ReadAdminPort(Load& c, Value v, const std::string& key) {
    if (v == nullptr || v->empty()) {
        return true;
    }
    unsigned long port = std::strtoul(Str(v).c_str(), nullptr, 10);
    if (port > 65536) {
        ZLOGERR("key [%s] %d is illegal", key.c_str(), static_cast<int>(port));
        return false;
    }
    c.info.adminport = static_cast<unsigned int>(port);
    return true;
}

bool ReadAdminProtocols(Load& c, Value v, const std::string&) {
    c.info.adminprotocol =
        (v != nullptr && !v->empty()) ? Blanks(v) : std::vector<std::string>{"http"};
    return true;
}

bool ReadArch(Load& c, Value v, const std::string&) {
    if (v != nullptr && !v->empty()) {
        c.info.arch = Blanks(v);
        PMSArchSetInsert(c.info.arch, c.x.arch_ids);
    } else {
        // Only a missing or empty "arch" means every machine; a list of blanks names none.
        const auto& noarch = PMSGetArchGroup(PKG_ARCH_GROUP_NOARCH);
        c.x.arch_ids.insert(noarch.begin(), noarch.end());
    }
    return true;
}

bool ReadExcludedArch(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        c.info.exclude_arch = Blanks(v);
        PMSArchSetInsert(c.info.exclude_arch, c.x.exclude_arch_ids);
    }
    return true;
}

// "%d.%d-%d-%d"; a version with fewer parts leaves the rest as they were.
void ReadOSVersion(Value text, OSVersionNumbers& v, int& nano) {
    std::sscanf(Str(text).c_str(), "%d.%d-%d-%d", &v.major, &v.minor, &v.build, &nano);
}

// "os_min_ver", else its older form "firmware", into the OS minimum and the firmware fields.
bool ReadOSMin(Load& c, Value v, const std::string&) {
    if (v == nullptr) {
        v = Get(c.hash, "firmware");
    }
    if (v != nullptr) {
        ReadOSVersion(v, c.x.os_min_ver, c.x.os_min_nano);
        int unused = 0;
        ReadOSVersion(v, c.info.firmware, unused);
    }
    return true;
}

bool ReadOSMax(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        c.x.os_max_ver = OSVersionNumbers();
        ReadOSVersion(v, c.x.os_max_ver, c.x.os_max_nano);
    }
    return true;
}

// "ctl_stop", else its older form "startable".
bool ReadStartable(Load& c, Value v, const std::string&) {
    c.info.startable = !IsNo(v != nullptr ? v : Get(c.hash, "startable"));
    return true;
}

bool ReadReportUrl(Load& c, Value v, const std::string&) {
    if (v != nullptr && !v->empty()) {
        c.info.report_url = *v;
        c.info.beta = true;
    }
    return true;
}

bool ReadBeta(Load& c, Value v, const std::string&) {
    c.info.beta = c.info.beta || IsYes(v);
    return true;
}

bool ReadExtractSize(Load& c, Value v, const std::string&) {
    if (v != nullptr) {
        c.info.extractsize = KilobytesToBytes(std::strtoll(Str(v).c_str(), nullptr, 10));
    }
    return true;
}

struct KeyReader {
    PKG_INFO_TYPE key;
    Reader read;
    // A bit that must be set as well as one of the key's own (see g_MappingPKGInfoAdditional).
    unsigned long long parseBit = 0;
};

// The keys in the order they are read, which is the order in which a bad file is refused.
// A reader runs when the mask requests its key, so the bits are named only in the key table.
const KeyReader kReaders[] = {
    {PKG_INFO_PACKAGE, ReadName},
    {PKG_INFO_VERSION, Required<&PackageInfo::version>},
    {PKG_INFO_MAINTAINER, Required<&PackageInfo::maintainer>},
    {PKG_INFO_MAINTAINER_URL, Text<&PackageInfo::maintainer_url>},
    {PKG_INFO_DISTRIBUTOR, Text<&PackageInfo::distributor>},
    {PKG_INFO_DISTRIBUTOR_URL, Text<&PackageInfo::distributor_url>},
    {PKG_INFO_DESCRIPTION, ReadDescription},
    {PKG_INFO_ADMINURL, Text<&PackageInfo::adminurl>},
    {PKG_INFO_ADMINPORT, ReadAdminPort},
    {PKG_INFO_ADMINPROTOCOL, ReadAdminProtocols},
    {PKG_INFO_ARCH, ReadArch},
    {PKG_INFO_EXCLUDE_ARCH, ReadExcludedArch},
    {PKG_INFO_EXCLUDE_MODEL, Words<&PackageInfoExtraPrivate::exclude_model>},
    {PKG_INFO_MODEL, Words<&PackageInfo::model>},
    {PKG_INFO_OS_MIN_VER, ReadOSMin},
    {PKG_INFO_OS_MAX_VER, ReadOSMax},
    {PKG_INFO_DISPLAYNAME, ReadDisplayName},
    {PKG_INFO_CHECKPORT, NotNo<&PackageInfo::checkport>},
    {PKG_INFO_HELPURL, Text<&PackageInfo::helpurl>},
    {PKG_INFO_INSTUNINST_RESTART_SERVICES,
     RestartServices<&PackageInfo::instuninst_restart_services>},
    {PKG_INFO_STARTSTOP_RESTART_SERVICES,
     RestartServices<&PackageInfo::startstop_restart_services>},
    {PKG_INFO_INSTALL_DEP_SERVICES, Services<&PackageInfo::install_dep_services,
                                             &PackageInfoExtraPrivate::install_dep_service_set>},
    {PKG_INFO_START_DEP_SERVICES,
     Services<&PackageInfo::start_dep_services, &PackageInfoExtraPrivate::start_dep_service_set>},
    {PKG_INFO_KOSUIDIR, ReadUIDir},
    {PKG_INFO_KOSAPPNAME, Text<&PackageInfo::kosappname>},
    {PKG_INFO_INSTALL_REBOOT, Yes<&PackageInfo::install_reboot>},
    {PKG_INFO_CTL_STOP, ReadStartable},
    {PKG_INFO_INSTALL_DEP_PACKAGES,
     [](Load& c, Value v, const std::string&) {
         return DepList<&PackageInfo::install_dep_packages>(c, v, "PKG_DEPS");
     }},
    {PKG_INFO_INSTALL_CONFLICT_PACKAGES,
     [](Load& c, Value v, const std::string&) {
         return DepList<&PackageInfo::install_conflict_packages>(c, v, "PKG_CONX");
     }},
    {PKG_INFO_INSTALL_BREAK_PACKAGES, DepString<&PackageInfoExtraPrivate::install_break_packages>,
     PKG_MASK_PARSE_BREAK},
    {PKG_INFO_INSTALL_REPLACE_PACKAGES,
     DepString<&PackageInfoExtraPrivate::install_replace_packages>, PKG_MASK_PARSE_REPLACE},
    {PKG_INFO_INSTALL_REPLACE_FORCE_PACKAGES,
     DepString<&PackageInfoExtraPrivate::install_replace_force_packages>,
     PKG_MASK_PARSE_REPLACE_FORCE},
    {PKG_INFO_SILENT_INSTALL, Yes<&PackageInfo::silent_install>},
    {PKG_INFO_SILENT_UPGRADE, Yes<&PackageInfo::silent_upgrade>},
    {PKG_INFO_SILENT_UNINSTALL, Yes<&PackageInfo::silent_uninstall>},
    {PKG_INFO_CHECKSUM, Text<&PackageInfo::checksum>},
    {PKG_INFO_PACKAGE_ICON, Text<&PackageInfo::package_icon>},
    {PKG_INFO_PACKAGE_ICON_256, Text<&PackageInfo::package_icon_256>},
    {PKG_INFO_REPORT_URL, ReadReportUrl},
    {PKG_INFO_BETA, ReadBeta},
    {PKG_INFO_SUPPORT_CENTER, Yes<&PackageInfo::support_center>},
    {PKG_INFO_SUPPORT_URL, Text<&PackageInfo::support_url>},
    {PKG_INFO_EXTRACTSIZE, ReadExtractSize},
    {PKG_INFO_INSTALL_TYPE, Text<&PackageInfo::install_type>},
    {PKG_INFO_INSTALL_ON_COLD_STORAGE, Yes<&PackageInfoExtraPrivate::install_on_cold_storage>},
    {PKG_INFO_KOSAPPLAUNCHNAME, Text<&PackageInfoExtraPrivate::kosapplaunchname>},
    {PKG_INFO_SUPPORT_MOVE, Yes<&PackageInfoExtraPrivate::support_move>},
    {PKG_INFO_PRECHECKSTARTSTOP, Yes<&PackageInfoExtraPrivate::precheckstartstop>},
    {PKG_INFO_USE_DEPRECATED_REPLACE_MECHANISM,
     NotNo<&PackageInfoExtraPrivate::use_deprecated_replace_mechanism>},
    {PKG_INFO_CTL_UNINSTALL, NotNo<&PackageInfoExtraPrivate::ctl_uninstall>},
};
constexpr size_t kReaderCount = sizeof(kReaders) / sizeof(kReaders[0]);

// Per reader: its key's text and the mask bits that request it (0: always read), taken once
// from the key tables.
struct ResolvedReader {
    std::string key;
    unsigned long long bits;
};
const std::vector<ResolvedReader>& Resolved() {
    static const std::vector<ResolvedReader> resolved = [] {
        std::vector<ResolvedReader> out;
        for (const KeyReader& r : kReaders) {
            auto requested = g_MappingPKGInfoAdditional.find(r.key);
            unsigned long long bits =
                requested == g_MappingPKGInfoAdditional.end() ? 0 : requested->second;
            out.push_back({g_MappingPKGInfoFields.at(r.key), bits});
        }
        return out;
    }();
    return resolved;
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
    if (mask & (PKG_MASK_DESCRIPTION | PKG_MASK_DISPLAYNAME)) {
        if (lang != nullptr) {
            language = lang;
        } else {
            VLIBCFileGetKeyValue("/etc/zarninfo.conf", "language", language);
        }
    }
    const bool wantEnglish =
        (mask & PKG_MASK_DESCRIPTION) && !(langGiven && strcasecmp(language.c_str(), "enu") == 0);
    // Read the file directly rather than testing for it first: a scan pays one open per package.
    // The buffer is reused so that a scan doesn't allocate a fresh one for every file.
    thread_local std::string text;
    // The folder is resolved once for the INFO, the conf folder and the target link.
    const ZARNFolder folder(dir);
    if (!folder.readFile("INFO", text, kMaxInfoSize + 1)) {
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
    Load load{hash, info, *info.extra.get(), folder, infoPath, language, wantEnglish, -1};
    const std::vector<ResolvedReader>& resolved = Resolved();
    for (size_t i = 0; i < kReaderCount; ++i) {
        const KeyReader& r = kReaders[i];
        const bool requested = resolved[i].bits == 0 || (mask & resolved[i].bits) != 0;
        if (!requested || (r.parseBit != 0 && (mask & r.parseBit) == 0)) {
            continue;
        }
        if (!r.read(load, Get(hash, resolved[i].key), resolved[i].key)) {
            return false;
        }
    }
    // A scan for break lists reads every INFO of the registry for that list alone: resolving
    // each target link would cost it more than the reading.
    if (mask != PKG_MASK_BREAKERS) {
        const std::string named = PMSRegistryDir(info.name);
        load.x.target_volume = named == dir ? PMSGetPackageTargetVol(folder)
                                            : PMSGetPackageTargetVolByPath(named.c_str());
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
