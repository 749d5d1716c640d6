"""Gateways without the appliance's kernel: mainline transparent connections, a fixed backend,
real haproxy sending the PROXY protocol to two daemons, and XCLIENT towards a real Postfix."""

import os, shutil, signal, subprocess, types  # noqa: E401
from pathlib import Path

import vigil_bed as vb

PLAIN = {"as_connections": "0", "use_scanner": "0"}
FIXED = f"{vb.BACKEND_ADDR}:{vb.BACKEND_PORT}"
LB_ADDR, DIRECT = "127.0.0.3", ("127.0.0.1", vb.LISTEN_PORT)
HAPROXY = f"""global
  nbthread 1
defaults
  mode tcp
  timeout client 30s
listen smtp
  bind {LB_ADDR}:25
  balance roundrobin
  server a 127.0.0.1:{vb.LISTEN_PORT} send-proxy-v2
  server b 127.0.0.1:{vb.LISTEN_PORT + 1} send-proxy-v2
"""


def send_message(test, c):
    for line in ("EHLO client.test", "MAIL FROM:<a@example.com>", "RCPT TO:<b@example.com>"):
        test.assertTrue(c.cmd(line).startswith(b"250"), line)
    test.assertTrue(c.cmd("DATA").startswith(b"354"))
    test.assertEqual(c.cmd("Subject: gateway\r\n\r\nhello\r\n."), b"250 OK\r\n")
    c.cmd("QUIT")


class GatewayTest(vb.BedTestCase):
    def test_ip_transparent_as_nobody_keeps_only_its_capability(self):
        bed = self.make_bed()
        # The daemon's own connections to the backend are not intercepted again.
        bed.ns.exec(["iptables", "-t", "nat", "-I", "OUTPUT", "-m", "owner", "--uid-owner",
                     "nobody", "-j", "RETURN"])
        for d in [bed.var] + [d for d in bed.var.rglob("*") if d.is_dir()]:
            d.chmod(0o777)
        daemon = bed.start_daemon(dict(PLAIN, address_transparent="1", backend_addr=FIXED,
                                       transparent_method="ip_transparent", user="nobody",
                                       group="nogroup"))
        backend = bed.start_backend()
        send_message(self, bed.connect())  # redirected
        send_message(self, bed.connect(vb.OUTSIDE_SENDER, dest=DIRECT))  # straight to the listener
        backend.wait_for(lambda b: sum(len(s.messages) for s in b.sessions) == 2)
        self.assertEqual(sorted(s.peer for s in backend.sessions),
                         [vb.DEFAULT_SENDER, vb.OUTSIDE_SENDER])
        status = Path(f"/proc/{daemon.pid}/status").read_text()
        self.assertIn("Uid:\t65534\t65534\t65534", status)
        self.assertIn("CapPrm:\t0000000000002000", status)  # CAP_NET_RAW alone

    def second_daemon(self, bed, settings):  # its own /var, its own port
        bed.write_config(settings)  # the first daemon has read its files already
        var = bed.root / "var2"
        shutil.copytree(bed.var, var, ignore=lambda d, names: [
            n for n in names if not (Path(d) / n).is_dir()])  # the layout, not the sockets
        d = vb.Daemon(types.SimpleNamespace(root=bed.root, var=var, ns=bed.ns), [
            str(vb.vigild_path()), "-d", "-e", "-s", "-v", "9", "-c", str(bed.etc / "common.conf"),
            "-p", str(bed.etc / "vigild.conf")])
        self.addCleanup(d.stop)
        d.wait_listening(vb.LISTEN_PORT + 1)
        return d

    def test_haproxy_spreads_senders_and_bad_headers_are_refused(self):
        bed = self.make_bed()
        settings = dict(PLAIN, proxy_protocol="1", backend_addr=FIXED,
                        proxy_networks=bed.write_file("lb", "127.0.0.1/32\n"))
        daemons = [bed.start_daemon(settings), None]
        daemons[1] = self.second_daemon(bed, dict(settings, listen_port=vb.LISTEN_PORT + 1))
        backend = bed.start_backend()
        lb = subprocess.Popen(bed.ns.command(["haproxy", "-db", "-f", bed.write_file(
            "haproxy.cfg", HAPROXY)]), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (lb.kill(), lb.wait(10)))
        senders = [f"127.0.1.{20 + i}" for i in range(4)]
        for source in senders:
            send_message(self, vb.wait_until(lambda: self.try_client(bed, source), 10, "haproxy"))
        backend.wait_for(lambda b: sum(len(s.messages) for s in b.sessions) == 4)
        received = sorted(m.split(b"]")[0] for s in backend.sessions for m in s.messages)
        self.assertEqual(received, [b"Received: from [" + s.encode() for s in senders])
        for d in daemons:  # each daemon had its share, and logged whom it served
            self.assertEqual(d.stderr().count("PROXY v2 client 127.0.1.2"), 2)
        bad = [(vb.OUTSIDE_SENDER, b"", "not a trusted load balancer"),
               ("127.0.0.1", b"EHLO lb.test\r\n", "no PROXY header"),
               ("127.0.0.1", b"PROXY TCP4 ", "incomplete in time")]
        for source, data, log in bad:
            c = bed.connect(source, greeting=False, dest=DIRECT)
            c.send(data)
            self.assertEqual(c.read_until_closed(timeout=10), b"", log)  # never a greeting
            daemons[0].wait_log(log)

    def try_client(self, bed, source):
        try:
            return bed.connect(source, dest=(LB_ADDR, 25))
        except (OSError, AssertionError):
            return None

    def test_xclient_gives_postfix_the_original_client(self):
        if not os.access("/usr/sbin/postfix", os.X_OK):
            self.skipTest("postfix is missing (see scripts/deps.sh)")
        bed = self.make_bed()
        bed.root.chmod(0o755)  # Postfix's own processes reach their queue below it
        pf = bed.root / "postfix"
        (pf / "data").mkdir(parents=True)
        (pf / "queue").mkdir()
        shutil.chown(pf / "data", "postfix")
        (pf / "main.cf").write_text(
            f"compatibility_level = 3.6\nqueue_directory = {pf}/queue\ndata_directory = {pf}/data\n"
            f"maillog_file = {pf}/maillog\nmaillog_file_prefixes = {pf}\ninet_interfaces = all\n"
            "inet_protocols = ipv4\nmyhostname = backend.test\nmydestination = example.com\n"
            "local_transport = discard\nlocal_recipient_maps =\nmynetworks = 127.0.0.0/8\n"
            "smtpd_authorized_xclient_hosts = 127.0.0.1\nalias_maps =\n")
        master = Path("/etc/postfix/master.cf").read_text().splitlines()
        (pf / "master.cf").write_text("\n".join(
            f"{vb.BACKEND_ADDR}:25 inet n - n - - smtpd" if line.startswith("smtp ") else line
            for line in master) + "\n")
        bed.ns.exec(["postfix", "-c", str(pf), "start"])
        self.addCleanup(os.kill, int((pf / "queue/pid/master.pid").read_text()), signal.SIGTERM)
        bed.start_daemon(dict(PLAIN, xclient="1"))
        send_message(self, bed.connect())
        vb.wait_until(lambda: f"client=unknown[{vb.DEFAULT_SENDER}]" in (
            pf / "maillog").read_text(), 10, "Postfix's log naming the sender")
