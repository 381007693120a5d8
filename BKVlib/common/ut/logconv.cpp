// Opening a log under its policy: a plain log is pruned and appended to, a wrapping
// log is positioned, and a log written under the other policy is converted first.
#include "BKVlib/common/ut/logutils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>

#include "BKVlib/common/nls/amsgnote.h"
#include "BKVlib/common/ut/ownedfile.h"
#include "BKVlib/common/ut/trace.h"

namespace {

constexpr long kHeaderMaxOffset = 25;     // where "%-10lu" of the maximum starts
constexpr unsigned long kProgressEvery = 25000;
constexpr uint16_t kMsgProgress = 232;
constexpr uint16_t kMsgToWrapping = 233;
constexpr uint16_t kMsgToPlain = 234;
constexpr uint8_t kMsgFlags = NL_NEWLINE | NL_ERRORLOG;
// Library messages about a file of a log: path (const char*), errno (int), error text.
constexpr uint16_t kMsgCannotOpen = 264;
constexpr uint16_t kMsgWriteError = 265;
constexpr uint16_t kMsgCannotOpenAux = 267;

void issueFileError(uint16_t msgNum, const std::string& path, int err) {
    nlNote(msgNum, kMsgFlags, path.c_str(), err, utLogErrText(err).c_str());
}

bool isLine(const char* line, size_t length, const char* text) {
    size_t textLen = strlen(text);
    return length == textLen + 1 && memcmp(line, text, textLen) == 0 && line[textLen] == '\n';
}

bool isDated(const char* line, size_t length) {
    struct tm date;
    return length >= kLogDateTextLen && utParseDate(line, kLogDateTextLen, &date) == 0;
}

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
              utLogErrText(err).c_str());
    return utLogFail(log, err);
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
    char buf[kLogMaxHeaderLine];
    ssize_t n = preadRetry(*fd, buf, kLogHeaderTagLen);
    if (n == static_cast<ssize_t>(kLogHeaderTagLen) && memcmp(buf, kLogHeaderTag, kLogHeaderTagLen) == 0) {
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
                  utLogErrText(err).c_str());
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
              utLogErrText(err).c_str());
    return utLogFail(log, err);
}

int32_t tempWriteFailed(LogFile* log, const std::string& path) {
    int err = errno;
    issueFileError(kMsgWriteError, path, err);
    TR_PRINTF(TR_ERROR, "error writing to temp file.\nerrno = %d, %s\n", err, utLogErrText(err).c_str());
    return utLogFail(log, err);
}

int32_t tempOpenFailed(LogFile* log, const TempFile& temp) {
    issueFileError(kMsgCannotOpenAux, temp.path(), temp.error());
    return utLogFail(log, temp.error());
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
    FILE* fp = fopen(log->path.c_str(), utLogModeUpdate(log));
    if (!fp) return cannotOpen(log, errno);
    setvbuf(fp, nullptr, _IONBF, 0);
    log->stream = fp;
    log->wrapping = 1;
    log->headerLen = headerLen;
    log->nextWrite = nextWrite;
    int32_t rc = fseeko(fp, nextWrite, SEEK_SET) == 0 ? 0 : utLogWriteFailed(log);
    if (rc != 0) utCloseLog(log);
    return rc;
}

// Builds a fresh wrapping log holding lines and renames it over the log; the log
// record then owns its stream, positioned at nextWrite.
int32_t writeWrappingLog(LogFile* log, const std::deque<std::string>& lines) {
    TempFile temp(utDirName(log->path), log->binaryModes != 0);
    if (!temp.get()) return tempOpenFailed(log, temp);
    std::string header = utFormatLogHeader(0, log->maxBytes);
    bool ok = utLogPut(temp.get(), header.data(), header.size());
    for (size_t i = 0; ok && i < lines.size(); ++i) ok = utLogPut(temp.get(), lines[i].data(), lines[i].size());
    int32_t rc = ok ? 0 : tempWriteFailed(log, temp.path());
    log->stream = temp.get();
    log->wrapping = 1;
    log->headerLen = static_cast<uint32_t>(header.find('\n') + 1);
    if (rc == 0) rc = utSetNextWrite(log);
    if (rc == 0 && temp.commit(log->path) != 0) {
        TR_PRINTF(TR_ERROR, "Couldn't copy from temp file back to <%s>. errno = %d, %s\n", log->path.c_str(),
                  temp.error(), utLogErrText(temp.error()).c_str());
        rc = utLogFail(log, temp.error());
    }
    log->stream = nullptr;
    log->wrapping = 0;
    if (rc == 0) rc = openWrappingStream(log, log->headerLen, log->nextWrite);
    return rc;
}

// Every line of a plain log goes to the save file before the log starts wrapping.
int32_t saveAllLines(LogFile* log, AppendFile* save) {
    ScopedFile in(fopen(log->path.c_str(), utLogModeRead(log)));
    if (!in.get()) return cannotOpen(log, errno);
    std::string savePath = conversionSavePath(log);
    int err = save->open(savePath, utLogModeAppend(log));
    if (err != 0) issueFileError(kMsgCannotOpenAux, savePath, err);
    int32_t rc = err == 0 ? 0 : utLogFail(log, err);
    LineReader reader(in.get());
    unsigned long count = 0;
    while (rc == 0 && reader.next()) {
        if (!save->put(reader.data(), reader.size())) rc = tempWriteFailed(log, savePath);
        if (++count % kProgressEvery == 0) nlNote(kMsgProgress, kMsgFlags, count);
    }
    if (rc == 0 && reader.failed()) rc = readFailed(log, in.get());
    return rc;
}

int32_t makeWrapping(LogFile* log, const FirstLook& look, int32_t quiet) {
    int32_t rc = 0;
    AppendFile save;
    if (look.size > 0) {
        if (!quiet) nlNote(kMsgToWrapping, kMsgFlags, log->path.c_str());
        rc = saveAllLines(log, &save);
    }
    if (rc == 0) rc = writeWrappingLog(log, std::deque<std::string>());
    if (rc != 0) utLogRollBack(&save);
    if (save.isOpen() && save.close() < 0 && rc == 0) rc = tempWriteFailed(log, save.path());
    return rc;
}

// Keeps the newest entries that fit the smaller maximum with the header, both markers
// and one spare byte; older ones are dropped whole, never cut.
int32_t shrinkWrapping(LogFile* log, const FirstLook& look) {
    ScopedFile in(fopen(log->path.c_str(), utLogModeRead(log)));
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
        rc = utLogWriteFailed(log);
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
    if (!quiet) nlNote(kMsgToPlain, kMsgFlags, log->path.c_str());
    ScopedFile in(fopen(log->path.c_str(), utLogModeRead(log)));
    if (!in.get()) return cannotOpen(log, errno);
    TempFile temp(utDirName(log->path), log->binaryModes != 0);
    if (!temp.get()) return tempOpenFailed(log, temp);
    unsigned long count = 0;
    int32_t rc = forEachEntry(log, in.get(), look, [&](const char* line, size_t length) {
        if (!utLogPut(temp.get(), line, length)) return tempWriteFailed(log, temp.path());
        if (line[length - 1] == '\n' && ++count % kProgressEvery == 0) nlNote(kMsgProgress, kMsgFlags, count);
        return 0;
    });
    if (rc == 0 && temp.commit(log->path) != 0) {
        TR_PRINTF(TR_ERROR, "Couldn't copy from temp file back to <%s>. errno = %d, %s\n", log->path.c_str(),
                  temp.error(), utLogErrText(temp.error()).c_str());
        rc = utLogFail(log, temp.error());
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
    int32_t rc = log->path.empty() ? utLogFail(log, ENOENT) : openAndLook(log, &fd, &look);
    bool plainAsIs = rc == 0 && !look.header.present && log->maxBytes == 0 && log->retentionDays == kLogKeepForever;
    if (rc == 0 && !plainAsIs) rc = measure(log, fd, &look);
    if (rc == 0 && isDamaged(look)) {
        TR_PRINTF(TR_ERROR, "utWrapFile(): damaged header in <%s>; log left as it is.\n", log->path.c_str());
        rc = utLogFail(log, EINVAL);
    }
    if (rc == 0 && plainAsIs) {
        rc = attachAppend(log, fd);
        fd = -1;
    }
    if (fd >= 0) close(fd);
    if (rc == 0 && !plainAsIs) rc = openUnderPolicy(log, look, quiet);
    return rc;
}
