#include "platform/host_init.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/os_version.h"
#include "platform/rootat.h"
#include "platform/sysroot.h"
#include "platform/textsplit.h"
#include "platform/volumes.h"

namespace {

#define ZARN_STRINGIFY_INNER(x) #x
#define ZARN_STRINGIFY(x) ZARN_STRINGIFY_INNER(x)

using KeyList = std::vector<std::pair<std::string, std::string>>;

std::string ErrnoText(int err) {
    char buf[256];
    return strerror_r(err, buf, sizeof(buf));
}

// The platform name of the model this host stands in for.
std::string HostPlatform() {
    struct utsname name;
    if (uname(&name) == 0 && strcmp(name.machine, "aarch64") == 0) {
        return "rtd1296";
    }
    return "kvmx64";
}

bool MakeDir(const std::string& path, mode_t mode, std::string& error) {
    if (ZARNFSMkdirP(path, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), mode) != 0) {
        error = "cannot create " + path + ": " + ErrnoText(errno);
        return false;
    }
    return true;
}

// Reads a file that may not exist yet: a missing file reads as empty.
bool ReadOrEmpty(const std::string& path, std::string& text, std::string& error) {
    if (!ZARNFileRead(path, text)) {
        if (errno != ENOENT) {
            error = "cannot read " + path + ": " + ErrnoText(errno);
            return false;
        }
        text.clear();
    }
    return true;
}

// Writes the file's text with `added` behind it, keeping its mode; nothing added is success.
bool AppendMissing(const std::string& path, std::string text, const std::string& added,
                   std::string& error) {
    if (added.empty()) {
        return true;
    }
    if (!text.empty() && text.back() != '\n') {
        text.push_back('\n');
    }
    text += added;
    mode_t mode = 0644;
    struct stat st;
    if (ZARNStat(path, st)) {
        mode = st.st_mode & 07777;
    }
    if (!ZARNFileWriteDurable(path, text, mode)) {
        error = "cannot write " + path + ": " + ErrnoText(errno);
        return false;
    }
    return true;
}

// Adds the keys a file lacks, in the given order; the values it has stay as they are.
bool EnsureKeys(const std::string& path, const KeyList& keys, std::string& error) {
    std::string text;
    if (!ReadOrEmpty(path, text, error)) {
        return false;
    }
    std::map<std::string, std::string> present;
    ZARNKeyTextParse(text, "=", nullptr, present);
    std::string added;
    for (const auto& key : keys) {
        if (present.count(key.first) == 0) {
            added += key.first + "=\"" + key.second + "\"\n";
        }
    }
    return AppendMissing(path, text, added, error);
}

// The root folder itself, with its parents, as mkdir -p makes them: a new root may be named
// before it exists. Only the root's own path is physical here; all else goes below it.
bool MakeRootFolder(std::string& error) {
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    for (size_t end = root.find('/', 1);; end = root.find('/', end + 1)) {
        const std::string folder = root.substr(0, end);
        struct stat st;
        if (stat(folder.c_str(), &st) != 0 && mkdir(folder.c_str(), 0755) != 0) {
            error = "cannot create " + folder + ": " + ErrnoText(errno);
            return false;
        }
        if (end == std::string::npos) {
            break;
        }
    }
    // Package accounts reach their files and scripts through the root, as through "/".
    if (!ZARNChmod("/", 0755)) {
        error = "cannot open " + root + " to package accounts: " + ErrnoText(errno);
        return false;
    }
    return true;
}

bool MakeFolders(std::string& error) {
    static const std::pair<const char*, mode_t> folders[] = {
        {"/tmp", 01777},
        {"/tmp/lock", 0755},
        {"/etc", 0755},
        {"/etc.defaults", 0755},
        {"/etc/zarnhost", 0755},
        {"/etc/init", 0755},
        {"/var/packages", 0755},
        {"/var/log/packages", 0755},
        {"/usr/local/etc/rc.d", 0755},
        {"/usr/local/packages", 0755},
        {"/usr/zarn/etc/packages", 0755},
        {"/usr/zarn/etc/zarnservice.d", 0755},
        {"/volume1", 0755},
    };
    for (const auto& folder : folders) {
        if (!MakeDir(folder.first, folder.second, error)) {
            return false;
        }
    }
    return true;
}

bool MakeFactorySettings(std::string& error) {
    return EnsureKeys("/etc.defaults/zarninfo.conf",
                      {{"unique", "zarn_" + HostPlatform() + "_zpc"}, {"product", "ZarnStation"}},
                      error);
}

bool MakeVersionFile(std::string& error) {
    const std::string major = ZARN_STRINGIFY(ZARN_OS_MAJOR);
    const std::string minor = ZARN_STRINGIFY(ZARN_OS_MINOR);
    return EnsureKeys("/etc.defaults/VERSION",
                      {{"majorversion", major},
                       {"minorversion", minor},
                       {"buildnumber", ZARN_STRINGIFY(ZARN_OS_BUILD)},
                       {"smallfixnumber", "0"},
                       {"productversion", major + "." + minor}},
                      error);
}

bool MakeSettings(std::string& error) {
    // The trust level stays at 2 until the host has a signature tool.
    return EnsureKeys("/etc/zarninfo.conf",
                      {{"language", "enu"}, {"timezone", "UTC"}, {"pkg_source_trust_level", "2"}},
                      error);
}

// The usual host services, written once; a list that exists is left as it is.
bool MakeServiceList(std::string& error) {
    const std::string path = "/etc/zarnhost/services.json";
    if (ZARNPathExists(path)) {
        return true;
    }
    static const char* const kServices[][2] = {
        {"ssh-shell", "SSH"},     {"pgsql", "PostgreSQL"}, {"nginx", "Web Server"},
        {"samba", "SMB Service"}, {"crond", "Scheduler"},  {"syslog", "Log Service"},
        {"nfsd", "NFS Service"},  {"ftpd", "FTP Service"},
    };
    Json::Value list(Json::arrayValue);
    for (const auto& service : kServices) {
        Json::Value entry(Json::objectValue);
        entry["name"] = service[0];
        entry["display_name"] = service[1];
        entry["enabled"] = true;
        entry["running"] = true;
        list.append(entry);
    }
    Json::Value root(Json::objectValue);
    root["services"] = list;
    if (!Json::toFile(root, path)) {
        error = "cannot write " + path + ": " + ErrnoText(errno);
        return false;
    }
    return true;
}

// One volume unless the host has more already; volumes.json keeps what it says.
bool MakeVolumes(std::string& error) {
    return ZARNHostVolumesInit(1, error);
}

// Adds the account lines a file lacks, by name; lines that exist, and the ids they hold,
// stay as they are.
bool EnsureAccountLines(const std::string& path, const std::vector<std::string>& lines,
                        std::string& error) {
    std::string text;
    if (!ReadOrEmpty(path, text, error)) {
        return false;
    }
    std::map<std::string, bool> present;
    for (const std::string& line : ZARNSplitText(text, '\n')) {
        present[line.substr(0, line.find(':'))] = true;
    }
    std::string added;
    for (const std::string& line : lines) {
        if (present.count(line.substr(0, line.find(':'))) == 0) {
            added += line + "\n";
        }
    }
    return AppendMissing(path, text, added, error);
}

// The system's own accounts. Ids below 1000 are the system's; "system" (1) owns the files of
// packages that run as "system"; "admin" and "guest" are the appliance's own users.
bool MakeAccounts(std::string& error) {
    static const std::vector<std::string> kUsers = {
        "root:x:0:0:root:/root:/bin/sh",
        "daemon:x:2:2:daemon:/usr/sbin:/sbin/nologin",
        "bin:x:3:3:bin:/bin:/sbin/nologin",
        "lp:x:7:7:lp:/var/spool/lpd:/sbin/nologin",
        "mail:x:8:12:mail:/var/mail:/sbin/nologin",
        "ftp:x:21:21:FTP user:/nonexistent:/sbin/nologin",
        "postgres:x:55:55:PostgreSQL Server:/var/services/pgsql:/bin/sh",
        "sshd:x:74:74:Privilege-separated SSH:/var/empty/sshd:/sbin/nologin",
        "http:x:80:80:Web Server:/var/services/web:/sbin/nologin",
        "admin:x:1024:100:System default user:/var/services/homes/admin:/bin/sh",
        "guest:x:1025:100:Guest:/nonexistent:/sbin/nologin",
        "nobody:x:65534:65534:nobody:/nonexistent:/sbin/nologin",
    };
    static const std::vector<std::string> kGroups = {
        "root:x:0:",        "system:x:1:", "daemon:x:2:",  "bin:x:3:",
        "lp:x:7:",          "mail:x:12:",  "ftp:x:21:",    "postgres:x:55:",
        "sshd:x:74:",       "http:x:80:",  "users:x:100:", "administrators:x:101:admin",
        "nogroup:x:65534:",
    };
    return EnsureAccountLines("/etc/passwd", kUsers, error) &&
           EnsureAccountLines("/etc/group", kGroups, error);
}

// The folder that holds the project's tools: ZARNPKG_TOOLS_DIR, else the running program's.
std::string ToolsDir() {
    if (const char* dir = getenv("ZARNPKG_TOOLS_DIR")) {
        return dir;
    }
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        return "";
    }
    const std::string path(self, static_cast<size_t>(n));
    return path.substr(0, path.rfind('/'));
}

// The appliance tools that jobs call, linked to the project's binaries on this machine. A tool
// that isn't built beside the running program is left out; a link that exists stays.
bool LinkTools(std::string& error) {
    static const char* const kTools[][2] = {
        {"/usr/zarn/sbin/zarnpkgctl", "zarnpkgctl"},
        {"/sbin/initctl", "zarn-initctl"},
        {"/usr/zarn/bin/zarnkosnotify", "zarnkosnotify"},
    };
    const std::string dir = ToolsDir();
    for (const auto& tool : kTools) {
        const std::string binary = dir + "/" + tool[1];
        const std::string link = tool[0];
        if (dir.empty() || access(binary.c_str(), X_OK) != 0 || ZARNPathExists(link)) {
            continue;
        }
        if (!MakeDir(link.substr(0, link.rfind('/')), 0755, error)) {
            return false;
        }
        // The target is a path of the machine, outside the root: it is stored as it stands.
        ZARNAtPath at;
        if (!ZARNResolveAt(link, false, at) ||
            symlinkat(binary.c_str(), at.dir, at.name.c_str()) != 0) {
            error = "cannot link " + link + ": " + ErrnoText(errno);
            return false;
        }
    }
    return true;
}

struct HostInitStep {
    const char* what;
    bool (*run)(std::string& error);
};

// In order: later steps write into the folders that the first ones make.
const HostInitStep kHostInitSteps[] = {
    {"root folder", MakeRootFolder},
    {"folders", MakeFolders},
    {"factory settings", MakeFactorySettings},
    {"version file", MakeVersionFile},
    {"settings", MakeSettings},
    {"accounts", MakeAccounts},
    {"service list", MakeServiceList},
    {"volumes", MakeVolumes},
    {"appliance tools", LinkTools},
};

}  // namespace

bool ZARNHostInit(std::string& error) {
    error.clear();
    if (ZARNPackageCore::GetSystemRoot() == "/") {
        error =
            "the system root is \"/\", the machine's own; host-init only prepares a separate "
            "root (give --root DIR or set ZARNPKG_ROOT)";
        ZLOGERR("Failed to initialise the host: %s", error.c_str());
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    for (const HostInitStep& step : kHostInitSteps) {
        std::string stepError;
        if (!step.run(stepError)) {
            error = std::string(step.what) + ": " + stepError;
            ZLOGERR("Failed to initialise the host: %s", error.c_str());
            return false;
        }
    }
    return true;
}
