// The archive walker and the vetting of its members, on any bytes as a QAR file.

#include <fcntl.h>
#include <unistd.h>

#include "fuzz_support.h"
#include "package/archive.h"
#include "package/tar_reader.h"
#include "platform/files.h"

using namespace ZARNPackageTool;

namespace {

const char* const kFile = "/tmp/fuzz.qar";

bool IsDataMember(const TarMember& m) {
    return m.type == '0' || m.type == '7';
}

bool HasDotDotPart(const std::string& path) {
    return path == ".." || path.compare(0, 3, "../") == 0 ||
           path.find("/../") != std::string::npos ||
           (path.size() >= 3 && path.compare(path.size() - 3, 3, "/..") == 0);
}

bool SameMembers(const std::vector<TarMember>& a, const std::vector<TarMember>& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].name != b[i].name || a[i].linkname != b[i].linkname || a[i].type != b[i].type ||
            a[i].size != b[i].size || a[i].dataOffset != b[i].dataOffset ||
            a[i].mode != b[i].mode) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzWriteFile(kFile, FuzzInput(data, size));

    std::vector<TarMember> members;
    std::string why;
    const TarScanStatus status = PMSTarScan(kFile, members, why);
    FUZZ_CHECK(status != TarScanStatus::ReadError && status != TarScanStatus::Refused);
    FUZZ_CHECK((status == TarScanStatus::Ok) == why.empty());
    unsigned long long previous = 0;
    size_t reads = 0;
    for (const TarMember& m : members) {
        // Every member starts on a block after its header, in archive order, and its data lies
        // inside the file: the walk never reads past what it was given.
        FUZZ_CHECK(m.dataOffset % 512 == 0 && m.dataOffset > previous);
        previous = m.dataOffset;
        FUZZ_CHECK(m.mode <= 07777);
        if (IsDataMember(m)) {
            FUZZ_CHECK(m.dataOffset + m.size <= size);
            std::string content;
            if (reads++ < 4) {
                FUZZ_CHECK(PMSTarReadMember(kFile, m, m.size, content) && content.size() == m.size);
                FUZZ_CHECK(m.size == 0 || !PMSTarReadMember(kFile, m, m.size - 1, content));
            }
        }
    }

    // The forward-only walk over a stream sees the same archive.
    std::vector<TarMember> streamed;
    std::string streamWhy;
    const TarScanStatus streamStatus = [&] {
        const Fd fd = ZARNOpen(kFile, O_RDONLY);
        FUZZ_CHECK(fd.valid());
        return PMSTarScanStream(fd.get(), streamed, streamWhy,
                                [](const TarMember&, std::string&) { return true; });
    }();
    if (streamStatus == TarScanStatus::Ok) {
        FUZZ_CHECK(status == TarScanStatus::Ok && SameMembers(members, streamed));
    }
    if (status == TarScanStatus::Ok && streamStatus != TarScanStatus::Ok) {
        // Only the missing end blocks, which a file may leave out, tell the two apart.
        FUZZ_CHECK(streamStatus == TarScanStatus::Truncated && SameMembers(members, streamed));
    }

    // A vetted member list can't write outside the folder it is extracted into.
    std::vector<TarMember> vetted;
    std::string vetWhy;
    const bool ok = PMSQarListVetted(kFile, vetted, vetWhy);
    FUZZ_CHECK(!ok || status == TarScanStatus::Ok);
    if (ok) {
        for (const TarMember& m : vetted) {
            FUZZ_CHECK(!m.name.empty() && m.name[0] != '/' && !HasDotDotPart(m.name));
            FUZZ_CHECK(std::string("01257").find(m.type) != std::string::npos);
            if (m.type == '1' || m.type == '2') {
                FUZZ_CHECK(!m.linkname.empty() && m.linkname[0] != '/' &&
                           !HasDotDotPart(m.linkname));
            }
        }
    }
    return 0;
}
