#include "platform/dso.h"

#include <dlfcn.h>

#include "platform/sysroot.h"

void* ZARNDlopen(const std::string& path, int flags, std::string& error) {
    error.clear();
    void* handle = dlopen(ZARNPhysicalPath(path).c_str(), flags);
    if (handle == nullptr) {
        const char* text = dlerror();
        error = text != nullptr ? text : "unknown loader error";
    }
    return handle;
}
