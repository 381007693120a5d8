// Splitting a path name the way the library's logs and the trace name their
// neighbours: no file system access, no normalising.
#ifndef BKVLIB_COMMON_UT_PATHNAME_H
#define BKVLIB_COMMON_UT_PATHNAME_H

#include <string>

// The directory part of path ("." when it has none, "/" for a name in the root) and
// the part after the last "/".
std::string utDirName(const std::string& path);
std::string utBaseName(const std::string& path);

#endif
