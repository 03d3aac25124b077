"""The standard profile's control connection, against raw sockets: command lines however the
bytes arrive, the commands stock clients expect, CR LF on every reply line, long names echoed
shortened, and the safer defaults (no PORT bounce, out-of-sequence PASS counted as nothing).
The device profile's answers to the same bytes are checked beside them."""

import os
import socket
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import Daemon, RawClient, logged_in  # noqa: E402

BAD_LINE = b"500 Syntax error, command unrecognized.\r\n"
NOOP_OK = b"200 NOOP ok.\r\n"
NOT_IMPLEMENTED = b"502 Command not implemented.\r\n"


class ProfileCase(unittest.TestCase):
    standard = True

    @classmethod
    def setUpClass(cls):
        extra = {"ftp.profile": "standard"} if cls.standard else {}
        extra["ftp.login_fail_delay"] = "0"
        cls.d = Daemon(extra_platform=extra).start()
        with open(os.path.join(cls.d.flash, "a.txt"), "w") as f:
            f.write("hello\n")

    @classmethod
    def tearDownClass(cls):
        cls.d.stop_checked()


class StandardSessionTest(ProfileCase):
    def test_lines_however_the_bytes_arrive(self):
        c = RawClient(self.d.port)
        c.reply()
        # Several lines in one segment, lower-case words, a bare LF.
        c.send("user alice\r\npass secret1\nNOOP\r\n")
        self.assertEqual([c.reply()[:3] for _ in range(3)], [b"331", b"230", b"200"])
        # One line in several segments.
        for piece in (b"NO", b"O", b"P\r", b"\n"):
            c.send(piece)
            time.sleep(0.05)
        self.assertEqual(c.reply(), NOOP_OK)
        # A line over the buffer: one 500, and the next line is served.
        c.send(b"X" * 1500 + b"\r\nNOOP\r\n")
        self.assertEqual(c.reply(), BAD_LINE)
        self.assertEqual(c.reply(), NOOP_OK)
        # Bad bytes do not desynchronise the session.
        c.send(b"\x00\xff\x80garbage\r\n\r\nNOOP\r\n")
        self.assertEqual(c.reply(), NOT_IMPLEMENTED)
        self.assertEqual(c.reply(), NOOP_OK)
        c.close()

    def test_commands_of_stock_clients(self):
        c = logged_in(self.d.port)
        cases = [
            ("SYST", b"215 UNIX Type: L8.\r\n"),
            ("FEAT", b"211-Features:\r\n EPRT\r\n EPSV\r\n MDTM\r\n MLST type*;size*;modify*;perm*;unique*;\r\n"
                     b" REST STREAM\r\n SIZE\r\n UTF8\r\n TVFS\r\n211 End\r\n"),
            ("OPTS UTF8 ON", b"200 Always in UTF8 mode.\r\n"),
            ("ABOR", b"225 No transfer to abort.\r\n"),
            ("REST 100", b"350 Restarting at 100. Send STORE or RETRIEVE to initiate transfer.\r\n"),
            ("REST x", b"501 Syntax error in parameters or arguments.\r\n"),
        ]
        for cmd, expected in cases:
            with self.subTest(cmd=cmd):
                self.assertEqual(c.cmd(cmd), expected)
        # Every line of every reply ends in CR LF.
        for cmd in ("MDTM a.txt", "HELP", "STAT", "HELP SITE"):
            with self.subTest(cmd=cmd):
                r = c.cmd(cmd)
                self.assertEqual(r.count(b"\n"), r.count(b"\r\n"), r)
        c.close()

    def test_long_names_are_echoed_shortened(self):
        c = logged_in(self.d.port)
        name = "n" * 490
        for cmd in ("CWD", "SIZE", "DELE", "RMD"):
            with self.subTest(cmd=cmd):
                r = c.cmd("%s %s" % (cmd, name))
                self.assertTrue(r.startswith(b"550") and b"..." in r and len(r) <= 511, r)
        c.close()

    def test_active_data_only_to_the_client(self):
        c = logged_in(self.d.port)
        self.assertEqual(c.cmd("PORT 10,1,2,3,200,1"), b"500 Illegal PORT Command.\r\n")
        self.assertEqual(c.cmd("EPRT |1|10.1.2.3|51201|"), b"500 Illegal EPRT Command.\r\n")
        self.assertEqual(c.cmd("PORT 127,0,0,1,200,1"), b"200 PORT Command okay.\r\n")
        self.assertEqual(c.cmd("EPRT |1|127.0.0.1|51201|"), b"200 EPRT Command okay.\r\n")
        c.close()

    def test_user_at_its_limit_and_refused_passwords(self):
        """At the per-user limit the right password gets 421 and the end of the session (clients
        retry that later), a wrong one a single 530, like any refused password."""
        held = [logged_in(self.d.port) for _ in range(10)]
        c = RawClient(self.d.port)
        c.reply()
        c.cmd("USER alice")
        self.assertEqual(c.cmd("PASS wrong"), b"530 Password access denied.\r\n")
        self.assertEqual(c.cmd("NOOP"), NOOP_OK)  # no second 530 left to read
        c.cmd("USER alice")
        self.assertTrue(c.cmd("PASS secret1").startswith(b"421 "))
        self.assertTrue(c.closed())
        c.close()
        for h in held:
            h.close()

    def test_out_of_sequence_pass_does_not_reset_the_failures(self):
        """Three wrong passwords end the session even with a 503 PASS between each."""
        self.assertTrue(guesses_with_503_between(self.d.port))


def guesses_with_503_between(port):
    """Three rounds of USER, a wrong PASS and an out-of-sequence PASS; True when the daemon
    closed the session."""
    c = RawClient(port)
    c.reply()
    try:
        for _ in range(3):
            c.cmd("USER alice")
            c.cmd("PASS wrong")
            c.send("PASS again\r\n")
            while c.reply().startswith(b"530"):
                pass  # the refusal's second 530 comes before the 503
        return c.closed()
    except (EOFError, ConnectionResetError):
        return True
    finally:
        c.close()


class DeviceSessionTest(ProfileCase):
    standard = False

    def test_same_bytes_get_the_device_answers(self):
        c = logged_in(self.d.port)
        for cmd in ("NOOP", "FEAT", "MLSD", "REST 100", "noop"):
            with self.subTest(cmd=cmd):
                self.assertEqual(c.cmd(cmd), NOT_IMPLEMENTED)
        self.assertEqual(c.cmd("SYST"), b"215 UNIX Type: L8.\r\n")
        self.assertFalse(c.cmd("MDTM a.txt").endswith(b"\r\n"))
        self.assertEqual(c.cmd("PORT 10,1,2,3,200,1"), b"200 PORT Command okay.\r\n")
        c.close()
        # An out-of-sequence PASS resets the failure counts on the device.
        self.assertFalse(guesses_with_503_between(self.d.port))


if __name__ == "__main__":
    unittest.main()
