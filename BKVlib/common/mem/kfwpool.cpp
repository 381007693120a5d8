// The pool's side towards the system: its lock, the regions it owns, segments and
// direct blocks coming and going.
#include "BKVlib/common/mem/kfwpool.h"

#include <sched.h>

#include <algorithm>
#include <new>

namespace kfw {

void PoolLock::waitUntilFree() {
    // A holder that lost its processor keeps the lock for a whole time slice: after a
    // short spin, give the processor away instead of burning it.
    constexpr int kSpins = 100;
    for (int i = 0; held_.load(std::memory_order_relaxed); ++i) {
        if (i >= kSpins) sched_yield();
    }
}

void noteCounts(Pool& p) {
    p.stats.maxSegments = std::max(p.stats.maxSegments, p.stats.segments);
    p.stats.maxDirectBlocks = std::max(p.stats.maxDirectBlocks, p.stats.directBlocks);
}

bool addRegion(Pool& p, const void* base, size_t length, bool direct) {
    Region r = {reinterpret_cast<uintptr_t>(base), reinterpret_cast<uintptr_t>(base) + length, direct};
    auto at = std::lower_bound(p.regions.begin(), p.regions.end(), r,
                               [](const Region& a, const Region& b) { return a.begin < b.begin; });
    try {
        p.regions.insert(at, r);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void dropRegion(Pool& p, const void* base) {
    uintptr_t key = reinterpret_cast<uintptr_t>(base);
    auto at = std::lower_bound(p.regions.begin(), p.regions.end(), key,
                               [](const Region& a, uintptr_t k) { return a.begin < k; });
    if (at != p.regions.end() && at->begin == key) p.regions.erase(at);
    if (p.lastRegion.begin == key) p.lastRegion = {0, 0, false};
}

const Region* searchRegion(Pool& p, uintptr_t addr) {
    auto at = std::upper_bound(p.regions.begin(), p.regions.end(), addr,
                               [](uintptr_t k, const Region& r) { return k < r.begin; });
    const Region* found = nullptr;
    if (at != p.regions.begin() && addr < (at - 1)->end) {
        p.lastRegion = *(at - 1);
        found = &p.lastRegion;
    }
    return found;
}

namespace {

// Gives seg a free slot of the segment table; false when the table is full.
bool numberSegment(Pool& p, Segment* seg) {
    auto slot = std::find(p.table.begin(), p.table.end(), nullptr);
    bool ok = slot != p.table.end() || p.table.size() < kMaxSegments;
    if (ok && slot == p.table.end()) {
        try {
            p.table.push_back(nullptr);
        } catch (const std::bad_alloc&) {
            ok = false;
        }
        slot = p.table.end() - 1;
    }
    if (ok) {
        *slot = seg;
        seg->index = static_cast<uint32_t>(slot - p.table.begin());
    }
    return ok;
}

void linkSegment(Pool& p, Segment* seg) {
    if (!p.segments) {
        seg->next = seg->prev = seg;
        p.segments = seg;
    } else {
        seg->next = p.segments;
        seg->prev = p.segments->prev;
        seg->prev->next = seg;
        p.segments->prev = seg;
    }
}

}  // namespace

void* systemAlloc(Pool& p, size_t length, bool askHandler) {
    void* block = p.system.alloc(length);
    KfwOutOfMemoryHandler handler = askHandler ? p.outOfMemory : nullptr;
    if (!block && handler) {
        bool wasLocked = p.locked;
        if (wasLocked) {
            p.locked = false;
            p.lock.unlock();
        }
        bool again = handler(length) != 0;
        if (wasLocked) {
            p.lock.lock();
            p.locked = true;
        }
        if (again) block = p.system.alloc(length);
    }
    return block;
}

bool newSegment(Pool& p) {
    Segment* seg = static_cast<Segment*>(systemAlloc(p, kSegBytes, true));
    if (seg && !numberSegment(p, seg)) {
        p.system.release(seg);
        seg = nullptr;
    }
    if (seg && !addRegion(p, seg, kSegBytes, false)) {
        p.table[seg->index] = nullptr;
        p.system.release(seg);
        seg = nullptr;
    }
    if (seg) {
        linkSegment(p, seg);
        *firstBlock(seg) = {KF_MAGIC_FREE, 0, kWholeBlock};
        *sentinelOf(seg) = {KF_MAGIC_BUSY, static_cast<uint16_t>(kWholeBlock), kSentinelSize};
        pushFree(p, seg, firstBlock(seg));
        p.stats.freeBytes += kWholeBlock;
        ++p.stats.segments;
        noteCounts(p);
    }
    return seg != nullptr;
}

void releaseSegment(Pool& p, Segment* seg) {
    removeFree(p, firstBlock(seg));
    p.stats.freeBytes -= kWholeBlock;
    --p.stats.segments;
    if (seg->next == seg) {
        p.segments = nullptr;
    } else {
        seg->prev->next = seg->next;
        seg->next->prev = seg->prev;
        if (p.segments == seg) p.segments = seg->next;
    }
    dropRegion(p, seg);
    p.table[seg->index] = nullptr;
    p.system.release(seg);
}

void* dirAlloc(Pool& p, size_t size) {
    size_t length = sizeof(DirBlock) + kHead + size;
    DirBlock* d = length > size ? static_cast<DirBlock*>(systemAlloc(p, length, false)) : nullptr;
    if (d && !addRegion(p, d, length, true)) {
        p.system.release(d);
        d = nullptr;
    }
    void* result = nullptr;
    if (d) {
        d->size = length;
        d->prev = nullptr;
        d->next = p.direct;
        if (p.direct) p.direct->prev = d;
        p.direct = d;
        *dirHeadOf(d) = {KF_MAGIC_BUSY, 0, 0};
        p.stats.allocated += static_cast<long>(length);
        ++p.stats.directBlocks;
        noteCounts(p);
        result = payloadOf(dirHeadOf(d));
    }
    return result;
}

void dirFree(Pool& p, CBlkHead* b) {
    DirBlock* d = reinterpret_cast<DirBlock*>(b) - 1;
    if (d->prev) {
        d->prev->next = d->next;
    } else {
        p.direct = d->next;
    }
    if (d->next) d->next->prev = d->prev;
    p.stats.allocated -= static_cast<long>(d->size);
    --p.stats.directBlocks;
    dropRegion(p, d);
    p.system.release(d);
}

}  // namespace kfw
