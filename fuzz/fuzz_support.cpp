#include "fuzz_support.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/sysroot.h"

namespace {

std::string& RootPath() {
    static std::string root;
    return root;
}

void RemoveRoot() {
    ZARNPackageCore::SetSystemRoot("/");
    ZARNRemoveTree(RootPath());
}

}  // namespace

void FuzzCheck(bool ok, const char* what, const char* file, int line) {
    if (!ok) {
        std::fprintf(stderr, "%s:%d check failed: %s\n", file, line, what);
        std::abort();
    }
}

void FuzzRoot() {
    if (!RootPath().empty()) {
        return;
    }
    // Writers sync every file they replace; a root in memory keeps that from ruling the speed.
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/zarnpkg-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(&tmpl[0]) != nullptr);
    char* real = realpath(tmpl.c_str(), nullptr);
    FUZZ_CHECK(real != nullptr);
    RootPath() = real;
    std::free(real);
    setenv("ZARNPKG_ROOT", RootPath().c_str(), 1);
    unsetenv("ZARNPKG_LOG_FILE");
    umask(022);
    ZARNPackageCore::SetSystemRoot(RootPath());
    std::string error;
    if (!ZARNHostInit(error)) {
        std::fprintf(stderr, "host-init failed: %s\n", error.c_str());
        std::abort();
    }
    std::atexit(RemoveRoot);
}

std::string FuzzInput(const uint8_t* data, size_t size) {
    FuzzRoot();
    return std::string(reinterpret_cast<const char*>(data), size);
}

void FuzzWriteFile(const std::string& logical, const std::string& text) {
    const std::string dir = logical.substr(0, logical.find_last_of('/'));
    FUZZ_CHECK(ZARNFSMkdirP(dir, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) == 0);
    FUZZ_CHECK(ZARNFileWrite(logical, text));
}

std::vector<std::string> FuzzSplit(const uint8_t* data, size_t size, size_t parts) {
    static const std::string kSeparator = "\n%%\n";
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> out;
    size_t pos = 0;
    while (out.size() + 1 < parts) {
        const size_t at = text.find(kSeparator, pos);
        if (at == std::string::npos) {
            break;
        }
        out.push_back(text.substr(pos, at - pos));
        pos = at + kSeparator.size();
    }
    out.push_back(text.substr(pos));
    out.resize(parts);
    return out;
}
