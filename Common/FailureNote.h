// The reason a failed run gives a person at a terminal: the last error message the
// run logged, or the complaint of a command that failed without a message of its own.
// Process-wide and unguarded: the tool is single-threaded.
#ifndef COMMON_FAILURENOTE_H
#define COMMON_FAILURENOTE_H

#include <string>

// Remembers the last line of text that is not blank, trimmed; text that is all blank
// leaves the earlier note in place.
void noteFailure(const std::string& text);
// The latest note, empty when there is none.
const std::string& lastFailure();
void clearFailure();

#endif
