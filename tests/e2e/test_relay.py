"""Relay of cleared messages: what the backend sees and answers, connection reuse, the body."""

from pathlib import Path

import vigil_bed as vb

NO_SCANNERS = {"as_connections": "0", "use_scanner": "0"}
OK = b"250 OK\r\n"
EHLO, MAIL = b"EHLO client.test\r\n", b"MAIL FROM:<a@example.com>\r\n"
DATA, QUIT = b"DATA\r\n", b"QUIT\r\n"
USER, PASS = b"dXNlcg==\r\n", b"cGFzcw==\r\n"
# Lines starting with a dot arrive stuffed from the sender and must leave stuffed again; a
# lone "." line reaching the backend unstuffed would end the message early.
BODY = b"Subject: relay\r\n\r\nfirst\r\n..hidden dot\r\n..\r\nlast\r\n"


def rcpt(name):
    return b"RCPT TO:<%s@example.com>\r\n" % name


class RelayTestCase(vb.BedTestCase):
    def relay_bed(self, settings=None, verbosity=("9",), **backend):
        self.bed = self.start(dict(NO_SCANNERS, **(settings or {})), verbosity=verbosity)
        self.backend = self.bed.start_backend(**backend)

    def new_backend(self, kw):  # replaces the fake backend (None: none at all)
        if self.bed.backend:
            self.bed.backend.stop()
        self.bed.backend = self.backend = None if kw is None else self.bed.start_backend(**kw)

    def client(self):
        c = self.bed.connect()
        self.assertTrue(c.cmd("EHLO client.test").startswith(b"250-"))
        return c

    def send_message(self, c, rcpts=(b"b",), body=BODY):  # returns the sender's final reply
        self.assertEqual(c.cmd("MAIL FROM:<a@example.com>"), OK)
        for r in rcpts:
            self.assertEqual(c.cmd(b"RCPT TO:<%s@example.com>" % r), OK)
        self.assertTrue(c.cmd("DATA").startswith(b"354"))
        c.send(body + b".\r\n")
        return c.read_reply(timeout=60)

    def lines(self, session=0, skip=(b"NOOP\r\n",)):
        return [line for line in self.backend.sessions[session].lines if line not in skip]

    def wait_backend_closed(self, session=0):
        self.backend.wait_for(lambda b: len(b.sessions) > session and b.sessions[session].closed,
                              what="the proxy to leave the backend")


class RelayDialogueTest(RelayTestCase):
    def test_connection_reused_kept_alive_and_left_after_an_unasked_421(self):
        self.relay_bed({"noop_interval": "1"}, replies={"RSET": b"250 2.0.0 Reset\r\n"})
        c = self.client()
        self.assertEqual(self.send_message(c), OK)
        self.assertTrue(self.backend.sessions[0].messages[0].endswith(b"\r\n" + BODY))
        self.backend.wait_for(lambda b: b.sessions[0].lines.count(b"NOOP\r\n") >= 2,
                              what="two keep-alive NOOPs")
        # RSET goes to the idle backend, and its own answer (not a NOOP's) comes back.
        self.assertEqual(c.cmd("RSET"), b"250 2.0.0 Reset\r\n")
        self.assertEqual(self.send_message(c, body=b"Subject: two\r\n\r\nx\r\n"), OK)
        self.assertTrue(self.backend.sessions[0].messages[1].endswith(b"\r\nx\r\n"))
        self.assertTrue(c.cmd("QUIT").startswith(b"221"))
        self.wait_backend_closed()
        self.assertEqual(len(self.backend.sessions), 1)
        self.assertEqual(self.lines(), [EHLO, MAIL, rcpt(b"b"), DATA, b"RSET\r\n",
                                        MAIL, rcpt(b"b"), DATA, QUIT])
        # A 421 from an idle backend reaches its sender unasked; the proxy leaves with QUIT.
        self.backend.replies["NOOP"] = b"250 2.0.0 Ok\r\n421 4.3.2 going away\r\n"
        c = self.client()
        self.assertEqual(self.send_message(c), OK)
        self.assertEqual(c.read_reply(timeout=10), b"421 4.3.2 going away\r\n")
        self.wait_backend_closed(1)
        self.assertEqual(self.lines(1)[-1], QUIT)

    def test_backend_replies_steer_the_dialogue_and_pass_through_auth(self):
        refuse_c = lambda line: b"550 5.1.1 no c\r\n" if b"<c@" in line else b"250 ok\r\n"
        cases = [
            ("backend down", None, (b"b",), None, b"451 Internal Error\r\n"),
            ("backend closing at once", {"greeting": None}, (b"b",), [],
             b"421 Backend closed connection\r\n"),
            ("two-line greeting gets one EHLO", {"greeting": b"220-fake\r\n220 ready\r\n"},
             (b"b",), [EHLO, MAIL, rcpt(b"b"), DATA], OK),
            ("EHLO refused, HELO instead", {"replies": {"EHLO": b"502 5.5.2 no\r\n"}},
             (b"b",), [EHLO, b"HELO client.test\r\n", MAIL, rcpt(b"b"), DATA], OK),
            ("multi-line EHLO reply gets one MAIL",
             {"replies": {"EHLO": b"250-fake\r\n250-SIZE 1000\r\n250 8BITMIME\r\n"}},
             (b"b",), [EHLO, MAIL, rcpt(b"b"), DATA], OK),
            ("middle recipient refused, newest first", {"replies": {"RCPT": refuse_c}},
             (b"b", b"c", b"d"), [EHLO, MAIL, rcpt(b"d"), rcpt(b"c"), rcpt(b"b"), DATA], OK),
            # Pipelined, DATA went with them; its 354 is left without an end, never a ".".
            ("every recipient refused", {"replies": {"RCPT": b"550 5.1.1 no\r\n"}},
             (b"b", b"c"), [EHLO, MAIL, rcpt(b"c"), rcpt(b"b"), DATA], b"550 5.1.1 no\r\n"),
            ("every recipient refused, no PIPELINING", {"replies": {
                "RCPT": b"550 5.1.1 no\r\n", "EHLO": b"250-fake\r\n250 8BITMIME\r\n"}},
             (b"b", b"c"), [EHLO, MAIL, rcpt(b"c"), rcpt(b"b"), QUIT], b"550 5.1.1 no\r\n"),
            ("250 to DATA is forwarded", {"replies": {"DATA": b"250 odd\r\n"}},
             (b"b",), [EHLO, MAIL, rcpt(b"b"), DATA, QUIT], b"250 odd\r\n"),
            ("refusing greeting", {"greeting": b"554 5.3.2 busy\r\n"},
             (b"b",), [QUIT], b"554 5.3.2 busy\r\n"),
        ]
        self.bed, c = self.start(NO_SCANNERS), None
        for label, backend, rcpts, lines, reply in cases:
            with self.subTest(label):
                self.new_backend(backend)
                c = c or self.client()  # after a 4xx failure the same sender tries again
                self.assertEqual(self.send_message(c, rcpts), reply)
                if reply == OK:
                    self.assertTrue(self.backend.sessions[0].messages[0].endswith(BODY))
                elif backend is not None:
                    self.wait_backend_closed()
                if backend is not None:
                    self.assertEqual(self.lines(), lines)
                if not reply.startswith(b"4"):
                    self.assertTrue(c.cmd("QUIT").startswith(b"221"))
                    c = None
        notes = list(self.bed.host_path("/var/spool/xmail/spool/local").iterdir())
        self.assertEqual(len(notes), 1)  # only the message with a refused recipient has one
        self.assertIn(b"\r\nFinal-Recipient: rfc822;c@example.com\r\n", notes[0].read_bytes())
        self.bed.daemon.wait_log("Backend connect error, ")
        self.assertIn("Backend closed connection\n", self.bed.daemon.stderr())
        auth_cases = [  # the sender is accepted whatever the backend says
            ("accepted", [b"334 VXNlcm5hbWU6\r\n", b"334 UGFzc3dvcmQ6\r\n", b"235 ok\r\n"],
             [EHLO, b"auth login\r\n", USER, PASS, MAIL]),
            ("auth login refused", [b"504 5.7.4 no\r\n"],
             [EHLO, b"auth login\r\n", b"RSET\r\n", MAIL]),
            ("user refused", [b"334 VXNlcm5hbWU6\r\n", b"535 5.7.8 no\r\n"],
             [EHLO, b"auth login\r\n", USER, b"RSET\r\n", MAIL]),
        ]
        for label, steps, lines in auth_cases:
            with self.subTest(label):
                self.new_backend({"replies": {"AUTH": steps}})
                c = self.client()
                self.assertEqual(c.cmd("AUTH LOGIN"), b"334 VXNlcm5hbWU6\r\n")
                self.assertEqual(c.cmd(USER[:-2]), b"334 UGFzc3dvcmQ6\r\n")
                self.assertEqual(c.cmd(PASS[:-2]), b"235 Authentication accepted\r\n")
                self.assertEqual(self.send_message(c), OK)
                self.assertEqual(self.lines(), lines + [rcpt(b"b"), DATA])


class RelaySoakTest(RelayTestCase):
    def test_body_rules_then_a_thousand_messages_leave_fds_memory_and_scan_dir_flat(self):
        self.relay_bed(verbosity=("3",))
        c, daemon = self.client(), self.bed.daemon
        big = b"Subject: big\r\n\r\n" + (b"x" * 998 + b"\r\n") * 20000  # 20 MB arrives whole
        self.assertEqual(self.send_message(c, body=big), OK)
        messages = self.backend.sessions[0].messages
        self.assertTrue(messages[0].endswith(b"\r\n" + big))
        # With SIZE reached, the held ".\r\n" ends a last line without CR LF; when more
        # follows, the held bytes were text.
        text = b"Subject: s\r\n\r\nlast line without end"
        for data, relayed in ((text + b".\r\n", text + b"\r\n"),
                              (text + b".\r\nmore\r\n.\r\n", text + b".\r\nmore\r\n")):
            for line in (f"MAIL FROM:<a@x.test> SIZE={len(text)}", "RCPT TO:<b@x.test>", "DATA"):
                c.cmd(line)
            c.send(data)
            self.assertEqual(c.read_reply(timeout=20), OK)
            self.assertEqual(messages[-1].split(b"\r\n", 1)[1], relayed)
        # A binary body keeps its dots; a long line's tail keeps its leading "..".
        for body in (b"Content-Transfer-Encoding: binary\r\n\r\n..kept\r\n\x00\xff\r\n",
                     b"Subject: s\r\n\r\n" + b"x" * 5000 + b"..tail\r\n"):
            self.assertEqual(self.send_message(c, body=body), OK)
            self.assertEqual(messages[-1].split(b"\r\n", 1)[1], body)
        for _ in range(95):
            self.assertEqual(self.send_message(c), OK)
        fds, rss = daemon.quiet_fd_count(), daemon.rss_kib()
        for _ in range(900):
            self.assertEqual(self.send_message(c), OK)
        self.assertEqual(len(self.backend.sessions), 1)
        self.assertEqual(len(messages), 1000)
        self.assertLessEqual(daemon.quiet_fd_count(), fds)
        # Under AddressSanitizer its quarantine grows; LeakSanitizer checks there.
        if "libasan" not in Path(f"/proc/{daemon.pid}/maps").read_text():
            self.assertLess(daemon.rss_kib() - rss, 1024)
        self.assertEqual(list(self.bed.host_path("/var/av/scan").iterdir()), [])
