# The service under administrative stress and transfers that do not end well, against one daemon: disabling
# the service aborts a download (426), an upload (426, no file left), a listing whose client stopped reading,
# and every session at once, and closes both ports until it is enabled again; disabling and enabling at once
# with sessions open reopens both ports every time; stop messages that nobody asked for start no session;
# SIGHUP from log rotation reopens the log; management connections that never send or never finish a request
# lock nobody out; no path leaves the top directory, and with the top directory at "/" the system trees are
# hidden and refused. (A reset upload: test_soak.py leaves no partial file, test_standard_profile.py checks
# its reply.)

import ftplib
import os
import signal
import socket
import struct
import time
import unittest

from ftps_harness import (START_WAIT, DaemonTestCase, ends, ftp_session, greeted, has_ipv6,
                          logged_in, memory_idle, start_upload, wait_until)
from test_stalled_transfer import stalled_transfer

# Management socket framing: 4-byte length, 1-byte kind, payload.
REQ_EXEC, REQ_PROMPT, RSP_OUTPUT, RSP_END = 1, 4, 0x81, 0x82


def cli_request(sock, kind, payload=b""):
    # One request on a raw management connection: (status, output).
    sock.sendall(struct.pack("!IB", len(payload), kind) + payload)
    frames, out = sock.makefile("rb"), b""
    while True:
        length, k = struct.unpack("!IB", frames.read(5))
        body = frames.read(length)
        if k == RSP_END:
            return body[0], out.decode()
        assert k == RSP_OUTPUT, "unexpected frame %#x" % k
        out += body


class ServiceTest(DaemonTestCase):
    def test_disable_during_upload_download_and_listing(self):
        self.d.put("big.bin", b"z" * (16 << 20))
        self.d.many("many")
        idle = [logged_in(self.d.port) for _ in range(3)]
        up = logged_in(self.d.port)
        updata = start_upload(up, "partial.bin", b"y" * 50_000)
        down, ddata = stalled_transfer(self.d.port, "TYPE I", "RETR big.bin")
        lister, ldata = stalled_transfer(self.d.port, "CWD many", "LIST")
        ldata.recv(100)  # the listing is under way; then the client stops reading
        time.sleep(1)
        self.assertEqual(self.d.cli("no ftp-server enable"), (0, ""))
        self.assertEqual(up.reply(), b"426 Data Connection.\r\n")
        self.assertEqual(down.reply(), b"426 Connection closed; transfer aborted.\r\n")
        lister.sock.settimeout(15)
        self.assertIn(lister.sock.recv(4096), (b"", b"426 Connection closed; transfer aborted.\r\n"))
        for c in [up, down, lister] + idle:
            self.assertTrue(c.closed(timeout=5))
            c.close()
        self.assertTrue(wait_until(lambda: not self.d.port_open(), timeout=5))
        if has_ipv6():
            self.assertFalse(self.d.port_open(socket.AF_INET6))
        # Removed after the reply went out.
        self.assertTrue(wait_until(lambda: not os.path.exists(os.path.join(self.d.flash, "partial.bin"))))
        for s in (updata, ddata, ldata):
            s.close()
        self.assertEqual(self.d.cli("ftp-server enable"), (0, ""))
        self.assertTrue(wait_until(self.d.port_open, timeout=5))
        logged_in(self.d.port).close()
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())

    def test_no_path_leaves_the_top_directory(self):
        ftp = ftp_session(self.d.port)
        self.assertEqual(ftp.sendcmd("CWD ../../../.."), '250 Directory change to "/".')
        for name in ("../" * 8 + "etc/passwd", "/../etc/passwd", "../platform.conf"):
            self.assertRaises(ftplib.error_perm, ftp.retrbinary, "RETR " + name, lambda b: None)
        ftp.quit()

    def test_disable_then_enable_at_once_with_sessions_open_reopens_both_ports_every_time(self):
        for attempt in range(10):
            clients = [greeted(self.d.port) for _ in range(19)]
            self.assertEqual(self.d.cli("no ftp-server enable", "ftp-server enable"), (0, ""))
            # A deadline that proves the listener did not sit out a retry.
            for family in (socket.AF_INET, socket.AF_INET6):
                self.assertTrue(wait_until(lambda: self.d.port_open(family), timeout=START_WAIT),
                                "attempt %d: port closed after enable (family %d)" % (attempt, family))
            for c in clients:
                c.close()
            # The next attempt's 19 fit the limit only once these sessions have ended.
            self.assertTrue(memory_idle(self.d), self.d.memory_in_use())

    def whole_quiet_session(self):
        # With the process lines on, a session that ends writes its start and its end to the log.
        self.assertEqual(self.d.cli("debug ftp-server pro")[0], 0)
        c = greeted(self.d.port)
        c.cmd("QUIT")
        c.close()
        self.assertTrue(wait_until(lambda: self.d.logtext().count("FTP_SERVER_END") == self.started(),
                                   timeout=START_WAIT))

    def started(self):
        return self.d.logtext().count("ftp user connected.")

    def test_stop_message_while_enabled_starts_no_session(self):
        self.whole_quiet_session()
        before = self.started()
        # No session is left to take them: only the listener reads the channel.
        channel = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        for _ in range(3):
            channel.sendto(b"stop ftp server", os.path.join(self.d.tmpdir, "app", "ftps", ".server_ftp"))
        channel.close()
        time.sleep(1)
        self.assertEqual(self.started(), before, "a session was started for a descriptor handed on before")
        greeted(self.d.port).close()
        self.assertEqual(self.started(), before + 1)

    def test_sighup_reopens_the_log_file_and_changes_nothing_else(self):
        # The log file exists whatever the tests before did; the session has ended before the file
        # is moved away.
        self.whole_quiet_session()
        os.rename(self.d.log, self.d.log + ".1")
        self.d.proc.send_signal(signal.SIGHUP)
        wait_until(lambda: "%LOG-6-REOPEN: " in self.d.logtext(), timeout=START_WAIT)
        self.assertRegex(self.d.logtext(), r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d %LOG-6-REOPEN: log reopened$")
        self.assertEqual(os.stat(self.d.log).st_mode & 0o777, 0o640)
        logged_in(self.d.port).close()
        self.assertEqual(self.d.cli("show ftp-server")[0], 0)

    def test_quiet_management_connections_never_lock_the_administrator_out(self):
        path = os.path.join(self.d.tmpdir, "app", "ftps", ".cli")

        def connect():
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            s.settimeout(10)
            s.connect(path)
            self.addCleanup(s.close)
            return s

        # A terminal that has been used and now waits at its prompt, then fifteen connections
        # that never send: every place is taken.
        terminal = connect()
        self.assertEqual(cli_request(terminal, REQ_PROMPT)[0], 0)
        silent = [connect() for _ in range(15)]
        # A newcomer is served; the place it takes is the oldest silent connection's.
        self.assertEqual(self.d.cli("show ftp-server memory")[0], 0)
        self.assertTrue(ends(silent[0], timeout=5))
        self.assertEqual(self.d.cli("show ftp-server memory")[0], 0)
        # A request begun and never finished loses its connection.
        silent[1].sendall(struct.pack("!IB", 20, REQ_EXEC) + b"show")
        self.assertTrue(ends(silent[1], timeout=START_WAIT))
        # The terminal, quiet all along, is still served.
        self.assertEqual(cli_request(terminal, REQ_EXEC, b"ftp-server timeout 7"), (0, ""))
        self.assertIn("ftp-server timeout 7\n", self.d.cli("show running-config")[1])


class SystemRootTest(DaemonTestCase):
    # With the main flash at "/" and the top directory "/", the system trees are hidden and refused.
    daemon_kwargs = {"topdir": "/", "extra_platform": {"storage.flash": "/"}}

    def test_system_trees_hidden_and_refused(self):
        ftp = ftp_session(self.d.port)
        names = ftp.nlst("/")
        listing = []
        ftp.retrlines("LIST /", listing.append)
        self.assertEqual({"proc", "dev", "etc"} & (set(names) | {l.rsplit(" ", 1)[-1] for l in listing}), {"etc"})
        for error, call in ((ftplib.error_perm, lambda: ftp.cwd("/proc")),
                            (ftplib.error_perm, lambda: ftp.retrbinary("RETR /proc/version", lambda b: None)),
                            (ftplib.error_temp, lambda: ftp.size("/dev/null"))):
            self.assertRaises(error, call)
        ftp.quit()


if __name__ == "__main__":
    unittest.main()
