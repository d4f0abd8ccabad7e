#include "cli/zarnpkg_cli.h"

using namespace ZARNPackageTool;

int CmdLog(CliContext& ctx) {
    if (ctx.args.size() != 1) {
        return PrintUsage(ctx, "log takes one package name");
    }
    const std::string& name = ctx.args[0];
    PackageManager pm;
    if (!pm.init()) {
        return PrintFailure(ctx, pm, RegistryFailureText());
    }
    const std::string text = pm.getPackageLog(name);
    if (pm.getResult() != PKG_ERR_SUCCESS) {
        return PrintFailure(
            ctx, pm,
            pm.getResult() == PKG_ERR_NOT_INSTALLED
                ? "package " + name + " is not installed"
                : "the log of " + name + " could not be read (run again with -v to see why)");
    }
    Json::Value out(Json::objectValue);
    out["package"] = name;
    out["log"] = text;
    return PrintSuccess(ctx, out, text.empty() ? text : text + "\n");
}
