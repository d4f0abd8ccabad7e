#pragma once

#include <json/json.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/packageinfo.h"
#include "platform/json.h"
#include "support/temproot.h"

// A root with one installed package "pkga", the test worker plug-in copied into the root, and
// helpers to declare plug-in workers and write the package's resource files. The plug-in
// records each call as a line "<call> <tag> <action type>" in /record.
class ResourceTest : public TempRootTest {
protected:
    static constexpr const char* kPlugin = "/usr/lib/zarn-test/libworker.so";
    static constexpr const char* kPkg = "pkga";

    void SetUp() override {
        TempRootTest::SetUp();
        addPackage(kPkg);
        info_.name = kPkg;
        std::ifstream in(ZARN_TEST_PLUGIN, std::ios::binary);
        std::ostringstream library;
        library << in.rdbuf();
        ASSERT_FALSE(library.str().empty()) << ZARN_TEST_PLUGIN;
        writeFile(kPlugin, library.str(), 0755);
    }

    static Json::Value decl(const std::string& id, const std::string& interval = "0x0013",
                            int major = 1, int minor = 0, const std::string& path = kPlugin) {
        Json::Value d(Json::objectValue);
        d["id"] = id;
        d["interval"] = interval;
        d["major"] = major;
        d["minor"] = minor;
        d["path"] = path;
        return d;
    }

    // Registers a provider with these declarations, after those registered before.
    void declare(const std::string& provider, const std::vector<Json::Value>& decls) {
        Json::Value workers(Json::arrayValue);
        for (const Json::Value& d : decls) {
            workers.append(d);
        }
        Json::Value file(Json::objectValue);
        file["workers"] = workers;
        writeFile("/usr/local/share/zarnpkg/" + provider, Json::toCompactString(file));
        providers_.append(provider);
        Json::Value global(Json::objectValue);
        global["providers"] = providers_;
        writeFile("/usr/local/share/zarnpkg/global", Json::toCompactString(global));
    }

    // The request of a plug-in worker: its tag and how its calls behave.
    Json::Value worker(const std::string& tag, const std::string& call = "",
                       const std::string& how = "") const {
        Json::Value w(Json::objectValue);
        w["tag"] = tag;
        w["record"] = phys("/record");
        if (!call.empty()) {
            w[call] = how;
        }
        return w;
    }

    void writeJson(const std::string& logical, const Json::Value& value) {
        writeFile(logical, Json::toCompactString(value));
    }
    static std::string confPath(const char* file) {
        return std::string("/var/packages/") + kPkg + "/conf/" + file;
    }
    void request(const Json::Value& resource) { writeJson(confPath("resource"), resource); }
    Json::Value own() const {
        Json::Value value;
        Json::fromString(value, readFile(confPath("resource.own")));
        return value;
    }
    std::string record() const { return readFile("/record"); }

    ZARNPackageTool::PackageInfo info_;

private:
    Json::Value providers_{Json::arrayValue};
};
