#include "pkgutils/worker.h"

#include <cstdarg>
#include <cstdio>
#include <sstream>
#include <vector>

#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/tempnames.h"

namespace ZARN {
namespace PkgUtils {

namespace {

// One JSON value a line, so that each record is a single append.
bool AppendRecord(const std::string& path, const Json::Value& record) {
    if (!ZARNFileAppend(path, Json::toCompactString(record) + "\n", 0600)) {
        ZLOGERR("Failed to append to %s (%m)", path.c_str());
        return false;
    }
    return true;
}

// The records of a file in order; a missing file holds none.
std::vector<Json::Value> ReadRecords(const std::string& path, bool& ok) {
    std::vector<Json::Value> records;
    ok = true;
    if (!IsFileExists(path)) {
        return records;
    }
    std::string text;
    if (!ZARNFileRead(path, text)) {
        ZLOGERR("Failed to read %s (%m)", path.c_str());
        ok = false;
        return records;
    }
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        Json::Value record;
        if (Json::fromString(record, line)) {
            records.push_back(record);
        }
    }
    return records;
}

}  // namespace

struct WorkerResp::Impl {
    std::string dir;  // empty when the store could not be made
    bool remove = true;
    std::string messagesPath() const { return dir + "/messages"; }
    std::string envPath() const { return dir + "/env"; }
};

WorkerResp::WorkerResp() : impl_(new Impl) {
    if (!ZARNMkdtemp("/tmp/zarnpkg-resp.XXXXXX", impl_->dir)) {
        ZLOGERR("Failed to create the store of worker responses (%m)");
        impl_->dir.clear();
    }
}

WorkerResp::~WorkerResp() {
    if (impl_->remove && !impl_->dir.empty() && !ZARNRemoveTree(impl_->dir)) {
        ZLOGERR("Failed to remove %s (%m)", impl_->dir.c_str());
    }
}

void WorkerResp::SetRemoveFlag(bool remove) {
    impl_->remove = remove;
}

void WorkerResp::SetI18NErrMsg(const std::string& key, const char* format, ...) {
    std::string params;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        va_list copy;
        va_copy(copy, args);
        const int size = vsnprintf(nullptr, 0, format, copy);
        va_end(copy);
        if (size > 0) {
            params.resize(static_cast<size_t>(size) + 1);
            vsnprintf(&params[0], params.size(), format, args);
            params.resize(static_cast<size_t>(size));
        }
        va_end(args);
    }
    if (impl_->dir.empty()) {
        ZLOGERR("No store for the message %s", key.c_str());
        return;
    }
    Json::Value record(Json::objectValue);
    record["key"] = key;
    record["params"] = params;
    AppendRecord(impl_->messagesPath(), record);
}

Json::Value WorkerResp::GetErrJsonArray() const {
    Json::Value messages(Json::arrayValue);
    bool ok = true;
    if (!impl_->dir.empty()) {
        for (const Json::Value& record : ReadRecords(impl_->messagesPath(), ok)) {
            messages.append(record);
        }
    }
    return messages;
}

void WorkerResp::SetEnv(const std::string& name, const std::string& value) {
    if (impl_->dir.empty()) {
        ZLOGERR("No store for the variable %s", name.c_str());
        return;
    }
    Json::Value record(Json::arrayValue);
    record.append(name);
    record.append(value);
    AppendRecord(impl_->envPath(), record);
}

bool WorkerResp::DumpEnv(ZARNUtils::ProcessRunner& runner) const {
    if (impl_->dir.empty()) {
        return false;
    }
    bool ok = true;
    for (const Json::Value& record : ReadRecords(impl_->envPath(), ok)) {
        if (record.isArray() && record.size() == 2 && record[0].isString() &&
            record[1].isString()) {
            runner.addEnv(record[0].asString(), record[1].asString());
        }
    }
    return ok;
}

}  // namespace PkgUtils
}  // namespace ZARN
