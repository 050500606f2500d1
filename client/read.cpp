/* Reads by key and in key order. */
#include "client_state.h"

#include <cstdlib>
#include <cstring>

/* Members that the first try has room for. */
static const uint32_t first_room = 8;

static zan_table_base_st *make_request(const zan_table_def_t *def, const zan_table_base_st *lookup,
                                       uint32_t room)
{
    zan_table_base_st *request = zan_obj_ctor(def, 0, room);
    if (!request)
        return nullptr;
    request->key_len = lookup->key_len;
    request->obj_handle = lookup->obj_handle;
    request->getopt_mask = lookup->getopt_mask;
    memcpy(zan_obj_key(def, request), zan_obj_key(def, lookup), def->key_size);
    return request;
}

static int read_once(zan_client_t *client, uint8_t operation, const zan_table_base_st *request,
                     zan_batch_t *batch, zan_rcode *rc, zan_table_base_st **out)
{
    zan_batch_clear(batch);
    if (zan_batch_append(batch, request, operation))
        return client_fail(client, "the read does not fit into a batch");
    if (zan_client_run(client, batch))
        return -1;
    *rc = zan_batch_rc(batch, 0);
    if (*rc != EOK)
        return 0;
    *out = zan_batch_object(batch, 0);
    return *out ? 0 : client_fail(client, "the agent's answer holds no object");
}

static int read_with_room(zan_client_t *client, uint8_t operation, const zan_table_base_st *lookup,
                          zan_batch_t *batch, zan_rcode *rc, zan_table_base_st **out)
{
    const zan_table_def_t *def = zan_table_def_get(lookup->table_id);
    if (!def)
        return client_fail(client, "%u is no table", lookup->table_id);
    for (uint32_t room = first_room;; room *= 2) {
        zan_table_base_st *request = make_request(def, lookup, room);
        if (!request)
            return client_fail(client, "no memory");
        const int result = read_once(client, operation, request, batch, rc, out);
        free(request);
        const bool more = result == 0 && *rc == ZAN_RC_INVALID_READ && def->num_elements_offset;
        if (!more || room >= ZAN_ELEMENTS_MAX)
            return result;
    }
}

int zan_client_read(zan_client_t *client, uint8_t operation, const zan_table_base_st *lookup,
                    zan_rcode *rc, zan_table_base_st **out)
{
    *out = nullptr;
    zan_batch_t *batch = zan_batch_new(0, 0);
    if (!batch)
        return client_fail(client, "no memory");
    const int result = read_with_room(client, operation, lookup, batch, rc, out);
    zan_batch_free(batch);
    return result;
}

/* Steps until the visitor or the table ends it. `*at` is the last object read, and ours. */
static int walk_steps(zan_client_t *client, const zan_table_def_t *def,
                      const zan_table_base_st *from, zan_batch_t *batch, zan_table_base_st **at,
                      zan_client_visit_f visit, void *arg, zan_rcode *rc)
{
    uint8_t operation = from ? ZAN_TABLE_GET_GT_EQ : ZAN_TABLE_GET_FIRST;
    *at = make_request(def, from ? from : *at, 0);
    while (*at) {
        (*at)->obj_handle = 0; /* by key: the object may go while we look at it */
        zan_table_base_st *next = nullptr;
        if (read_with_room(client, operation, *at, batch, rc, &next))
            return -1;
        if (*rc != EOK) {
            *rc = *rc == ZAN_RC_NOT_FOUND ? (zan_rcode)EOK : *rc;
            return 0;
        }
        free(*at);
        *at = next;
        if (visit(next, arg))
            return 0;
        operation = ZAN_TABLE_GET_NEXT;
    }
    return client_fail(client, "no memory");
}

int zan_client_walk(zan_client_t *client, const zan_table_def_t *def, const zan_table_base_st *from,
                    zan_client_visit_f visit, void *arg, zan_rcode *rc)
{
    zan_table_base_st *empty = zan_obj_ctor(def, 0, 0);
    zan_batch_t *batch = zan_batch_new(0, 0);
    zan_table_base_st *at = empty;
    *rc = EOK;
    const int result = empty && batch ? walk_steps(client, def, from, batch, &at, visit, arg, rc)
                                      : client_fail(client, "no memory");
    if (at != empty)
        free(at);
    free(empty);
    zan_batch_free(batch);
    return result;
}
