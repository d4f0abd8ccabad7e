#include "lifecycle/script_env.h"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/os_version.h"
#include "platform/process.h"
#include "platform/sysroot.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kSettingsFile = "/etc/zarninfo.conf";

// The values of the last wizard, kept so that the next preparation can take them away again.
Json::Value& WizardEnv() {
    static Json::Value values(Json::objectValue);
    return values;
}

// One variable of a plan: a value to give, or none (to be removed).
using EnvEntry = std::pair<std::string, std::optional<std::string>>;
using EnvPlan = std::vector<EnvEntry>;

std::string Physical(const std::string& logical) {
    return logical.empty() ? logical : ZARNPhysicalPath(logical);
}

std::string StatusText(PKG_INSTALLATION_TYPE type) {
    switch (static_cast<int>(type)) {
        case PKG_INSTALLATION_INSTALL:
            return "INSTALL";
        case PKG_INSTALLATION_UPGRADE:
            return "UPGRADE";
        case PKG_INSTALLATION_UNINSTALL:
            return "UNINSTALL";
        case PKG_INSTALLATION_START:
            return "START";
        case PKG_INSTALLATION_STOP:
            return "STOP";
        default:
            return "";
    }
}

std::string Language(const char* language) {
    if (language != nullptr) {
        return language;
    }
    std::string value;
    if (VLIBCFileGetKeyValue(kSettingsFile, "language", value) <= 0) {
        ZARNSyslog(LOG_ERR, "%s:%d Not find language in %s", __FILE__, __LINE__, kSettingsFile);
        return "";
    }
    return value;
}

// The head of a path up to, not including, its second "/": /volume1/@appstore/x -> /volume1.
std::string PathHead(const std::string& path) {
    size_t second = path.find('/', 1);
    return second == std::string::npos ? path : path.substr(0, second);
}

// The variables of the package's place, shared by both preparations, in their order.
void AddTargetVariables(EnvPlan& plan, const PackageInfo& info, const char* volume) {
    // A link that leads nowhere counts as absent: the script would find no files there.
    const std::string target = info.name.empty() ? "" : PMSGetPackageTarget(info.name);
    if (target.empty()) {
        plan.emplace_back("ZARNPKG_PKGDEST", std::nullopt);
    } else {
        plan.emplace_back("ZARNPKG_PKGDEST", Physical(target));
    }
    if (volume != nullptr) {
        plan.emplace_back("ZARNPKG_PKGDEST_VOL", Physical(volume));
    } else if (!target.empty()) {
        plan.emplace_back("ZARNPKG_PKGDEST_VOL", Physical(PathHead(target)));
    } else {
        plan.emplace_back("ZARNPKG_PKGDEST_VOL", std::nullopt);
    }
    if (info.adminport == 0) {
        plan.emplace_back("ZARNPKG_PKGPORT", std::nullopt);
    } else {
        plan.emplace_back("ZARNPKG_PKGPORT", std::to_string(static_cast<int>(info.adminport)));
    }
}

void AddSystemVariables(EnvPlan& plan, const char* language) {
    plan.emplace_back("ZARNPKG_KOS_LANGUAGE", Language(language));
    plan.emplace_back("ZARNPKG_KOS_VERSION_MAJOR", std::to_string(ZARN_OS_MAJOR));
    plan.emplace_back("ZARNPKG_KOS_VERSION_MINOR", std::to_string(ZARN_OS_MINOR));
    plan.emplace_back("ZARNPKG_KOS_VERSION_BUILD", std::to_string(ZARN_OS_BUILD));
    plan.emplace_back("ZARNPKG_KOS_ARCH", PMSGetSystemArchString());
}

EnvEntry Optional(const char* name, const char* value, bool physical) {
    if (value == nullptr) {
        return {name, std::nullopt};
    }
    return {name, physical ? Physical(value) : std::string(value)};
}

std::string TmpFolder(const std::string& name, const char* volume) {
    return Physical(Privilege::GetTmpFolderPath(name, volume));
}

// Removes the last wizard's names from the process environment and forgets them. A runner is
// left alone: what it was given for this action (such as the old version of an upgrade) stays.
void DropWizardEnv() {
    Json::Value& last = WizardEnv();
    for (const auto& name : last.getMemberNames()) {
        if (!PMSIsValidEnvName(name)) {
            continue;
        }
        unsetenv(name.c_str());
    }
    last = Json::Value(Json::objectValue);
}

}  // namespace

std::string parseInstallTypeToStr(PKG_INSTALLATION_TYPE type) {
    switch (static_cast<int>(type)) {
        case PKG_INSTALLATION_INSTALL:
            return "install";
        case PKG_INSTALLATION_UPGRADE:
            return "upgrade";
        case PKG_INSTALLATION_UNINSTALL:
            return "uninstall";
        case PKG_INSTALLATION_START:
            return "start";
        case PKG_INSTALLATION_STOP:
            return "stop";
        case PKG_INSTALLATION_RESTART:
            return "restart";
        default:
            return "(system) trigger";
    }
}

std::string PMSGetPkgStatusText(PKG_INSTALLATION_TYPE type) {
    return StatusText(type);
}

std::string PMSGetProgressPath(const std::string& name) {
    return "/tmp/install_progress_" + name;
}

bool PMSIsValidEnvName(const std::string& name) {
    return !name.empty() && name.find('=') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

const Json::Value& PMSGetWizardEnv() {
    return WizardEnv();
}

void PMSPrepareEnv(const PackageInfo& info, const char* language, const char* volume,
                   const char* packageFile) {
    EnvPlan plan;
    plan.emplace_back("ZARNPKG_PKGNAME", info.name);
    plan.emplace_back("ZARNPKG_PKGVER", info.version);
    AddSystemVariables(plan, language);
    AddTargetVariables(plan, info, volume);
    plan.push_back(Optional("ZARNPKG_TEMP_QARFILE", packageFile, true));
    // This one is for callers that run scripts themselves: their own environment is the target.
    for (const auto& [name, value] : plan) {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }
}

void PMSPrepareScriptEnv(const PackageInfo& info, ZARNUtils::ProcessRunner& runner,
                         const char* language, const std::string* logFile,
                         PKG_INSTALLATION_TYPE type, const Json::Value* wizardValues,
                         const char* volume, const char* packageFile, const char* userName) {
    const bool installing = type == PKG_INSTALLATION_INSTALL || type == PKG_INSTALLATION_UPGRADE;
    EnvPlan plan;
    plan.emplace_back("ZARNPKG_PKGNAME", info.name);
    plan.emplace_back("ZARNPKG_PKGVER", info.version);
    if (installing) {
        plan.emplace_back("ZARNPKG_PKG_PROGRESS_PATH", Physical(PMSGetProgressPath(info.name)));
    } else {
        plan.emplace_back("ZARNPKG_PKG_PROGRESS_PATH", std::nullopt);
    }
    const std::string status = StatusText(type);
    if (status.empty()) {
        plan.emplace_back("ZARNPKG_PKG_STATUS", std::nullopt);
    } else {
        plan.emplace_back("ZARNPKG_PKG_STATUS", status);
    }
    if (type == PKG_INSTALLATION_UPGRADE) {
        plan.emplace_back("ZARNPKG_TEMP_UPGRADE_FOLDER", TmpFolder(info.name, volume));
    } else {
        plan.emplace_back("ZARNPKG_TEMP_UPGRADE_FOLDER", std::nullopt);
    }
    if (installing && !PMSGetUseDeprecatedReplaceMechanism(info)) {
        plan.emplace_back("ZARNPKG_TEMP_REPLACE_FOLDER", TmpFolder(info.name, volume));
    } else {
        plan.emplace_back("ZARNPKG_TEMP_REPLACE_FOLDER", std::nullopt);
    }
    AddSystemVariables(plan, language);
    AddTargetVariables(plan, info, volume);
    plan.push_back(Optional("ZARNPKG_TEMP_QARFILE", packageFile, true));
    plan.push_back(Optional("ZARNPKG_USERNAME", userName, false));
    plan.push_back(Optional("ZARNPKG_TEMP_LOGFILE", logFile ? logFile->c_str() : nullptr, true));

    for (const auto& [name, value] : plan) {
        if (value) {
            runner.addEnv(name, *value);
        } else {
            unsetenv(name.c_str());
            runner.unsetEnv(name);
        }
    }
    // Scripts find appliance paths under the root through this; on the appliance it is absent.
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root != "/") {
        runner.addEnv("ZARNPKG_ROOT", root);
    } else {
        runner.unsetEnv("ZARNPKG_ROOT");
    }

    DropWizardEnv();
    if (wizardValues == nullptr || !wizardValues->isObject()) {
        return;
    }
    Json::Value kept(Json::objectValue);
    for (const auto& name : wizardValues->getMemberNames()) {
        if (!PMSIsValidEnvName(name)) {
            ZLOGERR("Skip wizard value of %s: [%s] can't be the name of an environment variable",
                    info.name.c_str(), name.c_str());
            continue;
        }
        const Json::Value& value = (*wizardValues)[name];
        std::string text;
        if (value.isString() || value.isNumeric() || value.isBool() || value.isNull()) {
            text = value.asString();
        } else {
            ZLOGERR("Skip wizard value of %s: [%s] is no plain value", info.name.c_str(),
                    name.c_str());
            continue;
        }
        if (text.find('\0') != std::string::npos) {
            ZLOGERR("Skip wizard value of %s: [%s] holds a zero byte", info.name.c_str(),
                    name.c_str());
            continue;
        }
        runner.addEnv(name, text);
        kept[name] = value;
    }
    WizardEnv() = kept;
}

void CleanAllEnv() {
    static const char* const kNames[] = {
        "ZARNPKG_BOOT_STATUS",
        "ZARNPKG_KOS_ARCH",
        "ZARNPKG_KOS_LANGUAGE",
        "ZARNPKG_KOS_VERSION_BUILD",
        "ZARNPKG_KOS_VERSION_MAJOR",
        "ZARNPKG_KOS_VERSION_MINOR",
        "ZARNPKG_OLD_PKGVER",
        "ZARNPKG_PKG_STATUS",
        "ZARNPKG_PKGDEST",
        "ZARNPKG_PKGDEST_VOL",
        "ZARNPKG_PKGINST_TEMP_DIR",
        "ZARNPKG_PKGNAME",
        "ZARNPKG_PKGPORT",
        "ZARNPKG_PKGVER",
        "ZARNPKG_TEMP_LOGFILE",
        "ZARNPKG_TEMP_QARFILE",
        "ZARNPKG_TEMP_UPGRADE_FOLDER",
        "ZARNPKG_USERNAME",
        "ZARNPKG_PKG_PROGRESS_PATH",
    };
    for (const char* name : kNames) {
        unsetenv(name);
    }
    DropWizardEnv();
}

bool PMSPrepareWizardScriptEnv(PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                               ZARNUtils::ProcessRunner& runner, const std::string& logFile,
                               const char* language, const char* volume, const char* packageFile,
                               const char* userName, const Json::Value* wizardValues) {
    switch (static_cast<int>(type)) {
        case PKG_INSTALLATION_INSTALL:
            PMSPrepareScriptEnv(info, runner, language, &logFile, type, wizardValues, volume,
                                packageFile, userName);
            return true;
        case PKG_INSTALLATION_UNINSTALL:
            PMSPrepareScriptEnv(info, runner, language, &logFile, type, wizardValues, volume,
                                nullptr, userName);
            return true;
        case PKG_INSTALLATION_UPGRADE: {
            PackageManager pm;
            PackageInfo installed;
            if (!pm.getPackageInfo(info.name, installed, language, PKG_MASK_ALL)) {
                ZARNSyslog(LOG_ERR, "%s:%d Previous %s not installed, upgrade not possible",
                           __FILE__, __LINE__, info.name.c_str());
                return false;
            }
            runner.addEnv("ZARNPKG_OLD_PKGVER", installed.version);
            PMSPrepareScriptEnv(installed, runner, language, &logFile, type, wizardValues, volume,
                                packageFile, userName);
            return true;
        }
        default:
            return false;
    }
}

}  // namespace ZARNPackageTool
