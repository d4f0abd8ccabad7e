#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

using Args = std::vector<std::string>;

class CliErrors : public TempRootTest {};

// Help, version and the --root=DIR form; host-init makes a root folder that isn't there yet.
TEST_F(CliErrors, HelpVersionAndRoot) {
    const struct {
        Args args;
        const char* member;
        std::vector<const char*> says;
    } cases[] = {
        {{"--help"},
         "usage",
         {"ZARNPKG_ROOT", "ZARNPKG_LOG_FILE", "exit status", "COMMAND --help"}},
        {{"--version"}, "version", {"zarnpkg "}},
        {{"info", "--help"}, "usage", {"usage: zarnpkg", " info NAME | FILE.qar | --file PATH"}},
        {{"order", "a", "-h"}, "usage", {" order [NAME]\n"}},
    };
    for (const auto& c : cases) {
        const CliRun t = RunZarnpkg(root(), c.args);
        EXPECT_EQ(t.status, 0) << Shown(c.args) << t.err;
        const Args json = WithJson(c.args);
        const CliRun j = RunZarnpkg(root(), json);
        EXPECT_EQ(j.status, 0) << Shown(json) << j.err;
        const Json::Value v = ParseJson(j.out);
        EXPECT_TRUE(v["success"].asBool()) << j.out;
        EXPECT_EQ(t.out.rfind(v[c.member].asString(), 0), 0u) << Shown(json) << j.out;
        for (const char* words : c.says) {
            EXPECT_NE(t.out.find(words), std::string::npos) << Shown(c.args) << ": " << t.out;
        }
    }

    const CliRun version = RunZarnpkg(root(), {"--version"});
    EXPECT_TRUE(version.out.size() > 8 && std::isdigit(version.out[8])) << version.out;

    const std::string fresh = phys("/tmp/not/yet/here");
    CliRun r = RunZarnpkg(root(), {"--root=" + fresh, "host-init"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(ZARNIsRegularFile("/tmp/not/yet/here/etc/zarninfo.conf"));
    r = RunZarnpkg(root(), {"--root=" + fresh, "--lang=enu", "list"});
    EXPECT_EQ(r.out, "no packages installed\n") << r.err;
    r = RunZarnpkg(root(), {"--root=", "list"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("--root needs"), std::string::npos) << r.err;
}

// Output that can't be written is a failure, in text and in JSON.
TEST_F(CliErrors, OutputErrorsFail) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    for (const Args& args : {Args{"list"}, Args{"--json", "list"}, Args{"--help"}}) {
        EXPECT_EQ(RunZarnpkg(root(), args, {"", full}).status, 1) << Shown(args);
    }
    close(full);
    EXPECT_TRUE(logged("Failed to write standard output"));
}

// A word without a / or a package file's ending names an installed package, even where a file
// of that name lies in the working folder; --file reads the file.
TEST_F(CliErrors, InfoTellsNamesFromFiles) {
    addPackage("greeter",
               qartest::BasicInfo("greeter", "1.0-0001", {{"displayname", "Installed"}}));
    writeFile("/tmp/work/.keep", "");
    std::string err;
    ASSERT_TRUE(qartest::BuildQar(
        "/tmp/work/greeter",
        qartest::BasicInfo("greeter", "2.0-0001", {{"displayname", "From the file"}}), {{"f", "x"}},
        {}, err))
        << err;
    const CliRunPlace work{phys("/tmp/work"), -1};
    CliRun r = RunZarnpkg(root(), {"info", "greeter"}, work);
    EXPECT_NE(r.out.find("displayname: Installed\n"), std::string::npos) << r.out << r.err;
    r = RunZarnpkg(root(), {"info", "--file", "greeter"}, work);
    EXPECT_NE(r.out.find("displayname: From the file\n"), std::string::npos) << r.out << r.err;
    r = RunZarnpkg(root(), {"info", "./greeter"}, work);
    EXPECT_NE(r.out.find("displayname: From the file\n"), std::string::npos) << r.out << r.err;
    r = RunZarnpkg(root(), {"info", "--file"}, work);
    EXPECT_EQ(r.status, 2);
}

// Text from a package can't steer the terminal: control characters come out as escapes in the
// record of a file, of an installed package and in the check; --json keeps the text as it is.
TEST_F(CliErrors, TerminalEscapesAreShownNotSent) {
    const std::string title =
        "\x1b]0;owned\x07"
        "Evil\x1b[2J";
    const std::string description =
        "\x1b[32mSigned by vendor\x1b[0m \xc2\x9b"
        "31m \x9b end";
    const std::string info = qartest::BasicInfo(
        "evil", "1.0-0001", {{"displayname", title}, {"description", description}});
    std::string err;
    ASSERT_TRUE(qartest::BuildQar("/tmp/evil.qar", info, {{"f", "x"}}, {}, err)) << err;
    const CliRun check = RunZarnpkg(root(), {"check", phys("/tmp/evil.qar")});
    EXPECT_EQ(check.out.find_first_of("\x1b\x07"), std::string::npos) << check.out;
    EXPECT_NE(check.out.find("\\x1b]0;owned\\x07Evil"), std::string::npos)
        << check.out << check.err;
    addPackage("evil", info);
    for (const std::string& what : {phys("/tmp/evil.qar"), std::string("evil")}) {
        const CliRun r = RunZarnpkg(root(), {"info", what});
        ASSERT_EQ(r.status, 0) << what << r.err;
        EXPECT_EQ(r.out.find_first_of("\x1b\x07\r\x9b"), std::string::npos) << what;
        EXPECT_NE(r.out.find("displayname: \\x1b]0;owned\\x07Evil\\x1b[2J\n"), std::string::npos)
            << r.out;
        EXPECT_NE(r.out.find("\\x1b[32mSigned by vendor\\x1b[0m \\u009b31m \\x9b end"),
                  std::string::npos)
            << r.out;
        const CliRun j = RunZarnpkg(root(), {"--json", "info", what});
        EXPECT_EQ(ParseJson(j.out)["package"]["displayname"].asString(), title) << what;
    }
}

}  // namespace
