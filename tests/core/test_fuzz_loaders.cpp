#include <gtest/gtest.h>

#include <random>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "core/version.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

const char* const kSeedInfo =
    "package=\"fuzz\"\nversion=\"1.2.3-0004\"\nmaintainer=\"m\"\ndescription=\"d\"\n"
    "displayname=\"Fuzz\"\narch=\"x86_64 armv8\"\nexclude_arch=\"noarch\"\nmodel=\"a b\"\n"
    "os_min_ver=\"6.2-25556-1\"\nos_max_ver=\"7.0-1\"\nadminport=\"8080\"\n"
    "install_dep_packages=\"a>=1:b<2:c\"\ninstall_conflict_packages=\"d=1\"\n"
    "install_break_packages=\"e\"\ninstall_dep_services=\"ssh pgsql\"\n"
    "extractsize=\"12\"\nkosuidir=\"ui\"\nreport_url=\"x\"\n";

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

// Mutated INFO files, dependency texts and limit values must come back with an answer.
TEST_F(FuzzLoaders, MutatedInputsReturn) {
    std::mt19937 rng(20261121);
    int loaded = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string info = Mutate(kSeedInfo, rng);
        writeFile("/var/packages/fuzz/INFO", info);
        writeFile("/var/packages/fuzz/conf/PKG_DEPS", i % 3 == 0 ? Mutate("[a]\npkg_min_ver=\"1\"\n"
                                                                          "kos_max_ver=\"7.0-1\"\n",
                                                                          rng)
                                                                 : "");
        PackageInfo record;
        loaded += PMSLoadPKGInfoFile("/var/packages/fuzz", record, i % 2 ? "enu" : nullptr,
                                     i % 5 ? PKG_MASK_ALL : 0x1000001ULL);
        DepPkgVector deps;
        PMSExplodeDepPKGString(info.c_str(), deps);
        PMSParseDepJSONString(info, deps);

        std::string limit = Mutate(kSeedLimits[i % 6], rng);
        std::string escaped;
        for (char c : limit) {
            if (c != '\n' && c != '\r')
                escaped += c;
        }
        writeFile(PKG_LIMIT_FILE, "fuzz=\"" + escaped + "\"\n");
        std::string bound;
        int ret = PMSThirdPartyCheckLimit(
            "fuzz", record.version.empty() ? "1.0" : record.version.c_str(), bound);
        EXPECT_GE(ret, -4);
        EXPECT_LE(ret, 0);
        PackageBasicInfo a("x", Mutate("1.2-3", rng));
        PackageBasicInfo b("x", Mutate("1.2.0", rng));
        a.compare(b, static_cast<PKG_VERSION_COMPOP>(i % 6));
    }
    // Some mutations leave the file loadable; the count only shows that both roads were taken.
    EXPECT_GT(loaded, 0);
    EXPECT_LT(loaded, 3000);
}
