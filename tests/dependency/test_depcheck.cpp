#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "dependency/depinternal.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/services.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

using NameSet = std::set<std::string>;

class DepCheck : public TempRootTest {
protected:
    enum State { kNoScript, kRunning, kStopped };

    // A registry entry on /volume1 with the display name "Disp <name>" and extra INFO lines.
    void addPackage(const std::string& name, const std::string& version,
                    const std::string& extraInfo = "", State state = kNoScript) {
        TempRootTest::addPackage(
            name, "version=\"" + version + "\"\ndisplayname=\"Disp " + name + "\"\n" + extraInfo);
        if (state != kNoScript) {
            addControlScript(name, state == kRunning ? 0 : 3);
        }
        if (state == kRunning) {
            markRunning(name);
        }
    }

    static DepPkgVector Deps(const char* text) {
        DepPkgVector list;
        PMSExplodeDepPKGString(text, list);
        return list;
    }

    // The names of a ", " joined list, as a set: registry order is directory order.
    static NameSet Split(const std::string& joined) {
        NameSet out;
        for (const auto& item : PMSExplodeString(joined, ",")) {
            std::string s = item;
            s.erase(0, s.find_first_not_of(' '));
            if (!s.empty()) {
                out.insert(s);
            }
        }
        return out;
    }
};

// The checks and sorts compare plain versions on a short path of their own; it must agree with
// PackageBasicInfo::compare on every form of version.
TEST_F(DepCheck, SatisfiedAgreesWithCompare) {
    const std::vector<std::string> pieces = {
        "0", "1", "2", "10", "007", ".", "-", "a", "", "999999999999999999", "1234567890123456789"};
    std::mt19937 rng(5);
    auto version = [&] {
        std::string v;
        for (int n = rng() % 6; n > 0; --n) {
            v += pieces[rng() % pieces.size()];
        }
        return v;
    };
    int plain = 0;
    for (int i = 0; i < 6000; ++i) {
        PackageBasicInfo constraint("p", version());
        const std::string installed = i % 2 ? version() : "1." + std::to_string(rng() % 12);
        if (i % 3 == 0) {
            constraint.version = "1." + std::to_string(rng() % 12) + (i % 5 ? "" : ".0");
        }
        plain += installed.find_first_not_of("0123456789.") == std::string::npos;
        for (int op = -1; op <= 7; ++op) {
            constraint.op = static_cast<PKG_VERSION_COMPOP>(op);
            EXPECT_EQ(PMSDepSatisfied("p", installed, constraint),
                      PackageBasicInfo("p", installed).compare(constraint, constraint.op))
                << "'" << installed << "' op " << op << " '" << constraint.version << "'";
        }
        EXPECT_FALSE(PMSDepSatisfied("q", installed, constraint));
    }
    EXPECT_GT(plain, 1500);
}

TEST_F(DepCheck, DepPkgsInstalledMeansSomeonePresent) {
    addPackage("a", "1.2");
    addPackage("b", "2.0");
    PackageManager pm;
    std::vector<PackageInfo> found{PackageInfo()};
    EXPECT_TRUE(pm.areDepPkgsInstalled(Deps("a>=1.2.0:b>2:c"), found, nullptr));
    EXPECT_EQ(found.size() == 1 ? found[0].name : "not one", "a");

    std::vector<std::string> shown;
    EXPECT_TRUE(pm.areDepPkgsInstalled(Deps("c:b<=2:a<1"), shown, nullptr));
    EXPECT_EQ(shown, std::vector<std::string>{"Disp b"});

    EXPECT_FALSE(pm.areDepPkgsInstalled(Deps("a<1:c:=1"), found, nullptr));
    EXPECT_TRUE(found.empty());
    EXPECT_FALSE(pm.areDepPkgsInstalled(DepPkgVector(), shown, nullptr));
    EXPECT_TRUE(shown.empty());
}

TEST_F(DepCheck, ConflictsBothWays) {
    addPackage("a", "1.0");
    addPackage("b", "2.0");
    addPackage("d", "1.0", "install_conflict_packages=\"x<2\"\n");
    addPackage("e", "1.0", "install_conflict_packages=\"x>=2\"\n");
    // The installed copy of the candidate itself is never its own conflict.
    addPackage("x", "0.5", "install_conflict_packages=\"x\"\n");
    PackageManager pm;
    std::string names = "stale";

    EXPECT_TRUE(pm.arePackagesConflict(PackageBasicInfo("x", "1.0"), Deps("a:b<3:a:zz"), Deps("b"),
                                       DepPkgVector(), names, nullptr));
    EXPECT_EQ(Split(names), (NameSet{"Disp a", "Disp d"}));

    // A conflict that is also replaced doesn't count; the short form has no such exceptions.
    EXPECT_TRUE(pm.arePackagesConflict(PackageBasicInfo("x", "3"), Deps("b"), DepPkgVector(),
                                       Deps("b>=2"), names, nullptr));
    EXPECT_EQ(Split(names), (NameSet{"Disp e"}));
    EXPECT_TRUE(pm.arePackagesConflict(PackageBasicInfo("x", "3"), Deps("b"), names, nullptr));
    EXPECT_EQ(Split(names), (NameSet{"Disp b", "Disp e"}));

    EXPECT_FALSE(pm.arePackagesConflict(PackageBasicInfo("y", "1"), Deps("b<1:q"), names, nullptr));
    EXPECT_EQ(names, "");
}

TEST_F(DepCheck, BrokenByOtherPackage) {
    addPackage("e", "1.0", "install_break_packages=\"x<=1:z\"\n");
    addPackage("f", "1.0", "install_break_packages=\"x<1\"\n");
    PackageManager pm;
    std::vector<std::string> names{"stale"};
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("x", "1.0"), &names, nullptr));
    EXPECT_EQ(names, std::vector<std::string>{"Disp e"});
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("x", "0.1"), &names, nullptr));
    EXPECT_EQ(NameSet(names.begin(), names.end()), (NameSet{"Disp e", "Disp f"}));
    EXPECT_FALSE(pm.IsBrokenByOtherPkg(PackageBasicInfo("x", "2"), &names, nullptr));
    EXPECT_TRUE(names.empty());
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("z", "9"), nullptr, nullptr));

    // Each entry that holds names its package, so a range names it twice.
    addPackage("g", "1.0", "install_break_packages=\"y>=1:y<=2:y>5\"\n");
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("y", "1.5"), &names, nullptr));
    EXPECT_EQ(names, (std::vector<std::string>{"Disp g", "Disp g"}));
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("y", "3"), &names, nullptr));
    EXPECT_EQ(names, std::vector<std::string>{"Disp g"});
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("y", "1.5"), nullptr, nullptr));

    std::map<std::string, PackageInfo> installed;
    pm.enumPackageInfoMap(installed, nullptr, PKG_MASK_ALL);
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("z", "1"), &names, installed));
    EXPECT_EQ(names, std::vector<std::string>{"Disp e"});
}

TEST_F(DepCheck, DependedMeansNoOneDepends) {
    addPackage("a", "1.0");
    addPackage("f", "1.0", "install_dep_packages=\"a>=1:q\"\n");
    addPackage("g", "1.0", "install_dep_packages=\"a\"\n");
    addPackage("h", "1.0", "install_dep_packages=\"q\"\n");
    PackageManager pm;
    std::string names;
    EXPECT_FALSE(pm.arePackagesDepended("a", nullptr, names));
    EXPECT_EQ(Split(names), (NameSet{"Disp f", "Disp g"}));
    std::vector<std::string> list;
    EXPECT_FALSE(pm.arePackagesDepended("q", nullptr, list));
    EXPECT_EQ(NameSet(list.begin(), list.end()), (NameSet{"f", "h"}));
    EXPECT_EQ(OutIf(pm.arePackagesDepended("h", nullptr, names), names), "");
    EXPECT_TRUE(pm.arePackagesDepended("h", nullptr, list));
    EXPECT_TRUE(list.empty());
}

TEST_F(DepCheck, DependentPackageStop) {
    addPackage("a", "1.0");
    addPackage("run", "1.0", "install_dep_packages=\"a\"\n", kRunning);
    addPackage("stop", "1.0", "install_dep_packages=\"a\"\n", kStopped);
    addPackage("fixed", "1.0", "install_dep_packages=\"a\"\nstartable=\"no\"\n", kStopped);
    addPackage("other", "1.0", "install_dep_packages=\"b\"\n", kRunning);
    addPackage("b", "1.0");
    addPackage("c", "1.0");
    addPackage("quiet", "1.0", "install_dep_packages=\"c\"\n", kStopped);
    PackageManager pm;
    std::string names;
    EXPECT_FALSE(pm.areDependentPackageStop("a", nullptr, names));
    EXPECT_EQ(Split(names), (NameSet{"Disp run", "Disp fixed"}));
    EXPECT_FALSE(pm.areDependentPackageStop("b", nullptr, names));
    EXPECT_EQ(names, "Disp other");
    EXPECT_EQ(OutIf(pm.areDependentPackageStop("c", nullptr, names), names), "");
}

TEST_F(DepCheck, DepPkgListStop) {
    addPackage("a", "1.0");
    addPackage("s", "1.0", "install_dep_packages=\"a\"\n");
    addPackage("n", "1.0", "install_dep_packages=\"a\"\nstartable=\"no\"\n");
    PackageManager pm;
    Json::Value out;
    EXPECT_FALSE(pm.getDepPkgListStop({"s", "n", "a", "ghost"}, "a", nullptr, out));
    const std::string onlyS = R"([{"id":"s","name":"Disp s"}])";
    EXPECT_EQ(Json::toCompactString(out), onlyS);
    EXPECT_TRUE(pm.getDepPkgListStop({"n", "a"}, "a", nullptr, out));
    EXPECT_EQ(Json::toCompactString(out), "[]");

    // By name: the running dependants only; these have no script and so count as started.
    EXPECT_FALSE(pm.getDepPkgListStop("a", nullptr, out));
    EXPECT_EQ(Json::toCompactString(out), onlyS);
    EXPECT_TRUE(pm.getDepPkgListStop("s", nullptr, out));
    EXPECT_EQ(Json::toCompactString(out), "[]");
}

TEST_F(DepCheck, InstallAndStart) {
    addPackage("a", "1.2");
    addPackage("b", "2.0");
    PackageManager pm;
    Json::Value missing;
    std::string names = "stale";
    EXPECT_TRUE(pm.arePackagesInstallAndStart(DepPkgVector(), missing, names, nullptr));
    EXPECT_EQ(
        OutIf(pm.arePackagesInstallAndStart(Deps("a>=1.2.0:b"), missing, names, nullptr), names),
        "");

    EXPECT_FALSE(pm.arePackagesInstallAndStart(Deps("a>=1.3:b:c:d<3"), missing, names, nullptr));
    EXPECT_EQ(names, "a>=1.3, c, d<3");
    Json::Value want;
    ASSERT_TRUE(Json::fromString(want, R"({"a":">=1.3","c":"","d":"<3"})"));
    EXPECT_EQ(missing, want);

    DepPkgVector range;
    range.pushDepPkg("b", "3", PKG_VER_GE);
    range.pushDepPkg("b", "1", PKG_VER_LE);
    EXPECT_FALSE(pm.arePackagesInstallAndStart(range, missing, names, nullptr));
    EXPECT_EQ(missing["b"], ">=3,<=1");

    // Thousands of bounds on one missing package, and names of odd bytes.
    DepPkgVector many;
    for (int i = 0; i < 10000; ++i) {
        many.pushDepPkg("zz", std::to_string(i), PKG_VER_GE);
    }
    many.pushDepPkg("\xff\x01", "", PKG_VER_ANY);
    EXPECT_FALSE(pm.arePackagesInstallAndStart(many, missing, names, nullptr));
    EXPECT_EQ(missing.size(), 2u);
    EXPECT_EQ(PMSExplodeString(missing["zz"].asString(), ",").size(), 10000u);
    EXPECT_TRUE(pm.arePackagesDepended("\xff\x01", nullptr, names));
}

TEST_F(DepCheck, ManyInstalledAndHostileLists) {
    // Conflict and break lists with thousands of entries against a few hundred packages.
    for (int i = 0; i < 300; ++i) {
        addPackage("p" + std::to_string(i), "1." + std::to_string(i),
                   i % 10 == 0 ? "install_break_packages=\"x\"\n" : "");
    }
    std::string conflicts;
    for (int i = 0; i < 10000; ++i) {
        conflicts += "p" + std::to_string(i % 600) + ">=1." + std::to_string(i % 7) + ":";
    }
    PackageManager pm;
    std::string names;
    EXPECT_TRUE(pm.arePackagesConflict(PackageBasicInfo("x", "1"), Deps(conflicts.c_str()), names,
                                       nullptr));
    EXPECT_EQ(Split(names).size(), 300u);
    std::vector<std::string> broken;
    EXPECT_TRUE(pm.IsBrokenByOtherPkg(PackageBasicInfo("x", "1"), &broken, nullptr));
    EXPECT_EQ(broken.size(), 30u);
    std::vector<PackageInfo> found;
    EXPECT_TRUE(pm.areDepPkgsInstalled(Deps(conflicts.c_str()), found, nullptr));
}

}  // namespace
