// Thread records live until instrInit or instrTerminate, never shorter: a thread
// may be in the middle of an event when the report is written, so the report
// locks each record rather than freeing or replacing it. A new report (the first
// class started) resets the records in place.
#include "BKVlib/common/ut/instr.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "BKVlib/common/nls/amsglog.h"
#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"
#include "BKVlib/common/unx/psthread.h"

namespace {

typedef std::chrono::steady_clock Clock;

const char* const kCategoryNames[INSTR_CATEGORY_COUNT] = {
    "Other", "Query Server Files", "Query Server Dirs", "Process Dirs", "Cache Examine", "Solve Tree", "Compute",
    "BeginTxn Verb", "Transaction", "File I/O", "Compression", "Encryption", "CRC", "Delta", "Data Verb",
    "Confirm Verb", "EndTxn Verb", "Sleep", "Thread Wait", "DB Query", "DB Ins/Update", "DB Delete", "DB Treewalk",
    "DB Treewalk Callback", "Waiting on App", "API Send Data", "API Query", "API Get Data", "API End Txn",
    "API Misc"};

// Each contiguous range of categories belongs to one class.
const struct {
    uint16_t instrClass;
    InstrCategory first;
    InstrCategory last;
} kClassRanges[] = {
    {INSTR_CLIENT_DETAIL, INSTR_OTHER, INSTR_THREAD_WAIT},
    {INSTR_DB_OPS, INSTR_DB_QUERY, INSTR_DB_TREEWALK_CALLBACK},
    {INSTR_CLIENT_DETAIL, INSTR_WAITING_ON_APP, INSTR_API_MISC},
};

const struct {
    uint16_t instrClass;
    const char* name;
} kClassNames[] = {{INSTR_CLIENT_DETAIL, "Client detail"}, {INSTR_DB_OPS, "DB Operations"}};

enum class Completion { Success, StackOverflow, InvalidEnd };

const char* completionText(Completion status) {
    switch (status) {
        case Completion::Success:
            return "Success";
        case Completion::StackOverflow:
            return "Stack overflow";
        case Completion::InvalidEnd:
            return "Invalid category end call";
    }
    return "Unknown error";
}

constexpr size_t kCommentGrowth = 100;

struct ThreadRecord {
    int tid = 0;
    MutexHandle mutex = nullptr;
    uint16_t classes = 0;  // written by the owning thread only, read under both locks
    InstrCategory stack[INSTR_STACK_DEPTH] = {};
    int32_t depth = 0;
    double seconds[INSTR_CATEGORY_COUNT] = {};
    uint32_t uses[INSTR_CATEGORY_COUNT] = {};
    bool activity = false;
    Completion status = Completion::Success;
    Clock::time_point started;
    Clock::time_point lastEvent;
    std::vector<std::string> comments;

    ThreadRecord() { pkCreateMutex(&mutex); }
    ~ThreadRecord() { pkDestroyMutex(&mutex); }
    ThreadRecord(const ThreadRecord&) = delete;
    ThreadRecord& operator=(const ThreadRecord&) = delete;

    void reset(Clock::time_point now) {
        std::fill(std::begin(seconds), std::end(seconds), 0.0);
        std::fill(std::begin(uses), std::end(uses), 0u);
        stack[0] = INSTR_OTHER;
        depth = 1;
        uses[INSTR_OTHER] = 1;
        activity = false;
        status = Completion::Success;
        started = lastEvent = now;
        comments.clear();
    }
    // The time since the last event goes to the category on top.
    void charge(Clock::time_point now) {
        seconds[stack[depth - 1]] += std::chrono::duration<double>(now - lastEvent).count();
        lastEvent = now;
    }
};

struct InstrObject {
    MutexHandle mutex = nullptr;
    uint16_t classes = 0;
    std::atomic<uint16_t> active{0};
    std::atomic<bool> suspended{false};
    std::atomic<bool> detailed{false};
    std::atomic<unsigned> generation{1};
    FILE* reportFile = nullptr;
    time_t startTime = 0;
    Clock::time_point highResStart;
    uint16_t categoryClass[INSTR_CATEGORY_COUNT] = {};
    InstrCategory sorted[INSTR_CATEGORY_COUNT] = {};
    std::vector<std::unique_ptr<ThreadRecord>> threads;
    InstrObject() { pkCreateMutex(&mutex); }
};

InstrObject& instrObj() {
    static InstrObject obj;
    return obj;
}

// The calling thread's record of the current generation.
struct ThreadSlot {
    unsigned generation = 0;
    ThreadRecord* record = nullptr;
};
thread_local ThreadSlot tlsSlot;

int currentTid() {
    return static_cast<int>(syscall(SYS_gettid));
}

const char* className(uint16_t instrClass) {
    for (const auto& row : kClassNames) {
        if (row.instrClass == instrClass) return row.name;
    }
    return "Unknown";
}

void fillCategoryTables(InstrObject& obj) {
    for (const auto& range : kClassRanges) {
        for (int c = range.first; c <= range.last; ++c) obj.categoryClass[c] = range.instrClass;
    }
    for (int c = 0; c < INSTR_CATEGORY_COUNT; ++c) obj.sorted[c] = static_cast<InstrCategory>(c);
    std::sort(std::begin(obj.sorted), std::end(obj.sorted), [](InstrCategory a, InstrCategory b) {
        return strcmp(kCategoryNames[a], kCategoryNames[b]) < 0;
    });
}

// With the instrumentation mutex held.
void dropRecords(InstrObject& obj) {
    obj.threads.clear();
    ++obj.generation;
    if (obj.reportFile) fclose(obj.reportFile);
    obj.reportFile = nullptr;
}

// With the instrumentation mutex held: the caller's record, made on first use.
ThreadRecord* registerLocked(InstrObject& obj, uint16_t classes) {
    if (tlsSlot.generation != obj.generation || !tlsSlot.record) {
        auto record = std::make_unique<ThreadRecord>();
        record->tid = currentTid();
        record->reset(Clock::now());
        tlsSlot.record = record.get();
        tlsSlot.generation = obj.generation;
        obj.threads.push_back(std::move(record));
    }
    tlsSlot.record->classes |= classes;
    return tlsSlot.record;
}

ThreadRecord* currentRecord() {
    InstrObject& obj = instrObj();
    ThreadRecord* record = tlsSlot.generation == obj.generation ? tlsSlot.record : nullptr;
    if (!record) {
        MutexLock lock(obj.mutex);
        record = registerLocked(obj, obj.active);
    }
    return record;
}

__attribute__((format(printf, 2, 3))) void writeReport(InstrObject& obj, const char* format, ...) {
    if (!obj.reportFile) return;
    va_list args;
    va_start(args, format);
    vfprintf(obj.reportFile, format, args);
    va_end(args);
}

// Stops category processing and records why in the report file.
void suspendEngine(const std::string& text) {
    InstrObject& obj = instrObj();
    obj.suspended = true;
    MutexLock lock(obj.mutex);
    writeReport(obj, "%s", text.c_str());
    TR_PRINTF(TR_INSTRUMENT, "%s", text.c_str());
}

void traceEvent(int tid, const char* what, const char* category, const char* other) {
    if (!instrObj().detailed || !trFlags[TR_INSTRUMENT]) return;
    auto now = std::chrono::system_clock::now();
    time_t seconds = std::chrono::system_clock::to_time_t(now);
    unsigned long millis = static_cast<unsigned long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    struct tm local;
    localtime_r(&seconds, &local);
    char date[16];
    char time[16];
    strftime(date, sizeof(date), "%m/%d/%Y", &local);
    strftime(time, sizeof(time), "%H:%M:%S", &local);
    if (strcmp(what, "Begin") == 0) {
        TR_PRINTF(TR_INSTRUMENT, "%s %s.%03lu TID: %d, Begin: %s, Suspend: %s\n", date, time, millis, tid, category, other);
    } else if (strcmp(what, "End") == 0) {
        TR_PRINTF(TR_INSTRUMENT, "%s %s.%03lu TID: %d, End: %s, Resume: %s\n", date, time, millis, tid, category, other);
    } else {
        TR_PRINTF(TR_INSTRUMENT, "%s %s.%03lu TID: %d, Replace: %s, With: %s\n", date, time, millis, tid, other,
                  category);
    }
}

// The record of the calling thread when category is to be counted now, else null.
ThreadRecord* recordFor(InstrCategory category) {
    InstrObject& obj = instrObj();
    bool counted = category < INSTR_CATEGORY_COUNT && !obj.suspended &&
                   (obj.active.load() & obj.categoryClass[category]) != 0;
    return counted ? currentRecord() : nullptr;
}

std::string formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formatText(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

// Every thread the thread layer starts is registered before its start function runs.
void registerStartedThread(int32_t) {
    instrRegisterThread();
}

}  // namespace

const char* instrCategoryName(InstrCategory category) {
    return category < INSTR_CATEGORY_COUNT ? kCategoryNames[category] : "Unknown";
}

std::string instrReportFileName(const char* path, int32_t pid) {
    std::string given = path ? path : "";
    size_t slash = given.rfind('/');
    std::string directory = slash == std::string::npos ? std::string() : given.substr(0, slash + 1);
    return directory + "kfwinstr.report" + ".p" + std::to_string(pid);
}

int32_t instrInit(const char* path, uint16_t classes, int32_t option) {
    TR_PRINTF(TR_INSTRUMENT, "instrInit ENTRY\n");
    InstrObject& obj = instrObj();
    std::string name = instrReportFileName(path, static_cast<int32_t>(getpid()));
    TR_PRINTF(TR_INSTRUMENT, "File name: '%s', instrumentaion class: %d\n", name.c_str(), classes);
    MutexLock lock(obj.mutex);
    dropRecords(obj);
    int32_t rc = RC_OK;
    obj.reportFile = fopen(name.c_str(), "ae");
    if (!obj.reportFile) {
        nlIssue(283, NL_SEVERITY | NL_ERRORLOG, "Instrumentation", name.c_str(), strerror(errno));
        rc = RC_INSTR_OPEN_FAILED;
    } else {
        setvbuf(obj.reportFile, nullptr, _IONBF, 0);
    }
    fillCategoryTables(obj);
    obj.classes = classes;
    obj.active = 0;
    obj.suspended = false;
    obj.detailed = (option & INSTR_OPT_DETAIL) != 0;
    psSetThreadRegisterHook(registerStartedThread);
    TR_PRINTF(TR_INSTRUMENT, "instrInit EXIT\n");
    return rc;
}

void instrTerminate() {
    InstrObject& obj = instrObj();
    psSetThreadRegisterHook(nullptr);
    MutexLock lock(obj.mutex);
    dropRecords(obj);
    obj.active = 0;
    obj.classes = 0;
}

namespace {

// With the instrumentation mutex held: the banner and fresh records of a new report.
void commenceReport(InstrObject& obj) {
    obj.startTime = time(nullptr);
    obj.highResStart = Clock::now();
    obj.suspended = false;
    writeReport(obj, "\n\n=======================> C O M M E N C E  N E W  R E P O R T <=======================\n");
    writeReport(obj, "=======================> C O M M E N C E  N E W  R E P O R T <=======================\n\n");
    for (auto& record : obj.threads) {
        MutexLock recordLock(record->mutex);
        record->reset(obj.highResStart);
    }
}

}  // namespace

void instrStart(uint16_t instrClass) {
    TR_PRINTF(TR_INSTRUMENT, "instrStart ENTRY: Class=%#x\n", instrClass);
    InstrObject& obj = instrObj();
    MutexLock lock(obj.mutex);
    uint16_t allowed = instrClass & obj.classes;
    if (allowed) {
        if (obj.active == 0) commenceReport(obj);
        obj.active |= allowed;
        registerLocked(obj, allowed);
        TR_PRINTF(TR_INSTRUMENT, "Started instrumentation for classes %d\n", obj.active.load());
    }
    TR_PRINTF(TR_INSTRUMENT, "instrStart EXIT\n");
}

void instrRegisterThread() {
    InstrObject& obj = instrObj();
    MutexLock lock(obj.mutex);
    registerLocked(obj, obj.active);
}

void instrBegin(InstrCategory category) {
    ThreadRecord* r = recordFor(category);
    std::string error;
    if (r) {
        MutexLock lock(r->mutex);
        r->charge(Clock::now());
        if (r->depth == INSTR_STACK_DEPTH) {
            r->status = Completion::StackOverflow;
            r->activity = true;
            error = formatText("ERROR: Stack overflow detected, Thread: %d, category being entered: %s\n"
                               "Instrumentation engine suspends operation.\n",
                               r->tid, kCategoryNames[category]);
        } else {
            traceEvent(r->tid, "Begin", kCategoryNames[category], kCategoryNames[r->stack[r->depth - 1]]);
            r->stack[r->depth++] = category;
            ++r->uses[category];
            r->classes |= instrObj().categoryClass[category];
            r->activity = true;
        }
    }
    if (!error.empty()) suspendEngine(error);
}

void instrEnd(InstrCategory category) {
    ThreadRecord* r = recordFor(category);
    std::string error;
    if (r) {
        MutexLock lock(r->mutex);
        r->charge(Clock::now());
        InstrCategory top = r->stack[r->depth - 1];
        if (r->depth <= 1 || top != category) {
            r->status = Completion::InvalidEnd;
            r->activity = true;  // so that the report shows how the thread ended
            error = formatText("ERROR: Invalid category detected, Thread: %d, category being ended: %s\n"
                               "Current category is: %s\nInstrumentation engine suspends operation.\n",
                               r->tid, kCategoryNames[category], kCategoryNames[top]);
        } else {
            --r->depth;
            traceEvent(r->tid, "End", kCategoryNames[category], kCategoryNames[r->stack[r->depth - 1]]);
        }
    }
    if (!error.empty()) suspendEngine(error);
}

void instrReplace(InstrCategory category) {
    ThreadRecord* r = recordFor(category);
    if (r) {
        MutexLock lock(r->mutex);
        r->charge(Clock::now());
        InstrCategory& top = r->stack[r->depth - 1];
        traceEvent(r->tid, "Replace", kCategoryNames[category], kCategoryNames[top]);
        top = category;
        ++r->uses[category];
        r->classes |= instrObj().categoryClass[category];
        r->activity = true;
    }
}

void instrComment(const char* text) {
    ThreadRecord* r = text && instrObj().active ? currentRecord() : nullptr;
    if (r) {
        MutexLock lock(r->mutex);
        if (r->comments.size() == r->comments.capacity()) r->comments.reserve(r->comments.size() + kCommentGrowth);
        r->comments.push_back(text);
    }
}

namespace {

// With both the instrumentation mutex and the record's lock held.
void writeThreadStatistics(InstrObject& obj, ThreadRecord& r, uint16_t instrClass, const char* date) {
    double elapsed = std::chrono::duration<double>(r.lastEvent - r.started).count();
    writeReport(obj, "Completion status: %s\n", completionText(r.status));
    writeReport(obj, "BKV Client final instrumentation statistics: %s\nInstrumentation class: %s\n", date,
                className(instrClass));
    writeReport(obj, "\nDetailed Instrumentation statistics for\n\nThread: %d  Elapsed time = %9.3f sec\n", r.tid,
                elapsed);
    writeReport(obj, "\nSection                  Actual(sec)\t\tAverage(msec)\tFrequency used\n");
    for (InstrCategory c : obj.sorted) {
        if (obj.categoryClass[c] != instrClass || r.uses[c] == 0) continue;
        writeReport(obj, "%-25s%9.3f\t%9.1f\t\t\t%9u\n", kCategoryNames[c], r.seconds[c],
                    r.seconds[c] * 1000.0 / r.uses[c], r.uses[c]);
    }
    for (const std::string& comment : r.comments) writeReport(obj, "%s\n", comment.c_str());
    writeReport(obj, "\n------------------------------------------------------------------\n");
}

// With the instrumentation mutex held.
void writeClassReport(InstrObject& obj, uint16_t instrClass) {
    char date[32];
    struct tm local;
    localtime_r(&obj.startTime, &local);
    strftime(date, sizeof(date), "%m/%d/%Y %H:%M:%S", &local);
    for (auto& record : obj.threads) {
        MutexLock recordLock(record->mutex);
        ThreadRecord& r = *record;
        r.charge(Clock::now());
        if (r.classes == 0) {
            writeReport(obj, "No instrumented class associated with thread %d\n", r.tid);
        } else if ((r.classes & instrClass) == 0) {
            continue;
        } else if (!r.activity) {
            writeReport(obj, "No instrumented activity reported for thread %d\n", r.tid);
        } else {
            writeThreadStatistics(obj, r, instrClass, date);
        }
    }
}

}  // namespace

void instrStop(uint16_t instrClass) {
    TR_PRINTF(TR_INSTRUMENT, "instrStop ENTRY: Class=%#x\n", instrClass);
    InstrObject& obj = instrObj();
    MutexLock lock(obj.mutex);
    TR_PRINTF(TR_INSTRUMENT, "instrObj.active=%#x instrObj.classes=%#x\n", obj.active.load(), obj.classes);
    for (const auto& row : kClassNames) {
        if ((row.instrClass & instrClass & obj.active) == 0) continue;
        writeClassReport(obj, row.instrClass);
        obj.active &= static_cast<uint16_t>(~row.instrClass);
    }
    TR_PRINTF(TR_INSTRUMENT, "Finished writing the instrumentation report\n");
    TR_PRINTF(TR_INSTRUMENT, "instrStop EXIT\n");
}
