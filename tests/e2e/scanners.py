"""Fake anti-spam service and virus scanner for the end-to-end tests.

Both listen on a Unix stream socket at a host path (for a bed:
bed.host_path("/var/lib/norvik/as.sock")) and speak the daemon's protocols:
anti-spam "file id size[ sender]\\n" answered "result key\\n" (key: the file
name's last 6 characters); virus scanner hello "0\\tPROXY\\tsmtp\\n" answered
"0 0\\n", then "num\\ttype\\tfile\\tfrom\\tto\\tid\\n" answered "num 0xresult[ name]\\n".

`script` picks the answer per request: a function of the request line (str,
without "\\n"), or a dict whose first key found in the line wins. It gives None
(clean, 0, at once), an int (that verdict) or an Action. Every request line is
recorded byte for byte in `requests` (hellos in FakeVirusScanner.hellos).
"""

import os
import socket
import threading
import time


class Action:
    """verdict; delay in seconds (later requests may overtake); raw bytes sent
    instead of the reply; key: a wrong anti-spam key; name: the virus name;
    close: close the connection unanswered; silent: never answer."""

    def __init__(self, verdict=0, delay=0.0, raw=None, key=None, name=None, close=False,
                 silent=False):
        self.verdict, self.delay, self.raw, self.key = verdict, delay, raw, key
        self.name, self.close, self.silent = name, close, silent


class _FakeServer:
    def __init__(self, path, script=None, start=True):
        self.path = str(path)
        self.script = script
        self.requests = []     # every request line received, "\n" included
        self.connections = 0   # accepted so far
        self.cond = threading.Condition()
        self._listener = None
        self._conns = []
        if start:
            self.start()

    def start(self):
        """Listens (again) on the path."""
        if os.path.lexists(self.path):
            os.unlink(self.path)
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.bind(self.path)
        s.listen(64)
        self._listener = s
        threading.Thread(target=self._accept_loop, args=(s,), daemon=True).start()

    def stop(self, refuse=False):
        """Closes the listener and every connection. The path is removed, or with
        refuse=True left behind so that connects are refused (ECONNREFUSED)."""
        s, self._listener = self._listener, None
        if s is not None:
            s.shutdown(socket.SHUT_RDWR)  # wakes the accept loop
            s.close()
        if not refuse and os.path.lexists(self.path):
            os.unlink(self.path)
        with self.cond:
            conns, self._conns = self._conns, []
        for c in conns:
            try:
                c.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def wait_for(self, predicate, timeout=10, what="scanner condition"):
        deadline = time.monotonic() + timeout
        with self.cond:
            while not predicate(self):
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError(f"timed out waiting for {what}")
                self.cond.wait(left)

    def wait_requests(self, n, timeout=10):
        self.wait_for(lambda s: len(s.requests) >= n, timeout, f"{n} scan requests")

    def _accept_loop(self, listener):
        while True:
            try:
                conn, _ = listener.accept()
            except OSError:
                return
            with self.cond:
                self.connections += 1
                self._conns.append(conn)
                self.cond.notify_all()
            threading.Thread(target=self._serve, args=(conn,), daemon=True).start()

    def _action(self, line):
        text = line.decode("latin-1").rstrip("\n")
        if callable(self.script):
            a = self.script(text)
        else:
            a = next((v for k, v in (self.script or {}).items() if k in text), None)
        return Action(a) if isinstance(a, int) else (a or Action())

    def _serve(self, conn):
        f = conn.makefile("rb")
        lock = threading.Lock()

        def send(data):
            with lock:
                try:
                    conn.sendall(data)
                except OSError:
                    pass
        try:
            if self._greet(f, send):
                for line in iter(lambda: f.readline(65536), b""):
                    with self.cond:
                        self.requests.append(line)
                        self.cond.notify_all()
                    a = self._action(line)
                    if a.close:
                        break
                    if a.silent:
                        continue
                    data = a.raw if a.raw is not None else self._reply(line, a)
                    if a.delay:
                        threading.Timer(a.delay, send, (data,)).start()
                    else:
                        send(data)
        except OSError:
            pass
        finally:
            f.close()
            conn.close()

    def _greet(self, f, send):
        return True


class FakeAntiSpam(_FakeServer):
    def _reply(self, line, a):
        name = line.split(b" ", 1)[0]
        key = a.key.encode() if a.key is not None else name[-6:]
        return b"%d %s\n" % (a.verdict, key)


class FakeVirusScanner(_FakeServer):
    def __init__(self, path, script=None, start=True, hello_reply=b"0 0\n"):
        self.hellos = []  # every hello line received, "\n" included
        self.hello_reply = hello_reply
        super().__init__(path, script, start)

    def _greet(self, f, send):
        hello = f.readline(65536)
        if not hello:
            return False
        with self.cond:
            self.hellos.append(hello)
            self.cond.notify_all()
        send(self.hello_reply)
        return True

    def _reply(self, line, a):
        num = line.split(b"\t", 1)[0]
        name = b" " + a.name.encode() if a.name else b""
        return b"%s %#x%s\n" % (num, a.verdict, name)


def main(argv):
    """scanners.py AS_PATH VS_PATH [WORD=VERDICT ...]: both fakes until SIGTERM,
    printing every request; an anti-spam request holding WORD gets VERDICT."""
    import signal
    verdicts = {w: int(v, 0) for w, v in (a.split("=", 1) for a in argv[2:])}

    def spam(line):
        print("anti-spam request:", line, flush=True)
        return next((v for w, v in verdicts.items() if w in line), None)

    def virus(line):
        print("virus scan request:", line.replace("\t", " | "), flush=True)

    fakes = [FakeAntiSpam(argv[0], spam), FakeVirusScanner(argv[1], virus)]
    signal.signal(signal.SIGTERM, lambda *_: None)
    signal.pause()
    for fake in fakes:
        fake.stop()


if __name__ == "__main__":
    import sys
    main(sys.argv[1:])
