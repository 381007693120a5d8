#include "Common/FailureNote.h"

#include "Common/AgentTrace.h"

namespace {

const char kBlanks[] = " \t\r\n\f\v";
std::string gLastFailure;

// Commands explain themselves last ("Error: ..." before exit), so the last line says most.
std::string lastLine(const std::string& text) {
    std::string line;
    std::string::size_type end = text.find_last_not_of(kBlanks);
    if (end != std::string::npos) {
        std::string::size_type start = text.find_last_of("\r\n", end);
        start = start == std::string::npos ? 0 : start + 1;
        start = text.find_first_not_of(kBlanks, start);
        line = text.substr(start, end + 1 - start);
    }
    return line;
}

}  // namespace

void noteFailure(const std::string& text) {
    NA_TRACE_ENTER("noteFailure()");
    std::string line = lastLine(text);
    if (!line.empty()) gLastFailure = line;
    NA_TRACE_EXIT("Exit: %s, note = %s\n", "noteFailure()", NA_STR(gLastFailure));
}

const std::string& lastFailure() {
    return gLastFailure;
}

void clearFailure() {
    gLastFailure.clear();
}
