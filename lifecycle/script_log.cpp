#include "lifecycle/script_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "lifecycle/script_env.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/process.h"

namespace ZARNPackageTool {

namespace {

constexpr size_t kLineBufferSize = 4352;

void WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        done += static_cast<size_t>(n);
    }
}

// Opens the package log, or the common log when that fails; invalid without any log.
Fd OpenPackageLog(const std::string& name) {
    if (ZARNFSMkdirP(PKG_LOG_DIR, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) !=
        0) {
        ZLOGERR("Failed to create directory for package logs [%s] errno=[%m]", PKG_LOG_DIR);
    }
    const std::string path = PMSPackageLogPath(name);
    Fd fd = ZARNOpen(path, O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (fd.valid()) {
        return fd;
    }
    ZLOGERR("Failed to open package log [%s] errno=[%m], try to fallback", path.c_str());
    fd = ZARNOpen(PKG_SYSTEM_LOG, O_WRONLY | O_APPEND, 0644);
    if (fd.valid()) {
        return fd;
    }
    ZLOGERR("Failed to open package log [/var/log/zarnpkg.log] errno=[%m]");
    ZLOGERR("Failed to open package log for [%s]", name.c_str());
    return fd;
}

}  // namespace

std::string ToStringWithCurrentTime(const std::string& text) {
    char stamp[64] = "";
    time_t now = time(nullptr);
    struct tm local;
    if (now != static_cast<time_t>(-1) && localtime_r(&now, &local) != nullptr) {
        if (strftime(stamp, sizeof(stamp), "%Y/%m/%d %H:%M:%S", &local) == 0) {
            stamp[0] = '\0';
        }
    }
    return std::string(stamp) + "\t" + text;
}

void PMSWriteSysLog(const char* text) {
    if (text == nullptr || *text == '\0') {
        return;
    }
    Fd fd = ZARNOpen(PKG_SYSTEM_LOG, O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (fd.valid()) {
        WriteAll(fd.get(), ToStringWithCurrentTime(text) + "\n");
    }
}

std::string PMSReadPackageLog(const std::string& path) {
    Fd fd = ZARNOpen(path, O_RDONLY);
    if (!fd.valid()) {
        return "";
    }
    std::string text;
    char block[513];
    for (;;) {
        ssize_t n = read(fd.get(), block, 512);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        block[n] = '\0';
        // Text of each block up to its first zero byte.
        text.append(block);
    }
    fd.reset();
    static const char* const kBlanks = " \t\r\n\v\f";
    size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return "";
    }
    size_t last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

std::string PMSPackageLogPath(const std::string& name) {
    return std::string(PKG_LOG_DIR) + "/" + name + ".log";
}

int PMSRunAndWriteScriptLog(const PackageInfo& info, PKG_INSTALLATION_TYPE type,
                            ZARNUtils::ProcessRunner& runner, int mode) {
    const std::string typeText = parseInstallTypeToStr(type);
    const std::string command = runner.toString();
    char line[kLineBufferSize];
    snprintf(line, sizeof(line), "%s %s %s Begin %s", typeText.c_str(), info.name.c_str(),
             info.version.c_str(), command.c_str());
    PMSWriteSysLog(line);

    Fd fd = OpenPackageLog(info.name);
    if (fd.valid()) {
        WriteAll(fd.get(), ToStringWithCurrentTime(line) + "\n");
    }
    // Without a log the output is captured and dropped rather than mixed into the caller's.
    const int ret = runner.run(mode == PKG_RUN_MODE_COMMAND ? 1 : mode, true, true, fd.get());

    snprintf(line, sizeof(line), "%s %s %s End %s ret=[%d]", typeText.c_str(), info.name.c_str(),
             info.version.c_str(), command.c_str(), ret);
    PMSWriteSysLog(line);
    if (fd.valid()) {
        WriteAll(fd.get(), ToStringWithCurrentTime(line) + "\n");
    }
    return ret;
}

}  // namespace ZARNPackageTool
