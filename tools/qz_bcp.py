"""Reads and checks what qz_fh_audit uploads: the group zips (BCP files and
GAB_ZIP_INDEX.xml), spool directories of the same, and the device status
files.  Records come keyed by the column names of the one column list,
qz_bcp_columns.txt, which the daemon's template test reads too.

    up = qz_bcp.read(path, name)           # up.faults: what is wrong, [] if nothing
    for r in up.records("WA_SOURCE_FJ_0001"):
        r["MAC"], r["END_TIME"]

tools/qz_bcp_check is the command-line front end; the end-to-end tests, the
soak and the demo call read() in-process.
"""

import json
import os
import re
import types
import xml.etree.ElementTree as ET
import zipfile

ORG_CODE = "507183926"
INDEX_NAME = "GAB_ZIP_INDEX.xml"
BCP_MAX_RECORDS = 5000
SEQUENCE_MODULO = 1 << 16  # file and zip sequence numbers are 16 bits wide
GROUP_NETBAR = 145
GROUP_TERMINAL = 146
MAX_LINE_FAULTS = 10  # per file; a broken writer would otherwise flood the output

INDEX_HEADER = (
    '<?xml version="1.0" encoding="UTF-8"?>\n'
    "<MESSAGE>\t\n"
    '\t<DATASET name="WA_COMMON_010017" ver="1.0" rmk="数据文件索引信息">\t\t\n'
    "\t\t<DATA>\t\t\t\n"
    '\t\t\t<DATASET name="WA_COMMON_010013" rmk="BCP文件描述信息">').encode()

INDEX_FOOTER = (
    "\n\t\t\t</DATASET>\t\t\n\t\t</DATA>\t\n\t</DATASET>\n</MESSAGE>").encode()

# The head of every DATA block. The daemon fills its six conversions with
# the dataset code, group, organisation code, source, file name and count;
# here all six are %s so that the texts read back can be put in as they are.
BLOCK_HEAD = (
    "\n\t\t\t\t<DATA>\t\t\t\t\t\n"
    '\t\t\t\t\t<ITEM key="A010004" val="%s" rmk="数据集代码"/>\t\t\t\t\t\n'
    '\t\t\t\t\t<ITEM key="B050016" val="%s" rmk="数据来源"/>\t\t\t\t\t\n'
    '\t\t\t\t\t<ITEM key="G020013" val="%s" rmk="网安专用产品厂家组织机构代码"/>\t\t\t\t\t\n'
    '\t\t\t\t\t<ITEM key="F010008" val="%s" rmk="数据采集地"/>\t\t\t\t\t\n'
    '\t\t\t\t\t<DATASET name="WA_COMMON_010014" rmk="BCP数据文件信息">\t\t\t\t\t\t\n'
    "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n"
    '\t\t\t\t\t\t\t<ITEM key="H040003" val="" rmk="文件路径"/>\t\t\t\t\t\t\t\n'
    '\t\t\t\t\t\t\t<ITEM key="H010020" val="%s" rmk="文件名"/>\t\t\t\t\t\t\t\n'
    '\t\t\t\t\t\t\t<ITEM key="I010034" val="%s" rmk="记录行数"/>\t\t\t\t\t\t\n'
    "\t\t\t\t\t\t</DATA>\t\t\t\t\t\n"
    "\t\t\t\t\t</DATASET>\t\t\t\t\t\n"
    "\t\t\t\t\t")

COLUMNS_OPEN = (
    '<DATASET name="WA_COMMON_010015" rmk="BCP文件数据结构">\t\t\t\t\t\t\n'
    "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t\t")

# Two closings are in use; the long one has one more tab in each run.
CLOSE_SHORT = ("\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\n"
               "\t\t\t\t\t</DATASET>\t\t\t\t\n\t\t\t\t</DATA>")
CLOSE_LONG = ("\t\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\t\n"
              "\t\t\t\t\t</DATASET>\t\t\t\t\t\n\t\t\t\t</DATA>")

# Items of the block head and of its file, in order, with their remarks;
# the remarks of the block's two datasets.
HEAD_ITEMS = (("A010004", "数据集代码"), ("B050016", "数据来源"),
              ("G020013", "网安专用产品厂家组织机构代码"), ("F010008", "数据采集地"))
FILE_ITEMS = (("H040003", "文件路径"), ("H010020", "文件名"), ("I010034", "记录行数"))
BLOCK_SETS = {"WA_COMMON_010014": "BCP数据文件信息", "WA_COMMON_010015": "BCP文件数据结构"}

GROUP_DATASETS = {
    GROUP_TERMINAL: ("WA_BASIC_FJ_1001", "WA_BASIC_FJ_1002",
                     "WA_BASIC_FJ_1003", "WA_BASIC_FJ_1004"),
    GROUP_NETBAR: ("WA_SOURCE_FJ_0001", "WA_SOURCE_FJ_0002",
                   "WA_BASIC_FJ_0001", "WA_BASIC_FJ_0002",
                   "WA_BASIC_FJ_0003_1", "WA_BASIC_FJ_0003_2"),
}

COLUMNS_FILE = os.path.join(os.path.dirname(os.path.realpath(__file__)), "qz_bcp_columns.txt")


def load_columns(path):
    """The columns (key, eng, chn) of every dataset that writes, in record
    order, and the whitespace of each column list (tabs before the line
    feed between two items, the closing text), from the shared list."""
    columns, layout, code = {}, {}, None
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.rstrip("\n")
            if line.startswith("dataset "):
                _, code, tabs, closing = line.split(" ")
                columns[code] = []
                layout[code] = (int(tabs), CLOSE_LONG if closing == "long" else CLOSE_SHORT)
            elif line and not line.startswith("#"):
                columns[code].append(tuple(line.split("\t")))
    return {c: tuple(cols) for c, cols in columns.items()}, layout


COLUMNS, LAYOUT = load_columns(COLUMNS_FILE)
# The names records are keyed by: each column's eng text.
NAMES = {code: tuple(c[1] for c in cols) for code, cols in COLUMNS.items()}

# Sources and destinations are configuration text and may in theory hold
# hyphens; the fixed parts after them keep these patterns unambiguous
# for the usual numeric codes.
BCP_NAME_RE = re.compile(
    r"(?P<group>\d+)-(?P<source>.*?)-(?P<time>0|[1-9]\d*)-(?P<seq>\d{5})"
    r"-(?P<code>[A-Z0-9_]+)-0\.bcp")
ZIP_NAME_RE = re.compile(
    r"(?P<group>\d+)-(?P<org>\d+)-(?P<source>.*?)-(?P<dst>.*)"
    r"-(?P<time>0|[1-9]\d*)-(?P<seq>\d{5})\.zip")
STATUS_NAME_RE = re.compile(
    r"145-(?P<source>.*?)-(?P<time>0|[1-9]\d*)-(?P<seq>0|[1-9]\d*)"
    r"-DEVICESTATUS-0\.bjson")
STATUS_LINE_RE = re.compile(
    r'\{"fc":"(?P<fc>[^"\\]*)", "sc":"(?P<sc>[^"\\]*)", '
    r'"dc":"(?P<dc>[^"\\]*)", "ds":"(?P<ds>[^"\\]*)"\}')

BCP_NAME_FORMAT = "<group>-<source>-<seconds>-<5-digit seq>-<dataset>-0.bcp"
ZIP_NAME_FORMAT = "<group>-507183926-<source>-<dst>-<seconds>-<5-digit seq>.zip"
STATUS_NAME_FORMAT = "145-<source>-<seconds>-<seq>-DEVICESTATUS-0.bjson"


def record(code, line):
    """One BCP line of the dataset (text, with or without its line feed)
    as {column name: value}."""
    return dict(zip(NAMES[code], line.rstrip("\n").split("\t")))


def bcp_code(name):
    """The dataset of a BCP file name, None for another name."""
    m = BCP_NAME_RE.fullmatch(name)
    return m and m["code"]


def place_code(source):
    """The place code the daemon derives from the source (14 characters at most)."""
    return (source + "10AC1000")[:14]


def show(data, offset, width=24):
    """A short printable excerpt of data from offset."""
    return repr(data[offset:offset + width])


def first_difference(a, b):
    return next((i for i, (x, y) in enumerate(zip(a, b)) if x != y), min(len(a), len(b)))


def line_of(data, offset):
    return data.count(b"\n", 0, offset) + 1


def first(*values):
    return next((v for v in values if v is not None), None)


def parse_number(text):
    return int(text) if text is not None and re.fullmatch(r"0|[1-9]\d*", text) else None


class Upload:
    """What one PATH holds and what is wrong with it."""

    def __init__(self, path, kind):
        self.path, self.kind = path, kind
        self.name = self.group = self.source = self.dst = self.time = self.sequence = None
        self.stored = {}   # the files read, under the names they are stored as
        self.members = {}  # the BCP files
        self.index = None
        self.blocks, self.files, self.status, self.faults = [], [], [], []

    def fault(self, where, message):
        place = self.path if not where else "%s:%s" % (self.path, where)
        self.faults.append("%s: %s" % (place, message))

    def lines(self, name):
        """The whole lines of a BCP file, without their line feeds (a cut
        last line of a live spool is left out)."""
        return self.members.get(name, b"").decode("utf-8", "replace").split("\n")[:-1]

    def records(self, code):
        """The records of a dataset, each as {column name: value}: from its
        files in index order, or in name order without an index."""
        files = ([b["file"] for b in self.blocks if b["code"] == code] if self.blocks else
                 sorted(n for n in self.members if bcp_code(n) == code))
        return (record(code, line) for name in files for line in self.lines(name))

    def summary(self):
        out = {"path": self.path, "kind": self.kind, "name": self.name, "faults": self.faults}
        if self.kind == "status":
            out.update(source=self.source, time=self.time, sequence=self.sequence,
                       lines=len(self.status), devices=self.status)
        else:
            out.update(group=self.group, source=self.source, dst=self.dst, time=self.time,
                       sequence=self.sequence, files=self.files)
        return out


# ---------------------------------------------------------------- index

def describe(elems):
    labels = [(e.tag, e.get("key") or e.get("name")) for e in elems]
    return ", ".join("<%s %s>" % t if t[1] else "<%s>" % t[0] for t in labels) or "nothing"


def only_child(res, where, elem, tag, name=None):
    kids = list(elem)
    if len(kids) == 1 and kids[0].tag == tag and name in (None, kids[0].get("name")):
        return kids[0]
    want = tag if name is None else '%s name="%s"' % (tag, name)
    res.fault(where, "<%s> should hold exactly one <%s>, holds %s"
              % (elem.tag, want, describe(kids)))
    return None


def check_items(res, where, elems, expected):
    """Check a run of ITEM key/val/rmk elements; return {key: val}."""
    if [(e.tag, e.get("key")) for e in elems] != [("ITEM", key) for key, _ in expected]:
        res.fault(where, "items are %s, expected %s"
                  % (describe(elems), ", ".join("<ITEM %s>" % k for k, _ in expected)))
    values, remarks = {}, dict(expected)
    for e in elems:
        key = e.get("key")
        if e.tag != "ITEM" or key not in remarks:
            continue
        if set(e.attrib) != {"key", "val", "rmk"}:
            res.fault(where, "ITEM %s has attributes %s, expected key, val, rmk"
                      % (key, ", ".join(sorted(e.attrib))))
        if e.get("rmk") != remarks[key]:
            res.fault(where, "ITEM %s has rmk %r, expected %r" % (key, e.get("rmk"), remarks[key]))
        values[key] = e.get("val")
    return values


def parse_block(res, number, elem):
    where = "%s: block %d" % (INDEX_NAME, number)
    if elem.tag != "DATA":
        res.fault(where, "is <%s>, expected <DATA>" % elem.tag)
        return None
    kids = list(elem)
    head = [k for k in kids if k.tag == "ITEM"]
    sets = [k for k in kids if k.tag != "ITEM"]
    values = check_items(res, where, head, HEAD_ITEMS)
    if [(k.tag, k.get("name")) for k in sets] != [("DATASET", n) for n in BLOCK_SETS]:
        res.fault(where, "after the items it holds %s, expected <DATASET "
                  "WA_COMMON_010014>, <DATASET WA_COMMON_010015>" % describe(sets))
    elif kids[:len(head)] != head:
        res.fault(where, "the items must come before the datasets")
    block = {"number": number, "where": where, "code": values.get("A010004"),
             "group": values.get("B050016"), "org": values.get("G020013"),
             "area": values.get("F010008"), "path": None, "file": None, "count": None,
             "columns": None}
    for ds in sets:
        name = ds.get("name")
        if ds.tag != "DATASET" or name not in BLOCK_SETS:
            continue
        if ds.get("rmk") != BLOCK_SETS[name]:
            res.fault(where, "%s has rmk %r" % (name, ds.get("rmk")))
        data = only_child(res, where, ds, "DATA")
        if data is None:
            continue
        if name == "WA_COMMON_010014":
            files = check_items(res, where, list(data), FILE_ITEMS)
            block.update(path=files.get("H040003"), file=files.get("H010020"),
                         count=files.get("I010034"))
        else:
            block["columns"] = parse_columns(res, where, data)
    return block


def parse_columns(res, where, data):
    columns = []
    for e in data:
        if e.tag != "ITEM" or set(e.attrib) != {"key", "eng", "chn"}:
            res.fault(where, "column %d is %s with attributes %s, expected <ITEM key eng chn>"
                      % (len(columns) + 1, e.tag, ", ".join(sorted(e.attrib))))
            return None
        columns.append((e.get("key"), e.get("eng"), e.get("chn")))
    if not columns:
        res.fault(where, "WA_COMMON_010015 lists no column")
        return None
    return columns


def parse_index(res, data):
    """Check the fixed frame of the index and return its blocks (or None)."""
    frame_ok = data.startswith(INDEX_HEADER) and data.endswith(INDEX_FOOTER)
    if not data.startswith(INDEX_HEADER):
        off = first_difference(data, INDEX_HEADER)
        res.fault(INDEX_NAME, "line %d: does not begin with the fixed %d-byte "
                  "header: byte %d should start %s, found %s"
                  % (line_of(data, off), len(INDEX_HEADER), off,
                     show(INDEX_HEADER, off), show(data, off)))
    if not data.endswith(INDEX_FOOTER):
        res.fault(INDEX_NAME, "does not end with the fixed %d-byte footer "
                  "(nothing may follow it, not even a line feed); the file "
                  "ends with %r" % (len(INDEX_FOOTER), data[-len(INDEX_FOOTER) - 8:]))
    try:
        root = ET.fromstring(data)
    except ET.ParseError as err:
        line, col = err.position
        res.fault("%s:%d" % (INDEX_NAME, line),
                  "not well-formed XML (column %d): %s" % (col + 1, err))
        return None, False
    if root.tag != "MESSAGE":
        res.fault(INDEX_NAME, "root element is <%s>, expected <MESSAGE>" % root.tag)
        return None, False
    files_el = root
    for tag, name in (("DATASET", "WA_COMMON_010017"), ("DATA", None),
                      ("DATASET", "WA_COMMON_010013")):
        files_el = only_child(res, INDEX_NAME, files_el, tag, name)
        if files_el is None:
            return None, False
    blocks = [b for b in (parse_block(res, n, e) for n, e in enumerate(files_el, 1)) if b]
    if not blocks and len(files_el) == 0:
        res.fault(INDEX_NAME, "lists no BCP file")
    return blocks, frame_ok


def render_block(block):
    code = block["code"]
    sep, close = LAYOUT[code]
    items = ('\t' * sep + '\n' + '\t' * 7).join(
        '<ITEM key="%s" eng="%s" chn="%s"/>' % c for c in COLUMNS[code])
    head = BLOCK_HEAD % (code, block["group"], block["org"], block["area"],
                         block["file"], block["count"])
    return (head + COLUMNS_OPEN + items + close).encode()


def render_index(blocks):
    """The index the daemon writes for these blocks (dicts of code, group,
    org, area, file and count)."""
    return INDEX_HEADER + b"".join(render_block(b) for b in blocks) + INDEX_FOOTER


def check_exact(res, data, blocks):
    """Compare the whole index with the one rebuilt from the column tables."""
    expected = render_index(blocks)
    if data == expected:
        return
    off = first_difference(data, expected)
    start = len(INDEX_HEADER)
    label = "after the last block"
    for block in blocks:
        start += len(render_block(block))
        if off < start:
            label = "in block %d (%s)" % (block["number"], block["code"])
            break
    res.fault("%s:%d" % (INDEX_NAME, line_of(data, off)),
              "layout differs %s at byte %d: expected %s, found %s"
              % (label, off, show(expected, off), show(data, off)))


# ---------------------------------------------------------------- names

def check_zip_name(res, name, opts):
    m = ZIP_NAME_RE.fullmatch(name)
    if not m:
        res.fault("", "zip name %r does not follow %s" % (name, ZIP_NAME_FORMAT))
        return None
    if m["org"] != ORG_CODE:
        res.fault("", "zip name %r carries organisation code %s, expected %s"
                  % (name, m["org"], ORG_CODE))
    seq = int(m["seq"])
    if seq >= SEQUENCE_MODULO:
        res.fault("", "zip name %r: sequence %d does not fit 16 bits" % (name, seq))
    if opts.dst is not None and m["dst"] != opts.dst:
        res.fault("", "zip name %r carries destination %r, expected %r"
                  % (name, m["dst"], opts.dst))
    return m


def check_bcp_name(res, where, name, group, source, code):
    """Check a BCP file name against the archive; return its sequence number."""
    m = BCP_NAME_RE.fullmatch(name)
    if not m:
        res.fault(where, "file name %r does not follow %s" % (name, BCP_NAME_FORMAT))
        return None
    if group is not None and m["group"] != str(group):
        res.fault(where, "file name %r carries group %s, the archive is group %d"
                  % (name, m["group"], group))
    if source is not None and m["source"] != source:
        res.fault(where, "file name %r carries source %r, the archive's source is %r"
                  % (name, m["source"], source))
    if code is not None and m["code"] != code:
        res.fault(where, "file name %r carries dataset %s, the block is %s"
                  % (name, m["code"], code))
    seq = int(m["seq"])
    if seq >= SEQUENCE_MODULO:
        res.fault(where, "file name %r: sequence %d does not fit 16 bits" % (name, seq))
    return seq


# ---------------------------------------------------------------- BCP files

def check_bcp_lines(res, name, data, columns):
    """Check line ends and field counts; return the number of lines."""
    if not data:
        return 0
    lines = data.split(b"\n")
    if lines[-1] == b"":
        lines.pop()
    else:
        res.fault("%s:%d" % (name, len(lines)), "last line does not end with \"\\n\"")
    bad = []
    for number, line in enumerate(lines, 1):
        if line.endswith(b"\r"):
            bad.append((number, "line ends with \"\\r\\n\""))
        elif columns is not None and line.count(b"\t") + 1 != len(columns):
            bad.append((number, "has %d fields, the index lists %d columns"
                        % (line.count(b"\t") + 1, len(columns))))
    for number, problem in bad[:MAX_LINE_FAULTS]:
        res.fault("%s:%d" % (name, number), problem)
    if len(bad) > MAX_LINE_FAULTS:
        res.fault(name, "%d more faulty lines not shown" % (len(bad) - MAX_LINE_FAULTS))
    return len(lines)


# ---------------------------------------------------------------- archives

def resolve(res, opts, zip_match, blocks, members):
    """Settle the archive's group and source from what is known: the
    options, the zip's name, the index, the file names."""
    names = [m for m in map(BCP_NAME_RE.fullmatch, members) if m]
    group = first(opts.group, zip_match and int(zip_match["group"]),
                  *(int(b["group"]) for b in blocks or () if parse_number(b["group"]) is not None),
                  *(int(m["group"]) for m in names))
    if zip_match and int(zip_match["group"]) != group:
        res.fault("", "zip name carries group %s, expected %d" % (zip_match["group"], group))
    if group is not None and group not in GROUP_DATASETS:
        res.fault("", "group %d is neither %d nor %d" % (group, GROUP_TERMINAL, GROUP_NETBAR))
    source = first(opts.source, zip_match and zip_match["source"],
                   *(b["area"] for b in blocks or ()), *(m["source"] for m in names))
    if zip_match and source != zip_match["source"]:
        res.fault("", "zip name carries source %r, expected %r" % (zip_match["source"], source))
    res.group, res.source = group, source


def check_block_values(res, block, group):
    where, code = block["where"], block["code"]
    allowed = GROUP_DATASETS.get(group, ())
    if code is not None and group in GROUP_DATASETS and code not in allowed:
        res.fault(where, "dataset %s does not belong to group %d (%s)"
                  % (code, group, ", ".join(allowed)))
    if block["group"] is not None and group is not None and block["group"] != str(group):
        res.fault(where, "B050016 (data source) is %r, expected the group %d"
                  % (block["group"], group))
    if block["org"] is not None and block["org"] != ORG_CODE:
        res.fault(where, "G020013 is %r, expected %s" % (block["org"], ORG_CODE))
    if block["area"] is not None and res.source is not None and block["area"] != res.source:
        res.fault(where, "F010008 is %r, the source in the names is %r"
                  % (block["area"], res.source))
    if block["path"] is not None and block["path"] != "":
        res.fault(where, "H040003 (file path) is %r, expected empty" % block["path"])
    count = parse_number(block["count"])
    if block["count"] is not None and count is None:
        res.fault(where, "I010034 %r is not a decimal count" % block["count"])
    elif count is not None and not 1 <= count <= BCP_MAX_RECORDS:
        res.fault(where, "I010034 is %d, a file holds 1 to %d records" % (count, BCP_MAX_RECORDS))
    block["records"] = count


def check_columns(res, block):
    expected, got = COLUMNS.get(block["code"]), block["columns"]
    if expected is None or got is None:
        return False
    for i, (want, have) in enumerate(zip(expected, got), 1):
        if want != have:
            res.fault(block["where"], "%s column %d is key=%r eng=%r chn=%r, expected "
                      "key=%r eng=%r chn=%r" % ((block["code"], i) + have + want))
            return False
    if len(expected) != len(got):
        res.fault(block["where"], "%s lists %d columns, expected %d"
                  % (block["code"], len(got), len(expected)))
        return False
    return True


def check_rollover(res, blocks):
    """Within one archive only full files come before another file of their dataset."""
    by_code = {}
    for b in blocks:
        if b["seq"] is not None:
            by_code.setdefault(b["code"], []).append(b)
    for code, run in by_code.items():
        for prev, nxt in zip(run, run[1:]):
            if prev["records"] is not None and prev["records"] != BCP_MAX_RECORDS:
                res.fault(prev["where"], "%s file holds %d records, yet block %d continues the "
                          "dataset; only a full file (%d) is followed by another"
                          % (code, prev["records"], nxt["number"], BCP_MAX_RECORDS))
            if nxt["seq"] != (prev["seq"] + 1) % SEQUENCE_MODULO:
                res.fault(nxt["where"], "%s file has sequence %05d after %05d in block %d"
                          % (code, nxt["seq"], prev["seq"], prev["number"]))


def check_archive(res, opts, zip_match):
    members = res.members
    res.index = members.pop(INDEX_NAME, None)
    blocks, frame_ok = None, False
    if res.index is None:
        res.fault("", "holds no %s" % INDEX_NAME)
    else:
        blocks, frame_ok = parse_index(res, res.index)
    resolve(res, opts, zip_match, blocks, members)
    if zip_match:
        res.dst, res.time, res.sequence = (zip_match["dst"], int(zip_match["time"]),
                                           int(zip_match["seq"]))
    res.blocks = blocks = blocks or []
    named = {}
    columns_ok = True
    for b in blocks:
        check_block_values(res, b, res.group)
        if opts.columns:
            columns_ok = check_columns(res, b) and columns_ok
        b["seq"] = None
        if b["file"] is not None:
            b["seq"] = check_bcp_name(res, b["where"], b["file"], res.group, res.source,
                                      b["code"])
            named.setdefault(b["file"], []).append(b)
    check_rollover(res, blocks)
    if opts.exact and frame_ok and columns_ok and blocks and all(
            b["code"] in COLUMNS and None not in (b["group"], b["org"], b["area"],
                                                  b["file"], b["count"])
            for b in blocks):
        check_exact(res, res.index, blocks)

    for name, owners in named.items():
        if name not in members:
            for b in owners:
                res.fault(b["where"], "names %s, which is not in the archive" % name)
    for name in sorted(members) if res.index is not None else ():
        owners = named.get(name, [])
        if not owners:
            res.fault(name, "is not named by any block of %s" % INDEX_NAME)
        elif len(owners) > 1:
            res.fault(name, "is named by %d blocks (%s)" % (
                len(owners), ", ".join(str(b["number"]) for b in owners)))
    for b in blocks:
        if b["file"] not in members or named[b["file"]][0] is not b:
            continue
        lines = check_bcp_lines(res, b["file"], members[b["file"]], b["columns"])
        if b["records"] is not None and lines != b["records"]:
            res.fault(b["file"], "has %d lines, block %d says I010034 %d"
                      % (lines, b["number"], b["records"]))
        res.files.append({
            "dataset": b["code"], "file": b["file"], "records": lines,
            "columns": len(b["columns"]) if b["columns"] else None,
            "sequence": b["seq"]})


def read_zip(res, path):
    try:
        zf = zipfile.ZipFile(path)
    except (zipfile.BadZipFile, OSError) as err:
        res.fault("", "cannot read as a zip: %s" % err)
        return False
    with zf:
        broken = zf.testzip()
        if broken is not None:
            res.fault(broken, "fails its CRC check")
        for info in zf.infolist():
            name = info.filename[2:] if info.filename.startswith("./") else info.filename
            if info.is_dir() or "/" in name:
                res.fault(info.filename, "the archive should hold plain files "
                          "without directories")
            elif name in res.members:
                res.fault(name, "is stored twice")
            else:
                res.members[name] = res.stored[info.filename] = zf.read(info)
    return True


def read_dir(res, path):
    """Reads the BCP files and the index into members; returns the status files."""
    status = {}
    for name in sorted(os.listdir(path)):
        full = os.path.join(path, name)
        if not os.path.isfile(full):
            res.fault(name, "is not a plain file")
            continue
        with open(full, "rb") as f:
            data = res.stored[name] = f.read()
        (status if name.endswith(".bjson") else res.members)[name] = data
    return status


# ---------------------------------------------------------------- status files

def check_status(res, name, data, opts, name_check=True):
    # A status file given as PATH is its own location; one in a directory
    # is a member of it.
    where = "" if res.kind == "status" else name
    prefix = "" if res.kind == "status" else name + ":"
    source = opts.source
    m = STATUS_NAME_RE.fullmatch(name) if name_check else None
    if name_check and not m:
        res.fault(where, "status file name %r does not follow %s" % (name, STATUS_NAME_FORMAT))
    elif m:
        if int(m["seq"]) >= SEQUENCE_MODULO:
            res.fault(where, "status file name %r: sequence does not fit 16 bits" % name)
        if source is not None and m["source"] != source:
            res.fault(where, "status file name %r carries source %r, expected %r"
                      % (name, m["source"], source))
        source = m["source"]
        if res.kind == "status":
            res.source, res.time, res.sequence = source, int(m["time"]), int(m["seq"])
    if not data:
        res.fault(where, "is empty; an empty status file is never uploaded")
        return
    lines = data.split(b"\n")
    if lines[-1] == b"":
        lines.pop()
    else:
        res.fault("%s%d" % (prefix, len(lines)), "last line does not end with \"\\n\"")
    for number, raw in enumerate(lines, 1):
        at = "%s%d" % (prefix, number)
        try:
            line = raw.decode("utf-8")
        except UnicodeDecodeError:
            res.fault(at, "not UTF-8 text")
            continue
        m = STATUS_LINE_RE.fullmatch(line)
        if not m:
            res.fault(at, 'not of the form {"fc":"...", "sc":"...", "dc":"...", '
                      '"ds":"0|1"} (no blank after a colon, one after each comma): %r' % line)
            continue
        try:
            json.loads(line)
        except ValueError as err:
            res.fault(at, "not valid JSON: %s" % err)
            continue
        if m["fc"] != ORG_CODE:
            res.fault(at, "fc is %r, expected %s" % (m["fc"], ORG_CODE))
        if m["ds"] not in ("0", "1"):
            res.fault(at, 'ds is %r, expected "0" or "1"' % m["ds"])
        if source is not None and m["sc"] != place_code(source):
            res.fault(at, "sc is %r, expected the place code %r of source %r"
                      % (m["sc"], place_code(source), source))
        dc = m["dc"]
        if not dc.startswith(ORG_CODE) or len(dc) > 20:
            res.fault(at, "dc %r is not an equipment id (%s and at most 11 "
                      "characters of the MAC)" % (dc, ORG_CODE))
        if res.kind == "status":
            res.status.append({"dc": dc, "ds": m["ds"]})


# ---------------------------------------------------------------- reading

def read(path, name=None, check_name=True, columns=False, exact=False, group=None,
         source=None, dst=None):
    """Reads and checks one PATH: a received zip, a status file, or a spool
    directory of BCP files and GAB_ZIP_INDEX.xml (or status files).

    name is the name the daemon gave PATH (by default its own), not
    checked with check_name false; exact compares the index byte for byte
    with the one rebuilt from the column list, and implies columns, which
    compares each block's column list.  group, source and dst are what the
    names must carry (by default what they do carry)."""
    opts = types.SimpleNamespace(columns=columns or exact, exact=exact, group=group,
                                 source=source, dst=dst)
    name = name or os.path.basename(os.path.normpath(path))
    if os.path.isdir(path):
        res = Upload(path, "dir")
        status = read_dir(res, path)
        if res.members or not status:
            check_archive(res, opts, None)
        for sname, data in status.items():
            check_status(res, sname, data, opts)
        return res
    if not os.path.isfile(path):
        res = Upload(path, "missing")
        res.fault("", "no such file or directory")
        return res
    if zipfile.is_zipfile(path):
        res = Upload(path, "zip")
        res.name = name
        zip_match = check_zip_name(res, name, opts) if check_name else None
        if read_zip(res, path):
            check_archive(res, opts, zip_match)
        return res
    res = Upload(path, "status")
    res.name = name
    with open(path, "rb") as f:
        data = res.stored[name] = f.read()
    if not name.endswith(".bjson") and not data.startswith(b"{"):
        res.kind = "unknown"
        res.fault("", "neither a zip nor a device status file")
        return res
    check_status(res, name, data, opts, name_check=check_name)
    return res
