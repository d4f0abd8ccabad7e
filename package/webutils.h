#pragma once

#include <string>

#include "core/export.h"

// The web engine's answers that the package checks need, for the standalone host.

namespace zarnw3 {
namespace KOS {

// The ports of the system's own web interface: keys "http_port" and "https_port" of
// /etc/zarninfo.conf, 5000 and 5001 when unset.
ZARNPKG_API int GetHttpPort();
ZARNPKG_API int GetHttpsPort();

}  // namespace KOS
}  // namespace zarnw3

namespace WebUtils {

// Non-zero when `port` is taken: listed in the "dst.ports" of a port file of the root's
// registry (/usr/local/etc/services.d/*.sc) other than "<owner>.sc", or it can't be bound on
// the loopback because something listens there.
ZARNPKG_API int IsPortConflict(const std::string& protocol, int port, const std::string& owner);

}  // namespace WebUtils
