#include <iostream>

#include "cli/zarnpkg_cli.h"
#include "package/pack.h"
#include "platform/sysroot.h"

using namespace ZARNPackageTool;

int CmdPack(CliContext& ctx) {
    std::string dir;
    std::string output;
    for (size_t i = 0; i < ctx.args.size(); ++i) {
        const std::string& a = ctx.args[i];
        if (a == "-o") {
            if (i + 1 == ctx.args.size() || ctx.args[i + 1].empty()) {
                return PrintUsage(ctx, "pack: -o needs a file name");
            }
            output = ctx.args[++i];
        } else if (!a.empty() && a[0] == '-') {
            return PrintUsage(ctx, "pack: unknown option " + a);
        } else if (dir.empty()) {
            dir = a;
        } else {
            return PrintUsage(ctx, "pack takes one source folder");
        }
    }
    if (dir.empty() || output.empty()) {
        return PrintUsage(ctx, "pack DIR -o FILE");
    }
    std::string error;
    std::vector<std::string> warnings;
    if (!PMSPackPackage(ZARNCommandLinePath(dir), ZARNCommandLinePath(output), error, &warnings)) {
        // The key first, as in every failure; the reason in words follows it.
        Json::Value message = PMSFileCheckMessage(PKG_ERR_BAD_PACKAGE, Json::Value(), "");
        message.append(error);
        return PrintFailureMessage(ctx, PKG_ERR_BAD_PACKAGE, message,
                                   "can't pack " + dir + " into " + output);
    }
    Json::Value out(Json::objectValue);
    out["file"] = output;
    out["warnings"] = PrintWarnings(warnings);
    return PrintSuccess(ctx, out, "wrote " + output);
}
