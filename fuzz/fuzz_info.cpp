// The INFO loader with every key requested. The input is the INFO file, then optionally
// conf/PKG_DEPS and conf/PKG_CONX, each after a separator line "%%".

#include "core/packageinfo.h"
#include "fuzz_support.h"
#include "platform/files.h"
#include "platform/json.h"

using namespace ZARNPackageTool;

namespace {

const std::string kDir = "/var/packages/fuzz";

// Lays down a conf file when the input has one, and takes away the last input's otherwise.
void PlaceConf(const std::string& name, const std::string& text) {
    const std::string path = kDir + "/conf/" + name;
    if (text.empty()) {
        ZARNUnlink(path);
    } else {
        FuzzWriteFile(path, text);
    }
}

// What a loaded record promises whatever the file said.
void CheckRecord(const PackageInfo& info) {
    FUZZ_CHECK(PMSCheckName(info.name.c_str(), ":/<>=|") &&
               info.name.find('\0') == std::string::npos);
    FUZZ_CHECK(!info.version.empty() && !info.maintainer.empty() && !info.description.empty());
    FUZZ_CHECK(!info.displayname.empty());
    FUZZ_CHECK(info.kosuidir.empty() || PMSCheckName(info.kosuidir.c_str(), ":/"));
    FUZZ_CHECK(info.adminport <= 65536);
    Json::Value record;
    PMSPackageInfoToJson(info, record);
    FUZZ_CHECK(record.isObject() && record["package"].asString() == info.name);
    // The record's JSON text reads back as the same text (numbers may change type on the way).
    const std::string text = Json::toCompactString(record);
    Json::Value again;
    FUZZ_CHECK(Json::fromString(again, text) && Json::toCompactString(again) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzRoot();
    const std::vector<std::string> parts = FuzzSplit(data, size, 3);
    FuzzWriteFile(kDir + "/INFO", parts[0]);
    PlaceConf("PKG_DEPS", parts[1]);
    PlaceConf("PKG_CONX", parts[2]);

    // The language only picks texts: it never decides whether the file loads, nor any other
    // field.
    PackageInfo system;
    PackageInfo french;
    const bool loaded = PMSLoadPKGInfoFile(kDir, system, nullptr, PKG_MASK_ALL);
    FUZZ_CHECK(loaded == PMSLoadPKGInfoFile(kDir, french, "fre", PKG_MASK_ALL));
    if (!loaded) {
        return 0;
    }
    CheckRecord(system);
    CheckRecord(french);
    FUZZ_CHECK(system.name == french.name && system.version == french.version &&
               system.install_dep_packages.size() == french.install_dep_packages.size() &&
               system.install_conflict_packages.size() == french.install_conflict_packages.size());
    return 0;
}
