#include "package/checksum.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/fd.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"

namespace ZARNPackageTool {

bool PMSCompareCheckSum(const char* file, const char* md5) {
    if (file == nullptr || md5 == nullptr || !IsFileExists(file)) {
        return false;
    }
    const std::string openssl = ZARNMachineProgram("/usr/bin/openssl");
    const std::string command = openssl + " md5";
    ZARNUtils::ProcessRunner runner({openssl, "md5", ZARNPhysicalPath(file)});
    runner.captureOutput();
    if (runner.run() < 0) {
        ZLOGERR("%s failed, path=%s", command.c_str(), file);
        return false;
    }
    const std::string& output = runner.getStdout();
    std::string line = output.substr(0, output.find('\n'));
    if (line.empty()) {
        ZLOGERR("%s failed, path=%s", command.c_str(), file);
        return false;
    }
    // The digest follows the last "= ", so a file name that holds one can't mislead us.
    size_t mark = line.rfind("= ");
    if (mark == std::string::npos) {
        ZLOGERR("Invalid output");
        return false;
    }
    return line.substr(mark + 2) == md5;
}

struct PMSMd5Digest::Impl {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx{EVP_MD_CTX_new(), EVP_MD_CTX_free};
};

PMSMd5Digest::PMSMd5Digest() : impl_(std::make_unique<Impl>()) {
    if (impl_->ctx && EVP_DigestInit_ex(impl_->ctx.get(), EVP_md5(), nullptr) != 1) {
        impl_->ctx.reset();
    }
}

PMSMd5Digest::~PMSMd5Digest() = default;

bool PMSMd5Digest::valid() const {
    return impl_->ctx != nullptr;
}

void PMSMd5Digest::update(const void* data, size_t len) {
    EVP_DigestUpdate(impl_->ctx.get(), data, len);
}

std::string PMSMd5Digest::hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(impl_->ctx.get(), digest, &length);
    static const char kHex[] = "0123456789abcdef";
    std::string md5;
    for (unsigned int i = 0; i < length; ++i) {
        md5 += kHex[digest[i] >> 4];
        md5 += kHex[digest[i] & 0xf];
    }
    return md5;
}

namespace {

// The last range hashed while something else read it, and the file as it was then.
struct KnownMd5 {
    std::string file;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t fileSize = -1;
    struct timespec mtime = {0, 0};
    unsigned long long offset = 0;
    unsigned long long size = 0;
    std::string md5;

    bool same(const std::string& f, const struct stat& st, unsigned long long off,
              unsigned long long len) const {
        return f == file && st.st_dev == dev && st.st_ino == ino && st.st_size == fileSize &&
               st.st_mtim.tv_sec == mtime.tv_sec && st.st_mtim.tv_nsec == mtime.tv_nsec &&
               off == offset && len == size;
    }
};

std::mutex g_knownLock;
KnownMd5 g_known;

}  // namespace

void PMSMd5Remember(const std::string& file, const struct stat& st, unsigned long long offset,
                    unsigned long long size, const std::string& md5) {
    std::lock_guard<std::mutex> hold(g_knownLock);
    g_known = {file, st.st_dev, st.st_ino, st.st_size, st.st_mtim, offset, size, md5};
}

bool PMSMd5OfRange(const std::string& file, unsigned long long offset, unsigned long long size,
                   std::string& md5) {
    const Fd fd = ZARNOpen(file, O_RDONLY | O_CLOEXEC);
    if (!fd.valid()) {
        ZLOGERR("Failed to open %s [%m]", file.c_str());
        return false;
    }
    struct stat st;
    if (ZARNFStat(fd.get(), st)) {
        std::lock_guard<std::mutex> hold(g_knownLock);
        if (g_known.same(file, st, offset, size)) {
            md5 = g_known.md5;
            return true;
        }
    }
    posix_fadvise(fd.get(), static_cast<off_t>(offset), static_cast<off_t>(size),
                  POSIX_FADV_SEQUENTIAL);
    PMSMd5Digest digest;
    if (!digest.valid()) {
        ZLOGERR("Failed to start an md5 digest of %s", file.c_str());
        return false;
    }
    std::vector<unsigned char> buf(1 << 20);
    unsigned long long done = 0;
    while (done < size) {
        if (ZARNStopSignal() != 0) {
            ZLOGERR("Stopped hashing %s: the command was asked to stop", file.c_str());
            return false;
        }
        const size_t want =
            static_cast<size_t>(std::min<unsigned long long>(buf.size(), size - done));
        const ssize_t n = pread(fd.get(), buf.data(), want, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ZLOGERR("Failed to read %s at %llu [%m]", file.c_str(), offset + done);
            return false;
        }
        digest.update(buf.data(), static_cast<size_t>(n));
        done += static_cast<unsigned long long>(n);
    }
    md5 = digest.hex();
    return true;
}

}  // namespace ZARNPackageTool
