// A child that cannot go on after fork() ends with _exit(RC_CANNOT_START): exit()
// would run the parent's atexit handlers and flush the parent's stdio buffers a
// second time, and returning would leave two processes running the caller's code.
#include "Common/unix/psspawn.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/unix/psnautil.h"

namespace {

// Both pipe descriptors are handed over as one "-agentCom" value.
std::vector<char*> localArgv(const char* const argv[], size_t extra) {
    size_t count = 0;
    while (argv && argv[count]) ++count;
    std::vector<char*> array(count + extra + 1, nullptr);
    for (size_t i = 0; i < count; ++i) {
        array[i] = const_cast<char*>(argv[i]);
        NA_TRACE_MAX("localArgv[%d] = %s\n", static_cast<int>(i), NA_STR(argv[i]));
    }
    return array;
}

[[noreturn]] void execOrExit(const char* path, char* const array[], const char* const envp[]) {
    if (envp) {
        execve(path, array, const_cast<char* const*>(envp));
    } else {
        execv(path, array);
    }
    NA_TRACE_MIN("execv: %s failed(), errno: %d\n", NA_STR(path), errno);
    _exit(RC_CANNOT_START);
}

int32_t statusOfByte(ssize_t got, char status) {
    int32_t rc = RC_CHILD_UNKNOWN;
    if (got == 1 && status == '1') rc = RC_OK;
    if (got == 1 && status == '2') rc = RC_CHILD_FAILED;
    return rc;
}

// Reads the child's one status character from the pipe's read end and closes it.
int32_t readChildStatus(int readFd, int writeFd) {
    close(writeFd);
    char status = 0;
    ssize_t got;
    do {
        got = read(readFd, &status, 1);
    } while (got < 0 && errno == EINTR);
    int32_t rc = RC_CANNOT_START;
    if (got < 0) {
        NA_TRACE_MIN("Unable to read process status: %d\n", errno);
    } else {
        rc = statusOfByte(got, status);
    }
    NA_TRACE_MAX("Closing read part of the pipe\n");
    close(readFd);
    return rc;
}

}  // namespace

int32_t SpawnTask(const char* const argv[], bool usePipe, const char* const envp[], int32_t* pid) {
    NA_TRACE_ENTER("SpawnTask()");
    std::vector<char*> array = localArgv(argv, 2);
    int fds[2] = {-1, -1};
    char fdText[32] = "";
    int32_t rc = array[0] ? RC_OK : RC_CANNOT_START;
    if (rc == RC_OK && usePipe && pipe(fds) != 0) {
        NA_TRACE_MIN("Failed to create pipe: %d\n", errno);
        rc = RC_CANNOT_START;
    } else if (rc == RC_OK && usePipe) {
        snprintf(fdText, sizeof(fdText), "%d,%d", fds[0], fds[1]);
        size_t at = array.size() - 3;
        array[at] = const_cast<char*>("-agentCom");
        array[at + 1] = fdText;
    }
    pid_t child = rc == RC_OK ? fork() : -1;
    if (child == 0) execOrExit(array[0], array.data(), envp);
    if (rc == RC_OK && child < 0) {
        NA_TRACE_MIN("Unable to create child process: %s.\n", strerror(errno));
        rc = RC_CANNOT_START;
        for (int fd : fds) {
            if (fd >= 0) close(fd);
        }
    }
    if (rc == RC_OK) {
        WaitForChildProcesses(CHILD_LIST_ADD, child);
        if (pid) *pid = child;
        if (usePipe) rc = readChildStatus(fds[0], fds[1]);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "SpawnTask()", rc);
    return rc;
}

std::string psSpawnCommandText(const char* const argv[], bool quoteArgs) {
    std::string program = argv && argv[0] ? argv[0] : "";
    bool inQuotes = false;
    bool commandList = false;
    for (char c : program) {
        if (c == '"') inQuotes = !inQuotes;
        if (c == ';' && !inQuotes) commandList = true;
    }
    std::string text = commandList ? program : "'" + program + "'";
    for (size_t i = 1; argv && argv[0] && argv[i]; ++i) {
        text += quoteArgs ? std::string(" '") + argv[i] + "'" : std::string(" ") + argv[i];
    }
    return text;
}

namespace {

// Makes name the child's descriptor target; false when it cannot be opened.
bool redirectTo(const std::string& name, int target, bool append) {
    int flags = O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC);
    int fd = open(psUnquote(name).c_str(), flags, 0600);
    if (fd < 0) return false;
    if (fd != target) {
        dup2(fd, target);
        close(fd);
    }
    return true;
}

[[noreturn]] void runShell(char* const array[], const SpawnInfo& info, bool redirect, bool append,
                           const char* const envp[]) {
    if (redirect && !(redirectTo(info.outFile, STDOUT_FILENO, append) &&
                      redirectTo(info.errFile, STDERR_FILENO, append))) {
        _exit(RC_CANNOT_START);
    }
    if (envp) {
        execve(array[0], array, const_cast<char* const*>(envp));
    } else {
        execv(array[0], array);
    }
    if (errno == ENOENT) {
        NA_TRACE_MIN("File '%s' not found by execv().\n", array[0]);
    } else if (errno == EACCES) {
        NA_TRACE_MIN("Unable to access file '%s'.\n", array[0]);
    } else {
        NA_TRACE_MIN("Unexpected error invoking program, errno = %d.\n", errno);
    }
    _exit(RC_CANNOT_START);
}

}  // namespace

int32_t SpawnExternalProgram(const char* const argv[], SpawnInfo* info, bool redirect, bool quoteArgs, bool append,
                             const char* const envp[]) {
    NA_TRACE_ENTER("SpawnExternalProgram()");
    std::string command = psSpawnCommandText(argv, quoteArgs);
    const char* shellArgv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    std::vector<char*> array = localArgv(shellArgv, 0);
    if (redirect && info->outFile.empty()) info->outFile = psGetTempFileName();
    if (redirect && info->errFile.empty()) info->errFile = psGetTempFileName();
    int32_t rc = RC_OK;
    pid_t child = fork();
    if (child == 0) runShell(array.data(), *info, redirect, append, envp);
    if (child < 0) {
        NA_TRACE_MIN("fork() failed, errno: %d\n", errno);
        rc = RC_CANNOT_START;
    } else {
        NA_TRACE_MAX("fork() success, pid: %d\n", static_cast<int>(child));
        info->pid = child;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "SpawnExternalProgram()", rc);
    return rc;
}

namespace {

// Does nothing: its only purpose is to interrupt waitpid().
void onAlarm(int) {}

int32_t armAlarm(int32_t seconds, struct sigaction* oldAction) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = onAlarm;
    sigemptyset(&action.sa_mask);
    int32_t rc = RC_OK;
    if (sigaction(SIGALRM, &action, oldAction) != 0) {
        NA_TRACE_MIN("Error defining new signal action");
        rc = RC_WAIT_FAILED;
    } else {
        alarm(static_cast<unsigned>(seconds));
    }
    return rc;
}

void disarmAlarm(const struct sigaction* oldAction) {
    alarm(0);
    if (sigaction(SIGALRM, oldAction, nullptr) != 0) NA_TRACE_MIN("Error restoring old signal action");
}

// The child is reaped when it ends soon after the kill, so no zombie stays behind;
// one stuck in the kernel is left rather than waited for without limit.
void reapKilled(pid_t pid) {
    for (int i = 0; i < 100 && waitpid(pid, nullptr, WNOHANG) == 0; ++i) usleep(10000);
}

int32_t killChild(pid_t pid) {
    int32_t rc = RC_CHILD_KILLED;
    if (kill(pid, SIGKILL) == 0) {
        NA_TRACE_MID("SIGKILL sent\n");
        reapKilled(pid);
    } else {
        NA_TRACE_MIN("Failed to send SIGKILL.\n");
        rc = RC_NOT_RUN;
    }
    return rc;
}

int32_t exitCodeOf(int status) {
    int32_t code = (status >> 8) & 0xff;
    if (WIFSIGNALED(status)) code = WTERMSIG(status);
    return code;
}

}  // namespace

int32_t WaitForExternalProgram(SpawnInfo* info, int32_t* exitCode, int32_t timeoutSeconds) {
    NA_TRACE_ENTER("WaitForExternalProgram()");
    bool timed = timeoutSeconds > 0;
    struct sigaction oldAction;
    int32_t rc = timed ? armAlarm(timeoutSeconds, &oldAction) : RC_OK;
    int status = 0;
    pid_t got = rc == RC_OK ? waitpid(info->pid, &status, 0) : -1;
    int waitErrno = errno;
    if (timed && rc == RC_OK) disarmAlarm(&oldAction);
    if (rc == RC_OK && got < 0) {
        rc = timed && waitErrno == EINTR ? killChild(info->pid) : RC_WAIT_FAILED;
    } else if (rc == RC_OK) {
        *exitCode = exitCodeOf(status);
        NA_TRACE_MAX("exit code:%d\n", *exitCode);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "WaitForExternalProgram()", rc);
    return rc;
}

namespace {

struct ChildNode {
    int32_t pid;
    ChildNode* next;
};

ChildNode* gChildList = nullptr;
MutexHandle gChildMutex = nullptr;
std::once_flag gChildListOnce;

void createChildList() {
    std::call_once(gChildListOnce, [] {
        pkCreateMutex(&gChildMutex);
        gChildList = new ChildNode{-1, nullptr};
    });
}

void addChild(int32_t pid) {
    MutexLock lock(gChildMutex);
    ChildNode* last = gChildList;
    while (last->next) last = last->next;
    last->next = new ChildNode{pid, nullptr};
}

// A child that is no longer ours (ECHILD: reaped elsewhere) leaves the list as well.
void reapChildren() {
    MutexLock lock(gChildMutex);
    for (ChildNode* prev = gChildList; prev->next;) {
        ChildNode* node = prev->next;
        NA_TRACE_MAX("Waiting for pid %d\n", node->pid);
        pid_t got = waitpid(node->pid, nullptr, WNOHANG);
        if (got == node->pid || (got < 0 && errno == ECHILD)) {
            NA_TRACE_MAX("Pid %d finished\n", node->pid);
            prev->next = node->next;
            delete node;
        } else {
            prev = node;
        }
    }
}

}  // namespace

void WaitForChildProcesses(int32_t op, int32_t pid) {
    NA_TRACE(trFlags[TR_ENTER], "Enter: %s (%d, %d)\n", "WaitForChildProcesses", op, pid);
    createChildList();
    if (op == CHILD_LIST_ADD) addChild(pid);
    if (op == CHILD_LIST_REAP) reapChildren();
    NA_TRACE_EXIT("Exit: %s\n", "WaitForChildProcesses");
}

int32_t psChildCount() {
    createChildList();
    MutexLock lock(gChildMutex);
    int32_t count = 0;
    for (ChildNode* node = gChildList->next; node; node = node->next) ++count;
    return count;
}

namespace {

struct PipeCloser {
    void operator()(FILE* f) const { pclose(f); }
};

// The whole output of command, read in lines of up to 256 characters; false when
// the command cannot be started.
bool readCommand(const std::string& command, std::string* output) {
    std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "re"));
    char line[257];
    while (pipe && fgets(line, sizeof(line), pipe.get())) *output += line;
    return pipe != nullptr;
}

std::string lastWord(const std::string& text) {
    size_t end = text.find_last_not_of(" \t\r\n");
    if (end == std::string::npos) return std::string();
    size_t begin = text.find_last_of(" \t\r\n", end);
    begin = begin == std::string::npos ? 0 : begin + 1;
    return text.substr(begin, end - begin + 1);
}

}  // namespace

bool psIsProcessRunning(int32_t pid, const char* name) {
    NA_TRACE_ENTER("psIsProcessRunning()");
    std::string output;
    bool running = readCommand("ps -p " + std::to_string(pid), &output) &&
                   output.find(std::to_string(pid)) != std::string::npos;
    if (running && name && *name) {
        NA_TRACE_MAX("match process %s\n", name);
        running = lastWord(output) == name;
    }
    if (running) {
        NA_TRACE_MAX("process with pid: %d is running\n", pid);
    } else {
        NA_TRACE_MAX("process with pid: %d is not running\n", pid);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psIsProcessRunning()", running ? 1 : 0);
    return running;
}

namespace {

// Forks; the parent leaves at once with 0. Returns in the child, or -1 when fork fails.
int32_t forkAndLeave() {
    pid_t child = fork();
    if (child > 0) _exit(0);
    return child < 0 ? -1 : 0;
}

int32_t detachStreams() {
    int32_t rc = -1;
    for (int fd = 0; fd <= 2; ++fd) close(fd);
    if (open("/dev/null", O_RDONLY) < 0) {
        NA_TRACE_MIN("Cannot open(O_RDONLY) /dev/null: %s\n", strerror(errno));
    } else if (open("/dev/console", O_WRONLY) < 0) {
        NA_TRACE_MIN("Cannot open /dev/console: %s\n", strerror(errno));
    } else if (dup(STDOUT_FILENO) != STDERR_FILENO) {
        NA_TRACE_MIN("Cannot redirect stdout to /dev/console\n");
    } else {
        rc = 0;
    }
    return rc;
}

}  // namespace

int32_t psDaemonize() {
    NA_TRACE_ENTER("psDaemonize()");
    fflush(nullptr);  // what is buffered now would otherwise be written by every copy
    int32_t rc = forkAndLeave();
    if (rc != 0) NA_TRACE_MIN("Cannot create child  process: %s\n", strerror(errno));
    if (rc == 0 && setsid() < 0) {
        NA_TRACE_MIN("Cannot create session: %s\n", strerror(errno));
        rc = -1;
    }
    if (rc == 0) {
        rc = forkAndLeave();
        if (rc != 0) NA_TRACE_MIN("Cannot create child agent process: %s\n", strerror(errno));
    }
    if (rc == 0 && chdir("/") != 0) rc = -1;
    if (rc == 0) rc = detachStreams();
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psDaemonize()", rc);
    return rc;
}
