#include <string>
#include <vector>

#include "cli/zarnpkg_cli.h"
#include "core/registry.h"

using namespace ZARNPackageTool;

// zarnpkg order [NAME]: the stop order of all installed packages, or NAME's dependants, running
// or not, followed by NAME. Starting goes the other way round.
int CmdOrder(CliContext& ctx) {
    if (ctx.args.size() > 1) {
        return PrintUsage(ctx, "order takes at most one package name");
    }
    PackageManager pm;
    if (!pm.init()) {
        return PrintFailure(ctx, pm, RegistryFailureText());
    }
    std::vector<std::string> order;
    if (ctx.args.empty()) {
        if (!pm.getDependencyOrder(order)) {
            pm.setResult(PKG_ERR_DEP_CYCLE);
            return PrintFailure(
                ctx, pm, "the installed packages depend on each other in a cycle; no order exists");
        }
    } else {
        const std::string& name = ctx.args[0];
        if (!PMSCheckName(name.c_str(), ":/<>=|") || !PMSCheckPackage(name)) {
            pm.setResult(PKG_ERR_NOT_INSTALLED);
            return PrintFailure(ctx, pm, "package " + name + " is not installed");
        }
        if (!pm.getDependencyOrder(name.c_str(), order, false, true)) {
            pm.setResult(PKG_ERR_DEP_CYCLE);
            return PrintFailure(
                ctx, pm, "the packages that depend on " + name + " form a cycle; no order exists");
        }
    }
    Json::Value names(Json::arrayValue);
    std::string text;
    for (const auto& name : order) {
        names.append(name);
        text += name + "\n";
    }
    Json::Value out(Json::objectValue);
    out["order"] = names;
    if (order.empty()) {
        text = "no packages installed\n";
    }
    return PrintSuccess(ctx, out, text);
}
