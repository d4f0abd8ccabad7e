#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"

// The only access to conf/resource, conf/resource.own and the plug-in metadata files. A missing
// file is reported as error 0x700, which most callers take as "empty".
namespace ZARNPackageTool {
namespace Resource {

// The conf folder (mode 0755) of an installed package, or under `prefix` when it is not empty.
ZARNPKG_API bool CreateFolder(const std::string& name, const std::string& prefix);
ZARNPKG_API bool ReadJsonFile(const std::string& path, Json::Value& out);
// Writes, sets mode 0600 and flushes; only a failed write fails the call.
ZARNPKG_API bool WriteJsonFile(const std::string& path, Json::Value& value);
// The member `type` of conf/resource (resp. conf/resource.own) of an installed package; false
// with error 0x2000 when the file has no such member.
ZARNPKG_API bool GetRequestObject(const std::string& name, const std::string& type,
                                  Json::Value& out);
ZARNPKG_API bool GetOwnObject(const std::string& name, const std::string& type, Json::Value& out);
ZARNPKG_API bool ReplaceOwnObject(const std::string& name, const std::string& type,
                                  const Json::Value& value);
// Carries conf/resource.own across an upgrade, within one process.
ZARNPKG_API bool BackupResourceFile(const std::string& name);
ZARNPKG_API bool RestoreResourceFile(const std::string& name, const std::string& prefix);

// The step that re-creates a package's jobs from its "service-cfg" request and fills `own`.
typedef bool (*ServiceCfgStep)(const std::string& name, const Json::Value& request,
                               Json::Value& own, bool flag);
// Re-applies the "service-cfg" request of an installed package through `step` and records
// what it did in the own file.
ZARNPKG_API bool RestoreServiceCfgWith(const std::string& name, ServiceCfgStep step);

// The paths of the two files, for an installed package or under a prefix.
ZARNPKG_API std::string ResourcePath(const std::string& name, const std::string& prefix);
ZARNPKG_API std::string OwnPath(const std::string& name, const std::string& prefix);

}  // namespace Resource
}  // namespace ZARNPackageTool
