"""Settings from the two INI files: warnings, the values in force, fatal errors."""

import socket

import vigil_bed as vb

SHUTING = "Shuting down due to the above error.\n"
UNKNOWN, LONG = b"500 Unknown command\r\n", b"500 Long line?\r\n"


class SettingsTest(vb.BedTestCase):
    def test_out_of_range_values_are_refused_with_a_warning_naming_the_value_kept(self):
        bed = self.start({"max_msg_size": "49999", "listen_addr": "not-an-address",
                          "idle_timeout": "29", "scanner_timeout": "1", "max_rcpt": "4",
                          "max_connections": "3001", "max_errors": "4",
                          "my_domain": "mx.example.test", "greeting": "Hello there",
                          "support_8bitmime": "0"})
        log = bed.daemon.stderr()
        for line in ("Illegal max message size. Using default: 20971520\n",
                     "Illegal listen_addr. Using INADDR_ANY.\n", "max_rcpt too small. Using 200\n",
                     "Illegal idle_timeout. Using 300\n", "Illegal scanner_timeout. Using 300\n",
                     "Bad max connections. Using 2500\n", "Bad max_errors. Using 5\n"):
            self.assertIn(line, log)
        # The values in force: it listens on every address despite the bad listen_addr, the
        # sixth error is answered, then the connection closes.
        c = bed.connect()
        self.assertEqual(c.greeting, b"220 mx.example.test Hello there\r\n")
        vb.dialogue(self, c, [(b"EHLO c", b"250-mx.example.test Hello there\r\n250-VRFY\r\n"
                               b"250-SIZE 20971520\r\n250-AUTH LOGIN\r\n250 OK\r\n"),
                              (b"HELO c", b"250 mx.example.test Hello there\r\n"),
                              (b"FOO", UNKNOWN), (b"QUI", UNKNOWN), (b"STARTTLS", UNKNOWN),
                              (b"DATA", b"503 Need RCPT\r\n"),
                              (b"RCPTX TO:<b@example.com>", b"500 malformed rcpt command\r\n")])
        c.send(b"\xff\xfe\r\nNOOP\r\n")
        self.assertEqual(c.read_until_closed(), UNKNOWN)
        bed.daemon.wait_log("Too many sender errors. Closing connection (sender=127.0.1.10:")
        for batch, replies in ((b"BOGUS\r\n" * 8, UNKNOWN * 6),
                               ((b"X" * 2100 + b"\r\n") * 7, LONG * 6),
                               (b"NOOP", LONG)):  # a partial line, then a half-close
            c = bed.connect()
            c.send(batch)
            if batch == b"NOOP":
                c.sock.shutdown(socket.SHUT_WR)
            self.assertEqual(c.read_until_closed(), replies)
        bed.daemon.wait_log(f"Connection closed by sender({vb.DEFAULT_SENDER}:")

        # The bounds themselves are taken silently; "debug" raises section 50 to 4.
        bed = self.start({"max_msg_size": "1073741824", "idle_timeout": "0", "max_rcpt": "5",
                          "scanner_timeout": "0", "max_errors": "5", "max_connections": "3000",
                          "listen_addr": "127.0.0.1", "debug": "504"}, verbosity=("3",))
        # REDIRECT from OUTPUT sends to 127.0.0.1, so a proxy bound there still serves.
        c = bed.connect()
        self.assertIn(b"250-SIZE 1073741824\r\n", c.cmd("EHLO client.test"))
        self.assertEqual(c.cmd("QUIT"), b"221 Goodbye.\r\n")
        bed.daemon.wait_log("response to sender QUIT command: 221 Goodbye.\n")
        log = bed.daemon.stderr()
        self.assertNotRegex(log, "Illegal|too small|Bad max")
        self.assertNotIn("helo line:", log)  # level 9

    def test_start_up_failures_are_fatal_a_bad_port_is_not(self):
        bed = self.make_bed()
        for settings, line in (
                ({"listen_addr": "192.0.2.1"}, "Can't initialize listen fd. "),
                ({"relay_control": "1", "local_domain_file": "/nonexistent/ld"},
                 "Couldn't open local domain file /nonexistent/ld: No such file or directory\n")):
            d = bed.start_daemon(settings, wait=False)
            self.assertEqual(d.wait(), 1)
            self.assertIn(line, d.stderr())
            self.assertIn(SHUTING, d.stderr())
        # Without room for a single connection (CAP_SYS_RESOURCE gone, so even root
        # cannot raise the hard limit).
        d = bed.start_daemon(wait=False, wrapper=["prlimit", "--nofile=32:32", "setpriv",
                                                  "--bounding-set", "-sys_resource"])
        self.assertEqual(d.wait(), 1)
        self.assertIn("No connections available.\n" + SHUTING, d.stderr())
        d = bed.start_daemon({"listen_port": "0"}, wait=False)
        d.wait_log("Illegal listen_port. Using 8082\n")
        d.wait_listening(8082)
