#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/json.h"
#include "platform/volumes.h"
#include "support/temproot.h"

namespace {

std::vector<int> Ids(const std::vector<ZARNMountVolInfo>& volumes) {
    std::vector<int> ids;
    for (const auto& volume : volumes) {
        ids.push_back(volume.id);
    }
    return ids;
}

}  // namespace

class VolumesTest : public TempRootTest {
protected:
    void writeConf(const std::string& json) { writeFile(ZARN_VOLUMES_CONF, json); }
};

TEST_F(VolumesTest, HostInitMakesOneGenericVolume) {
    EXPECT_TRUE(ZARNIsDir("/volume1"));
    Json::Value conf;
    ASSERT_TRUE(Json::fromFile(conf, ZARN_VOLUMES_CONF));
    EXPECT_EQ(Json::toCompactString(conf),
              R"({"dock_host":false,"space_caps":{},"volumes":[{"crashed":false,"created":true,)"
              R"("generic":true,"path":"/volume1","writable":true}]})");

    // More volumes are added beside the entries already there, which keep what they say.
    conf["volumes"][0]["writable"] = false;
    ASSERT_TRUE(Json::toFile(conf, ZARN_VOLUMES_CONF));
    std::string error;
    ASSERT_TRUE(ZARNHostVolumesInit(3, error)) << error;
    EXPECT_TRUE(ZARNIsDir("/volume2"));
    EXPECT_TRUE(ZARNIsDir("/volume3"));
    // Each volume has a temporary folder that every account can reach.
    EXPECT_EQ(modeOf("/volume3/@tmp"), 01777u);
    ASSERT_TRUE(Json::fromFile(conf, ZARN_VOLUMES_CONF));
    ASSERT_EQ(conf["volumes"].size(), 3u);
    EXPECT_FALSE(conf["volumes"][0]["writable"].asBool());
    EXPECT_EQ(conf["volumes"][2]["path"].asString(), "/volume3");

    // Running host-init again keeps the file as it is.
    const std::string before = readFile(ZARN_VOLUMES_CONF);
    ASSERT_TRUE(ZARNHostInit(error)) << error;
    EXPECT_EQ(readFile(ZARN_VOLUMES_CONF), before);
}

TEST_F(VolumesTest, EnumerationFollowsFoldersAndConf) {
    makeDir("/volume2");
    makeDir("/volume10");
    makeDir("/volume0");
    makeDir("/volumeX");
    makeDir("/volume02");
    writeFile("/volume3", "not a folder");
    writeConf(R"({"volumes": [{"path": "/volume2", "generic": false},
                              {"path": "/volume10", "created": false}]})");

    std::vector<ZARNMountVolInfo> all;
    EXPECT_EQ(ZARNMountVolAllEnum(0, ZARN_VOL_KIND_INTERNAL | ZARN_VOL_KIND_EXTERNAL,
                                  ZARN_VOL_ENUM_ALL, all),
              3);
    EXPECT_EQ(Ids(all), (std::vector<int>{1, 2, 10}));
    EXPECT_EQ(all[0].path, "/volume1");
    EXPECT_FALSE(all[1].generic);
    EXPECT_FALSE(all[2].created);

    std::vector<ZARNMountVolInfo> generic;
    EXPECT_EQ(ZARNMountVolAllEnum(0, 3, 0, generic), 1);
    EXPECT_EQ(Ids(generic), (std::vector<int>{1}));

    EXPECT_EQ(ZARNMountVolAllEnum(0, ZARN_VOL_KIND_EXTERNAL, ZARN_VOL_ENUM_ALL, generic), 0);
    EXPECT_TRUE(generic.empty());
}

TEST_F(VolumesTest, MountInfoAndAttributes) {
    makeDir("/volume2");
    writeConf(R"({"volumes": [{"path": "/volume1", "space_cap": 123456},
                              {"path": "/volume2", "crashed": true, "generic": false}]})");

    ZARNMountVolInfo info;
    ASSERT_EQ(ZARNMountVolInfoGet("/volume1/@appstore/demo", &info), 0);
    EXPECT_EQ(info.id, 1);
    EXPECT_EQ(info.path, "/volume1");
    EXPECT_TRUE(info.writable && info.created);
    EXPECT_EQ(info.freeBytes, 123456u);
    EXPECT_LE(info.totalBytes, 123456u);

    ASSERT_EQ(ZARNMountVolInfoGet("/volume2", &info), 0);
    EXPECT_FALSE(info.writable);  // crashed volumes are read-only
    EXPECT_TRUE(info.crashed);

    EXPECT_EQ(ZARNMountVolInfoGet("/tmp", &info), -1);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_BAD_PARAMETERS);
    EXPECT_EQ(ZARNMountVolInfoGet("/volume9", &info), -1);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_VOL_UNKNOWN);
    EXPECT_EQ(ZARNMountVolInfoGet(nullptr, &info), -1);

    unsigned int attr = 0;
    ASSERT_EQ(ZARNVolumeAttributeGet("/volume1", &attr), 0);
    EXPECT_EQ(attr, ZARN_VOL_ATTR_GENERIC | ZARN_VOL_ATTR_WRITABLE | ZARN_VOL_ATTR_CREATED);
    ASSERT_EQ(ZARNVolumeAttributeGet("/volume2/x", &attr), 0);
    EXPECT_EQ(attr, ZARN_VOL_ATTR_CREATED | ZARN_VOL_ATTR_CRASHED);
    EXPECT_EQ(ZARNVolumeAttributeGet("/volume7", &attr), -1);
    EXPECT_EQ(ZARNVolumeAttributeGet("/volume1", nullptr), -1);

    writeConf("not json");
    EXPECT_FALSE(VLIBCIsDockHost());
    // A broken file leaves every volume with its defaults.
    ASSERT_EQ(ZARNMountVolInfoGet("/volume2", &info), 0);
    EXPECT_TRUE(info.writable);
}

// The file is edited by hand: values of the wrong type keep their defaults and throw nothing.
TEST_F(VolumesTest, ConfOfWrongTypesKeepsDefaults) {
    makeDir("/volume2");
    writeConf(R"({"dock_host": "yes",
                  "volumes": [{"path": "/volume1", "writable": "no", "crashed": [1],
                               "generic": {"a": 1}, "space_cap": 1e300},
                              {"path": ["/volume2"]}, "junk", 7],
                  "space_caps": {"/volume2": -5}})");
    EXPECT_FALSE(VLIBCIsDockHost());
    ZARNMountVolInfo info;
    ASSERT_EQ(ZARNMountVolInfoGet("/volume1", &info), 0);
    EXPECT_TRUE(info.writable);
    EXPECT_FALSE(info.crashed);
    unsigned int attr = 0;
    ASSERT_EQ(ZARNVolumeAttributeGet("/volume1", &attr), 0);
    EXPECT_EQ(attr, ZARN_VOL_ATTR_GENERIC | ZARN_VOL_ATTR_WRITABLE | ZARN_VOL_ATTR_CREATED);
    ASSERT_EQ(ZARNVolumeAttributeGet("/volume2", &attr), 0);
    EXPECT_EQ(attr, ZARN_VOL_ATTR_GENERIC | ZARN_VOL_ATTR_WRITABLE | ZARN_VOL_ATTR_CREATED);

    // host-init completes such a file without tripping over the entry whose path is no text,
    // and a failure to do so is logged.
    std::string error;
    ASSERT_TRUE(ZARNHostVolumesInit(2, error)) << error;
    Json::Value conf;
    ASSERT_TRUE(Json::fromFile(conf, ZARN_VOLUMES_CONF));
    bool listed = false;
    for (const auto& entry : conf["volumes"]) {
        listed = listed || (entry.isObject() && entry["path"] == Json::Value("/volume2"));
    }
    EXPECT_TRUE(listed);
    EXPECT_FALSE(ZARNHostVolumesInit(0, error));
    EXPECT_TRUE(logged("Failed to prepare the volumes of the host: " + error)) << logText();
}

TEST_F(VolumesTest, PathParsing) {
    // The result code and what was left in the output ("kept" when untouched).
    auto parse = [](const char* path, bool ex) {
        std::string out = "kept";
        const int rc = ex ? VolumePathParseEx(path, out) : VolumePathParse(path, out);
        return std::to_string(rc) + " " + out;
    };
    auto shareTmp = [](const char* path, size_t size) {
        char buf[64] = "kept";
        return std::to_string(ZARNShareTmpPathGet(path, buf, size)) + " " + buf;
    };
    EXPECT_EQ(parse("/volume3/a/b", false), "0 /volume3");
    EXPECT_EQ(parse("/volume12", false), "0 /volume12");
    for (const char* bad : {"/volume", "/volume1x", "/volume01", "/volume0", "volume1",
                            "/tmp/volume1", "/usr/local/packages/a", "", (const char*)nullptr}) {
        EXPECT_EQ(parse(bad, false), "-1 kept") << (bad ? bad : "null");
    }

    // The extended form (which follows links, as a package's target shows) wants an existing
    // volume.
    makeDir("/volume2");
    EXPECT_EQ(parse("/volume5/@appstore", true), "-1 kept");
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_VOL_UNKNOWN);
    EXPECT_EQ(parse("relative/path", true), "-1 kept");

    EXPECT_EQ(shareTmp("/volume2", 64), "0 /volume2/@tmp");
    EXPECT_EQ(shareTmp("/volume2/@appstore", 64), "0 /volume2/@tmp");
    EXPECT_EQ(shareTmp("/volume2", 8).substr(0, 3), "-1 ");
    EXPECT_EQ(shareTmp("/tmp", 64).substr(0, 3), "-1 ");
}

TEST_F(VolumesTest, FileSystemInfoOfVolumesOnly) {
    makeDir("/volume2");
    writeConf(R"({"volumes": [{"path": "/volume2", "space_cap": 777}]})");
    ZARNFSInfo info;
    EXPECT_EQ(FSInfoGet("/volume2", &info), 1);
    EXPECT_EQ(info.freeBytes, 777u);
    EXPECT_EQ(FSInfoGet("/volume4", &info), 0);
    EXPECT_EQ(FSInfoGet("/tmp", &info), -1);
    EXPECT_EQ(FSInfoGet(nullptr, &info), -1);
}

TEST_F(VolumesTest, StatfsAppliesTheLongestCap) {
    writeConf(R"({"space_caps": {"/": 5000, "/tmp": 3000},
                  "volumes": [{"path": "/volume1", "space_cap": 4000}]})");
    makeDir("/tmpx");
    ZARNStatfsInfo st;
    // "/tmpx" is not inside "/tmp".
    for (const auto& [path, avail] : {std::pair<const char*, unsigned long long>{"/tmp/lock", 3000},
                                      {"/var", 5000},
                                      {"/volume1", 4000},
                                      {"/tmpx", 5000}}) {
        ASSERT_TRUE(ZARNStatfs(path, st)) << path;
        EXPECT_EQ(st.blockSize * st.availBlocks, avail) << path;
    }
    ASSERT_TRUE(ZARNStatfs("/var", st));
    EXPECT_EQ(st.blockSize * st.freeBlocks, 5000u);
    EXPECT_FALSE(ZARNStatfs("/no/such/place", st));
    EXPECT_FALSE(ZARNStatfs("relative", st));
}
