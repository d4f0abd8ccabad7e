#include "service/jobs.h"

#include <cerrno>
#include <cstring>

#include "core/packageinfo.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/servicecfg.h"
#include "platform/sysroot.h"
#include "platform/tempnames.h"

namespace ZARNPackageTool {
namespace Service {

namespace {

std::string UpstartDir(const std::string& package) {
    return "/var/packages/" + package + "/conf/upstart";
}

// Removes a job file and its override; a file that isn't there is no failure.
void UnlinkJob(const std::string& job) {
    UnlinkIfPresent(ZARNJobFilePath(job));
    UnlinkIfPresent(ZARNJobOverridePath(job));
}

// Runs one of the machine's tools, or an appliance tool inside the root, with its arguments.
int Exec(const std::vector<std::string>& argv) {
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    return runner.run();
}

bool LoadRecord(const std::string& package, PackageInfo& info, unsigned long long mask) {
    if (package.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    return PMSLoadPKGInfoFile("/var/packages/" + package, info, nullptr, mask);
}

}  // namespace

void UnlinkIfPresent(const std::string& path) {
    // A file that is already gone must not replace the error a caller is about to report.
    const int code = VLIBCErrGet();
    const std::string file = VLIBCErrorGetFile();
    const int line = VLIBCErrorGetLine();
    if (ZARNUnlink(path)) {
        return;
    }
    if (errno == ENOENT) {
        VLIBCErrSetEx(code, file.c_str(), line);
        return;
    }
    ZLOGERR("Failed to unlink %s (%m)", path.c_str());
    VLIBCErrSet(kErrUnlink);
}

std::string PkgctlName(const std::string& package) {
    return "pkgctl-" + package;
}

bool IsPackageJobName(const std::string& job) {
    static const std::string kPrefix = "pkg-";
    return job.size() > kPrefix.size() && job.compare(0, kPrefix.size(), kPrefix) == 0;
}

bool EnumAvailableJobs(const std::string& package, std::vector<std::string>& jobs) {
    if (package.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    const std::string dir = UpstartDir(package);
    if (!ZARNIsDir(dir)) {
        jobs.clear();
        return true;
    }
    std::vector<ZARNDirEntry> entries;
    if (!ZARNListDir(dir, entries)) {
        ZLOGERR("Failed to enum jobs under %s %s", dir.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    static const std::string kSuffix = ".conf";
    jobs.clear();
    for (const ZARNDirEntry& entry : entries) {
        const std::string& name = entry.name;
        if (entry.type != ZARNFileType::Regular || name.size() <= kSuffix.size() ||
            name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
            continue;
        }
        const std::string job = name.substr(0, name.rfind('.'));
        if (IsPackageJobName(job)) {
            jobs.push_back(job);
        }
    }
    return true;
}

bool ValidateJob(const std::string& job) {
    if (job.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (Exec({ZARNPhysicalPath("/sbin/initctl"), "status", job}) == 0) {
        return true;
    }
    ZLOGERR("Invalid job %s", job.c_str());
    VLIBCErrSet(kErrInvalid);
    return false;
}

bool InstallJobs(const std::string& package, const std::vector<std::string>& jobs, bool overwrite) {
    if (package.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    const std::string cgroups = "cgroup cpuacct \"" + PkgctlName(package) + "\"\ncgroup memory \"" +
                                PkgctlName(package) + "\"\n";
    std::vector<std::string> installed;
    for (const std::string& job : jobs) {
        const std::string source = UpstartDir(package) + "/" + job + ".conf";
        const std::string target = ZARNJobFilePath(job);
        if (!IsPackageJobName(job) || !ZARNJobNameValid(job) ||
            (!overwrite && ZARNPathExists(target))) {
            continue;
        }
        if (Exec({ZARNMachineProgram("/bin/cp"), "-f", ZARNPhysicalPath(source),
                  ZARNPhysicalPath(target)}) != 0) {
            ZLOGERR("Failed to copy %s to %s", source.c_str(), target.c_str());
            VLIBCErrSet(kErrCopy);
            goto rollback;
        }
        if (!ZARNFileAppend(target, cgroups)) {
            // The job runs without the groups but counts as installed.
            ZLOGERR("Failed to add cgroup to %s", target.c_str());
        }
        installed.push_back(job);
        if (!ValidateJob(job)) {
            goto rollback;
        }
    }
    return true;

rollback:
    for (const std::string& job : installed) {
        UnlinkJob(job);
    }
    return false;
}

void UnlinkAllJobs(const std::string& package, const std::vector<std::string>& jobs) {
    if (!package.empty()) {
        UnlinkJob(PkgctlName(package));
    }
    for (const std::string& job : jobs) {
        if (IsPackageJobName(job) && ZARNJobNameValid(job)) {
            UnlinkJob(job);
        }
    }
}

bool GetDependentService(const std::string& package, std::set<std::string>& services) {
    PackageInfo info;
    if (!LoadRecord(package, info, PKG_MASK_INSTALL_DEP_SERVICES)) {
        return false;
    }
    const auto& set = info.extra.get()->install_dep_service_set;
    services.insert(set.begin(), set.end());
    return true;
}

bool GetDependentPkg(const std::string& package, std::set<std::string>& packages,
                     std::string (*transform)(const std::string&)) {
    PackageInfo info;
    if (!LoadRecord(package, info, PKG_MASK_DEP_PACKAGES)) {
        return false;
    }
    for (const PackageBasicInfo& dep : info.install_dep_packages) {
        if (dep.name != package) {
            packages.insert(transform != nullptr ? transform(dep.name) : dep.name);
        }
    }
    return true;
}

bool GetDependentJob(const std::string& package, std::set<std::string>& jobs) {
    std::set<std::string> services;
    if (!GetDependentService(package, services)) {
        return false;
    }
    std::vector<std::string> list;
    for (const std::string& service : services) {
        if (VLIBServicecfgInfoGet(service, ZARN_SERVICECFG_INIT_JOBS, list) < 0) {
            ZLOGERR("Failed to get dependent jobs for %s%s", package.c_str(),
                    ZARNLastErrorSuffix().c_str());
            return false;
        }
        jobs.insert(list.begin(), list.end());
    }
    return true;
}

bool CreateTmpFile(const std::string& target, char* buffer, unsigned int size) {
    static const std::string kSuffix = ".XXXXXX";
    if (target.empty() || buffer == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (size < target.size() + kSuffix.size() + 1) {
        VLIBCErrSet(kErrShortBuffer);
        return false;
    }
    std::string made;
    if (!ZARNMkstemp(target + kSuffix, made).valid()) {
        ZLOGERR("Failed to create tmp file for %s (%m)", target.c_str());
        VLIBCErrSet(kErrTmpFile);
        return false;
    }
    memcpy(buffer, made.c_str(), made.size() + 1);
    return true;
}

}  // namespace Service
}  // namespace ZARNPackageTool
