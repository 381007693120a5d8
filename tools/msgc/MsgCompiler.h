// The message compiler: reads plain-text message sources, turns each message into
// the catalogue's compiled-message form and writes a gencat source with set 1.
#ifndef TOOLS_MSGC_MSGCOMPILER_H
#define TOOLS_MSGC_MSGCOMPILER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace msgc {

// One message of a source file: "NUMBER IDENTIFIER TEXT".
struct SourceMessage {
    uint16_t number = 0;
    std::string id;    // three letters, four or five digits, severity letter
    std::string text;  // escapes already resolved
    int line = 0;
};

// Parses a source file's content. Lines starting with "#" and blank lines are
// skipped; a line ending in "\" continues on the next. Text escapes: \n \t \\.
// Returns false with a "file:line: reason" error.
bool parseSource(const std::string& content, const std::string& fileName, std::vector<SourceMessage>* out,
                 std::string* error);

// Compiles message text (printf conversions, "%N$" to reorder) into the compiled
// body with real zero bytes. allowFastPath lets messages whose inserts are in
// argument order use the fast path.
bool compileText(const std::string& text, bool allowFastPath, std::string* body, std::string* error);

// The stored catalogue text: identifier, blank, body with zero bytes replaced by the
// stand-in, and, when given, the DC2 mark and the trailer (at most six characters).
std::string storedText(const std::string& id, const std::string& body, const std::string& trailer = "");

// One gencat source line for a stored text.
std::string gencatLine(uint16_t number, const std::string& stored);

// Adds the messages of one source to a catalogue. A later source may replace a
// message only under the same identifier (a translation); a number twice in one
// source is an error.
bool mergeSource(const std::vector<SourceMessage>& messages, const std::string& fileName,
                 std::map<uint16_t, SourceMessage>* catalogue, std::string* error);

// The complete gencat source of a catalogue.
bool gencatSource(const std::map<uint16_t, SourceMessage>& catalogue, std::string* out, std::string* error);

}  // namespace msgc

#endif
