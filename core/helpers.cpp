#include "core/helpers.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/log.h"

namespace ZARNPackageTool {

std::vector<std::string> PMSExplodeString(const std::string& s, const std::string& delims) {
    return PMSExplodeStringMax(s, delims, std::numeric_limits<size_t>::max());
}

std::vector<std::string> PMSExplodeStringMax(const std::string& s, const std::string& delims,
                                             size_t maxTokens) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < s.size() && out.size() < maxTokens) {
        size_t start = s.find_first_not_of(delims, pos);
        if (start == std::string::npos) {
            break;
        }
        size_t end = s.find_first_of(delims, start);
        if (end == std::string::npos) {
            end = s.size();
        }
        out.emplace_back(s, start, end - start);
        pos = end;
    }
    return out;
}

std::string joinStringArray(const std::vector<std::string>& items, const std::string& sep) {
    std::string out;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i != 0) {
            out += sep;
        }
        out += items[i];
    }
    return out;
}

void joinJsonArray(const Json::Value& items, const std::string& sep, std::string& out) {
    out.clear();
    if (!items.isArray()) {
        return;
    }
    for (Json::ArrayIndex i = 0; i < items.size(); ++i) {
        if (i != 0) {
            out += sep;
        }
        // Numbers and flags join in their text form; arrays and objects have none.
        out += items[i].isConvertibleTo(Json::stringValue) ? items[i].asString() : "";
    }
}

bool PMSCheckIsExec(const std::string& path) {
    struct stat st;
    return ZARNStat(path, st) && (st.st_mode & 0x40) && st.st_size != 0;
}

std::string PMSReadLink(const std::string& path) {
    std::string target;
    if (!ZARNReadLink(path, target) || target.size() > 4096) {
        return "";
    }
    return target;
}

bool PMReadFile(const char* path, unsigned int limit, std::string& out, unsigned long long* size) {
    if (path == nullptr) {
        ZLOGERR("Bad Parameters");
        return false;
    }
    struct stat st;
    if (!ZARNStat(path, st)) {
        ZLOGERR("Stat %s error, %s", path, std::strerror(errno));
        return false;
    }
    // The buffer is taken before the file is opened: a file larger than the memory (a sparse
    // one costs nothing on disk) is refused here instead of throwing out of the read.
    bool read = false;
    try {
        out.clear();
        if (S_ISREG(st.st_mode) && st.st_size > 0) {
            const auto fileSize = static_cast<unsigned long long>(st.st_size);
            out.reserve(static_cast<size_t>(limit > 0 && limit < fileSize ? limit : fileSize));
        }
        read = ZARNFileRead(path, out, limit);
    } catch (const std::exception&) {
        out.clear();
        out.shrink_to_fit();
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
    }
    if (!read) {
        if (VLIBCErrGet() == ZARN_ERR_OUT_OF_MEMORY) {
            ZLOGERR("Memory error");
        } else if (errno == ENOENT || errno == EACCES || errno == EISDIR) {
            ZLOGERR("Failed to open file %s", path);
        } else {
            ZLOGERR("Failed to read file %s", path);
        }
        return false;
    }
    if (size != nullptr) {
        *size = out.size();
    }
    return true;
}

std::string PMSGetText(const std::string& key, const std::string& lang, const std::string& section,
                       const std::string& package) {
    const std::string path = "/var/packages/" + package + "/target/ui/texts/" + lang + "/strings";
    std::map<std::string, std::string> values;
    if (!VLIBCFileGetSection(path, section, values)) {
        ZLOGERR("[%s] no found the section[%s] %s", path.c_str(), section.c_str(),
                ZARNLastErrorSuffix().c_str());
        return "";
    }
    auto it = values.find(key);
    if (it == values.end()) {
        ZLOGERR("key no found [%s] ", key.c_str());
        return "";
    }
    return it->second;
}

bool GetFileModifiedTime(std::string& path, long& seconds) {
    struct stat st;
    if (!ZARNStat(path, st)) {
        return false;
    }
    seconds = static_cast<long>(st.st_mtime);
    return true;
}

unsigned long djb2(const std::string& text) {
    unsigned long hash = 5381;
    for (unsigned char c : text) {
        hash = ((hash << 5) + hash) + c;
    }
    return hash;
}

}  // namespace ZARNPackageTool
