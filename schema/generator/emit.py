"""The C and C++ text made from the definitions: {file name: content}.

Generated code holds constant data, structures, prototypes and one-line macro invocations, no flow.
Three libraries take it: the table layer (<table>.h, <table>.cpp, zan_table_defs.cpp), the server
(<table>_server_api.cpp, kor_server_utils_<table>.cpp, zan_table_server_dispatcher.cpp; each names
macros that the server writes) and the simulated NPUs and the host (one file of hooks each).
"""
import hashlib
import json

from load import CHOICES, OPTIONS
from validate import direct_children

SHAPES = {"single": "ZAN_SHAPE_SINGLE", "array": "ZAN_SHAPE_ARRAY",
          "per_npu": "ZAN_SHAPE_PER_NPU", "repeated": "ZAN_SHAPE_REPEATED"}


class Schema:
    """The tables, and what leads from a name to what it names."""

    def __init__(self, tables):
        self.tables = tables
        self.by_name = {t.name: t for t in tables}
        self.owner = {e.name: (t, e) for t in tables for e in t.events}
        self.children = direct_children(tables)
        self.adjacencies = sorted((a for t in tables for a in t.adjacencies), key=lambda a: a.index)

    def ids(self, names):
        return [self.by_name[n].id for n in names]


def emit(tables):
    schema = Schema(tables)
    files = {"zan_table_keys.h": keys_header(tables), "zan_all_tables.h": all_header(tables),
             "zan_table_defs.cpp": definitions(tables),
             "zan_table_server_dispatcher.cpp": table_list(tables),
             "npu_sim_hooks.cpp": npu_sim_hooks(tables),
             "host_identifier_hooks.cpp": identifier_hooks(tables),
             "host_adjacency_tables.cpp": adjacency_tables(schema)}
    for t in tables:
        files[f"{t.name}.h"] = header(t)
        files[f"{t.name}.cpp"] = source(t, schema)
        files[f"{t.name}_server_api.cpp"] = server_api(t, schema)
        files[f"kor_server_utils_{t.name}.cpp"] = server_utils(t)
    return {name: "\n".join(lines) + "\n" for name, lines in files.items()}


def quoted(text):
    return json.dumps(text, ensure_ascii=True)


def made_from(t):
    return f"/* Made from {t.file}. Change that file, not this one. */"


# ---- Headers ----

def keys_header(tables):
    out = ["/* The key of every table. Made from schema. */", "#ifndef ZAN_TABLE_KEYS_H",
           "#define ZAN_TABLE_KEYS_H", "", '#include "zan_types.h"', ""]
    for t in tables:
        out += [f"typedef struct kor_{t.name}_key_t {{"]
        out += [f"    {f.ctype} {f.name};" for f in t.keys]
        out += [f"}} kor_{t.name}_key_t;"]
    out += [f'ZAN_STATIC_ASSERT(sizeof(kor_{t.name}_key_t) == {t.layout.key_size}, "{t.name}");'
            for t in tables]
    return out + ["", "#endif"]


def all_header(tables):
    return ["/* Every table of the server. Made from schema. */", "#ifndef ZAN_ALL_TABLES_H",
            "#define ZAN_ALL_TABLES_H", "", *(f'#include "{t.name}.h"' for t in tables), "",
            "#endif"]


def header(t):
    guard = f"ZAN_TABLE_{t.upper}_H"
    out = [made_from(t), f"#ifndef {guard}", f"#define {guard}", "", '#include "zan_accessors.h"',
           '#include "zan_table_keys.h"', "", f"#define {t.upper}_TABLE_ID {t.id}", ""]
    out += enumerations(t) + reference_types(t) + object_struct(t) + element_struct(t)
    out += ["ZAN_EXTERN_C_BEGIN", f"ZAN_TABLE_ACCESSORS_DECL({t.name})"]
    out += [accessor(t, f, "_DECL") for f in accessor_fields(t)]
    for r in t.refs:
        out.append(f"ZAN_REF_DECL({t.name}, {r.stem}, kor_{r.table}_key_t, {times(r)})")
    for u in t.unions:
        out.append(f"ZAN_UNION_DECL({t.name}, {u.attr}, {times(u)})")
    for u in t.stored_unions:
        for v in u.variants:
            out.append(f"ZAN_VARIANT_DECL({t.name}, {u.attr}, {v.stem}, kor_{v.table}_key_t, "
                       f"{times(u)})")
    return out + ["ZAN_EXTERN_C_END", "", "#endif"]


def times(slot):
    return "ZAN_EACH" if slot.repeated else "ZAN_ONE"


def enumerations(t):
    out = []
    for f in t.keys + t.attrs:
        if f.values:
            one = "{}" if f.type == "enum" else "1 << {}"
            out += [f"/* {f.doc} */", "enum {"]
            out += wrapped([f"{enumerator(t, f, v)} = {one.format(i)}"
                            for i, v in enumerate(f.values)])
            out += ["};"]
    return out + [""] * bool(out)


def enumerator(t, f, value):
    return f"{t.upper}_{f.name.upper()}_{value.upper()}"


def reference_types(t):
    out = []
    for r in t.refs:
        out.append(f"ZAN_REF_TYPE({t.name}, {r.stem}, kor_{r.table}_key_t);")
    for u in t.unions:
        out += [f"typedef struct kor_{t.name}_{u.attr}_t {{", "    zan_ref_value_st ref;",
                "    union {"]
        out += [f"        kor_{v.table}_key_t {v.stem};" for v in u.variants]
        out += ["    } key;", f"}} kor_{t.name}_{u.attr}_t;"]
    return out + [""] * bool(out)


def object_struct(t):
    lay, obj = t.layout, f"zan_{t.name}_obj_st"
    out = [f"/* {t.doc} */", f"typedef struct {obj} {{", "    zan_table_base_st base;"]
    if lay.adj_list:
        out.append("    uint64_t adj_list[3];")
    out += ["    uint32_t trans_id;", "    kor_npu_mask_t npu_mask_req;",
            "    uint8_t npu_mask_req_set;", f"    kor_{t.name}_key_t key;"]
    if lay.obj_ref_cnt:
        out += ["    uint32_t obj_ref_cnt;", "    uint8_t obj_ref_cnt_set;"]
    if lay.num_elements:
        out.append("    uint32_t num_elements;")
    out += [member(a) for a in t.attrs]
    for r in t.refs:
        out.append(f"    kor_{t.name}_ref_{r.stem}_t {'*' * r.repeated}ref_{r.stem};")
    for u in t.stored_unions:
        out.append(f"    kor_{t.name}_{u.attr}_t {'*' * u.repeated}{u.attr};")
    if lay.padding:
        out.append(f"    uint8_t reserved_end[{lay.padding}];")
    out += [f"}} {obj};", f"typedef zan_table_response_st zan_{t.name}_response_obj_st;", "",
            f"ZAN_ASSERT_LAYOUT({obj}, {lay.trans_id}, {lay.npu_mask_req}, "
            f"{lay.npu_mask_req_set}, {lay.key}, {lay.obj_size});", ""]
    return out


def element_struct(t):
    if not t.elements:
        return []
    name = f"srv_{t.name}_element_t"
    aliases = [(e.ctype, "uint64_t" if e.kind == "refhdl" else t.attr(e.name).ctype)
               for e in t.layout.elements
               if e.kind == "refhdl" or (e.kind == "attr" and e.ctype != t.attr(e.name).ctype)]
    out = ["/* One member, as the lists of an update have it. */"]
    out += [f"typedef {plain} {alias};" for alias, plain in dict(aliases).items()]
    out += [f"typedef struct {name} {{", f"    zan_{t.name}_obj_st *owner;",
            "    uint32_t index, side; /* 0: of the old object, 1: of the new one */"]
    out += [f"    {e.ctype} {e.name};" for e in t.layout.elements]
    out += [f"    zan_bool_t {e.name}_set;" for e in t.layout.elements]
    out += [f"}} {name};",
            f'ZAN_STATIC_ASSERT(sizeof({name}) == {t.layout.element_record}, "{name}");']
    out += [f'ZAN_STATIC_ASSERT(offsetof({name}, {e.name}) == {e.offset}, "{e.name}");'
            for e in t.layout.elements]
    return out + [f"typedef struct zan_repeated_delta_t srv_{t.name}_delta_t;", ""]


def member(a):
    if a.shape == "repeated":
        return f"    {a.ctype} *{a.name};"
    if a.shape == "per_npu":
        return f"    {a.ctype} {a.name}[ZAN_MAX_NPUS]; uint8_t {a.name}_set[ZAN_MAX_NPUS];"
    size = f"[{a.count}]" if a.shape == "array" else ""
    return f"    {a.ctype} {a.name}{size}; uint8_t {a.name}_set;"


# ---- The table layer ----

def accessor_fields(t):
    return [k for k in t.keys if k.server_visible] + t.attrs


def accessor(t, f, suffix=""):
    if f in t.keys:
        return f"ZAN_ATTR_KEY{suffix}({t.name}, {f.name}, {f.ctype})"
    length = f", {f.count}" if f.shape == "array" and not suffix else ""
    return f"ZAN_ATTR_{f.shape.upper()}{suffix}({t.name}, {f.name}, {f.ctype}{length})"


def source(t, schema):
    out = [made_from(t), f'#include "{t.name}.h"', "",
           "/* What an initialiser leaves out is 0. */",
           '#pragma GCC diagnostic ignored "-Wmissing-field-initializers"',
           f"namespace zan_data_{t.name} {{"]
    out += definition(t, schema)
    out += [f"}} // namespace zan_data_{t.name}", f"using zan_data_{t.name}::zan_def_{t.name};", "",
            'extern "C" {', f"ZAN_TABLE_ACCESSORS({t.name})"]
    if not t.attr("npu_bmap"):
        out.append(f"ZAN_NO_NPU_BMAP({t.name})")
    out += [accessor(t, f) for f in accessor_fields(t)]
    for r in t.refs:
        out.append(f"ZAN_REF({t.name}, {r.stem}, kor_{r.table}_key_t, {times(r)})")
    for u in t.stored_unions:
        out.append(f"ZAN_UNION({t.name}, {u.attr}, {times(u)})")
        for v in u.variants:
            out.append(f"ZAN_VARIANT({t.name}, {u.attr}, {v.stem}, kor_{v.table}_key_t, "
                       f"{times(u)}, {v.selector})")
    for u in t.unions:
        if u.nested_in:
            outer, selector = nesting(t, u)
            stem = outer.variants[selector - 1].stem
            out.append(f"ZAN_UNION_NESTED({t.name}, {u.attr}, {outer.attr}, {stem}, "
                       f"{u.variants[0].stem}, {selector})")
    return out + ["}"]


def nesting(t, u):
    attr, stem = u.nested_in.split(".")
    outer = next(x for x in t.unions if x.attr == attr)
    return outer, next(v.selector for v in outer.variants if v.stem == stem)


def definition(t, schema):
    """The constant zan_table_def_t with its arrays."""
    out = []
    for f in t.keys + t.attrs:
        if f.values:
            pairs = ", ".join(f'{{"{v}", {enumerator(t, f, v)}}}' for v in f.values)
            out.append(f"const zan_value_name_t names_{f.name}[] = {{{pairs}}};")
    out.append("const zan_field_def_t keys[] = {")
    out += [field_row(f, t.layout.key_offsets[f.name], 0) for f in t.keys]
    out.append("};")
    if t.attrs:
        out.append("const zan_field_def_t attrs[] = {")
        out += [field_row(a, *t.layout.attrs[a.name]) for a in t.attrs]
        out.append("};")
    out += references(t, schema) + unions(t, schema) + events(t, schema)
    out += numbers("children", schema.ids(schema.children[t.name]))
    out += numbers("adjacencies", sorted(a.index for a in t.adjacencies))
    if t.elements:
        out.append("const zan_element_def_t elements[] = {")
        out += [f"    {{{quoted(e.name)}, {quoted(e.ctype)}, ZAN_ELEMENT_{e.kind.upper()}, {e.index}, "
                f"{e.offset}, {e.width}, {e.set_offset}}}," for e in t.layout.elements]
        out.append("};")
    return out + [""] + table_record(t, schema)


def numbers(name, values):
    return [f"const uint16_t {name}[] = {{{', '.join(map(str, values))}}};"] if values else []


def field_row(f, offset, set_offset):
    names = (f"names_{f.name}", len(f.values)) if f.values else ("nullptr", 0)
    return (f"    {{{quoted(f.name)}, {quoted(f.doc)}, {names[0]}, {names[1]}, "
            f"ZAN_TYPE_{f.type.upper()}, {SHAPES[f.shape]}, {f.width}, {f.count}, {offset}, "
            f"{set_offset}, {f.trigger_mask:#x}, {int(f.server_visible)}, "
            f"{int(f.statistic)}}},")


def inherits(t, ref, parent, name):
    """(array lines, its name or nullptr) of the attributes that a reference hands down."""
    if not ref.inherits:
        return [], "nullptr"
    index = {a.name: i for i, a in enumerate(t.attrs)}
    parent_index = {a.name: i for i, a in enumerate(parent.attrs)}
    pairs = ", ".join(f"{{{index[a]}, {parent_index[p]}}}" for a, p in ref.inherits)
    return [f"const zan_inherit_def_t {name}[] = {{{pairs}}};"], name


def references(t, schema):
    before, rows = [], []
    for r in t.refs:
        parent, (offset, stride) = schema.by_name[r.table], t.layout.refs[r.stem]
        lines, name = inherits(t, r, parent, f"inherits_{r.stem}")
        before += lines
        rows.append(f"    {{{quoted(r.stem)}, {parent.id}, {parent.layout.key_size}, {offset}, "
                    f"{stride}, {int(r.repeated)}, {len(r.inherits)}, {name}}},")
    return before + (["const zan_ref_def_t refs[] = {", *rows, "};"] if rows else [])


def unions(t, schema):
    out, rows = [], []
    for u in t.unions:
        lines = []
        for v in u.variants:
            parent = schema.by_name[v.table]
            before, name = inherits(t, v, parent, f"inherits_{u.attr}_{v.stem}")
            out += before
            lines.append(f"    {{{quoted(v.stem)}, {parent.id}, {v.selector}, "
                         f"{parent.layout.key_size}, {len(v.inherits)}, {name}}},")
        out += [f"const zan_variant_def_t variants_{u.attr}[] = {{", *lines, "};"]
        offset, stride = t.layout.refs[u.attr]
        outer, selector = nesting(t, u) if u.nested_in else (None, 0)
        nested_in = t.unions.index(outer) + 1 if outer else 0
        rows.append(f"    {{{quoted(u.attr)}, variants_{u.attr}, {len(u.variants)}, {stride}, "
                    f"{offset}, {int(u.repeated)}, {nested_in}, {selector}}},")
    return out + (["const zan_union_def_t unions[] = {", *rows, "};"] if rows else [])


def events(t, schema):
    out, rows = [], []
    for e in t.events:
        out += numbers(f"interest_{e.id}", schema.ids(e.children))
        ids = f"interest_{e.id}" if e.children else "nullptr"
        rows.append(f"    {{{quoted(e.name)}, {e.mask:#x}, {ids}, {len(e.children)}, {e.id}, "
                    f"{e.color}, {int(e.post_proc)}}},")
    if rows:
        out += ["const zan_event_def_t events[] = {", *rows, "};"]
    if t.receives:
        out.append("const zan_subscription_def_t subscriptions[] = {")
        out += [f"    {{{source.id}, {event.id}, {int(s.force)}, {quoted(s.event)}}},"
                for s, source, event in subscribed(t, schema)]
        out.append("};")
    return out


def subscribed(t, schema):
    """(subscription, source table, event) in declared order."""
    return [(s, *schema.owner[s.event]) for s in t.receives]


def table_record(t, schema):
    lay = t.layout
    values = {"name": quoted(t.name), "upper": quoted(t.upper), "group": quoted(t.group),
              "doc": quoted(t.doc), "id": t.id}
    for k in OPTIONS:
        chosen = CHOICES[k][t.options[k]] if k in CHOICES else t.options[k]
        values[k] = 0 if t.options[k] == "none" else chosen
    values["init_option_bytes"] = "{%d, %d}" % t.init_option_bytes if any(t.init_option_bytes) \
        else 0
    values["obj_ref_cnt_limit"] = t.obj_ref_cnt_limit
    bmap = lay.attrs.get("npu_bmap", (0, 0))
    values |= {
        "obj_size": lay.obj_size, "trans_id_offset": lay.trans_id,
        "npu_mask_req_offset": lay.npu_mask_req, "npu_mask_req_set_offset": lay.npu_mask_req_set,
        "key_offset": lay.key, "key_size": lay.key_size, "key_bytes": lay.key_bytes,
        "adj_list_offset": lay.adj_list, "obj_ref_cnt_offset": lay.obj_ref_cnt,
        "num_elements_offset": lay.num_elements, "npu_bmap_offset": bmap[0],
        "npu_bmap_set_offset": bmap[1], "resizing": int(t.resizing),
        "has_per_npu": int(any(a.shape == "per_npu" for a in t.attrs)),
        "num_keys": len(t.keys), "num_attrs": len(t.attrs), "num_refs": len(t.refs),
        "num_unions": len(t.unions), "keys": "keys", "attrs": "attrs" if t.attrs else 0,
        "refs": "refs" if t.refs else 0, "unions": "unions" if t.unions else 0,
        "max_parents_per_member": t.max_parents[0], "max_parents_single": t.max_parents[1],
        "num_events": len(t.events), "num_subscriptions": len(t.receives),
        "num_children": len(schema.children[t.name]), "num_adjacencies": len(t.adjacencies),
        "events": "events" if t.events else 0,
        "subscriptions": "subscriptions" if t.receives else 0,
        "children": "children" if schema.children[t.name] else 0,
        "adjacencies": "adjacencies" if t.adjacencies else 0,
        "elements": "elements" if t.elements else 0, "num_elements": len(t.elements),
        "element_record_bytes": lay.element_record,
        "element_match_field": quoted(t.element_match_field) if t.element_match_field else 0}
    head = f"zan_def_{t.name}"
    return [f'extern "C" const zan_table_def_t {head} = {{'] + \
        wrapped([f".{k} = {v}" for k, v in values.items() if v != 0]) + ["};"]


def wrapped(parts):
    """Initialisers, as many on a line as fit 100 columns."""
    lines, line = [], "   "
    for part in parts:
        if len(line) + len(part) + 2 > 100:
            lines.append(line)
            line = "   "
        line += f" {part},"
    return lines + [line]


def definitions(tables):
    out = ["/* All definitions. Made from schema. */", "#include <string.h>", "",
           '#include "zan_table_def.h"', "", 'extern "C" {']
    out += [f"extern const zan_table_def_t zan_def_{t.name};" for t in tables]
    out += ["", "const zan_table_def_t *const zan_table_defs[ZAN_NUM_TABLES] = {"]
    out += wrapped([f"&zan_def_{t.name}" for t in tables]) + ["};", ""]
    adjacencies = sorted(((a, t) for t in tables for a in t.adjacencies), key=lambda x: x[0].index)
    out += ["const zan_adj_def_t zan_adj_defs[] = {"]
    out += [f"    {{{quoted(a.name)}, {a.index}, {t.id}, {int(a.hooks)}}}," for a, t in adjacencies]
    out += ["};", f"const uint16_t zan_num_adj_defs = {len(adjacencies)};", "",
            f"const uint64_t zan_schema_fingerprint = {fingerprint(tables):#x};", ""]
    by_name = sorted(tables, key=lambda t: t.name)
    out += ["/* Ids in order of the names. */", "static const uint16_t zan_ids_by_name[] = {"]
    out += wrapped([str(t.id) for t in by_name]) + ["};"]
    return out + LOOKUPS.splitlines()


LOOKUPS = """
const zan_table_def_t *zan_table_def_get(uint32_t table_id)
{
    return table_id < ZAN_NUM_TABLES ? zan_table_defs[table_id] : nullptr;
}

const zan_table_def_t *zan_table_def_find(const char *name)
{
    uint32_t low = 0, high = ZAN_NUM_TABLES;
    while (low < high) {
        const uint32_t middle = (low + high) / 2;
        const zan_table_def_t *def = zan_table_defs[zan_ids_by_name[middle]];
        const int order = strcmp(name, def->name);
        if (order == 0)
            return def;
        if (order < 0)
            high = middle;
        else
            low = middle + 1;
    }
    return nullptr;
}

const char *kor_table_name_get(uint32_t table_id)
{
    return table_id < ZAN_NUM_TABLES ? zan_table_defs[table_id]->name : "unknown";
}
}"""


def fingerprint(tables):
    """Digest of everything that two sides of a connection must agree on: all but the words."""
    def plain(x):
        if isinstance(x, (list, tuple)):
            return [plain(i) for i in x]
        if isinstance(x, dict):
            return {k: plain(v) for k, v in x.items()}
        if hasattr(x, "__dict__"):
            return {k: plain(v) for k, v in vars(x).items() if k not in ("doc", "file", "group")}
        return x
    text = json.dumps([plain(t) for t in tables], sort_keys=True)
    return int.from_bytes(hashlib.sha256(text.encode()).digest()[:8], "big")


# ---- The server ----

def server_api(t, schema):
    name, upper = t.name, t.upper
    out = [made_from(t), '#include "table_entries.h"', f'#include "{name}.h"', ""]
    if t.events:
        out.append(f"ZAN_TABLE_EVENTS_BEGIN({name}, {upper})")
        for e in t.events:
            ids = "".join(f", {i}" for i in schema.ids(e.children))
            out.append(f"ZAN_TABLE_EVENT({upper}, {e.id}, {e.name[len(upper) + 1:]}, {e.mask:#x}, "
                       f"{e.color}, {int(e.post_proc)}, {len(e.children)}{ids})")
        out.append(f"ZAN_TABLE_EVENTS_END({name})")
    if t.receives:
        out.append(f"ZAN_TABLE_STATS_BEGIN({name})")
        out += [f"ZAN_TABLE_STAT({event.id}, {source.id}, {quoted(s.event)})"
                for s, source, event in subscribed(t, schema)]
        out.append(f"ZAN_TABLE_STATS_END({name})")
    else:
        out.append(f"ZAN_TABLE_NO_STATS({name})")
    out.append(f"ZAN_TABLE_ENTRIES({name}, {upper})")
    if t.options["event_entry"]:
        out.append(f"ZAN_TABLE_EVENT_ENTRY({name})")
    if t.options["eod_entry"]:
        out.append(f"ZAN_TABLE_EOD_ENTRY({name})")
    for e in t.events:
        out.append(f"ZAN_TABLE_PUSH_EVENT({name}, {upper}, {e.name[len(upper) + 1:].lower()}, "
                   f"{e.mask:#x})")
    if t.options["repeated_delta"]:
        out.append(f"ZAN_TABLE_REPEATED_DELTA({name}, {upper})")
    for a in t.adjacencies:
        out.append(f"ZAN_TABLE_ADJ{'_HOOKS' if a.hooks else ''}"
                   f"({a.name}, {schema.adjacencies.index(a)})")
    return out


def server_utils(t):
    out = [made_from(t), '#include "table_hooks.h"', "", f"ZAN_TABLE_HOOKS({t.name})"]
    for option, macro in (("identifiers", "IDENTIFIERS"), ("post_actions", "POST_ACTIONS"),
                          ("internal_async_q_err", "ASYNC_Q_ERR"), ("repeated_delta", "REPEATED"),
                          ("delete_action_select", "DELETE_ACTION")):
        if t.options[option]:
            out.append(f"ZAN_TABLE_HOOKS_{macro}({t.name})")
    return out


def table_list(tables):
    return ["/* All tables in order of id. Made from schema. */", '#include "table_lists.h"', "",
            "ZAN_TABLE_LIST_BEGIN", *(f"ZAN_TABLE_LIST_ENTRY({t.id}, {t.name})" for t in tables),
            "ZAN_TABLE_LIST_END", "", *adjacency_list(tables)]


def adjacency_list(tables):
    by_index = {a.index: a.name for t in tables for a in t.adjacencies}
    return [*(f"ZAN_ADJ_DECLARE({name})" for name in by_index.values()), "ZAN_ADJ_LIST_BEGIN",
            *(f"ZAN_ADJ_LIST_ENTRY({by_index[i]})" if i in by_index else "ZAN_ADJ_LIST_GAP"
              for i in range(max(by_index) + 1)), "ZAN_ADJ_LIST_END"]


# ---- Hooks of the platforms ----

def npu_sim_hooks(tables):
    out = ["/* The hooks of the simulated NPUs. Made from schema. */", '#include "npu_sim_hooks.h"',
           ""]
    for t in tables:
        out.append(f"NPU_SIM_HOOKS({t.name})")
        if t.options["eod_entry"]:
            out.append(f"NPU_SIM_EOD({t.name})")
        if t.options["repeated_delta"]:
            out.append(f"NPU_SIM_REPEATED({t.name})")
        if t.options["periodic_stats"]:
            out.append(f"NPU_SIM_STATISTICS({t.name})")
        out += [f"NPU_SIM_ADJACENCY({a.name})" for a in t.adjacencies if a.hooks]
    return out


def identifier_hooks(tables):
    return ["/* The identifier hooks of the host. Made from schema. */",
            '#include "host_identifier_hooks.h"', "",
            *(f"HOST_IDENTIFIER_HOOKS({t.name})" for t in tables if t.options["identifiers"])]


def adjacency_tables(schema):
    return ["/* What the host has for each adjacency table. Made from schema. */",
            '#include "host_adjacency_tables.h"', "",
            *(f"HOST_ADJACENCY({a.name}, {a.index})" for a in schema.adjacencies)]
