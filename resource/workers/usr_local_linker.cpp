#include "resource/workers/usr_local_linker.h"

#include <glob.h>

#include <cerrno>
#include <vector>

#include "platform/errors.h"
#include "platform/fileglob.h"
#include "platform/files.h"
#include "platform/log.h"
#include "resource/resource_errors.h"

namespace ZARNPackageTool {
namespace Resource {

namespace {

const char* const kLinkTypes[] = {"bin", "lib", "etc"};

bool LinkPattern(const std::string& pattern, const std::string& folder, Json::Value& links) {
    std::vector<std::string> matches;
    // A pattern without a match stands for itself, so that its link is made all the same.
    if (ZARNGlob(pattern, GLOB_NOCHECK, matches) != 0) {
        ZLOGERR("Failed to glob %s [%m]", pattern.c_str());
        return false;
    }
    for (const std::string& match : matches) {
        const std::string link = folder + "/" + match.substr(match.rfind('/') + 1);
        if (!ZARNSymlink(match, link)) {
            ZLOGERR("Failed to create link %s -> %s (%m)", link.c_str(), match.c_str());
            return false;
        }
        links.append(link);
    }
    return true;
}

bool LinkList(const std::string& type, const Json::Value& list, const std::string& rootDir,
              Json::Value& links) {
    if (!list.isArray()) {
        ZLOGERR("\"%s\" of usr-local-linker is not an array", type.c_str());
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    if (list.empty()) {
        return true;
    }
    const std::string folder = "/usr/local/" + type;
    if (ZARNFSMkdirP(folder, 0, 1, 0, 0, 0755) != 0) {
        ZLOGERR("Failed to create %s %s", folder.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    for (const Json::Value& element : list) {
        if (!element.isString()) {
            ZLOGERR("\"%s\" of usr-local-linker holds a value that is not a string", type.c_str());
            VLIBCErrSet(ZARN_ERR_MALFORMED);
            return false;
        }
        const std::string pattern = rootDir + "/" + element.asString();
        if (!LinkPattern(pattern, folder, links)) {
            ZLOGERR("Failed to create link to %s %s", pattern.c_str(),
                    ZARNLastErrorSuffix().c_str());
            return false;
        }
    }
    return true;
}

// Only a name directly in one of the three folders, as Acquire makes them: ".." can't lead a
// damaged own file elsewhere.
bool IsLinkOfOurs(const std::string& path) {
    for (const char* type : kLinkTypes) {
        const std::string prefix = std::string("/usr/local/") + type + "/";
        if (path.compare(0, prefix.size(), prefix) == 0) {
            const std::string name = path.substr(prefix.size());
            return !name.empty() && name != "." && name != ".." &&
                   name.find('/') == std::string::npos;
        }
    }
    return false;
}

}  // namespace

int UsrLocalLinker::Acquire(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                            Json::Value& own, ZARN::PkgUtils::WorkerResp& /*resp*/) {
    own["links"] = Json::Value(Json::arrayValue);
    for (const char* type : kLinkTypes) {
        if (!LinkList(type, request.get(type, Json::Value(Json::arrayValue)), action.GetRootDir(),
                      own["links"])) {
            return 1;
        }
    }
    return 0;
}

int UsrLocalLinker::Rollback(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                             Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) {
    return Release(action, request, own, resp);
}

int UsrLocalLinker::Release(const ZARN::PkgUtils::ActionInfo& /*action*/,
                            const Json::Value& /*request*/, Json::Value& own,
                            ZARN::PkgUtils::WorkerResp& /*resp*/) {
    const Json::Value links = own.get("links", Json::Value(Json::arrayValue));
    if (!links.isArray()) {
        ZLOGERR("\"links\" of usr-local-linker is not an array");
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return 1;
    }
    for (const Json::Value& link : links) {
        if (!link.isString() || !IsLinkOfOurs(link.asString())) {
            continue;
        }
        if (!ZARNUnlink(link.asString()) && errno != ENOENT) {
            ZLOGERR("Failed to unlink %s (%m)", link.asCString());
            VLIBCErrSet(ZARN_ERR_UNLINK);
        }
    }
    own.removeMember("links");
    return 0;
}

}  // namespace Resource
}  // namespace ZARNPackageTool
