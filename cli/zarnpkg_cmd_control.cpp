#include "cli/zarnpkg_cli.h"
#include "lifecycle/script_log.h"
#include "platform/json.h"

using namespace ZARNPackageTool;

namespace {

enum class Control { kStart, kStop, kRestart };

const char* Verb(Control control) {
    switch (control) {
        case Control::kStart:
            return "start";
        case Control::kStop:
            return "stop";
        default:
            return "restart";
    }
}

// What a refusal means for the person who asked, with what the package itself said.
std::string Reason(Control control, const std::string& name, PackageManager& pm) {
    Json::Value data;
    const PKG_ERRCODE code = pm.getResult(data);
    const std::string verb = Verb(control);
    const std::string said = PMSReadPackageLog(pm.getFixedLogFilePath(name));
    switch (code) {
        case PKG_ERR_NOT_INSTALLED:
            return "package " + name + " is not installed";
        case PKG_ERR_SERVICE_NOT_STARTED: {
            std::string names;
            for (const auto& service : data) {
                names += (names.empty() ? "" : ", ") + service.asString();
            }
            return name + " can't start: these host services are not enabled: " + names;
        }
        case PKG_ERR_PRESTART:
        case PKG_ERR_PRESTOP:
            return "the package's own script refused to " +
                   std::string(code == PKG_ERR_PRESTART ? "start " : "stop ") + name +
                   (said.empty() ? "" : ": " + said);
        case PKG_ERR_LOCK:
            return "another package action holds the package lock; try again when it ends";
        case PKG_ERR_NO_WORKING_VOLUME:
            return "the volume of " + name + " is not working";
        case PKG_ERR_BROKEN:
            return name + " is broken (its target or control script is missing); reinstall it";
        case PKG_ERR_NO_SCRIPT:
            return name + " has no control script to " + verb + " it with";
        case PKG_ERR_RESTART_SERVICE:
            return name + " did " + verb + ", but related host services failed to reload: " +
                   Json::toCompactString(pm.getJsonParam("services"));
        default:
            return name + " failed to " + verb + (said.empty() ? "" : ": " + said) +
                   " (run again with -v to see why)";
    }
}

int RunControl(CliContext& ctx, Control control) {
    if (ctx.args.size() != 1) {
        return PrintUsage(ctx, std::string(Verb(control)) + " takes one package name");
    }
    const std::string& name = ctx.args[0];
    PackageManager pm;
    if (!pm.init()) {
        return PrintFailure(ctx, pm, RegistryFailureText());
    }
    bool ok = false;
    if (control == Control::kRestart) {
        ok = pm.serviceControlRestart(name);
    } else {
        ok = pm.serviceControl(name, control == Control::kStart, ctx.language());
    }
    if (!ok) {
        return PrintFailure(ctx, pm, Reason(control, name, pm));
    }
    Json::Value out(Json::objectValue);
    out["package"] = name;
    out["action"] = Verb(control);
    static const char* const kDone[] = {"started", "stopped", "restarted"};
    return PrintSuccess(ctx, out, name + ": " + kDone[static_cast<int>(control)]);
}

}  // namespace

int CmdStart(CliContext& ctx) {
    return RunControl(ctx, Control::kStart);
}

int CmdStop(CliContext& ctx) {
    return RunControl(ctx, Control::kStop);
}

int CmdRestart(CliContext& ctx) {
    return RunControl(ctx, Control::kRestart);
}
