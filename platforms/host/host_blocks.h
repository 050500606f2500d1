/* Recycled private memory for the services of the host: as object_memory.h, but not counted among
 * the blocks that the server has out. */
#ifndef ZAN_HOST_BLOCKS_H
#define ZAN_HOST_BLOCKS_H

#include "zan_types.h"

/* 16-byte aligned, not zeroed; null without memory. */
void *host_block_alloc(size_t size);
void host_block_free(void *block);
/* Return all free blocks to the system. Thread that holds the dispatcher, or the last thread. */
void host_blocks_trim(void);

#endif
