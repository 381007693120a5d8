// The process's signal policy: trap signals get the fatal-signal handler in every
// thread, shutdown signals are blocked everywhere and collected by one thread
// waiting in psWaitShutdown, SIGPIPE is ignored.
#ifndef BKVLIB_COMMON_UNX_LINUX86_PSUNXTHR_H
#define BKVLIB_COMMON_UNX_LINUX86_PSUNXTHR_H

#include <csignal>
#include <cstdint>

struct PsSignalSets {
    sigset_t trap;      // SIGILL SIGFPE SIGBUS SIGSEGV SIGUSR1 SIGABRT SIGTRAP
    sigset_t shutdown;  // SIGINT SIGQUIT SIGTERM SIGPWR SIGXCPU SIGXFSZ
};

// Fills sets, blocks the shutdown set in the calling thread (threads created
// later inherit the mask) and installs the fatal-signal handler for each trap
// signal. Returns 0, or -1 when a handler cannot be installed.
int32_t psSetupSignals(PsSignalSets* sets);
// Waits for a shutdown signal, then marks shutdown as begun (locking is skipped
// from then on). Returns 0, or -1 when sigwait fails.
int32_t psWaitShutdown(const PsSignalSets* sets);
// how = 1: sends SIGTERM to the main process, which ends its shutdown wait.
int32_t psRequestShutdown(int32_t how);
// The fatal-signal handler: SIGUSR1 ends only the calling thread (the library's
// way to stop one thread); any other trap signal ends the process.
void psTrapHandler(int signal);

#endif
