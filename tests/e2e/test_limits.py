"""Idle time-out and the connection limit."""

import select
import unittest

import vigil_bed as vb

REFUSED = "New connection refused: max connections(5) reached\n"


class IdleTimeoutTest(vb.BedTestCase):
    def test_idle_sender_is_closed_while_an_active_one_stays(self):
        # 30 s is the shortest idle time-out the settings accept.
        bed = self.start({"idle_timeout": "30"})
        idle = bed.connect()
        active = bed.connect(vb.OUTSIDE_SENDER)
        # Keep one client busy until the other is closed; 90 s bounds the wait.
        for _ in range(18):
            ready, _, _ = select.select([idle.sock], [], [], 5)
            if ready:
                break
            self.assertEqual(active.cmd("NOOP"), b"250 OK\r\n")
        self.assertEqual(idle.read_until_closed(timeout=1), b"")
        self.assertEqual(active.cmd("NOOP"), b"250 OK\r\n")
        port = idle.sock.getsockname()[1]
        bed.daemon.wait_log(f"Idle timeout. Closing connection. sender={vb.DEFAULT_SENDER}({port}),"
                            f" receiver={vb.BACKEND_ADDR}({vb.BACKEND_PORT})\n")


class MaxConnectionsTest(vb.BedTestCase):
    def setUp(self):
        super().setUp()
        self.bed = self.start({"max_connections": "5"})
        self.dump = self.bed.host_path("/var/support/vigild_dump.txt")

    def dump_complete(self):
        if not self.dump.exists():
            return False
        text = self.dump.read_text()
        return text.count("\nerrors ") >= 5 and text.endswith("\n") and text

    def test_sixth_client_is_closed_without_reply_and_dump_written_once(self):
        clients = [self.bed.connect(f"10.9.1.{20 + i}") for i in range(5)]
        sixth = self.bed.connect(greeting=False)
        self.assertEqual(sixth.read_until_closed(), b"")
        self.bed.daemon.wait_log(REFUSED)

        text = vb.wait_until(self.dump_complete, 10, "the refusal dump")
        self.assertTrue(text.startswith(
            f"config: listen_addr 00000000 listen port {vb.LISTEN_PORT}\n"), text[:200])
        self.assertIn("   idle_timeout 300  max_connections 5\n", text)
        self.assertIn("    num_connections 5\n", text)
        self.assertEqual(text.count("active connection pc "), 5)
        for i in range(5):
            self.assertIn(f"sender_addr 10.9.1.{20 + i} receiver_addr 10.9.0.1 ", text)
        self.assertNotIn("DLOG DUMP", text)  # the connections section only

        for c in clients:
            self.assertEqual(c.cmd("NOOP"), b"250 OK\r\n")

        # A place frees up: the next client is served, the one after it refused
        # again, and the dump is not written a second time.
        self.dump.unlink()
        self.assertEqual(clients[0].cmd("QUIT"), b"221 Goodbye.\r\n")
        self.assertEqual(clients[0].read_until_closed(), b"")
        again = self.bed.connect()
        self.assertEqual(again.greeting, b"220 local.domain ESMTP\r\n")
        self.assertEqual(again.cmd("NOOP"), b"250 OK\r\n")
        refused = self.bed.connect(greeting=False)
        self.assertEqual(refused.read_until_closed(), b"")
        self.bed.daemon.wait_log(REFUSED, count=2)
        self.assertEqual(clients[1].cmd("NOOP"), b"250 OK\r\n")  # the refusal is complete
        self.assertFalse(self.dump.exists())

    def test_waiting_client_is_served_when_a_place_frees(self):
        clients = [self.bed.connect() for _ in range(5)]
        refused = self.bed.connect(greeting=False)
        self.assertEqual(refused.read_until_closed(), b"")
        # Accepting pauses at the limit: this client waits in the backlog.
        waiting = self.bed.connect(greeting=False)
        clients[4].cmd("QUIT")
        self.assertEqual(waiting.read_reply(), b"220 local.domain ESMTP\r\n")
        self.assertEqual(waiting.cmd("NOOP"), b"250 OK\r\n")


class DescriptorBudgetTest(vb.BedTestCase):
    """max_connections shrinks to what the descriptor limit allows."""

    @staticmethod
    def capped(limit):
        # Without CAP_SYS_RESOURCE even root cannot raise its hard limit.
        return ["prlimit", f"--nofile={limit}:{limit}",
                "setpriv", "--bounding-set", "-sys_resource"]

    def test_limit_of_1024_leaves_room_for_331_connections(self):
        vb.raise_nofile(2048)
        bed = self.make_bed()
        d = bed.start_daemon(wrapper=self.capped(1024))
        d.wait_log("config.num_fds=1024 max_connections 331\n")
        held = []
        self.addCleanup(lambda: [c.close() for c in held])
        for i in range(331):
            held.append(bed.connect(f"10.9.1.{1 + i % 250}"))
        refused = bed.connect(greeting=False)
        self.assertEqual(refused.read_until_closed(), b"")
        d.wait_log("New connection refused: max connections(331) reached\n")
        self.assertEqual(held[-1].cmd("NOOP"), b"250 OK\r\n")

    def test_no_room_for_any_connection_is_fatal(self):
        bed = self.make_bed()
        d = bed.start_daemon(wrapper=self.capped(32), wait=False)
        self.assertEqual(d.wait(), 1)
        err = d.stderr()
        self.assertIn("No connections available.\n", err)
        self.assertIn("Shuting down due to the above error.\n", err)


if __name__ == "__main__":
    unittest.main()
