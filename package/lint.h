#pragma once

#include <string>
#include <vector>

#include "core/export.h"

// The package author's check: what the loader lets through but makes a package that can't be
// installed (errors), or one that installs and then misbehaves (warnings).
namespace ZARNPackageTool {

struct PMSLintReport {
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
};

// A package source folder as `zarnpkg pack` takes it; `payloadTgz` is the payload already packed
// from its package/ folder, whose modes are judged.
ZARNPKG_API void PMSLintSourceFolder(const std::string& dir, const std::string& payloadTgz,
                                     PMSLintReport& report);

// A QAR file. False when the file can't be read as a package at all (the file check says why).
ZARNPKG_API bool PMSLintPackageFile(const std::string& file, PMSLintReport& report);

// The names of the control scripts and of the conf/ files that a QAR file holds, relative to
// their folders and sorted. False when the file can't be read as a package.
ZARNPKG_API bool PMSPackageFileContents(const std::string& file, std::vector<std::string>& scripts,
                                        std::vector<std::string>& conf);

// A version that compares as its author means it: numbers separated by dots, optionally a dash
// and a number ("1.2.3-0045"). Anything else compares as zeros.
ZARNPKG_API bool PMSIsPackageVersion(const std::string& version);
// An OS version as the bounds "os_min_ver" and "os_max_ver" are read: "6", "6.2", "6.2-25556"
// or "6.2-25556-3".
ZARNPKG_API bool PMSIsOSVersionBound(const std::string& version);

}  // namespace ZARNPackageTool
