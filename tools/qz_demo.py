#!/usr/bin/python3
"""Runs qz_fh_audit for a short while in a sandbox and shows what it did.

The daemon runs in the foreground (-D) on a faked clock that starts at
2024-03-05 07:04:01 UTC and runs --accel times as fast as the real one, in
private namespaces with a sample configuration, two access points listed by
the stand-in `wum`, and a local FTP server that catches every upload.  Its
console is shown as it runs; afterwards every upload is listed and copied,
with the daemon's console and syslog, to --out.

    /usr/bin/python3 tools/qz_demo.py --bin build-demo/qz_fh_audit

Needs root (namespaces) and Debian's python3 with pyftpdlib.
"""

import argparse
import os
import shutil
import sys
import time
import zipfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import qz_sandbox  # noqa: E402

SAMPLE_APS = [
    "1 00:1a:2b:3c:4d:5e online AP-Lobby",
    "2 00:1a:2b:3c:4d:6f online AP-Terrace",
]


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--bin", required=True, help="the qz_fh_audit binary")
    ap.add_argument("--seconds", type=float, default=15.0, help="real seconds to run (15)")
    ap.add_argument("--accel", type=int, default=60, help="speed of the faked clock (60)")
    ap.add_argument("--out", help="where to copy uploads and logs "
                                  "(default: demo-output beside the binary)")
    args = ap.parse_args()
    args.bin = os.path.realpath(args.bin)
    if not os.access(args.bin, os.X_OK):
        ap.error("no executable at %s" % args.bin)
    args.out = os.path.realpath(args.out or os.path.join(os.path.dirname(args.bin),
                                                         "demo-output"))
    for path in (args.bin, args.out):
        if path == "/tmp" or path.startswith("/tmp/"):
            ap.error("%s is under /tmp, which the sandbox replaces" % path)
    return args


def say(text=""):
    print(text, flush=True)


def describe_upload(u):
    """Lines that tell what one captured upload holds."""
    data = u.read()
    if zipfile.is_zipfile(u.path):
        with zipfile.ZipFile(u.path) as z:
            return ["    %8d  %s" % (i.file_size, i.filename) for i in z.infolist()]
    text = data.decode("utf-8", errors="replace").splitlines()
    return ["    " + line for line in text[:10]] + (["    ..."] if len(text) > 10 else [])


def suffix_for(u):
    if zipfile.is_zipfile(u.path):
        return ".zip"
    if u.remote.endswith("144"):
        return ".bjson"
    return ""


def save(out, sb, d):
    uploads_dir = os.path.join(out, "uploads")
    shutil.rmtree(uploads_dir, ignore_errors=True)
    os.makedirs(uploads_dir)
    for u in sb.ftp.uploads():
        shutil.copy(u.path, os.path.join(uploads_dir, os.path.basename(u.path) + suffix_for(u)))
    with open(os.path.join(out, "console-stdout.log"), "wb") as f:
        f.write(d.stdout_bytes())
    with open(os.path.join(out, "console-stderr.log"), "wb") as f:
        f.write(d.stderr_bytes())
    with open(os.path.join(out, "syslog.log"), "w") as f:
        f.writelines(line if line.endswith("\n") else line + "\n" for line in sb.syslog_lines())


def run(args):
    with qz_sandbox.Sandbox() as sb:
        sb.write_config()
        sb.set_wtps(SAMPLE_APS)
        say("== Sandbox")
        say("  route: default via %s dev %s, address %s"
            % (qz_sandbox.GATEWAY_IP, qz_sandbox.ROUTE_IF, qz_sandbox.ROUTE_IP))
        say("  FTP server: %s, user %r" % (sb.ftp.url_base(), sb.ftp.user))
        say("  wum -c wtps lists:")
        for line in SAMPLE_APS:
            say("    " + line)
        say("  %s:" % qz_sandbox.CONFIG_PATH)
        for key, value in sb.config_values().items():
            say("    %-24s %s" % (key, value))
        say()
        say("== Daemon console (-D), clock from %s UTC at x%d: %.0f s real = %.0f min simulated"
            % (qz_sandbox.DEFAULT_START, args.accel, args.seconds,
               args.seconds * args.accel / 60))

        d = sb.start_daemon(["-D"], accel=args.accel)
        shown, seen = 0, 0
        deadline = time.monotonic() + args.seconds
        try:
            while time.monotonic() < deadline and d.running():
                time.sleep(0.2)
                text = d.any_text()
                if len(text) > shown:
                    sys.stdout.write(text[shown:])
                    shown = len(text)
                ups = sb.ftp.uploads()
                for u in ups[seen:]:
                    say("  [ftp sink] received %s, %d bytes, user %r" % (u.remote, u.size, u.user))
                seen = len(ups)
        except KeyboardInterrupt:
            say("\n(interrupted)")
        status = d.stop()
        sys.stdout.write(d.any_text()[shown:])
        say()
        say("== Stopped: %s" % ("still running, then SIGTERM" if status == -15
                                else "exit status %s" % status))

        ups = sb.ftp.uploads()
        say("== Uploads received by the FTP server: %d" % len(ups))
        for u in ups:
            say("  #%d %s (%d bytes)" % (u.seq, u.remote, u.size))
            for line in describe_upload(u):
                say(line)
        save(args.out, sb, d)
        say()
        say("== Copied to %s:" % args.out)
        say("  uploads/            every received file, in arrival order")
        say("  console-stdout.log  console-stderr.log  syslog.log")
        return 0 if status in (-15, None) else 1


def main():
    args = parse_args()
    os.environ["QZ_BIN"] = args.bin
    qz_sandbox.enter_namespaces()
    sys.exit(run(args))


if __name__ == "__main__":
    main()
