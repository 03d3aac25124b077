"""Fault injection with long waits: a client that asks for a passive port and never connects to
it holds its session for the whole idle time-out (one minute, the smallest setting) and then gets
425; other clients are served meanwhile and nothing is left behind."""

import os
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient, wait_until  # noqa: E402
from test_fault_injection import whole_session  # noqa: E402

# ctest-labels: long


class UnusedPassivePortTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1", "ftp-server timeout 1"]}

    def test_passive_port_never_connected(self):
        os.makedirs(os.path.join(self.d.flash, "sub"), exist_ok=True)
        with open(os.path.join(self.d.flash, "f.txt"), "wb") as f:
            f.write(b"x" * 100000)
        waiting = []
        for verb in ("RETR f.txt", "LIST", "STOR never.bin"):
            c = RawClient(self.d.port, timeout=150)
            c.login()
            self.assertTrue(c.cmd("PASV").startswith(b"227 "))
            c.send(verb + "\r\n")
            waiting.append(c)
        start = time.time()
        # Served while the three wait for their data connections.
        for _ in range(3):
            whole_session(self.d.port)
        for c in waiting:
            r = c.reply()
            # STOR answers 150 before it waits; the others wait first.
            if r.startswith(b"150 "):
                r = c.reply()
            self.assertEqual(r, b"425 Can't open data connection.\r\n")
        self.assertGreater(time.time() - start, 50)
        for c in waiting:
            self.assertEqual(c.cmd("SYST")[:4], b"215 ")
            c.close()
        self.assertTrue(wait_until(lambda: all(v == 0 for v in self.d.memory_in_use().values()), timeout=20),
                        self.d.memory_in_use())


if __name__ == "__main__":
    unittest.main()
