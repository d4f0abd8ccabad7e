#include <strings.h>

#include <cstring>

#include "cli/zarnpkg_cli.h"
#include "package/lint.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/sysroot.h"

using namespace ZARNPackageTool;

namespace {

std::string RecordText(const Json::Value& record) {
    std::string text;
    for (const auto& key : record.getMemberNames()) {
        const Json::Value& v = record[key];
        std::string value;
        if (v.isString()) {
            if (v.asString().empty()) {
                continue;
            }
            value = v.asString();
        } else if (v.isNull() || (v.isArray() && v.empty())) {
            continue;
        } else {
            Json::StreamWriterBuilder b;
            b["indentation"] = "";
            value = Json::writeString(b, v);
        }
        text += key + ": " + value + "\n";
    }
    return text;
}

// A word is a package name unless it reads as a path: a / in it, or the ending of a package
// file. A file named like a package in the working folder is reached with --file.
bool NamesAFile(const std::string& word) {
    static const char* const kEndings[] = {".qar", ".spk"};
    if (word.find('/') != std::string::npos) {
        return true;
    }
    for (const char* ending : kEndings) {
        const size_t n = std::strlen(ending);
        if (word.size() > n && strcasecmp(word.c_str() + word.size() - n, ending) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

int CmdInfo(CliContext& ctx) {
    const bool fileGiven = ctx.args.size() == 2 && ctx.args[0] == "--file";
    if (!fileGiven && (ctx.args.size() != 1 || ctx.args[0] == "--file")) {
        return PrintUsage(ctx,
                          "info takes one package name or file: info NAME, info FILE.qar, "
                          "info --file PATH");
    }
    const std::string& name = ctx.args.back();
    PackageManager pm;
    PackageInfo info;
    Json::Value out(Json::objectValue);
    std::string contents;
    if (fileGiven || NamesAFile(name)) {
        // A package file: its record as read from the archive, and what it holds.
        const std::string file = ZARNCommandLinePath(name);
        if (!IsFileExists(file)) {
            ZLOGERR("No such file %s", file.c_str());
            return PrintFailureCode(ctx, PKG_ERR_SYSTEM, "no such file: " + name);
        }
        std::vector<std::string> scripts, conf;
        if (!PMSPackageFileContents(file, scripts, conf) ||
            !pm.queryPackageFileInfo(file, info, PKG_INSTALLATION_NONE, ctx.language()) ||
            info.name.empty()) {
            return PrintFailureCode(ctx, PKG_ERR_BROKEN, name + " is no readable package file");
        }
        for (const auto& [key, names] :
             {std::make_pair("scripts", &scripts), std::make_pair("conf", &conf)}) {
            out[key] = Json::Value(Json::arrayValue);
            for (const auto& n : *names) {
                out[key].append(n);
            }
            contents += std::string(key) + ": " + Json::toCompactString(out[key]) + "\n";
        }
    } else if (!pm.getPackageInfo(name, info, ctx.language(), PKG_MASK_ALL)) {
        return PrintFailure(ctx, pm, "package " + name + " is not installed or its INFO is bad");
    }
    Json::Value record;
    PMSPackageInfoToJson(info, record);
    out["package"] = record;
    return PrintSuccess(ctx, out, RecordText(record) + contents);
}
