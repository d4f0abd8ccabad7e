#include "privilege/revise_walker.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "pkgutils/relpath.h"
#include "platform/errors.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/textsplit.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {
namespace Privilege {

bool RelPathCrossesLink(std::string const& top, std::string const& relpath) {
    std::string path = top;
    for (const std::string& part : ZARNPathNames(relpath)) {
        path += "/" + part;
        if (ZARNIsSymlink(path)) {
            return true;
        }
    }
    return false;
}

Fd ReviseWalker::OpenRelPath(std::string const& relpath, std::string& path, bool& skip) const {
    path.clear();
    skip = false;
    if (!ZARN::PkgUtils::ResolveRelPath(topDir_, relpath, path)) {
        ZLOGERR("Failed to resolve %s [0x%04X %s:%d]", relpath.c_str(), VLIBCErrGet(),
                VLIBCErrorGetFile(), VLIBCErrorGetLine());
        return Fd();
    }
    if (RelPathCrossesLink(topDir_, relpath)) {
        ZLOGWARN("Passed over %s: a symbolic link is never followed", relpath.c_str());
        skip = true;
        return Fd();
    }
    // The resolved path has no link left in it; a link put there since is not followed.
    Fd fd = ZARNOpen(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    if (!fd.valid()) {
        VLIBCErrSet(errno == ENOENT ? PRIV_ERR_NO_FILE : PRIV_ERR_OPEN);
        return fd;
    }
    struct stat st;
    if (!ZARNFStat(fd.get(), st)) {
        VLIBCErrSet(PRIV_ERR_FSTAT);
        return Fd();
    }
    if (!S_ISREG(st.st_mode)) {
        VLIBCErrSet(PRIV_ERR_NOT_THERE);
        return Fd();
    }
    return fd;
}

Fd ReviseWalker::OpenElement(Json::Value const& element, std::initializer_list<const char*> keys,
                             std::string& path, bool& skip) const {
    skip = false;
    // Anything but an object is bad content too (and would throw on lookup).
    if (!element.isObject()) {
        VLIBCErrSet(PRIV_ERR_BAD_CONF);
        return Fd();
    }
    for (const char* key : keys) {
        if (!element.isMember(key) || !element[key].isString()) {
            VLIBCErrSet(PRIV_ERR_BAD_CONF);
            return Fd();
        }
    }
    return OpenRelPath(element["relpath"].asString(), path, skip);
}

}  // namespace Privilege
}  // namespace ZARNPackageTool
