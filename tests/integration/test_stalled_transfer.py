"""Idle time-outs on data connections (one minute, the smallest setting): a client that stops
reading a download or a listing gets the 426 reply, and clients that ask for a passive port and never connect
to it get 425 for downloads, listings and uploads alike; other clients are served meanwhile, the
waiting sessions go on, and nothing is left behind."""

import os
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient, logged_in, memory_idle, pasv_connect, whole_session  # noqa: E402


class StalledTransferTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1", "ftp-server timeout 1"]}

    def test_stalled_reader_and_missing_data_connections(self):
        self.d.put("big.bin", b"z" * (64 << 20))
        self.d.put("f.txt", b"x" * 100000)
        self.d.many("many")
        stalled_sessions, data_connections = [], []
        for verb in ("RETR big.bin", "LIST many"):
            stalled = RawClient(self.d.port, timeout=150)
            stalled.login()
            stalled.cmd("TYPE I")
            data = pasv_connect(stalled, rcvbuf=4096)
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
            whole_session(logged_in(self.d.port), "f.txt", b"x" * 100000)
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
