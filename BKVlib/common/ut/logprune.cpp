// Pruning a plain log by age: the entries older than the retention are cut from the
// front, optionally saved, and the rest is copied behind them into a new file.
#include "BKVlib/common/ut/logutils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "BKVlib/common/nls/amsgnote.h"
#include "BKVlib/common/ut/ownedfile.h"
#include "BKVlib/common/ut/trace.h"

namespace {

constexpr off_t kMinSaveBytes = 8;
constexpr const char* kPruneTempName = "kfwprune.log";
constexpr uint8_t kMsgFlags = NL_NEWLINE | NL_ERRORLOG;
// Library messages about a file of a log: path (const char*), errno (int), error text.
constexpr uint16_t kMsgCannotOpen = 264;
constexpr uint16_t kMsgWriteError = 265;
constexpr uint16_t kMsgCannotOpenAux = 267;

void issueFileError(uint16_t msgNum, const std::string& path, int err) {
    nlNote(msgNum, kMsgFlags, path.c_str(), err, utLogErrText(err).c_str());
}

void closeStream(FILE** stream) {
    if (stream && *stream) {
        fclose(*stream);
        *stream = nullptr;
    }
}

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
    ScopedFile in_;
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
              utLogErrText(err).c_str());
    return utLogFail(log_, err);
}

int32_t Pruner::open(const char* saveName) {
    in_.reset(fopen(path_.c_str(), utLogModeRead(log_)));
    if (!in_.get()) {
        int err = errno;
        issueFileError(kMsgCannotOpen, path_, err);
        TR_PRINTF(TR_ERROR, "Couldn't open <%s> for pruning. errno = %d, %s\n", path_.c_str(), err, utLogErrText(err).c_str());
        return utLogFail(log_, err);
    }
    int32_t rc = 0;
    if (saveName && *saveName) {
        std::string savePath = dir_ + "/" + utBaseName(saveName);
        int err = save_.open(savePath, utLogModeAppend(log_));
        if (err != 0) {
            issueFileError(kMsgCannotOpenAux, savePath, err);
            TR_PRINTF(TR_ERROR, "Couldn't open save file <%s> to save pruned log entries.\nerrno = %d, %s\n",
                      savePath.c_str(), err, utLogErrText(err).c_str());
            rc = utLogFail(log_, err);
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
    if (utLogPut(temp_->get(), line, length)) return 0;
    int err = errno;
    issueFileError(kMsgWriteError, tempPath_, err);
    TR_PRINTF(TR_ERROR, "error writing to temp pruning file.\nerrno = %d, %s\n", err, utLogErrText(err).c_str());
    return utLogFail(log_, err);
}

int32_t Pruner::prune(const char* line, size_t length) {
    ++pruned_;
    if (!save_.isOpen() || save_.put(line, length)) return 0;
    int err = errno;
    issueFileError(kMsgWriteError, save_.path(), err);
    TR_PRINTF(TR_ERROR, "error writing to saved pruning recs file.\nerrno = %d, %s\n", err, utLogErrText(err).c_str());
    return utLogFail(log_, err);
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
        kept = reader.size() >= kLogDateTextLen && utParseDate(reader.data(), kLogDateTextLen, &date) == 0 &&
               utDaysBetween(&date, &today) < static_cast<int64_t>(retention_);
        rc = kept ? keep(reader.data(), reader.size()) : prune(reader.data(), reader.size());
    }
    if (rc == 0 && pruned_ > 0) rc = copyRest(&reader);
    // A read error would otherwise cut the log short when the copy replaces it.
    if (rc == 0 && reader.failed()) rc = utLogFail(log_, errno ? errno : EIO);
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
    utLogRollBack(&save_);
    closeSave();
}

int32_t Pruner::finish() {
    int32_t rc = 0;
    if (pruned_ > 0 && temp_->commit(path_) != 0) {
        int err = temp_->error();
        TR_PRINTF(TR_ERROR,
                  "Couldn't copy from temp file back to <%s> after pruning. errno = %d, %s\noriginal log not pruned.",
                  path_.c_str(), err, utLogErrText(err).c_str());
        rc = utLogFail(log_, err);
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
