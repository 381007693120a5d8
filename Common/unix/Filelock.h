// An agent process proves that it is the only instance, and publishes its process
// id, by holding an advisory lock (lockf, whole file) on a PID file that holds that
// id. The lock goes away with its holder, so a file left by a dead process is taken
// over. Locks belong to the process; a Filelock object is not shared between threads.
#ifndef COMMON_UNIX_FILELOCK_H
#define COMMON_UNIX_FILELOCK_H

#include <cstdint>
#include <string>

class Filelock {
public:
    // fileName may come wrapped in one pair of double quotes.
    explicit Filelock(const std::string& fileName);
    // Closes a held descriptor, which releases the lock; the file stays.
    ~Filelock();
    Filelock(const Filelock&) = delete;
    Filelock& operator=(const Filelock&) = delete;

    // Opens (creating, mode 0700) and locks the file without waiting. RC_OK (also when
    // this object holds the lock already), RC_ALREADY_LOCKED when another process or
    // another Filelock of this process holds it, RC_LOCK_FAILED for an empty name or
    // an open or lock failure.
    int32_t lockFile();
    // Releases the lock, closes and deletes the file: RC_OK or RC_UNLOCK_FAILED. An
    // object that holds no lock deletes nothing, since the file may be another's.
    int32_t unlockFile();
    // Replaces the content with "<pid>" or "<pid> <data>": RC_OK or RC_WRITE_FAILED.
    // Needs the lock.
    int32_t writeProcessId(const std::string& data);
    // Reads "<pid>[ <data>]" back: RC_OK, or RC_READ_PID_FAILED when the file cannot
    // be read or holds no process id. A file this process holds is read through the
    // holding descriptor: closing a second one would drop the process's lock.
    int32_t readProcessId(int32_t* pid, std::string* data);
    // True when another process holds the lock; false in the holding process.
    bool isLocked();

private:
    std::string fileName;
    int32_t fd = -1;  // open while locked
};

// Splits PID file content into the process id and the data after one blank; false
// when it does not start with a decimal number.
bool parsePidFileText(const std::string& text, int32_t* pid, std::string* data);

// The process's own PID file: lock name and write the process id. RC_OK or the
// failing step's code (RC_LOCK_FAILED when anything throws).
int32_t createPidFile(const std::string& name);
// Unlocks and deletes the PID file of createPidFile: RC_OK or RC_UNLOCK_FAILED.
int32_t removePidFile();
// Writes the one status character ('1' started, '2' and '3' failures) to the status
// pipe given after "-agentCom"; fd -1 sends nothing. RC_OK or RC_WRITE_FAILED.
int32_t sendAgentStartStatus(int32_t fd, char status);

#endif
