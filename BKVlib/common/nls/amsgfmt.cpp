#include "BKVlib/common/nls/amsgfmt.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "BKVlib/common/ut/trace.h"

namespace {

bool isOneOf(char c, const char* set) {
    return c != '\0' && strchr(set, c) != nullptr;
}

size_t skipDigits(const char* text, size_t i, size_t avail) {
    while (i < avail && text[i] >= '0' && text[i] <= '9') ++i;
    return i;
}

// Reads a width or precision. An insert is cut to the scratch size anyway, and the C
// library would still build a field of a damaged entry's "%.1552602435u" in full,
// which takes seconds; such a field makes the entry corrupt instead.
bool readFieldSize(const char* text, size_t* i, size_t avail) {
    size_t value = 0;
    size_t start = *i;
    *i = skipDigits(text, start, avail);
    for (size_t d = start; d < *i && value <= NL_MAX_FIELD_SIZE; ++d) value = value * 10 + static_cast<size_t>(text[d] - '0');
    return value <= NL_MAX_FIELD_SIZE;
}

// Reads a length modifier at text[i]; returns its length (0 when none).
size_t lengthModifier(const char* text, size_t i, size_t avail, char* mod) {
    *mod = 0;
    if (i >= avail || !isOneOf(text[i], "hlLjztq")) return 0;
    *mod = text[i];
    bool doubled = (text[i] == 'h' || text[i] == 'l') && i + 1 < avail && text[i + 1] == text[i];
    if (doubled) *mod = text[i] == 'h' ? 'H' : 'q';
    return doubled ? 2 : 1;
}

// The argument type that a conversion letter with its length modifier consumes.
uint8_t typeFor(char mod, char letter) {
    bool longInt = isOneOf(mod, "lqjzt");
    if (isOneOf(letter, "di")) return longInt ? NL_ARG_LONG : (mod == 'L' ? NL_ARG_BAD : NL_ARG_INT);
    if (isOneOf(letter, "ouxX")) return longInt ? NL_ARG_LONG : (mod == 'L' ? NL_ARG_BAD : NL_ARG_UINT);
    if (letter == 'c') return mod == 0 ? NL_ARG_INT : (mod == 'l' ? NL_ARG_UINT : NL_ARG_BAD);
    if (letter == 's') return (mod == 0 || mod == 'l') ? NL_ARG_PTR : NL_ARG_BAD;
    if (letter == 'p') return mod == 0 ? NL_ARG_PTR : NL_ARG_BAD;
    if (isOneOf(letter, "eEfFgGaA")) return (mod == 0 || mod == 'l') ? NL_ARG_DOUBLE : NL_ARG_BAD;
    return NL_ARG_BAD;
}

bool typesAgree(uint8_t stored, uint8_t parsed) {
    bool storedInt = stored == NL_ARG_INT || stored == NL_ARG_UINT;
    bool parsedInt = parsed == NL_ARG_INT || parsed == NL_ARG_UINT;
    return stored == parsed || (storedInt && parsedInt);
}

// A fast-path format goes to vsnprintf as it is, so only the conversions that
// the message compiler emits there may appear in it, and no more of them than a
// message has inserts: a damaged entry with more would read arguments the caller
// never passed, as widths among them.
bool fastFormatValid(const char* format) {
    size_t avail = strlen(format);
    size_t conversions = 0;
    for (size_t i = 0; i < avail; ++i) {
        if (format[i] != '%') continue;
        if (i + 1 < avail && format[i + 1] == '%') {
            ++i;
            continue;
        }
        NlConversion conv;
        if (!nlParseConversion(format + i, avail - i, &conv) || !isOneOf(conv.letter, "cdeEfgGiopsuxX")) return false;
        if (++conversions > NL_MAX_INSERTS) return false;
        i += conv.length - 1;
    }
    return true;
}

// Finds the terminator of the string at body[pos]; the body's own terminator
// at body[length] counts only when lastAllowed.
bool terminatedAt(const char* body, size_t pos, size_t length, bool lastAllowed, size_t* end) {
    if (pos > length) return false;
    const void* zero = memchr(body + pos, '\0', length - pos);
    if (zero == nullptr && !lastAllowed) return false;
    *end = zero ? static_cast<size_t>(static_cast<const char*>(zero) - body) : length;
    return true;
}

bool parseDescriptors(const char* body, size_t length, size_t* pos, NlCompiled* out) {
    for (uint8_t i = 0; i < out->count; ++i) {
        size_t end = 0;
        if (*pos + 2 > length || !terminatedAt(body, *pos + 2, length, false, &end)) return false;
        NlCompiled::Arg& arg = out->args[i];
        arg.stars = static_cast<uint8_t>(body[*pos]);
        arg.type = static_cast<uint8_t>(body[*pos + 1]);
        arg.conv = body + *pos + 2;
        NlConversion conv;
        size_t convLen = end - (*pos + 2);
        bool ok = nlParseConversion(arg.conv, convLen, &conv) && conv.length == convLen &&
                  conv.stars == arg.stars && typesAgree(arg.type, conv.type);
        if (!ok) return false;
        arg.wide = conv.wide;
        *pos = end + 1;
    }
    return true;
}

bool parsePieces(const char* body, size_t length, size_t pos, NlCompiled* out) {
    for (size_t i = 0; i <= out->count; ++i) {
        size_t end = 0;
        if (!terminatedAt(body, pos, length, i == out->count, &end)) return false;
        out->pieces[i] = body + pos;
        out->pieceLen[i] = end - pos;
        pos = end + 1;
    }
    return true;
}

bool parseOrdered(const char* body, size_t length, NlCompiled* out) {
    if (length < NL_HDR_SIZE) return false;
    out->count = static_cast<uint8_t>(body[NL_HDR_COUNT]);
    if (out->count > NL_MAX_INSERTS || length < NL_HDR_SIZE + out->count) return false;
    for (uint8_t i = 0; i < out->count; ++i) {
        out->order[i] = static_cast<uint8_t>(body[NL_HDR_SIZE + i]);
        if (out->order[i] >= out->count) return false;
    }
    size_t pos = NL_HDR_SIZE + out->count;
    return parseDescriptors(body, length, &pos, out) && parsePieces(body, length, pos, out);
}

// One argument as fetched from the list: its star values, then its value.
struct ArgValue {
    int stars[2];
    union {
        int i;
        unsigned u;
        long l;
        const void* p;
        double d;
    } v;
};

void fetchArgs(const NlCompiled& msg, va_list args, ArgValue* values) {
    for (uint8_t i = 0; i < msg.count; ++i) {
        const NlCompiled::Arg& arg = msg.args[i];
        for (uint8_t s = 0; s < arg.stars && s < 2; ++s) values[i].stars[s] = va_arg(args, int);
        switch (arg.type) {
            case NL_ARG_INT: values[i].v.i = va_arg(args, int); break;
            case NL_ARG_UINT: values[i].v.u = va_arg(args, unsigned); break;
            case NL_ARG_LONG: values[i].v.l = va_arg(args, long); break;
            case NL_ARG_DOUBLE: values[i].v.d = va_arg(args, double); break;
            default: values[i].v.p = va_arg(args, const void*); break;
        }
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
// The conversion text comes from a checked descriptor whose type matches T.
template <typename Char, typename T>
int formatWith(int (*fn)(Char*, size_t, const Char*, ...), Char* buf, size_t size, const Char* conv,
               uint8_t stars, const int* sv, T value) {
    if (stars == 0) return fn(buf, size, conv, value);
    if (stars == 1) return fn(buf, size, conv, sv[0], value);
    return fn(buf, size, conv, sv[0], sv[1], value);
}
#pragma GCC diagnostic pop

template <typename Char>
int formatArg(int (*fn)(Char*, size_t, const Char*, ...), Char* buf, size_t size, const Char* conv,
              const NlCompiled::Arg& arg, const ArgValue& value) {
    switch (arg.type) {
        case NL_ARG_INT: return formatWith(fn, buf, size, conv, arg.stars, value.stars, value.v.i);
        case NL_ARG_UINT: return formatWith(fn, buf, size, conv, arg.stars, value.stars, value.v.u);
        case NL_ARG_LONG: return formatWith(fn, buf, size, conv, arg.stars, value.stars, value.v.l);
        case NL_ARG_DOUBLE: return formatWith(fn, buf, size, conv, arg.stars, value.stars, value.v.d);
        default: return formatWith(fn, buf, size, conv, arg.stars, value.stars, value.v.p);
    }
}

// snprintf reports the length it wanted; the scratch holds at most size - 1.
size_t keptLength(int wanted, size_t size) {
    if (wanted < 0) return 0;
    return static_cast<size_t>(wanted) < size ? static_cast<size_t>(wanted) : size - 1;
}

void appendNarrowArg(const NlCompiled::Arg& arg, const ArgValue& value, nlsBuffer* out) {
    char scratch[NL_SCRATCH_SIZE];
    int wanted = formatArg<char>(snprintf, scratch, sizeof(scratch), arg.conv, arg, value);
    out->append(scratch, keptLength(wanted, sizeof(scratch)));
}

void appendWideArg(const NlCompiled::Arg& arg, const ArgValue& value, nlsBuffer* out) {
    wchar_t conv[64];
    size_t n = 0;
    for (; arg.conv[n] != '\0' && n + 1 < sizeof(conv) / sizeof(conv[0]); ++n) conv[n] = static_cast<unsigned char>(arg.conv[n]);
    conv[n] = L'\0';
    wchar_t scratch[NL_SCRATCH_SIZE];
    scratch[0] = L'\0';
    int written = formatArg<wchar_t>(swprintf, scratch, NL_SCRATCH_SIZE, conv, arg, value);
    // swprintf gives -1 on truncation, with the cut text left in the buffer.
    scratch[NL_SCRATCH_SIZE - 1] = L'\0';
    out->append(scratch, written >= 0 ? static_cast<size_t>(written) : wcslen(scratch));
}

int32_t expand(const NlCompiled& msg, nlsBuffer* out, bool wide, va_list args) {
    size_t before = out->length();
    va_list copy;
    va_copy(copy, args);
    if (msg.kind == NL_KIND_FASTPATH) {
        TR_PRINTF(TR_NLS, "fastpath\n");
        char scratch[NL_SCRATCH_SIZE];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        // The format was checked by fastFormatValid when the entry was decoded.
        out->append(scratch, keptLength(vsnprintf(scratch, sizeof(scratch), msg.format, copy), sizeof(scratch)));
#pragma GCC diagnostic pop
    } else {
        ArgValue values[NL_MAX_INSERTS] = {};
        fetchArgs(msg, copy, values);
        out->append(msg.pieces[0], msg.pieceLen[0]);
        for (uint8_t i = 0; i < msg.count; ++i) {
            const NlCompiled::Arg& arg = msg.args[msg.order[i]];
            if (wide && arg.wide) {
                appendWideArg(arg, values[msg.order[i]], out);
            } else {
                appendNarrowArg(arg, values[msg.order[i]], out);
            }
            out->append(msg.pieces[i + 1], msg.pieceLen[i + 1]);
        }
    }
    va_end(copy);
    return static_cast<int32_t>(out->length() - before);
}

}  // namespace

bool nlParseConversion(const char* text, size_t avail, NlConversion* out) {
    if (avail < 2 || text[0] != '%') return false;
    NlConversion conv;
    size_t i = 1;
    bool sizesOk = true;
    while (i < avail && isOneOf(text[i], "-+ #0'")) ++i;
    if (i < avail && text[i] == '*') {
        ++conv.stars;
        ++i;
    } else {
        sizesOk = readFieldSize(text, &i, avail);
    }
    if (i < avail && text[i] == '.') {
        ++i;
        if (i < avail && text[i] == '*') {
            ++conv.stars;
            ++i;
        } else {
            sizesOk = readFieldSize(text, &i, avail) && sizesOk;
        }
    }
    char mod = 0;
    i += lengthModifier(text, i, avail, &mod);
    if (i >= avail) return false;
    conv.letter = text[i];
    conv.type = typeFor(mod, conv.letter);
    conv.wide = mod == 'l' && (conv.letter == 's' || conv.letter == 'c');
    conv.length = i + 1;
    *out = conv;
    return sizesOk && conv.type != NL_ARG_BAD;
}

void nlDecodeStandins(std::string* body) {
    std::string& b = *body;
    if (b.empty()) return;
    if (static_cast<unsigned char>(b[0]) == NL_ZERO_STANDIN) b[0] = '\0';
    uint8_t mask = b.size() > 1 ? static_cast<uint8_t>(b[1]) : 0;
    if (b.size() > 2 && static_cast<unsigned char>(b[2]) == NL_ZERO_STANDIN && (mask & NL_MASK_BYTE2_ZERO)) b[2] = '\0';
    if (b.size() > 3 && static_cast<unsigned char>(b[3]) == NL_ZERO_STANDIN && (mask & NL_MASK_BYTE3_ZERO)) b[3] = '\0';
    for (size_t i = 4; i < b.size(); ++i) {
        if (static_cast<unsigned char>(b[i]) == NL_ZERO_STANDIN) b[i] = '\0';
    }
}

bool nlParseCompiled(const char* body, size_t length, NlCompiled* out) {
    *out = NlCompiled();
    if (length < 1) return false;
    out->kind = static_cast<uint8_t>(body[0]) == NL_KIND_FASTPATH ? NL_KIND_FASTPATH : NL_KIND_ORDERED;
    if (out->kind == NL_KIND_FASTPATH) {
        out->format = body + 1;
        return fastFormatValid(out->format);
    }
    return parseOrdered(body, length, out);
}

void nlsCharBuffer::append(const wchar_t* text, size_t length) {
    mbstate_t state{};
    char bytes[MB_LEN_MAX];
    for (size_t i = 0; i < length; ++i) {
        size_t n = wcrtomb(bytes, text[i], &state);
        if (n == static_cast<size_t>(-1)) {
            text_.push_back('?');
            state = mbstate_t{};
        } else {
            text_.append(bytes, n);
        }
    }
}

void nlsWcharBuffer::append(const char* text, size_t length) {
    mbstate_t state{};
    size_t i = 0;
    while (i < length) {
        wchar_t wc = 0;
        size_t n = mbrtowc(&wc, text + i, length - i, &state);
        if (n == 0) n = 1;  // an embedded zero byte
        if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) {
            // Bytes the locale cannot read are kept one for one.
            wc = static_cast<unsigned char>(text[i]);
            n = 1;
            state = mbstate_t{};
        }
        text_.push_back(wc);
        i += n;
    }
}

int32_t nlOrderInsert(const NlCompiled& msg, nlsCharBuffer* out, va_list args) {
    int32_t added = expand(msg, out, false, args);
    TR_PRINTF(TR_NLS, "return from nlOrderInsert (char), msgLen %d:\n", added);
    return added;
}

int32_t nlOrderInsert(const NlCompiled& msg, nlsWcharBuffer* out, va_list args) {
    int32_t added = expand(msg, out, true, args);
    TR_PRINTF(TR_NLS, "return from nlOrderInsert(wchar), msgLen %d:\n", added);
    return added;
}
