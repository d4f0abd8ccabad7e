#include "platform/csp_rule.h"

#include <cerrno>

#include "platform/apppriv.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/json.h"

namespace ZARN {
namespace KOS {

namespace {

constexpr const char* kRuleDir = "/etc/zarnhost/csp-rules";

bool NoteReload(bool reload, const std::string& package) {
    return !reload || ZARNEventLog("web server reloads content security rules of " + package);
}

}  // namespace

CspRule::CspRule(const std::string& package, bool reload) : package_(package), reload_(reload) {}

std::string CspRule::PathOf(const std::string& package) {
    return std::string(kRuleDir) + "/" + package + ".json";
}

bool CspRule::Save(const Json::Value& rules) const {
    if (!ZARNJobNameValid(package_) || !(rules.isObject() || rules.isArray())) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (ZARNFSMkdirP(kRuleDir, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) != 0 ||
        !Json::toFile(rules, PathOf(package_))) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    return NoteReload(reload_, package_);
}

bool CspRule::Delete() const {
    if (!ZARNJobNameValid(package_)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (!ZARNUnlink(PathOf(package_)) && errno != ENOENT) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    return NoteReload(reload_, package_);
}

}  // namespace KOS
}  // namespace ZARN
