#include "core/script_mask.h"

#include <sys/stat.h>

#include "platform/files.h"
#include "platform/log.h"

namespace ZARNPackageTool {

unsigned int PMGetScriptMask(const std::string& dir) {
    static const struct {
        unsigned int bit;
        const char* file;
    } scripts[] = {
        {PKG_SCRIPT_START_STOP_STATUS, "start-stop-status"},
        {PKG_SCRIPT_PREINST, "preinst"},
        {PKG_SCRIPT_POSTINST, "postinst"},
        {PKG_SCRIPT_PREUNINST, "preuninst"},
        {PKG_SCRIPT_POSTUNINST, "postuninst"},
        {PKG_SCRIPT_PREUPGRADE, "preupgrade"},
        {PKG_SCRIPT_POSTUPGRADE, "postupgrade"},
    };
    unsigned int mask = 0;
    for (const auto& s : scripts) {
        const std::string path = dir + "/" + s.file;
        struct stat st;
        if (!ZARNStat(path, st)) {
            continue;
        }
        if (!(st.st_mode & S_IXUSR) && !ZARNChmod(path, 0700)) {
            ZARNSyslog(LOG_EMERG, "%s:%d chmod error: %m", __FILE__, __LINE__);
        }
        mask |= s.bit;
    }
    return mask;
}

}  // namespace ZARNPackageTool
