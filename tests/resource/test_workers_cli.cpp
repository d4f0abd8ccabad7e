#include <gtest/gtest.h>

#include <string>

#include "platform/files.h"
#include "support/cli_runner.h"
#include "support/resource_fixture.h"

namespace {

class WorkersCliTest : public ResourceTest {};

TEST_F(WorkersCliTest, TellsOriginsAndWhyADeclarationWasSkipped) {
    declare("p1", {decl("x"), decl("y", "0x0013", 1, 0, "/usr/lib/nope.so"),
                   decl("usr-local-linker", "0x0088"), decl("z", "0x0013", 1, 3)});
    declare("p2", {decl("x")});
    declare("gone", {});
    ZARNRemoveTree("/usr/local/share/zarnpkg/gone");
    CliRun run = RunZarnpkg(root(), {"workers"});
    ASSERT_EQ(0, run.status) << run.err;
    // Every declaration in the order of the providers, each with why it was passed over.
    const std::string lib = std::string(kPlugin) + ")";
    const auto of = [](const std::string& p) {
        return "plug-in of " + p + " (/usr/local/share/zarnpkg/" + p + ", ";
    };
    EXPECT_EQ(0u, run.out.find("preinst:\n  x  " + of("p1") + lib +
                               "  skipped: replaced by the declaration of p2\n  y  " + of("p1") +
                               "/usr/lib/nope.so)  skipped: library: "))
        << run.out;
    EXPECT_NE(std::string::npos, run.out.find("\n  z  " + of("p1") + lib +
                                              "  skipped: interface version 1.3 is not 1.0\n  x  " +
                                              of("p2") + lib + "\npostinst:\n"));
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
    const Json::Value& preinst = out["moments"][0]["workers"];
    ASSERT_EQ(2u, preinst.size()) << preinst;
    EXPECT_EQ("x p1 x p2", preinst[0]["id"].asString() + " " + preinst[0]["provider"].asString() +
                               " " + preinst[1]["id"].asString() + " " +
                               preinst[1]["provider"].asString());
    EXPECT_EQ("not at this moment", out["moments"][3]["workers"][0]["reason"].asString());
    EXPECT_EQ(1, RunZarnpkg(root(), {"workers", "nothere"}).status);
}

}  // namespace
