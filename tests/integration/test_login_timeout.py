"""The login time-out ends a silent session before login, without a reply (one minute, the
smallest setting)."""

import os
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient  # noqa: E402


class LoginTimeoutTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1",
                                 "ftp-server login timeout 1"]}

    def test_silent_session_ends_after_the_login_timeout(self):
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
        busy.close()


if __name__ == "__main__":
    unittest.main()
