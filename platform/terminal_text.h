#pragma once

#include <string>

#include "platform/export.h"

// Text from packages and servers as it may reach a terminal: control characters (C0 but tab and
// newline, DEL, C1 whether in UTF-8 or as a stray byte) become visible escapes such as \x1b.
ZARNHOST_API std::string ZARNTerminalText(const std::string& text);
