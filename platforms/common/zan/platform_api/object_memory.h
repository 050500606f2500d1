/* Memory of heap copies and records, recycled by size on the dispatcher thread.
 *
 * "calloc" semantics: the block is zeroed. A block may be freed by the dispatcher or FRR thread
 * only; an NPU thread frees nothing. In sanitizer builds these are plain calloc and free, so that a
 * stale pointer is seen.
 */
#ifndef ZAN_PLATFORM_OBJECT_MEMORY_H
#define ZAN_PLATFORM_OBJECT_MEMORY_H

#include "zan_types.h"

ZAN_EXTERN_C_BEGIN
/* Zeroed, 16-byte aligned; null without memory. */
ZAN_EXPORT void *zan_heap_calloc(size_t size);
/* The same without zeroing. */
ZAN_EXPORT void *zan_heap_alloc(size_t size);
ZAN_EXPORT void zan_heap_free(void *block); /* null is allowed */
/* Blocks given out and not freed yet; for leak checks. */
ZAN_EXPORT uint64_t zan_heap_blocks_in_use(void);
ZAN_EXTERN_C_END

#endif
