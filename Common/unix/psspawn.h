// The agent's process layer: starting another program as a child, waiting for it
// with a time limit, reaping background children, testing whether a process is
// alive, and turning the caller into a daemon. Results are the named return codes.
#ifndef COMMON_UNIX_PSSPAWN_H
#define COMMON_UNIX_PSSPAWN_H

#include <cstdint>
#include <string>

// One program started by SpawnExternalProgram.
struct SpawnInfo {
    int32_t pid = 0;      // written on success
    std::string outFile;  // standard output when redirected; empty: a new temporary file
    std::string errFile;  // standard error when redirected; empty: a new temporary file
};

// Starts argv[0] directly (no shell). With usePipe, "-agentCom" and "<read>,<write>"
// (the status pipe's descriptors) are appended, and the child's single status
// character decides the result: "1" RC_OK, "2" RC_CHILD_FAILED, anything else or
// nothing at all RC_CHILD_UNKNOWN. Without a pipe the result is RC_OK once forked.
// RC_CANNOT_START when the pipe, the fork or the status read fails; a child that
// cannot run argv[0] exits with RC_CANNOT_START. envp (may be null) replaces the
// environment. The child joins the child list; its pid goes to *pid when given.
int32_t SpawnTask(const char* const argv[], bool usePipe, const char* const envp[], int32_t* pid = nullptr);

// Starts the program through "/bin/sh" "-c" with the text of psSpawnCommandText.
// With redirect, standard output and error go to info's files (appended to with
// append, else truncated); an empty name is replaced by a new temporary file name.
// RC_OK with info->pid set, or RC_CANNOT_START when fork fails. A child that cannot
// open its files or run the shell exits with RC_CANNOT_START.
int32_t SpawnExternalProgram(const char* const argv[], SpawnInfo* info, bool redirect, bool quoteArgs, bool append,
                             const char* const envp[]);

// The shell text of SpawnExternalProgram: argv[0] in single quotes unless it holds a
// semicolon outside double quotes (then it is a command list and stays as given),
// each further argument after a blank, in single quotes with quoteArgs.
std::string psSpawnCommandText(const char* const argv[], bool quoteArgs);

// Waits for info->pid; timeoutSeconds <= 0 waits without limit. RC_OK with *exitCode
// set (exit status, or the signal number of a child killed by a signal);
// RC_CHILD_KILLED when the time ran out and the child was sent SIGKILL; RC_NOT_RUN
// when that kill failed; RC_WAIT_FAILED when the wait or the SIGALRM set-up failed.
// The time limit uses alarm() and a process-wide SIGALRM action for the duration.
int32_t WaitForExternalProgram(SpawnInfo* info, int32_t* exitCode, int32_t timeoutSeconds);

// The list of background children, guarded by its own mutex.
constexpr int32_t CHILD_LIST_CREATE = 0;
constexpr int32_t CHILD_LIST_ADD = 1;   // adds pid
constexpr int32_t CHILD_LIST_REAP = 2;  // reaps the children that have ended, without blocking
void WaitForChildProcesses(int32_t op, int32_t pid);
// Number of children still on the list.
int32_t psChildCount();

// True when "ps -p <pid>" lists the process and, with a non-empty name, the last
// word of its output (the command) equals name.
bool psIsProcessRunning(int32_t pid, const char* name);

// Detaches the caller: fork (the parent exits 0), new session, fork again (the first
// child exits 0); the grandchild works in "/", reads /dev/null and writes to
// /dev/console. 0 in the grandchild, -1 when a step fails.
int32_t psDaemonize();

#endif
