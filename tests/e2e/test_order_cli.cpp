#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/json.h"
#include "platform/process.h"
#include "support/cli_runner.h"
#include "support/temproot.h"

namespace {

class OrderCli : public TempRootTest {
protected:
    void addPackage(const std::string& name, const std::string& deps) {
        const std::string dir = "/var/packages/" + name;
        writeFile(dir + "/INFO", "package=\"" + name +
                                     "\"\nversion=\"1.0\"\nmaintainer=\"m\"\ndescription=\"d\"\n" +
                                     "install_dep_packages=\"" + deps + "\"\n");
        const std::string target = "/volume1/@appstore/" + name;
        writeFile(target + "/.keep", "");
        ASSERT_TRUE(ZARNSymlink(target, dir + "/target"));
    }

    int run(const std::vector<std::string>& args, std::string& out, std::string& err) {
        CliRun r = RunZarnpkg(root(), args);
        out = r.out;
        err = r.err;
        return r.status;
    }

    static std::vector<std::string> Lines(const std::string& text) {
        std::vector<std::string> lines;
        size_t pos = 0;
        while (pos < text.size()) {
            size_t end = text.find('\n', pos);
            if (end == std::string::npos) {
                end = text.size();
            }
            lines.push_back(text.substr(pos, end - pos));
            pos = end + 1;
        }
        return lines;
    }

    static std::map<std::string, size_t> Positions(const std::vector<std::string>& order) {
        std::map<std::string, size_t> pos;
        for (size_t i = 0; i < order.size(); ++i) {
            pos[order[i]] = i;
        }
        return pos;
    }
};

TEST_F(OrderCli, AllPackagesAndDependantsOfOne) {
    addPackage("base", "");
    addPackage("mid", "base>=1");
    addPackage("top", "mid:base");
    addPackage("side", "");
    std::string out, err;

    ASSERT_EQ(run({"order"}, out, err), 0) << err;
    auto all = Lines(out);
    ASSERT_EQ(all.size(), 4u) << out;
    auto pos = Positions(all);
    EXPECT_LT(pos["top"], pos["mid"]);
    EXPECT_LT(pos["mid"], pos["base"]);
    EXPECT_EQ(pos.count("side"), 1u);

    ASSERT_EQ(run({"--json", "order", "mid"}, out, err), 0) << err;
    Json::Value doc;
    ASSERT_TRUE(Json::fromString(doc, out)) << out;
    EXPECT_TRUE(doc["success"].asBool());
    ASSERT_TRUE(doc["order"].isArray());
    ASSERT_EQ(doc["order"].size(), 2u);
    EXPECT_EQ(doc["order"][0], "top");
    EXPECT_EQ(doc["order"][1], "mid");

    // Stopped packages count: the registry has no running ones at all.
    ASSERT_EQ(run({"order", "base"}, out, err), 0) << err;
    EXPECT_EQ(Lines(out), (std::vector<std::string>{"top", "mid", "base"}));

    ASSERT_EQ(run({"--json", "order"}, out, err), 0) << err;
    ASSERT_TRUE(Json::fromString(doc, out)) << out;
    EXPECT_EQ(doc["order"].size(), 4u);
}

TEST_F(OrderCli, FailuresAndUsage) {
    std::string out, err;
    ASSERT_EQ(run({"--json", "order"}, out, err), 0) << err;
    Json::Value doc;
    ASSERT_TRUE(Json::fromString(doc, out)) << out;
    EXPECT_EQ(doc["order"], Json::Value(Json::arrayValue));

    EXPECT_EQ(run({"order", "a", "b"}, out, err), 2);
    EXPECT_EQ(run({"order", "ghost"}, out, err), 1);
    EXPECT_NE(err.find("error: 0xff"), std::string::npos) << err;
    EXPECT_EQ(run({"--json", "order", "../../etc"}, out, err), 1);
    ASSERT_TRUE(Json::fromString(doc, out)) << out;
    EXPECT_FALSE(doc["success"].asBool());
    EXPECT_EQ(doc["code"].asUInt(), 0xffu);

    addPackage("x", "y");
    addPackage("y", "x");
    addPackage("z", "");
    EXPECT_EQ(run({"order"}, out, err), 1);
    EXPECT_NE(err.find("error: 0x112"), std::string::npos) << err;
    EXPECT_EQ(run({"--json", "order", "x"}, out, err), 1);
    ASSERT_TRUE(Json::fromString(doc, out)) << out;
    EXPECT_EQ(doc["code"].asUInt(), 0x112u);
    EXPECT_EQ(doc["params"]["cycles"], "x, y") << out;
    EXPECT_EQ(run({"--json", "order"}, out, err), 1);
    ASSERT_TRUE(Json::fromString(doc, out)) << out;
    EXPECT_EQ(doc["params"]["cycles"], "x, y") << out;
    ASSERT_EQ(run({"order", "z"}, out, err), 0) << err;
    EXPECT_EQ(Lines(out), std::vector<std::string>{"z"});
}

}  // namespace
