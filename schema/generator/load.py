"""Read the definitions: schema/groups.toml and one schema/<group>/<table>.toml per table.

The result is a list of Table records in order of id, with every default filled in and every name
still a name: what the names lead to is the business of validate.py, where a table lies in memory
that of layout.py. Nothing here stops at the first mistake: a bad file is reported and passed over.
"""
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

# Options of a table, in the order of zan_table_def_t; what each does is told there. They are 0
# unless the file says otherwise: booleans are written true, numbers as numbers, choices by name.
OPTIONS = (
    "write_mode", "table_class", "hw_rc_mode", "npu_threads", "object_mask_async",
    "track_inflight", "create_waits_inflight", "delete_delay", "serialize_back", "async_batch_end", "evt_walk_suppressed",
    "evt_walk_childless", "periodic_stats", "stats_table", "db_lock", "event_entry", "eod_entry",
    "event_chain", "identifiers", "identifiers_per_npu", "identifiers_per_npu_on_update",
    "notify_update_reserve", "notify_update_missing", "delete_action_select",
    "delete_calls_picker", "internal_async_q_err", "post_actions", "repeated_delta",
    "update_of_missing_creates", "delete_notify", "replay_client_filter", "create_reject",
    "change_test", "dbobj_fetch", "parent_init_without_references", "parent_init_on_update",
    "graph", "oor_account_plain",
    "oor_update", "hwdb",
)
# Options that follow from the rest of the definition and are not written.
DERIVED = {
    "event_chain": lambda t: bool(t.events),
    "graph": lambda t: t.has_references or t.options["parent_init_without_references"],
}
# Largest value of the options that are numbers; the others are booleans.
NUMBERS = {"write_mode": 1, "table_class": 2, "hw_rc_mode": 2, "delete_delay": 5}
CHOICES = {
    "db_lock": {"none": "ZAN_DB_LOCK_NONE", "db": "ZAN_DB_LOCK_DB", "stats": "ZAN_DB_LOCK_STATS",
                "both": "ZAN_DB_LOCK_BOTH"},
    "oor_update": {"none": "ZAN_OOR_UPDATE_NONE", "mask_change": "ZAN_OOR_UPDATE_MASK_CHANGE",
                   "release": "ZAN_OOR_UPDATE_RELEASE"},
    "hwdb": {name: f"ZAN_HWDB_{name.upper()}" for name in (
        "none", "lpm", "exact_match", "next_hop", "group", "encapsulation", "label", "bridge",
        "interface", "multicast", "acl", "meter", "queue", "counter", "oam", "security",
        "register")},
}
# Options that every table has unless its file says false.
ON_BY_DEFAULT = {"notify_update_missing"}

COLORS = {"": 0, "green": 1, "red": 2, "brown": 4}

# type name: (bytes, alignment, C type, enumerator)
TYPES = {
    "u8": (1, 1, "uint8_t", "ZAN_TYPE_U8"),
    "u16": (2, 2, "uint16_t", "ZAN_TYPE_U16"),
    "u32": (4, 4, "uint32_t", "ZAN_TYPE_U32"),
    "u64": (8, 8, "uint64_t", "ZAN_TYPE_U64"),
    "bool": (1, 1, "zan_bool_t", "ZAN_TYPE_BOOL"),
    "enum": (4, 4, "uint32_t", "ZAN_TYPE_ENUM"),
    "bits": (4, 4, "uint32_t", "ZAN_TYPE_BITS"),
    "intf": (4, 4, "kor_intf_t", "ZAN_TYPE_INTF"),
    "npu_mask": (8, 8, "kor_npu_mask_t", "ZAN_TYPE_NPU_MASK"),
    "ipv4": (4, 1, "zan_ipv4_t", "ZAN_TYPE_IPV4"),
    "ipv6": (16, 1, "zan_ipv6_t", "ZAN_TYPE_IPV6"),
    "mac": (6, 1, "zan_mac_t", "ZAN_TYPE_MAC"),
    "ipv4_prefix": (5, 1, "zan_ipv4_prefix_t", "ZAN_TYPE_IPV4_PREFIX"),
    "ipv6_prefix": (17, 1, "zan_ipv6_prefix_t", "ZAN_TYPE_IPV6_PREFIX"),
}


class Errors:
    """All complaints of a run, each with the file and the field it is about."""

    def __init__(self):
        self.lines = []

    def add(self, file, where, text):
        self.lines.append(f"{file}: {where}: {text}")

    def __bool__(self):
        return bool(self.lines)


@dataclass
class Field:
    """A field of a key, or an attribute."""
    name: str
    type: str
    doc: str
    values: list = field(default_factory=list)        # names of an enumeration or of bits
    shape: str = "single"                             # single, array, per_npu, repeated
    count: int = 1                                    # values in the fixed part; 0 when repeated
    trigger_bits: list = field(default_factory=list)  # attribute update bits that it raises
    inherit: list = field(default_factory=list)       # "ref.attr" or "union.variant.attr"
    server_visible: bool = False
    statistic: bool = False                           # hardware's value

    @property
    def width(self):
        return TYPES[self.type][0]

    @property
    def align(self):
        return TYPES[self.type][1]

    @property
    def ctype(self):
        return TYPES[self.type][2]

    @property
    def trigger_mask(self):
        return sum(1 << b for b in set(self.trigger_bits))


@dataclass
class Variant:
    stem: str
    table: str
    selector: int = 0
    inherits: list = field(default_factory=list)  # (attribute, parent attribute), by validate


@dataclass
class Reference:
    stem: str
    table: str
    repeated: bool = False
    inherits: list = field(default_factory=list)


@dataclass
class Union:
    attr: str
    variants: list
    repeated: bool = False
    nested_in: str = ""  # "union.variant" that stores this one


@dataclass
class Event:
    name: str  # without the table
    id: int
    mask: int
    children: list
    color: int = 0
    post_proc: bool = False


@dataclass
class Subscription:
    event: str  # <TABLE>_<EVENT>
    force: bool = False


@dataclass
class Adjacency:
    name: str
    index: int
    hooks: bool


@dataclass
class Table:
    file: str
    id: int
    name: str
    group: str
    doc: str
    options: dict
    keys: list
    attrs: list
    refs: list
    unions: list
    events: list
    receives: list
    adjacencies: list
    adjacency_list: bool = False
    obj_ref_cnt_limit: int = 0
    obj_size: int = 0      # 0: as the fields make it
    resizing: bool = False
    init_option_bytes: tuple = (0, 0)
    elements: list = field(default_factory=list)
    element_record_bytes: int = 0
    element_match_field: str = ""
    element_types: dict = field(default_factory=dict)  # names of types that hide a plainer one

    @property
    def upper(self):
        return self.name.upper()

    @property
    def repeated(self):
        return any(x.shape == "repeated" for x in self.attrs) or \
            any(x.repeated for x in self.refs + self.unions)

    @property
    def stored_unions(self):
        return [u for u in self.unions if not u.nested_in]

    @property
    def has_references(self):
        return bool(self.refs or self.unions)

    @property
    def max_parents(self):
        """(for each member, single): a union counts once, a nested one not at all."""
        slots = self.refs + self.stored_unions
        per_member = sum(1 for x in slots if x.repeated)
        return per_member, len(slots) - per_member

    def attr(self, name):
        return next((a for a in self.attrs if a.name == name), None)


class Reader:
    """Takes values out of one TOML record and complains about types and about what is left."""

    def __init__(self, errors, file, where, record):
        self.errors, self.file, self.where = errors, file, where
        self.record = dict(record) if isinstance(record, dict) else {}
        if not isinstance(record, dict):
            errors.add(file, where, "must be a table of keys and values")

    def take(self, key, kind, default=None):
        at = f"{self.where}.{key}" if self.where else key
        if key not in self.record:
            if default is None:
                self.errors.add(self.file, at, "is missing")
                return kind()
            return default
        value = self.record.pop(key)
        good = isinstance(value, kind) and not (kind is int and isinstance(value, bool))
        if not good:
            self.errors.add(self.file, at, f"must be {kind.__name__}, not {value!r}")
            return kind() if default is None else default
        return value

    def strings(self, key):
        value = self.record.pop(key, [])
        value = [value] if isinstance(value, str) else value
        if not isinstance(value, list) or not all(isinstance(v, str) for v in value):
            self.errors.add(self.file, f"{self.where}.{key}", "must be a text or a list of texts")
            return []
        return value

    def ints(self, key, highest, default=()):
        value = self.record.pop(key, list(default))
        if not isinstance(value, list) or not all(
                isinstance(v, int) and 0 <= v <= highest for v in value):
            self.errors.add(self.file, f"{self.where}.{key}" if self.where else key,
                            f"must be a list of numbers from 0 to {highest}")
            return list(default)
        return value

    def done(self):
        for key in self.record:
            self.errors.add(self.file, f"{self.where}.{key}" if self.where else key,
                            "is not a field that a definition has")


def load(schema_dir, errors):
    """All tables in order of id, and the groups as {directory: title}."""
    root = Path(schema_dir)
    groups = read_toml(root / "groups.toml", "groups.toml", errors)
    tables = []
    for path in sorted(root.glob("*/*.toml")):
        file = str(path.relative_to(root))
        group = path.parent.name
        if group not in groups:
            errors.add(file, "group", f"directory {group} is not in groups.toml")
            continue
        record = read_toml(path, file, errors)
        if record:
            tables.append(read_table(errors, file, groups[group], record))
            if tables[-1].name != path.stem:
                errors.add(file, "name", f"must be {path.stem}, as the file")
    tables.sort(key=lambda t: t.id)
    return tables, groups


def read_toml(path, file, errors):
    try:
        with open(path, "rb") as f:
            return tomllib.load(f)
    except (OSError, tomllib.TOMLDecodeError) as e:
        errors.add(file, "file", str(e))
        return {}


def read_table(errors, file, group, record):
    r = Reader(errors, file, "", record)
    upper = str(r.record.get("name", "")).upper()
    table = Table(
        file=file, id=r.take("id", int), name=r.take("name", str), group=group,
        doc=r.take("doc", str), options=read_options(r), keys=read_fields(r, "key"),
        attrs=read_fields(r, "attribute"), refs=read_references(r), unions=read_unions(r),
        events=[], receives=read_subscriptions(r), adjacencies=read_adjacencies(r))
    table.events = read_events(r, upper)
    table.adjacency_list = r.take("adjacency_list", bool, False)
    table.obj_ref_cnt_limit = r.take("obj_ref_cnt_limit", int, 0)
    table.obj_size = r.take("obj_size", int, 0)
    table.resizing = r.take("resizing", bool, False)
    table.init_option_bytes = tuple(r.ints("init_option_bytes", 255, (0, 0)))
    table.elements = r.strings("elements")
    table.element_record_bytes = r.take("element_record_bytes", int, 0)
    table.element_match_field = r.take("element_match_field", str, "")
    table.element_types = r.take("element_types", dict, {})
    for name, holds in DERIVED.items():
        table.options[name] = int(holds(table))
    r.done()
    return table


def read_options(r):
    options = {}
    for name in OPTIONS:
        if name in DERIVED:
            continue
        if name in CHOICES:
            value = r.take(name, str, "none")
            if value not in CHOICES[name]:
                r.errors.add(r.file, name, f"must be one of {', '.join(CHOICES[name])}")
                value = "none"
        elif name in NUMBERS:
            value = r.take(name, int, 0)
            if not 0 <= value <= NUMBERS[name]:
                r.errors.add(r.file, name, f"must be 0 to {NUMBERS[name]}")
        else:
            value = int(r.take(name, bool, name in ON_BY_DEFAULT))
        options[name] = value
    return options


def records(r, key):
    found = r.record.pop(key, [])
    if not isinstance(found, list):
        r.errors.add(r.file, key, f"is written [[{key}]]")
        return
    for i, record in enumerate(found):
        yield Reader(r.errors, r.file, f"{key}[{i}]", record)


def read_fields(r, key):
    fields = []
    for f in records(r, key):
        one = Field(f.take("name", str), f.take("type", str), f.take("doc", str))
        f.where = f"{key} {one.name}"
        if one.type not in TYPES:
            r.errors.add(r.file, f.where, f"has the unknown type {one.type!r}; there are "
                         + ", ".join(TYPES))
            one.type = "u32"
        one.values = f.strings("values")
        one.server_visible = f.take("server_visible", bool, False)
        if key == "attribute":
            read_shape(f, one)
            one.trigger_bits = f.ints("trigger_bits", 63)
            one.inherit = f.strings("inherit")
            one.statistic = f.take("statistic", bool, False)
        f.done()
        fields.append(one)
    return fields


def read_shape(f, one):
    shapes = [s for s in ("per_npu", "repeated") if f.take(s, bool, False)]
    if "count" in f.record:
        one.count = f.take("count", int, 1)
        shapes.append("array")
    if len(shapes) > 1:
        f.errors.add(f.file, f.where, f"cannot be {' and '.join(shapes)} at once")
    if shapes:
        one.shape = shapes[0]
        one.count = {"per_npu": 8, "repeated": 0, "array": one.count}[one.shape]


def read_references(r):
    refs = []
    for f in records(r, "reference"):
        stem = f.take("stem", str)
        refs.append(Reference(stem, f.take("table", str, stem), f.take("repeated", bool, False)))
        f.done()
    return refs


def read_unions(r):
    unions = []
    for f in records(r, "union"):
        u = Union(f.take("attr", str), [], f.take("repeated", bool, False))
        u.nested_in = f.take("nested_in", str, "")
        for i, v in enumerate(f.take("variants", list)):
            v = {"stem": v, "table": v} if isinstance(v, str) else v
            one = Reader(r.errors, r.file, f"{u.attr}.variants[{i}]", v)
            u.variants.append(Variant(one.take("stem", str), one.take("table", str), i + 1))
            one.done()
        f.done()
        unions.append(u)
    return unions


def read_events(r, upper):
    events = []
    for f in records(r, "event"):
        e = Event(f"{upper}_{f.take('name', str)}", len(events) + 1, 0, f.strings("children"))
        color = f.take("color", str, "")
        if color not in COLORS:
            r.errors.add(r.file, f"event {e.name}", "has an unknown color; green, red or brown")
        e.color = COLORS.get(color, 0)
        e.post_proc = f.take("post_proc", bool, False)
        e.mask = sum(1 << b for b in set(f.ints("bits", 63)))
        f.done()
        events.append(e)
    return events


def read_subscriptions(r):
    found = []
    for f in records(r, "receives"):
        found.append(Subscription(f.take("event", str), f.take("force", bool, False)))
        f.done()
    return found


def read_adjacencies(r):
    found = []
    for f in records(r, "adjacency"):
        found.append(Adjacency(f.take("name", str), f.take("index", int),
                               f.take("hooks", bool, False)))
        f.done()
    return found
