#include "package/webutils.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/textsplit.h"

namespace {

constexpr const char* kPortRegistry = "/usr/local/etc/services.d";

int PortKey(const char* key, int fallback) {
    std::string value;
    if (VLIBCFileGetKeyValue("/etc/zarninfo.conf", key, value) == 1) {
        int port = std::atoi(value.c_str());
        if (port > 0 && port < 65536) {
            return port;
        }
    }
    return fallback;
}

// "80,443,6000:6010/tcp" style lists.
bool PortListHas(const std::string& list, int port) {
    for (const std::string& item : ZARNSplitText(list.substr(0, list.find('/')), ',')) {
        const size_t colon = item.find(':');
        const int low = std::atoi(item.c_str());
        const int high = colon == std::string::npos ? low : std::atoi(item.c_str() + colon + 1);
        if (port >= low && port <= high) {
            return true;
        }
    }
    return false;
}

bool RegisteredElsewhere(int port, const std::string& owner) {
    std::vector<std::string> files;
    if (!ZARNIsDir(kPortRegistry) || !GetRegularFilePathsInDirectory(kPortRegistry, files)) {
        return false;
    }
    const std::string own = std::string(kPortRegistry) + "/" + owner + ".sc";
    for (const auto& file : files) {
        if (file == own || file.size() < 3 || file.compare(file.size() - 3, 3, ".sc") != 0) {
            continue;
        }
        std::vector<ZARNIniSection> sections;
        if (!ZARNIniFileRead(file, sections)) {
            continue;
        }
        for (const auto& section : sections) {
            auto ports = section.values.find("dst.ports");
            if (ports != section.values.end() && PortListHas(ports->second, port)) {
                return true;
            }
        }
    }
    return false;
}

bool InUseOnLoopback(int port) {
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        return false;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Without SO_REUSEADDR a port in TIME_WAIT would look taken.
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    const bool taken = bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 &&
                       errno == EADDRINUSE;
    return taken;
}

}  // namespace

namespace zarnw3 {
namespace KOS {

int GetHttpPort() {
    return PortKey("http_port", 5000);
}
int GetHttpsPort() {
    return PortKey("https_port", 5001);
}

}  // namespace KOS
}  // namespace zarnw3

namespace WebUtils {

int IsPortConflict(const std::string& /*protocol*/, int port, const std::string& owner) {
    if (port <= 0 || port > 65535) {
        return 1;
    }
    if (RegisteredElsewhere(port, owner)) {
        return 1;
    }
    return InUseOnLoopback(port) ? 1 : 0;
}

}  // namespace WebUtils
