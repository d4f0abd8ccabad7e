#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
#include "dependency/depinternal.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

using InstalledMap = std::map<std::string, PackageInfo>;

// The display name of a record, or its name when the INFO has none.
const std::string& ShownName(const PackageInfo& info) {
    return info.displayname.empty() ? info.name : info.displayname;
}

// Constraints of a list grouped by package name, so that a check looks one name up instead of
// walking the whole list for every installed package.
std::multimap<std::string, const PackageBasicInfo*> IndexByName(const DepPkgVector& list) {
    std::multimap<std::string, const PackageBasicInfo*> index;
    for (const auto& entry : list) {
        index.emplace(entry.name, &entry);
    }
    return index;
}

bool AnySatisfied(const std::multimap<std::string, const PackageBasicInfo*>& index,
                  const PackageInfo& installed) {
    auto range = index.equal_range(installed.name);
    for (auto it = range.first; it != range.second; ++it) {
        if (PMSDepSatisfied(installed.name, installed.version, *it->second)) {
            return true;
        }
    }
    return false;
}

bool DependsOn(const PackageInfo& info, const std::string& name) {
    for (const auto& dep : info.install_dep_packages) {
        if (dep.name == name) {
            return true;
        }
    }
    return false;
}

}  // namespace

// A scan of its own, so that the caller's result code is left as it was.
std::vector<PackageInfo> ScanInstalled(const char* language, unsigned long long mask) {
    std::vector<PackageInfo> records;
    PackageManager scan;
    scan.enumPackageInfo(records, language, mask);
    return records;
}

namespace {

// The sign of a - b for versions of plain numbers and dots ("1.2.10"), the absent numbers of the
// shorter one counting as 0, as the general comparison finds it after normalising; false for any
// other form, which takes the general way. The sorts compare one version per dependency, and
// the general way allocates a dozen strings each time.
bool PlainVersionSign(const std::string& a, const std::string& b, int& sign) {
    constexpr size_t kMaxDigits = 18;
    auto plain = [](const std::string& v) {
        size_t digits = 0;
        for (char c : v) {
            if (c == '.') {
                if (digits == 0) {
                    return false;
                }
                digits = 0;
            } else if (c >= '0' && c <= '9' && digits < kMaxDigits) {
                ++digits;
            } else {
                return false;
            }
        }
        return digits != 0;
    };
    if (!plain(a) || !plain(b)) {
        return false;
    }
    const char* p = a.c_str();
    const char* q = b.c_str();
    sign = 0;
    while (sign == 0 && (*p != '\0' || *q != '\0')) {
        long long x = 0;
        long long y = 0;
        for (; *p != '\0' && *p != '.'; ++p) {
            x = x * 10 + (*p - '0');
        }
        for (; *q != '\0' && *q != '.'; ++q) {
            y = y * 10 + (*q - '0');
        }
        sign = x == y ? 0 : (x > y ? 1 : -1);
        p += *p == '.';
        q += *q == '.';
    }
    return true;
}

}  // namespace

bool PMSDepSatisfied(const std::string& name, const std::string& version,
                     const PackageBasicInfo& constraint) {
    if (name != constraint.name) {
        return false;
    }
    int sign = 0;
    if (constraint.op >= PKG_VER_ANY && PlainVersionSign(version, constraint.version, sign)) {
        return PMSVersionSignMeets(sign, constraint.op);
    }
    PackageBasicInfo installed(name, version);
    return installed.compare(constraint, constraint.op);
}

std::string PMSDepConstraintText(const PackageBasicInfo& constraint) {
    std::string text = constraint.name;
    const char* op = PMSDepOperatorText(constraint.op);
    if (op[0] != '\0') {
        text += op;
        text += constraint.version;
    }
    return text;
}

bool PackageManager::areDepPkgsInstalled(const DepPkgVector& list, std::vector<PackageInfo>& found,
                                         const char* language) {
    found.clear();
    if (list.empty()) {
        return false;
    }
    InstalledMap installed;
    enumPackageInfoMap(installed, language, kDepMaskChecks);
    bool present = false;
    for (const auto& entry : list) {
        auto it = installed.find(entry.name);
        if (it == installed.end()) {
            continue;
        }
        if (PMSDepSatisfied(it->second.name, it->second.version, entry)) {
            found.push_back(it->second);
            present = true;
        }
    }
    return present;
}

bool PackageManager::areDepPkgsInstalled(const DepPkgVector& list,
                                         std::vector<std::string>& displayNames,
                                         const char* language) {
    displayNames.clear();
    std::vector<PackageInfo> found;
    bool present = areDepPkgsInstalled(list, found, language);
    for (const auto& info : found) {
        displayNames.push_back(ShownName(info));
    }
    return present;
}

bool PackageManager::arePackagesConflict(PackageBasicInfo pkg, const DepPkgVector& conflicts,
                                         const DepPkgVector& breaks, const DepPkgVector& replaces,
                                         std::string& names, const char* language) {
    names.clear();
    std::vector<PackageInfo> records = ScanInstalled(language, kDepMaskConflicts);
    std::map<std::string, const PackageInfo*> byName;
    for (const auto& info : records) {
        byName.emplace(info.name, &info);
    }
    const auto breakIndex = IndexByName(breaks);
    const auto replaceIndex = IndexByName(replaces);

    std::set<std::string> reported;
    std::vector<std::string> shown;
    auto report = [&](const PackageInfo& info) {
        if (reported.insert(info.name).second) {
            shown.push_back(ShownName(info));
        }
    };

    // Installed packages that the candidate names as conflicting, unless it breaks or replaces
    // them anyway.
    for (const auto& c : conflicts) {
        auto it = byName.find(c.name);
        if (it == byName.end() || reported.count(c.name) != 0) {
            continue;
        }
        const PackageInfo& installed = *it->second;
        if (!PMSDepSatisfied(installed.name, installed.version, c)) {
            continue;
        }
        if (AnySatisfied(breakIndex, installed) || AnySatisfied(replaceIndex, installed)) {
            continue;
        }
        report(installed);
    }
    // Installed packages that name the candidate as conflicting.
    for (const auto& info : records) {
        if (info.name == pkg.name) {
            continue;
        }
        for (const auto& c : info.install_conflict_packages) {
            if (c.name == pkg.name && PMSDepSatisfied(pkg.name, pkg.version, c)) {
                report(info);
                break;
            }
        }
    }
    names = joinStringArray(shown, ", ");
    return !shown.empty();
}

bool PackageManager::arePackagesConflict(PackageBasicInfo pkg, const DepPkgVector& conflicts,
                                         std::string& names, const char* language) {
    return arePackagesConflict(std::move(pkg), conflicts, DepPkgVector(), DepPkgVector(), names,
                               language);
}

bool PackageManager::IsBrokenByOtherPkg(PackageBasicInfo pkg, std::vector<std::string>* names,
                                        const char* language) {
    InstalledMap installed;
    scanBreakers(installed, language);
    return IsBrokenByOtherPkg(std::move(pkg), names, installed);
}

bool PackageManager::IsBrokenByOtherPkg(PackageBasicInfo pkg, std::vector<std::string>* names,
                                        const InstalledMap& installed) {
    if (names != nullptr) {
        names->clear();
    }
    bool broken = false;
    for (const auto& [key, info] : installed) {
        // Each break entry that holds adds the package once: the list follows the entries.
        for (const auto& entry : info.extra.get()->install_break_packages) {
            if (entry.name == pkg.name && PMSDepSatisfied(pkg.name, pkg.version, entry)) {
                if (names == nullptr) {
                    return true;
                }
                broken = true;
                names->push_back(ShownName(info));
            }
        }
    }
    return broken;
}

bool PackageManager::arePackagesDepended(const std::string& name, const char* language,
                                         std::string& names) {
    names.clear();
    std::vector<std::string> shown;
    for (const auto& info : ScanInstalled(language, kDepMaskOrder)) {
        if (DependsOn(info, name)) {
            shown.push_back(ShownName(info));
        }
    }
    names = joinStringArray(shown, ", ");
    return shown.empty();
}

bool PackageManager::arePackagesDepended(const std::string& name, const char* language,
                                         std::vector<std::string>& names) {
    names.clear();
    for (const auto& info : ScanInstalled(language, kDepMaskOrder)) {
        if (DependsOn(info, name)) {
            names.push_back(info.name);
        }
    }
    return names.empty();
}

bool PackageManager::areDependentPackageStop(const std::string& name, const char* language,
                                             std::string& names) {
    names.clear();
    std::vector<std::string> shown;
    const std::vector<PackageInfo> records = ScanInstalled(language, kDepMaskOrder);
    BreakerSnapshot breakers;  // read on the first status query
    for (const auto& info : records) {
        if (!DependsOn(info, name)) {
            continue;
        }
        bool counts = !info.startable;
        if (!counts) {
            if (!breakers) {
                breakers = makeBreakerSnapshot();
            }
            PackageManager query;
            query.useBreakerSnapshot(breakers);
            bool running = false;
            counts = query.getServiceStatus(info.name, running, true) && running;
        }
        if (counts) {
            shown.push_back(ShownName(info));
        }
    }
    names = joinStringArray(shown, ", ");
    return shown.empty();
}

bool PackageManager::getDepPkgListStop(const std::vector<std::string>& packages,
                                       const std::string& skipName, const char* language,
                                       Json::Value& out) {
    out = Json::Value(Json::arrayValue);
    bool nothingToStop = true;
    for (const auto& name : packages) {
        if (name == skipName) {
            continue;
        }
        PackageInfo info;
        if (!getInstallPackageInfo(name, info, language, kDepMaskOrder)) {
            ZLOGERR("Failed to get package info of %s", name.c_str());
            continue;
        }
        if (!info.startable) {
            continue;
        }
        Json::Value entry(Json::objectValue);
        entry["name"] = ShownName(info);
        entry["id"] = name;
        out.append(entry);
        nothingToStop = false;
    }
    return nothingToStop;
}

bool PackageManager::getDepPkgListStop(const std::string& name, const char* language,
                                       Json::Value& out) {
    std::vector<std::string> list;
    PackageManager order;
    if (!order.getDependencyOrder(name.c_str(), list, false)) {
        ZLOGERR("Failed to get dependency order for %s", name.c_str());
        list.assign(1, name);
    }
    return getDepPkgListStop(list, name, language, out);
}

}  // namespace ZARNPackageTool
