// Job files: the record of one agent job that the scheduling agent reads, created at
// the start of the action and completed at its end. Failures are traced, never fatal.
#ifndef COMMON_JOBFILE_H
#define COMMON_JOBFILE_H

#include <cstdint>
#include <string>

class CmdArgs;

// The job file of a job: dir + "/" + jobName + "_" + jobRun + "_" + sidRun + ".jobinfo".
std::string buildJobFileName(const std::string& dir, const std::string& jobName, int32_t jobRun,
                             int32_t sidRun);

// Creates the job file in dir (the name comes from the record's job name and run
// numbers, or random run numbers when they are missing); returns its path, or empty
// when no file could be made. An existing file is left untouched.
std::string createJobFile(const std::string& dir, CmdArgs& cmdArgs, bool scheduled);
// Appends the end fields (hints only when not empty) with the current time.
void updateJobFile(const std::string& jobFile, int32_t exitCode);
void updateJobFile(const std::string& jobFile, int32_t exitCode, const std::string& hints);
// Appends two texts as they stand, with the same existence check.
void updateJobFile(const std::string& jobFile, const std::string& first, const std::string& second);

#endif
