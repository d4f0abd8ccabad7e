#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

// Builds QAR files for tests: well-formed ones through the machine's tar, hostile ones from raw
// tar headers written here. Paths are logical (inside the test's root) unless said otherwise.
namespace qartest {

// One member of a raw archive. `size` overrides the data length written into the header.
struct RawMember {
    RawMember(std::string n, std::string d, char t = '0', std::string link = "",
              unsigned int m = 0644, long long s = -1, unsigned int major = 0,
              unsigned int minor = 0)
        : name(std::move(n)),
          data(std::move(d)),
          type(t),
          linkname(std::move(link)),
          mode(m),
          size(s),
          devmajor(major),
          devminor(minor) {}
    std::string name;
    std::string data;
    char type = '0';
    std::string linkname;
    unsigned int mode = 0644;
    long long size = -1;
    unsigned int devmajor = 0;
    unsigned int devminor = 0;
};

// One 512-byte ustar header with a correct checksum.
std::string TarHeader(const RawMember& member);
// A whole archive; `terminate` adds the two zero blocks of the end.
std::string RawTar(const std::vector<RawMember>& members, bool terminate = true);

// `data` compressed by the machine's gzip (-9 when `best`); empty when gzip fails.
std::string Gzip(const std::string& data, bool best = false);

// INFO text: the key lines of `keys` in order, key="value".
std::string InfoText(const std::vector<std::pair<std::string, std::string>>& keys);
// The INFO of a small valid package, with extra keys added or replaced.
std::string BasicInfo(const std::string& name, const std::string& version,
                      const std::vector<std::pair<std::string, std::string>>& extra = {});

// Writes the files of `members` (name -> content) into a fresh folder under /tmp of the root and
// runs the machine's tar over them: `cf` for a plain QAR, `czf` for a payload. Returns false with
// tar's message in `err`.
bool TarFromMap(const std::string& out, const std::map<std::string, std::string>& members,
                bool gzip, std::string& err);

// The lower-case MD5 of a file, by openssl.
std::string Md5(const std::string& file);

// A complete QAR: INFO (with the checksum of the payload filled in unless `checksum` is given),
// package.tgz made from `payload`, and the `other` members (scripts/..., conf/..., ...).
bool BuildQar(const std::string& out, const std::string& info,
              const std::map<std::string, std::string>& payload,
              const std::map<std::string, std::string>& other, std::string& err,
              const std::string& checksum = "");

// Runs a program with argv; returns its exit status.
int Run(const std::vector<std::string>& argv, std::string* out = nullptr);

// Every path under a physical folder (files, folders, links), sorted: to tell what an operation
// created or removed.
std::vector<std::string> Snapshot(const std::string& physicalDir);

}  // namespace qartest
