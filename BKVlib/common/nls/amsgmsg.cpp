// One catalogue message: its stored text taken apart into a cache entry, and the
// typed inserts a call hands it.
#include "BKVlib/common/nls/amsgrtrv.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

const char* const kModule = "BKVlib/common/nls/amsgrtrv";
// Identifier of three letters and four digits, the severity letter and a blank.
constexpr size_t kPrefixLength = 9;

// Severity letter to code; -1 corrupt, -2 the "M" letter (no message).
int severityCode(char letter) {
    static const char kLetters[] = "ZTRKIWESL";
    if (letter == 'M') return -2;
    if (letter < 'E' || letter > 'Z') return -1;
    const char* hit = strchr(kLetters, letter);
    return hit ? static_cast<int>(hit - kLetters) : -1;
}

bool identifierKept(int code) {
    return code >= NL_SEV_K && code <= NL_SEV_S;
}

// Splits the severity letter off a stored text; -1 for a corrupt identifier.
int parseIdentifier(const char* raw, size_t length, size_t* letterAt) {
    size_t i = 4;
    while (i < length && raw[i] >= '0' && raw[i] <= '9') ++i;
    *letterAt = i;
    return i < length ? severityCode(raw[i]) : -1;
}

void cutTrailer(std::string* text, char* trailer) {
    trailer[0] = '\0';
    size_t stop = text->size() > 7 ? text->size() - 7 : 0;
    for (size_t i = text->size(); i > stop; --i) {
        if (static_cast<unsigned char>((*text)[i - 1]) != NL_TRAILER_MARK) continue;
        snprintf(trailer, 8, "%s", text->c_str() + i);
        text->resize(i - 1);
        return;
    }
}

enum BuildResult { kBuilt, kNoMemory, kCorrupt };

BuildResult allocateMsg(uint16_t number, int code, const std::string& text, size_t bodyOffset, const char* trailer,
                        NLSMsg** out) {
    void* block = malloc(sizeof(NLSMsg) + text.size() + 1);
    if (!block) return kNoMemory;
    NLSMsg* msg = new (block) NLSMsg();
    msg->text = reinterpret_cast<char*>(msg + 1);
    memcpy(msg->text, text.data(), text.size());
    msg->text[text.size()] = '\0';
    msg->number = number;
    msg->severity = static_cast<uint8_t>(code);
    snprintf(msg->trailer, sizeof(msg->trailer), "%s", trailer);
    msg->length = static_cast<uint32_t>(text.size());
    msg->bodyOffset = static_cast<uint32_t>(bodyOffset);
    if (!nlParseCompiled(msg->text + bodyOffset, text.size() - bodyOffset, &msg->compiled)) {
        free(block);
        return kCorrupt;
    }
    *out = msg;
    return kBuilt;
}

uint8_t messageTypeFor(uint8_t severity) {
    switch (severity) {
        case NL_SEV_T: return 7;
        case NL_SEV_I: return 2;
        case NL_SEV_W: return 3;
        case NL_SEV_E: return 4;
        case NL_SEV_S: return 5;
        default: return 0;
    }
}

// The argument descriptors of a message; a fast-path format is read for them.
size_t argumentsOf(const NlCompiled& msg, NlCompiled::Arg* args) {
    if (msg.kind != NL_KIND_FASTPATH) {
        for (uint8_t i = 0; i < msg.count; ++i) args[i] = msg.args[i];
        return msg.count;
    }
    size_t n = 0;
    size_t avail = strlen(msg.format);
    for (size_t i = 0; i < avail && n < NL_MAX_INSERTS; ++i) {
        if (msg.format[i] != '%') continue;
        NlConversion conv;
        if (i + 1 < avail && msg.format[i + 1] == '%') {
            ++i;
        } else if (nlParseConversion(msg.format + i, avail - i, &conv)) {
            args[n++] = NlCompiled::Arg{conv.stars, conv.type, msg.format + i, conv.wide};
            i += conv.length - 1;
        }
    }
    return n;
}

// Takes the list by pointer: va_arg must advance the caller's list on every ABI.
NlInsertValue fetchValue(const NlCompiled::Arg& arg, va_list* args) {
    NlInsertValue value;
    value.type = arg.type;
    switch (arg.type) {
        case NL_ARG_INT: value.integer = va_arg(*args, int); break;
        case NL_ARG_UINT: value.integer = va_arg(*args, unsigned); break;
        case NL_ARG_LONG: value.integer = va_arg(*args, long); break;
        case NL_ARG_DOUBLE: value.real = va_arg(*args, double); break;
        default: value.pointer = va_arg(*args, const void*); break;
    }
    bool narrowString = arg.type == NL_ARG_PTR && !arg.wide && strchr(arg.conv, 's') != nullptr;
    if (narrowString) value.text = value.pointer ? static_cast<const char*>(value.pointer) : "(null)";
    return value;
}

}  // namespace

// Turns a stored catalogue text into a cache entry; null (with pendingText) on failure.
NLSMsg* nlBuildMsg(uint16_t number, const char* raw) {
    size_t length = strlen(raw);
    size_t letterAt = 0;
    int code = length >= 5 ? parseIdentifier(raw, length, &letterAt) : -1;
    if (code == -2) return nullptr;
    std::string text(raw, length);
    char trailer[8];
    cutTrailer(&text, trailer);
    // A trailer mark inside the identifier leaves no whole identifier behind.
    if (text.size() <= letterAt) code = -1;
    if (code >= 0 && identifierKept(code) && letterAt > 7) text.erase(3, letterAt - 7);
    size_t bodyOffset = identifierKept(code) ? kPrefixLength : letterAt + 2;
    if (code < 0 || text.size() <= bodyOffset) {
        nlSetPending("KRN9999E %s(%u): Message No %u is corrupted.\n", kModule, __LINE__, number);
        return nullptr;
    }
    if (!identifierKept(code)) {
        text.erase(0, bodyOffset);
        bodyOffset = 0;
    }
    std::string body = text.substr(bodyOffset);
    nlDecodeStandins(&body);
    text.replace(bodyOffset, std::string::npos, body);
    NLSMsg* msg = nullptr;
    BuildResult result = allocateMsg(number, code, text, bodyOffset, trailer, &msg);
    if (result == kCorrupt) nlSetPending("KRN9999E %s(%u): Message No %u is corrupted.\n", kModule, __LINE__, number);
    if (result == kNoMemory) nlSetPending("KRN0109E Insufficient memory for allocation of message structure.\n");
    return msg;
}

void nlCollectInserts(const NLSMsg& msg, NlInserts* inserts, va_list* args) {
    NlCompiled::Arg descriptors[NL_MAX_INSERTS];
    size_t n = argumentsOf(msg.compiled, descriptors);
    inserts->messageType = messageTypeFor(msg.severity);
    for (size_t i = 0; i < n; ++i) {
        for (uint8_t s = 0; s < descriptors[i].stars; ++s) {
            inserts->values.push_back(fetchValue(NlCompiled::Arg{0, NL_ARG_INT, "%d", false}, args));
            inserts->size += sizeof(int32_t);
        }
        NlInsertValue value = fetchValue(descriptors[i], args);
        bool isText = value.pointer != nullptr && !value.text.empty();
        bool wideWord = value.type == NL_ARG_LONG || value.type == NL_ARG_DOUBLE || value.type == NL_ARG_PTR;
        inserts->size += isText ? value.text.size() + 1 : (wideWord ? 8 : 4);
        inserts->values.push_back(value);
    }
}
