"""Checks of the bed itself, with a stand-in for vigild: when these fail, the other
end-to-end tests say nothing about the daemon."""

import os

import vigil_bed as vb

# Answers each client with what SO_ORIGINAL_DST and getpeername say, then
# relays the greeting of that original destination (as the proxy's own
# connection would); first it writes a file into the private /var.
STANDIN = r"""
import socket, struct, sys
open("/var/support/standin.txt", "w").write("hello from the namespace\n")
ls = socket.create_server(("0.0.0.0", int(sys.argv[1])))
while True:
    c, peer = ls.accept()
    port, addr = struct.unpack("!2xH4s8x", c.getsockopt(socket.SOL_IP, 80, 16))
    c.sendall(f"220 {socket.inet_ntoa(addr)}:{port} {peer[0]}\r\n".encode())
    c.sendall(socket.create_connection((socket.inet_ntoa(addr), port)).makefile("rb").readline())
    c.close()
"""


class BedTest(vb.BedTestCase):
    def test_redirection_private_var_and_backend(self):
        bed = self.make_bed()
        backend = bed.start_backend(greeting=b"220 the real backend\r\n")
        d = bed.start_daemon(binary="/usr/bin/python3",
                             raw_args=["-c", STANDIN, str(vb.LISTEN_PORT)])
        c = bed.connect(vb.OUTSIDE_SENDER)
        self.assertEqual(c.greeting, b"220 127.0.0.2:25 127.0.2.10\r\n")
        self.assertEqual(c.read_reply(), b"220 the real backend\r\n")
        backend.wait_for(lambda b: len(b.sessions) == 1, what="one backend session")
        self.assertNotRegex(backend.sessions[0].peer[0], r"^127\.0\.[12]\.")  # not redirected
        self.assertEqual(bed.host_path("/var/support/standin.txt").read_text(),
                         "hello from the namespace\n")
        self.assertFalse(os.path.exists("/var/support/standin.txt"))
        self.assertEqual(d.stop(), -15)
