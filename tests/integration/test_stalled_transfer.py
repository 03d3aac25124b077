"""Idle time-outs on data connections (one minute, the smallest setting): a client that stops
reading a download or a listing gets the 426 reply, and clients that ask for a passive port and never connect
to it get 425 for downloads, listings and uploads alike; other clients are served meanwhile, the
waiting sessions go on, and nothing is left behind."""

import os
import socket
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient, memory_idle  # noqa: E402
from test_fault_injection import whole_session  # noqa: E402


class StalledTransferTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1", "ftp-server timeout 1"]}

    def test_stalled_reader_and_missing_data_connections(self):
        with open(os.path.join(self.d.flash, "big.bin"), "wb") as f:
            f.write(b"z" * (64 << 20))
        with open(os.path.join(self.d.flash, "f.txt"), "wb") as f:
            f.write(b"x" * 100000)
        big = os.path.join(self.d.flash, "many")
        os.makedirs(big)
        for i in range(40000):
            open(os.path.join(big, "%05d-%s" % (i, "n" * 120)), "w").close()
        stalled_sessions, data_connections = [], []
        for verb in ("RETR big.bin", "LIST many"):
            stalled = RawClient(self.d.port, timeout=150)
            stalled.login()
            stalled.cmd("TYPE I")
            r = stalled.cmd("PASV").decode()
            nums = r[r.index("(") + 1:r.index(")")].split(",")
            data = socket.socket()
            data.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            data.connect(("127.0.0.1", int(nums[4]) * 256 + int(nums[5])))
            stalled.send(verb + "\r\n")
            self.assertTrue(stalled.reply().startswith(b"150 "))
            stalled_sessions.append(stalled)
            data_connections.append(data)

        waiting = []
        for verb in ("RETR f.txt", "LIST", "STOR never.bin"):
            c = RawClient(self.d.port, timeout=150)
            c.login()
            self.assertTrue(c.cmd("PASV").startswith(b"227 "))
            c.send(verb + "\r\n")
            waiting.append(c)
        start = time.time()
        # Served while the others wait.
        for _ in range(3):
            whole_session(self.d.port)
        for stalled in stalled_sessions:
            self.assertEqual(stalled.reply(), b"426 Connection closed; transfer aborted.\r\n")
        for c in waiting:
            r = c.reply()
            # STOR answers 150 before it waits; the others wait first.
            if r.startswith(b"150 "):
                r = c.reply()
            self.assertEqual(r, b"425 Can't open data connection.\r\n")
        self.assertGreater(time.time() - start, 50)
        # Every session goes on after its failed transfer.
        for c in stalled_sessions + waiting:
            self.assertTrue(c.cmd("SYST").startswith(b"215 "))
            c.close()
        for data in data_connections:
            data.close()
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())


if __name__ == "__main__":
    unittest.main()
