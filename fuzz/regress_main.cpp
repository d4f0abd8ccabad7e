// Feeds kept inputs to a fuzz target's entry function without the fuzzer: every file named, and
// every file in each folder named. Fails when a folder holds no input, so that a corpus that
// went missing doesn't pass as tested.

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "platform/files.h"
#include "platform/sysroot.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    // The inputs lie in the source tree, outside any root: read them all before the target
    // makes its own.
    ZARNPackageCore::SetSystemRoot("/");
    std::vector<std::pair<std::string, std::string>> inputs;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::string> files{argv[i]};
        std::vector<ZARNDirEntry> entries;
        if (ZARNIsDir(argv[i])) {
            if (!ZARNListDir(argv[i], entries) || entries.empty()) {
                std::fprintf(stderr, "no inputs in %s\n", argv[i]);
                return 1;
            }
            files.clear();
            for (const auto& entry : entries) {
                files.push_back(std::string(argv[i]) + "/" + entry.name);
            }
        }
        for (const auto& file : files) {
            std::string data;
            if (!ZARNFileRead(file, data)) {
                std::fprintf(stderr, "cannot read %s\n", file.c_str());
                return 1;
            }
            inputs.emplace_back(file, std::move(data));
        }
    }
    for (const auto& input : inputs) {
        std::fprintf(stderr, "%s\n", input.first.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.second.data()),
                               input.second.size());
    }
    std::fprintf(stderr, "%zu inputs passed\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
