#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// The pieces of `text` between the separators, empty ones included; a separator at the very end
// starts no further piece, so "a\nb\n" gives two lines and "" none.
ZARNHOST_API std::vector<std::string> ZARNSplitText(const std::string& text, char sep);

// The names that make up a path, without the empty and "." pieces that repeated or trailing
// slashes and "./" leave; ".." is kept for the caller to judge.
ZARNHOST_API std::vector<std::string> ZARNPathNames(const std::string& path);

// `text` without the spaces, tabs and carriage returns at either end.
ZARNHOST_API std::string ZARNTrimText(const std::string& text);
