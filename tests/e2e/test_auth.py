"""AUTH LOGIN towards the sender: local checks against crypt hashes, and pass-through."""

import ctypes
import unittest

import vigil_bed as vb

_crypt = ctypes.CDLL("libcrypt.so.1").crypt
_crypt.restype, _crypt.argtypes = ctypes.c_char_p, (ctypes.c_char_p, ctypes.c_char_p)
USER, PASS = b"334 VXNlcm5hbWU6\r\n", b"334 UGFzc3dvcmQ6\r\n"
ACCEPTED, REJECTED = b"235 Authentication accepted\r\n", b"500 Authentication rejected\r\n"
ABORTED, OK = b"501 Authentication aborted by sender\r\n", b"250 OK\r\n"


class AuthTest(vb.BedTestCase):
    def test_local_check_dialogues_and_the_relay_right(self):
        bed = self.make_bed()
        des, md5 = (_crypt(p, s).decode() for p, s in ((b"secret", b"ab"), (b"pw2", b"$1$salt$")))
        bed.start_daemon({"relay_control": "1", "passthrough_auth": "0",
                          "local_domain_file": bed.write_file("local_domains", "example.com\n"),
                          "relay_ips_file": bed.write_file("relay_ips", "10.9.1.0/24\n"),
                          "auth_file": bed.write_file("auth", f"alice:{des}\nbob:{md5}\n")})
        cases = [  # alice=YWxpY2U= secret=c2VjcmV0 bob=Ym9i pw2=cHcy
            ("DES hash", [("AUTH LOGIN", USER), ("YWxpY2U=", PASS), ("c2VjcmV0", ACCEPTED)]),
            ("MD5 hash, initial response", [("auth login Ym9i", PASS), ("cHcy", ACCEPTED)]),
            ("wrong password", [("AUTH LOGIN Ym9i", PASS), ("c2VjcmV0", REJECTED)]),
            ("abort at the user prompt", [("AUTH LOGIN", USER), ("*", ABORTED)]),
            ("abort at the password", [("AUTH LOGIN", USER), ("YWxpY2U=", PASS), ("*", ABORTED)]),
            ("unsupported", [("AUTH PLAIN", b"501 authentication type not supported\r\n")]),
            ("missing parameter", [("AUTH", b"501 AUTH command needs parameter\r\n")]),
            ("hostile", [("AUTH LOGINX", USER), (b"\xff\x00%=", PASS), ("c2VjcmV", REJECTED)]),
        ]
        for label, dialogue in cases:
            with self.subTest(label):
                c = bed.connect(vb.OUTSIDE_SENDER)
                self.assertTrue(c.cmd("EHLO client.test").endswith(OK))
                for line, reply in dialogue:
                    self.assertEqual(c.cmd(line), reply, line)
                # The right to relay outlives RSET; only a successful login grants it.
                for line in ("RSET", "MAIL FROM:<a@foreign.test>"):
                    self.assertEqual(c.cmd(line), OK)
                self.assertEqual(c.cmd("RCPT TO:<x@foreign.test>"),
                                 OK if reply == ACCEPTED else b"550 relaying denied\r\n")
                c.close()
        bed.daemon.wait_log("Error decoding base64 user name: \ufffd\n")
        bed.daemon.wait_log("Short b64 string: c2VjcmV\n\n")  # the line's CR LF, read as text

    def test_without_relay_control_any_password_is_accepted(self):
        c = self.start({"passthrough_auth": "0"}).connect()
        self.assertEqual(c.cmd("AUTH LOGIN YWxpY2U="), PASS)
        self.assertEqual(c.cmd("!!not base64!!"), ACCEPTED)
        self.assertEqual(c.cmd("NOOP"), OK)


if __name__ == "__main__":
    unittest.main()
