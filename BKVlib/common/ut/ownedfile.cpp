#include "BKVlib/common/ut/ownedfile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>

bool ScopedFd::writeAll(const std::string& text) const {
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

void ScopedFile::reset(FILE* fp) {
    if (fp_) fclose(fp_);
    fp_ = fp;
}

LineReader::~LineReader() { free(buf_); }

bool LineReader::next() {
    len_ = getline(&buf_, &cap_, in_);
    return len_ >= 0;
}

TempFile::TempFile(const std::string& dir, bool binary) : path_(dir + "/.kfwconvXXXXXX") {
    attach(mkostemp(&path_[0], O_CLOEXEC), binary);
}

TempFile::TempFile(const std::string& path, bool binary, FixedName) : path_(path) {
    attach(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), binary);
}

int32_t TempFile::commit(const std::string& target) {
    struct stat st;
    bool ok = fflush(fp_.get()) == 0 && ferror(fp_.get()) == 0 && fsync(fileno(fp_.get())) == 0;
    if (ok && stat(target.c_str(), &st) == 0) fchmod(fileno(fp_.get()), st.st_mode & 07777);
    ok = ok && rename(path_.c_str(), target.c_str()) == 0;
    err_ = ok ? 0 : errno;
    created_ = created_ && !ok;
    return ok ? 0 : -1;
}

int TempFile::discard() {
    fp_.reset(nullptr);
    int err = created_ && unlink(path_.c_str()) != 0 ? errno : 0;
    created_ = false;
    return err;
}

void TempFile::attach(int fd, bool binary) {
    created_ = fd >= 0;
    if (fd >= 0) fp_.reset(fdopen(fd, binary ? "wb+" : "w+"));
    err_ = fp_.get() ? 0 : errno;
    if (fd >= 0 && !fp_.get()) ::close(fd);
}

int AppendFile::open(const std::string& path, const char* mode) {
    path_ = path;
    fp_.reset(fopen(path.c_str(), mode));
    struct stat st;
    if (fp_.get() && fstat(fileno(fp_.get()), &st) == 0) start_ = st.st_size;
    return fp_.get() ? 0 : errno;
}

bool AppendFile::put(const char* text, size_t length) {
    return length == 0 || fwrite(text, 1, length, fp_.get()) == length;
}

bool AppendFile::rollBack() {
    if (!fp_.get()) return true;
    fflush(fp_.get());
    return ftruncate(fileno(fp_.get()), start_) == 0;
}

off_t AppendFile::close() {
    if (!fp_.get()) return -1;
    struct stat st;
    bool ok = fflush(fp_.get()) == 0 && fstat(fileno(fp_.get()), &st) == 0;
    fclose(fp_.release());
    return ok ? st.st_size : -1;
}
