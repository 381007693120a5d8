#include "BKVlib/common/nls/amsglog.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/GlobalRC.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/logutils.h"
#include "BKVlib/common/ut/trace.h"

namespace {

// Library messages are short; the longest inserts are paths.
constexpr size_t kIssueBuffer = 8192;

// The words are part of the user interface as they stand.
const char* const kYesWords =
    " YES YE Y YUP TRUE T ON YOUBETCHA OUI SI JA 1 COOL AFFIRMATIVE 10-4 WAY EXCELLENT BODACIOUS SURE ";
const char* const kNoWords = " NO N NOPE FALSE F OFF OF NOWAYMAN NON NEIN 0 UNCOOL NEGATIVE BOGUS ";

// EBCDIC code page 037 to ISO 8859-1.
const unsigned char kEbcdicToAscii[256] = {
    0x00, 0x01, 0x02, 0x03, 0x9C, 0x09, 0x86, 0x7F, 0x97, 0x8D, 0x8E, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,
    0x10, 0x11, 0x12, 0x13, 0x9D, 0x85, 0x08, 0x87, 0x18, 0x19, 0x92, 0x8F, 0x1C, 0x1D, 0x1E, 0x1F,
    0x80, 0x81, 0x82, 0x83, 0x84, 0x0A, 0x17, 0x1B, 0x88, 0x89, 0x8A, 0x8B, 0x8C, 0x05, 0x06, 0x07,
    0x90, 0x91, 0x16, 0x93, 0x94, 0x95, 0x96, 0x04, 0x98, 0x99, 0x9A, 0x9B, 0x14, 0x15, 0x9E, 0x1A,
    0x20, 0xA0, 0xE2, 0xE4, 0xE0, 0xE1, 0xE3, 0xE5, 0xE7, 0xF1, 0xA2, 0x2E, 0x3C, 0x28, 0x2B, 0x7C,
    0x26, 0xE9, 0xEA, 0xEB, 0xE8, 0xED, 0xEE, 0xEF, 0xEC, 0xDF, 0x21, 0x24, 0x2A, 0x29, 0x3B, 0xAC,
    0x2D, 0x2F, 0xC2, 0xC4, 0xC0, 0xC1, 0xC3, 0xC5, 0xC7, 0xD1, 0xA6, 0x2C, 0x25, 0x5F, 0x3E, 0x3F,
    0xF8, 0xC9, 0xCA, 0xCB, 0xC8, 0xCD, 0xCE, 0xCF, 0xCC, 0x60, 0x3A, 0x23, 0x40, 0x27, 0x3D, 0x22,
    0xD8, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0xAB, 0xBB, 0xF0, 0xFD, 0xFE, 0xB1,
    0xB0, 0x6A, 0x6B, 0x6C, 0x6D, 0x6E, 0x6F, 0x70, 0x71, 0x72, 0xAA, 0xBA, 0xE6, 0xB8, 0xC6, 0xA4,
    0xB5, 0x7E, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0xA1, 0xBF, 0xD0, 0xDD, 0xDE, 0xAE,
    0x5E, 0xA3, 0xA5, 0xB7, 0xA9, 0xA7, 0xB6, 0xBC, 0xBD, 0xBE, 0x5B, 0x5D, 0xAF, 0xA8, 0xB4, 0xD7,
    0x7B, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0xAD, 0xF4, 0xF6, 0xF2, 0xF3, 0xF5,
    0x7D, 0x4A, 0x4B, 0x4C, 0x4D, 0x4E, 0x4F, 0x50, 0x51, 0x52, 0xB9, 0xFB, 0xFC, 0xF9, 0xFA, 0xFF,
    0x5C, 0xF7, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0xB2, 0xD4, 0xD6, 0xD2, 0xD3, 0xD5,
    0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0xB3, 0xDB, 0xDC, 0xD9, 0xDA, 0x9F,
};

std::atomic<NlSeverityLogger> gSeverityLogger{nullptr};

void defaultSeverityLogger(uint8_t severity, const char* text) {
    if (severity != NL_SEV_UNKNOWN && severity >= nlSettings().logSeverityMin) nlErrorLogWrite(text);
}

void toStdout(const std::string& text) {
    if (nlSettings().stampConsole) fputs(utStampNow().c_str(), stdout);
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

void toSinks(const NlMsgDesc& desc, const std::string& text) {
    if (desc.flags & NL_STDOUT) toStdout(text);
    if (desc.flags & NL_ERRORLOG) nlErrorLogWrite(text.c_str());
    if (desc.number != NL_MSG_NO_SCHEDLOG) nlSchedLogWrite(text.c_str());
    if (desc.flags & NL_SEVERITY) {
        NlSeverityLogger logger = gSeverityLogger.load();
        (logger ? logger : defaultSeverityLogger)(nlGetSeverity(desc.number), text.c_str());
    }
}

// Flag 8: the typed inserts come first; false when nothing may be issued.
bool collectInserts(NlMsgDesc* desc, uint16_t avail, va_list args) {
    NlInserts inserts;
    va_list copy;
    va_copy(copy, args);
    int32_t rc = nlGetInserts(desc->number, &inserts, copy);
    va_end(copy);
    if (rc != RC_OK) return false;
    desc->insertCount = static_cast<uint8_t>(inserts.values.size());
    desc->messageType = inserts.messageType;
    if (inserts.size > avail) {
        TR_PRINTF(TR_NLS, "nlLogPrintf(): msgSize(%d) greater than avail(%d); returning.\n",
                  static_cast<int>(inserts.size), avail);
        return false;
    }
    return true;
}

char hexDigit(unsigned v) {
    return "0123456789ABCDEF"[v & 0xF];
}

bool printable(unsigned char c) {
    return c >= 0x20 && c < 0x7F;
}

bool allPrintable(const unsigned char* bytes, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        if (!printable(bytes[i])) return false;
    }
    return true;
}

size_t renderHex(char* out, const unsigned char* bytes, size_t length, bool grouped) {
    size_t n = 0;
    size_t blanks = 0;
    for (size_t i = 0; i < length; ++i) {
        if (grouped && i > 0 && i % 4 == 0) {
            out[n++] = ' ';
            if (++blanks % 8 == 0) out[n++] = '\n';
        }
        out[n++] = hexDigit(bytes[i] >> 4);
        out[n++] = hexDigit(bytes[i]);
    }
    return n;
}

size_t renderChars(char* out, const unsigned char* bytes, size_t length, bool ebcdic) {
    for (size_t i = 0; i < length; ++i) {
        unsigned char c = ebcdic ? kEbcdicToAscii[bytes[i]] : bytes[i];
        out[i] = printable(c) ? static_cast<char>(c) : '.';
    }
    return length;
}

}  // namespace

uint16_t nlLogPrintf(NlMsgDesc* description, char* buffer, uint16_t avail, va_list args) {
    TR_PRINTF(TR_ENTER, "Enter: nlLogPrintf\n");
    TR_PRINTF(TR_NLS, "nlLogPrintf: msg number = %d\n", description->number);
    if (buffer == nullptr) avail = 0;
    if ((description->flags & NL_INSERTS) && !collectInserts(description, avail, args)) return 0;
    std::string text;
    va_list copy;
    va_copy(copy, args);
    int32_t rc = nlMsgText(description->number, &text, copy);
    va_end(copy);
    GlobalrC::instance()->set(description->number);
    if (rc != RC_OK) {
        TR_PRINTF(TR_NLS, "nlLogPrintf(): No memory to generate %d message; returning.\n", description->number);
        return 0;
    }
    description->length = static_cast<uint16_t>(text.size() > 0xFFFF ? 0xFFFF : text.size());
    if (text.size() > avail) {
        TR_PRINTF(TR_NLS, "nlLogPrintf(): msgSize(%d) greater than avail(%d); returning.\n",
                  static_cast<int>(text.size()), avail);
        return 0;
    }
    memcpy(buffer, text.data(), text.size());
    if (description->flags & NL_NEWLINE) {
        TR_PRINTF(TR_NLS, "adding newline character to buffer\n");
        text.push_back('\n');
    }
    toSinks(*description, text);
    return description->length;
}

namespace {

int32_t issueV(uint16_t msgNum, uint32_t flags, va_list args) {
    char buffer[kIssueBuffer];
    NlMsgDesc desc;
    desc.number = msgNum;
    desc.flags = static_cast<uint8_t>(flags);
    return nlLogPrintf(&desc, buffer, sizeof(buffer), args);
}

// Before main, so the modules beneath report through this layer from their first call.
struct NoteIssuers {
    NoteIssuers() { nlSetNoteIssuers(issueV, nlLogLibText); }
} gNoteIssuers;

}  // namespace

int32_t nlIssue(uint16_t msgNum, uint32_t flags, ...) {
    va_list args;
    va_start(args, flags);
    int32_t length = issueV(msgNum, flags, args);
    va_end(args);
    return length;
}

void nlSetSeverityLogger(NlSeverityLogger logger) {
    gSeverityLogger = logger;
}

void nlLogLibText(uint8_t severity, const char* text, bool show) {
    TR_PRINTF(TR_NLS, "%s", text);
    NlSeverityLogger logger = gSeverityLogger.load();
    (logger ? logger : defaultSeverityLogger)(severity, text);
    if (show) {
        fputs(text, stderr);
        fflush(stderr);
    }
}

size_t nlHexTextSize(size_t length) {
    return 2 * length + length / 4 + length / 32 + 1;
}

size_t nlHexText(char* output, const void* data, size_t length, int32_t mode) {
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    size_t n = 0;
    if (mode == 4) mode = allPrintable(bytes, length) ? 1 : 2;
    switch (mode) {
        case 0: n = renderChars(output, bytes, length, true); break;
        case 2: n = renderHex(output, bytes, length, false); break;
        case 3: n = renderHex(output, bytes, length, true); break;
        default: n = renderChars(output, bytes, length, false); break;
    }
    output[n] = '\0';
    return n;
}

int32_t nlYesNo(const char* word, int32_t yesValue, int32_t noValue) {
    std::string key = " ";
    for (const char* p = word ? word : ""; *p; ++p) key.push_back(static_cast<char>(toupper(static_cast<unsigned char>(*p))));
    key.push_back(' ');
    if (strstr(kYesWords, key.c_str())) return yesValue;
    if (strstr(kNoWords, key.c_str())) return noValue;
    return NL_YESNO_UNKNOWN;
}
