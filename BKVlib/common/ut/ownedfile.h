// Owners of open files for the library and the agent: a descriptor, a stream, a file
// that replaces another only when complete, and a file appended to that can be put
// back. Each closes what it owns exactly once; none of them traces, so any layer can
// use them.
#ifndef BKVLIB_COMMON_UT_OWNEDFILE_H
#define BKVLIB_COMMON_UT_OWNEDFILE_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

// One open file descriptor. Move-only, so a descriptor has exactly one owner.
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
    bool writeAll(const std::string& text) const;

private:
    int fd_;
};

// A stream owned for one scope.
class ScopedFile {
public:
    ScopedFile() = default;
    explicit ScopedFile(FILE* fp) : fp_(fp) {}
    ~ScopedFile() { reset(nullptr); }
    ScopedFile(const ScopedFile&) = delete;
    ScopedFile& operator=(const ScopedFile&) = delete;
    FILE* get() const { return fp_; }
    FILE* release() { return std::exchange(fp_, nullptr); }
    void reset(FILE* fp);

private:
    FILE* fp_ = nullptr;
};

// Reads whole lines of any length, newline included, from a stream it does not own.
class LineReader {
public:
    explicit LineReader(FILE* in) : in_(in) {}
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;
    bool next();
    const char* data() const { return buf_; }
    size_t size() const { return static_cast<size_t>(len_); }
    bool failed() const { return ferror(in_) != 0; }

private:
    FILE* in_;
    char* buf_ = nullptr;
    size_t cap_ = 0;
    ssize_t len_ = -1;
};

// A new file that replaces its target only when complete. Unless committed it is
// removed again, so a failure never leaves a half-written file behind. Opened
// close-on-exec for update ("w+", or "wb+" when binary).
class TempFile {
public:
    // A fresh unique name in dir.
    TempFile(const std::string& dir, bool binary);
    struct FixedName {};
    // The name path, emptied first.
    TempFile(const std::string& path, bool binary, FixedName);
    ~TempFile() { discard(); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    FILE* get() const { return fp_.get(); }
    int error() const { return err_; }
    const std::string& path() const { return path_; }
    // Flushes, syncs, takes over the target's permissions and renames onto it: 0 or -1.
    int32_t commit(const std::string& target);
    // Closes and removes an uncommitted file: 0, or the errno of the failed removal.
    int discard();

private:
    void attach(int fd, bool binary);

    std::string path_;
    ScopedFile fp_;
    int err_ = 0;
    bool created_ = false;
};

// A file that text is appended to and that can be put back to its size at opening,
// so a failed rewrite never leaves entries saved twice.
class AppendFile {
public:
    // 0, or the errno of the failed open.
    int open(const std::string& path, const char* mode);
    bool isOpen() const { return fp_.get() != nullptr; }
    const std::string& path() const { return path_; }
    bool put(const char* text, size_t length);
    // true when nothing is open or the file is back at its size; else errno tells.
    bool rollBack();
    // Flushes and closes; the final size, or -1 when the flush failed.
    off_t close();

private:
    std::string path_;
    ScopedFile fp_;
    off_t start_ = 0;
};

#endif
