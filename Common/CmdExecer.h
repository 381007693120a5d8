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

#endif
