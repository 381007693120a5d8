// The runtime library's memory pool: small blocks are carved out of large segments
// taken from the system allocator, large blocks ("direct blocks") get a system
// allocation of their own. Every call carries the caller's file and line so that
// misuse is reported where it happened (MEMORY trace class and standard error).
// One pool per process, guarded by the pool lock: every call may come from any thread.
#ifndef BKVLIB_COMMON_MEM_KFWEM_H
#define BKVLIB_COMMON_MEM_KFWEM_H

#include <cstddef>
#include <cstdint>

#include "BKVlib/common/mem/kfwcheck.h"

// Usable bytes of one segment; a request above it becomes a direct block.
constexpr int32_t KF_SEG_SIZE = 65384;
constexpr uint16_t KF_MAGIC_FREE = 0x5386;
constexpr uint16_t KF_MAGIC_BUSY = 0x3917;

// Header in front of every block; the caller's pointer is header + 8.
struct CBlkHead {
    uint16_t magic;     // KF_MAGIC_FREE or KF_MAGIC_BUSY
    uint16_t prevFree;  // size of the block just before when that one is free, else 0
    int32_t bSize;      // size with header: > 0 free, < 0 busy, 0 direct block
};

// The public calls. Each returns null (and reports why) on a wrong call or when
// memory runs out; kfRealloc(nullptr, ...) is reported and acts as kfMalloc; a failed
// kfRealloc leaves the old block untouched. Bad pointers given to kfFree and
// kfRealloc are reported, never followed outside the pool's own memory.
void* kfMalloc(size_t size, const char* file, int line);
void* kfCalloc(size_t count, size_t size, const char* file, int line);
void* kfRealloc(void* pointer, size_t size, const char* file, int line);
void kfFree(void* pointer, const char* file, int line);

#define KF_MALLOC(size) kfMalloc((size), __FILE__, __LINE__)
#define KF_CALLOC(count, size) kfCalloc((count), (size), __FILE__, __LINE__)
#define KF_REALLOC(pointer, size) kfRealloc((pointer), (size), __FILE__, __LINE__)
#define KF_FREE(pointer) kfFree((pointer), __FILE__, __LINE__)

struct KfwStats {
    long allocated;        // bytes of busy blocks and direct blocks, headers included
    long freeBytes;        // bytes of free blocks inside segments
    long segments;
    long directBlocks;
    long maxSegments;      // highest segment count ever reached
    long maxDirectBlocks;  // highest direct block count ever reached
};
void KfwGetStats(KfwStats* stats);

// Called when the system allocator fails while a segment is being obtained; a
// non-zero result asks for one more try. It runs without the pool lock, so it may
// free pool blocks. Null removes the handler.
typedef int (*KfwOutOfMemoryHandler)(size_t size);
void KfwSetOutOfMemoryHandler(KfwOutOfMemoryHandler handler);

// Where segments and direct blocks come from (malloc and free by default). Change
// it only while the pool holds nothing, or with a release that accepts earlier blocks.
struct KfwSystemAllocator {
    void* (*alloc)(size_t size);
    void (*release)(void* block);
};
void KfwSetSystemAllocator(const KfwSystemAllocator* allocator);  // null: malloc and free

#endif
