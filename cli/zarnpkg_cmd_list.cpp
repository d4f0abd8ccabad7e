#include <algorithm>
#include <cstdio>
#include <numeric>
#include <utility>

#include "cli/zarnpkg_cli.h"
#include "core/registry.h"

using namespace ZARNPackageTool;

int CmdList(CliContext& ctx) {
    if (!ctx.args.empty()) {
        return PrintUsage(ctx, "list takes no arguments");
    }
    PackageManager pm;
    if (!pm.init()) {
        return PrintFailure(ctx, pm, RegistryFailureText());
    }
    std::vector<PackageInfo> records;
    std::vector<std::string> unreadable;
    PackageManager query;
    const std::vector<int> statuses =
        query.getAllPkgStatuses(records, unreadable, ctx.language(), PKG_MASK_STATUS);
    // The records are large: sort their places, not them.
    std::vector<size_t> sorted(records.size());
    std::iota(sorted.begin(), sorted.end(), 0);
    std::sort(sorted.begin(), sorted.end(),
              [&records](size_t a, size_t b) { return records[a].name < records[b].name; });
    Json::Value packages(Json::arrayValue);
    std::string text;
    // Only the form that is printed is built: a listing of thousands would hold both.
    for (size_t i : sorted) {
        const PackageInfo& info = records[i];
        const int status = statuses[i];
        int rough = 0;
        const bool known = PackageManager::roughStatusOf(status, rough);
        if (ctx.json) {
            Json::Value entry(Json::objectValue);
            entry["package"] = info.name;
            entry["version"] = info.version;
            entry["status"] = status;
            entry["rough_status"] = known ? Json::Value(rough) : Json::Value();
            packages.append(std::move(entry));
        } else {
            char line[1024];
            std::snprintf(line, sizeof(line), "%-32s %-20s %s\n", info.name.c_str(),
                          info.version.c_str(), StatusText(status));
            text += line;
        }
    }
    Json::Value out(Json::objectValue);
    out["packages"] = packages;
    if (records.empty()) {
        text = "no packages installed\n";
    }
    return PrintSuccess(ctx, out, text);
}
