#include "platform/json.h"

#include <memory>
#include <sstream>

#include "platform/errors.h"
#include "platform/files.h"

namespace Json {

bool fromString(Value& value, const std::string& text, std::string* error) {
    value = Value();
    CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = false;
    builder["stackLimit"] = 1000;
    std::unique_ptr<CharReader> reader(builder.newCharReader());
    std::string errors;
    bool ok = false;
    try {
        ok = reader->parse(text.data(), text.data() + text.size(), &value, &errors);
    } catch (const std::exception& e) {
        errors = e.what();
        ok = false;
    }
    if (!ok) {
        value = Value();
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        if (error != nullptr) {
            *error = errors.empty() ? "invalid JSON" : errors;
        }
        return false;
    }
    return true;
}

bool fromFile(Value& value, const std::string& path) {
    std::string text;
    if (!ZARNFileRead(path, text)) {
        value = Value();
        return false;
    }
    return fromString(value, text);
}

bool toFile(const Value& value, const std::string& path) {
    StreamWriterBuilder builder;
    builder["indentation"] = "\t";
    builder["emitUTF8"] = true;
    std::string text = writeString(builder, value);
    text.push_back('\n');
    return ZARNFileWriteDurable(path, text);
}

std::string toCompactString(const Value& value) {
    StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    // A comment kept by a reader would run to the end of the one line and swallow the rest.
    builder["commentStyle"] = "None";
    return writeString(builder, value);
}

}  // namespace Json
