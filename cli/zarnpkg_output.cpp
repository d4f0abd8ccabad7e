#include <cstdio>
#include <iostream>

#include "cli/zarnpkg_cli.h"
#include "platform/json.h"
#include "platform/sysroot.h"

using ZARNPackageTool::PKG_ERRCODE;

namespace {

Json::Value ParamsObject(const std::map<std::string, std::string>& params) {
    Json::Value out(Json::objectValue);
    for (const auto& [key, value] : params) {
        out[key] = value;
    }
    return out;
}

std::string Hex(unsigned int code) {
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%x", code);
    return buf;
}

}  // namespace

int PrintSuccess(const CliContext& ctx, Json::Value object, const std::string& text) {
    if (ctx.json) {
        Json::Value out(Json::objectValue);
        out["success"] = true;
        for (const auto& name : object.getMemberNames()) {
            out[name] = object[name];
        }
        std::cout << Json::toCompactString(out) << std::endl;
    } else if (!text.empty()) {
        std::cout << text;
        if (text.back() != '\n') {
            std::cout << '\n';
        }
    }
    return kExitOk;
}

int PrintFailureMessage(const CliContext& ctx, unsigned int code, const Json::Value& given,
                        const std::string& what, const Json::Value& params) {
    Json::Value message = given;
    if (code == ZARNPackageTool::PKG_ERR_SUCCESS) {
        // A failure that left no reason behind must not read as success to a script.
        code = ZARNPackageTool::PKG_ERR_SYSTEM;
        if (!message.isArray() || message.empty()) {
            message = Json::Value(Json::arrayValue);
            message.append(ZARNPackageTool::PKG_MSG_DEFAULT);
        }
    }
    if (ctx.json) {
        Json::Value out(Json::objectValue);
        out["success"] = false;
        out["code"] = code;
        out["message"] = message.isArray() ? message : Json::Value(Json::arrayValue);
        out["params"] = params.isObject() ? params : Json::Value(Json::objectValue);
        out["worker_msg"] = Json::Value(Json::arrayValue);
        std::cout << Json::toCompactString(out) << std::endl;
    } else {
        std::string line = "error: " + Hex(code);
        if (message.isArray()) {
            for (const auto& m : message) {
                line += " " + (m.isString() ? m.asString() : Json::toCompactString(m));
            }
        }
        std::cerr << line << ": " << what << std::endl;
    }
    return kExitFailed;
}

int PrintFailure(const CliContext& ctx, const ZARNPackageTool::PackageManager& pm,
                 const std::string& what, const std::string& packageName) {
    Json::Value data;
    PKG_ERRCODE code = pm.getResult(data);
    Json::Value message = ZARNPackageTool::PMSFileCheckMessage(code, data, packageName);
    return PrintFailureMessage(ctx, code, message, what, ParamsObject(pm.getMapParams()));
}

std::string RegistryFailureText() {
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    std::string text = "the package registry could not be prepared (run again with -v to see why)";
    if (root != "/") {
        text += "; if " + root + " is no standalone root yet, make it with: zarnpkg --root " +
                root + " host-init";
    }
    return text;
}

const char* StatusText(int status) {
    switch (status) {
        case 0:
            return "running";
        case 1:
        case 2:
        case 3:
            return "stopped";
        case 4:
            return "no control script";
        case 0x96:
            return "broken";
        case 0xff:
            return "not installed";
        case 0x100:
            return "stopped by a firmware limit on its version";
        case 0x101:
            return "stopped by the system's package limit";
        case 0x102:
            return "not allowed on this system";
        case 0x103:
            return "system error";
        default:
            return "unknown";
    }
}

const char* UsageText() {
    return "usage: zarnpkg [--root DIR] [--lang LANG] [--json] [-v] COMMAND [ARGS]\n"
           "commands:\n"
           "  host-init [--volumes N]   make or complete a standalone root\n"
           "  pack DIR -o FILE          build a QAR file from a package source folder\n"
           "  check FILE                the full file check of a QAR file\n"
           "  info NAME|FILE            a package's record\n"
           "  list                      installed packages with version and status\n"
           "  status NAME               status and rough status of a package\n"
           "  log NAME                  the package's log text\n"
           "  order [NAME]              stop order of all packages, or of NAME's dependants\n"
           "options:\n"
           "  --root DIR   work on the system tree in DIR instead of /\n"
           "  --lang LANG  language of display names and descriptions\n"
           "  --json       print one JSON object on standard output\n"
           "  -v           copy the library's log lines to standard error\n";
}

int PrintUsage(const CliContext& ctx, const std::string& problem) {
    if (ctx.json) {
        Json::Value message(Json::arrayValue);
        message.append(ZARNPackageTool::PKG_MSG_DEFAULT);
        PrintFailureMessage(ctx, ZARNPackageTool::PKG_ERR_SYSTEM, message, problem);
    }
    if (!problem.empty()) {
        std::cerr << "zarnpkg: " << problem << "\n";
    }
    std::cerr << UsageText();
    return kExitUsage;
}
