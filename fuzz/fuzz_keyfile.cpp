// The key file and section file readers, and the writers that must give back what they read.

#include <algorithm>

#include "fuzz_support.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/keyfile.h"

namespace {

const char* const kKeys = "/tmp/fuzz/keys";
const char* const kCopy = "/tmp/fuzz/copy";
const char* const kIni = "/tmp/fuzz/sections";

void CheckKeyFile(const std::string& text) {
    FuzzWriteFile(kKeys, text);
    std::map<std::string, std::string> all;
    FUZZ_CHECK(ZARNKeyFileReadAll(kKeys, all));
    std::map<std::string, std::string> parsed;
    ZARNKeyTextParse(text, "=", nullptr, parsed);
    FUZZ_CHECK(all == parsed);

    // The allocation-free scan finds what the full parse found, and tells absent keys apart.
    std::vector<std::string> wanted{"", "absent\n", "package", "version"};
    for (const auto& entry : all) {
        if (wanted.size() < 16) {
            wanted.push_back(entry.first);
        }
    }
    std::sort(wanted.begin(), wanted.end());
    wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
    std::vector<std::string_view> views;
    ZARNKeyTextParseViews(text, "=", wanted, views);
    FUZZ_CHECK(views.size() == wanted.size());
    for (size_t i = 0; i < wanted.size(); ++i) {
        auto it = all.find(wanted[i]);
        FUZZ_CHECK(it == all.end() ? views[i].data() == nullptr : views[i] == it->second);
        std::string value;
        const int rc = VLIBCFileGetKeyValue(kKeys, wanted[i], value);
        FUZZ_CHECK(rc == (it == all.end() ? 0 : 1) && (rc == 0 || value == it->second));
    }

    // Written back, the keys read as they were; keys or values that can't stand on a line are
    // refused as bad parameters.
    if (ZARNKeyFileWrite(kCopy, all)) {
        std::map<std::string, std::string> copy;
        FUZZ_CHECK(ZARNKeyFileReadAll(kCopy, copy) && copy == all);
    } else {
        FUZZ_CHECK(VLIBCErrGet() == ZARN_ERR_BAD_PARAMETERS);
    }
    // Setting one key changes that key and no other.
    if (!all.empty() && VLIBCFileSetKeyValue(kKeys, all.begin()->first, "fuzz \"set\"")) {
        std::map<std::string, std::string> after;
        FUZZ_CHECK(ZARNKeyFileReadAll(kKeys, after));
        std::map<std::string, std::string> expected = all;
        expected.begin()->second = "fuzz \"set\"";
        FUZZ_CHECK(after == expected);
    }
}

void CheckSectionFile(const std::string& text) {
    FuzzWriteFile(kIni, text);
    std::vector<ZARNIniSection> sections;
    FUZZ_CHECK(ZARNIniFileRead(kIni, sections));
    std::vector<std::string> names;
    FUZZ_CHECK(VLIBCFileEnumSection(kIni, names) && names.size() == sections.size());
    for (size_t i = 0; i < sections.size(); ++i) {
        FUZZ_CHECK(names[i] == sections[i].name);
        FUZZ_CHECK(std::count(names.begin(), names.end(), names[i]) == 1);
        std::map<std::string, std::string> values;
        FUZZ_CHECK(VLIBCFileGetSection(kIni, names[i], values) && values == sections[i].values);
    }
    if (ZARNIniFileWrite(kCopy, sections)) {
        std::vector<ZARNIniSection> copy;
        FUZZ_CHECK(ZARNIniFileRead(kCopy, copy) && copy.size() == sections.size());
        for (size_t i = 0; i < copy.size(); ++i) {
            FUZZ_CHECK(copy[i].name == sections[i].name && copy[i].values == sections[i].values);
        }
    } else {
        FUZZ_CHECK(VLIBCErrGet() == ZARN_ERR_BAD_PARAMETERS);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = FuzzInput(data, size);
    CheckKeyFile(text);
    CheckSectionFile(text);
    return 0;
}
