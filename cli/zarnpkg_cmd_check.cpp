#include <iostream>

#include "cli/zarnpkg_cli.h"
#include "core/infoloader.h"
#include "package/archive.h"
#include "package/lint.h"
#include "package/payload_vet.h"
#include "platform/files.h"
#include "platform/sysroot.h"

using namespace ZARNPackageTool;

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

// The facts behind a refusal, as the file check left them beside its message.
std::string CheckFacts(PKG_ERRCODE code, const Json::Value& detail, const Json::Value& message) {
    auto text = [&detail](const char* name) {
        return detail.isObject() && detail[name].isString() ? detail[name].asString() : "";
    };
    const std::string bound =
        message.size() > 1 && message[1].isString() ? message[1].asString() : "";
    switch (code) {
        case PKG_ERR_OS_TOO_NEW:
            return "it runs on versions up to " + bound + ", and this system is " +
                   text("hostVersion");
        case PKG_ERR_OS_TOO_OLD:
            return "it needs version " + bound + " or later, and this system is " +
                   text("hostVersion");
        case PKG_ERR_PLATFORM:
            return "it is built for \"" + text("pkgArch") + "\", and this machine is \"" +
                   text("hostArch") + "\"";
        case PKG_ERR_UPGRADE:
            return "it lacks " + text("missingScript");
        case PKG_ERR_BAD_PACKAGE:
            return text("refused");
        default:
            return "";
    }
}

// The string facts of the detail, for scripts that read the failure object.
Json::Value CheckParams(const Json::Value& detail) {
    Json::Value params(Json::objectValue);
    if (detail.isObject()) {
        for (const auto& name : detail.getMemberNames()) {
            if (detail[name].isString()) {
                params[name] = detail[name];
            }
        }
    }
    return params;
}

// The author's check beside the file check: what it finds is told, and changes no answer.
Json::Value LintWarnings(const std::string& file) {
    PMSLintReport report;
    if (!PMSLintPackageFile(file, report)) {
        return Json::Value(Json::arrayValue);
    }
    std::vector<std::string> all = report.errors;
    all.insert(all.end(), report.warnings.begin(), report.warnings.end());
    return PrintWarnings(all);
}

}  // namespace

int CmdCheck(CliContext& ctx) {
    if (ctx.args.size() != 1) {
        return PrintUsage(ctx, "check takes one package file");
    }
    const std::string file = ZARNCommandLinePath(ctx.args[0]);
    if (!ZARNPathExists(file)) {
        return PrintFailureMessage(ctx, PKG_ERR_BROKEN,
                                   PMSFileCheckMessage(PKG_ERR_BROKEN, Json::Value(), ""),
                                   "no such file: " + ctx.args[0]);
    }
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root != "/" && !ZARNPathExists("/etc.defaults/zarninfo.conf")) {
        // Without the machine's settings every file would look broken.
        return PrintFailureMessage(
            ctx, PKG_ERR_SYSTEM, PMSFileCheckMessage(PKG_ERR_SYSTEM, Json::Value(), ""),
            "the root " + root + " is not a standalone root yet; run zarnpkg --root " + root +
                " host-init");
    }
    // The checksum, the payload check and the author's check all look at the payload: one read
    // of it, kept, serves them all. What it finds is judged by each of them in turn.
    PMSPayloadRead payload;
    std::string unjudged;
    PMSQarPayloadRead(file, payload, unjudged);
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
    bool ok = CheckPackageFileInfoImpl(lang, file.c_str(), displayName, code, detail, info);
    // A payload that unpacks to something hostile is damage, which outranks any other answer.
    std::string refused;
    if (code != PKG_ERR_BROKEN && code != PKG_ERR_BAD_PACKAGE && !PMSQarPayloadVet(file, refused)) {
        ok = false;
        code = PKG_ERR_BAD_PACKAGE;
        detail = Json::Value(Json::objectValue);
        detail["refused"] = refused;
    }
    const Json::Value warnings = LintWarnings(file);
    const Json::Value message = PMSFileCheckMessage(code, detail, displayName);
    if (ok) {
        Json::Value out(Json::objectValue);
        out["code"] = static_cast<unsigned int>(PKG_ERR_SUCCESS);
        out["message"] = message;
        out["warnings"] = warnings;
        return PrintSuccess(ctx, out,
                            ctx.args[0] + ": " + (displayName.empty() ? info.name : displayName) +
                                " " + info.version + " can be installed");
    }
    const std::string facts = CheckFacts(code, detail, message);
    return PrintFailureMessage(ctx, code, message,
                               ctx.args[0] + " can't be installed on this machine: " +
                                   CheckReason(code) + (facts.empty() ? "" : ": " + facts),
                               CheckParams(detail));
}
