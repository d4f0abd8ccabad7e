#include <map>
#include <string>
#include <utility>

#include "platform/errors.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {
namespace Util {

namespace {

enum class VarKind { Text, Bool };

using VarMap = std::map<std::string, std::pair<std::string, VarKind>>;

bool HasMarker(const std::string& text) {
    return text.find("{{") != std::string::npos || text.find("}}") != std::string::npos;
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    std::string::size_type pos = 0;
    while ((pos = text.find(from, pos)) != std::string::npos) {
        text.replace(pos, from.size(), to);
        pos += to.size();
    }
}

void Substitute(const VarMap& vars, Json::Value& node) {
    if (node.isObject()) {
        for (const std::string& member : node.getMemberNames()) {
            Substitute(vars, node[member]);
        }
        return;
    }
    if (node.isArray()) {
        for (Json::Value& element : node) {
            Substitute(vars, element);
        }
        return;
    }
    if (!node.isString()) {
        return;
    }
    const std::string text = node.asString();
    auto exact = vars.find(text);
    if (exact != vars.end() && exact->second.second == VarKind::Bool) {
        node = Json::Value(exact->second.first == "true");
        return;
    }
    if (!HasMarker(text)) {
        return;
    }
    std::string result = text;
    for (const auto& var : vars) {
        if (var.second.second == VarKind::Text) {
            ReplaceAll(result, var.first, var.second.first);
        }
    }
    // A value still holding a marker has a variable nobody gave: the whole value goes.
    node = HasMarker(result) ? Json::Value() : Json::Value(result);
}

void RemoveNulls(Json::Value& node) {
    if (node.isObject()) {
        for (const std::string& member : node.getMemberNames()) {
            if (node[member].isNull()) {
                // By its bounds: a member name may hold a NUL, where the C string form would
                // stop and remove another member or none.
                node.removeMember(member.data(), member.data() + member.size(), nullptr);
            } else {
                RemoveNulls(node[member]);
            }
        }
    } else if (node.isArray()) {
        Json::Value kept(Json::arrayValue);
        for (Json::Value& element : node) {
            if (!element.isNull()) {
                RemoveNulls(element);
                kept.append(element);
            }
        }
        node = kept;
    }
}

}  // namespace

bool ReplaceVariables(const Json::Value& dict, Json::Value& target) {
    if (!dict.isObject()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    VarMap vars;
    for (const std::string& member : dict.getMemberNames()) {
        const Json::Value& value = dict[member];
        if (value.isNull() || value.isObject() || value.isArray()) {
            continue;
        }
        vars["{{" + member + "}}"] =
            std::make_pair(value.asString(), value.isBool() ? VarKind::Bool : VarKind::Text);
    }
    Substitute(vars, target);
    RemoveNulls(target);
    return true;
}

}  // namespace Util
}  // namespace ZARNPackageTool
