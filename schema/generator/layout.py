"""Where everything lies: offsets and sizes of keys, objects and stored references.

The rules are those of the C compiler (natural alignment, in order of declaration), so that the
emitted structures and the numbers found here agree; the emitted code asserts that they do. The
order of the fixed part is told in zan_table_def.h.
"""
from dataclasses import dataclass, field

HEADER_BYTES = 192
ADJACENCY_LIST_BYTES = 24
REF_KEY_OFFSET = 16
MAX_NPUS = 8


@dataclass
class Layout:
    key_size: int = 0
    key_align: int = 1
    key_bytes: int = 0           # of the order-preserving byte form
    key_offsets: dict = field(default_factory=dict)
    adj_list: int = 0
    trans_id: int = 0
    npu_mask_req: int = 0
    npu_mask_req_set: int = 0
    key: int = 0
    obj_ref_cnt: int = 0
    num_elements: int = 0
    attrs: dict = field(default_factory=dict)  # name: (offset, set offset)
    refs: dict = field(default_factory=dict)   # stem or union attr: (offset, stride)
    padding: int = 0             # bytes behind the last field, to a stated obj_size
    obj_size: int = 0
    element_record: int = 0      # bytes of the element record of a repeated_delta table
    elements: list = field(default_factory=list)


def align_up(n, a):
    return (n + a - 1) // a * a


class Cursor:
    def __init__(self, at):
        self.at = at
        self.align = 1

    def place(self, size, align):
        self.align = max(self.align, align)
        offset = align_up(self.at, align)
        self.at = offset + size
        return offset


def compute(tables, errors):
    """Fill table.layout of every table."""
    by_name = {t.name: t for t in tables}
    for t in tables:
        t.layout = Layout()
        place_key(t)
    for t in tables:
        place_object(t, by_name, errors)
        if t.elements:
            t.layout.elements, t.layout.element_record = element_record(t, by_name)


def place_key(t):
    lay, c = t.layout, Cursor(0)
    for f in t.keys:
        lay.key_offsets[f.name] = c.place(f.width, f.align)
        lay.key_bytes += f.width
    lay.key_align = c.align
    lay.key_size = align_up(c.at, c.align)


def place_object(t, by_name, errors):
    lay, c = t.layout, Cursor(HEADER_BYTES)
    c.align = 8
    if t.adjacency_list:
        lay.adj_list = c.place(ADJACENCY_LIST_BYTES, 8)
    lay.trans_id = c.place(4, 4)
    lay.npu_mask_req = c.place(8, 8)
    lay.npu_mask_req_set = c.place(1, 1)
    lay.key = c.place(lay.key_size, lay.key_align)
    if t.obj_ref_cnt_limit:
        lay.obj_ref_cnt = c.place(4, 4)
        c.place(1, 1)  # its is-set byte
    if t.repeated:
        lay.num_elements = c.place(4, 4)
    for a in t.attrs:
        place_attr(lay, c, a)
    for r in t.refs:
        place_reference(lay, c, r, r.stem, [by_name.get(r.table)])
    for u in t.stored_unions:
        place_reference(lay, c, u, u.attr, [by_name.get(v.table) for v in u.variants])
    for u in t.unions:
        if u.nested_in:
            lay.refs[u.attr] = lay.refs.get(u.nested_in.split(".")[0], (0, 0))
    lay.obj_size = align_up(c.at, 8)
    if t.obj_size:
        if t.obj_size < c.at or t.obj_size % 8:
            errors.add(t.file, "obj_size", f"is {t.obj_size}, but the fields take {c.at} bytes "
                       "(and it must be a multiple of 8)")
        lay.padding = max(0, t.obj_size - c.at)
        lay.obj_size = t.obj_size


def place_attr(lay, c, a):
    if a.shape == "repeated":
        lay.attrs[a.name] = (c.place(8, 8), 0)
        return
    offset = c.place(a.width * a.count, a.align)
    lay.attrs[a.name] = (offset, c.place(MAX_NPUS if a.shape == "per_npu" else 1, 1))


def place_reference(lay, c, ref, name, parents):
    stride = align_up(REF_KEY_OFFSET + max(p.layout.key_size if p else 0 for p in parents), 8)
    lay.refs[name] = (c.place(8 if ref.repeated else stride, 8), stride)


@dataclass
class Element:
    """A value of a member in its element record."""
    name: str
    kind: str      # attr, refkey, refhdl, union
    index: int     # of the attribute, reference or union
    ctype: str
    offset: int
    width: int     # bytes
    set_offset: int = 0


def element_record(t, by_name):
    """The record of one member: owner, index and side, the values, then an is-set byte for each.
    Returns its elements and its size."""
    c = Cursor(0)
    c.place(8, 8)
    c.place(4, 4)
    c.place(4, 4)
    elements = []

    def place(name, kind, index, ctype, width, align):
        ctype = t.element_types.get(name, ctype)
        elements.append(Element(name, kind, index, ctype, c.place(width, align), width))

    for name in t.elements:
        stem, _, half = name.rpartition("_")
        ref = next((r for r in t.refs if r.stem == stem), None)
        attr = t.attr(name)
        if attr:
            place(name, "attr", t.attrs.index(attr), attr.ctype, attr.width, attr.align)
        elif ref and half == "refkey":
            key = by_name[ref.table].layout
            place(name, "refkey", t.refs.index(ref), f"kor_{ref.table}_key_t", key.key_size,
                  key.key_align)
        elif ref and half == "refhdl":
            place(name, "refhdl", t.refs.index(ref), f"kor_{ref.table}_hdl_t", 8, 8)
        else:
            union = next(i for i, u in enumerate(t.unions) if u.attr == name)
            place(name, "union", union, f"kor_{t.name}_{name}_t", t.layout.refs[name][1], 8)
    for e in elements:
        e.set_offset = c.place(1, 1)
    return elements, align_up(c.at, c.align)
