#pragma once

#include "platform/export.h"

// Whether a name is one of the host's reserved hidden folder names ("@eaDir", "#recycle", ...).
ZARNPKG_API bool ZARNEAIsHiddenDir(const char* name);
