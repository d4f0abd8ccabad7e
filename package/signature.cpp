#include "package/signature.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "core/errcode.h"
#include "core/packagemanager.h"
#include "core/paths.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"

namespace ZARNPackageTool {

int PMSParseTrustLevel(const std::string& setting) {
    // The setting is a decimal number, blanks around it aside: "00" is as strict as "0".
    // Anything that isn't one, an empty value included, behaves as 1.
    const size_t begin = setting.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        return 1;
    }
    const std::string text = setting.substr(begin, setting.find_last_not_of(" \t") - begin + 1);
    if (text.find_first_not_of("0123456789") != std::string::npos) {
        return 1;
    }
    const size_t first = text.find_first_not_of('0');
    if (first == std::string::npos) {
        return 0;
    }
    return text.substr(first) == "2" ? 2 : 1;
}

int PMSSignatureCodeFromExit(int exitCode, int trustLevel) {
    switch (exitCode) {
        case 0:
            return PKG_ERR_SIGN_OK;
        case 1:
            return trustLevel == 0 ? PKG_ERR_SIGN_NOT_MAKER : PKG_ERR_SIGN_OK;
        case 2:
            return PKG_ERR_SIGN_UNKNOWN_PUBLISHER;
        case 3:
            return PKG_ERR_SIGN_NONE;
        case 4:
            return PKG_ERR_SIGN_EXPIRED;
        case 5:
            return PKG_ERR_SIGN_BROKEN;
        default:
            return PKG_ERR_SIGN_CHECK;
    }
}

int PMSRunSignatureTool(const std::vector<std::string>& argv, int trustLevel) {
    if (argv.empty()) {
        return PKG_ERR_SIGN_CHECK;
    }
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    const int exitCode = runner.run();
    const int code = PMSSignatureCodeFromExit(exitCode, trustLevel);
    if (code == PKG_ERR_SIGN_CHECK) {
        ZLOGERR("Failed to verify signature by %s, exit=[%d] %s", argv[0].c_str(), exitCode,
                runner.getStderr().c_str());
    }
    return code;
}

bool PMSSignatureToolArgv(const char* file, std::vector<std::string>& argv) {
    argv.clear();
    if (file == nullptr) {
        return false;
    }
    // A relative name is taken from the working folder, which is already a machine path;
    // an absolute one is a path of the system and is mapped into the root.
    std::string path;
    if (file[0] == '/') {
        path = ZARNPhysicalPath(file);
    } else {
        char cwd[4096];
        char joined[4096];
        if (getcwd(cwd, sizeof(cwd)) == nullptr) {
            ZLOGERR("Failed to getcwd, errno=%m");
            return false;
        }
        int n = snprintf(joined, sizeof(joined), "%s/%s", cwd, file);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(joined)) {
            ZLOGERR("Path too long: %s/%s", cwd, file);
            return false;
        }
        path = joined;
    }
    // The interpreter exits with 1 when its script is missing, which would read as "known
    // publisher" and pass at level 1: without the tool there is nothing to ask.
    if (!IsFileExists(PMS_CODESIGN_TOOL)) {
        ZLOGERR("Failed to find the signature tool %s", PMS_CODESIGN_TOOL);
        return false;
    }
    argv = {ZARNMachineProgram(PMS_PHP), "-dopen_basedir=/", ZARNPhysicalPath(PMS_CODESIGN_TOOL),
            "--verify", path};
    return true;
}

int PackageManager::verifyPackageSignature(const char* file) {
    if (file == nullptr) {
        return PKG_ERR_SIGN_CHECK;
    }
    std::string level;
    if (VLIBCFileGetKeyValue(PMS_INFO_CONF, PMS_TRUST_LEVEL_KEY, level, 32) < 0) {
        ZLOGERR("Failed to get: %s", PMS_TRUST_LEVEL_KEY);
        return PKG_ERR_SIGN_CHECK;
    }
    const int trustLevel = PMSParseTrustLevel(level);
    if (trustLevel == 2) {
        return PKG_ERR_SIGN_OK;
    }
    std::vector<std::string> argv;
    if (!PMSSignatureToolArgv(file, argv)) {
        return PKG_ERR_SIGN_CHECK;
    }
    return PMSRunSignatureTool(argv, trustLevel);
}

}  // namespace ZARNPackageTool
