// The files of one run, settled once the command line is parsed: the activity log's
// name (a numbered series when the line carries log limits, with old logs and
// traces purged), the trace beside it, and the job file name.
#ifndef COMMON_RUNFILES_H
#define COMMON_RUNFILES_H

class CmdArgs;

// Fills args->logFileName, traceFileName and jobFileName from a parsed record and
// purges the log directory's old series; works on disk, unlike CmdArgs::parse().
void settleRunFiles(CmdArgs* args);

#endif
