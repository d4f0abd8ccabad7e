#pragma once

#include "platform/export.h"

// Whether a name is one of the host's reserved hidden folder names ("@eaDir", "#recycle", ...).
ZARNHOST_API bool ZARNEAIsHiddenDir(const char* name);
