#include <gtest/gtest.h>

#include "core/packagemanager.h"
#include "package/archive.h"
#include "package/tar_reader.h"
#include "platform/files.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;
using qartest::RawMember;

namespace {

class TarLimitsTest : public TempRootTest {
protected:
    std::string info() const { return qartest::BasicInfo("limits", "1.0"); }

    // An archive whose last member `name` is declared `size` bytes long; its data is a hole at
    // the end of the file, so nothing of that size is ever written by the test.
    std::string withLargeLast(const std::string& file, const std::string& name,
                              unsigned long long size) {
        writeFile(file, qartest::RawTar({{"INFO", info()},
                                         {name, "", '0', "", 0755, static_cast<long long>(size)}},
                                        false));
        const unsigned long long total = 1024 + 512 + (size + 511) / 512 * 512;
        EXPECT_EQ(0, qartest::Run({"/usr/bin/truncate", "-s", std::to_string(total), phys(file)}));
        return file;
    }
};

TEST_F(TarLimitsTest, MetadataLargerThanTheExtractLimitIsNeverUnpacked) {
    const unsigned long long big = PMS_QAR_META_MAX + 1;
    // conf and the scripts stop the query; the licence and the wizard are optional, so the
    // query goes on without them.
    struct Case {
        const char* member;
        const char* extracted;
        bool queryOk;
    };
    for (const Case& c :
         {Case{"conf/big", "conf", false},
          Case{"scripts/start-stop-status", "scripts/start-stop-status", false},
          Case{"LICENSE", "LICENSE", true},
          Case{"WIZARD_UIFILES/install_uifile", "WIZARD_UIFILES/install_uifile", true}}) {
        PackageManager pm;
        PackageInfo info;
        EXPECT_EQ(c.queryOk,
                  pm.queryPackageFileInfoWithWizard(withLargeLast("/tmp/big.qar", c.member, big),
                                                    info, PKG_INSTALLATION_INSTALL, "enu"))
            << c.member;
        EXPECT_TRUE(info.license.empty()) << c.member;
        const std::string line =
            "Refused to extract " + std::to_string(big) + " bytes of " + c.extracted + " from";
        EXPECT_TRUE(logged(line)) << line;
    }
}

TEST_F(TarLimitsTest, FoldersWithMoreMembersThanAnyPackageAreRefusedBeforeExtraction) {
    for (const char* folder : {"conf", "WIZARD_UIFILES"}) {
        std::vector<RawMember> members = {{"INFO", info()}};
        for (size_t i = 0; i < PMS_QAR_FOLDER_MEMBERS_MAX; ++i) {
            members.push_back({std::string(folder) + "/f" + std::to_string(i), ""});
        }
        writeFile("/tmp/many.qar", qartest::RawTar(members));
        std::vector<TarMember> listed;
        std::string why;
        EXPECT_TRUE(PMSQarListVetted("/tmp/many.qar", listed, why)) << why;
        // One more, and every reader refuses the file before tar runs.
        members.push_back({std::string(folder) + "/last", ""});
        writeFile("/tmp/many.qar", qartest::RawTar(members));
        EXPECT_FALSE(PMSQarListVetted("/tmp/many.qar", listed, why));
        EXPECT_EQ(std::to_string(PMS_QAR_FOLDER_MEMBERS_MAX + 1) + " members under " + folder +
                      "/, more than " + std::to_string(PMS_QAR_FOLDER_MEMBERS_MAX),
                  why);
        EXPECT_TRUE(logged(why));
        PackageManager pm;
        PackageInfo info;
        EXPECT_FALSE(pm.queryPackageFileInfo("/tmp/many.qar", info, PKG_INSTALLATION_NONE, "enu"));
        std::string displayName;
        Json::Value message;
        EXPECT_FALSE(CheckPackageFileInfo("enu", "/tmp/many.qar", displayName, message));
        EXPECT_EQ(PMSFileCheckMessage(PKG_ERR_BROKEN, Json::Value(), ""), message);
    }
}

TEST_F(TarLimitsTest, AHeaderWithOneByteChangedIsRefused) {
    const std::string good = qartest::RawTar({{"INFO", info()}, {"conf/x", "y"}});
    std::vector<TarMember> members;
    std::string why;
    writeFile("/tmp/t.tar", good);
    ASSERT_EQ(TarScanStatus::Ok, PMSTarScan("/tmp/t.tar", members, why)) << why;
    // A name byte of the first header, then of the second (which starts after INFO's data).
    struct Case {
        size_t offset;
        TarScanStatus expected;
    };
    for (const Case& c :
         {Case{0, TarScanStatus::NotTar}, Case{1024 + 5, TarScanStatus::BadHeader}}) {
        std::string bad = good;
        bad[c.offset] ^= 0x01;
        writeFile("/tmp/t.tar", bad);
        EXPECT_EQ(c.expected, PMSTarScan("/tmp/t.tar", members, why)) << c.offset;
        EXPECT_NE(std::string::npos, why.find("checksum")) << why;
    }
}

TEST_F(TarLimitsTest, TheMemberCapStopsTheWalk) {
    const size_t saved = PMSTarSetMaxMembers(3);
    std::vector<TarMember> members;
    std::string why;
    for (size_t count : {3, 4}) {
        std::vector<RawMember> raw;
        for (size_t i = 0; i < count; ++i) {
            raw.push_back({"m" + std::to_string(i), ""});
        }
        writeFile("/tmp/t.tar", qartest::RawTar(raw));
        EXPECT_EQ(count == 3 ? TarScanStatus::Ok : TarScanStatus::BadHeader,
                  PMSTarScan("/tmp/t.tar", members, why))
            << count;
    }
    EXPECT_EQ("too many members", why);
    EXPECT_EQ(3u, PMSTarSetMaxMembers(saved));
}

}  // namespace
