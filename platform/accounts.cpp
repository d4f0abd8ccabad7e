#include "platform/accounts.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"

namespace {

const char* const kPasswdPath = "/etc/passwd";
const char* const kGroupPath = "/etc/group";
const gid_t kSystemGid = 1;
// Ids handed to package accounts stay below the overflow ids of the machine.
const unsigned long kLastAccountId = 60000;

// Names of the system's own accounts: a package may never take them over, whatever their ids.
const std::set<std::string>& ReservedUserNames() {
    static const std::set<std::string> names = {
        "root", "daemon",   "bin",      "sys",    "sync",  "lp",     "mail",   "news",
        "uucp", "proxy",    "www-data", "backup", "list",  "nobody", "ftp",    "sshd",
        "http", "postgres", "nginx",    "smmsp",  "admin", "guest",  "system", "_apt",
    };
    return names;
}

const std::set<std::string>& ReservedGroupNames() {
    static const std::set<std::string> names = {
        "root",   "system",   "daemon",  "bin",   "sys",
        "adm",    "tty",      "disk",    "lp",    "mail",
        "news",   "uucp",     "proxy",   "kmem",  "www-data",
        "backup", "list",     "nogroup", "ftp",   "sshd",
        "http",   "postgres", "nginx",   "users", "administrators",
        "admin",  "guest",    "shadow",  "utmp",  "staff",
        "wheel",
    };
    return names;
}

std::vector<std::string> SplitFields(const std::string& line, char sep) {
    std::vector<std::string> fields;
    std::string::size_type start = 0;
    for (;;) {
        std::string::size_type pos = line.find(sep, start);
        if (pos == std::string::npos) {
            fields.push_back(line.substr(start));
            return fields;
        }
        fields.push_back(line.substr(start, pos - start));
        start = pos + 1;
    }
}

bool ParseId(const std::string& text, unsigned long& id) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 10) {
        return false;
    }
    id = std::strtoul(text.c_str(), nullptr, 10);
    return true;
}

struct GroupLine {
    std::string name;
    gid_t gid = 0;
    std::vector<std::string> members;
};

// Reads the lines of an account file with at least `minFields` fields; comments and damaged
// lines are passed over, as the C library does.
bool ReadAccountFile(const char* path, size_t minFields,
                     std::vector<std::vector<std::string>>& rows) {
    std::string text;
    if (!ZARNFileRead(path, text)) {
        if (errno == ENOENT) {
            return true;  // a root without the file has no such accounts
        }
        ZLOGERR("Failed to read %s (%m)", path);
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::vector<std::string> fields = SplitFields(line, ':');
        if (fields.size() >= minFields && !fields[0].empty()) {
            rows.push_back(std::move(fields));
        }
    }
    return true;
}

bool ReadUsers(std::vector<ZARNUserRecord>& users) {
    std::vector<std::vector<std::string>> rows;
    if (!ReadAccountFile(kPasswdPath, 7, rows)) {
        return false;
    }
    for (const auto& f : rows) {
        unsigned long uid = 0, gid = 0;
        if (!ParseId(f[2], uid) || !ParseId(f[3], gid)) {
            continue;
        }
        ZARNUserRecord user;
        user.name = f[0];
        user.uid = static_cast<uid_t>(uid);
        user.gid = static_cast<gid_t>(gid);
        user.gecos = f[4];
        user.home = f[5];
        user.shell = f[6];
        users.push_back(std::move(user));
    }
    return true;
}

bool ReadGroups(std::vector<GroupLine>& groups) {
    std::vector<std::vector<std::string>> rows;
    if (!ReadAccountFile(kGroupPath, 4, rows)) {
        return false;
    }
    for (const auto& f : rows) {
        unsigned long gid = 0;
        if (!ParseId(f[2], gid)) {
            continue;
        }
        GroupLine group;
        group.name = f[0];
        group.gid = static_cast<gid_t>(gid);
        if (!f[3].empty()) {
            for (const std::string& member : SplitFields(f[3], ',')) {
                if (!member.empty()) {
                    group.members.push_back(member);
                }
            }
        }
        groups.push_back(std::move(group));
    }
    return true;
}

// Looks one entry up by name in what `read` gives; `notFound` is the error when none has it.
template <typename Entry>
int FindByName(const std::string& name, bool (*read)(std::vector<Entry>&), int notFound,
               Entry& out) {
    if (name.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    std::vector<Entry> entries;
    if (!read(entries)) {
        return -1;
    }
    for (const auto& entry : entries) {
        if (entry.name == name) {
            out = entry;
            return 0;
        }
    }
    VLIBCErrSet(notFound);
    return -1;
}

int FindUser(const std::string& name, ZARNUserRecord& out) {
    return FindByName(name, ReadUsers, ZARN_ERR_USER_NOT_FOUND, out);
}

int FindGroup(const std::string& name, GroupLine& out) {
    return FindByName(name, ReadGroups, ZARN_ERR_GROUP_NOT_FOUND, out);
}

// A name that the account tools accept and that can never be read as an option or a path.
bool IsValidAccountName(const std::string& name) {
    if (name.empty() || name.size() > 32 || name[0] == '-' || name[0] == '.' ||
        name.find_first_not_of("0123456789") == std::string::npos) {
        return false;
    }
    for (char c : name) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-' || c == '.';
        if (!ok) {
            return false;
        }
    }
    return true;
}

// The account tools work on the root's files through --prefix unless the root is the machine.
std::vector<std::string> AccountTool(const char* tool) {
    std::vector<std::string> argv = {ZARNMachineProgram(tool)};
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root != "/") {
        argv.push_back("--prefix");
        argv.push_back(root);
    }
    return argv;
}

int RunAccountTool(std::vector<std::string> argv) {
    const std::string program = argv[0];
    ZARNUtils::ProcessRunner runner(std::move(argv));
    runner.captureOutput();
    int status = runner.run();
    if (status != 0) {
        std::string err = runner.getStderr();
        while (!err.empty() && err.back() == '\n') {
            err.pop_back();
        }
        ZLOGERR("Failed to run %s, status=[%d]: %s", program.c_str(), status, err.c_str());
        VLIBCErrSet(ZARN_ERR_EXEC);
        return -1;
    }
    return 0;
}

// The first id from 1000 up that no entry uses.
unsigned long FirstFreeId(const std::set<unsigned long>& used) {
    unsigned long id = ZARN_FIRST_UNRESERVED_ID;
    while (id <= kLastAccountId && used.count(id) != 0) {
        ++id;
    }
    return id;
}

// Creates a group or user ("kind") with the first id that `used` leaves free; `options` go
// between the id and the name.
int CreateAccount(const char* kind, const std::string& name, const char* tool, const char* idOption,
                  const std::set<unsigned long>& used, const std::vector<std::string>& options) {
    unsigned long id = FirstFreeId(used);
    if (id > kLastAccountId) {
        ZLOGERR("Failed to create %s %s: no free id", kind, name.c_str());
        VLIBCErrSet(ZARN_ERR_NO_SPACE);
        return -1;
    }
    std::vector<std::string> argv = AccountTool(tool);
    argv.insert(argv.end(), {idOption, std::to_string(id)});
    argv.insert(argv.end(), options.begin(), options.end());
    argv.insert(argv.end(), {"--", name});
    if (RunAccountTool(std::move(argv)) < 0) {
        ZLOGERR("Failed to create %s %s %s", kind, name.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    return 0;
}

// Sets the primary group and home of one line of /etc/passwd, keeping every other line and
// field as it is.
bool RewriteUserEntry(const std::string& user, gid_t gid, const std::string& home) {
    std::string text;
    if (!ZARNFileRead(kPasswdPath, text)) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    std::istringstream in(text);
    std::string line;
    std::string out;
    bool done = false;
    while (std::getline(in, line)) {
        std::vector<std::string> fields = SplitFields(line, ':');
        if (!done && fields.size() >= 7 && fields[0] == user) {
            fields[3] = std::to_string(gid);
            fields[5] = home;
            line.clear();
            for (size_t i = 0; i < fields.size(); ++i) {
                line += (i == 0 ? "" : ":") + fields[i];
            }
            done = true;
        }
        out += line + "\n";
    }
    if (!done) {
        VLIBCErrSet(ZARN_ERR_USER_NOT_FOUND);
        return false;
    }
    struct stat st;
    mode_t mode = ZARNStat(kPasswdPath, st) ? (st.st_mode & 07777) : 0644;
    if (!ZARNFileWriteDurable(kPasswdPath, out, mode)) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    return true;
}

char* DupString(const std::string& text) {
    char* copy = strdup(text.c_str());
    if (copy == nullptr) {
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
    }
    return copy;
}

}  // namespace

int ZARNUserGet(const std::string& name, ZARNUserRecord& record) {
    return FindUser(name, record);
}

int ZARNUserGetUGID(const std::string& name, uid_t* uid, gid_t* gid) {
    ZARNUserRecord user;
    if (FindUser(name, user) < 0) {
        return -1;
    }
    if (uid != nullptr) {
        *uid = user.uid;
    }
    if (gid != nullptr) {
        *gid = user.gid;
    }
    return 0;
}

int ZARNGroupGetGID(const std::string& name, gid_t* gid) {
    GroupLine group;
    if (FindGroup(name, group) < 0) {
        return -1;
    }
    if (gid != nullptr) {
        *gid = group.gid;
    }
    return 0;
}

int ZARNUserIsReserved(const std::string& name, uid_t uid) {
    if (ReservedUserNames().count(name) != 0) {
        return 1;
    }
    return uid != static_cast<uid_t>(-1) && uid < ZARN_FIRST_UNRESERVED_ID ? 1 : 0;
}

int ZARNGroupIsReserved(const std::string& name, gid_t gid) {
    if (ReservedGroupNames().count(name) != 0) {
        return 1;
    }
    return gid != static_cast<gid_t>(-1) && gid < ZARN_FIRST_UNRESERVED_ID ? 1 : 0;
}

int ZARNLocalAccountUserPrepareForPkg(const std::string& user, const std::string& group,
                                      const std::string& home) {
    if (!IsValidAccountName(user) || !IsValidAccountName(group) || home.empty() || home[0] != '/' ||
        home.find(':') != std::string::npos || home.find('\n') != std::string::npos) {
        ZLOGERR("Failed to prepare account [%s:%s]: bad name or home [%s]", user.c_str(),
                group.c_str(), home.c_str());
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    std::vector<GroupLine> groups;
    std::vector<ZARNUserRecord> users;
    if (!ReadGroups(groups) || !ReadUsers(users)) {
        return -1;
    }
    const GroupLine* primary = nullptr;
    std::set<unsigned long> usedGids;
    for (const auto& g : groups) {
        usedGids.insert(g.gid);
        if (g.name == group) {
            primary = &g;
        }
    }
    if (primary == nullptr &&
        CreateAccount("group", group, "/usr/sbin/groupadd", "-g", usedGids, {}) < 0) {
        return -1;
    }

    const ZARNUserRecord* existing = nullptr;
    std::set<unsigned long> usedUids;
    for (const auto& u : users) {
        usedUids.insert(u.uid);
        if (u.name == user) {
            existing = &u;
        }
    }
    if (existing == nullptr) {
        return CreateAccount(
            "user", user, "/usr/sbin/useradd", "-u", usedUids,
            {"-g", group, "-d", home, "-M", "-s", "/sbin/nologin", "-c", "package " + user});
    }

    gid_t wantGid = static_cast<gid_t>(-1);
    if (ZARNGroupGetGID(group, &wantGid) < 0) {
        return -1;
    }
    if (existing->gid == wantGid && existing->home == home) {
        return 0;
    }
    // usermod --prefix looks the new group up in the machine's database rather than the
    // root's, so the entry is adjusted here, in the same way: a new file renamed over the old.
    if (!RewriteUserEntry(user, wantGid, home)) {
        ZLOGERR("Failed to adjust user %s %s", user.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    return 0;
}

int ZARNGroupGet(const std::string& name, ZARNGroupRecord** record) {
    if (record == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    *record = nullptr;
    GroupLine group;
    if (FindGroup(name, group) < 0) {
        return -1;
    }
    auto* out = static_cast<ZARNGroupRecord*>(calloc(1, sizeof(ZARNGroupRecord)));
    if (out == nullptr) {
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
        return -1;
    }
    out->gid = group.gid;
    out->name = DupString(group.name);
    out->members = static_cast<char**>(calloc(group.members.size() + 1, sizeof(char*)));
    bool ok = out->name != nullptr && out->members != nullptr;
    for (size_t i = 0; ok && i < group.members.size(); ++i) {
        out->members[i] = DupString(group.members[i]);
        ok = out->members[i] != nullptr;
    }
    if (!ok) {
        ZARNGroupFree(out);
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
        return -1;
    }
    *record = out;
    return 0;
}

void ZARNGroupFree(ZARNGroupRecord* record) {
    if (record == nullptr) {
        return;
    }
    if (record->members != nullptr) {
        for (char** m = record->members; *m != nullptr; ++m) {
            free(*m);
        }
        free(record->members);
    }
    free(record->name);
    free(record);
}

int ZARNLocalAccountGroupSet(const std::string& name, const ZARNGroupRecord* record) {
    if (record == nullptr || !IsValidAccountName(name)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    GroupLine current;
    if (FindGroup(name, current) < 0) {
        return -1;
    }
    std::string list;
    for (char** m = record->members; m != nullptr && *m != nullptr; ++m) {
        if (!IsValidAccountName(*m)) {
            ZLOGERR("Failed to set members of %s: bad member name [%s]", name.c_str(), *m);
            VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
            return -1;
        }
        if (!list.empty()) {
            list += ",";
        }
        list += *m;
    }
    std::vector<std::string> argv = AccountTool("/usr/sbin/groupmod");
    argv.insert(argv.end(), {"-U", list, "--", name});
    return RunAccountTool(std::move(argv));
}

int ZARNGroupListMember(const std::string& name, std::vector<std::string>& members) {
    GroupLine group;
    if (FindGroup(name, group) < 0) {
        return -1;
    }
    members = group.members;
    return 0;
}

int ZARNUserListGroupIds(const std::string& name, std::vector<gid_t>& gids) {
    gids.clear();
    if (name.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    std::vector<GroupLine> groups;
    if (!ReadGroups(groups)) {
        return -1;
    }
    for (const auto& group : groups) {
        for (const auto& member : group.members) {
            if (member == name) {
                gids.push_back(group.gid);
                break;
            }
        }
    }
    return 0;
}

int ZARNRuntimeIdentityGet(const std::string& user, bool primaryOwnGroup,
                           ZARNRuntimeIdentity& identity) {
    ZARNUserRecord record;
    if (FindUser(user, record) < 0) {
        return -1;
    }
    // setresuid and setresgid read -1 as "keep the current id": a child would stay root.
    if (record.uid == static_cast<uid_t>(-1) || record.gid == static_cast<gid_t>(-1)) {
        ZLOGERR("Failed to take the identity of %s: bad id in %s", user.c_str(), kPasswdPath);
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    std::vector<gid_t> member;
    if (ZARNUserListGroupIds(user, member) < 0) {
        return -1;
    }
    identity.user = record.name;
    identity.home = record.home;
    identity.uid = record.uid;
    identity.gid = primaryOwnGroup ? record.gid : kSystemGid;
    identity.groups.clear();
    std::set<gid_t> seen;
    auto add = [&](gid_t gid) {
        if (seen.insert(gid).second) {
            identity.groups.push_back(gid);
        }
    };
    add(identity.gid);
    add(record.gid);
    for (gid_t gid : member) {
        if (gid != static_cast<gid_t>(-1)) {
            add(gid);
        }
    }
    return 0;
}
