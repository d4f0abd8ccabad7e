#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "platform/files.h"
#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

using Args = std::vector<std::string>;

class CliContract : public TempRootTest {
protected:
    // A second root inside this one, made but never initialised.
    std::string bareRoot() {
        makeDir("/tmp/bare");
        return phys("/tmp/bare");
    }

    // With --json: exactly one JSON object on standard output, in the failure form.
    static Json::Value ExpectJsonFailure(const CliRun& r, int status, const std::string& what) {
        EXPECT_EQ(r.status, status) << what << "\n" << r.err;
        EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << what << ": " << r.out;
        Json::Value v;
        EXPECT_TRUE(Json::fromString(v, r.out)) << what << ": " << r.out;
        EXPECT_TRUE(v.isObject()) << what;
        if (!v.isObject()) {
            return v;
        }
        const std::vector<std::string> members = {"code",   "error",   "message",
                                                  "params", "success", "worker_msg"};
        EXPECT_EQ(v.getMemberNames(), members) << what << ": " << r.out;
        EXPECT_TRUE(v["success"].isBool() && !v["success"].asBool()) << what;
        EXPECT_TRUE(v["code"].isUInt() && v["code"].asUInt() != 0) << what << ": " << r.out;
        EXPECT_TRUE(v["params"].isObject()) << what;
        EXPECT_TRUE(v["worker_msg"].isArray()) << what;
        const Json::Value& message = v["message"];
        EXPECT_TRUE(message.isArray() && !message.empty() && message[0].isString() &&
                    message[0].asString().find(':') != std::string::npos)
            << what << ": the message starts with its key: " << r.out;
        return v;
    }

    // Without --json: nothing on standard output, the reason on standard error.
    static void ExpectTextFailure(const CliRun& r, int status, const std::string& what) {
        EXPECT_EQ(r.status, status) << what << "\n" << r.err;
        EXPECT_EQ(r.out, "") << what;
        if (status == 2) {
            EXPECT_EQ(r.err.rfind("zarnpkg: ", 0), 0u) << what << ": " << r.err;
            EXPECT_NE(r.err.find("usage: zarnpkg"), std::string::npos) << what;
        } else {
            EXPECT_EQ(r.err.rfind("error: 0x", 0), 0u) << what << ": " << r.err;
            EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << what << ": one line: " << r.err;
        }
    }

    static Json::Value ExpectJsonSuccess(const CliRun& r, const std::string& what) {
        EXPECT_EQ(r.status, 0) << what << "\n" << r.err;
        EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << what << ": " << r.out;
        Json::Value v;
        EXPECT_TRUE(Json::fromString(v, r.out)) << what << ": " << r.out;
        EXPECT_TRUE(v.isObject() && v["success"].isBool() && v["success"].asBool()) << what;
        return v;
    }
};

// Every failure, however early it is found, answers in the one form the caller asked for. Where
// a row names them, the failure carries the key of its code, and the sentence a person reads on
// standard error is the "error" of the JSON form, with the facts of the parameters in it.
TEST_F(CliContract, EveryFailureHasOneAnswer) {
    addPackage("a", "install_dep_packages=\"b\"\n");
    addPackage("b", "install_dep_packages=\"a\"\n");
    writeFile("/tmp/junk.qar", "not an archive");
    const std::string junk = phys("/tmp/junk.qar");
    const std::string notPackage = "pkgmgr:pkgmgr_file_not_package";
    const std::string notInstalled = "pkgmgr:pkgmgr_pkg_not_available";
    const std::string system = "error:error_error_system";
    struct Failure {
        Failure(Args a, int s, unsigned int c = 0, std::string k = "", const char* w = nullptr)
            : args(std::move(a)), status(s), code(c), key(std::move(k)), words(w) {}
        Args args;
        int status;
        unsigned int code;
        std::string key;
        const char* words;
    };
    const std::vector<Failure> cases = {
        {{}, 2},
        {{"--bogus", "list"}, 2},
        {{"--lang"}, 2},
        {{"--lang", "", "list"}, 2},
        {{"list", "extra"}, 2},
        {{"info"}, 2},
        {{"info", "a", "b"}, 2},
        {{"status"}, 2},
        {{"status", "a", "b"}, 2},
        {{"log"}, 2},
        {{"order", "a", "b"}, 2},
        {{"check"}, 2},
        {{"check", "a", "b"}, 2},
        {{"pack"}, 2},
        {{"pack", phys("/tmp")}, 2},
        {{"pack", "-x", phys("/tmp"), "-o", phys("/tmp/o.qar")}, 2},
        {{"host-init", "--volumes", "0"}, 2},
        {{"host-init", "extra"}, 2},
        {{"check", phys("/tmp/absent.qar")}, 1},
        {{"pack", phys("/tmp/absent"), "-o", phys("/tmp/o.qar")}, 1},
        {{"info", "nosuch"}, 1, 0xff, notInstalled, "package nosuch"},
        {{"log", "nosuch"}, 1, 0xff, notInstalled, "package nosuch"},
        {{"order", "nosuch"}, 1, 0xff, notInstalled, "package nosuch"},
        {{"status", "nosuch"}, 1, 0xff, notInstalled, "package nosuch"},
        {{"order"}, 1, 0x112, "pkgmgr:depend_cycle", "in a cycle"},
        {{"info", "missing.qar"}, 1, 0x107, system, "no such file: missing"},
        {{"info", "--file", "nosuch"}, 1, 0x107, system, "no such file"},
        {{"check", "missing.qar"}, 1, 0x96, notPackage, "no such file: missing.qar"},
        {{"check", junk},
         1,
         0x96,
         notPackage,
         "can't be installed on this machine: it is no package file"},
        {{"info", junk}, 1, 0x96, notPackage, "is no readable package file"},
        {{"frobnicate"}, 2, 0x107, system, "unknown command frobnicate"},
    };
    for (const Failure& c : cases) {
        const CliRun t = RunZarnpkg(root(), c.args);
        ExpectTextFailure(t, c.status, Shown(c.args));
        const CliRun j = RunZarnpkg(root(), WithJson(c.args));
        const Json::Value v = ExpectJsonFailure(j, c.status, Shown(c.args));
        if (c.words == nullptr) {
            continue;
        }
        EXPECT_EQ(v["code"].asUInt(), c.code) << Shown(c.args) << j.out;
        EXPECT_EQ(v["message"][0].asString(), c.key) << Shown(c.args) << j.out;
        const std::string sentence = v["error"].asString();
        EXPECT_NE(sentence.find(c.words), std::string::npos) << Shown(c.args) << j.out;
        char head[32];
        std::snprintf(head, sizeof(head), "0x%x ", c.code);
        const std::string line =
            c.status == 1 ? "error: " + std::string(head) + c.key + ": " : std::string("zarnpkg: ");
        EXPECT_EQ(t.err.substr(0, t.err.find('\n') + 1), line + sentence + "\n") << Shown(c.args);
        // Every parameter of the manager reaches the person, in words where the CLI has them.
        for (const auto& key : v["params"].getMemberNames()) {
            const std::string fact = (key == "cycles" ? "packages on a cycle" : key) + ": " +
                                     v["params"][key].asString();
            EXPECT_NE(sentence.find(fact), std::string::npos) << Shown(c.args) << j.out;
        }
    }

    // --json is honoured even behind the mistake that stops the parsing, and a global option
    // behind the command is a usage error that says where it goes.
    ExpectJsonFailure(RunZarnpkg(root(), {"--bogus", "--json", "list"}), 2, "--bogus --json");
    CliRun r = RunZarnpkg(root(), {"list", "--json"});
    ExpectJsonFailure(r, 2, "list --json");
    EXPECT_NE(r.err.find("--json goes before the command"), std::string::npos) << r.err;
    r = RunZarnpkg(root(), {"status", "-v"});
    ExpectTextFailure(r, 2, "status -v");

    // The registry of a root that was never made: the person learns how to make it.
    const std::string bare = bareRoot();
    for (const Args& args : {Args{"list"}, Args{"status", "x"}, Args{"log", "x"}, Args{"order"}}) {
        r = RunZarnpkg(bare, args);
        ExpectTextFailure(r, 1, "bare" + Shown(args));
        EXPECT_NE(r.err.find("host-init"), std::string::npos) << r.err;
        Json::Value v =
            ExpectJsonFailure(RunZarnpkg(bare, WithJson(args)), 1, "bare" + Shown(args));
        EXPECT_EQ(v["code"].asUInt(), 0x107u);
    }
    r = RunZarnpkg(bare, {"check", phys("/tmp/junk.qar")});
    EXPECT_NE(r.err.find("the root " + bare + " is not a standalone root yet; run zarnpkg --root " +
                         bare + " host-init"),
              std::string::npos)
        << r.err;

    // host-init on the machine's own root is refused before anything is touched.
    r = RunZarnpkg("/", {"host-init"});
    ExpectTextFailure(r, 1, "host-init on /");
    EXPECT_NE(r.err.find("--root DIR"), std::string::npos) << r.err;
    ExpectJsonFailure(RunZarnpkg("/", {"--json", "host-init"}), 1, "--json host-init on /");
    // An empty --root is no way to say "/".
    r = RunZarnpkg(root(), {"--root", "", "list"});
    ExpectTextFailure(r, 2, "--root ''");
    EXPECT_NE(r.err.find("--root needs"), std::string::npos) << r.err;
}

// The library's reasons come with -v, and only then.
TEST_F(CliContract, VerboseCopiesTheLog) {
    const std::string bare = bareRoot();
    CliRun quiet = RunZarnpkg(bare, {"list"});
    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(quiet.err.find("Failed to get system arch"), std::string::npos) << quiet.err;
    CliRun loud = RunZarnpkg(bare, {"-v", "list"});
    EXPECT_EQ(loud.status, 1);
    EXPECT_NE(loud.err.find("core/packagemanager.cpp:"), std::string::npos) << loud.err;
    EXPECT_NE(loud.err.find("Failed to get system arch"), std::string::npos) << loud.err;
    EXPECT_NE(loud.err.find("\nerror: 0x107 "), std::string::npos) << loud.err;
    // With --json the log still goes to standard error, and standard output stays one object.
    loud = RunZarnpkg(bare, {"-v", "--json", "list"});
    EXPECT_NE(loud.err.find("Failed to get system arch"), std::string::npos) << loud.err;
    ExpectJsonFailure(loud, 1, "-v --json list");
}

// Each command's success is one JSON object too.
TEST_F(CliContract, EverySuccessIsOneObject) {
    const std::string qar = phys("/tmp/hello.qar");
    ExpectJsonSuccess(RunZarnpkg(root(), {"--json", "host-init"}), "host-init");
    Json::Value v = ExpectJsonSuccess(
        RunZarnpkg(root(), {"--json", "pack", ZARN_SOURCE_DIR "/examples/hello", "-o", qar}),
        "pack");
    EXPECT_EQ(v["file"].asString(), qar);
    ExpectJsonSuccess(RunZarnpkg(root(), {"--json", "check", qar}), "check");
    v = ExpectJsonSuccess(RunZarnpkg(root(), {"--json", "info", qar}), "info");
    EXPECT_EQ(v["package"]["package"].asString(), "hello");
    EXPECT_EQ(v["package"]["version"].asString(), "1.0.0-0001");
    EXPECT_TRUE(v["package"]["extractsize"].isIntegral());
    EXPECT_NE(RunZarnpkg(root(), {"info", qar}).out.find("package: hello"), std::string::npos);
    v = ExpectJsonSuccess(RunZarnpkg(root(), {"--json", "list"}), "list");
    EXPECT_TRUE(v["packages"].isArray());
    v = ExpectJsonSuccess(RunZarnpkg(root(), {"--json", "order"}), "order");
    EXPECT_TRUE(v["order"].isArray());
    // The temp folders of pack, check and info are gone again.
    std::vector<ZARNDirEntry> left;
    ASSERT_TRUE(ZARNListDir("/volume1/@tmp", left));
    EXPECT_TRUE(left.empty());
}

// A failed pack names its key first and then the reason in words.
TEST_F(CliContract, PackFailureCarriesKeyAndReason) {
    CliRun r = RunZarnpkg(root(), {"--json", "pack", phys("/tmp/absent"), "-o", phys("/tmp/o")});
    Json::Value v = ExpectJsonFailure(r, 1, "pack");
    EXPECT_EQ(v["code"].asUInt(), 0x105u);
    ASSERT_EQ(v["message"].size(), 2u) << r.out;
    EXPECT_EQ(v["message"][0].asString(), "pkgmgr:broken_package");
    EXPECT_NE(v["message"][1].asString().find("absent"), std::string::npos) << r.out;
    r = RunZarnpkg(root(), {"pack", phys("/tmp/absent"), "-o", phys("/tmp/o")});
    EXPECT_NE(r.err.find("can't pack " + phys("/tmp/absent")), std::string::npos) << r.err;
}

// A check that fails without naming a code still reads as a failure, never as code 0.
TEST_F(CliContract, FailureWithoutCodeIsASystemError) {
    std::string err;
    ASSERT_TRUE(qartest::BuildQar(
        "/tmp/needs.qar",
        qartest::BasicInfo("needs", "1.0-0001", {{"install_dep_services", "ssh-shell"}}),
        {{"f", "x"}}, {}, err))
        << err;
    writeFile("/etc/zarnhost/services.json",
              "{\"services\":[{\"name\":\"ssh-shell\",\"display_name\":\"SSH\","
              "\"enabled\":false,\"running\":false}]}");
    // No strings file of the web interface: the check fails without a code of its own.
    ASSERT_FALSE(ZARNPathExists("/usr/zarn/zarnman/webman/texts/enu/strings"));
    CliRun r = RunZarnpkg(root(), {"--json", "check", phys("/tmp/needs.qar")});
    Json::Value v = ExpectJsonFailure(r, 1, "check needs");
    EXPECT_EQ(v["code"].asUInt(), 0x107u);
    r = RunZarnpkg(root(), {"check", phys("/tmp/needs.qar")});
    EXPECT_EQ(r.err.rfind("error: 0x107 ", 0), 0u) << r.err;
}

// The check names the package in the language asked for, else in the system's language.
TEST_F(CliContract, CheckHonoursTheLanguage) {
    std::string err;
    ASSERT_TRUE(qartest::BuildQar(
        "/tmp/greet.qar",
        qartest::BasicInfo("greet", "1.0-0001",
                           {{"displayname", "Greeting"}, {"displayname_fre", "Salutation"}}),
        {{"f", "x"}}, {}, err))
        << err;
    const std::string qar = phys("/tmp/greet.qar");
    CliRun r = RunZarnpkg(root(), {"check", qar});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Greeting"), std::string::npos) << r.out;
    r = RunZarnpkg(root(), {"--lang", "fre", "check", qar});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Salutation"), std::string::npos) << r.out;

    std::string conf = readFile("/etc/zarninfo.conf");
    const size_t at = conf.find("language=\"enu\"");
    ASSERT_NE(at, std::string::npos) << conf;
    conf.replace(at, std::string("language=\"enu\"").size(), "language=\"fre\"");
    writeFile("/etc/zarninfo.conf", conf);
    r = RunZarnpkg(root(), {"check", qar});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Salutation"), std::string::npos) << r.out;
    r = RunZarnpkg(root(), {"--lang", "enu", "check", qar});
    EXPECT_NE(r.out.find("Greeting"), std::string::npos) << r.out;
}

}  // namespace
