"""The login time-out ends a silent session before login, without a reply (one minute, the
smallest setting), and a client that sends but never reads its replies is dropped within the same
time."""

import os
import socket
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient, wait_until  # noqa: E402


class LoginTimeoutTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1",
                                 "ftp-server login timeout 1"]}

    def test_silent_session_ends_after_the_login_timeout(self):
        baseline = self.d.descriptors()
        deaf = socket.socket()
        deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        deaf.connect(("127.0.0.1", self.d.port))
        deaf.settimeout(2)
        try:
            while True:  # until the daemon, blocked on its replies, stops reading
                deaf.send(b"HELP\r\n" * 50)
        except OSError:
            pass
        silent = RawClient(self.d.port, timeout=120)
        self.assertTrue(silent.reply().startswith(b"220 "))
        # A logged-in session waits the idle time-out instead and survives the same silence.
        busy = RawClient(self.d.port, timeout=120)
        busy.login()
        start = time.time()
        self.assertTrue(silent.closed(timeout=100), "no reply expected, only the close")
        waited = time.time() - start
        self.assertGreater(waited, 50)
        self.assertEqual(busy.cmd("SYST")[:4], b"215 ")
        silent.close()
        # The deaf session's replies could not be sent for a whole login time-out: it is gone too.
        self.assertTrue(wait_until(lambda: self.d.descriptors() <= baseline + 1, timeout=40),
                        (self.d.descriptors(), baseline))
        deaf.close()
        busy.close()


if __name__ == "__main__":
    unittest.main()
