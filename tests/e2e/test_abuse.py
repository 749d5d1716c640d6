"""Hostile peers cost their bounds and no more: a sender that never reads, a sender on the proxy's
own port, a backend that stops reading, addresses that would add a line to a command."""

import socket
import threading

import vigil_bed as vb

OK, NO_SCANNERS = b"250 OK\r\n", {"as_connections": "0", "use_scanner": "0"}


class StalledBackend(vb.FakeServer):
    """Greets and answers the envelope, then stops reading once it has said 354 to DATA."""

    def __init__(self, make_socket):
        self.stalled = threading.Event()
        listener = make_socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((vb.BACKEND_ADDR, vb.BACKEND_PORT))
        super().__init__(listener)

    def _serve(self, conn):
        with conn, conn.makefile("rb") as f:
            try:
                conn.sendall(b"220 stalled.test\r\n")
                while line := f.readline(1000):
                    conn.sendall(b"354 go\r\n" if line.startswith(b"DATA") else b"250 ok\r\n")
                    if line.startswith(b"DATA"):
                        self.stalled.set()
                        conn.recv(0)  # keeps the socket; reads nothing more
                        threading.Event().wait(120)
            except OSError:
                pass


class AbuseTest(vb.BedTestCase):
    def test_flooding_sender_is_bounded_and_others_are_served(self):
        bed = self.start(dict(NO_SCANNERS, listen_backlog="64"), verbosity=("3",))
        bed.start_backend()
        d = bed.daemon
        base = d.rss_kib()
        flood = bed.raw_connect()
        flood.settimeout(2)
        sent, chunk = 0, b"NOOP\r\n" * 10000
        try:  # until 20 MB are out or the daemon stops taking them
            while sent < 20 << 20:
                flood.sendall(chunk)
                sent += len(chunk)
        except socket.timeout:
            pass
        for i in range(3):  # another sender is served meanwhile, session after session
            c = bed.connect(f"127.0.2.{20 + i}")
            vb.dialogue(self, c, [(b"HELO other.test", b"250 local.domain ESMTP\r\n"),
                                  (b"MAIL FROM:<a@x.test>", OK), (b"RCPT TO:<b@x.test>", OK),
                                  (b"RSET", OK), (b"QUIT", b"221 Goodbye.\r\n")])
        self.assertLess(d.rss_kib() - base, 16 << 10)
        flood.close()
        self.assertTrue(d.alive())

    def test_own_port_stalled_backend_and_control_characters(self):
        bed = self.start(dict(NO_SCANNERS, idle_timeout="30"))
        # Straight to the listening port: no mail server behind it but ourselves.
        s = bed.ns.socket()
        s.settimeout(5)
        s.bind((vb.DEFAULT_SENDER, 0))
        s.connect(("127.0.0.1", vb.LISTEN_PORT))
        direct = vb.SmtpClient(s)
        self.assertEqual(direct.read_until_closed(), b"554 Mail loop detected\r\n")
        bed.daemon.wait_log("Mail loop detected. Closing connection")
        s.close()
        backend = StalledBackend(bed.ns.socket)
        self.addCleanup(backend.stop)
        self.assertEqual(backend.conns, [])  # the loop never reached a backend
        c = bed.connect()
        vb.dialogue(self, c, [
            (b"HELO client.test", b"250 local.domain ESMTP\r\n"),
            (b'MAIL FROM:<"a\rb"@x.test>', b"501 Invalid address\r\n"),
            (b'MAIL FROM:<"a\0b"@x.test>', b"501 Invalid address\r\n"),
            (b"MAIL FROM:<a@x.test>", OK),
            (b'RCPT TO:<"c\rRSET"@x.test>', b"501 Invalid address\r\n"),
            (b"RCPT TO:<b@x.test>", OK),
            (b"DATA", b"354 Send it to me, end with <CRLF>.<CRLF>\r\n")])
        # Far more than the socket buffers hold: the backend's silence stops the relay.
        c.send(b"Subject: stall\r\n\r\n" + (b"y" * 998 + b"\r\n") * 20000 + b".\r\n")
        self.assertEqual(c.read_reply(timeout=30 + 30), b"451 Internal Error\r\n")
        self.assertTrue(backend.stalled.is_set())
        bed.daemon.wait_log("Backend timeout. backend=127.0.0.2(25)")
        self.assertEqual(c.cmd("NOOP"), OK)  # the sender is served again
