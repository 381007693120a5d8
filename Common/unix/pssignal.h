// Stop requests: SIGTERM (or SIGINT) only sets the process-wide stop byte, which the
// rescan reads once before it starts; SIGPIPE and SIGHUP are ignored.
#ifndef COMMON_UNIX_PSSIGNAL_H
#define COMMON_UNIX_PSSIGNAL_H

#include <csignal>
#include <cstdint>
#include <string>

// 0 at start, 1 once a stop was requested; written only by the handler.
extern volatile sig_atomic_t agentStopRequested;

// Installs the handler and the ignores and makes the process a group leader;
// returns the result of setpgid.
int32_t installSignalHandlers();
void unxInterruptHandler(int sig);
// 0 when kill succeeded, -1 otherwise.
int32_t psSendInterrupt(int32_t pid, int32_t sig);
int32_t psSendJobInterrupt(const std::string& pidText);

#endif
