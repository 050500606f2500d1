/* Event tables: which change of which object must reach which tables is declared, not computed.
 *
 * Each table that raises events has an exported array <table>_events, each that receives some an
 * array <table>_npi_evt_stats. At a table's first use its bitmaps are made: the direct child tables
 * in bwmask, and the tables with an interest for each event. All bitmaps have one width, so that
 * any two can be intersected word by word.
 */
#include "table_lists.h"
#include "table_server_api_common.h"

#include <cstdlib>

uint64_t *bwmask[ZAN_NUM_TABLES];

static void trace_chain(const zan_table_def_t *def, const zan_event_record_t *event, int32_t child)
{
    const zan_trace_class_t c = zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_VERBOSE);
    if (zan_trace_is_on(c))
        _ringlogs(c, zan_msg_id(zan_table_msg(def->id, ZAN_TMSG_EVENT_CHAIN), 2, 0x3), event->name,
                  kor_table_name_get((uint32_t)child));
}

/* init_<table>_evt_dpd_chain: the child bitmap of every record, the reserved one included. */
static void init_evt_dpd_chain(const zan_table_def_t *def, zan_event_record_t *events)
{
    for (uint32_t i = 0; i <= def->num_events; i++) {
        zan_event_record_t *event = &events[i];
        event->child_bitmap = kor_bm_allocate(ZAN_TABLE_BITMAP_BITS);
        for (int32_t c = 0; c < event->child_count; c++) {
            kor_bm_set(event->child_bitmap, (uint32_t)event->child_tables[c]);
            trace_chain(def, event, event->child_tables[c]);
        }
    }
}

zan_rcode zan_server_init_bwalk_stats(const zan_table_def_t *def)
{
    srv_zan_table_props_t *props = zan_table_state(def)->props;
    const zan_table_entry_t *entry = zan_table_entry_get(def->id);
    props->evt_stats = entry->evt_stats;
    if (def->event_chain) {
        table_bwalk_originator_stats_alloc(def->id);
        props->event_table = entry->events;
    }
    return props->register_evt_stats();
}

void zan_server_init_events(const zan_table_def_t *def)
{
    srv_zan_table_props_t *props = zan_table_state(def)->props;
    bwmask[def->id] = kor_bm_allocate(ZAN_TABLE_BITMAP_BITS);
    for (uint32_t i = 0; i < def->num_children; i++)
        kor_bm_set(bwmask[def->id], def->children[i]);
    zan_server_init_bwalk_stats(def);
    if (def->event_chain) {
        init_evt_dpd_chain(def, props->event_table);
        props->set_event_table(props->event_table);
        props->register_event_table(props->event_table);
    } else {
        props->set_event_table(nullptr);
    }
}

void kor_core_deinit(const zan_table_def_t *def)
{
    free(bwmask[def->id]);
    bwmask[def->id] = nullptr;
    zan_inherit_plan_free(def);
}

void zan_srv_deinit(void)
{
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++)
        kor_core_deinit(zan_table_defs[id]);
}

void handle_event_free_allocated_mask(void)
{
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        zan_event_record_t *events = zan_table_entry_get(id)->events;
        if (!def->event_chain)
            continue;
        for (uint32_t i = 0; i <= def->num_events; i++) {
            free(events[i].child_bitmap);
            events[i].child_bitmap = nullptr;
        }
    }
}

bool zan_fwalk_coloring_is_true(const zan_table_base_st *obj)
{
    return zan_srv_table_props_get(obj->table_id)->color_using_fwalk(obj) != 0;
}
