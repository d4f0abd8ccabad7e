#pragma once

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {

// Builds a QAR file from a package source folder (a package author's tool). `dir` holds INFO
// (without "checksum" and "extractsize", which are filled in here), package/ (the payload,
// packed into package.tgz) and optionally scripts/, conf/, WIZARD_UIFILES/, LICENSE,
// PACKAGE_ICON.PNG and PACKAGE_ICON_256.PNG. The QAR's members have no leading folder; INFO
// comes first. Nothing is written but `output` and a temp folder that is removed again.
// False with a sentence in `error` that names the faulty key or file.
ZARNPKG_API bool PMSPackPackage(const std::string& dir, const std::string& output,
                                std::string& error);

}  // namespace ZARNPackageTool
