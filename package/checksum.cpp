#include "package/checksum.h"

#include <string>

#include "platform/files.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"

namespace ZARNPackageTool {

bool PMSCompareCheckSum(const char* file, const char* md5) {
    if (file == nullptr || md5 == nullptr || !IsFileExists(file)) {
        return false;
    }
    const std::string openssl = ZARNMachineProgram("/usr/bin/openssl");
    const std::string command = openssl + " md5";
    ZARNUtils::ProcessRunner runner({openssl, "md5", ZARNPhysicalPath(file)});
    runner.captureOutput();
    if (runner.run() < 0) {
        ZLOGERR("%s failed, path=%s", command.c_str(), file);
        return false;
    }
    const std::string& output = runner.getStdout();
    std::string line = output.substr(0, output.find('\n'));
    if (line.empty()) {
        ZLOGERR("%s failed, path=%s", command.c_str(), file);
        return false;
    }
    // The digest follows the last "= ", so a file name that holds one can't mislead us.
    size_t mark = line.rfind("= ");
    if (mark == std::string::npos) {
        ZLOGERR("Invalid output");
        return false;
    }
    return line.substr(mark + 2) == md5;
}

}  // namespace ZARNPackageTool
