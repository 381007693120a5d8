// Output is captured through files rather than pipes, so the executor needs no
// threads or non-blocking reads: the shell appends into the files, and they are
// read back once the shell has finished.
#include "Common/CmdExecer.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/comutils.h"
#include "Common/unix/ScopedFd.h"
#include "Common/unix/psnautil.h"

namespace {

// A name holding a blank is quoted unless it already starts with its quote.
std::string quoteIfNeeded(const std::string& name) {
    if (name.find(' ') == std::string::npos || name.find('"') == 0) return name;
    return "\"" + name + "\"";
}

// Appends the whole file to text in chunks of at most 255 bytes. Each chunk is
// appended as a C string, so a zero byte in the output ends that chunk early.
void readCapture(const std::string& name, std::string* text) {
    ScopedFd fd(open(psUnquote(name).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.isOpen()) return;
    char buf[256];
    memset(buf, 0, sizeof(buf));
    while (true) {
        ssize_t got = read(fd.get(), buf, sizeof(buf) - 1);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        buf[got] = '\0';
        text->append(buf);
    }
}

// Raw system() status to the executor's result.
int32_t exitStatusOf(int raw) {
    if (raw == 127) return RC_NOT_RUN;
    if ((raw & 0x7f) == 0) return (raw >> 8) & 0xff;
    return raw;
}

}  // namespace

CmdExecer::CmdExecer(const std::vector<std::string>& cmdArgs, const std::string& outFileName,
                     const std::string& errFileName, bool noQuote) {
    NA_TRACE_ENTER("CmdExecer()");
    if (cmdArgs.empty()) {
        NA_TRACE_MIN("Nothing to execute; cmdArgs is empty.\n");
    } else {
        removeOutFile = outFileName.empty();
        outFile = quoteIfNeeded(removeOutFile ? psGetTempFileName() : outFileName);
        removeErrFile = errFileName.empty();
        errFile = quoteIfNeeded(removeErrFile ? psGetTempFileName() : errFileName);
        if (!noQuote) cmdLine = "\"";
        cmdLine += cmdArgs[0];
        if (!noQuote) cmdLine += "\"";
        for (size_t i = 1; i < cmdArgs.size(); ++i) cmdLine += " " + cmdArgs[i];
        cmdLine += " >>" + outFile + " 2>>" + errFile;
    }
    NA_TRACE_EXIT("Exit: %s, cmdLine: %s\n", "CmdExecer()", NA_STR(cmdLine));
}

CmdExecer::~CmdExecer() {
    // The names of an executor that never got arguments are empty; unlink fails quietly.
    if (removeOutFile) unlink(psUnquote(outFile).c_str());
    if (removeErrFile) unlink(psUnquote(errFile).c_str());
}

int32_t CmdExecer::runCommand() {
    NA_TRACE_ENTER("runCommand()");
    int32_t result = RC_NOT_RUN;
    if (cmdLine.empty()) {
        NA_TRACE_MIN("Nothing to execute.\n");
    } else {
        NA_TRACE_MAX("Executing command: %s\n", NA_STR(cmdLine));
        int raw = system(cmdLine.c_str());
        if (raw == -1) {
            int err = errno;
            NA_TRACE_MIN("system(%s) failed (errno = %d, %s)\n", NA_STR(cmdLine), err, strerror(err));
        } else {
            readCapture(outFile, &sysOut);
            if (!sysOut.empty()) NA_TRACE_MAX("sysOut: %s\n", NA_STR(sysOut));
            readCapture(errFile, &sysErr);
            if (!sysErr.empty()) NA_TRACE_MAX("sysErr: %s\n", NA_STR(sysErr));
            result = exitStatusOf(raw);
        }
    }
    NA_TRACE_EXIT("Exit: %s, result = %d\n", "runCommand()", result);
    return result;
}

std::string CmdExecer::getCommand() const {
    NA_TRACE_ENTER("getCommand()");
    NA_TRACE_EXIT("Exit: %s, cmdLine: %s\n", "getCommand()", NA_STR(cmdLine));
    return cmdLine;
}

bool CommandResult::notRun() const {
    return !created || rc == RC_NOT_RUN;
}

CommandResult runCommandWords(const std::vector<std::string>& words) {
    NA_TRACE_ENTER("runCommandWords()");
    CommandResult result;
    result.cmdLine = joinWords(words);
    std::unique_ptr<CmdExecer> exec(new (std::nothrow) CmdExecer(words));
    if (exec) {
        result.created = true;
        result.rc = exec->runCommand();
        result.cmdLine = exec->getCommand();
        result.out = exec->sysOut;
        result.err = exec->sysErr;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "runCommandWords()", result.rc);
    return result;
}

void reportNotRun(const std::string& cmdLine, const std::string& err, const char* where) {
    logMsg(activityLog, STA0356E, NA_STR(cmdLine));
    const std::string shown = err.empty() ? cmdLine : cmdLine + ": " + err;
    if (where) {
        NA_TRACE_MIN("%s: Execute command %s failed.\n", where, NA_STR(shown));
    } else {
        NA_TRACE_MIN("Execute command %s failed.\n", NA_STR(shown));
    }
}

void reportNotRun(const CommandResult& result, const char* where) {
    reportNotRun(result.cmdLine, result.err, where);
}
