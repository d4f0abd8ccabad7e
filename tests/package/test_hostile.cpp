#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "core/packagemanager.h"
#include "core/paths.h"
#include "package/archive.h"
#include "package/payload_vet.h"
#include "package/tar_reader.h"
#include "platform/files.h"
#include "support/huge_alloc.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;
using qartest::RawMember;

namespace {

class HostileQarTest : public TempRootTest {
protected:
    void SetUp() override {
        TempRootTest::SetUp();
        // The volume's temp place is made once and stays, as on a real host; what must not
        // stay is anything inside it.
        ZARNRemoveTree(PMSMakeTmpDir("warmup"));
    }

    // Paths under the root and beside it, minus the log mirror, which grows on its own.
    std::vector<std::string> state() const {
        std::vector<std::string> paths = qartest::Snapshot(root());
        paths.erase(std::remove(paths.begin(), paths.end(), logPath()), paths.end());
        return paths;
    }

    std::string info() const { return qartest::BasicInfo("evil", "1.0"); }

    std::string raw(const std::vector<RawMember>& members, const std::string& file = "/tmp/c.qar") {
        EXPECT_TRUE(ZARNFileWrite(file, qartest::RawTar(members)));
        return file;
    }

    // Every reader refuses the archive and leaves the root as it found it, with nothing
    // written where a hostile member aims.
    void expectRefused(const std::string& file) {
        const std::vector<std::string> before = state();
        PackageManager pm;
        PackageInfo info;
        EXPECT_FALSE(pm.queryPackageFileInfo(file, info, PKG_INSTALLATION_NONE, "enu")) << file;
        EXPECT_FALSE(pm.queryPackageFileInfoWithWizard(file, info, PKG_INSTALLATION_NONE, "enu"));
        EXPECT_TRUE(info.name.empty());
        EXPECT_FALSE(pm.verifyPackageTgzFile(file, "00000000000000000000000000000000"));
        std::string displayName;
        Json::Value message;
        EXPECT_FALSE(CheckPackageFileInfo("enu", file.c_str(), displayName, message));
        EXPECT_EQ(PMSFileCheckMessage(PKG_ERR_BROKEN, Json::Value(), ""), message);
        EXPECT_EQ(before, state()) << "something was left behind or removed for " << file;
        EXPECT_TRUE(logged("Refused archive")) << file;
    }
};

// Names that leave the folder, links that lead out of it, and members that are no file or
// folder: every reader refuses the archive before anything is unpacked.
TEST_F(HostileQarTest, MembersThatReachOutAreRefused) {
    const std::string marker = "zarn-escape-marker";
    const std::vector<RawMember> cases[] = {
        {{"../" + marker, "x"}},
        {{"/etc/" + marker, "x"}},
        {{"scripts/../../" + marker, "x"}},
        {{"conf", "", '2', "sub"}, {"conf/" + marker, "x"}},
        {{"conf", "", '2', "/etc"}, {"conf/" + marker, "x"}},
        {{"scripts/preinst", "", '2', "../../../bin/sh"}},
        {{"conf/passwd", "", '1', "/etc/passwd"}},
        {{"conf/x", "", '1', "../outside"}},
        {{"conf/x", "", '1', "etc/passwd"}},
        {{"conf/null", "", '3', "", 0600, -1, 1, 3}},
        {{"conf/disk", "", '4', "", 0600, -1, 8, 0}},
        {{"scripts/preinst", "", '6'}},
    };
    for (const auto& members : cases) {
        std::vector<RawMember> all{{"INFO", info()}};
        all.insert(all.end(), members.begin(), members.end());
        SCOPED_TRACE(members[0].name);
        expectRefused(raw(all));
    }
    // Links that stay inside are fine.
    PackageManager pm;
    PackageInfo record;
    EXPECT_TRUE(pm.queryPackageFileInfo(raw({{"INFO", info()},
                                             {"conf/a", "t"},
                                             {"conf/b", "", '1', "conf/a"},
                                             {"conf/c", "", '2', "a"}}),
                                        record, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ("evil", record.name);
}

// One pax record, "<len> key=value\n", whose length counts itself.
std::string PaxRecord(const std::string& key, const std::string& value) {
    const std::string body = " " + key + "=" + value + "\n";
    size_t len = body.size() + 1;
    while (std::to_string(len).size() + body.size() != len) {
        ++len;
    }
    return std::to_string(len) + body;
}

TEST_F(HostileQarTest, SparseMembersThatRenameThemselvesAreRefused) {
    // GNU tar writes a pax sparse member under "GNU.sparse.name", not under the header's name,
    // so the name that was vetted would not be the name written.
    std::string map = "1\n0\n5\n";
    map.resize(512, '\0');
    const std::string pax =
        PaxRecord("GNU.sparse.major", "1") + PaxRecord("GNU.sparse.minor", "0") +
        PaxRecord("GNU.sparse.name", "conf/zarn-sparse") + PaxRecord("GNU.sparse.realsize", "5");
    const std::string file = raw({{"INFO", info()},
                                  {"PaxHeaders/harmless", pax, 'x'},
                                  {"GNUSparseFile.0/harmless", map + "hello"}});
    std::string listing;
    qartest::Run({"/bin/tar", "tf", phys(file)}, &listing);
    EXPECT_NE(std::string::npos, listing.find("conf/zarn-sparse")) << listing;
    expectRefused(file);
    EXPECT_TRUE(logged("sparse member"));
    // Global headers may not carry them either.
    expectRefused(
        raw({{"PaxHeaders/g", PaxRecord("GNU.sparse.major", "1"), 'g'}, {"INFO", info()}}));
}

TEST_F(HostileQarTest, SizesNearTheLimitOfTheirFieldAreRefused) {
    // A folder member whose base-256 size field holds 2^64 - 1: skipping it must not wrap around
    // to the next header. Tar would run off the end; we refuse the archive.
    std::string header = qartest::TarHeader({"conf", "", '5', "", 0755});
    header.replace(124, 12, std::string(1, '\x80') + std::string(3, '\0') + std::string(8, '\xff'));
    header.replace(148, 8, 8, ' ');
    unsigned int sum = 0;
    for (unsigned char c : header) {
        sum += c;
    }
    std::snprintf(&header[148], 8, "%06o", sum);
    ASSERT_TRUE(ZARNFileWrite("/tmp/wrap.qar", qartest::RawTar({{"INFO", info()}}, false) + header +
                                                   qartest::RawTar({{"conf/x", "x"}})));
    std::vector<TarMember> members;
    std::string why;
    EXPECT_EQ(TarScanStatus::BadHeader, PMSTarScan("/tmp/wrap.qar", members, why));
    EXPECT_NE(std::string::npos, why.find("bad size")) << why;
    expectRefused("/tmp/wrap.qar");
    // The same through a pax size.
    expectRefused(raw({{"INFO", info()},
                       {"PaxHeaders/x", PaxRecord("size", "18446744073709551615"), 'x'},
                       {"conf/x", "x"}}));
    // A header with one name byte changed: the first is no tar at all, a later one is bad.
    const std::string good = qartest::RawTar({{"INFO", info()}, {"conf/x", "y"}});
    for (const size_t offset : {size_t(0), size_t(1024 + 5)}) {
        std::string bad = good;
        bad[offset] ^= 0x01;
        ASSERT_TRUE(ZARNFileWrite("/tmp/t.tar", bad));
        EXPECT_EQ(offset == 0 ? TarScanStatus::NotTar : TarScanStatus::BadHeader,
                  PMSTarScan("/tmp/t.tar", members, why));
        EXPECT_NE(std::string::npos, why.find("checksum")) << why;
    }
    // The member cap stops the walk.
    const size_t saved = PMSTarSetMaxMembers(3);
    for (size_t count : {3, 4}) {
        raw(std::vector<RawMember>(count, RawMember("m", "")), "/tmp/t.tar");
        EXPECT_EQ(count == 3 ? TarScanStatus::Ok : TarScanStatus::BadHeader,
                  PMSTarScan("/tmp/t.tar", members, why));
    }
    EXPECT_EQ("too many members", why);
    EXPECT_EQ(3u, PMSTarSetMaxMembers(saved));
}

// INFO, conf and the scripts stop a query when larger than a package needs; the licence and the
// wizard are optional, so the query goes on without them. None of it is ever read or unpacked:
// the data is a hole at the end of the file.
TEST_F(HostileQarTest, MetadataLargerThanTheLimitIsNeverUnpacked) {
    const unsigned long long big = PMS_QAR_META_MAX + 1;
    const struct {
        const char* member;
        unsigned long long size;
        bool queryOk;
        std::string extracted;  // what the refusal names, "" for INFO, which is never extracted
    } cases[] = {
        {"INFO", 100ULL << 20, false, ""},
        {"conf/big", big, false, "conf"},
        {"scripts/start-stop-status", big, false, "scripts/start-stop-status"},
        {"LICENSE", big, true, "LICENSE"},
        {"WIZARD_UIFILES/install_uifile", big, true, "WIZARD_UIFILES/install_uifile"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.member);
        std::vector<RawMember> members = {{c.member, "", '0', "", 0755, (long long)c.size}};
        if (c.member != std::string("INFO")) {
            members.insert(members.begin(), {"INFO", info()});
        }
        ASSERT_TRUE(ZARNFileWrite("/tmp/big.qar", qartest::RawTar(members, false)));
        ASSERT_EQ(0, truncate(phys("/tmp/big.qar").c_str(),
                              static_cast<off_t>(1024 + 512 + (c.size + 511) / 512 * 512)));
        const std::vector<std::string> before = state();
        PackageManager pm;
        PackageInfo record;
        EXPECT_EQ(c.queryOk, pm.queryPackageFileInfoWithWizard("/tmp/big.qar", record,
                                                               PKG_INSTALLATION_INSTALL, "enu"));
        EXPECT_TRUE(record.license.empty() && (!c.extracted.empty() || record.name.empty()));
        EXPECT_EQ(before, state());
        EXPECT_TRUE(logged(c.extracted.empty() ? "larger than allowed"
                                               : "Refused to extract " + std::to_string(big) +
                                                     " bytes of " + c.extracted + " from"));
    }
}

TEST_F(HostileQarTest, FoldersWithMoreMembersThanAnyPackageAreRefusedBeforeExtraction) {
    for (const std::string folder : {"conf", "WIZARD_UIFILES"}) {
        std::vector<RawMember> members = {{"INFO", info()}};
        for (size_t i = 0; i < PMS_QAR_FOLDER_MEMBERS_MAX; ++i) {
            members.push_back({folder + "/f" + std::to_string(i), ""});
        }
        std::vector<TarMember> listed;
        std::string why;
        EXPECT_TRUE(PMSQarListVetted(raw(members), listed, why)) << why;
        // One more, and every reader refuses the file before tar runs.
        members.push_back({folder + "/last", ""});
        EXPECT_FALSE(PMSQarListVetted(raw(members), listed, why));
        EXPECT_EQ(std::to_string(PMS_QAR_FOLDER_MEMBERS_MAX + 1) + " members under " + folder +
                      "/, more than " + std::to_string(PMS_QAR_FOLDER_MEMBERS_MAX),
                  why);
        EXPECT_TRUE(logged(why));
        expectRefused("/tmp/c.qar");
    }
}

// Cut inside the payload, inside the first header, or no tar at all.
TEST_F(HostileQarTest, TruncatedAndNonTarFilesAreRefused) {
    const std::string whole =
        qartest::RawTar({{"INFO", info()}, {"package.tgz", std::string(4096, 'p')}});
    ASSERT_TRUE(ZARNFileWrite("/tmp/cut.qar", whole.substr(0, 1024 + 512 + 2048)));
    ASSERT_TRUE(ZARNFileWrite("/tmp/nottar.qar", "this is no archive at all\n"));
    ASSERT_TRUE(ZARNFileWrite("/tmp/header-only.qar", whole.substr(0, 300)));
    std::vector<TarMember> members;
    std::string why;
    EXPECT_EQ(TarScanStatus::Truncated, PMSTarScan("/tmp/cut.qar", members, why));
    EXPECT_EQ(TarScanStatus::NotTar, PMSTarScan("/tmp/nottar.qar", members, why));
    for (const std::string file : {"/tmp/cut.qar", "/tmp/nottar.qar", "/tmp/header-only.qar"}) {
        expectRefused(file);
    }
}

TEST_F(HostileQarTest, DecompressionBombIsNeverUnpackedAndIsCaughtByThePayloadCheck) {
    // A payload that unpacks to a thousand times its size: 64 MiB of zeros in one member.
    const unsigned long long inner = 64ULL * 1024 * 1024;
    std::string tarStream =
        qartest::TarHeader({"package/zeros", "", '0', "", 0644, (long long)inner});
    tarStream.append(inner + 1024, '\0');
    const std::string tgz = qartest::Gzip(tarStream, true);
    tarStream.clear();
    ASSERT_LT(tgz.size() * 1000, inner);
    ASSERT_TRUE(ZARNFileWrite("/tmp/bomb.tgz", tgz));
    const std::string md5 = qartest::Md5("/tmp/bomb.tgz");
    raw({{"INFO", qartest::BasicInfo("bomb", "1.0", {{"checksum", md5}})}, {"package.tgz", tgz}},
        "/tmp/bomb.qar");

    const std::vector<std::string> before = state();
    PackageManager pm;
    PackageInfo record;
    EXPECT_TRUE(pm.queryPackageFileInfo("/tmp/bomb.qar", record, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ("bomb", record.name);
    // The checksum test takes package.tgz out but never unpacks it.
    EXPECT_TRUE(pm.verifyPackageTgzFile("/tmp/bomb.qar", md5.c_str()));
    unsigned long long total = 0;
    std::string why;
    EXPECT_FALSE(PMSPayloadVet("/tmp/bomb.tgz", 1024 * 1024, total, why));
    EXPECT_NE(std::string::npos, why.find("more than")) << why;
    EXPECT_GT(total, 1024ULL * 1024);
    EXPECT_EQ(before, state());
    EXPECT_TRUE(PMSPayloadVet("/tmp/bomb.tgz", inner, total, why)) << why;
    EXPECT_EQ(inner, total);
}

TEST_F(HostileQarTest, PayloadWithBadNamesIsRefusedByThePayloadCheck) {
    unsigned long long total = 0;
    std::string why;
    // Writes a payload file and checks it.
    auto vet = [&](const std::string& tgz) {
        EXPECT_TRUE(ZARNFileWrite("/tmp/case.tgz", tgz));
        why.clear();
        return PMSPayloadVet("/tmp/case.tgz", 1ULL << 40, total, why);
    };
    const std::vector<std::string> before = state();
    EXPECT_FALSE(vet("not gzip"));

    // The tricks of the archive check, inside the payload.
    const struct {
        std::vector<RawMember> members;
        std::string reason;
    } cases[] = {
        {{{"../../etc/evil", "x"}}, ".."},
        {{{"/etc/evil", "x"}}, "absolute"},
        {{{"lib", "", '2', "/etc"}, {"lib/evil", "x"}}, "symbolic link"},
        {{{"lib", "", '2', "sub"}, {"lib/evil", "x"}}, "symbolic link"},
        {{{"passwd", "", '1', "/etc/passwd"}}, "hard link"},
        {{{"null", "", '3', "", 0600, -1, 1, 3}}, "device"},
        {{{"fifo", "", '6'}}, "FIFO"},
    };
    for (const auto& c : cases) {
        const std::string tgz = qartest::Gzip(qartest::RawTar(c.members));
        EXPECT_FALSE(vet(tgz)) << c.reason;
        EXPECT_NE(std::string::npos, why.find(c.reason)) << why;
        // The file check finds the same inside a whole package.
        why.clear();
        EXPECT_FALSE(PMSQarPayloadVet(raw({{"INFO", info()}, {"package.tgz", tgz}}), why));
        EXPECT_NE(std::string::npos, why.find(c.reason)) << why;
    }
    ASSERT_TRUE(ZARNUnlink("/tmp/c.qar"));
    // Links of a payload may point anywhere, as long as nothing is written through them.
    EXPECT_TRUE(vet(qartest::Gzip(qartest::RawTar({{"etc", "", '2', "/etc"},
                                                   {"up", "", '2', "../../x"},
                                                   {"bin/run", "x"},
                                                   {"bin/same", "", '1', "bin/run"}}))))
        << why;
    // A payload cut short, and one with a great deal of data after its end.
    const std::string good =
        qartest::Gzip(qartest::RawTar({{"bin/run", std::string(100000, 'r')}}));
    EXPECT_TRUE(vet(good)) << why;
    EXPECT_EQ(100000u, total);
    EXPECT_FALSE(vet(good.substr(0, good.size() / 2)));
    std::string tail = qartest::RawTar({{"bin/run", "x"}});
    tail.append(4 * 1024 * 1024, 'j');
    EXPECT_FALSE(vet(qartest::Gzip(tail)));
    EXPECT_NE(std::string::npos, why.find("after the end")) << why;
    EXPECT_FALSE(PMSPayloadVet("/tmp/none.tgz", 1ULL << 40, total, why));
    ASSERT_TRUE(ZARNUnlink("/tmp/case.tgz"));
    EXPECT_EQ(before, state());
}

// What tar may leave in the extract folder that no package needs: each is refused with its
// member named, and set-ID bits go unless the package's "tool" entry gives them.
TEST_F(HostileQarTest, UnpackedPackageIsVettedWithoutFollowingLinks) {
    const std::string x = "/tmp/pkginstall";
    auto fresh = [&] {
        ASSERT_TRUE(ZARNRemoveTree(x));
        writeFile(x + "/INFO", info());
        writeFile(x + "/package/bin/run", "#!/bin/sh\n", 0755);
    };
    auto at = [&](const std::string& member) { return phys(x + "/" + member); };
    auto socketAt = [&](const std::string& path) {
        const Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        return bind(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    };
    writeFile("/etc/outside", "secret", 04755);
    const struct {
        std::string member;
        std::string reason;
        std::function<int(const std::string&)> make;
    } cases[] = {
        {"package/fifo", "FIFO", [](const std::string& p) { return mkfifo(p.c_str(), 0600); }},
        {"package/sock", "socket", socketAt},
        {"package/null", "device node",
         [](const std::string& p) {
             return geteuid() == 0 ? mknod(p.c_str(), S_IFCHR | 0600, makedev(1, 3))
                                   : mkfifo(p.c_str(), 0600);
         }},
        {"package/passwd", "outside",
         [&](const std::string& p) { return link(phys("/etc/outside").c_str(), p.c_str()); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.member);
        fresh();
        ASSERT_EQ(0, c.make(at(c.member)));
        std::string why;
        EXPECT_FALSE(PMSVetUnpackedPackage(x, why));
        EXPECT_NE(std::string::npos, why.find(c.member)) << why;
        EXPECT_TRUE((geteuid() != 0 && c.reason == "device node") ||
                    why.find(c.reason) != std::string::npos)
            << why;
        EXPECT_TRUE(logged("Refused package member " + c.member)) << logText();
    }
    // Set-ID bits: cleared, kept as far as a tool entry says, and never touched through a link.
    fresh();
    writeFile(x + "/package/bin/plain", "x", 06755);
    writeFile(x + "/package/bin/kept", "x", 06755);
    writeFile(x + "/package/data/a", "x", 0644);
    ASSERT_EQ(0, link(at("package/data/a").c_str(), at("package/data/b").c_str()));
    ASSERT_TRUE(ZARNSymlink("/etc/outside", x + "/package/bin/outside"));
    ASSERT_TRUE(ZARNSymlink("/etc", x + "/package/etc"));
    writeFile(x + "/conf/privilege",
              R"({"tool": [{"relpath": "./bin//kept", "user": "root", "group": "root",
                            "permission": "4750"}]})");
    std::string why;
    EXPECT_TRUE(PMSVetUnpackedPackage(x, why)) << why;
    EXPECT_EQ(0755u, modeOf(x + "/package/bin/plain"));
    EXPECT_EQ(04755u, modeOf(x + "/package/bin/kept"));
    EXPECT_EQ(04755u, modeOf("/etc/outside"));
}

TEST_F(HostileQarTest, DeepWizardWithALargeValueIsWalkedInItsOwnSize) {
    // Nested as deep as the reader allows, with 8 MiB at the bottom. A walk that copied each
    // level would hold the value once per level, some 4 GiB; it must stay within 1 GiB.
    const int depth = 500;
    const std::string text = std::string(depth, '[') + "[{\"items\": [{\"key\": \"deep\", " +
                             "\"defaultValue\": \"" + std::string(8 * 1024 * 1024, 'v') + "\"}]}]" +
                             std::string(depth, ']');
    writeFile("/tmp/deep_wizard", text);
    Json::Value wizard;
    PMReadUIFileContent("/tmp/deep_wizard", wizard);
    ASSERT_FALSE(wizard.isNull()) << "the reader refused the nesting";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
#ifndef ZARN_UNDER_ASAN
        // The address sanitizer reserves far more address space than this for itself.
        struct rlimit limit = {1ULL << 30, 1ULL << 30};
        setrlimit(RLIMIT_AS, &limit);
#endif
        try {
            Json::Value values(Json::objectValue);
            getUIDefaultValues(wizard, values);
            _exit(values["deep"].asString().size() == 8u * 1024 * 1024 ? 0 : 2);
        } catch (...) {
            _exit(3);  // out of memory, whatever form the failure takes
        }
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(0, WEXITSTATUS(status)) << "3: out of memory, 2: value not found";
}

}  // namespace
