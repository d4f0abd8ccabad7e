#include "support/qar_builder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/paths.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/sysroot.h"

namespace qartest {

namespace {

void Octal(char* field, size_t len, unsigned long long value) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%0*llo", static_cast<int>(len - 1), value);
    std::memcpy(field, buf, len - 1);
}

std::string Stage(const std::map<std::string, std::string>& members) {
    std::string dir = ZARNPackageTool::PMSMakeTmpDir("qarstage");
    for (const auto& [name, data] : members) {
        const std::string path = dir + "/" + name;
        const size_t slash = path.find_last_of('/');
        ZARNFSMkdirP(path.substr(0, slash), 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1),
                     0755);
        const bool exec = name.compare(0, 8, "scripts/") == 0 ||
                          (name.size() > 3 && name.compare(name.size() - 3, 3, ".sh") == 0);
        ZARNFileWrite(path, data, exec ? 0755 : 0644);
    }
    return dir;
}

// Top-level names of the staged members, in the order given (INFO first when present).
std::vector<std::string> TopNames(const std::map<std::string, std::string>& members) {
    std::vector<std::string> names;
    for (const auto& [name, data] : members) {
        const std::string top = name.substr(0, name.find('/'));
        if (std::find(names.begin(), names.end(), top) == names.end()) {
            names.push_back(top);
        }
    }
    auto info = std::find(names.begin(), names.end(), "INFO");
    if (info != names.end()) {
        std::rotate(names.begin(), info, info + 1);
    }
    return names;
}

}  // namespace

std::string TarHeader(const RawMember& m) {
    char h[512];
    std::memset(h, 0, sizeof(h));
    std::strncpy(h, m.name.c_str(), 100);
    Octal(h + 100, 8, m.mode);
    Octal(h + 108, 8, 0);
    Octal(h + 116, 8, 0);
    const unsigned long long size =
        m.size >= 0 ? static_cast<unsigned long long>(m.size) : m.data.size();
    Octal(h + 124, 12, size);
    Octal(h + 136, 12, 1700000000);
    std::memset(h + 148, ' ', 8);
    h[156] = m.type;
    std::strncpy(h + 157, m.linkname.c_str(), 100);
    std::memcpy(h + 257, "ustar", 6);
    std::memcpy(h + 263, "00", 2);
    std::strncpy(h + 265, "root", 32);
    std::strncpy(h + 297, "root", 32);
    Octal(h + 329, 8, m.devmajor);
    Octal(h + 337, 8, m.devminor);
    unsigned int sum = 0;
    for (unsigned char c : std::string(h, sizeof(h))) {
        sum += c;
    }
    std::snprintf(h + 148, 8, "%06o", sum);
    h[155] = ' ';
    return std::string(h, sizeof(h));
}

std::string RawTar(const std::vector<RawMember>& members, bool terminate) {
    std::string out;
    for (const auto& m : members) {
        out += TarHeader(m);
        out += m.data;
        out.append((512 - m.data.size() % 512) % 512, '\0');
    }
    if (terminate) {
        out.append(1024, '\0');
    }
    return out;
}

std::string Gzip(const std::string& data, bool best) {
    ZARNUtils::ProcessRunner gz({"/bin/gzip", best ? "-9" : "-6", "-c"});
    gz.captureOutput().setInput(data);
    return gz.run() == 0 ? gz.getStdout() : "";
}

std::string InfoText(const std::vector<std::pair<std::string, std::string>>& keys) {
    std::string text;
    for (const auto& [key, value] : keys) {
        text += key + "=\"" + value + "\"\n";
    }
    return text;
}

std::string BasicInfo(const std::string& name, const std::string& version,
                      const std::vector<std::pair<std::string, std::string>>& extra) {
    std::vector<std::pair<std::string, std::string>> keys = {
        {"package", name},
        {"version", version},
        {"displayname", name + " display"},
        {"description", "a test package"},
        {"maintainer", "tests"},
        {"arch", "noarch"},
    };
    for (const auto& entry : extra) {
        auto it = std::find_if(keys.begin(), keys.end(),
                               [&entry](const auto& kv) { return kv.first == entry.first; });
        if (it != keys.end()) {
            it->second = entry.second;
        } else {
            keys.push_back(entry);
        }
    }
    return InfoText(keys);
}

int Run(const std::vector<std::string>& argv, std::string* out) {
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    const int rc = runner.run();
    if (out != nullptr) {
        *out = runner.getStdout() + runner.getStderr();
    }
    return rc;
}

bool TarFromMap(const std::string& out, const std::map<std::string, std::string>& members,
                bool gzip, std::string& err) {
    const std::string stage = Stage(members);
    std::vector<std::string> argv = {"/bin/tar",  gzip ? "czf" : "cf",     ZARNPhysicalPath(out),
                                     "-C",        ZARNPhysicalPath(stage), "--owner=0",
                                     "--group=0", "--numeric-owner"};
    const std::vector<std::string> names = TopNames(members);
    if (names.empty()) {
        argv.insert(argv.end(), {"-T", "/dev/null"});
    }
    argv.insert(argv.end(), names.begin(), names.end());
    const int rc = Run(argv, &err);
    ZARNRemoveTree(stage);
    return rc == 0;
}

std::string Md5(const std::string& file) {
    std::string out;
    if (Run({"/usr/bin/openssl", "md5", ZARNPhysicalPath(file)}, &out) != 0) {
        return "";
    }
    const size_t pos = out.rfind("= ");
    return pos == std::string::npos ? "" : out.substr(pos + 2, 32);
}

bool BuildQar(const std::string& out, const std::string& info,
              const std::map<std::string, std::string>& payload,
              const std::map<std::string, std::string>& other, std::string& err,
              const std::string& checksum) {
    const std::string tgz = ZARNPackageTool::PMSMakeTmpDir("qarpayload") + "/package.tgz";
    if (!TarFromMap(tgz, payload, true, err)) {
        return false;
    }
    std::string data;
    ZARNFileRead(tgz, data);
    ZARNRemoveTree(tgz.substr(0, tgz.find_last_of('/')));
    std::map<std::string, std::string> members = other;
    members["INFO"] = info + "checksum=\"" + (checksum.empty() ? std::string() : checksum) + "\"\n";
    if (checksum.empty()) {
        // The checksum of the payload as it will lie in the archive.
        const std::string probe = ZARNPackageTool::PMSMakeTmpFile("qarmd5");
        ZARNFileWrite(probe, data);
        members["INFO"] = info + "checksum=\"" + Md5(probe) + "\"\n";
        ZARNUnlink(probe);
    }
    members["package.tgz"] = data;
    return TarFromMap(out, members, false, err);
}

std::vector<std::string> Snapshot(const std::string& physicalDir) {
    std::string out;
    Run({"/usr/bin/find", physicalDir, "-mindepth", "1"}, &out);
    std::vector<std::string> paths;
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) {
            end = out.size();
        }
        if (end > start) {
            paths.push_back(out.substr(start, end - start));
        }
        start = end + 1;
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace qartest
