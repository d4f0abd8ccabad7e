#include <algorithm>

#include "core/packagemanager.h"
#include "platform/log.h"
#include "platform/services.h"

namespace ZARNPackageTool {

namespace {
const std::map<std::string, unsigned int> kServiceBits = {{"ssh", 0x8}, {"pgsql", 0x10}};
}

unsigned int PackageManager::PMSExplodeServiceString(const char* names) {
    if (names == nullptr) {
        return 0;
    }
    unsigned int mask = 0;
    for (const auto& name : PMSExplodeString(names, " \t")) {
        auto it = kServiceBits.find(name);
        if (it != kServiceBits.end()) {
            mask |= it->second;
        }
    }
    return mask;
}

std::set<std::string> PackageManager::getServiceSetFromString(const char* names) {
    std::set<std::string> out;
    if (names == nullptr) {
        return out;
    }
    std::vector<std::string> known;
    if (!VLIBServiceEnum(known)) {
        ZLOGERR("VLIBServiceEnum failed %s", ZARNLastErrorSuffix().c_str());
        return out;
    }
    for (auto name : PMSExplodeString(names, " \t")) {
        if (name == "ssh") {
            name = "ssh-shell";
        }
        if (std::find(known.begin(), known.end(), name) != known.end()) {
            out.insert(name);
        }
    }
    return out;
}

void PackageManager::parseService(unsigned int mask, Json::Value& out) {
    out = Json::Value(Json::arrayValue);
    for (const auto& [name, bit] : kServiceBits) {
        if (mask & bit) {
            out.append(name);
        }
    }
}

}  // namespace ZARNPackageTool
