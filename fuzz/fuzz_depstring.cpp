// The three forms of dependency lists on the same bytes: the INFO string, the server's JSON and
// the section file (conf/PKG_DEPS, conf/PKG_CONX).

#include <algorithm>
#include <set>

#include "core/depparse.h"
#include "fuzz_support.h"
#include "platform/json.h"
#include "platform/keyfile.h"

using namespace ZARNPackageTool;

namespace {

const char* const kConf = "/var/packages/fuzz/conf/PKG_DEPS";

bool KnownOperator(PKG_VERSION_COMPOP op) {
    return op == PKG_VER_ANY || op == PKG_VER_EQ || op == PKG_VER_GT || op == PKG_VER_LT ||
           op == PKG_VER_GE || op == PKG_VER_LE;
}

// Every list, whatever its source: known operators, no "Python", a JSON form that names each
// package, and a version for each constraint where the form drops empty ones.
void CheckList(const DepPkgVector& list, bool versions) {
    for (const auto& entry : list) {
        FUZZ_CHECK(KnownOperator(entry.op) && entry.name != "Python");
        FUZZ_CHECK(!versions || !entry.version.empty());
    }
    Json::Value json;
    list.toJSON(json);
    FUZZ_CHECK(list.empty() ? json.isNull() : json.isObject());
    for (const auto& entry : list) {
        FUZZ_CHECK(json.isMember(entry.name));
    }
}

// "a>=1:b:c<2": each entry is one item of the text, put back together.
void CheckString(const std::string& text) {
    DepPkgVector list;
    PMSExplodeDepPKGString(text.c_str(), list);
    CheckList(list, true);
    std::set<std::string> items;
    const std::string cut = text.c_str();
    size_t pos = 0;
    while (pos <= cut.size()) {
        const size_t end = std::min(cut.find(':', pos), cut.size());
        items.insert(cut.substr(pos, end - pos));
        pos = end + 1;
    }
    for (const auto& entry : list) {
        const std::string item = entry.op == PKG_VER_ANY
                                     ? entry.name
                                     : entry.name + PMSDepOperatorText(entry.op) + entry.version;
        FUZZ_CHECK(items.count(item) == 1);
        FUZZ_CHECK(entry.op != PKG_VER_ANY || entry.version == "0");
    }
}

// Text that is no JSON is -1 and adds nothing; JSON is 0 and names only its own members.
void CheckJson(const std::string& text) {
    DepPkgVector list;
    const int rc = PMSParseDepJSONString(text, list);
    Json::Value value;
    const bool json = Json::fromString(value, text);
    FUZZ_CHECK(rc == (text.empty() || json ? 0 : -1));
    CheckList(list, true);
    for (const auto& entry : list) {
        FUZZ_CHECK(value.isObject() && value.isMember(entry.name));
    }
}

// Sections become entries named after them, with the bounds their keys give.
void CheckSections(const std::string& text) {
    FuzzWriteFile(kConf, text);
    DepPkgVector list;
    FUZZ_CHECK(PMSLoadDepConfFile(kConf, list) == 0);
    CheckList(list, false);
    std::vector<ZARNIniSection> sections;
    ZARNIniTextParse(text, sections);
    for (const auto& entry : list) {
        const ZARNIniSection* section = nullptr;
        for (const auto& s : sections) {
            section = s.name == entry.name ? &s : section;
        }
        FUZZ_CHECK(section != nullptr);
        const char* key = entry.op == PKG_VER_GE   ? "pkg_min_ver"
                          : entry.op == PKG_VER_LE ? "pkg_max_ver"
                                                   : nullptr;
        FUZZ_CHECK(key != nullptr || entry.op == PKG_VER_ANY);
        if (key != nullptr) {
            auto it = section->values.find(key);
            FUZZ_CHECK(it != section->values.end() && it->second == entry.version);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = FuzzInput(data, size);
    CheckString(text);
    CheckJson(text);
    CheckSections(text);
    return 0;
}
