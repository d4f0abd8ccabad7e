#include "cli/zarnpkg_cli.h"
#include "platform/host_init.h"
#include "platform/sysroot.h"
#include "platform/volumes.h"

int CmdHostInit(CliContext& ctx) {
    int volumes = 1;
    if (ctx.args.size() == 2 && ctx.args[0] == "--volumes") {
        const std::string& count = ctx.args[1];
        if (count.empty() || count.size() > 2 ||
            count.find_first_not_of("0123456789") != std::string::npos || std::stoi(count) < 1) {
            return PrintUsage(ctx, "--volumes takes a number from 1 to 99");
        }
        volumes = std::stoi(count);
    } else if (!ctx.args.empty()) {
        return PrintUsage(ctx, "host-init takes only --volumes N");
    }
    if (ZARNPackageCore::GetSystemRoot() == "/") {
        // The machine's own root is an appliance or a host we must not rewrite.
        return PrintFailureCode(ctx, ZARNPackageTool::PKG_ERR_SYSTEM,
                                "host-init only works on a standalone root: give --root DIR");
    }
    std::string error;
    if (!ZARNHostInit(error) || !ZARNHostVolumesInit(volumes, error)) {
        return PrintFailureCode(ctx, ZARNPackageTool::PKG_ERR_SYSTEM,
                                "could not make the standalone root: " + error);
    }
    Json::Value out(Json::objectValue);
    out["root"] = ZARNPackageCore::GetSystemRoot();
    return PrintSuccess(ctx, out, "standalone root ready at " + ZARNPackageCore::GetSystemRoot());
}
