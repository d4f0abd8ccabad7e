#include "platform/programs.h"

#include <unistd.h>

std::string ZARNMachineProgram(const std::string& path) {
    if (access(path.c_str(), X_OK) == 0) {
        return path;
    }
    const std::string name = path.substr(path.find_last_of('/') + 1);
    for (const char* dir : {"/usr/bin/", "/usr/sbin/", "/bin/", "/sbin/"}) {
        const std::string candidate = dir + name;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return path;
}
