// zarn-initctl: the standalone host's job control tool, linked as /sbin/initctl inside a root.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/jobs.h"
#include "platform/terminal_text.h"

namespace {

int Usage() {
    fprintf(stderr,
            "usage: initctl status|start|stop JOB\n"
            "       initctl emit [--no-wait] EVENT [NAME=VALUE]...\n");
    return 2;
}

int PrintState(const std::string& job) {
    int process = 0;
    int phase = ZARN_JOB_PHASE_WAITING;
    if (VLIBServicectlStatus(job, process, phase) < 0) {
        fprintf(stderr, "initctl: cannot read the state of %s\n", ZARNTerminalText(job).c_str());
        return 1;
    }
    printf("%s %s\n", ZARNTerminalText(job).c_str(),
           process == 1 ? "start/running" : "stop/waiting");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return Usage();
    }
    const std::string command = argv[1];
    if (command == "emit") {
        int first = 2;
        if (strcmp(argv[first], "--no-wait") == 0) {
            ++first;
        }
        if (first >= argc) {
            return Usage();
        }
        const std::vector<std::string> vars(argv + first + 1, argv + argc);
        return ZARNJobEmit(argv[first], vars) == 0 ? 0 : 1;
    }
    if (argc != 3) {
        return Usage();
    }
    const std::string job = argv[2];
    ZARNJobFile file;
    if (command == "status") {
        if (!ZARNJobLoad(job, file)) {
            fprintf(stderr, "initctl: Unknown job: %s\n", ZARNTerminalText(job).c_str());
            return 1;
        }
        return PrintState(job);
    }
    if (command == "start" || command == "stop") {
        if ((command == "start" ? ZARNJobStart(job) : ZARNJobStop(job)) != 0) {
            fprintf(stderr, "initctl: Job failed to %s: %s\n", command.c_str(),
                    ZARNTerminalText(job).c_str());
            PrintState(job);
            return 1;
        }
        return PrintState(job);
    }
    return Usage();
}
