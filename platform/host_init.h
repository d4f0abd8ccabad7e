#pragma once

#include <string>

#include "platform/export.h"

// Makes or completes a standalone root under the current system root (the root folder too, when
// it is missing): the factory and current settings, the version file and the folders the
// library expects. Existing files and settings are kept; only what is missing is added, so running
// it again changes nothing. Refuses the root "/", which belongs to the machine. On failure `error`
// says what could not be made.
ZARNHOST_API bool ZARNHostInit(std::string& error);
