#include "BKVlib/common/unx/linux86/psunxthr.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "BKVlib/common/unx/psthread.h"
#include "BKVlib/common/ut/trace.h"

namespace {

const int kTrapSignals[] = {SIGILL, SIGFPE, SIGBUS, SIGSEGV, SIGUSR1, SIGABRT, SIGTRAP};
const int kShutdownSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGPWR, SIGXCPU, SIGXFSZ};

struct SignalName {
    int signal;
    const char* name;
};
const SignalName kShutdownNames[] = {{SIGTERM, "SIGTERM"}, {SIGQUIT, "SIGQUIT"}, {SIGINT, "SIGINT"}};

const char* shutdownName(int signal) {
    for (const SignalName& entry : kShutdownNames) {
        if (entry.signal == signal) return entry.name;
    }
    return "UNKNOWN";
}

template <size_t N>
void fillSet(sigset_t* set, const int (&signals)[N]) {
    sigemptyset(set);
    for (int sig : signals) sigaddset(set, sig);
}

void* exitAtOnce(void*) { pthread_exit(nullptr); }

// The first pthread_exit loads the unwinder library, which allocates; doing that
// here keeps the SIGUSR1 path of the trap handler free of it.
void loadThreadExitUnwinder() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, exitAtOnce, nullptr) == 0) pthread_join(thread, nullptr);
}

int32_t installTrapHandlers() {
    int32_t rc = 0;
    for (int sig : kTrapSignals) {
        struct sigaction action {};
        action.sa_handler = psTrapHandler;
        sigemptyset(&action.sa_mask);
        if (sigaction(sig, &action, nullptr) != 0) {
            PS_THREAD_ERROR("Unable to establish handler for trap %d.\n", sig);
            rc = -1;
        }
    }
    return rc;
}

}  // namespace

int32_t psSetupSignals(PsSignalSets* sets) {
    signal(SIGPIPE, SIG_IGN);
    fillSet(&sets->trap, kTrapSignals);
    fillSet(&sets->shutdown, kShutdownSignals);
    pthread_sigmask(SIG_BLOCK, &sets->shutdown, nullptr);
    loadThreadExitUnwinder();
    return installTrapHandlers();
}

int32_t psWaitShutdown(const PsSignalSets* sets) {
    int sig = 0;
    int rc = EINTR;
    while (rc == EINTR) {
        errno = 0;
        rc = sigwait(&sets->shutdown, &sig);
        int savedErrno = errno;
        TR_PRINTF(TR_THREAD, "psWaitShutdown: sigwait returned(%d), reason(%s), errno(%d), reason(%s)\n", rc,
                  strerror(rc), savedErrno, strerror(savedErrno));
        if (rc == EINTR) TR_PRINTF(TR_THREAD, "psWaitShutdown: continue waiting...\n");
    }
    psSetShutdownBegun();
    int32_t result = 0;
    if (rc != 0) {
        PS_THREAD_ERROR("sigwait failed in pkWaitshutdown.\n");
        result = -1;
    } else {
        TR_PRINTF(TR_THREAD, "YRRO shutting down, signal %s (%d) \n", shutdownName(sig), sig);
    }
    return result;
}

int32_t psRequestShutdown(int32_t how) {
    if (how != 1) return 0;
    // Before the multi-threaded declaration there is no recorded main process;
    // kill(0) would signal the whole process group instead.
    pid_t pid = psMainPid() != 0 ? psMainPid() : getpid();
    return kill(pid, SIGTERM) == 0 ? 0 : -1;
}

void psTrapHandler(int signal) {
    // The handler may have interrupted malloc, so its records take no heap memory.
    if (trFlags[TR_THREAD]) {
        trSignalPrintf(__FILE__, __LINE__, "%s thread %p terminating on signal %d\n", "Unknown",
                       reinterpret_cast<void*>(pthread_self()), signal);
    }
    if (signal == SIGUSR1) pthread_exit(nullptr);
    if (trFlags[TR_ERROR]) {
        trSignalPrintf(__FILE__, __LINE__, "%s thread, fatal error, signal %d\n", "Unknown", signal);
    }
    // Ending by the same signal keeps the exit status and any core dump honest.
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(signal);
    _exit(128 + signal);
}
