"""What the benchmarks read of the daemon's process, and the terminals they
make up."""
import os
import time

# A status file line for every made-up terminal: served by one access point.
STATUS_LINE = "t1 t2 -45 00:1a:2b:3c:4d:5e x y\n"


def mac_of(i):
    """Terminal i's MAC: 02:00 and i in the last four bytes."""
    return "02:00:%02x:%02x:%02x:%02x" % ((i >> 24) & 255, (i >> 16) & 255, (i >> 8) & 255, i & 255)


def cpu_seconds(pid):
    """User and system CPU time the process has used."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory_kib(pid, key):
    """A memory line of /proc/PID/status (VmRSS, VmHWM) in KiB."""
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0


def wait_quiet(pid, settle=0.3):
    """Waits until the process stops using CPU (it has drained its socket);
    returns its CPU time then."""
    last = cpu_seconds(pid)
    while True:
        time.sleep(settle)
        now = cpu_seconds(pid)
        if now == last:
            return now
        last = now
