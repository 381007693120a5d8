// POSIX record locks belong to the process and vanish when any descriptor of the file
// is closed by it. That is why the holder never opens the file a second time: the
// process keeps a table of the files it holds, and every Filelock reads and tests a
// held file through the holder's descriptor.
#include "Common/unix/Filelock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <utility>

#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/unix/ScopedFd.h"
#include "Common/unix/psnautil.h"

namespace {

constexpr size_t kPidTextSize = 256;

bool heldByOther(int error) {
    return error == EAGAIN || error == EACCES;
}

typedef std::pair<dev_t, ino_t> FileKey;

// The files this process holds locked, with the holding process and descriptor. A
// forked child inherits the table but none of the locks, hence the process id.
struct HeldFiles {
    std::map<FileKey, std::pair<pid_t, int>> descriptors;
    MutexHandle mutex = nullptr;
    HeldFiles() { pkCreateMutex(&mutex); }
};

HeldFiles& heldFiles() {
    static HeldFiles held;
    return held;
}

void noteHeld(int fd, bool held) {
    struct stat st;
    if (fstat(fd, &st) != 0) return;
    MutexLock lock(heldFiles().mutex);
    if (held) {
        heldFiles().descriptors[FileKey(st.st_dev, st.st_ino)] = std::make_pair(getpid(), fd);
    } else {
        heldFiles().descriptors.erase(FileKey(st.st_dev, st.st_ino));
    }
}

// The descriptor through which this process holds name locked, or -1.
int heldDescriptor(const std::string& name) {
    struct stat st;
    if (stat(name.c_str(), &st) != 0) return -1;
    MutexLock lock(heldFiles().mutex);
    auto found = heldFiles().descriptors.find(FileKey(st.st_dev, st.st_ino));
    bool ours = found != heldFiles().descriptors.end() && found->second.first == getpid();
    return ours ? found->second.second : -1;
}

}  // namespace

Filelock::Filelock(const std::string& name) : fileName(psUnquote(name)) {}

Filelock::~Filelock() {
    if (fd >= 0) {
        noteHeld(fd, false);
        close(fd);
    }
}

int32_t Filelock::lockFile() {
    NA_TRACE_ENTER("lockFile()");
    int32_t rc = RC_OK;
    ScopedFd opened;
    if (fileName.empty()) {
        NA_TRACE_MIN("Invalid file name\n");
        rc = RC_LOCK_FAILED;
    } else if (fd < 0 && heldDescriptor(fileName) >= 0) {
        NA_TRACE_MIN("file already locked\n");  // by another lock object of this process
        rc = RC_ALREADY_LOCKED;
    } else if (fd < 0) {
        opened = ScopedFd(open(fileName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0700));
        if (!opened.isOpen()) {
            NA_TRACE_MIN("Unable to open file: %s, \n", strerror(errno));
            rc = RC_LOCK_FAILED;
        }
    }
    if (opened.isOpen()) {
        NA_TRACE_MAX("locking file: %s\n", NA_STR(fileName));
        if (lockf(opened.get(), F_TLOCK, 0) == 0) {
            NA_TRACE_MAX("locked file: %s\n", NA_STR(fileName));
            fd = opened.release();
            noteHeld(fd, true);
        } else {
            bool other = heldByOther(errno);
            if (other) {
                NA_TRACE_MIN("file already locked\n");
            } else {
                NA_TRACE_MIN("Unable to lock: %s, \n", strerror(errno));
            }
            rc = other ? RC_ALREADY_LOCKED : RC_LOCK_FAILED;
        }
    }
    NA_TRACE_EXIT("Exit: %s, rc: %d\n", "lockFile()", rc);
    return rc;
}

int32_t Filelock::unlockFile() {
    NA_TRACE_ENTER("unlockFile()");
    int32_t rc = RC_OK;
    if (fd < 0 || lseek(fd, 0, SEEK_SET) != 0 || lockf(fd, F_ULOCK, 0) != 0) {
        NA_TRACE_MIN("Unable to unlock file\n");
        rc = RC_UNLOCK_FAILED;
    }
    if (fd >= 0) noteHeld(fd, false);
    if (fd >= 0 && close(fd) != 0) {
        NA_TRACE_MIN("Unable to close file: %d - %s\n", errno, strerror(errno));
        rc = RC_UNLOCK_FAILED;
    }
    bool held = fd >= 0;
    fd = -1;
    if (held && unlink(fileName.c_str()) != 0) {
        NA_TRACE_MIN("Unable to remove file: %d - %s\n", errno, strerror(errno));
        rc = RC_UNLOCK_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "unlockFile()", rc);
    return rc;
}

int32_t Filelock::writeProcessId(const std::string& data) {
    NA_TRACE_ENTER("writeProcessId()");
    char text[kPidTextSize];
    memset(text, 0, sizeof(text));
    if (data.empty()) {
        snprintf(text, sizeof(text), "%d", static_cast<int>(getpid()));
    } else {
        snprintf(text, sizeof(text), "%d %s", static_cast<int>(getpid()), data.c_str());
    }
    ssize_t length = static_cast<ssize_t>(strlen(text));
    int32_t rc = RC_OK;
    // pwrite at offset 0 keeps the file position at 0, where the lock starts.
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text, static_cast<size_t>(length), 0) != length) {
        // The text is the delete failure's, as the agent has always reported it.
        NA_TRACE_MIN("Unable to remove file: %d - %s\n", errno, strerror(errno));
        rc = RC_WRITE_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "writeProcessId()", rc);
    return rc;
}

bool parsePidFileText(const std::string& text, int32_t* pid, std::string* data) {
    size_t at = text[0] == '-' ? 1 : 0;
    long long value = 0;
    size_t digits = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9' && value <= INT_MAX; ++at, ++digits) {
        value = value * 10 + (text[at] - '0');
    }
    bool ok = digits > 0 && value <= INT_MAX && (at == text.size() || text[at] == ' ' || text[at] == '\n');
    if (ok) {
        *pid = static_cast<int32_t>(text[0] == '-' ? -value : value);
        *data = at < text.size() && text[at] == ' ' ? text.substr(at + 1) : std::string();
        size_t end = data->find_last_not_of("\r\n");
        data->erase(end == std::string::npos ? 0 : end + 1);
    }
    return ok;
}

namespace {

// Reads the first bytes of the file at offset 0; -1 on a read failure.
ssize_t readStart(int from, char* text, size_t size) {
    ssize_t got;
    do {
        got = pread(from, text, size - 1, 0);
    } while (got < 0 && errno == EINTR);
    if (got < 0) NA_TRACE_MIN("Unable to read file: %d - %s\n", errno, strerror(errno));
    return got;
}

}  // namespace

int32_t Filelock::readProcessId(int32_t* pid, std::string* data) {
    NA_TRACE_ENTER("readProcessId()");
    int held = fd >= 0 ? fd : heldDescriptor(fileName);
    ScopedFd opened(held >= 0 ? -1 : open(fileName.c_str(), O_RDONLY | O_CLOEXEC));
    int from = held >= 0 ? held : opened.get();
    if (from < 0) NA_TRACE_MIN("Unable to open: %s, \n", strerror(errno));
    char text[kPidTextSize];
    memset(text, 0, sizeof(text));
    ssize_t got = from >= 0 ? readStart(from, text, sizeof(text)) : -1;
    if (opened.close() != 0) {
        NA_TRACE_MIN("Unable to close file: %d - %s\n", errno, strerror(errno));
    }
    int32_t rc = RC_READ_PID_FAILED;
    if (got > 0 && parsePidFileText(std::string(text, static_cast<size_t>(got)), pid, data)) {
        NA_TRACE_MAX("Read Process Id: %d , data: %s\n", *pid, NA_STR(*data));
        rc = RC_OK;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "readProcessId()", rc);
    return rc;
}

bool Filelock::isLocked() {
    NA_TRACE_ENTER("isLocked()");
    bool locked = false;
    bool ours = fd >= 0 || heldDescriptor(fileName) >= 0;
    ScopedFd probe(ours ? -1 : open(fileName.c_str(), O_RDONLY | O_CLOEXEC));
    if (probe.isOpen()) locked = lockf(probe.get(), F_TEST, 0) != 0 && heldByOther(errno);
    if (locked) {
        NA_TRACE_MAX("File %s is locked\n", NA_STR(fileName));
    } else {
        NA_TRACE_MAX("File %s is not locked, \n", NA_STR(fileName));
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "isLocked()", locked ? 1 : 0);
    return locked;
}

namespace {

std::unique_ptr<Filelock> gPidLock;

}  // namespace

int32_t createPidFile(const std::string& name) {
    NA_TRACE_ENTER("createPidFile()");
    int32_t rc = RC_OK;
    try {
        gPidLock = std::make_unique<Filelock>(name);
        rc = gPidLock->lockFile();
        if (rc != RC_OK) {
            NA_TRACE_MIN("Unable to lock file\n");
        } else {
            rc = gPidLock->writeProcessId(std::string());
            if (rc != RC_OK) NA_TRACE_MIN("Could not write process id: %d\n", static_cast<int>(getpid()));
        }
    } catch (const std::exception& e) {
        NA_TRACE_MIN("Unable to create PID file: %s\n", e.what());
        rc = RC_LOCK_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc: %d\n", "createPidFile()", rc);
    return rc;
}

int32_t removePidFile() {
    NA_TRACE_ENTER("removePidFile()");
    int32_t rc = gPidLock ? gPidLock->unlockFile() : RC_UNLOCK_FAILED;
    if (rc != RC_OK) NA_TRACE_MIN("Unable to unlock lock file\n");
    gPidLock.reset();
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "removePidFile()", rc);
    return rc;
}

int32_t sendAgentStartStatus(int32_t fd, char status) {
    NA_TRACE_ENTER("sendAgentStartStatus()");
    int32_t rc = RC_OK;
    if (fd != -1) {
        if (write(fd, &status, 1) == 1) {
            NA_TRACE_MAX("Successfully sent status to agent: %c\n", status);
        } else {
            NA_TRACE_MIN("Failed to send status to agent: %c\n", status);
            rc = RC_WRITE_FAILED;
        }
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "sendAgentStartStatus()", rc);
    return rc;
}
