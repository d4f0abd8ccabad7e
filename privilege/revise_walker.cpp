#include "privilege/revise_walker.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "pkgutils/relpath.h"
#include "platform/errors.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/log.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {
namespace Privilege {

Fd ReviseWalker::OpenRelPath(std::string const& relpath, std::string& path) const {
    path.clear();
    if (!ZARN::PkgUtils::ResolveRelPath(topDir_, relpath, path)) {
        ZLOGERR("Failed to resolve %s [0x%04X %s:%d]", relpath.c_str(), VLIBCErrGet(),
                VLIBCErrorGetFile(), VLIBCErrorGetLine());
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
                             std::string& path) const {
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
    return OpenRelPath(element["relpath"].asString(), path);
}

}  // namespace Privilege
}  // namespace ZARNPackageTool
