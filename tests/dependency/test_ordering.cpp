#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

using Names = std::vector<std::string>;

PackageInfo Record(const std::string& name, const std::string& version, const char* deps = "") {
    PackageInfo info;
    info.name = name;
    info.version = version;
    PMSExplodeDepPKGString(deps, info.install_dep_packages);
    return info;
}

// Position of each name in an order.
std::map<std::string, size_t> Positions(const Names& order) {
    std::map<std::string, size_t> pos;
    for (size_t i = 0; i < order.size(); ++i) {
        pos[order[i]] = i;
    }
    return pos;
}

class Ordering : public TempRootTest {
protected:
    enum State { kNoScript, kRunning, kStopped, kTransition };

    void addPackage(const std::string& name, const std::string& deps = "", State state = kNoScript,
                    const std::string& extraInfo = "") {
        TempRootTest::addPackage(name, "install_dep_packages=\"" + deps + "\"\n" + extraInfo);
        if (state == kNoScript) {
            return;
        }
        addControlScript(name, state == kRunning ? 0 : 3);
        if (state == kRunning) {
            markRunning(name);
        }
        if (state == kTransition) {
            ASSERT_TRUE(ZARNJobStateWrite("pkgctl-" + name, 0, 0, ZARN_JOB_PHASE_FAILED));
        }
    }

    // The order, with "failed" after it when the call fails.
    Names order(const char* name, bool byEnabledFlag, bool all) {
        PackageManager pm;
        Names out{"stale"};
        if (!pm.getDependencyOrder(name, out, byEnabledFlag, all)) {
            out.push_back("failed");
        }
        return out;
    }
};

TEST_F(Ordering, TopologicalSortOfRecords) {
    PackageManager pm;
    Names out{"stale"};

    std::vector<PackageInfo> none;
    EXPECT_TRUE(pm.topologicalSortPkgs(none, out));
    EXPECT_TRUE(out.empty());

    // Unrelated packages come out in the reverse of their order.
    std::vector<PackageInfo> loose{Record("A", "1"), Record("B", "1"), Record("C", "1")};
    EXPECT_TRUE(pm.topologicalSortPkgs(loose, out));
    EXPECT_EQ(out, (Names{"C", "B", "A"}));

    // A dependant stands before its dependency, when the version holds.
    std::vector<PackageInfo> met{Record("a", "1", "b>=2"), Record("b", "2.0")};
    EXPECT_TRUE(pm.topologicalSortPkgs(met, out));
    EXPECT_EQ(out, (Names{"a", "b"}));
    std::vector<PackageInfo> unmet{Record("a", "1", "b>=2"), Record("b", "1.9")};
    EXPECT_TRUE(pm.topologicalSortPkgs(unmet, out));
    EXPECT_EQ(out, (Names{"b", "a"}));

    // Dependencies outside the set are ignored; duplicate names make one vertex.
    std::vector<PackageInfo> outside{Record("a", "1", "zz:b"), Record("b", "1"), Record("a", "2")};
    EXPECT_TRUE(pm.topologicalSortPkgs(outside, out));
    EXPECT_EQ(out, (Names{"a", "b"}));

    // A failed sort names its cycles, the strongly connected components of what is left; the
    // dependants of a cycle are left unsorted too but lie on none.
    const struct {
        std::vector<PackageInfo> set;
        const char* cycles;
    } cycles[] = {
        {{Record("x", "1"), Record("a", "1", "b"), Record("b", "1", "a")}, "a, b"},
        {{Record("s", "1", "s"), Record("t", "1", "s")}, "s"},
        // The walk meets the first again from the last: all three lie on one cycle.
        {{Record("a", "1", "b"), Record("b", "1", "c"), Record("c", "1", "a")}, "a, b, c"},
        // A second record of a name lends its dependencies to the first.
        {{Record("a", "1"), Record("b", "1", "a"), Record("a", "2", "b")}, "a, b"},
        {{Record("top", "1", "bochs"), Record("y", "1", "x"), Record("bochs-wx", "1", "bochs"),
          Record("x", "1", "y:z"), Record("bochs", "1", "bochs-wx"), Record("z", "1", "x")},
         "bochs, bochs-wx; x, y, z"},
    };
    for (const auto& c : cycles) {
        PackageManager failed;
        std::vector<PackageInfo> set = c.set;
        EXPECT_FALSE(failed.topologicalSortPkgs(set, out));
        EXPECT_TRUE(out.empty());
        EXPECT_EQ(failed.getMapParam("cycles"), c.cycles);
    }
    EXPECT_TRUE(logged("Cycle in a, b"));
}

// The order of the whole registry and of one package's dependants is the order command's, which
// the CLI tests walk; here the edges of a candidate and the calls the CLI can't make.
TEST_F(Ordering, HasCycleAndOddNames) {
    addPackage("a");
    addPackage("b", "a");
    addPackage("c", "b>=1");
    PackageManager pm;
    EXPECT_TRUE(pm.hasCycle(Record("a", "2", "c")));
    EXPECT_FALSE(pm.hasCycle(Record("a", "2", "zz")));
    EXPECT_FALSE(pm.hasCycle(Record("d", "1", "c:a")));
    EXPECT_TRUE(pm.hasCycle(Record("d", "1", "d")));
    // The sort keeps the first record of a name: c's "b>=1" is checked against the installed
    // b, not against the candidate's own lower version.
    EXPECT_TRUE(pm.hasCycle(Record("b", "0.5", "c")));

    EXPECT_EQ(order("ghost", false, true), Names{});
    Names out;
    EXPECT_FALSE(pm.getDependencyOrder(nullptr, out, false, true));
    EXPECT_FALSE(pm.getDependencyOrder(nullptr, out, false));
    // A folder whose INFO names another package has no record of its own name: the order is
    // just the name, so that a stop still reaches it.
    writeFile("/var/packages/alias/INFO",
              "package=\"renamed\"\nversion=\"1\"\nmaintainer=\"m\"\ndescription=\"d\"\n");
    EXPECT_EQ(order("alias", false, true), Names{"alias"});
}

TEST_F(Ordering, FiltersByRunningStateAndEnabledFlag) {
    addPackage("base", "", kRunning);
    addPackage("up", "base", kRunning);
    addPackage("down", "base", kStopped);
    addPackage("above", "down", kRunning);
    addPackage("moving", "base", kTransition);
    addPackage("plain", "up");  // no control script: counts as started
    auto got = order("base", false, false);
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()),
              (std::set<std::string>{"base", "up", "moving", "plain"}));
    EXPECT_EQ(got.back(), "base");

    got = order("base", false, true);
    auto pos = Positions(got);
    EXPECT_EQ(pos.size(), 6u);
    EXPECT_TRUE(pos["above"] < pos["down"] && pos["plain"] < pos["up"]);
    // The named package itself is there even when stopped.
    EXPECT_EQ(order("down", false, false), (Names{"above", "down"}));

    // By the enabled flag: base, up and above have it.
    got = order("base", true, false);
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), (std::set<std::string>{"base", "up"}));
    enable("plain");
    enable("down");
    got = order("base", true, false);
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()),
              (std::set<std::string>{"base", "up", "plain", "down", "above"}));
    PackageManager pm;
    Names three;
    ASSERT_TRUE(pm.getDependencyOrder("base", three, true));
    EXPECT_EQ(three, got);
}

TEST_F(Ordering, AncestryOrder) {
    const std::vector<PackageInfo> set{Record("w", "1"), Record("x", "1", "y:q"),
                                       Record("y", "1", "z"), Record("z", "1"),
                                       Record("v", "1", "x")};
    const std::vector<PackageInfo> loop{Record("x", "1", "y"), Record("y", "1", "x:z"),
                                        Record("z", "1"), Record("a", "1", "x")};
    // The package first, then what it needs; a cycle gives the walk's order instead of failing.
    const struct {
        const char* name;
        const std::vector<PackageInfo>& records;
        Names order;
    } cases[] = {
        {"x", set, {"x", "y", "z"}},      {"w", set, {"w"}},
        {"v", set, {"v", "x", "y", "z"}}, {"x", loop, {"x", "y", "z"}},
        {"y", loop, {"y", "z", "x"}},     {"a", loop, {"a", "x", "y", "z"}},
    };
    PackageManager pm;
    for (const auto& c : cases) {
        std::vector<PackageInfo> records = c.records;
        Names out{"stale"};
        EXPECT_TRUE(pm.getAncestryDependencyOrder(c.name, records, out)) << c.name;
        EXPECT_EQ(out, c.order) << c.name;
    }
    Names out;
    std::vector<PackageInfo> records = set;
    EXPECT_FALSE(pm.getAncestryDependencyOrder(nullptr, records, out));
    std::vector<PackageInfo> empty;
    EXPECT_TRUE(pm.getAncestryDependencyOrder("x", empty, out));
    EXPECT_TRUE(out.empty());
}

TEST_F(Ordering, ServicePackagesInStartOrder) {
    addPackage("db", "", kNoScript, "install_dep_services=\"pgsql\"\n");
    addPackage("app", "db", kNoScript, "start_dep_services=\"pgsql nginx\"\n");
    addPackage("web", "", kNoScript, "install_dep_services=\"nginx\"\n");
    addPackage("off", "", kNoScript, "install_dep_services=\"pgsql\"\n");
    addPackage("none", "db");
    for (const char* n : {"db", "app", "web", "none"}) {
        enable(n);
    }
    PackageManager pm;
    std::vector<PackageInfo> out;
    ASSERT_TRUE(pm.getDepServicePkgs(std::set<std::string>{"pgsql"}, out));
    auto names = [&] {
        Names n;
        for (const auto& r : out) {
            n.push_back(r.name);
        }
        return n;
    };
    EXPECT_EQ(names(), (Names{"db", "app"}));
    ASSERT_TRUE(pm.getDepServicePkgs(std::set<std::string>{"nginx"}, out));
    const Names nginx = names();
    EXPECT_EQ(std::set<std::string>(nginx.begin(), nginx.end()),
              (std::set<std::string>{"app", "web"}));
    ASSERT_TRUE(pm.getDepServicePkgs(std::set<std::string>{"ssh-shell"}, out));
    EXPECT_TRUE(out.empty());
    out.push_back(Record("keep", "1"));
    EXPECT_TRUE(pm.getDepServicePkgs(std::vector<unsigned int>{1, 2}, out));
    EXPECT_EQ(out.size(), 1u);
}

TEST_F(Ordering, DependencyStarting) {
    addPackage("base", "", kRunning);
    addPackage("up", "base", kRunning);
    PackageManager pm;
    EXPECT_FALSE(pm.areDependencyPkgStarting("base"));
    addPackage("moving", "up", kTransition);
    EXPECT_TRUE(pm.areDependencyPkgStarting("base"));
    EXPECT_TRUE(pm.areDependencyPkgStarting("moving"));
    EXPECT_FALSE(pm.areDependencyPkgStarting("ghost"));
}

}  // namespace
