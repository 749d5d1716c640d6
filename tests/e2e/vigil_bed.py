"""Runs the real vigild in a loopback-only network namespace: clients bind 127.0.1.0/24 or
127.0.2.0/24 and connect to the backend, 127.0.0.2:25; iptables REDIRECTs them to the proxy, which
connects there itself. The daemon runs under unshare -m with <bed root>/var bound over /var."""

import ctypes, itertools, os, resource, shutil, signal, socket, subprocess  # noqa: E401
import tempfile, threading, time, types, unittest  # noqa: E401
from pathlib import Path

BACKEND_ADDR, BACKEND_PORT, LISTEN_PORT = "127.0.0.2", 25, 2525
DEFAULT_SENDER, OUTSIDE_SENDER = "127.0.1.10", "127.0.2.10"
SCANNERD_KEYS = {"scan_dir", "spam_tag", "spam_plus_tag", "scanner_addr"}  # the common file's
# Stay root (the default user would only warn), connect plainly (this kernel has no
# transparent-proxy option), listen where the NAT rule points.
BED_SETTINGS = {"listen_port": str(LISTEN_PORT), "address_transparent": "0", "user": "root",
                "group": "root"}
_libc = ctypes.CDLL(None, use_errno=True)
_setns_lock, _ns_counter = threading.Lock(), itertools.count()


def vigild_path():
    default = Path(__file__).parents[2] / "build/vigild"
    return Path(os.environ.get("VIGILD_BIN") or default).resolve()


def unavailable_reason():
    if os.geteuid() != 0:
        return "end-to-end tests need root (network and mount namespaces)"
    for tool in ("/usr/sbin/ip", "/usr/sbin/iptables", "/usr/bin/unshare", vigild_path()):
        if not os.access(tool, os.X_OK):
            return f"{tool} is missing (see scripts/deps.sh; VIGILD_BIN names the daemon)"


def wait_until(predicate, timeout, what):  # returns predicate's true value
    deadline = time.monotonic() + timeout
    while not (value := predicate()):
        if time.monotonic() >= deadline:
            raise AssertionError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(0.01)
    return value


def raise_nofile(wanted):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, wanted), max(hard, wanted)))


def dialogue(test, client, steps):  # sends each line (CR LF added unless it ends in LF)
    for line, reply in steps:
        with test.subTest(line=line[:50]):
            client.send(line if line.endswith(b"\n") else line + b"\r\n")
            test.assertEqual(client.read_reply(), reply)


def _run(cmd):
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=20)
    if r.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)} failed ({r.returncode}): {r.stderr.strip()}")


class NetNS:
    def __init__(self, prefix):
        self.name = f"{prefix}-{os.getpid()}-{next(_ns_counter)}"
        _run(["ip", "netns", "add", self.name])
        self._fd = os.open(f"/run/netns/{self.name}", os.O_RDONLY)
        try:
            self.exec(["ip", "link", "set", "lo", "up"])
            # The whole of 127.0.0.0/8 is local on lo: no addresses to add.
            for net in ("127.0.1.0/24", "127.0.2.0/24"):
                self.exec(["iptables", "-t", "nat", "-A", "OUTPUT", "-p", "tcp", "-s", net, "-d",
                           BACKEND_ADDR, "--dport", str(BACKEND_PORT), "-j", "REDIRECT",
                           "--to-ports", str(LISTEN_PORT)])
        except BaseException:
            self.close()
            raise

    def command(self, cmd):
        return ["ip", "netns", "exec", self.name] + list(cmd)

    def exec(self, cmd):
        _run(self.command(cmd))

    def socket(self):  # a TCP socket made while in the namespace
        with _setns_lock:
            own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
            try:
                if _libc.setns(self._fd, 0x40000000) != 0:  # CLONE_NEWNET
                    raise OSError(ctypes.get_errno(), "setns failed")
                return socket.socket()
            finally:
                _libc.setns(own, 0x40000000)
                os.close(own)

    def close(self):  # addresses and iptables rules die with the namespace
        os.close(self._fd)
        subprocess.run(["ip", "netns", "del", self.name], capture_output=True, timeout=20)


class Daemon:
    """Started by Bed.start_daemon; pid is the program's own (ip, unshare and sh exec)."""

    def __init__(self, bed, argv, scan_tmpfs=None):
        self.err_path = bed.root / f"daemon{len(list(bed.root.glob('*.err')))}.err"
        script = 'mount --bind "$1" /var && shift && '
        if scan_tmpfs:  # a scan directory of that size ("64k") that only the daemon sees
            script += f"mount -t tmpfs -o size={scan_tmpfs} vigild-scan /var/av/scan && "
        script += 'exec "$@"'
        with open(self.err_path, "wb") as err:  # standard output too: the daemon writes none
            self.proc = subprocess.Popen(bed.ns.command(
                ["unshare", "-m", "--propagation", "private", "sh", "-c", script, "vigild-bed",
                 str(bed.var)] + argv), stdin=subprocess.DEVNULL, stdout=err, stderr=err)
        self.pid = self.proc.pid

    def alive(self):
        return self.proc.poll() is None

    def stderr(self):
        return self.err_path.read_text(errors="replace")

    def own_path(self, daemon_path):  # a file as the daemon sees it, its own mounts included
        return Path(f"/proc/{self.pid}/root{daemon_path}")

    def _wait(self, done, what, timeout):
        def ready():
            if not (finished := done()) and not self.alive() and not done():
                raise AssertionError(f"daemon exited ({self.proc.returncode}) before {what}")
            return finished
        try:
            wait_until(ready, timeout, what)
        except AssertionError as e:
            raise AssertionError(f"{e}; stderr tail:\n{self.stderr()[-3000:]}") from None

    def wait_log(self, text, timeout=10, count=1):  # text appears count times in stderr
        self._wait(lambda: self.stderr().count(text) >= count, f"log line {text!r}", timeout)

    def wait_listening(self, port, timeout=15):
        def listening():  # a listener on port that the daemon itself holds
            try:
                table = Path(f"/proc/{self.pid}/net/tcp").read_text()
                rows = [r.split() for r in table.splitlines()]
                inodes = {f"socket:[{r[9]}]" for r in rows if r[3] == "0A" and
                          r[1].endswith(f":{port:04X}")}
                return any(os.readlink(f"/proc/{self.pid}/fd/{fd}") in inodes
                           for fd in os.listdir(f"/proc/{self.pid}/fd"))
            except OSError:
                return False
        self._wait(listening, f"listening on port {port}", timeout)

    def fd_count(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def quiet_fd_count(self):  # least of 5 readings: without descriptors that come and go
        return min(time.sleep(0.01) or self.fd_count() for _ in range(5))

    def rss_kib(self):
        return int(Path(f"/proc/{self.pid}/status").read_text().split("VmRSS:")[1].split()[0])

    def signal(self, sig):
        if self.alive():
            os.kill(self.pid, sig)

    def wait(self, timeout=15, kill=False):  # the exit status (negative: the ending signal)
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            if not kill:
                raise AssertionError(f"daemon did not exit within {timeout}s") from None
            self.proc.kill()
            return self.proc.wait(timeout)

    def stop(self, timeout=15):  # SIGTERM, SIGKILL if it does not end in time
        self.signal(signal.SIGTERM)
        return self.wait(timeout, kill=True)


class SmtpClient:
    """A raw SMTP client; replies come back byte for byte, CR LF included."""

    def __init__(self, sock):
        self.sock, self.timeout, self.buf, self.eof, self.greeting = sock, 5.0, b"", False, None

    def send(self, data):
        self.sock.sendall(data.encode() if isinstance(data, str) else data)

    def cmd(self, line):  # one line, CR LF appended; returns the reply
        self.send((line.encode() if isinstance(line, str) else line) + b"\r\n")
        return self.read_reply()

    def _fill(self, deadline):  # False on time-out or end of stream
        self.sock.settimeout(max(deadline - time.monotonic(), 0.001))
        try:
            chunk = self.sock.recv(65536)
        except socket.timeout:
            return False
        except ConnectionResetError:
            chunk = b""
        self.buf, self.eof = self.buf + chunk, not chunk
        return bool(chunk)

    def read_reply(self, timeout=None):  # continuation lines ("250-...") included
        deadline, reply = time.monotonic() + (timeout or self.timeout), b""
        while True:
            while b"\n" not in self.buf:
                if self.eof or not self._fill(deadline):
                    raise AssertionError(f"{'closed' if self.eof else 'timed out'} waiting for a "
                                         f"reply; got {reply + self.buf!r}")
            line, _, self.buf = self.buf.partition(b"\n")
            reply += line + b"\n"
            if line[3:4] != b"-":
                return reply

    def read_until_closed(self, timeout=None):  # everything up to the peer's close
        deadline = time.monotonic() + (timeout or self.timeout)
        while not self.eof:
            if not self._fill(deadline) and not self.eof:
                raise AssertionError(f"connection still open after the timeout; got {self.buf!r}")
        data, self.buf = self.buf, b""
        return data

    def close(self):
        self.sock.close()


class FakeServer:
    """A listener with a thread per connection; wait_for waits on what the threads record."""

    def __init__(self, sock):  # bound, not yet listening
        self.listener, self.conns, self._threads, self.cond = sock, [], [], threading.Condition()
        sock.listen(64)
        self._start(self._accept_loop)

    def _start(self, target, *args):
        self._threads.append(threading.Thread(target=target, args=args, daemon=True))
        self._threads[-1].start()

    def _note(self, items, item):
        with self.cond:
            items.append(item)
            self.cond.notify_all()

    def _accept_loop(self):
        while True:
            try:
                conn, _ = self.listener.accept()
            except OSError:  # stop() shut the listener down
                return
            self._note(self.conns, conn)
            self._start(self._serve, conn)

    def wait_for(self, predicate, timeout=10, what="the fake server"):
        with self.cond:
            if not self.cond.wait_for(lambda: predicate(self), timeout):
                raise AssertionError(f"timed out waiting for {what}")

    def stop(self):
        for s in [self.listener] + self.conns:  # wakes the accept loop and every reader
            try:
                s.shutdown(socket.SHUT_RDWR)
            except OSError:  # already closed by its serving thread
                pass
        for t in list(self._threads):
            t.join(timeout=5)
        self.listener.close()


class FakeBackend(FakeServer):
    """The mail server behind the proxy. replies: verb -> bytes, a function of the line, or None
    (close unanswered); "AUTH" a list, one per line; "DOT" ends a message, "UNKNOWN" the rest.
    .sessions: each has .lines (CR LF kept), .messages (without the final dot), .closed."""

    DEFAULT_REPLIES = {
        "EHLO": b"250-backend.test\r\n250-PIPELINING\r\n250-SIZE 52428800\r\n"
                b"250-8BITMIME\r\n250 AUTH LOGIN PLAIN\r\n",
        "HELO": b"250 backend.test\r\n", "MAIL": b"250 2.1.0 Ok\r\n", "RCPT": b"250 2.1.5 Ok\r\n",
        "DATA": b"354 End data with <CR><LF>.<CR><LF>\r\n", "RSET": b"250 2.0.0 Ok\r\n",
        "DOT": b"250 2.0.0 Ok: queued as FAKE1\r\n", "NOOP": b"250 2.0.0 Ok\r\n",
        "QUIT": b"221 2.0.0 Bye\r\n", "UNKNOWN": b"502 5.5.2 Error: command not recognized\r\n",
    }

    def __init__(self, make_socket, greeting=b"220 backend.test ESMTP fake\r\n", replies=None):
        self.greeting, self.sessions = greeting, []
        self.replies = {**self.DEFAULT_REPLIES, **(replies or {})}
        listener = make_socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((BACKEND_ADDR, BACKEND_PORT))
        super().__init__(listener)

    def _serve(self, conn):
        session = types.SimpleNamespace(lines=[], messages=[], closed=False,
                                        peer=conn.getpeername()[0])
        self._note(self.sessions, session)  # listed before it can answer anything
        f, auth_steps = conn.makefile("rb"), []
        try:
            if self.greeting is None:  # a backend that hangs up at once
                return
            conn.sendall(self.greeting)
            while line := f.readline(100000):
                self._note(session.lines, line)
                verb = line[:4].decode("latin-1").upper()
                if not auth_steps and verb == "AUTH":
                    auth_steps = list(self.replies.get("AUTH", ()))
                reply = auth_steps.pop(0) if auth_steps else self.replies.get(
                    verb, self.replies["UNKNOWN"])
                if (reply := reply(line) if callable(reply) else reply) is None:
                    break
                conn.sendall(reply)
                if verb == "DATA" and reply.startswith(b"354"):
                    body = b""
                    while (piece := f.readline(100000)) != b".\r\n":
                        if not piece:
                            return
                        body += piece
                    self._note(session.messages, body)
                    dot = self.replies["DOT"]
                    if (dot := dot(piece) if callable(dot) else dot) is None:
                        break
                    conn.sendall(dot)
                elif verb == "QUIT":
                    break
        except OSError:
            pass
        finally:
            f.close()
            conn.close()
            with self.cond:
                session.closed = True
                self.cond.notify_all()


class Bed:
    """A namespace, a private /var for the daemon, and the daemon and backend in it."""

    def __init__(self, prefix="vge2e"):
        self.daemon, self.backend, self._clients = None, None, []
        self.root = Path(tempfile.mkdtemp(prefix=f"{prefix}-"))
        self.var, self.etc = self.root / "var", self.root / "etc"
        for d in ("run", "support", "lib/norvik", "av/scan", "spool/xmail/spool/temp",
                  "spool/xmail/spool/local", "tmp"):
            (self.var / d).mkdir(parents=True)
        self.etc.mkdir()
        try:
            self.ns = NetNS(prefix)
        except BaseException:
            shutil.rmtree(self.root, ignore_errors=True)
            raise

    def host_path(self, daemon_path):  # where a file the daemon sees under /var is
        assert str(daemon_path).startswith("/var/"), daemon_path
        return self.var / str(daemon_path)[5:]

    def write_file(self, name, text):
        (self.etc / name).write_text(text)
        return str(self.etc / name)

    def write_config(self, settings=None):  # a value of None leaves a key out
        merged = {k: v for k, v in {**BED_SETTINGS, **(settings or {})}.items() if v is not None}
        common = {k: v for k, v in merged.items() if k in SCANNERD_KEYS}
        proxy = {k: v for k, v in merged.items() if k not in SCANNERD_KEYS}
        return tuple(self.write_file(name, f"[{section}]\n" + "".join(
            f"{k}={v}\n" for k, v in pairs.items())) for name, section, pairs in (
                ("common.conf", "scannerd", common), ("vigild.conf", "vigild", proxy)))

    def start_daemon(self, settings=None, verbosity=("9",), extra_args=(), wait=True,
                     raw_args=None, wrapper=(), scan_tmpfs=None):
        """raw_args replace the arguments; wrapper execs vigild in place (prlimit, setpriv)."""
        assert self.daemon is None or not self.daemon.alive(), "one daemon per bed"
        common, proxy = self.write_config(settings)
        args = raw_args if raw_args is not None else (
            ["-d", "-e", "-s"] + [a for v in verbosity for a in ("-v", v)] +
            ["-c", common, "-p", proxy] + list(extra_args))
        self.daemon = Daemon(self, list(wrapper) + [str(vigild_path())] + list(args), scan_tmpfs)
        if wait:
            self.daemon.wait_listening(LISTEN_PORT)
        return self.daemon

    def start_backend(self, **kw):  # one per bed
        self.backend = FakeBackend(self.ns.socket, **kw)
        return self.backend

    def raw_connect(self, source=DEFAULT_SENDER, dest=(BACKEND_ADDR, BACKEND_PORT)):
        s = self.ns.socket()
        try:
            s.settimeout(5.0)
            s.bind((source, 0))
            s.connect(dest)
            return s
        except BaseException:
            s.close()
            raise

    def connect(self, source=DEFAULT_SENDER, greeting=True, dest=(BACKEND_ADDR, BACKEND_PORT)):
        c = SmtpClient(self.raw_connect(source, dest))
        self._clients.append(c)
        c.greeting = c.read_reply() if greeting else None
        return c

    def close(self):
        for c in self._clients:
            c.close()
        try:
            for part in (self.daemon, self.backend):
                if part:
                    part.stop()
        finally:  # the namespace and the files go whatever happened
            self.ns.close()
            if not os.environ.get("VIGILD_BED_KEEP"):
                shutil.rmtree(self.root, ignore_errors=True)


class BedTestCase(unittest.TestCase):
    """Skips when the bed cannot run here; closes every bed it made."""
    maxDiff = None

    def setUp(self):
        if reason := unavailable_reason():
            self.skipTest(reason)

    def make_bed(self):
        bed = Bed()
        self.addCleanup(bed.close)
        return bed

    def start(self, settings=None, **kw):  # a bed with a running daemon
        bed = self.make_bed()
        bed.start_daemon(settings, **kw)
        return bed

