#include "core/packageinfo.h"

#include <algorithm>

namespace ZARNPackageTool {

ArchIdSet::ArchIdSet(std::initializer_list<unsigned long> ids) {
    insert(ids.begin(), ids.end());
}

void ArchIdSet::insert(unsigned long id) {
    auto at = std::lower_bound(ids_.begin(), ids_.end(), id);
    if (at == ids_.end() || *at != id) {
        ids_.insert(at, id);
    }
}

size_t ArchIdSet::count(unsigned long id) const {
    return std::binary_search(ids_.begin(), ids_.end(), id) ? 1 : 0;
}

PackageBasicInfoExtra::PackageBasicInfoExtra() : d_(new PackageBasicInfoExtraPrivate) {}
PackageBasicInfoExtra::PackageBasicInfoExtra(const PackageBasicInfoExtra&)
    : d_(new PackageBasicInfoExtraPrivate) {}
PackageBasicInfoExtra& PackageBasicInfoExtra::operator=(const PackageBasicInfoExtra& other) {
    if (this != &other) {
        delete d_;
        d_ = new PackageBasicInfoExtraPrivate;
    }
    return *this;
}
PackageBasicInfoExtra::~PackageBasicInfoExtra() {
    delete d_;
}

PackageBasicInfo::PackageBasicInfo() = default;
PackageBasicInfo::PackageBasicInfo(std::string n, std::string v)
    : name(std::move(n)), version(std::move(v)) {}

PackageInfoExtra::PackageInfoExtra() : d_(new PackageInfoExtraPrivate) {}
PackageInfoExtra::PackageInfoExtra(const PackageInfoExtra& other)
    : d_(new PackageInfoExtraPrivate) {
    copy(other);
}
PackageInfoExtra& PackageInfoExtra::operator=(const PackageInfoExtra& other) {
    if (this != &other) {
        delete d_;
        d_ = new PackageInfoExtraPrivate;
        copy(other);
    }
    return *this;
}
PackageInfoExtra::~PackageInfoExtra() {
    delete d_;
}

void PackageInfoExtra::copy(const PackageInfoExtra& other) {
    // The excluded models and the deprecated replace flag are not carried: a copy keeps their
    // defaults, so code that honours them must work on a record loaded directly.
    const PackageInfoExtraPrivate& o = *other.d_;
    PackageInfoExtraPrivate& t = *d_;
    t.precheckstartstop = o.precheckstartstop;
    t.os_min_ver = o.os_min_ver;
    t.os_max_ver = o.os_max_ver;
    t.ctl_uninstall = o.ctl_uninstall;
    t.ctl_install = o.ctl_install;
    t.target_volume = o.target_volume;
    t.install_dep_service_set = o.install_dep_service_set;
    t.start_dep_service_set = o.start_dep_service_set;
    t.arch_ids = o.arch_ids;
    t.exclude_arch_ids = o.exclude_arch_ids;
    t.os_min_nano = o.os_min_nano;
    t.os_max_nano = o.os_max_nano;
    t.support_move = o.support_move;
    t.install_on_cold_storage = o.install_on_cold_storage;
    t.kosapplaunchname = o.kosapplaunchname;
    t.install_break_packages = o.install_break_packages;
    t.install_replace_packages = o.install_replace_packages;
    t.install_replace_force_packages = o.install_replace_force_packages;
}

void PackageInfoExtra::dropUncopiedFields() {
    const PackageInfoExtraPrivate defaults;
    d_->exclude_model = defaults.exclude_model;
    d_->use_deprecated_replace_mechanism = defaults.use_deprecated_replace_mechanism;
}

OSVersionNumbers PMSGetOSMinVer(const PackageInfo& info) {
    return info.extra.get()->os_min_ver;
}
OSVersionNumbers PMSGetOSMaxVer(const PackageInfo& info) {
    return info.extra.get()->os_max_ver;
}
int PMSGetOSMinVerNano(const PackageInfo& info) {
    return info.extra.get()->os_min_nano;
}
int PMSGetOSMaxVerNano(const PackageInfo& info) {
    return info.extra.get()->os_max_nano;
}
bool PMSGetCtlUninstall(const PackageInfo& info) {
    return info.extra.get()->ctl_uninstall;
}
bool PMSGetSupportMove(const PackageInfo& info) {
    return info.extra.get()->support_move;
}
bool PMSGetIntallOnColdStorage(const PackageInfo& info) {
    return info.extra.get()->install_on_cold_storage;
}
std::string PMSGetAppLaunchName(const PackageInfo& info) {
    return info.extra.get()->kosapplaunchname;
}
bool PMSGetPrecheckStartStop(const PackageInfo& info) {
    return info.extra.get()->precheckstartstop;
}
bool PMSGetUseDeprecatedReplaceMechanism(const PackageInfo& info) {
    return info.extra.get()->use_deprecated_replace_mechanism;
}
std::string PMSGetTargetVolume(const PackageInfo& info) {
    return info.extra.get()->target_volume;
}
const std::vector<std::string>& PMSGetExcludeModels(const PackageInfo& info) {
    return info.extra.get()->exclude_model;
}

const std::map<unsigned long long, std::string> g_MappingPKGInfoFields = {
    {PKG_INFO_PACKAGE, "package"},
    {PKG_INFO_VERSION, "version"},
    {PKG_INFO_DESCRIPTION, "description"},
    {PKG_INFO_DISPLAYNAME, "displayname"},
    {PKG_INFO_MAINTAINER, "maintainer"},
    {PKG_INFO_DISTRIBUTOR, "distributor"},
    {PKG_INFO_ARCH, "arch"},
    {PKG_INFO_EXCLUDE_ARCH, "exclude_arch"},
    {PKG_INFO_MODEL, "model"},
    {PKG_INFO_ADMINPROTOCOL, "adminprotocol"},
    {PKG_INFO_ADMINURL, "adminurl"},
    {PKG_INFO_ADMINPORT, "adminport"},
    {PKG_INFO_FIRMWARE, "firmware"},
    {PKG_INFO_KOSUIDIR, "kosuidir"},
    {PKG_INFO_KOSAPPNAME, "kosappname"},
    {PKG_INFO_CHECKPORT, "checkport"},
    {PKG_INFO_STARTABLE, "startable"},
    {PKG_INFO_HELPURL, "helpurl"},
    {PKG_INFO_INSTALL_REBOOT, "install_reboot"},
    {PKG_INFO_INSTALL_DEP_PACKAGES, "install_dep_packages"},
    {PKG_INFO_INSTALL_DEP_SERVICES, "install_dep_services"},
    {PKG_INFO_INSTUNINST_RESTART_SERVICES, "instuninst_restart_services"},
    {PKG_INFO_STARTSTOP_RESTART_SERVICES, "startstop_restart_services"},
    {PKG_INFO_START_DEP_SERVICES, "start_dep_services"},
    {PKG_INFO_CHECKSUM, "checksum"},
    {PKG_INFO_PACKAGE_ICON, "package_icon"},
    {PKG_INFO_PACKAGE_ICON_256, "package_icon_256"},
    {PKG_INFO_REPORT_URL, "report_url"},
    {PKG_INFO_SUPPORT_CENTER, "support_center"},
    {PKG_INFO_SUPPORT_URL, "support_url"},
    {PKG_INFO_ALLOW_ALTPORT, "allow_altport"},
    {PKG_INFO_EXTRACTSIZE, "extractsize"},
    {PKG_INFO_INSTALL_CONFLICT_PACKAGES, "install_conflict_packages"},
    {PKG_INFO_DISTRIBUTOR_URL, "distributor_url"},
    {PKG_INFO_MAINTAINER_URL, "maintainer_url"},
    {PKG_INFO_SILENT_INSTALL, "silent_install"},
    {PKG_INFO_SILENT_UPGRADE, "silent_upgrade"},
    {PKG_INFO_SILENT_UNINSTALL, "silent_uninstall"},
    {PKG_INFO_INSTALL_TYPE, "install_type"},
    {PKG_INFO_PRECHECKSTARTSTOP, "precheckstartstop"},
    {PKG_INFO_BETA, "beta"},
    {PKG_INFO_OS_MIN_VER, "os_min_ver"},
    {PKG_INFO_OS_MAX_VER, "os_max_ver"},
    {PKG_INFO_CTL_UNINSTALL, "ctl_uninstall"},
    {PKG_INFO_CTL_STOP, "ctl_stop"},
    {PKG_INFO_INSTALL_REPLACE_PACKAGES, "install_replace_packages"},
    {PKG_INFO_INSTALL_REPLACE_FORCE_PACKAGES, "install_replace_force_packages"},
    {PKG_INFO_INSTALL_BREAK_PACKAGES, "install_break_packages"},
    {PKG_INFO_SUPPORT_MOVE, "support_move"},
    {PKG_INFO_USE_DEPRECATED_REPLACE_MECHANISM, "use_deprecated_replace_mechanism"},
    {PKG_INFO_INSTALL_ON_COLD_STORAGE, "install_on_cold_storage"},
    {PKG_INFO_EXCLUDE_MODEL, "exclude_model"},
    {PKG_INFO_KOSAPPLAUNCHNAME, "kosapplaunchname"},
};

const std::map<unsigned long long, unsigned long long> g_MappingPKGInfoAdditional = {
    {PKG_INFO_DESCRIPTION, PKG_MASK_DESCRIPTION},
    {PKG_INFO_DISPLAYNAME, PKG_MASK_DISPLAYNAME},
    {PKG_INFO_MAINTAINER, PKG_MASK_MAINTAINER},
    {PKG_INFO_DISTRIBUTOR, PKG_MASK_DISTRIBUTOR},
    {PKG_INFO_ADMINPROTOCOL, PKG_MASK_ADMIN},
    {PKG_INFO_ADMINURL, PKG_MASK_ADMIN},
    {PKG_INFO_ADMINPORT, PKG_MASK_ADMIN},
    {PKG_INFO_KOSAPPNAME, PKG_MASK_KOSAPPNAME},
    {PKG_INFO_STARTABLE, PKG_MASK_CTL_STOP},
    {PKG_INFO_HELPURL, PKG_MASK_HELPURL},
    {PKG_INFO_INSTALL_REBOOT, PKG_MASK_INSTALL_REBOOT},
    {PKG_INFO_INSTALL_DEP_PACKAGES, PKG_MASK_DEP_PACKAGES},
    {PKG_INFO_INSTALL_DEP_SERVICES, PKG_MASK_INSTALL_DEP_SERVICES},
    {PKG_INFO_INSTUNINST_RESTART_SERVICES, PKG_MASK_RESTART_SERVICES},
    {PKG_INFO_STARTSTOP_RESTART_SERVICES, PKG_MASK_RESTART_SERVICES},
    {PKG_INFO_START_DEP_SERVICES, PKG_MASK_START_DEP_SERVICES},
    {PKG_INFO_PACKAGE_ICON, PKG_MASK_ICONS},
    {PKG_INFO_PACKAGE_ICON_256, PKG_MASK_ICONS},
    {PKG_INFO_REPORT_URL, PKG_MASK_BETA},
    {PKG_INFO_SUPPORT_CENTER, PKG_MASK_SUPPORT_CENTER},
    {PKG_INFO_SUPPORT_URL, PKG_MASK_SUPPORT_URL},
    {PKG_INFO_INSTALL_CONFLICT_PACKAGES, PKG_MASK_CONFLICTS},
    {PKG_INFO_DISTRIBUTOR_URL, PKG_MASK_DISTRIBUTOR_URL},
    {PKG_INFO_MAINTAINER_URL, PKG_MASK_MAINTAINER_URL},
    {PKG_INFO_SILENT_INSTALL, PKG_MASK_SILENT_INSTALL},
    {PKG_INFO_SILENT_UPGRADE, PKG_MASK_SILENT_UPGRADE},
    {PKG_INFO_SILENT_UNINSTALL, PKG_MASK_SILENT_UNINSTALL},
    {PKG_INFO_INSTALL_TYPE, PKG_MASK_INSTALL_TYPE},
    {PKG_INFO_BETA, PKG_MASK_BETA},
    {PKG_INFO_CTL_UNINSTALL, PKG_MASK_CTL_UNINSTALL},
    {PKG_INFO_CTL_STOP, PKG_MASK_CTL_STOP},
    {PKG_INFO_SUPPORT_MOVE, PKG_MASK_SUPPORT_MOVE},
    {PKG_INFO_INSTALL_ON_COLD_STORAGE, PKG_MASK_COLD_STORAGE},
    {PKG_INFO_KOSAPPLAUNCHNAME, PKG_MASK_APPLAUNCHNAME},
};

const std::map<int, std::string> UIFileMapping = {
    {PKG_INSTALLATION_INSTALL, "install_uifile"},
    {PKG_INSTALLATION_UPGRADE, "upgrade_uifile"},
    {PKG_INSTALLATION_UNINSTALL, "uninstall_uifile"},
};

const std::map<std::string, RestartServiceBits> MappingPKGRestartServices = {
    {"applenetwork", {0x1, 0}},
    {"samba", {0x4, 0}},
    {"cron", {0x8, 0}},
    {"nfs", {0x8000, 0}},
    {"mdns", {0x20000, 0}},
    {"nginx", {0x40000000, 0}},
    {"firewall", {0x40000000, 0x4000000}},
};

}  // namespace ZARNPackageTool
