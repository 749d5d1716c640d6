"""Test bed that runs the real vigild behind a genuine NAT redirection.

Every bed owns one network namespace with only a loopback interface, so nothing
a test does (not even a name lookup) can leave the machine. Inside it:

  * 10.9.0.1/32 is the "backend" mail server address (port 25); a FakeBackend
    can listen there.
  * 10.9.1.0/24 and 10.9.2.0/24 are routed locally and serve as sender
    addresses; test clients always bind one of them.
  * iptables (nat table, OUTPUT chain) REDIRECTs connections from the sender
    networks to 10.9.0.1:25 onto the proxy's listening port, so the proxy reads
    10.9.0.1:25 back with SO_ORIGINAL_DST from a genuinely redirected socket.

The rule matches the source network rather than the owner of the socket: the
daemon runs as root like the test clients, and its own (non-transparent)
connections to the backend leave from 10.9.0.1, the address the kernel picks
for a destination on a local route, so they reach the backend instead of being
redirected back to the proxy.

The daemon runs in the foreground (-d -e -s) in that namespace and in a
private mount namespace in which a per-bed host directory is bound over /var.
It therefore writes its pid file, control socket, dump files, scanner sockets
and scan files under <bed root>/var, where the test reads them directly;
/var/run is a plain directory there, so the host's /run is never touched.

Clients and the fake backend live in the test process: a socket is created
inside the namespace by switching the calling thread's network namespace
around the socket() call (a socket stays in the namespace it was made in).

Only the Python standard library is used.
"""

import ctypes
import errno
import itertools
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]

BACKEND_ADDR = "10.9.0.1"
BACKEND_PORT = 25
TRUSTED_NET = "10.9.1.0/24"
OUTSIDE_NET = "10.9.2.0/24"
SENDER_NETS = (TRUSTED_NET, OUTSIDE_NET)
DEFAULT_SENDER = "10.9.1.10"
OUTSIDE_SENDER = "10.9.2.10"
LISTEN_PORT = 2525

# Keys that live in the common file's [scannerd] section; all others are
# read from the proxy file's [vigild] section.
SCANNERD_KEYS = frozenset({"scan_dir", "spam_tag", "spam_plus_tag", "scanner_addr"})

# Settings every bed starts from: stay root (the switch to the default user
# "vigild" would only log a warning here), connect to the backend plainly
# because the kernel has no transparent-proxy option, and listen where the
# NAT rule points.
BED_SETTINGS = {
    "listen_port": str(LISTEN_PORT),
    "address_transparent": "0",
    "user": "root",
    "group": "root",
}

USAGE_TEXT = (
    "usage: %s [-dfke] [-n max_fds] [-c config_file][-v num] [-p config_file] [-z dump_file]\n"
    "k: disable cleanup\n"
    "e: log to stderr\n"
    "s: don't log to syslog\n"
    "d: Don't become a daemon\n"
    "v ssl: Set log section/level 563 --> section 56 level 3.\n"
    "       6 or 006 --> All sections, level 6.c config_file: Name of alternate common "
    "configuration file\n"
    "z dump_file: Name of alternate dump file\n"
    "p config_file: Name of alternate proxy configuration file\n"
)

_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)
_setns_lock = threading.Lock()
_ns_counter = itertools.count()


def vigild_path():
    return Path(os.environ.get("VIGILD_BIN") or REPO / "build" / "vigild").resolve()


def unavailable_reason(need_daemon=True):
    """Why the bed cannot run here, or None when it can."""
    if os.geteuid() != 0:
        return "end-to-end tests need root (network and mount namespaces)"
    for tool in ("/usr/sbin/ip", "/usr/sbin/iptables", "/usr/bin/unshare", "/usr/bin/mount"):
        if not os.access(tool, os.X_OK):
            return f"{tool} is missing (apt-get install iproute2 iptables util-linux)"
    if need_daemon and not os.access(vigild_path(), os.X_OK):
        return f"daemon binary {vigild_path()} not built (set VIGILD_BIN)"
    return None


def _run(cmd, timeout=20):
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout)
    if r.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)} failed ({r.returncode}): {r.stderr.strip()}")
    return r.stdout


def _setns(fd):
    if _libc.setns(fd, _CLONE_NEWNET) != 0:
        e = ctypes.get_errno()
        raise OSError(e, f"setns: {os.strerror(e)}")


def wait_until(predicate, timeout, what, step=0.01):
    """Polls predicate until it returns a true value, at most timeout seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise AssertionError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(step)


def process_gone(pid):
    """True when pid no longer runs (a zombie waiting for its parent counts as gone)."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] in ("Z", "X")
    except (FileNotFoundError, ProcessLookupError):
        return True


def raise_nofile(wanted):
    import resource

    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft >= wanted:
        return soft
    if hard < wanted:
        hard = wanted  # root may raise the hard limit too
    resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, hard))
    return wanted


class NetNS:
    """A loopback-only network namespace with the NAT redirection in place."""

    def __init__(self, listen_port=LISTEN_PORT, prefix="vge2e"):
        self.name = f"{prefix}-{os.getpid()}-{next(_ns_counter)}"
        self.listen_port = listen_port
        self._fd = -1
        _run(["ip", "netns", "add", self.name])
        try:
            self._fd = os.open(f"/run/netns/{self.name}", os.O_RDONLY)
            self.exec(["ip", "link", "set", "lo", "up"])
            self.exec(["ip", "addr", "add", f"{BACKEND_ADDR}/32", "dev", "lo"])
            for net in SENDER_NETS:
                self.exec(["ip", "route", "add", "local", net, "dev", "lo"])
                self.exec(["iptables", "-t", "nat", "-A", "OUTPUT", "-p", "tcp", "-s", net,
                           "-d", BACKEND_ADDR, "--dport", str(BACKEND_PORT),
                           "-j", "REDIRECT", "--to-ports", str(listen_port)])
        except BaseException:
            self.close()
            raise

    def command(self, cmd):
        return ["ip", "netns", "exec", self.name] + list(cmd)

    def exec(self, cmd, timeout=20):
        return _run(self.command(cmd), timeout)

    def socket(self, family=socket.AF_INET, type=socket.SOCK_STREAM):
        """A new socket that belongs to this namespace."""
        with _setns_lock:
            own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
            try:
                _setns(self._fd)
                try:
                    return socket.socket(family, type)
                finally:
                    _setns(own)
            finally:
                os.close(own)

    def close(self):
        if self._fd >= 0:
            os.close(self._fd)
            self._fd = -1
        # The iptables rules and addresses die with the namespace.
        subprocess.run(["ip", "netns", "del", self.name], capture_output=True, timeout=20)


def write_ini(path, sections):
    with open(path, "w") as f:
        for section, pairs in sections.items():
            f.write(f"[{section}]\n")
            for k, v in pairs.items():
                if v is not None:
                    f.write(f"{k}={v}\n")


class Daemon:
    """One vigild process started by a Bed; see Bed.start_daemon."""

    def __init__(self, bed, args, stderr_path, stdout_path):
        self.bed = bed
        self.stderr_path = stderr_path
        self.stdout_path = stdout_path
        self.returncode = None
        with open(stderr_path, "wb") as err, open(stdout_path, "wb") as out:
            # ip netns exec, unshare and sh all exec in place, so the pid
            # of this Popen becomes the daemon's own pid.
            script = 'mount --bind "$1" /var && shift && exec "$@"'
            cmd = bed.ns.command(["unshare", "-m", "--propagation", "private",
                                  "sh", "-c", script, "vigild-bed", str(bed.var)] + args)
            self.proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        self.pid = self.proc.pid

    def alive(self):
        return self.proc.poll() is None

    def stderr(self):
        return Path(self.stderr_path).read_text(errors="replace")

    def stdout(self):
        return Path(self.stdout_path).read_text(errors="replace")

    def wait_log(self, text, timeout=10, count=1):
        """Waits until text (a substring) appears count times in the daemon's stderr."""
        def seen():
            if self.stderr().count(text) >= count:
                return True
            if not self.alive() and self.stderr().count(text) < count:
                raise AssertionError(f"daemon exited ({self.proc.returncode}) before logging "
                                     f"{text!r}; stderr tail:\n{self.stderr()[-3000:]}")
            return False
        try:
            wait_until(seen, timeout, f"log line {text!r}")
        except AssertionError as e:
            raise AssertionError(f"{e}; stderr tail:\n{self.stderr()[-3000:]}") from None

    def _listening_inode(self, port):
        try:
            with open(f"/proc/{self.pid}/net/tcp") as f:
                next(f)
                for line in f:
                    fields = line.split()
                    if fields[3] == "0A" and int(fields[1].split(":")[1], 16) == port:
                        yield fields[9]
        except (FileNotFoundError, ProcessLookupError):
            return

    def is_listening(self, port):
        """True once the daemon itself holds a listening socket on port."""
        inodes = set(self._listening_inode(port))
        if not inodes:
            return False
        try:
            for fd in os.listdir(f"/proc/{self.pid}/fd"):
                try:
                    link = os.readlink(f"/proc/{self.pid}/fd/{fd}")
                except OSError:
                    continue
                if link.startswith("socket:[") and link[8:-1] in inodes:
                    return True
        except OSError:
            pass
        return False

    def wait_listening(self, port, timeout=15):
        def ready():
            if not self.alive():
                raise AssertionError(f"daemon exited with status {self.proc.returncode} "
                                     f"during start-up; stderr:\n{self.stderr()[-4000:]}")
            return self.is_listening(port)
        try:
            wait_until(ready, timeout, f"the daemon to listen on port {port}")
        except AssertionError as e:
            if "timed out" in str(e):
                raise AssertionError(f"{e}; stderr tail:\n{self.stderr()[-3000:]}") from None
            raise

    def fd_count(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def quiet_fd_count(self, samples=5):
        """The descriptor count without transient ones (a retrying scanner
        client opens and closes a socket now and then): the least of a few
        readings."""
        counts = []
        for _ in range(samples):
            counts.append(self.fd_count())
            time.sleep(0.01)
        return min(counts)

    def wait_fds_at_most(self, limit, timeout=30):
        """Waits until the daemon holds no more than limit descriptors."""
        wait_until(lambda: self.fd_count() <= limit, timeout,
                   f"the daemon's descriptors to return to {limit} (now {self.fd_count()})",
                   step=0.05)

    def rss_kib(self):
        with open(f"/proc/{self.pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def signal(self, sig):
        if self.alive():
            os.kill(self.pid, sig)

    def wait(self, timeout=15):
        """Waits for the daemon to end; returns its exit status (negative: signal)."""
        try:
            self.returncode = self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"daemon did not exit within {timeout}s") from None
        return self.returncode

    def stop(self, timeout=15):
        """SIGTERM, then SIGKILL if it does not end in time; returns the exit status."""
        if self.alive():
            os.kill(self.pid, signal.SIGTERM)
            try:
                self.returncode = self.proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                os.kill(self.pid, signal.SIGKILL)
                self.proc.wait(timeout=timeout)
                self.returncode = "killed"
        else:
            self.returncode = self.proc.returncode
        return self.returncode


class SmtpClient:
    """A raw SMTP client that hands back replies byte for byte, CR LF included."""

    def __init__(self, sock, timeout=5.0):
        self.sock = sock
        self.timeout = timeout
        self.buf = b""
        self.eof = False

    def fileno(self):
        return self.sock.fileno()

    def send(self, data):
        if isinstance(data, str):
            data = data.encode()
        self.sock.sendall(data)

    def cmd(self, line, timeout=None):
        """Sends one command line with CR LF appended and returns its reply."""
        self.send((line.encode() if isinstance(line, str) else line) + b"\r\n")
        return self.read_reply(timeout)

    def _fill(self, deadline):
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            return False
        self.sock.settimeout(remaining)
        try:
            chunk = self.sock.recv(65536)
        except socket.timeout:
            return False
        except ConnectionResetError:
            chunk = b""
        if not chunk:
            self.eof = True
            return False
        self.buf += chunk
        return True

    def read_line(self, timeout=None):
        deadline = time.monotonic() + (timeout or self.timeout)
        while b"\n" not in self.buf:
            if self.eof or not self._fill(deadline):
                what = "connection closed" if self.eof else "timed out"
                raise AssertionError(f"{what} waiting for a reply line; got {self.buf!r}")
        i = self.buf.index(b"\n") + 1
        line, self.buf = self.buf[:i], self.buf[i:]
        return line

    def read_reply(self, timeout=None):
        """One complete reply; continuation lines (code and '-') are included."""
        reply = b""
        while True:
            line = self.read_line(timeout)
            reply += line
            if not (len(line) > 3 and line[3:4] == b"-"):
                return reply

    def read_until_closed(self, timeout=None):
        """Everything up to the peer's close; fails if it is not closed in time."""
        deadline = time.monotonic() + (timeout or self.timeout)
        while not self.eof:
            if not self._fill(deadline) and not self.eof:
                raise AssertionError(f"connection still open after the timeout; got {self.buf!r}")
        data, self.buf = self.buf, b""
        return data

    def close(self):
        try:
            self.sock.close()
        except OSError:
            pass


class BackendSession:
    def __init__(self, peer):
        self.peer = peer
        self.lines = []      # every command line received, CR LF included
        self.messages = []   # message bodies received after DATA, without the final dot
        self.closed = False


class FakeBackend:
    """A scriptable SMTP server standing in for the real mail server.

    replies maps a verb ("EHLO", "MAIL", ...) to bytes, or to a callable
    taking the command line and returning bytes; "AUTH" maps to a list of
    replies given one per line of the AUTH dialogue; "DOT" is the reply to the
    end of a message; "UNKNOWN" answers anything else. A reply of None makes
    the server close the connection without answering; a greeting of None
    makes it close every connection at once.
    """

    DEFAULT_REPLIES = {
        "EHLO": b"250-backend.test\r\n250-PIPELINING\r\n250-SIZE 52428800\r\n"
                b"250-8BITMIME\r\n250 AUTH LOGIN PLAIN\r\n",
        "HELO": b"250 backend.test\r\n",
        "MAIL": b"250 2.1.0 Ok\r\n",
        "RCPT": b"250 2.1.5 Ok\r\n",
        "DATA": b"354 End data with <CR><LF>.<CR><LF>\r\n",
        "DOT": b"250 2.0.0 Ok: queued as FAKE1\r\n",
        "RSET": b"250 2.0.0 Ok\r\n",
        "NOOP": b"250 2.0.0 Ok\r\n",
        "QUIT": b"221 2.0.0 Bye\r\n",
        "AUTH": [b"334 VXNlcm5hbWU6\r\n", b"334 UGFzc3dvcmQ6\r\n",
                 b"235 2.7.0 Authentication successful\r\n"],
        "UNKNOWN": b"502 5.5.2 Error: command not recognized\r\n",
    }

    def __init__(self, make_socket, addr=BACKEND_ADDR, port=BACKEND_PORT,
                 greeting=b"220 backend.test ESMTP fake\r\n", replies=None, on_line=None):
        self.greeting = greeting
        self.on_line = on_line  # called as on_line(session, line) from the serving thread
        self.replies = dict(self.DEFAULT_REPLIES)
        self.replies.update(replies or {})
        self.sessions = []
        self.cond = threading.Condition()
        self._stop = False
        self._threads = []
        self._conns = []
        self.listener = make_socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind((addr, port))
        self.listener.listen(64)
        self._wake_r, self._wake_w = os.pipe()
        t = threading.Thread(target=self._accept_loop, daemon=True)
        t.start()
        self._threads.append(t)

    def _accept_loop(self):
        while True:
            r, _, _ = select.select([self.listener, self._wake_r], [], [])
            if self._stop or self._wake_r in r:
                return
            try:
                conn, peer = self.listener.accept()
            except OSError:
                continue
            session = BackendSession(peer)
            with self.cond:
                self.sessions.append(session)
                self._conns.append(conn)
                self.cond.notify_all()
            t = threading.Thread(target=self._serve, args=(conn, session), daemon=True)
            t.start()
            self._threads.append(t)

    def _reply(self, conn, reply, line):
        if callable(reply):
            reply = reply(line)
        if reply is None:
            return False
        conn.sendall(reply)
        return True

    def _serve(self, conn, session):
        f = conn.makefile("rb")
        auth_steps = []
        try:
            if self.greeting is None:
                return
            conn.sendall(self.greeting)
            while True:
                line = f.readline(10000)
                if not line:
                    break
                with self.cond:
                    session.lines.append(line)
                    self.cond.notify_all()
                if self.on_line:
                    self.on_line(session, line)
                if auth_steps:
                    if not self._reply(conn, auth_steps.pop(0), line):
                        break
                    continue
                verb = line[:4].decode("latin-1").upper()
                if verb == "AUTH":
                    auth_steps = list(self.replies["AUTH"])
                    if not self._reply(conn, auth_steps.pop(0), line):
                        break
                    continue
                reply = self.replies.get(verb, self.replies["UNKNOWN"])
                if not self._reply(conn, reply, line):
                    break
                if verb == "DATA" and reply is not None and (
                        callable(reply) or reply.startswith(b"354")):
                    body = b""
                    while True:
                        piece = f.readline(100000)
                        if not piece:
                            return
                        if piece == b".\r\n":
                            break
                        body += piece
                    with self.cond:
                        session.messages.append(body)
                        self.cond.notify_all()
                    if not self._reply(conn, self.replies["DOT"], b".\r\n"):
                        break
                if verb == "QUIT":
                    break
        except OSError:
            pass
        finally:
            with self.cond:
                session.closed = True
                self.cond.notify_all()
            f.close()
            conn.close()

    def wait_for(self, predicate, timeout=10, what="backend condition"):
        deadline = time.monotonic() + timeout
        with self.cond:
            while not predicate(self):
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError(f"timed out waiting for {what}")
                self.cond.wait(left)

    def stop(self):
        self._stop = True
        os.write(self._wake_w, b"x")
        with self.cond:
            conns = list(self._conns)
        for c in conns:
            try:
                c.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        for t in self._threads:
            t.join(timeout=5)
        self.listener.close()
        os.close(self._wake_r)
        os.close(self._wake_w)


class Bed:
    """A namespace, a private /var for the daemon, and the daemon and backend in it."""

    def __init__(self, listen_port=LISTEN_PORT, prefix="vge2e"):
        self.listen_port = listen_port
        self.root = Path(tempfile.mkdtemp(prefix=f"{prefix}-"))
        self.var = self.root / "var"
        self.etc = self.root / "etc"
        for d in ("run", "support", "lib/norvik", "av/scan", "spool/xmail/spool/temp",
                  "spool/xmail/spool/local", "tmp"):
            (self.var / d).mkdir(parents=True, exist_ok=True)
        self.etc.mkdir()
        self.daemon = None
        self.backend = None
        self._clients = []
        self.ns = None
        try:
            self.ns = NetNS(listen_port, prefix)
        except BaseException:
            shutil.rmtree(self.root, ignore_errors=True)
            raise

    def host_path(self, daemon_path):
        """Where a file the daemon sees under /var lives on the host."""
        p = Path(daemon_path)
        if p.parts[:2] != ("/", "var"):
            raise ValueError(f"{daemon_path} is not under /var")
        return self.var.joinpath(*p.parts[2:])

    def write_file(self, name, text):
        path = self.etc / name
        path.write_text(text)
        return str(path)

    def write_config(self, settings=None, scannerd=None):
        merged = dict(BED_SETTINGS)
        merged.update(settings or {})
        common = {k: v for k, v in merged.items() if k in SCANNERD_KEYS}
        common.update(scannerd or {})
        proxy = {k: v for k, v in merged.items() if k not in SCANNERD_KEYS}
        common_path, proxy_path = self.etc / "common.conf", self.etc / "vigild.conf"
        write_ini(common_path, {"scannerd": common})
        write_ini(proxy_path, {"vigild": proxy})
        return str(common_path), str(proxy_path)

    def start_daemon(self, settings=None, verbosity=("9",), extra_args=(), wait=True,
                     binary=None, raw_args=None, wrapper=()):
        """Starts vigild in the foreground and (by default) waits until it listens.

        settings override BED_SETTINGS (a value of None leaves the key out);
        raw_args, when given, replace the whole command line after the binary;
        wrapper is a command that execs the daemon in place (prlimit, setpriv).
        """
        assert self.daemon is None or not self.daemon.alive(), "one daemon per bed"
        common, proxy = self.write_config(settings)
        if raw_args is None:
            args = ["-d", "-e", "-s"]
            for v in verbosity:
                args += ["-v", v]
            args += ["-c", common, "-p", proxy] + list(extra_args)
        else:
            args = list(raw_args)
        n = sum(1 for _ in self.root.glob("daemon*.err"))
        self.daemon = Daemon(self, list(wrapper) + [str(binary or vigild_path())] + args,
                             self.root / f"daemon{n}.err", self.root / f"daemon{n}.out")
        if wait:
            self.daemon.wait_listening(self.listen_port)
        return self.daemon

    def start_backend(self, **kw):
        assert self.backend is None
        self.backend = FakeBackend(self.ns.socket, **kw)
        return self.backend

    def raw_connect(self, source=DEFAULT_SENDER, timeout=5.0):
        s = self.ns.socket()
        try:
            s.settimeout(timeout)
            s.bind((source, 0))
            s.connect((BACKEND_ADDR, BACKEND_PORT))
        except BaseException:
            s.close()
            raise
        return s

    def connect(self, source=DEFAULT_SENDER, timeout=5.0, greeting=True):
        """A client connected through the redirection; reads the greeting by default."""
        c = SmtpClient(self.raw_connect(source, timeout), timeout)
        self._clients.append(c)
        if greeting:
            c.greeting = c.read_reply()
        return c

    def close(self):
        errors = []
        for c in self._clients:
            c.close()
        self._clients = []
        for step in (lambda: self.daemon and self.daemon.stop(),
                     lambda: self.backend and self.backend.stop(),
                     lambda: self.ns and self.ns.close()):
            try:
                step()
            except Exception as e:  # keep cleaning up
                errors.append(e)
        if not os.environ.get("VIGILD_BED_KEEP"):
            shutil.rmtree(self.root, ignore_errors=True)
        if errors:
            raise errors[0]


class BedTestCase(unittest.TestCase):
    """Base class: skips when the bed cannot run and cleans up every bed it made."""

    maxDiff = None
    need_daemon = True

    def setUp(self):
        reason = unavailable_reason(self.need_daemon)
        if reason:
            self.skipTest(reason)

    def make_bed(self, **kw):
        bed = Bed(**kw)
        self.addCleanup(bed.close)
        return bed

    def start(self, settings=None, **kw):
        """A bed with a running daemon; returns the bed."""
        bed = self.make_bed()
        bed.start_daemon(settings, **kw)
        return bed


def _serve_backend(argv):
    """Runs a FakeBackend in the current network namespace until SIGTERM or SIGINT,
    printing every line it receives (used by scripts/demo.sh)."""
    import argparse
    import sys

    ap = argparse.ArgumentParser(prog="vigil_bed.py backend")
    ap.add_argument("--addr", default=BACKEND_ADDR)
    ap.add_argument("--port", type=int, default=BACKEND_PORT)
    args = ap.parse_args(argv)
    backend = FakeBackend(socket.socket, args.addr, args.port,
                          on_line=lambda session, line: print(
                              f"backend <- {session.peer[0]}: {line!r}", flush=True))
    print(f"fake backend listening on {args.addr}:{args.port}", flush=True)
    stop = threading.Event()
    for sig in (signal.SIGTERM, signal.SIGINT):
        signal.signal(sig, lambda *_: stop.set())
    stop.wait()
    backend.stop()
    print(f"fake backend stopped after {len(backend.sessions)} session(s)", flush=True)
    sys.exit(0)


if __name__ == "__main__":
    import sys

    if sys.argv[1:2] == ["backend"]:
        _serve_backend(sys.argv[2:])
    else:
        sys.exit("usage: vigil_bed.py backend [--addr A] [--port P]")
