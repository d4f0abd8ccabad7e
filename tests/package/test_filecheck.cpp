#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/packagemanager.h"
#include "core/paths.h"
#include "core/version.h"
#include "package/archive.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

using Keys = std::vector<std::pair<std::string, std::string>>;

// A check's outcome on one line: pass or fail, the code, and the message as compact JSON.
std::string Outcome(bool ok, PKG_ERRCODE code, const std::string& message) {
    return (ok ? "pass " : "fail ") + std::to_string(code) + " " + message;
}

struct CheckResult {
    bool ok = false;
    PKG_ERRCODE code = PKG_ERR_SUCCESS;
    Json::Value detail;
    Json::Value message;
    std::string displayName;
    std::string outcome() const { return Outcome(ok, code, Json::toCompactString(message)); }
};

// A loopback port with a socket listening on it in `fd`; closing it leaves a port that nothing
// on the machine listens on right now.
int ListeningPort(Fd& fd) {
    fd = Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    const bool ok = fd.valid() && bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
                    listen(fd.get(), 1) == 0 &&
                    getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    return ok ? ntohs(addr.sin_port) : -1;
}

const std::map<std::string, std::string> kUpgradeScripts = {
    {"scripts/start-stop-status", "#!/bin/sh\nexit 0\n"},
    {"scripts/preupgrade", "#!/bin/sh\nexit 0\n"},
};

class FileCheckTest : public TempRootTest {
protected:
    std::string build(const std::string& name, const std::string& version, const Keys& extra = {},
                      const std::map<std::string, std::string>& other = kUpgradeScripts,
                      const std::string& checksum = "") {
        const std::string file = "/tmp/" + name + "-" + version + ".qar";
        std::string err;
        EXPECT_TRUE(qartest::BuildQar(file, qartest::BasicInfo(name, version, extra),
                                      {{"bin/run", "#!/bin/sh\n"}}, other, err, checksum))
            << err;
        return file;
    }

    CheckResult check(const std::string& file, const char* lang = "enu") {
        CheckResult r;
        PackageInfo info;
        r.detail = Json::Value(Json::objectValue);
        r.ok = CheckPackageFileInfoImpl(lang, file.c_str(), r.displayName, r.code, r.detail, info);
        std::string name;
        bool ok2 = CheckPackageFileInfo(lang, file.c_str(), name, r.message);
        EXPECT_EQ(r.ok, ok2);
        EXPECT_EQ(r.displayName, name);
        return r;
    }

    void install(const std::string& name, const std::string& version) {
        addPackage(name, qartest::BasicInfo(name, version));
    }
};

// A file that is no package is the CLI contract's to check.
TEST_F(FileCheckTest, GoodPackageLanguageAndRecord) {
    const std::string file = build("good", "1.0.0-0001");
    CheckResult r = check(file);
    EXPECT_EQ(Outcome(true, PKG_ERR_SUCCESS, "[]"), r.outcome()) << logText();
    EXPECT_EQ("good display", r.displayName);
    EXPECT_EQ(Outcome(false, PKG_ERR_SYSTEM, R"(["error:error_error_system"])"),
              check(file, nullptr).outcome());
}

TEST_F(FileCheckTest, StepThreeVolumes) {
    const std::string file = build("vol", "1.0");
    // No volume at all.
    ASSERT_TRUE(ZARNRemoveTree("/volume1"));
    const std::string notReady =
        Outcome(false, PKG_ERR_NO_WORKING_VOLUME, R"(["pkgmgr:pkgmgr_space_not_ready"])");
    CheckResult r = check(file);
    EXPECT_EQ(notReady, r.outcome());
    EXPECT_FALSE(r.detail.isMember("required_volume_type"));
    // Only a volume that isn't generic.
    makeDir("/volume1");
    writeFile("/etc/zarnhost/volumes.json",
              R"({"volumes": [{"path": "/volume1", "generic": false}]})");
    r = check(file);
    EXPECT_EQ(notReady, r.outcome());
    EXPECT_EQ("generic", r.detail["required_volume_type"].asString());
    // A dock host whose only volume is full.
    writeFile("/etc/zarnhost/volumes.json",
              R"({"dock_host": true, "volumes": [{"path": "/volume1", "space_cap": 1}]})");
    EXPECT_EQ(Outcome(false, PKG_ERR_NO_SPACE, R"(["pkgmgr:error_sys_no_space"])"),
              check(file).outcome());
    // A system package whose install place is missing, on a machine without volumes: a system
    // error, not the "no volume" that finding a temp folder left behind.
    writeFile("/etc/zarnhost/volumes.json", "{}");
    ASSERT_TRUE(ZARNRemoveTree("/volume1"));
    ASSERT_TRUE(ZARNRemoveTree("/usr/local/packages"));
    EXPECT_EQ(Outcome(false, PKG_ERR_SYSTEM, R"(["error:error_error_system"])"),
              check(build("sysvol", "1.0", {{"install_type", "system"}})).outcome())
        << logText();
}

// Each refusal of the check: its code and the message array a person reads.
TEST_F(FileCheckTest, RefusalsCarryCodeAndMessage) {
    writeFile("/etc.defaults/zarnpackageslimit.conf", "lim=[\"0.1\",\"3.0\"]\nsys=\"system\"\n");
    install("down", "2.0");
    install("rival", "1.0");
    install("noup", "1.0");
    std::string product;
    ASSERT_EQ(1, VLIBCFileGetKeyValue("/etc.defaults/zarninfo.conf", "product", product));
    const std::map<std::string, std::string> startOnly = {
        {"scripts/start-stop-status", "#!/bin/sh\n"}};
    const std::string host = "\"hostVersion\":\"6.2-25556";
    // One INFO key each (none where empty); the message and a part of the detail as compact JSON.
    const struct {
        const char* name;
        const char* key;
        const char* value;
        PKG_ERRCODE code;
        std::string message;
        std::string detail;
    } cases[] = {
        {"sum", "", "", PKG_ERR_BAD_PACKAGE, R"(["pkgmgr:broken_package"])", ""},
        {"down", "", "", PKG_ERR_DOWNGRADE, R"(["pkgmgr:downgrade_version","2.0","1.0"])",
         R"("curVersion":"2.0","insVersion":"1.0")"},
        {"lim", "", "", PKG_ERR_VERSION_LIMIT,
         R"(["pkgmgr:pkg_install_version_less_than_limit","lim display","1.0","3.0"])",
         R"("insVersion":"3.0")"},
        {"sys", "", "", PKG_ERR_LIMIT_UNKNOWN, R"(["error:error_error_system"])", ""},
        // The bound is printed in full, with its update; the CLI tests read bounds without one.
        {"os", "os_min_ver", "99.0-00001-3", PKG_ERR_OS_TOO_OLD,
         R"j(["pkgmgr:pkgmgr_pkg_required_newer_version","99.0-0001 (update 3)"])j", host},
        {"os", "os_max_ver", "1.0-00001-5", PKG_ERR_OS_TOO_NEW,
         R"j(["pkgmgr:pkgmgr_pkg_required_older_version","1.0-0001 (update 5)"])j", host},
        {"arch", "arch", "nosucharch", PKG_ERR_PLATFORM,
         R"(["pkgmgr:pkgmgr_pkg_not_support_platform",")" + product + "\"]",
         R"("hostArch":")" + PMSGetSystemArchString() + R"(","pkgArch":"nosucharch")"},
        {"conx", "install_conflict_packages", "rival", PKG_ERR_CONFLICT,
         R"(["pkgmgr:conflict_packages","rival display"])", ""},
        // The missing packages fill both members, so the message names them twice.
        {"needy", "install_dep_packages", "absent", PKG_ERR_DEPENDENCY,
         R"(["pkgmgr:depend_uninst_unstart","absent","absent"])", R"("packages":{"absent":)"},
        {"noup", "", "", PKG_ERR_UPGRADE, R"(["pkgmgr:pkgmgr_pkg_cannot_upgrade"])",
         R"("missingScript":"scripts/preupgrade or scripts/postupgrade")"},
    };
    for (const auto& c : cases) {
        const std::string name = c.name;
        const Keys extra = *c.key ? Keys{{c.key, c.value}} : Keys{};
        const CheckResult r = check(build(name, name == "noup" ? "1.1" : "1.0", extra,
                                          name == "noup" ? startOnly : kUpgradeScripts,
                                          name == "sum" ? "0123456789abcdef0123456789abcdef" : ""));
        EXPECT_EQ(Outcome(false, c.code, c.message), r.outcome()) << name << " " << logText();
        EXPECT_NE(std::string::npos, Json::toCompactString(r.detail).find(c.detail)) << r.detail;
    }
    EXPECT_TRUE(check(build("down", "2.0")).ok) << "the same version is no downgrade";
    // With a postupgrade script it may go on; a fresh install needs none.
    EXPECT_TRUE(check(build("noup", "1.2", {}, {{"scripts/postupgrade", "#!/bin/sh\n"}})).ok);
    EXPECT_TRUE(check(build("fresh", "1.0", {}, {})).ok);
    // The refusal names the host's version with its update when the host has one.
    ASSERT_TRUE(VLIBCFileSetKeyValue("/etc.defaults/VERSION", "smallfixnumber", "3"));
    EXPECT_EQ("6.2-25556 (update 3)", check(build("oldos", "1.0", {{"os_max_ver", "1.0-00001"}}))
                                          .detail["hostVersion"]
                                          .asString());
    // Without the product name the platform array stays empty, and the reason is logged.
    removeKey("/etc.defaults/zarninfo.conf", "product");
    EXPECT_TRUE(PMSFileCheckMessage(PKG_ERR_PLATFORM, Json::Value(), "").empty());
    EXPECT_TRUE(logged("Failed to get product"));
}

TEST_F(FileCheckTest, StepNinePortConflict) {
    writeFile("/usr/local/etc/services.d/other.sc",
              "[other]\ntitle=\"Other\"\ndst.ports=\"18123,18200:18210/tcp\"\n");
    CheckResult r =
        check(build("port", "1.0", {{"adminport", "18205"}, {"adminprotocol", "http"}}));
    EXPECT_EQ(Outcome(false, PKG_ERR_PORT_CONFLICT, R"(["pkgmgr:port_conflict","18205"])"),
              r.outcome());
    EXPECT_EQ("18205", r.detail.asString());
    // A port that something listens on.
    Fd fd;
    const std::string busy = std::to_string(ListeningPort(fd));
    EXPECT_EQ(Outcome(false, PKG_ERR_PORT_CONFLICT, R"(["pkgmgr:port_conflict",")" + busy + "\"]"),
              check(build("busy", "1.0", {{"adminport", busy}})).outcome());
    // Its own port file is no conflict; neither is the system's HTTP port, nor "checkport" no.
    fd.reset();
    writeFile("/usr/local/etc/services.d/mine.sc", "[mine]\ndst.ports=\"" + busy + "/tcp\"\n");
    EXPECT_TRUE(check(build("mine", "1.0", {{"adminport", busy}})).ok);
    EXPECT_TRUE(check(build("web", "1.0", {{"adminport", "5000"}})).ok);
    EXPECT_TRUE(check(build("nocheck", "1.0", {{"adminport", "18205"}, {"checkport", "no"}})).ok);
    // Port 80 over http and 443 over https are the web server's own, even when listed elsewhere;
    // over the other protocol they are ordinary ports.
    writeFile("/usr/local/etc/services.d/web.sc", "[web]\ndst.ports=\"80,443/tcp\"\n");
    const struct {
        std::string port, protocol;
        PKG_ERRCODE code;
    } web[] = {{"80", "http", PKG_ERR_SUCCESS},
               {"443", "https", PKG_ERR_SUCCESS},
               {"80", "https", PKG_ERR_PORT_CONFLICT}};
    for (const auto& c : web) {
        EXPECT_EQ(c.code, check(build("w" + c.port + c.protocol, "1.0",
                                      {{"adminport", c.port}, {"adminprotocol", c.protocol}}))
                              .code)
            << c.port << c.protocol;
    }
}

TEST_F(FileCheckTest, StepElevenServices) {
    writeFile("/etc/zarnhost/services.json",
              R"({"services": [{"name": "ssh-shell", "display_name": "SSH", "enabled": false},
                               {"name": "nfsd", "display_name": "NFS Service", "enabled": false}]})");
    // Without the UI's strings the check fails without a code: the CLI contract's system error.
    writeFile("/usr/zarn/zarnman/webman/texts/enu/strings", "[common]\n");
    const CheckResult r = check(build("svc", "1.0", {{"install_dep_services", "nfsd"}}));
    EXPECT_EQ(
        Outcome(false, PKG_ERR_SERVICE_NOT_STARTED, R"(["pkgmgr:require_service","NFS Service"])"),
        r.outcome());
    EXPECT_EQ(R"(["NFS Service"])", Json::toCompactString(r.detail["serviceNoStarted"]));
}

// The upgrade refusal comes before the signature is looked at; level 0 asks the signature tool,
// which this host lacks, so its failure is a system error.
TEST_F(FileCheckTest, SignatureComesLast) {
    install("noup", "1.0");
    ASSERT_TRUE(VLIBCFileSetKeyValue("/etc/zarninfo.conf", "pkg_source_trust_level", "0"));
    EXPECT_EQ(PKG_ERR_UPGRADE,
              check(build("noup", "1.3", {}, {{"scripts/start-stop-status", "#!/bin/sh\n"}})).code);
    EXPECT_EQ(Outcome(false, PKG_ERR_SYSTEM, R"(["error:error_error_system"])"),
              check(build("signed", "1.0")).outcome());
    ASSERT_TRUE(VLIBCFileSetKeyValue("/etc/zarninfo.conf", "pkg_source_trust_level", "2"));
    EXPECT_TRUE(check(build("signed", "1.0")).ok);
}

TEST_F(FileCheckTest, InstallChecksOfTheRecord) {
    PackageManager pm;
    PackageInfo info;
    ASSERT_TRUE(pm.queryPackageFileInfo(build("rec", "1.0", {{"os_min_ver", "99.0-00001"}}), info,
                                        PKG_INSTALLATION_NONE, "enu"));
    EXPECT_FALSE(pm.checkPkgInfoCanInstallEx(info, "enu"));
    EXPECT_EQ(PKG_ERR_OS_TOO_OLD, pm.getResult());
    EXPECT_EQ(0u, pm.getMapParam("hostVersion").find("6.2-25556"));
    Json::Value data;
    EXPECT_FALSE(pm.checkPkgInfoCanInstall(info, "enu"));
    EXPECT_EQ(PKG_ERR_OS_RANGE, pm.getResult(data));
    EXPECT_EQ(0u, data.asString().find("99.0-"));

    install("rec", "2.0");
    PackageManager pm2;
    PackageInfo older;
    ASSERT_TRUE(pm2.queryPackageFileInfo(build("rec", "1.5"), older, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ(2, pm2.compareWithInstallPkgInfo(older));
    EXPECT_FALSE(pm2.checkPkgInfoCanInstallEx(older, "enu"));
    EXPECT_EQ(PKG_ERR_DOWNGRADE, pm2.getResult());
    older.version = "2.0";
    EXPECT_EQ(0, pm2.compareWithInstallPkgInfo(older));
    older.version = "3.0";
    EXPECT_EQ(1, pm2.compareWithInstallPkgInfo(older));
    older.name = "notthere";
    PackageManager pm3;
    EXPECT_EQ(-1, pm3.compareWithInstallPkgInfo(older));
    EXPECT_EQ(PKG_ERR_NOT_INSTALLED, pm3.getResult());
}

}  // namespace
