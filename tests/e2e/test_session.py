"""The SMTP dialogue before the envelope: greeting, session commands, command reader."""

import unittest

import vigil_bed as vb

EHLO_DEFAULT = (b"250-local.domain ESMTP\r\n250-VRFY\r\n250-8BITMIME\r\n"
                b"250-SIZE 20971520\r\n250-AUTH LOGIN\r\n250 OK\r\n")
HELO_DEFAULT = b"250 local.domain ESMTP\r\n"
HELO_501 = b"501 HELO requires a domain address\r\n"
EHLO_501 = b"501 EHLO requires a domain address\r\n"
UNKNOWN = b"500 Unknown command\r\n"


class ConnectedTestCase(vb.BedTestCase):
    """A daemon on default settings and one greeted client, self.c."""

    def setUp(self):
        super().setUp()
        self.bed = self.start()
        self.c = self.bed.connect()


class GreetingTest(vb.BedTestCase):
    def test_default_greeting_names_configured_domain_not_host_name(self):
        bed = self.start()
        self.assertEqual(bed.connect().greeting, b"220 local.domain ESMTP\r\n")

    def test_greeting_and_replies_follow_the_settings(self):
        bed = self.start({"my_domain": "mx.example.test", "greeting": "Hello there",
                          "max_msg_size": "50000", "support_8bitmime": "0"})
        c = bed.connect()
        self.assertEqual(c.greeting, b"220 mx.example.test Hello there\r\n")
        self.assertEqual(c.cmd("EHLO client.test"),
                         b"250-mx.example.test Hello there\r\n250-VRFY\r\n"
                         b"250-SIZE 50000\r\n250-AUTH LOGIN\r\n250 OK\r\n")
        self.assertEqual(c.cmd("HELO client.test"), b"250 mx.example.test Hello there\r\n")

    def test_connection_is_logged_with_both_addresses(self):
        bed = self.start()
        c = bed.connect(vb.OUTSIDE_SENDER)
        c.cmd("QUIT")
        bed.daemon.wait_log("response to sender QUIT command: 221 Goodbye.\n")
        self.assertIn("accepted new conn. current conn: 0\n", bed.daemon.stderr())


class HeloEhloTest(ConnectedTestCase):
    def test_replies(self):
        cases = [
            ("ehlo with name", b"EHLO client.test\r\n", EHLO_DEFAULT),
            ("helo with name", b"HELO client.test\r\n", HELO_DEFAULT),
            ("helo two blanks before name", b"HELO  client.test\r\n", HELO_DEFAULT),
            ("ehlo tab before name", b"EHLO\tclient.test\r\n", EHLO_DEFAULT),
            ("helo lower case", b"helo client.test\r\n", HELO_DEFAULT),
            ("helox matches helo", b"HELOX client.test\r\n", HELO_DEFAULT),
            ("helo without domain", b"HELO\r\n", HELO_501),
            ("helo blank only", b"HELO \r\n", HELO_501),
            ("helo name ending in bare LF", b"HELO client.test\n", HELO_501),
            ("ehlo without domain", b"EHLO\r\n", EHLO_501),
            ("ehlo blank only", b"EHLO   \r\n", EHLO_501),
        ]
        for label, line, reply in cases:
            with self.subTest(label):
                self.c.send(line)
                self.assertEqual(self.c.read_reply(), reply)

    def test_501_replies_are_not_counted_as_errors(self):
        for _ in range(8):
            self.assertEqual(self.c.cmd("HELO"), HELO_501)
            self.assertEqual(self.c.cmd("EHLO"), EHLO_501)
        self.assertEqual(self.c.cmd("NOOP"), b"250 OK\r\n")

    def test_ehlo_with_only_blanks_forgets_the_earlier_domain(self):
        self.assertEqual(self.c.cmd("EHLO client.test"), EHLO_DEFAULT)
        self.assertEqual(self.c.cmd("EHLO "), EHLO_501)
        self.assertEqual(self.c.cmd("MAIL FROM:<a@example.com>"),
                         b"553 Need EHLO before MAIL\r\n")

    def test_bare_ehlo_drops_the_envelope(self):
        self.assertEqual(self.c.cmd("EHLO client.test"), EHLO_DEFAULT)
        self.assertEqual(self.c.cmd("MAIL FROM:<a@example.com>"), b"250 OK\r\n")
        self.assertEqual(self.c.cmd("EHLO"), EHLO_501)
        self.assertEqual(self.c.cmd("RCPT TO:<b@example.com>"), b"503 Need MAIL before RCPT\r\n")

    def test_helo_drops_the_envelope(self):
        self.assertEqual(self.c.cmd("HELO client.test"), HELO_DEFAULT)
        self.assertEqual(self.c.cmd("MAIL FROM:<a@example.com>"), b"250 OK\r\n")
        self.assertEqual(self.c.cmd("RCPT TO:<b@example.com>"), b"250 OK\r\n")
        self.assertEqual(self.c.cmd("HELO client.test"), HELO_DEFAULT)
        self.assertEqual(self.c.cmd("RCPT TO:<b@example.com>"), b"503 Need MAIL before RCPT\r\n")

    def test_helo_logs_ignored_whitespace(self):
        self.c.cmd("HELO  client.test")
        self.bed.daemon.wait_log("HELO domain = client.test\n")
        self.assertEqual(self.bed.daemon.stderr().count("Ignoring whitespace in HELO\n"), 1)


class SimpleCommandTest(ConnectedTestCase):
    def test_replies(self):
        cases = [
            ("noop", "NOOP", b"250 OK\r\n"),
            ("noop with argument", "NOOP whatever", b"250 OK\r\n"),
            ("help", "HELP", b"214 See RFC 2821\r\n"),
            ("help with topic", "help MAIL", b"214 See RFC 2821\r\n"),
            ("vrfy", "VRFY postmaster", b"252 Maybe\r\n"),
            ("vrfy without argument", "VRFY", b"252 Maybe\r\n"),
            ("rset", "RSET", b"250 OK\r\n"),
            ("mixed case", "nOoP", b"250 OK\r\n"),
        ]
        for label, line, reply in cases:
            with self.subTest(label):
                self.assertEqual(self.c.cmd(line), reply)

    def test_rset_empties_the_envelope_but_keeps_helo(self):
        self.c.cmd("EHLO client.test")
        self.assertEqual(self.c.cmd("MAIL FROM:<a@example.com>"), b"250 OK\r\n")
        self.assertEqual(self.c.cmd("RSET"), b"250 OK\r\n")
        self.assertEqual(self.c.cmd("RCPT TO:<b@example.com>"), b"503 Need MAIL before RCPT\r\n")
        self.assertEqual(self.c.cmd("MAIL FROM:<a@example.com>"), b"250 OK\r\n")

    def test_quit_says_goodbye_and_closes(self):
        self.assertEqual(self.c.cmd("QUIT"), b"221 Goodbye.\r\n")
        self.assertEqual(self.c.read_until_closed(), b"")

    def test_nothing_after_quit_is_answered(self):
        self.c.send(b"QUIT\r\nNOOP\r\nNOOP\r\n")
        self.assertEqual(self.c.read_until_closed(), b"221 Goodbye.\r\n")


class CommandReaderTest(ConnectedTestCase):
    def test_unknown_and_near_miss_verbs(self):
        cases = [
            ("unknown word", "FOO bar", UNKNOWN),
            ("three letters of quit", "QUI", UNKNOWN),
            ("starttls is not offered", "STARTTLS", UNKNOWN),
        ]
        for label, line, reply in cases:
            with self.subTest(label):
                self.assertEqual(self.c.cmd(line), reply)

    def test_prefix_match_reaches_the_handler(self):
        self.c.cmd("EHLO client.test")
        self.c.cmd("MAIL FROM:<a@example.com>")
        self.assertEqual(self.c.cmd("RCPTX TO:<b@example.com>"),
                         b"500 malformed rcpt command\r\n")

    def test_blank_lines_get_no_reply_and_no_error(self):
        # If a blank line were answered, that answer would arrive before NOOP's.
        self.c.send(b"\r\n   \r\n\t\r\n\n" * 3 + b"NOOP\r\n")
        self.assertEqual(self.c.read_reply(), b"250 OK\r\n")
        for _ in range(5):
            self.assertEqual(self.c.cmd("BOGUS"), UNKNOWN)
        self.assertEqual(self.c.cmd("NOOP"), b"250 OK\r\n")

    def test_sixth_error_is_answered_then_the_connection_closes(self):
        for _ in range(5):
            self.assertEqual(self.c.cmd("BOGUS"), UNKNOWN)
        self.assertEqual(self.c.cmd("NOOP"), b"250 OK\r\n")
        self.c.send(b"BOGUS\r\n")
        self.assertEqual(self.c.read_until_closed(), UNKNOWN)
        self.bed.daemon.wait_log(
            f"Too many sender errors. Closing connection (sender={vb.DEFAULT_SENDER}:")

    def test_error_limit_stops_a_pipelined_batch(self):
        self.c.send(b"BOGUS\r\n" * 8 + b"NOOP\r\n")
        self.assertEqual(self.c.read_until_closed(), UNKNOWN * 6)

    def test_higher_error_limit(self):
        bed = self.start({"max_errors": "7"})
        c = bed.connect()
        c.send(b"BOGUS\r\n" * 10)
        self.assertEqual(c.read_until_closed(), UNKNOWN * 8)

    def test_pipelined_commands_are_answered_in_order(self):
        self.c.send(b"NOOP\r\nnoop\r\nHELP\r\n")
        self.assertEqual(self.c.read_reply(), b"250 OK\r\n")
        self.assertEqual(self.c.read_reply(), b"250 OK\r\n")
        self.assertEqual(self.c.read_reply(), b"214 See RFC 2821\r\n")

    def test_pipelined_envelope(self):
        self.c.send(b"EHLO client.test\r\nMAIL FROM:<a@example.com>\r\n"
                    b"RCPT TO:<b@example.com>\r\nRCPT TO:<c@example.com>\r\nRSET\r\nVRFY x\r\n")
        replies = [self.c.read_reply() for _ in range(6)]
        self.assertEqual(replies, [EHLO_DEFAULT, b"250 OK\r\n", b"250 OK\r\n", b"250 OK\r\n",
                                   b"250 OK\r\n", b"252 Maybe\r\n"])

    def test_command_split_over_segments(self):
        for piece in (b"NO", b"O", b"P\r", b"\n"):
            self.c.send(piece)
        self.assertEqual(self.c.read_reply(), b"250 OK\r\n")

    def test_long_line_in_one_segment_gets_one_reply(self):
        self.c.send(b"X" * 3000 + b"\r\nNOOP\r\n")
        self.assertEqual(self.c.read_reply(), b"500 Long line?\r\n")
        self.assertEqual(self.c.read_reply(), b"250 OK\r\n")

    def test_long_line_in_pieces_gets_one_reply(self):
        self.c.send(b"X" * 2500)
        self.assertEqual(self.c.read_reply(), b"500 Long line?\r\n")
        self.c.send(b"Y" * 4000)
        # The end of the long line and the next command arrive together, so the
        # command may already sit in the daemon's read-ahead when the rest of
        # the line has been dropped.
        self.c.send(b"Z" * 500 + b"\r\nNOOP\r\n")
        self.assertEqual(self.c.read_reply(), b"250 OK\r\n")

    def test_long_lines_count_as_errors(self):
        self.c.send((b"X" * 2100 + b"\r\n") * 6)
        self.assertEqual(self.c.read_until_closed(), b"500 Long line?\r\n" * 6)

    def test_line_of_1999_bytes_is_a_command(self):
        self.assertEqual(self.c.cmd(b"NOOP " + b"x" * 1992), b"250 OK\r\n")  # 1999 with CR LF
        self.assertEqual(self.c.cmd(b"NOOP " + b"x" * 1993), b"250 OK\r\n")  # exactly 2000

    def test_half_close_after_partial_line(self):
        self.c.send(b"NOOP")
        self.c.sock.shutdown(vb.socket.SHUT_WR)
        self.assertEqual(self.c.read_until_closed(), b"500 Long line?\r\n")
        self.bed.daemon.wait_log(f"Connection closed by sender({vb.DEFAULT_SENDER}:")


if __name__ == "__main__":
    unittest.main()
