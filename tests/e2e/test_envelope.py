"""MAIL FROM, RCPT TO, relay control and the local AUTH LOGIN that grants relaying."""

import ctypes

import vigil_bed as vb

_crypt = ctypes.CDLL("libcrypt.so.1").crypt
_crypt.restype, _crypt.argtypes = ctypes.c_char_p, (ctypes.c_char_p, ctypes.c_char_p)
OK, INVALID, NEED_MAIL = b"250 OK\r\n", b"552 Invalid path\r\n", b"503 Need MAIL before RCPT\r\n"
TOO_BIG = b"552 Message size exceeds fixed maximum message size\r\n"
DENIED, TOO_MANY = b"550 relaying denied\r\n", b"550 Too many recipients\r\n"
MALFORMED_MAIL, NULL_SENDER = b"500 malformed mail from\r\n", b"552 Null sender\r\n"
USER, PASS = b"334 VXNlcm5hbWU6\r\n", b"334 UGFzc3dvcmQ6\r\n"
ACCEPTED, REJECTED = b"235 Authentication accepted\r\n", b"500 Authentication rejected\r\n"
ABORTED = b"501 Authentication aborted by sender\r\n"


class EnvelopeTest(vb.BedTestCase):
    def greeted(self, bed, source=vb.DEFAULT_SENDER, mail=None):
        c = bed.connect(source)
        self.assertEqual(c.cmd("EHLO client.test")[:4], b"250-")
        if mail:
            self.assertEqual(c.cmd(b"MAIL FROM:" + mail), OK)
        return c

    def test_mail_and_rcpt_replies(self):
        bed = self.start({"max_errors": "50"})
        vb.dialogue(self, self.greeted(bed), [
            (b"RCPT TO:<b@example.com>", NEED_MAIL),
            (b"MAIL FROM: a@example.com", OK), (b"MAIL FROM:a@example.com", OK),
            (b"mAiL fRoM:<A@Example.COM>", OK), (b'MAIL FROM:<"john smith"@example.com>', OK),
            (b"MAIL FROM:<>", OK), (b"MAIL FROM:   ", OK),
            (b"MAIL FROM:<a@example.com> SIZE=20971520", OK),
            (b"MAIL FROM:<a@example.com> size=99999999999", OK),  # only upper case is read
            (b"MAIL FROM:<a@example.com> SIZE=lots", OK),
            (b"MAIL FROM:<a@example.com> BODY=8BITMIME SIZE=1000", OK),
            (b"RCPT TO:<b@example.com>", OK), (b"RCPT TO: b@example.com", OK),
            (b"rcpt to:<B@EXAMPLE.com>", OK), (b"RCPT TO:<>", OK), (b"RCPT TO:<bogus>", INVALID),
            (b"RCPT T0:<b@example.com>", b"500 malformed rcpt command\r\n"),
            (b"MAIL FRUM:<b@example.com>", MALFORMED_MAIL), (b"MAIL", MALFORMED_MAIL),
            (b"RCPT TO:<c@example.com>", OK),  # a malformed MAIL keeps the envelope
            (b"MAIL FROM:<nobody>", INVALID), (b"RCPT TO:<c@example.com>", NEED_MAIL),
            (b"MAIL FROM:<a@example.com>", OK),
            (b"MAIL FROM:<nobody@> SIZE=20971521", INVALID),
            (b"MAIL FROM:<a@example.com> SIZE=20971521", TOO_BIG),
            (b"RCPT TO:<c@example.com>", NEED_MAIL),  # a refused MAIL leaves no sender
        ])
        bed.daemon.wait_log("empty MAIL FROM field\n")
        c = self.greeted(bed)
        c.send(b"MAIL FROM:<nobody>\r\n" * 52)
        self.assertEqual(c.read_until_closed(), INVALID * 51)

    def relay_bed(self, relay_ips, **extra):
        bed = self.make_bed()
        domains = "example.com\n  Local.Test  \n" + "a" * 150  # a long line: two entries
        des, md5 = (_crypt(p, s).decode() for p, s in ((b"secret", b"ab"), (b"pw2", b"$1$salt$")))
        auth = f"alice:{des}\n\nbob:{md5}\ncarol\n"
        bed.start_daemon({"relay_control": "1", "max_rcpt": "5", "passthrough_auth": "0",
                          "local_domain_file": bed.write_file("ld", domains),
                          "relay_ips_file": relay_ips and bed.write_file("relay_ips", relay_ips),
                          "auth_file": bed.write_file("auth", auth), **extra})
        return bed

    def test_null_sender_sizes_and_an_unreadable_relay_list(self):
        bed = self.relay_bed(None, relay_ips_file="/nonexistent/relay_ips",
                             allow_null_sender="0", max_msg_size="50000")
        vb.dialogue(self, self.greeted(bed), [
            (b"MAIL FROM:<>", NULL_SENDER), (b"RCPT TO:<b@example.com>", NEED_MAIL),
            (b"MAIL FROM:  ", NULL_SENDER), (b"MAIL FROM:<a@example.com> SIZE=50000", OK),
            (b"MAIL FROM:<a@example.com> SIZE=50001", TOO_BIG),
            (b"MAIL FROM:<a@example.com>", OK),
        ] + [(b"RCPT TO:<r%d@example.com>" % i, OK) for i in range(5)] + [
            (b"RCPT TO:<r5@example.com>", TOO_MANY), (b"MAIL FROM:<a@example.com>", OK),
            (b"RCPT TO:<r6@example.com>", OK),  # a new MAIL starts a new count
            (b"RCPT TO:<x@foreign.test>", DENIED)])  # no list read: nobody may relay
        bed.daemon.wait_log("Can't read relay ip file /nonexistent/relay_ips: "
                            "No such file or directory\n")

    def test_relay_control_and_auth_login(self):
        # Bad entries are skipped; the good one's address is masked when compared.
        bed = self.relay_bed("garbage\n127.0.1.3/33\n127.0.1.3/3\nnot.an.ip/24\n\n127.0.1.3/24\n")
        vb.dialogue(self, self.greeted(bed, vb.OUTSIDE_SENDER, b"<a@foreign.test>"), [
            (b"RCPT TO:<x@foreign.test>", DENIED), (b"RCPT TO:<x@example.com>", OK),
            (b"RCPT TO:<x@LOCAL.test>", OK), (b"RCPT TO:<x@sub.example.com>", DENIED),
            (b"RCPT TO:<>", OK), (b"RCPT TO:<y@example.com>", OK), (b"RCPT TO:<z@example.com>", OK),
            (b"RCPT TO:<x@foreign.test>", TOO_MANY),  # the limit comes before the relay check
        ])
        c = self.greeted(bed, "127.0.1.200", b"<a@example.com>")
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), OK)
        bed.daemon.wait_log("Relaying denied to foreign.test\n")
        log = bed.daemon.stderr()
        for line in ("Adding addr 7f000103 127.0.1.3 mask ffffff00 index 0\n",
                     "Added example.com as local domain 0\n", "Local.Test as local domain 1\n",
                     f"{'a' * 99} as local domain 2\n", f"{'a' * 51} as local domain 3\n",
                     "user=<hidden>, password=(null)Error with password file. Skipping line.\n"):
            self.assertIn(line, log)
        cases = [  # alice=YWxpY2U= secret=c2VjcmV0 bob=Ym9i pw2=cHcy
            ("DES hash", [("AUTH LOGIN", USER), ("YWxpY2U=", PASS), ("c2VjcmV0", ACCEPTED)]),
            ("MD5 hash, initial response", [("auth login Ym9i", PASS), ("cHcy", ACCEPTED)]),
            ("wrong password", [("AUTH LOGIN Ym9i", PASS), ("c2VjcmV0", REJECTED)]),
            ("abort at the user prompt", [("AUTH LOGIN", USER), ("*", ABORTED)]),
            ("abort at the password", [("AUTH LOGIN", USER), ("YWxpY2U=", PASS), ("*", ABORTED)]),
            ("unsupported", [("AUTH PLAIN", b"501 authentication type not supported\r\n")]),
            ("missing parameter", [("AUTH", b"501 AUTH command needs parameter\r\n")]),
            ("hostile", [("AUTH LOGINX", USER), (b"\xff\x00%=", PASS), ("c2VjcmV", REJECTED)]),
        ]
        for label, steps in cases:
            with self.subTest(label):
                c = self.greeted(bed, vb.OUTSIDE_SENDER)
                for line, reply in steps:
                    self.assertEqual(c.cmd(line), reply, line)
                # The right to relay outlives RSET; only a successful login grants it.
                for line in ("RSET", "MAIL FROM:<a@foreign.test>"):
                    self.assertEqual(c.cmd(line), OK)
                self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"),
                                 OK if reply == ACCEPTED else DENIED)
                c.close()
        # A guesser is an erring sender: the reply over max_errors (5) is the last.
        c = self.greeted(bed, vb.OUTSIDE_SENDER)
        for user in (b"YWxpY2U=", b"bWFsbG9yeQ==") * 3:  # alice, mallory
            vb.dialogue(self, c, [(b"AUTH LOGIN " + user, PASS), (b"Z3Vlc3M=", REJECTED)])
        self.assertEqual(c.read_until_closed(), b"")
        log = bed.daemon.stderr()
        for line in ("Error decoding base64 user name: <hidden>\n", "Short b64 string: <hidden>\n",
                     "auth: auth login <hidden>\n", "Command line: AUTH <hidden>\n"):
            self.assertIn(line, log)
        self.assertNotRegex(log, r"YWxpY2U|c2VjcmV|Ym9i|cHcy|Z3Vlc3M|bWFsbG9yeQ|alice|secret|bob|"
                            r"pw2|guess|mallory|\$1\$salt")  # no password hash either

        # Relay control off: no list is read (missing files do no harm), any password passes.
        bed = self.start({"relay_control": "0", "local_domain_file": "/nonexistent/ld",
                          "passthrough_auth": "0"})
        vb.dialogue(self, self.greeted(bed, vb.OUTSIDE_SENDER), [
            (b"AUTH LOGIN YWxpY2U=", PASS), (b"!!not base64!!", ACCEPTED),
            (b"MAIL FROM:<a@foreign.test>", OK), (b"RCPT TO:<x@foreign.test>", OK)])
        self.assertNotIn("local domain file", bed.daemon.stderr())
