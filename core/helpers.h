#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {

// Free helpers of the frame.
ZARNPKG_API std::vector<std::string> PMSExplodeString(const std::string& s,
                                                      const std::string& delims);
// The same, keeping at most `maxTokens` tokens (the host's token lists are bounded).
ZARNPKG_API std::vector<std::string> PMSExplodeStringMax(const std::string& s,
                                                         const std::string& delims,
                                                         size_t maxTokens);
ZARNPKG_API std::string joinStringArray(const std::vector<std::string>& items,
                                        const std::string& sep);
ZARNPKG_API void joinJsonArray(const Json::Value& items, const std::string& sep, std::string& out);
ZARNPKG_API bool PMSCheckIsExec(const std::string& path);
ZARNPKG_API std::string PMSReadLink(const std::string& path);
ZARNPKG_API bool PMReadFile(const char* path, unsigned int limit, std::string& out,
                            unsigned long long* size);
ZARNPKG_API std::string PMSGetText(const std::string& key, const std::string& lang,
                                   const std::string& section, const std::string& package);
ZARNPKG_API bool GetFileModifiedTime(std::string& path, long& seconds);
ZARNPKG_API unsigned long djb2(const std::string& text);

}  // namespace ZARNPackageTool
