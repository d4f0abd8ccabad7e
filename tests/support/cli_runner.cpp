#include "support/cli_runner.h"

#include "platform/process.h"

CliRun RunZarnpkg(const std::string& root, const std::vector<std::string>& args,
                  const CliRunPlace& place) {
    std::vector<std::string> argv{std::string(ZARN_BINARY_DIR) + "/zarnpkg", "--root", root};
    argv.insert(argv.end(), args.begin(), args.end());
    ZARNUtils::ProcessRunner runner(argv);
    runner.unsetEnv("ZARNPKG_ROOT");
    if (!place.cwd.empty()) {
        runner.setWorkingDirectory(place.cwd);
    }
    if (place.outputFd >= 0) {
        runner.setOutputFd(place.outputFd);
    } else {
        runner.captureOutput();
    }
    CliRun r;
    r.status = runner.run();
    r.out = runner.getStdout();
    r.err = runner.getStderr();
    return r;
}
