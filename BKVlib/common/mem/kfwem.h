// The runtime library's memory pool: small blocks are carved out of large segments
// taken from the system allocator, large blocks ("direct blocks") get a system
// allocation of their own. Every call carries the caller's file and line so that
// misuse is reported where it happened (MEMORY trace class and standard error).
// One pool per process, guarded by the pool lock: every call may come from any thread.
#ifndef BKVLIB_COMMON_MEM_KFWEM_H
#define BKVLIB_COMMON_MEM_KFWEM_H

#include <cstddef>
#include <cstdint>

#include "BKVlib/common/mem/kfwlayout.h"

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

void KfwGetStats(KfwStats* stats);

// Null removes the handler.
void KfwSetOutOfMemoryHandler(KfwOutOfMemoryHandler handler);

// Change the system allocator only while the pool holds nothing, or with a release that accepts earlier blocks.
void KfwSetSystemAllocator(const KfwSystemAllocator* allocator);  // null: malloc and free

#endif
