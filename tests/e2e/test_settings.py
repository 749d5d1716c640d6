"""Settings read from the two INI files: warnings, values in force, fatal list errors."""

import re
import unittest

import vigil_bed as vb

EHLO_SIZE = re.compile(rb"250-SIZE (\d+)\r\n")


class OutOfRangeSettingsTest(vb.BedTestCase):
    """Out-of-range values are refused with a warning naming the value kept."""

    def test_warnings_and_values_in_force(self):
        bed = self.start({
            "max_msg_size": "49999",
            "listen_addr": "not-an-address",
            "idle_timeout": "29",
            "scanner_timeout": "1",
            "user": "no-such-user-e2e",
            "group": "no-such-group-e2e",
            "max_rcpt": "4",
            "max_connections": "4",
            "max_errors": "4",
        })
        err = bed.daemon.stderr()
        expected = [
            "Illegal max message size. Using default: 20971520\n",
            "Illegal listen_addr. Using INADDR_ANY.\n",
            "Illegal idle_timeout. Using 300\n",
            "Illegal scanner_timeout. Using 300\n",
            "max_rcpt too small. Using 200\n",
            "Bad max connections. Using 2500\n",
            "Bad max_errors. Using 5\n",
        ]
        for line in expected:
            with self.subTest(line):
                self.assertIn(line, err)
        with self.subTest("user"):
            self.assertRegex(err, r"Bad user: [^\n]*\. Using vigild\n")
        with self.subTest("group"):
            self.assertRegex(err, r"Bad group: [^\n]*\. Using oxb\n")
        # The kept values are the ones in force.
        c = bed.connect()  # listens on every address despite the bad listen_addr
        self.assertEqual(EHLO_SIZE.search(c.cmd("EHLO client.test")).group(1), b"20971520")
        c.send(b"BOGUS\r\n" * 7)
        self.assertEqual(c.read_until_closed(), b"500 Unknown command\r\n" * 6)

    def test_upper_bounds_refused(self):
        bed = self.start({"max_msg_size": "1073741825", "max_connections": "3001"})
        err = bed.daemon.stderr()
        self.assertIn("Illegal max message size. Using default: 20971520\n", err)
        self.assertIn("Bad max connections. Using 2500\n", err)

    def test_boundary_values_accepted_silently(self):
        bed = self.start({"max_msg_size": "1073741824", "idle_timeout": "30",
                          "scanner_timeout": "0", "max_rcpt": "5", "max_errors": "5",
                          "max_connections": "3000"})
        err = bed.daemon.stderr()
        for word in ("Illegal", "too small", "Bad max"):
            self.assertNotIn(word, err)
        c = bed.connect()
        self.assertEqual(EHLO_SIZE.search(c.cmd("EHLO client.test")).group(1), b"1073741824")

    def test_lowest_message_size_accepted(self):
        bed = self.start({"max_msg_size": "50000"})
        self.assertNotIn("Illegal max message size", bed.daemon.stderr())

    def test_zero_idle_timeout_accepted(self):
        bed = self.start({"idle_timeout": "0"})
        self.assertNotIn("Illegal idle_timeout", bed.daemon.stderr())

    def test_bad_listen_port_keeps_the_default_port(self):
        bed = self.make_bed()
        d = bed.start_daemon({"listen_port": "0"}, wait=False)
        d.wait_log("Illegal listen_port. Using 8082\n")
        d.wait_listening(8082)

    def test_listen_addr_is_used(self):
        # REDIRECT from OUTPUT rewrites the destination to 127.0.0.1, so a proxy
        # bound there still receives the redirected clients.
        bed = self.start({"listen_addr": "127.0.0.1"})
        self.assertEqual(bed.connect().cmd("NOOP"), b"250 OK\r\n")

    def test_unusable_listen_addr_is_fatal(self):
        bed = self.make_bed()
        d = bed.start_daemon({"listen_addr": "192.0.2.1"}, wait=False)
        self.assertEqual(d.wait(), 1)
        err = d.stderr()
        self.assertRegex(err, r"Can't initialize listen fd\. [^\n]+\n")
        self.assertIn("Shuting down due to the above error.\n", err)


class IniFileTest(vb.BedTestCase):
    def test_later_file_wins_and_missing_file_is_not_fatal(self):
        bed = self.make_bed()
        common = bed.write_file("common.ini", "[vigild]\nmy_domain=from.common\n"
                                "greeting=Common\n")
        proxy = bed.write_file("proxy.ini", "[vigild]\nmy_domain=from.proxy\n"
                               f"listen_port={vb.LISTEN_PORT}\naddress_transparent=0\n"
                               "user=root\ngroup=root\n")
        bed.start_daemon(raw_args=["-d", "-e", "-s", "-c", common, "-p", proxy])
        self.assertEqual(bed.connect().greeting, b"220 from.proxy Common\r\n")

    def test_unreadable_common_file_is_logged(self):
        bed = self.make_bed()
        _, proxy = bed.write_config()
        bed.start_daemon(raw_args=["-d", "-e", "-s", "-c", "/nonexistent/common.conf",
                                   "-p", proxy])
        self.assertIn("Error importing /nonexistent/common.conf: 4\n", bed.daemon.stderr())
        self.assertEqual(bed.connect().greeting, b"220 local.domain ESMTP\r\n")

    def test_debug_key_sets_section_levels(self):
        # Command line at level 3; the debug key raises the proxy section to 4.
        bed = self.start({"debug": "504"}, verbosity=("3",))
        c = bed.connect()
        c.cmd("NOOP")
        c.cmd("QUIT")
        bed.daemon.wait_log("response to sender QUIT command: 221 Goodbye.\n")
        err = bed.daemon.stderr()
        self.assertIn("response to NOOP: 250 OK\n", err)
        self.assertNotIn("noop line:", err)  # level 9


class ListFileTest(vb.BedTestCase):
    def test_missing_local_domain_file_is_fatal_with_relay_control(self):
        bed = self.make_bed()
        d = bed.start_daemon({"relay_control": "1",
                              "local_domain_file": "/nonexistent/local_domains"}, wait=False)
        self.assertEqual(d.wait(), 1)
        err = d.stderr()
        self.assertIn("Couldn't open local domain file /nonexistent/local_domains: "
                      "No such file or directory\n", err)
        self.assertIn("Shuting down due to the above error.\n", err)

    def test_long_local_domain_line_becomes_two_entries(self):
        bed = self.make_bed()
        long_line = "a" * 150
        bed.start_daemon({"relay_control": "1",
                          "local_domain_file": bed.write_file("ld", long_line + "\n"),
                          "relay_ips_file": bed.write_file("ri", ""),
                          "auth_file": bed.write_file("auth", "")})
        err = bed.daemon.stderr()
        self.assertIn(f"Added {'a' * 99} as local domain 0\n", err)
        self.assertIn(f"Added {'a' * 51} as local domain 1\n", err)


if __name__ == "__main__":
    unittest.main()
