// The compiled-message form of catalogue entries: printf conversions with their
// argument types, the decoder that checks an entry before it is used, the output
// buffers, and nlOrderInsert, which fills the inserts in the order a translation needs.
#ifndef BKVLIB_COMMON_NLS_AMSGFMT_H
#define BKVLIB_COMMON_NLS_AMSGFMT_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

// Byte 0 of a compiled message.
constexpr uint8_t NL_KIND_ORDERED = 0;
constexpr uint8_t NL_KIND_FASTPATH = 1;
// A catalogue text cannot hold a zero byte; this byte stands for one.
constexpr unsigned char NL_ZERO_STANDIN = 0x10;
// Marks the trailer within the last seven characters of a stored entry.
constexpr unsigned char NL_TRAILER_MARK = 0x12;
// Mask bits telling that a stand-in in header byte 2 or 3 means zero.
constexpr uint8_t NL_MASK_BYTE2_ZERO = 4;
constexpr uint8_t NL_MASK_BYTE3_ZERO = 2;
// Offsets in the compiled header.
constexpr size_t NL_HDR_COUNT = 5;
constexpr size_t NL_HDR_SIZE = 6;
// Counts and indexes are single bytes in which the stand-in means zero, so they
// stay below it.
constexpr size_t NL_MAX_INSERTS = 15;
// Each insert, and a whole fast-path message, is formatted into this many bytes.
constexpr size_t NL_SCRATCH_SIZE = 2302;
// Largest width or precision a stored conversion may give; larger ones mark the
// entry corrupt. The insert is cut to the scratch size in any case.
constexpr size_t NL_MAX_FIELD_SIZE = NL_SCRATCH_SIZE;

// How an argument is fetched from the caller's argument list. Strings and other
// pointers are fetched pointer-sized, so a 64-bit host reads them whole.
enum NlArgType : uint8_t {
    NL_ARG_INT = 0,     // int: %d %i %c (also h, hh)
    NL_ARG_UINT = 1,    // unsigned int: %u %o %x %X, %lc
    NL_ARG_PTR = 2,     // pointer: %s %ls %p
    NL_ARG_DOUBLE = 3,  // double: %e %E %f %F %g %G %a %A
    NL_ARG_LONG = 4,    // long: the integer conversions with l, ll, j, z or t
    NL_ARG_BAD = 255,
};

// One printf conversion as parsed from its "%" to its letter.
struct NlConversion {
    size_t length = 0;      // characters from "%" to the letter, both included
    uint8_t stars = 0;      // "*" widths and precisions
    uint8_t type = NL_ARG_BAD;
    char letter = 0;
    bool wide = false;      // "%ls" or "%lc"
};

// Parses the conversion at text[0] == '%' within avail characters. A positional
// "N$" is not accepted here. Returns true for a conversion that takes an argument
// of a known type ("%%" and "%n" are not such conversions) whose width and
// precision are at most NL_MAX_FIELD_SIZE.
bool nlParseConversion(const char* text, size_t avail, NlConversion* out);

// A checked compiled message: views into the decoded text it was built from,
// which must outlive it.
struct NlCompiled {
    uint8_t kind = NL_KIND_ORDERED;
    const char* format = nullptr;  // fast path: the printf format
    uint8_t count = 0;
    uint8_t order[NL_MAX_INSERTS] = {};
    struct Arg {
        uint8_t stars;
        uint8_t type;
        const char* conv;
        bool wide;
    } args[NL_MAX_INSERTS] = {};
    const char* pieces[NL_MAX_INSERTS + 1] = {};
    size_t pieceLen[NL_MAX_INSERTS + 1] = {};
};

// Turns stand-ins back into zero bytes in place (header rules for bytes 0 to 3).
void nlDecodeStandins(std::string* body);
// Checks a decoded body and fills out: true when every count, index, descriptor
// and piece lies inside the body and every descriptor type fits its conversion.
bool nlParseCompiled(const char* body, size_t length, NlCompiled* out);

// The output of nlOrderInsert. append adds narrow or wide text; each subclass
// converts to its own width.
class nlsBuffer {
public:
    virtual ~nlsBuffer() = default;
    virtual void append(const char* text, size_t length) = 0;
    virtual void append(const wchar_t* text, size_t length) = 0;
    virtual size_t length() const = 0;
};

class nlsCharBuffer : public nlsBuffer {
public:
    void append(const char* text, size_t length) override { text_.append(text, length); }
    void append(const wchar_t* text, size_t length) override;
    size_t length() const override { return text_.size(); }
    const std::string& text() const { return text_; }
    std::string* mutableText() { return &text_; }

private:
    std::string text_;
};

class nlsWcharBuffer : public nlsBuffer {
public:
    void append(const char* text, size_t length) override;
    void append(const wchar_t* text, size_t length) override { text_.append(text, length); }
    size_t length() const override { return text_.size(); }
    const std::wstring& text() const { return text_; }

private:
    std::wstring text_;
};

// Expands msg with the caller's arguments onto out; returns the characters added.
// Inserts longer than NL_SCRATCH_SIZE - 1 are cut.
int32_t nlOrderInsert(const NlCompiled& msg, nlsCharBuffer* out, va_list args);
// Wide variant: "%ls" and "%lc" are formatted as wide text directly.
int32_t nlOrderInsert(const NlCompiled& msg, nlsWcharBuffer* out, va_list args);

#endif
