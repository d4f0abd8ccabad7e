#pragma once

#include "privilege/revise_walker.h"

namespace ZARNPackageTool {
namespace Privilege {

// "tool": gives one file a user, a group and a mode of its own.
class ZARNPKG_API ToolWalker : public ReviseWalker {
public:
    using ReviseWalker::ReviseWalker;
    int walk(Json::Value const& element) override;
};

}  // namespace Privilege
}  // namespace ZARNPackageTool
