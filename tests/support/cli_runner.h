#pragma once

#include <string>
#include <vector>

#include "platform/json.h"

// What one run of the built zarnpkg binary gave.
struct CliRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Where a run works and writes: a physical working folder, and a descriptor that takes standard
// output and error instead of the capture.
struct CliRunPlace {
    std::string cwd;
    int outputFd = -1;
};

// Runs the built zarnpkg with "--root ROOT" and the arguments, without ZARNPKG_ROOT in its
// environment, and captures what it prints.
CliRun RunZarnpkg(const std::string& root, const std::vector<std::string>& args,
                  const CliRunPlace& place = {});

// The arguments as one line, for the message of a failed expectation.
std::string Shown(const std::vector<std::string>& args);
// The same arguments with --json in front.
std::vector<std::string> WithJson(const std::vector<std::string>& args);
// The lines of a printed text, without their ends.
std::vector<std::string> Lines(const std::string& text);
// The JSON document of a printed text; a test failure when it is none.
Json::Value ParseJson(const std::string& text);
