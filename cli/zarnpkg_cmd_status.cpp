#include <cstdio>

#include "cli/zarnpkg_cli.h"

using namespace ZARNPackageTool;

int CmdStatus(CliContext& ctx) {
    if (ctx.args.size() != 1) {
        return PrintUsage(ctx, "status takes one package name");
    }
    const std::string& name = ctx.args[0];
    PackageManager pm;
    if (!pm.init()) {
        return PrintFailure(ctx, pm, RegistryFailureText());
    }
    const int status = pm.getPkgStatus(name);
    if (status == 0xff) {
        // A package that isn't there is a failure to a script, as with other package managers.
        return PrintFailure(ctx, pm, "package " + name + " is not installed");
    }
    const unsigned int result = pm.getResult();
    int rough = 0;
    const bool known = PackageManager::roughStatusOf(status, name, rough);

    Json::Value out(Json::objectValue);
    out["package"] = name;
    out["status"] = status;
    out["rough_status"] = known ? Json::Value(rough) : Json::Value();
    char text[512];
    if (known) {
        std::snprintf(text, sizeof(text), "%s: %s (status 0x%x, rough status %d, result 0x%x)\n",
                      name.c_str(), StatusText(status), status, rough, result);
    } else {
        std::snprintf(text, sizeof(text), "%s: %s (status 0x%x, no rough status, result 0x%x)\n",
                      name.c_str(), StatusText(status), status, result);
    }
    return PrintSuccess(ctx, out, text);
}
