#include "package/archive.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>

#include "core/packagemanager.h"
#include "core/paths.h"
#include "core/registry.h"
#include "core/script_mask.h"
#include "core/version.h"
#include "package/checksum.h"
#include "package/webutils.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/os_version.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/scope_guard.h"
#include "platform/sysroot.h"
#include "platform/volumes.h"

namespace ZARNPackageTool {

namespace {

// Words blank-separated: a command line for the log, and a list in a message too.
std::string CommandText(const std::vector<std::string>& argv) {
    std::string text;
    for (const auto& a : argv) {
        text += (text.empty() ? "" : " ") + a;
    }
    return text;
}

// Runs a machine tool by argv; returns its exit status, or -1.
int RunTool(const std::vector<std::string>& argv, std::string& out, std::string& err) {
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    int rc = runner.run();
    out = runner.getStdout();
    err = runner.getStderr();
    return rc;
}

void LogRun(const std::string& command, const std::string& out, const std::string& err) {
    ZLOGERR("%s", command.c_str());
    if (!out.empty()) {
        ZLOGERR("stdout: %s", out.c_str());
    }
    if (!err.empty()) {
        ZLOGERR("stderr: %s", err.c_str());
    }
}

// The temp folder goes with everything in it on every path out of the caller.
void RemoveTmp(const std::string& tmp) {
    if (!tmp.empty() && ZARNPathExists(tmp) && !ZARNRemoveTree(tmp)) {
        ZLOGERR("Failed to rm tempdir %s", tmp.c_str());
    }
}

// Runs `use` on a fresh temporary folder for `file`; the folder goes on every path out.
bool WithTmpDir(const std::string& file, const char* prefix,
                const std::function<bool(const std::string&)>& use) {
    if (file.empty()) {
        ZLOGERR("Wrong parameters");
        return false;
    }
    const std::string tmp = PMSMakeTmpDir(prefix);
    if (tmp.empty()) {
        ZLOGERR("Failed to generate temp filename");
        return false;
    }
    ZARN_SCOPE_EXIT {
        RemoveTmp(tmp);
    };
    return use(tmp);
}

std::string OSVersionText(const OSVersionNumbers& v) {
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%d.%d-%04d", v.major, v.minor, v.build);
    return buf;
}

// The running OS as the bounds are shown, with its update when it has one.
std::string HostOSVersionText() {
    OSVersionNumbers host;
    host.major = ZARN_OS_MAJOR;
    host.minor = ZARN_OS_MINOR;
    host.build = ZARN_OS_BUILD;
    const int nano = PMSGetOSSubBuild();
    return OSVersionText(host) + (nano != 0 ? " (update " + std::to_string(nano) + ")" : "");
}

// The bound as the file check hands it on, with the running OS beside it so that the person
// told of the refusal learns both sides.
Json::Value OSBoundDetail(const OSVersionNumbers& v, int nano) {
    Json::Value detail(Json::objectValue);
    detail["major"] = v.major;
    detail["minor"] = v.minor;
    detail["build"] = v.build;
    detail["nano"] = nano;
    detail["hostVersion"] = HostOSVersionText();
    return detail;
}

// The members that are `name` or lie below it when it is a folder.
std::vector<const TarMember*> MembersUnder(const std::vector<TarMember>& members,
                                           const std::string& name) {
    std::vector<const TarMember*> found;
    for (const auto& m : members) {
        std::string n = m.name;
        while (n.compare(0, 2, "./") == 0) {
            n.erase(0, 2);
        }
        if (n == name || n.compare(0, name.size() + 1, name + "/") == 0) {
            found.push_back(&m);
        }
    }
    return found;
}

// Size of a member and of everything below it when it is a folder.
unsigned long long SizeUnder(const std::vector<TarMember>& members, const std::string& name) {
    unsigned long long total = 0;
    for (const TarMember* m : MembersUnder(members, name)) {
        total += m->size;
    }
    return total;
}

// conf/ and the wizard folder are unpacked whole by queries, a file each: a flood of members
// there would cost minutes and fill the temp folder long before any size limit.
bool FolderMemberCountsOk(const std::vector<TarMember>& members, std::string& why) {
    for (const char* folder : {"conf", "WIZARD_UIFILES"}) {
        const size_t count = MembersUnder(members, folder).size();
        if (count > PMS_QAR_FOLDER_MEMBERS_MAX) {
            why = std::to_string(count) + " members under " + folder + "/, more than " +
                  std::to_string(PMS_QAR_FOLDER_MEMBERS_MAX);
            return false;
        }
    }
    return true;
}

// Reads the INFO member straight from the archive into `tmp`/INFO: the payload is never
// touched, so the time doesn't grow with it.
bool ExtractInfo(const std::string& file, const std::vector<TarMember>& members,
                 const std::string& tmp, std::string& why) {
    const TarMember* info = PMSTarFindMember(members, "INFO");
    if (info == nullptr) {
        why = "no INFO member";
        return false;
    }
    if (info->type != '0' && info->type != '7') {
        why = "INFO is no regular file";
        return false;
    }
    if (info->size > PMS_QAR_INFO_MAX) {
        why = "INFO of " + std::to_string(info->size) + " bytes is larger than allowed";
        return false;
    }
    std::string text;
    if (!PMSTarReadMember(file, *info, PMS_QAR_INFO_MAX, text)) {
        why = "can't read INFO";
        return false;
    }
    if (!ZARNFileWrite(tmp + "/INFO", text, 0644)) {
        why = "can't write INFO";
        return false;
    }
    return true;
}

// Extracts INFO, conf and the control scripts; see queryPackageFileInfo.
bool ExtractMetadata(const std::string& file, const std::string& tmp, PackageInfo& info,
                     const char* lang, std::vector<TarMember>& members) {
    std::string why;
    if (!PMSQarListVetted(file, members, why) || !ExtractInfo(file, members, tmp, why)) {
        ZLOGERR("Failed to extract package INFO to %s", tmp.c_str());
        ZLOGERR("%s: %s", file.c_str(), why.c_str());
        return false;
    }
    std::string command, out, err;
    if (PMSTarHasMemberUnder(members, "conf")) {
        // The member is optional: a failure only leaves the record without its conf files,
        // unless the archive is hostile, which stops here.
        int rc = PMSQarExtract(file, members, {"conf"}, tmp, PMS_QAR_META_MAX, command, out, err);
        if (rc < 0) {
            return false;
        }
    }
    if (!PMSLoadPKGInfoFile(tmp, info, lang, PKG_MASK_ALL)) {
        info.script_mask = 0;
        return true;  // callers judge the record by its fields, above all the name
    }
    info.script_mask = 0;
    std::vector<std::string> scripts;
    for (const auto& name : PMSPackageScriptNames()) {
        const TarMember* m = PMSTarFindMember(members, "scripts/" + name);
        if (m != nullptr) {
            scripts.push_back(m->name);
        }
    }
    if (!scripts.empty()) {
        if (PMSQarExtract(file, members, scripts, tmp, PMS_QAR_META_MAX, command, out, err) < 0) {
            return false;
        }
    }
    info.script_mask = PMGetScriptMask(tmp + "/scripts");
    return true;
}

// The metadata every query of a package file starts from.
bool QueryMetadata(const std::string& file, const std::string& tmp, PackageInfo& info,
                   const char* lang, std::vector<TarMember>& members) {
    if (!ExtractMetadata(file, tmp, info, lang, members)) {
        ZLOGERR("Failed to query info");
        return false;
    }
    return true;
}

}  // namespace

std::string PMSProgramPath(const std::string& path) {
    const std::string phys = ZARNPhysicalPath(path);
    if (phys.empty() || phys[0] == '/') {
        return phys;
    }
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) {
        return phys;
    }
    return std::string(cwd) + "/" + phys;
}

const std::vector<std::string>& PMSPackageScriptNames() {
    static const std::vector<std::string> names = {
        "start-stop-status", "preinst",    "postinst",    "preuninst",
        "postuninst",        "preupgrade", "postupgrade",
    };
    return names;
}

bool PMSQarListVetted(const std::string& file, std::vector<TarMember>& members, std::string& why) {
    TarScanStatus st = PMSTarScan(file, members, why);
    if (st != TarScanStatus::Ok) {
        ZLOGERR("Refused archive %s: %s", file.c_str(), why.c_str());
        return false;
    }
    if (!PMSTarVetMembers(members, why) || !FolderMemberCountsOk(members, why)) {
        ZLOGERR("Refused archive %s: %s", file.c_str(), why.c_str());
        return false;
    }
    return true;
}

int PMSQarExtract(const std::string& file, const std::vector<TarMember>& members,
                  const std::vector<std::string>& names, const std::string& dir,
                  unsigned long long limit, std::string& command, std::string& out,
                  std::string& err) {
    unsigned long long total = 0;
    for (const auto& name : names) {
        if (!PMSTarHasMemberUnder(members, name)) {
            ZLOGERR("No member %s in %s", name.c_str(), file.c_str());
            return -1;
        }
        total += SizeUnder(members, name);
    }
    if (total > limit) {
        ZLOGERR("Refused to extract %llu bytes of %s from %s", total, names.front().c_str(),
                file.c_str());
        return -1;
    }
    std::vector<std::string> argv = {ZARNMachineProgram("/bin/tar"),
                                     "xf",
                                     PMSProgramPath(file),
                                     "-C",
                                     PMSProgramPath(dir),
                                     "--no-same-owner",
                                     "--no-same-permissions",
                                     "--no-overwrite-dir",
                                     "--"};
    argv.insert(argv.end(), names.begin(), names.end());
    command = CommandText(argv);
    int rc = RunTool(argv, out, err);
    if (rc != 0) {
        LogRun(command, out, err);
    }
    return rc;
}

bool PackageManager::queryPackageFileInfo(const std::string& file, PackageInfo& info,
                                          PKG_INSTALLATION_TYPE /*type*/, const char* lang) {
    return WithTmpDir(file, "pkgquery", [&](const std::string& tmp) {
        std::vector<TarMember> members;
        return QueryMetadata(file, tmp, info, lang, members);
    });
}

bool PackageManager::queryPackageFileInfoWithWizard(const std::string& file, PackageInfo& info,
                                                    PKG_INSTALLATION_TYPE type, const char* lang) {
    return WithTmpDir(file, "pkgquery", [&](const std::string& tmp) {
        std::vector<TarMember> members;
        if (!QueryMetadata(file, tmp, info, lang, members)) {
            return false;
        }
        const TarMember* license = PMSTarFindMember(members, "LICENSE");
        if (license != nullptr) {
            std::string command, out, err;
            // Only the first MiB is shown, so a larger member is not worth writing at all.
            if (PMSQarExtract(file, members, {"LICENSE"}, tmp, PMS_QAR_META_MAX, command, out,
                              err) == 0 &&
                IsFileExists(tmp + "/LICENSE")) {
                std::string text;
                if (!ZARNFileRead(tmp + "/LICENSE", text, PMS_QAR_LICENSE_MAX)) {
                    ZLOGERR("Failed to read license file LICENSE in %s", tmp.c_str());
                    return false;
                }
                info.license = text;
            }
        }
        if (type == PKG_INSTALLATION_NONE) {
            type = PMSCheckPackage(info.name) ? PKG_INSTALLATION_UPGRADE : PKG_INSTALLATION_INSTALL;
        }
        parseUIFile(file, tmp, type, info, lang);
        return true;
    });
}

bool PackageManager::verifyPackageTgzFile(const std::string& file, const char* checksum) {
    if (file.empty()) {
        ZLOGERR("Wrong parameters");
        return false;
    }
    if (checksum == nullptr) {
        return true;
    }
    // The payload is hashed as it is read from the archive: a refused file costs one read and
    // no write, and no temporary copy can change between the hashing and a later use.
    std::vector<TarMember> members;
    std::string why;
    if (!PMSQarListVetted(file, members, why)) {
        ZLOGERR("Failed to extract the package.tgz in %s", file.c_str());
        return false;
    }
    const TarMember* tgz = PMSTarFindMember(members, "package.tgz");
    if (tgz == nullptr || (tgz->type != '0' && tgz->type != '7')) {
        ZLOGERR("No regular member package.tgz in %s", file.c_str());
        ZLOGERR("Failed to extract the package.tgz in %s", file.c_str());
        return false;
    }
    std::string md5;
    if (!PMSMd5OfRange(file, tgz->dataOffset, tgz->size, md5)) {
        ZLOGERR("Failed to extract the package.tgz in %s", file.c_str());
        return false;
    }
    if (md5 != checksum) {
        ZLOGERR("Failed to verify %s", (file + "/package.tgz").c_str());
        return false;
    }
    return true;
}

int PackageManager::compareWithInstallPkgInfo(const PackageInfo& info) {
    if (!PMSCheckPackage(info.name)) {
        setResult(PKG_ERR_NOT_INSTALLED);
        return -1;
    }
    PackageManager pm;
    PackageInfo installed;
    if (!pm.getPackageInfo(info.name, installed, nullptr, PKG_MASK_ALL)) {
        return -1;
    }
    int sign = 0;
    if (!PMSVersionSign(info.version, installed.version, sign)) {
        return -1;
    }
    if (sign == 0) {
        return 0;
    }
    return sign > 0 ? 1 : 2;
}

bool PMSCheckPackagePortConflict(const PackageInfo& info) {
    bool upgrade = false;
    PackageInfo installed;
    if (PMSCheckPackage(info.name)) {
        PackageManager pm;
        if (!pm.getPackageInfo(info.name, installed, nullptr, PKG_MASK_ALL)) {
            ZLOGERR("Previous %s not installed, upgrade not possible", info.name.c_str());
            return false;
        }
        upgrade = true;
    }
    if (!info.checkport || info.adminport == 0 || info.adminprotocol.empty()) {
        return false;
    }
    const int port = static_cast<int>(info.adminport);
    for (const auto& protocol : info.adminprotocol) {
        if (protocol == "http" && (port == zarnw3::KOS::GetHttpPort() || port == 80)) {
            continue;
        }
        if (protocol == "https" && (port == 443 || port == zarnw3::KOS::GetHttpsPort())) {
            continue;
        }
        if (upgrade && installed.adminport == info.adminport) {
            continue;
        }
        if (WebUtils::IsPortConflict(protocol, port, info.name) != 0) {
            return true;
        }
    }
    return false;
}

bool PackageManager::checkPkgInfoCanInstallEx(PackageInfo& info, const char* lang) {
    const int os = PMSComparePackageAndOSVersion(info);
    if (os != 0) {
        insertMapParam("hostVersion", HostOSVersionText());
    }
    if (os == 1) {
        setResult(PKG_ERR_OS_TOO_NEW, OSVersionText(PMSGetOSMaxVer(info)));
        return false;
    }
    if (os == -1) {
        setResult(PKG_ERR_OS_TOO_OLD, OSVersionText(PMSGetOSMinVer(info)));
        return false;
    }
    if (!CanPackageStartInThisFirmware(info)) {
        return false;
    }
    if (PMSCheckPackagePortConflict(info)) {
        setResult(PKG_ERR_PORT_CONFLICT, std::to_string(info.adminport));
        return false;
    }
    std::string names;
    const PackageInfoExtraPrivate& x = *info.extra.get();
    if (arePackagesConflict(PackageBasicInfo(info.name, info.version),
                            info.install_conflict_packages, x.install_break_packages,
                            x.install_replace_packages, names, lang) &&
        !names.empty()) {
        setResult(PKG_ERR_CONFLICT, names);
        return false;
    }
    const unsigned int services = checkServiceStarted(info.install_dep_services);
    if (services != 0) {
        setResult(PKG_ERR_DEP_SERVICES, Json::Value(services));
        return false;
    }
    if (compareWithInstallPkgInfo(info) == 2) {
        Json::Value data(Json::objectValue);
        PackageManager pm;
        PackageInfo installed;
        if (pm.getPackageInfo(info.name, installed, nullptr, PKG_MASK_ALL)) {
            data["curVersion"] = installed.version;
        }
        data["insVersion"] = info.version;
        setResult(PKG_ERR_DOWNGRADE, data);
        return false;
    }
    return true;
}

bool PackageManager::checkPkgInfoCanInstall(PackageInfo& info, const char* lang) {
    const bool ok = checkPkgInfoCanInstallEx(info, lang);
    Json::Value data;
    const PKG_ERRCODE code = getResult(data);
    if (code == PKG_ERR_OS_TOO_NEW || code == PKG_ERR_OS_TOO_OLD) {
        setResult(PKG_ERR_OS_RANGE, data);
    }
    return ok;
}

bool CheckPackageFileInfoImpl(const char* lang, const char* file, std::string& displayName,
                              PKG_ERRCODE& code, Json::Value& detail, PackageInfo& info) {
    ZARN_SCOPE_EXIT {
        displayName = info.displayname;
    };
    if (lang == nullptr) {
        code = PKG_ERR_SYSTEM;
        return false;
    }
    const std::string path = file != nullptr ? file : "";
    PackageManager pm;
    // 2. The record, unless the caller has read it already.
    if (info.name.empty() && !pm.queryPackageFileInfo(path, info, PKG_INSTALLATION_NONE, lang)) {
        code = PKG_ERR_BROKEN;
        return false;
    }
    // 3. A volume that can take it.
    if (!pm.CheckVolume(file, info)) {
        switch (VLIBCErrGet()) {
            case ZARN_ERR_NO_VOLUME:
                code = PKG_ERR_NO_WORKING_VOLUME;
                break;
            case ZARN_ERR_NO_GENERIC_VOLUME:
                code = PKG_ERR_NO_WORKING_VOLUME;
                detail["required_volume_type"] = "generic";
                break;
            case ZARN_ERR_NO_SPACE:
                code = PKG_ERR_NO_SPACE;
                break;
            default:
                code = PKG_ERR_SYSTEM;
                break;
        }
        return false;
    }
    // 4. The payload against its checksum.
    if (!info.checksum.empty() && !pm.verifyPackageTgzFile(path, info.checksum.c_str())) {
        code = PKG_ERR_BAD_PACKAGE;
        return false;
    }
    // 5. No downgrade.
    if (pm.compareWithInstallPkgInfo(info) == 2) {
        code = PKG_ERR_DOWNGRADE;
        PackageManager q;
        PackageInfo installed;
        if (q.getPackageInfo(info.name, installed, lang, PKG_MASK_ALL)) {
            detail["curVersion"] = installed.version;
            detail["insVersion"] = info.version;
        }
        return false;
    }
    // 6. The firmware's limit list.
    std::string limit;
    const int limited = PMSThirdPartyCheckLimit(info.name.c_str(), info.version.c_str(), limit);
    if (limited == -2) {
        code = PKG_ERR_VERSION_LIMIT;
        detail["curVersion"] = info.version;
        detail["insVersion"] = limit;
        return false;
    }
    if (limited != 0) {
        code = PKG_ERR_LIMIT_UNKNOWN;
        return false;
    }
    // 7. The OS range of the package.
    const int os = PMSComparePackageAndOSVersion(info);
    if (os == 1) {
        code = PKG_ERR_OS_TOO_NEW;
        detail = OSBoundDetail(PMSGetOSMaxVer(info), PMSGetOSMaxVerNano(info));
        return false;
    }
    if (os == -1) {
        code = PKG_ERR_OS_TOO_OLD;
        detail = OSBoundDetail(PMSGetOSMinVer(info), PMSGetOSMinVerNano(info));
        return false;
    }
    // 8. Architecture and model.
    if (!PMSCheckPackageArchModelMatched(info)) {
        code = PKG_ERR_PLATFORM;
        detail["pkgArch"] = CommandText(info.arch);
        detail["hostArch"] = PMSGetSystemArchString();
        return false;
    }
    // 9. The admin port.
    if (PMSCheckPackagePortConflict(info)) {
        code = PKG_ERR_PORT_CONFLICT;
        detail = std::to_string(info.adminport);
        return false;
    }
    // 10. Conflicting packages.
    std::string names;
    const PackageInfoExtraPrivate& x = *info.extra.get();
    if (pm.arePackagesConflict(PackageBasicInfo(info.name, info.version),
                               info.install_conflict_packages, x.install_break_packages,
                               x.install_replace_packages, names, lang) &&
        !names.empty()) {
        code = PKG_ERR_CONFLICT;
        detail["instPackageList"] = names;
        return false;
    }
    // 11. Host services the package needs.
    const std::set<std::string> stopped = pm.checkServiceStarted(x.install_dep_service_set);
    if (!stopped.empty()) {
        char strings[512];
        std::snprintf(strings, sizeof(strings), "/usr/zarn/zarnman/webman/texts/%s/strings", lang);
        if (IsFileExists(strings) || IsFileExists("/usr/zarn/zarnman/webman/texts/enu/strings")) {
            code = PKG_ERR_SERVICE_NOT_STARTED;
            Json::Value list(Json::arrayValue);
            for (const auto& s : stopped) {
                list.append(s);
            }
            detail["serviceNoStarted"] = list;
        }
        return false;
    }
    // 12. Packages it depends on, installed and running.
    Json::Value missing(Json::objectValue);
    std::string unstarted;
    if (!pm.arePackagesInstallAndStart(info.install_dep_packages, missing, unstarted, lang)) {
        code = PKG_ERR_DEPENDENCY;
        detail["packages"] = missing;
        detail["unStartPkgList"] = unstarted;
        return false;
    }
    // 13. An installed package is only replaced by a file that can upgrade it.
    if (PMSCheckPackage(info.name) &&
        !(info.script_mask & (PKG_SCRIPT_PREUPGRADE | PKG_SCRIPT_POSTUPGRADE))) {
        code = PKG_ERR_UPGRADE;
        detail["missingScript"] = "scripts/preupgrade or scripts/postupgrade";
        return false;
    }
    // 14. The signature.
    const unsigned int sign = static_cast<unsigned int>(pm.verifyPackageSignature(file));
    if (sign == PKG_ERR_SIGN_OK) {
        code = PKG_ERR_SUCCESS;
        return true;
    }
    code = (sign >= PKG_ERR_SIGN_NOT_MAKER && sign <= PKG_ERR_SIGN_BROKEN)
               ? static_cast<PKG_ERRCODE>(sign)
               : PKG_ERR_SYSTEM;
    return false;
}

bool CheckPackageFileInfo(const char* lang, const char* file, std::string& displayName,
                          Json::Value& message) {
    message = Json::Value(Json::arrayValue);
    PackageInfo info;
    PKG_ERRCODE code = PKG_ERR_SUCCESS;
    Json::Value detail(Json::objectValue);
    if (CheckPackageFileInfoImpl(lang, file, displayName, code, detail, info)) {
        return true;
    }
    message = PMSFileCheckMessage(code, detail, displayName);
    return false;
}

}  // namespace ZARNPackageTool
