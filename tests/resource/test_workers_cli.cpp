#include <gtest/gtest.h>

#include <string>

#include "platform/files.h"
#include "support/cli_runner.h"
#include "support/resource_fixture.h"

namespace {

class WorkersCliTest : public ResourceTest {};

TEST_F(WorkersCliTest, TellsOriginsAndWhyADeclarationWasSkipped) {
    declare("p1", {decl("x"), decl("y", "0x0013", 1, 0, "/usr/lib/nope.so"),
                   decl("usr-local-linker", "0x0088")});
    declare("gone", {});
    ZARNRemoveTree("/usr/local/share/zarnpkg/gone");
    CliRun run = RunZarnpkg(root(), {"workers"});
    ASSERT_EQ(0, run.status) << run.err;
    const std::string x =
        "  x  plug-in of p1 (/usr/local/share/zarnpkg/p1, " + std::string(kPlugin) + ")\n";
    EXPECT_EQ(0u, run.out.find("preinst:\n" + x)) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("nope.so)  skipped: library: "));
    EXPECT_NE(std::string::npos,
              run.out.find("startup:\n  usr-local-linker  built-in\n  csp-rule  built-in\n"
                           "  usr-local-linker  plug-in of p1"));
    EXPECT_NE(std::string::npos, run.out.find("skipped: a built-in worker has this type\n"));
    EXPECT_NE(std::string::npos, run.out.find("(/usr/local/share/zarnpkg/gone)  skipped: the "
                                              "provider file is missing\n"));

    // With a name: only what its conf/resource asks for.
    writeFile(confPath("resource"), "{\"x\": {}}");
    run = RunZarnpkg(root(), WithJson({"workers", kPkg}));
    ASSERT_EQ(0, run.status) << run.err;
    const Json::Value out = ParseJson(run.out);
    ASSERT_EQ(8u, out["moments"].size());
    EXPECT_EQ("preinst", out["moments"][0]["moment"].asString());
    ASSERT_EQ(1u, out["moments"][0]["workers"].size());
    EXPECT_EQ("x", out["moments"][0]["workers"][0]["id"].asString());
    EXPECT_EQ("not at this moment", out["moments"][3]["workers"][0]["reason"].asString());
    EXPECT_EQ(1, RunZarnpkg(root(), {"workers", "nothere"}).status);
}

}  // namespace
