"""A hostile sender against the message's integrity: whatever it writes, the backend gets only
the envelopes the proxy accepted and only canonical DATA streams holding exactly what was scanned;
pipelined commands wait for the message before them; no limit, full disk or refusal lets the rest
of a body be read as commands or leaves a scan file behind."""

import os
import threading

import vigil_bed as vb
from scanners import FakeAntiSpam, FakeVirusScanner

AS_PATH, VS_PATH = "/var/lib/norvik/as.sock", "/var/lib/norvik/scannerd.sock"
SCAN_DIR = "/var/av/scan"
OK, GO, BYE = b"250 OK\r\n", b"354 Send it to me, end with <CRLF>.<CRLF>\r\n", b"221 Goodbye.\r\n"
HELP, SPAM = b"214 See RFC 2821\r\n", b"552 Seems to be spam.\r\n"
TOO_BIG = b"552 Message size exceeds fixed maximum message size\r\n"
BARE, FAILED = b"550 Message contains bare CR or LF\r\n", b"451 Internal Error\r\n"
BODY = b"Subject: integrity\r\n\r\n..dotted\r\nplain\r\n"  # stuffed, as on the wire
SMUGGLED = b"MAIL FROM:<evil@x.test>\r\nRCPT TO:<victim@y.test>\r\nDATA\r\nsmuggled\r\n"
# Line ends a lax receiver might take for an end of data; only CR LF "." CR LF is one.
PROBES = (b"\n.\n", b"\r\n.\n", b"\n.\r\n", b"\r.\r\n", b"\r\n.\r")
LINE = b"x" * 998 + b"\r\n"
COMMANDS = b"MAIL FROM:<evil@x.test>\r\nRSET\r\n"  # what a body read as commands would run


def envelope(sender=b"a@x.test", params=b""):  # dialogue steps up to the 354
    return [(b"MAIL FROM:<%s>%s" % (sender, params), OK), (b"RCPT TO:<b@x.test>", OK),
            (b"DATA", GO)]


def read_replies(c, n, timeout=20):  # up to n replies; why they stopped comes last, if they did
    got = []
    try:
        while len(got) < n:
            got.append(c.read_reply(timeout=timeout))
    except AssertionError as e:  # silence or a close
        got.append(str(e).encode())
    return got


def replies(c, data):
    """Sends data and takes its answer, then asks HELP: any reply before HELP's also answers
    data, which means part of it was read as commands."""
    got = []
    try:
        c.send(data)
        got.append(c.read_reply(timeout=30))
        c.send(b"HELP\r\n")
        while (reply := c.read_reply(timeout=10)) != HELP:
            got.append(reply)
    except (AssertionError, OSError) as e:  # silence, a close or a reset in place of an answer
        got.append(repr(e).encode())
    return got


class IntegrityCase(vb.BedTestCase):
    def proxy(self, settings=None, scanner=True, spam=None, **daemon_kw):
        """A daemon with a fake backend; the fake virus scanner keeps each file it is shown."""
        self.bed, self.scanned = self.make_bed(), []
        if scanner:
            virus = FakeVirusScanner(self.bed.host_path(VS_PATH), self.record)
            self.addCleanup(virus.stop)
        if spam:
            anti_spam = FakeAntiSpam(self.bed.host_path(AS_PATH), spam)
            self.addCleanup(anti_spam.stop)
        self.backend = self.bed.start_backend()
        settings = {"as_connections": "1" if spam else "0", "use_scanner": "1" if scanner else "0",
                    "idle_timeout": "120", **(settings or {})}
        self.bed.start_daemon(settings, **daemon_kw)
        if scanner:
            virus.wait_for(lambda v: v.hellos, what="scanner hello")
        if spam:
            self.bed.daemon.wait_log("Successfully connected to anti-spam server")

    def record(self, line):  # the file as the daemon hands it over; a clean verdict
        self.scanned.append(self.bed.host_path(line.split("\t")[2]).read_bytes())

    def client(self):
        c = self.bed.connect()
        self.assertTrue(c.cmd("EHLO client.test").startswith(b"250-"))
        return c

    def message(self, c, body, params=b""):  # the reply to the whole message
        vb.dialogue(self, c, envelope(params=params))
        c.send(body + b".\r\n")
        return c.read_reply(timeout=30)

    def relayed(self, n):  # every message the backend got, once it has at least n
        self.backend.wait_for(lambda b: sum(len(s.messages) for s in b.sessions) >= n,
                              what=f"{n} relayed messages")
        return [m for s in self.backend.sessions for m in s.messages]

    def backend_mail_lines(self):
        return [line for s in self.backend.sessions for line in s.lines if line[:5] == b"MAIL "]

    def last_session(self):  # the newest backend session, once the proxy has left it for good
        self.backend.wait_for(lambda b: b.sessions[-1].closed, 15, what="the proxy to leave")
        return self.backend.sessions[-1]

    def assert_relayed_once(self, body, n=1):  # the last session got body n times, whole
        tails = [m[-len(body) - 2:] for m in self.last_session().messages]
        self.assertEqual(tails, [b"\r\n" + body] * n)

    def assert_relayed_as_scanned(self):
        """Each relayed stream is canonical (CR LF line ends only, every line starting with a dot
        doubled, so a lax receiver finds no other end either) and unstuffs to the scanned file."""
        contents = []
        for m in self.relayed(len(self.scanned)):  # unstuffed below: one leading dot off
            lines = m[:-2].split(b"\r\n")
            bad = [ln for ln in lines if b"\r" in ln or b"\n" in ln or
                   ln.startswith(b".") and not ln.startswith(b"..")]
            self.assertEqual((m[-2:], bad), (b"\r\n", []), "not a canonical DATA stream")
            contents.append(b"".join(ln[ln.startswith(b"."):] + b"\r\n" for ln in lines))
        self.assertEqual(contents, self.scanned)

    def assert_no_scan_files(self, scan_dir=None):
        scan_dir = scan_dir or self.bed.host_path(SCAN_DIR)
        vb.wait_until(lambda: not os.listdir(scan_dir), 10, "an empty scan directory")


class SmugglingTest(IntegrityCase):
    def test_no_message_ends_early_whatever_its_line_ends(self):
        self.proxy()
        with self.subTest("SIZE rule on a line longer than a read piece"):
            # The ".\r\n" at SIZE+3 is held back; when more follows it was text, and the
            # lone dot after it ends the message even though the long line came in pieces.
            body = b"Subject: size\r\n\r\n" + b"x" * 6000 + b".\r\n"
            c = self.client()
            vb.dialogue(self, c, envelope(params=b" SIZE=%d" % (len(body) - 3)))
            # What follows the end is the sender's own next transaction, answered here.
            self.assertEqual(replies(c, body + b".\r\n" + SMUGGLED + b".\r\n"),
                             [OK, OK, OK, GO, OK])
        c = self.client()
        for probe in PROBES:
            with self.subTest(probe=probe):
                vb.dialogue(self, c, envelope())
                self.assertEqual(replies(c, b"Subject: p\r\n\r\nbefore" + probe + SMUGGLED +
                                         b".\r\n"), [OK])
        self.assert_relayed_as_scanned()
        # SIZE= may be passed on or not; the senders are what count.
        self.assertEqual([m.split(b">")[0] for m in self.backend_mail_lines()],
                         [b"MAIL FROM:<a@x.test", b"MAIL FROM:<evil@x.test"] +
                         [b"MAIL FROM:<a@x.test"] * len(PROBES))

    def test_reject_mode_refuses_bare_line_ends_after_reading_the_message(self):
        self.proxy({"bare_line_ends": "reject"}, scanner=False)
        c = self.client()
        for probe in PROBES:
            with self.subTest(probe=probe):
                vb.dialogue(self, c, envelope())
                self.assertEqual(replies(c, b"Subject: p\r\n\r\nbefore" + probe + SMUGGLED +
                                         b".\r\n"), [BARE])
        self.assertEqual(self.message(c, BODY), OK)
        self.assertEqual(c.cmd("QUIT"), BYE)
        self.assert_relayed_once(BODY)
        self.assertEqual(self.backend_mail_lines(), [b"MAIL FROM:<a@x.test>\r\n"])


class OrderingTest(IntegrityCase):
    def test_pipelined_commands_wait_for_the_message_before_them(self):
        self.proxy()
        gate = threading.Event()
        self.addCleanup(gate.set)

        def late_dot(line):  # the backend sits on a message until the test lets it answer
            gate.wait(30)
            return vb.FakeBackend.DEFAULT_REPLIES["DOT"]

        def held(c, data):  # data after the 354; the answer to its message waits for it
            gate.clear()
            n = len(self.relayed(0))
            c.send(data)
            self.relayed(n + 1)
            gate.set()

        self.backend.replies["DOT"] = late_dot
        with self.subTest("next transaction pipelined behind the message"):
            c = self.client()
            vb.dialogue(self, c, envelope())
            held(c, BODY + b".\r\nMAIL FROM:<a2@x.test>\r\nRCPT TO:<b@x.test>\r\nDATA\r\n"
                 b"Subject: two\r\n\r\n.\r\n")
            self.assertEqual(read_replies(c, 5), [OK, OK, OK, GO, OK])
            self.assertEqual(c.cmd("QUIT"), BYE)
        with self.subTest("RSET, NOOP and QUIT pipelined behind the message"):
            c = self.client()
            vb.dialogue(self, c, envelope())
            held(c, BODY + b".\r\nRSET\r\nNOOP\r\nQUIT\r\n")
            got = read_replies(c, 4)  # RSET's answer is the backend's own
            self.assertEqual([r[:4] for r in got], [b"250 "] * 3 + [b"221 "])
            self.assertEqual((got[0], got[-1]), (OK, BYE))
            self.assertEqual(c.read_until_closed(timeout=15), b"")
            self.assert_relayed_once(BODY)
        with self.subTest("QUIT pipelined behind the message, long before the idle time-out"):
            c = self.client()
            vb.dialogue(self, c, envelope())
            held(c, BODY + b".\r\nQUIT\r\n")
            self.assertEqual(read_replies(c, 2, timeout=15), [OK, BYE])
            self.assertEqual(c.read_until_closed(timeout=15), b"")
            self.assert_relayed_once(BODY)
        with self.subTest("BODY=8BITMIME passed on only to a backend that takes it"):
            eight, plain = b"MAIL FROM:<a@x.test> BODY=8BITMIME\r\n", b"MAIL FROM:<a@x.test>\r\n"
            body = b"Subject: 8bit\r\n\r\ncaf\xc3\xa9\r\n"
            c = self.client()
            self.assertEqual(self.message(c, body, b" BODY=8BITMIME"), OK)
            self.assertEqual(self.message(c, body), OK)
            self.assertEqual(c.cmd("QUIT"), BYE)
            self.backend.replies["EHLO"] = b"250-backend.test\r\n250 PIPELINING\r\n"
            c = self.client()
            self.assertEqual(self.message(c, body, b" BODY=8BITMIME"), OK)
            self.assertEqual(c.cmd("QUIT"), BYE)
            self.last_session()
            self.assertEqual(self.backend_mail_lines()[-3:], [eight, plain, plain])
        self.assert_relayed_as_scanned()


class LimitsAndStorageTest(IntegrityCase):
    def test_oversize_and_refused_messages_are_read_to_their_end_and_leave_no_file(self):
        self.proxy({"max_msg_size": "50000"}, scanner=False, spam={"spam@": 3})
        with self.subTest("no SIZE= given, 300 KB sent"):
            c = self.client()
            vb.dialogue(self, c, envelope())
            big = b"Subject: big\r\n\r\n" + LINE * 60 + (COMMANDS + LINE * 10) * 24
            self.assertEqual(replies(c, big + b".\r\n"), [TOO_BIG])
            self.assertEqual(self.message(c, BODY), OK)
            self.assertEqual(c.cmd("QUIT"), BYE)
            self.assert_relayed_once(BODY)
            self.assert_no_scan_files()
        with self.subTest("DATA again after each refusal"):
            c = self.client()
            vb.dialogue(self, c, envelope(b"spam@x.test"))
            for _ in range(3):  # the envelope outlives a refusal
                c.send(BODY + b".\r\n")
                self.assertEqual(c.read_reply(timeout=30), SPAM)
                self.assertEqual(c.cmd("DATA"), GO)
            c.send(BODY + b".\r\n")
            self.assertEqual(c.read_reply(timeout=30), SPAM)
            self.assertEqual(c.cmd("QUIT"), BYE)
            self.assert_no_scan_files()

    def test_full_scan_dir_fails_one_message_and_spares_the_next(self):
        self.proxy(scanner=False, scan_tmpfs="64k")
        small = b"Subject: small\r\n\r\n" + LINE * 10
        c = self.client()
        self.assertEqual(self.message(c, small), OK)
        vb.dialogue(self, c, envelope())
        # The disk is full long before the commands in the body; they stay message text.
        big = b"Subject: big\r\n\r\n" + LINE * 100 + (COMMANDS + LINE * 5) * 20
        self.assertEqual(replies(c, big + b".\r\n"), [FAILED])
        self.assertTrue(self.bed.daemon.alive())
        self.assertEqual(self.message(c, small), OK)  # the failed message's file is gone
        self.assertEqual(c.cmd("QUIT"), BYE)
        self.assert_relayed_once(small, 2)  # a 250, and only a 250, means all of it is there
        self.assert_no_scan_files(self.bed.daemon.own_path(SCAN_DIR))
