"""What the benchmarks read of the daemon's process."""
import os
import time


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
