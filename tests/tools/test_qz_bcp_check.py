"""Tests of tools/qz_bcp_check and the reader behind it, tools/qz_bcp.py:
sound uploads pass and read back by column name, each kind of fault is
named.  Run with: /usr/bin/python3 -m unittest discover -s tests/tools"""

import contextlib
import importlib.machinery
import importlib.util
import io
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile

TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools")
sys.path.insert(0, TOOLS)
import qz_bcp  # noqa: E402

SCRIPT = os.path.join(TOOLS, "qz_bcp_check")
_loader = importlib.machinery.SourceFileLoader("qz_bcp_check", SCRIPT)
check = importlib.util.module_from_spec(importlib.util.spec_from_loader(_loader.name, _loader))
_loader.exec_module(check)

TERMINAL = [("WA_BASIC_FJ_1001", 2), ("WA_BASIC_FJ_1002", 2),
            ("WA_BASIC_FJ_1003", 1), ("WA_BASIC_FJ_1004", 1)]
NETBAR = [("WA_SOURCE_FJ_0001", 5000, 0), ("WA_SOURCE_FJ_0001", 3, 1),
          ("WA_SOURCE_FJ_0002", 4), ("WA_BASIC_FJ_0001", 1), ("WA_BASIC_FJ_0002", 1),
          ("WA_BASIC_FJ_0003_1", 2), ("WA_BASIC_FJ_0003_2", 2)]


def bcp_name(group, code, seq=0, source="350100"):
    return "%d-%s-1700000000-%05d-%s-0.bcp" % (group, source, seq, code)


def zip_name(group, seq=0):
    return "%d-507183926-350100-350000-1700000300-%05d.zip" % (group, seq)


class Upload:
    """An archive as the daemon makes it: its files, then an index of
    blocks rendered by the reader's own template.  Line k of a file holds
    k+1 in its last column and v in the others."""

    def __init__(self, group, datasets):
        self.group, self.members, blocks = group, {}, []
        for code, count, *seq in datasets:
            name = bcp_name(group, code, *seq)
            ncols = len(qz_bcp.COLUMNS[code])
            self.members[name] = b"".join(b"v\t" * (ncols - 1) + b"%d\n" % (k + 1)
                                          for k in range(count))
            blocks.append({"code": code, "group": str(group), "file": name,
                           "org": "507183926", "area": "350100", "count": str(count)})
        self.index = qz_bcp.render_index(blocks)

    def write(self, directory, name=None):
        path = os.path.join(directory, name or zip_name(self.group))
        with zipfile.ZipFile(path, "w") as z:
            for member, data in self.members.items():
                z.writestr(member, data)
            z.writestr("GAB_ZIP_INDEX.xml", self.index)
        return path


def rename(old, new):
    def edit(up):
        up.members[new] = up.members.pop(old)
        up.index = up.index.replace(old.encode(), new.encode())
    return edit


class CheckerTest(unittest.TestCase):

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="qz_bcp_check_test.")
        self.addCleanup(shutil.rmtree, self.tmp)

    def run_check(self, *args):
        out = io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(io.StringIO()):
            status = check.main(["--json"] + list(args))
        return status, json.loads(out.getvalue())

    def test_sound_zips_pass_exactly(self):
        for group, datasets in ((146, TERMINAL), (145, NETBAR)):
            with self.subTest(group=group):
                status, summary = self.run_check("--exact", Upload(group, datasets).write(self.tmp))
                self.assertEqual((status, summary["faults"]), (0, []))
                self.assertEqual([(f["dataset"], f["records"])
                                  for f in summary["archives"][0]["files"]],
                                 [d[:2] for d in datasets])
        # Records by the column list's names, over the files of a dataset.
        up = qz_bcp.read(Upload(145, NETBAR).write(self.tmp, zip_name(145, 1)))
        ends = [(r["COLLECTION_EQUIPMENT_ID"], r["FLOOR"]) for r in up.records("WA_BASIC_FJ_0003_1")]
        self.assertEqual(ends, [("v", "1"), ("v", "2")])
        self.assertEqual([r["MODEL"] for r in up.records("WA_SOURCE_FJ_0001")][4999:],
                         ["5000", "1", "2", "3"])

    def test_each_fault_is_named(self):
        f1003, f1004 = bcp_name(146, "WA_BASIC_FJ_1003"), bcp_name(146, "WA_BASIC_FJ_1004")
        cases = [
            ("header byte", lambda up: setattr(up, "index", up.index.replace(
                b"<MESSAGE>\t\n", b"<MESSAGE> \n")),
             "does not begin with the fixed 204-byte header: byte 48"),
            ("footer missing", lambda up: setattr(up, "index",
                                                  up.index[:-len(qz_bcp.INDEX_FOOTER)]),
             "does not end with the fixed 50-byte footer"),
            ("count", lambda up: up.members.__setitem__(f1003, up.members[f1003] * 2),
             f1003 + ": has 2 lines, block 3 says I010034 1"),
            ("fields", lambda up: up.members.__setitem__(f1004, b"a\tb\n"),
             f1004 + ":1: has 2 fields, the index lists 6 columns"),
            ("missing file", lambda up: up.members.pop(f1003),
             "block 3: names %s, which is not in the archive" % f1003),
            ("extra file", lambda up: up.members.__setitem__("notes.txt", b"x\n"),
             "notes.txt: is not named by any block"),
            ("bcp name", rename(f1003, f1003.replace("-00000-", "-0000-")),
             "does not follow <group>-<source>-<seconds>-<5-digit seq>-<dataset>-0.bcp"),
            ("bcp group", rename(f1003, bcp_name(145, "WA_BASIC_FJ_1003")),
             "carries group 145, the archive is group 146"),
            ("bcp source", rename(f1003, bcp_name(146, "WA_BASIC_FJ_1003", source="350101")),
             "carries source '350101', the archive's source is '350100'"),
        ]
        for label, edit, fault in cases:
            with self.subTest(label):
                up = Upload(146, TERMINAL)
                edit(up)
                status, summary = self.run_check("--exact", up.write(self.tmp))
                self.assertEqual(status, 1)
                self.assertIn(fault, "\n".join(summary["faults"]))

    def test_live_spool(self):
        # No index yet, and the last line of a file may be cut: records come
        # from the whole lines, in name order.
        code = "WA_SOURCE_FJ_0002"
        line = "v\t" * (len(qz_bcp.NAMES[code]) - 1) + "%d\n"
        for seq, text in ((1, line % 2 + line[:5]), (0, line % 1)):
            with open(os.path.join(self.tmp, bcp_name(145, code, seq)), "w") as f:
                f.write(text)
        self.assertEqual([r["CAPTURE_TIME"] for r in qz_bcp.read(self.tmp).records(code)],
                         ["1", "2"])

    def test_zip_names_and_groups(self):
        cases = [
            ("146-507183926-350100-350000-1700000300-0.zip", "does not follow"),
            ("146-507183925-350100-350000-1700000300-00000.zip", "organisation code 507183925"),
            (zip_name(145), "dataset WA_BASIC_FJ_1001 does not belong to group 145"),
            (zip_name(147), "group 147 is neither 146 nor 145"),
        ]
        for name, fault in cases:
            with self.subTest(name):
                status, summary = self.run_check(Upload(146, TERMINAL).write(self.tmp, name))
                self.assertEqual(status, 1)
                self.assertIn(fault, "\n".join(summary["faults"]))

    def test_status_file(self):
        line = '{"fc":"507183926", "sc":"35010010AC1000", "dc":"50718392600112233445", "ds":"%s"}\n'
        path = os.path.join(self.tmp, "145-350100-1700000300-0-DEVICESTATUS-0.bjson")
        for ds, status, fault in (("0", 0, ""), ("2", 1, "ds is '2'")):
            with open(path, "w") as f:
                f.write(line % ds)
            result, summary = self.run_check(path)
            self.assertEqual(result, status)
            self.assertIn(fault, "\n".join(summary["faults"]))

    def test_command_line_exit_status(self):
        good = Upload(146, TERMINAL).write(self.tmp)
        bad = Upload(146, TERMINAL[:1]).write(self.tmp, zip_name(145))
        for args, status in (([good], 0), (["--quiet", good, bad], 1), ([], 2)):
            with self.subTest(args=args):
                r = subprocess.run([SCRIPT] + args, capture_output=True, timeout=60)
                self.assertEqual(r.returncode, status, r.stderr)


if __name__ == "__main__":
    unittest.main()
