r"""Fake anti-spam service and virus scanner on Unix stream sockets, speaking the daemon's protocol.

script gives the verdict for each request line (str, no "\n"): a function of the line, or a dict
whose first key found in the line wins; None is clean, SILENT never answers, bytes
go out as they are (a malformed reply, a wrong key); a script function may sleep first.
Request lines are kept in .requests, the virus scanner's hellos in .hellos.
"""

import os
import socket

from vigil_bed import FakeServer

SILENT = "silent"


class _FakeScanner(FakeServer):
    def __init__(self, path, script=None):
        self.path, self.script, self.requests = str(path), script, []
        if os.path.lexists(self.path):
            os.unlink(self.path)
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(self.path)
        super().__init__(listener)

    def stop(self):  # the path goes too
        super().stop()
        if os.path.lexists(self.path):
            os.unlink(self.path)

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
                        raw = isinstance(verdict, bytes)
                        conn.sendall(verdict if raw else self._reply(line, verdict or 0))
            except OSError:
                pass

    def _greet(self, f, conn):
        return True


class FakeAntiSpam(_FakeScanner):
    def _reply(self, line, verdict):  # to "file id size[ sender]": key, the file's last 6 chars
        return b"%d %s\n" % (verdict, line.split(b" ", 1)[0][-6:])


class FakeVirusScanner(_FakeScanner):
    def __init__(self, path, script=None):
        self.hellos = []
        super().__init__(path, script)

    def _greet(self, f, conn):  # "0\tPROXY\tsmtp\n", then "num\ttype\tfile\tfrom\tto\tid\n" lines
        if hello := f.readline(65536):
            self._note(self.hellos, hello)
            conn.sendall(b"0 0\n")
        return bool(hello)

    def _reply(self, line, verdict):
        return b"%s %#x\n" % (line.split(b"\t", 1)[0], verdict)
