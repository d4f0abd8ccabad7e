#include "core/version.h"

#include <cstdlib>
#include <cstring>

#include "core/helpers.h"
#include "platform/errors.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/os_version.h"

namespace ZARNPackageTool {

namespace {

constexpr size_t kMaxTokens = 32;

// Splits like strtok: empty tokens are dropped; at most kMaxTokens are kept.
std::vector<std::string> StrTok(const std::string& text, const char* seps) {
    return PMSExplodeStringMax(text, seps, kMaxTokens);
}

size_t CountDots(const std::string& s) {
    size_t n = 0;
    for (char c : s) {
        n += c == '.';
    }
    return n;
}

// Reads the next token of a version: it ends at "." or "-", and the separator is skipped.
const char* NextToken(const char* p, long long& number, bool& empty) {
    const char* end = p;
    while (*end != '\0' && *end != '.' && *end != '-') {
        ++end;
    }
    empty = end == p;
    number = empty ? 0 : std::strtoll(p, nullptr, 10);
    return *end == '\0' ? end : end + 1;
}

}  // namespace

bool NormalizeVersion(std::string version, std::string other, std::string& out) {
    std::vector<std::string> mine = StrTok(version, "-");
    std::vector<std::string> theirs = StrTok(other, "-");
    if (mine.empty() || theirs.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        ZLOGERR("Failed to VLIBCSzListGet().%s", ZARNLastErrorSuffix().c_str());
        return false;
    }
    out = mine[0];
    size_t myDots = CountDots(mine[0]);
    size_t theirDots = CountDots(theirs[0]);
    for (size_t i = myDots; i < theirDots; ++i) {
        out += ".0";
    }
    if (mine.size() > 1) {
        out += "-";
        out += mine[1];
    }
    return true;
}

bool NormalizeVersion(const char* version, const char* other, char** out, int* capacity) {
    if (version == nullptr || other == nullptr || out == nullptr || capacity == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        ZLOGERR("Failed to VLIBCStrTok().%s", ZARNLastErrorSuffix().c_str());
        return false;
    }
    std::string result;
    if (!NormalizeVersion(std::string(version), std::string(other), result)) {
        return false;
    }
    size_t need = result.size() + 1;
    if (*out == nullptr || *capacity < static_cast<int>(need)) {
        size_t grown = need < 100 ? 100 : need;
        char* buf = static_cast<char*>(std::realloc(*out, grown));
        if (buf == nullptr) {
            ZLOGERR("Fail to allocate");
            return false;
        }
        *out = buf;
        *capacity = static_cast<int>(grown);
    }
    std::memcpy(*out, result.c_str(), need);
    return true;
}

bool PackageBasicInfo::compare(const PackageBasicInfo& other, PKG_VERSION_COMPOP op) const {
    if (name != other.name) {
        return false;
    }
    std::string mine, theirs;
    if (!NormalizeVersion(version, other.version, mine) ||
        !NormalizeVersion(other.version, version, theirs)) {
        ZLOGERR("Failed to NormalizeVersion");
        return false;
    }
    if (op == PKG_VER_ANY || op > PKG_VER_LE) {
        return true;
    }
    int sign = 0;
    const char* a = mine.c_str();
    const char* b = theirs.c_str();
    for (;;) {
        long long na, nb;
        bool ea, eb;
        a = NextToken(a, na, ea);
        b = NextToken(b, nb, eb);
        if (na != nb) {
            sign = na > nb ? 1 : -1;
            break;
        }
        if (ea || eb) {
            break;
        }
    }
    return PMSVersionSignMeets(sign, op);
}

bool PMSVersionSignMeets(int sign, PKG_VERSION_COMPOP op) {
    switch (op) {
        case PKG_VER_EQ:
            return sign == 0;
        case PKG_VER_GT:
            return sign > 0;
        case PKG_VER_LT:
            return sign < 0;
        case PKG_VER_GE:
            return sign >= 0;
        case PKG_VER_LE:
            return sign <= 0;
        default:
            return true;
    }
}

bool PMSVersionSign(const std::string& a, const std::string& b, int& sign) {
    std::string na, nb;
    if (!NormalizeVersion(a, b, na) || !NormalizeVersion(b, a, nb)) {
        return false;
    }
    std::vector<std::string> ta = StrTok(na, ".-");
    std::vector<std::string> tb = StrTok(nb, ".-");
    sign = 0;
    for (size_t i = 0; i < ta.size() || i < tb.size(); ++i) {
        long long x = i < ta.size() ? std::strtoll(ta[i].c_str(), nullptr, 10) : 0;
        long long y = i < tb.size() ? std::strtoll(tb[i].c_str(), nullptr, 10) : 0;
        if (x != y) {
            sign = x > y ? 1 : -1;
            break;
        }
    }
    return true;
}

int PMSGetOSSubBuild() {
    std::string value;
    if (VLIBCFileGetKeyValue("/etc.defaults/VERSION", "smallfixnumber", value) <= 0) {
        return 0;
    }
    return std::atoi(value.c_str());
}

int PMSCompareOSWithBound(const OSVersionNumbers& bound, int nano) {
    const int osNano = PMSGetOSSubBuild();
    if (bound.major == 0) {
        return (bound.minor == 0 && bound.build == 0) ? 0 : 1;
    }
    if (bound.major != ZARN_OS_MAJOR) {
        return bound.major < ZARN_OS_MAJOR ? 1 : -1;
    }
    if (bound.minor != ZARN_OS_MINOR) {
        return bound.minor < ZARN_OS_MINOR ? 1 : -1;
    }
    if (bound.build != ZARN_OS_BUILD) {
        return bound.build < ZARN_OS_BUILD ? 1 : -1;
    }
    if (osNano == nano) {
        return 0;
    }
    return osNano > nano ? 1 : -1;
}

int PMSComparePackageAndOSVersion(PackageInfo& info) {
    const PackageInfoExtraPrivate& x = *info.extra.get();
    if (PMSCompareOSWithBound(x.os_min_ver, x.os_min_nano) < 0) {
        return -1;
    }
    if (PMSCompareOSWithBound(x.os_max_ver, x.os_max_nano) > 0) {
        return 1;
    }
    return 0;
}

bool PMSCheckPackageVersionVaild(PackageInfo& info) {
    return PMSComparePackageAndOSVersion(info) == 0;
}

}  // namespace ZARNPackageTool
