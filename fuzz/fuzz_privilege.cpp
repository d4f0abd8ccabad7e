// conf/privilege as the library reads it, and the walkers over its lists. The package's folder
// holds links that lead out of it; no walker may change anything they lead to.

#include <sys/stat.h>

#include "fuzz_support.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "privilege/privilege.h"
#include "privilege/revise_executable.h"
#include "privilege/revise_tool.h"
#include "privilege/walker.h"

using namespace ZARNPackageTool::Privilege;

namespace {

const std::string kTop = "/volume1/@appstore/fuzz";
const std::string kOutside = "/var/packages/fuzz/outside";
constexpr unsigned int kPkgId = 4242;

void MakeTree() {
    static bool made = false;
    if (made) {
        return;
    }
    made = true;
    FuzzWriteFile(kOutside, "not the package's\n");
    FuzzWriteFile(kTop + "/bin/run", "#!/bin/sh\n");
    FuzzWriteFile(kTop + "/etc/conf", "x=1\n");
    FUZZ_CHECK(ZARNSymlink("../../../var/packages/fuzz/outside", kTop + "/up"));
    FUZZ_CHECK(ZARNSymlink(kOutside, kTop + "/abs"));
    FUZZ_CHECK(ZARNSymlink("/var/packages/fuzz", kTop + "/pkgdir"));
    FUZZ_CHECK(ZARNSymlink("bin/run", kTop + "/inside"));
}

// Puts owners and modes back, so each input starts from the same tree.
void ResetTree() {
    for (const std::string& path : {kTop + "/bin/run", kTop + "/etc/conf", kOutside}) {
        FUZZ_CHECK(ZARNChown(path, 0, 0) && ZARNChmod(path, 0644));
    }
}

bool Untouched(const std::string& path) {
    struct stat st;
    return ZARNStat(path, st) && st.st_uid == 0 && st.st_gid == 0 && (st.st_mode & 07777) == 0644;
}

// The owner a walker may give a file of the package.
bool PackageOwner(const std::string& path) {
    struct stat st;
    return ZARNStat(path, st) && (st.st_uid == 0 || st.st_uid == kPkgId) &&
           (st.st_gid == 0 || st.st_gid == 1 || st.st_gid == kPkgId);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = FuzzInput(data, size);
    MakeTree();
    ResetTree();
    FuzzWriteFile("/var/packages/fuzz/conf/privilege", text);

    Config config;
    VLIBCErrSetEx(ZARN_ERR_NONE, "", 0);
    if (!ReadConfig("fuzz", "", config)) {
        // A file that is no JSON is a bad configuration, never a default one.
        Json::Value value;
        FUZZ_CHECK(VLIBCErrGet() == PRIV_ERR_READ_CONF && !Json::fromString(value, text));
        return 0;
    }
    FUZZ_CHECK(config.present && !config.username.empty() && !config.groupname.empty());
    FUZZ_CHECK(config.defaultIdentity >= IDENTITY_NONE && config.defaultIdentity <= IDENTITY_ROOT);

    for (const char* action : {"preinst", "start-stop-status", "postuninst"}) {
        CtrlScriptWalker walker(action);
        const bool found = TraversePrivilege(config.raw, "ctrl-script", walker);
        FUZZ_CHECK(walker.GetIdentity() >= IDENTITY_NONE && walker.GetIdentity() <= IDENTITY_ROOT);
        FUZZ_CHECK(walker.GetIdentity() == IDENTITY_NONE || found);
    }
    ExeWalker exe(kTop, kPkgId, kPkgId);
    TraversePrivilege(config.raw, "executable", exe);
    ToolWalker tool(kTop, kPkgId, kPkgId);
    TraversePrivilege(config.raw, "tool", tool);
    FUZZ_CHECK(Untouched(kOutside));
    FUZZ_CHECK(PackageOwner(kTop + "/bin/run") && PackageOwner(kTop + "/etc/conf"));
    return 0;
}
