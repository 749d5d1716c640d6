"""Fake anti-spam service and virus scanner on Unix stream sockets, speaking the daemon's protocols.

anti-spam: "file id size[ sender]\\n" answered "verdict key\\n" (key: the file name's last 6
characters); virus scanner: hello "0\\tPROXY\\tsmtp\\n" answered "0 0\\n", then
"num\\ttype\\tfile\\tfrom\\tto\\tid\\n" answered "num 0xverdict\\n". script picks the verdict per
request line (str, no "\\n"): a function of the line, or a dict whose first key found in the line
wins; None is clean, SILENT never answers. Request lines are kept in .requests (hellos in .hellos).
"""

import os
import socket
import threading

SILENT = "silent"


class _FakeServer:
    def __init__(self, path, script=None):
        self.path, self.script, self.requests, self.connections = str(path), script, [], 0
        self.cond, self._conns = threading.Condition(), []
        if os.path.lexists(self.path):
            os.unlink(self.path)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self.path)
        self._listener.listen(64)
        threading.Thread(target=self._accept_loop, daemon=True).start()

    def stop(self):  # closes the listener and every connection, removes the path
        self._listener.shutdown(socket.SHUT_RDWR)  # wakes the accept loop
        self._listener.close()
        os.unlink(self.path)
        with self.cond:
            conns, self._conns = self._conns, []
        for c in conns:
            try:
                c.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def wait_for(self, predicate, timeout=10, what="scanner condition"):
        with self.cond:
            if not self.cond.wait_for(lambda: predicate(self), timeout):
                raise AssertionError(f"timed out waiting for {what}")

    def _note(self, items, item):
        with self.cond:
            items.append(item)
            self.cond.notify_all()

    def _accept_loop(self):
        while True:
            try:
                conn, _ = self._listener.accept()
            except OSError:
                return
            with self.cond:
                self.connections += 1
                self._conns.append(conn)
                self.cond.notify_all()
            threading.Thread(target=self._serve, args=(conn,), daemon=True).start()

    def _serve(self, conn):
        with conn, conn.makefile("rb") as f:
            try:
                if not self._greet(f, conn):
                    return
                for line in iter(lambda: f.readline(65536), b""):
                    self._note(self.requests, line)
                    text = line.decode("latin-1").rstrip("\n")
                    if callable(self.script):
                        verdict = self.script(text)
                    else:
                        verdict = next((v for k, v in (self.script or {}).items() if k in text),
                                       None)
                    if verdict != SILENT:
                        conn.sendall(self._reply(line, verdict or 0))
            except OSError:
                pass

    def _greet(self, f, conn):
        return True


class FakeAntiSpam(_FakeServer):
    def _reply(self, line, verdict):
        return b"%d %s\n" % (verdict, line.split(b" ", 1)[0][-6:])


class FakeVirusScanner(_FakeServer):
    def __init__(self, path, script=None):
        self.hellos = []
        super().__init__(path, script)

    def _greet(self, f, conn):
        if hello := f.readline(65536):
            self._note(self.hellos, hello)
            conn.sendall(b"0 0\n")
        return bool(hello)

    def _reply(self, line, verdict):
        return b"%s %#x\n" % (line.split(b"\t", 1)[0], verdict)
