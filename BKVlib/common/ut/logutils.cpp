#include "BKVlib/common/ut/logutils.h"

#include <fcntl.h>
#include <langinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>

#include "BKVlib/common/nls/amsglog.h"
#include "BKVlib/common/ut/trace.h"
#include "PathPlannerVersion.h"

#ifndef PP_BUILD_DATE
#define PP_BUILD_DATE "unknown"
#endif

namespace {

constexpr const char* kHeaderTag = "LOGHEADERREC";
constexpr size_t kHeaderTagLen = 12;
constexpr long kHeaderMaxOffset = 25;     // where "%-10lu" of the maximum starts
constexpr size_t kMaxHeaderLine = 4095;
constexpr size_t kDateTextLen = 10;
constexpr unsigned long kProgressEvery = 25000;
constexpr off_t kMinSaveBytes = 8;
constexpr off_t kMinLogBytes = 10;
constexpr const char* kPruneTempName = "kfwprune.log";
constexpr uint8_t kMsgFlags = NL_NEWLINE | NL_ERRORLOG;
constexpr uint16_t kMsgProgress = 232;
constexpr uint16_t kMsgToWrapping = 233;
constexpr uint16_t kMsgToPlain = 234;
constexpr uint16_t kMsgCannotOpen = 264;
constexpr uint16_t kMsgWriteError = 265;
constexpr uint16_t kMsgCannotOpenAux = 267;

std::string errText(int err) {
    char buf[128];
    return strerror_r(err, buf, sizeof(buf));
}

void issueFileError(uint16_t msgNum, const std::string& path, int err) {
    nlIssue(msgNum, kMsgFlags, path.c_str(), err, errText(err).c_str());
}

int32_t failWith(LogFile* log, int err) {
    log->lastErrno = err;
    log->failed = 1;
    return -1;
}

// A stream owned for one scope.
class File {
public:
    File() = default;
    explicit File(FILE* fp) : fp_(fp) {}
    ~File() {
        if (fp_) fclose(fp_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    FILE* get() const { return fp_; }
    FILE* release() {
        FILE* fp = fp_;
        fp_ = nullptr;
        return fp;
    }
    void reset(FILE* fp) {
        if (fp_) fclose(fp_);
        fp_ = fp;
    }

private:
    FILE* fp_ = nullptr;
};

// Reads whole lines of any length, newline included.
class LineReader {
public:
    explicit LineReader(FILE* in) : in_(in) {}
    ~LineReader() { free(buf_); }
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;
    bool next() {
        len_ = getline(&buf_, &cap_, in_);
        return len_ >= 0;
    }
    const char* data() const { return buf_; }
    size_t size() const { return static_cast<size_t>(len_); }
    bool failed() const { return ferror(in_) != 0; }

private:
    FILE* in_;
    char* buf_ = nullptr;
    size_t cap_ = 0;
    ssize_t len_ = -1;
};

bool putText(FILE* out, const char* text, size_t length) {
    return length == 0 || fwrite(text, 1, length, out) == length;
}

bool isLine(const char* line, size_t length, const char* text) {
    size_t textLen = strlen(text);
    return length == textLen + 1 && memcmp(line, text, textLen) == 0 && line[textLen] == '\n';
}

bool isDated(const char* line, size_t length) {
    struct tm date;
    return length >= kDateTextLen && utParseDate(line, kDateTextLen, &date) == 0;
}

// A new file beside the log that replaces it only when complete. Unless committed it is
// removed again, so a failure never leaves a half-written log behind.
class TempFile {
public:
    // A fresh unique name in dir.
    TempFile(const std::string& dir, bool binary) : path_(dir + "/.kfwconvXXXXXX") {
        attach(mkostemp(&path_[0], O_CLOEXEC), binary);
    }
    struct FixedName {};
    // The name path, emptied first.
    TempFile(const std::string& path, bool binary, FixedName) : path_(path) {
        attach(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), binary);
    }
    ~TempFile() { discard(); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    FILE* get() const { return fp_.get(); }
    int error() const { return err_; }
    const std::string& path() const { return path_; }
    // Flushes, syncs, takes over the target's permissions and renames onto it.
    int32_t commit(const std::string& target) {
        struct stat st;
        bool ok = fflush(fp_.get()) == 0 && ferror(fp_.get()) == 0 && fsync(fileno(fp_.get())) == 0;
        if (ok && stat(target.c_str(), &st) == 0) fchmod(fileno(fp_.get()), st.st_mode & 07777);
        ok = ok && rename(path_.c_str(), target.c_str()) == 0;
        err_ = ok ? 0 : errno;
        created_ = created_ && !ok;
        return ok ? 0 : -1;
    }
    // Closes and removes an uncommitted file: 0, or the errno of the failed removal.
    int discard() {
        fp_.reset(nullptr);
        int err = created_ && unlink(path_.c_str()) != 0 ? errno : 0;
        created_ = false;
        return err;
    }

private:
    void attach(int fd, bool binary) {
        created_ = fd >= 0;
        if (fd >= 0) fp_.reset(fdopen(fd, binary ? "wb+" : "w+"));
        err_ = fp_.get() ? 0 : errno;
        if (fd >= 0 && !fp_.get()) close(fd);
    }

    std::string path_;
    File fp_;
    int err_ = 0;
    bool created_ = false;
};

// A file that lines are appended to and that can be put back to its size at opening,
// so a failed conversion or prune never leaves entries saved twice.
class AppendFile {
public:
    // 0, or the errno of the failed open.
    int open(const std::string& path, const char* mode) {
        path_ = path;
        fp_.reset(fopen(path.c_str(), mode));
        struct stat st;
        if (fp_.get() && fstat(fileno(fp_.get()), &st) == 0) start_ = st.st_size;
        return fp_.get() ? 0 : errno;
    }
    bool isOpen() const { return fp_.get() != nullptr; }
    const std::string& path() const { return path_; }
    bool put(const char* text, size_t length) { return putText(fp_.get(), text, length); }
    void rollBack() {
        if (!fp_.get()) return;
        fflush(fp_.get());
        if (ftruncate(fileno(fp_.get()), start_) != 0) {
            TR_PRINTF(TR_ERROR, "Couldn't roll back <%s>. errno = %d\n", path_.c_str(), errno);
        }
    }
    // Flushes and closes; the final size, or -1 when the flush failed.
    off_t close() {
        if (!fp_.get()) return -1;
        struct stat st;
        bool ok = fflush(fp_.get()) == 0 && fstat(fileno(fp_.get()), &st) == 0;
        fclose(fp_.release());
        return ok ? st.st_size : -1;
    }

private:
    std::string path_;
    File fp_;
    off_t start_ = 0;
};

const char* modeAppend(const LogFile* log) { return log->binaryModes ? "abe" : "ae"; }
const char* modeRead(const LogFile* log) { return log->binaryModes ? "rbe" : "re"; }
const char* modeUpdate(const LogFile* log) { return log->binaryModes ? "rb+e" : "r+e"; }

void closeStream(FILE** stream) {
    if (stream && *stream) {
        fclose(*stream);
        *stream = nullptr;
    }
}

// Reads a decimal number of at most 32 bits, as "%u" would but refusing a sign or an
// overflow, so a damaged header cannot place the next write at a wrapped-around offset.
bool consumeNumber(const char** p, const char* end, uint32_t* value) {
    uint64_t v = 0;
    const char* s = *p;
    while (s < end && *s >= '0' && *s <= '9' && v <= UINT32_MAX) v = v * 10 + static_cast<uint64_t>(*s++ - '0');
    if (s == *p || v > UINT32_MAX) return false;
    *value = static_cast<uint32_t>(v);
    *p = s;
    return true;
}

const char* skipBlanks(const char* p, const char* end) {
    while (p < end && (*p == ' ' || *p == '\t')) ++p;
    return p;
}

}  // namespace

std::string utDirName(const std::string& path) {
    std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string utBaseName(const std::string& path) {
    std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// ---------------------------------------------------------------------------------
// Header

LogHeader utParseLogHeader(const char* line, size_t length) {
    LogHeader header;
    const char* end = line + length;
    if (length < kHeaderTagLen || memcmp(line, kHeaderTag, kHeaderTagLen) != 0) return header;
    header.present = 1;
    const char* p = skipBlanks(line + kHeaderTagLen, end);
    if (p == line + kHeaderTagLen) return header;
    header.valid = consumeNumber(&p, end, &header.nextWrite) ? 1 : 0;
    const char* afterBlanks = skipBlanks(p, end);
    if (header.valid && afterBlanks > p) {
        header.hasMax = consumeNumber(&afterBlanks, end, &header.maxBytes) ? 1 : 0;
    }
    return header;
}

std::string utFormatLogHeader(uint32_t nextWrite, uint32_t maxBytes) {
    char buf[160];
    int n = snprintf(buf, sizeof(buf), "%s %-12lu%-10lu ZOR Quillon " PP_VERSION "               %s\n\n", kHeaderTag,
                     static_cast<unsigned long>(nextWrite), static_cast<unsigned long>(maxBytes), PP_BUILD_DATE);
    return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
}

// ---------------------------------------------------------------------------------
// Record settings and small operations

void utSetLogSettings(LogFile* log, uint32_t maxBytes, const char* saveName, uint32_t retentionDays,
                      char pruneMode, int32_t binaryModes, int32_t quiet) {
    log->maxBytes = maxBytes;
    log->saveName = saveName ? saveName : "";
    log->retentionDays = retentionDays;
    log->pruneMode = pruneMode;
    log->binaryModes = binaryModes;
    log->quiet = quiet;
}

int32_t utCloseLog(LogFile* log) {
    int32_t rc = 0;
    if (log->stream) {
        bool ok = fflush(log->stream) == 0;
        ok = fclose(log->stream) == 0 && ok;
        rc = ok ? 0 : failWith(log, errno);
    }
    log->stream = nullptr;
    log->wrapping = 0;
    return rc;
}

int32_t utRemoveIfEmpty(const char* path) {
    struct stat st;
    int32_t rc = 0;
    if (path && stat(path, &st) == 0 && S_ISREG(st.st_mode) && st.st_size < kMinLogBytes) {
        rc = unlink(path) == 0 ? 0 : -1;
    }
    return rc;
}

// ---------------------------------------------------------------------------------
// Writing to a wrapping log

namespace {

int32_t writeFailed(LogFile* log) {
    int err = errno;
    TR_PRINTF(TR_ERROR, "error writing to log file.\nerrno = %d, %s\n", err, errText(err).c_str());
    return failWith(log, err);
}

// Length of the first line of the open log, newline included; 0 when it cannot be read.
size_t headerLineOf(FILE* fp, char* buf, size_t size) {
    ssize_t n;
    do {
        n = pread(fileno(fp), buf, size - 1, 0);
    } while (n < 0 && errno == EINTR);
    const char* newline = n > 0 ? static_cast<const char*>(memchr(buf, '\n', static_cast<size_t>(n))) : nullptr;
    return newline ? static_cast<size_t>(newline - buf) + 1 : 0;
}

// nextWrite as another writer of the same file may have left it.
int32_t rereadNextWrite(LogFile* log) {
    char line[kMaxHeaderLine + 1];
    size_t length = headerLineOf(log->stream, line, sizeof(line));
    LogHeader header = utParseLogHeader(line, length);
    if (header.valid) log->nextWrite = header.nextWrite;
    return header.valid ? 0 : failWith(log, length == 0 && errno ? errno : EINVAL);
}

// Marks the wrap point and pads to exactly maxBytes, then restarts after the header line.
int32_t wrapToTop(LogFile* log) {
    FILE* fp = log->stream;
    bool ok = fseeko(fp, log->nextWrite, SEEK_SET) == 0 && fprintf(fp, "%s\n", kLogWrapMarker) > 0;
    off_t remaining = ok ? static_cast<off_t>(log->maxBytes) - ftello(fp) : 0;
    if (ok && remaining == 1) ok = fputc('\n', fp) != EOF;
    if (ok && remaining > 1) ok = fprintf(fp, "%*s\n", static_cast<int>(remaining - 1), "*") > 0;
    // An oversized entry may have pushed the file beyond maxBytes; cut it back.
    ok = ok && fflush(fp) == 0 && (remaining >= 0 || ftruncate(fileno(fp), ftello(fp)) == 0);
    if (ok && remaining > 0) ok = ftruncate(fileno(fp), log->maxBytes) == 0;
    char line[kMaxHeaderLine + 1];
    size_t headerLine = ok ? headerLineOf(fp, line, sizeof(line)) : 0;
    if (headerLine > 0) log->nextWrite = static_cast<uint32_t>(headerLine);
    return headerLine > 0 ? 0 : writeFailed(log);
}

int32_t writeNextWrite(LogFile* log, uint32_t nextWrite) {
    FILE* fp = log->stream;
    log->nextWrite = nextWrite;
    bool ok = fseeko(fp, 0, SEEK_SET) == 0 && fprintf(fp, "%s %-12lu", kHeaderTag, static_cast<unsigned long>(nextWrite)) > 0 &&
              fflush(fp) == 0 && fseeko(fp, nextWrite, SEEK_SET) == 0;
    TR_PRINTF(TR_GENERAL, "utSetNextWrite(): nextWrite for END OF DATA is %d .\n", static_cast<int>(nextWrite));
    ok = ok && fprintf(fp, "%s\n", kLogEndMarker) > 0 && fflush(fp) == 0;
    return ok ? 0 : writeFailed(log);
}

}  // namespace

int32_t utWrapCheck(LogFile* log, uint32_t length) {
    if (!log->wrapping || !log->stream) return 0;
    int32_t rc = rereadNextWrite(log);
    int64_t need = static_cast<int64_t>(log->nextWrite) + length + strlen(kLogEndMarker) + 1;
    int64_t room = static_cast<int64_t>(log->maxBytes) - static_cast<int64_t>(strlen(kLogWrapMarker)) - 1;
    if (rc == 0 && need > room) rc = wrapToTop(log);
    if (rc == 0 && fseeko(log->stream, log->nextWrite, SEEK_SET) != 0) rc = writeFailed(log);
    return rc;
}

int32_t utSetNextWrite(LogFile* log) {
    if (!log->wrapping || !log->stream) return 0;
    off_t pos = ftello(log->stream);
    return pos < 0 ? writeFailed(log) : writeNextWrite(log, static_cast<uint32_t>(pos));
}

int32_t utLogWrite(LogFile* log, const char* text, size_t length) {
    if (!log->stream) return failWith(log, EBADF);
    int32_t rc = utWrapCheck(log, static_cast<uint32_t>(length));
    if (rc == 0 && (!putText(log->stream, text, length) || fflush(log->stream) != 0)) rc = writeFailed(log);
    if (rc == 0) rc = utSetNextWrite(log);
    return rc;
}

// ---------------------------------------------------------------------------------
// Pruning by age

namespace {

class Pruner {
public:
    Pruner(LogFile* log, const std::string& path, uint32_t retentionDays)
        : log_(log),
          path_(path),
          dir_(utDirName(path)),
          tempPath_(dir_ + "/" + kPruneTempName),
          retention_(retentionDays) {}
    Pruner(const Pruner&) = delete;
    Pruner& operator=(const Pruner&) = delete;

    int32_t open(const char* saveName);
    int32_t scan();
    int32_t finish();
    void rollBack();

private:
    int32_t openTemp();
    int32_t keep(const char* line, size_t length);
    int32_t prune(const char* line, size_t length);
    int32_t copyRest(LineReader* reader);
    void closeSave();

    LogFile* log_;
    std::string path_;
    std::string dir_;
    std::string tempPath_;
    uint32_t retention_;
    File in_;
    std::optional<TempFile> temp_;
    AppendFile save_;
    unsigned long processed_ = 0;
    unsigned long pruned_ = 0;
};

int32_t Pruner::openTemp() {
    temp_.emplace(tempPath_, log_->binaryModes != 0, TempFile::FixedName());
    if (temp_->get()) return 0;
    int err = temp_->error();
    issueFileError(kMsgCannotOpenAux, tempPath_, err);
    TR_PRINTF(TR_ERROR, "Couldn't open temp file <%s> for pruning.\nerrno = %d, %s\n", tempPath_.c_str(), err,
              errText(err).c_str());
    return failWith(log_, err);
}

int32_t Pruner::open(const char* saveName) {
    in_.reset(fopen(path_.c_str(), modeRead(log_)));
    if (!in_.get()) {
        int err = errno;
        issueFileError(kMsgCannotOpen, path_, err);
        TR_PRINTF(TR_ERROR, "Couldn't open <%s> for pruning. errno = %d, %s\n", path_.c_str(), err, errText(err).c_str());
        return failWith(log_, err);
    }
    int32_t rc = 0;
    if (saveName && *saveName) {
        std::string savePath = dir_ + "/" + utBaseName(saveName);
        int err = save_.open(savePath, modeAppend(log_));
        if (err != 0) {
            issueFileError(kMsgCannotOpenAux, savePath, err);
            TR_PRINTF(TR_ERROR, "Couldn't open save file <%s> to save pruned log entries.\nerrno = %d, %s\n",
                      savePath.c_str(), err, errText(err).c_str());
            rc = failWith(log_, err);
        }
    }
    if (rc == 0) rc = openTemp();
    if (rc == 0) {
        TR_PRINTF(TR_GENERAL, "Log file <%s> opened for pruning.\nTemporary file <%s> opened for pruning.\n",
                  path_.c_str(), tempPath_.c_str());
    }
    return rc;
}

int32_t Pruner::keep(const char* line, size_t length) {
    if (putText(temp_->get(), line, length)) return 0;
    int err = errno;
    issueFileError(kMsgWriteError, tempPath_, err);
    TR_PRINTF(TR_ERROR, "error writing to temp pruning file.\nerrno = %d, %s\n", err, errText(err).c_str());
    return failWith(log_, err);
}

int32_t Pruner::prune(const char* line, size_t length) {
    ++pruned_;
    if (!save_.isOpen() || save_.put(line, length)) return 0;
    int err = errno;
    issueFileError(kMsgWriteError, save_.path(), err);
    TR_PRINTF(TR_ERROR, "error writing to saved pruning recs file.\nerrno = %d, %s\n", err, errText(err).c_str());
    return failWith(log_, err);
}

int32_t Pruner::copyRest(LineReader* reader) {
    int32_t rc = 0;
    while (rc == 0 && reader->next()) {
        ++processed_;
        rc = keep(reader->data(), reader->size());
    }
    return rc;
}

// Lines up to the first dated one younger than the retention are pruned; an entry
// exactly retention days old goes.
int32_t Pruner::scan() {
    struct tm today;
    utToday(&today);
    LineReader reader(in_.get());
    int32_t rc = 0;
    bool kept = false;
    while (rc == 0 && !kept && reader.next()) {
        ++processed_;
        struct tm date;
        kept = reader.size() >= kDateTextLen && utParseDate(reader.data(), kDateTextLen, &date) == 0 &&
               utDaysBetween(&date, &today) < static_cast<int64_t>(retention_);
        rc = kept ? keep(reader.data(), reader.size()) : prune(reader.data(), reader.size());
    }
    if (rc == 0 && pruned_ > 0) rc = copyRest(&reader);
    // A read error would otherwise cut the log short when the copy replaces it.
    if (rc == 0 && reader.failed()) rc = failWith(log_, errno ? errno : EIO);
    return rc;
}

void Pruner::closeSave() {
    if (!save_.isOpen()) return;
    off_t size = save_.close();
    if (size < 0 || size >= kMinSaveBytes) return;
    if (unlink(save_.path().c_str()) == 0) {
        TR_PRINTF(TR_GENERAL, "Empty prune log deleted from directory\n");
    } else {
        TR_PRINTF(TR_ERROR, "Couldn't remove empty pruned log. rc = %d\n", errno);
    }
}

void Pruner::rollBack() {
    save_.rollBack();
    closeSave();
}

int32_t Pruner::finish() {
    int32_t rc = 0;
    if (pruned_ > 0 && temp_->commit(path_) != 0) {
        int err = temp_->error();
        TR_PRINTF(TR_ERROR,
                  "Couldn't copy from temp file back to <%s> after pruning. errno = %d, %s\noriginal log not pruned.",
                  path_.c_str(), err, errText(err).c_str());
        rc = failWith(log_, err);
        rollBack();
    }
    if (rc == 0) closeSave();
    int err = temp_->discard();
    if (err != 0) TR_PRINTF(TR_ERROR, "Couldn't remove temporary pruning file %s. rc = %d\n", tempPath_.c_str(), err);
    TR_PRINTF(TR_GENERAL, "Log Pruner: %lu lines processed. %lu lines pruned.\nLog Pruner finished.\n", processed_,
              pruned_);
    return rc;
}

}  // namespace

int32_t utPruneLog(LogFile* log, const char* path, const char* saveName, FILE** stream, uint32_t retentionDays) {
    TR_PRINTF(TR_GENERAL, "Log Pruner started.\nLog Retention Days = %u.\n", retentionDays);
    if (retentionDays == kLogKeepForever || !path) return 0;
    closeStream(stream);
    Pruner pruner(log, path, retentionDays);
    int32_t rc = pruner.open(saveName);
    if (rc == 0) rc = pruner.scan();
    if (rc == 0) {
        rc = pruner.finish();
    } else {
        pruner.rollBack();
    }
    return rc;
}

// ---------------------------------------------------------------------------------
// Opening a log under its policy

namespace {

// What the first line of the log says, and how large the log is.
struct FirstLook {
    LogHeader header;
    uint32_t headerLen = 0;  // first line with its newline
    off_t size = 0;
};

typedef std::function<int32_t(const char* line, size_t length)> LineSink;

int32_t cannotOpen(LogFile* log, int err) {
    issueFileError(kMsgCannotOpen, log->path, err);
    TR_PRINTF(TR_ERROR, "utWrapFile(): cannot open <%s>. errno = %d, %s\n", log->path.c_str(), err,
              errText(err).c_str());
    return failWith(log, err);
}

ssize_t preadRetry(int fd, char* buf, size_t size) {
    ssize_t n;
    do {
        n = pread(fd, buf, size, 0);
    } while (n < 0 && errno == EINTR);
    return n;
}

// One descriptor serves both the look at the first line and, for the usual plain log,
// the appending: a line of the activity log then costs a single open. Only a log that
// starts with the header tag has its whole first line read.
int32_t openAndLook(LogFile* log, int* fd, FirstLook* look) {
    *fd = open(log->path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (*fd < 0) return cannotOpen(log, errno);
    char buf[kMaxHeaderLine];
    ssize_t n = preadRetry(*fd, buf, kHeaderTagLen);
    if (n == static_cast<ssize_t>(kHeaderTagLen) && memcmp(buf, kHeaderTag, kHeaderTagLen) == 0) {
        n = preadRetry(*fd, buf, sizeof(buf));
    }
    if (n < 0) return cannotOpen(log, errno);
    const char* newline = static_cast<const char*>(memchr(buf, '\n', static_cast<size_t>(n)));
    size_t lineLen = newline ? static_cast<size_t>(newline - buf) : static_cast<size_t>(n);
    look->header = utParseLogHeader(buf, lineLen);
    look->headerLen = static_cast<uint32_t>(newline ? lineLen + 1 : lineLen);
    return 0;
}

int32_t measure(LogFile* log, int fd, FirstLook* look) {
    struct stat st;
    if (fstat(fd, &st) != 0) return cannotOpen(log, errno);
    look->size = st.st_size;
    return 0;
}

int32_t attachAppend(LogFile* log, int fd) {
    FILE* fp = fdopen(fd, log->binaryModes ? "ab" : "a");
    if (!fp) {
        int err = errno;
        close(fd);
        return cannotOpen(log, err);
    }
    // Unbuffered: an entry handed over in one piece reaches the file in one write,
    // which other processes appending to the same log cannot split.
    setvbuf(fp, nullptr, _IONBF, 0);
    log->stream = fp;
    log->wrapping = 0;
    return 0;
}

int32_t reopenAppend(LogFile* log) {
    int fd = open(log->path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        int err = errno;
        TR_PRINTF(TR_ERROR, "Couldn't reopen <%s> after pruning. errno = %d, %s\n", log->path.c_str(), err,
                  errText(err).c_str());
        return cannotOpen(log, err);
    }
    return attachAppend(log, fd);
}

bool isDamaged(const FirstLook& look) {
    const LogHeader& h = look.header;
    return h.present && (!h.valid || h.nextWrite < look.headerLen || h.nextWrite > look.size);
}

std::string conversionSavePath(const LogFile* log) {
    if (log->saveName.empty()) return log->path + ".sav";
    if (log->saveName.find('/') != std::string::npos) return log->saveName;
    return utDirName(log->path) + "/" + log->saveName;
}

int32_t readFailed(LogFile* log, FILE* in) {
    int err = ferror(in) && errno ? errno : EIO;
    TR_PRINTF(TR_ERROR, "utWrapFile(): error reading <%s>. errno = %d, %s\n", log->path.c_str(), err,
              errText(err).c_str());
    return failWith(log, err);
}

int32_t tempWriteFailed(LogFile* log, const std::string& path) {
    int err = errno;
    issueFileError(kMsgWriteError, path, err);
    TR_PRINTF(TR_ERROR, "error writing to temp file.\nerrno = %d, %s\n", err, errText(err).c_str());
    return failWith(log, err);
}

int32_t tempOpenFailed(LogFile* log, const TempFile& temp) {
    issueFileError(kMsgCannotOpenAux, temp.path(), temp.error());
    return failWith(log, temp.error());
}

// The entries of a wrapping log, oldest first: behind the end marker up to the wrap
// marker (from the first dated line, as the line at the marker may be a remnant), then
// from the header up to nextWrite.
int32_t forEachEntry(LogFile* log, FILE* in, const FirstLook& look, const LineSink& sink) {
    LineReader reader(in);
    int32_t rc = fseeko(in, look.header.nextWrite, SEEK_SET) == 0 ? 0 : readFailed(log, in);
    bool started = false;
    while (rc == 0 && reader.next() && !isLine(reader.data(), reader.size(), kLogWrapMarker)) {
        started = started || isDated(reader.data(), reader.size());
        if (started) rc = sink(reader.data(), reader.size());
    }
    off_t pos = look.headerLen;
    if (rc == 0 && fseeko(in, pos, SEEK_SET) != 0) rc = readFailed(log, in);
    bool first = true;
    while (rc == 0 && pos < look.header.nextWrite && reader.next()) {
        size_t length = std::min<size_t>(reader.size(), static_cast<size_t>(look.header.nextWrite - pos));
        pos += static_cast<off_t>(reader.size());
        bool headerBlank = first && length == 1 && reader.data()[0] == '\n';
        first = false;
        if (!headerBlank) rc = sink(reader.data(), length);
        // A text cut at nextWrite (an unfinished line) still ends its line here.
        if (rc == 0 && !headerBlank && reader.data()[length - 1] != '\n') rc = sink("\n", 1);
    }
    if (rc == 0 && reader.failed()) rc = readFailed(log, in);
    return rc;
}

// Unbuffered, so that positioning costs no read and every piece is one write; the
// header is read with pread.
int32_t openWrappingStream(LogFile* log, uint32_t headerLen, uint32_t nextWrite) {
    FILE* fp = fopen(log->path.c_str(), modeUpdate(log));
    if (!fp) return cannotOpen(log, errno);
    setvbuf(fp, nullptr, _IONBF, 0);
    log->stream = fp;
    log->wrapping = 1;
    log->headerLen = headerLen;
    log->nextWrite = nextWrite;
    int32_t rc = fseeko(fp, nextWrite, SEEK_SET) == 0 ? 0 : writeFailed(log);
    if (rc != 0) utCloseLog(log);
    return rc;
}

// Builds a fresh wrapping log holding lines and renames it over the log; the log
// record then owns its stream, positioned at nextWrite.
int32_t writeWrappingLog(LogFile* log, const std::deque<std::string>& lines) {
    TempFile temp(utDirName(log->path), log->binaryModes != 0);
    if (!temp.get()) return tempOpenFailed(log, temp);
    std::string header = utFormatLogHeader(0, log->maxBytes);
    bool ok = putText(temp.get(), header.data(), header.size());
    for (size_t i = 0; ok && i < lines.size(); ++i) ok = putText(temp.get(), lines[i].data(), lines[i].size());
    int32_t rc = ok ? 0 : tempWriteFailed(log, temp.path());
    log->stream = temp.get();
    log->wrapping = 1;
    log->headerLen = static_cast<uint32_t>(header.find('\n') + 1);
    if (rc == 0) rc = utSetNextWrite(log);
    if (rc == 0 && temp.commit(log->path) != 0) {
        TR_PRINTF(TR_ERROR, "Couldn't copy from temp file back to <%s>. errno = %d, %s\n", log->path.c_str(),
                  temp.error(), errText(temp.error()).c_str());
        rc = failWith(log, temp.error());
    }
    log->stream = nullptr;
    log->wrapping = 0;
    if (rc == 0) rc = openWrappingStream(log, log->headerLen, log->nextWrite);
    return rc;
}

// Every line of a plain log goes to the save file before the log starts wrapping.
int32_t saveAllLines(LogFile* log, AppendFile* save) {
    File in(fopen(log->path.c_str(), modeRead(log)));
    if (!in.get()) return cannotOpen(log, errno);
    std::string savePath = conversionSavePath(log);
    int err = save->open(savePath, modeAppend(log));
    if (err != 0) issueFileError(kMsgCannotOpenAux, savePath, err);
    int32_t rc = err == 0 ? 0 : failWith(log, err);
    LineReader reader(in.get());
    unsigned long count = 0;
    while (rc == 0 && reader.next()) {
        if (!save->put(reader.data(), reader.size())) rc = tempWriteFailed(log, savePath);
        if (++count % kProgressEvery == 0) nlIssue(kMsgProgress, kMsgFlags, count);
    }
    if (rc == 0 && reader.failed()) rc = readFailed(log, in.get());
    return rc;
}

int32_t makeWrapping(LogFile* log, const FirstLook& look, int32_t quiet) {
    int32_t rc = 0;
    AppendFile save;
    if (look.size > 0) {
        if (!quiet) nlIssue(kMsgToWrapping, kMsgFlags, log->path.c_str());
        rc = saveAllLines(log, &save);
    }
    if (rc == 0) rc = writeWrappingLog(log, std::deque<std::string>());
    if (rc != 0) save.rollBack();
    if (save.isOpen() && save.close() < 0 && rc == 0) rc = tempWriteFailed(log, save.path());
    return rc;
}

// Keeps the newest entries that fit the smaller maximum with the header, both markers
// and one spare byte; older ones are dropped whole, never cut.
int32_t shrinkWrapping(LogFile* log, const FirstLook& look) {
    File in(fopen(log->path.c_str(), modeRead(log)));
    if (!in.get()) return cannotOpen(log, errno);
    int64_t budget = static_cast<int64_t>(log->maxBytes) - static_cast<int64_t>(utFormatLogHeader(0, log->maxBytes).size()) -
                     static_cast<int64_t>(strlen(kLogEndMarker) + strlen(kLogWrapMarker)) - 3;
    std::deque<std::string> kept;
    int64_t total = 0;
    int32_t rc = forEachEntry(log, in.get(), look, [&](const char* line, size_t length) {
        kept.emplace_back(line, length);
        total += static_cast<int64_t>(length);
        for (; total > budget && !kept.empty(); kept.pop_front()) total -= static_cast<int64_t>(kept.front().size());
        return 0;
    });
    if (rc == 0) rc = writeWrappingLog(log, kept);
    return rc;
}

int32_t reopenWrapping(LogFile* log, const FirstLook& look, bool newMax) {
    int32_t rc = openWrappingStream(log, look.headerLen, look.header.nextWrite);
    FILE* fp = log->stream;
    bool ok = rc != 0 || !newMax ||
              (fseeko(fp, kHeaderMaxOffset, SEEK_SET) == 0 &&
               fprintf(fp, "%-10lu", static_cast<unsigned long>(log->maxBytes)) > 0 &&
               fseeko(fp, log->nextWrite, SEEK_SET) == 0);
    if (!ok) {
        rc = writeFailed(log);
        utCloseLog(log);
    }
    return rc;
}

int32_t openWrapping(LogFile* log, const FirstLook& look) {
    TR_PRINTF(TR_GENERAL, "utWrapFile(): got offset %d and max %d of <%s>.\n", static_cast<int>(look.header.nextWrite),
              static_cast<int>(look.header.maxBytes), log->path.c_str());
    uint32_t recorded = look.header.hasMax ? look.header.maxBytes : static_cast<uint32_t>(look.size);
    return recorded > log->maxBytes ? shrinkWrapping(log, look) : reopenWrapping(log, look, recorded != log->maxBytes);
}

// Pruning failures keep the log as it was; logging goes on regardless.
int32_t pruneAndAppend(LogFile* log) {
    const char* saveName = log->pruneMode == kLogPruneSave ? log->saveName.c_str() : nullptr;
    utPruneLog(log, log->path.c_str(), saveName, &log->stream, log->retentionDays);
    return reopenAppend(log);
}

int32_t makePlain(LogFile* log, const FirstLook& look, int32_t quiet) {
    if (!quiet) nlIssue(kMsgToPlain, kMsgFlags, log->path.c_str());
    File in(fopen(log->path.c_str(), modeRead(log)));
    if (!in.get()) return cannotOpen(log, errno);
    TempFile temp(utDirName(log->path), log->binaryModes != 0);
    if (!temp.get()) return tempOpenFailed(log, temp);
    unsigned long count = 0;
    int32_t rc = forEachEntry(log, in.get(), look, [&](const char* line, size_t length) {
        if (!putText(temp.get(), line, length)) return tempWriteFailed(log, temp.path());
        if (line[length - 1] == '\n' && ++count % kProgressEvery == 0) nlIssue(kMsgProgress, kMsgFlags, count);
        return 0;
    });
    if (rc == 0 && temp.commit(log->path) != 0) {
        TR_PRINTF(TR_ERROR, "Couldn't copy from temp file back to <%s>. errno = %d, %s\n", log->path.c_str(),
                  temp.error(), errText(temp.error()).c_str());
        rc = failWith(log, temp.error());
    }
    if (rc == 0) rc = pruneAndAppend(log);
    return rc;
}

int32_t openUnderPolicy(LogFile* log, const FirstLook& look, int32_t quiet) {
    if (!look.header.present) return log->maxBytes > 0 ? makeWrapping(log, look, quiet) : pruneAndAppend(log);
    return log->maxBytes > 0 ? openWrapping(log, look) : makePlain(log, look, quiet);
}

}  // namespace

int32_t utWrapFile(LogFile* log, const char* path, int32_t quiet) {
    utCloseLog(log);
    log->failed = 0;
    log->lastErrno = 0;
    log->path = path ? path : "";
    int fd = -1;
    FirstLook look;
    int32_t rc = log->path.empty() ? failWith(log, ENOENT) : openAndLook(log, &fd, &look);
    bool plainAsIs = rc == 0 && !look.header.present && log->maxBytes == 0 && log->retentionDays == kLogKeepForever;
    if (rc == 0 && !plainAsIs) rc = measure(log, fd, &look);
    if (rc == 0 && isDamaged(look)) {
        TR_PRINTF(TR_ERROR, "utWrapFile(): damaged header in <%s>; log left as it is.\n", log->path.c_str());
        rc = failWith(log, EINVAL);
    }
    if (rc == 0 && plainAsIs) {
        rc = attachAppend(log, fd);
        fd = -1;
    }
    if (fd >= 0) close(fd);
    if (rc == 0 && !plainAsIs) rc = openUnderPolicy(log, look, quiet);
    return rc;
}

// ---------------------------------------------------------------------------------
// Date and time formats

namespace {

constexpr size_t kFormatMax = 64;
constexpr size_t kAmPmMax = 5;
constexpr int32_t kDateDefaultSetting = 1;
constexpr int32_t kTimeDefaultSetting = 1;

const char* const kDateFormats[] = {nullptr, "%m/%d/%Y", "%d-%m-%Y", "%Y-%m-%d", "%d.%m.%Y", "%Y.%m.%d"};
const char* const kTimeFormats[] = {nullptr, "%H:%M:%S", "%H,%M,%S", "%H.%M.%S", "%I:%M:%S%p"};
constexpr int32_t kDateSettings = sizeof(kDateFormats) / sizeof(kDateFormats[0]);
constexpr int32_t kTimeSettings = sizeof(kTimeFormats) / sizeof(kTimeFormats[0]);

struct Formats {
    char date[kFormatMax] = "%Y-%m-%d";
    char time[kFormatMax] = "%H:%M:%S";
    char am[kAmPmMax + 1] = "AM";
    char pm[kAmPmMax + 1] = "PM";
};
Formats g_formats;

time_t systemClock() {
    return time(nullptr);
}
UtClock g_clock = systemClock;

bool directivesOnly(const char* format, const char* allowed) {
    if (!format || !*format || strlen(format) >= kFormatMax) return false;
    for (const char* p = format; *p; ++p) {
        if (*p == '%' && (!*++p || !strchr(allowed, *p))) return false;
    }
    return true;
}

void copyCut(char* dst, size_t size, const char* src) {
    snprintf(dst, size, "%s", src ? src : "");
}

char thirdChar(const char* format) {
    return strlen(format) >= 3 ? format[2] : '\0';
}

// Reads exactly width digits: every directive we accept prints zero-padded fields.
bool readDigits(const char* text, size_t length, size_t* pos, int width, int* value) {
    int v = 0;
    for (int i = 0; i < width; ++i, ++*pos) {
        if (*pos >= length || text[*pos] < '0' || text[*pos] > '9') return false;
        v = v * 10 + (text[*pos] - '0');
    }
    *value = v;
    return true;
}

bool leapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leapYear(year) ? 29 : kDays[month - 1];
}

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t daysFromCivil(int64_t y, int64_t m, int64_t d) {
    y -= m <= 2 ? 1 : 0;
    int64_t era = (y >= 0 ? y : y - 399) / 400;
    int64_t yoe = y - era * 400;
    int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// The formats are chosen from fixed tables or checked locale texts, never from input.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
size_t formatTm(char* buf, size_t size, const char* format, const struct tm* when) {
    size_t n = when ? strftime(buf, size, format, when) : 0;
    if (n == 0) buf[0] = '\0';
    return n;
}
#pragma GCC diagnostic pop

}  // namespace

void utSetDateFormat(int32_t setting) {
    if (setting < 0 || setting >= kDateSettings) return;
    const char* chosen = kDateFormats[setting];
    if (setting == 0) {
        const char* locale = nl_langinfo(D_FMT);
        chosen = utDateFormatUsable(locale) ? locale : kDateFormats[kDateDefaultSetting];
    }
    copyCut(g_formats.date, sizeof(g_formats.date), chosen);
}

void utSetTimeFormat(int32_t setting) {
    if (setting < 0 || setting >= kTimeSettings) return;
    const char* chosen = kTimeFormats[setting];
    copyCut(g_formats.am, sizeof(g_formats.am), "AM");
    copyCut(g_formats.pm, sizeof(g_formats.pm), "PM");
    if (setting == 0) {
        const char* locale = nl_langinfo(T_FMT);
        chosen = utTimeFormatUsable(locale) ? locale : kTimeFormats[kTimeDefaultSetting];
        copyCut(g_formats.am, sizeof(g_formats.am), nl_langinfo(AM_STR));
        copyCut(g_formats.pm, sizeof(g_formats.pm), nl_langinfo(PM_STR));
    }
    copyCut(g_formats.time, sizeof(g_formats.time), chosen);
}

const char* utDateFormat() {
    return g_formats.date;
}

const char* utTimeFormat() {
    return g_formats.time;
}

char utDateSeparator() {
    return thirdChar(g_formats.date);
}

char utTimeSeparator() {
    return thirdChar(g_formats.time);
}

bool utDateFormatUsable(const char* format) {
    return directivesOnly(format, "dmyY");
}

bool utTimeFormatUsable(const char* format) {
    return directivesOnly(format, "HIMSp");
}

size_t utFormatDate(const struct tm* when, char* buf, size_t size) {
    if (!buf || size == 0) return 0;
    return formatTm(buf, size, g_formats.date, when);
}

// "%p" is spelled out here rather than by strftime, so the AM/PM words are the ones
// chosen with the format and not whatever the current locale says.
size_t utFormatTime(const struct tm* when, char* buf, size_t size) {
    if (!buf || size == 0) return 0;
    std::string format;
    for (const char* p = g_formats.time; *p; ++p) {
        if (p[0] == '%' && p[1] == 'p') {
            for (const char* w = when && when->tm_hour >= 12 ? g_formats.pm : g_formats.am; *w; ++w) {
                format += *w == '%' ? "%%" : std::string(1, *w);
            }
            ++p;
        } else {
            format += *p;
            if (p[0] == '%' && p[1]) format += *++p;
        }
    }
    return formatTm(buf, size, format.c_str(), when);
}

int32_t utParseDate(const char* text, size_t length, struct tm* date) {
    if (!text || !date) return -1;
    int year = -1, month = 0, day = 0;
    size_t pos = 0;
    for (const char* f = g_formats.date; *f; ++f) {
        if (*f != '%') {
            if (pos >= length || text[pos++] != *f) return -1;
            continue;
        }
        int value = 0;
        char directive = *++f;
        if (!readDigits(text, length, &pos, directive == 'Y' ? 4 : 2, &value)) return -1;
        if (directive == 'd') day = value;
        else if (directive == 'm') month = value;
        else if (directive == 'Y') year = value;
        else if (directive == 'y') year = value < 69 ? 2000 + value : 1900 + value;
        else return -1;
    }
    if (year < 0 || month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month)) return -1;
    date->tm_year = year - 1900;
    date->tm_mon = month - 1;
    date->tm_mday = day;
    return 0;
}

int64_t utDaysBetween(const struct tm* from, const struct tm* to) {
    return daysFromCivil(to->tm_year + 1900, to->tm_mon + 1, to->tm_mday) -
           daysFromCivil(from->tm_year + 1900, from->tm_mon + 1, from->tm_mday);
}

std::string utStampNow() {
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char date[64];
    char clock[64];
    utFormatDate(&local, date, sizeof(date));
    utFormatTime(&local, clock, sizeof(clock));
    return std::string(date) + " " + clock + " ";
}

void utToday(struct tm* today) {
    time_t now = g_clock();
    localtime_r(&now, today);
}

UtClock utSetClock(UtClock clock) {
    UtClock previous = g_clock;
    g_clock = clock ? clock : systemClock;
    return previous;
}
