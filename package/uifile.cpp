#include <cstdio>
#include <exception>

#include "core/infoloader.h"
#include "core/packagemanager.h"
#include "core/paths.h"
#include "core/uifile_names.h"
#include "lifecycle/script_env.h"
#include "package/archive.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/scope_guard.h"
#include "platform/sysroot.h"

namespace ZARNPackageTool {

namespace {

constexpr size_t kMaxWizardFile = 16 * 1024 * 1024;

// The language of the wizard: the argument, else the system's; "" leaves the language forms
// out of the candidates.
std::string WizardLanguage(const char* lang) {
    if (lang != nullptr && lang[0] != '\0') {
        return lang;
    }
    std::string value;
    if (VLIBCFileGetKeyValue("/etc/zarninfo.conf", "language", value) != 1) {
        ZLOGERR("Failed to get value '%s' from '%s'", "language", "/etc/zarninfo.conf");
        return "";
    }
    return value;
}

bool EndsWithSh(const std::string& path) {
    return path.size() >= 3 && path.compare(path.size() - 3, 3, ".sh") == 0;
}

// Runs a wizard script; its JSON comes back through the message file of the script contract.
bool RunWizardScript(const std::string& script, PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                     const char* lang, const char* packageFile, Json::Value& out) {
    const std::string tmpFile = PMSMakeTmpFile("pkgwizard");
    if (tmpFile.empty()) {
        return false;
    }
    ZARN_SCOPE_EXIT {
        ZARNUnlink(tmpFile);
    };
    // A script taken out of an archive (`packageFile` set) lies in our own temp folder and is
    // made runnable there; one of the registry is run as installed, since a reader doesn't
    // change the registry.
    if (packageFile != nullptr) {
        ZARNChmod(script, 0700);
    }
    ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(script)});
    if (!PMSPrepareWizardScriptEnv(type, info, runner, tmpFile, lang, nullptr,
                                   type == PKG_INSTALLATION_UNINSTALL ? nullptr : packageFile,
                                   nullptr, nullptr)) {
        return false;
    }
    runner.captureOutput();
    const int rc = runner.run();
    if (rc != 0) {
        ZLOGERR("Failed to run %s for %s", script.c_str(), info.name.c_str());
        return false;
    }
    return PMReadUIFileContent(tmpFile, out);
}

bool ReadWizardFile(const std::string& path, PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                    const char* lang, const char* packageFile, Json::Value& out) {
    if (EndsWithSh(path)) {
        return RunWizardScript(path, type, info, lang, packageFile, out);
    }
    return PMReadUIFileContent(path, out);
}

}  // namespace

bool PMReadUIFileContent(const std::string& path, Json::Value& out) {
    std::string text;
    if (!ZARNIsRegularFile(path) || !ZARNFileRead(path, text, kMaxWizardFile + 1) ||
        text.size() > kMaxWizardFile) {
        ZLOGERR("Fail to read %s", path.c_str());
        return false;
    }
    Json::Reader reader;
    bool parsed = false;
    std::string problem;
    try {
        parsed = reader.parse(text, out);
        problem = reader.getFormattedErrorMessages();
    } catch (const std::exception& e) {
        // The reader throws on nesting beyond its stack limit; a package file must not end us.
        problem = e.what();
    }
    if (!parsed) {
        // Half a parse is no wizard: the caller goes on to the next candidate.
        out = Json::Value();
        ZLOGERR("%s: %s", path.c_str(), problem.c_str());
        return false;
    }
    if (!out.isArray()) {
        ZLOGERR("Fail to parse %s", path.c_str());
        return false;
    }
    for (const auto& step : out) {
        if (!step.isObject() || !step["items"].isArray()) {
            ZLOGERR("Fail to parse %s in [items]", path.c_str());
            return false;
        }
    }
    return true;
}

namespace {

// The walk goes by reference: a copy per level would hold the whole subtree once for every level
// above it, and a deep wizard with one large value would then take depth times its size.
void CollectUIDefaultValues(const Json::Value& wizard, Json::Value& out) {
    if (wizard.isArray()) {
        for (const auto& item : wizard) {
            CollectUIDefaultValues(item, out);
        }
        return;
    }
    if (!wizard.isObject()) {
        return;
    }
    if (wizard.isMember("key") && wizard.isMember("defaultValue")) {
        const Json::Value& key = wizard["key"];
        const Json::Value& value = wizard["defaultValue"];
        const std::string keyText = key.isString() ? key.asString() : Json::toCompactString(key);
        if (value.isString()) {
            out[keyText] = value.asString();
        } else if (value.isArray() || value.isObject()) {
            out[keyText] = Json::toCompactString(value);
        } else {
            out[keyText] = value.asString();
        }
    }
    for (const auto& name : wizard.getMemberNames()) {
        const Json::Value& member = wizard[name];
        if (member.isArray() || member.isObject()) {
            CollectUIDefaultValues(member, out);
        }
    }
}

}  // namespace

void getUIDefaultValues(Json::Value wizard, Json::Value& out) {
    CollectUIDefaultValues(wizard, out);
}

bool PMSGetImageTmpPath(const char* first, const char* second, const char* third,
                        std::string& out) {
    if (first == nullptr || first[0] == '\0' || second == nullptr || second[0] == '\0') {
        return false;
    }
    std::string base;
    if (!PMSGetListTmpDir(base)) {
        base = "/tmp/@zarnpkg/";
        if (ZARNFSMkdirP(base, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0777) < 0) {
            ZLOGERR("Failed to mkdir %s, %m", base.c_str());
            return false;
        }
    }
    if (base.empty() || base.back() != '/') {
        base += '/';
    }
    std::string path = base + "icon/" + first + "/" + second;
    if (third != nullptr && third[0] != '\0') {
        path += std::string("/") + third;
    }
    if (ZARNFSMkdirP(path, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0777) < 0) {
        ZLOGERR("Failed to mkdir %s, %m", path.c_str());
        return false;
    }
    out = path;
    return true;
}

bool PackageManager::parseUIFile(const std::string& file, const std::string& tmp,
                                 PKG_INSTALLATION_TYPE type, PackageInfo& info, const char* lang) {
    const std::string language = WizardLanguage(lang);
    const std::vector<std::string> candidates =
        PMSUIFileCandidates(type, language.empty() ? nullptr : language.c_str());
    std::vector<TarMember> members;
    std::string why;
    if (candidates.empty() || !PMSQarListVetted(file, members, why)) {
        return true;  // a package without a usable wizard is normal
    }
    for (const auto& candidate : candidates) {
        if (!info.wizard.empty()) {
            break;
        }
        std::string member = candidate;
        std::string command, out, err;
        if (PMSTarFindMember(members, member) == nullptr ||
            PMSQarExtract(file, members, {member}, tmp, PMS_QAR_META_MAX, command, out, err) != 0) {
            continue;
        }
        std::string path = tmp + "/" + member;
        if (!IsFileExists(path)) {
            // A language file may be a link to another file of the folder.
            std::string target;
            if (!ZARNReadLink(path, target) || target.empty()) {
                ZLOGERR("zarnpkg: [%s] is symlink to empty path", member.c_str());
                continue;
            }
            member = "WIZARD_UIFILES/" + target;
            if (PMSTarFindMember(members, member) == nullptr ||
                PMSQarExtract(file, members, {member}, tmp, PMS_QAR_META_MAX, command, out, err) !=
                    0) {
                ZLOGERR("zarnpkg: extract symlink target [%s] failed", member.c_str());
                continue;
            }
            path = tmp + "/" + member;
        }
        Json::Value wizard;
        ReadWizardFile(path, type, info, language.empty() ? nullptr : language.c_str(),
                       file.c_str(), wizard);
        info.wizard = wizard;
    }
    return true;
}

bool PackageManager::readUIFile(PKG_INSTALLATION_TYPE type, const std::string& name,
                                PackageInfo& info, const char* lang) const {
    if (type == PKG_INSTALLATION_NONE) {
        return true;
    }
    const std::string language = WizardLanguage(lang);
    for (const auto& candidate :
         PMSUIFileCandidates(type, language.empty() ? nullptr : language.c_str())) {
        if (!info.wizard.empty()) {
            break;
        }
        char path[4096];
        std::snprintf(path, sizeof(path), "/var/packages/%s/%s", name.c_str(), candidate.c_str());
        if (!IsFileExists(path)) {
            continue;
        }
        Json::Value wizard;
        ReadWizardFile(path, type, info, language.empty() ? nullptr : language.c_str(), nullptr,
                       wizard);
        info.wizard = wizard;
    }
    return !info.wizard.empty();
}

bool PackageManager::readUIFile(const std::string&, const std::string&, PackageInfo&,
                                const char*) const {
    return false;
}

}  // namespace ZARNPackageTool
