#pragma once

#include <sys/types.h>

#include "platform/export.h"

// Forks a child that goes on with the caller's objects; `flag` asks the child to die with its
// parent. Returns the child's id in the parent, 0 in the child, negative with errno on failure.
ZARNHOST_API pid_t VLIBCProcForkEx(int flag);

// Waits for a child, retrying after signals; the raw wait status, or -1 when it can't be had.
ZARNHOST_API int ZARNWaitChild(pid_t pid);
