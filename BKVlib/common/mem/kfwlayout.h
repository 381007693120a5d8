// The memory pool's public layout and types: what a block header looks like and the
// types of the pool's settings. Kept apart from the calls so that the pool's inside can
// use them without reaching back up to the public interface.
#ifndef BKVLIB_COMMON_MEM_KFWLAYOUT_H
#define BKVLIB_COMMON_MEM_KFWLAYOUT_H

#include <cstddef>
#include <cstdint>

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

struct KfwStats {
    long allocated;        // bytes of busy blocks and direct blocks, headers included
    long freeBytes;        // bytes of free blocks inside segments
    long segments;
    long directBlocks;
    long maxSegments;      // highest segment count ever reached
    long maxDirectBlocks;  // highest direct block count ever reached
};
// Called when the system allocator fails while a segment is being obtained; a
// non-zero result asks for one more try. It runs without the pool lock, so it may
// free pool blocks.
typedef int (*KfwOutOfMemoryHandler)(size_t size);
// Where segments and direct blocks come from (malloc and free by default).
struct KfwSystemAllocator {
    void* (*alloc)(size_t size);
    void (*release)(void* block);
};

#endif
