"""The service under administrative stress: disabling and enabling at once with sessions open,
stop messages that nobody asked for, SIGHUP from log rotation, and management connections that
never send or never finish a request."""

import os
import signal
import socket
import struct
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import START_WAIT, Daemon, RawClient, wait_until  # noqa: E402

# Management socket framing: 4-byte length, 1-byte kind, payload.
REQ_EXEC, REQ_PROMPT, RSP_OUTPUT, RSP_END = 1, 4, 0x81, 0x82


def cli_request(sock, kind, payload=b""):
    """One request on a raw management connection: (status, output)."""
    sock.sendall(struct.pack("!IB", len(payload), kind) + payload)
    out = b""
    while True:
        head = recv_exact(sock, 5)
        length, k = struct.unpack("!IB", head)
        body = recv_exact(sock, length)
        if k == RSP_OUTPUT:
            out += body
        elif k == RSP_END:
            return body[0], out.decode()
        else:
            raise AssertionError("unexpected frame %#x" % k)


def recv_exact(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise EOFError("management connection closed")
        data += chunk
    return data


def closed_by_daemon(sock, timeout):
    """True when the daemon closes the connection within timeout."""
    sock.settimeout(timeout)
    try:
        return sock.recv(1) == b""
    except socket.timeout:
        return False
    except ConnectionResetError:
        return True


class ServiceRobustnessTest(unittest.TestCase):
    def setUp(self):
        self.d = Daemon()
        self.d.start()
        self.addCleanup(self.d.stop_checked)

    def test_disable_then_enable_at_once_with_sessions_open_reopens_both_ports_every_time(self):
        for attempt in range(10):
            clients = []
            for _ in range(19):
                c = RawClient(self.d.port)
                self.assertTrue(c.reply().startswith(b"220 "))
                clients.append(c)
            self.assertEqual(self.d.cli("no ftp-server enable", "ftp-server enable"), (0, ""))
            # A deadline that proves the listener did not sit out a retry.
            for family in (socket.AF_INET, socket.AF_INET6):
                self.assertTrue(wait_until(lambda: self.d.port_open(family), timeout=START_WAIT),
                                "attempt %d: port closed after enable (family %d)" % (attempt, family))
            for c in clients:
                c.close()

    def test_stop_message_while_enabled_starts_no_session(self):
        self.assertEqual(self.d.cli("debug ftp-server pro")[0], 0)
        sessions = lambda: self.d.logtext().count("ftp user connected.")
        c = RawClient(self.d.port)
        c.reply()
        c.cmd("QUIT")
        c.close()
        self.assertTrue(wait_until(lambda: "FTP_SERVER_END" in self.d.logtext()))
        self.assertEqual(sessions(), 1)
        # No session is left to take them: only the listener reads the channel.
        channel = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        for _ in range(3):
            channel.sendto(b"stop ftp server", os.path.join(self.d.tmpdir, "app", "ftps", ".server_ftp"))
        channel.close()
        time.sleep(1)
        self.assertEqual(sessions(), 1, "a session was started for a descriptor handed on before")
        c = RawClient(self.d.port)
        self.assertTrue(c.reply().startswith(b"220 "))
        c.close()
        self.assertEqual(sessions(), 2)

    def test_sighup_reopens_the_log_file_and_changes_nothing_else(self):
        self.assertEqual(self.d.cli("debug ftp-server pro")[0], 0)
        self.assertTrue(wait_until(lambda: os.path.exists(self.d.log)))
        rotated = self.d.log + ".1"
        os.rename(self.d.log, rotated)
        self.d.proc.send_signal(signal.SIGHUP)
        wait_until(lambda: self.d.proc.poll() is not None or "%LOG-6-REOPEN: " in self.d.logtext(),
                   timeout=START_WAIT)
        self.assertIsNone(self.d.proc.poll(), "SIGHUP ended the daemon")
        self.assertRegex(self.d.logtext(), r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d %LOG-6-REOPEN: log reopened$")
        self.assertTrue(os.path.exists(rotated))
        self.assertEqual(os.stat(self.d.log).st_mode & 0o777, 0o640)
        c = RawClient(self.d.port)
        c.login()
        c.close()
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
        self.assertTrue(closed_by_daemon(silent[0], timeout=5))
        self.assertEqual(self.d.cli("show ftp-server memory")[0], 0)
        # A request begun and never finished loses its connection.
        partial = silent[1]
        partial.sendall(struct.pack("!IB", 20, REQ_EXEC) + b"show")
        self.assertTrue(closed_by_daemon(partial, timeout=START_WAIT))
        # The terminal, quiet all along, is still served.
        self.assertEqual(cli_request(terminal, REQ_EXEC, b"ftp-server timeout 7"), (0, ""))
        self.assertIn("ftp-server timeout 7\n", self.d.cli("show running-config")[1])


if __name__ == "__main__":
    unittest.main()
