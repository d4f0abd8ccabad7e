#include "package/pack.h"

#include <sys/stat.h>
#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>

#include "core/packageinfo.h"
#include "core/paths.h"
#include "package/archive.h"
#include "package/lint.h"
#include "package/payload_vet.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/scope_guard.h"
#include "platform/sysroot.h"
#include "platform/textsplit.h"

namespace ZARNPackageTool {

namespace {

// Optional members copied from the source folder as they are, in this order after INFO and
// package.tgz.
const std::vector<std::string> kOptionalMembers = {
    "conf", "scripts", "WIZARD_UIFILES", "LICENSE", "PACKAGE_ICON.PNG", "PACKAGE_ICON_256.PNG",
};

int Run(const std::vector<std::string>& argv, std::string& err) {
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    int rc = runner.run();
    err = runner.getStderr();
    if (!err.empty() && err.back() == '\n') {
        err.pop_back();
    }
    return rc;
}

// The keys that the loader insists on, tested one by one so the author learns which is wrong.
bool CheckInfoKeys(const std::map<std::string, std::string>& keys, std::string& error) {
    auto get = [&keys](const char* key) -> const std::string* {
        auto it = keys.find(key);
        return it == keys.end() ? nullptr : &it->second;
    };
    const std::string* name = get("package");
    if (name == nullptr || name->empty()) {
        error = "INFO: key \"package\" is missing";
        return false;
    }
    if (!PMSCheckName(name->c_str(), ":/<>=|")) {
        error = "INFO: key \"package\" (\"" + *name +
                "\") is no valid package name: it must not be empty, \".\", \"..\", hidden, "
                "longer than 491 bytes, or hold any of : / < > = |";
        return false;
    }
    for (const char* key : {"version", "maintainer", "description"}) {
        const std::string* v = get(key);
        if (v == nullptr || v->empty()) {
            error = std::string("INFO: key \"") + key + "\" is missing or empty";
            return false;
        }
    }
    if (const std::string* port = get("adminport")) {
        if (!port->empty() && std::strtoul(port->c_str(), nullptr, 10) > 65536) {
            error = "INFO: key \"adminport\" (\"" + *port + "\") is no port number";
            return false;
        }
    }
    if (const std::string* ui = get("kosuidir")) {
        if (!ui->empty() && !PMSCheckName(ui->c_str(), ":/")) {
            error = "INFO: key \"kosuidir\" (\"" + *ui + "\") is no valid folder name";
            return false;
        }
    }
    return true;
}

// INFO as written by the author, with "checksum" and "extractsize" replaced.
std::string InfoText(const std::string& text, const std::string& checksum,
                     unsigned long long extractKiB) {
    std::string out;
    for (const std::string& line : ZARNSplitText(text, '\n')) {
        const size_t eq = line.find('=');
        const std::string key = eq == std::string::npos ? "" : ZARNTrimText(line.substr(0, eq));
        if (key != "checksum" && key != "extractsize") {
            out += line + "\n";
        }
    }
    out += "checksum=\"" + checksum + "\"\n";
    out += "extractsize=\"" + std::to_string(extractKiB) + "\"\n";
    return out;
}

bool Md5Of(const std::string& file, std::string& md5, std::string& error) {
    ZARNUtils::ProcessRunner runner(
        {ZARNMachineProgram("/usr/bin/openssl"), "md5", PMSProgramPath(file)});
    runner.captureOutput();
    if (runner.run() != 0) {
        error = "openssl md5 failed: " + runner.getStderr();
        return false;
    }
    const std::string& out = runner.getStdout();
    const size_t pos = out.find("= ");
    if (pos == std::string::npos) {
        error = "openssl md5 gave no digest";
        return false;
    }
    md5 = ZARNTrimText(out.substr(pos + 2, out.find('\n', pos) - pos - 2));
    return !md5.empty();
}

// True when `path` would be written inside the folder `dir`, however the two are spelled. "." and
// ".." are taken out by their text; every folder above the result is then compared with `dir`
// by identity, so links to the folder count too.
bool LiesInside(const std::string& path, const std::string& dir) {
    struct stat d;
    if (!ZARNStat(dir, d)) {
        return false;
    }
    const bool absolute = !path.empty() && path[0] == '/';
    std::vector<std::string> parts;
    for (const auto& p : ZARNSplitText(path, '/')) {
        if (p.empty() || p == "." || (p == ".." && absolute && parts.empty())) {
            continue;
        }
        if (p == ".." && !parts.empty() && parts.back() != "..") {
            parts.pop_back();
        } else {
            parts.push_back(p);
        }
    }
    for (size_t n = parts.size(); n > 0; --n) {
        std::string folder = absolute ? "" : ".";
        for (size_t i = 0; i + 1 < n; ++i) {
            folder += "/" + parts[i];
        }
        struct stat st;
        if (ZARNStat(folder.empty() ? "/" : folder, st) && st.st_dev == d.st_dev &&
            st.st_ino == d.st_ino) {
            return true;
        }
    }
    return false;
}

std::string Joined(const std::vector<std::string>& items, const char* sep) {
    std::string text;
    for (const auto& item : items) {
        text += (text.empty() ? "" : sep) + item;
    }
    return text;
}

bool PackPackage(const std::string& dir, const std::string& output, std::string& error,
                 std::vector<std::string>& warnings) {
    if (dir.empty() || output.empty()) {
        error = "a source folder and an output file are needed";
        return false;
    }
    if (!ZARNIsDir(dir)) {
        error = dir + " is no folder";
        return false;
    }
    if (ZARNIsDir(output)) {
        error = output + " is a folder: name the file to write, such as " + output + "/package.qar";
        return false;
    }
    if (LiesInside(output, dir)) {
        error = output + " lies inside the source folder " + dir +
                ", so the next pack would take it in: write it elsewhere";
        return false;
    }
    std::string infoText;
    if (!ZARNIsRegularFile(dir + "/INFO") || !ZARNFileRead(dir + "/INFO", infoText)) {
        error = dir + "/INFO is missing or unreadable";
        return false;
    }
    std::map<std::string, std::string> keys;
    ZARNKeyTextParse(infoText, "=", nullptr, keys);
    if (!CheckInfoKeys(keys, error)) {
        return false;
    }
    PackageInfo info;
    if (!PMSLoadPKGInfoFile(dir, info, nullptr, PKG_MASK_ALL)) {
        error = "INFO: the record does not load (see the log for the key)";
        return false;
    }
    if (!ZARNIsDir(dir + "/package")) {
        error = dir + "/package is missing: the payload folder is required";
        return false;
    }

    const std::string tmp = PMSMakeTmpDir("pkgpack");
    if (tmp.empty()) {
        error = "can't make a temp folder";
        return false;
    }
    ZARN_SCOPE_EXIT {
        ZARNRemoveTree(tmp);
    };
    const std::string tar = ZARNMachineProgram("/bin/tar");
    // Owners of the author's machine mean nothing on the target.
    const std::vector<std::string> common = {"--numeric-owner", "--owner=0", "--group=0",
                                             "--sort=name", "--format=gnu"};

    // The payload, with names relative to package/.
    std::vector<ZARNDirEntry> entries;
    if (!ZARNListDir(dir + "/package", entries)) {
        error = "can't list " + dir + "/package";
        return false;
    }
    std::vector<std::string> payloadNames;
    for (const auto& e : entries) {
        payloadNames.push_back(e.name);
    }
    std::sort(payloadNames.begin(), payloadNames.end());
    std::vector<std::string> argv = {tar, "czf", PMSProgramPath(tmp + "/package.tgz"), "-C",
                                     PMSProgramPath(dir + "/package")};
    argv.insert(argv.end(), common.begin(), common.end());
    if (payloadNames.empty()) {
        argv.insert(argv.end(), {"-T", "/dev/null"});
    } else {
        argv.push_back("--");
        argv.insert(argv.end(), payloadNames.begin(), payloadNames.end());
    }
    std::string err;
    if (Run(argv, err) != 0) {
        error = "packing the payload failed: " + err;
        return false;
    }
    unsigned long long unpacked = 0;
    std::string why;
    if (!PMSPayloadVet(tmp + "/package.tgz", ~0ULL, unpacked, why)) {
        error = "the payload can't be packed safely: " + why;
        return false;
    }
    PMSLintReport report;
    PMSLintSourceFolder(dir, tmp + "/package.tgz", report);
    if (!report.errors.empty()) {
        error = Joined(report.errors, "; ");
        return false;
    }
    warnings = report.warnings;
    std::string md5;
    if (!Md5Of(tmp + "/package.tgz", md5, error)) {
        return false;
    }
    if (!ZARNFileWrite(tmp + "/INFO", InfoText(infoText, md5, (unpacked + 1023) / 1024), 0644)) {
        error = "can't write INFO";
        return false;
    }

    const std::string qar = tmp + "/out.qar";
    argv = {tar, "cf", PMSProgramPath(qar)};
    argv.insert(argv.end(), common.begin(), common.end());
    argv.insert(argv.end(), {"-C", PMSProgramPath(tmp), "INFO", "package.tgz"});
    std::vector<std::string> optional;
    for (const auto& name : kOptionalMembers) {
        if (ZARNPathExists(dir + "/" + name)) {
            optional.push_back(name);
        }
    }
    if (!optional.empty()) {
        argv.insert(argv.end(), {"-C", PMSProgramPath(dir)});
        argv.insert(argv.end(), optional.begin(), optional.end());
    }
    if (Run(argv, err) != 0) {
        error = "writing the archive failed: " + err;
        return false;
    }
    // What we hand out must pass our own reader.
    std::vector<TarMember> members;
    if (!PMSQarListVetted(qar, members, why)) {
        error = "the archive would be refused: " + why;
        return false;
    }
    if (!ZARNRename(qar, output)) {
        // Another file system: copy, which writes nothing but the output.
        if (Run({ZARNMachineProgram("/bin/cp"), "--", PMSProgramPath(qar), PMSProgramPath(output)},
                err) != 0) {
            error = "can't write " + output + ": " + err;
            return false;
        }
    }
    return true;
}

}  // namespace

bool PMSPackPackage(const std::string& dir, const std::string& output, std::string& error,
                    std::vector<std::string>* warnings) {
    std::vector<std::string> found;
    if (!PackPackage(dir, output, error, found)) {
        ZLOGERR("Failed to pack %s into %s: %s", dir.c_str(), output.c_str(), error.c_str());
        return false;
    }
    for (const auto& w : found) {
        ZLOGWARN("%s: %s", dir.c_str(), w.c_str());
    }
    if (warnings != nullptr) {
        *warnings = found;
    }
    return true;
}

}  // namespace ZARNPackageTool
