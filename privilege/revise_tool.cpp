#include "privilege/revise_tool.h"

#include <cstdlib>

#include "platform/errors.h"
#include "platform/fileattr.h"
#include "platform/log.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {
namespace Privilege {

namespace {

// "root" or "package"; anything else is refused, an empty word as bad content.
bool TranslateOwner(std::string const& word, unsigned int pkgId, unsigned int& id) {
    if (word == "root") {
        id = 0;
        return true;
    }
    if (word == "package") {
        id = pkgId;
        return true;
    }
    VLIBCErrSet(word.empty() ? PRIV_ERR_BAD_CONF : PRIV_ERR_NOT_THERE);
    return false;
}

}  // namespace

bool ParseToolPermission(std::string const& text, mode_t& mode) {
    if (text.size() != 4) {
        return false;
    }
    for (char c : text) {
        if (c < '0' || c > '7') {
            return false;
        }
    }
    char* end = nullptr;
    unsigned long value = std::strtoul(text.c_str(), &end, 8);
    if (end == nullptr || *end != '\0') {
        return false;
    }
    mode = static_cast<mode_t>(value);
    return true;
}

int ToolWalker::walk(Json::Value const& element) {
    std::string path;
    bool skip = false;
    Fd fd = OpenElement(element, {"relpath", "user", "group", "permission"}, path, skip);
    if (!fd.valid()) {
        return skip ? WALK_CONTINUE : WALK_FAILED;
    }

    bool ok = true;
    unsigned int uid = 0;
    unsigned int gid = 0;
    mode_t mode = 0;
    ok = TranslateOwner(element["user"].asString(), GetPkgUid(), uid) &&
         TranslateOwner(element["group"].asString(), GetPkgGid(), gid);
    if (ok && !ZARNFChown(fd.get(), uid, gid)) {
        VLIBCErrSet(PRIV_ERR_FCHOWN);
        ok = false;
    }
    if (ok && !ParseToolPermission(element["permission"].asString(), mode)) {
        VLIBCErrSet(PRIV_ERR_BAD_CONF);
        ok = false;
    }
    if (ok && !ZARNFChmod(fd.get(), mode)) {
        VLIBCErrSet(PRIV_ERR_FCHOWN);
        ok = false;
    }
    if (!ok) {
        ZLOGERR("Failed to revise %s [0x%04X %s:%d]", path.c_str(), VLIBCErrGet(),
                VLIBCErrorGetFile(), VLIBCErrorGetLine());
        return WALK_FAILED;
    }
    return WALK_CONTINUE;
}

}  // namespace Privilege
}  // namespace ZARNPackageTool
