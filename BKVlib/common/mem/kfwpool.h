// Inside the memory pool: how segments, direct blocks and free-list links are laid out,
// the one pool of the process and the lock that guards all of it. Only the pool's own
// files include this header.
//
// Segments form a circular list; inside one, blocks follow each other by size up to
// an end sentinel whose size is the most negative 32-bit value, so every walk stops
// there. Free blocks of all segments are chained through their payloads (first fit).
// A link is 32 bits, a segment number and an offset, so that the 8-byte payload of the
// smallest block holds both links on a 64-bit host as well.
// A pointer handed back by a caller is first located among the pool's own memory
// regions; only then is the header in front of it read, so a foreign or stale
// pointer is reported instead of followed.
#ifndef BKVLIB_COMMON_MEM_KFWPOOL_H
#define BKVLIB_COMMON_MEM_KFWPOOL_H

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "BKVlib/common/mem/kfwlayout.h"
#include "BKVlib/common/unx/psthread.h"

namespace kfw {

constexpr int32_t kHead = static_cast<int32_t>(sizeof(CBlkHead));
// A free block of KF_SEG_SIZE + 8 bytes spans a whole segment.
constexpr int32_t kWholeBlock = KF_SEG_SIZE + kHead;
// A remainder smaller than this is handed out with the block rather than split off.
constexpr int32_t kMinSplit = 17;
// Block sizes are multiples of 8: every payload is then 8-aligned, and the smallest
// remainder that is split off (24) holds a free block's two list links.
constexpr int32_t kGrain = 8;
constexpr int32_t kSentinelSize = INT32_MIN;

struct Segment {
    Segment* prev;
    Segment* next;
    uint32_t index;  // slot in the segment table, the upper half of a block link
    uint32_t unused;
};

struct DirBlock {
    DirBlock* prev;
    DirBlock* next;
    size_t size;  // whole system allocation
};

typedef uint32_t BlockRef;
constexpr BlockRef kNoBlock = UINT32_MAX;
constexpr size_t kMaxSegments = 0xFFFF;  // kNoBlock's segment number stays unused

struct FreeLinks {
    BlockRef next;
    BlockRef prev;
};

// A system allocation of the pool: a segment or a direct block.
struct Region {
    uintptr_t begin;
    uintptr_t end;
    bool direct;
};

constexpr size_t kSegBytes = (sizeof(Segment) + kWholeBlock + kHead + kGrain - 1) / kGrain * kGrain;

// A spinning lock without owner bookkeeping. A pool call holds it for a few dozen
// instructions, far less than a sleeping mutex costs to take, and no pool call takes
// it twice on one thread: the only outside code run while it is held is the trace and
// the system allocator (the out-of-memory handler runs with it let go).
class PoolLock {
public:
    void lock() {
        while (held_.exchange(true, std::memory_order_acquire)) waitUntilFree();
    }
    void unlock() { held_.store(false, std::memory_order_release); }

private:
    void waitUntilFree();
    std::atomic<bool> held_{false};
};

struct Pool {
    Segment* segments = nullptr;
    DirBlock* direct = nullptr;
    BlockRef freeList = kNoBlock;
    std::vector<Segment*> table;  // by segment number; null slots are reused
    std::vector<Region> regions;  // sorted by begin
    Region lastRegion = {0, 0, false};  // a copy of the region found last; empty when none
    KfwStats stats = {};
    KfwOutOfMemoryHandler outOfMemory = nullptr;
    KfwSystemAllocator system = {malloc, free};
    PoolLock lock;
    bool locked = false;  // the lock is taken by the running call, not skipped
};

// Built on first use, so a static initialiser elsewhere may already allocate.
inline Pool& pool() {
    static Pool thePool;
    return thePool;
}

// Holds the pool lock for one scope; skipped like every lock of the thread layer
// while the process is single-threaded or shutting down.
class PoolGuard {
public:
    explicit PoolGuard(Pool& p) : pool_(psIsSingleThreaded() || psShutdownBegun() ? nullptr : &p) {
        if (pool_) {
            pool_->lock.lock();
            pool_->locked = true;
        }
    }
    ~PoolGuard() {
        if (pool_) {
            pool_->locked = false;
            pool_->lock.unlock();
        }
    }
    PoolGuard(const PoolGuard&) = delete;
    PoolGuard& operator=(const PoolGuard&) = delete;

private:
    Pool* pool_;
};

inline char* bytes(void* p) { return static_cast<char*>(p); }
inline CBlkHead* headOf(void* payload) { return reinterpret_cast<CBlkHead*>(bytes(payload) - kHead); }
inline void* payloadOf(CBlkHead* b) { return bytes(b) + kHead; }
inline CBlkHead* following(CBlkHead* b, int32_t size) { return reinterpret_cast<CBlkHead*>(bytes(b) + size); }
inline FreeLinks* linksOf(CBlkHead* b) { return static_cast<FreeLinks*>(payloadOf(b)); }
inline CBlkHead* firstBlock(Segment* seg) { return reinterpret_cast<CBlkHead*>(seg + 1); }
inline CBlkHead* sentinelOf(Segment* seg) { return following(firstBlock(seg), kWholeBlock); }
inline CBlkHead* dirHeadOf(DirBlock* d) { return reinterpret_cast<CBlkHead*>(d + 1); }
inline bool isSentinel(const CBlkHead* b) { return b->magic == KF_MAGIC_BUSY && b->bSize == kSentinelSize; }

// A header read from a segment is trusted only when its size keeps it inside.
inline bool busyBlockFits(CBlkHead* b, Segment* seg) {
    return b->magic == KF_MAGIC_BUSY && b->bSize < 0 && b->bSize >= -kWholeBlock &&
           bytes(b) - b->bSize <= bytes(sentinelOf(seg));
}
inline bool freeBlockFits(CBlkHead* b, Segment* seg) {
    return b->magic == KF_MAGIC_FREE && b->bSize > 0 && b->bSize <= kWholeBlock &&
           bytes(b) + b->bSize <= bytes(sentinelOf(seg));
}

// Block size with header for a request of 1 to KF_SEG_SIZE bytes.
inline int32_t neededSize(size_t size) {
    return static_cast<int32_t>((size + kGrain - 1) / kGrain * kGrain + kHead);
}

inline BlockRef refOf(Segment* seg, CBlkHead* b) {
    return seg->index << 16 | static_cast<uint32_t>(bytes(b) - bytes(seg));
}
inline Segment* segmentOf(Pool& p, BlockRef ref) { return p.table[ref >> 16]; }
inline CBlkHead* blockOf(Pool& p, BlockRef ref) {
    return reinterpret_cast<CBlkHead*>(bytes(segmentOf(p, ref)) + (ref & 0xFFFF));
}

inline void pushFree(Pool& p, Segment* seg, CBlkHead* b) {
    BlockRef ref = refOf(seg, b);
    FreeLinks* l = linksOf(b);
    l->next = p.freeList;
    l->prev = kNoBlock;
    if (p.freeList != kNoBlock) linksOf(blockOf(p, p.freeList))->prev = ref;
    p.freeList = ref;
}

inline void removeFree(Pool& p, CBlkHead* b) {
    FreeLinks* l = linksOf(b);
    if (l->prev != kNoBlock) {
        linksOf(blockOf(p, l->prev))->next = l->next;
    } else {
        p.freeList = l->next;
    }
    if (l->next != kNoBlock) linksOf(blockOf(p, l->next))->prev = l->prev;
}

// The region holding addr, or null; valid until the next lookup. The region of the
// last call is tried first: frees tend to follow allocations from the same segment.
const Region* searchRegion(Pool& p, uintptr_t addr);
inline const Region* regionOf(Pool& p, uintptr_t addr) {
    const Region& last = p.lastRegion;
    return addr - last.begin < last.end - last.begin ? &last : searchRegion(p, addr);
}

// The header of the block behind payload, or null when payload is not where a block
// of this pool can start.
inline CBlkHead* findBlock(Pool& p, const void* payload, const Region** region) {
    uintptr_t addr = reinterpret_cast<uintptr_t>(payload);
    const Region* r = regionOf(p, addr);
    bool inside = r && (r->direct ? addr == r->begin + sizeof(DirBlock) + kHead
                                  : addr >= r->begin + sizeof(Segment) + kHead &&
                                        addr < r->begin + sizeof(Segment) + kWholeBlock && addr % kGrain == 0);
    if (inside) *region = r;
    return inside ? headOf(const_cast<void*>(payload)) : nullptr;
}

// Asks the system for length bytes; with askHandler, a failure goes to the out-of-memory
// handler (run with the pool lock let go, so it may free pool blocks) and is tried once more.
void* systemAlloc(Pool& p, size_t length, bool askHandler);
// Adds a segment with one free block spanning it; false when no memory or segment
// number is left.
bool newSegment(Pool& p);
// Hands an empty segment (one free block spanning it) back to the system.
void releaseSegment(Pool& p, Segment* seg);
// Records a system allocation as the pool's; false when the record cannot grow.
bool addRegion(Pool& p, const void* base, size_t length, bool direct);
void dropRegion(Pool& p, const void* base);
void noteCounts(Pool& p);
// A direct block of size payload bytes, or null; and its return to the system.
void* dirAlloc(Pool& p, size_t size);
void dirFree(Pool& p, CBlkHead* b);

// Misuse goes to the trace and to standard error: a double free or a stray pointer
// is a programming error that must be seen even when no trace is running.
void report(const char* file, int line, const char* format, ...) __attribute__((format(printf, 3, 4), cold));
inline const char* fileText(const char* file) { return file ? file : "<unknown>"; }

}  // namespace kfw

// Reports a broken pool invariant with the function that found it; the condition's value.
#define KFW_ASSERT(cond, addr)                                                                        \
    ((cond) ? true                                                                                    \
            : (kfw::report(__PRETTY_FUNCTION__, __LINE__, "Assertion failed. Addr %p, File %s, Line %d\n", \
                           static_cast<const void*>(addr), __PRETTY_FUNCTION__, __LINE__),              \
               false))

#endif
