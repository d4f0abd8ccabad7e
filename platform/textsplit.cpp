#include "platform/textsplit.h"

#include <algorithm>

std::vector<std::string> ZARNSplitText(const std::string& text, char sep) {
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(sep, start);
        if (end == std::string::npos) {
            end = text.size();
        }
        pieces.emplace_back(text, start, end - start);
        start = end + 1;
    }
    return pieces;
}

std::vector<std::string> ZARNPathNames(const std::string& path) {
    std::vector<std::string> names = ZARNSplitText(path, '/');
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& n) { return n.empty() || n == "."; }),
                names.end());
    return names;
}

std::string ZARNTrimText(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}
