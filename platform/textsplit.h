#pragma once

#include <string>
#include <vector>

// The pieces of `text` between the separators, empty ones included; a separator at the very end
// starts no further piece, so "a\nb\n" gives two lines and "" none.
std::vector<std::string> ZARNSplitText(const std::string& text, char sep);
