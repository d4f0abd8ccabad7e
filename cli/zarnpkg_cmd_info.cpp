#include "cli/zarnpkg_cli.h"
#include "package/lint.h"
#include "platform/files.h"
#include "platform/json.h"
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

}  // namespace

int CmdInfo(CliContext& ctx) {
    if (ctx.args.size() != 1) {
        return PrintUsage(ctx, "info takes one package name or file");
    }
    const std::string& name = ctx.args[0];
    PackageManager pm;
    PackageInfo info;
    const std::string file = ZARNCommandLinePath(name);
    Json::Value out(Json::objectValue);
    std::string contents;
    if (name.find('/') != std::string::npos || ZARNIsRegularFile(file)) {
        if (!ZARNPathExists(file)) {
            return PrintFailureMessage(ctx, PKG_ERR_BROKEN,
                                       PMSFileCheckMessage(PKG_ERR_BROKEN, Json::Value(), name),
                                       name + ": no such file");
        }
        // A package file: its record as read from the archive, and what it holds.
        std::vector<std::string> scripts, conf;
        if (!PMSPackageFileContents(file, scripts, conf) ||
            !pm.queryPackageFileInfo(file, info, PKG_INSTALLATION_NONE, ctx.language()) ||
            info.name.empty()) {
            const Json::Value message = PMSFileCheckMessage(PKG_ERR_BROKEN, Json::Value(), name);
            return PrintFailureMessage(ctx, PKG_ERR_BROKEN, message,
                                       name + " is no readable package file");
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
        return PrintFailure(ctx, pm, "package " + name + " is not installed or its INFO is bad",
                            name);
    }
    Json::Value record;
    PMSPackageInfoToJson(info, record);
    out["package"] = record;
    return PrintSuccess(ctx, out, RecordText(record) + contents);
}
