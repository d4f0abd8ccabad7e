#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// Reloads of the host's daemons on the standalone host. Each one is recorded as a line of the
// events log (/var/log/zarnhost/events.log); a host service whose entry in
// /etc/zarnhost/services.json names a "reload" argument vector also has it run, with argv[0]
// taken from the root when it is there and from the machine otherwise. An entry with "error":
// true is a service in an error state.

// The daemons behind one restart bit of the host (0x4 is "samba", "winbindd", "nmbd"); empty
// for a bit it doesn't know.
ZARNHOST_API std::vector<std::string> ZARNServicesOfBit(unsigned long long bit);

// 0, or -1 (last error set) when the reload can't be recorded or its command fails.
ZARNHOST_API int VLIBServiceReload(const std::string& name);

// Appends the daemons of the bits of `mask` that are in an error state to `names`, each
// recorded. The number found, or -1 (last error set) when the service list can't be read.
ZARNHOST_API int ServiceErrorEnum(std::vector<std::string>& names, unsigned long long mask,
                                  int flags);

// Reloads the firewall rules: 0, or negative (last error set).
ZARNHOST_API int ZARNFwRuleHup();

namespace zarnw3 {

// The web engine's configuration.
class ZARNHOST_API NginxConfManager {
public:
    static constexpr int kRegenerate = 4;
    // Carries out one operation; only kRegenerate is known. False (last error set) on failure.
    bool Run(int operation);
};

}  // namespace zarnw3
