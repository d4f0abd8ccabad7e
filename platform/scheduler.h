#pragma once

#include <json/json.h>

#include <string>

#include "platform/export.h"

namespace ZARN {
namespace ZarnCrond {

// The host's job scheduler. Each configuration is a JSON array of jobs kept in one file of the
// root: a package's under /usr/zarn/etc/zarncron.d/<name>.json, the system's own entries (such
// as "autopkgupgrade") under /usr/zarn/etc/zarncron.d/system/<name>.json.
//
// A job is an object of non-empty strings "name", "cmd", "user" and "period"; a "period" of
// "crontab" needs a "crontab" text of five blank-separated fields, where "~" lets the scheduler
// pick the minute or hour.
class ZARNHOST_API ConfigManager {
public:
    ConfigManager(std::string const& name, bool package);

    bool Exist() const;
    // Validates the jobs (an array, or one job object) and stores them durably; false for a job
    // of bad format, with nothing written, or when the file can't be written.
    bool Save(Json::Value const& jobs);
    // Reads the stored jobs; false when there are none or they can't be read.
    bool Load(Json::Value& jobs) const;
    // Removes the configuration; one that doesn't exist is removed already.
    bool Remove();

    static bool IsValidJob(Json::Value const& job);

private:
    std::string path_;
};

}  // namespace ZarnCrond
}  // namespace ZARN
