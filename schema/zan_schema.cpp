/* zan_schema: prints the table definitions that are compiled in.
 *
 *   zan_schema              one line for each table
 *   zan_schema TABLE...     key, attributes, references, events and options of these tables
 *   zan_schema --json       everything, for programs
 *
 * It reads the constants of the table layer and nothing else: what it prints is what the server,
 * the clients and the platforms of this build agree on. The exit status is 0, or 1 for an unknown
 * table.
 */
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "zan_table_def.h"

namespace
{

const char *const exercise_group = "Exercise tables";

/* ---- What both forms need ---- */

/* The options of a definition that are 0 or 1, under the names they have for people and programs.
 */
struct flag_t {
    const char *name;
    uint8_t zan_table_def_t::*field;
};

const flag_t flags[] = {
    {"npu_threads", &zan_table_def_t::npu_threads},
    {"object_mask_async", &zan_table_def_t::object_mask_async},
    {"track_inflight", &zan_table_def_t::track_inflight},
    {"serialize_back", &zan_table_def_t::serialize_back},
    {"async_batch_end", &zan_table_def_t::async_batch_end},
    {"evt_walk_suppressed", &zan_table_def_t::evt_walk_suppressed},
    {"evt_walk_childless", &zan_table_def_t::evt_walk_childless},
    {"periodic_stats", &zan_table_def_t::periodic_stats},
    {"stats_table", &zan_table_def_t::stats_table},
    {"event_entry", &zan_table_def_t::event_entry},
    {"eod_entry", &zan_table_def_t::eod_entry},
    {"event_chain", &zan_table_def_t::event_chain},
    {"identifiers", &zan_table_def_t::identifiers},
    {"identifiers_per_npu", &zan_table_def_t::identifiers_per_npu},
    {"identifiers_per_npu_on_update", &zan_table_def_t::identifiers_per_npu_on_update},
    {"notify_update_reserve", &zan_table_def_t::notify_update_reserve},
    {"notify_update_missing", &zan_table_def_t::notify_update_missing},
    {"delete_action_select", &zan_table_def_t::delete_action_select},
    {"delete_calls_picker", &zan_table_def_t::delete_calls_picker},
    {"internal_async_q_err", &zan_table_def_t::internal_async_q_err},
    {"post_actions", &zan_table_def_t::post_actions},
    {"repeated_delta", &zan_table_def_t::repeated_delta},
    {"update_of_missing_creates", &zan_table_def_t::update_of_missing_creates},
    {"delete_notify", &zan_table_def_t::delete_notify},
    {"replay_client_filter", &zan_table_def_t::replay_client_filter},
    {"create_reject", &zan_table_def_t::create_reject},
    {"change_test", &zan_table_def_t::change_test},
    {"dbobj_fetch", &zan_table_def_t::dbobj_fetch},
    {"parent_init_without_references", &zan_table_def_t::parent_init_without_references},
    {"graph", &zan_table_def_t::graph},
    {"resizing", &zan_table_def_t::resizing},
    {"has_per_npu", &zan_table_def_t::has_per_npu},
};

const char *const type_names[] = {"u8",   "u16",  "u32",         "u64",        "bool",
                                  "enum", "bits", "intf",        "npu_mask",   "ipv4",
                                  "ipv6", "mac",  "ipv4_prefix", "ipv6_prefix"};
static_assert(std::size(type_names) == ZAN_TYPE_COUNT);
const char *const shape_names[] = {"single", "array", "per_npu", "repeated"};
const char *const db_lock_names[] = {"none", "db", "stats", "both"};
const char *const oor_update_names[] = {"none", "mask_change", "release"};

const char *color_name(uint8_t color)
{
    return color == 1 ? "green" : color == 2 ? "red" : color == 4 ? "brown" : "none";
}

bool is_exercise(uint16_t table_id)
{
    return strcmp(zan_table_defs[table_id]->group, exercise_group) == 0;
}

/* Names of what the flows read or write by name: fields of the key and attributes, in order. */
std::vector<std::string> server_visible(const zan_table_def_t *def)
{
    std::vector<std::string> names;
    for (uint16_t i = 0; i < def->num_keys; i++)
        if (def->keys[i].server_visible)
            names.push_back(def->keys[i].name);
    for (uint16_t i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].server_visible)
            names.push_back(def->attrs[i].name);
    std::sort(names.begin(), names.end());
    return names;
}

/* ---- JSON ---- */

/* Writes JSON to the standard output. A comma is set before a value unless it is the first. */
struct json_t {
    void open(char bracket)
    {
        comma();
        putchar(bracket);
        first = true;
    }
    void open(const char *name, char bracket)
    {
        key(name);
        open(bracket);
    }
    void close(char bracket)
    {
        putchar(bracket);
        first = false;
    }
    void line()
    {
        comma();
        first = true;
        putchar('\n');
    }
    void text(const char *value)
    {
        comma();
        putchar('"');
        for (; *value; value++) {
            if (*value == '"' || *value == '\\')
                putchar('\\');
            putchar(*value);
        }
        putchar('"');
    }
    void number(uint64_t value)
    {
        comma();
        printf("%" PRIu64, value);
    }
    void field(const char *name, const char *value)
    {
        key(name);
        if (value) {
            text(value);
        } else {
            printf("null");
            first = false;
        }
    }
    void field(const char *name, uint64_t value)
    {
        key(name);
        number(value);
    }
    void boolean(const char *name, bool value)
    {
        key(name);
        printf("%s", value ? "true" : "false");
        first = false;
    }

    void comma()
    {
        if (!first)
            putchar(',');
        first = false;
    }
    void key(const char *name)
    {
        text(name);
        putchar(':');
        first = true;
    }

    bool first = true; /* nothing stands yet before the next value */
};

void json_field_def(json_t &j, const zan_field_def_t &f, bool attribute)
{
    j.open('{');
    j.field("name", f.name);
    j.field("type", type_names[f.type]);
    j.field("doc", f.doc);
    if (f.num_names) {
        j.open("values", '{');
        for (uint16_t i = 0; i < f.num_names; i++)
            j.field(f.names[i].name, f.names[i].value);
        j.close('}');
    }
    if (attribute) {
        j.field("shape", shape_names[f.shape]);
        j.field("count", f.count);
        j.field("trigger_mask", f.trigger_mask);
        j.field("statistic", f.statistic);
    }
    j.field("server_visible", f.server_visible);
    j.field("offset", f.offset);
    j.field("width", f.width);
    j.close('}');
}

void json_fields(json_t &j, const zan_table_def_t *def)
{
    j.open("key", '[');
    for (uint16_t i = 0; i < def->num_keys; i++)
        json_field_def(j, def->keys[i], false);
    j.close(']');
    j.open("fields", '[');
    for (uint16_t i = 0; i < def->num_attrs; i++)
        json_field_def(j, def->attrs[i], true);
    j.close(']');
    j.open("attributes", '[');
    for (const std::string &name : server_visible(def))
        j.text(name.c_str());
    j.close(']');
}

void json_inherits(json_t &j, const zan_table_def_t *def, const char *kind, const char *stem,
                   const char *variant, const zan_table_def_t *parent, uint16_t num,
                   const zan_inherit_def_t *inherits)
{
    for (uint16_t i = 0; i < num; i++) {
        j.open('{');
        j.field(kind, stem);
        if (variant)
            j.field("variant", variant);
        j.field("parent_attribute", parent->attrs[inherits[i].parent_attr].name);
        j.field("attribute", def->attrs[inherits[i].attr].name);
        j.close('}');
    }
}

void json_references(json_t &j, const zan_table_def_t *def)
{
    j.field("has_plain_references", def->num_refs > 0);
    j.open("references", '[');
    for (uint16_t i = 0; i < def->num_refs; i++) {
        j.open('{');
        j.field("stem", def->refs[i].stem);
        j.field("parent", kor_table_name_get(def->refs[i].parent_id));
        j.field("repeated", def->refs[i].repeated);
        j.close('}');
    }
    j.close(']');
    j.open("unions", '[');
    for (uint16_t i = 0; i < def->num_unions; i++) {
        const zan_union_def_t &u = def->unions[i];
        j.open('{');
        j.field("attr", u.attr);
        j.field("repeated", u.repeated);
        if (u.nested_in) {
            j.field("nested_in", def->unions[u.nested_in - 1].attr);
            j.field("nested_selector", u.nested_selector);
        }
        j.open("variants", '[');
        for (uint16_t v = 0; v < u.num_variants; v++) {
            j.open('{');
            j.field("selector", u.variants[v].selector);
            j.field("stem", u.variants[v].stem);
            j.field("parent", kor_table_name_get(u.variants[v].parent_id));
            j.close('}');
        }
        j.close(']');
        j.close('}');
    }
    j.close(']');
    j.open("inherits", '[');
    for (uint16_t i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t &r = def->refs[i];
        json_inherits(j, def, "reference", r.stem, nullptr, zan_table_defs[r.parent_id],
                      r.num_inherits, r.inherits);
    }
    for (uint16_t i = 0; i < def->num_unions; i++)
        for (uint16_t n = 0; n < def->unions[i].num_variants; n++) {
            const zan_variant_def_t &v = def->unions[i].variants[n];
            json_inherits(j, def, "union", def->unions[i].attr, v.stem, zan_table_defs[v.parent_id],
                          v.num_inherits, v.inherits);
        }
    j.close(']');
    j.open("max_parents", '{');
    j.field("per_member", def->max_parents_per_member);
    j.field("single", def->max_parents_single);
    j.close('}');
    j.open("direct_children", '[');
    for (uint16_t i = 0; i < def->num_children; i++)
        j.text(kor_table_name_get(def->children[i]));
    j.close(']');
    j.open("direct_children_outside_exercise_group", '[');
    for (uint16_t i = 0; i < def->num_children; i++)
        if (!is_exercise(def->children[i]))
            j.text(kor_table_name_get(def->children[i]));
    j.close(']');
}

void json_events(json_t &j, const zan_table_def_t *def)
{
    j.open("events", '[');
    for (uint16_t i = 0; i < def->num_events; i++) {
        const zan_event_def_t &e = def->events[i];
        j.open('{');
        j.field("name", e.name);
        j.field("id", e.id);
        j.field("attrib_mask", e.attrib_mask);
        j.field("child_count", e.child_count);
        j.field("color", e.color);
        j.field("post_proc", e.post_proc);
        j.open("child_tables", '[');
        for (uint16_t c = 0; c < e.child_count; c++)
            j.text(kor_table_name_get(e.child_tables[c]));
        j.close(']');
        j.close('}');
    }
    j.close(']');
    j.open("events_received", '[');
    for (uint16_t i = 0; i < def->num_subscriptions; i++)
        j.text(def->subscriptions[i].name);
    j.close(']');
    j.open("forced", '[');
    for (uint16_t i = 0; i < def->num_subscriptions; i++)
        if (def->subscriptions[i].force)
            j.text(def->subscriptions[i].name);
    j.close(']');
}

void json_options(json_t &j, const zan_table_def_t *def)
{
    for (const flag_t &flag : flags)
        j.field(flag.name, def->*flag.field);
    j.field("write_mode", def->write_mode);
    j.field("table_class", def->table_class);
    j.field("hw_rc_mode", def->hw_rc_mode);
    j.field("delete_delay", def->delete_delay);
    j.field("db_lock", db_lock_names[def->db_lock]);
    j.field("accounting_callback", def->oor_account_plain ? "account" : "account_sub");
    j.field("accounting_on_update", oor_update_names[def->oor_update]);
    j.field("hwdb", zan_hwdb_name(def->hwdb));
    j.field("obj_ref_cnt_limit", def->obj_ref_cnt_limit);
    j.open("init_option_bytes", '[');
    j.number(def->init_option_bytes[0]);
    j.number(def->init_option_bytes[1]);
    j.close(']');
    j.field("adj_list_first_24_bytes", def->adj_list_offset != 0);
    j.field("obj_size", def->obj_size);
    j.field("key_size", def->key_size);
    j.open("elements", '[');
    for (uint16_t i = 0; i < def->num_elements; i++)
        j.text(def->elements[i].name);
    j.close(']');
    j.field("element_record_bytes", def->element_record_bytes);
    j.field("element_match_field", def->element_match_field);
}

void json_all()
{
    char fingerprint[20];
    snprintf(fingerprint, sizeof(fingerprint), "%016" PRIx64, zan_schema_fingerprint);
    json_t j;
    j.open('{');
    j.field("fingerprint", fingerprint);
    j.open("tables", '[');
    for (const zan_table_def_t *def : zan_table_defs) {
        j.line();
        j.open('{');
        j.field("id", def->id);
        j.field("name", def->name);
        j.field("group", def->group);
        j.field("doc", def->doc);
        json_options(j, def);
        json_fields(j, def);
        json_references(j, def);
        json_events(j, def);
        j.close('}');
    }
    j.close(']');
    j.open("adjacency_tables", '[');
    for (uint16_t i = 0; i < zan_num_adj_defs; i++) {
        j.line();
        j.open('{');
        j.field("index", zan_adj_defs[i].index);
        j.field("name", zan_adj_defs[i].name);
        j.field("parent", kor_table_name_get(zan_adj_defs[i].parent_id));
        j.boolean("hooks", zan_adj_defs[i].hooks);
        j.close('}');
    }
    j.close(']');
    j.close('}');
    putchar('\n');
}

/* ---- Text ---- */

void text_list()
{
    for (const zan_table_def_t *def : zan_table_defs)
        printf("%3u  %-24s %-32s %s\n", def->id, def->name, def->group, def->doc);
}

/* "enum down|up", "u32[64]", "u32 for each member". */
std::string type_text(const zan_field_def_t &f)
{
    std::string text = type_names[f.type];
    for (uint16_t i = 0; i < f.num_names; i++)
        text += (i ? "|" : " ") + std::string(f.names[i].name);
    if (f.shape == ZAN_SHAPE_ARRAY)
        text += "[" + std::to_string(f.count) + "]";
    if (f.shape == ZAN_SHAPE_PER_NPU)
        text += " for each NPU";
    if (f.shape == ZAN_SHAPE_REPEATED)
        text += " for each member";
    return text;
}

void text_fields(const char *title, const zan_field_def_t *fields, uint16_t num)
{
    printf("  %s\n", title);
    for (uint16_t i = 0; i < num; i++) {
        printf("    %-28s %-24s %s", fields[i].name, type_text(fields[i]).c_str(), fields[i].doc);
        if (fields[i].trigger_mask)
            printf(" Raises update bits 0x%" PRIx64 ".", fields[i].trigger_mask);
        putchar('\n');
    }
}

void text_inherits(const zan_table_def_t *def, uint16_t parent_id, uint16_t num,
                   const zan_inherit_def_t *inherits)
{
    for (uint16_t i = 0; i < num; i++)
        printf("        %s is taken from %s.%s\n", def->attrs[inherits[i].attr].name,
               kor_table_name_get(parent_id),
               zan_table_defs[parent_id]->attrs[inherits[i].parent_attr].name);
}

void text_references(const zan_table_def_t *def)
{
    if (def->num_refs || def->num_unions)
        printf("  references\n");
    for (uint16_t i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t &r = def->refs[i];
        printf("    %s -> %s%s\n", r.stem, kor_table_name_get(r.parent_id),
               r.repeated ? ", for each member" : "");
        text_inherits(def, r.parent_id, r.num_inherits, r.inherits);
    }
    for (uint16_t i = 0; i < def->num_unions; i++) {
        const zan_union_def_t &u = def->unions[i];
        printf("    %s, one of%s\n", u.attr, u.repeated ? ", for each member" : "");
        for (uint16_t v = 0; v < u.num_variants; v++) {
            printf("      %u %s -> %s\n", u.variants[v].selector, u.variants[v].stem,
                   kor_table_name_get(u.variants[v].parent_id));
            text_inherits(def, u.variants[v].parent_id, u.variants[v].num_inherits,
                          u.variants[v].inherits);
        }
    }
    if (def->num_children) {
        printf("  referred to by\n   ");
        for (uint16_t i = 0; i < def->num_children; i++)
            printf(" %s", kor_table_name_get(def->children[i]));
        putchar('\n');
    }
}

void text_events(const zan_table_def_t *def)
{
    if (def->num_events)
        printf("  raises\n");
    for (uint16_t i = 0; i < def->num_events; i++) {
        const zan_event_def_t &e = def->events[i];
        printf("    %u %s on update bits 0x%" PRIx64 "%s%s%s\n", e.id, e.name, e.attrib_mask,
               e.color ? ", color " : "", e.color ? color_name(e.color) : "",
               e.post_proc ? ", post-processed" : "");
        if (e.child_count)
            printf("       ");
        for (uint16_t c = 0; c < e.child_count; c++)
            printf(" %s", kor_table_name_get(e.child_tables[c]));
        if (e.child_count)
            putchar('\n');
    }
    if (def->num_subscriptions)
        printf("  receives\n");
    for (uint16_t i = 0; i < def->num_subscriptions; i++)
        printf("    %s%s\n", def->subscriptions[i].name,
               def->subscriptions[i].force ? ", forces the update" : "");
}

void text_options(const zan_table_def_t *def)
{
    printf("  options\n    write_mode=%u table_class=%u hw_rc_mode=%u", def->write_mode,
           def->table_class, def->hw_rc_mode);
    if (def->delete_delay)
        printf(" delete_delay=%u", def->delete_delay);
    if (def->obj_ref_cnt_limit)
        printf(" obj_ref_cnt_limit=%u", def->obj_ref_cnt_limit);
    if (def->db_lock)
        printf(" db_lock=%s", db_lock_names[def->db_lock]);
    if (def->oor_update)
        printf(" oor_update=%s", oor_update_names[def->oor_update]);
    printf(" hwdb=%s", zan_hwdb_name(def->hwdb));
    for (const flag_t &flag : flags)
        if (def->*flag.field)
            printf(" %s", flag.name);
    putchar('\n');
}

void text_table(const zan_table_def_t *def)
{
    printf("%s (%u), %s: %s\n", def->name, def->id, def->group, def->doc);
    printf("  %u bytes, key %u bytes\n", def->obj_size, def->key_size);
    text_fields("key", def->keys, def->num_keys);
    if (def->num_attrs)
        text_fields("attributes", def->attrs, def->num_attrs);
    text_references(def);
    text_events(def);
    text_options(def);
}

int text_tables(int count, char **names)
{
    int status = 0;
    for (int i = 0; i < count; i++) {
        if (const zan_table_def_t *def = zan_table_def_find(names[i])) {
            text_table(def);
        } else {
            fprintf(stderr, "zan_schema: there is no table %s; zan_schema lists all\n", names[i]);
            status = 1;
        }
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 1) {
        text_list();
        return 0;
    }
    if (strcmp(argv[1], "--json") == 0) {
        json_all();
        return 0;
    }
    if (argv[1][0] == '-') {
        printf("usage: zan_schema [--json | TABLE...]\n");
        return strcmp(argv[1], "--help") == 0 ? 0 : 1;
    }
    return text_tables(argc - 1, argv + 1);
}
