#pragma once

#include <string>

#include "platform/export.h"

// Opens a shared object by its logical path (mapped into the system root) with dlopen(3);
// null with the loader's message in `error` on failure.
ZARNHOST_API void* ZARNDlopen(const std::string& path, int flags, std::string& error);
