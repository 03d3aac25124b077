"""A client that stops reading a download gets the 426 reply after the idle time-out (one
minute, the smallest setting), and a client that never connects to the passive port gets 425."""

import os
import socket
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient  # noqa: E402


class StalledTransferTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1", "ftp-server timeout 1"]}

    def test_stalled_reader_and_missing_data_connection(self):
        with open(os.path.join(self.d.flash, "big.bin"), "wb") as f:
            f.write(b"z" * (64 << 20))
        stalled = RawClient(self.d.port, timeout=150)
        stalled.login()
        stalled.cmd("TYPE I")
        r = stalled.cmd("PASV").decode()
        nums = r[r.index("(") + 1:r.index(")")].split(",")
        data = socket.socket()
        data.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        data.connect(("127.0.0.1", int(nums[4]) * 256 + int(nums[5])))
        stalled.send("RETR big.bin\r\n")
        self.assertTrue(stalled.reply().startswith(b"150 "))

        never = RawClient(self.d.port, timeout=150)
        never.login()
        self.assertTrue(never.cmd("PASV").startswith(b"227 "))
        never.send("LIST\r\n")

        start = time.time()
        self.assertEqual(stalled.reply(), b"426 Connection closed; transfer aborted.\r\n")
        self.assertEqual(never.reply(), b"425 Can't open data connection.\r\n")
        self.assertGreater(time.time() - start, 50)
        # Both sessions go on after the failed transfer.
        self.assertTrue(stalled.cmd("SYST").startswith(b"215 "))
        self.assertTrue(never.cmd("SYST").startswith(b"215 "))
        data.close()
        stalled.close()
        never.close()


if __name__ == "__main__":
    unittest.main()
