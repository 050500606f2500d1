/* Every name that clients and platforms bind to exists with C linkage, for every table that has it.
 */
#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "table_properties.h"
#include "walk_service.h"

namespace
{

bool exported(const std::string &name)
{
    return dlsym(RTLD_DEFAULT, name.c_str()) != nullptr;
}

/* "%" stands for the table's name, "^" for the same in capitals. */
std::string name_for(const char *pattern, const zan_table_def_t *def)
{
    std::string name;
    for (const char *p = pattern; *p; p++)
        name += *p == '%'   ? std::string(def->name)
                : *p == '^' ? std::string(def->upper)
                            : std::string(1, *p);
    return name;
}

const char *const every_table[] = {
    "zan_server_api_%_create",
    "zan_server_api_%_update",
    "zan_server_api_%_delete",
    "zan_server_api_%_get",
    "zan_server_api_%_get_first",
    "zan_server_api_%_get_next",
    "zan_server_api_%_get_gt_eq",
    "zan_server_api_%_release_id",
    "zan_server_api_%_update_release_id",
    "zan_srv_%_crud_from_obj_base",
    "zan_srv_%_npi_init_table_props",
    "zan_srv_%_npi_init_adj_props",
    "kor_core_%_resolve_ref",
    "kor_core_%_iterator",
    "kor_core_%_replay_start",
    "kor_core_%_replay_end",
    "kor_core_%_deinit",
    "kor_core_%_get_attrib_update_mask",
    "kor_server_%_hw_thread_picker",
    "kor_server_api_%_oor_accounting",
    "kor_server_api_%_oor_accounting_from_async_write",
    "kor_server_api_%_oor_accounting_from_async_write_update",
    "kor_server_api_%_increment_hw_err_counters",
    "kor_srv_%_walk",
    "kor_srv_%_copy_key_from_base",
    "kor_srv_%_npd_delay_delete",
    "zan_core_%_resolve_refs_union",
    "zan_%_copy_ctor",
    "zan_%_copy_dtor",
    "zan_%_set_npd_exists",
    "zan_%_is_attrib_changed",
    "zan_%_calc_update_delta_lists",
    "zan_%_print_key_from_base_obj",
    "zan_%_obj_printer_print_key_with_enum",
    "zan_%_event_post_processing",
    "zan_%_prep_walk_ctx",
    "zan_%_init_bwalk_stats",
    "zan_%_bwalk_child_process_events",
    "zan_%_bwalk_child_callback",
    "zan_%_get_ringlog_enums",
    "kor_%_get_db_type",
    "kor_%_get_resource_info",
    "kor_%_send_notification",
    "kor_%_serialize",
    "kor_%_key_cmp",
    "kor_%_key_is_set",
    "srv_%_set_sdk_show_buf",
    "srv_%_get_table_obj_from_get_sdk_ctx",
    "srv_%_callback_wrapper_setup",
    "zan_srv_%_get_trans_id",
    "kor_srv_%_get_key",
    "kor_srv_%_set_key",
    "ZAN_^_ERROR__",
    "ZAN_^_EVENT__",
    "ZAN_^_VERBOSE__",
};

std::string lower(const char *text)
{
    std::string out;
    for (; *text; text++)
        out += (char)tolower(*text);
    return out;
}

} // namespace

TEST(Exports, EveryTableHasItsNames)
{
    uint32_t event_entries = 0, eod_entries = 0, pushes = 0, event_tables = 0;
    for (const zan_table_def_t *def : zan_table_defs) {
        for (const char *pattern : every_table)
            EXPECT_TRUE(exported(name_for(pattern, def))) << name_for(pattern, def);
        const bool event_entry = exported(name_for("zan_server_api_%_event", def));
        EXPECT_EQ(event_entry, def->event_entry != 0) << def->name;
        event_entries += event_entry;
        const bool eod_entry = exported(name_for("zan_server_api_%_eod", def));
        EXPECT_EQ(eod_entry, def->eod_entry != 0) << def->name;
        eod_entries += eod_entry;
        const bool events = exported(name_for("%_events", def));
        EXPECT_EQ(events, def->num_events != 0) << def->name;
        event_tables += events;
        EXPECT_EQ(exported(name_for("%_npi_evt_stats", def)), def->num_subscriptions != 0)
            << def->name;
        for (uint32_t i = 0; i < def->num_events; i++) {
            const char *event = def->events[i].name + strlen(def->upper) + 1;
            const std::string push = name_for("zan_walk_events_%_push_", def) + lower(event);
            EXPECT_TRUE(exported(push)) << push;
            pushes++;
        }
        for (uint32_t i = 0; i < def->num_attrs; i++)
            for (const char *verb : {"get_", "set_", "is_set_"})
                EXPECT_TRUE(exported(name_for("kor_srv_%_", def) + verb + def->attrs[i].name));
    }
    EXPECT_EQ(event_entries, 53u);
    EXPECT_EQ(eod_entries, 15u);
    EXPECT_EQ(pushes, 107u);
    EXPECT_EQ(event_tables, 49u);
}

TEST(Exports, EventArraysAgreeWithTheDefinitions)
{
    for (const zan_table_def_t *def : zan_table_defs) {
        const auto *events =
            (zan_event_record_t *)dlsym(RTLD_DEFAULT, name_for("%_events", def).c_str());
        if (!events)
            continue;
        EXPECT_EQ(std::string(events[0].name), std::string(def->upper) + "_NPI_TYPE_INVALID");
        for (uint32_t i = 1; i <= def->num_events; i++) {
            const zan_event_def_t &declared = def->events[i - 1];
            EXPECT_EQ(events[i].event_id, i);
            EXPECT_STREQ(events[i].name, declared.name);
            EXPECT_EQ(events[i].attrib_mask, declared.attrib_mask) << declared.name;
            EXPECT_EQ(events[i].color, declared.color) << declared.name;
            EXPECT_EQ(events[i].post_proc, declared.post_proc) << declared.name;
            ASSERT_EQ(events[i].child_count, declared.child_count) << declared.name;
            for (uint32_t c = 0; c < declared.child_count; c++)
                EXPECT_EQ(events[i].child_tables[c], declared.child_tables[c]) << declared.name;
        }
    }
}
