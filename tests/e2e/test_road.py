"""The road of a message: DATA, the anti-spam and virus verdicts, the relay."""

import os
import re
import threading

import vigil_bed as vb
from scanners import SILENT, FakeAntiSpam, FakeVirusScanner

AS_PATH, VS_PATH = "/var/lib/norvik/as.sock", "/var/lib/norvik/scannerd.sock"
SCAN_DIR = "/var/av/scan"
BODY = b"Message-ID: <m1@road.test>\r\nSubject: hello\r\n\r\n..dotted\r\nplain\r\n"


def message(sender, rcpts, ehlo=True):  # [(line, expected reply prefix)] up to DATA
    lines = [("EHLO client.test", b"250")] * ehlo + [(f"MAIL FROM:<{sender}>", b"250")]
    return lines + [(f"RCPT TO:<{r}>", b"250") for r in rcpts] + [("DATA", b"354")]


class RefusingScanner(FakeVirusScanner):
    def _greet(self, f, conn):  # refuses the first hello ("0 7"), takes the later ones
        if hello := f.readline(65536):
            self._note(self.hellos, hello)
            conn.sendall(b"0 7\n" if len(self.hellos) == 1 else b"0 0\n")
        return bool(hello)


class RoadCase(vb.BedTestCase):
    def road(self, settings=None, spam=None, virus=None, scanners=True, vclass=FakeVirusScanner):
        """A daemon with a fake backend and, unless scanners is False, both fake scanners."""
        self.bed = bed = self.make_bed()
        if scanners:
            self.spam = FakeAntiSpam(bed.host_path(AS_PATH), spam)
            self.virus = vclass(bed.host_path(VS_PATH), virus)
            self.addCleanup(lambda: self.spam.stop() or self.virus.stop())
        self.backend = bed.start_backend()
        merged = {"as_connections": "2", "idle_timeout": "60", **(settings or {})}
        bed.start_daemon(merged)
        pool = int(merged["as_connections"])
        if scanners and merged.get("use_scanner") != "0":
            self.virus.wait_for(lambda v: len(v.hellos) == 1, what="scanner hello")
        if scanners and pool:
            self.spam.wait_for(lambda s: len(s.conns) == pool, what="anti-spam pool")
            bed.daemon.wait_log("Successfully connected to anti-spam server", count=pool)
        return bed

    def send(self, c, sender, rcpts=("rcpt@road.test",), body=BODY, ehlo=True):
        for line, expected in message(sender, rcpts, ehlo):
            reply = c.cmd(line)
            self.assertTrue(reply.startswith(expected), (line, reply))
        c.send(body + b".\r\n")
        return c.read_reply(timeout=20)

    def relayed(self, n=1):
        self.backend.wait_for(lambda b: sum(len(s.messages) for s in b.sessions) >= n,
                              what=f"{n} relayed messages")
        return [m for s in self.backend.sessions for m in s.messages]

    def scan_dir_empty(self):
        vb.wait_until(lambda: not os.listdir(self.bed.host_path(SCAN_DIR)), 10, "empty scan dir")


class CleanMessageTest(RoadCase):
    def test_clean_messages_are_scanned_then_relayed_byte_exact(self):
        seen = {}

        def record_file(line):  # the scanner reads the first scan file as the daemon left it
            if not seen:
                seen["file"] = self.bed.host_path(line.split("\t")[2]).read_bytes()

        bed = self.road({"listen_backlog": "64"}, virus=record_file)
        c = bed.connect()
        sender_ip, _ = c.sock.getsockname()
        self.assertEqual(self.send(c, "alice@road.test"), b"250 OK\r\n")
        spam_req = self.spam.requests[0].decode()
        m = re.fullmatch(r"(/var/av/scan/vigild_(\w{6})) <m1@road\.test> 51200 alice@road\.test\n",
                         spam_req)
        self.assertTrue(m, spam_req)
        self.assertEqual(self.virus.requests[0].decode(), f"1\tmscan\t{m.group(1)}\t{sender_ip}"
                         f"\t{vb.BACKEND_ADDR}\t<m1@road.test>\n")
        received = re.fullmatch(
            rb"Received: from \[(.+)\] by \[(.+)\] with ESMTP; \w{3}, \d\d \w{3} \d{4} "
            rb"\d\d:\d\d:\d\d [+-]\d{4}\r\n(.*)", seen["file"], re.S)
        self.assertTrue(received, seen["file"][:200])
        self.assertEqual(received.group(1).decode(), sender_ip)
        self.assertEqual(received.group(3), BODY.replace(b"..dotted", b".dotted"))
        # On the wire the stuffing is restored.
        self.assertEqual(self.relayed(), [seen["file"].replace(b"\n.dotted", b"\n..dotted")])
        self.assertEqual(c.cmd("QUIT"), b"221 Goodbye.\r\n")
        # Real clients, swaks and smtp-source, through the proxy.
        ns, target = bed.ns, f"{vb.BACKEND_ADDR}:{vb.BACKEND_PORT}"
        ns.exec(["swaks", "--server", target, "--local-interface", vb.DEFAULT_SENDER,
                 "--from", "a@x.test", "--to", "b@x.test", "--body", ".dot\r\nend",
                 "--timeout", "20"])  # raises when swaks fails
        self.assertIn(b"\r\n..dot\r\nend\r\n", self.relayed(2)[1])
        # smtp-source cannot pick its source address: its user's traffic is
        # redirected instead, so the proxy's own connections stay direct.
        ns.exec(["iptables", "-t", "nat", "-A", "OUTPUT", "-p", "tcp", "-m", "owner",
                 "--uid-owner", "65534", "-d", vb.BACKEND_ADDR, "--dport", str(vb.BACKEND_PORT),
                 "-j", "REDIRECT", "--to-ports", str(vb.LISTEN_PORT)])
        ns.exec(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                 "smtp-source", "-s", "5", "-m", "50", "-l", "4096", "-f", "a@x.test",
                 "-t", "b@x.test", target])
        self.assertEqual(len(self.relayed(52)), 52)
        self.scan_dir_empty()


class VerdictTest(RoadCase):
    SPAM = {"spam3@": 3, "tag1@": 1, "plus2@": 2}
    VIRUS = {"<sig>": 0x42, "<enc>": 0x40, "<vps>": 0x8, "<ext>": 0x20, "<err>": 0x10000,
             "<tmo>": 0x4}

    def verdicts(self, settings, cases):  # (sender, message id, reply, relayed subject or None)
        self.road(settings, spam=self.SPAM, virus=self.VIRUS)
        c = self.bed.connect()
        relayed = 0
        for sender, msgid, reply, subject in cases:
            body = BODY.replace(b"<m1@road.test>", msgid.encode())
            with self.subTest(sender=sender, msgid=msgid):
                self.assertEqual(self.send(c, sender, body=body), reply)
                if subject is not None:
                    relayed += 1
                    self.assertIn(b"\r\n" + subject + b"\r\n", self.relayed(relayed)[-1])
        c.cmd("QUIT")  # refused messages keep their scan file until the next transaction
        self.scan_dir_empty()

    def test_refusing_settings(self):
        self.verdicts({"spam_tag": "[SPAM]", "spam_plus_tag": "[SPAM++]"}, [
            ("spam3@x.test", "<ok>", b"552 Seems to be spam.\r\n", None),
            ("tag1@x.test", "<ok>", b"250 OK\r\n", b"subject: [SPAM] hello"),
            ("plus2@x.test", "<ok>", b"250 OK\r\n", b"subject: [SPAM++] hello"),
            ("a@x.test", "<sig>", b"552 Seems to have a virus (signature).\r\n", None),
            ("a@x.test", "<enc>", b"552 Encrypted file found (signature).\r\n", None),
            ("a@x.test", "<vps>", b"552 Seems to have a virus (VPS).\r\n", None),
            ("a@x.test", "<ext>", b"552 File type not allowed.\r\n", None),
            ("a@x.test", "<err>", b"250 OK\r\n", b"Subject: hello"),
            ("a@x.test", "<tmo>", b"451 AV scanner timeout\r\n", None),
        ])
        self.assertFalse([r for r in self.virus.requests if b"spam3@" in r])

    def test_discarding_settings(self):
        self.verdicts({"discard_spam": "1", "discard_virus": "1", "vscan_fail_block": "1",
                       "vscan_timeout_block": "0"}, [
            ("spam3@x.test", "<ok>", b"250 OK\r\n", None),
            ("tag1@x.test", "<ok>", b"250 OK\r\n", b"Subject: hello"),  # no spam_tag set
            ("a@x.test", "<sig>", b"250 OK\r\n", None),
            ("a@x.test", "<ext>", b"250 OK\r\n", None),
            ("a@x.test", "<err>", b"451 AV scanner error\r\n", None),
            ("a@x.test", "<tmo>", b"250 OK\r\n", b"Subject: hello"),
        ])


class ScannerTroubleTest(RoadCase):
    def test_silent_scanner_times_out_a_gone_one_is_bypassed_or_waited_for(self):
        # scanner_timeout 0 expires at the next timer pass; the scanner never answers. A
        # malformed anti-spam reply clears the message of spam and the connection is remade.
        replies = iter([b"x\n"])
        self.road({"scanner_timeout": "0", "as_connections": "1", "vscan_bypass": "1"},
                  spam=lambda line: next(replies, None), virus=lambda line: SILENT)
        c = self.bed.connect()
        self.assertEqual(self.send(c, "a@x.test"), b"451 AV scanner timeout\r\n")
        self.bed.daemon.wait_log("Invalid response from anti-spam.\n")
        self.bed.daemon.wait_log("Successfully connected to anti-spam server", count=2)
        self.bed.daemon.wait_log("AV scan timed out on connection")
        self.assertEqual(self.send(c, "a@x.test", ehlo=False), b"451 AV scanner timeout\r\n")
        self.virus.stop()
        self.bed.daemon.wait_log("Connect to /var/lib/norvik/scannerd.sock failed")
        self.assertEqual(self.send(c, "a@x.test", ehlo=False), b"250 OK\r\n")
        self.relayed(1)
        c.cmd("QUIT")
        self.scan_dir_empty()
        # Without the bypass a message waits for the scanner that is gone, up to the time-out.
        self.road({"scanner_timeout": "0", "as_connections": "0"})
        self.virus.stop()
        self.bed.daemon.wait_log("Connect to /var/lib/norvik/scannerd.sock failed")
        c = self.bed.connect()
        self.assertEqual(self.send(c, "a@x.test"), b"451 AV scanner timeout\r\n")
        self.bed.daemon.wait_log("AV scan timed out on connection")

    def test_refused_hello_and_a_1mb_reply_cost_a_reconnect_not_the_daemon(self):
        # Meanwhile the bypass lets the first message through, scanned by neither.
        replies = iter([b"7" * (1 << 20)])  # one reply of 1 MB without an end
        self.road({"as_connections": "1", "vscan_bypass": "1"}, vclass=RefusingScanner,
                  spam=lambda line: next(replies, None))
        self.bed.daemon.wait_log("Handshaking error with scanner: 0 7")
        c = self.bed.connect()
        self.assertEqual(self.send(c, "a@x.test"), b"250 OK\r\n")
        self.bed.daemon.wait_log("Invalid response from anti-spam.\n")
        self.bed.daemon.wait_log("Successfully connected to anti-spam server", count=2)
        self.virus.wait_for(lambda v: len(v.hellos) == 2, what="the second hello")
        body = BODY.replace(b"<m1@", b"<m2@")
        self.assertEqual(self.send(c, "a@x.test", body=body, ehlo=False), b"250 OK\r\n")
        self.assertIn(b"<m2@road.test> 51200 a@x.test\n", self.spam.requests[-1])
        self.assertTrue([r for r in self.virus.requests if b"\t<m2@road.test>\n" in r])
        self.assertEqual(len(self.relayed(2)), 2)
        self.assertTrue(self.bed.daemon.alive())


class DisconnectTest(RoadCase):
    def test_sender_leaving_at_every_stage_leaves_nothing_behind(self):
        hold, gate = threading.Event(), threading.Event()
        self.addCleanup(lambda: hold.set() or gate.set())
        self.road({"as_connections": "1"},
                  virus=lambda line: gate.wait(20) and 0x2 if "<hold>" in line else None)  # late
        self.backend.replies["DOT"] = lambda line: hold.wait(20) and None
        base = self.bed.daemon.quiet_fd_count()

        def leave(body, stage, wait, count=1, release=lambda: None):
            c = self.bed.connect()
            for line, _ in message("a@x.test", ["b@x.test"]):
                c.cmd(line)
            c.send(body)
            wait()
            c.close()
            release()
            self.bed.daemon.wait_log(stage, count=count)
            self.scan_dir_empty()

        leave(b"Subject: half\r\n", "Connection closed by peer while receiving data.",
              lambda: self.bed.daemon.wait_log("Inside data_handler"))
        held = BODY.replace(b"<m1@road.test>", b"<hold>")
        leave(held + b".\r\n", "vscan_cancel num 1",
              lambda: self.virus.wait_for(lambda v: v.requests), release=gate.set)
        # A sender is not read while its message is relayed: its leaving is
        # noticed once the backend has answered (here by hanging up).
        leave(BODY + b".\r\n", "Closing connection", lambda: self.relayed(1), count=3,
              release=hold.set)
        self.assertLessEqual(self.bed.daemon.quiet_fd_count(), base)


class LoadTest(RoadCase):
    def test_200_concurrent_senders_each_message_relayed_once(self):
        self.road({"as_connections": "3", "max_connections": "300", "listen_backlog": "256"})
        base_fds = self.bed.daemon.quiet_fd_count()
        results, errors = [], []

        def sender(i):
            try:
                c = self.bed.connect(f"127.0.1.{1 + i % 200}")
                for k in range(2):
                    body = BODY.replace(b"m1@road.test", f"s{i}-{k}@road.test".encode())
                    results.append((self.send(c, f"s{i}@x.test", body=body, ehlo=k == 0), i, k))
                c.cmd("QUIT")
            except Exception as e:  # reported below, with the sender's number
                errors.append((i, e))

        threads = [threading.Thread(target=sender, args=(i,)) for i in range(200)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(120)
        self.assertEqual(errors, [], str(errors[:1]))
        accepted = {f"s{i}-{k}" for r, i, k in results if r == b"250 OK\r\n"}
        self.assertEqual(len(accepted), 400)
        ids = [re.search(rb"<(s\d+-\d)@", m).group(1).decode() for m in self.relayed(400)]
        self.assertEqual(sorted(ids), sorted(accepted))
        self.scan_dir_empty()
        vb.wait_until(lambda: self.bed.daemon.fd_count() <= base_fds, 30, "descriptors back")
