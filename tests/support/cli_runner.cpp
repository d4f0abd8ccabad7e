#include "support/cli_runner.h"

#include "platform/process.h"

CliRun RunZarnpkg(const std::string& root, const std::vector<std::string>& args) {
    std::vector<std::string> argv{std::string(ZARN_BINARY_DIR) + "/zarnpkg", "--root", root};
    argv.insert(argv.end(), args.begin(), args.end());
    ZARNUtils::ProcessRunner runner(argv);
    runner.unsetEnv("ZARNPKG_ROOT").captureOutput();
    CliRun r;
    r.status = runner.run();
    r.out = runner.getStdout();
    r.err = runner.getStderr();
    return r;
}
