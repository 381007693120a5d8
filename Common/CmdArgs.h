// The agent command-line record: a command keyword and "-option value" pairs, read
// left to right with a cursor against keyword tables whose handlers store values in
// the record. Parse mode 14 is the path planner's.
#ifndef COMMON_CMDARGS_H
#define COMMON_CMDARGS_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

class CmdArgs;

// Stores a keyword's value (null when missing) and returns RC_OK, RC_BAD_ARGS or
// RC_MISSING_VALUE.
typedef int32_t (*KeywordHandler)(const char* value, CmdArgs* args);

// One row of a keyword table; a table ends with a row whose keyword is null.
struct KeywordRow {
    const char* keyword;
    int32_t id;
    KeywordHandler handler;
    unsigned char takesValue;
};

// The agent's command keywords and general options, as data.
extern const KeywordRow kCommandKeywords[];
extern const KeywordRow kGeneralOptions[];
// The path planner's command table (the one row "version") and its option table.
extern const KeywordRow kPathPlannerCommands[];
extern const KeywordRow kPathPlannerOptions[];

constexpr uint32_t kParseModePathPlanner = 14;
constexpr int32_t kCommandVersion = 2;      // path-planner mode: "-version" led the line
constexpr int32_t kCommandMultipath = 1;    // path-planner mode: anything else
constexpr int32_t kJobTypeMultipath = 11;
// Permission matrix of the path-planner mode: command codes 0..2 by option ids 0..8.
constexpr int32_t kPathPlannerCommandRows = 3;
constexpr int32_t kPathPlannerOptionColumns = 9;
constexpr int32_t kOptionIdMultipath = 8;

// Bits of CmdArgs::logLimitsGiven: which log limits the command line carried.
constexpr uint32_t kGivenMaxLogSize = 1u << 0;
constexpr uint32_t kGivenMaxNumLogs = 1u << 1;
constexpr uint32_t kGivenMaxNumRuns = 1u << 2;
constexpr uint32_t kGivenMaxNumDays = 1u << 3;

class CmdArgs {
public:
    // argv must hold argc entries; it is borrowed for the record's lifetime.
    CmdArgs(int32_t argc, const char* const* argv, uint32_t parseMode);

    // RC_OK, RC_NO_COMMAND, RC_BAD_ARGS, RC_MISSING_VALUE or RC_NO_INSTALL_DIR.
    // On RC_BAD_ARGS currentArg holds the rejected argument; handlers that reject a
    // value also set errorText. Only fills the record: the run's files are named and
    // purged by settleRunFiles.
    int32_t parse();
    // The installation directory: the one given, else the platform's; may be empty.
    // Settles installDir, so it may be called before parse().
    std::string getInstallDir();
    // True when the permission matrix of the last parse allows optionId for commandCode.
    bool optionAllowed(int32_t commandCode, int32_t optionId) const;

    // Grammar state.
    uint32_t parseMode;
    int32_t argc;
    const char* const* argv;
    int32_t cursor = 1;
    int32_t commandCode = 0;
    std::string commandName;
    std::string currentArg;
    std::string errorText;
    std::string installDir;
    std::string installLoc;  // value of the general option "installLoc"
    // Rows by command code, permissionColumns bytes each; refilled by every parse.
    std::vector<unsigned char> permissions;
    int32_t permissionColumns = 0;

    // Values of the path-planner options.
    std::string debugMode;   // "MIN", "MID", "MAX"
    int32_t debugLevel = 0;  // 3, 2, 1
    int32_t maxLogSize = 0;  // KB; -1 when the value was missing
    int32_t maxNumLogs = 0;
    int32_t maxNumRuns = 0;
    int32_t maxNumDays = 0;
    uint32_t logLimitsGiven = 0;  // kGiven... bits
    std::string serverIp;
    std::string serverName;
    int32_t serverPort = 0;
    std::string multipathValue;                 // the raw request, unchanged
    std::vector<std::string> multipathOptions;  // its tokens

    std::string jobName;  // job-name part, "multipath" for the path planner

    // Files named by settleRunFiles (Common/RunFiles.h) after a successful parse.
    std::string logFileName;    // empty: the default activity log
    std::string traceFileName;  // empty: no trace
    std::string jobFileName;    // set when both run numbers are known
    int32_t jobRunNumber = -1;
    int32_t sidRunNumber = -1;
    time_t jobStartTime = -1;
    time_t jobEndTime = -1;
};

// Cuts a "multipath" value at ";" into args->multipathOptions (quotes removed per
// token) and keeps the raw value: RC_OK, or RC_MISSING_VALUE when value is null.
int32_t splitMultipathValue(const char* value, CmdArgs* args);

#endif
