#include "support/cli_runner.h"

#include <gtest/gtest.h>

#include <algorithm>

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

std::string Shown(const std::vector<std::string>& args) {
    std::string text;
    for (const auto& a : args) {
        text += " " + a;
    }
    return text;
}

std::vector<std::string> WithJson(const std::vector<std::string>& args) {
    std::vector<std::string> json{"--json"};
    json.insert(json.end(), args.begin(), args.end());
    return json;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t pos = 0; pos < text.size();) {
        const size_t end = std::min(text.find('\n', pos), text.size());
        lines.push_back(text.substr(pos, end - pos));
        pos = end + 1;
    }
    return lines;
}

Json::Value ParseJson(const std::string& text) {
    Json::Value v;
    EXPECT_TRUE(Json::fromString(v, text)) << text;
    return v;
}
