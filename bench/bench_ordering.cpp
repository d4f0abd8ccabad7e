// Times the package orders and prints the figures:
//  1. topologicalSortPkgs on 10,000 records with 30,000 satisfied dependencies, beside the same
//     steps run on the plain adjacency-matrix graph at 2,000 records, in the same run.
//  2. getDependencyOrder(name, ...) on a registry of 2,000 installed packages with INFO files of
//     about 1 KB, for the bottom of a chain and for the hub of a wide fan, with the share of
//     the time that goes to reading INFO files.
//
//   bench_ordering [records [edges [matrix_records [registry]]]]   (10000 30000 2000 2000)

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "dependency/depinternal.h"
#include "dependency/graph.h"
#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/sysroot.h"
#include "tests/support/matrix_graph.h"

using namespace ZARNPackageTool;

namespace {

struct Timing {
    double wall = 0;  // ms
    double cpu = 0;   // ms of this process's CPU time: the machine is shared with builds
};

double CpuMillis() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

Timing Measure(const std::function<void()>& work) {
    const double cpu = CpuMillis();
    auto start = std::chrono::steady_clock::now();
    work();
    std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - start;
    return Timing{spent.count(), CpuMillis() - cpu};
}

// The medians of `runs` timings.
Timing Median(int runs, const std::function<void()>& work) {
    std::vector<double> wall, cpu;
    for (int i = 0; i < runs; ++i) {
        Timing t = Measure(work);
        wall.push_back(t.wall);
        cpu.push_back(t.cpu);
    }
    std::sort(wall.begin(), wall.end());
    std::sort(cpu.begin(), cpu.end());
    return Timing{wall[wall.size() / 2], cpu[cpu.size() / 2]};
}

// Records whose dependencies follow a random ranking (acyclic) and all hold: each package has
// version "2.<i>" and each constraint is ">=1.<k>" or plain.
std::vector<PackageInfo> RandomRecords(size_t count, size_t edges, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::vector<size_t> rank(count);
    for (size_t i = 0; i < count; ++i) {
        rank[i] = i;
    }
    std::shuffle(rank.begin(), rank.end(), rng);
    std::vector<PackageInfo> records(count);
    for (size_t i = 0; i < count; ++i) {
        records[i].name = "pkg" + std::to_string(i);
        records[i].version = "2." + std::to_string(i);
    }
    size_t made = 0;
    while (count > 1 && made < edges) {
        size_t from = rng() % count;
        size_t to = rng() % count;
        if (from == to) {
            continue;
        }
        if (rank[from] > rank[to]) {
            std::swap(from, to);
        }
        const PKG_VERSION_COMPOP op = made % 2 ? PKG_VER_GE : PKG_VER_ANY;
        records[from].install_dep_packages.pushDepPkg(records[to].name,
                                                      "1." + std::to_string(rng() % 100), op);
        ++made;
    }
    return records;
}

// The same steps as topologicalSortPkgs, on the matrix graph.
bool MatrixSortPkgs(std::vector<PackageInfo>& packages, std::vector<std::string>& order) {
    ZARNTest::MatrixGraph graph(packages.size());
    std::map<std::string, unsigned long long> vertexOf;
    std::map<std::string, const PackageInfo*> recordOf;
    for (const auto& info : packages) {
        if (vertexOf.count(info.name) == 0) {
            vertexOf[info.name] = graph.addVertex(info.name);
            recordOf[info.name] = &info;
        }
    }
    for (const auto& info : packages) {
        for (const auto& dep : info.install_dep_packages) {
            auto to = vertexOf.find(dep.name);
            if (to != vertexOf.end() &&
                PackageBasicInfo(dep.name, recordOf[dep.name]->version).compare(dep, dep.op)) {
                graph.addEdge(vertexOf[info.name], to->second);
            }
        }
    }
    if (!graph.topologicalSort()) {
        return false;
    }
    order = graph.getResult();
    return true;
}

// The graph alone, fed the edges that topologicalSortPkgs would give it.
Timing GraphOnly(const std::vector<PackageInfo>& records) {
    std::unordered_map<std::string, unsigned long long> vertexOf;
    for (const auto& info : records) {
        vertexOf.emplace(info.name, vertexOf.size());
    }
    std::vector<std::pair<unsigned long long, unsigned long long>> edges;
    for (const auto& info : records) {
        for (const auto& dep : info.install_dep_packages) {
            edges.emplace_back(vertexOf[info.name], vertexOf[dep.name]);
        }
    }
    return Median(7, [&] {
        Graph graph(records.size());
        for (const auto& info : records) {
            graph.addVertex(info.name);
        }
        for (const auto& e : edges) {
            graph.addEdge(e.first, e.second);
        }
        graph.topologicalSort();
    });
}

void SortFigures(size_t records, size_t edges, size_t matrixRecords) {
    std::vector<PackageInfo> big = RandomRecords(records, edges, 1);
    const size_t smallEdges = edges * matrixRecords / records;
    std::vector<PackageInfo> small = RandomRecords(matrixRecords, smallEdges, 2);
    PackageManager pm;
    std::vector<std::string> order;
    bool ok = true;
    const Timing sparse = Median(7, [&] { ok = pm.topologicalSortPkgs(big, order) && ok; });
    const Timing graphOnly = GraphOnly(big);
    const Timing sparseSmall = Median(7, [&] { ok = pm.topologicalSortPkgs(small, order) && ok; });
    std::vector<std::string> matrixOrder;
    const Timing matrix = Median(1, [&] { ok = MatrixSortPkgs(small, matrixOrder) && ok; });
    pm.topologicalSortPkgs(small, order);
    if (!ok || order != matrixOrder) {
        std::fprintf(stderr, "the two sorts disagree or found a cycle\n");
        std::exit(1);
    }
    std::printf("(times: CPU time of this process, wall clock in brackets; medians of 7)\n");
    std::printf(
        "topologicalSortPkgs, %zu records, %zu satisfied dependencies: %.1f ms [%.1f ms]"
        " (target <= 50 ms)\n",
        records, edges, sparse.cpu, sparse.wall);
    std::printf("  of which the Graph (vertices, edges, sort) alone: %.1f ms [%.1f ms]\n",
                graphOnly.cpu, graphOnly.wall);
    std::printf("topologicalSortPkgs, %zu records, %zu dependencies: %.2f ms [%.2f ms]\n",
                matrixRecords, smallEdges, sparseSmall.cpu, sparseSmall.wall);
    std::printf(
        "matrix algorithm,    %zu records, %zu dependencies: %.1f ms [%.1f ms], one run, "
        "same order\n",
        matrixRecords, smallEdges, matrix.cpu, matrix.wall);
    std::printf("ratio matrix@%zu / library@%zu: %.1fx; matrix@%zu / library@%zu: %.0fx\n",
                matrixRecords, records, matrix.cpu / sparse.cpu, matrixRecords, matrixRecords,
                matrix.cpu / sparseSmall.cpu);
}

// About 1 KB of INFO text, like a real package's.
std::string InfoText(const std::string& name, const std::string& deps) {
    std::string text = "package=\"" + name + "\"\nversion=\"3.4.1-0123\"\n";
    text += "displayname=\"" + name + " Server\"\ndisplayname_ger=\"" + name + " Dienst\"\n";
    text += "description=\"" + std::string(300, 'd') + "\"\n";
    text += "description_ger=\"" + std::string(200, 'g') + "\"\n";
    text += "maintainer=\"Example Corp.\"\nmaintainer_url=\"https://example.com/" + name + "\"\n";
    text += "distributor=\"Example Corp.\"\ndistributor_url=\"https://example.com\"\n";
    text += "arch=\"x86_64 aarch64 armv8\"\nos_min_ver=\"6.2-23739\"\n";
    text += "adminport=\"8080\"\nadminurl=\"/\"\nadminprotocol=\"http\"\n";
    text += "checkport=\"yes\"\nstartable=\"yes\"\nctl_stop=\"yes\"\n";
    text += "install_dep_services=\"pgsql\"\nstartstop_restart_services=\"nginx\"\n";
    text += "support_url=\"https://example.com/support\"\nhelpurl=\"https://example.com/help\"\n";
    text += "extractsize=\"123456\"\ninstall_type=\"\"\nbeta=\"no\"\nthirdparty=\"yes\"\n";
    if (!deps.empty()) {
        text += "install_dep_packages=\"" + deps + "\"\n";
    }
    return text;
}

bool WritePackage(const std::string& name, const std::string& deps) {
    const std::string dir = "/var/packages/" + name;
    const std::string target = "/volume1/@appstore/" + name;
    return ZARNFSMkdirP(dir, 0, 0, -1, -1, 0755) == 0 &&
           ZARNFSMkdirP(target, 0, 0, -1, -1, 0755) == 0 &&
           ZARNFileWrite(dir + "/INFO", InfoText(name, deps)) &&
           ZARNSymlink(target, dir + "/target");
}

void RegistryFigures(size_t registry) {
    char pid[32];
    std::snprintf(pid, sizeof(pid), "%d", static_cast<int>(getpid()));
    const std::string root = std::string("/tmp/zarnpkg-bench-ordering-") + pid;
    ZARNPackageCore::SetSystemRoot("/");
    if (ZARNFSMkdirP(root, 0, 0, -1, -1, 0700) != 0) {
        std::fprintf(stderr, "cannot make %s\n", root.c_str());
        std::exit(1);
    }
    ZARNPackageCore::SetSystemRoot(root);
    std::string error;
    if (!ZARNHostInit(error)) {
        std::fprintf(stderr, "host-init: %s\n", error.c_str());
        std::exit(1);
    }
    // A chain of a tenth of the registry, a fan of half of it on one hub, and the rest loosely
    // tied to each other and to the chain.
    const size_t chain = registry / 10;
    const size_t fan = registry / 2;
    std::mt19937 rng(3);
    bool ok = WritePackage("hub", "");
    for (size_t i = 0; i < chain && ok; ++i) {
        ok = WritePackage("chain" + std::to_string(i),
                          i == 0 ? "" : "chain" + std::to_string(i - 1) + ">=3");
    }
    for (size_t i = 0; i < fan && ok; ++i) {
        ok = WritePackage("fan" + std::to_string(i), "hub>=1:Python");
    }
    const size_t rest = registry - 1 - chain - fan;
    for (size_t i = 0; i < rest && ok; ++i) {
        std::string deps;
        if (i > 0) {
            deps = "misc" + std::to_string(rng() % i);
        }
        if (rng() % 4 == 0) {
            deps += ":chain" + std::to_string(rng() % chain);
        }
        ok = WritePackage("misc" + std::to_string(i), deps);
    }
    if (!ok) {
        std::fprintf(stderr, "cannot lay out the registry\n");
        std::exit(1);
    }

    PackageManager pm;
    std::vector<PackageInfo> records;
    const Timing scan = Median(5, [&] {
        records.clear();
        pm.enumPackageInfo(records, nullptr, kDepMaskOrder);
    });
    std::vector<std::string> order;
    auto figure = [&](const char* what, const char* name, bool byEnabled, bool all) {
        size_t got = 0;
        const Timing total = Median(5, [&] {
            if (!pm.getDependencyOrder(name, order, byEnabled, all)) {
                std::fprintf(stderr, "getDependencyOrder(%s) failed\n", name);
                std::exit(1);
            }
            got = order.size();
        });
        std::printf(
            "getDependencyOrder(%s, %s), %zu packages in the order: %.1f ms [%.1f ms], "
            "of which reading INFO files %.1f ms [%.1f ms] (%.0f%%)\n",
            name, what, got, total.cpu, total.wall, scan.cpu, scan.wall,
            100.0 * scan.cpu / total.cpu);
    };
    std::printf(
        "registry of %zu packages, INFO files of about %zu bytes: one scan of all INFO "
        "files %.1f ms [%.1f ms]\n",
        records.size(), InfoText("misc1000", "misc12:chain40").size(), scan.cpu, scan.wall);
    figure("all", "chain0", false, true);
    figure("all", "hub", false, true);
    figure("all", "misc0", false, true);
    // No package has an enabled flag: the walk stops at once, the scan is all that is left.
    figure("enabled flag", "hub", true, false);
    // The running filter asks the status of every dependant the walk reaches (the fan has no
    // control scripts, so each counts as started); the queries share one scan of break lists.
    figure("running state", "hub", false, false);
    std::vector<std::string> whole;
    const Timing all = Median(3, [&] { pm.getDependencyOrder(whole); });
    std::printf("getDependencyOrder(all installed), %zu packages: %.1f ms [%.1f ms]\n",
                whole.size(), all.cpu, all.wall);

    // The running filter asks the status of each dependant it reaches; a status query of a
    // package with a control script runs the script and scans the registry for break lists.
    ZARNFSMkdirP("/var/packages/fan0/scripts", 0, 0, -1, -1, 0755);
    ZARNFileWrite("/var/packages/fan0/scripts/start-stop-status", "#!/bin/sh\nexit 3\n", 0755);
    PackageManager status;
    const Timing one = Median(3, [&] { status.isStarted("fan0", true); });
    std::printf(
        "one status query (isStarted) of a package with a control script: %.1f ms "
        "[%.1f ms], result 0x%x; the running filter makes one per reached dependant\n",
        one.cpu, one.wall, static_cast<unsigned>(status.getResult()));

    ZARNPackageCore::SetSystemRoot("/");
    ZARNRemoveTree(root);
}

}  // namespace

int main(int argc, char** argv) {
    const size_t records = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10000;
    const size_t edges = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 30000;
    const size_t matrixRecords = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 2000;
    const size_t registry = argc > 4 ? std::strtoul(argv[4], nullptr, 10) : 2000;
    SortFigures(records, edges, matrixRecords);
    RegistryFigures(registry);
    return 0;
}
