// The trace's own mutexes. They sit below everything that traces, so taking one
// never writes a trace record and the thread layer can trace while the trace holds
// one. Like the thread layer's mutexes they are error-checking, and no-ops while the
// process is single-threaded or shutting down.
#ifndef BKVLIB_COMMON_UT_TRLOCK_H
#define BKVLIB_COMMON_UT_TRLOCK_H

#include <cstdint>

struct TrMutex;
typedef TrMutex* TrMutexHandle;

// RC_OK, RC_NO_MEMORY or the pthread error; *mutex is set only on RC_OK.
int32_t trMutexCreate(TrMutexHandle* mutex);
// Null and an already destroyed handle are fine; *mutex becomes null.
void trMutexDestroy(TrMutexHandle* mutex);
// RC_OK or the pthread error (-1 for a null handle).
int32_t trMutexAcquire(TrMutexHandle mutex);
int32_t trMutexRelease(TrMutexHandle mutex);
bool trMutexHeldBySelf(TrMutexHandle mutex);

// Holds a mutex for one scope when it could be taken; a null handle holds nothing.
class TrMutexLock {
public:
    explicit TrMutexLock(TrMutexHandle mutex) : mutex_(mutex), held_(trMutexAcquire(mutex) == 0) {}
    ~TrMutexLock() {
        if (held_) trMutexRelease(mutex_);
    }
    TrMutexLock(const TrMutexLock&) = delete;
    TrMutexLock& operator=(const TrMutexLock&) = delete;

private:
    TrMutexHandle mutex_;
    bool held_;
};

#endif
