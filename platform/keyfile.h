#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/export.h"

// Key files: lines of key="value" (INFO, zarninfo.conf, VERSION). Quoting follows the settings
// files: the value may be in double quotes, and then runs to the last quote of the line (so it
// may hold quotes itself); without a closing quote it runs to the end of the
// line; "\r" before the line end is dropped; lines starting with "#" and lines without the
// separator are skipped; the first occurrence of a key wins. Paths are logical.

// Parses key file text; only keys in `wanted` are kept (all when `wanted` is null).
ZARNHOST_API void ZARNKeyTextParse(const std::string& text, const char* sep,
                                   const std::vector<std::string>* wanted,
                                   std::map<std::string, std::string>& out);

// The allocation-free form for scans: values[i] views the value of wanted[i] inside `text`, or
// has a null data() when the key is absent. `wanted` should be sorted.
ZARNHOST_API void ZARNKeyTextParseViews(std::string_view text, const char* sep,
                                        const std::vector<std::string>& wanted,
                                        std::vector<std::string_view>& values);

// Reads the wanted keys of a file into `out`. False (last error set) when the file can't be read.
ZARNHOST_API bool VLIBCFileGetKeys(const std::string& path, const std::vector<std::string>& keys,
                                   std::map<std::string, std::string>& out, const char* sep = "=");

// Reads every key of a file.
ZARNHOST_API bool ZARNKeyFileReadAll(const std::string& path,
                                     std::map<std::string, std::string>& out);

// 1 when the key was found (value cut to `limit` bytes when limit > 0), 0 when the file has no
// such key, -1 when the file can't be read (last error ZARN_ERR_NO_FILE for a missing file).
ZARNHOST_API int VLIBCFileGetKeyValue(const std::string& path, const std::string& key,
                                      std::string& value, size_t limit = 0);

// Sets one key, keeping the other lines; the file is replaced by rename.
ZARNHOST_API bool VLIBCFileSetKeyValue(const std::string& path, const std::string& key,
                                       const std::string& value);

// Writes a whole key file (key="value" lines, in map order) by temporary file and rename.
ZARNHOST_API bool ZARNKeyFileWrite(const std::string& path,
                                   const std::map<std::string, std::string>& values);

// INI section files ("[name]" headers followed by key file lines, as conf/PKG_DEPS).
struct ZARNIniSection {
    std::string name;
    std::map<std::string, std::string> values;
};

// Reads every section in file order in one pass; a repeated section name is kept once, the first.
ZARNHOST_API bool ZARNIniFileRead(const std::string& path, std::vector<ZARNIniSection>& out);
ZARNHOST_API void ZARNIniTextParse(const std::string& text, std::vector<ZARNIniSection>& out);
// Names of the sections of a file, in file order.
ZARNHOST_API bool VLIBCFileEnumSection(const std::string& path, std::vector<std::string>& out);
// The keys of one section. False when the file or the section is missing.
ZARNHOST_API bool VLIBCFileGetSection(const std::string& path, const std::string& section,
                                      std::map<std::string, std::string>& out);
// Writes a whole section file by temporary file and rename.
ZARNHOST_API bool ZARNIniFileWrite(const std::string& path,
                                   const std::vector<ZARNIniSection>& sections);
