#include "service/extra_env.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "platform/errors.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/scope_guard.h"
#include "service/jobs.h"

namespace ZARNPackageTool {
namespace Service {

namespace {

constexpr int kErrNoMemory = 0x0200;

// A copy of the key's value for an out pointer that wants it; false when the copy fails.
bool CopyOut(const std::map<std::string, std::string>& pairs, const char* key, char** out) {
    if (out == nullptr) {
        return true;
    }
    const auto found = pairs.find(key);
    if (found == pairs.end()) {
        return true;
    }
    *out = strdup(found->second.c_str());
    if (*out == nullptr) {
        VLIBCErrSet(kErrNoMemory);
        return false;
    }
    return true;
}

}  // namespace

std::string ExtraEnvPath(const std::string& package) {
    return "/tmp/zarnpkgctl.tmp-" + package;
}

void DumpExtraEnv(const std::string& package, PKG_INSTALLATION_TYPE type, const char* language,
                  const char* userName) {
    if (package.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return;
    }
    char action[16];
    snprintf(action, sizeof(action), "0x%04x", static_cast<unsigned int>(type));
    std::map<std::string, std::string> pairs = {{"action", action}};
    if (language != nullptr) {
        pairs["language"] = language;
    }
    if (userName != nullptr) {
        pairs["username"] = userName;
    }
    const std::string path = ExtraEnvPath(package);
    if (!ZARNKeyFileWrite(path, pairs)) {
        ZLOGERR("Failed to dump %s %s", path.c_str(), ZARNLastErrorSuffix().c_str());
        UnlinkIfPresent(path);
    }
}

bool LoadExtraEnv(const std::string& package, PKG_INSTALLATION_TYPE* type, char** language,
                  char** userName) {
    if (package.empty() || type == nullptr || (language != nullptr && *language != nullptr) ||
        (userName != nullptr && *userName != nullptr)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    const std::string path = ExtraEnvPath(package);
    // Read once: the file goes whatever the reading gave.
    ZARNUtils::ScopeGuard remove([&] { UnlinkIfPresent(path); });
    std::map<std::string, std::string> pairs;
    if (!ZARNKeyFileReadAll(path, pairs)) {
        if (VLIBCErrGet() == ZARN_ERR_NO_FILE) {
            *type = PKG_INSTALLATION_NONE;
            return true;
        }
        ZLOGERR("Failed to load %s %s", path.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    const auto action = pairs.find("action");
    if (action != pairs.end()) {
        *type = static_cast<PKG_INSTALLATION_TYPE>(strtol(action->second.c_str(), nullptr, 16));
    }
    return CopyOut(pairs, "language", language) && CopyOut(pairs, "username", userName);
}

}  // namespace Service
}  // namespace ZARNPackageTool
