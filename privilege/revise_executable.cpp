#include "privilege/revise_executable.h"

#include "platform/errors.h"
#include "platform/fileattr.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {
namespace Privilege {

namespace {

// Group number 1 is the group "system".
const gid_t kSystemGid = 1;

}  // namespace

int ExeWalker::walk(Json::Value const& element) {
    std::string path;
    bool skip = false;
    Fd fd = OpenElement(element, {"relpath", "run-as"}, path, skip);
    if (!fd.valid()) {
        return skip ? WALK_CONTINUE : WALK_FAILED;
    }

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
    if (!ZARNFChown(fd.get(), uid, gid)) {
        VLIBCErrSet(PRIV_ERR_FCHOWN);
        return WALK_FAILED;
    }
    return WALK_CONTINUE;
}

}  // namespace Privilege
}  // namespace ZARNPackageTool
