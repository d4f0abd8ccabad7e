#pragma once

#include <syslog.h>

#include <string>

#include "platform/export.h"

// Writes a line at the given syslog priority; "%m" expands to the text of errno as with
// syslog(3). Lines are mirrored to the file named by ZARNPKG_LOG_FILE and, when asked, to
// standard error.
ZARNHOST_API void ZARNSyslog(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The "[0x%04X %s:%d]" suffix that names the last library error.
ZARNHOST_API std::string ZARNLastErrorSuffix();

// Copies every log line to standard error (the command line's -v).
ZARNHOST_API void ZARNLogSetVerbose(bool verbose);

// Logs an error line with the caller's file and line first: ZLOGERR("Failed to %s", what).
#define ZLOGERR(fmt, ...) ZARNSyslog(LOG_ERR, "%s:%d " fmt, __FILE__, __LINE__, ##__VA_ARGS__)
#define ZLOGWARN(fmt, ...) ZARNSyslog(LOG_WARNING, "%s:%d " fmt, __FILE__, __LINE__, ##__VA_ARGS__)
#define ZLOGINFO(fmt, ...) ZARNSyslog(LOG_INFO, "%s:%d " fmt, __FILE__, __LINE__, ##__VA_ARGS__)
