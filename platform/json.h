#pragma once

#include <json/json.h>

#include <string>

#include "platform/export.h"

// Free-function forms of the three JsonCpp members the system's build adds.
namespace Json {

// Parses text into `value`; false (value null) when the text is no JSON.
ZARNHOST_API bool fromString(Value& value, const std::string& text, std::string* error = nullptr);
// Reads a JSON file by logical path.
ZARNHOST_API bool fromFile(Value& value, const std::string& path);
// Writes a value to a file by logical path, durably (temporary file and rename).
ZARNHOST_API bool toFile(const Value& value, const std::string& path);
// Compact text of a value, without the trailing newline.
ZARNHOST_API std::string toCompactString(const Value& value);

}  // namespace Json
