#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// Host services of the standalone host, kept in /etc/zarnhost/services.json. The jobs of the
// standalone job runner are in platform/jobs.h.

// Names of all host services. False (last error set) when the list can't be read.
ZARNHOST_API bool VLIBServiceEnum(std::vector<std::string>& names);

// 1 when the host service is enabled, 0 when it isn't or isn't known, -1 when the list can't be
// read (last error set).
ZARNHOST_API int VLIBServiceIsEnabled(const std::string& name);
// 1 when the host service runs, 0 when it doesn't or isn't known, -1 when the list can't be read.
ZARNHOST_API int VLIBServiceIsRunning(const std::string& name);
// The display name of a host service: 0, or -1 (last error set) when the service or its display
// name is not known.
ZARNHOST_API int VLIBServicecfgDisplayNameGet(const std::string& name, std::string& displayName);

// The stage of the boot; 4 means that the system is up. The standalone host is up unless
// /run/zarnhost/boot_step holds another stage (written by a test or a boot script).
ZARNHOST_API int ZARNSystemGetBootStep();
