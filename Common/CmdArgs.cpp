#include "Common/CmdArgs.h"

#include <climits>
#include <cwctype>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/comutils.h"

namespace {

constexpr size_t kMaxKeywordChars = 2302;
constexpr int32_t kDefaultLogSizeKB = 1024;
constexpr int32_t kMaxServerPort = 65535;
// Command codes run to 47 and general option ids to 64.
constexpr int32_t kAgentCommandRows = 48;
constexpr int32_t kGeneralOptionColumns = 65;

// The job name of each job type the finishing step knows.
struct JobTypeName {
    int32_t jobType;
    const char* jobName;
};
constexpr JobTypeName kJobTypeNames[] = {
    {kJobTypeMultipath, "multipath"},
};

// Each byte is widened on its own rather than through the locale's multibyte
// conversion: keywords are ASCII, and an argument that is not valid in the
// current locale must still be compared (and rejected) instead of failing.
std::wstring widenUpper(const char* text) {
    std::wstring wide;
    for (const char* p = text; *p != '\0' && wide.size() < kMaxKeywordChars; ++p) {
        wide.push_back(static_cast<wchar_t>(std::towupper(static_cast<wint_t>(static_cast<unsigned char>(*p)))));
    }
    return wide;
}

bool keywordEquals(const char* text, const char* keyword) {
    return widenUpper(text) == widenUpper(keyword);
}

const KeywordRow* findKeyword(const KeywordRow* table, const char* text) {
    const KeywordRow* row = table;
    while (row->keyword != nullptr && !keywordEquals(text, row->keyword)) ++row;
    return row->keyword != nullptr ? row : nullptr;
}

// argv is not required to end in a null entry, so the end is found by count.
const char* argumentAt(const CmdArgs& args, int32_t index) {
    return index >= 0 && index < args.argc ? args.argv[index] : nullptr;
}

// Copies the argument at the cursor into currentArg and finds its row, if any.
const KeywordRow* readKeyword(const KeywordRow* table, CmdArgs* args) {
    const char* arg = argumentAt(*args, args->cursor);
    args->currentArg = arg != nullptr ? arg : "";
    return args->currentArg.empty() || args->currentArg[0] != '-'
               ? nullptr
               : findKeyword(table, args->currentArg.c_str() + 1);
}

// A flag row's handler sees the keyword argument itself; a value row's the next one.
int32_t callHandler(const KeywordRow* row, CmdArgs* args) {
    if (row->takesValue) ++args->cursor;
    const char* value = argumentAt(*args, args->cursor);
    return row->handler != nullptr ? row->handler(value, args) : RC_OK;
}

int32_t matchCommand(const KeywordRow* table, CmdArgs* args) {
    NA_TRACE_ENTER("matchCommand()");
    int32_t rc = RC_NO_COMMAND;
    const KeywordRow* row = readKeyword(table, args);
    if (row != nullptr) {
        rc = callHandler(row, args);
        ++args->cursor;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "matchCommand()", rc);
    return rc;
}

int32_t runOptionLoop(const KeywordRow* table, CmdArgs* args) {
    NA_TRACE_ENTER("runOptionLoop()");
    int32_t rc = RC_OK;
    bool matched = false;
    while (args->cursor < args->argc && rc == RC_OK) {
        const KeywordRow* row = readKeyword(table, args);
        if (row == nullptr || !args->optionAllowed(args->commandCode, row->id)) {
            rc = RC_BAD_ARGS;
        } else {
            matched = true;
            rc = callHandler(row, args);
        }
        if (rc == RC_OK) ++args->cursor;
    }
    if (!matched) rc = RC_BAD_ARGS;
    NA_TRACE_EXIT("Exit: %s, rc = %d, currentArg = %s\n", "runOptionLoop()", rc, NA_STR(args->currentArg));
    return rc;
}

void fillPermissions(CmdArgs* args) {
    args->permissions.clear();
    args->permissionColumns = 0;
    if (args->parseMode == kParseModePathPlanner) {
        args->permissionColumns = kPathPlannerOptionColumns;
        args->permissions.assign(kPathPlannerCommandRows * kPathPlannerOptionColumns, 1);
        // The request itself is only accepted when no "-version" led the line.
        for (int32_t code = 0; code < kPathPlannerCommandRows; ++code) {
            args->permissions[code * kPathPlannerOptionColumns + kOptionIdMultipath] = code == kCommandMultipath;
        }
    } else if (args->parseMode < kParseModePathPlanner) {
        args->permissionColumns = kGeneralOptionColumns;
        args->permissions.assign(kAgentCommandRows * kGeneralOptionColumns, 1);
    }
}

// Digits only, no sign, and it must fit: "-maxnumlogs 12abc" is a mistake to
// report, not a request for 12.
bool readDecimal(const char* text, int32_t* number) {
    int64_t value = 0;
    const char* p = text;
    for (; *p >= '0' && *p <= '9' && value <= INT32_MAX; ++p) value = value * 10 + (*p - '0');
    bool ok = p != text && *p == '\0' && value <= INT32_MAX;
    if (ok) *number = static_cast<int32_t>(value);
    return ok;
}

int32_t storeNumber(const char* value, const std::string& name, int32_t* field, CmdArgs* args) {
    NA_TRACE_ENTER("storeNumber()");
    int32_t rc = RC_OK;
    if (value == nullptr) {
        *field = -1;
        args->errorText = name + " not specified";
        rc = RC_MISSING_VALUE;
    } else if (!readDecimal(value, field)) {
        args->errorText = "Invalid " + name + " value";
        rc = RC_BAD_ARGS;
    }
    NA_TRACE_EXIT("Exit: %s, %s = %s, rc = %d\n", "storeNumber()", name.c_str(), NA_STR(value), rc);
    return rc;
}

int32_t storeText(const char* value, const std::string& name, std::string* field, CmdArgs* args) {
    NA_TRACE_ENTER("storeText()");
    int32_t rc = RC_OK;
    if (value == nullptr) {
        args->errorText = name + " not specified";
        rc = RC_MISSING_VALUE;
    } else {
        *field = value;
    }
    NA_TRACE_EXIT("Exit: %s, %s = %s, rc = %d\n", "storeText()", name.c_str(), NA_STR(value), rc);
    return rc;
}

int32_t storeLimit(const char* value, const char* name, int32_t* field, uint32_t givenBit, CmdArgs* args) {
    int32_t rc = storeNumber(value, name, field, args);
    if (rc == RC_OK) args->logLimitsGiven |= givenBit;
    return rc;
}

int32_t handleMaxLogSize(const char* value, CmdArgs* args) {
    int32_t rc = storeLimit(value, "maxLogSize", &args->maxLogSize, kGivenMaxLogSize, args);
    if (rc == RC_OK && args->maxLogSize == 0) args->maxLogSize = kDefaultLogSizeKB;
    return rc;
}

int32_t handleMaxNumLogs(const char* value, CmdArgs* args) {
    return storeLimit(value, "maxNumLogs", &args->maxNumLogs, kGivenMaxNumLogs, args);
}

int32_t handleMaxNumRuns(const char* value, CmdArgs* args) {
    return storeLimit(value, "maxNumRuns", &args->maxNumRuns, kGivenMaxNumRuns, args);
}

int32_t handleMaxNumDays(const char* value, CmdArgs* args) {
    return storeLimit(value, "maxNumDays", &args->maxNumDays, kGivenMaxNumDays, args);
}

int32_t handleServerPort(const char* value, CmdArgs* args) {
    int32_t rc = storeNumber(value, "ServerPort", &args->serverPort, args);
    if (rc == RC_OK && args->serverPort > kMaxServerPort) {
        args->errorText = "Invalid ServerPort value";
        rc = RC_BAD_ARGS;
    }
    return rc;
}

int32_t handleServerIp(const char* value, CmdArgs* args) {
    return storeText(value, "ServerIP", &args->serverIp, args);
}

int32_t handleServerName(const char* value, CmdArgs* args) {
    return storeText(value, "ServerName", &args->serverName, args);
}

int32_t handleInstallLoc(const char* value, CmdArgs* args) {
    return storeText(value, "installLoc", &args->installLoc, args);
}

int32_t handleJobName(const char* value, CmdArgs* args) {
    return storeText(value, "jobName", &args->jobName, args);
}

int32_t handleJobRunNumber(const char* value, CmdArgs* args) {
    return storeNumber(value, "jobRunNumber", &args->jobRunNumber, args);
}

int32_t handleSidRunNumber(const char* value, CmdArgs* args) {
    return storeNumber(value, "sidRunNumber", &args->sidRunNumber, args);
}

struct DebugModeRow {
    const char* mode;
    int32_t level;
};
constexpr DebugModeRow kDebugModes[] = {{"MIN", 3}, {"MID", 2}, {"MAX", 1}};

const DebugModeRow* findDebugMode(const char* value) {
    for (const DebugModeRow& row : kDebugModes) {
        if (keywordEquals(value, row.mode)) return &row;
    }
    return nullptr;
}

int32_t handleDebug(const char* value, CmdArgs* args) {
    NA_TRACE_ENTER("handleDebug()");
    int32_t rc = RC_OK;
    const DebugModeRow* row = value != nullptr ? findDebugMode(value) : nullptr;
    if (value == nullptr) {
        args->errorText = "Debug mode not specified";
        rc = RC_MISSING_VALUE;
    } else if (row == nullptr) {
        args->errorText = "Invalid debug mode";
        rc = RC_BAD_ARGS;
    } else {
        args->debugMode = row->mode;
        args->debugLevel = row->level;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "handleDebug()", rc);
    return rc;
}

int32_t handleVersion(const char*, CmdArgs* args) {
    args->commandName = "VERSION";
    args->commandCode = kCommandVersion;
    return RC_OK;
}

// One handler serves every agent command: the matched keyword is still in
// currentArg, and its row gives the code.
int32_t handleAgentCommand(const char*, CmdArgs* args) {
    const KeywordRow* row = findKeyword(kCommandKeywords, args->currentArg.c_str() + 1);
    args->commandCode = row->id;
    args->commandName = row->keyword;
    psToUpper(&args->commandName);
    return RC_OK;
}

std::string stripTokenQuotes(std::string token) {
    bool begins = !token.empty() && token.front() == '"';
    bool ends = !token.empty() && token.back() == '"';
    if (begins && ends && token.size() >= 2) {
        token = token.substr(1, token.size() - 2);
    } else if (begins) {
        token.erase(0, 1);
    } else if (ends) {
        token.pop_back();
    }
    return token;
}

void setJobName(CmdArgs* args, int32_t jobType) {
    for (const JobTypeName& row : kJobTypeNames) {
        if (row.jobType == jobType) args->jobName = row.jobName;
    }
}

int32_t parsePathPlanner(CmdArgs* args) {
    int32_t rc = RC_OK;
    if (args->cursor < args->argc && matchCommand(kPathPlannerCommands, args) != RC_OK) {
        args->commandCode = kCommandMultipath;
    }
    if (args->cursor < args->argc) rc = runOptionLoop(kPathPlannerOptions, args);
    if (rc == RC_OK && args->getInstallDir().empty()) {
        args->errorText = "Unable to determine install location\n";
        rc = RC_NO_INSTALL_DIR;
    }
    if (rc == RC_OK) setJobName(args, kJobTypeMultipath);
    return rc;
}

int32_t parseAgentCommand(CmdArgs* args) {
    int32_t rc = args->cursor < args->argc ? matchCommand(kCommandKeywords, args) : RC_NO_COMMAND;
    if (rc == RC_OK && args->cursor < args->argc) rc = runOptionLoop(kGeneralOptions, args);
    return rc;
}

}  // namespace

const KeywordRow kCommandKeywords[] = {
    {"copyfile", 1, handleAgentCommand, 1},          {"dbmonitor", 2, handleAgentCommand, 0},
    {"deletefile", 3, handleAgentCommand, 1},        {"encrypt", 4, handleAgentCommand, 1},
    {"exec", 5, handleAgentCommand, 1},              {"fabricdiscovery", 6, handleAgentCommand, 0},
    {"fabricprobe", 7, handleAgentCommand, 0},       {"getbinaryfile", 9, handleAgentCommand, 1},
    {"getfile", 10, handleAgentCommand, 1},          {"getjobstatus", 11, handleAgentCommand, 0},
    {"getrunningjobs", 12, handleAgentCommand, 0},   {"help", 13, handleAgentCommand, 0},
    {"install", 14, handleAgentCommand, 0},          {"mkdir", 15, handleAgentCommand, 1},
    {"notify", 16, handleAgentCommand, 1},           {"ping", 17, handleAgentCommand, 1},
    {"probe", 18, handleAgentCommand, 0},            {"rmdir", 19, handleAgentCommand, 1},
    {"runprogram", 21, handleAgentCommand, 1},       {"scan", 22, handleAgentCommand, 0},
    {"start", 23, handleAgentCommand, 0},            {"stop", 24, handleAgentCommand, 0},
    {"stopjob", 25, handleAgentCommand, 0},          {"testfile", 26, handleAgentCommand, 1},
    {"uninstall", 27, handleAgentCommand, 0},        {"unzip", 28, handleAgentCommand, 0},
    {"upgrade", 29, handleAgentCommand, 0},          {"version", 30, handleAgentCommand, 0},
    {"zip", 31, handleAgentCommand, 0},              {"getMonitoredDBs", 33, handleAgentCommand, 0},
    {"migrateConfig", 34, handleAgentCommand, 0},    {"migrateCheck", 35, handleAgentCommand, 0},
    {"bkv", 36, handleAgentCommand, 1},              {"sendMigrateStatus", 37, handleAgentCommand, 0},
    {"naimportquota", 39, handleAgentCommand, 0},    {"naresolveids", 40, handleAgentCommand, 0},
    {"discovery", 41, handleAgentCommand, 1},        {"pathPlanner", 42, handleAgentCommand, 0},
    {"getnlsfile", 43, handleAgentCommand, 1},       {"putnlsfile", 44, handleAgentCommand, 1},
    {"gettime", 45, handleAgentCommand, 0},          {"getguid", 46, handleAgentCommand, 0},
    {"getinstallloc", 47, handleAgentCommand, 0},    {nullptr, 0, nullptr, 0},
};

// Options without a handler are accepted and their values not kept.
const KeywordRow kGeneralOptions[] = {
    {"agentport", 0, nullptr, 1},        {"certfile", 1, nullptr, 1},
    {"commtype", 2, nullptr, 1},         {"daemon", 3, nullptr, 0},
    {"dbRegister", 4, nullptr, 1},       {"dbProbe", 5, nullptr, 1},
    {"dbScan", 6, nullptr, 1},           {"debug", 7, handleDebug, 1},
    {"debugfile", 8, nullptr, 1},        {"deleteprogram", 9, nullptr, 0},
    {"dpassword", 10, nullptr, 1},       {"duser", 11, nullptr, 1},
    {"exitcode", 12, nullptr, 1},        {"files", 13, nullptr, 1},
    {"force", 14, nullptr, 0},           {"hints", 15, nullptr, 1},
    {"installLoc", 16, handleInstallLoc, 1}, {"jobid", 17, nullptr, 1},
    {"jobname", 18, handleJobName, 1},   {"jobrunnumber", 19, handleJobRunNumber, 1},
    {"jobtype", 20, nullptr, 1},         {"maxlogsize", 21, handleMaxLogSize, 1},
    {"maxnumlogs", 22, handleMaxNumLogs, 1}, {"maxnumruns", 23, handleMaxNumRuns, 1},
    {"maxnumdays", 24, handleMaxNumDays, 1}, {"name", 25, nullptr, 1},
    {"naprobe", 26, nullptr, 0},         {"naprobeonly", 27, nullptr, 0},
    {"nfstimeout", 28, nullptr, 1},      {"nosancalls", 29, nullptr, 0},
    {"outputfile", 30, nullptr, 1},      {"packages", 31, nullptr, 1},
    // "passphrase" and "migration" share the id 32.
    {"passphrase", 32, nullptr, 1},      {"migration", 32, nullptr, 0},
    {"password", 33, nullptr, 1},        {"probe", 34, nullptr, 0},
    {"remote", 35, nullptr, 0},          {"serverip", 36, handleServerIp, 1},
    {"servername", 37, handleServerName, 1}, {"serverport", 38, handleServerPort, 1},
    {"sidrunnumber", 39, handleSidRunNumber, 1}, {"targetdir", 40, nullptr, 1},
    {"userid", 41, nullptr, 1},          {"command", 44, nullptr, 1},
    {"fabrics", 45, nullptr, 1},         {"jobtimestamp", 46, nullptr, 1},
    {"discoverrequestid", 47, nullptr, 1}, {"devicejobid", 48, nullptr, 1},
    {"scan", 49, nullptr, 0},            {"jobstarttimestamp", 50, nullptr, 1},
    {"jobendtimestamp", 51, nullptr, 1}, {"migrationConfigFile", 52, nullptr, 1},
    {"user", 53, nullptr, 1},            {"domain", 54, nullptr, 1},
    {"passwd", 55, nullptr, 1},          {"migrationOptions", 56, nullptr, 1},
    {"uselog", 57, nullptr, 1},          {"multipath", 58, splitMultipathValue, 1},
    {"initialFsScan", 59, nullptr, 0},   {"jobargs", 60, nullptr, 1},
    {"fromScan", 61, nullptr, 0},        {"savenonroot", 62, nullptr, 0},
    {"skipautofs", 63, nullptr, 0},      {"togglecode", 64, nullptr, 0},
    {nullptr, 0, nullptr, 0},
};

const KeywordRow kPathPlannerCommands[] = {
    {"version", kCommandVersion, handleVersion, 0},
    {nullptr, 0, nullptr, 0},
};

const KeywordRow kPathPlannerOptions[] = {
    {"debug", 0, handleDebug, 1},
    {"maxlogsize", 1, handleMaxLogSize, 1},
    {"maxnumlogs", 2, handleMaxNumLogs, 1},
    {"maxnumruns", 3, handleMaxNumRuns, 1},
    {"maxnumdays", 4, handleMaxNumDays, 1},
    {"serverip", 5, handleServerIp, 1},
    {"servername", 6, handleServerName, 1},
    {"serverport", 7, handleServerPort, 1},
    {"multipath", kOptionIdMultipath, splitMultipathValue, 1},
    {nullptr, 0, nullptr, 0},
};

CmdArgs::CmdArgs(int32_t argCount, const char* const* argVector, uint32_t mode)
    : parseMode(mode), argc(argCount), argv(argVector) {}

int32_t CmdArgs::parse() {
    NA_TRACE_ENTER("CmdArgs::parse()");
    int32_t rc = RC_OK;
    fillPermissions(this);
    if (parseMode == kParseModePathPlanner) {
        rc = parsePathPlanner(this);
    } else if (parseMode < kParseModePathPlanner) {
        rc = parseAgentCommand(this);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "CmdArgs::parse()", rc);
    return rc;
}

std::string CmdArgs::getInstallDir() {
    NA_TRACE_ENTER("CmdArgs::getInstallDir()");
    if (installDir.empty()) installDir = installLoc;
    if (installDir.empty()) installDir = getInstallLocation();
    NA_TRACE_EXIT("Exit: %s, installDir = %s\n", "CmdArgs::getInstallDir()", NA_STR(installDir));
    return installDir;
}

bool CmdArgs::optionAllowed(int32_t code, int32_t optionId) const {
    if (code < 0 || optionId < 0 || optionId >= permissionColumns) return false;
    size_t index = static_cast<size_t>(code) * static_cast<size_t>(permissionColumns) + static_cast<size_t>(optionId);
    return index < permissions.size() && permissions[index] != 0;
}

int32_t splitMultipathValue(const char* value, CmdArgs* args) {
    NA_TRACE_ENTER("splitMultipathValue()");
    int32_t rc = RC_OK;
    if (value == nullptr) {
        args->errorText = "Multipath options list is missing.";
        rc = RC_MISSING_VALUE;
    } else {
        args->multipathValue = value;
        std::string::size_type start = 0;
        std::string::size_type semicolon = 0;
        // The text after the last ";" is always a token, even when empty.
        do {
            semicolon = args->multipathValue.find(';', start);
            args->multipathOptions.push_back(stripTokenQuotes(args->multipathValue.substr(start, semicolon - start)));
            start = semicolon + 1;
        } while (semicolon != std::string::npos);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "splitMultipathValue()", rc);
    return rc;
}
