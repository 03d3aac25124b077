"""Serving sessions: admission limits, the status report and show tech-support, failed logins,
HELP/SYST/STAT texts. (The greeting over both families: test_real_clients.py; enable and disable:
test_transfer_faults.py.)"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient, logged_in, wait_until  # noqa: E402


class SessionTest(DaemonTestCase):
    def tearDown(self):
        # Whatever a test did, no session state is left behind once its sessions ended.
        wait_until(lambda: self.d.cli("show ftp-server")[1].count("trans-type") == 0, timeout=10)

    def test_twenty_first_connection_is_closed_without_reply(self):
        clients = []
        try:
            for _ in range(20):
                c = RawClient(self.d.port)
                self.assertTrue(c.reply().startswith(b"220 "))
                clients.append(c)
            extra = RawClient(self.d.port)
            self.assertTrue(extra.closed(), "21st connection got a reply")
            extra.close()
        finally:
            for c in clients:
                c.close()
        # Slots free again: a new client is served.
        self.assertTrue(wait_until(self.served, timeout=10))

    def served(self):
        try:
            c = RawClient(self.d.port)
            try:
                return c.reply().startswith(b"220 ")
            finally:
                c.close()
        except (EOFError, OSError):
            return False

    def test_per_user_limit_and_status_report(self):
        self.assertEqual(self.d.cli("ftp-server max-user-connect 2")[0], 0)
        try:
            a = logged_in(self.d.port)
            # The slot is a snapshot taken at USER (and refreshed around data connections).
            self.assertTrue(a.cmd("TYPE I").startswith(b"200"))
            b = logged_in(self.d.port)
            c = RawClient(self.d.port)
            c.reply()
            self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
            # No slot left: the table password is not even compared; AAA refuses with two 530s.
            self.assertEqual(c.cmd("PASS secret1"), b"530 Password access denied.\r\n")
            self.assertEqual(c.reply(), b"530 Password access denied.\r\n")
            rc, out = self.d.cli("show ftp-server")
            self.assertEqual(rc, 0)
            self.assertIn("username:alice\npassword:(PLAINT)secret1\nconnect num[2]\n", out)
            self.assertIn("    [0]trans-type:ASCII (ctrl)server IP:127.0.0.1[%d]\n" % self.d.port, out)
            self.assertIn("    [1]trans-type:ASCII (ctrl)server IP:127.0.0.1[%d]\n" % self.d.port, out)
            self.assertEqual(out.count("                               client IP:127.0.0.1["), 2)
            self.check_tech_support(a.sock.getsockname()[1])
            for x in (a, b, c):
                x.close()
        finally:
            self.d.cli("ftp-server max-user-connect 10")

    def check_tech_support(self, client_port):
        """The server's section of show tech-support: under its header, the running line, the status
        report (a live session in it) and every row of the memory table, each indented by two blanks."""
        rc, out = self.d.cli("show tech-support")
        self.assertEqual(rc, 0)
        self.assertTrue(out.startswith("------------------ app#ftp_server ------------------\n"
                                       "  ftp server is running\n"), out)
        for line in ["      ftp-server information\n", "  enable : Y\n", "  topdir : flash:/\n",
                     "  timeout: 10min\n", "  username:alice\n", "client IP:127.0.0.1[%d]" % client_port]:
            self.assertIn(line, out)
        # Compared up to the counters, which the show commands themselves may move.
        rows = [l for l in self.d.cli("show ftp-server memory")[1].splitlines() if l.strip() and l.startswith("  ")]
        self.assertGreater(len(rows), 10)
        for row in rows:
            self.assertIn("\n  " + row[:19], out)
        self.assertEqual(out.count("FTPD Dynamic Memory Usage:"), 1)

    def fail_pass(self, c):
        self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
        # The table refuses, then AAA (the local list) does: two 530 replies.
        self.assertEqual(c.cmd("PASS wrong"), b"530 Password access denied.\r\n")
        self.assertEqual(c.reply(), b"530 Password access denied.\r\n")

    def test_failed_logins_end_the_session_at_the_limit(self):
        c = RawClient(self.d.port)
        c.reply()
        self.fail_pass(c)
        self.fail_pass(c)
        # Any PASS that is not refused resets the counts, the 503 of one out of sequence too.
        self.assertEqual(c.cmd("PASS again"), b"503 Bad sequence of commands.\r\n")
        self.fail_pass(c)
        self.fail_pass(c)
        self.assertTrue(c.cmd("SYST").startswith(b"215 "))
        self.fail_pass(c)
        self.assertTrue(c.closed(), "third failed PASS must end the session")
        c.close()
        # Two failures and then the right password log in.
        c = RawClient(self.d.port)
        c.reply()
        self.fail_pass(c)
        self.fail_pass(c)
        c.cmd("USER alice")
        self.assertEqual(c.cmd("PASS secret1"), b"230 User logged in, proceed.\r\n")
        c.close()

    def test_help_syst_stat_texts(self):
        c = RawClient(self.d.port)
        c.reply()
        full = c.cmd("HELP")
        lines = full.split(b"\n")
        self.assertEqual(lines[0], b"214- The following commands are recognized (* =>is unimplemented).\r")
        self.assertEqual(lines[1], b"214-    USER    PORT    STOR    MSAM*   RNTO    NLST    MKD     CDUP    OPTS*")
        self.assertTrue(lines[7].startswith(b"214 "))
        self.assertEqual(c.cmd("HELP retr"), b"214 Syntax: RETR <sp> file-name\r\n")
        self.assertEqual(c.cmd("HELP abor"), b"214 ABOR    \t(abort operation); unimplemented.\r\n")
        self.assertEqual(c.cmd("HELP xyz"), b"502 Unknown command XYZ.\r\n")
        self.assertEqual(c.cmd("HELP SITE CHMOD"),
                         b"214 SITE CHMOD   \t<sp> mode <sp> file-name; unimplemented.\r\n")
        site = c.cmd("HELP SITE")
        self.assertTrue(site.startswith(b"214- The following SITE commands are recognized"), site)
        self.assertEqual(c.cmd("SYST"), b"215 UNIX Type: L8.\r\n")
        self.assertEqual(c.cmd("STAT"), b"530 Not logged in.\r\n")
        self.assertEqual(c.cmd("NOOP"), b"502 Command not implemented.\r\n")
        self.assertEqual(c.cmd("PWD"), b"550 Requested action not taken.\r\n")
        self.assertEqual(c.cmd("CDUP"), b"530 Not logged in.\r\n")
        self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
        self.assertEqual(c.cmd("PASS secret1"), b"230 User logged in, proceed.\r\n")
        self.assertEqual(c.cmd("STAT"),
                         b"211- TESTSW FTP server status:\r\n"
                         b"     Logged in as alice.\r\n"
                         b"     TYPE: ASCII.\r\n"
                         b"     No data connection.\r\n"
                         b"211 End of status.\r\n")
        # One receive is one command: a line that fills the 512-byte buffer is a bad line.
        c.send(b"X" * 510 + b"\r\n")
        self.assertEqual(c.reply(), b"500 Syntax error, command unrecognized.\r\n")
        self.assertEqual(c.cmd("QUIT"), b"221 Service closing control connection(Goodbye).\r\n")
        c.close()


if __name__ == "__main__":
    unittest.main()
