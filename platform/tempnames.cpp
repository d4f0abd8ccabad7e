#include "platform/tempnames.h"

#include <fcntl.h>
#include <stdlib.h>

#include <cerrno>
#include <vector>

#include "platform/errors.h"
#include "platform/sysroot.h"

namespace {

bool SplitTemplate(const std::string& logicalTemplate, std::vector<char>& phys) {
    if (logicalTemplate.empty() || logicalTemplate[0] != '/') {
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    std::string p = ZARNPhysicalPath(logicalTemplate);
    phys.assign(p.begin(), p.end());
    phys.push_back('\0');
    return true;
}

}  // namespace

int ZARNMkstemp(const std::string& logicalTemplate, std::string& out) {
    std::vector<char> phys;
    if (!SplitTemplate(logicalTemplate, phys)) {
        return -1;
    }
    int fd = mkostemp(phys.data(), O_CLOEXEC);
    if (fd < 0) {
        int saved = errno;
        VLIBCErrSet(ZARN_ERR_IO);
        errno = saved;
        return -1;
    }
    out = ZARNLogicalPath(phys.data());
    return fd;
}

bool ZARNMkdtemp(const std::string& logicalTemplate, std::string& out) {
    std::vector<char> phys;
    if (!SplitTemplate(logicalTemplate, phys)) {
        return false;
    }
    if (mkdtemp(phys.data()) == nullptr) {
        int saved = errno;
        VLIBCErrSet(ZARN_ERR_IO);
        errno = saved;
        return false;
    }
    out = ZARNLogicalPath(phys.data());
    return true;
}
