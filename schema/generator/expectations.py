"""What the set of definitions as a whole amounts to.

The server, its documents and its clients rely on these figures, so a change of a definition that
moves one of them is noticed here. When that change is meant, change the figure with it.
"""
EXERCISE = "Exercise tables"


def option(name, value=1):
    return lambda t: t.options[name] == value


def uses_npu_threads(t):
    return bool(t.options["npu_threads"])


def object_mask(t):
    return t.options["table_class"] > 0


def inheriting_variants(t):
    return sum(1 for u in t.unions for v in u.variants if v.inherits)


def one_parent(t):
    return t.max_parents == (0, 1)


def forced(t):
    return any(s.force for s in t.receives)


# what, expected number, how it is counted: of tables that hold a condition, or a sum over tables.
EXPECTED = (
    ("tables", 361, lambda t: 1),
    ("exercise tables", 78, lambda t: t.group == EXERCISE),
    ("tables of class 0", 181, option("table_class", 0)),
    ("tables of class 1", 32, option("table_class", 1)),
    ("tables of class 2", 148, option("table_class", 2)),
    ("asynchronous tables", 49, option("write_mode")),
    ("asynchronous tables of class 0", 43,
     lambda t: t.options["write_mode"] and t.options["table_class"] == 0),
    ("asynchronous tables that look at the object's mask", 6, option("object_mask_async")),
    ("tables with a synchronous broadcast", 58,
     lambda t: uses_npu_threads(t) and not t.options["write_mode"]),
    ("tables programmed directly on all NPUs", 80,
     lambda t: not uses_npu_threads(t) and not object_mask(t)),
    ("tables programmed directly by the object's mask", 174,
     lambda t: not uses_npu_threads(t) and object_mask(t)),
    ("hw_rc_mode 0", 317, option("hw_rc_mode", 0)),
    ("hw_rc_mode 1", 15, option("hw_rc_mode", 1)),
    ("hw_rc_mode 2", 29, option("hw_rc_mode", 2)),
    ("tables that track in-flight writes", 4, option("track_inflight")),
    ("tables with delete_delay 5", 1, option("delete_delay", 5)),
    ("tables with periodic statistics", 19, option("periodic_stats")),
    ("statistics tables", 58, option("stats_table")),
    ("tables written under the database lock", 42,
     lambda t: t.options["db_lock"] in ("db", "both")),
    ("tables written under the statistics lock", 34,
     lambda t: t.options["db_lock"] in ("stats", "both")),
    ("tables with an event entry", 53, option("event_entry")),
    ("tables with an end-of-download entry", 15, option("eod_entry")),
    ("tables with identifiers", 65, option("identifiers")),
    ("tables with identifiers per NPU on create", 18, option("identifiers_per_npu")),
    ("tables with identifiers per NPU on update", 19, option("identifiers_per_npu_on_update")),
    ("tables with notification 18 on update", 58, option("notify_update_reserve")),
    ("tables with notification 17 on update", 327, option("notify_update_missing")),
    ("tables with delete_action_select", 14, option("delete_action_select")),
    ("tables whose delete calls the picker", 2, option("delete_calls_picker")),
    ("tables with internal_async_q_err", 10, option("internal_async_q_err")),
    ("tables with post actions", 3, option("post_actions")),
    ("tables with repeated deltas", 2, option("repeated_delta")),
    ("tables whose update of a missing object creates", 2, option("update_of_missing_creates")),
    ("tables that tell of a postponed delete", 58, option("delete_notify")),
    ("tables with the client filter", 17, option("replay_client_filter")),
    ("tables that reject a create on a delete", 1, option("create_reject")),
    ("tables with the change test", 91, option("change_test")),
    ("tables that count client references", 66, lambda t: t.obj_ref_cnt_limit > 0),
    ("tables with 64 client references", 21, lambda t: t.obj_ref_cnt_limit == 64),
    ("tables with 0x800000 client references", 11, lambda t: t.obj_ref_cnt_limit == 0x800000),
    ("tables with an adjacency list", 12, lambda t: t.adjacency_list),
    ("adjacency tables", 23, lambda t: len(t.adjacencies)),
    ("adjacency tables with hooks", 15, lambda t: sum(a.hooks for a in t.adjacencies)),
    ("parents of adjacency tables", 11, lambda t: bool(t.adjacencies)),
    ("resizing tables", 31, lambda t: t.resizing),
    ("tables with an attribute per NPU", 42,
     lambda t: any(a.shape == "per_npu" for a in t.attrs)),
    ("tables with references", 193, lambda t: t.has_references),
    ("tables with unions", 148, lambda t: bool(t.unions)),
    ("tables with plain references", 98, lambda t: bool(t.refs)),
    ("tables in the graph without references", 15, option("parent_init_without_references")),
    ("of them, tables that call it on an update", 2, option("parent_init_on_update")),
    ("union variants that inherit", 81, inheriting_variants),
    ("tables with one parent", 71, one_parent),
    ("tables with events", 49, lambda t: bool(t.events)),
    ("events", 107, lambda t: len(t.events)),
    ("post-processed events", 19, lambda t: sum(e.post_proc for e in t.events)),
    ("green events", 5, lambda t: sum(e.color == 1 for e in t.events)),
    ("red events", 3, lambda t: sum(e.color == 2 for e in t.events)),
    ("brown events", 3, lambda t: sum(e.color == 4 for e in t.events)),
    ("tables with subscriptions", 100, lambda t: bool(t.receives)),
    ("tables with a forcing subscription", 75, forced),
    ("tables with only plain subscriptions", 25, lambda t: bool(t.receives) and not forced(t)),
    ("tables without a hardware database", 0, option("hwdb", "none")),
    ("tables with the smallest object, 216 bytes", 3, lambda t: t.layout.obj_size == 216),
    ("tables with the largest object, 7584 bytes", 1, lambda t: t.layout.obj_size == 7584),
    ("objects above 3300 bytes", 7, lambda t: t.layout.obj_size > 3300),
)


def check(tables, errors):
    for what, expected, count in EXPECTED:
        found = sum(int(count(t)) for t in tables)
        if found != expected:
            errors.add("schema", what, f"there are {found}, expected {expected}")
    usual = sum(1 for t in tables if 224 <= t.layout.obj_size <= 400)
    if usual * 2 <= len(tables):
        errors.add("schema", "obj_size", f"only {usual} objects are between 224 and 400 bytes; "
                   "most should be")
    for t in tables:
        if t.group == EXERCISE:
            check_exercise(t, tables, errors)


def check_exercise(t, tables, errors):
    """Exercise tables drive the features among themselves: nothing real depends on them."""
    exercise = {x.name for x in tables if x.group == EXERCISE}
    events = {e.name for x in tables if x.name in exercise for e in x.events}
    for s in t.receives:
        if s.event not in events:
            errors.add(t.file, "receives", f"{s.event} is not of an exercise table")
