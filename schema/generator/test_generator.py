"""What the generator must refuse and what it must find: each case changes one thing in the
definitions of the project and names the complaint that has to come of it.

    python3 schema/generator/test_generator.py
"""
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True

import layout
import load

SCHEMA = Path(__file__).resolve().parent.parent
GENERATE = Path(__file__).resolve().parent / "generate.py"

# file, text in it, what stands there instead, the complaint.
REFUSED = (
    ("ip/iproute.toml", "id = 49", "id = 50", "id: 50 is also in"),
    ("ip/iproute.toml", "id = 49", "id = 361", "361 is not 0 to 360"),
    ("ip/iproute.toml", "id = 49", "id = 'x'", "iproute.toml: id: must be int"),
    ("ip/iproute.toml", 'name = "iproute"', 'name = "ipr"', "name: must be iproute, as the file"),
    ("ip/iproute.toml", 'name = "iproute"', 'name = "iproute"\nwrite_mod = 1',
     "write_mod: is not a field"),
    ("ip/iproute.toml", 'type = "ipv4_prefix"', 'type = "ipv4prefix"', "unknown type"),
    ("ip/iproute.toml", "npu_threads = true", "", "write_mode: needs npu_threads"),
    ("ip/ipnh.toml", '"macllnh", "punt"', '"macllnk", "punt"', "'macllnk', which is no table"),
    ("ip/ipnh.toml", '"macllnh", "punt"', '"macllnh", "macllnh"', "two variants of one stem"),
    ("ip/ipnh.toml", 'name = "encap_id"', 'name = "trap"', "trap: is the name of two fields"),
    ("ip/ipnh.toml", 'name = "encap_id"', 'name = "intf_set"', "is the is-set byte of intf"),
    ("ip/ipnh.toml", '"next_obj.macllnh.encap_id"', '"next_obj.macllnh.encap"',
     "macllnh has no attribute 'encap'"),
    ("ip/ipnh.toml", '"next_obj.macllnh.encap_id"', '"next_obj.macllnh.l3a_ipv4_mtu"',
     "must be a single u32"),
    ("ip/ipnhgroup.toml", 'inherit = "nexthop_next_obj.ipnh.encap_id"\n', "",
     "union variants that inherit: there are 80, expected 81"),
    ("ip/ipnhgroup.toml", '"iproute", ', "", "tables that receive it differ: iproute"),
    ("ip/ipnhgroup.toml", "\nbits = [1]", "\nbits = [7]", "no attribute raises its bits 0x80"),
    ("ip/ipnhgroup.toml", 'attr = "nexthop_next_obj"',
     'attr = "nexthop_next_obj"\nnested_in = "a.b"', "a.b is no variant of this table"),
    ("exercise/testay.toml", 'event = "TESTAX_RED_BACKWALK"', 'event = "TESTAX_RED"',
     "TESTAX_RED is no event"),
    ("system/rawget.toml", "count = 7040", "count = 8040", "but the fields take"),
    ("multicast/l2mcolist.toml", "element_record_bytes = 88", "element_record_bytes = 80",
     "but the elements take 88"),
    ("multicast/l2mcolist.toml", '"o_intf", "l2_encap_id"', '"o_intf", "l2_encap"',
     "l2_encap is nothing that each member has"),
    ("stats/tnlstats.toml", "stats_table = true", "", "periodic_stats: needs stats_table"),
    ("stats/tnlstats.toml", 'db_lock = "both"', 'db_lock = "db"', "periodic_stats: needs db_lock"),
    ("ip/ipvrf.toml", "[[attribute]]", "[[attribute]]\nstatistic = true",
     "statistic: is for statistics tables"),
    ("ip/ipvrf.toml", "hw_rc_mode = 1", "", "hw_rc_mode 1: there are 14, expected 15"),
    ("ip/ipvrf.toml", "[[key]]", "[key]", "key: is written [[key]]"),
    ("ip/ipvrf.toml", "[[key]]", "[[key", "ipvrf.toml: file:"),
)


def run(schema, *options):
    return subprocess.run([sys.executable, str(GENERATE), "--schema", str(schema), *options],
                          capture_output=True, text=True, check=False)


class Generator(unittest.TestCase):
    def setUp(self):
        self.dir = Path(tempfile.mkdtemp(prefix="zan_schema."))
        self.schema = self.dir / "schema"
        shutil.copytree(SCHEMA, self.schema)

    def tearDown(self):
        shutil.rmtree(self.dir)

    def change(self, file, old, new):
        path = self.schema / file
        text = path.read_text()
        self.assertIn(old, text, file)
        path.write_text(text.replace(old, new, 1))
        return path, text

    def test_refusals(self):
        out = self.dir / "out"
        for file, old, new, complaint in REFUSED:
            with self.subTest(file=file, new=new):
                path, text = self.change(file, old, new)
                result = run(self.schema, "--out", str(out))
                path.write_text(text)
                self.assertEqual(result.returncode, 1)
                self.assertIn(complaint, result.stderr)
                self.assertNotIn("Traceback", result.stderr)
                self.assertFalse(out.exists(), "written in spite of an error")

    def test_all_errors_in_one_run(self):
        for file, old, new, _ in REFUSED[4:8]:
            self.change(file, old, new)
        result = run(self.schema, "--check")
        for _, _, _, complaint in REFUSED[4:8]:
            self.assertIn(complaint, result.stderr)

    def test_writes_only_what_changed(self):
        out = self.dir / "out"
        self.assertEqual(run(self.schema, "--out", str(out)).returncode, 0)
        before = {p.name: p.stat().st_mtime_ns for p in out.iterdir()}
        (out / "stale.cpp").write_text("")
        self.change("ip/iproute.toml", "Origin autonomous system.", "The origin.")
        self.assertEqual(run(self.schema, "--out", str(out)).returncode, 0)
        after = {p.name: p.stat().st_mtime_ns for p in out.iterdir()}
        self.assertEqual([n for n in after if after[n] != before.get(n)], ["iproute.cpp"])
        self.assertNotIn("stale.cpp", after)

    def test_fingerprint(self):
        """Words may differ between two builds that talk to each other; fields may not."""
        def fingerprint():
            self.assertEqual(run(self.schema, "--out", str(self.dir / "out")).returncode, 0)
            text = (self.dir / "out" / "zan_table_defs.cpp").read_text()
            return next(x for x in text.splitlines() if "zan_schema_fingerprint" in x)
        first = fingerprint()
        self.change("ip/iproute.toml", "Origin autonomous system.", "The origin.")
        self.assertEqual(fingerprint(), first)
        self.change("ip/iproute.toml", 'name = "bgp_as"', 'name = "origin_as"')
        self.assertNotEqual(fingerprint(), first)

    def test_layout(self):
        """Natural alignment, worked out by hand, behind a header of 192 bytes."""
        errors = load.Errors()
        record = {"id": 0, "name": "t", "doc": "d", "obj_ref_cnt_limit": 2,
                  "key": [{"name": "k", "type": "u8", "doc": "d"},
                          {"name": "p", "type": "ipv6_prefix", "doc": "d"},
                          {"name": "n", "type": "u16", "doc": "d"}],
                  "attribute": [{"name": "x", "type": "u64", "doc": "d"},
                                {"name": "m", "type": "u32", "doc": "d", "repeated": True},
                                {"name": "c", "type": "u16", "doc": "d", "per_npu": True}],
                  "union": [{"attr": "u", "variants": ["t"]}]}
        table = load.read_table(errors, "t.toml", "g", record)
        layout.compute([table], errors)
        self.assertEqual(errors.lines, [])
        lay = table.layout
        self.assertEqual((lay.trans_id, lay.npu_mask_req, lay.npu_mask_req_set), (192, 200, 208))
        self.assertEqual((lay.key_offsets, lay.key_size, lay.key_bytes),
                         ({"k": 0, "p": 1, "n": 18}, 20, 20))
        self.assertEqual((lay.key, lay.obj_ref_cnt, lay.num_elements), (210, 232, 240))
        self.assertEqual(lay.attrs, {"x": (248, 256), "m": (264, 0), "c": (272, 288)})
        self.assertEqual((lay.refs["u"], lay.obj_size), ((296, 40), 336))


if __name__ == "__main__":
    unittest.main()
