"""What must hold of the definitions: each table alone, then all of them together.

Every rule that is broken is reported with the file and the field, and the run ends before anything
is written. On the way the inheritance of attributes is resolved from names to pairs on the
references (fill_inheritance), since checking it and finding it are the same walk.
"""
import re
from collections import Counter


NUM_TABLES = 361
KEY_BYTES_MAX = 64
KEY_SIZE_MAX = 80
OBJ_SIZE_MIN, OBJ_SIZE_MAX = 216, 7584
NAME = re.compile(r"[a-z_][a-z0-9_]*$")
# Fields of every object, and words that the text form reads as something else.
RESERVED = {"base", "adj_list", "trans_id", "npu_mask_req", "npu_mask_req_set", "key",
            "obj_ref_cnt", "obj_ref_cnt_set", "num_elements", "handle", "reserved_end"}
# Words of C and C++ that the names meet as members.
KEYWORDS = {"and", "auto", "bool", "break", "case", "char", "class", "const", "continue", "default",
            "delete", "do", "double", "else", "enum", "explicit", "export", "extern", "false",
            "float", "for", "friend", "goto", "if", "inline", "int", "long", "namespace", "new",
            "not", "operator", "or", "private", "protected", "public", "register", "restrict",
            "return", "short", "signed", "sizeof", "static", "struct", "switch", "template", "this",
            "true", "typedef", "union", "unsigned", "virtual", "void", "volatile", "while", "xor"}


def validate(tables, errors):
    check_ids(tables, errors)
    by_name = {t.name: t for t in tables}
    for t in tables:
        check_names(t, errors)
        check_fields(t, errors)
        check_references(t, by_name, errors)
        check_options(t, errors)
        check_elements(t, errors)
        fill_inheritance(t, by_name, errors)
    check_events(tables, by_name, errors)
    check_adjacencies(tables, errors)


def check_layout(tables, errors):
    """After layout.compute."""
    for t in tables:
        if t.layout.key_bytes > KEY_BYTES_MAX or t.layout.key_size > KEY_SIZE_MAX:
            errors.add(t.file, "key", f"is too long: {t.layout.key_bytes} bytes of at most "
                       f"{KEY_BYTES_MAX}, structure {t.layout.key_size} of {KEY_SIZE_MAX}")
        if not OBJ_SIZE_MIN <= t.layout.obj_size <= OBJ_SIZE_MAX:
            errors.add(t.file, "obj_size", f"is {t.layout.obj_size}, not {OBJ_SIZE_MIN} to "
                       f"{OBJ_SIZE_MAX}")
        if t.element_record_bytes not in (0, t.layout.element_record):
            errors.add(t.file, "element_record_bytes", f"is {t.element_record_bytes}, but the "
                       f"elements take {t.layout.element_record}")


def check_ids(tables, errors):
    for kind, of in (("id", lambda t: t.id), ("name", lambda t: t.name)):
        for value, n in Counter(map(of, tables)).items():
            if n > 1:
                files = [t.file for t in tables if of(t) == value]
                errors.add(files[0], kind, f"{value} is also in {', '.join(files[1:])}")
    missing = set(range(NUM_TABLES)) - {t.id for t in tables}
    beyond = [t for t in tables if not 0 <= t.id < NUM_TABLES]
    if missing:
        errors.add("schema", "id", f"no table has the ids {sorted(missing)}")
    for t in beyond:
        errors.add(t.file, "id", f"{t.id} is not 0 to {NUM_TABLES - 1}")


def check_names(t, errors):
    """All names of a table share one space: the text form finds a field by its name alone."""
    names = [f.name for f in t.keys + t.attrs]
    names += [r.stem for r in t.refs] + [u.attr for u in t.unions]
    if not t.name or not NAME.match(t.name):
        errors.add(t.file, "name", "must be lower case letters, digits and '_'")
    for name, n in Counter(names).items():
        if n > 1:
            errors.add(t.file, name, "is the name of two fields")
        if not NAME.match(name) or name in RESERVED or name in KEYWORDS:
            errors.add(t.file, name, "cannot be a field's name")
    for f in t.attrs:
        if f.name + "_set" in names:
            errors.add(t.file, f.name + "_set", f"is the is-set byte of {f.name}")


def check_fields(t, errors):
    if not t.keys:
        errors.add(t.file, "key", "is missing: an object is found by its key")
    if not t.doc:
        errors.add(t.file, "doc", "is empty")
    for f in t.keys + t.attrs:
        if (f.type in ("enum", "bits")) != bool(f.values):
            errors.add(t.file, f"{f.name}.values", "belongs to the types enum and bits, and must "
                       "name their values")
        if len(set(f.values)) != len(f.values) or not all(map(NAME.match, f.values)):
            errors.add(t.file, f"{f.name}.values", "must be different names in lower case")
        if not f.doc:
            errors.add(t.file, f"{f.name}.doc", "is empty")
        if f.shape == "array" and f.count < 2:
            errors.add(t.file, f"{f.name}.count", "must be 2 or more")
    bmap = t.attr("npu_bmap")
    if bmap and (bmap.type != "npu_mask" or bmap.shape != "single"):
        errors.add(t.file, "npu_bmap", "must be a single npu_mask")
    for a in t.attrs:
        if a.statistic and not t.options["stats_table"]:
            errors.add(t.file, f"{a.name}.statistic", "is for statistics tables")
        if a.statistic and a.shape not in ("single", "array"):
            errors.add(t.file, f"{a.name}.statistic", f"cannot be {a.shape}")
    if t.resizing and not t.repeated:
        errors.add(t.file, "resizing", "needs something that is repeated for each member")


def check_elements(t, errors):
    """An element of a member is a repeated attribute or union, or half of a repeated reference."""
    known = {a.name for a in t.attrs if a.shape == "repeated"}
    known |= {u.attr for u in t.unions if u.repeated}
    known |= {f"{r.stem}_{half}" for r in t.refs if r.repeated for half in ("refhdl", "refkey")}
    for name in t.elements:
        if name not in known:
            errors.add(t.file, "elements", f"{name} is nothing that each member has")


def check_references(t, by_name, errors):
    for stem, parent in [(r.stem, r.table) for r in t.refs] + \
            [(f"{u.attr}.{v.stem}", v.table) for u in t.unions for v in u.variants]:
        if parent not in by_name:
            errors.add(t.file, stem, f"refers to {parent!r}, which is no table")
    for u in t.unions:
        if not u.variants:
            errors.add(t.file, u.attr, "has no variant")
        if len({v.stem for v in u.variants}) != len(u.variants):
            errors.add(t.file, u.attr, "has two variants of one stem")
        if u.nested_in:
            check_nested(t, u, errors)
    accessors = [f"{u.attr}_{v.stem}" for u in t.stored_unions for v in u.variants]
    for name, n in Counter(accessors).items():
        if n > 1:
            errors.add(t.file, name, "is the accessor name of two variants")


def check_nested(t, u, errors):
    outer, _, stem = u.nested_in.partition(".")
    outer = next((x for x in t.stored_unions if x.attr == outer), None)
    variant = outer and next((v for v in outer.variants if v.stem == stem), None)
    if not variant:
        errors.add(t.file, f"{u.attr}.nested_in", f"{u.nested_in} is no variant of this table")
    elif len(u.variants) != 1 or u.variants[0].table != variant.table or \
            f"{u.attr}_{u.variants[0].stem}" != f"{outer.attr}_{stem}" or u.repeated:
        errors.add(t.file, f"{u.attr}.nested_in", "must hold the one variant that the outer union "
                   "has there, under the same accessor name")


def check_options(t, errors):
    o = t.options

    def need(option, holds, what):
        if o[option] and not holds:
            errors.add(t.file, option, what)

    need("write_mode", o["npu_threads"], "needs npu_threads: the NPU threads finish the write")
    need("object_mask_async", o["write_mode"] and o["table_class"], "needs write_mode 1 and a "
         "table_class that uses the object's own mask")
    need("track_inflight", o["write_mode"], "needs write_mode 1")
    need("create_waits_inflight", o["track_inflight"], "needs track_inflight")
    need("async_batch_end", o["write_mode"], "needs write_mode 1")
    for option in ("serialize_back", "dbobj_fetch"):
        need(option, not t.repeated, "is for objects of one size: what comes back must fit the "
             "request")
    need("identifiers_per_npu", o["identifiers"], "needs identifiers")
    need("identifiers_per_npu_on_update", o["identifiers"], "needs identifiers")
    need("notify_update_reserve", o["identifiers"], "needs identifiers")
    need("periodic_stats", o["stats_table"], "needs stats_table")
    need("periodic_stats", o["db_lock"] == "both", 'needs db_lock "both": its objects are written '
         "on two threads")
    need("periodic_stats", any(a.statistic for a in t.attrs), "needs a statistic to refresh")
    need("evt_walk_childless", t.events, "needs events")
    need("evt_walk_suppressed", t.events, "needs events")
    need("repeated_delta", t.elements, "needs elements")
    need("repeated_delta", not t.element_match_field or t.element_match_field in t.elements,
         "has an element_match_field that is no element")
    need("parent_init_without_references", not t.has_references, "is for tables without references")
    need("parent_init_on_update", t.options["parent_init_without_references"],
         "needs parent_init_without_references")
    need("parent_init_without_references", not t.options["write_mode"],
         "is for tables with synchronous writes")
    if o["db_lock"] != "none" and not o["stats_table"]:
        errors.add(t.file, "db_lock", "is for statistics tables")
    if o["npu_threads"] and o["table_class"] and not o["object_mask_async"]:
        errors.add(t.file, "table_class", "must be 0: a broadcast goes to all NPUs")
    if t.obj_ref_cnt_limit < 0 or t.obj_ref_cnt_limit >= 1 << 32:
        errors.add(t.file, "obj_ref_cnt_limit", "must fit 32 bits")
    if t.adjacencies and not t.adjacency_list:
        errors.add(t.file, "adjacency_list", "must be true: the table has adjacency tables")
    if len(t.init_option_bytes) != 2:
        errors.add(t.file, "init_option_bytes", "must be two bytes")


def fill_inheritance(t, by_name, errors):
    """Turn each attribute's `inherit` into pairs on the references it names."""
    targets = {r.stem: (r, r) for r in t.refs}
    targets |= {f"{u.attr}.{v.stem}": (u, v) for u in t.stored_unions for v in u.variants}
    for a in t.attrs:
        for text in a.inherit:
            where = f"{a.name}.inherit"
            path, _, parent_attr = text.rpartition(".")
            if path not in targets:
                errors.add(t.file, where, f"{path!r} is no reference or stored variant of the "
                           "table")
                continue
            slot, ref = targets[path]
            parent = by_name.get(ref.table)
            source = parent and parent.attr(parent_attr)
            if not source:
                errors.add(t.file, where, f"{ref.table} has no attribute {parent_attr!r}")
            elif source.type != a.type or source.shape != "single" or source.values != a.values:
                errors.add(t.file, where, f"{ref.table}.{parent_attr} is {source.shape} "
                           f"{source.type}, but must be a single {a.type}")
            elif (a.shape == "repeated") != slot.repeated or a.shape in ("array", "per_npu"):
                errors.add(t.file, where, "the attribute must be repeated if the reference is, "
                           "and single if it is not")
            else:
                ref.inherits.append((a.name, parent_attr))


def direct_children(tables):
    """{table: direct child tables in order of id}."""
    found = {t.name: [] for t in tables}
    for t in tables:
        parents = {r.table for r in t.refs} | {v.table for u in t.unions for v in u.variants}
        for p in parents & found.keys():
            found[p].append(t.name)
    return found


def check_events(tables, by_name, errors):
    owner = {e.name: (t, e) for t in tables for e in t.events}
    children = direct_children(tables)
    listeners = {name: [] for name in owner}
    for t in tables:
        heard = [s.event for s in t.receives]
        for s in t.receives:
            if s.event not in owner:
                errors.add(t.file, "receives", f"{s.event} is no event of any table")
            else:
                listeners[s.event].append(t.name)
            if heard.count(s.event) > 1:
                errors.add(t.file, "receives", f"{s.event} twice")
    for t in tables:
        reachable = descendants(t.name, children) if t.events else ()
        raised = sum(1 << b for b in {b for a in t.attrs for b in a.trigger_bits})
        used = 0
        for e in t.events:
            used |= e.mask
            check_event(t, e, listeners[e.name], reachable, raised, errors)
        if raised & ~used:
            errors.add(t.file, "trigger_bits", f"bits {raised & ~used:#x} trigger no event")


def check_event(t, e, listeners, reachable, raised, errors):
    if not e.mask:
        errors.add(t.file, e.name, "has no bits: nothing would trigger it")
    if e.mask & ~raised:
        errors.add(t.file, e.name, f"no attribute raises its bits {e.mask & ~raised:#x}")
    if sorted(e.children) != sorted(listeners):
        errors.add(t.file, e.name, "children and the tables that receive it differ: "
                   + ", ".join(sorted(set(e.children) ^ set(listeners))))
    for child in e.children:
        if child not in reachable:
            errors.add(t.file, e.name, f"{child} cannot be reached over references")
    if e.color and e.post_proc:
        errors.add(t.file, e.name, "cannot be coloured and post-processed at once")


def descendants(name, children):
    seen, todo = set(), list(children[name])
    while todo:
        child = todo.pop()
        if child not in seen:
            seen.add(child)
            todo += children[child]
    return seen


def check_adjacencies(tables, errors):
    seen = {}
    for t in tables:
        for a in t.adjacencies:
            if not 0 <= a.index < 1 << 16:
                errors.add(t.file, f"adjacency {a.name}", "must have an index of 16 bits")
            if a.index in seen:
                errors.add(t.file, f"adjacency {a.name}", f"index {a.index} is that of "
                           + seen[a.index])
            seen[a.index] = a.name
