#pragma once

#include <sys/types.h>

#include <functional>

#include "platform/fd.h"

// A forked child that takes a lock with `take` and holds it until release() (or the end of the
// holder, or of the test process): what a second process meets while the lock is held. The
// child waits on a pipe, so it holds on however slow the machine is.
class ChildLockHolder {
public:
    explicit ChildLockHolder(const std::function<bool()>& take);
    ~ChildLockHolder();
    ChildLockHolder(const ChildLockHolder&) = delete;
    ChildLockHolder& operator=(const ChildLockHolder&) = delete;

    // Whether the child got the lock.
    bool took() const { return took_; }
    // Lets the child go and waits for it: true when it ended with status 0.
    bool release();

private:
    pid_t pid_ = -1;
    Fd release_;
    bool took_ = false;
};
