#pragma once

#include "platform/export.h"

// The last-error slot of the support library: a 16-bit code with the place that set it.
enum ZARNErrorCode : int {
    ZARN_ERR_NONE = 0x0000,
    ZARN_ERR_NO_FILE = 0x0700,        // missing file; many callers treat it as "empty"
    ZARN_ERR_IO = 0x0b00,             // read, write or system call failure
    ZARN_ERR_OUT_OF_MEMORY = 0x0c00,  // allocation failure
    ZARN_ERR_BAD_PARAMETERS = 0x0d00,
    ZARN_ERR_KEY_NOT_FOUND = 0x2000,
    ZARN_ERR_LOCK = 0x2100,  // a lock could not be had in time
    ZARN_ERR_EXEC = 0x2200,  // a program could not be started
    ZARN_ERR_NO_SPACE = 0x2900,
};

ZARNHOST_API void VLIBCErrSetEx(int code, const char* file, int line);
ZARNHOST_API int VLIBCErrGet();
ZARNHOST_API const char* VLIBCErrorGetFile();
ZARNHOST_API int VLIBCErrorGetLine();

#define VLIBCErrSet(code) VLIBCErrSetEx((code), __FILE__, __LINE__)
