/* A table comes to life on its first operation, under pthread_once: there is no global start. */
#include "table_server_api_common.h"

#include <cstdio>

static void assert_db_init(const zan_table_def_t *def, zan_rcode rc)
{
    if (RCD_IS_OK(rc))
        return;
    char prototype[96];
    snprintf(prototype, sizeof prototype, "void kor_core_%s_init(zan_table_base_st *)", def->name);
    zan_assert_failed("RCD_IS_OK(rc)", prototype, __FILE__, __LINE__);
}

static void trace_named(const zan_table_def_t *def, uint32_t level, zan_table_msg_et message,
                        const char *format)
{
    const zan_trace_class_t c = zan_slt_table_id(def->id, level);
    if (!zan_trace_is_on(c))
        return;
    char text[128];
    snprintf(text, sizeof text, format, def->name);
    _ringlogs(c, zan_msg_id(zan_table_msg(def->id, message), 1, 0x1), text);
}

static void init_global_record(const zan_table_def_t *def, const srv_zan_table_props_t *props,
                               zan_global_table_st *record)
{
    record->table_id = def->id;
    record->first_option = def->init_option_bytes[0];
    record->second_option = def->init_option_bytes[1];
    props->specific_init(&record->specific[0], &record->specific[1]);
    if (record->first_option)
        record->first_option_active = 1;
}

/* kor_core_<table>_init */
void zan_server_core_init(const zan_table_def_t *def)
{
    zan_table_state_t *state = zan_table_state(def);
    const zan_rcode bind_rc = zan_ctx_bind(&state->ctx);
    if (bind_rc != EOK || !state->ctx) {
        ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id, INIT_BIND_FAILED,
                        bind_rc, state->ctx);
        return; // the table stays without init, and it is not tried again
    }
    assert_db_init(def, zan_db_init(state->ctx, def->id));
    zan_alloc_npu_sync_mcast_msg();
    init_global_record(def, state->props, &state->ctx->table[def->id]);
    state->arch_resources_cbs = kor_arch_resources_cb_get();
    if (!state->arch_resources_cbs)
        trace_named(def, ZAN_TRACE_LEVEL_ERROR, ZAN_TMSG_INIT_NULL_ARCH_CBS,
                    "kor_core_%s_init: NULL arch_resources_cbs");
    zan_server_init_events(def);
    if (!zan_inherit_plan_make(def))
        return; // without memory the table stays without init
    __atomic_store_n(&state->db_ctx.db_type, 1, __ATOMIC_RELEASE);
}

/* zan_<table>_register_periodic_stats_done */
void zan_server_register_periodic_stats(const zan_table_def_t *def)
{
    if (def->periodic_stats) {
        zan_periodic_stats_add_active_table({ZAN_STATS_TABLE, def->id}, 1);
        trace_named(def, ZAN_TRACE_LEVEL_EVENT, ZAN_TMSG_STATS_REGISTERED,
                    "zan_%s_register_periodic_stats_done");
    }
    for (uint32_t i = 0; i < def->num_adjacencies; i++)
        zan_periodic_stats_add_active_table({ZAN_STATS_ADJACENCY, def->adjacencies[i]}, 1);
}
