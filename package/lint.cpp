#include "package/lint.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "core/paths.h"
#include "package/archive.h"
#include "package/payload_vet.h"
#include "package/tar_reader.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

// What the judgement needs of a package, from a source folder or from a QAR alike.
struct LintInput {
    struct Script {
        std::string name;  // below scripts/
        unsigned int mode = 0;
        bool regular = false;
    };
    std::string info;
    std::vector<Script> scripts;
    std::vector<std::pair<std::string, std::string>> jsonFiles;  // path in the package, text
    std::vector<TarMember> payload;                              // the payload's members
};

// Files that the system parses as JSON; a wizard file ending in ".sh" is a script instead.
bool MustBeJson(const std::string& path) {
    if (path == "conf/privilege" || path == "conf/resource") {
        return true;
    }
    const std::string wizard = "WIZARD_UIFILES/";
    return path.compare(0, wizard.size(), wizard) == 0 &&
           path.find('/', wizard.size()) == std::string::npos &&
           !(path.size() >= 3 && path.compare(path.size() - 3, 3, ".sh") == 0);
}

// The number of groups of digits separated by `sep`, or -1 when a group is empty or holds
// anything but digits.
int NumberGroups(const std::string& text, char sep) {
    int groups = 1;
    bool digit = false;
    for (char c : text) {
        if (c == sep && digit) {
            ++groups;
            digit = false;
        } else if (c >= '0' && c <= '9') {
            digit = true;
        } else {
            return -1;
        }
    }
    return digit ? groups : -1;
}

// Bytes that a terminal or a log would take as control, written as \xNN.
std::string Visible(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char buf[8];
            std::snprintf(buf, sizeof(buf), "\\x%02x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// The characters of a name that the quoting of a generated job doesn't survive.
std::string ShellHazards(const std::string& name) {
    std::string found;
    for (unsigned char c : name) {
        std::string what;
        if (c < 0x20 || c == 0x7f) {
            what = "control characters";
        } else if (c == '"' || c == '\'' || c == '$' || c == '`' || c == '\\') {
            what = std::string(1, static_cast<char>(c));
        }
        if (!what.empty() && found.find(what) == std::string::npos) {
            found += (found.empty() ? "" : ", ") + what;
        }
    }
    return found;
}

// Scripts the system runs: the control scripts and the two of a replacement.
bool IsKnownScript(const std::string& name) {
    const auto& names = PMSPackageScriptNames();
    return std::find(names.begin(), names.end(), name) != names.end() || name == "prereplace" ||
           name == "postreplace";
}

// The set-ID bits of the payload from the mode column of tar's verbose listing.
void JudgePayload(const std::vector<TarMember>& members, PMSLintReport& report) {
    for (const TarMember& m : members) {
        const bool setUid = (m.mode & 04000) != 0;
        const bool setGid = (m.mode & 02000) != 0;
        if (!setUid && !setGid) {
            continue;
        }
        // Named as a verbose tar listing names it.
        std::string name = m.name;
        if (m.type == '2') {
            name += " -> " + m.linkname;
        } else if (m.type == '1') {
            name += " link to " + m.linkname;
        }
        report.warnings.push_back("package.tgz: " + Visible(name) + " has the " +
                                  (setUid && setGid ? "set-user-ID and set-group-ID bits"
                                   : setUid         ? "set-user-ID bit"
                                                    : "set-group-ID bit"));
    }
}

void Judge(const LintInput& in, PMSLintReport& report) {
    std::map<std::string, std::string> keys;
    ZARNKeyTextParse(in.info, "=", nullptr, keys);
    auto version = keys.find("version");
    if (version != keys.end() && !version->second.empty() &&
        !PMSIsPackageVersion(version->second)) {
        report.errors.push_back("INFO: key \"version\" (\"" + Visible(version->second) +
                                "\") is no package version: numbers separated by dots, "
                                "optionally a dash and a build number, such as \"1.2.3-0045\"");
    }
    for (const char* key : {"os_min_ver", "os_max_ver", "firmware"}) {
        auto it = keys.find(key);
        if (it != keys.end() && !it->second.empty() && !PMSIsOSVersionBound(it->second)) {
            report.errors.push_back(std::string("INFO: key \"") + key + "\" (\"" +
                                    Visible(it->second) +
                                    "\") is no OS version, such as \"6.2\" or \"6.2-25556\"");
        }
    }
    auto name = keys.find("package");
    if (name != keys.end()) {
        const std::string hazards = ShellHazards(name->second);
        if (!hazards.empty()) {
            report.warnings.push_back("INFO: the package name \"" + Visible(name->second) +
                                      "\" holds " + hazards +
                                      ", which a shell misreads in the package's generated job");
        }
    }
    for (const auto& file : in.jsonFiles) {
        Json::Value value;
        std::string why;
        if (!Json::fromString(value, file.second, &why)) {
            while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) {
                why.pop_back();
            }
            report.errors.push_back(file.first + " is no valid JSON: " + Visible(why));
        }
    }
    for (const auto& script : in.scripts) {
        const std::string path = "scripts/" + Visible(script.name);
        if (!IsKnownScript(script.name)) {
            report.warnings.push_back(path +
                                      " is no script name the system runs, so it never "
                                      "runs");
        }
        if (script.regular && (script.mode & S_IXUSR) == 0) {
            report.warnings.push_back(path + " is not executable");
        }
    }
    JudgePayload(in.payload, report);
}

// A member's name without the "./" that some tars put in front.
std::string MemberName(const TarMember& m) {
    std::string n = m.name;
    while (n.compare(0, 2, "./") == 0) {
        n.erase(0, 2);
    }
    return n;
}

bool IsRegular(const TarMember& m) {
    return m.type == '0' || m.type == '7';
}

// Collects what the judgement needs from a vetted QAR; the payload only when asked.
bool FromPackageFile(const std::string& file, bool withPayload, LintInput& in,
                     std::vector<std::string>* conf) {
    std::vector<TarMember> members;
    std::string why;
    if (!PMSQarListVetted(file, members, why)) {
        return false;
    }
    const TarMember* info = PMSTarFindMember(members, "INFO");
    if (info == nullptr || !PMSTarReadMember(file, *info, PMS_QAR_INFO_MAX, in.info)) {
        ZLOGERR("No readable INFO in %s", file.c_str());
        return false;
    }
    for (const auto& m : members) {
        const std::string name = MemberName(m);
        const size_t slash = name.find('/');
        if (slash == std::string::npos || slash + 1 == name.size()) {
            continue;
        }
        const std::string folder = name.substr(0, slash);
        const std::string rest = name.substr(slash + 1);
        if (folder == "scripts" && rest.find('/') == std::string::npos) {
            in.scripts.push_back({rest, m.mode, IsRegular(m)});
        } else if (folder == "conf" && conf != nullptr && IsRegular(m)) {
            conf->push_back(rest);
        }
        if (IsRegular(m) && MustBeJson(name)) {
            std::string text;
            if (!PMSTarReadMember(file, m, PMS_QAR_META_MAX, text)) {
                ZLOGERR("Failed to read %s of %s", name.c_str(), file.c_str());
                return false;
            }
            in.jsonFiles.emplace_back(name, text);
        }
    }
    const TarMember* tgz = PMSTarFindMember(members, "package.tgz");
    if (!withPayload || tgz == nullptr || !IsRegular(*tgz)) {
        return true;
    }
    PMSPayloadRead read;
    if (PMSQarPayloadRead(file, read, why) < 0) {
        ZLOGERR("Failed to list the payload of %s: %s", file.c_str(), why.c_str());
        return false;
    }
    in.payload = std::move(read.members);
    return true;
}

}  // namespace

bool PMSIsPackageVersion(const std::string& version) {
    const size_t dash = version.find('-');
    return NumberGroups(version.substr(0, dash), '.') > 0 &&
           (dash == std::string::npos || NumberGroups(version.substr(dash + 1), '-') == 1);
}

bool PMSIsOSVersionBound(const std::string& version) {
    const size_t dash = version.find('-');
    const int head = NumberGroups(version.substr(0, dash), '.');
    if (dash == std::string::npos) {
        return head == 1 || head == 2;
    }
    // The build needs the minor before it: "6-25556" would be read as 6.0-0000.
    const int tail = NumberGroups(version.substr(dash + 1), '-');
    return head == 2 && (tail == 1 || tail == 2);
}

void PMSLintSourceFolder(const std::string& dir, const std::string& payloadTgz,
                         PMSLintReport& report) {
    LintInput in;
    ZARNFileRead(dir + "/INFO", in.info, PMS_QAR_INFO_MAX);
    std::vector<ZARNDirEntry> entries;
    if (ZARNListDir(dir + "/scripts", entries)) {
        for (const auto& e : entries) {
            struct stat st;
            const bool known = ZARNStat(dir + "/scripts/" + e.name, st);
            in.scripts.push_back({e.name, known ? static_cast<unsigned int>(st.st_mode) : 0u,
                                  known && S_ISREG(st.st_mode)});
        }
    }
    std::vector<std::string> candidates = {"conf/privilege", "conf/resource"};
    entries.clear();
    if (ZARNListDir(dir + "/WIZARD_UIFILES", entries)) {
        for (const auto& e : entries) {
            candidates.push_back("WIZARD_UIFILES/" + e.name);
        }
    }
    for (const auto& path : candidates) {
        std::string text;
        if (MustBeJson(path) && ZARNIsRegularFile(dir + "/" + path)) {
            if (!ZARNFileRead(dir + "/" + path, text, PMS_QAR_META_MAX)) {
                report.errors.push_back(path + " can't be read");
                continue;
            }
            in.jsonFiles.emplace_back(path, text);
        }
    }
    PMSPayloadRead read;
    std::string why;
    if (PMSReadPayload(payloadTgz, 0, ~0ULL, false, ~0ULL, read, why)) {
        in.payload = std::move(read.members);
    } else {
        ZLOGERR("Failed to list %s: %s", payloadTgz.c_str(), why.c_str());
        report.errors.push_back("the packed payload can't be listed");
    }
    Judge(in, report);
}

bool PMSLintPackageFile(const std::string& file, PMSLintReport& report) {
    LintInput in;
    if (!FromPackageFile(file, true, in, nullptr)) {
        return false;
    }
    Judge(in, report);
    return true;
}

bool PMSPackageFileContents(const std::string& file, std::vector<std::string>& scripts,
                            std::vector<std::string>& conf) {
    LintInput in;
    scripts.clear();
    conf.clear();
    if (!FromPackageFile(file, false, in, &conf)) {
        return false;
    }
    for (const auto& s : in.scripts) {
        scripts.push_back(s.name);
    }
    std::sort(scripts.begin(), scripts.end());
    std::sort(conf.begin(), conf.end());
    return true;
}

}  // namespace ZARNPackageTool
