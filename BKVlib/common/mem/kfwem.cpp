// The public calls of the pool: argument checks, the pool guard around the block
// operation, then the report of what happened. Reporting happens after the guard is
// let go, so other threads do not wait for the trace.
#include "BKVlib/common/mem/kfwem.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "BKVlib/common/mem/kfwblock.h"
#include "BKVlib/common/mem/kfwpool.h"
#include "BKVlib/common/ut/trace.h"

using kfw::fileText;
using kfw::report;

void kfw::report(const char* file, int line, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (trFlags[TR_MEMORY] || trFlags[TR_ERROR]) trPrintf(fileText(file), static_cast<uint32_t>(line), "%s", text);
    fputs(text, stderr);
}

namespace {

// Sizes that no allocation can satisfy: zero, and negative sizes converted to size_t.
bool wrongSize(size_t size) {
    return size == 0 || size > static_cast<size_t>(LONG_MAX);
}

}  // namespace

namespace {

// The outcome of kfMalloc other than a success with the MEMORY class off. Kept out of
// line so that the common call needs neither the formatting nor its registers.
__attribute__((noinline)) void reportMalloc(bool wrong, void* result, size_t size, const char* file, int line) {
    if (wrong) {
        report(file, line, "Wrong Alloc call: Size %ld File %s Line %d\n", static_cast<long>(size), fileText(file), line);
    } else if (!result) {
        report(file, line, "Alloc failed: Size %ld File %s Line %d\n", static_cast<long>(size), fileText(file), line);
    } else {
        TR_PRINTF(TR_MEMORY, "KFWEM(+) Addr %p Size %ld File %s Line %d\n", result, static_cast<long>(size),
                  fileText(file), line);
    }
}

}  // namespace

void* kfMalloc(size_t size, const char* file, int line) {
    bool wrong = wrongSize(size);
    void* result = nullptr;
    if (!wrong) {
        kfw::Pool& p = kfw::pool();
        kfw::PoolGuard guard(p);
        result = KfwBlockAlloc(p, size);
    }
    if (wrong || !result || trFlags[TR_MEMORY]) reportMalloc(wrong, result, size, file, line);
    return result;
}

void* kfCalloc(size_t count, size_t size, const char* file, int line) {
    void* result = nullptr;
    if (wrongSize(size) || wrongSize(count) || count > static_cast<size_t>(LONG_MAX) / size) {
        report(file, line, "Wrong Calloc call: Size %ld Count %ld File %s Line %d\n", static_cast<long>(size),
               static_cast<long>(count), fileText(file), line);
    } else {
        {
            kfw::Pool& p = kfw::pool();
            kfw::PoolGuard guard(p);
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

void reportRealloc(KfwBlockState state, void* pointer, void* result, size_t size, const char* file, int line) {
    const char* name = fileText(file);
    switch (state) {
        case KfwBlockState::Ok:
            TR_PRINTF(TR_MEMORY, "KFWEM(r+) naddr %p oaddr %p nsize %ld File %s Line %d\n", result, pointer,
                      static_cast<long>(size), name, line);
            break;
        case KfwBlockState::FreeBlock:
            report(file, line, "Attempt to realloc free pointer. Addr %p, File %s, Line %d\n", pointer, name, line);
            break;
        case KfwBlockState::NoMemory:
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
        KfwBlockState state;
        {
            kfw::Pool& p = kfw::pool();
            kfw::PoolGuard guard(p);
            state = KfwBlockRealloc(p, pointer, size, &result);
        }
        reportRealloc(state, pointer, result, size, file, line);
    }
    return result;
}

namespace {

// The outcome of kfFree other than a success with the MEMORY class off (see reportMalloc).
__attribute__((noinline)) void reportFree(KfwBlockState state, void* pointer, const char* file, int line) {
    const char* name = fileText(file);
    switch (state) {
        case KfwBlockState::Ok:
            TR_PRINTF(TR_MEMORY, "KFWEM(-) Addr %p File %s Line %d\n", pointer, name, line);
            break;
        case KfwBlockState::NullPointer:
            report(file, line, "Attempt to free NULL pointer. File %s Line %d\n", name, line);
            break;
        case KfwBlockState::FreeBlock:
            report(file, line, "Attempt to free pointer to a free block. Addr %p, File %s, Line %d\n", pointer, name,
                   line);
            break;
        case KfwBlockState::Unknown:
            report(file, line, "Attempt to free unknown pointer. Addr %p, File %s, Line %d\n", pointer, name, line);
            break;
        default:
            break;  // the assertion was reported where it failed
    }
}

}  // namespace

void kfFree(void* pointer, const char* file, int line) {
    KfwBlockState state;
    {
        kfw::Pool& p = kfw::pool();
        kfw::PoolGuard guard(p);
        state = KfwBlockFree(p, pointer);
    }
    if (state != KfwBlockState::Ok || trFlags[TR_MEMORY]) reportFree(state, pointer, file, line);
}

void KfwGetStats(KfwStats* stats) {
    kfw::PoolGuard guard(kfw::pool());
    *stats = kfw::pool().stats;
}

void KfwSetOutOfMemoryHandler(KfwOutOfMemoryHandler handler) {
    kfw::PoolGuard guard(kfw::pool());
    kfw::pool().outOfMemory = handler;
}

void KfwSetSystemAllocator(const KfwSystemAllocator* allocator) {
    kfw::PoolGuard guard(kfw::pool());
    kfw::pool().system = allocator ? *allocator : KfwSystemAllocator{malloc, free};
}
