"""The idle time-out, the connection limit and the descriptor budget."""

import select

import vigil_bed as vb


class LimitsTest(vb.BedTestCase):
    def test_beyond_the_limit_closed_unanswered_dump_written_once_idle_sender_closed(self):
        bed = self.start({"max_connections": "5", "idle_timeout": "30"})  # the shortest accepted
        dump = bed.host_path("/var/support/vigild_dump.txt")
        clients = [bed.connect(f"127.0.1.{20 + i}") for i in range(5)]
        self.assertEqual(bed.connect(greeting=False).read_until_closed(), b"")
        refused = "New connection refused: max connections(5) reached\n"
        bed.daemon.wait_log(refused)
        text = vb.wait_until(lambda: dump.exists() and dump.read_text().count("\nerrors ") == 5 and
                             dump.read_text(), 10, "the refusal dump")
        self.assertTrue(text.startswith("config: listen_addr 00000000 listen port 2525\n"))
        for part in ["   idle_timeout 30  max_connections 5\n", "    num_connections 5\n"] + [
                f"sender_addr 127.0.1.{20 + i} receiver_addr 127.0.0.2 " for i in range(5)]:
            self.assertIn(part, text)
        self.assertNotIn("DLOG DUMP", text)  # the connections section only
        dump.unlink()
        # Accepting pauses at the limit: this client waits in the backlog until a
        # place frees up; the one after it is refused, and no second dump is written.
        active = bed.connect(greeting=False)
        self.assertEqual(clients[0].cmd("QUIT"), b"221 Goodbye.\r\n")
        self.assertEqual(active.read_reply(), b"220 local.domain ESMTP\r\n")
        self.assertEqual(bed.connect(greeting=False).read_until_closed(), b"")
        bed.daemon.wait_log(refused, count=2)
        self.assertFalse(dump.exists())
        for c in clients[1:]:
            self.assertEqual(c.cmd("NOOP"), b"250 OK\r\n")
        idle = clients[1]
        for _ in range(18):  # keeps one client busy until the idle ones are closed; 90 s at most
            if select.select([idle.sock], [], [], 5)[0]:
                break
            self.assertEqual(active.cmd("NOOP"), b"250 OK\r\n")
        for c in clients[1:]:
            self.assertEqual(c.read_until_closed(timeout=10), b"")
        self.assertEqual(active.cmd("NOOP"), b"250 OK\r\n")
        bed.daemon.wait_log(f"Idle timeout. Closing connection. sender=127.0.1.21("
                            f"{idle.sock.getsockname()[1]}), receiver=127.0.0.2(25)\n")

    def test_limit_of_1024_descriptors_leaves_room_for_331_connections(self):
        vb.raise_nofile(2048)
        bed = self.start(wrapper=["prlimit", "--nofile=1024:1024", "setpriv", "--bounding-set",
                                  "-sys_resource"])
        bed.daemon.wait_log("config.num_fds=1024 max_connections 331\n")
        held = [bed.connect(f"127.0.1.{1 + i % 250}") for i in range(331)]
        self.assertEqual(bed.connect(greeting=False).read_until_closed(), b"")
        bed.daemon.wait_log("New connection refused: max connections(331) reached\n")
        self.assertEqual(held[-1].cmd("NOOP"), b"250 OK\r\n")
