"""The idle time-out, the connection limit and the descriptor budget."""

import select

import vigil_bed as vb


class LimitsTest(vb.BedTestCase):
    def test_idle_sender_is_closed_while_an_active_one_stays(self):
        bed = self.start({"idle_timeout": "30"})  # the shortest the settings accept
        idle, active = bed.connect(), bed.connect(vb.OUTSIDE_SENDER)
        for _ in range(18):  # keeps one client busy until the other is closed; 90 s at most
            if select.select([idle.sock], [], [], 5)[0]:
                break
            self.assertEqual(active.cmd("NOOP"), b"250 OK\r\n")
        self.assertEqual(idle.read_until_closed(timeout=1), b"")
        self.assertEqual(active.cmd("NOOP"), b"250 OK\r\n")
        bed.daemon.wait_log(f"Idle timeout. Closing connection. sender={vb.DEFAULT_SENDER}("
                            f"{idle.sock.getsockname()[1]}), receiver=127.0.0.2(25)\n")

    def test_client_beyond_the_limit_is_closed_unanswered_and_the_dump_written_once(self):
        bed = self.start({"max_connections": "5"})
        dump = bed.host_path("/var/support/vigild_dump.txt")
        clients = [bed.connect(f"127.0.1.{20 + i}") for i in range(5)]
        self.assertEqual(bed.connect(greeting=False).read_until_closed(), b"")
        refused = "New connection refused: max connections(5) reached\n"
        bed.daemon.wait_log(refused)
        text = vb.wait_until(lambda: dump.exists() and dump.read_text().count("\nerrors ") == 5 and
                             dump.read_text(), 10, "the refusal dump")
        self.assertTrue(text.startswith("config: listen_addr 00000000 listen port 2525\n"))
        for part in ("   idle_timeout 300  max_connections 5\n", "    num_connections 5\n",
                     "   max_mag_size 20971520 max_rcpt 200 max_errors 5\n"):
            self.assertIn(part, text)
        for i in range(5):
            self.assertIn(f"sender_addr 127.0.1.{20 + i} receiver_addr 127.0.0.2 ", text)
        self.assertNotIn("DLOG DUMP", text)  # the connections section only
        dump.unlink()
        # Accepting pauses at the limit: this client waits in the backlog until a
        # place frees up; the one after it is refused, and no second dump is written.
        waiting = bed.connect(greeting=False)
        self.assertEqual(clients[0].cmd("QUIT"), b"221 Goodbye.\r\n")
        self.assertEqual(waiting.read_reply(), b"220 local.domain ESMTP\r\n")
        self.assertEqual(bed.connect(greeting=False).read_until_closed(), b"")
        bed.daemon.wait_log(refused, count=2)
        for c in clients[1:] + [waiting]:
            self.assertEqual(c.cmd("NOOP"), b"250 OK\r\n")
        self.assertFalse(dump.exists())

    def test_limit_of_1024_descriptors_leaves_room_for_331_connections(self):
        vb.raise_nofile(2048)
        bed = self.make_bed()
        d = bed.start_daemon(wrapper=["prlimit", "--nofile=1024:1024", "setpriv",
                                      "--bounding-set", "-sys_resource"])
        d.wait_log("config.num_fds=1024 max_connections 331\n")
        held = [bed.connect(f"127.0.1.{1 + i % 250}") for i in range(331)]
        self.assertEqual(bed.connect(greeting=False).read_until_closed(), b"")
        d.wait_log("New connection refused: max connections(331) reached\n")
        self.assertEqual(held[-1].cmd("NOOP"), b"250 OK\r\n")
