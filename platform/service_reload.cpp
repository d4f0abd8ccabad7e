#include "platform/service_reload.h"

#include <utility>

#include "platform/apppriv.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"

namespace {

constexpr const char* kServicesFile = "/etc/zarnhost/services.json";

const std::vector<std::pair<unsigned long long, std::vector<std::string>>>& RestartBits() {
    static const std::vector<std::pair<unsigned long long, std::vector<std::string>>> bits = {
        {0x1, {"atalk"}},     {0x4, {"samba", "winbindd", "nmbd"}},
        {0x8, {"crond"}},     {0x8000, {"nfsd"}},
        {0x20000, {"avahi"}}, {0x40000000, {"nginx"}},
    };
    return bits;
}

// The services.json entry of a host service: 1 found, 0 not listed (or no list), -1 unreadable.
int ServiceEntry(const std::string& name, Json::Value& entry) {
    if (!ZARNPathExists(kServicesFile)) {
        return 0;
    }
    Json::Value services;
    if (!Json::fromFile(services, kServicesFile) || !services.isObject() ||
        !services["services"].isArray()) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    for (const auto& s : services["services"]) {
        if (s.isObject() && s.get("name", "").asString() == name) {
            entry = s;
            return 1;
        }
    }
    return 0;
}

// The events log is where this host shows what it did; a change it can't show is a failure.
bool Record(const std::string& text) {
    if (!ZARNEventLog(text)) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    return true;
}

int RunReloadCommand(const Json::Value& command) {
    std::vector<std::string> argv;
    for (const auto& arg : command) {
        if (!arg.isString()) {
            VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
            return -1;
        }
        argv.push_back(arg.asString());
    }
    if (argv.empty() || argv[0].empty() || argv[0][0] != '/') {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    argv[0] = IsFileExists(argv[0]) ? ZARNPhysicalPath(argv[0]) : ZARNMachineProgram(argv[0]);
    ZARNUtils::ProcessRunner runner(argv);
    if (runner.captureOutput().run() != 0) {
        VLIBCErrSet(ZARN_ERR_EXEC);
        return -1;
    }
    return 0;
}

}  // namespace

std::vector<std::string> ZARNServicesOfBit(unsigned long long bit) {
    for (const auto& [known, names] : RestartBits()) {
        if (known == bit) {
            return names;
        }
    }
    return {};
}

int VLIBServiceReload(const std::string& name) {
    Json::Value entry;
    const int found = ServiceEntry(name, entry);
    if (found < 0 || !Record("service reload: " + name)) {
        return -1;
    }
    if (found == 1 && entry.isMember("reload")) {
        return RunReloadCommand(entry["reload"]);
    }
    return 0;
}

int ServiceErrorEnum(std::vector<std::string>& names, unsigned long long mask, int /*flags*/) {
    int count = 0;
    for (const auto& [bit, daemons] : RestartBits()) {
        if ((mask & bit) == 0) {
            continue;
        }
        for (const auto& daemon : daemons) {
            Json::Value entry;
            const int found = ServiceEntry(daemon, entry);
            if (found < 0) {
                return -1;
            }
            if (found == 1 && entry.get("error", false).asBool()) {
                Record("service error: " + daemon);
                names.push_back(daemon);
                ++count;
            }
        }
    }
    return count;
}

int ZARNFwRuleHup() {
    return Record("firewall rules reloaded") ? 0 : -1;
}

namespace zarnw3 {

bool NginxConfManager::Run(int operation) {
    if (operation != kRegenerate) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    return Record("web engine configuration regenerated");
}

}  // namespace zarnw3
