#include "tools/msgc/MsgCompiler.h"

#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "BKVlib/common/nls/amsgfmt.h"

namespace msgc {

namespace {

// One conversion of the text being compiled.
struct Insert {
    int argIndex;     // 0-based argument of the caller's list
    std::string conv; // without any "N$"
    NlConversion parsed;
};

std::string where(const std::string& file, int line) {
    return file + ":" + std::to_string(line) + ": ";
}

bool validId(const std::string& id) {
    size_t digits = id.size() >= 5 ? id.size() - 4 : 0;
    if (digits < 4 || digits > 5) return false;
    for (size_t i = 0; i < id.size(); ++i) {
        bool letterPlace = i < 3 || i == id.size() - 1;
        bool ok = letterPlace ? (id[i] >= 'A' && id[i] <= 'Z') : (id[i] >= '0' && id[i] <= '9');
        if (!ok) return false;
    }
    return true;
}

bool unescape(const std::string& raw, std::string* text) {
    text->clear();
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\') {
            text->push_back(raw[i]);
            continue;
        }
        char next = i + 1 < raw.size() ? raw[++i] : '\0';
        if (next == 'n') text->push_back('\n');
        else if (next == 't') text->push_back('\t');
        else if (next == '\\') text->push_back('\\');
        else return false;
    }
    return true;
}

// Bytes that the stored form or gencat cannot carry as text.
bool textBytesValid(const std::string& text) {
    for (unsigned char c : text) {
        if (c == NL_ZERO_STANDIN || c == NL_TRAILER_MARK) return false;
        if (c < 0x20 && c != '\n' && c != '\t') return false;
    }
    return true;
}

bool parseLine(const std::string& line, SourceMessage* msg, std::string* reason) {
    std::istringstream in(line);
    unsigned long number = 0;
    std::string id;
    if (!(in >> number >> id) || number == 0 || number > 65535) {
        *reason = "expected NUMBER IDENTIFIER TEXT";
        return false;
    }
    if (!validId(id)) {
        *reason = "bad identifier '" + id + "'";
        return false;
    }
    std::string raw;
    std::getline(in >> std::ws, raw);
    if (!unescape(raw, &msg->text) || !textBytesValid(msg->text)) {
        *reason = "bad escape or control character in text";
        return false;
    }
    msg->number = static_cast<uint16_t>(number);
    msg->id = id;
    return true;
}

// Reads "%N$" when present; returns the characters it takes (0 when none).
size_t positional(const std::string& text, size_t i, int* argNumber) {
    size_t j = i + 1;
    int value = 0;
    for (; j < text.size() && text[j] >= '0' && text[j] <= '9'; ++j) {
        value = value * 10 + (text[j] - '0');
        if (value > 99) return 0;
    }
    if (j == i + 1 || j >= text.size() || text[j] != '$') return 0;
    *argNumber = value;
    return j - i;
}

bool scanText(const std::string& text, std::vector<std::string>* pieces, std::vector<Insert>* inserts,
              bool* anyPositional, std::string* error) {
    pieces->assign(1, std::string());
    std::set<bool> styles;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            pieces->back().push_back(text[i]);
            continue;
        }
        if (i + 1 < text.size() && text[i + 1] == '%') {
            pieces->back().push_back('%');
            ++i;
            continue;
        }
        int argNumber = 0;
        size_t skip = positional(text, i, &argNumber);
        std::string rest = "%" + text.substr(i + 1 + skip);
        Insert ins;
        if (!nlParseConversion(rest.c_str(), rest.size(), &ins.parsed)) {
            *error = "unsupported conversion at offset " + std::to_string(i);
            return false;
        }
        if (skip > 0 && ins.parsed.stars > 0) {
            *error = "a reordered insert cannot take '*' values";
            return false;
        }
        ins.conv = rest.substr(0, ins.parsed.length);
        ins.argIndex = skip > 0 ? argNumber - 1 : static_cast<int>(inserts->size());
        styles.insert(skip > 0);
        inserts->push_back(ins);
        pieces->emplace_back();
        i += skip + ins.parsed.length - 1;
    }
    *anyPositional = styles.count(true) > 0;
    if (styles.size() > 1) *error = "numbered and plain inserts are mixed";
    return styles.size() <= 1;
}

// Every argument must be placed exactly once, so that each has one descriptor.
bool checkArguments(const std::vector<Insert>& inserts, std::string* error) {
    if (inserts.size() > NL_MAX_INSERTS) {
        *error = "more than " + std::to_string(NL_MAX_INSERTS) + " inserts";
        return false;
    }
    std::vector<int> used(inserts.size(), 0);
    for (const Insert& ins : inserts) {
        if (ins.argIndex < 0 || ins.argIndex >= static_cast<int>(inserts.size()) || used[ins.argIndex]++ > 0) {
            *error = "inserts must number the arguments 1 to " + std::to_string(inserts.size()) + " once each";
            return false;
        }
    }
    return true;
}

std::string orderedBody(const std::vector<std::string>& pieces, const std::vector<Insert>& inserts) {
    std::string body;
    body.push_back(static_cast<char>(NL_KIND_ORDERED));
    body.push_back(static_cast<char>(NL_MASK_BYTE2_ZERO | NL_MASK_BYTE3_ZERO));
    body.append(3, '\0');
    body.push_back(static_cast<char>(inserts.size()));
    for (const Insert& ins : inserts) body.push_back(static_cast<char>(ins.argIndex));
    for (size_t arg = 0; arg < inserts.size(); ++arg) {
        for (const Insert& ins : inserts) {
            if (ins.argIndex != static_cast<int>(arg)) continue;
            body.push_back(static_cast<char>(ins.parsed.stars));
            body.push_back(static_cast<char>(ins.parsed.type));
            body += ins.conv;
            body.push_back('\0');
        }
    }
    for (const std::string& piece : pieces) {
        body += piece;
        body.push_back('\0');
    }
    return body;
}

bool fastPathLetters(const std::vector<Insert>& inserts) {
    for (const Insert& ins : inserts) {
        if (strchr("cdeEfgGiopsuxX", ins.parsed.letter) == nullptr) return false;
    }
    return true;
}

}  // namespace

bool parseSource(const std::string& content, const std::string& fileName, std::vector<SourceMessage>* out,
                 std::string* error) {
    std::istringstream in(content);
    std::string line;
    std::string joined;
    int lineNo = 0;
    int startLine = 0;
    while (std::getline(in, line)) {
        ++lineNo;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (joined.empty()) startLine = lineNo;
        bool continues = !line.empty() && line.back() == '\\' && (line.size() < 2 || line[line.size() - 2] != '\\');
        joined += continues ? line.substr(0, line.size() - 1) : line;
        if (continues) continue;
        size_t first = joined.find_first_not_of(" \t");
        if (first != std::string::npos && joined[first] != '#') {
            SourceMessage msg;
            std::string reason;
            if (!parseLine(joined, &msg, &reason)) {
                *error = where(fileName, startLine) + reason;
                return false;
            }
            msg.line = startLine;
            out->push_back(msg);
        }
        joined.clear();
    }
    return true;
}

bool compileText(const std::string& text, bool allowFastPath, std::string* body, std::string* error) {
    std::vector<std::string> pieces;
    std::vector<Insert> inserts;
    bool anyPositional = false;
    if (!scanText(text, &pieces, &inserts, &anyPositional, error) || !checkArguments(inserts, error)) return false;
    if (allowFastPath && !anyPositional && fastPathLetters(inserts)) {
        *body = std::string(1, static_cast<char>(NL_KIND_FASTPATH)) + text;
    } else {
        *body = orderedBody(pieces, inserts);
    }
    return true;
}

std::string storedText(const std::string& id, const std::string& body, const std::string& trailer) {
    std::string stored = id + " " + body;
    for (size_t i = id.size() + 1; i < stored.size(); ++i) {
        if (stored[i] == '\0') stored[i] = static_cast<char>(NL_ZERO_STANDIN);
    }
    if (!trailer.empty()) stored += static_cast<char>(NL_TRAILER_MARK) + trailer;
    return stored;
}

std::string gencatLine(uint16_t number, const std::string& stored) {
    std::string line = std::to_string(number) + " ";
    for (unsigned char c : stored) {
        if (c == '\\') {
            line += "\\\\";
        } else if (c == '\n') {
            line += "\\n";
        } else if (c < 0x20 || c == 0x7f) {
            char octal[8];
            snprintf(octal, sizeof(octal), "\\%03o", c);
            line += octal;
        } else {
            line.push_back(static_cast<char>(c));
        }
    }
    return line + "\n";
}

bool mergeSource(const std::vector<SourceMessage>& messages, const std::string& fileName,
                 std::map<uint16_t, SourceMessage>* catalogue, std::string* error) {
    std::set<uint16_t> seen;
    for (const SourceMessage& msg : messages) {
        if (!seen.insert(msg.number).second) {
            *error = where(fileName, msg.line) + "message " + std::to_string(msg.number) + " appears twice";
            return false;
        }
        auto known = catalogue->find(msg.number);
        if (known != catalogue->end() && known->second.id != msg.id) {
            *error = where(fileName, msg.line) + "message " + std::to_string(msg.number) + " is " + known->second.id +
                     " elsewhere, not " + msg.id;
            return false;
        }
        (*catalogue)[msg.number] = msg;
    }
    return true;
}

bool gencatSource(const std::map<uint16_t, SourceMessage>& catalogue, std::string* out, std::string* error) {
    *out = "$set 1\n";
    for (const auto& entry : catalogue) {
        std::string body;
        std::string reason;
        if (!compileText(entry.second.text, true, &body, &reason)) {
            *error = "message " + std::to_string(entry.first) + " (" + entry.second.id + "): " + reason;
            return false;
        }
        *out += gencatLine(entry.first, storedText(entry.second.id, body));
    }
    return true;
}

}  // namespace msgc
