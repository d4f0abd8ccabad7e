#include <cstdlib>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "platform/json.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

std::string Text(const Json::Value& data, const char* key, const char* def) {
    const Json::Value& v = data.get(key, def);
    if (v.isString()) {
        return v.asString();
    }
    if (v.isNumeric() || v.isBool()) {
        return Json::toCompactString(v);
    }
    return def;
}

bool Flag(const Json::Value& data, const char* key) {
    const Json::Value& v = data.get(key, false);
    if (v.isBool()) {
        return v.asBool();
    }
    if (v.isString()) {
        return v.asString() == "yes" || v.asString() == "true";
    }
    return v.isNumeric() && v.asDouble() != 0;
}

// A dependency member: an object through the JSON form, text through the string form.
void DepMember(const Json::Value& data, const char* jsonKey, const char* stringKey,
               DepPkgVector& out) {
    if (data.isMember(jsonKey)) {
        const Json::Value& v = data[jsonKey];
        if (v.isString()) {
            PMSParseDepJSONString(v.asString(), out);
        } else {
            PMSParseDepJSON(v, out);
        }
    } else if (data[stringKey].isString()) {
        PMSExplodeDepPKGString(data[stringKey].asCString(), out);
    }
}

Json::Value Strings(const std::vector<std::string>& items) {
    Json::Value out(Json::arrayValue);
    for (const auto& s : items) {
        out.append(s);
    }
    return out;
}

std::string OSText(const OSVersionNumbers& v, int nano, int defaultNano) {
    std::string text =
        std::to_string(v.major) + "." + std::to_string(v.minor) + "-" + std::to_string(v.build);
    if (nano != defaultNano) {
        text += "-" + std::to_string(nano);
    }
    return text;
}

}  // namespace

bool PMSMapJsonToPackageInfo(const Json::Value& data, PackageInfo& info) {
    if (!data.isObject()) {
        ZLOGERR("Format Error: jsData is not json object");
        return false;
    }
    PackageInfoExtraPrivate& x = *info.extra.get();
    info.name = Text(data, "package", "");
    info.version = Text(data, "version", "");
    info.displayname = Text(data, "dname", "");
    info.description = Text(data, "desc", "");
    info.maintainer = Text(data, "maintainer", "");
    info.maintainer_url = Text(data, "maintainer_url", "");
    info.distributor = Text(data, "distributor", "");
    info.distributor_url = Text(data, "distributor_url", "");
    info.silent_install = Flag(data, "silent_install");
    info.silent_upgrade = Flag(data, "silent_upgrade");
    info.silent_uninstall = Flag(data, "silent_uninstall");
    info.link = Text(data, "link", "");
    info.size = std::strtoull(Text(data, "size", "0").c_str(), nullptr, 10);
    info.type = std::atoi(Text(data, "type", "0").c_str());
    info.md5 = Text(data, "md5", "");
    info.beta = Flag(data, "beta");
    x.ctl_install = Text(data, "ctl_install", "yes") == "yes";
    if (data["depsers"].isString()) {
        const char* services = data["depsers"].asCString();
        info.install_dep_services = PackageManager::PMSExplodeServiceString(services);
        x.install_dep_service_set = PackageManager::getServiceSetFromString(services);
    }
    DepMember(data, "conf_conxpkgs", "conflictpkgs", info.install_conflict_packages);
    DepMember(data, "conf_deppkgs", "deppkgs", info.install_dep_packages);
    if (data["breakpkgs"].isString()) {
        PMSExplodeDepPKGString(data["breakpkgs"].asCString(), x.install_break_packages);
    }
    if (data["replacepkgs"].isString()) {
        PMSExplodeDepPKGString(data["replacepkgs"].asCString(), x.install_replace_packages);
    }
    if (data["replaceforcepkgs"].isString()) {
        PMSExplodeDepPKGString(data["replaceforcepkgs"].asCString(),
                               x.install_replace_force_packages);
    }
    return true;
}

void PMSPackageInfoToJson(const PackageInfo& info, Json::Value& out) {
    const PackageInfoExtraPrivate& x = *info.extra.get();
    out = Json::Value(Json::objectValue);
    out["package"] = info.name;
    out["version"] = info.version;
    out["displayname"] = info.displayname;
    out["description"] = info.description;
    out["description_enu"] = info.description_enu;
    out["maintainer"] = info.maintainer;
    out["maintainer_url"] = info.maintainer_url;
    out["distributor"] = info.distributor;
    out["distributor_url"] = info.distributor_url;
    out["adminurl"] = info.adminurl;
    out["adminport"] = info.adminport;
    out["adminprotocol"] = Strings(info.adminprotocol);
    out["kosuidir"] = info.kosuidir;
    out["kosappname"] = info.kosappname;
    out["helpurl"] = info.helpurl;
    out["checksum"] = info.checksum;
    out["report_url"] = info.report_url;
    out["beta"] = info.beta;
    out["support_center"] = info.support_center;
    out["support_url"] = info.support_url;
    out["checkport"] = info.checkport;
    out["startable"] = info.startable;
    out["install_reboot"] = info.install_reboot;
    out["arch"] = Strings(info.arch);
    out["exclude_arch"] = Strings(info.exclude_arch);
    out["model"] = Strings(info.model);
    out["exclude_model"] = Strings(x.exclude_model);
    out["os_min_ver"] = OSText(x.os_min_ver, x.os_min_nano, 0);
    out["os_max_ver"] = OSText(x.os_max_ver, x.os_max_nano, 99999);
    out["instuninst_restart_services"] = info.instuninst_restart_services;
    out["startstop_restart_services"] = info.startstop_restart_services;
    out["install_dep_services"] =
        Strings({x.install_dep_service_set.begin(), x.install_dep_service_set.end()});
    out["start_dep_services"] =
        Strings({x.start_dep_service_set.begin(), x.start_dep_service_set.end()});
    info.install_dep_packages.toJSON(out["install_dep_packages"]);
    info.install_conflict_packages.toJSON(out["install_conflict_packages"]);
    x.install_break_packages.toJSON(out["install_break_packages"]);
    x.install_replace_packages.toJSON(out["install_replace_packages"]);
    x.install_replace_force_packages.toJSON(out["install_replace_force_packages"]);
    out["extractsize"] = static_cast<Json::Int64>(info.extractsize);
    out["silent_install"] = info.silent_install;
    out["silent_upgrade"] = info.silent_upgrade;
    out["silent_uninstall"] = info.silent_uninstall;
    out["install_type"] = info.install_type;
    out["precheckstartstop"] = x.precheckstartstop;
    out["use_deprecated_replace_mechanism"] = x.use_deprecated_replace_mechanism;
    out["ctl_uninstall"] = x.ctl_uninstall;
    out["ctl_stop"] = info.startable;
    out["support_move"] = x.support_move;
    out["install_on_cold_storage"] = x.install_on_cold_storage;
    out["kosapplaunchname"] = x.kosapplaunchname;
    out["target_volume"] = x.target_volume;
    if (!info.wizard.isNull()) {
        out["wizard"] = info.wizard;
    }
}

}  // namespace ZARNPackageTool
