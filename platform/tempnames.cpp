#include "platform/tempnames.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cerrno>
#include <random>

#include "platform/errors.h"
#include "platform/rootat.h"

namespace {

constexpr size_t kRandomChars = 6;

void SetError(int code) {
    int saved = errno;
    VLIBCErrSet(code);
    errno = saved;
}

// Replaces the trailing "XXXXXX" of a logical template and makes the entry with `make` in the
// template's folder, resolved inside the root, trying new names while one exists already.
template <typename Make>
bool MakeUnique(const std::string& tmpl, std::string& out, Make make) {
    if (tmpl.size() <= kRandomChars ||
        tmpl.compare(tmpl.size() - kRandomChars, kRandomChars, "XXXXXX") != 0) {
        errno = EINVAL;
        SetError(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    ZARNAtPath at;
    if (!ZARNResolveAt(tmpl, false, at)) {
        return false;
    }
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::random_device seed;
    std::mt19937 random(seed());
    for (int attempt = 0; attempt < 100; ++attempt) {
        for (size_t k = at.name.size() - kRandomChars; k < at.name.size(); ++k) {
            at.name[k] = kChars[random() % (sizeof(kChars) - 1)];
        }
        if (make(at.dir, at.name.c_str())) {
            out = tmpl.substr(0, tmpl.size() - kRandomChars) +
                  at.name.substr(at.name.size() - kRandomChars);
            return true;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    SetError(ZARN_ERR_IO);
    return false;
}

}  // namespace

Fd ZARNMkstemp(const std::string& logicalTemplate, std::string& out) {
    Fd fd;
    MakeUnique(logicalTemplate, out, [&fd](int dir, const char* name) {
        fd.reset(openat(dir, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return fd.valid();
    });
    return fd;
}

bool ZARNMkdtemp(const std::string& logicalTemplate, std::string& out) {
    return MakeUnique(logicalTemplate, out,
                      [](int dir, const char* name) { return mkdirat(dir, name, 0700) == 0; });
}
