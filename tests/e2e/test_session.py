"""The sender dialogue before the envelope: session commands, line framing, hostile bytes."""

import random
import re
import socket
import struct

import vigil_bed as vb

OK, LONG = b"250 OK\r\n", b"500 Long line?\r\n"
EHLO = (b"250-local.domain ESMTP\r\n250-VRFY\r\n250-8BITMIME\r\n250-SIZE 20971520\r\n"
        b"250-AUTH LOGIN\r\n250 OK\r\n")
HELO = b"250 local.domain ESMTP\r\n"
HELO_501, EHLO_501 = (b"501 %s requires a domain address\r\n" % v for v in (b"HELO", b"EHLO"))
NEED_MAIL = b"503 Need MAIL before RCPT\r\n"


class SessionTest(vb.BedTestCase):
    def test_one_session_walks_every_session_reply(self):
        bed = self.start({"max_errors": "20", "scan_dir": "/var/no/such/dir"})
        c = bed.connect(vb.OUTSIDE_SENDER)
        self.assertEqual(c.greeting, b"220 local.domain ESMTP\r\n")  # not the host's name
        vb.dialogue(self, c, [
            (b"NOOP whatever", OK), (b"nOoP", OK), (b"help MAIL", b"214 See RFC 2821\r\n"),
            (b"VRFY", b"252 Maybe\r\n"), (b"VRFY \xe9\xe8", b"252 Maybe\r\n"), (b"RSET", OK),
            (b"HELO", HELO_501), (b"HELO ", HELO_501), (b"HELO client.test\n", HELO_501),
            (b"EHLO", EHLO_501), (b"EHLO   ", EHLO_501),
            (b"MAIL FROM:<a@example.com>", b"553 Need EHLO before MAIL\r\n"),
            (b"HELO  client.test", HELO), (b"HELOX x", HELO), (b"helo a\0b", HELO),
            (b"EHLO\tclient.test", EHLO), (b"MAIL FROM:<a@example.com>", OK),
            (b"RCPT TO:<b@example.com>", OK), (b"DATA", b"451 Couldn't open temporary file\r\n"),
            (b"RCPT TO:<c@example.com>", OK),  # a refused DATA keeps the envelope
            (b"EHLO", EHLO_501), (b"RCPT TO:<b@example.com>", NEED_MAIL),  # bare EHLO drops it
            (b"EHLO client.test", EHLO), (b"MAIL FROM:<a@example.com>", OK),
            (b"HELO client.test", HELO), (b"RCPT TO:<b@example.com>", NEED_MAIL),
            (b"MAIL FROM:<a@example.com>", OK), (b"RSET", OK),
            (b"RCPT TO:<b@example.com>", NEED_MAIL),
        ])
        c.send(b"\r\n   \r\n\t\r\n\n" * 3 + b"NOOP\r\nnoop\r\nHELP\r\n")  # blank lines: no reply
        self.assertEqual([c.read_reply() for _ in range(3)], [OK, OK, b"214 See RFC 2821\r\n"])
        for piece in (b"NO", b"O", b"P\r", b"\n"):
            c.send(piece)
        self.assertEqual(c.read_reply(), OK)
        # Up to 2000 bytes with CR LF are a command; longer lines get one reply
        # each, whether they come in one piece or many.
        vb.dialogue(self, c, [(b"NOOP " + b"x" * 1993, OK), (b"X" * 3000 + b"\r\nNOOP\r\n", LONG)])
        self.assertEqual(c.read_reply(), OK)
        c.send(b"X" * 2500)
        self.assertEqual(c.read_reply(), LONG)
        c.send(b"Y" * 4000)
        c.send(b"Z" * 500 + b"\r\nNOOP\r\n")
        self.assertEqual(c.read_reply(), OK)
        vb.dialogue(self, c, [(b"QUIT\r\nNOOP\r\n", b"221 Goodbye.\r\n")])
        self.assertEqual(c.read_until_closed(), b"")
        bed.daemon.wait_log("response to sender QUIT command: 221 Goodbye.\n")
        log = bed.daemon.stderr()
        self.assertIn("accepted new conn. current conn: 0\n", log)
        self.assertIn("HELO domain = client.test\n", log)
        self.assertIn(" response to DATA: 451 Couldn't open temporary file\n", log)

    def test_hostile_senders_get_replies_only_and_leave_no_descriptor(self):
        vb.raise_nofile(8192)
        bed = self.start(verbosity=("3",))
        d = bed.daemon
        c = bed.connect()  # what the daemon allocates once belongs to the baseline
        self.assertEqual(c.cmd("QUIT") + c.read_until_closed(), b"221 Goodbye.\r\n")
        baseline = d.quiet_fd_count()
        rng = random.Random(20240607)
        for _ in range(5):
            c = bed.connect()
            try:  # the daemon may close before it has taken everything
                c.send(bytes(rng.getrandbits(8) for _ in range(64 * 1024)))
            except (BrokenPipeError, ConnectionResetError):
                pass
            data = c.read_until_closed(timeout=10)
            self.assertEqual(re.sub(rb"500 (Unknown command|Long line\?)\r\n", b"", data), b"")
        linger0 = struct.pack("ii", 1, 0)
        # Batches held open together, so that descriptor numbers and connection
        # records are reused in varying order; each ends in another way.
        for batch in range(60):
            held = []
            for i in range(50):
                s = bed.raw_connect(f"127.0.{1 + i % 2}.{1 + batch}")
                if i % 4 == 0:  # gone before the daemon may even have accepted it
                    s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger0)
                    s.close()
                    continue
                held.append((i % 4, vb.SmtpClient(s)))
                self.assertEqual(held[-1][1].read_reply(), b"220 local.domain ESMTP\r\n")
            for kind, c in held:
                if kind == 1:  # replies it will never read: writing them fails
                    c.send(b"EHLO x\r\nNOOP\r\n" * 200)
                    c.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger0)
                elif kind == 2:
                    c.send(b"RCPT TO:<partial")
                else:
                    c.send(b"QUIT\r\n")
                    self.assertEqual(c.read_until_closed(), b"221 Goodbye.\r\n")
                c.close()
        vb.wait_until(lambda: d.fd_count() <= baseline, 30, "the descriptors to come back")
        c = bed.connect()
        self.assertEqual(c.cmd("NOOP"), OK)
