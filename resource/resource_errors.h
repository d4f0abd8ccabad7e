#pragma once

// Codes of the last-error slot that the resource framework and its workers set, beside those of
// platform/errors.h.
enum ZARNResourceErrorCode : int {
    ZARN_ERR_NO_CONFIG = 0x0600,       // a worker's configuration file is not named or not there
    ZARN_ERR_LOAD_LIBRARY = 0x0900,    // a plug-in library could not be opened
    ZARN_ERR_EXISTS = 0x0800,          // a destination exists and may not be overwritten
    ZARN_ERR_BUILTIN_TYPE = 0x2100,    // a plug-in claims the type of a built-in worker
    ZARN_ERR_BACKUP = 0x2800,          // the own file could not be moved aside
    ZARN_ERR_UNLINK = 0x3900,          // a file or link could not be removed
    ZARN_ERR_TEMP_DIR = 0x3c00,        // the backup folder could not be made
    ZARN_ERR_MALFORMED = 0x4000,       // a value has the wrong shape
    ZARN_ERR_NOT_APPLICABLE = 0xd900,  // a worker does not run at this moment or cannot do this
};
