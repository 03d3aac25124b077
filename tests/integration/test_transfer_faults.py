"""Transfers that do not end well: a reset upload and an upload aborted by disabling the service
leave no file; disabling the service aborts a download with the 426 reply, ends every session at
once and closes both ports until it is enabled again; confinement below the top directory."""

import ftplib
import os
import socket
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import (Daemon, DaemonTestCase, ftp_session, has_ipv6, logged_in, pasv_connect,  # noqa: E402
                          reset, start_upload, wait_until)


class FaultTest(unittest.TestCase):
    def setUp(self):
        self.d = Daemon().start()
        self.addCleanup(self.d.stop_checked)

    def gone(self, name):
        # The reply goes out before the partial file is removed.
        return wait_until(lambda: not os.path.exists(os.path.join(self.d.flash, name)))

    def test_reset_upload_leaves_no_file(self):
        c = logged_in(self.d.port)
        data = start_upload(c, "reset.bin", b"x" * 100_000)
        time.sleep(0.3)
        reset(data)
        self.assertEqual(c.reply(), b"426 Data Connection.\r\n")
        self.assertTrue(self.gone("reset.bin"))
        c.close()

    def test_disable_during_upload_and_download(self):
        self.d.put("big.bin", os.urandom(1 << 20) * 64)
        idle = [logged_in(self.d.port) for _ in range(3)]
        up = logged_in(self.d.port)
        updata = start_upload(up, "partial.bin", b"y" * 50_000)
        down = logged_in(self.d.port)
        down.cmd("TYPE I")
        ddata = pasv_connect(down)
        down.send("RETR big.bin\r\n")
        self.assertTrue(down.reply().startswith(b"150 "))
        stop = threading.Event()

        def slow_reader():
            ddata.settimeout(20)
            try:
                while not stop.is_set() and ddata.recv(65536):
                    time.sleep(0.005)
            except OSError:
                pass

        t = threading.Thread(target=slow_reader)
        t.start()
        time.sleep(0.5)
        self.assertEqual(self.d.cli("no ftp-server enable"), (0, ""))
        self.assertEqual(up.reply(), b"426 Data Connection.\r\n")
        self.assertTrue(up.closed())
        self.assertEqual(down.reply(), b"426 Connection closed; transfer aborted.\r\n")
        self.assertTrue(down.closed())
        for c in idle:
            self.assertTrue(c.closed(timeout=5))
            c.close()
        self.assertTrue(wait_until(lambda: not self.d.port_open(), timeout=5))
        if has_ipv6():
            self.assertFalse(self.d.port_open(socket.AF_INET6))
        stop.set()
        t.join()
        self.assertTrue(self.gone("partial.bin"))
        for s in (updata, ddata, up.sock, down.sock):
            s.close()
        self.assertEqual(self.d.cli("ftp-server enable"), (0, ""))
        self.assertTrue(wait_until(self.d.port_open, timeout=5))
        logged_in(self.d.port).close()


class ConfinementTest(DaemonTestCase):
    def test_no_path_leaves_the_top_directory(self):
        os.makedirs(os.path.join(self.d.flash, "sub"), exist_ok=True)
        ftp = ftp_session(self.d.port)
        ftp.cwd("sub")
        self.assertEqual(ftp.sendcmd("CWD ../../../.."), '250 Directory change to "/".')
        self.assertEqual(ftp.sendcmd("PWD"), '257 Current working directory is "/".')
        for name in ("../../etc/passwd", "/../etc/passwd", "sub/../../../etc/passwd"):
            with self.assertRaises(ftplib.error_perm):
                ftp.retrbinary("RETR " + name, lambda b: None)
        with self.assertRaises(ftplib.error_perm):
            ftp.size("../" + os.path.basename(self.d.dir) + "/platform.conf")
        ftp.quit()


class SystemRootTest(DaemonTestCase):
    # With the main flash at "/" and the top directory "/", the system trees are hidden and refused.
    daemon_kwargs = {"topdir": "/",
                     "extra_platform": {"storage.flash": "/"}}

    def test_system_trees_hidden_and_refused(self):
        ftp = ftp_session(self.d.port)
        names = ftp.nlst("/")
        listing = []
        ftp.retrlines("LIST /", listing.append)
        for hidden in ("proc", "dev"):
            self.assertNotIn(hidden, names)
            self.assertFalse(any(l.endswith(" " + hidden) for l in listing))
        self.assertTrue(any(l.endswith(" etc") for l in listing))
        with self.assertRaises(ftplib.error_perm):
            ftp.cwd("/proc")
        with self.assertRaises(ftplib.error_perm):
            ftp.retrbinary("RETR /proc/version", lambda b: None)
        with self.assertRaises(ftplib.error_temp):
            ftp.size("/dev/null")
        ftp.quit()


if __name__ == "__main__":
    unittest.main()
