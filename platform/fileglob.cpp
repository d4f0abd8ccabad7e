#include "platform/fileglob.h"

#include <glob.h>

#include "platform/errors.h"
#include "platform/sysroot.h"

int ZARNGlob(const std::string& pattern, int flags, std::vector<std::string>& out) {
    out.clear();
    glob_t matches{};
    const int result = glob(ZARNPhysicalPath(pattern).c_str(), flags, nullptr, &matches);
    if (result == 0) {
        for (size_t i = 0; i < matches.gl_pathc; ++i) {
            out.push_back(ZARNLogicalPath(matches.gl_pathv[i]));
        }
    } else {
        VLIBCErrSet(ZARN_ERR_IO);
    }
    globfree(&matches);
    return result;
}
