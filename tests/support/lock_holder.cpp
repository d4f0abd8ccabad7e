#include "support/lock_holder.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

ChildLockHolder::ChildLockHolder(const std::function<bool()>& take) {
    int ready[2];
    int release[2];
    if (pipe(ready) != 0 || pipe(release) != 0) {
        return;
    }
    Fd readyRead(ready[0]), readyWrite(ready[1]), releaseRead(release[0]);
    release_ = Fd(release[1]);
    pid_ = fork();
    if (pid_ == 0) {
        readyRead.reset();
        release_.reset();
        char byte = take() ? 'y' : 'n';
        if (write(readyWrite.get(), &byte, 1) != 1) {
            _exit(2);
        }
        (void)!read(releaseRead.get(), &byte, 1);
        _exit(byte == 'y' ? 0 : 1);
    }
    readyWrite.reset();
    char byte = 0;
    took_ = pid_ > 0 && read(readyRead.get(), &byte, 1) == 1 && byte == 'y';
}

ChildLockHolder::~ChildLockHolder() {
    release();
}

bool ChildLockHolder::release() {
    if (pid_ <= 0) {
        return false;
    }
    release_.reset();
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
