"""Serving sessions: greeting and login with real clients over both families, admission limits,
enable and disable, failed logins, HELP/SYST/STAT texts."""

import ftplib
import os
import socket
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient, has_ipv6, logged_in, wait_until  # noqa: E402

class SessionTest(DaemonTestCase):
    def tearDown(self):
        # Whatever a test did, no session state is left behind once its sessions ended.
        wait_until(lambda: self.d.cli("show ftp-server")[1].count("trans-type") == 0, timeout=10)

    def test_ftplib_and_curl_log_in_over_both_families(self):
        for host in ["127.0.0.1"] + (["::1"] if has_ipv6() else []):
            ftp = ftplib.FTP()
            self.assertEqual(ftp.connect(host, self.d.port, timeout=10),
                             "220 TESTSW FTP server <version 1.00> ready.")
            self.assertEqual(ftp.login("alice", "secret1"), "230 User logged in, proceed.")
            self.assertEqual(ftp.quit(), "221 Service closing control connection(Goodbye).")
            url = "ftp://alice:secret1@%s:%d/" % ("[%s]" % host if ":" in host else host, self.d.port)
            r = subprocess.run(["curl", "-sS", "-v", "--max-time", "20", "-Q", "SYST", url],
                               capture_output=True, timeout=30)
            err = r.stderr.decode(errors="replace")
            self.assertIn("< 230 User logged in, proceed.", err)
            self.assertIn("< 215 ", err)

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
        self.assertTrue(wait_until(lambda: self._served(), timeout=10))

    def _served(self):
        c = RawClient(self.d.port)
        try:
            return c.reply().startswith(b"220 ")
        except (EOFError, OSError):
            return False
        finally:
            c.close()

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
            for x in (a, b, c):
                x.close()
        finally:
            self.d.cli("ftp-server max-user-connect 10")

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


class EnableTest(DaemonTestCase):
    def test_disable_ends_sessions_and_closes_ports_at_once(self):
        clients = [logged_in(self.d.port) for _ in range(3)]
        self.assertEqual(self.d.cli("no ftp-server enable"), (0, ""))
        for c in clients:
            self.assertTrue(c.closed(timeout=5))
            c.close()
        self.assertTrue(wait_until(lambda: not self.d.port_open(), timeout=5))
        if has_ipv6():
            self.assertFalse(self.d.port_open(socket.AF_INET6))
        self.assertEqual(self.d.cli("ftp-server enable"), (0, ""))
        self.assertTrue(wait_until(self.d.port_open, timeout=5))
        logged_in(self.d.port).close()


if __name__ == "__main__":
    unittest.main()
