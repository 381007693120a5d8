// The pool's block operations: first-fit allocation, freeing with merging, growing in
// place. Each runs with the pool guarded by its public caller (see kfwpool.h).
#ifndef BKVLIB_COMMON_MEM_KFWBLOCK_H
#define BKVLIB_COMMON_MEM_KFWBLOCK_H

#include <cstddef>

#include "BKVlib/common/mem/kfwpool.h"

// What a block operation found behind the caller's pointer. Broken means an assertion
// failed and has been reported already.
enum class KfwBlockState { Ok, NullPointer, Unknown, FreeBlock, Broken, NoMemory };

// A block of size bytes (1 or more), cut from a segment or, above KF_SEG_SIZE, a
// direct block; null when memory runs out. The 0 variant clears the payload.
void* KfwBlockAlloc(kfw::Pool& p, size_t size);
void* KfwBlock0Alloc(kfw::Pool& p, size_t size);
KfwBlockState KfwBlockFree(kfw::Pool& p, void* pointer);
// Ok with *result the block now holding the contents; NoMemory leaves pointer as it was.
KfwBlockState KfwBlockRealloc(kfw::Pool& p, void* pointer, size_t size, void** result);

#endif
