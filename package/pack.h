#pragma once

#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {

// Builds a QAR file from a package source folder (a package author's tool). `dir` holds INFO
// (without "checksum" and "extractsize", which are filled in here), package/ (the payload,
// packed into package.tgz) and optionally scripts/, conf/, WIZARD_UIFILES/, LICENSE,
// PACKAGE_ICON.PNG and PACKAGE_ICON_256.PNG. The QAR's members have no leading folder; INFO
// comes first. Nothing is written but `output` and a temp folder that is removed again.
// False with a sentence in `error` that names the faulty key or file. Refused too: what the
// author's check (package/lint.h) calls an error, an output that is a folder or lies inside
// `dir`. The check's warnings go to `warnings` when given.
ZARNPKG_API bool PMSPackPackage(const std::string& dir, const std::string& output,
                                std::string& error, std::vector<std::string>* warnings = nullptr);

}  // namespace ZARNPackageTool
