#!/usr/bin/python3
"""SMTP load benchmark for vigild.

Runs the daemon in the end-to-end test bed (its own loopback-only network
namespace, NAT redirection, private /var; see tests/e2e/vigil_bed.py) and
measures:

  * sessions per second at 1, 10 and 100 concurrent clients, one session being
    connect, greeting, EHLO, MAIL FROM, RCPT TO, RSET, QUIT, every reply
    awaited before the next command;
  * the daemon's memory per idle connection: growth of its resident set
    while it holds N greeted, idle sessions, divided by N.

Needs root. Usage:
  bench/smtp_load.py [--vigild build/vigild] [--seconds 5] [--idle 2000]
"""

import argparse
import asyncio
import json
import os
import socket
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))
import vigil_bed as vb  # noqa: E402

SESSION = [  # (command, expected reply code)
    (None, b"220"),
    (b"EHLO bench.test\r\n", b"250"),
    (b"MAIL FROM:<sender@bench.test>\r\n", b"250"),
    (b"RCPT TO:<rcpt@example.com>\r\n", b"250"),
    (b"RSET\r\n", b"250"),
    (b"QUIT\r\n", b"221"),
]


SESSION_TIMEOUT = 10.0


class SessionError(Exception):
    pass


async def read_reply(loop, sock, buf):
    """Takes one complete (possibly multi-line) reply off buf, reading as needed."""
    start = 0
    while True:
        nl = buf.find(b"\n", start)
        if nl < 0:
            data = await loop.sock_recv(sock, 4096)
            if not data:
                raise SessionError(f"closed early after {bytes(buf)!r}")
            buf += data
            continue
        line_start = start
        start = nl + 1
        if buf[line_start + 3:line_start + 4] != b"-":
            reply = bytes(buf[:start])
            del buf[:start]
            return reply


async def one_session(loop, ns, source):
    sock = ns.socket()
    try:
        sock.setblocking(False)
        sock.bind((source, 0))
        await loop.sock_connect(sock, (vb.BACKEND_ADDR, vb.BACKEND_PORT))
        buf = bytearray()
        for command, code in SESSION:
            if command:
                await loop.sock_sendall(sock, command)
            reply = await read_reply(loop, sock, buf)
            if not reply.startswith(code):
                raise SessionError(f"{command!r} got {reply!r}")
    finally:
        sock.close()


async def client(loop, ns, index, deadline, latencies, errors):
    source = f"127.0.{1 + index % 2}.{1 + (index // 2) % 250}"
    while time.monotonic() < deadline:
        t0 = time.monotonic()
        try:
            # A session can stall for good when the listen backlog overflows
            # (the final ACK of the handshake is dropped), so each is bounded.
            await asyncio.wait_for(one_session(loop, ns, source), SESSION_TIMEOUT)
        except asyncio.TimeoutError:
            errors.append(f"no complete session within {SESSION_TIMEOUT} s")
            continue
        except (OSError, SessionError) as e:
            errors.append(str(e))
            continue
        if time.monotonic() <= deadline:
            latencies.append(time.monotonic() - t0)


def listen_overflows(pid):
    """TcpExt ListenOverflows of the daemon's namespace: handshakes dropped
    because the listen queue was full."""
    with open(f"/proc/{pid}/net/netstat") as f:
        lines = f.read().splitlines()
    for names, values in zip(lines[::2], lines[1::2]):
        if names.startswith("TcpExt:"):
            table = dict(zip(names.split()[1:], values.split()[1:]))
            return int(table.get("ListenOverflows", 0))
    return 0


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def run_clients(ns, first, count, deadline, latencies, errors):
    async def run():
        loop = asyncio.get_running_loop()
        await asyncio.gather(*(client(loop, ns, first + i, deadline, latencies, errors)
                               for i in range(count)))

    asyncio.run(run())


def measure_rate(ns, daemon_pid, concurrency, seconds, procs):
    """Runs concurrency clients, spread over procs forked client processes."""
    latencies, errors = [], []
    cpu0 = cpu_seconds(daemon_pid)
    overflows0 = listen_overflows(daemon_pid)
    t0 = time.monotonic()
    deadline = t0 + seconds
    procs = max(1, min(procs, concurrency))
    children = []
    for p in range(procs):
        first = p * concurrency // procs
        count = (p + 1) * concurrency // procs - first
        r, w = os.pipe()
        pid = os.fork()
        if pid == 0:
            os.close(r)
            code = 1
            try:
                lat, err = [], []
                run_clients(ns, first, count, deadline, lat, err)
                with os.fdopen(w, "w") as out:
                    json.dump({"latencies": lat, "errors": err[:10], "nerrors": len(err)}, out)
                code = 0
            finally:
                os._exit(code)
        os.close(w)
        children.append((pid, r))
    nerrors = 0
    for pid, r in children:
        with os.fdopen(r) as f:
            text = f.read()
        os.waitpid(pid, 0)
        if text:
            res = json.loads(text)
            latencies += res["latencies"]
            errors += res["errors"]
            nerrors += res["nerrors"]
        else:
            nerrors += 1
            errors.append("a client process failed")
    elapsed = time.monotonic() - t0
    cpu = cpu_seconds(daemon_pid) - cpu0
    latencies.sort()

    def pct(p):
        return latencies[min(len(latencies) - 1, int(p * len(latencies)))] * 1000 \
            if latencies else float("nan")

    # Sessions still running at the deadline are finished but not counted.
    return {"concurrency": concurrency, "sessions": len(latencies), "seconds": elapsed,
            "rate": len(latencies) / seconds, "p50": pct(0.50), "p99": pct(0.99),
            "errors": nerrors, "first_error": errors[0] if errors else "",
            "daemon_cpu": 100.0 * cpu / elapsed,
            "overflows": listen_overflows(daemon_pid) - overflows0,
            "per_cpu_second": len(latencies) / cpu if cpu > 0 else float("nan")}


def measure_idle_memory(bed, count):
    d = bed.daemon
    before = d.rss_kib()
    held = []
    try:
        for i in range(count):
            c = vb.SmtpClient(bed.raw_connect(f"127.0.{1 + i % 2}.{1 + (i // 2) % 250}"))
            reply = c.read_reply()
            if not reply.startswith(b"220"):
                raise SessionError(f"idle client {i} got {reply!r}")
            held.append(c)
        after = d.rss_kib()
    finally:
        for c in held:
            c.close()
    return before, after


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--vigild", default=str(vb.vigild_path()))
    ap.add_argument("--seconds", type=float, default=5.0, help="duration of each rate run")
    ap.add_argument("--idle", type=int, default=2000, help="idle sessions for the memory figure")
    ap.add_argument("--concurrency", default="1,10,100")
    ap.add_argument("--procs", type=int, default=1,
                    help="client processes (the clients, not the daemon, may be the bottleneck)")
    args = ap.parse_args()
    os.environ["VIGILD_BIN"] = args.vigild
    reason = vb.unavailable_reason()
    if reason:
        sys.exit(f"smtp_load: {reason}")
    vb.raise_nofile(max(4096, args.idle + 512))

    bed = vb.Bed(prefix="vgbench")
    try:
        # Server-side TIME_WAIT entries of the NAT table would otherwise pile
        # up over a run; one second keeps the table small.
        bed.ns.exec(["sysctl", "-q", "-w", "net.netfilter.nf_conntrack_tcp_timeout_time_wait=1"])
        bed.ns.exec(["sysctl", "-q", "-w", "net.ipv4.ip_local_port_range=1024 65000"])
        d = bed.start_daemon({"max_connections": "3000"}, verbosity=("3",))
        print(f"vigild {args.vigild} (pid {d.pid}) in namespace {bed.ns.name}")
        print("session: connect, 220, EHLO, MAIL FROM, RCPT TO, RSET, QUIT; "
              "each reply awaited")
        print(f"{'clients':>7} {'sessions':>9} {'sessions/s':>11} {'p50 ms':>8} {'p99 ms':>8} "
              f"{'daemon CPU':>10} {'per CPU-s':>9} {'errors':>6} {'backlog drops':>13}")
        for n in (int(x) for x in args.concurrency.split(",")):
            r = measure_rate(bed.ns, d.pid, n, args.seconds, args.procs)
            print(f"{r['concurrency']:>7} {r['sessions']:>9} {r['rate']:>11.0f} "
                  f"{r['p50']:>8.2f} {r['p99']:>8.2f} {r['daemon_cpu']:>9.0f}% "
                  f"{r['per_cpu_second']:>9.0f} {r['errors']:>6} {r['overflows']:>13}", flush=True)
            if r["errors"]:
                print(f"        first error: {r['first_error']}")
        before, after = measure_idle_memory(bed, args.idle)
        per_conn = (after - before) * 1024 / args.idle
        print(f"memory: VmRSS {before} KiB -> {after} KiB with {args.idle} idle sessions: "
              f"{per_conn:.0f} bytes per connection")
        if not d.alive():
            sys.exit("smtp_load: the daemon died during the run")
    finally:
        bed.close()


if __name__ == "__main__":
    main()
