#include <gtest/gtest.h>

#include <algorithm>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "support/temproot.h"

namespace {

using Map = std::map<std::string, std::string>;

// "name:key=value,...; " for each section.
std::string Text(const std::vector<ZARNIniSection>& sections) {
    std::string text;
    for (const auto& section : sections) {
        text += section.name + ":";
        for (const auto& [key, value] : section.values) {
            text += (text.back() == ':' ? "" : ",") + key + "=" + value;
        }
        text += "; ";
    }
    return text;
}

Map ParseAll(const std::string& text, const char* sep = "=") {
    Map out;
    ZARNKeyTextParse(text, sep, nullptr, out);
    return out;
}

}  // namespace

class KeyFileTest : public TempRootTest {};

TEST_F(KeyFileTest, QuotingBlanksAndLineEnds) {
    auto values = ParseAll(
        "package=\"demo\"\r\n"
        "  version = \"1.0-0001\"  \r\n"
        "plain = some text \t\n"
        "quoted=\"a b\" trailing words\n"
        "empty=\"\"\n"
        "bare=\n"
        "url=\"http://x/?a=b\"\n"
        "inner=a\"b\"\n"
        "last=\"no newline\"");
    EXPECT_EQ(values, (Map{{"package", "demo"},
                           {"version", "1.0-0001"},
                           {"plain", "some text"},
                           {"quoted", "a b"},
                           {"empty", ""},
                           {"bare", ""},
                           {"url", "http://x/?a=b"},
                           {"inner", "a\"b\""},
                           {"last", "no newline"}}));
    EXPECT_EQ(ParseAll("json=\"{\"a\": \"b\"}\" \r\n")["json"], "{\"a\": \"b\"}");
}

TEST_F(KeyFileTest, HostileText) {
    // Unterminated quotes run to the end of their line only.
    EXPECT_EQ(ParseAll("a=\"open\nb=\"next\"\nc=\"open at end"),
              (Map{{"a", "open"}, {"b", "next"}, {"c", "open at end"}}));

    // NUL bytes are ordinary bytes.
    const char raw[] = "k1=\"a\0b\"\nk\0ey=v\0\nk2=after\n";
    const std::string withNul(raw, sizeof(raw) - 1);
    EXPECT_EQ(ParseAll(withNul), (Map{{"k1", std::string("a\0b", 3)},
                                      {std::string("k\0ey", 4), std::string("v\0", 2)},
                                      {"k2", "after"}}));

    // Megabyte lines, then more keys.
    EXPECT_EQ(ParseAll(std::string(1 << 20, '"') + "\nz=1\n" + std::string(1 << 20, '=')),
              (Map{{"z", "1"}}));

    // Bytes that are not UTF-8, lone quotes, lines of separators only, bare carriage returns.
    EXPECT_EQ(ParseAll("\xff\xfe=\x80\x81\n\"\n=\n==\n\r\r=\r\n\r\n=value\n \t \nkey\n"),
              (Map{{"\xff\xfe", "\x80\x81"}, {"\r\r", ""}}));
}

TEST_F(KeyFileTest, CommentsDuplicatesAndSeparators) {
    EXPECT_EQ(ParseAll("#a=1\n   # b=2\nc=3 # not a comment\nc=4\nd:5\n"),
              (Map{{"c", "3 # not a comment"}}));
    EXPECT_EQ(ParseAll("d: 5\ne : \"six\"\nf=7\n", ":"), (Map{{"d", "5"}, {"e", "six"}}));

    // The text replaces what the map held before.
    std::map<std::string, std::string> prefilled{{"c", "old"}, {"keep", "yes"}};
    ZARNKeyTextParse("c=new\nc=newer\n", "=", nullptr, prefilled);
    EXPECT_EQ(prefilled, (Map{{"c", "new"}, {"keep", "yes"}}));
}

// Only the wanted keys, first value, whether or not the list is sorted.
TEST_F(KeyFileTest, WantedKeysOnly) {
    const std::string text = "a=1\nb=2\nc=3\nb=dup\nzz=9\n";
    const std::pair<std::vector<std::string>, Map> cases[] = {
        {{"b", "c", "missing"}, {{"b", "2"}, {"c", "3"}}},
        {{"zz", "b", "a"}, {{"a", "1"}, {"b", "2"}, {"zz", "9"}}},
        {{}, {}}};
    for (const auto& [wanted, expected] : cases) {
        Map out;
        ZARNKeyTextParse(text, "=", &wanted, out);
        EXPECT_EQ(out, expected) << wanted.size();
    }
}

TEST_F(KeyFileTest, IniSections) {
    std::vector<ZARNIniSection> sections;
    ZARNIniTextParse(
        "orphan=1\n"
        "[first]\r\n"
        "dsm_min_ver=\"6.0\"\r\n"
        "# comment=1\n"
        "[ second ]\n"
        "pkg_min_ver = 2\n"
        "[broken\n"
        "third=3\n"
        "[first]\n"
        "dsm_min_ver=9\n"
        "extra=1\n"
        "[]\n",
        sections);
    // A header without its bracket is no header: its line is skipped, its keys stay put.
    EXPECT_EQ(Text(sections), "first:dsm_min_ver=6.0; second:pkg_min_ver=2,third=3; :; ");

    std::string many;
    for (int i = 0; i < 100000; ++i) {
        many += "[same]\nk=" + std::to_string(i) + "\n";
    }
    ZARNIniTextParse(many, sections);
    EXPECT_EQ(Text(sections), "same:k=0; ");
}

TEST_F(KeyFileTest, FileReaders) {
    writeFile("/var/packages/demo/INFO", "package=\"demo\"\nversion=\"1.0\"\nmaintainer=\"Me\"\n");
    std::map<std::string, std::string> out;
    EXPECT_TRUE(VLIBCFileGetKeys("/var/packages/demo/INFO", {"package", "version"}, out));
    EXPECT_EQ(out, (Map{{"package", "demo"}, {"version", "1.0"}}));

    std::string value;
    EXPECT_EQ(VLIBCFileGetKeyValue("/var/packages/demo/INFO", "package", value, 2), 1);
    EXPECT_EQ(value, "de");
    EXPECT_EQ(VLIBCFileGetKeyValue("/var/packages/demo/INFO", "nothing", value), 0);
    EXPECT_EQ(VLIBCFileGetKeyValue("/var/packages/none/INFO", "package", value), -1);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_NO_FILE);
    EXPECT_FALSE(VLIBCFileGetKeys("/var/packages/none/INFO", {"package"}, out));
    EXPECT_FALSE(ZARNKeyFileReadAll("/var/packages/none/INFO", out));
}

TEST_F(KeyFileTest, SetKeyValueKeepsOtherLines) {
    const std::string path = "/etc/zarninfo.conf";
    writeFile(path, "# settings\r\nlanguage=\"enu\"\r\ntimezone=\"UTC\"\r\nlanguage=\"dup\"\r\n");
    ASSERT_TRUE(ZARNChmod(path, 0640));
    EXPECT_TRUE(VLIBCFileSetKeyValue(path, "language", "fre"));
    EXPECT_TRUE(VLIBCFileSetKeyValue(path, "pkg_def_intall_vol", "/volume1"));
    EXPECT_EQ(readFile(path),
              "# settings\r\nlanguage=\"fre\"\r\ntimezone=\"UTC\"\r\nlanguage=\"dup\"\r\n"
              "pkg_def_intall_vol=\"/volume1\"\n");
    EXPECT_EQ(modeOf(path), 0640u);

    EXPECT_TRUE(VLIBCFileSetKeyValue("/etc/new.conf", "a", "1"));
    EXPECT_EQ(readFile("/etc/new.conf"), "a=\"1\"\n");
    writeFile("/etc/nonl.conf", "a=1");
    EXPECT_TRUE(VLIBCFileSetKeyValue("/etc/nonl.conf", "b", "2"));
    EXPECT_EQ(readFile("/etc/nonl.conf"), "a=1\nb=\"2\"\n");

    EXPECT_FALSE(VLIBCFileSetKeyValue(path, "bad", "two\nlines"));
    EXPECT_FALSE(VLIBCFileSetKeyValue(path, "a=b", "x"));
    EXPECT_EQ(FailedWith(VLIBCFileSetKeyValue(path, "", "x")), ZARN_ERR_BAD_PARAMETERS);
    EXPECT_FALSE(VLIBCFileSetKeyValue("/no/such/dir/file", "a", "1"));

    // Replacement goes by rename: no temporary file stays behind.
    std::vector<ZARNDirEntry> entries;
    ASSERT_TRUE(ZARNListDir("/etc", entries));
    for (const auto& entry : entries) {
        EXPECT_NE(entry.name[0], '.') << entry.name;
    }
}

TEST_F(KeyFileTest, WritersRoundTrip) {
    const std::map<std::string, std::string> values{
        {"package", "demo"}, {"description", "a = b, \"c\" 'd'"}, {"empty", ""}};
    ASSERT_TRUE(ZARNKeyFileWrite("/var/packages/INFO.test", values));
    std::map<std::string, std::string> back;
    ASSERT_TRUE(ZARNKeyFileReadAll("/var/packages/INFO.test", back));
    // A quoted value runs to the last quote of its line, so quotes inside it survive.
    EXPECT_EQ(back, values);
    EXPECT_FALSE(ZARNKeyFileWrite("/var/packages/INFO.bad", {{"k", "a\nb"}}));
    EXPECT_FALSE(ZARNPathExists("/var/packages/INFO.bad"));

    const std::vector<ZARNIniSection> sections{
        {"pkgA", {{"dsm_min_ver", "6.0-1000"}, {"pkg_min_ver", "1.0"}}},
        {"pkgB", {}},
        {"pkgC", {{"pkg_max_ver", "2.0"}}}};
    ASSERT_TRUE(ZARNIniFileWrite("/var/packages/PKG_DEPS", sections));
    std::vector<ZARNIniSection> read;
    ASSERT_TRUE(ZARNIniFileRead("/var/packages/PKG_DEPS", read));
    EXPECT_EQ(Text(read), Text(sections));
    std::vector<std::string> names;
    ASSERT_TRUE(VLIBCFileEnumSection("/var/packages/PKG_DEPS", names));
    EXPECT_EQ(names, (std::vector<std::string>{"pkgA", "pkgB", "pkgC"}));
    std::map<std::string, std::string> section;
    EXPECT_TRUE(VLIBCFileGetSection("/var/packages/PKG_DEPS", "pkgC", section));
    EXPECT_EQ(section.at("pkg_max_ver"), "2.0");
    EXPECT_FALSE(VLIBCFileGetSection("/var/packages/PKG_DEPS", "pkgD", section));
    EXPECT_FALSE(VLIBCFileGetSection("/var/packages/NONE", "pkgA", section));
    EXPECT_FALSE(ZARNIniFileWrite("/var/packages/PKG_BAD", {{"a]b", {}}}));
}
