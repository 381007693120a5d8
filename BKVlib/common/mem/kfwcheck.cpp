// The pool check walks every header and link it can reach and reports the first it
// cannot trust; the dumps go to the MEMORY trace class only.
#include "BKVlib/common/mem/kfwcheck.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "BKVlib/common/mem/kfwpool.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trace.h"

// The pool's own layout and helpers, shared with its other files.
using namespace kfw;

namespace {

__attribute__((format(printf, 1, 2))) void dumpLine(const char* format, ...) {
    if (!trFlags[TR_MEMORY]) return;
    va_list args;
    va_start(args, format);
    trVPrintf(__FILE__, __LINE__, format, args);
    va_end(args);
}

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
    PoolGuard guard(p);
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
        PoolGuard guard(pool());
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
