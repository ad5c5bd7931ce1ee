"""The terminal group (146) end to end: the zips that reach the FTP server
over several accelerated cycles, their records and numbering, the spool
directories between cycles, an unreachable server, credentials the shell
would mangle, and access-point listings with awkward lines."""

import calendar
import glob
import os
import re
import time
import unittest
import urllib.parse
import xml.etree.ElementTree as ET
import zipfile

import qz_sandbox
from e2e_base import SandboxCase, log_entries
from tick_wum import TickWum, bcp_check, wait_running

ACCEL = 60
START = qz_sandbox.DEFAULT_START
START_EPOCH = calendar.timegm(time.strptime(START, "%Y-%m-%d %H:%M:%S"))
CYCLE = 300
# Generous: a cycle is 5 s at x60, but the machine may be busy.
WAIT = 120

ORG_CODE = "507183926"
INDEX = "GAB_ZIP_INDEX.xml"
DATASETS = ("WA_BASIC_FJ_1001", "WA_BASIC_FJ_1002", "WA_BASIC_FJ_1003", "WA_BASIC_FJ_1004")

A_MAC = "00:1a:2b:3c:4d:5e"
B_MAC = "a4:b1:c2:d3:e4:f5"
LISTING = ["1 %s up AP-01" % A_MAC, "2 %s up AP-02" % B_MAC]

# Vendor values that differ from the sandbox defaults, so a record built
# from anything but the configuration shows.
CONFIG = {
    "fh_org_name": "Birch Systems",
    "fh_org_address": "Quay 7, Unit 3",
    "fh_org_tel_num": "555-0100",
    "fh_org_mail": "ops@birch.example",
}

ZIP_LOGGED = re.compile(r"source_report_timer<\d+>: DEBUG:form zip file :(.*)\n")
ZIP_NAME = re.compile(r"146-507183926-350100-350000-(\d+)-(\d{5})\.zip")
BCP_NAME = re.compile(r"146-350100-(\d+)-(\d{5})-(WA_BASIC_FJ_100[1-4])-0\.bcp")
STATUS_UPLOAD = "tmp/144"


def equipment_id(mac):
    # Organisation code and the first eleven hex digits of the MAC.
    return (ORG_CODE + re.sub("[-:]", "", mac).upper())[:20]


def place_code(values):
    return (values["fh_source_str"] + "10AC1000")[:14]


def line_1002(values, mac):
    return "\t".join([place_code(values), equipment_id(mac), values["fh_equipment_name"],
                      values["fh_address"], "1", ORG_CODE, values["fh_longitude"],
                      values["fh_latitude"], "300", "150", "", "", "", ""]) + "\n"


def line_1003(values):
    return "\t".join([place_code(values), values["fh_netbar_name"], values["fh_address"],
                      values["fh_longitude"], values["fh_latitude"],
                      values["fh_netbar_type_str"], values["fh_netbar_property_str"],
                      "", "", "", "", "", "", ORG_CODE]) + "\n"


def line_1004(values):
    return "\t".join([values["fh_org_name"], ORG_CODE, values["fh_org_address"], "maple",
                      values["fh_org_tel_num"], values["fh_org_mail"]]) + "\n"


def uploads_to(sink, remote):
    return [u for u in sink.uploads() if u.remote == remote]


def wait_uploads_to(daemon, sink, remote, count):
    def enough():
        ups = uploads_to(sink, remote)
        return ups if len(ups) >= count else None
    return wait_running(daemon, enough, WAIT, "%d upload(s) to %s" % (count, remote))


def logged_zips(daemon):
    return ZIP_LOGGED.findall(daemon.stdout_text())


def wait_logged_zips(daemon, count):
    def enough():
        names = logged_zips(daemon)
        return names if len(names) >= count else None
    return wait_running(daemon, enough, WAIT, "%d logged zip name(s)" % count)


def wait_tick(daemon, wum, tick):
    wait_running(daemon, lambda: tick in wum.ticks(), WAIT, "the scans of tick %d" % tick)


def zip_members(upload):
    with zipfile.ZipFile(upload.path) as z:
        return {name: z.read(name) for name in z.namelist()}


def members_by_dataset(members):
    """{dataset code: (BCP name match, text)} of a terminal zip."""
    out = {}
    for name, data in members.items():
        m = BCP_NAME.fullmatch(name)
        if m:
            out[m.group(3)] = (m, data.decode())
    return out


def start_run(sb, listings, config=None):
    sb.write_config(dict(CONFIG, **(config or {})))
    wum = TickWum(sb, listings)
    d = sb.start_daemon(["-D"], accel=ACCEL)
    return d, wum


class NormalRunTest(unittest.TestCase):
    """One run of four cycles with two access points and a server that is
    always up; the tests look at what it left behind."""

    LEFTOVERS = {
        146: {"146-350100-1700000000-00009-WA_BASIC_FJ_1002-0.bcp": b"LEFTOVER-BCP\n",
              INDEX: b"LEFTOVER-INDEX",
              "146-507183926-350100-350000-1700000000-00009.zip": b"LEFTOVER-ZIP"},
        144: {"145-350100-1700000000-9-DEVICESTATUS-0.bjson":
              b'{"fc":"507183926", "sc":"LEFTOVER", "dc":"LEFTOVER", "ds":"0"}\n'},
    }
    ZIPS = 3

    @classmethod
    def setUpClass(cls):
        cls.sb = sb = qz_sandbox.Sandbox()
        cls.addClassCleanup(sb.close)
        for group, files in cls.LEFTOVERS.items():
            os.makedirs("/tmp/%d" % group)
            for name, data in files.items():
                with open("/tmp/%d/%s" % (group, name), "wb") as f:
                    f.write(data)
        cls.values = sb.config_values(CONFIG)
        d, wum = start_run(sb, [LISTING])
        # The status report's directory is the last one set up.
        d.wait_for(r"qz2fh_create_dir<\d+>: DEBUG:mkdir /tmp/144 ", timeout=WAIT)
        cls.after_start = {g: sorted(os.listdir("/tmp/%d" % g)) for g in (146, 144)}

        wait_uploads_to(d, sb.ftp, "tmp/146", cls.ZIPS)
        wait_logged_zips(d, cls.ZIPS)
        # The first scan of the tick that made the last zip follows its rm.
        wait_tick(d, wum, cls.ZIPS)
        d.stop()
        cls.out = d.stdout_text()
        cls.err = d.stderr_text()
        cls.zip_names = logged_zips(d)
        cls.uploads = sb.ftp.uploads()
        cls.zips = [u for u in cls.uploads if u.remote == "tmp/146"]
        cls.wum_ticks = wum.ticks()

    def test_first_cycle_uploads_nothing_for_the_group(self):
        # The archive runs before the datasets of its tick: at 300 s it
        # finds nothing, and the first zip holds the records of that tick.
        first_record = self.out.index("QZ2FH_TERMINAL_TYPE-WA_BASIC_FJ_1001:")
        before = self.out[:first_record]
        self.assertNotIn("zip -m /tmp/146/", before)
        self.assertNotIn("form zip file", before)
        # Only the start-up emptied the directory.
        self.assertEqual(before.count("DEBUG:rm /tmp/146/* 2>/dev/null\n"), 1)
        remotes = [u.remote for u in self.uploads]
        self.assertLess(remotes.index(STATUS_UPLOAD), remotes.index("tmp/146"),
                        "a group zip came before the first status report")
        m = ZIP_NAME.fullmatch(self.zip_names[0])
        self.assertGreaterEqual(int(m.group(1)), START_EPOCH + 2 * CYCLE)

    def test_zips_hold_the_four_datasets_and_pass_the_checker(self):
        self.assertEqual(len(self.zips), self.ZIPS)
        for upload, name in zip(self.zips, self.zip_names):
            with self.subTest(zip=name):
                members = zip_members(upload)
                by_code = members_by_dataset(members)
                self.assertEqual(sorted(members), sorted(
                    [INDEX] + [m.group(0) for m, _ in by_code.values()]))
                self.assertEqual(sorted(by_code), list(DATASETS))
                ET.fromstring(members[INDEX])
                status, summary, faults = bcp_check(upload.path, name)
                self.assertEqual((status, faults), (0, []))
                self.assertEqual(summary["group"], 146)
                self.assertEqual([(f["dataset"], f["records"]) for f in summary["files"]],
                                 list(zip(DATASETS, (2, 2, 1, 1))))

    def test_zip_and_file_sequences_count_cycles(self):
        self.assertEqual(len(self.zip_names), self.ZIPS)
        times = []
        for cycle, (upload, name) in enumerate(zip(self.zips, self.zip_names)):
            with self.subTest(zip=name):
                m = ZIP_NAME.fullmatch(name)
                self.assertIsNotNone(m, name)
                self.assertEqual(m.group(2), "%05d" % cycle)
                times.append(int(m.group(1)))
                # Each dataset opens one file a cycle, numbered from 00000.
                by_code = members_by_dataset(zip_members(upload))
                self.assertEqual({code: bm.group(2) for code, (bm, _) in by_code.items()},
                                 {code: "%05d" % cycle for code in DATASETS})
        self.assertEqual(times, sorted(times))
        for earlier, later in zip(times, times[1:]):
            self.assertGreaterEqual(later - earlier, CYCLE)

    def test_records(self):
        v = self.values
        wacode = place_code(v)
        for cycle, (upload, name) in enumerate(zip(self.zips, self.zip_names)):
            with self.subTest(zip=name):
                zip_time = int(ZIP_NAME.fullmatch(name).group(1))
                by_code = members_by_dataset(zip_members(upload))
                self.assertEqual(by_code["WA_BASIC_FJ_1002"][1],
                                 line_1002(v, A_MAC) + line_1002(v, B_MAC))
                self.assertEqual(by_code["WA_BASIC_FJ_1003"][1], line_1003(v))
                self.assertEqual(by_code["WA_BASIC_FJ_1004"][1], line_1004(v))

                file_match, text = by_code["WA_BASIC_FJ_1001"]
                lines = text.split("\n")
                self.assertEqual(lines.pop(), "")
                self.assertEqual(len(lines), 2)
                for mac, line in zip((A_MAC, B_MAC), lines):
                    fields = line.split("\t")
                    self.assertEqual(fields[:4], [equipment_id(mac), wacode,
                                                  v["fh_longitude"], v["fh_latitude"]])
                    self.assertRegex(fields[4], r"^[1-9]\d*$")
                    # Written in the tick before the archive that took it.
                    written = int(fields[4])
                    self.assertGreaterEqual(written, START_EPOCH + (cycle + 1) * CYCLE)
                    self.assertLess(written, zip_time)
                    self.assertLessEqual(abs(written - int(file_match.group(1))), 10)

    def test_spools_are_empty_between_cycles(self):
        # Every tick's first scan (WA_BASIC_FJ_1001) runs right after the
        # archive; the status file lives only inside its own report.
        self.assertTrue(set(range(self.ZIPS + 1)) <= set(self.wum_ticks), self.wum_ticks)
        for tick, calls in sorted(self.wum_ticks.items()):
            with self.subTest(tick=tick):
                self.assertEqual(calls[0].spool[146], [], calls)
                self.assertEqual([c.spool[144] for c in calls], [[]] * len(calls))

    def test_leftovers_are_removed_at_start_and_never_uploaded(self):
        self.assertEqual(self.after_start, {146: [], 144: []})
        # The index has the same name in every zip; its content tells.
        leftover_names = {n for files in self.LEFTOVERS.values() for n in files} - {INDEX}
        for upload in self.uploads:
            with self.subTest(upload=os.path.basename(upload.path)):
                if upload.remote == STATUS_UPLOAD:
                    self.assertNotIn(b"LEFTOVER", upload.read())
                    continue
                for name, data in zip_members(upload).items():
                    self.assertNotIn(name, leftover_names)
                    self.assertNotIn(b"LEFTOVER", data, name)


class FtpOutageTest(SandboxCase):

    def test_cycle_without_server_is_lost_and_the_next_one_uploads(self):
        self.sb.write_config(CONFIG)
        wum = TickWum(self.sb, [LISTING])
        # The server goes away after the first zip (tick 1) and is back
        # after the second (tick 2).
        wum.pause_at(1)
        wum.pause_at(2)
        d = self.sb.start_daemon(["-D"], accel=ACCEL)
        wum.wait_paused(d, 1, WAIT)
        self.assertEqual(len(uploads_to(self.sb.ftp, "tmp/146")), 1)
        self.sb.ftp.stop()
        wum.resume(1)
        wum.wait_paused(d, 2, WAIT)
        self.sb.ftp.start()
        wum.resume(2)
        ups = wait_uploads_to(d, self.sb.ftp, "tmp/146", 2)
        names = wait_logged_zips(d, 3)
        wait_tick(d, wum, 3)
        self.assertTrue(d.running(), d.describe())

        self.assertEqual([ZIP_NAME.fullmatch(n).group(2) for n in names[:3]],
                         ["00000", "00001", "00002"])
        self.assertRegex(d.stdout_text(), r"system cmd: wput -t 2 /tmp/146/%s "
                         % re.escape(names[1]))
        # Nothing of the lost cycle arrives later, before or with the next.
        self.assertEqual(len(ups), 2, [u.path for u in ups])
        file_sequences = [{m.group(2) for m, _ in members_by_dataset(zip_members(u)).values()}
                          for u in ups]
        self.assertEqual(file_sequences, [{"00000"}, {"00002"}])
        status, _, faults = bcp_check(ups[1].path, names[2])
        self.assertEqual((status, faults), (0, []))

        # The failed cycle emptied the directory like any other.
        ticks = wum.ticks()
        for tick in (1, 2, 3):
            with self.subTest(tick=tick):
                self.assertEqual(ticks[tick][0].spool[146], [])
                self.assertEqual([c.spool[144] for c in ticks[tick]], [[]] * len(ticks[tick]))


class CredentialTest(SandboxCase):

    USER = "us er"
    # Quotes, command substitution, a separator, backquotes, a backslash,
    # and URL syntax, all to arrive as text.  The double quotes are
    # balanced, so that a command line which pasted the password in
    # unescaped would run both touches rather than fail to parse.
    PASSWORD = 'p"w$(touch /tmp/pwned);x`touch /tmp/pwned2`"y\\z\'%41@:z'

    def test_odd_credentials_reach_the_server_and_run_nothing(self):
        self.sb.ftp.stop()
        self.sb.ftp = qz_sandbox.FtpSink(os.path.join(self.sb.private, "ftp-odd"),
                                         self.USER, self.PASSWORD).start()
        self.addCleanup(self.sb.ftp.stop)
        d, _ = start_run(self.sb, [LISTING])
        # Logged once the upload command has ended, a status file's and a
        # zip's.
        name = wait_logged_zips(d, 1)[0]

        pwned = glob.glob("/tmp/pwned*") + glob.glob(os.path.join(self.sb.work_dir, "pwned*"))
        self.assertEqual(pwned, [])
        output = d.stdout_text() + d.stderr_text()
        self.assertIn("system cmd: wput", output)
        for shown in (self.PASSWORD, urllib.parse.quote(self.PASSWORD, safe=""), "pwned"):
            self.assertNotIn(shown, output)

        self.assertEqual([u.remote for u in self.sb.ftp.uploads()][:2],
                         [STATUS_UPLOAD, "tmp/146"], "refused logins: %s" % self.sb.ftp.logins())
        status_file, archive = self.sb.ftp.uploads()[:2]
        self.assertEqual((status_file.user, archive.user), (self.USER, self.USER))
        self.assertEqual(set(self.sb.ftp.logins()), {self.USER})
        status, _, faults = bcp_check(archive.path, name)
        self.assertEqual((status, faults), (0, []))


class ListingTest(SandboxCase):

    LONG_MAC = "00:1a:2b:3c:4d:5e:00:1a:2b:3c:4d:5e:ff"

    def test_mac_that_ends_its_line_and_unsafe_macs(self):
        listing = [
            "1 " + A_MAC,                       # nothing after the MAC
            "2 ../x up AP-x",
            "3 %s up AP-long" % self.LONG_MAC,
            "4 %s up AP-02" % B_MAC,
            # Listed twice: the scan does not drop repeats.
            "5 %s up AP-01" % A_MAC,
        ]
        d, _ = start_run(self.sb, [listing])
        status_file = wait_uploads_to(d, self.sb.ftp, STATUS_UPLOAD, 1)[0]
        archive = wait_uploads_to(d, self.sb.ftp, "tmp/146", 1)[0]
        netbar = wait_uploads_to(d, self.sb.ftp, "tmp/145", 1)[0]
        name = wait_logged_zips(d, 1)[0]
        v = self.sb.config_values(CONFIG)

        members = zip_members(archive)
        by_code = members_by_dataset(members)
        self.assertEqual(by_code["WA_BASIC_FJ_1002"][1],
                         line_1002(v, A_MAC) + line_1002(v, B_MAC) + line_1002(v, A_MAC))
        ids = [line.split("\t")[0] for line in by_code["WA_BASIC_FJ_1001"][1].splitlines()]
        self.assertEqual(ids, [equipment_id(A_MAC), equipment_id(B_MAC), equipment_id(A_MAC)])
        status, _, faults = bcp_check(archive.path, name)
        self.assertEqual((status, faults), (0, []))

        # The access-point datasets of the other group write the MAC text
        # itself: a line feed kept from the listing would split the record.
        with zipfile.ZipFile(netbar.path) as z:
            [ap_file] = [n for n in z.namelist() if "-WA_BASIC_FJ_0003_1-" in n]
            ap_lines = z.read(ap_file).decode().split("\n")
        self.assertEqual(ap_lines.pop(), "")
        self.assertEqual([line.split("\t")[1] for line in ap_lines],
                         [mac.upper().replace(":", "-") for mac in (A_MAC, B_MAC, A_MAC)])

        self.assertEqual(sorted(re.findall(r'"dc":"(\w+)"', status_file.read().decode())),
                         sorted([equipment_id(A_MAC), equipment_id(B_MAC)]))

        # The first tick's scans: each skips the two unsafe lines with a
        # line of its own and goes on.
        entries = log_entries(d.stdout_text()[:d.stdout_text().index("form zip file")])
        for dataset in ("1001", "1002"):
            handler = "source_basic_%s_business_handle" % dataset
            scan = "source_basic_%s_report_timer" % dataset
            with self.subTest(scan=scan):
                self.assertEqual([e.message for e in entries if e.func == handler
                                  and e.message.startswith("mac:")],
                                 ["mac:%s\n" % mac for mac in (A_MAC, B_MAC, A_MAC)])
                skipped = [e.message for e in entries if e.func == scan]
                self.assertEqual(len(skipped), 2, skipped)
                self.assertNotIn("mac is null\n", skipped)

        uploaded = [status_file.read()] + list(members.values())
        with zipfile.ZipFile(netbar.path) as z:
            uploaded += [z.read(n) for n in z.namelist()]
        for data in uploaded:
            self.assertNotIn(b"../x", data)
            self.assertNotIn(self.LONG_MAC.encode(), data)
            self.assertNotIn(self.LONG_MAC.upper().replace(":", "-").encode(), data)


if __name__ == "__main__":
    unittest.main()
