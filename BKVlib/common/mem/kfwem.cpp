// Segments form a circular list; inside one, blocks follow each other by size up to
// an end sentinel whose size is the most negative 32-bit value, so every walk stops
// there. Free blocks of all segments are chained through their payloads (first fit).
// A link is 32 bits, a segment number and an offset, so that the 8-byte payload of the
// smallest block holds both links on a 64-bit host as well.
// A pointer handed back by a caller is first located among the pool's own memory
// regions; only then is the header in front of it read, so a foreign or stale
// pointer is reported instead of followed.
#include "BKVlib/common/mem/kfwem.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"

namespace {

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

constexpr size_t kSegBytes =
    (sizeof(Segment) + kWholeBlock + kHead + kGrain - 1) / kGrain * kGrain;

struct Pool {
    Segment* segments = nullptr;
    DirBlock* direct = nullptr;
    BlockRef freeList = kNoBlock;
    std::vector<Segment*> table;  // by segment number; null slots are reused
    std::vector<Region> regions;  // sorted by begin
    size_t lastRegion = 0;        // index of the region found last
    KfwStats stats = {};
    KfwOutOfMemoryHandler outOfMemory = nullptr;
    KfwSystemAllocator system = {malloc, free};
    MutexHandle mutex = nullptr;
    Pool() { pkCreateMutex(&mutex); }
};

// Built on first use, so a static initialiser elsewhere may already allocate.
Pool& pool() {
    static Pool thePool;
    return thePool;
}

enum class BlockState { Ok, NullPointer, Unknown, FreeBlock, Broken, NoMemory };

const char* fileText(const char* file) {
    return file ? file : "<unknown>";
}

// Misuse goes to the trace and to standard error: a double free or a stray pointer
// is a programming error that must be seen even when no trace is running.
__attribute__((format(printf, 3, 4))) void report(const char* file, int line, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (trFlags[TR_MEMORY] || trFlags[TR_ERROR]) trPrintf(fileText(file), static_cast<uint32_t>(line), "%s", text);
    fputs(text, stderr);
}

__attribute__((format(printf, 1, 2))) void dumpLine(const char* format, ...) {
    if (!trFlags[TR_MEMORY]) return;
    va_list args;
    va_start(args, format);
    trVPrintf(__FILE__, __LINE__, format, args);
    va_end(args);
}

#define KFW_ASSERT(cond, addr)                                                           \
    ((cond) ? true                                                                       \
            : (report(__PRETTY_FUNCTION__, __LINE__, "Assertion failed. Addr %p, File %s, Line %d\n", \
                      static_cast<const void*>(addr), __PRETTY_FUNCTION__, __LINE__),   \
               false))

char* bytes(void* p) { return static_cast<char*>(p); }
CBlkHead* headOf(void* payload) { return reinterpret_cast<CBlkHead*>(bytes(payload) - kHead); }
void* payloadOf(CBlkHead* b) { return bytes(b) + kHead; }
CBlkHead* following(CBlkHead* b, int32_t size) { return reinterpret_cast<CBlkHead*>(bytes(b) + size); }
FreeLinks* linksOf(CBlkHead* b) { return static_cast<FreeLinks*>(payloadOf(b)); }
CBlkHead* firstBlock(Segment* seg) { return reinterpret_cast<CBlkHead*>(seg + 1); }
CBlkHead* sentinelOf(Segment* seg) { return following(firstBlock(seg), kWholeBlock); }
CBlkHead* dirHeadOf(DirBlock* d) { return reinterpret_cast<CBlkHead*>(d + 1); }
bool isSentinel(const CBlkHead* b) { return b->magic == KF_MAGIC_BUSY && b->bSize == kSentinelSize; }

// A header read from a segment is trusted only when its size keeps it inside.
bool busyBlockFits(CBlkHead* b, Segment* seg) {
    return b->magic == KF_MAGIC_BUSY && b->bSize < 0 && b->bSize >= -kWholeBlock &&
           bytes(b) - b->bSize <= bytes(sentinelOf(seg));
}
bool freeBlockFits(CBlkHead* b, Segment* seg) {
    return b->magic == KF_MAGIC_FREE && b->bSize > 0 && b->bSize <= kWholeBlock &&
           bytes(b) + b->bSize <= bytes(sentinelOf(seg));
}

size_t neededSize(size_t size) {
    size_t rounded = (std::max<size_t>(size, kGrain) + kGrain - 1) / kGrain * kGrain;
    return rounded + kHead;
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
}

// The region holding addr, or null. The region of the last call is tried first:
// frees tend to follow allocations from the same segment.
const Region* regionOf(Pool& p, uintptr_t addr) {
    const Region* found = nullptr;
    if (p.lastRegion < p.regions.size() && addr >= p.regions[p.lastRegion].begin &&
        addr < p.regions[p.lastRegion].end) {
        found = &p.regions[p.lastRegion];
    } else {
        auto at = std::upper_bound(p.regions.begin(), p.regions.end(), addr,
                                   [](uintptr_t k, const Region& r) { return k < r.begin; });
        if (at != p.regions.begin() && addr < (at - 1)->end) {
            found = &*(at - 1);
            p.lastRegion = static_cast<size_t>(at - 1 - p.regions.begin());
        }
    }
    return found;
}

// The header of the block behind payload, or null when payload is not where a block
// of this pool can start.
CBlkHead* findBlock(Pool& p, const void* payload, const Region** region) {
    uintptr_t addr = reinterpret_cast<uintptr_t>(payload);
    const Region* r = regionOf(p, addr);
    bool inside = r && (r->direct ? addr == r->begin + sizeof(DirBlock) + kHead
                                  : addr >= r->begin + sizeof(Segment) + kHead &&
                                        addr < r->begin + sizeof(Segment) + kWholeBlock && addr % kGrain == 0);
    if (inside) *region = r;
    return inside ? headOf(const_cast<void*>(payload)) : nullptr;
}

BlockRef refOf(Segment* seg, CBlkHead* b) {
    return seg->index << 16 | static_cast<uint32_t>(bytes(b) - bytes(seg));
}
Segment* segmentOf(Pool& p, BlockRef ref) { return p.table[ref >> 16]; }
CBlkHead* blockOf(Pool& p, BlockRef ref) {
    return reinterpret_cast<CBlkHead*>(bytes(segmentOf(p, ref)) + (ref & 0xFFFF));
}

void pushFree(Pool& p, Segment* seg, CBlkHead* b) {
    BlockRef ref = refOf(seg, b);
    FreeLinks* l = linksOf(b);
    l->next = p.freeList;
    l->prev = kNoBlock;
    if (p.freeList != kNoBlock) linksOf(blockOf(p, p.freeList))->prev = ref;
    p.freeList = ref;
}

void removeFree(Pool& p, CBlkHead* b) {
    FreeLinks* l = linksOf(b);
    if (l->prev != kNoBlock) {
        linksOf(blockOf(p, l->prev))->next = l->next;
    } else {
        p.freeList = l->next;
    }
    if (l->next != kNoBlock) linksOf(blockOf(p, l->next))->prev = l->prev;
}

BlockRef firstFit(Pool& p, int32_t needed) {
    BlockRef ref = p.freeList;
    while (ref != kNoBlock && blockOf(p, ref)->bSize < needed) ref = linksOf(blockOf(p, ref))->next;
    return ref;
}

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

void* systemAlloc(Pool& p, size_t length, bool askHandler) {
    void* block = p.system.alloc(length);
    if (!block && askHandler && p.outOfMemory && p.outOfMemory(length) != 0) block = p.system.alloc(length);
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
    if (seg && !p.segments) {
        seg->next = seg->prev = seg;
        p.segments = seg;
    } else if (seg) {
        seg->next = p.segments;
        seg->prev = p.segments->prev;
        seg->prev->next = seg;
        p.segments->prev = seg;
    }
    if (seg) {
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

}  // namespace

// The pool's own operations run with the pool mutex held by their public caller.
// They are file-local but outside the unnamed namespace so that an assertion names
// them plainly.

static void* KfwDirAlloc(Pool& p, size_t size) {
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

static void KfwDirFree(Pool& p, CBlkHead* b) {
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

static void* KfwBlockAlloc(Pool& p, size_t size) {
    void* result = nullptr;
    if (KFW_ASSERT(size > 0, nullptr)) {
        if (size > static_cast<size_t>(KF_SEG_SIZE)) {
            result = KfwDirAlloc(p, size);
        } else {
            int32_t needed = static_cast<int32_t>(neededSize(size));
            BlockRef ref = firstFit(p, needed);
            if (ref == kNoBlock && newSegment(p)) ref = firstFit(p, needed);
            if (ref != kNoBlock) result = KfwCarve(p, blockOf(p, ref), needed);
        }
    }
    return result;
}

static void* KfwBlock0Alloc(Pool& p, size_t size) {
    void* result = KfwBlockAlloc(p, size);
    if (result) memset(result, 0, size);
    return result;
}

// Makes busy block b (of the segment starting at region) free, merging it with free
// neighbours; returns the segment to the system once it is empty again.
static BlockState KfwSegBlockFree(Pool& p, CBlkHead* b, const Region& region) {
    Segment* seg = reinterpret_cast<Segment*>(region.begin);
    if (!KFW_ASSERT(busyBlockFits(b, seg), b)) return BlockState::Broken;
    int32_t size = -b->bSize;
    CBlkHead* prev = reinterpret_cast<CBlkHead*>(bytes(b) - b->prevFree);
    bool prevOk = b->prevFree == 0 || (bytes(prev) >= bytes(firstBlock(seg)) && prev->magic == KF_MAGIC_FREE &&
                                        prev->bSize == b->prevFree);
    if (!KFW_ASSERT(prevOk, b)) return BlockState::Broken;
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
    if (merged->bSize == kWholeBlock && merged->prevFree == 0 && isSentinel(after)) releaseSegment(p, seg);
    return BlockState::Ok;
}

static BlockState KfwBlockFree(Pool& p, void* pointer) {
    const Region* region = nullptr;
    CBlkHead* b = pointer ? findBlock(p, pointer, &region) : nullptr;
    BlockState state = pointer ? BlockState::Unknown : BlockState::NullPointer;
    if (b && b->magic == KF_MAGIC_FREE) {
        state = BlockState::FreeBlock;
    } else if (b && b->magic == KF_MAGIC_BUSY && region->direct) {
        KfwDirFree(p, b);
        state = BlockState::Ok;
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

static BlockState KfwBlockRealloc(Pool& p, void* pointer, size_t size, void** result) {
    const Region* region = nullptr;
    CBlkHead* b = findBlock(p, pointer, &region);
    BlockState state = BlockState::Unknown;
    if (b && b->magic == KF_MAGIC_FREE) {
        state = BlockState::FreeBlock;
    } else if (b && b->magic == KF_MAGIC_BUSY &&
               KFW_ASSERT(region->direct || busyBlockFits(b, reinterpret_cast<Segment*>(region->begin)), b)) {
        size_t oldPayload = region->direct ? region->end - region->begin - sizeof(DirBlock) - kHead
                                           : static_cast<size_t>(-b->bSize - kHead);
        bool small = size <= static_cast<size_t>(KF_SEG_SIZE);
        if (oldPayload >= size || (!region->direct && small &&
                                   KfwGrowInPlace(p, b, reinterpret_cast<Segment*>(region->begin),
                                                  static_cast<int32_t>(neededSize(size))))) {
            *result = pointer;
        } else {
            *result = KfwBlockAlloc(p, size);
            if (*result) {
                memcpy(*result, pointer, oldPayload);
                KfwBlockFree(p, pointer);
            }
        }
        state = *result ? BlockState::Ok : BlockState::NoMemory;
    }
    return state;
}

namespace {

// Sizes that no allocation can satisfy: zero, and negative sizes converted to size_t.
bool wrongSize(size_t size) {
    return size == 0 || size > static_cast<size_t>(LONG_MAX);
}

}  // namespace

void* kfMalloc(size_t size, const char* file, int line) {
    void* result = nullptr;
    if (wrongSize(size)) {
        report(file, line, "Wrong Alloc call: Size %ld File %s Line %d\n", static_cast<long>(size), fileText(file), line);
    } else {
        {
            Pool& p = pool();
            MutexLock lock(p.mutex);
            result = KfwBlockAlloc(p, size);
        }
        if (!result) {
            report(file, line, "Alloc failed: Size %ld File %s Line %d\n", static_cast<long>(size), fileText(file), line);
        } else {
            TR_PRINTF(TR_MEMORY, "KFWEM(+) Addr %p Size %ld File %s Line %d\n", result, static_cast<long>(size),
                      fileText(file), line);
        }
    }
    return result;
}

void* kfCalloc(size_t count, size_t size, const char* file, int line) {
    void* result = nullptr;
    if (wrongSize(size) || wrongSize(count) || count > static_cast<size_t>(LONG_MAX) / size) {
        report(file, line, "Wrong Calloc call: Size %ld Count %ld File %s Line %d\n", static_cast<long>(size),
               static_cast<long>(count), fileText(file), line);
    } else {
        {
            Pool& p = pool();
            MutexLock lock(p.mutex);
            result = KfwBlock0Alloc(p, count * size);
        }
        if (!result) {
            report(file, line, "Calloc failed: Size %ld File %s Line %d\n", static_cast<long>(size), fileText(file),
                   line);
        } else {
            TR_PRINTF(TR_MEMORY, "KFWEM(c+) Addr %p Size %ld Count %ld File %s Line %d\n", result,
                      static_cast<long>(size), static_cast<long>(count), fileText(file), line);
        }
    }
    return result;
}

namespace {

void reportRealloc(BlockState state, void* pointer, void* result, size_t size, const char* file, int line) {
    const char* name = fileText(file);
    switch (state) {
        case BlockState::Ok:
            TR_PRINTF(TR_MEMORY, "KFWEM(r+) naddr %p oaddr %p nsize %ld File %s Line %d\n", result, pointer,
                      static_cast<long>(size), name, line);
            break;
        case BlockState::FreeBlock:
            report(file, line, "Attempt to realloc free pointer. Addr %p, File %s, Line %d\n", pointer, name, line);
            break;
        case BlockState::NoMemory:
            report(file, line, "Realloc failed: Old addr %p New Size %ld File %s Line %d\n", pointer,
                   static_cast<long>(size), name, line);
            break;
        default:
            report(file, line, "Attempt to realloc unknown pointer. Addr %p, File %s, Line %d\n", pointer, name, line);
            break;
    }
}

}  // namespace

void* kfRealloc(void* pointer, size_t size, const char* file, int line) {
    void* result = nullptr;
    if (!pointer) {
        report(file, line,
               "kfRealloc() called with NULL pointer. File %s Line %d. Initial allocation assumed, using kfMalloc().\n",
               fileText(file), line);
        result = kfMalloc(size, file, line);
    } else if (wrongSize(size)) {
        report(file, line, "Wrong Realloc call: Size %ld File %s Line %d\n", static_cast<long>(size), fileText(file),
               line);
    } else {
        BlockState state;
        {
            Pool& p = pool();
            MutexLock lock(p.mutex);
            state = KfwBlockRealloc(p, pointer, size, &result);
        }
        reportRealloc(state, pointer, result, size, file, line);
    }
    return result;
}

void kfFree(void* pointer, const char* file, int line) {
    BlockState state;
    {
        Pool& p = pool();
        MutexLock lock(p.mutex);
        state = KfwBlockFree(p, pointer);
    }
    const char* name = fileText(file);
    switch (state) {
        case BlockState::Ok:
            TR_PRINTF(TR_MEMORY, "KFWEM(-) Addr %p File %s Line %d\n", pointer, name, line);
            break;
        case BlockState::NullPointer:
            report(file, line, "Attempt to free NULL pointer. File %s Line %d\n", name, line);
            break;
        case BlockState::FreeBlock:
            report(file, line, "Attempt to free pointer to a free block. Addr %p, File %s, Line %d\n", pointer, name,
                   line);
            break;
        case BlockState::Unknown:
            report(file, line, "Attempt to free unknown pointer. Addr %p, File %s, Line %d\n", pointer, name, line);
            break;
        default:
            break;  // the assertion was reported where it failed
    }
}

void KfwGetStats(KfwStats* stats) {
    MutexLock lock(pool().mutex);
    *stats = pool().stats;
}

void KfwSetOutOfMemoryHandler(KfwOutOfMemoryHandler handler) {
    MutexLock lock(pool().mutex);
    pool().outOfMemory = handler;
}

void KfwSetSystemAllocator(const KfwSystemAllocator* allocator) {
    MutexLock lock(pool().mutex);
    pool().system = allocator ? *allocator : KfwSystemAllocator{malloc, free};
}

namespace {

bool isFreeRef(Pool& p, BlockRef ref) {
    size_t number = ref >> 16;
    uint32_t offset = ref & 0xFFFF;
    bool inTable = number < p.table.size() && p.table[number] && offset % kGrain == 0 &&
                   offset >= sizeof(Segment) && offset < sizeof(Segment) + kWholeBlock;
    return inTable && blockOf(p, ref)->magic == KF_MAGIC_FREE;
}

bool linksAreGood(Pool& p, Segment* seg, CBlkHead* b) {
    BlockRef ref = refOf(seg, b);
    FreeLinks* l = linksOf(b);
    bool nextOk = l->next == kNoBlock || (isFreeRef(p, l->next) && linksOf(blockOf(p, l->next))->prev == ref);
    bool prevOk = l->prev == kNoBlock ? p.freeList == ref
                                      : isFreeRef(p, l->prev) && linksOf(blockOf(p, l->prev))->next == ref;
    return nextOk && prevOk;
}

}  // namespace

// Dumps the blocks of one segment; stops at the first header it cannot trust, since
// the size that leads to the next one is then unknown.
static int32_t KfwSegDump(Pool& p, Segment* seg) {
    int32_t rc = RC_OK;
    dumpLine("\tSegment at %p\n", static_cast<void*>(seg));
    CBlkHead* end = sentinelOf(seg);
    for (CBlkHead* b = firstBlock(seg); b < end && rc == RC_OK;) {
        bool magicOk = b->magic == KF_MAGIC_FREE || b->magic == KF_MAGIC_BUSY;
        int32_t size = b->bSize < 0 && b->bSize != kSentinelSize ? -b->bSize : b->bSize;
        if (!magicOk || size <= 0 || size > kWholeBlock || bytes(b) + size > bytes(end)) {
            dumpLine("(Magic value overwritten)\n");
            rc = RC_POOL_DAMAGED;
        } else if (b->magic == KF_MAGIC_BUSY) {
            dumpLine("\t\tBusy block at %p(%p): size %6ld bytes.\n", static_cast<void*>(b), payloadOf(b),
                     static_cast<long>(size));
        } else {
            bool links = linksAreGood(p, seg, b);
            dumpLine("\t\tFree block at %p(%p): size %6ld bytes.%s\n", static_cast<void*>(b), payloadOf(b),
                     static_cast<long>(size), links ? "" : "(Bad free list links)");
            if (!links) rc = RC_POOL_DAMAGED;
        }
        b = following(b, size);
    }
    return rc;
}

int32_t KfwPoolCheck() {
    Pool& p = pool();
    MutexLock lock(p.mutex);
    int32_t rc = RC_OK;
    dumpLine("KFWEM(v) Pool validation started\n");
    dumpLine("****    Memory Dump    ****\n");
    dumpLine("\t\t---- Segments dump ----\n");
    Segment* seg = p.segments;
    for (long i = 0; seg && i < p.stats.segments; ++i, seg = seg->next) {
        int32_t segRc = KfwSegDump(p, seg);
        if (segRc != RC_OK) rc = segRc;
    }
    dumpLine("\t\t---- Direct allocated blocks dump ----\n");
    for (DirBlock* d = p.direct; d; d = d->next) {
        dumpLine("Direct block at %p(%p),prev %p,next %p,Size %ld\n", static_cast<void*>(d),
                 payloadOf(dirHeadOf(d)), static_cast<void*>(d->prev), static_cast<void*>(d->next),
                 static_cast<long>(d->size));
    }
    dumpLine("****    End of memory dump    ****\n\n");
    dumpLine("KFWEM(v) Pool validation finished. RC = %d\n", rc);
    dumpLine("KFWEM(v) Memory statistics\n");
    dumpLine("Total memory allocated: %ld\n", p.stats.allocated);
    dumpLine("Total memory free     : %ld\n", p.stats.freeBytes);
    dumpLine("Segments count        : %ld\n", p.stats.segments);
    dumpLine("Direct blocks count   : %ld\n", p.stats.directBlocks);
    dumpLine("Max of segments         : %ld\n", p.stats.maxSegments);
    dumpLine("Max of direct blocks    : %ld\n", p.stats.maxDirectBlocks);
    return rc;
}

namespace {

constexpr size_t kDumpWidth = 16;

void appendDumpLine(const unsigned char* row, size_t n, std::string* text) {
    char hex[kDumpWidth * 3 + 1] = "";
    char chars[kDumpWidth + 1] = "";
    for (size_t i = 0; i < n; ++i) {
        snprintf(hex + i * 3, sizeof(hex) - i * 3, "%02X ", row[i]);
        chars[i] = (row[i] > ' ' && row[i] < 0x7f) ? static_cast<char>(row[i]) : '.';
    }
    chars[n] = '\0';
    char line[128];
    snprintf(line, sizeof(line), "%-48s   %s\n", hex, chars);
    *text += line;
}

void appendSkipped(size_t lines, std::string* text) {
    char note[96];
    snprintf(note, sizeof(note), "(%d lines [%d bytes] identical to above line skipped)\n", static_cast<int>(lines),
             static_cast<int>(lines * kDumpWidth));
    *text += note;
}

}  // namespace

std::string KfwFormatBytes(const unsigned char* data, size_t length) {
    std::string text;
    size_t skipped = 0;
    for (size_t at = 0; at < length; at += kDumpWidth) {
        size_t n = std::min(kDumpWidth, length - at);
        bool same = at > 0 && n == kDumpWidth && memcmp(data + at, data + at - kDumpWidth, kDumpWidth) == 0;
        if (same) {
            ++skipped;
            continue;
        }
        if (skipped) appendSkipped(skipped, &text);
        skipped = 0;
        appendDumpLine(data + at, n, &text);
    }
    if (skipped) appendSkipped(skipped, &text);
    return text;
}

void KfwBlockDump(const void* pointer) {
    std::string text;
    {
        MutexLock lock(pool().mutex);
        const Region* region = nullptr;
        CBlkHead* b = pointer ? findBlock(pool(), pointer, &region) : nullptr;
        size_t length = 0;
        if (b && region->direct) {
            length = region->end - reinterpret_cast<uintptr_t>(b);
        } else if (b && b->bSize != 0 && b->bSize != kSentinelSize) {
            length = static_cast<size_t>(b->bSize < 0 ? -b->bSize : b->bSize);
            length = std::min(length, region->end - reinterpret_cast<uintptr_t>(b));
        }
        if (length) text = KfwFormatBytes(reinterpret_cast<const unsigned char*>(b), length);
    }
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at) + 1;
        dumpLine("%s", text.substr(at, end - at).c_str());
        at = end;
    }
}
