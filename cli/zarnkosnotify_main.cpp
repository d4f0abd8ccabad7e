// zarnkosnotify: the standalone host's desktop notification tool, linked as
// /usr/zarn/bin/zarnkosnotify inside a root. A notice has no desktop to go to here, so it is
// recorded, word for word, in the root's events log.
#include <cstdio>
#include <string>

#include "platform/apppriv.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: zarnkosnotify [-c APP] [-t BOOL] [-e] RECIPIENT... TEXT...\n");
        return 2;
    }
    std::string line = "notify:";
    for (int i = 1; i < argc; ++i) {
        line += std::string(" ") + argv[i];
    }
    return ZARNEventLog(line) ? 0 : 1;
}
