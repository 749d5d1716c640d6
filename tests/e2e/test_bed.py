"""Checks of the test bed itself, with a small stand-in server in place of vigild.

When these fail, the failures of the other end-to-end tests say nothing about
the daemon.
"""

import os
import unittest

import vigil_bed as vb

# Listens where vigild would, answers each client with what SO_ORIGINAL_DST
# and getpeername say, then opens its own connection to that original
# destination (as the proxy does for its relay) and passes the backend's
# greeting on. It also writes a file into /var to prove the private /var.
STANDIN = r"""
import socket, struct, sys
open("/var/support/standin.txt", "w").write("hello from the namespace\n")
ls = socket.socket()
ls.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
ls.bind(("0.0.0.0", int(sys.argv[1])))
ls.listen(5)
while True:
    c, peer = ls.accept()
    raw = c.getsockopt(socket.SOL_IP, 80, 16)  # SO_ORIGINAL_DST
    port, addr = struct.unpack("!2xH4s8x", raw)
    dst = socket.inet_ntoa(addr)
    c.sendall(f"220 {dst}:{port} {peer[0]}\r\n".encode())
    if c.recv(100).startswith(b"RELAY"):
        b = socket.create_connection((dst, port), timeout=5)
        c.sendall(b.makefile("rb").readline())
        b.close()
    c.close()
"""


class BedTest(vb.BedTestCase):
    need_daemon = False

    def setUp(self):
        super().setUp()
        self.bed = self.make_bed()
        self.standin = self.bed.start_daemon(
            binary="/usr/bin/python3", raw_args=["-c", STANDIN, str(vb.LISTEN_PORT)])

    def test_redirected_socket_reports_backend_as_original_destination(self):
        c = self.bed.connect(vb.OUTSIDE_SENDER)
        self.assertEqual(c.greeting, b"220 10.9.0.1:25 10.9.2.10\r\n")

    def test_private_var_is_visible_to_the_test(self):
        path = self.bed.host_path("/var/support/standin.txt")
        vb.wait_until(path.exists, 5, "the stand-in's file")
        self.assertEqual(path.read_text(), "hello from the namespace\n")
        self.assertFalse(os.path.exists("/var/support/standin.txt"))

    def test_proxy_side_connection_reaches_the_backend_not_the_proxy(self):
        backend = self.bed.start_backend(greeting=b"220 the real backend\r\n")
        c = self.bed.connect()
        c.send(b"RELAY\r\n")
        self.assertEqual(c.read_reply(), b"220 the real backend\r\n")
        backend.wait_for(lambda b: len(b.sessions) == 1, what="one backend session")
        self.assertEqual(backend.sessions[0].peer[0], vb.BACKEND_ADDR)

    def test_fake_backend_answers_a_relay_dialogue(self):
        backend = self.bed.start_backend()
        s = self.bed.ns.socket()
        s.settimeout(5)
        s.connect((vb.BACKEND_ADDR, vb.BACKEND_PORT))  # unbound: not redirected
        c = vb.SmtpClient(s)
        self.addCleanup(c.close)
        self.assertEqual(c.read_reply(), b"220 backend.test ESMTP fake\r\n")
        self.assertTrue(c.cmd("EHLO proxy").endswith(b"250 AUTH LOGIN PLAIN\r\n"))
        self.assertEqual(c.cmd("MAIL FROM:<a@example.com>"), b"250 2.1.0 Ok\r\n")
        self.assertEqual(c.cmd("RCPT TO:<b@example.com>"), b"250 2.1.5 Ok\r\n")
        self.assertEqual(c.cmd("DATA")[:3], b"354")
        c.send(b"Subject: hi\r\n\r\nbody\r\n.\r\n")
        self.assertEqual(c.read_reply(), b"250 2.0.0 Ok: queued as FAKE1\r\n")
        self.assertEqual(c.cmd("QUIT"), b"221 2.0.0 Bye\r\n")
        self.assertEqual(c.read_until_closed(), b"")
        backend.wait_for(lambda b: b.sessions[0].closed, what="backend session end")
        self.assertEqual(backend.sessions[0].messages, [b"Subject: hi\r\n\r\nbody\r\n"])
        self.assertEqual(backend.sessions[0].lines[0], b"EHLO proxy\r\n")

    def test_stopping_ends_the_process(self):
        self.standin.stop()
        self.assertFalse(self.standin.alive())
        self.assertEqual(self.standin.returncode, -15)


if __name__ == "__main__":
    unittest.main()
