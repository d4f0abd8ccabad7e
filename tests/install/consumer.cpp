// A program of another project, built only against the installed headers and library.
#include <cstdio>

#include "all_public_headers.h"

int main(int argc, char** argv) {
    if (argc > 1) {
        ZARNPackageCore::SetSystemRoot(argv[1]);
    }
    ZARNPackageTool::PackageManager manager;
    if (!manager.init()) {
        std::fprintf(stderr, "init failed: 0x%x\n", static_cast<unsigned>(manager.getResult()));
        return 1;
    }
    const std::vector<std::string> parts = ZARNPackageTool::PMSExplodeString("a,b c", ", ");
    if (parts.size() != 3 || parts[2] != "c") {
        std::fprintf(stderr, "PMSExplodeString gave %zu parts\n", parts.size());
        return 1;
    }
    std::printf("installed interface works\n");
    return 0;
}
