#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/temproot.h"

namespace {

using Names = std::vector<std::string>;

class OrderCli : public TempRootTest {
protected:
    void addWithDeps(const std::string& name, const std::string& deps) {
        addPackage(name, "install_dep_packages=\"" + deps + "\"\n");
    }
    Json::Value json(const Names& args, int status) {
        const CliRun r = RunZarnpkg(root(), WithJson(args));
        EXPECT_EQ(r.status, status) << Shown(args) << r.err;
        return ParseJson(r.out);
    }
};

// Stopped packages count (nothing runs here): dependants come before what they need.
TEST_F(OrderCli, AllPackagesAndDependantsOfOne) {
    EXPECT_EQ(json({"order"}, 0)["order"], Json::Value(Json::arrayValue));
    addWithDeps("base", "");
    addWithDeps("mid", "base>=1");
    addWithDeps("top", "mid:base");
    addWithDeps("side", "");
    CliRun r = RunZarnpkg(root(), {"order"});
    ASSERT_EQ(r.status, 0) << r.err;
    Names all = Lines(r.out);
    all.erase(std::remove(all.begin(), all.end(), "side"), all.end());
    EXPECT_EQ(all, (Names{"top", "mid", "base"})) << r.out;
    r = RunZarnpkg(root(), {"order", "base"});
    EXPECT_EQ(Lines(r.out), (Names{"top", "mid", "base"})) << r.err;
    const Json::Value mid = json({"order", "mid"}, 0);
    EXPECT_EQ(Json::toCompactString(mid["order"]), R"(["top","mid"])");
    EXPECT_EQ(json({"order"}, 0)["order"].size(), 4u);
}

// A cycle fails the whole order and any order through it, naming its members; others still go.
TEST_F(OrderCli, CyclesAndUnknownNames) {
    EXPECT_EQ(json({"order", "../../etc"}, 1)["code"].asUInt(), 0xffu);
    addWithDeps("x", "y");
    addWithDeps("y", "x");
    addWithDeps("z", "");
    for (const Names& args : {Names{"order"}, Names{"order", "x"}}) {
        const Json::Value doc = json(args, 1);
        EXPECT_EQ(doc["code"].asUInt(), 0x112u) << Shown(args);
        EXPECT_EQ(doc["params"]["cycles"], "x, y") << Shown(args);
    }
    const CliRun r = RunZarnpkg(root(), {"order", "z"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Lines(r.out), Names{"z"});
}

}  // namespace
