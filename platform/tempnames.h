#pragma once

#include <string>

#include "platform/export.h"
#include "platform/fd.h"

// Unique names in a folder (logical paths). The template ends in "XXXXXX" as for mkstemp(3).

// Creates the file (mode 0600) and returns its open descriptor (close-on-exec) with the logical
// path in `out`; invalid with errno on failure.
ZARNHOST_API Fd ZARNMkstemp(const std::string& logicalTemplate, std::string& out);
// Creates the folder (mode 0700); false with errno on failure.
ZARNHOST_API bool ZARNMkdtemp(const std::string& logicalTemplate, std::string& out);
