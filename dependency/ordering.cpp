#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "dependency/depinternal.h"
#include "dependency/graph.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

constexpr size_t kNone = static_cast<size_t>(-1);

// Name to index of the first record of that name.
std::unordered_map<std::string, size_t> FirstIndexByName(const std::vector<PackageInfo>& records) {
    std::unordered_map<std::string, size_t> index;
    index.reserve(records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        index.emplace(records[i].name, i);
    }
    return index;
}

size_t Lookup(const std::unordered_map<std::string, size_t>& index, const std::string& name) {
    auto it = index.find(name);
    return it == index.end() ? kNone : it->second;
}

// Whether a package counts as running for the order of its dependants: started, or caught
// between states by its job.
bool IsActiveByStatus(const std::string& name, const PackageManager::BreakerSnapshot& breakers) {
    PackageManager query;
    query.useBreakerSnapshot(breakers);
    if (query.isStarted(name, true)) {
        return true;
    }
    return query.getResult() == PKG_ERR_JOB_ERROR;
}

}  // namespace

bool PackageManager::topologicalSortPkgs(std::vector<PackageInfo>& packages,
                                         std::vector<std::string>& order) {
    order.clear();
    Graph graph(packages.size());
    // Vertices are numbered in order of addition, which is the order of first occurrence.
    std::unordered_map<std::string, size_t> vertexOf;
    std::vector<size_t> recordOfVertex;
    vertexOf.reserve(packages.size());
    for (size_t i = 0; i < packages.size(); ++i) {
        if (vertexOf.emplace(packages[i].name, recordOfVertex.size()).second) {
            graph.addVertex(packages[i].name);
            recordOfVertex.push_back(i);
        }
    }
    // A duplicate record lends its dependencies to the vertex of the first: that is how a
    // candidate of an installed name closes a cycle through the installed packages.
    for (const auto& info : packages) {
        const size_t from = vertexOf.find(info.name)->second;
        for (const auto& dep : info.install_dep_packages) {
            auto to = vertexOf.find(dep.name);
            if (to == vertexOf.end()) {
                continue;
            }
            const PackageInfo& target = packages[recordOfVertex[to->second]];
            if (PMSDepSatisfied(target.name, target.version, dep)) {
                graph.addEdge(from, to->second);
            }
        }
    }
    if (!graph.topologicalSort()) {
        std::set<std::string> placed;
        for (const auto& name : graph.getResult()) {
            if (!name.empty()) {
                placed.insert(name);
            }
        }
        std::vector<std::string> left;
        for (size_t v = 0; v < recordOfVertex.size(); ++v) {
            const std::string& name = packages[recordOfVertex[v]].name;
            if (placed.count(name) == 0) {
                left.push_back(name);
            }
        }
        ZLOGERR("Cycle in %s", joinStringArray(left, ", ").c_str());
        return false;
    }
    order = graph.getResult();
    return true;
}

bool PackageManager::hasCycle(const PackageInfo& candidate) {
    std::vector<PackageInfo> records = ScanInstalled(nullptr, kDepMaskOrder);
    records.push_back(candidate);
    std::vector<std::string> order;
    return !topologicalSortPkgs(records, order);
}

bool PackageManager::getDependencyOrder(std::vector<std::string>& order) {
    std::vector<PackageInfo> records = ScanInstalled(nullptr, kDepMaskOrder);
    return topologicalSortPkgs(records, order);
}

bool PackageManager::getDependencyOrder(const char* name, std::vector<std::string>& order,
                                        bool byEnabledFlag) {
    return getDependencyOrder(name, order, byEnabledFlag, false);
}

bool PackageManager::getDependencyOrder(const char* name, std::vector<std::string>& order,
                                        bool byEnabledFlag, bool all) {
    order.clear();
    if (name == nullptr) {
        ZLOGERR("Bad parameters");
        return false;
    }
    const std::string target(name);
    if (!PMSCheckPackage(target)) {
        return true;
    }
    std::vector<PackageInfo> records = ScanInstalled(nullptr, kDepMaskOrder);
    const auto indexOf = FirstIndexByName(records);
    const size_t start = Lookup(indexOf, target);
    if (start == kNone) {
        order.assign(1, target);
        return true;
    }

    // Edges from a dependency to its dependants, by record index.
    std::vector<std::vector<size_t>> dependants(records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        const size_t from = Lookup(indexOf, records[i].name);
        for (const auto& dep : records[i].install_dep_packages) {
            const size_t to = Lookup(indexOf, dep.name);
            if (to != kNone) {
                dependants[to].push_back(from);
            }
        }
    }

    // Only packages that the walk can reach matter, so the running state, which costs a status
    // query, is asked of those alone; the walk over the others would find nothing anyway.
    PackageManager::BreakerSnapshot breakers;  // read on the first status query
    enum Activity : char { kUnknown, kActive, kInactive };
    std::vector<char> activity(records.size(), kUnknown);
    auto isActive = [&](size_t i) {
        if (activity[i] == kUnknown) {
            bool active = i == start || all;
            if (!active && byEnabledFlag) {
                active = PMSCheckEnabledFile(PMSRegistryDir(records[i].name).c_str());
            } else if (!active) {
                if (!breakers) {
                    breakers = makeBreakerSnapshot();
                }
                active = IsActiveByStatus(records[i].name, breakers);
            }
            activity[i] = active ? kActive : kInactive;
        }
        return activity[i] == kActive;
    };
    std::vector<char> reached(records.size(), 0);
    std::vector<size_t> stack{start};
    reached[start] = 1;
    while (!stack.empty()) {
        const size_t i = stack.back();
        stack.pop_back();
        for (size_t j : dependants[i]) {
            if (!reached[j] && isActive(j)) {
                reached[j] = 1;
                stack.push_back(j);
            }
        }
    }

    // The graph of the reached packages, numbered in registry order as a graph of all active
    // packages would number them, so that the walk visits them in the same order.
    std::vector<size_t> vertexOf(records.size(), kNone);
    std::vector<size_t> members;
    for (size_t i = 0; i < records.size(); ++i) {
        if (reached[i]) {
            vertexOf[i] = members.size();
            members.push_back(i);
        }
    }
    Graph graph(members.size());
    for (size_t i : members) {
        graph.addVertex(records[i].name);
    }
    for (size_t i : members) {
        for (size_t j : dependants[i]) {
            if (reached[j]) {
                graph.addEdge(vertexOf[i], vertexOf[j]);
            }
        }
    }
    graph.visit(vertexOf[start]);

    std::vector<PackageInfo> walked;
    walked.reserve(graph.getResult().size());
    for (const auto& p : graph.getResult()) {
        walked.push_back(records[Lookup(indexOf, p)]);
    }
    if (!topologicalSortPkgs(walked, order)) {
        order.clear();
        return false;
    }
    if (order.empty()) {
        order.assign(1, target);
    }
    return true;
}

bool PackageManager::getAncestryDependencyOrder(const char* name,
                                                std::vector<PackageInfo>& packages,
                                                std::vector<std::string>& order) {
    order.clear();
    if (name == nullptr) {
        ZLOGERR("Bad parameters");
        return false;
    }
    if (packages.empty()) {
        return true;
    }
    const auto indexOf = FirstIndexByName(packages);
    const size_t start = Lookup(indexOf, name);
    if (start == kNone) {
        order.assign(1, name);
        return true;
    }
    // One vertex per name, numbered by first occurrence.
    std::vector<size_t> vertexOf(packages.size(), kNone);
    std::vector<size_t> recordOfVertex;
    for (size_t i = 0; i < packages.size(); ++i) {
        if (Lookup(indexOf, packages[i].name) == i) {
            vertexOf[i] = recordOfVertex.size();
            recordOfVertex.push_back(i);
        }
    }
    Graph graph(recordOfVertex.size());
    for (size_t i : recordOfVertex) {
        graph.addVertex(packages[i].name);
    }
    for (const auto& info : packages) {
        const size_t from = vertexOf[Lookup(indexOf, info.name)];
        for (const auto& dep : info.install_dep_packages) {
            const size_t to = Lookup(indexOf, dep.name);
            if (to != kNone) {
                graph.addEdge(from, vertexOf[to]);
            }
        }
    }
    graph.visit(vertexOf[start]);

    std::vector<PackageInfo> walked;
    walked.reserve(graph.getResult().size());
    for (const auto& p : graph.getResult()) {
        walked.push_back(packages[Lookup(indexOf, p)]);
    }
    // Sorted, the package itself comes first and what it needs after it.
    if (!topologicalSortPkgs(walked, order)) {
        order.clear();
        return false;
    }
    return true;
}

bool PackageManager::getDepServicePkgs(const std::set<std::string>& services,
                                       std::vector<PackageInfo>& out) {
    out.clear();
    if (services.empty()) {
        return true;
    }
    std::vector<PackageInfo> matching;
    for (auto& info : ScanInstalled(nullptr, kDepMaskOrder | PKG_MASK_INSTALL_DEP_SERVICES |
                                                 PKG_MASK_START_DEP_SERVICES)) {
        if (!PMSCheckEnabledFile(PMSRegistryDir(info.name).c_str())) {
            continue;
        }
        const auto& x = *info.extra.get();
        bool named = false;
        for (const auto* set : {&x.install_dep_service_set, &x.start_dep_service_set}) {
            for (const auto& service : *set) {
                named = named || services.count(service) != 0;
            }
        }
        if (named) {
            matching.push_back(std::move(info));
        }
    }
    std::vector<std::string> order;
    if (!topologicalSortPkgs(matching, order)) {
        // Acting in registry order beats not acting at all.
        out = std::move(matching);
        return false;
    }
    // The sort gives a stop order; dependencies start first.
    const auto indexOf = FirstIndexByName(matching);
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        out.push_back(matching[Lookup(indexOf, *it)]);
    }
    return true;
}

bool PackageManager::getDepServicePkgs(const std::vector<unsigned int>&,
                                       std::vector<PackageInfo>&) {
    return true;
}

bool PackageManager::areDependencyPkgStarting(const std::string& name) {
    std::vector<std::string> list;
    PackageManager order;
    if (!order.getDependencyOrder(name.c_str(), list, false, true)) {
        ZLOGERR("failed to get dependency for %s", name.c_str());
        list.assign(1, name);
    }
    // One query scans the registry by itself; several share one scan.
    const BreakerSnapshot breakers = list.size() > 1 ? makeBreakerSnapshot() : nullptr;
    for (const auto& p : list) {
        PackageManager query;
        query.useBreakerSnapshot(breakers);
        bool running = false;
        if (!query.getServiceStatus(p, running, false) && query.getResult() == PKG_ERR_JOB_ERROR) {
            return true;
        }
    }
    return false;
}

bool PackageManager::arePackagesInstallAndStart(const DepPkgVector& deps, Json::Value& missing,
                                                std::string& names, const char*) {
    missing = Json::Value(Json::objectValue);
    names.clear();
    if (deps.empty()) {
        return true;
    }
    const PackageBasicInfoMap installed = enumPackageMap(kDepMaskOrder);
    std::vector<std::string> shown;
    // A package named twice (a lower and an upper bound) keeps both bounds.
    std::map<std::string, std::vector<std::string>> bounds;
    for (const auto& dep : deps) {
        auto it = installed.find(dep.name);
        if (it != installed.end() && PMSDepSatisfied(it->second.name, it->second.version, dep)) {
            continue;
        }
        const std::string text = PMSDepConstraintText(dep);
        auto& list = bounds[dep.name];
        if (text.size() > dep.name.size()) {
            list.push_back(text.substr(dep.name.size()));
        }
        shown.push_back(text);
    }
    for (const auto& [name, list] : bounds) {
        missing[name] = joinStringArray(list, ",");
    }
    names = joinStringArray(shown, ", ");
    return shown.empty();
}

}  // namespace ZARNPackageTool
