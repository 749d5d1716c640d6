"""Hostile and broken senders: the daemon survives them and leaks no descriptors."""

import random
import re
import socket
import struct
import unittest

import vigil_bed as vb

REPLY_LINE = re.compile(rb"[2-5]\d\d[ -][^\r\n]*\r\n")


class RobustnessTestCase(vb.BedTestCase):
    def setUp(self):
        super().setUp()
        vb.raise_nofile(8192)
        self.bed = self.start(verbosity=("3",))
        self.d = self.bed.daemon
        # A full session first, so that whatever the daemon allocates once is
        # part of the baseline.
        c = self.bed.connect()
        self.assertEqual(c.cmd("QUIT"), b"221 Goodbye.\r\n")
        self.assertEqual(c.read_until_closed(), b"")
        self.baseline = self.d.quiet_fd_count()

    def assert_fds_back_to_baseline(self, timeout=30):
        self.d.wait_fds_at_most(self.baseline, timeout)

    def assert_still_serving(self):
        self.assertTrue(self.d.alive(), self.d.stderr()[-2000:])
        c = self.bed.connect()
        self.assertEqual(c.greeting, b"220 local.domain ESMTP\r\n")
        self.assertEqual(c.cmd("EHLO client.test")[:4], b"250-")
        self.assertEqual(c.cmd("NOOP"), b"250 OK\r\n")
        c.cmd("QUIT")
        c.close()


class GarbageTest(RobustnessTestCase):
    def send_ignoring_close(self, c, data):
        try:
            c.send(data)
        except (BrokenPipeError, ConnectionResetError):
            pass

    def test_binary_garbage_gets_error_replies_then_close(self):
        rng = random.Random(20240607)
        for round_ in range(5):
            c = self.bed.connect()
            garbage = bytes(rng.getrandbits(8) for _ in range(64 * 1024))
            self.send_ignoring_close(c, garbage)
            data = c.read_until_closed(timeout=10)
            replies = REPLY_LINE.findall(data)
            self.assertEqual(b"".join(replies), data, f"round {round_}: odd bytes {data!r}")
            for r in replies:
                self.assertIn(r, (b"500 Unknown command\r\n", b"500 Long line?\r\n"))
            c.close()
        self.assert_fds_back_to_baseline()
        self.assert_still_serving()

    def test_nul_bytes_in_commands(self):
        c = self.bed.connect()
        self.assertEqual(c.cmd(b"NO\0OP"), b"500 Unknown command\r\n")
        self.assertEqual(c.cmd(b"NOOP\0trailing"), b"250 OK\r\n")
        self.assertEqual(c.cmd(b"\0\0\0\0"), b"500 Unknown command\r\n")
        self.assertEqual(c.cmd(b"HELO a\0b"), b"250 local.domain ESMTP\r\n")
        self.assertEqual(c.cmd("NOOP"), b"250 OK\r\n")

    def test_high_bit_and_control_characters(self):
        c = self.bed.connect()
        self.assertEqual(c.cmd(b"\xff\xfe\xfd\xfc"), b"500 Unknown command\r\n")
        self.assertEqual(c.cmd(b"\x1b[2J"), b"500 Unknown command\r\n")
        self.assertEqual(c.cmd(b"VRFY \xe9\xe8"), b"252 Maybe\r\n")


class DisconnectTest(RobustnessTestCase):
    def test_disconnects_in_every_phase(self):
        cases = ["before greeting", "mid line", "mid line reset", "after pipelined batch",
                 "half close then full close"]
        for label in cases:
            with self.subTest(label):
                s = self.bed.raw_connect()
                if label == "before greeting":
                    s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                else:
                    c = vb.SmtpClient(s)
                    c.read_reply()
                    if label.startswith("mid line"):
                        c.send(b"MAIL FROM:<a@exa")
                        if label.endswith("reset"):
                            s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                         struct.pack("ii", 1, 0))
                    elif label == "after pipelined batch":
                        c.send(b"EHLO x\r\nNOOP\r\n" * 200)  # replies left unread
                    else:
                        c.send(b"NOOP\r\nHELP")
                        s.shutdown(socket.SHUT_WR)
                        c.read_reply()
                s.close()
                self.assert_fds_back_to_baseline()
        self.assert_still_serving()

    def test_thousands_of_connections_opened_and_dropped(self):
        # Batches of 50 held open together, so that the daemon's descriptor
        # numbers and connection records are reused in varying order.
        linger0 = struct.pack("ii", 1, 0)
        for batch in range(60):
            held = []
            for i in range(50):
                s = self.bed.raw_connect(f"10.9.{1 + i % 2}.{1 + batch}")
                if i % 4 == 0:  # gone before the daemon may even have accepted it
                    s.close()
                    continue
                c = vb.SmtpClient(s)
                self.assertEqual(c.read_reply(), b"220 local.domain ESMTP\r\n")
                held.append((i % 4, c))
            for kind, c in held:
                if kind == 1:
                    c.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger0)
                elif kind == 2:
                    c.send(b"RCPT TO:<partial")
                else:
                    c.send(b"QUIT\r\n")
                    self.assertEqual(c.read_until_closed(), b"221 Goodbye.\r\n")
                c.close()
        self.assert_fds_back_to_baseline()
        self.assert_still_serving()

if __name__ == "__main__":
    unittest.main()
