#include "privilege/revise_executable.h"

#include "platform/errors.h"
#include "platform/fileattr.h"
#include "platform/scope_guard.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {
namespace Privilege {

namespace {

// Group number 1 is the group "system".
const gid_t kSystemGid = 1;

}  // namespace

int ExeWalker::walk(Json::Value const& element) {
    std::string path;
    int fd = OpenElement(element, {"relpath", "run-as"}, path);
    if (fd < 0) {
        return WALK_FAILED;
    }
    ZARN_SCOPE_EXIT {
        ZARNClose(fd);
    };

    uid_t uid;
    gid_t gid;
    switch (TranslateIdentity(element["run-as"].asString())) {
        case IDENTITY_PACKAGE:
            uid = GetPkgUid();
            gid = GetPkgGid();
            break;
        case IDENTITY_SYSTEM:
            uid = GetPkgUid();
            gid = kSystemGid;
            break;
        case IDENTITY_ROOT:
            uid = 0;
            gid = 0;
            break;
        default:
            VLIBCErrSet(PRIV_ERR_BAD_CONF);
            return WALK_FAILED;
    }
    if (!ZARNFChown(fd, uid, gid)) {
        VLIBCErrSet(PRIV_ERR_FCHOWN);
        return WALK_FAILED;
    }
    return WALK_CONTINUE;
}

}  // namespace Privilege
}  // namespace ZARNPackageTool
