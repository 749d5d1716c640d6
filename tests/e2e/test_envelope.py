"""MAIL FROM, RCPT TO and relay control."""

import unittest

import vigil_bed as vb

OK = b"250 OK\r\n"
INVALID_PATH = b"552 Invalid path\r\n"
NEED_MAIL = b"503 Need MAIL before RCPT\r\n"
TOO_BIG = b"552 Message size exceeds fixed maximum message size\r\n"
DENIED = b"550 relaying denied\r\n"
TOO_MANY = b"550 Too many recipients\r\n"


class EnvelopeTestCase(vb.BedTestCase):
    settings = {}

    def setUp(self):
        super().setUp()
        self.bed = self.start(self.settings)

    def session(self, source=vb.DEFAULT_SENDER, mail=None):
        """A fresh greeted client after EHLO (and MAIL FROM when mail is given)."""
        c = self.bed.connect(source)
        self.assertTrue(c.cmd("EHLO client.test").startswith(b"250-"))
        if mail is not None:
            self.assertEqual(c.cmd(f"MAIL FROM:{mail}"), OK)
        return c


class MailFromTest(EnvelopeTestCase):
    def test_replies(self):
        cases = [
            ("angle brackets", "MAIL FROM:<a@example.com>", OK),
            ("no brackets", "MAIL FROM: a@example.com", OK),
            ("no blank, no brackets", "MAIL FROM:a@example.com", OK),
            ("any case", "mAiL fRoM:<A@Example.COM>", OK),
            ("quoted local part", 'MAIL FROM:<"john smith"@example.com>', OK),
            ("subdomain", "MAIL FROM:<a.b+c@mx.sub.example.com>", OK),
            ("null sender", "MAIL FROM:<>", OK),
            ("only blanks after colon", "MAIL FROM:   ", OK),
            ("no at sign", "MAIL FROM:<nobody>", INVALID_PATH),
            ("no domain", "MAIL FROM:<nobody@>", INVALID_PATH),
            ("missing colon", "MAIL FROM <a@example.com>", b"500 malformed mail from\r\n"),
            ("verb only", "MAIL", b"500 malformed mail from\r\n"),
            ("size at limit", "MAIL FROM:<a@example.com> SIZE=20971520", OK),
            ("size over limit", "MAIL FROM:<a@example.com> SIZE=20971521", TOO_BIG),
            ("lower-case size ignored", "MAIL FROM:<a@example.com> size=99999999999", OK),
            ("size not a number", "MAIL FROM:<a@example.com> SIZE=lots", OK),
            ("size with other parameter", "MAIL FROM:<a@example.com> BODY=8BITMIME SIZE=1000",
             OK),
        ]
        for label, line, reply in cases:
            with self.subTest(label):
                c = self.session()
                self.assertEqual(c.cmd(line), reply)
                c.close()

    def test_mail_needs_helo_first(self):
        c = self.bed.connect()
        self.assertEqual(c.cmd("MAIL FROM:<a@example.com>"), b"553 Need EHLO before MAIL\r\n")
        self.assertEqual(c.cmd("HELO client.test"), b"250 local.domain ESMTP\r\n")
        self.assertEqual(c.cmd("MAIL FROM:<a@example.com>"), OK)

    def test_refused_path_or_size_leaves_no_sender(self):
        for line in ("MAIL FROM:<nobody>", "MAIL FROM:<a@example.com> SIZE=20971521"):
            with self.subTest(line):
                c = self.session(mail="<first@example.com>")
                self.assertNotEqual(c.cmd(line), OK)
                self.assertEqual(c.cmd("RCPT TO:<b@example.com>"), NEED_MAIL)
                c.close()

    def test_malformed_mail_keeps_the_earlier_envelope(self):
        c = self.session(mail="<a@example.com>")
        self.assertEqual(c.cmd("MAIL FRUM:<b@example.com>"), b"500 malformed mail from\r\n")
        self.assertEqual(c.cmd("RCPT TO:<b@example.com>"), OK)

    def test_empty_sender_field_is_logged(self):
        c = self.session()
        self.assertEqual(c.cmd("MAIL FROM:  "), OK)
        self.bed.daemon.wait_log("empty MAIL FROM field\n")

    def test_refusals_count_towards_the_error_limit(self):
        c = self.session()
        c.send(b"MAIL FROM:<nobody>\r\n" * 7)
        self.assertEqual(c.read_until_closed(), INVALID_PATH * 6)


class NullSenderOffTest(EnvelopeTestCase):
    settings = {"allow_null_sender": "0"}

    def test_replies(self):
        cases = [
            ("null path", "MAIL FROM:<>", b"552 Null sender\r\n"),
            ("only blanks", "MAIL FROM:  ", b"552 Null sender\r\n"),
            ("real sender", "MAIL FROM:<a@example.com>", OK),
        ]
        for label, line, reply in cases:
            with self.subTest(label):
                c = self.session()
                self.assertEqual(c.cmd(line), reply)
                c.close()

    def test_refused_null_sender_leaves_no_envelope(self):
        c = self.session()
        self.assertEqual(c.cmd("MAIL FROM:<>"), b"552 Null sender\r\n")
        self.assertEqual(c.cmd("RCPT TO:<b@example.com>"), NEED_MAIL)


class SmallSizeLimitTest(EnvelopeTestCase):
    settings = {"max_msg_size": "50000"}

    def test_size_limit_follows_setting(self):
        c = self.session()
        self.assertEqual(c.cmd("MAIL FROM:<a@example.com> SIZE=50000"), OK)
        self.assertEqual(c.cmd("MAIL FROM:<a@example.com> SIZE=50001"), TOO_BIG)


class RcptToTest(EnvelopeTestCase):
    def test_rcpt_before_mail(self):
        c = self.session()
        self.assertEqual(c.cmd("RCPT TO:<b@example.com>"), NEED_MAIL)

    def test_replies(self):
        cases = [
            ("angle brackets", "RCPT TO:<b@example.com>", OK),
            ("no brackets", "RCPT TO: b@example.com", OK),
            ("any case", "rcpt to:<B@EXAMPLE.com>", OK),
            ("null path", "RCPT TO:<>", OK),
            ("no at sign", "RCPT TO:<bogus>", INVALID_PATH),
            ("misspelt", "RCPT T0:<b@example.com>", b"500 malformed rcpt command\r\n"),
        ]
        for label, line, reply in cases:
            with self.subTest(label):
                c = self.session(mail="<a@example.com>")
                self.assertEqual(c.cmd(line), reply)
                c.close()

    def test_recipient_limit_default_200(self):
        c = self.session(mail="<a@example.com>")
        c.send(b"".join(b"RCPT TO:<r%d@example.com>\r\n" % i for i in range(200)))
        for i in range(200):
            self.assertEqual(c.read_reply(), OK, f"recipient {i + 1}")
        self.assertEqual(c.cmd("RCPT TO:<one-more@example.com>"), TOO_MANY)

    def test_new_mail_starts_a_new_recipient_count(self):
        bed = self.start({"max_rcpt": "5"})
        c = bed.connect()
        c.cmd("EHLO client.test")
        for _ in range(2):
            self.assertEqual(c.cmd("MAIL FROM:<a@example.com>"), OK)
            for i in range(5):
                self.assertEqual(c.cmd(f"RCPT TO:<r{i}@example.com>"), OK)
            self.assertEqual(c.cmd("RCPT TO:<r5@example.com>"), TOO_MANY)


class RelayControlTest(EnvelopeTestCase):
    def setUp(self):
        vb.BedTestCase.setUp(self)
        self.bed = self.make_bed()
        self.bed.start_daemon(self.relay_settings(self.bed))

    @staticmethod
    def relay_settings(bed, relay_ips="10.9.1.0/24\n", **extra):
        settings = {
            "relay_control": "1",
            "max_rcpt": "5",
            "local_domain_file": bed.write_file("local_domains", "example.com\n  Local.Test  \n"),
            "relay_ips_file": bed.write_file("relay_ips", relay_ips),
            "auth_file": bed.write_file("auth", ""),
        }
        settings.update(extra)
        return settings

    def test_outside_sender(self):
        cases = [
            ("foreign domain", "RCPT TO:<x@foreign.test>", DENIED),
            ("local domain", "RCPT TO:<x@example.com>", OK),
            ("local domain any case", "RCPT TO:<x@LOCAL.test>", OK),
            ("subdomain of a local domain is foreign", "RCPT TO:<x@sub.example.com>", DENIED),
            ("null path counts as local", "RCPT TO:<>", OK),
        ]
        for label, line, reply in cases:
            with self.subTest(label):
                c = self.session(vb.OUTSIDE_SENDER, mail="<a@foreign.test>")
                self.assertEqual(c.cmd(line), reply)
                c.close()
        self.bed.daemon.wait_log("Relaying denied to foreign.test\n")

    def test_sender_in_relay_network_may_relay(self):
        c = self.session("10.9.1.77", mail="<a@example.com>")
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), OK)

    def test_recipient_limit_comes_before_relay_check(self):
        c = self.session(vb.OUTSIDE_SENDER, mail="<a@foreign.test>")
        for i in range(5):
            self.assertEqual(c.cmd(f"RCPT TO:<u{i}@example.com>"), OK)
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), TOO_MANY)

    def test_denied_recipient_keeps_the_others(self):
        c = self.session(vb.OUTSIDE_SENDER, mail="<a@foreign.test>")
        self.assertEqual(c.cmd("RCPT TO:<u@example.com>"), OK)
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), DENIED)
        self.assertEqual(c.cmd("RCPT TO:<v@example.com>"), OK)

    def test_relay_entry_address_is_masked_when_compared(self):
        bed = self.make_bed()
        bed.start_daemon(self.relay_settings(bed, relay_ips="10.9.1.3/24\n"))
        c = bed.connect("10.9.1.200")
        c.cmd("EHLO client.test")
        c.cmd("MAIL FROM:<a@example.com>")
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), OK)

    def test_bad_relay_lines_are_skipped(self):
        bed = self.make_bed()
        lines = "garbage\n10.9.2.0/33\n10.9.2.0/3\nnot.an.ip/24\n\n10.9.2.0/24\n"
        bed.start_daemon(self.relay_settings(bed, relay_ips=lines))
        c = bed.connect(vb.OUTSIDE_SENDER)
        c.cmd("EHLO client.test")
        c.cmd("MAIL FROM:<a@example.com>")
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), OK)
        c = bed.connect(vb.DEFAULT_SENDER)
        c.cmd("EHLO client.test")
        c.cmd("MAIL FROM:<a@example.com>")
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), DENIED)

    def test_missing_relay_file_leaves_only_local_domains(self):
        bed = self.make_bed()
        bed.start_daemon(self.relay_settings(bed, relay_ips_file="/nonexistent/relay_ips"))
        bed.daemon.wait_log("Can't read relay ip file /nonexistent/relay_ips: "
                            "No such file or directory\n")
        c = bed.connect(vb.DEFAULT_SENDER)
        c.cmd("EHLO client.test")
        c.cmd("MAIL FROM:<a@example.com>")
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), DENIED)
        self.assertEqual(c.cmd("RCPT TO:<x@example.com>"), OK)

    def test_local_domains_are_logged_at_start(self):
        self.bed.daemon.wait_log("Added Local.Test as local domain 1\n")
        self.assertIn("Added example.com as local domain 0\n", self.bed.daemon.stderr())


class RelayControlOffTest(EnvelopeTestCase):
    # With relay control off no list is read, so a missing file does no harm.
    settings = {"relay_control": "0", "local_domain_file": "/nonexistent/local_domains",
                "relay_ips_file": "/nonexistent/relay_ips"}

    def test_any_valid_recipient_is_accepted(self):
        c = self.session(vb.OUTSIDE_SENDER, mail="<a@foreign.test>")
        self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"), OK)
        self.assertEqual(c.cmd("RCPT TO:<y@elsewhere.test>"), OK)
        self.assertNotIn("Couldn't open local domain file", self.bed.daemon.stderr())


if __name__ == "__main__":
    unittest.main()
