// One open file descriptor, closed when its owner goes out of scope. Move-only, so a
// descriptor has exactly one owner and is closed exactly once.
#ifndef COMMON_UNIX_SCOPEDFD_H
#define COMMON_UNIX_SCOPEDFD_H

#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

class ScopedFd {
public:
    // Takes fd over; a negative fd owns nothing (the failed open it came from).
    explicit ScopedFd(int fd = -1) : fd_(fd) {}
    ~ScopedFd() { close(); }
    ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
    ScopedFd& operator=(ScopedFd&& other) noexcept {
        if (this != &other) {
            close();
            fd_ = other.release();
        }
        return *this;
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;

    int get() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }
    // Closes now: 0, or -1 when close reports an error (for a file, a failed write-back
    // that must not pass for a complete file). Nothing owned is 0.
    int close() { return fd_ >= 0 ? ::close(release()) : 0; }
    // Writes all of text, retrying interrupted and partial writes; false on an error.
    bool writeAll(const std::string& text) const {
        const char* data = text.data();
        size_t left = text.size();
        while (left > 0) {
            ssize_t written = ::write(fd_, data, left);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return false;
            data += written;
            left -= static_cast<size_t>(written);
        }
        return true;
    }

private:
    int fd_;
};

#endif
