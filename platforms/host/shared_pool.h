/* The shared-memory pool: blocks for database objects and their dynamic attributes.
 *
 * One sparse mapping, reserved once and never moved, so that an address is a handle. It is cut into
 * slabs of 64 KiB, each of one table and one block size; all that is known about a block is kept
 * outside the mapping, so that whatever is written into a block cannot mislead the pool, and any
 * 64-bit value can be asked about.
 *
 * Dispatcher thread, or the FRR thread while it holds the dispatcher, unless said otherwise.
 */
#ifndef ZAN_HOST_SHARED_POOL_H
#define ZAN_HOST_SHARED_POOL_H

#include "zan_types.h"

typedef enum host_block_kind_et {
    HOST_BLOCK_OBJECT,  /* a database object */
    HOST_BLOCK_DYNAMIC, /* dynamic attributes: the size is rounded up to a class */
    HOST_BLOCK_KINDS
} host_block_kind_et;

/* Marks of a block in use. */
typedef enum host_mark_et {
    HOST_MARK_STORED, /* stands in its table's index */
    HOST_MARK_QUEUED, /* stands in the delay-delete queue; survives the free of the block */
    HOST_MARKS
} host_mark_et;

/* Map the pool; repeated calls do nothing. False without memory. Any thread. */
bool host_pool_open(void);
/* A zeroed block of at least `size` bytes, 8-byte aligned; null without memory. */
void *host_pool_alloc(uint32_t table_id, host_block_kind_et kind, size_t size);
/* Asserts that the block is in use and not stored. */
void host_pool_free(void *block);
/* Give back every block of a table. */
void host_pool_free_table(uint32_t table_id);
/* Unmap the pool and forget everything. */
void host_pool_close(void);

/* Whether the address is the start of an object block in use. Any value may be asked. */
bool host_pool_is_object(uint64_t address);
/* The table of a stored object with this address, or -1. Any value may be asked. Any thread. */
int host_pool_stored_table(uint64_t address);
/* Whether the address is that of a stored object of the table. Two loads. Any value, any thread. */
bool host_pool_is_stored(uint32_t table_id, uint64_t address);

/* Set or clear a mark; returns what it was. Does nothing for an address that is no object block. */
bool host_pool_set_mark(uint64_t address, host_mark_et mark, bool on);

/* Bytes of all blocks in use. Any thread. */
uint64_t host_pool_bytes_in_use(void);
/* Slabs in use, for tests. */
uint32_t host_pool_slabs_in_use(void);

#endif
