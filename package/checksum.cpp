#include "package/checksum.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "platform/fd.h"
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

bool PMSMd5OfRange(const std::string& file, unsigned long long offset, unsigned long long size,
                   std::string& md5) {
    const Fd fd = ZARNOpen(file, O_RDONLY | O_CLOEXEC);
    if (!fd.valid()) {
        ZLOGERR("Failed to open %s [%m]", file.c_str());
        return false;
    }
    posix_fadvise(fd.get(), static_cast<off_t>(offset), static_cast<off_t>(size),
                  POSIX_FADV_SEQUENTIAL);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(),
                                                                      EVP_MD_CTX_free);
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) {
        ZLOGERR("Failed to start an md5 digest of %s", file.c_str());
        return false;
    }
    std::vector<unsigned char> buf(1 << 20);
    unsigned long long done = 0;
    while (done < size) {
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
        EVP_DigestUpdate(ctx.get(), buf.data(), static_cast<size_t>(n));
        done += static_cast<unsigned long long>(n);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx.get(), digest, &length);
    static const char kHex[] = "0123456789abcdef";
    md5.clear();
    for (unsigned int i = 0; i < length; ++i) {
        md5 += kHex[digest[i] >> 4];
        md5 += kHex[digest[i] & 0xf];
    }
    return true;
}

}  // namespace ZARNPackageTool
