// Set-up side of the trace facility: the state record, the class flags and their
// lists. Destinations are in trdest.cpp, reports in trquery.cpp.
#include "BKVlib/common/ut/trace.h"

#include <cctype>
#include <cstdio>
#include <string>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trstate.h"

TraceState trState;

namespace {

constexpr int kMaxAggregateDepth = 16;

std::string upperWord(const std::string& word) {
    std::string upper = word;
    for (char& c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return upper;
}

const TraceAggregate* findAggregate(const TraceAggregate* table, const std::string& word) {
    for (const TraceAggregate* row = table; row && row->name; ++row) {
        if (word == row->name) return row;
    }
    return nullptr;
}

const TraceClass* findClass(const TraceClass* table, const std::string& word) {
    for (const TraceClass* row = table; row && row->name; ++row) {
        if (word == row->name) return row;
    }
    return nullptr;
}

void setAll(const TraceClass* table, unsigned char value) {
    for (const TraceClass* row = table; row && row->name; ++row) {
        if (row->flag != &trFlags[TR_TIMESTAMP] && row->flag != &trFlags[TR_PREFIX]) *row->flag = value;
    }
}

int32_t applyList(const char* text, bool enables, int32_t quiet, const TraceClass* classes,
                  const TraceAggregate* aggregates, int depth);

bool isNegated(const std::string& given) { return !given.empty() && given[0] == '-'; }

// The name a word looks up and is reported by: upper-cased, without its negation.
std::string flagName(const std::string& given) { return upperWord(isNegated(given) ? given.substr(1) : given); }

// One word of a flag list; false for an unknown word.
bool applyWord(const std::string& given, bool enables, int32_t quiet, const TraceClass* classes,
               const TraceAggregate* aggregates, int depth) {
    std::string word = flagName(given);
    bool negated = isNegated(given);
    unsigned char value = (enables && !negated) ? 1 : 0;
    const TraceAggregate* aggregate = findAggregate(aggregates, word);
    const TraceClass* row = findClass(classes, word);
    bool known = true;
    if (word == "ALL") {
        setAll(classes, value);
    } else if (aggregate && depth < kMaxAggregateDepth) {
        // A negated aggregate switches every member off, even members it negates itself.
        known = applyList(aggregate->members, enables && !negated, quiet, classes, aggregates, depth + 1) == 0;
    } else if (row) {
        *row->flag = value;
    } else {
        known = false;
    }
    return known;
}

int32_t applyList(const char* text, bool enables, int32_t quiet, const TraceClass* classes,
                  const TraceAggregate* aggregates, int depth) {
    std::string list = text ? text : "";
    const char* blanks = " \t\r\n";
    size_t pos = list.find_first_not_of(blanks);
    int32_t rc = 0;
    while (rc == 0 && pos != std::string::npos) {
        size_t end = list.find_first_of(blanks, pos);
        std::string word = list.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        if (!applyWord(word, enables, quiet, classes, aggregates, depth)) {
            if (!quiet && depth == 0) printf("Invalid trace flag: %s\n", flagName(word).c_str());
            rc = -1;
        }
        pos = end == std::string::npos ? end : list.find_first_not_of(blanks, end);
    }
    return rc;
}

int32_t firstMarkedOn(const TraceClass* classes) {
    for (const TraceClass* row = classes; row && row->name; ++row) {
        if (row->mark == 1 && *row->flag) return 1;
    }
    return 0;
}

}  // namespace

void trClearClassFlags() {
    for (int i = 1; i < TR_LIB_CLASS_COUNT; ++i) trFlags[i] = 0;
}

int32_t trInit(int32_t clientType, unsigned long threadId, ThreadTagFn threadTagFn) {
    ErrnoSaver keepErrno;
    if (trState.initialised) return 0;
    trClearClassFlags();
    int32_t rc = trMutexCreate(&trState.stateMutex);
    if (rc == RC_OK) {
        trState.clientType = clientType;
        trState.lastThread = threadId;
        trState.firstFlags = 1;
        trState.stdEcho = 1;
        trState.wrapping = 0;
        trState.maxMB = trState.segSizeMB = trState.lastSegMB = 0;
        trState.curSeg = 1;
        trState.prevSeg = 0;
        trState.givenName.clear();
        trState.threadTagFn = threadTagFn;
        trState.initialised = true;
    }
    return rc;
}

int32_t trSetFlags(const char* text, int32_t quiet, const TraceClass* classTable,
                   const TraceAggregate* aggregateTable) {
    ErrnoSaver keepErrno;
    if (trState.firstFlags) {
        trFlags[TR_TIMESTAMP] = 1;
        trFlags[TR_PREFIX] = 1;
        trState.firstFlags = 0;
    }
    int32_t rc = applyList(text, true, quiet, classTable, aggregateTable, 0);
    if (rc == 0) {
        trState.markedActive = firstMarkedOn(classTable);
        trState.active = 1;
    }
    return rc;
}

int32_t trSetLibFlags(const char* text, int32_t quiet) {
    return trSetFlags(text, quiet, trLibClasses, trLibAggregates);
}
