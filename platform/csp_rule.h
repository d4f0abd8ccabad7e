#pragma once

#include <json/json.h>

#include <string>

#include "platform/export.h"

namespace ZARN {
namespace KOS {

// The content-security-policy rules that a package adds to the web server's rule set, kept as
// one JSON file per package under /etc/zarnhost/csp-rules in the root.
class ZARNHOST_API CspRule {
public:
    // `reload` asks the web server to take the changed rule set at once (noted in the events
    // log on the standalone host).
    CspRule(const std::string& package, bool reload);

    // Saves the package's rules: an object or an array. False (last error set) for another
    // form, a bad package name or a failed write.
    bool Save(const Json::Value& rules) const;
    // Removes the package's rules; rules that aren't there are no failure.
    bool Delete() const;

    static std::string PathOf(const std::string& package);

private:
    std::string package_;
    bool reload_;
};

}  // namespace KOS
}  // namespace ZARN
