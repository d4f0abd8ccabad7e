#include "platform/keyfile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>
#include <unordered_set>

#include "platform/errors.h"
#include "platform/filecache.h"
#include "platform/files.h"

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view Trim(std::string_view s) {
    size_t begin = 0;
    while (begin < s.size() && IsBlank(s[begin])) {
        ++begin;
    }
    size_t end = s.size();
    while (end > begin && IsBlank(s[end - 1])) {
        --end;
    }
    return s.substr(begin, end - begin);
}

// Walks the text line by line; the text is bytes, so a NUL is an ordinary character.
class LineReader {
public:
    explicit LineReader(std::string_view text) : text_(text) {}

    bool next(std::string_view& line) {
        if (pos_ >= text_.size()) {
            return false;
        }
        const char* start = text_.data() + pos_;
        const void* nl = memchr(start, '\n', text_.size() - pos_);
        size_t len = nl != nullptr ? static_cast<size_t>(static_cast<const char*>(nl) - start)
                                   : text_.size() - pos_;
        pos_ += len + 1;
        line = std::string_view(start, len);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        return true;
    }

private:
    std::string_view text_;
    size_t pos_ = 0;
};

// Splits one line into key and value; false for comments and lines without the separator.
bool ParseKeyLine(std::string_view line, std::string_view sep, std::string_view& key,
                  std::string_view& value) {
    size_t first = 0;
    while (first < line.size() && IsBlank(line[first])) {
        ++first;
    }
    if (first == line.size() || line[first] == '#') {
        return false;
    }
    size_t at = line.find(sep, first);
    if (at == std::string_view::npos) {
        return false;
    }
    key = Trim(line.substr(first, at - first));
    if (key.empty()) {
        return false;
    }
    value = Trim(line.substr(at + sep.size()));
    if (!value.empty() && value[0] == '"') {
        value.remove_prefix(1);
        // Up to the last quote, so values that hold quotes themselves (JSON) survive.
        size_t close = value.rfind('"');
        if (close != std::string_view::npos) {
            value = value.substr(0, close);
        }
    }
    return true;
}

// Membership in the caller's key list, decided once per call how to search it.
class WantedKeys {
public:
    explicit WantedKeys(const std::vector<std::string>& keys)
        : keys_(keys), sorted_(std::is_sorted(keys.begin(), keys.end())) {}

    // Index of the key in the list, or -1.
    long find(std::string_view key) const {
        if (sorted_) {
            auto it = std::lower_bound(
                keys_.begin(), keys_.end(), key,
                [](const std::string& a, std::string_view b) { return std::string_view(a) < b; });
            if (it != keys_.end() && std::string_view(*it) == key) {
                return it - keys_.begin();
            }
            return -1;
        }
        for (size_t i = 0; i < keys_.size(); ++i) {
            if (keys_[i].size() == key.size() && std::string_view(keys_[i]) == key) {
                return static_cast<long>(i);
            }
        }
        return -1;
    }

private:
    const std::vector<std::string>& keys_;
    bool sorted_;
};

void ParseAllKeys(std::string_view text, std::string_view sep,
                  std::map<std::string, std::string>& out) {
    LineReader reader(text);
    std::string_view line, key, value;
    while (reader.next(line)) {
        if (ParseKeyLine(line, sep, key, value)) {
            // emplace keeps the first occurrence of a key.
            out.emplace(std::piecewise_construct, std::forward_as_tuple(key.data(), key.size()),
                        std::forward_as_tuple(value.data(), value.size()));
        }
    }
}

// Hands the first occurrence of each wanted key to `take(index, value, line)`, and stops
// reading once every key has been seen.
template <typename Take>
void ScanWantedKeys(std::string_view text, std::string_view sep,
                    const std::vector<std::string>& wanted, Take take) {
    WantedKeys lookup(wanted);
    std::vector<bool> seen(wanted.size(), false);
    size_t remaining = wanted.size();
    LineReader reader(text);
    std::string_view line, key, value;
    while (remaining > 0 && reader.next(line)) {
        if (!ParseKeyLine(line, sep, key, value)) {
            continue;
        }
        long index = lookup.find(key);
        if (index < 0 || seen[static_cast<size_t>(index)]) {
            continue;
        }
        seen[static_cast<size_t>(index)] = true;
        --remaining;
        take(static_cast<size_t>(index), value, line);
    }
}

void ParseWantedKeys(std::string_view text, std::string_view sep,
                     const std::vector<std::string>& wanted,
                     std::map<std::string, std::string>& out) {
    ScanWantedKeys(text, sep, wanted,
                   [&](size_t index, std::string_view value, std::string_view /*line*/) {
                       out[wanted[index]].assign(value.data(), value.size());
                   });
}

}  // namespace

void ZARNKeyTextParseViews(std::string_view text, const char* sep,
                           const std::vector<std::string>& wanted,
                           std::vector<std::string_view>& values) {
    std::string_view separator = (sep != nullptr && sep[0] != '\0') ? sep : "=";
    values.assign(wanted.size(), std::string_view());
    ScanWantedKeys(
        text, separator, wanted, [&](size_t index, std::string_view value, std::string_view line) {
            // A present empty value still points into the text, so it differs from
            // an absent one.
            values[index] =
                value.data() != nullptr ? value : std::string_view(line.data() + line.size(), 0);
        });
}

namespace {

bool ValidKey(const std::string& key) {
    return !key.empty() && key.find_first_of("=\n\r") == std::string::npos &&
           key.find('\0') == std::string::npos && key[0] != '#' && key[0] != '[';
}

bool ValidValue(const std::string& value) {
    return value.find_first_of("\n\r") == std::string::npos &&
           value.find('\0') == std::string::npos;
}

// A key and value that fit on one line of a key file; anything else is refused as a bad
// parameter.
bool CheckKeyLine(const std::string& key, const std::string& value) {
    if (!ValidKey(key) || !ValidValue(value)) {
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    return true;
}

void AppendKeyLine(std::string& text, const std::string& key, const std::string& value) {
    text.append(key);
    text.append("=\"");
    text.append(value);
    text.append("\"\n");
}

// The mode an existing file has, so that rewriting it does not change who may read it.
mode_t ModeOf(const std::string& path, mode_t fallback) {
    struct stat st;
    if (ZARNStat(path, st) && S_ISREG(st.st_mode)) {
        return st.st_mode & 07777;
    }
    return fallback;
}

bool ReadText(const std::string& path, std::string& text) {
    if (!ZARNFileRead(path, text)) {
        if (errno == ENOENT) {
            VLIBCErrSet(ZARN_ERR_NO_FILE);
        }
        return false;
    }
    return true;
}

// The host's settings files are asked one key at a time, often once per package of a listing:
// their text is kept while the file is unchanged. Only a handful of such files exist.
bool ReadSettingsText(const std::string& path, std::string& text) {
    static std::mutex mutex;
    static std::map<std::string, ZARNFileCache<std::string>> caches;
    ZARNFileCache<std::string>* cache = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        cache = &caches[path];
    }
    return cache->get(path, text, [&path](std::string& read) { return ReadText(path, read); });
}

}  // namespace

void ZARNKeyTextParse(const std::string& text, const char* sep,
                      const std::vector<std::string>* wanted,
                      std::map<std::string, std::string>& out) {
    std::string_view separator = (sep != nullptr && sep[0] != '\0') ? sep : "=";
    if (wanted != nullptr) {
        ParseWantedKeys(text, separator, *wanted, out);
        return;
    }
    if (out.empty()) {
        ParseAllKeys(text, separator, out);
        return;
    }
    // The text wins over what the map held before, its own first occurrence over later ones.
    std::map<std::string, std::string> parsed;
    ParseAllKeys(text, separator, parsed);
    for (auto& entry : parsed) {
        out[entry.first] = std::move(entry.second);
    }
}

bool VLIBCFileGetKeys(const std::string& path, const std::vector<std::string>& keys,
                      std::map<std::string, std::string>& out, const char* sep) {
    std::string text;
    if (!ReadText(path, text)) {
        return false;
    }
    ZARNKeyTextParse(text, sep, &keys, out);
    return true;
}

bool ZARNKeyFileReadAll(const std::string& path, std::map<std::string, std::string>& out) {
    std::string text;
    if (!ReadText(path, text)) {
        return false;
    }
    ZARNKeyTextParse(text, "=", nullptr, out);
    return true;
}

int VLIBCFileGetKeyValue(const std::string& path, const std::string& key, std::string& value,
                         size_t limit) {
    std::string text;
    if (!ReadSettingsText(path, text)) {
        return -1;
    }
    std::vector<std::string> wanted{key};
    std::map<std::string, std::string> found;
    ParseWantedKeys(text, "=", wanted, found);
    auto it = found.find(key);
    if (it == found.end()) {
        VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
        return 0;
    }
    value = std::move(it->second);
    if (limit > 0 && value.size() > limit) {
        value.resize(limit);
    }
    return 1;
}

bool VLIBCFileSetKeyValue(const std::string& path, const std::string& key,
                          const std::string& value) {
    if (!CheckKeyLine(key, value)) {
        return false;
    }
    std::string text;
    if (!ZARNFileRead(path, text)) {
        if (errno != ENOENT) {
            return false;
        }
        text.clear();
    }
    std::string result;
    result.reserve(text.size() + key.size() + value.size() + 8);
    bool replaced = false;
    LineReader reader(text);
    std::string_view line, lineKey, lineValue;
    while (reader.next(line)) {
        size_t lineStart = static_cast<size_t>(line.data() - text.data());
        size_t lineEnd = text.find('\n', lineStart);
        size_t rawEnd = lineEnd == std::string::npos ? text.size() : lineEnd + 1;
        if (!replaced && ParseKeyLine(line, "=", lineKey, lineValue) && lineKey == key) {
            replaced = true;
            result.append(key);
            result.append("=\"");
            result.append(value);
            result.push_back('"');
            // The line keeps its own ending, so a CRLF file stays CRLF.
            result.append(text, lineStart + line.size(), rawEnd - lineStart - line.size());
            continue;
        }
        result.append(text, lineStart, rawEnd - lineStart);
    }
    if (!replaced) {
        if (!result.empty() && result.back() != '\n') {
            result.push_back('\n');
        }
        AppendKeyLine(result, key, value);
    }
    return ZARNFileWriteDurable(path, result, ModeOf(path, 0644));
}

bool ZARNKeyFileWrite(const std::string& path, const std::map<std::string, std::string>& values) {
    std::string text;
    for (const auto& entry : values) {
        if (!CheckKeyLine(entry.first, entry.second)) {
            return false;
        }
        AppendKeyLine(text, entry.first, entry.second);
    }
    return ZARNFileWriteDurable(path, text, ModeOf(path, 0644));
}

void ZARNIniTextParse(const std::string& text, std::vector<ZARNIniSection>& out) {
    out.clear();
    LineReader reader(text);
    std::string_view line, key, value;
    // Keys of a repeated section, or before any section, have nowhere to go.
    ZARNIniSection* current = nullptr;
    // Names point into the text, which outlives the parse; a set keeps hostile files linear.
    std::unordered_set<std::string_view> names;
    while (reader.next(line)) {
        std::string_view trimmed = Trim(line);
        if (!trimmed.empty() && trimmed[0] == '[') {
            size_t close = trimmed.find(']');
            if (close != std::string_view::npos) {
                std::string_view name = Trim(trimmed.substr(1, close - 1));
                current = nullptr;
                if (names.insert(name).second) {
                    out.push_back(ZARNIniSection{std::string(name), {}});
                    current = &out.back();
                }
                continue;
            }
        }
        if (current != nullptr && ParseKeyLine(line, "=", key, value)) {
            current->values.emplace(std::piecewise_construct,
                                    std::forward_as_tuple(key.data(), key.size()),
                                    std::forward_as_tuple(value.data(), value.size()));
        }
    }
}

bool ZARNIniFileRead(const std::string& path, std::vector<ZARNIniSection>& out) {
    out.clear();
    std::string text;
    if (!ReadText(path, text)) {
        return false;
    }
    ZARNIniTextParse(text, out);
    return true;
}

bool VLIBCFileEnumSection(const std::string& path, std::vector<std::string>& out) {
    out.clear();
    std::vector<ZARNIniSection> sections;
    if (!ZARNIniFileRead(path, sections)) {
        return false;
    }
    for (ZARNIniSection& section : sections) {
        out.push_back(std::move(section.name));
    }
    return true;
}

bool VLIBCFileGetSection(const std::string& path, const std::string& section,
                         std::map<std::string, std::string>& out) {
    std::vector<ZARNIniSection> sections;
    if (!ZARNIniFileRead(path, sections)) {
        return false;
    }
    for (ZARNIniSection& entry : sections) {
        if (entry.name == section) {
            out = std::move(entry.values);
            return true;
        }
    }
    VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
    return false;
}

bool ZARNIniFileWrite(const std::string& path, const std::vector<ZARNIniSection>& sections) {
    std::string text;
    for (const ZARNIniSection& section : sections) {
        if (section.name.empty() || section.name.find_first_of("[]\n\r") != std::string::npos ||
            section.name.find('\0') != std::string::npos) {
            errno = EINVAL;
            VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
            return false;
        }
        if (!text.empty()) {
            text.push_back('\n');
        }
        text.append("[");
        text.append(section.name);
        text.append("]\n");
        for (const auto& entry : section.values) {
            if (!CheckKeyLine(entry.first, entry.second)) {
                return false;
            }
            AppendKeyLine(text, entry.first, entry.second);
        }
    }
    return ZARNFileWriteDurable(path, text, ModeOf(path, 0644));
}
