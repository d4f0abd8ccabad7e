#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/packagemanager.h"
#include "lifecycle/pipeline_steps.h"
#include "package/archive.h"
#include "platform/accounts.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {

namespace {

constexpr int kLinkAttempts = 60;
constexpr const char* kPackageEtcDir = "/usr/zarn/etc/packages/";

// Replaces `R/<name>` by the folder of that name in the extract folder.
bool MoveFolderIn(const PackageInfo& info, PKG_INSTALLATION_TYPE type, const std::string& from,
                  const std::string& to) {
    const bool removed = PMSRunTool(info, type, "/bin/rm", {"-rf", to});
    return PMSRunTool(info, type, "/bin/mv", {"-f", from, to}) && removed;
}

// The link target -> `to`, tried again while something else holds the place.
bool LinkTarget(const std::string& target, const std::string& link) {
    for (int attempt = 0; attempt < kLinkAttempts; ++attempt) {
        if (attempt > 0) {
            sleep(1);
        }
        if (ZARNRemoveTree(link) && ZARNSymlink(target, link)) {
            return true;
        }
        ZLOGERR("Failed to symlink %s, %m", link.c_str());
    }
    return false;
}

// The files a crash must not leave half written, then the folders that name them.
void SyncRegistry(const std::string& reg) {
    std::vector<std::string> files = {reg + "/INFO"};
    for (const char* conf : {"/conf/privilege", "/conf/resource"}) {
        if (ZARNPathExists(reg + conf)) {
            files.push_back(reg + conf);
        }
    }
    std::vector<std::string> dirs;
    for (const char* sub : {"/scripts", "/WIZARD_UIFILES"}) {
        std::vector<std::string> regular;
        if (ZARNIsDir(reg + sub) && GetRegularFilePathsInDirectory(reg + sub, regular)) {
            files.insert(files.end(), regular.begin(), regular.end());
            dirs.push_back(reg + sub);
        }
    }
    dirs.push_back(reg);
    if (!FsyncFiles(files) || !FsyncDirectories(dirs)) {
        ZLOGERR("Failed to fsync the registry of %s [0x%04X %s:%d]", reg.c_str(), VLIBCErrGet(),
                VLIBCErrorGetFile(), VLIBCErrorGetLine());
    }
}

}  // namespace

bool PackageManager::registerPackage(PKG_INSTALLATION_TYPE type, PackageInfo& /*info*/,
                                     const std::string& name, const std::string& extractDir,
                                     const std::string& target) {
    // The record is read again from the file being registered, so the log names it rightly.
    PackageInfo record;
    if (!PMSLoadPKGInfoFile(extractDir, record, nullptr, ~0ULL)) {
        ZLOGERR("Failed to validate package INFO");
        setResult(PKG_ERR_BAD_PACKAGE);
        return false;
    }
    const std::string reg = "/var/packages/" + name;
    bool ok = PMSRunTool(record, type, "/bin/mkdir", {"-p", reg});
    // From here until a good install ends, the package reports itself broken.
    if (!ZARNOpen(reg + "/installing", O_WRONLY | O_CREAT | O_TRUNC, 0644).valid()) {
        ZLOGERR("Failed to create install flag file %s", (reg + "/installing").c_str());
        ok = false;
    }
    ok = PMSRunTool(record, type, "/bin/mv", {"-f", extractDir + "/INFO", reg + "/INFO"}) && ok;
    if (ZARNIsDir(extractDir + "/scripts")) {
        ok = MoveFolderIn(record, type, extractDir + "/scripts", reg + "/scripts") && ok;
    } else {
        // A package without scripts gets an empty folder, so every registry looks alike.
        ok = PMSRunTool(record, type, "/bin/rm", {"-rf", reg + "/scripts"}) &&
             PMSRunTool(record, type, "/bin/mkdir", {"-p", reg + "/scripts"}) && ok;
    }
    if (ZARNIsDir(extractDir + "/WIZARD_UIFILES")) {
        ok = MoveFolderIn(record, type, extractDir + "/WIZARD_UIFILES", reg + "/WIZARD_UIFILES") &&
             ok;
    }
    // Without its conf/ folder the package would run without its privilege: no target then.
    if (ZARNIsDir(extractDir + "/conf")) {
        ok = MoveFolderIn(record, type, extractDir + "/conf", reg + "/conf") && ok;
    }
    const bool linked = ok && LinkTarget(target, reg + "/target");

    const std::string etcDir = kPackageEtcDir + name;
    if (!ZARNIsDir(etcDir) &&
        ZARNFSMkdirP(etcDir, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) != 0) {
        ZLOGERR("Failed to mkdir [%s], %m", etcDir.c_str());
        SyncRegistry(reg);
        return false;
    }
    const std::string user = Privilege::GetUserName(name, "");
    if (!user.empty()) {
        uid_t uid = 0;
        gid_t gid = 0;
        if (ZARNUserGetUGID(user, &uid, &gid) < 0) {
            ZLOGERR("Failed to get ID of %s [0x%04X %s:%d]", user.c_str(), VLIBCErrGet(),
                    VLIBCErrorGetFile(), VLIBCErrorGetLine());
        } else if (!ZARNChown(etcDir, uid, gid, false)) {
            ZLOGERR("Failed to chown %s (%m)", etcDir.c_str());
        }
    }
    bool done = false;
    if (linked) {
        ZARNUnlink(reg + "/etc");
        done = ZARNSymlink(etcDir, reg + "/etc");
        if (!done) {
            ZLOGERR("Failed to symlink %s, %m", (reg + "/etc").c_str());
        }
    }
    SyncRegistry(reg);
    return done;
}

}  // namespace ZARNPackageTool
