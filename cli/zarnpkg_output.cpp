#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "cli/zarnpkg_cli.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/sysroot.h"

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

// The length of the valid UTF-8 sequence at `i`, or 0 where the byte starts none.
size_t Utf8Length(const std::string& s, size_t i) {
    const unsigned char c = s[i];
    unsigned char lo = 0x80, hi = 0xbf;
    size_t len = 0;
    if (c < 0x80) {
        return 1;
    } else if (c >= 0xc2 && c <= 0xdf) {
        len = 2;
    } else if (c >= 0xe0 && c <= 0xef) {
        len = 3;
        lo = c == 0xe0 ? 0xa0 : lo;
        hi = c == 0xed ? 0x9f : hi;
    } else if (c >= 0xf0 && c <= 0xf4) {
        len = 4;
        lo = c == 0xf0 ? 0x90 : lo;
        hi = c == 0xf4 ? 0x8f : hi;
    } else {
        return 0;
    }
    if (i + len > s.size()) {
        return 0;
    }
    for (size_t k = 1; k < len; ++k) {
        const unsigned char b = s[i + k];
        if (b < (k == 1 ? lo : 0x80) || b > (k == 1 ? hi : 0xbf)) {
            return 0;
        }
    }
    return len;
}

// Text from packages and servers must not steer the terminal: control characters (C0 but tab
// and newline, DEL, C1 whether in UTF-8 or as a stray byte) are shown as escapes instead.
std::string TerminalText(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    char buf[8];
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = text[i];
        const size_t len = Utf8Length(text, i);
        if (len == 2 && c == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0) {
            std::snprintf(buf, sizeof(buf), "\\u%04x", static_cast<unsigned char>(text[i + 1]));
            out += buf;
        } else if ((c < 0x20 && c != '\t' && c != '\n') || c == 0x7f || (len == 0 && c < 0xa0)) {
            std::snprintf(buf, sizeof(buf), "\\x%02x", c);
            out += buf;
        } else {
            out.append(text, i, len == 0 ? 1 : len);
        }
        i += len == 0 ? 1 : len;
    }
    return out;
}

void PrintJson(const Json::Value& object) {
    std::cout << Json::toCompactString(object) << std::endl;
}

}  // namespace

void PrintText(std::ostream& stream, const std::string& text) {
    stream << TerminalText(text);
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
            out[name] = object[name];
        }
        PrintJson(out);
    } else {
        PrintText(std::cout, text);
    }
    return kExitOk;
}

int PrintFailureMessage(const CliContext& ctx, unsigned int code, const Json::Value& given,
                        const std::string& what, const Json::Value& givenParams) {
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
        out["worker_msg"] = Json::Value(Json::arrayValue);
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
    return PrintFailureCode(ctx, pm.getResult(), what, ParamsObject(pm.getMapParams()));
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
