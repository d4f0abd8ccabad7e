#pragma once

#include "privilege/revise_walker.h"

namespace ZARNPackageTool {
namespace Privilege {

// "executable": gives one file the owner of an identity ("package", "system" or "root").
class ZARNPKG_API ExeWalker : public ReviseWalker {
public:
    using ReviseWalker::ReviseWalker;
    int walk(Json::Value const& element) override;
};

}  // namespace Privilege
}  // namespace ZARNPackageTool
