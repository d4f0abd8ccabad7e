#include "core/depparse.h"

#include <cstdio>
#include <map>
#include <string>

#include "core/version.h"
#include "platform/errors.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

// Whether a section or entry holding "kos_min_ver" / "kos_max_ver" counts on the running OS.
bool OSBoundsDecide(const std::string* minVer, const std::string* maxVer) {
    auto parse = [](const std::string& text) {
        OSVersionNumbers v;
        std::sscanf(text.c_str(), "%d.%d-%d", &v.major, &v.minor, &v.build);
        return v;
    };
    if (minVer != nullptr) {
        OSVersionNumbers bound = parse(*minVer);
        // The OS is older than the bound when OS minus bound is negative.
        if (PMSCompareOSWithBound(bound, 0) < 0) {
            return false;
        }
    }
    if (maxVer != nullptr) {
        OSVersionNumbers bound = parse(*maxVer);
        bool zero = bound.major == 0 && bound.minor == 0 && bound.build == 0;
        // A bound of all zeros counts as older than anything.
        if (zero || PMSCompareOSWithBound(bound, 0) > 0) {
            return false;
        }
    }
    return true;
}

// The decisions of one reader call by bound texts: each decision reads /etc.defaults/VERSION,
// and a section file may repeat the same bounds in thousands of sections.
class OSBoundsCache {
public:
    bool allow(const std::string* minVer, const std::string* maxVer) {
        if (minVer == nullptr && maxVer == nullptr) {
            return true;
        }
        std::string key;
        key += minVer != nullptr ? "1" + *minVer : "0";
        key.push_back('\0');
        key += maxVer != nullptr ? "1" + *maxVer : "0";
        auto it = decided_.find(key);
        if (it == decided_.end()) {
            it = decided_.emplace(std::move(key), OSBoundsDecide(minVer, maxVer)).first;
        }
        return it->second;
    }

private:
    std::map<std::string, bool> decided_;
};

const std::string* Find(const std::map<std::string, std::string>& values, const char* key) {
    auto it = values.find(key);
    return it == values.end() ? nullptr : &it->second;
}

std::string JsonVersion(const Json::Value& v) {
    if (v.isString()) {
        return v.asString();
    }
    if (v.isNumeric()) {
        return Json::toCompactString(v);
    }
    return "";
}

}  // namespace

bool DepPkgVector::pushDepPkg(const std::string& name, const std::string& version,
                              PKG_VERSION_COMPOP op) {
    // Python is provided by the system itself; a dependency on the package is dropped.
    if (name == "Python") {
        return false;
    }
    PackageBasicInfo entry(name, version);
    entry.op = op;
    push_back(std::move(entry));
    return true;
}

void DepPkgVector::toJSON(Json::Value& out) const {
    out = Json::Value();
    for (const auto& entry : *this) {
        // An operator out of range means any version, as in compare.
        int op = (entry.op < PKG_VER_ANY || entry.op > PKG_VER_LE) ? PKG_VER_ANY : entry.op;
        if (op == PKG_VER_ANY) {
            out[entry.name] = "";
        } else {
            if (!out[entry.name].isObject()) {
                out[entry.name] = Json::Value(Json::objectValue);
            }
            out[entry.name][PMSDepOperatorText(entry.op)] = entry.version;
        }
    }
}

void PackageBasicInfoMap::insertPackagae(const std::string& name, const std::string& version,
                                         bool beta, PKG_VERSION_COMPOP op) {
    if (count(name) != 0) {
        return;
    }
    PackageBasicInfo entry(name, version);
    entry.beta = beta;
    entry.op = op;
    emplace(name, std::move(entry));
}

const char* PMSDepOperatorText(PKG_VERSION_COMPOP op) {
    switch (op) {
        case PKG_VER_EQ:
            return "=";
        case PKG_VER_GT:
            return ">";
        case PKG_VER_LT:
            return "<";
        case PKG_VER_GE:
            return ">=";
        case PKG_VER_LE:
            return "<=";
        default:
            return "";
    }
}

void PMSExplodeDepPKGString(const char* text, DepPkgVector& out) {
    static const struct {
        const char* text;
        PKG_VERSION_COMPOP op;
    } ops[] = {{"<=", PKG_VER_LE},
               {">=", PKG_VER_GE},
               {"<", PKG_VER_LT},
               {">", PKG_VER_GT},
               {"=", PKG_VER_EQ}};
    if (text == nullptr) {
        return;
    }
    std::string all(text);
    size_t pos = 0;
    while (pos <= all.size()) {
        size_t end = all.find(':', pos);
        if (end == std::string::npos) {
            end = all.size();
        }
        const std::string item = all.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty()) {
            continue;
        }
        bool split = false;
        for (const auto& o : ops) {
            size_t at = item.rfind(o.text);
            if (at == std::string::npos) {
                continue;
            }
            split = true;
            const std::string version = item.substr(at + std::char_traits<char>::length(o.text));
            if (!version.empty()) {
                out.pushDepPkg(item.substr(0, at), version, o.op);
            }
            break;
        }
        if (!split) {
            out.pushDepPkg(item, "0", PKG_VER_ANY);
        }
    }
}

int PMSLoadDepConfFile(const char* path, DepPkgVector& out) {
    if (path == nullptr) {
        ZLOGERR("Bad parameters");
        return -1;
    }
    std::vector<ZARNIniSection> sections;
    if (!ZARNIniFileRead(path, sections)) {
        ZLOGERR("Failed to VLIBCFileEnumSection %s, errno=0X%X", path, VLIBCErrGet());
        return -1;
    }
    OSBoundsCache bounds;
    for (const auto& section : sections) {
        const auto& values = section.values;
        if (!bounds.allow(Find(values, "kos_min_ver"), Find(values, "kos_max_ver"))) {
            continue;
        }
        const std::string* minVer = Find(values, "pkg_min_ver");
        const std::string* maxVer = Find(values, "pkg_max_ver");
        if (minVer != nullptr) {
            out.pushDepPkg(section.name, *minVer, PKG_VER_GE);
        }
        if (maxVer != nullptr) {
            out.pushDepPkg(section.name, *maxVer, PKG_VER_LE);
        }
        if (minVer == nullptr && maxVer == nullptr) {
            out.pushDepPkg(section.name, "0", PKG_VER_ANY);
        }
    }
    return 0;
}

int PMSParseDepJSON(const Json::Value& value, DepPkgVector& out) {
    static const struct {
        const char* key;
        PKG_VERSION_COMPOP op;
    } keys[] = {{">=", PKG_VER_GE}, {"pkg_min_ver", PKG_VER_GE}, {"=", PKG_VER_EQ},
                {">", PKG_VER_GT},  {"pkg_max_ver", PKG_VER_LE}, {"<=", PKG_VER_LE},
                {"<", PKG_VER_LT}};
    if (!value.isObject()) {
        return 0;
    }
    OSBoundsCache bounds;
    for (const auto& name : value.getMemberNames()) {
        const Json::Value& entry = value[name];
        if (!entry.isObject() || entry.empty()) {
            out.pushDepPkg(name, "0", PKG_VER_ANY);
            continue;
        }
        std::string minOS, maxOS;
        bool hasMin = entry.isMember("kos_min_ver");
        bool hasMax = entry.isMember("kos_max_ver");
        if (hasMin) {
            minOS = JsonVersion(entry["kos_min_ver"]);
        }
        if (hasMax) {
            maxOS = JsonVersion(entry["kos_max_ver"]);
        }
        if (!bounds.allow(hasMin ? &minOS : nullptr, hasMax ? &maxOS : nullptr)) {
            continue;
        }
        bool any = false;
        for (const auto& k : keys) {
            any = any || entry.isMember(k.key);
        }
        if (!any) {
            out.pushDepPkg(name, "0", PKG_VER_ANY);
            continue;
        }
        for (const auto& k : keys) {
            const std::string version = JsonVersion(entry.get(k.key, ""));
            if (!version.empty()) {
                out.pushDepPkg(name, version, k.op);
            }
        }
    }
    return 0;
}

int PMSParseDepJSONString(const std::string& text, DepPkgVector& out) {
    if (text.empty()) {
        return 0;
    }
    Json::Value value;
    std::string error;
    if (!Json::fromString(value, text, &error)) {
        ZLOGERR("%s", error.c_str());
        return -1;
    }
    return PMSParseDepJSON(value, out);
}

DepPkgVector PMSGetBreakPkgs(const PackageInfo& info) {
    return info.extra.get()->install_break_packages;
}
DepPkgVector PMSGetReplacePkgs(const PackageInfo& info) {
    return info.extra.get()->install_replace_packages;
}
DepPkgVector PMSGetReplaceForcePkgs(const PackageInfo& info) {
    return info.extra.get()->install_replace_force_packages;
}

}  // namespace ZARNPackageTool
