// Looking inside the memory pool: the pool check and the dumps it writes into the
// MEMORY trace class.
#ifndef BKVLIB_COMMON_MEM_KFWCHECK_H
#define BKVLIB_COMMON_MEM_KFWCHECK_H

#include <cstddef>
#include <cstdint>
#include <string>

// Walks every segment and direct block and dumps them with the statistics into the
// MEMORY trace class; RC_OK, or RC_POOL_DAMAGED when a header or a link is wrong.
int32_t KfwPoolCheck();
// Dumps the bytes of the block behind pointer (header included) into the MEMORY trace.
void KfwBlockDump(const void* pointer);
// The dump text of length bytes: 16 per line, hex then characters; runs of lines
// identical to the one above are folded into one note.
std::string KfwFormatBytes(const unsigned char* bytes, size_t length);

#endif
