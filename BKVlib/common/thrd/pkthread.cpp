// Minimal mutexes over POSIX threads; owner tracking and the rest of the thread
// layer are completed behind these calls.
#include "BKVlib/common/thrd/pkthread.h"

#include <pthread.h>

#include <cerrno>
#include <new>

#include "BKVlib/common/ut/ReturnCodes.h"

struct MutexDesc {
    pthread_mutex_t mutex;
};

int32_t pkCreateMutex(MutexHandle* mutex) {
    MutexDesc* desc = new (std::nothrow) MutexDesc;
    if (!desc) return RC_NO_MEMORY;
    int rc = pthread_mutex_init(&desc->mutex, nullptr);
    if (rc != 0) {
        delete desc;
        return rc;
    }
    *mutex = desc;
    return RC_OK;
}

int32_t pkAcquireMutex(MutexHandle mutex) {
    if (!mutex) return -1;
    return pthread_mutex_lock(&mutex->mutex);
}

int32_t pkTryMutex(MutexHandle mutex) {
    if (!mutex) return -1;
    int rc = pthread_mutex_trylock(&mutex->mutex);
    return rc == 0 ? RC_OK : (rc == EBUSY ? RC_MUTEX_BUSY : -1);
}

int32_t pkReleaseMutex(MutexHandle mutex) {
    if (!mutex) return -1;
    return pthread_mutex_unlock(&mutex->mutex);
}

int32_t pkDestroyMutex(MutexHandle* mutex) {
    if (!mutex || !*mutex) return RC_OK;
    int rc = pthread_mutex_destroy(&(*mutex)->mutex);
    delete *mutex;
    *mutex = nullptr;
    return rc;
}
