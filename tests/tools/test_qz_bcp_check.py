"""Tests of tools/qz_bcp_check: sound uploads pass, each kind of fault is named.

Run with: /usr/bin/python3 -m unittest discover -s tests/tools -v
"""

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

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
SCRIPT = os.path.join(ROOT, "tools", "qz_bcp_check")


def load_checker():
    loader = importlib.machinery.SourceFileLoader("qz_bcp_check", SCRIPT)
    loader_spec = importlib.util.spec_from_loader(loader.name, loader)
    module = importlib.util.module_from_spec(loader_spec)
    loader.exec_module(module)
    return module


check = load_checker()

INDEX = "GAB_ZIP_INDEX.xml"
SOURCE = "350100"
DST = "350000"
OPENED = 1700000000
ZIPPED = 1700000300


def bcp_name(group, code, seq=0, source=SOURCE, opened=OPENED):
    return "%d-%s-%d-%05d-%s-0.bcp" % (group, source, opened, seq, code)


def zip_name(group, seq=0, source=SOURCE, dst=DST):
    return "%d-507183926-%s-%s-%d-%05d.zip" % (group, source, dst, ZIPPED, seq)


def record_lines(code, count):
    ncols = len(check.COLUMNS[code])
    return "".join("\t".join("r%dc%d" % (n, i) for i in range(ncols)) + "\n"
                   for n in range(count)).encode()


class Upload:
    """One archive as the daemon would make it: files in order, then an index."""

    def __init__(self, group, datasets):
        self.group = group
        self.source = SOURCE
        self.members = {}
        blocks = []
        for entry in datasets:
            code, count = entry[0], entry[1]
            seq = entry[2] if len(entry) > 2 else 0
            name = bcp_name(group, code, seq)
            self.members[name] = record_lines(code, count)
            blocks.append(check.render_block({
                "code": code, "group": str(group), "org": "507183926",
                "area": SOURCE, "file": name, "count": str(count)}))
        self.index = check.INDEX_HEADER + b"".join(blocks) + check.INDEX_FOOTER

    def edit_index(self, old, new, count=1):
        old, new = old.encode(), new.encode()
        if old not in self.index:
            raise AssertionError("fixture text %r not in the index" % old)
        self.index = self.index.replace(old, new, count)

    def write_zip(self, directory, name=None):
        path = os.path.join(directory, name or zip_name(self.group))
        with zipfile.ZipFile(path, "w") as z:
            for member, data in self.members.items():
                z.writestr(member, data)
            if self.index is not None:
                z.writestr(INDEX, self.index)
        return path

    def write_dir(self, directory):
        os.makedirs(directory)
        for member, data in self.members.items():
            with open(os.path.join(directory, member), "wb") as f:
                f.write(data)
        with open(os.path.join(directory, INDEX), "wb") as f:
            f.write(self.index)
        return directory


TERMINAL_SET = [("WA_BASIC_FJ_1001", 2), ("WA_BASIC_FJ_1002", 2),
                ("WA_BASIC_FJ_1003", 1), ("WA_BASIC_FJ_1004", 1)]
NETBAR_SET = [("WA_SOURCE_FJ_0001", 3), ("WA_SOURCE_FJ_0002", 4),
              ("WA_BASIC_FJ_0001", 1), ("WA_BASIC_FJ_0002", 1),
              ("WA_BASIC_FJ_0003_1", 2), ("WA_BASIC_FJ_0003_2", 2)]


class CheckerCase(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="qz_bcp_check_test.")
        self.addCleanup(shutil.rmtree, self.tmp)

    def run_check(self, *args):
        """Run the checker in-process; return (exit status, JSON summary)."""
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            status = check.main(["--json"] + list(args))
        summary = json.loads(out.getvalue())
        self.assertEqual(summary["faults"], err.getvalue().splitlines())
        return status, summary

    def assert_sound(self, *args):
        status, summary = self.run_check(*args)
        self.assertEqual(summary["faults"], [])
        self.assertEqual(status, 0)
        return summary

    def assert_fault(self, expected, *args):
        status, summary = self.run_check(*args)
        self.assertEqual(status, 1)
        joined = "\n".join(summary["faults"])
        self.assertIn(expected, joined)
        return summary


class FixedTextTest(unittest.TestCase):
    """The fixed texts and tables, against values written out by hand."""

    def test_header_and_footer_lengths(self):
        self.assertEqual(len(check.INDEX_HEADER), 204)
        self.assertEqual(len(check.INDEX_FOOTER), 50)
        self.assertTrue(check.INDEX_HEADER.endswith(
            '<DATASET name="WA_COMMON_010013" rmk="BCP文件描述信息">'.encode()))
        self.assertTrue(check.INDEX_FOOTER.endswith(b"</DATASET>\n</MESSAGE>"))

    def test_column_counts_match_record_widths(self):
        widths = {"WA_BASIC_FJ_1001": 5, "WA_BASIC_FJ_1002": 14,
                  "WA_BASIC_FJ_1003": 14, "WA_BASIC_FJ_1004": 6,
                  "WA_SOURCE_FJ_0001": 34, "WA_SOURCE_FJ_0002": 21,
                  "WA_BASIC_FJ_0001": 17, "WA_BASIC_FJ_0002": 6,
                  "WA_BASIC_FJ_0003_1": 6, "WA_BASIC_FJ_0003_2": 8}
        self.assertEqual({k: len(v) for k, v in check.COLUMNS.items()}, widths)
        self.assertEqual(set(check.LAYOUT), set(widths))
        grouped = set(check.GROUP_DATASETS[145]) | set(check.GROUP_DATASETS[146])
        self.assertEqual(grouped, set(widths))

    def test_platform_oddities_are_kept(self):
        def column(code, key):
            return next(c for c in check.COLUMNS[code] if c[0] == key)
        cases = [
            ("WA_BASIC_FJ_1001", "I070011", "COLLECTION_EQUIPMENTID", "采集设备编号"),
            ("WA_BASIC_FJ_1002", "I070011", "COLLECTION_EQUIPMENTID", "采集设备编号"),
            ("WA_BASIC_FJ_0003_1", "I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号"),
            ("WA_SOURCE_FJ_0002", "I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号"),
            ("WA_BASIC_FJ_1002", "C030002", "VEHICLE_CODE", "车牌号码"),
            ("WA_BASIC_FJ_0003_2", "C030002", "CAR_CODE", "车牌号码"),
            ("WA_BASIC_FJ_1004", "G020037", "SECURITY_SOFTWARE_ADDRESS", "厂商地址"),
            ("WA_BASIC_FJ_0002", "G020037", "ADDRESS", "厂商地址 SECURITY_SOFTWARE_"),
            ("WA_BASIC_FJ_0001", "I070016", "AUTH_ACCOUNT", "网络接入账号或固定IP地址 ACSSES_IP"),
            ("WA_BASIC_FJ_0001", "G020013", "CODE_ALLOCATION_ORGANIZATION", "安全厂商组织机构代码"),
            ("WA_BASIC_FJ_1003", "G020013", "SECURITY_SOFTWARE_ORGCODE", "厂商组织机构代码"),
            ("WA_BASIC_FJ_1002", "G020013", "SECURITY_SOFTWARE_ORGCODE", "安全厂商组织机构代码"),
            ("WA_BASIC_FJ_1002", "G020004", "NETBAR_WACODE", "场所编号"),
            ("WA_BASIC_FJ_1003", "G020004", "NETBAR_WACODE", "上网服务场所编码"),
            ("WA_BASIC_FJ_1002", "I070013", "COLLECTION_EQUIPMENT_ADRESS", "设备地址"),
            ("WA_SOURCE_FJ_0002", "G020004", "NETSERVERPORT_WACODE", "上网服务场所编码"),
        ]
        for code, key, eng, chn in cases:
            with self.subTest(code=code, key=key):
                self.assertEqual(column(code, key), (key, eng, chn))
        # Repeated remarks: two columns share one chn text.
        s1 = check.COLUMNS["WA_SOURCE_FJ_0001"]
        self.assertEqual(s1[2][2], s1[3][2])
        self.assertEqual(s1[29][2], s1[30][2])
        self.assertEqual(s1[29][1:], ("IMSI", "终端IMSI码"))
        self.assertEqual(s1[30][1:], ("IMEI_ESN_MEID", "终端IMSI码"))

    def test_vendor_block_bytes(self):
        name = bcp_name(146, "WA_BASIC_FJ_1004")
        golden = "\n".join([
            "",
            "\t\t\t\t<DATA>\t\t\t\t\t",
            '\t\t\t\t\t<ITEM key="A010004" val="WA_BASIC_FJ_1004" rmk="数据集代码"/>\t\t\t\t\t',
            '\t\t\t\t\t<ITEM key="B050016" val="146" rmk="数据来源"/>\t\t\t\t\t',
            '\t\t\t\t\t<ITEM key="G020013" val="507183926" rmk="网安专用产品厂家组织机构代码"/>\t\t\t\t\t',
            '\t\t\t\t\t<ITEM key="F010008" val="350100" rmk="数据采集地"/>\t\t\t\t\t',
            '\t\t\t\t\t<DATASET name="WA_COMMON_010014" rmk="BCP数据文件信息">\t\t\t\t\t\t',
            "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t",
            '\t\t\t\t\t\t\t<ITEM key="H040003" val="" rmk="文件路径"/>\t\t\t\t\t\t\t',
            '\t\t\t\t\t\t\t<ITEM key="H010020" val="%s" rmk="文件名"/>\t\t\t\t\t\t\t' % name,
            '\t\t\t\t\t\t\t<ITEM key="I010034" val="1" rmk="记录行数"/>\t\t\t\t\t\t',
            "\t\t\t\t\t\t</DATA>\t\t\t\t\t",
            "\t\t\t\t\t</DATASET>\t\t\t\t\t",
            '\t\t\t\t\t<DATASET name="WA_COMMON_010015" rmk="BCP文件数据结构">\t\t\t\t\t\t',
            "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t",
            '\t\t\t\t\t\t\t<ITEM key="G020014" eng="SECURITY_SOFTWARE_ORGNAME" chn="厂商名称"/>\t\t\t\t\t\t\t',
            '\t\t\t\t\t\t\t<ITEM key="G020013" eng="SECURITY_SOFTWARE_ORGCODE" chn="厂商组织机构代码"/>\t\t\t\t\t\t\t',
            '\t\t\t\t\t\t\t<ITEM key="G020037" eng="SECURITY_SOFTWARE_ADDRESS" chn="厂商地址"/>\t\t\t\t\t\t\t',
            '\t\t\t\t\t\t\t<ITEM key="E020017" eng="CONTACTOR" chn="联系人"/>\t\t\t\t\t\t\t',
            '\t\t\t\t\t\t\t<ITEM key="E020020" eng="CONTACTOR_TEL" chn="联系人电话"/>\t\t\t\t\t\t\t',
            '\t\t\t\t\t\t\t<ITEM key="E020023" eng="CONTACTOR_MAIL" chn="联系人邮件"/>\t\t\t\t\t\t',
            "\t\t\t\t\t\t</DATA>\t\t\t\t\t",
            "\t\t\t\t\t</DATASET>\t\t\t\t",
            "\t\t\t\t</DATA>",
        ]).encode()
        block = check.render_block({
            "code": "WA_BASIC_FJ_1004", "group": "146", "org": "507183926",
            "area": "350100", "file": name, "count": "1"})
        self.assertEqual(block, golden)

    def test_separator_and_closing_variants(self):
        def block(code):
            return check.render_block({
                "code": code, "group": "145", "org": "507183926", "area": SOURCE,
                "file": "f", "count": "1"}).decode()
        long_close = ("\t\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\t\n"
                      "\t\t\t\t\t</DATASET>\t\t\t\t\t\n\t\t\t\t</DATA>")
        short_close = ("\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\n"
                       "\t\t\t\t\t</DATASET>\t\t\t\t\n\t\t\t\t</DATA>")
        for code, sep, close in [
                ("WA_BASIC_FJ_1001", 7, long_close),
                ("WA_SOURCE_FJ_0001", 8, long_close),
                ("WA_SOURCE_FJ_0002", 7, long_close),
                ("WA_BASIC_FJ_1003", 7, short_close),
                ("WA_BASIC_FJ_0003_2", 7, short_close)]:
            with self.subTest(code=code):
                text = block(code)
                self.assertTrue(text.endswith('"/>' + close))
                columns = text.split('rmk="BCP文件数据结构">')[1]
                between = "/>" + "\t" * sep + "\n" + "\t" * 7 + "<ITEM"
                self.assertEqual(columns.count(between), len(check.COLUMNS[code]) - 1)


class SoundUploadTest(CheckerCase):
    def test_terminal_zip_summary(self):
        up = Upload(146, TERMINAL_SET)
        summary = self.assert_sound("--exact", up.write_zip(self.tmp))
        (archive,) = summary["archives"]
        self.assertEqual((archive["group"], archive["source"], archive["dst"]),
                         (146, SOURCE, DST))
        self.assertEqual([(f["dataset"], f["records"]) for f in archive["files"]],
                         TERMINAL_SET)
        self.assertEqual(archive["files"][0]["file"], bcp_name(146, "WA_BASIC_FJ_1001"))

    def test_netbar_zip_with_every_dataset(self):
        up = Upload(145, NETBAR_SET)
        summary = self.assert_sound("--exact", up.write_zip(self.tmp))
        self.assertEqual(len(summary["archives"][0]["files"]), 6)

    def test_spool_directory(self):
        up = Upload(146, TERMINAL_SET[2:])
        summary = self.assert_sound("--exact", up.write_dir(os.path.join(self.tmp, "146")))
        self.assertEqual(summary["archives"][0]["kind"], "dir")
        self.assertEqual(summary["archives"][0]["group"], 146)

    def test_several_zips_in_one_run(self):
        a = Upload(146, TERMINAL_SET).write_zip(self.tmp)
        b = Upload(145, NETBAR_SET).write_zip(self.tmp)
        summary = self.assert_sound(a, b)
        self.assertEqual([x["group"] for x in summary["archives"]], [146, 145])

    def test_full_file_followed_by_the_next(self):
        up = Upload(145, [("WA_SOURCE_FJ_0001", 5000, 0), ("WA_SOURCE_FJ_0001", 3, 1),
                          ("WA_BASIC_FJ_0001", 1)])
        self.assert_sound("--exact", up.write_zip(self.tmp))

    def test_sequence_wraps_after_65535(self):
        up = Upload(145, [("WA_SOURCE_FJ_0002", 5000, 65535), ("WA_SOURCE_FJ_0002", 1, 0)])
        self.assert_sound(up.write_zip(self.tmp))

    def test_captured_upload_under_another_name(self):
        up = Upload(146, TERMINAL_SET)
        path = up.write_zip(self.tmp, name="0003-tmp-146")
        self.assert_fault("zip name '0003-tmp-146' does not follow", path)
        self.assert_sound("--no-name-check", path)
        summary = self.assert_sound("--name", zip_name(146, seq=7), path)
        self.assertEqual(summary["archives"][0]["sequence"], 7)
        self.assert_fault("B050016 (data source) is '146', expected the group 145",
                          "--name", zip_name(145), path)


class IndexFaultTest(CheckerCase):
    def check_edit(self, old, new, expected, *flags):
        up = Upload(146, TERMINAL_SET)
        up.edit_index(old, new)
        return self.assert_fault(expected, *flags, up.write_zip(self.tmp))

    def test_frame_faults(self):
        cases = [
            ("tab in header", "<MESSAGE>\t\n", "<MESSAGE> \n",
             "line 2: does not begin with the fixed 204-byte header: byte 48"),
            ("declaration", 'encoding="UTF-8"', 'encoding="utf-8"',
             "does not begin with the fixed 204-byte header"),
            ("footer tab", "\t\t</DATA>\t\n\t</DATASET>\n</MESSAGE>",
             "\t\t</DATA>\n\t</DATASET>\n</MESSAGE>",
             "does not end with the fixed 50-byte footer"),
        ]
        for label, old, new, expected in cases:
            with self.subTest(label):
                self.check_edit(old, new, expected)

    def test_footer_missing_or_followed_by_line_feed(self):
        for label, edit in [("cut", lambda b: b[:-len(check.INDEX_FOOTER)]),
                            ("line feed", lambda b: b + b"\n")]:
            with self.subTest(label):
                up = Upload(146, TERMINAL_SET)
                up.index = edit(up.index)
                self.assert_fault("does not end with the fixed 50-byte footer",
                                  up.write_zip(self.tmp))

    def test_not_well_formed(self):
        summary = self.check_edit('<ITEM key="H040003" val=""', '<ITEM key="H040003" val="<"',
                                  "not well-formed XML")
        self.assertIn(INDEX + ":", summary["faults"][0])

    def test_item_values(self):
        cases = [
            ("record count", 'key="I010034" val="2"', 'key="I010034" val="3"',
             "has 2 lines, block 1 says I010034 3"),
            ("count not decimal", 'key="I010034" val="2"', 'key="I010034" val="02"',
             "I010034 '02' is not a decimal count"),
            ("count above 5000", 'key="I010034" val="2"', 'key="I010034" val="5001"',
             "I010034 is 5001, a file holds 1 to 5000 records"),
            ("organisation", 'val="507183926"', 'val="507183925"',
             "block 1: G020013 is '507183925', expected 507183926"),
            ("data source", 'key="B050016" val="146"', 'key="B050016" val="145"',
             "B050016 (data source) is '145', expected the group 146"),
            ("source area", 'key="F010008" val="350100"', 'key="F010008" val="350101"',
             "F010008 is '350101', the source in the names is '350100'"),
            ("file path", 'key="H040003" val=""', 'key="H040003" val="/tmp/146"',
             "H040003 (file path) is '/tmp/146', expected empty"),
            ("remark", 'rmk="数据来源"', 'rmk="来源"',
             "ITEM B050016 has rmk '来源', expected '数据来源'"),
            ("dataset of the name", 'key="A010004" val="WA_BASIC_FJ_1001"',
             'key="A010004" val="WA_BASIC_FJ_1002"',
             "carries dataset WA_BASIC_FJ_1001, the block is WA_BASIC_FJ_1002"),
        ]
        for label, old, new, expected in cases:
            with self.subTest(label):
                self.check_edit(old, new, expected)

    def test_block_structure(self):
        item = '\t\t\t\t\t<ITEM key="G020013" val="507183926" rmk="网安专用产品厂家组织机构代码"/>\t\t\t\t\t\n'
        cases = [
            ("item missing", item, "", "expected <ITEM A010004>, <ITEM B050016>, "
             "<ITEM G020013>, <ITEM F010008>"),
            ("key renamed", 'key="A010004"', 'key="A010005"', "items are <ITEM A010005>"),
            ("file dataset renamed", 'name="WA_COMMON_010014"', 'name="WA_COMMON_010016"',
             "expected <DATASET WA_COMMON_010014>, <DATASET WA_COMMON_010015>"),
            ("column without chn", ' chn="场所编号"/>', "/>",
             "column 2 is ITEM with attributes eng, key, expected <ITEM key eng chn>"),
        ]
        for label, old, new, expected in cases:
            with self.subTest(label):
                self.check_edit(old, new, expected)

    def test_empty_index(self):
        up = Upload(146, [])
        self.assert_fault("GAB_ZIP_INDEX.xml: lists no BCP file", up.write_zip(self.tmp))


class FileFaultTest(CheckerCase):
    def test_line_faults(self):
        name = bcp_name(146, "WA_BASIC_FJ_1001")
        good = record_lines("WA_BASIC_FJ_1001", 2)
        cases = [
            ("extra field", good.replace(b"\n", b"\textra\n", 1),
             name + ":1: has 6 fields, the index lists 5 columns"),
            ("missing field", good[:-1].rsplit(b"\t", 1)[0] + b"\n",
             name + ":2: has 4 fields, the index lists 5 columns"),
            ("no final line feed", good[:-1],
             name + ':2: last line does not end with "\\n"'),
            ("carriage return", good.replace(b"\n", b"\r\n"),
             name + ':1: line ends with "\\r\\n"'),
            ("empty", b"", name + ": has 0 lines, block 1 says I010034 2"),
        ]
        for label, data, expected in cases:
            with self.subTest(label):
                up = Upload(146, TERMINAL_SET)
                up.members[name] = data
                self.assert_fault(expected, up.write_zip(self.tmp))

    def test_many_bad_lines_are_summed_up(self):
        up = Upload(146, [("WA_BASIC_FJ_1003", 25)])
        name = bcp_name(146, "WA_BASIC_FJ_1003")
        up.members[name] = b"no tabs here\n" * 25
        summary = self.assert_fault("15 more faulty lines not shown", up.write_zip(self.tmp))
        self.assertEqual(len(summary["faults"]), 11)

    def test_file_set_faults(self):
        missing = bcp_name(146, "WA_BASIC_FJ_1002")
        cases = [
            ("missing file", lambda up: up.members.pop(missing),
             "block 2: names %s, which is not in the archive" % missing),
            ("extra file", lambda up: up.members.__setitem__("notes.txt", b"x\n"),
             "notes.txt: is not named by any block"),
            ("file named twice", lambda up: up.edit_index(
                bcp_name(146, "WA_BASIC_FJ_1004"), bcp_name(146, "WA_BASIC_FJ_1003")),
             "is named by 2 blocks (3, 4)"),
            ("no index", lambda up: setattr(up, "index", None),
             "holds no GAB_ZIP_INDEX.xml"),
        ]
        for label, edit, expected in cases:
            with self.subTest(label):
                up = Upload(146, TERMINAL_SET)
                edit(up)
                self.assert_fault(expected, up.write_zip(self.tmp))

    def test_not_a_zip_and_missing_path(self):
        path = os.path.join(self.tmp, "garbage.zip")
        with open(path, "wb") as f:
            f.write(b"PK\x03\x04 not really")
        self.assert_fault("neither a zip nor a device status file", path)
        self.assert_fault("no such file or directory", os.path.join(self.tmp, "nothing"))

    def test_empty_directory(self):
        os.mkdir(os.path.join(self.tmp, "146"))
        self.assert_fault("holds no GAB_ZIP_INDEX.xml", os.path.join(self.tmp, "146"))

    def test_directory_inside_zip(self):
        up = Upload(146, TERMINAL_SET)
        path = up.write_zip(self.tmp)
        with zipfile.ZipFile(path, "a") as z:
            z.writestr("tmp/146/stray.bcp", b"x\n")
        self.assert_fault("plain files without directories", path)


class NameFaultTest(CheckerCase):
    def test_zip_names(self):
        cases = [
            ("sequence not padded", "146-507183926-350100-350000-1700000300-0.zip",
             "does not follow <group>-507183926-<source>-<dst>-<seconds>-<5-digit seq>.zip"),
            ("organisation", "146-507183925-350100-350000-1700000300-00000.zip",
             "carries organisation code 507183925"),
            ("group", "145-507183926-350100-350000-1700000300-00000.zip",
             "dataset WA_BASIC_FJ_1001 does not belong to group 145"),
            ("source", "146-507183926-350101-350000-1700000300-00000.zip",
             "F010008 is '350100', the source in the names is '350101'"),
            ("sequence beyond 16 bits", "146-507183926-350100-350000-1700000300-65536.zip",
             "sequence 65536 does not fit 16 bits"),
            ("leading zero in time", "146-507183926-350100-350000-01700000300-00000.zip",
             "does not follow"),
        ]
        for label, name, expected in cases:
            with self.subTest(label):
                up = Upload(146, TERMINAL_SET)
                self.assert_fault(expected, up.write_zip(self.tmp, name=name))

    def test_expected_destination(self):
        up = Upload(146, TERMINAL_SET)
        path = up.write_zip(self.tmp)
        self.assert_sound("--dst", DST, path)
        self.assert_fault("carries destination '350000', expected '350001'",
                          "--dst", "350001", path)

    def test_bcp_names(self):
        code = "WA_BASIC_FJ_1002"
        good = bcp_name(146, code)
        cases = [
            ("sequence of four digits", "146-350100-1700000000-0000-%s-0.bcp" % code,
             "does not follow <group>-<source>-<seconds>-<5-digit seq>-<dataset>-0.bcp"),
            ("last segment", "146-350100-1700000000-00000-%s-1.bcp" % code, "does not follow"),
            ("group", bcp_name(145, code), "carries group 145, the archive is group 146"),
            ("source", bcp_name(146, code, source="350101"),
             "carries source '350101', the archive's source is '350100'"),
        ]
        for label, name, expected in cases:
            with self.subTest(label):
                up = Upload(146, TERMINAL_SET)
                up.members[name] = up.members.pop(good)
                up.edit_index(good, name)
                self.assert_fault(expected, up.write_zip(self.tmp))

    def test_dataset_of_the_other_group(self):
        for group, stray in [(146, "WA_BASIC_FJ_0001"), (145, "WA_BASIC_FJ_1003"),
                             (146, "WA_SOURCE_FJ_1001")]:
            with self.subTest(group=group, dataset=stray):
                datasets = TERMINAL_SET if group == 146 else NETBAR_SET
                up = Upload(group, datasets[:1])
                stray_name = bcp_name(group, stray)
                up.members[stray_name] = b"x\n"
                # Reuse a block of the right group and rename its dataset and file.
                first = datasets[0][0]
                up.edit_index('val="%s"' % first, 'val="%s"' % stray)
                up.edit_index(bcp_name(group, first), stray_name)
                up.members.pop(bcp_name(group, first))
                self.assert_fault("dataset %s does not belong to group %d" % (stray, group),
                                  up.write_zip(self.tmp))

    def test_unknown_group(self):
        up = Upload(146, TERMINAL_SET)
        path = up.write_zip(self.tmp, name=zip_name(147))
        self.assert_fault("group 147 is neither 146 nor 145", path)


class RolloverTest(CheckerCase):
    def test_rollover_faults(self):
        cases = [
            ("short file followed by another",
             [("WA_SOURCE_FJ_0001", 4, 0), ("WA_SOURCE_FJ_0001", 1, 1)],
             "block 1: WA_SOURCE_FJ_0001 file holds 4 records, yet block 2 continues"),
            ("sequence gap",
             [("WA_SOURCE_FJ_0001", 5000, 0), ("WA_SOURCE_FJ_0001", 1, 2)],
             "block 2: WA_SOURCE_FJ_0001 file has sequence 00002 after 00000 in block 1"),
            ("sequence backwards",
             [("WA_SOURCE_FJ_0002", 5000, 5), ("WA_SOURCE_FJ_0002", 1, 4)],
             "sequence 00004 after 00005"),
        ]
        for label, datasets, expected in cases:
            with self.subTest(label):
                self.assert_fault(expected, Upload(145, datasets).write_zip(self.tmp))


class ColumnTest(CheckerCase):
    def test_column_list_checked_only_on_request(self):
        up = Upload(146, TERMINAL_SET)
        up.edit_index('eng="COLLECTION_EQUIPMENTID" chn="采集设备编号"/>\t\t\t\t\t\t\t\n'
                      '\t\t\t\t\t\t\t<ITEM key="I070012"',
                      'eng="COLLECTION_EQUIPMENT_ID" chn="采集设备编号"/>\t\t\t\t\t\t\t\n'
                      '\t\t\t\t\t\t\t<ITEM key="I070012"')
        path = up.write_zip(self.tmp)
        self.assert_sound(path)
        self.assert_fault("block 2: WA_BASIC_FJ_1002 column 2 is key='I070011' "
                          "eng='COLLECTION_EQUIPMENT_ID'", "--columns", path)

    def test_missing_column_with_matching_lines(self):
        # The file agrees with its block, but the block lacks the last column.
        up = Upload(146, [("WA_BASIC_FJ_1004", 1)])
        up.edit_index('\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t<ITEM key="E020023" eng="CONTACTOR_MAIL" '
                      'chn="联系人邮件"/>', "")
        name = bcp_name(146, "WA_BASIC_FJ_1004")
        up.members[name] = b"a\tb\tc\td\te\n"
        path = up.write_zip(self.tmp)
        self.assert_sound(path)
        self.assert_fault("WA_BASIC_FJ_1004 lists 5 columns, expected 6", "--columns", path)

    def test_exact_layout(self):
        up = Upload(145, NETBAR_SET)
        # One tab short between two WA_SOURCE_FJ_0001 columns.
        up.edit_index('chn="认证类型"/>\t\t\t\t\t\t\t\t\n', 'chn="认证类型"/>\t\t\t\t\t\t\t\n')
        path = up.write_zip(self.tmp)
        self.assert_sound("--columns", path)
        self.assert_fault("layout differs in block 1 (WA_SOURCE_FJ_0001)", "--exact", path)

    def test_exact_layout_of_the_closing(self):
        up = Upload(146, TERMINAL_SET)
        up.edit_index('chn="时间"/>\t\t\t\t\t\t\t\n', 'chn="时间"/>\t\t\t\t\t\t\n')
        path = up.write_zip(self.tmp)
        self.assert_fault("layout differs in block 1 (WA_BASIC_FJ_1001)", "--exact", path)


class StatusFileTest(CheckerCase):
    NAME = "145-350100-1700000300-0-DEVICESTATUS-0.bjson"
    A = '{"fc":"507183926", "sc":"35010010AC1000", "dc":"50718392600112233445", "ds":"0"}'
    B = '{"fc":"507183926", "sc":"35010010AC1000", "dc":"507183926AABBCCDDEEF", "ds":"1"}'

    def write(self, text, name=None):
        path = os.path.join(self.tmp, name or self.NAME)
        with open(path, "wb") as f:
            f.write(text.encode())
        return path

    def test_sound_status_file(self):
        summary = self.assert_sound(self.write(self.A + "\n" + self.B + "\n"))
        archive = summary["archives"][0]
        self.assertEqual((archive["kind"], archive["lines"], archive["sequence"]),
                         ("status", 2, 0))
        self.assertEqual([d["ds"] for d in archive["devices"]], ["0", "1"])

    def test_line_format_faults(self):
        cases = [
            ("blank after colon", self.A.replace('"fc":"', '"fc": "')),
            ("no blank after comma", self.A.replace('", "sc"', '","sc"')),
            ("two blanks after comma", self.A.replace('", "sc"', '",  "sc"')),
            ("ds not quoted", self.A.replace('"ds":"0"', '"ds":0')),
            ("keys reordered", self.A.replace('"fc"', '"xx"').replace('"sc"', '"fc"')),
            ("trailing blank", self.A + " "),
        ]
        for label, line in cases:
            with self.subTest(label):
                self.assert_fault(":1: not of the form", self.write(line + "\n"))

    def test_value_faults(self):
        cases = [
            ("ds", self.A.replace('"ds":"0"', '"ds":"2"'), "ds is '2'"),
            ("fc", self.A.replace("507183926\", \"sc", "507183925\", \"sc"),
             "fc is '507183925'"),
            ("sc", self.A.replace("35010010AC1000", "35010110AC1000"),
             "sc is '35010110AC1000', expected the place code '35010010AC1000'"),
            ("dc", self.A.replace("50718392600112233445", "00112233445566"),
             "dc '00112233445566' is not an equipment id"),
            ("control character", self.A.replace("35010010AC1000", "3501\t0010AC1000"),
             "not valid JSON"),
        ]
        for label, line, expected in cases:
            with self.subTest(label):
                self.assert_fault(expected, self.write(line + "\n"))

    def test_file_faults(self):
        cases = [
            ("no final line feed", self.A, ':1: last line does not end with "\\n"'),
            ("empty", "", "an empty status file is never uploaded"),
        ]
        for label, text, expected in cases:
            with self.subTest(label):
                self.assert_fault(expected, self.write(text))

    def test_status_names(self):
        cases = [
            ("padded sequence", "145-350100-1700000300-00000-DEVICESTATUS-0.bjson"),
            ("directory number", "144-350100-1700000300-0-DEVICESTATUS-0.bjson"),
            ("last segment", "145-350100-1700000300-0-DEVICESTATUS-1.bjson"),
        ]
        for label, name in cases:
            with self.subTest(label):
                self.assert_fault("does not follow 145-<source>-<seconds>-<seq>-"
                                  "DEVICESTATUS-0.bjson", self.write(self.A + "\n", name))

    def test_access_points_sharing_an_equipment_id(self):
        # The id keeps only the MAC's first eleven digits: two access points
        # that differ in the last one are listed with the same id.
        self.assert_sound("--no-name-check", self.write(self.A + "\n" + self.A + "\n"))

    def test_captured_status_file(self):
        path = self.write(self.A + "\n", name="0004-tmp-144")
        self.assert_sound("--no-name-check", path)
        self.assert_sound("--name", self.NAME, path)
        self.assert_fault("expected the place code '35010110AC1000'",
                          "--name", "145-350101-1700000300-3-DEVICESTATUS-0.bjson", path)

    def test_status_spool_directory(self):
        spool = os.path.join(self.tmp, "144")
        os.mkdir(spool)
        with open(os.path.join(spool, self.NAME), "w") as f:
            f.write(self.A.replace('"ds":"0"', '"ds":"x"') + "\n")
        self.assert_fault("%s:%s:1: ds is 'x'" % (spool, self.NAME), spool)


class CommandLineTest(unittest.TestCase):
    """The script as integrators run it."""

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="qz_bcp_check_cli.")
        self.addCleanup(shutil.rmtree, self.tmp)

    def run_script(self, *args):
        return subprocess.run([SCRIPT] + list(args), capture_output=True, text=True,
                              timeout=60)

    def test_help(self):
        proc = self.run_script("--help")
        self.assertEqual(proc.returncode, 0)
        self.assertIn("usage: qz_bcp_check", proc.stdout)
        self.assertIn("--no-name-check", proc.stdout)

    def test_summary_and_faults(self):
        good = Upload(146, TERMINAL_SET).write_zip(self.tmp)
        proc = self.run_script(good)
        self.assertEqual((proc.returncode, proc.stderr), (0, ""))
        self.assertIn(zip_name(146) + ": group 146, source 350100, 4 files", proc.stdout)
        self.assertIn("WA_BASIC_FJ_1003", proc.stdout)
        self.assertIn("1 line\n", proc.stdout)

        quiet = self.run_script("--quiet", good)
        self.assertEqual((quiet.returncode, quiet.stdout, quiet.stderr), (0, "", ""))

        bad = Upload(146, TERMINAL_SET)
        bad.edit_index('key="I010034" val="1"', 'key="I010034" val="2"')
        bad_path = bad.write_zip(self.tmp, name=zip_name(146, seq=1))
        proc = self.run_script("--quiet", good, bad_path)
        self.assertEqual(proc.returncode, 1)
        self.assertEqual(proc.stdout, "")
        self.assertIn(bad_path + ":" + bcp_name(146, "WA_BASIC_FJ_1003")
                      + ": has 1 lines, block 3 says I010034 2", proc.stderr)

    def test_usage_errors(self):
        for args in (["--name", "x.zip", "a", "b"], ["--name", "x.zip", "--no-name-check", "a"],
                     []):
            with self.subTest(args=args):
                self.assertEqual(self.run_script(*args).returncode, 2)


if __name__ == "__main__":
    unittest.main()
