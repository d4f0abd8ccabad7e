#pragma once

#include <sys/types.h>

#include <string>

#include "privilege/revise_walker.h"

namespace ZARNPackageTool {
namespace Privilege {

// The "permission" of a "tool" entry: exactly four octal digits, set-ID and sticky bits
// included. Signs and blanks that strtoul would pass over are refused as well.
ZARNPKG_API bool ParseToolPermission(std::string const& text, mode_t& mode);

// "tool": gives one file a user, a group and a mode of its own.
class ZARNPKG_API ToolWalker : public ReviseWalker {
public:
    using ReviseWalker::ReviseWalker;
    int walk(Json::Value const& element) override;
};

}  // namespace Privilege
}  // namespace ZARNPackageTool
