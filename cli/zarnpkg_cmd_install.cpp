#include <json/json.h>

#include "cli/zarnpkg_cli.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/sysroot.h"

using namespace ZARNPackageTool;

namespace {

// The value of --wizard: a JSON object, or @FILE naming one. False with the problem in `why`.
bool ReadWizard(const std::string& value, Json::Value& out, std::string& why) {
    std::string text = value;
    if (!value.empty() && value[0] == '@') {
        if (!ZARNFileRead(ZARNCommandLinePath(value.substr(1)), text, 1024 * 1024)) {
            why = "--wizard: can't read " + value.substr(1);
            return false;
        }
    }
    if (!Json::fromString(out, text) || !out.isObject()) {
        why = "--wizard takes a JSON object of answers, or @FILE holding one";
        return false;
    }
    return true;
}

// Takes the value that follows option `k`; false when there is none.
bool TakeValue(const std::vector<std::string>& args, size_t& k, std::string& value) {
    if (k + 1 >= args.size()) {
        return false;
    }
    value = args[++k];
    return true;
}

// Takes the answers of --wizard at `k`; false with the problem in `why`.
bool TakeWizard(const std::vector<std::string>& args, size_t& k, Json::Value& wizard,
                std::string& why) {
    std::string value;
    if (!TakeValue(args, k, value)) {
        why = "--wizard needs a value";
        return false;
    }
    return ReadWizard(value, wizard, why);
}

}  // namespace

int CmdInstall(CliContext& ctx) {
    std::string file, given, volume, user, why;
    Json::Value wizard;
    INST_RUN_OPTION option = INST_RUN_KEEP_RUNNING;
    bool verify = false;
    bool ignoreDeps = false;
    bool hasWizard = false;
    const std::vector<std::string>& args = ctx.args;
    for (size_t k = 0; k < args.size(); ++k) {
        const std::string& arg = args[k];
        if (arg == "--volume" || arg == "--user") {
            if (!TakeValue(args, k, arg == "--volume" ? volume : user)) {
                return PrintUsage(ctx, arg + " needs a value");
            }
        } else if (arg == "--wizard") {
            if (!TakeWizard(args, k, wizard, why)) {
                return PrintUsage(ctx, why);
            }
            hasWizard = true;
        } else if (arg == "--start" || arg == "--no-start" || arg == "--keep-running") {
            option = arg == "--start"      ? INST_RUN_START
                     : arg == "--no-start" ? INST_RUN_NO_START
                                           : INST_RUN_KEEP_RUNNING;
        } else if (arg == "--verify-signature") {
            verify = true;
        } else if (arg == "--ignore-deps") {
            ignoreDeps = true;
        } else if (arg.rfind("--", 0) == 0 || !file.empty()) {
            return PrintUsage(ctx, "install takes one FILE and the options shown");
        } else {
            given = arg;
            file = ZARNCommandLinePath(arg);
        }
    }
    if (file.empty()) {
        return PrintUsage(ctx, "install needs the QAR FILE to install");
    }
    PackageManager pm;
    if (!pm.init()) {
        return PrintFailure(ctx, pm, RegistryFailureText());
    }
    if (!pm.install(ctx.language(), file, volume, option, hasWizard ? &wizard : nullptr,
                    user.empty() ? nullptr : user.c_str(), verify, ignoreDeps)) {
        return PrintFailure(ctx, pm, "could not install " + given);
    }
    const PackageInfo* info = pm.getPackageInfoData();
    Json::Value out(Json::objectValue);
    std::string text = "installed " + file;
    if (info != nullptr && !info->name.empty()) {
        out["package"] = info->name;
        out["version"] = info->version;
        out["status"] = pm.getPkgStatus(info->name);
        text = "installed " + info->name + " " + info->version + " (" +
               StatusText(out["status"].asInt()) + ")";
    }
    return PrintSuccess(ctx, out, text);
}

int CmdUninstall(CliContext& ctx) {
    std::string name, why;
    Json::Value wizard;
    bool force = false;
    bool hasWizard = false;
    const std::vector<std::string>& args = ctx.args;
    for (size_t k = 0; k < args.size(); ++k) {
        if (args[k] == "--force") {
            force = true;
        } else if (args[k] == "--wizard") {
            if (!TakeWizard(args, k, wizard, why)) {
                return PrintUsage(ctx, why);
            }
            hasWizard = true;
        } else if (args[k].rfind("--", 0) == 0 || !name.empty()) {
            return PrintUsage(ctx, "uninstall takes one package NAME, --force and --wizard");
        } else {
            name = args[k];
        }
    }
    if (name.empty()) {
        return PrintUsage(ctx, "uninstall needs the NAME of an installed package");
    }
    PackageManager pm;
    if (!pm.init()) {
        return PrintFailure(ctx, pm, RegistryFailureText());
    }
    if (!pm.uninstall(name, hasWizard ? &wizard : nullptr, ctx.language(),
                      PKG_INSTALLATION_UNINSTALL, force, nullptr)) {
        return PrintFailure(ctx, pm, "could not uninstall " + name);
    }
    Json::Value out(Json::objectValue);
    out["package"] = name;
    return PrintSuccess(ctx, out, "uninstalled " + name);
}
