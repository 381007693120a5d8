#include "BKVlib/common/nls/amsgnote.h"

#include <atomic>
#include <cstdio>

#include "BKVlib/common/ut/trace.h"

namespace {

std::atomic<NlIssueVFn> gIssue{nullptr};
std::atomic<NlLibTextFn> gLibText{nullptr};

}  // namespace

void nlSetNoteIssuers(NlIssueVFn issue, NlLibTextFn libText) {
    gIssue = issue;
    gLibText = libText;
}

int32_t nlNote(uint16_t msgNum, uint32_t flags, ...) {
    NlIssueVFn issue = gIssue.load();
    if (!issue) return 0;
    va_list args;
    va_start(args, flags);
    int32_t length = issue(msgNum, flags, args);
    va_end(args);
    return length;
}

void nlNoteLibText(uint8_t severity, const char* text, bool show) {
    NlLibTextFn libText = gLibText.load();
    if (libText) {
        libText(severity, text, show);
        return;
    }
    TR_PRINTF(TR_NLS, "%s", text);
    if (show) {
        fputs(text, stderr);
        fflush(stderr);
    }
}
