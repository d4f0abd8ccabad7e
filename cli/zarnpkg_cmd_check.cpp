#include <unistd.h>

#include "cli/zarnpkg_cli.h"
#include "core/infoloader.h"
#include "package/archive.h"
#include "platform/sysroot.h"

using namespace ZARNPackageTool;

std::string CliFilePath(const std::string& path) {
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root == "/" || path.empty() || path[0] != '/') {
        return path;  // relative paths mean the same to the library and to the tools it runs
    }
    const std::string logical = ZARNLogicalPath(path);
    if (logical != path || path == root) {
        return logical;
    }
    // A file outside the root: said relative to the working folder, which no mapping changes.
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) {
        return path;
    }
    std::string up;
    for (const char* p = cwd; *p != '\0'; ++p) {
        if (*p == '/' && p[1] != '\0') {
            up += "../";
        }
    }
    if (std::string(cwd) == "/") {
        up.clear();
    } else if (up.empty()) {
        up = "../";
    }
    return (up.empty() ? "./" : up) + path.substr(1);
}

namespace {

// What the file check's result means to the person who has to do something about it.
std::string CheckReason(PKG_ERRCODE code) {
    switch (code) {
        case PKG_ERR_BROKEN:
            return "it is no package file";
        case PKG_ERR_BAD_PACKAGE:
        case PKG_ERR_SIGN_BROKEN:
            return "the package is damaged";
        case PKG_ERR_VERSION_LIMIT:
            return "this system refuses this version of the package";
        case PKG_ERR_SERVICE_NOT_STARTED:
            return "it needs host services that are not running";
        case PKG_ERR_DOWNGRADE:
            return "a newer version is installed";
        case PKG_ERR_DEPENDENCY:
            return "packages it needs are missing or stopped";
        case PKG_ERR_UPGRADE:
            return "the installed package can't be upgraded by this file";
        case PKG_ERR_NO_SPACE:
            return "no volume has room for it";
        case PKG_ERR_PLATFORM:
            return "it is made for another platform";
        case PKG_ERR_PORT_CONFLICT:
            return "its port is taken";
        case PKG_ERR_CONFLICT:
            return "installed packages conflict with it";
        case PKG_ERR_NO_WORKING_VOLUME:
        case PKG_ERR_VOLUME_CREATING:
            return "no volume can take packages now";
        case PKG_ERR_OS_TOO_NEW:
        case PKG_ERR_OS_TOO_OLD:
        case PKG_ERR_OS_RANGE:
            return "it needs another version of the system";
        case PKG_ERR_SIGN_NOT_MAKER:
        case PKG_ERR_SIGN_UNKNOWN_PUBLISHER:
        case PKG_ERR_SIGN_NONE:
        case PKG_ERR_SIGN_EXPIRED:
            return "its signature is not trusted here";
        default:
            return "run again with -v to see why";
    }
}

}  // namespace

int CmdCheck(CliContext& ctx) {
    if (ctx.args.size() != 1) {
        return PrintUsage(ctx, "check takes one package file");
    }
    const std::string file = CliFilePath(ctx.args[0]);
    std::string displayName;
    PKG_ERRCODE code = PKG_ERR_SUCCESS;
    Json::Value detail(Json::objectValue);
    PackageInfo info;
    // Without --lang the names come in the system's language, as everywhere else.
    std::string language = ctx.lang.empty() ? PMSSystemLanguage() : ctx.lang;
    if (language.empty()) {
        language = "enu";
    }
    const char* lang = language.c_str();
    if (CheckPackageFileInfoImpl(lang, file.c_str(), displayName, code, detail, info)) {
        Json::Value out(Json::objectValue);
        out["code"] = static_cast<unsigned int>(PKG_ERR_SUCCESS);
        out["message"] = PMSFileCheckMessage(code, detail, displayName);
        return PrintSuccess(ctx, out,
                            ctx.args[0] + ": " + (displayName.empty() ? info.name : displayName) +
                                " " + info.version + " can be installed");
    }
    const Json::Value message = PMSFileCheckMessage(code, detail, displayName);
    return PrintFailureMessage(
        ctx, code, message,
        ctx.args[0] + " can't be installed on this machine: " + CheckReason(code));
}
