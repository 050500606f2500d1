/* The client library of the table agent: build a batch, send it, read the slots and the objects.
 *
 * A client is one session with an agent over its Unix-domain socket. All calls block; one thread at
 * a time may use a client and its batches, different clients are independent. Functions that return
 * int give 0, or -1 and then zan_client_error tells why; a batch that the agent refuses was not run
 * in any part, and the session goes on. After ZAN_CLIENT_LOST every further call fails: connect
 * again.
 *
 * C11 or C++17, on POSIX. examples/client.c is a whole client to copy.
 */
#ifndef ZAN_CLIENT_H
#define ZAN_CLIENT_H

#include "zan_tables_private.h"
#include "zan_wire.h"

typedef struct zan_client_t zan_client_t;
typedef struct zan_batch_t zan_batch_t;

/* Where the agent listens when nobody says otherwise. */
#define ZAN_DEFAULT_SOCKET "/run/zan/agent.sock"

ZAN_EXTERN_C_BEGIN

/* ---- Session ---- */

/* Connect and say hello; null and a reason in `why` when there is no agent, or when it was built
 * from other definitions. `name` is for people, cut to 39 bytes. */
ZAN_EXPORT zan_client_t *zan_client_connect(const char *socket_path, const char *name, char *why,
                                            size_t why_size);
/* Say goodbye and free; null is allowed. Batches under way are lost to the caller. */
ZAN_EXPORT void zan_client_close(zan_client_t *client);

/* What the agent said of itself. */
ZAN_EXPORT const zan_hello_reply_st *zan_client_node(const zan_client_t *client);

/* Why the last call failed, in words; the record behind it, with object index and field, when the
 * agent refused, else null. Valid until the next call. */
ZAN_EXPORT const char *zan_client_error(const zan_client_t *client);
ZAN_EXPORT const zan_error_st *zan_client_refusal(const zan_client_t *client);
/* The session is over: the connection broke or the peer does not keep to the protocol. */
ZAN_EXPORT bool zan_client_lost(const zan_client_t *client);

/* ---- Batches ---- */

enum {
    ZAN_BATCH_ASYNC = 1u << 0, /* nobody waits: one slot for all, which reads 0 for two or more */
    ZAN_BATCH_CONTINUE_ON_ERROR = 1u << 1, /* a failure does not stop the batch */
};

/* An empty batch whose slots have room for `payload` bytes of text, rounded up to 8. The caller
 * frees it; null without memory. */
ZAN_EXPORT zan_batch_t *zan_batch_new(uint32_t flags, uint32_t payload);
ZAN_EXPORT void zan_batch_free(zan_batch_t *batch); /* null is allowed */
/* Make it empty again; its memory stays. */
ZAN_EXPORT void zan_batch_clear(zan_batch_t *batch);

/* Append a copy of an object (any form, pointers valid) with an operation. -1 when the batch would
 * exceed a frame (send it, then go on) or without memory. */
ZAN_EXPORT int zan_batch_append(zan_batch_t *batch, const zan_table_base_st *obj,
                                uint8_t operation);
ZAN_EXPORT uint32_t zan_batch_count(const zan_batch_t *batch);
ZAN_EXPORT size_t zan_batch_bytes(const zan_batch_t *batch);

/* Send and wait for the reply. */
ZAN_EXPORT int zan_client_run(zan_client_t *client, zan_batch_t *batch);
/* The two halves of it: up to ZAN_PIPELINE_MAX batches may be under way, replies come in the order
 * of the sends. Between the two the batch must not be touched. */
ZAN_EXPORT int zan_client_submit(zan_client_t *client, zan_batch_t *batch);
ZAN_EXPORT int zan_client_complete(zan_client_t *client, zan_batch_t *batch);

/* zan_client_run with no batch under way, and what the walks of this one did: *counts gets a block
 * that the caller frees with free, the header with its rows behind it; null when the call fails. */
ZAN_EXPORT int zan_client_run_walk(zan_client_t *client, zan_batch_t *batch,
                                   zan_walk_counts_st **counts);
/* The rows behind the header, num_tables and num_events of them. */
ZAN_EXPORT const zan_walk_table_st *zan_client_walk_tables(const zan_walk_counts_st *counts);
ZAN_EXPORT const zan_walk_event_st *zan_client_walk_events(const zan_walk_counts_st *counts);

/* After a reply: slots answered (one in an asynchronous batch), the code and the slot of an object,
 * and the object as the agent wrote it back: a heap form that the caller frees with free; null when
 * nothing was written back, or without memory. */
ZAN_EXPORT uint32_t zan_batch_slots(const zan_batch_t *batch);
ZAN_EXPORT zan_rcode zan_batch_rc(const zan_batch_t *batch, uint32_t index);
ZAN_EXPORT const zan_table_response_st *zan_batch_slot(const zan_batch_t *batch, uint32_t index);
ZAN_EXPORT zan_table_base_st *zan_batch_object(const zan_batch_t *batch, uint32_t index);

/* ---- Reads ---- */

/* Read one object: ZAN_TABLE_GET, _GET_FIRST, _GET_NEXT or _GET_GT_EQ, by the key or handle of
 * `lookup` (a heap form of the table). -1 only when no answer came; else *rc is the code, and on
 * success *out the object, which the caller frees with free. Asks again with more room when the
 * stored object has more members than expected. */
ZAN_EXPORT int zan_client_read(zan_client_t *client, uint8_t operation,
                               const zan_table_base_st *lookup, zan_rcode *rc,
                               zan_table_base_st **out);

/* Visit a table in key order from the first key that is not below that of `from`, or from the start
 * when it is null. The visitor does not own the object; a non-zero return ends the walk. *rc is the
 * code that ended it, 0 when all was visited. */
typedef int (*zan_client_visit_f)(const zan_table_base_st *obj, void *arg);
ZAN_EXPORT int zan_client_walk(zan_client_t *client, const zan_table_def_t *def,
                               const zan_table_base_st *from, zan_client_visit_f visit, void *arg,
                               zan_rcode *rc);

/* ---- Notifications ---- */

/* What a client hears unasked. The object is in heap form and the library's, as is all of it, for
 * the length of the call. */
typedef struct zan_client_notification_t {
    zan_notification_st head;
    const zan_table_base_st *obj;    /* null for ZAN_NOTIFY_RESOURCE */
    zan_notify_resource_st resource; /* for that alone */
} zan_client_notification_t;
/* Called on the thread that is in any call of the client; it must not use the client. */
typedef void (*zan_client_notify_f)(const zan_client_notification_t *notification, void *arg);

/* Want these from now on, and no others: of the tables in `wanted`, and changes of state of the
 * hardware databases. They are delivered in whatever call waits for a reply, and in
 * zan_client_wait. */
ZAN_EXPORT int zan_client_watch(zan_client_t *client, const zan_watch_st *wanted,
                                zan_client_notify_f notify, void *arg);
/* Wait so long for notifications (-1: for ever), with no request under way, and deliver what is
 * there, 256 at most. The number delivered, or -1. */
ZAN_EXPORT int zan_client_wait(zan_client_t *client, int timeout_ms);

/* ---- The node ---- */

/* *tables gets status->num_tables records, which the caller frees with free. */
ZAN_EXPORT int zan_client_status(zan_client_t *client, zan_status_st *status,
                                 zan_table_status_st **tables);
/* *differences gets reply->num_differences records, which the caller frees with free. */
ZAN_EXPORT int zan_client_compare(zan_client_t *client, uint32_t table_id, uint32_t max_differences,
                                  zan_compare_reply_st *reply, zan_difference_st **differences);

/* Set what `request` says of the hardware databases, null for nothing, and read them all: the rows
 * are the caller's, to be freed with free; null when the call fails. */
ZAN_EXPORT int zan_client_resources(zan_client_t *client, const zan_resources_st *request,
                                    zan_resources_reply_st *reply, zan_resource_st **databases,
                                    zan_resource_table_st **tables);
/* What all walks did since the agent's start. *counts gets a block that the caller frees with free:
 * the header with its rows behind it. */
ZAN_EXPORT int zan_client_walk_counts(zan_client_t *client, zan_walk_counts_st **counts);

/* Do what `request` says about failed writes, or about objects in quarantine, and read the answer:
 * *rows gets reply->num_rows rows of a list, which the caller frees with free. */
ZAN_EXPORT int zan_client_failed(zan_client_t *client, const zan_failed_st *request,
                                 zan_failed_reply_st *reply, zan_failed_row_st **rows);
ZAN_EXPORT int zan_client_quarantine(zan_client_t *client, const zan_failed_st *request,
                                     zan_failed_reply_st *reply, zan_quarantine_row_st **rows);
/* All that is counted of a table. */
ZAN_EXPORT int zan_client_table(zan_client_t *client, uint32_t table_id,
                                zan_table_record_st *record);

/* The periodic statistics walks, and what the adjacency tables count of the object that `lookup`
 * names by key or handle, null for none. `walk_now` begins one more pass, which is over once the
 * `passes` of an answer have reached reply->next_pass. The rows are the caller's, to be freed with
 * free; null when the call fails. */
ZAN_EXPORT int zan_client_stats(zan_client_t *client, const zan_table_base_st *lookup,
                                bool walk_now, zan_stats_reply_st *reply, zan_stats_walk_st **walks,
                                zan_stats_adj_st **adjacencies);

/* The oldest records of the trace ring behind the one with that sequence: *records gets
 * reply->num_records of them, which the caller frees with free. */
ZAN_EXPORT int zan_client_trace(zan_client_t *client, uint64_t after, uint32_t max,
                                zan_trace_reply_st *reply, zan_trace_record_st **records);
/* Switch trace classes, and read which are on. */
ZAN_EXPORT int zan_client_trace_classes(zan_client_t *client, const zan_trace_classes_st *request,
                                        zan_trace_classes_reply_st *reply);
/* Do what `request` says about the counters, and read them: *tables gets reply->num_tables records,
 * which the caller frees with free. */
ZAN_EXPORT int zan_client_counters(zan_client_t *client, const zan_counters_st *request,
                                   zan_counters_reply_st *reply, zan_counters_table_st **tables);
/* How long things take, of one table or with ZAN_WIRE_NO_INDEX of all that were used; and the last
 * slow operations, by NPU, the newest first. Both arrays are the caller's, to be freed with free;
 * null when the call fails. */
ZAN_EXPORT int zan_client_perf(zan_client_t *client, uint32_t table_id, zan_perf_reply_st *reply,
                               zan_perf_table_st **tables, zan_perf_slow_st **slow);
/* What the agent is; *command_line gets its words, a line each, terminated, which the caller frees
 * with free. */
ZAN_EXPORT int zan_client_about(zan_client_t *client, zan_about_st *about, char **command_line);
/* Say how the simulated NPUs behave from now on. */
ZAN_EXPORT int zan_client_sim(zan_client_t *client, const zan_sim_st *request);

/* The graph around the object that `lookup` names by key or handle. *nodes gets reply->num_nodes
 * records, which the caller frees with free. */
ZAN_EXPORT int zan_client_graph(zan_client_t *client, const zan_table_base_st *lookup,
                                uint32_t depth, uint32_t children, zan_graph_reply_st *reply,
                                zan_graph_node_st **nodes);

ZAN_EXTERN_C_END

#endif
