#include "platform/fsnames.h"

#include <cstring>

bool ZARNEAIsHiddenDir(const char* name) {
    static const char* const reserved[] = {"@eaDir",    "#recycle",  "#snapshot", "@tmp",
                                           "@sharebin", "@appstore", "@database", ".@__thumb"};
    if (name == nullptr) {
        return false;
    }
    for (const char* r : reserved) {
        if (std::strcmp(name, r) == 0) {
            return true;
        }
    }
    return false;
}
