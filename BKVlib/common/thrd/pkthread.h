// Portable thread layer of the runtime library: mutexes with owner tracking,
// conditions, thread start, delays and the process's shutdown signal policy.
// In single-threaded mode, and once shutdown has begun, locking is skipped.
#ifndef BKVLIB_COMMON_THRD_PKTHREAD_H
#define BKVLIB_COMMON_THRD_PKTHREAD_H

#include <cstdint>

struct MutexDesc;  // opaque: the mutex and its owner bookkeeping
typedef MutexDesc* MutexHandle;
struct CondDesc;
typedef CondDesc* CondHandle;

// Each returns RC_OK, or the pthread error (create/unlock/destroy) with its message traced.
int32_t pkCreateMutex(MutexHandle* mutex);
int32_t pkAcquireMutex(MutexHandle mutex);
// RC_OK when locked (or skipped), RC_MUTEX_BUSY when another thread holds it, -1 otherwise.
int32_t pkTryMutex(MutexHandle mutex);
int32_t pkReleaseMutex(MutexHandle mutex);
int32_t pkDestroyMutex(MutexHandle* mutex);

// Holds a mutex for one scope.
class MutexLock {
public:
    explicit MutexLock(MutexHandle mutex) : mutex_(mutex), rc_(pkAcquireMutex(mutex)) {}
    ~MutexLock() {
        if (rc_ == 0) pkReleaseMutex(mutex_);
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    // The result of the acquire; the mutex is held only when it is RC_OK.
    int32_t status() const { return rc_; }

private:
    MutexHandle mutex_;
    int32_t rc_;
};

#endif
