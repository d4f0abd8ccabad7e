#include <gtest/gtest.h>

#include "platform/files.h"
#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

class AuthorCliTest : public TempRootTest {
protected:
    CliRun zarnpkg(const std::vector<std::string>& args) { return RunZarnpkg(root(), args); }

    // A source folder of a small package with extra INFO keys and files.
    std::string source(const std::string& name, const std::string& keys,
                       const std::map<std::string, std::string>& files = {}) {
        const std::string dir = "/tmp/" + name;
        writeFile(dir + "/INFO", "package=\"" + name +
                                     "\"\nversion=\"1.0\"\nmaintainer=\"m\"\ndescription=\"d\"\n" +
                                     keys);
        writeFile(dir + "/package/f", "x");
        for (const auto& [path, text] : files) {
            writeFile(dir + "/" + path, text, 0755);
        }
        return phys(dir);
    }
};

TEST_F(AuthorCliTest, PackSaysWhatItWroteOrWhyNot) {
    const std::string src = source("p", "arch=\"noarch\"\n");
    writeFile("/tmp/outdir/keep", "");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err;
    };
    for (const Case& c : {
             Case{{"pack", src, "-o"}, 2, "-o needs a file name"},
             Case{{"pack", src, "-o", phys("/tmp/outdir")}, 1, "is a folder"},
             Case{{"pack", src, "-o", src + "/package/p.qar"}, 1, "inside the source folder"},
             Case{{"pack", src, "-o", phys("/tmp/p/../p/p.qar")}, 1, "inside the source folder"},
         }) {
        CliRun r = zarnpkg(c.args);
        EXPECT_EQ(c.status, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
    }
    std::vector<ZARNDirEntry> left;
    ASSERT_TRUE(ZARNListDir("/tmp/outdir", left));
    EXPECT_EQ(1u, left.size());
    EXPECT_FALSE(ZARNPathExists("/tmp/p/package/p.qar"));
    EXPECT_FALSE(ZARNPathExists("/tmp/p/p.qar"));
}

TEST_F(AuthorCliTest, WarningsOfPackAndCheck) {
    const std::string src =
        source("w", "arch=\"noarch\"\n", {{"scripts/start-stop-stauts", "#!/bin/sh\n"}});
    const std::string qar = phys("/tmp/w.qar");
    CliRun r = zarnpkg({"--json", "pack", src, "-o", qar});
    ASSERT_EQ(0, r.status) << r.err;
    Json::Value v = ParseJson(r.out);
    ASSERT_EQ(1u, v["warnings"].size()) << r.out;
    EXPECT_NE(std::string::npos, v["warnings"][0].asString().find("scripts/start-stop-stauts"));
    EXPECT_EQ("warning: " + v["warnings"][0].asString() + "\n", r.err);

    r = zarnpkg({"--json", "check", qar});
    EXPECT_EQ(0, r.status) << r.err;
    v = ParseJson(r.out);
    EXPECT_EQ(Json::Value(Json::arrayValue), v["message"]);
    ASSERT_EQ(1u, v["warnings"].size()) << r.out;

    r = zarnpkg({"--json", "info", qar});
    ASSERT_EQ(0, r.status) << r.err;
    v = ParseJson(r.out);
    EXPECT_EQ("start-stop-stauts", v["scripts"][0].asString());
    EXPECT_EQ(Json::Value(Json::arrayValue), v["conf"]);
    r = zarnpkg({"info", qar});
    EXPECT_NE(std::string::npos, r.out.find("\nscripts: [\"start-stop-stauts\"]\n")) << r.out;
}

TEST_F(AuthorCliTest, RefusalsNameTheFacts) {
    struct Case {
        std::string name;
        std::string keys;
        std::string text;  // in the sentence on standard error
        std::string param;
    };
    for (const Case& c : {
             Case{"newos", "arch=\"noarch\"\nos_min_ver=\"99.0-0001\"\n",
                  "it needs version 99.0-0001 or later, and this system is 6.2-25556",
                  "hostVersion"},
             Case{"oldos", "arch=\"noarch\"\nos_max_ver=\"5.0-0001\"\n",
                  "it runs on versions up to 5.0-0001, and this system is 6.2-25556",
                  "hostVersion"},
             Case{"arch", "arch=\"armv5\"\n", "it is built for \"armv5\", and this machine is \"",
                  "hostArch"},
         }) {
        const std::string qar = phys("/tmp/" + c.name + ".qar");
        ASSERT_EQ(0, zarnpkg({"pack", source(c.name, c.keys), "-o", qar}).status);
        CliRun r = zarnpkg({"check", qar});
        EXPECT_EQ(1, r.status);
        EXPECT_NE(std::string::npos, r.err.find(c.text)) << r.err;
        r = zarnpkg({"--json", "check", qar});
        EXPECT_FALSE(ParseJson(r.out)["params"][c.param].asString().empty()) << r.out;
    }
}

}  // namespace
