#pragma once

#include <sys/stat.h>

#include <mutex>
#include <string>
#include <tuple>

#include "platform/files.h"
#include "platform/sysroot.h"

// What a host settings file parses to, kept while the file stays as it was: a listing asks for
// the same settings once per package, yet a long-running caller must still see an edit. The
// file counts as unchanged while its physical path (so the system root), inode, size and
// modification and change times are.
template <typename T>
class ZARNFileCache {
public:
    // The value of `path` (logical) into `out`, from `parse(out)` when the file is new or
    // changed. A failed parse is not kept, so that the next call reads again and reports again.
    template <typename Parse>
    bool get(const std::string& path, T& out, Parse parse) {
        struct stat st = {};
        const bool exists = ZARNStat(path, st);
        Key key{ZARNPhysicalPath(path),         exists,
                exists ? st.st_ino : 0,         exists ? st.st_size : 0,
                exists ? st.st_mtim.tv_sec : 0, exists ? st.st_mtim.tv_nsec : 0,
                exists ? st.st_ctim.tv_sec : 0, exists ? st.st_ctim.tv_nsec : 0};
        std::lock_guard<std::mutex> lock(mutex_);
        if (!valid_ || !(key == key_)) {
            valid_ = false;
            if (!parse(value_)) {
                return false;
            }
            key_ = std::move(key);
            valid_ = true;
        }
        out = value_;
        return true;
    }

private:
    using Key = std::tuple<std::string, bool, ino_t, off_t, time_t, long, time_t, long>;
    std::mutex mutex_;
    bool valid_ = false;
    Key key_;
    T value_;
};
