"""Process frame: command line, single instance, key messages, debug switches, memory table,
signals and ftps-cli's exit codes, against the real daemon."""

import os
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import CLI, DAEMON, MEMORY_ROWS, Daemon, RawClient, START_WAIT, wait_until  # noqa: E402

STARTUP_MESSAGES = [
    "=============== ftp_server main ===============",
    "ftp_signal_init OK.",
    "ftpd_mem_init OK.",
    "ftp_server_init OK.",
    "ftp aaa init OK.",
    "create ftps_main OK.",
    "create thread master OK.",
    "cli_client_init OK.",
    "cfg_ftp_server_init OK.",
    "ftp_trap_init OK.",
    "ftpd_tech_init OK.",
    "initialize pwd policy OK.",
    "cli_client_ready.",
]

ROW = "  %-15s  %-12s  %-8s  %-8s  %-8s\n"
MEMORY_HEAD = ("\nFTPD Dynamic Memory Usage:\n"
               + ROW % ("Memory Block", "Allocs(Fail)", "Allocs", "Free", "In Use")
               + ROW % ("---------------", "------------", "--------", "--------", "--------"))


class FrameTest(unittest.TestCase):
    def setUp(self):
        self.d = Daemon()

    def tearDown(self):
        self.d.cleanup()

    def test_usage_and_second_instance_exit_zero(self):
        self.d.start()
        for args in (["-h"], ["--bogus"], ["x", "-d"]):
            r = subprocess.run([DAEMON, *args], env=self.d.env(), capture_output=True, timeout=10)
            self.assertEqual(r.returncode, 0, args)
        # Usage does not take the single-instance guard.
        self.assertNotIn("One instance is running.", self.d.keymsg())
        self.assertIn("Usage:  ftp_server.elf [option]", self.d.logtext())
        r = subprocess.run([DAEMON], env=self.d.env(), capture_output=True, timeout=START_WAIT)
        self.assertEqual(r.returncode, 0)
        self.assertIn("One instance is running.\n", self.d.keymsg())
        self.assertTrue(self.d.port_open(), "first instance still serves")
        self.assertEqual(self.d.stop(), 0)

    def test_no_tmpdir_does_not_start(self):
        env = self.d.env()
        del env["TMPDIR"]
        r = subprocess.run([DAEMON], env=env, capture_output=True, timeout=START_WAIT)
        self.assertEqual(r.returncode, 0)
        self.assertFalse(self.d.port_open())

    def test_startup_key_messages_in_order(self):
        self.d.start()
        self.assertTrue(wait_until(lambda: "cli_client_ready." in self.d.keymsg(), timeout=15))
        text = self.d.keymsg()
        lines = [l.split("]- ", 1)[1] for l in text.splitlines() if "]- " in l]
        self.assertEqual(lines, STARTUP_MESSAGES)
        self.assertEqual(self.d.stop(), 0)

    def test_debug_switches_and_memory_table(self):
        self.d.start()
        rc, out = self.d.cli("debug ftp-server pro")
        self.assertEqual((rc, out), (0, "debug ftp-server pro debugging is on\n"))
        rc, out = self.d.cli("show debugging")
        self.assertEqual(rc, 0)
        self.assertIn("FTP Server:\n  ftp-server pro debugging is on\n", out)
        # With the process switch on, a session's lines reach the log file.
        c = RawClient(self.d.port)
        c.reply()
        c.cmd("QUIT")
        c.close()
        self.assertTrue(wait_until(lambda: "%FTPSRV-7-DEBUG: (RECV)   QUIT" in self.d.logtext()))
        rc, out = self.d.cli("no debug ftp-server pro")
        self.assertEqual((rc, out), (0, "debug ftp-server pro debugging is off\n"))
        rc, out = self.d.cli("show ftp-server memory")
        self.assertEqual(rc, 0)
        self.assertTrue(out.startswith(MEMORY_HEAD), repr(out[:300]))
        rows = out[len(MEMORY_HEAD):].splitlines()
        self.assertEqual([r[2:17].rstrip() for r in rows], MEMORY_ROWS)
        self.assertEqual(self.d.stop(), 0)

    def test_cli_exit_codes(self):
        self.assertEqual(self.d.cli("show ftp-server")[0], 2, "no daemon: 2")
        self.d.start()
        for line, code in (("show ftp-server", 0), ("ftp-server timeout 0", 1), ("bogus command", 1)):
            self.assertEqual(self.d.cli(line)[0], code, line)
        self.assertTrue(self.d.cli("bogus command")[1].startswith("%"))
        r = subprocess.run([CLI], env=self.d.env(), input=b"# comment\n\nshow ftp-server\n!\n",
                           capture_output=True, timeout=30)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertEqual(self.d.stop(), 0)

    def test_signals(self):
        self.d.start()
        self.assertEqual(self.d.stop(signal.SIGINT), 0)
        self.d.start()
        self.assertEqual(self.d.stop(signal.SIGTSTP), 1)


if __name__ == "__main__":
    unittest.main()
