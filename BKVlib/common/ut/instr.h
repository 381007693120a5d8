// Instrumentation: where each thread spends its time. Code brackets its work with
// named categories; every thread keeps a stack of open categories, and the time
// between two of its events is charged to the category on top of its stack.
// instrStop writes a per-thread report into "kfwinstr.report.p<pid>".
// The instrumentation mutex guards starting, stopping, registration and the report;
// a category event takes only the calling thread's own record lock.
#ifndef BKVLIB_COMMON_UT_INSTR_H
#define BKVLIB_COMMON_UT_INSTR_H

#include <cstdint>
#include <string>

enum InstrCategory : uint16_t {
    INSTR_OTHER,  // the default, open at the bottom of every stack
    INSTR_QUERY_SERVER_FILES,
    INSTR_QUERY_SERVER_DIRS,
    INSTR_PROCESS_DIRS,
    INSTR_CACHE_EXAMINE,
    INSTR_SOLVE_TREE,
    INSTR_COMPUTE,
    INSTR_BEGINTXN_VERB,
    INSTR_TRANSACTION,
    INSTR_FILE_IO,
    INSTR_COMPRESSION,
    INSTR_ENCRYPTION,
    INSTR_CRC,
    INSTR_DELTA,
    INSTR_DATA_VERB,
    INSTR_CONFIRM_VERB,
    INSTR_ENDTXN_VERB,
    INSTR_SLEEP,
    INSTR_THREAD_WAIT,
    INSTR_DB_QUERY,
    INSTR_DB_INS_UPDATE,
    INSTR_DB_DELETE,
    INSTR_DB_TREEWALK,
    INSTR_DB_TREEWALK_CALLBACK,
    INSTR_WAITING_ON_APP,
    INSTR_API_SEND_DATA,
    INSTR_API_QUERY,
    INSTR_API_GET_DATA,
    INSTR_API_END_TXN,
    INSTR_API_MISC,
    INSTR_CATEGORY_COUNT
};

// Instrumentation classes (bits): "Client detail" and "DB Operations" ("DBOPS").
constexpr uint16_t INSTR_CLIENT_DETAIL = 0x0001;
constexpr uint16_t INSTR_DB_OPS = 0x0002;

// instrInit option bit: trace every category event (with the INSTRUMENT trace class on).
constexpr int32_t INSTR_OPT_DETAIL = 0x0001;

// Deepest category stack of a thread, "Other" included.
constexpr int32_t INSTR_STACK_DEPTH = 32;

// Opens the report file beside path (its directory part) for appending and allows
// the given classes. RC_OK, or RC_INSTR_OPEN_FAILED with library message 283 issued;
// the engine then runs without writing reports. Drops every thread record, so no
// instrumented thread may be running. Installs instrRegisterThread as the thread
// layer's registration hook.
int32_t instrInit(const char* path, uint16_t classes, int32_t option);
// Starts the allowed ones of instrClass and registers the calling thread.
void instrStart(uint16_t instrClass);
// Writes the report of each started class in instrClass and stops it.
void instrStop(uint16_t instrClass);
// Closes the report file and drops every thread record (no instrumented thread may run).
void instrTerminate();

// Registers the calling thread (the thread layer calls this for every thread it starts).
// Category events register an unknown thread themselves.
void instrRegisterThread();

// Category events of the calling thread; ignored unless the category's class is started.
// A begin on a full stack, or an end of a category that is not on top, suspends the
// engine and is reported in the report file.
void instrBegin(InstrCategory category);  // push, suspending the current category
void instrEnd(InstrCategory category);    // pop, resuming the one below
void instrReplace(InstrCategory category);  // swap the category on top
// A comment line written with the calling thread's report.
void instrComment(const char* text);

const char* instrCategoryName(InstrCategory category);
// "<directory part of path>kfwinstr.report.p<pid>"
std::string instrReportFileName(const char* path, int32_t pid);

#endif
