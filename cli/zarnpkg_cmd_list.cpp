#include <algorithm>
#include <cstdio>
#include <utility>

#include "cli/zarnpkg_cli.h"
#include "core/registry.h"

using namespace ZARNPackageTool;

namespace {

// A listing needs no icons.
constexpr unsigned long long kListMask = PKG_MASK_ALL & ~PKG_MASK_ICONS;

}  // namespace

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
    PackageManager scan;
    scan.enumPackageInfoByPath(PKG_REGISTRY_DIR, records, unreadable, ctx.language(), kListMask);
    // The records are large: sort their places, not them.
    std::vector<const PackageInfo*> sorted;
    sorted.reserve(records.size());
    for (const PackageInfo& info : records) {
        sorted.push_back(&info);
    }
    std::sort(sorted.begin(), sorted.end(),
              [](const PackageInfo* a, const PackageInfo* b) { return a->name < b->name; });
    Json::Value packages(Json::arrayValue);
    std::string text;
    PackageManager query;
    query.useBreakerSnapshot(PackageManager::makeBreakerSnapshot(records, unreadable));
    const std::vector<int> statuses = query.getPkgStatuses(sorted);
    // Only the form that is printed is built: a listing of thousands would hold both.
    for (size_t i = 0; i < sorted.size(); ++i) {
        const PackageInfo& info = *sorted[i];
        const int status = statuses[i];
        int rough = 0;
        bool known = PackageManager::roughStatusOf(status, info.name, rough);
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
