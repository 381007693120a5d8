// POSIX primitives of the thread layer: the process's threading mode, raw mutexes
// and conditions, thread start, delays and signalling one thread. The portable
// mutex layer with owner tracking (pkthread.h) sits on top of these.
#ifndef BKVLIB_COMMON_UNX_PSTHREAD_H
#define BKVLIB_COMMON_UNX_PSTHREAD_H

#include <pthread.h>

#include <cstdint>

#include "BKVlib/common/unx/psident.h"

// Mode. psSetMultiThreaded(1) records the calling thread and process as the main
// ones; psSetMultiThreaded(0) declares the process single-threaded, which makes
// every lock a no-op. psIsMainThread() is 1 in single-threaded mode.
void psSetMultiThreaded(int32_t on);
int32_t psIsMainThread();
// Process id recorded by psSetMultiThreaded(1), 0 before.
int32_t psMainPid();

// Traces a thread-layer failure under the ERROR class. A failure raised while the
// same thread is already reporting one is dropped: a console sink the trace writes
// to may lock mutexes of this layer, and a broken mutex must not recurse without end.
void psThreadReport(const char* file, uint32_t line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
#define PS_THREAD_ERROR(...) psThreadReport(__FILE__, __LINE__, __VA_ARGS__)

// Raw mutexes (error-checking, so a self-deadlock is reported instead of hanging).
// Each returns 0 or the pthread error.
int32_t psMutexInit(pthread_mutex_t* mutex);
// Reports "psMutexLock: Deadlock condition\n" when the caller already holds it.
int32_t psMutexLock(pthread_mutex_t* mutex);
int32_t psMutexTryLock(pthread_mutex_t* mutex);
int32_t psMutexUnlock(pthread_mutex_t* mutex);
int32_t psMutexDestroy(pthread_mutex_t* mutex);

// Thread start record. With attr null the thread is created detached, with
// stackSize bytes of stack when stackSize is not 0.
struct PsThreadStartRec {
    pthread_t* thread;            // filled with the new thread's handle
    const pthread_attr_t* attr;   // optional attributes, used as given
    void* (*start)(void*);
    void* arg;
    int32_t detachState;          // out: PTHREAD_CREATE_DETACHED or _JOINABLE
    uint32_t stackSize;
};

// Starts record->start(record->arg) on a new thread. Returns RC_MISSING_ARG for a
// null record, -1 when the start pair cannot be allocated, else the result of
// pthread_create.
int32_t psThreadStart(PsThreadStartRec* record, const char* name);

// Called in every thread started by psThreadStart, before its start function,
// with the thread's number. Instrumentation installs its registration here.
typedef void (*PsThreadRegisterHook)(int32_t threadNumber);
void psSetThreadRegisterHook(PsThreadRegisterHook hook);

// Splits a delay into the seconds and microseconds of the timed wait.
void psDelaySplit(int32_t milliseconds, long* seconds, long* microseconds);
// Sleeps the calling thread for milliseconds.
void psThreadDelay(int32_t milliseconds);

// Sends signal to thread; -1 for an invalid signal, else the pthread_kill result.
int32_t psSignalThread(pthread_t thread, int32_t signal);

#endif
