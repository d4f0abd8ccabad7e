#include "package/payload_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "package/checksum.h"
#include "platform/fd.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/process.h"

namespace ZARNPackageTool {

namespace {

constexpr size_t kChunk = 1 << 20;
constexpr size_t kChunksAhead = 4;
// Block padding may follow the end of the tar; a lot more is something else.
constexpr size_t kMaxTrailing = 1024 * 1024;

// Hands out a range of a file in chunks, read (and hashed) ahead by a helper thread while the
// caller inflates the chunks before.
class ChunkFeed {
public:
    ChunkFeed(int fd, unsigned long long offset, unsigned long long size, bool hash)
        : fd_(fd), offset_(offset), size_(size), hash_(hash) {
        for (size_t i = 0; i < kChunksAhead; ++i) {
            free_.emplace_back(kChunk);
        }
    }
    ~ChunkFeed() { stop(); }

    bool start() {
        try {
            reader_ = std::thread([this] { readAll(); });
        } catch (const std::system_error&) {
            return false;
        }
        return true;
    }

    // The next chunk, valid until the next call; false at the end of the range or on failure.
    bool next(const unsigned char*& data, size_t& len) {
        std::unique_lock<std::mutex> hold(lock_);
        if (!current_.empty()) {
            free_.push_back(std::move(current_));
            current_.clear();
            changed_.notify_all();
        }
        changed_.wait(hold, [this] { return !full_.empty() || done_; });
        if (full_.empty()) {
            return false;
        }
        current_ = std::move(full_.front().first);
        len = full_.front().second;
        full_.pop_front();
        data = current_.data();
        return true;
    }

    void stop() {
        {
            std::lock_guard<std::mutex> hold(lock_);
            stopped_ = true;
            changed_.notify_all();
        }
        if (reader_.joinable()) {
            reader_.join();
        }
    }

    // Whether the whole range was read; the md5 of it, once stopped.
    bool complete() const { return complete_; }
    std::string md5() { return digest_.hex(); }

private:
    void readAll() {
        unsigned long long done = 0;
        bool failed = false;
        // A command asked to stop gives up the read, which a large payload would make long.
        while (done < size_ && !failed && ZARNStopSignal() == 0) {
            std::vector<unsigned char> buf;
            {
                std::unique_lock<std::mutex> hold(lock_);
                changed_.wait(hold, [this] { return !free_.empty() || stopped_; });
                if (stopped_) {
                    break;
                }
                buf = std::move(free_.back());
                free_.pop_back();
            }
            const size_t want =
                static_cast<size_t>(std::min<unsigned long long>(kChunk, size_ - done));
            ssize_t n;
            do {
                n = pread(fd_, buf.data(), want, static_cast<off_t>(offset_ + done));
            } while (n < 0 && errno == EINTR);
            failed = n <= 0;
            if (!failed) {
                if (hash_) {
                    digest_.update(buf.data(), static_cast<size_t>(n));
                }
                done += static_cast<unsigned long long>(n);
            }
            std::lock_guard<std::mutex> hold(lock_);
            if (failed) {
                free_.push_back(std::move(buf));
            } else {
                full_.emplace_back(std::move(buf), static_cast<size_t>(n));
            }
            changed_.notify_all();
        }
        std::lock_guard<std::mutex> hold(lock_);
        complete_ = done == size_ && !failed;
        done_ = true;
        changed_.notify_all();
    }

    const int fd_;
    const unsigned long long offset_;
    const unsigned long long size_;
    const bool hash_;
    PMSMd5Digest digest_;
    std::thread reader_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::vector<unsigned char>> free_;
    std::deque<std::pair<std::vector<unsigned char>, size_t>> full_;
    std::vector<unsigned char> current_;
    bool done_ = false;
    bool stopped_ = false;
    bool complete_ = false;
};

// The inflated bytes of a gzip stream (one member or several, back to back) from a feed.
class Inflater {
public:
    explicit Inflater(ChunkFeed& feed) : feed_(feed) { ok_ = inflateInit2(&z_, 15 + 16) == Z_OK; }
    ~Inflater() { inflateEnd(&z_); }

    // Up to `len` bytes; 0 at the clean end of the stream, -1 when it is no gzip stream.
    long long read(char* buf, size_t len) {
        z_.next_out = reinterpret_cast<Bytef*>(buf);
        z_.avail_out = static_cast<uInt>(len);
        while (ok_ && !ended_ && z_.avail_out == len) {
            if (z_.avail_in == 0 && !refill()) {
                // The input stops inside a gzip member.
                ok_ = false;
                break;
            }
            const int rc = inflate(&z_, Z_NO_FLUSH);
            if (rc == Z_STREAM_END) {
                // Another member may follow; anything else after the stream is refused.
                if (z_.avail_in == 0 && !refill()) {
                    ended_ = true;
                } else if (z_.avail_in >= 1 && z_.next_in[0] == 0x1f) {
                    ok_ = inflateReset(&z_) == Z_OK;
                } else {
                    ok_ = false;
                }
            } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
                ok_ = false;
            }
        }
        const size_t got = len - z_.avail_out;
        if (got > 0) {
            return static_cast<long long>(got);
        }
        return ok_ ? 0 : -1;
    }

    bool cleanEnd() const { return ok_ && ended_; }

private:
    bool refill() {
        const unsigned char* data = nullptr;
        size_t n = 0;
        if (!feed_.next(data, n)) {
            return false;
        }
        z_.next_in = const_cast<Bytef*>(data);
        z_.avail_in = static_cast<uInt>(n);
        return true;
    }

    ChunkFeed& feed_;
    z_stream z_ = {};
    bool ok_ = false;
    bool ended_ = false;
};

}  // namespace

bool PMSReadPayload(const std::string& file, unsigned long long offset, unsigned long long size,
                    bool hash, unsigned long long limit, PMSPayloadRead& out, std::string& why) {
    out = PMSPayloadRead();
    const Fd fd = ZARNOpen(file, O_RDONLY | O_CLOEXEC);
    struct stat before;
    if (!fd.valid() || !ZARNFStat(fd.get(), before)) {
        why = "the payload can't be read";
        return false;
    }
    if (size == ~0ULL) {
        size = static_cast<unsigned long long>(before.st_size);
    }
    posix_fadvise(fd.get(), static_cast<off_t>(offset), static_cast<off_t>(size),
                  POSIX_FADV_SEQUENTIAL);
    ChunkFeed feed(fd.get(), offset, size, hash);
    if (!feed.start()) {
        why = "the payload can't be read";
        return false;
    }
    Inflater stream(feed);
    auto readSome = [&stream](char* buf, size_t len) { return stream.read(buf, len); };
    TarScanStatus st =
        PMSTarScanReader(readSome, out.members, why, [&](const TarMember& m, std::string& reason) {
            out.total += m.size;
            if (out.total > limit) {
                reason = "payload unpacks to more than " + std::to_string(limit) + " bytes";
                return false;
            }
            return true;
        });
    if (st == TarScanStatus::Ok) {
        char buf[16384];
        size_t trailing = 0;
        long long n;
        while ((n = stream.read(buf, sizeof(buf))) > 0) {
            if ((trailing += static_cast<size_t>(n)) > kMaxTrailing) {
                st = TarScanStatus::BadHeader;
                why = "data after the end of the payload archive";
                break;
            }
        }
    }
    feed.stop();
    if (st != TarScanStatus::Ok) {
        return false;
    }
    if (!stream.cleanEnd() || !feed.complete()) {
        why = "the payload is no gzip stream";
        return false;
    }
    if (hash) {
        out.md5 = feed.md5();
        struct stat after;
        if (ZARNFStat(fd.get(), after) && after.st_mtim.tv_sec == before.st_mtim.tv_sec &&
            after.st_mtim.tv_nsec == before.st_mtim.tv_nsec && after.st_size == before.st_size) {
            PMSMd5Remember(file, before, offset, size, out.md5);
        }
    }
    return true;
}

}  // namespace ZARNPackageTool
