/* The books of the hardware databases, where the server's accounting does not follow a retry.
 *
 * The server accounts a write when it is made. So an object that comes to an NPU by a retry is in
 * no books there; and one that an NPU holds on to against a delete stands in them twice when it is
 * made anew. They are corrected as the retry sees it. It does not see all: a delete that failed on
 * an NPU which never had the object looks like one that did.
 */
#include "retry_books.h"
#include "global_context.h"
#include "host_resources.h"

#include <utility>

namespace
{

/* NPUs that gave an entry back in a delete that failed on others. */
kor_npu_mask_t given_back(failed_t *failed)
{
    const kor_npu_mask_t kept = std::exchange(failed->not_deleted, 0);
    return kept ? zan_get_global_ctx()->npu_mask_all & ~kept : 0;
}

/* A failed delete that was waited for on the NPU threads is accounted as if it had been done. */
bool holder_is_in_books(const zan_table_def_t *def)
{
    return def->write_mode || !def->npu_threads;
}

void correct_books(const failed_entry_t *entry, kor_npu_mask_t npus, bool taken)
{
    for (; npus; npus &= npus - 1)
        host_resources_correct((uint32_t)__builtin_ctzll(npus), entry->first.table_id, taken);
}

} // namespace

/* What a failure of a stored object leaves out of the books of the hardware databases. A create: an
 * asynchronous write accounts each NPU for itself, one that is waited for all of them or none, one
 * on this thread also what failed. A delete on this thread gives back what went. */
void host_books_note(const write_failure_t &failure, failed_t *failed)
{
    const zan_table_def_t *def = zan_table_defs[failure.name.table_id];
    const kor_npu_mask_t all = zan_get_global_ctx()->npu_mask_all;
    if (failure.operation == ZAN_TABLE_CREATE && def->npu_threads)
        failed->unaccounted |= def->write_mode ? failure.npus : all;
    if (failure.operation != ZAN_TABLE_DELETE || def->npu_threads || def->table_class != 0)
        return;
    if (std::exchange(failed->delete_trans, failure.trans_id) != failure.trans_id)
        failed->unaccounted |= given_back(failed);
    failed->not_deleted |= failure.npus;
}

void host_books_made_anew(failed_entry_t *entry, kor_npu_mask_t kept)
{
    failed_t *failed = &entry->second;
    if (holder_is_in_books(zan_table_defs[entry->first.table_id]))
        correct_books(entry, kept & ~failed->unaccounted, false);
    failed->unaccounted &= ~kept;
}

void host_books_attempted(failed_entry_t *entry)
{
    failed_t *failed = &entry->second;
    if (failed->failed_again && failed->npus == 0)
        return;
    failed->unaccounted |= given_back(failed);
    if (!failed->unstored && find_stored(entry->first))
        correct_books(entry, failed->unaccounted & ~failed->npus, true);
    failed->unaccounted &= failed->npus;
}
