#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

// Owns one descriptor: closed when the owner goes, on every path out of a function.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }
    // Closes the held descriptor (errno kept) and holds `fd` instead.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }
    // Closes now and says whether the close succeeded, for writes whose last error shows there.
    bool close() {
        int fd = release();
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_ = -1;
};
