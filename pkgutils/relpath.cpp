#include "pkgutils/relpath.h"

#include <cerrno>
#include <vector>

#include "platform/errors.h"
#include "platform/fileattr.h"
#include "platform/files.h"

namespace ZARN {
namespace PkgUtils {

namespace {

std::vector<std::string> Components(const std::string& path) {
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    while (start <= path.size()) {
        std::string::size_type pos = path.find('/', start);
        if (pos == std::string::npos) {
            pos = path.size();
        }
        std::string part = path.substr(start, pos - start);
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = pos + 1;
    }
    return parts;
}

bool IsInside(const std::string& top, const std::string& path) {
    if (path == top) {
        return true;
    }
    const std::string prefix = top == "/" ? top : top + "/";
    return path.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

bool IsLegalRelPath(const std::string& root, const std::string& relpath) {
    if (root.empty() || relpath.empty() || relpath[0] == '/' ||
        relpath.find('\0') != std::string::npos || root.find('\0') != std::string::npos) {
        return false;
    }
    for (const std::string& part : Components(relpath)) {
        if (part == "..") {
            return false;
        }
    }
    return !Components(relpath).empty();
}

bool ResolveRelPath(const std::string& root, const std::string& relpath, std::string& fullpath) {
    fullpath.clear();
    if (!IsLegalRelPath(root, relpath)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    std::string top;
    if (!ZARNRealPath(root, top)) {
        return false;
    }
    // Each existing step is resolved and must stay inside: a link that leaves the top folder
    // is refused even when a later ".." of its target would come back in.
    std::string current = top;
    const std::vector<std::string> parts = Components(relpath);
    size_t i = 0;
    for (; i < parts.size(); ++i) {
        const std::string candidate = (current == "/" ? "" : current) + "/" + parts[i];
        if (!ZARNPathExists(candidate)) {
            break;
        }
        std::string real;
        if (!ZARNRealPath(candidate, real)) {
            return false;  // a dangling link: where it leads can't be judged
        }
        if (!IsInside(top, real)) {
            errno = EXDEV;
            VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
            return false;
        }
        current = real;
    }
    for (; i < parts.size(); ++i) {
        current += (current == "/" ? "" : "/") + parts[i];
    }
    fullpath = current;
    return true;
}

}  // namespace PkgUtils
}  // namespace ZARN
