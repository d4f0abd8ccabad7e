#include <unistd.h>

#include "cli/zarnpkg_cli.h"
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

int CmdCheck(CliContext& ctx) {
    if (ctx.args.size() != 1) {
        return PrintUsage(ctx, "check takes one package file");
    }
    const std::string file = CliFilePath(ctx.args[0]);
    std::string displayName;
    PKG_ERRCODE code = PKG_ERR_SUCCESS;
    Json::Value detail(Json::objectValue);
    PackageInfo info;
    const char* lang = ctx.language() != nullptr ? ctx.language() : "enu";
    if (CheckPackageFileInfoImpl(lang, file.c_str(), displayName, code, detail, info)) {
        Json::Value out(Json::objectValue);
        out["code"] = static_cast<unsigned int>(PKG_ERR_SUCCESS);
        out["message"] = PMSFileCheckMessage(code, detail, displayName);
        return PrintSuccess(ctx, out,
                            ctx.args[0] + ": " + (displayName.empty() ? info.name : displayName) +
                                " " + info.version + " can be installed");
    }
    const Json::Value message = PMSFileCheckMessage(code, detail, displayName);
    return PrintFailureMessage(ctx, code, message,
                               ctx.args[0] + " can't be installed on this machine");
}
