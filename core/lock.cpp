#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/packagemanager.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/locks.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"
#include "platform/textsplit.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kUpgradeBootup = "/var/.UpgradeBootup";
constexpr const char* kUpgradeStopService = "/tmp/upgrade_stop_service";
constexpr const char* kNormalShutdown = "/var/.NormalShutdown";

// In the first boot after an OS upgrade the lock is not waited for; log who holds it.
void LogLockHolders() {
    ZARNUtils::ProcessRunner lslocks({ZARNMachineProgram("/sbin/lslocks"), "-r", "-n", "-u"});
    lslocks.captureOutput();
    if (lslocks.run() < 0) {
        // The log text keeps the name of the call that the appliance makes here.
        ZARNSyslog(LOG_ERR, "failed to popen(%s), errno=%m", "/sbin/lslocks");  // allowed
        return;
    }
    const std::string lockFile = ZARNPhysicalPath(ZARNLockPath(PackageLockId));
    for (const std::string& line : ZARNSplitText(lslocks.getStdout(), '\n')) {
        if (line.find(lockFile) != std::string::npos) {
            ZLOGERR("self: %d, Lock process: %s", static_cast<int>(getpid()), line.c_str());
        }
    }
}

}  // namespace

bool PackageManager::ExLock(int seconds) {
    if (VLIBCFileLock(PackageLockId, seconds) != 0) {
        if (errno != EAGAIN) {
            ZLOGERR("Failed to lock, zarnerr=[0x%04X %s:%d], %m", VLIBCErrGet(),
                    VLIBCErrorGetFile(), VLIBCErrorGetLine());
        }
        if (!IsFileExists(kUpgradeBootup)) {
            return false;
        }
        LogLockHolders();
    }
    // A false return below leaves the lock held: the process is on its way down.
    if (!getSkipUpgradeCheck() && IsFileExists(kUpgradeStopService)) {
        ZLOGERR("Failed to lock, %s exists", kUpgradeStopService);
        return false;
    }
    if (IsFileExists(kNormalShutdown)) {
        ZLOGERR("Failed to lock, %s exists", kNormalShutdown);
        return false;
    }
    return true;
}

void PackageManager::UnLock() {
    VLIBCFileUnlock(PackageLockId);
}

}  // namespace ZARNPackageTool
