#include "privilege/walker.h"

#include "platform/errors.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {
namespace Privilege {

bool TraversePrivilege(Json::Value const& config, std::string const& key, IWalker& walker) {
    if (key.empty()) {
        VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
        return false;
    }
    if (!config.isObject() || !config.isMember(key) || !config[key].isArray()) {
        return true;
    }
    for (Json::Value const& element : config[key]) {
        if (!element.isObject()) {
            continue;
        }
        int result = walker.walk(element);
        if (result != WALK_CONTINUE) {
            return result == WALK_FOUND;
        }
    }
    return true;
}

int CtrlScriptWalker::walk(Json::Value const& element) {
    // Checked for every element up to the match, so a damaged entry ahead of it fails the
    // whole search. Anything but an object is damaged too (and would throw on lookup).
    if (!element.isObject() || !element.isMember("action") || !element["action"].isString() ||
        !element.isMember("run-as") || !element["run-as"].isString()) {
        VLIBCErrSet(PRIV_ERR_BAD_CONF);
        return WALK_FAILED;
    }
    if (element["action"].asString() != action_) {
        return WALK_CONTINUE;
    }
    identity_ = TranslateIdentity(element["run-as"].asString());
    return identity_ == IDENTITY_NONE ? WALK_FAILED : WALK_FOUND;
}

}  // namespace Privilege
}  // namespace ZARNPackageTool
