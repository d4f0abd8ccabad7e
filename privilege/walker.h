#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {
namespace Privilege {

// What a walker tells the loop after one list element.
enum WalkResult : int {
    WALK_FAILED = 0,    // the loop ends, the traversal fails
    WALK_FOUND = 1,     // the loop ends, the traversal succeeds
    WALK_CONTINUE = 2,  // the next element follows
};

// Does the work of one element of a list of conf/privilege.
class ZARNPKG_API IWalker {
public:
    virtual ~IWalker() = default;
    virtual int walk(Json::Value const& element) = 0;
};

// Finds the identity of one script action in "ctrl-script".
class ZARNPKG_API CtrlScriptWalker : public IWalker {
public:
    explicit CtrlScriptWalker(std::string const& action) : action_(action) {}
    int walk(Json::Value const& element) override;
    // The identity of the matching entry; 0 when none matched.
    int GetIdentity() const { return identity_; }

private:
    std::string action_;
    int identity_ = 0;
};

// Hands each object element of `config[key]` to the walker, in order. A missing list, or one
// that is not an array, is no failure; elements that are not objects are skipped.
ZARNPKG_API bool TraversePrivilege(Json::Value const& config, std::string const& key,
                                   IWalker& walker);

}  // namespace Privilege
}  // namespace ZARNPackageTool
