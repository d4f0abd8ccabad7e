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

// Vertex lists of the strongly connected components of `succ` that hold a cycle (more than one
// vertex, or a vertex with an edge to itself). Tarjan's algorithm with an explicit stack, since
// a registry of tens of thousands of packages would overflow the call stack.
std::vector<std::vector<size_t>> CyclicComponents(const std::vector<std::vector<size_t>>& succ) {
    const size_t n = succ.size();
    std::vector<size_t> index(n, kNone);
    std::vector<size_t> low(n, 0);
    std::vector<char> onStack(n, 0);
    std::vector<size_t> stack;
    std::vector<std::pair<size_t, size_t>> calls;  // vertex, next successor to look at
    std::vector<std::vector<size_t>> components;
    size_t counter = 0;
    auto enter = [&](size_t v) {
        index[v] = low[v] = counter++;
        stack.push_back(v);
        onStack[v] = 1;
        calls.emplace_back(v, 0);
    };
    for (size_t root = 0; root < n; ++root) {
        if (index[root] != kNone) {
            continue;
        }
        enter(root);
        while (!calls.empty()) {
            auto& [v, next] = calls.back();
            if (next < succ[v].size()) {
                const size_t w = succ[v][next++];
                if (index[w] == kNone) {
                    enter(w);
                } else if (onStack[w]) {
                    low[v] = std::min(low[v], index[w]);
                }
                continue;
            }
            const size_t done = v;
            calls.pop_back();
            if (!calls.empty()) {
                low[calls.back().first] = std::min(low[calls.back().first], low[done]);
            }
            if (low[done] != index[done]) {
                continue;
            }
            std::vector<size_t> component;
            size_t w = kNone;
            do {
                w = stack.back();
                stack.pop_back();
                onStack[w] = 0;
                component.push_back(w);
            } while (w != done);
            const auto& out = succ[done];
            if (component.size() > 1 || std::find(out.begin(), out.end(), done) != out.end()) {
                components.push_back(std::move(component));
            }
        }
    }
    return components;
}

// The graph of a set of records: a vertex per name, numbered by first occurrence, and an edge
// from a record to each dependency in the set whose version it accepts. A duplicate record
// lends its dependencies to the vertex of the first: that is how a candidate of an installed
// name closes a cycle through the installed packages.
struct RecordGraph {
    explicit RecordGraph(const std::vector<PackageInfo>& packages) {
        vertexOf.reserve(packages.size());
        for (size_t i = 0; i < packages.size(); ++i) {
            if (vertexOf.emplace(packages[i].name, names.size()).second) {
                names.push_back(packages[i].name);
                recordOf.push_back(i);
            }
        }
        needs.resize(names.size());
        for (const auto& info : packages) {
            const size_t from = vertexOf.find(info.name)->second;
            for (const auto& dep : info.install_dep_packages) {
                auto to = vertexOf.find(dep.name);
                if (to == vertexOf.end()) {
                    continue;
                }
                const PackageInfo& target = packages[recordOf[to->second]];
                if (PMSDepSatisfied(target.name, target.version, dep)) {
                    needs[from].push_back(to->second);
                }
            }
        }
    }
    std::unordered_map<std::string, size_t> vertexOf;
    std::vector<std::string> names;
    std::vector<size_t> recordOf;
    std::vector<std::vector<size_t>> needs;
};

// The stop order of `packages`. On a cycle, false with the names left unsorted and, as
// "a, b; c, d", the cycles among them, when asked for.
bool SortRecords(const std::vector<PackageInfo>& packages, std::vector<std::string>& order,
                 std::vector<std::string>* left, std::string* cycles) {
    order.clear();
    const RecordGraph records(packages);
    Graph graph(records.names.size());
    for (const auto& name : records.names) {
        graph.addVertex(name);
    }
    for (size_t v = 0; v < records.needs.size(); ++v) {
        for (size_t w : records.needs[v]) {
            graph.addEdge(v, w);
        }
    }
    if (graph.topologicalSort()) {
        order = graph.getResult();
        return true;
    }
    if (left == nullptr) {
        return false;
    }
    std::vector<char> placed(records.names.size(), 0);
    for (const auto& name : graph.getResult()) {
        if (!name.empty()) {
            placed[records.vertexOf.find(name)->second] = 1;
        }
    }
    // The cycles lie among what is left, so only that part is searched.
    std::vector<size_t> leftIndex(records.names.size(), kNone);
    std::vector<size_t> leftVertices;
    for (size_t v = 0; v < records.names.size(); ++v) {
        if (!placed[v]) {
            leftIndex[v] = leftVertices.size();
            leftVertices.push_back(v);
            left->push_back(records.names[v]);
        }
    }
    std::vector<std::vector<size_t>> succ(leftVertices.size());
    for (size_t i = 0; i < leftVertices.size(); ++i) {
        for (size_t w : records.needs[leftVertices[i]]) {
            if (leftIndex[w] != kNone) {
                succ[i].push_back(leftIndex[w]);
            }
        }
    }
    std::vector<std::vector<std::string>> named;
    for (const auto& component : CyclicComponents(succ)) {
        std::vector<std::string> members;
        for (size_t i : component) {
            members.push_back(records.names[leftVertices[i]]);
        }
        std::sort(members.begin(), members.end());
        named.push_back(std::move(members));
    }
    std::sort(named.begin(), named.end());
    std::vector<std::string> texts;
    for (const auto& members : named) {
        texts.push_back(joinStringArray(members, ", "));
    }
    *cycles = joinStringArray(texts, "; ");
    return false;
}

}  // namespace

bool PackageManager::topologicalSortPkgs(std::vector<PackageInfo>& packages,
                                         std::vector<std::string>& order) {
    std::vector<std::string> left;
    std::string cycles;
    if (SortRecords(packages, order, &left, &cycles)) {
        return true;
    }
    ZLOGERR("Cycle in %s", joinStringArray(left, ", ").c_str());
    insertMapParam("cycles", cycles);
    return false;
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
    // query, is asked of those alone; the walk over the others would find nothing anyway. The
    // walk goes in waves, so that the status scripts of one wave run at once: what it reaches
    // does not depend on the order in which it asks.
    enum Activity : char { kUnknown, kActive, kInactive };
    std::vector<char> activity(records.size(), kUnknown);
    std::vector<char> reached(records.size(), 0);
    std::vector<size_t> wave{start};
    reached[start] = 1;
    PackageManager query;
    bool breakersRead = false;  // on the first status query
    while (!wave.empty()) {
        std::vector<size_t> ask;
        std::vector<std::string> names;
        for (size_t i : wave) {
            for (size_t j : dependants[i]) {
                if (activity[j] != kUnknown) {
                    continue;
                }
                if (j == start || all) {
                    activity[j] = kActive;
                } else if (byEnabledFlag) {
                    activity[j] = PMSCheckEnabledFile(PMSRegistryDir(records[j].name).c_str())
                                      ? kActive
                                      : kInactive;
                } else {
                    activity[j] = kInactive;  // until its query says otherwise
                    ask.push_back(j);
                    names.push_back(records[j].name);
                }
            }
        }
        if (!names.empty()) {
            if (!breakersRead) {
                query.useBreakerSnapshot(makeBreakerSnapshot());
                breakersRead = true;
            }
            // A package caught between states by its job counts as running too.
            std::vector<PKG_ERRCODE> results;
            const std::vector<char> started = query.areStarted(names, true, results);
            for (size_t k = 0; k < ask.size(); ++k) {
                if (started[k] || results[k] == PKG_ERR_JOB_ERROR) {
                    activity[ask[k]] = kActive;
                }
            }
        }
        std::vector<size_t> next;
        for (size_t i : wave) {
            for (size_t j : dependants[i]) {
                if (!reached[j] && activity[j] == kActive) {
                    reached[j] = 1;
                    next.push_back(j);
                }
            }
        }
        wave.swap(next);
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
    // Sorted, the package itself comes first and what it needs after it. A set with a cycle has
    // no such order: the walk's, reversed, still puts the package first.
    if (!SortRecords(walked, order, nullptr, nullptr)) {
        order.assign(graph.getResult().rbegin(), graph.getResult().rend());
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
