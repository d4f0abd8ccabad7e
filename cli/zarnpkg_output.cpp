#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <utility>

#include "cli/zarnpkg_cli.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/sysroot.h"
#include "platform/terminal_text.h"

using ZARNPackageTool::PKG_ERRCODE;

namespace {

// The words of a map parameter of the manager that a person reads; others go by their key.
std::string ParamLabel(const std::string& key) {
    return key == "cycles" ? "packages on a cycle" : key;
}

Json::Value ParamsObject(const std::map<std::string, std::string>& params) {
    Json::Value out(Json::objectValue);
    for (const auto& [key, value] : params) {
        out[key] = value;
    }
    return out;
}

// The sentence of a failure: what failed, then the facts the parameters hold.
std::string Sentence(const std::string& what, const Json::Value& params) {
    std::string text = what;
    for (const auto& key : params.getMemberNames()) {
        const Json::Value& v = params[key];
        text += "; " + ParamLabel(key) + ": " +
                (v.isString() ? v.asString() : Json::toCompactString(v));
    }
    return text;
}

std::string Hex(unsigned int code) {
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%x", code);
    return buf;
}

void PrintJson(const Json::Value& object) {
    std::cout << Json::toCompactString(object) << std::endl;
}

}  // namespace

void PrintText(std::ostream& stream, const std::string& text) {
    stream << ZARNTerminalText(text);
    if (!text.empty() && text.back() != '\n') {
        stream << '\n';
    }
    stream.flush();
}

Json::Value PrintWarnings(const std::vector<std::string>& warnings) {
    Json::Value out(Json::arrayValue);
    for (const auto& w : warnings) {
        PrintText(std::cerr, "warning: " + w);
        out.append(w);
    }
    return out;
}

int PrintSuccess(const CliContext& ctx, Json::Value object, const std::string& text) {
    if (ctx.json) {
        Json::Value out(Json::objectValue);
        out["success"] = true;
        for (const auto& name : object.getMemberNames()) {
            out[name] = std::move(object[name]);
        }
        PrintJson(out);
    } else {
        PrintText(std::cout, text);
    }
    return kExitOk;
}

int PrintFailureMessage(const CliContext& ctx, unsigned int code, const Json::Value& given,
                        const std::string& what, const Json::Value& givenParams,
                        const Json::Value& workerMessages) {
    Json::Value message = given;
    if (code == ZARNPackageTool::PKG_ERR_SUCCESS) {
        // A failure that left no reason behind must not read as success to a script.
        code = ZARNPackageTool::PKG_ERR_SYSTEM;
        if (!message.isArray() || message.empty()) {
            message = Json::Value(Json::arrayValue);
            message.append(ZARNPackageTool::PMSMessageKey(ZARNPackageTool::PKG_ERR_SYSTEM));
        }
    }
    const Json::Value params = givenParams.isObject() ? givenParams : Json::objectValue;
    const std::string sentence = Sentence(what, params);
    if (ctx.json) {
        Json::Value out(Json::objectValue);
        out["success"] = false;
        out["code"] = code;
        out["message"] = message.isArray() ? message : Json::Value(Json::arrayValue);
        out["error"] = sentence;
        out["params"] = params;
        out["worker_msg"] =
            workerMessages.isArray() ? workerMessages : Json::Value(Json::arrayValue);
        PrintJson(out);
    } else {
        std::string line = "error: " + Hex(code);
        if (message.isArray()) {
            for (const auto& m : message) {
                line += " " + (m.isString() ? m.asString() : Json::toCompactString(m));
            }
        }
        PrintText(std::cerr, line + ": " + sentence);
    }
    return kExitFailed;
}

int PrintFailureCode(const CliContext& ctx, unsigned int code, const std::string& what,
                     const Json::Value& params) {
    Json::Value message(Json::arrayValue);
    message.append(ZARNPackageTool::PMSMessageKey(static_cast<PKG_ERRCODE>(code)));
    return PrintFailureMessage(ctx, code, message, what, params);
}

int PrintFailure(const CliContext& ctx, const ZARNPackageTool::PackageManager& pm,
                 const std::string& what) {
    Json::Value data;
    const PKG_ERRCODE code = pm.getResult(data);
    Json::Value message(Json::arrayValue);
    message.append(ZARNPackageTool::PMSMessageKey(code));
    // A list that the result carries (the services not enabled, say) is the message's argument.
    if (data.isArray()) {
        for (const auto& item : data) {
            message.append(item);
        }
    }
    return PrintFailureMessage(ctx, code, message, what, ParamsObject(pm.getMapParams()),
                               pm.getJsonParam("worker_msg"));
}

int FinishOutput(const CliContext& ctx, int status) {
    std::cout.flush();
    if (std::cout) {
        return status;
    }
    // Output that never reached its file is a failure, however well the command went.
    const int err = errno;
    ZLOGERR("Failed to write standard output: %s", std::strerror(err));
    std::cout.clear();
    CliContext text = ctx;
    text.json = false;
    PrintFailureCode(text, ZARNPackageTool::PKG_ERR_SYSTEM,
                     std::string("standard output could not be written: ") + std::strerror(err));
    return status == kExitOk ? kExitFailed : status;
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

int PrintUsage(const CliContext& ctx, const std::string& problem) {
    if (ctx.json) {
        PrintFailureCode(ctx, ZARNPackageTool::PKG_ERR_SYSTEM, problem);
    }
    if (!problem.empty()) {
        PrintText(std::cerr, "zarnpkg: " + problem);
    }
    PrintText(std::cerr, UsageText());
    return kExitUsage;
}
