#include "pkgutils/install_file.h"

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/log.h"
#include "resource/resource_errors.h"

namespace ZARN {
namespace PkgUtils {

bool InstallConfigFile(const std::string& src, const std::string& dst, unsigned int mode,
                       bool overwrite) {
    if (src.empty() || dst.empty()) {
        ZLOGERR("Bad arguments: src=[%s] dst=[%s]", src.c_str(), dst.c_str());
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (!overwrite && ZARNPathExists(dst)) {
        ZLOGERR("%s exists, not overwritten", dst.c_str());
        VLIBCErrSet(ZARN_ERR_EXISTS);
        return false;
    }
    std::string data;
    if (!ZARNFileRead(src, data)) {
        ZLOGERR("Failed to read %s (%m) %s", src.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    // Written beside the destination and renamed, so that a reader never sees half a file;
    // the mode is set again because the umask narrows the one given at creation.
    if (!ZARNFileWriteDurable(dst, data, mode) || !ZARNChmod(dst, mode)) {
        ZLOGERR("Failed to write %s (%m) %s", dst.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    return true;
}

bool InstallExecutable(const std::string& src, const std::string& dst, bool overwrite) {
    return InstallConfigFile(src, dst, 0755, overwrite);
}

}  // namespace PkgUtils
}  // namespace ZARN
