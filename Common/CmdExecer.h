// The one door to the shell: runs one command line through system(), with standard
// output and standard error redirected into files that are read back afterwards.
#ifndef COMMON_CMDEXECER_H
#define COMMON_CMDEXECER_H

#include <cstdint>
#include <string>
#include <vector>

class CmdExecer {
public:
    // cmdArgs[0] is the program (always quoted unless noQuote); the others are
    // already shell words. An empty outFile/errFile gets a fresh /tmp/hkaXXXXXX file
    // that this object deletes; a caller's file is appended to and left in place.
    CmdExecer(const std::vector<std::string>& cmdArgs, const std::string& outFile = std::string(),
              const std::string& errFile = std::string(), bool noQuote = false);
    ~CmdExecer();
    CmdExecer(const CmdExecer&) = delete;
    CmdExecer& operator=(const CmdExecer&) = delete;

    // The command's exit code (0..255); RC_NOT_RUN when nothing could run (empty
    // command, system() failed, raw status 127); the raw status after a signal.
    int32_t runCommand();
    // A copy of the complete command line, redirections included.
    std::string getCommand() const;

    std::string sysOut;  // filled by runCommand()
    std::string sysErr;  // filled by runCommand()

private:
    std::string cmdLine;
    std::string outFile;
    std::string errFile;
    bool removeOutFile = true;
    bool removeErrFile = true;
};

// What one run of an outside command left behind, as the drivers keep it.
struct CommandResult {
    bool created = false;  // an executor could be made
    int32_t rc = -1;       // CmdExecer's result; RC_NOT_RUN when the command could not run
    std::string cmdLine;   // the line as it ran (the bare words when no executor was made)
    std::string out;       // standard output
    std::string err;       // standard error

    // True when there was no executor or the command could not be run at all.
    bool notRun() const;
};

// Runs words through a CmdExecer. An executor that cannot be allocated leaves
// created false instead of throwing: the drivers report it as "could not run".
CommandResult runCommandWords(const std::vector<std::string>& words);

// The agent's "could not run" report: STA0356E with the command line in the
// activity log and "Execute command ... failed." in the trace (with what the
// command said on standard error, if anything), prefixed by where when given.
void reportNotRun(const std::string& cmdLine, const std::string& err = std::string(), const char* where = nullptr);
void reportNotRun(const CommandResult& result, const char* where = nullptr);

#endif
