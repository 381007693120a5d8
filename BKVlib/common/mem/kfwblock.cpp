// Blocks inside segments: carving, freeing with merging, growing in place. The
// operations are named plainly (not in an unnamed namespace) because an assertion
// reports the function that found the damage.
#include "BKVlib/common/mem/kfwblock.h"

#include <cstring>

// The pool's own layout and helpers, shared with its other files.
using namespace kfw;

namespace {

BlockRef firstFit(Pool& p, int32_t needed) {
    BlockRef ref = p.freeList;
    while (ref != kNoBlock && blockOf(p, ref)->bSize < needed) ref = linksOf(blockOf(p, ref))->next;
    return ref;
}

}  // namespace

// Hands out needed bytes of free block b, cutting them from its end when the rest is
// worth keeping.
static void* KfwCarve(Pool& p, CBlkHead* b, int32_t needed) {
    void* result = nullptr;
    if (KFW_ASSERT(b->magic == KF_MAGIC_FREE && b->bSize >= needed, b)) {
        int32_t rest = b->bSize - needed;
        CBlkHead* next = following(b, b->bSize);
        CBlkHead* busy = b;
        if (rest < kMinSplit) {
            removeFree(p, b);
            needed = b->bSize;
            b->bSize = -b->bSize;
            b->magic = KF_MAGIC_BUSY;
        } else {
            b->bSize = rest;
            busy = following(b, rest);
            *busy = {KF_MAGIC_BUSY, static_cast<uint16_t>(rest), -needed};
        }
        next->prevFree = 0;
        p.stats.freeBytes -= needed;
        p.stats.allocated += needed;
        result = payloadOf(busy);
    }
    return result;
}

void* KfwBlockAlloc(Pool& p, size_t size) {
    void* result = nullptr;
    if (KFW_ASSERT(size > 0, nullptr)) {
        if (size > static_cast<size_t>(KF_SEG_SIZE)) {
            result = dirAlloc(p, size);
        } else {
            int32_t needed = neededSize(size);
            BlockRef ref = firstFit(p, needed);
            if (ref == kNoBlock && newSegment(p)) ref = firstFit(p, needed);
            if (ref != kNoBlock) result = KfwCarve(p, blockOf(p, ref), needed);
        }
    }
    return result;
}

void* KfwBlock0Alloc(Pool& p, size_t size) {
    void* result = KfwBlockAlloc(p, size);
    if (result) memset(result, 0, size);
    return result;
}

// Makes busy block b (of the segment starting at region) free, merging it with free
// neighbours; returns the segment to the system once it is empty again.
static KfwBlockState KfwSegBlockFree(Pool& p, CBlkHead* b, const Region& region) {
    Segment* seg = reinterpret_cast<Segment*>(region.begin);
    if (!KFW_ASSERT(busyBlockFits(b, seg), b)) return KfwBlockState::Broken;
    int32_t size = -b->bSize;
    CBlkHead* prev = reinterpret_cast<CBlkHead*>(bytes(b) - b->prevFree);
    bool prevOk = b->prevFree == 0 || (bytes(prev) >= bytes(firstBlock(seg)) &&
                                        prev->magic == KF_MAGIC_FREE && prev->bSize == b->prevFree);
    if (!KFW_ASSERT(prevOk, b)) return KfwBlockState::Broken;
    CBlkHead* next = following(b, size);
    p.stats.allocated -= size;
    p.stats.freeBytes += size;
    b->magic = KF_MAGIC_FREE;
    CBlkHead* merged = prev;
    if (b->prevFree != 0) {
        prev->bSize += size;
    } else {
        b->bSize = size;
        pushFree(p, seg, b);
        merged = b;
    }
    if (freeBlockFits(next, seg) && following(next, next->bSize)->prevFree == next->bSize) {
        removeFree(p, next);
        merged->bSize += next->bSize;
    }
    CBlkHead* after = following(merged, merged->bSize);
    KFW_ASSERT(after->magic == KF_MAGIC_BUSY, after);
    after->prevFree = static_cast<uint16_t>(merged->bSize);
    if (merged->bSize == kWholeBlock && merged->prevFree == 0 && isSentinel(after)) {
        releaseSegment(p, seg);
    }
    return KfwBlockState::Ok;
}

KfwBlockState KfwBlockFree(Pool& p, void* pointer) {
    const Region* region = nullptr;
    CBlkHead* b = pointer ? findBlock(p, pointer, &region) : nullptr;
    KfwBlockState state = pointer ? KfwBlockState::Unknown : KfwBlockState::NullPointer;
    if (b && b->magic == KF_MAGIC_FREE) {
        state = KfwBlockState::FreeBlock;
    } else if (b && b->magic == KF_MAGIC_BUSY && region->direct) {
        dirFree(p, b);
        state = KfwBlockState::Ok;
    } else if (b && b->magic == KF_MAGIC_BUSY) {
        state = KfwSegBlockFree(p, b, *region);
    }
    return state;
}

// Grows busy block b in place by taking in the free block after it; false when that
// block is missing or too small.
static bool KfwGrowInPlace(Pool& p, CBlkHead* b, Segment* seg, int32_t needed) {
    int32_t size = -b->bSize;
    CBlkHead* next = following(b, size);
    bool grown = freeBlockFits(next, seg) && size + next->bSize >= needed;
    if (grown) {
        removeFree(p, next);
        int32_t total = size + next->bSize;
        CBlkHead* after = following(next, next->bSize);
        int32_t rest = total - needed;
        int32_t taken = rest < kMinSplit ? total : needed;
        b->bSize = -taken;
        after->prevFree = 0;
        if (taken != total) {
            CBlkHead* tail = following(b, taken);
            *tail = {KF_MAGIC_FREE, 0, rest};
            pushFree(p, seg, tail);
            after->prevFree = static_cast<uint16_t>(rest);
        }
        p.stats.freeBytes -= taken - size;
        p.stats.allocated += taken - size;
    }
    return grown;
}

KfwBlockState KfwBlockRealloc(Pool& p, void* pointer, size_t size, void** result) {
    const Region* region = nullptr;
    CBlkHead* b = findBlock(p, pointer, &region);
    KfwBlockState state = KfwBlockState::Unknown;
    if (b && b->magic == KF_MAGIC_FREE) {
        state = KfwBlockState::FreeBlock;
    } else if (b && b->magic == KF_MAGIC_BUSY &&
               KFW_ASSERT(region->direct || busyBlockFits(b, reinterpret_cast<Segment*>(region->begin)), b)) {
        size_t oldPayload = region->direct ? region->end - region->begin - sizeof(DirBlock) - kHead
                                           : static_cast<size_t>(-b->bSize - kHead);
        bool small = size <= static_cast<size_t>(KF_SEG_SIZE);
        if (oldPayload >= size || (!region->direct && small &&
                                   KfwGrowInPlace(p, b, reinterpret_cast<Segment*>(region->begin),
                                                  neededSize(size)))) {
            *result = pointer;
        } else {
            *result = KfwBlockAlloc(p, size);
            if (*result) {
                memcpy(*result, pointer, oldPayload);
                KfwBlockFree(p, pointer);
            }
        }
        state = *result ? KfwBlockState::Ok : KfwBlockState::NoMemory;
    }
    return state;
}
