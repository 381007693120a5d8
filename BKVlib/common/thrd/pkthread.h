// Portable thread layer of the runtime library: mutexes with owner tracking,
// conditions, thread start, delays and the process's shutdown signal policy.
// In single-threaded mode, and once shutdown has begun, locking is skipped.
// Failures are traced under the ERROR class with the texts callers grep for.
#ifndef BKVLIB_COMMON_THRD_PKTHREAD_H
#define BKVLIB_COMMON_THRD_PKTHREAD_H

#include <cstdint>

struct MutexDesc;  // opaque: the mutex and its owner bookkeeping
typedef MutexDesc* MutexHandle;
struct CondDesc;
typedef CondDesc* CondHandle;

// Each returns RC_OK, or the pthread error (create/unlock/destroy) with its message traced.
int32_t pkCreateMutex(MutexHandle* mutex);
// RC_OK when held (or skipped); -1 for a null handle, else the lock error.
int32_t pkAcquireMutex(MutexHandle mutex);
// RC_OK when locked (or skipped), RC_MUTEX_BUSY when another thread holds it, -1 otherwise.
int32_t pkTryMutex(MutexHandle mutex);
int32_t pkReleaseMutex(MutexHandle mutex);
// Frees the mutex and sets *mutex to null; a null handle is RC_OK.
int32_t pkDestroyMutex(MutexHandle* mutex);
// 1 when the calling thread holds mutex.
int32_t pkMutexHeldBySelf(MutexHandle mutex);
// Traces which thread holds mutex ("Mutex held by thread %d (%x)\n" or
// "Mutex held by no thread.\n") and returns that thread's number, 0 for none.
int32_t pkMutexOwner(MutexHandle mutex);

// Conditions, waited on with a mutex of this layer. pkWaitCondition returns
// RC_OK, -1 when the caller does not hold mutex, or RC_COND_WAIT_FAILED.
int32_t pkCreateCondition(CondHandle* cond);
int32_t pkWaitCondition(CondHandle cond, MutexHandle mutex);
int32_t pkSignalCondition(CondHandle cond);
int32_t pkDestroyCondition(CondHandle* cond);

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
