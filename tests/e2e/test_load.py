"""The daemon holds its default connection limit of idle sessions and stays responsive."""

import unittest

import vigil_bed as vb

DEFAULT_MAX_CONNECTIONS = 2500


class IdleSessionsTest(vb.BedTestCase):
    def test_full_house_of_idle_sessions(self):
        vb.raise_nofile(DEFAULT_MAX_CONNECTIONS + 512)
        bed = self.start(verbosity=("3",))
        d = bed.daemon
        warm_up = bed.connect()
        warm_up.cmd("QUIT")
        self.assertEqual(warm_up.read_until_closed(), b"")
        baseline = d.quiet_fd_count()
        held = []
        self.addCleanup(lambda: [c.close() for c in held])
        # One at a time: the listen backlog is small, and a full backlog would
        # turn into SYN retransmissions.
        for i in range(DEFAULT_MAX_CONNECTIONS - 1):
            c = vb.SmtpClient(bed.raw_connect(f"10.9.{1 + i % 2}.{1 + i % 250}"))
            self.assertEqual(c.read_reply(), b"220 local.domain ESMTP\r\n", f"client {i}")
            held.append(c)
        self.assertGreaterEqual(d.fd_count(), baseline + DEFAULT_MAX_CONNECTIONS - 1)

        # The last free place still gets full service...
        last = bed.connect()
        self.assertEqual(last.cmd("EHLO client.test")[:4], b"250-")
        self.assertEqual(last.cmd("NOOP"), b"250 OK\r\n")
        # ...and one beyond it is refused without a reply.
        beyond = bed.connect(greeting=False)
        self.assertEqual(beyond.read_until_closed(timeout=10), b"")
        d.wait_log(f"New connection refused: max connections({DEFAULT_MAX_CONNECTIONS}) "
                   "reached\n")
        # The idle sessions are all still served.
        for c in (held[0], held[len(held) // 2], held[-1]):
            self.assertEqual(c.cmd("NOOP"), b"250 OK\r\n")

        for c in held:
            c.close()
        last.close()
        d.wait_fds_at_most(baseline, timeout=60)
        fresh = bed.connect()
        self.assertEqual(fresh.cmd("NOOP"), b"250 OK\r\n")


if __name__ == "__main__":
    unittest.main()
