#include "platform/errors.h"

#include <cstring>

namespace {

// Each thread keeps its own slot so that the icon pool can't overwrite the error of the
// action thread between a failure and the line that reports it.
struct LastError {
    int code = ZARN_ERR_NONE;
    int line = 0;
    char file[256] = "";
};

thread_local LastError t_lastError;

}  // namespace

void VLIBCErrSetEx(int code, const char* file, int line) {
    t_lastError.code = code;
    t_lastError.line = line;
    if (file == nullptr) {
        t_lastError.file[0] = '\0';
        return;
    }
    // The caller's text may not outlive the call, so the slot keeps a copy.
    size_t len = strnlen(file, sizeof(t_lastError.file) - 1);
    memcpy(t_lastError.file, file, len);
    t_lastError.file[len] = '\0';
}

int VLIBCErrGet() {
    return t_lastError.code;
}

const char* VLIBCErrorGetFile() {
    return t_lastError.file;
}

int VLIBCErrorGetLine() {
    return t_lastError.line;
}
