#include <iostream>
#include <set>
#include <string>

#include "cli/zarnpkg_cli.h"
#include "core/registry.h"
#include "resource/discovery.h"

using namespace ZARNPackageTool;

namespace {

// One line of a report entry: where the worker comes from, or why it was skipped.
std::string EntryLine(const Json::Value& entry) {
    std::string line = "  " + (entry["id"].asString().empty() ? "?" : entry["id"].asString());
    if (entry["provider"].asString() == "KOS") {
        return line + "  built-in\n";
    }
    line += "  plug-in of " + entry["provider"].asString() + " (" + entry["file"].asString();
    if (!entry["path"].asString().empty()) {
        line += ", " + entry["path"].asString();
    }
    line += ")";
    if (!entry["taken"].asBool()) {
        line += "  skipped: " + entry["reason"].asString();
    }
    return line + "\n";
}

}  // namespace

// zarnpkg workers [NAME]: the resource workers of each moment, built-in and plug-in, with
// their origin and why a declaration was skipped; with NAME, those its conf/resource asks for.
int CmdWorkers(CliContext& ctx) {
    if (ctx.args.size() > 1) {
        return PrintUsage(ctx, "workers takes at most one package name");
    }
    const std::string name = ctx.args.empty() ? "" : ctx.args[0];
    if (!name.empty() && (!PMSCheckName(name.c_str(), ":/<>=|") || !PMSCheckPackage(name))) {
        return PrintFailureCode(ctx, PKG_ERR_NOT_INSTALLED,
                                "package " + name + " is not installed");
    }
    Json::Value out;
    if (!Resource::DescribeWorkers(name, out)) {
        return PrintFailureCode(ctx, PKG_ERR_SYSTEM,
                                "conf/resource of " + name + " is not a JSON object");
    }
    std::string text;
    std::set<std::string> providerLines;  // the same at every moment: told once
    for (const Json::Value& moment : out["moments"]) {
        std::string lines;
        for (const Json::Value& entry : moment["workers"]) {
            if (entry["id"].asString().empty()) {
                providerLines.insert(EntryLine(entry));
            } else if (entry["taken"].asBool() || entry["reason"] != "not at this moment") {
                lines += EntryLine(entry);
            }
        }
        if (!lines.empty()) {
            text += moment["moment"].asString() + ":\n" + lines;
        }
    }
    for (const std::string& line : providerLines) {
        text += line;
    }
    if (out.isMember("providers_error")) {
        std::cerr << "warning: ";
        PrintText(std::cerr, out["providers_error"].asString() + "; plug-ins are not loaded");
    }
    if (text.empty()) {
        text = name.empty() ? "no workers\n" : "no worker takes a key of " + name + "\n";
    }
    return PrintSuccess(ctx, out, text);
}
