#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "core/packagemanager.h"
#include "core/version.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

const char* const kSeedLimits[] = {
    "1.5", "[\"1.0\",\"2.0\"]", "[[\"1.0\"],[\"2.0\",\"3.0\"]]", "system", "non", "[[],[\"1\"]]"};

std::string Mutate(std::string text, std::mt19937& rng) {
    static const std::string alphabet = std::string("\"=\r\n\0:<>-.[]{},#\xff\xfe", 19) + "a1 ";
    std::uniform_int_distribution<int> kind(0, 5);
    int edits = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < edits; ++i) {
        size_t pos = text.empty() ? 0 : rng() % text.size();
        char c = alphabet[rng() % alphabet.size()];
        switch (kind(rng)) {
            case 0:
                if (!text.empty())
                    text[pos] = c;
                break;
            case 1:
                text.insert(pos, 1, c);
                break;
            case 2:
                if (!text.empty())
                    text.erase(pos, 1 + rng() % 16);
                break;
            case 3:
                text.insert(pos, text.substr(rng() % (text.size() + 1), 1 + rng() % 64));
                break;
            case 4:
                text.insert(pos, std::string(rng() % 4096, c));
                break;
            default:
                text.resize(pos);
                break;
        }
    }
    return text;
}

class FuzzLoaders : public TempRootTest {};

}  // namespace

// Mutated limit values and version texts must come back with an answer. (INFO files and
// dependency texts are mutated by the fuzz targets, whose kept inputs run with the tests.)
TEST_F(FuzzLoaders, MutatedInputsReturn) {
    std::mt19937 rng(20261121);
    for (int i = 0; i < 3000; ++i) {
        std::string limit = Mutate(kSeedLimits[i % 6], rng);
        limit.erase(std::remove_if(limit.begin(), limit.end(),
                                   [](char c) { return c == '\n' || c == '\r'; }),
                    limit.end());
        writeFile(PKG_LIMIT_FILE, "fuzz=\"" + limit + "\"\n");
        std::string bound;
        const int ret = PMSThirdPartyCheckLimit("fuzz", i % 2 ? "1.0" : "2.0-0001", bound);
        EXPECT_GE(ret, -4);
        EXPECT_LE(ret, 0);
        PackageBasicInfo a("x", Mutate("1.2-3", rng));
        PackageBasicInfo b("x", Mutate("1.2.0", rng));
        a.compare(b, static_cast<PKG_VERSION_COMPOP>(i % 6));
    }
}
