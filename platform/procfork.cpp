#include "platform/procfork.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

pid_t VLIBCProcForkEx(int flag) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0 && flag != 0) {
        // A parent that is gone before the call returns leaves no orphaned worker behind.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(1);
        }
    }
    return pid;
}

int ZARNWaitChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}
