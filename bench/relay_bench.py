#!/usr/bin/python3
"""Relay benchmark: Postfix's smtp-source -> vigild -> smtp-sink.

Every path runs in one loopback-only network namespace made for the run:

  * smtp-sink, the backend, listens on 127.0.0.2:25.
  * smtp-source cannot bind a source address, so it runs as uid 65534 and a
    uidrange routing rule sends that uid's traffic through a table whose local
    route prefers 127.0.1.1: the senders come from 127.0.1.1. The kernel puts
    its own local table first, so the bench moves that rule behind ours.
  * iptables nat OUTPUT REDIRECTs 127.0.1.0/24 -> 127.0.0.2:25 to the proxy
    under test. vigild, socat and smtp-sink run as root and leave from
    127.0.0.1, so the proxies' own connections to the backend are not caught.
  * Paths: direct (no rule), socat (a plain TCP forwarder, a process per
    connection), haproxy (TCP mode, one thread), vigild with the scanners off
    (as_connections=0, use_scanner=0), and vigild with the instant fake
    scanners of tests/e2e/scanners.py (clean at once). The rule is switched
    per run and the paths are measured back to back for each message size,
    sender count and reuse mode, so they share the machine's conditions.

The daemon runs under unshare -m with a directory of /dev/shm (tmpfs) bound
over /var, in the foreground (-d -e -s); --scan-tmpfs mounts a tmpfs of its
own with the given options over its scan directory. Messages per second come from the
wall time of smtp-source (all replies awaited), once with a new connection
per message and once with -d, which keeps each sender's connection for all
its messages; CPU is the proxy's utime+stime from /proc (socat's with its
reaped per-connection children). smtp-sink's counters (-c) must show every
message sent, or the run fails. The load average is printed with each row,
since the machine may be shared.

smtp-source and smtp-sink size each connection's stream buffer from the TCP
segment size, 64 or 128 KiB on loopback: right at glibc's dynamic mmap
threshold. Whether a closed connection's buffer is trimmed off the heap and
faulted back in for the next one then depends on the timing of connections,
which differs by path, and the tools share the proxy's cores.
--tools-no-trim fixes their allocator (no trimming, a fixed mmap threshold)
on every path, so their cost per message no longer depends on the path.

Needs root. Usage:
  /usr/bin/python3 bench/relay_bench.py [--vigild build-bench/vigild] [--repeat 3] [--scale 1]
      [--paths direct,socat,haproxy,off,on] [--senders 1,10] [--sizes 4K,1M] [--reuse new,reuse]
      [--scan-tmpfs size=2g,huge=within_size] [--tools-no-trim] [--perf DIR]
"""

import argparse
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "tests" / "e2e"))
from scanners import FakeAntiSpam, FakeVirusScanner  # noqa: E402  (they answer clean at once)

SENDER_UID = 65534
SOURCE = ["/usr/sbin/smtp-source", "-M", "bench.test", "-f", "from@bench.test",
          "-t", "to@bench.test"]
SOCAT_PORT, OFF_PORT, ON_PORT, HAPROXY_PORT = 2526, 2527, 2528, 2529
# (label, smtp-source -l payload, messages for 1 sender, messages for 10 senders)
# A trim threshold above anything the tools hold and an mmap threshold above
# their largest buffer: freed buffers stay on the heap for the next connection.
TOOLS_NO_TRIM = "glibc.malloc.trim_threshold=67108864:glibc.malloc.mmap_threshold=33554432"
SIZES = {"4K": ("4 KB", 4096, 3000, 8000), "1M": ("1 MB", 1048576, 200, 400)}
HAPROXY_CONF = f"""global
    nbthread 1
    maxconn 4000
defaults
    mode tcp
    timeout connect 5s
    timeout client 60s
    timeout server 60s
listen relay
    bind *:{HAPROXY_PORT}
    server backend 127.0.0.2:25
"""


def run(cmd, timeout=20):
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout)
    if r.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)} failed ({r.returncode}): {r.stderr.strip()}")


def wait_until(pred, timeout, what):
    deadline = time.monotonic() + timeout
    while not pred():
        if time.monotonic() > deadline:
            raise RuntimeError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(0.02)


def cpu_ticks(pid):
    """utime+stime, plus those of the children waited for (socat forks one per sender)."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return sum(int(x) for x in fields[11:15])


def listening(pid, port):
    """True when the namespace of process pid has a TCP listener on port."""
    try:
        with open(f"/proc/{pid}/net/tcp") as f:
            return any(l.split()[3] == "0A" and int(l.split()[1].split(":")[1], 16) == port
                       for l in list(f)[1:])
    except OSError:
        return False


class Bench:
    def __init__(self, vigild, scan_tmpfs="", tools_no_trim=False):
        self.vigild = vigild
        self.scan_tmpfs = scan_tmpfs
        # The environment of smtp-source and smtp-sink (see --tools-no-trim).
        self.tool_env = dict(os.environ, GLIBC_TUNABLES=TOOLS_NO_TRIM) if tools_no_trim else None
        self.ns = f"relaybench-{os.getpid()}"
        self.root = Path(tempfile.mkdtemp(prefix="relaybench-", dir="/dev/shm"))
        self.procs = {}  # name -> Popen, stopped by pid in close()
        self.fakes = ()  # the anti-spam and virus scanner servers of the "on" daemon
        run(["ip", "netns", "add", self.ns])
        for cmd in (["link", "set", "lo", "up"],
                    ["rule", "add", "uidrange", f"{SENDER_UID}-{SENDER_UID}", "table", "100",
                     "priority", "10"],
                    ["route", "add", "local", "127.0.0.0/8", "dev", "lo", "src", "127.0.1.1",
                     "table", "100"],
                    ["rule", "add", "lookup", "local", "priority", "100"],
                    ["rule", "del", "priority", "0"]):
            run(["ip", "-n", self.ns] + cmd)

    def nsexec(self, cmd):
        return ["ip", "netns", "exec", self.ns] + cmd

    def start(self, name, cmd, port, env=None):
        err = open(self.root / f"{name}.err", "wb")
        self.procs[name] = p = subprocess.Popen(self.nsexec(cmd), stdin=subprocess.DEVNULL,
                                                stdout=err, stderr=err, env=env)
        err.close()
        wait_until(lambda: listening(p.pid, port) or p.poll() is not None, 15, f"{name} to listen")
        if p.poll() is not None:
            raise RuntimeError(f"{name} exited ({p.returncode}): {self.log(name)}")
        return p

    def log(self, name, tail=3000):
        return (self.root / f"{name}.err").read_text(errors="replace")[-tail:]

    def start_vigild(self, name, port, scanners):
        var = self.root / name / "var"
        for d in ("run", "support", "av/scan", "lib/norvik", "spool/xmail/spool/temp",
                  "spool/xmail/spool/local"):
            (var / d).mkdir(parents=True)
        if scanners:
            self.fakes = (FakeAntiSpam(var / "lib/norvik/as.sock"),
                          FakeVirusScanner(var / "lib/norvik/scannerd.sock"))
        common, proxy = self.root / name / "common.conf", self.root / name / "vigild.conf"
        common.write_text("[scannerd]\nscan_dir=/var/av/scan\n"
                          "scanner_addr=/var/lib/norvik/scannerd.sock\n")
        settings = {"listen_port": port, "listen_backlog": 128, "max_connections": 1000,
                    "address_transparent": 0, "user": "root", "group": "root",
                    "relay_control": 0, "as_connections": 10 if scanners else 0,
                    "use_scanner": int(scanners)}
        proxy.write_text("[vigild]\n" + "".join(f"{k}={v}\n" for k, v in settings.items()))
        # ip netns exec, unshare and sh exec in place: the Popen pid is vigild's.
        # With --scan-tmpfs the scan directory gets a tmpfs of its own, mounted
        # with those options (as an administrator would put it in fstab).
        script = 'mount --bind "$1" /var && shift && ' \
            '{ [ -z "$1" ] || mount -t tmpfs -o "$1" vigild-scan /var/av/scan; } && shift && exec "$@"'
        self.start(name, ["unshare", "-m", "--propagation", "private", "sh", "-c", script,
                          "vigild-bench", str(var), self.scan_tmpfs, self.vigild, "-d", "-e", "-s",
                          "-c", str(common), "-p", str(proxy)], port)
        if scanners:  # until the pool is up, the daemon lets messages pass unscanned
            self.fakes[1].wait_for(lambda v: len(v.hellos) == 1, 15, "the scanner hello")
            wait_until(lambda: self.log(name, 10**6).count(
                "Successfully connected to anti-spam server") >= 10, 15, "the anti-spam pool")

    def scanned(self):
        return [len(f.requests) for f in self.fakes]

    def redirect(self, port):
        run(self.nsexec(["iptables", "-t", "nat", "-F", "OUTPUT"]))
        if port:
            run(self.nsexec(["iptables", "-t", "nat", "-A", "OUTPUT", "-p", "tcp", "-s",
                             "127.0.1.0/24", "-d", "127.0.0.2", "--dport", "25",
                             "-j", "REDIRECT", "--to-ports", str(port)]))

    def delivered(self):
        """Messages smtp-sink has counted so far (its last -c counter line)."""
        counts = self.log("sink", 200).rsplit("mesg=", 1)  # "sess=%d quit=%d mesg=%d\r"
        return int(counts[1].split()[0]) if len(counts) == 2 else 0

    def send(self, port, size, senders, messages, proxy=None, perf=None, reuse=True):
        """One smtp-source run; returns (messages per second, proxy CPU ms per message)."""
        self.redirect(port)
        pid = self.procs[proxy].pid if proxy else None
        cpu0 = cpu_ticks(pid) if pid else 0
        rec = perf and subprocess.Popen(["perf", "record", "-q", "-g", "-F", "2000", "-p",
                                         str(pid), "-o", perf], stderr=subprocess.DEVNULL)
        t0 = time.monotonic()
        cmd = ["setpriv", f"--reuid={SENDER_UID}", f"--regid={SENDER_UID}", "--clear-groups"]
        sunk = self.delivered()
        try:
            r = subprocess.run(self.nsexec(cmd + SOURCE + ["-d"] * reuse +
                                           ["-s", str(senders), "-m", str(messages), "-l",
                                            str(size), "127.0.0.2:25"]),
                               capture_output=True, text=True, timeout=300, env=self.tool_env)
        except subprocess.TimeoutExpired:
            where = f"\n{proxy} log tail:\n{self.log(proxy)}" if proxy else ""
            raise RuntimeError(f"smtp-source stalled on {proxy or 'direct'} after "
                               f"{self.delivered() - sunk} of {messages} messages{where}") from None
        elapsed = time.monotonic() - t0
        if rec:
            rec.send_signal(signal.SIGINT)
            rec.wait(30)
        if r.returncode != 0:
            where = f"\n{proxy} log tail:\n{self.log(proxy)}" if proxy else ""
            raise RuntimeError(f"smtp-source failed ({r.returncode}): {r.stderr.strip()}{where}")
        if proxy == "socat":  # a child's CPU time reaches its parent once it is reaped
            wait_until(lambda: not Path(f"/proc/{pid}/task/{pid}/children").read_text(), 10,
                       "socat's children to be reaped")
        cpu = (cpu_ticks(pid) - cpu0) / os.sysconf("SC_CLK_TCK") if pid else None
        wait_until(lambda: self.delivered() - sunk >= messages, 10, "smtp-sink's count")
        if self.delivered() - sunk != messages:
            raise RuntimeError(f"smtp-sink counted {self.delivered() - sunk} of {messages}")
        return messages / elapsed, cpu * 1000 / messages if pid else None

    def close(self):
        for p in self.procs.values():
            if p.poll() is None:
                p.send_signal(signal.SIGTERM)
                try:
                    p.wait(10)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait(10)
        for fake in self.fakes:
            fake.stop()
        subprocess.run(["ip", "netns", "del", self.ns], capture_output=True, timeout=20)
        shutil.rmtree(self.root, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--vigild", default=str(REPO / "build-bench" / "vigild"))
    ap.add_argument("--repeat", type=int, default=5, help="runs per figure; the median is shown")
    ap.add_argument("--scale", type=float, default=1.0, help="multiplies the message counts")
    ap.add_argument("--paths", default="direct,socat,haproxy,off,on")
    ap.add_argument("--senders", default="1,10")
    ap.add_argument("--sizes", default="4K,1M")
    ap.add_argument("--reuse", default="new,reuse",
                    help="new: a connection per message; reuse: smtp-source -d")
    ap.add_argument("--perf", metavar="DIR", help="perf record the daemon in every run, into DIR")
    ap.add_argument("--tools-no-trim", action="store_true",
                    help="run smtp-source and smtp-sink with glibc's heap trimming off")
    ap.add_argument("--scan-tmpfs", metavar="OPTIONS", default="",
                    help="give the daemons' scan directory a tmpfs of its own, mounted with "
                         "these options (e.g. size=2g,huge=within_size)")
    args = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("relay_bench: needs root (network and mount namespaces)")
    paths = args.paths.split(",")
    if ("off" in paths or "on" in paths) and not os.access(args.vigild, os.X_OK):
        sys.exit(f"relay_bench: {args.vigild} not built")
    for tool in ["/usr/sbin/smtp-source", "/usr/sbin/iptables"] + ["socat"] * ("socat" in paths) + \
            ["haproxy"] * ("haproxy" in paths):
        if not shutil.which(tool):
            sys.exit(f"relay_bench: {tool} missing (scripts/deps.sh; apt-get install socat)")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("relay_bench: terminated"))
    port = {"direct": None, "socat": SOCAT_PORT, "haproxy": HAPROXY_PORT, "off": OFF_PORT,
            "on": ON_PORT}
    bench = Bench(os.path.abspath(args.vigild), args.scan_tmpfs, args.tools_no_trim)
    try:
        bench.start("sink", ["/usr/sbin/smtp-sink", "-c", "-u", "nobody", "-h", "sink.bench",
                             "127.0.0.2:25", "128"], 25, bench.tool_env)
        if "socat" in paths:
            bench.start("socat", ["socat", f"TCP4-LISTEN:{SOCAT_PORT},reuseaddr,fork,backlog=128",
                                  "TCP4:127.0.0.2:25"], SOCAT_PORT)
        if "haproxy" in paths:
            conf = bench.root / "haproxy.cfg"
            conf.write_text(HAPROXY_CONF)
            bench.start("haproxy", ["haproxy", "-db", "-f", str(conf)], HAPROXY_PORT)
        if "off" in paths:
            bench.start_vigild("off", OFF_PORT, scanners=False)
        if "on" in paths:
            bench.start_vigild("on", ON_PORT, scanners=True)
        ratios = [(p, "direct") for p in paths if p != "direct" and "direct" in paths] + \
            [(p, "haproxy") for p in ("off", "on") if p in paths and "haproxy" in paths]
        head = ["size", "senders", "connection"] + [f"{p} msg/s" for p in paths] + \
            [f"{a}/{b}" for a, b in ratios] + \
            [f"{p} CPU ms/msg" for p in paths if p != "direct"] + ["load"]
        print(f"medians of {args.repeat} runs; load: the 1-minute load average after the row")
        print("| " + " | ".join(head) + " |\n|" + "---|" * len(head), flush=True)
        senders_list = [int(s) for s in args.senders.split(",")]
        for label, size, n1, n10 in (SIZES[s] for s in args.sizes.split(",")):
            for senders, reuse in ((s, r) for s in senders_list for r in args.reuse.split(",")):
                n = max(senders, int((n1 if senders == 1 else n10) * args.scale))
                rates = {p: [] for p in paths}
                cpus = {p: [] for p in paths}
                for _ in range(args.repeat):
                    for p in paths:
                        before = bench.scanned()
                        proxy = p if p != "direct" else None
                        perf = p in ("off", "on") and args.perf and os.path.join(
                            args.perf, f"{p}-{size}-{senders}-{reuse}-{len(rates[p])}.data")
                        rate, cpu = bench.send(port[p], size, senders, n, proxy, perf,
                                               reuse == "reuse")
                        if p == "on" and bench.scanned() != [b + n for b in before]:
                            raise RuntimeError(f"not every message was scanned: {before} -> "
                                               f"{bench.scanned()} requests for {n} messages")
                        rates[p].append(rate)
                        cpus[p].append(cpu)
                med = {p: statistics.median(rates[p]) for p in paths}
                row = [label, str(senders), reuse] + [f"{med[p]:.0f}" for p in paths]
                # Each ratio is taken within one repeat, whose runs were back to back.
                row += [f"{statistics.median(map(float.__truediv__, rates[a], rates[b])):.2f}"
                        for a, b in ratios]
                row += [f"{statistics.median(cpus[p]):.3f}" for p in paths if p != "direct"]
                row += [f"{os.getloadavg()[0]:.2f}"]
                print("| " + " | ".join(row) + " |", flush=True)
    finally:
        bench.close()


if __name__ == "__main__":
    main()
