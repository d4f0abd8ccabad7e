#include <gtest/gtest.h>

#include "platform/files.h"
#include "platform/json.h"
#include "support/temproot.h"

class JsonTest : public TempRootTest {};

TEST_F(JsonTest, ParseStrictly) {
    Json::Value value;
    std::string error;
    ASSERT_TRUE(Json::fromString(value, "{\"a\": 1, \"b\": [true, null]}\n", &error)) << error;
    EXPECT_EQ(value["a"].asInt(), 1);
    EXPECT_TRUE(value["b"][0].asBool());
    ASSERT_TRUE(Json::fromString(value, "\"text\""));
    EXPECT_EQ(value.asString(), "text");

    for (const std::string garbage :
         {"", "   ", "{\"a\": 1} trailing", "{\"a\": }", "nul", "{\"a\": 1", "[1, 2]]"}) {
        value = Json::Value("stale");
        error.clear();
        EXPECT_FALSE(Json::fromString(value, garbage, &error)) << garbage;
        EXPECT_TRUE(value.isNull()) << garbage;
        EXPECT_FALSE(error.empty()) << garbage;
    }
    // Deep nesting from a hostile server fails instead of exhausting the stack.
    EXPECT_FALSE(Json::fromString(value, std::string(200000, '[') + std::string(200000, ']')));
    EXPECT_FALSE(Json::fromString(value, std::string("{\"a\":\0}", 7)));
}

TEST_F(JsonTest, FilesAndCompactText) {
    Json::Value value(Json::objectValue);
    value["name"] = "démo";
    value["list"].append(1);
    value["list"].append("two");
    value["flag"] = false;
    ASSERT_TRUE(Json::toFile(value, "/etc/zarnhost/services.json"));
    EXPECT_NE(readFile("/etc/zarnhost/services.json").find("démo\""), std::string::npos);

    Json::Value back;
    ASSERT_TRUE(Json::fromFile(back, "/etc/zarnhost/services.json"));
    EXPECT_EQ(back, value);
    EXPECT_EQ(Json::toCompactString(back),
              "{\"flag\":false,\"list\":[1,\"two\"],\"name\":\"démo\"}");

    back = Json::Value(3);
    EXPECT_FALSE(Json::fromFile(back, "/etc/zarnhost/none.json"));
    EXPECT_TRUE(back.isNull());
    writeFile("/etc/zarnhost/bad.json", "{oops");
    EXPECT_FALSE(Json::fromFile(back, "/etc/zarnhost/bad.json"));
    EXPECT_FALSE(Json::toFile(value, "/no/such/dir/file.json"));
}
