#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "core/errcode.h"
#include "core/export.h"
#include "core/packageinfo.h"
#include "package/tar_reader.h"

// Reading and judging QAR files. The member functions of PackageManager that belong here
// (queryPackageFileInfo, verifyPackageTgzFile, compareWithInstallPkgInfo,
// checkPkgInfoCanInstallEx, ...) are declared in core/packagemanager.h.

namespace ZARNPackageTool {

// Limits on what is read of an untrusted archive.
constexpr unsigned long long PMS_QAR_INFO_MAX = 4ULL * 1024 * 1024;   // the INFO member
constexpr unsigned long long PMS_QAR_META_MAX = 64ULL * 1024 * 1024;  // conf/, scripts/, wizards
constexpr unsigned long long PMS_QAR_LICENSE_MAX = 0x100000;          // licence text read
constexpr size_t PMS_QAR_FOLDER_MEMBERS_MAX = 4096;  // members of conf/ and of the wizard folder

// A path as a program run from here must be given it: physical, and absolute even when the
// caller named a file relative to the working folder (tools change folders with -C).
ZARNPKG_API std::string PMSProgramPath(const std::string& path);

// The control script names of a package, in mask bit order.
ZARNPKG_API const std::vector<std::string>& PMSPackageScriptNames();

// Lists and vets the members of an untrusted QAR before anything is extracted (see
// PMSTarVetMembers); more than PMS_QAR_FOLDER_MEMBERS_MAX members under conf/ or the wizard
// folder are refused too. False with the reason logged and in `why`.
ZARNPKG_API bool PMSQarListVetted(const std::string& file, std::vector<TarMember>& members,
                                  std::string& why);

// Extracts the named members of a vetted QAR into `dir` with the machine's tar, never keeping
// owners or permissions of the archive. `names` must be present in `members`. The members and
// everything below them together must stay within `limit` bytes. Returns tar's exit status, or
// -1 when refused before running it; `command`, `out` and `err` describe the run for the log.
ZARNPKG_API int PMSQarExtract(const std::string& file, const std::vector<TarMember>& members,
                              const std::vector<std::string>& names, const std::string& dir,
                              unsigned long long limit, std::string& command, std::string& out,
                              std::string& err);

// True on a port conflict of the package's admin port.
ZARNPKG_API bool PMSCheckPackagePortConflict(const PackageInfo& info);

// The full file check for the user interface.
ZARNPKG_API bool CheckPackageFileInfoImpl(const char* lang, const char* file,
                                          std::string& displayName, PKG_ERRCODE& code,
                                          Json::Value& detail, PackageInfo& info);
ZARNPKG_API bool CheckPackageFileInfo(const char* lang, const char* file, std::string& displayName,
                                      Json::Value& message);

// Wizard files.
ZARNPKG_API bool PMReadUIFileContent(const std::string& path, Json::Value& out);
ZARNPKG_API void getUIDefaultValues(Json::Value wizard, Json::Value& out);
ZARNPKG_API bool PMSGetImageTmpPath(const char* first, const char* second, const char* third,
                                    std::string& out);

}  // namespace ZARNPackageTool
