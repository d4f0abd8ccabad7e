// JSON from packages and servers: the parser, the record a server's entry becomes, and the
// substitution of "{{key}}" markers that resource and privilege files go through.

#include "core/packageinfo.h"
#include "fuzz_support.h"
#include "platform/json.h"
#include "privilege/privilege.h"

using namespace ZARNPackageTool;

namespace {

// After substitution no marker is left anywhere, and no null inside a list or object.
bool Substituted(const Json::Value& node) {
    if (node.isString()) {
        const std::string text = node.asString();
        return text.find("{{") == std::string::npos && text.find("}}") == std::string::npos;
    }
    if (node.isObject() || node.isArray()) {
        for (const auto& child : node) {
            if (child.isNull() || !Substituted(child)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = FuzzInput(data, size);
    Json::Value value;
    std::string error;
    if (!Json::fromString(value, text, &error)) {
        FUZZ_CHECK(value.isNull() && !error.empty());
        return 0;
    }
    // What the library writes, it reads back as the same value.
    const std::string compact = Json::toCompactString(value);
    Json::Value again;
    FUZZ_CHECK(Json::fromString(again, compact) && again == value);
    FUZZ_CHECK(Json::toCompactString(again) == compact);

    PackageInfo info;
    FUZZ_CHECK(PMSMapJsonToPackageInfo(value, info) == value.isObject());

    Json::Value target = value;
    FUZZ_CHECK(Util::ReplaceVariables(value, target) == value.isObject());
    if (value.isObject()) {
        FUZZ_CHECK(Substituted(target));
    }
    return 0;
}
