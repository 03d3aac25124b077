# Serving sessions: the per-user limit with the status report and show tech-support, failed logins, and load:
# twenty sessions transfer at the same moment (downloads and uploads, both types) while a twenty-first
# connection is refused without a reply; every transfer arrives byte for byte, and the server serves again and
# gives back its memory once they end. (The device's HELP, SYST and STAT texts: test_standard_profile.py.)

import os
import time
import unittest

from ftps_harness import (SANITIZED, DaemonTestCase, RawClient, greeted, in_parallel, logged_in,
                          pasv_connect, read_file, start_upload, wait_until)

SESSIONS = 20
# A download longer than one sendfile call (4 MiB), its end in the middle of a page.
SIZE = (1 << 20) if SANITIZED else (4 << 20) + 12345
BLOCK = 64 * 1024


class SessionTest(DaemonTestCase):
    # Failed passwords are answered at once here; the delay itself: test_hostile_clients.py.
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1",
                                 "ftp-server username bob password secret2"],
                     "extra_platform": {"ftp.login_fail_delay": "0"}}

    def tearDown(self):
        # Whatever a test did, no session state is left behind once its sessions ended.
        wait_until(lambda: self.d.cli("show ftp-server")[1].count("trans-type") == 0, timeout=10)

    def test_per_user_limit_and_status_report(self):
        self.assertEqual(self.d.cli("ftp-server max-user-connect 2")[0], 0)
        self.addCleanup(self.d.cli, "ftp-server max-user-connect 10")
        a = logged_in(self.d.port)
        # The slot is a snapshot taken at USER (and refreshed around data connections).
        self.assertTrue(a.cmd("TYPE I").startswith(b"200"))
        b = logged_in(self.d.port)
        c = greeted(self.d.port)
        self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
        # No slot left: the table password is not even compared; AAA refuses with two 530s.
        self.assertEqual(c.cmd("PASS secret1") + c.reply(), b"530 Password access denied.\r\n" * 2)
        out = self.d.cli("show ftp-server")[1]
        self.assertIn("username:alice\npassword:(PLAINT)secret1\nconnect num[2]\n", out)
        for slot in (0, 1):
            self.assertIn("    [%d]trans-type:ASCII (ctrl)server IP:127.0.0.1[%d]\n" % (slot, self.d.port), out)
        self.assertEqual(out.count("                               client IP:127.0.0.1["), 2)
        # The server's section of show tech-support: under its header, the running line, the status
        # report (a live session in it) and the memory table, each indented by two blanks.
        out = self.d.cli("show tech-support")[1]
        self.assertTrue(out.startswith("------------------ app#ftp_server ------------------\n"
                                       "  ftp server is running\n"), out)
        for line in ["      ftp-server information\n", "  enable : Y\n", "  topdir : flash:/\n",
                     "  timeout: 10min\n", "  username:alice\n", "client IP:127.0.0.1[%d]" % a.sock.getsockname()[1]]:
            self.assertIn(line, out)
        # The memory table once (its rows: test_management.py).
        self.assertEqual(out.count("FTPD Dynamic Memory Usage:"), 1)
        for x in (a, b, c):
            x.close()

    def test_a_session_gives_back_only_the_slot_it_took(self):
        self.assertEqual(self.d.cli("ftp-server max-user-connect 1")[0], 0)
        self.addCleanup(self.d.cli, "ftp-server max-user-connect 10")
        a = logged_in(self.d.port)
        self.assertEqual(self.d.cli("no ftp-server username alice")[0], 0)
        self.assertEqual(self.d.cli("ftp-server username alice password secret1")[0], 0)
        b = logged_in(self.d.port)
        a.cmd("QUIT")
        a.close()
        time.sleep(0.5)
        # b still holds the only slot: a third session cannot log in as alice.
        c = RawClient(self.d.port)
        self.assertTrue(c.pass_replies("alice", "secret1")[-1].startswith(b"530"))
        for x in (b, c):
            x.close()

    def fail_pass(self, c):
        self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
        # The table refuses, then AAA (the local list) does: two 530 replies.
        self.assertEqual(c.cmd("PASS wrong") + c.reply(), b"530 Password access denied.\r\n" * 2)

    def test_failed_logins_end_the_session_at_the_limit(self):
        c = greeted(self.d.port)
        # Any PASS that is not refused resets the counts, the 503 of one out of sequence too.
        for _ in range(2):
            self.fail_pass(c)
            self.fail_pass(c)
            self.assertEqual(c.cmd("PASS again"), b"503 Bad sequence of commands.\r\n")
        c.cmd("USER alice")
        self.assertEqual(c.cmd("PASS secret1"), b"230 User logged in, proceed.\r\n")
        c.close()
        c = greeted(self.d.port)
        for _ in range(3):
            self.fail_pass(c)
        self.assertTrue(c.closed(), "third failed PASS must end the session")
        c.close()

    def test_twenty_transfers_at_once_and_the_twenty_first_refused(self):
        self.assertEqual(self.d.cli("ftp-server max-user-connect 20"), (0, ""))
        payload = os.urandom(SIZE)
        # CR LF pairs only: the ASCII upload stores LF lines.
        text = (b"line of text\r\n" * (SIZE // 14 + 1))[:SIZE - SIZE % 14]
        self.d.put("down.bin", payload)
        baseline = self.d.memory_in_use()

        # Downloads, ASCII uploads and binary uploads by two users; each holds after its first block
        # until all twenty are inside their transfers.
        sessions, got = [], {}
        for i in range(SESSIONS):
            c = RawClient(self.d.port, timeout=120).login(*(("alice", "secret1"), ("bob", "secret2"))[i % 2])
            if i % 2 == 0:
                c.cmd("TYPE I")
                data = pasv_connect(c)
                c.send("RETR down.bin\r\n")
                self.assertTrue(c.reply().startswith(b"150 "))
                got[i] = data.recv(BLOCK)
            else:
                data = start_upload(c, "up%02d.bin" % i, (text if i % 4 == 1 else payload)[:BLOCK],
                                    "TYPE A" if i % 4 == 1 else "TYPE I")
            sessions.append((c, data))
        extra = RawClient(self.d.port, timeout=30)
        self.assertTrue(extra.closed(timeout=30), "the 21st connection was served")
        extra.close()

        def finish(i, data):
            if i % 2 == 0:
                while chunk := data.recv(BLOCK):
                    got[i] += chunk
            else:
                data.sendall((text if i % 4 == 1 else payload)[BLOCK:])
            data.close()

        in_parallel(lambda i: finish(i, sessions[i][1]), len(sessions), timeout=300)
        for i, (c, _) in enumerate(sessions):
            self.assertTrue(c.reply().startswith(b"226 "), i)
            c.close()
            arrived = got[i] if i % 2 == 0 else read_file(os.path.join(self.d.flash, "up%02d.bin" % i))
            if i % 4 == 1:
                # Each received block is converted by itself, so a CR LF split between two blocks
                # (where TCP happened to cut the stream) stays a pair; the others became LF.
                self.assertLess(arrived.count(b"\r\n"), text.count(b"\n") // 2, "upload %d" % i)
                self.assertTrue(arrived.replace(b"\r\n", b"\n") == text.replace(b"\r\n", b"\n"), "upload %d" % i)
            else:
                self.assertTrue(arrived == payload, "transfer %d" % i)

        # With the sessions gone a new one is served and the memory rows are back where they were.
        self.assertTrue(wait_until(lambda: self.d.memory_in_use() == baseline, timeout=30),
                        (baseline, self.d.memory_in_use()))
        logged_in(self.d.port).close()


if __name__ == "__main__":
    unittest.main()
