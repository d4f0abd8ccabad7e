// zarnpkgctl: what the generated init jobs of packages call. It runs the package's
// start-stop-status through the library; its exit status is the script's.
#include <cstdio>
#include <string>

#include "service/pkgctl.h"

int main(int argc, char** argv) {
    if (argc != 3 || !ZARNPackageTool::Service::PkgctlIsAction(argv[1])) {
        fprintf(stderr, "usage: zarnpkgctl start|stop|setup|teardown|swap-on NAME\n");
        return 2;
    }
    return ZARNPackageTool::Service::PkgctlRun(argv[1], argv[2]);
}
