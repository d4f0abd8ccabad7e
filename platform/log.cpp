#include "platform/log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "platform/errors.h"
#include "platform/fd.h"
#include "platform/terminal_text.h"

namespace {

std::atomic<bool> g_verbose{false};
std::once_flag g_openlogOnce;
bool g_syslogUp = false;

// One connection for the process, opened at once. Without a log daemon the C library would try
// to connect again on every line, which a listing of thousands of packages pays per package: the
// lines then go to the mirror alone.
bool OpenSyslog() {
    const Fd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, _PATH_LOG, sizeof(addr.sun_path) - 1);
    if (!probe.valid() ||
        connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        return false;
    }
    openlog("zarnpkg", LOG_PID | LOG_NDELAY, LOG_USER);
    return true;
}

// Rewrites "%m" into the text of the saved errno, escaped so that vsnprintf prints it as is.
std::string ExpandErrnoMarker(const char* format, int savedErrno) {
    std::string out;
    out.reserve(strlen(format) + 16);
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') {
            out.push_back(*p);
            continue;
        }
        if (p[1] == '%') {
            out.append("%%");
            ++p;
        } else if (p[1] == 'm') {
            char buf[256];
            const char* text = strerror_r(savedErrno, buf, sizeof(buf));
            for (const char* t = text; *t != '\0'; ++t) {
                if (*t == '%') {
                    out.push_back('%');
                }
                out.push_back(*t);
            }
            ++p;
        } else {
            out.push_back('%');
        }
    }
    return out;
}

std::string FormatMessage(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[512];
    int needed = vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    if (needed < 0) {
        return std::string(format);
    }
    if (static_cast<size_t>(needed) < sizeof(small)) {
        return std::string(small, static_cast<size_t>(needed));
    }
    std::string big(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(&big[0], big.size(), format, args);
    big.resize(static_cast<size_t>(needed));
    return big;
}

std::string TimestampPrefix() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm tmNow;
    localtime_r(&now.tv_sec, &tmNow);
    char buf[64];
    size_t len = strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%S", &tmNow);
    snprintf(buf + len, sizeof(buf) - len, ".%03ld zarnpkg[%d]: ", now.tv_nsec / 1000000L,
             static_cast<int>(getpid()));
    return buf;
}

void WriteAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        done += static_cast<size_t>(n);
    }
}

}  // namespace

void ZARNSyslog(int priority, const char* format, ...) {
    // Saved before anything else so that "%m" names the caller's failure.
    const int savedErrno = errno;
    if (format == nullptr) {
        return;
    }
    std::string expanded = ExpandErrnoMarker(format, savedErrno);
    va_list args;
    va_start(args, format);
    std::string message = FormatMessage(expanded.c_str(), args);
    va_end(args);

    std::call_once(g_openlogOnce, [] { g_syslogUp = OpenSyslog(); });
    if (g_syslogUp) {
        syslog(priority, "%s", message.c_str());
    }

    const char* mirror = getenv("ZARNPKG_LOG_FILE");
    const bool verbose = g_verbose.load(std::memory_order_relaxed);
    if ((mirror != nullptr && mirror[0] != '\0') || verbose) {
        std::string line = TimestampPrefix();
        line.append(message);
        line.push_back('\n');
        if (mirror != nullptr && mirror[0] != '\0') {
            // The mirror names a file of this machine, not of the system root.
            const Fd fd(open(mirror, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
            if (fd.valid()) {
                WriteAll(fd.get(), line);
            }
        }
        if (verbose) {
            // Log lines quote package texts, which must not steer the terminal they reach.
            WriteAll(STDERR_FILENO, ZARNTerminalText(line));
        }
    }
    errno = savedErrno;
}

std::string ZARNLastErrorSuffix() {
    const char* file = VLIBCErrorGetFile();
    char buf[512];
    snprintf(buf, sizeof(buf), "[0x%04X %s:%d]", static_cast<unsigned>(VLIBCErrGet()),
             file != nullptr ? file : "", VLIBCErrorGetLine());
    return buf;
}

void ZARNLogSetVerbose(bool verbose) {
    g_verbose.store(verbose, std::memory_order_relaxed);
}
