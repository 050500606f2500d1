/* What a failed object has to do with the books of the hardware databases. Dispatcher thread. */
#ifndef ZAN_RETRY_BOOKS_H
#define ZAN_RETRY_BOOKS_H

#include "retry.h"
#include "write_watch.h"

/* A write of a stored object has failed: what does that leave out of the books? */
void host_books_note(const write_failure_t &failure, failed_t *failed);
/* NPUs hold the object from before a delete, and have had the create of the one made anew. */
void host_books_made_anew(failed_entry_t *entry, kor_npu_mask_t kept);
/* An attempt is over: NPUs that took it hold an object now that is in no books. One that was
 * refused before it came to the hardware changed nothing. */
void host_books_attempted(failed_entry_t *entry);

#endif
