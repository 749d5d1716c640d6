"""The control socket and the state dump on SIGUSR2."""

import re
import signal
import socket
import stat
import struct

import vigil_bed as vb

STAR, ONE = "*" * 70 + "\n", struct.pack("=i", 1)  # the dump's separator, the stats request
P, D, X = r"(0x[0-9a-f]+|\(nil\))", r"-?\d+", "[0-9a-f]+"  # %p, %d and %x values
CONN = (r"\*{30}\nactive connection pc 0x[0-9a-f]+ closed 0\nsender_fd \d+ receiver_fd -1 \n"
        r"sender_addr 127\.0\.1\.\d+ receiver_addr 127\.0\.0\.2 my_receiver_addr 0\.0\.0\.0 "
        r"my_sender_addr 127\.0\.0\.1\nnum rcpts \d: (\S+ )*\nhelo domain: \S+ from \S+\n"
        r"scan_file_name \(nil\)\nbe_state 0 can_relay 1 be_pipelining 0 newline 0 closed 0\n"
        r"errors 0 \n")
SECTIONS = {  # in their order, each a pattern for the whole section
    "connections": re.escape(
        "config: listen_addr 00000000 listen port 2525\n   idle_timeout 300  max_connections "
        "2500\n   user root group root\n   max_mag_size 20971520 max_rcpt 200 max_errors 5\n"
        f"   my_domain {socket.gethostname()} local_domain_file /etc/av/vigild/local_domains "
        "relay_ips_file /etc/av/vigild/relay_ips\n   greeting ESMTP auth_file "
        "/etc/av/vigild/auth scan_dir /var/av/scan scan_prefix vigild_\naddress_transparent: 0\n"
        "Globals:\n   num_local_domains 0\n   num_relay_ips 0\n    num_connections ")
    + rf"\d+\n({CONN})*",
    "vscan": r"vscan dump:\n(.*\n)*",  # the virus scanner client's own lines
    "comm": rf"COMM Dump:\nCurrent time: \d+\nFree fd list: 0 -> -1\nUsed fd list\n(\d+ -> )+-1\n"
    rf"pending reads\n(fd \d+ handler {P}\n)+pending writes\n(fd \d+ handler {P}\n)*pending "
    rf"connects:\n(fd \d+, handler {P}\n)*pending accepts:\n\tlisten_fd \d+ handler {P}\nqueued "
    rf"writes:\n(fd \d+: (\(size {D} offset {D} b {P} h {P} hd {P} ff {P}\))+\n)*\nPending "
    rf"finished: \n(fd \d+: h {P} d {P}\n)*Current Polls: \n(fd \d+ events {X} revents {X}\n)+",
    "timer": rf"Timer Dump:\nCurrent timers: \d+\n(location \d+ index \d+ timeout \d+ \(in {D}\) "
    rf"handler {P} data {P}\n)*",
    "signals": r"Signal information: \(later\)\n",
    "dlog": r"DLOG DUMP:\nDLOG_MAX_SECTIONS 99 DLOG_MAX_LEVEL 9 default_level 9\n",
}


class ControlAndDiagnosticsTest(vb.BedTestCase):
    def dump(self, path, connections):
        def complete():
            text = path.read_text() if path.exists() else ""
            done = text.endswith("default_level 9\n" + STAR)
            return done and f"    num_connections {connections}\n" in text and text
        text = vb.wait_until(complete, 10, "a complete dump")
        head = re.match(r"Dump started at \w{3} \w{3} [ \d]\d [\d:]{8} \d{4}\n\nerrno: .*\n", text)
        sections = text[head.end():].split(STAR)
        names = [n for n in SECTIONS if n != "vscan" or "vscan dump:\n" in text] + [""]
        self.assertEqual(len(sections), len(names), text)
        for section, name in zip(sections, names):
            self.assertTrue(re.fullmatch(SECTIONS.get(name, ""), section), f"{name}:\n{section}")
        self.assertEqual(text.count("active connection"), connections)
        return text

    def test_statistics_dump_sections_and_the_socket_file(self):
        bed = self.make_bed()
        ctrl = bed.host_path("/var/run/smtp_ctrl.sock")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as stale:  # an earlier run's
            stale.bind(str(ctrl))
        ctrl.chmod(0o600)
        bed.start_daemon(extra_args=["-z", "/var/support/z.dump"])
        # It listens before it makes the socket: wait for the stale one replaced.
        vb.wait_until(lambda: ctrl.is_socket() and ctrl.stat().st_mode == stat.S_IFSOCK | 0o777,
                      10, "the control socket, mode 0777")
        client = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(client.close)
        client.bind(str(bed.host_path("/var/tmp/c1")))
        client.settimeout(5)

        def ask(*requests):
            for request in requests:
                client.sendto(request, str(ctrl))
            return struct.unpack("=i", client.recv(64))[0]
        self.assertEqual(ask(ONE), 0)
        bed.daemon.wait_log(f"received command: 1, from {bed.var}/tmp/c1\n")
        senders = a, b, _ = [bed.connect(f"127.0.1.{41 + i}") for i in range(3)]
        for line in ("EHLO a.test", "MAIL FROM:<s@a.test>", "RCPT TO:<r@x>", "RCPT TO:<q@x>"):
            a.cmd(line)
        b.cmd("HELO b.test")
        self.assertEqual(ask(ONE), 3)
        bed.daemon.signal(signal.SIGUSR2)
        path = bed.host_path("/var/support/z.dump")
        self.assertRegex(self.dump(path, 3), r"\.42 [^*]*b\.test from \(nil\)\n[^*]*\*+\n[^*]*\.41 "
                         r"[^*]*rcpts 2: q@x r@x \nhelo domain: a\.test from s@a\.test\n")
        for c in senders:
            self.assertEqual(c.cmd("QUIT") + c.read_until_closed(), b"221 Goodbye.\r\n")
        # Served in order: one reply, the short request's (read into a zeroed int).
        self.assertEqual(ask(struct.pack("=i", 2), b"", ONE[:1]), 0)
        client.setblocking(False)
        self.assertRaises(BlockingIOError, client.recv, 64)
        bed.daemon.signal(signal.SIGUSR2)  # a second dump replaces the first
        self.assertEqual(self.dump(path, 0).count("Dump started at "), 1)
        bed.daemon.signal(signal.SIGTERM)
        self.assertEqual(bed.daemon.wait(), 0)
        self.assertFalse(ctrl.exists())
