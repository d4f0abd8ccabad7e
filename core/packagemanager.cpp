#include "core/packagemanager.h"

#include <sys/stat.h>

#include <ctime>

#include "core/infoloader.h"
#include "core/registry.h"
#include "core/version.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"

namespace ZARNPackageTool {

struct PackageManagerPrivate {
    PKG_ERRCODE result = PKG_ERR_SUCCESS;
    Json::Value resultData;
    unsigned int intParam = 0;
    std::map<std::string, std::string> mapParams;
    PackageInfo packageInfo;
    PackageManager::BreakerSnapshot breakers;
};

namespace {

// Process-wide on purpose: ExLock is static and has no object to ask.
bool g_skipUpgradeCheck = false;

constexpr const char* kScriptsDir = "/usr/local/etc/rc.d";

bool MakeRegistryDir(const char* path) {
    if (ZARNFSMkdirP(path, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) < 0) {
        return false;
    }
    if (!ZARNChmod(path, 0755)) {
        ZLOGERR("chmod failed for %s (%m)", path);
    }
    return true;
}

}  // namespace

PackageManager::PackageManager() : d_(new PackageManagerPrivate) {}
PackageManager::~PackageManager() = default;

bool PackageManager::init() {
    unsigned long arch = PMSGetSystemArch();
    if (arch == PKG_ARCH_UNAVAILABLE) {
        ZLOGERR("Failed to get system arch");
        setResult(PKG_ERR_SYSTEM);
        return false;
    }
    d_->packageInfo.extra.get()->arch_ids.insert(arch);
    if (!MakeRegistryDir(PKG_REGISTRY_DIR)) {
        ZLOGERR("Failed to init packages registry dir %s", PKG_REGISTRY_DIR);
        setResult(PKG_ERR_SYSTEM);
        return false;
    }
    if (!MakeRegistryDir(kScriptsDir)) {
        ZLOGERR("Failed to init packages scripts dir %s", kScriptsDir);
        setResult(PKG_ERR_SYSTEM);
        return false;
    }
    return true;
}

void PackageManager::setResult(PKG_ERRCODE code) {
    d_->result = code;
    d_->resultData = Json::Value();
}

void PackageManager::setResult(PKG_ERRCODE code, Json::Value data) {
    d_->result = code;
    d_->resultData = std::move(data);
}

PKG_ERRCODE PackageManager::getResult() const {
    return d_->result;
}

PKG_ERRCODE PackageManager::getResult(Json::Value& data) const {
    data = d_->resultData;
    return d_->result;
}

void PackageManager::setIntParam(unsigned int value) {
    d_->intParam = value;
}
unsigned int PackageManager::getIntParam() const {
    return d_->intParam;
}

void PackageManager::insertMapParam(const std::string& key, const std::string& value) {
    d_->mapParams.emplace(key, value);
}

void PackageManager::insertJsonParam(const std::string& key, const Json::Value& value) {
    d_->mapParams.emplace(key, Json::toCompactString(value));
}

std::string PackageManager::getMapParam(const std::string& key) const {
    auto it = d_->mapParams.find(key);
    return it == d_->mapParams.end() ? "" : it->second;
}

Json::Value PackageManager::getJsonParam(const std::string& key) const {
    auto it = d_->mapParams.find(key);
    if (it == d_->mapParams.end()) {
        return Json::Value("");
    }
    Json::Value value;
    Json::fromString(value, it->second);
    return value;
}

const std::map<std::string, std::string>& PackageManager::getMapParams() const {
    return d_->mapParams;
}

const PackageInfo* PackageManager::getPackageInfoData() const {
    return &d_->packageInfo;
}
PackageInfo* PackageManager::getPackageInfoData() {
    return &d_->packageInfo;
}

PackageManager::BreakerSnapshot PackageManager::makeBreakerSnapshot() {
    // Read the way a single query reads the breakers, not taken from a caller's records: a
    // record loaded with a wider mask is missing when its INFO lacks a key that the wider load
    // insists on (a maintainer, say), yet its break list still counts.
    auto breakers = std::make_shared<std::map<std::string, PackageInfo>>();
    scanBreakers(*breakers, nullptr);
    return breakers;
}

PackageManager::BreakerSnapshot PackageManager::makeBreakerSnapshot(
    const std::vector<PackageInfo>& records, const std::vector<std::string>& refused) {
    auto breakers = std::make_shared<std::map<std::string, PackageInfo>>();
    for (const auto& info : records) {
        if (!info.extra.get()->install_break_packages.empty()) {
            breakers->emplace(info.name, info);
        }
    }
    // The narrower load may take what the wider one refused (an INFO without a maintainer).
    for (const auto& folder : refused) {
        PackageInfo info;
        if (PMSLoadPKGInfoFile(PMSRegistryDir(folder), info, nullptr, PKG_MASK_BREAKERS) &&
            !info.extra.get()->install_break_packages.empty()) {
            breakers->emplace(info.name, std::move(info));
        }
    }
    return breakers;
}

void PackageManager::useBreakerSnapshot(BreakerSnapshot snapshot) {
    d_->breakers = std::move(snapshot);
}

const PackageManager::BreakerSnapshot& PackageManager::breakerSnapshot() const {
    return d_->breakers;
}

bool PackageManager::isBrokenByInstalled(const PackageBasicInfo& pkg) {
    if (d_->breakers) {
        return IsBrokenByOtherPkg(pkg, nullptr, *d_->breakers);
    }
    return IsBrokenByOtherPkg(pkg, nullptr, nullptr);
}

void PackageManager::setSkipUpgradeCheck(bool skip) {
    g_skipUpgradeCheck = skip;
}
bool PackageManager::getSkipUpgradeCheck() {
    return g_skipUpgradeCheck;
}

std::string PackageManager::getFixedLogFilePath(const std::string& name) {
    logFilePath_ = "/tmp/zarnpkgmgr.log-" + name;
    return logFilePath_;
}

std::string PackageManager::getLogFilePath() const {
    return logFilePath_;
}

bool PackageManager::move(const std::string&, const std::string&) {
    setResult(PKG_ERR_SYSTEM);
    return false;
}

std::string PackageManager::getUpdatedAt(const std::string& name) {
    const std::string path = PMSRegistryDir(name) + "/etc";
    struct stat st;
    if (!ZARNLstat(path, st)) {
        ZLOGERR("stat %s failed [%m]", path.c_str());
        return "";
    }
    struct tm local;
    localtime_r(&st.st_mtime, &local);
    char buf[32];
    std::strftime(buf, sizeof(buf), "%Y/%m/%d", &local);
    return buf;
}

}  // namespace ZARNPackageTool
