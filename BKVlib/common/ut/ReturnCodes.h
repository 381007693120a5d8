// Every return code of the tool, the agent services and the runtime library, by name.
// Results are signed 32-bit; 0 is success everywhere.
#ifndef BKVLIB_COMMON_UT_RETURNCODES_H
#define BKVLIB_COMMON_UT_RETURNCODES_H

#include <cstdint>

// Success, shared by every layer.
constexpr int32_t RC_OK = 0;
// A command that could not be run at all (CmdExecer, SpawnExternalProgram kill failure).
constexpr int32_t RC_NOT_RUN = -1;

// Path planner tool and command line.
constexpr int32_t RC_OUT_OF_MEMORY = 1;       // start-up allocation failed
constexpr int32_t RC_TRACE_BEGIN_FAILED = 1;  // initTrace: tracing could not begin
constexpr int32_t RC_NO_COMMAND = 2;          // command keyword missing or unknown
constexpr int32_t RC_BAD_ARGS = 3;            // rejected argument or bad value
constexpr int32_t RC_UNKNOWN_SETTING = 5;     // multipathSetting outside 0..5
constexpr int32_t RC_MISSING_VALUE = 6;       // option value or request tokens missing
constexpr int32_t RC_CANCELLED = 8;           // rescan stopped, or rescan script not written
constexpr int32_t RC_TRACE_FAILED = 30;       // trace facility failed to start
constexpr int32_t RC_NO_INSTALL_DIR = 59;     // installation directory unknown
constexpr int32_t RC_CATALOG_FAILED = 72;     // message catalogue failed to start
constexpr int32_t RC_MESSAGES_FAILED = 1;     // initMessages: repository not started

// Agent common services.
constexpr int32_t RC_LOG_OPEN_FAILED = 9;     // activity log could not be opened
constexpr int32_t RC_LOG_CLOSE_FAILED = 10;   // activity log flush or close failed
constexpr int32_t RC_LOG_NO_NAME = 11;        // activity log name not defined
constexpr int32_t RC_FILE_OPEN_FAILED = 13;   // cuMsgOut: output file not opened
constexpr int32_t RC_LOCK_FAILED = 14;        // Filelock: lock file could not be opened or locked
constexpr int32_t RC_ALREADY_LOCKED = 15;     // Filelock: another process holds the lock
constexpr int32_t RC_READ_PID_FAILED = 17;    // Filelock::readProcessId: no process id read
constexpr int32_t RC_UNLOCK_FAILED = 16;      // Filelock::unlockFile
constexpr int32_t RC_WRITE_FAILED = 18;       // short write
constexpr int32_t RC_CHILD_FAILED = 21;       // status pipe said "2"
constexpr int32_t RC_CHILD_KILLED = 68;       // child killed after its time-out
constexpr int32_t RC_CANNOT_START = 71;       // program could not be started
constexpr int32_t RC_CHILD_UNKNOWN = 73;      // status pipe said something else
constexpr int32_t RC_WAIT_FAILED = 74;        // wait or signal set-up failed
constexpr int32_t RC_LOG_WRITE_FAILED = 621;  // a log line could not be written

// Multipath drivers.
constexpr int32_t RC_NO_MULTIPATH_DRIVER = 169;  // no driver found on the host
constexpr int32_t RC_ZPL_DEVICE_NOT_FOUND = 170; // vendor device unknown
constexpr int32_t RC_RECONFIG_NOT_RUN = 71;      // cfglundev could not be run
constexpr int32_t RC_SETTING_NOT_SUPPORTED = 172;
constexpr int32_t RC_DRIVER_CMD_FAILED = 173;
constexpr int32_t RC_PATHS_REFUSED = 174;     // offline refused: a map would lose its last usable path
constexpr int32_t RC_NO_MATCHING_PATH = 175;  // no adapter port, path or map matches the request

// Runtime library.
constexpr int32_t RC_NO_MEMORY = 102;
constexpr int32_t RC_MISSING_ARG = 109;
constexpr int32_t RC_COND_WAIT_FAILED = 131;
constexpr int32_t RC_TRACE_OPEN_FAILED = 426;
constexpr int32_t RC_NLS_INIT_FAILED = 610;
constexpr int32_t RC_CAT_NOT_OPENED = 2;      // openCat: no catalogue for that language
constexpr int32_t RC_MSG_NOT_FOUND = 611;     // message missing, corrupt, or no repository
constexpr int32_t RC_MUTEX_BUSY = 932;
constexpr int32_t RC_TRACE_DIR_UNUSABLE = 959;
constexpr int32_t RC_INSTR_OPEN_FAILED = 426;  // instrumentation report file not opened
constexpr int32_t RC_POOL_DAMAGED = -1;        // memory pool check found a broken header or link

#endif
