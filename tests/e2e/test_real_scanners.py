"""The real ClamAV clamd, SpamAssassin spamd and rspamd judge mail, each started in the bed's
loopback-only namespace with a configuration written here (a generated signature, GTUBE)."""

import shutil
import subprocess
import unittest

import vigil_bed as vb
from test_road import message

GTUBE = b"XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X"
TEST_VIRUS = b"VIGILD-REAL-SCANNER-TEST-VIRUS-4d1c"
VIRUS_REPLY = b"552 Seems to have a virus (signature).\r\n"




class RealScannerCase(unittest.TestCase):
    """One bed (namespace, backend) and one service per class; a daemon per test."""
    program = None

    @classmethod
    def setUpClass(cls):
        if reason := vb.unavailable_reason():
            raise unittest.SkipTest(reason)
        if not shutil.which(cls.program, path="/usr/sbin:/usr/bin"):
            raise unittest.SkipTest(f"{cls.program} is not installed (scripts/deps.sh)")
        cls.bed, cls.service = vb.Bed("vgreal"), None
        cls.addClassCleanup(cls.bed.close)
        cls.addClassCleanup(cls.stop_service)
        cls.backend = cls.bed.start_backend()
        cls.start_service()

    @classmethod
    def run_service(cls, argv, ready):  # ready: a daemon path the service makes when it serves
        with open(cls.bed.root / f"{cls.program}.log", "wb") as log:
            cls.service = subprocess.Popen(cls.bed.ns.command(argv), stdin=subprocess.DEVNULL,
                                           stdout=log, stderr=log)
        vb.wait_until(lambda: cls.service.poll() is not None or ready(), 60, cls.program)
        if cls.service.poll() is not None:
            raise AssertionError((cls.bed.root / f"{cls.program}.log").read_text()[-2000:])

    @classmethod
    def stop_service(cls):
        if cls.service and cls.service.poll() is None:
            cls.service.terminate()
            cls.service.wait(20)

    def send(self, text, sender="alice@real.test"):  # the final reply to one message
        c = self.bed.connect()
        for line, expected in message(sender, ["rcpt@real.test"]):
            self.assertTrue(c.cmd(line).startswith(expected), line)
        c.send(b"Subject: real scanners\r\n\r\nHello,\r\n" + text + b"\r\n.\r\n")
        return c.read_reply(timeout=30)

    def relayed(self):
        return [m for s in self.backend.sessions for m in s.messages]

    def expect(self, settings, cases):  # [(body text, reply, relayed)] with a fresh daemon
        self.addCleanup(self.bed.start_daemon({"idle_timeout": "60", **settings}).stop)
        for text, reply, relayed in cases:
            with self.subTest(text=text[:20], settings=settings):
                before = len(self.relayed())
                self.assertEqual(self.send(text), reply)
                if relayed:
                    self.backend.wait_for(lambda b: len(self.relayed()) > before)
                    self.assertIn(text, self.relayed()[-1])
                self.assertEqual(len(self.relayed()), before + relayed)
        self.bed.daemon.stop()


class ClamdTest(RealScannerCase):
    program = "clamd"
    SETTINGS = {"scanner_protocol": "clamd", "clamd_socket": "/var/run/clamd.sock",
                "as_connections": "0"}

    @classmethod
    def start_service(cls):
        db = cls.bed.root / "clamdb"
        db.mkdir()
        (db / "vigild.ndb").write_text(f"Vigild.Test.Virus:0:*:{TEST_VIRUS.hex()}\n")
        sock = cls.bed.var / "run/clamd.sock"
        conf = cls.bed.write_file("clamd.conf", f"LocalSocket {sock}\nDatabaseDirectory {db}\n"
                                  f"Foreground yes\nUser root\nLogFile {cls.bed.root}/clamd.out\n")
        cls.run_service(["clamd", "-c", conf], sock.exists)

    def test_1_clean_relayed_virus_refused_or_dropped(self):
        clean = (b"nothing to see", b"250 OK\r\n", True)
        self.expect(self.SETTINGS, [clean, (TEST_VIRUS, VIRUS_REPLY, False), clean])
        self.expect({**self.SETTINGS, "discard_virus": "1"}, [(TEST_VIRUS, b"250 OK\r\n", False)])
        self.assertIn("Vigild.Test.Virus", self.bed.daemon.stderr())

    def test_2_stopped_clamd_bypass_or_time_out(self):
        self.stop_service()
        self.assertFalse((self.bed.var / "run/clamd.sock").exists())
        self.expect({**self.SETTINGS, "vscan_bypass": "1"}, [(TEST_VIRUS, b"250 OK\r\n", True)])
        # Without bypass the scan waits for clamd; a time-out of 0 ends it at the next pass.
        tmo = {**self.SETTINGS, "scanner_timeout": "0"}
        self.expect(tmo, [(b"clean", b"451 AV scanner timeout\r\n", False)])
        self.expect({**tmo, "vscan_timeout_block": "0"}, [(b"clean", b"250 OK\r\n", True)])


class SpamdTest(RealScannerCase):
    program = "spamd"
    SETTINGS = {"antispam_protocol": "spamd", "antispam_addr": "/var/run/spamd.sock",
                "as_connections": "2", "use_scanner": "0"}

    @classmethod
    def start_service(cls):
        sock = cls.bed.var / "run/spamd.sock"
        cls.run_service(["spamd", "-L", "-x", "-m", "1", f"--socketpath={sock}", "-u", "nobody",
                         f"--pidfile={cls.bed.root}/spamd.pid",
                         f"--syslog={cls.bed.root}/spamd.syslog"], sock.exists)

    def test_1_gtube_refused_clean_relayed_low_score_tagged(self):
        self.expect(self.SETTINGS, [(b"hello", b"250 OK\r\n", True),
                                    (GTUBE, b"552 Seems to be spam.\r\n", False)])
        # GTUBE scores 1000: below a higher reject score it is tagged and relayed.
        self.expect({**self.SETTINGS, "spam_reject_score": "5000", "spam_tag": "[SPAM]"},
                    [(GTUBE, b"250 OK\r\n", True)])
        self.assertIn(b"[SPAM] real scanners", self.relayed()[-1])

    def test_2_stopped_spamd_passes_mail(self):
        self.stop_service()
        self.expect(self.SETTINGS, [(GTUBE, b"250 OK\r\n", True)])


class RspamdTest(RealScannerCase):
    program = "rspamd"
    SETTINGS = {"antispam_protocol": "rspamd", "as_connections": "2", "use_scanner": "0"}

    @classmethod
    def start_service(cls):
        root = cls.bed.root / "rspamd"
        root.mkdir()
        (root / "tld.dat").write_text("test\n")  # the full suffix list costs seconds to load
        conf = cls.bed.write_file("rspamd.conf", f"""
options {{ pidfile = "{root}/pid"; url_tld = "{root}/tld.dat"; hs_cache_dir = "{root}";
  dns {{ nameserver = ["127.0.0.1:53"]; timeout = 1s; retransmits = 1; }} }}
logging {{ type = "file"; filename = "{root}/log"; level = "error"; }}
worker "normal" {{ bind_socket = "127.0.0.1:11333"; count = 1; }}
""")
        argv = ["rspamd", "-f", "-i", "-u", "root", "-g", "root", "-c", conf]
        argv += [f"--var={v}={root}" for v in ("DBDIR", "RUNDIR", "LOGDIR")]
        cls.run_service(argv, lambda: b"127.0.0.1:11333" in subprocess.run(
            cls.bed.ns.command(["ss", "-Hltn"]), capture_output=True).stdout)

    def test_1_gtube_refused_or_dropped_clean_relayed(self):
        self.expect(self.SETTINGS, [(b"hello", b"250 OK\r\n", True),
                                    (GTUBE, b"552 Seems to be spam.\r\n", False)])
        self.expect({**self.SETTINGS, "discard_spam": "1"}, [(GTUBE, b"250 OK\r\n", False)])

    def test_2_stopped_rspamd_passes_mail(self):
        self.stop_service()
        self.expect(self.SETTINGS, [(GTUBE, b"250 OK\r\n", True)])
