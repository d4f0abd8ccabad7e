#pragma once

#include <json/json.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/errcode.h"
#include "core/export.h"
#include "core/helpers.h"
#include "core/packageinfo.h"

namespace ZARNPackageTool {

struct PackageManagerPrivate;

// The frame through which every caller reaches the library: construct on the stack, init(),
// one operation, then getResult().
class ZARNPKG_API PackageManager {
public:
    PackageManager();
    ~PackageManager();
    PackageManager(const PackageManager&) = delete;
    PackageManager& operator=(const PackageManager&) = delete;

    bool init();

    // Results and parameters.
    void setResult(PKG_ERRCODE code);
    void setResult(PKG_ERRCODE code, Json::Value data);
    PKG_ERRCODE getResult() const;
    PKG_ERRCODE getResult(Json::Value& data) const;
    void setIntParam(unsigned int value);
    unsigned int getIntParam() const;
    void insertMapParam(const std::string& key, const std::string& value);
    void insertJsonParam(const std::string& key, const Json::Value& value);
    std::string getMapParam(const std::string& key) const;
    Json::Value getJsonParam(const std::string& key) const;
    const std::map<std::string, std::string>& getMapParams() const;
    const PackageInfo* getPackageInfoData() const;
    PackageInfo* getPackageInfoData();
    static void setSkipUpgradeCheck(bool skip);
    static bool getSkipUpgradeCheck();

    // Log path.
    std::string getFixedLogFilePath(const std::string& name);
    std::string getLogFilePath() const;

    // Not implemented in this system: always 0x107.
    bool move(const std::string& from, const std::string& to);

    static std::string getUpdatedAt(const std::string& name);

    // Registry enumeration.
    std::vector<std::string> enumPackages(const std::set<std::string>& volumes,
                                          unsigned long long mask);
    std::vector<std::string> enumPackages(const char* volume, unsigned long long mask);
    PackageBasicInfoMap enumPackageMap(unsigned long long mask);
    void enumPackageInfoMap(std::map<std::string, PackageInfo>& out, const char* lang,
                            unsigned long long mask);
    bool enumPackageInfoByPath(const char* path, std::vector<PackageInfo>& out,
                               std::vector<std::string>& bad, const char* lang,
                               unsigned long long mask);
    void enumPackageInfo(std::vector<PackageInfo>& out, const char* lang, unsigned long long mask);

    // Registry lookup.
    bool getPackageInfo(const std::string& name, PackageInfo& info, const char* lang,
                        unsigned long long mask);
    bool getPackageInfo(std::vector<std::string>& names, std::vector<PackageInfo>& out,
                        const char* lang, unsigned long long mask);
    bool getInstallPackageInfo(const std::string& name, PackageInfo& info, const char* lang,
                               unsigned long long mask);
    bool getPackageInfoByPathAndName(const char* root, const std::string& name, PackageInfo& info,
                                     const char* lang, unsigned long long mask);
    bool getPackageInfoByPath(const char* dir, PackageInfo& info, const char* lang);
    bool getPackageInfoByPathAndInfoType(const char* dir, PackageInfo& info, const char* lang,
                                         unsigned long long mask);
    bool hasEnableConf(const std::string& dir, bool& enabled);
    bool isServiceEnabled(const char* name);

    // The package lock.
    static bool ExLock(int seconds);
    static void UnLock();

    // Versions and platform matching.
    bool CanPackageStartInThisFirmware(const PackageInfo& info);
    bool IsPkgUnavailable(const PackageInfo& info);
    bool IsPkgUnavailable(const PackageInfo& info,
                          const std::map<std::string, PackageInfo>& installed);
    bool IsPkgUnavailable(const Json::Value& info);
    bool IsPkgUnavailable(const Json::Value& info,
                          const std::map<std::string, PackageInfo>& installed);

    // Dependency checks (dependency/depcheck.cpp). Mind the senses: areDepPkgsInstalled is
    // true when someone of the list is present, arePackagesDepended when no one depends.
    bool areDepPkgsInstalled(const DepPkgVector& list, std::vector<PackageInfo>& found,
                             const char* language);
    bool areDepPkgsInstalled(const DepPkgVector& list, std::vector<std::string>& displayNames,
                             const char* language);
    bool arePackagesConflict(PackageBasicInfo pkg, const DepPkgVector& conflicts,
                             const DepPkgVector& breaks, const DepPkgVector& replaces,
                             std::string& names, const char* language);
    bool arePackagesConflict(PackageBasicInfo pkg, const DepPkgVector& conflicts,
                             std::string& names, const char* language);
    bool IsBrokenByOtherPkg(PackageBasicInfo pkg, std::vector<std::string>* names,
                            const char* language);
    bool IsBrokenByOtherPkg(PackageBasicInfo pkg, std::vector<std::string>* names,
                            const std::map<std::string, PackageInfo>& installed);
    bool arePackagesDepended(const std::string& name, const char* language, std::string& names);
    bool arePackagesDepended(const std::string& name, const char* language,
                             std::vector<std::string>& names);
    bool areDependentPackageStop(const std::string& name, const char* language, std::string& names);
    bool getDepPkgListStop(const std::vector<std::string>& packages, const std::string& skipName,
                           const char* language, Json::Value& out);
    bool getDepPkgListStop(const std::string& name, const char* language, Json::Value& out);

    // Ordering (dependency/ordering.cpp). Orders are stop orders: dependants first.
    bool topologicalSortPkgs(std::vector<PackageInfo>& packages, std::vector<std::string>& order);
    bool hasCycle(const PackageInfo& candidate);
    bool getDependencyOrder(std::vector<std::string>& order);
    bool getDependencyOrder(const char* name, std::vector<std::string>& order, bool byEnabledFlag,
                            bool all);
    bool getDependencyOrder(const char* name, std::vector<std::string>& order, bool byEnabledFlag);
    bool getAncestryDependencyOrder(const char* name, std::vector<PackageInfo>& packages,
                                    std::vector<std::string>& order);
    bool getDepServicePkgs(const std::set<std::string>& services, std::vector<PackageInfo>& out);
    bool getDepServicePkgs(const std::vector<unsigned int>& services,
                           std::vector<PackageInfo>& out);
    bool areDependencyPkgStarting(const std::string& name);
    bool arePackagesInstallAndStart(const DepPkgVector& deps, Json::Value& missing,
                                    std::string& names, const char* language);

    // Status queries over many packages share one registry scan: the installed packages that
    // break others, read as a single query reads them, instead of a scan per query.
    using BreakerSnapshot = std::shared_ptr<const std::map<std::string, PackageInfo>>;
    static BreakerSnapshot makeBreakerSnapshot();
    // The same from the records of a registry scan with a mask that parses break lists, and
    // the folders whose INFO that scan refused, which are read for their break lists alone.
    static BreakerSnapshot makeBreakerSnapshot(const std::vector<PackageInfo>& records,
                                               const std::vector<std::string>& refused);
    void useBreakerSnapshot(BreakerSnapshot snapshot);

    // Package status (core/status.cpp).
    std::string getServiceScript(const std::string& name, PackageInfo& info);
    bool getServiceStatus(const std::string& name, bool& running, bool useScript, bool strict);
    bool getServiceStatus(const std::string& name, bool& running, bool useScript);
    int getPkgStatus(const std::string& name);
    // Every installed package's record and status, as a listing shows them: `records` and
    // `unreadable` as enumPackageInfoByPath gives them for the registry with `mask` (which
    // holds PKG_MASK_STATUS), and the status of each record in their order. Each folder is
    // looked at for its status right after its INFO is read, while the system still has it at
    // hand; the status scripts then run in parallel (bounded by the cores), sharing one
    // breaker snapshot taken from the records.
    std::vector<int> getAllPkgStatuses(std::vector<PackageInfo>& records,
                                       std::vector<std::string>& unreadable, const char* lang,
                                       unsigned long long mask);
    bool getPkgRoughStatus(const std::string& name, int& rough);
    // The rough status of a status that getPkgStatus gave, without asking again; a status
    // without one is logged with the package's name, as getPkgRoughStatus logs it.
    static bool roughStatusOf(int status, const std::string& name, int& rough);
    // The same without the log, for a listing, where a package without a control script is
    // common and no fault.
    static bool roughStatusOf(int status, int& rough);
    bool isStarted(const std::string& name, bool strict);
    bool isStarted(const std::string& name);
    // isStarted(name, strict) of each of many packages, their status scripts run as
    // getAllPkgStatuses runs them; `results`
    // gets the result that each query left.
    std::vector<char> areStarted(const std::vector<std::string>& names, bool strict,
                                 std::vector<PKG_ERRCODE>& results);
    unsigned int checkServiceStarted(unsigned int mask);
    std::set<std::string> checkServiceStarted(const std::set<std::string>& services);

    // The package's own log text, from "start-stop-status log" (lifecycle/package_log.cpp).
    std::string getPackageLog(const std::string& name, bool quiet);
    std::string getPackageLog(const std::string& name);

    // Paths, volumes and space (core/paths.cpp).
    bool CheckVolume(const char* file, const PackageInfo& info);
    bool GetAppStoreVolume(const PackageInfo& info, const char* path, unsigned long long size,
                           std::string& out);
    bool IsRootPartitionHasEnoughSpace();

    // Signature (package/signature.cpp): one of 0x11f..0x125, not stored as the result.
    int verifyPackageSignature(const char* file);

    // Package archive and wizard files (package/archive.cpp, package/uifile.cpp).
    bool queryPackageFileInfo(const std::string& file, PackageInfo& info,
                              PKG_INSTALLATION_TYPE type, const char* lang);
    bool queryPackageFileInfoWithWizard(const std::string& file, PackageInfo& info,
                                        PKG_INSTALLATION_TYPE type, const char* lang);
    bool verifyPackageTgzFile(const std::string& file, const char* checksum);
    int compareWithInstallPkgInfo(const PackageInfo& info);
    bool checkPkgInfoCanInstallEx(PackageInfo& info, const char* lang);
    bool checkPkgInfoCanInstall(PackageInfo& info, const char* lang);
    bool parseUIFile(const std::string& file, const std::string& tmp, PKG_INSTALLATION_TYPE type,
                     PackageInfo& info, const char* lang);
    bool readUIFile(PKG_INSTALLATION_TYPE type, const std::string& name, PackageInfo& info,
                    const char* lang) const;
    bool readUIFile(const std::string& file, const std::string& tmp, PackageInfo& info,
                    const char* lang) const;

    // Related-service restarts (control/restart_services.cpp). RestartServicesAction gives up
    // the package lock first, so that a slow reload doesn't hold up other package work.
    unsigned int findRestartServices(const std::vector<std::string>& packages);
    bool RestartServices(PKG_INSTALLATION_TYPE type, unsigned long long mask);
    bool RestartServicesAction(unsigned long mask);

    // Start/stop engine (control/service_control.cpp). serviceControl is the whole operation:
    // task, package lock (kept for type 2, whose caller goes on under it), the order of the
    // package and its running dependants (reversed for a start), each action, and the reload
    // of related services (after the start only, for a restart). The named package reports
    // with MSG_TYPE_NOTIFY for a system action (type 0), done on behalf of another package or
    // the boot, and MSG_TYPE_WORKER otherwise. `packages` null or empty: the order is computed.
    bool serviceControl(PKG_INSTALLATION_TYPE type, const std::string& name, bool start,
                        const char* language, const char* userName,
                        std::vector<std::string>* packages, bool withDependencies,
                        bool restartServices);
    // Type 8 for a start, 16 for a stop, with dependants and related services.
    bool serviceControl(const std::string& name, bool start, const char* language);
    // One package, under the lock that the caller holds. Type 0 is the system's own start or
    // stop: a resume or pause without hooks or resources, and a stop keeps `enabled`.
    bool serviceControlAction(PKG_INSTALLATION_TYPE type, const std::string& name, bool start,
                              const char* language, const char* userName, MSG_TYPE msg);
    // Stops the package with its running dependants (type 32), then starts them again.
    bool serviceControlRestart(const std::string& name);
    // Starts or stops (type 0) the enabled packages that need one of these host services, under
    // the package lock taken directly rather than through ExLock. The vector form takes service
    // bit masks.
    bool serviceControlByService(const std::set<std::string>& services, bool start,
                                 bool printProgress);
    bool serviceControlByService(const std::vector<unsigned int>& services, bool start,
                                 bool printProgress);
    // Brings a package whose service runs while the package should be off to rest, before its
    // dependants start.
    bool fixPkgServiceStatus(PKG_INSTALLATION_TYPE type, const std::string& name,
                             const char* language, const char* userName);
    // The clean-up after a stop: desktop link, `enabled` and the resources of "disable" (not for
    // type 0). A failed release is logged and reported, never a failed stop.
    void removePkgResources(PKG_INSTALLATION_TYPE type, const PackageInfo& info, MSG_TYPE msg);

    // Places the control files of an unpacked package under /var/packages/<name> with the
    // install flag, links its target and makes it durable (lifecycle/register_package.cpp).
    bool registerPackage(PKG_INSTALLATION_TYPE type, PackageInfo& info, const std::string& name,
                         const std::string& extractDir, const std::string& target);

    // Install, upgrade or repair from a QAR file, as the installed state asks
    // (lifecycle/install.cpp). The `bool` forms map true to INST_RUN_START and false to
    // INST_RUN_KEEP_RUNNING.
    bool install(const char* language, const std::string& packageFile, const std::string& volume,
                 INST_RUN_OPTION option, const Json::Value* wizardValues, const char* userName,
                 bool verifySignature, bool ignoreDependencies);
    bool install(const char* language, const std::string& packageFile, const std::string& volume,
                 bool start, const Json::Value* wizardValues, const char* userName,
                 bool verifySignature, bool ignoreDependencies);
    // The short form: no start, no wizard values, no signature check, dependencies ignored.
    bool installQAR(const char* language, std::string packageFile, const std::string& volume);
    // The fresh install, step by step, under the lock.
    bool install_package(const std::string& packageFile, const std::string& volume,
                         const std::string& appstoreDir, const std::string& tmpDir,
                         INST_RUN_OPTION option, const Json::Value* wizardValues,
                         const char* language, const char* userName, bool ignoreDependencies);
    // Upgrade or repair (lifecycle/upgrade.cpp): the old version goes through the uninstall
    // core, keeping its resources and data, and the new one follows.
    bool upgrade_package(const std::string& packageFile, const std::string& volume,
                         const std::string& appstoreDir, const std::string& tmpDir,
                         const Json::Value* wizardValues, const char* language,
                         const char* userName, bool ignoreDependencies, INST_RUN_OPTION option);
    bool post_install(const PackageInfo& info);
    // What follows an install or upgrade: the start that the option asks for, with the
    // dependants, the restart of packages stopped by the dependency limit after an upgrade, and
    // the reload of related host services.
    void InstallationHandlerPost(bool wasRunning, bool success, const char* userName,
                                 const char* language, INST_RUN_OPTION option,
                                 PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                                 std::vector<std::string> dependants,
                                 unsigned long long restartMask);
    // Stops the running packages of the list that are installed in a matching version; false at
    // the first that won't stop.
    bool stopPackages(DepPkgVector packages, const char* language, const char* userName);

    // Uninstall (lifecycle/uninstall.cpp): the checked entry by name, and the core, which an
    // upgrade runs with type 2 to remove the old version.
    bool uninstall(const std::string& name, const Json::Value* wizardValues, const char* language,
                   PKG_INSTALLATION_TYPE type, bool force, const char* userName);
    bool uninstall(const PackageInfo& info, const Json::Value* wizardValues, const char* language,
                   PKG_INSTALLATION_TYPE type, const char* userName);
    // Many packages, dependants first; a failure doesn't stop the others.
    bool uninstallPKGs(const std::vector<std::string>& names, bool printErrors);
    // Removes the installed packages that satisfy an entry of the list.
    bool uninstallReplacedPkgs(DepPkgVector& packages, const char* language, const char* userName);

    // Service strings of INFO.
    static unsigned int PMSExplodeServiceString(const char* names);
    static std::set<std::string> getServiceSetFromString(const char* names);
    static void parseService(unsigned int mask, Json::Value& out);

private:
    const BreakerSnapshot& breakerSnapshot() const;
    // The installed packages with a break list, as a registry scan with PKG_MASK_BREAKERS
    // loads them; the INFO of the others is not parsed.
    static void scanBreakers(std::map<std::string, PackageInfo>& out, const char* lang);
    // enumPackageInfoByPath, telling the number of folders to `start` before any is read and
    // each record to `loaded`, with its folder's place, on the thread that has just loaded it.
    bool scanRegistry(const char* path, std::vector<PackageInfo>& out,
                      std::vector<std::string>& bad, const char* lang, unsigned long long mask,
                      const std::function<void(size_t)>& start,
                      const std::function<void(size_t, const PackageInfo&)>& loaded);
    // Whether `pkg` is broken by an installed package, through the snapshot when one is set.
    bool isBrokenByInstalled(const PackageBasicInfo& pkg);
    // The first status step, which only looks at the registry folder: the package's control
    // script, or the result that ends the query without one. It reads the INFO into `read`
    // unless a record is `loaded`, and keeps the volumes' states in `volumes` when that isn't
    // null.
    struct VolumeStates;
    struct ScriptLookup {
        bool done = false;
        std::string script;
        PKG_ERRCODE result = PKG_ERR_SYSTEM;
    };
    static ScriptLookup lookupServiceScript(const std::string& name, PackageInfo* read,
                                            const PackageInfo* loaded, VolumeStates* volumes);
    // A status query in two halves around its script, so that a batch runs the scripts of
    // many queries at once (core/status.cpp).
    struct StatusRun;
    void statusFindScript(StatusRun& run);
    bool statusGates(const StatusRun& run, const PackageInfo& info);
    void statusBegin(StatusRun& run);
    void statusEnd(StatusRun& run, int scriptExit);
    bool statusTail(const StatusRun& run, bool jobStateRead, int jobState);
    // `count` queries sharing this one's breaker snapshot: `source(i, run)` names the i-th,
    // `answer(i, run)` takes its outcome.
    template <typename Source, typename Answer>
    void statusQueries(size_t count, bool strict, const Source& source, const Answer& answer);
    // getPkgStatus's value and isStarted's answer from a query's outcome and its result.
    int statusCode(bool answered, bool running) const;
    bool startedBy(bool answered, bool running) const;

    std::string logFilePath_;
    std::unique_ptr<PackageManagerPrivate> d_;
};

}  // namespace ZARNPackageTool
