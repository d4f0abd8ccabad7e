// Enumeration and lookup of installed packages: the INFO of each registry folder, loaded.

#include "core/infoloader.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/script_mask.h"
#include "core/uifile_names.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/parallel_for.h"

namespace ZARNPackageTool {

namespace {

// Registry folders: only entries that the listing reports as directories count, so a link or a
// file under the root is never a package.
std::vector<std::string> RegistryFolders(const std::string& root, bool* ok = nullptr) {
    std::vector<ZARNDirEntry> entries;
    std::vector<std::string> names;
    bool listed = ZARNListDir(root, entries);
    if (ok != nullptr) {
        *ok = listed;
    }
    for (const auto& e : entries) {
        if (e.type == ZARNFileType::Directory) {
            names.push_back(e.name);
        }
    }
    return names;
}

// Language for a scan: the caller's, or the system's read once for all packages.
struct ScanLanguage {
    explicit ScanLanguage(const char* lang)
        : given(lang != nullptr), text(lang != nullptr ? lang : PMSSystemLanguage()) {}
    const char* get() const { return text.c_str(); }
    bool given;
    std::string text;
};

enum class FolderLoad : char { Loaded, NoInfo, Bad };

// Loads the INFO of each folder under `root` into the records[first + i], which must be fresh.
// Large registries are spread over the cores: the scan waits on the file system and parses, and
// a listing of thousands of packages halves its wait.
std::vector<FolderLoad> LoadFolders(
    const std::string& root, const std::vector<std::string>& folders, const ScanLanguage& lang,
    unsigned long long mask, std::vector<PackageInfo>& records, size_t first,
    const std::function<void(size_t, const PackageInfo&)>& loaded = nullptr) {
    constexpr size_t kParallelFrom = 512;
    std::vector<FolderLoad> states(folders.size(), FolderLoad::NoInfo);
    auto load = [&](size_t i) {
        bool missing = false;
        PackageInfo& record = records[first + i];
        if (PMSLoadPKGInfoFileImpl(root + "/" + folders[i], record, lang.get(), lang.given, mask,
                                   &missing)) {
            // Loaded in place rather than copied in, yet listings hold what a copy holds.
            record.extra.dropUncopiedFields();
            states[i] = FolderLoad::Loaded;
            if (loaded) {
                loaded(i, record);
            }
        } else {
            states[i] = missing ? FolderLoad::NoInfo : FolderLoad::Bad;
        }
    };
    ZARNParallelFor(folders.size(), load, folders.size() < kParallelFrom ? 1 : 0);
    return states;
}

}  // namespace

std::vector<std::string> PackageManager::enumPackages(const std::set<std::string>& volumes,
                                                      unsigned long long mask) {
    std::vector<std::string> out;
    const std::vector<std::string> folders = RegistryFolders(PKG_REGISTRY_DIR);
    std::vector<PackageInfo> records(folders.size());
    const std::vector<FolderLoad> states =
        LoadFolders(PKG_REGISTRY_DIR, folders, ScanLanguage(nullptr), mask, records, 0);
    for (size_t i = 0; i < folders.size(); ++i) {
        if (states[i] != FolderLoad::Loaded) {
            continue;
        }
        std::string target;
        if (!volumes.empty() && ZARNReadLink(PMSRegistryDir(folders[i]) + "/target", target) &&
            !target.empty()) {
            bool onVolume = false;
            for (std::string vol : volumes) {
                if (vol.empty() || vol.back() != '/') {
                    vol += "/";
                }
                onVolume = onVolume || target.compare(0, vol.size(), vol) == 0;
            }
            if (!onVolume) {
                continue;
            }
        }
        out.push_back(folders[i]);
    }
    return out;
}

std::vector<std::string> PackageManager::enumPackages(const char* volume, unsigned long long mask) {
    std::set<std::string> volumes;
    if (volume != nullptr) {
        volumes.insert(volume);
    }
    return enumPackages(volumes, mask);
}

PackageBasicInfoMap PackageManager::enumPackageMap(unsigned long long mask) {
    PackageBasicInfoMap out;
    std::vector<PackageInfo> records;
    enumPackageInfo(records, nullptr, mask);
    for (const auto& info : records) {
        out.insertPackagae(info.name, info.version, info.beta, PKG_VER_ANY);
    }
    return out;
}

void PackageManager::enumPackageInfoMap(std::map<std::string, PackageInfo>& out, const char* lang,
                                        unsigned long long mask) {
    std::vector<PackageInfo> records;
    enumPackageInfo(records, lang, mask);
    for (auto& info : records) {
        std::string name = info.name;
        out.emplace(std::move(name), std::move(info));
    }
}

void PackageManager::scanBreakers(std::map<std::string, PackageInfo>& out, const char* lang) {
    // Only an INFO that names the key can break anything, and few do: the others are read as
    // text and never parsed.
    std::vector<std::string> folders;
    std::string text;
    for (std::string& folder : RegistryFolders(PKG_REGISTRY_DIR)) {
        if (ZARNFileRead(PMSRegistryDir(folder) + "/INFO", text) &&
            text.find("install_break_packages") != std::string::npos) {
            folders.push_back(std::move(folder));
        }
    }
    std::vector<PackageInfo> records(folders.size());
    const std::vector<FolderLoad> states =
        LoadFolders(PKG_REGISTRY_DIR, folders, ScanLanguage(lang), PKG_MASK_BREAKERS, records, 0);
    for (size_t i = 0; i < folders.size(); ++i) {
        if (states[i] == FolderLoad::Loaded &&
            !records[i].extra.get()->install_break_packages.empty()) {
            std::string name = records[i].name;
            out.emplace(std::move(name), std::move(records[i]));
        }
    }
}

bool PackageManager::enumPackageInfoByPath(const char* path, std::vector<PackageInfo>& out,
                                           std::vector<std::string>& bad, const char* lang,
                                           unsigned long long mask) {
    return scanRegistry(path, out, bad, lang, mask, nullptr, nullptr);
}

bool PackageManager::scanRegistry(const char* path, std::vector<PackageInfo>& out,
                                  std::vector<std::string>& bad, const char* lang,
                                  unsigned long long mask, const std::function<void(size_t)>& start,
                                  const std::function<void(size_t, const PackageInfo&)>& loaded) {
    bool listed = false;
    std::vector<std::string> folders;
    if (path != nullptr) {
        folders = RegistryFolders(path, &listed);
    }
    if (!listed) {
        ZLOGERR("Failed to opendir: %s, %m", path != nullptr ? path : "(null)");
        setResult(PKG_ERR_ENUM);
        return false;
    }
    // Records are loaded in place; the rare folders without one are taken out afterwards.
    const size_t first = out.size();
    out.resize(first + folders.size());
    if (start) {
        start(folders.size());
    }
    const std::vector<FolderLoad> states =
        LoadFolders(path, folders, ScanLanguage(lang), mask, out, first, loaded);
    size_t kept = first;
    for (size_t i = 0; i < folders.size(); ++i) {
        if (states[i] == FolderLoad::Bad) {
            bad.push_back(folders[i]);
        }
        if (states[i] == FolderLoad::Loaded) {
            if (kept != first + i) {
                out[kept] = std::move(out[first + i]);
            }
            ++kept;
        }
    }
    out.resize(kept);
    if (!bad.empty()) {
        Json::Value names(Json::arrayValue);
        for (const auto& b : bad) {
            names.append(b);
        }
        setResult(PKG_ERR_ENUM, names);
        return false;
    }
    return true;
}

void PackageManager::enumPackageInfo(std::vector<PackageInfo>& out, const char* lang,
                                     unsigned long long mask) {
    std::vector<std::string> bad;
    PackageManager scan;
    scan.enumPackageInfoByPath(PKG_REGISTRY_DIR, out, bad, lang, mask);
}

bool PackageManager::getPackageInfoByPathAndName(const char* root, const std::string& name,
                                                 PackageInfo& info, const char* lang,
                                                 unsigned long long mask) {
    if (root == nullptr) {
        return false;
    }
    return PMSLoadPKGInfoFile(std::string(root) + "/" + name, info, lang, mask);
}

bool PackageManager::getInstallPackageInfo(const std::string& name, PackageInfo& info,
                                           const char* lang, unsigned long long mask) {
    return getPackageInfoByPathAndName(PKG_REGISTRY_DIR, name, info, lang, mask);
}

bool PackageManager::getPackageInfo(const std::string& name, PackageInfo& info, const char* lang,
                                    unsigned long long mask) {
    bool ok = getInstallPackageInfo(name, info, lang, mask);
    setResult(ok ? PKG_ERR_SUCCESS : PKG_ERR_NOT_INSTALLED);
    return ok;
}

bool PackageManager::getPackageInfo(std::vector<std::string>& names, std::vector<PackageInfo>& out,
                                    const char* lang, unsigned long long mask) {
    bool ok = true;
    for (const auto& name : names) {
        PackageInfo info;
        if (!getInstallPackageInfo(name, info, lang, mask)) {
            ZLOGERR("get %s pkginfo failed ... [%m]", name.c_str());
            ok = false;
            info = PackageInfo();
        }
        // An empty record keeps the two vectors aligned.
        out.push_back(std::move(info));
    }
    return ok;
}

bool PackageManager::getPackageInfoByPath(const char* dir, PackageInfo& info, const char* lang) {
    return getPackageInfoByPathAndInfoType(dir, info, lang, PKG_MASK_ALL);
}

bool PackageManager::getPackageInfoByPathAndInfoType(const char* dir, PackageInfo& info,
                                                     const char* lang, unsigned long long) {
    if (dir == nullptr || dir[0] == '\0') {
        return false;
    }
    const std::string folder(dir);
    bool loaded = PMSLoadPKGInfoFile(folder, info, lang, PKG_MASK_ALL);
    info.script_mask = PMGetScriptMask(folder + "/scripts");
    // The wizard's language is the caller's, else the system's, as when the wizard is read.
    const std::string language =
        (lang != nullptr && lang[0] != '\0') ? std::string(lang) : PMSSystemLanguage();
    for (const auto& candidate : PMSUIFileCandidates(
             PKG_INSTALLATION_UNINSTALL, language.empty() ? nullptr : language.c_str())) {
        if (IsFileExists(folder + "/" + candidate)) {
            info.has_uninstall_wizard = true;
            break;
        }
    }
    return loaded;
}

bool PackageManager::hasEnableConf(const std::string& dir, bool& enabled) {
    enabled = IsFileExists(dir + "/enabled");
    return true;
}

bool PackageManager::isServiceEnabled(const char* name) {
    if (name == nullptr || name[0] == '\0') {
        setResult(PKG_ERR_SYSTEM);
        return false;
    }
    const std::string dir = PMSRegistryDir(name);
    if (!ZARNIsDir(dir)) {
        setResult(PKG_ERR_NOT_INSTALLED);
        return false;
    }
    if (!PMSCheckEnabledFile(dir.c_str())) {
        setResult(PKG_ERR_NOT_ENABLED);
        return false;
    }
    setResult(PKG_ERR_SUCCESS);
    return true;
}

}  // namespace ZARNPackageTool
