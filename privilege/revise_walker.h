#pragma once

#include <json/json.h>

#include <initializer_list>
#include <string>

#include "core/export.h"
#include "platform/fd.h"
#include "privilege/walker.h"

namespace ZARNPackageTool {
namespace Privilege {

// A walker that changes files under a top folder for a package whose account numbers are
// known.
// True when `relpath` below `top` names or passes through a symbolic link.
ZARNPKG_API bool RelPathCrossesLink(std::string const& top, std::string const& relpath);

class ZARNPKG_API ReviseWalker : public IWalker {
public:
    ReviseWalker(std::string const& topDir, unsigned int pkgUid, unsigned int pkgGid)
        : topDir_(topDir), pkgUid_(pkgUid), pkgGid_(pkgGid) {}

    std::string const& GetTopDir() const { return topDir_; }
    unsigned int GetPkgUid() const { return pkgUid_; }
    unsigned int GetPkgGid() const { return pkgGid_; }

protected:
    // Resolves the element's "relpath" under the top folder and opens the regular file there
    // read-only; the descriptor, invalid with the error slot set (the path is given back). A
    // relpath that names or passes through a symbolic link inside the folder is passed over,
    // logged, with `skip` set: a walker changes the package's files, never what a link points
    // at.
    Fd OpenRelPath(std::string const& relpath, std::string& path, bool& skip) const;
    // The same for a list element, once each of `keys` (the first being "relpath") is found
    // there as a string; a missing or other-typed key is bad content.
    Fd OpenElement(Json::Value const& element, std::initializer_list<const char*> keys,
                   std::string& path, bool& skip) const;

private:
    std::string topDir_;
    unsigned int pkgUid_;
    unsigned int pkgGid_;
};

}  // namespace Privilege
}  // namespace ZARNPackageTool
