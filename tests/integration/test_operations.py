# What an administrator needs to run the standard profile on a real host, against the real daemon: accounts of
# the local user database with homes of their own, read-only and not; the session limit and its per-user
# default; one address unable to take every session; the PROXY protocol from a balancer's address (the
# client's real address in logs and limits) and from nobody else; the transfer log, reopened on SIGHUP. (HAProxy
# in front of two daemons, with the passive address and port range it forwards: test_haproxy.py.)

import contextlib
import os
import signal
import unittest

from ftps_harness import DaemonTestCase, RawClient, ends, greeted, read_text, transfer, wait_until

USERS = """
[user reader]
password = read3r
home = flash:/homes/reader
write = no
[user writer]
password = wr1ter
home = flash:/homes/writer
max_rate = 100000
"""
TOO_MANY = b"421 There are too many connections from your internet address.\r\n"


def proxy_v1(src, port=40000):
    return ("PROXY TCP4 %s 127.0.0.1 %d 21\r\n" % (src, port)).encode()


def silent_end(sock, timeout=15):
    # What the peer sent before it closed (a reset counts as closed).
    sock.settimeout(timeout)
    got = b""
    with contextlib.suppress(ConnectionResetError):
        while chunk := sock.recv(4096):
            got += chunk
    return got


class OperationsTest(DaemonTestCase):
    daemon_kwargs = {"user_database": USERS, "extra_platform": {
        "ftp.profile": "standard", "ftp.login_fail_delay": "0", "aaa.list.default": "local",
        "ftp.max_per_address": "3", "ftp.proxy_from": "127.0.0.5", "log.transfer_log": "xfer.log"}}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for name, data in (("homes/reader/r.txt", b"read me\n"), ("homes/writer/keep.txt", b"k\n"),
                           ("secret.txt", b"not for homes\n")):
            cls.d.put(name, data)
        cls.xferlog = os.path.join(os.path.dirname(cls.d.platform), "xfer.log")

    def login(self, user, password, source="127.0.0.1", header=None):
        return (RawClient(self.d.port, "127.0.0.1", 20, source) if header is None else self.proxied(header)).login(
            user, password)

    def proxied(self, header):
        # From the balancer's address, opening with a PROXY header.
        c = RawClient(self.d.port, "127.0.0.1", 20, "127.0.0.5")
        c.send(header)
        return c

    def test_homes_and_read_only_accounts(self):
        r = self.login("reader", "read3r")
        self.assertEqual(r.cmd("PWD"), b'257 "/" is the current directory\r\n')
        self.assertEqual(r.cmd("CWD .."), b'250 Directory change to "/".\r\n')
        self.assertEqual(transfer(r, "NLST")[1], b"r.txt\r\n")
        r.cmd("TYPE I")
        self.assertEqual(transfer(r, "RETR r.txt")[1], b"read me\n")
        self.assertTrue(r.cmd("RETR ../../secret.txt").startswith(b"550"))
        for cmd in ("STOR x", "APPE x", "DELE r.txt", "MKD d", "RMD d", "RNFR r.txt", "SITE CHMOD 600 r.txt",
                    "MFMT 20200101000000 r.txt"):
            self.assertEqual(r.cmd(cmd), b"550 Permission denied.\r\n", cmd)
        r.close()
        w = self.login("writer", "wr1ter")
        w.cmd("TYPE I")
        self.assertTrue(transfer(w, "STOR new.txt", b"new\n")[0].endswith(b"226 Transfer complete.\r\n"))
        self.assertEqual(transfer(w, "RETR new.txt")[1], b"new\n")
        self.assertEqual(w.cmd("DELE new.txt")[:3], b"250")
        w.close()
        self.assertEqual(os.listdir(os.path.join(self.d.flash, "homes", "writer")), ["keep.txt"])

    def test_session_limits_and_addresses(self):
        # Three from one address, the fourth refused before any login; others still served.
        held = [greeted(self.d.port) for _ in range(3)]
        c = RawClient(self.d.port)
        self.assertEqual(c.reply(), TOO_MANY)
        self.assertTrue(c.closed())
        other = self.login("alice", "secret1", source="127.0.0.2")
        for h in held + [other]:
            h.close()
        self.assertTrue(wait_until(lambda: greeted(self.d.port).close() is None))
        # The per-user default is the session limit: more sessions of one user than the device's 10.
        for m in [self.login("alice", "secret1", source="127.0.0.%d" % i) for i in range(10, 22)]:
            m.close()

    def test_proxy_protocol_from_the_balancer_only(self):
        # The client's real address counts: in the failed-login line and the per-address limit. (In
        # the transfer log, and on passive data connections the balancer relays: test_haproxy.py.)
        c = self.proxied(proxy_v1("192.0.2.7"))
        c.reply()
        c.cmd("USER alice")
        c.cmd("PASS wrong")
        c.close()
        self.assertTrue(wait_until(lambda: 'user "alice" from 192.0.2.7.' in self.d.logtext()))
        held = [self.login("alice", "secret1", header=proxy_v1("192.0.2.8")) for _ in range(3)]
        c = self.proxied(proxy_v1("192.0.2.8"))
        self.assertEqual(c.reply(), TOO_MANY)
        self.login("alice", "secret1", header=proxy_v1("192.0.2.9")).close()
        for h in held:
            h.close()
        # Without a header, with a broken one, or a header from anyone else: closed, no reply.
        for conn in (self.proxied(b""), self.proxied(b"PROXY TCP4 bogus\r\n")):
            self.assertEqual(silent_end(conn.sock), b"")
        stranger = greeted(self.d.port)
        stranger.send(proxy_v1("192.0.2.10"))
        self.assertTrue(ends(stranger.sock))

    def test_transfer_log_with_sighup(self):
        c = self.login("writer", "wr1ter")
        transfer(c, "STOR logged.bin", b"x" * 1000)
        c.cmd("TYPE I")
        transfer(c, "RETR logged.bin")
        # The upload (ASCII, in), then the download (binary, out), as the last two lines.
        self.assertRegex(read_text(self.xferlog), r" 127\.0\.0\.1 1000 /logged\.bin a _ i r writer ftp 0 \* c\n"
                         r".* 127\.0\.0\.1 1000 /logged\.bin b _ o r writer ftp 0 \* c\n$")
        os.rename(self.xferlog, self.xferlog + ".1")
        self.d.proc.send_signal(signal.SIGHUP)
        self.assertTrue(wait_until(lambda: os.path.exists(self.xferlog)))
        transfer(c, "RETR logged.bin")
        self.assertEqual(len(open(self.xferlog).read().splitlines()), 1)
        c.cmd("DELE logged.bin")
        c.close()


if __name__ == "__main__":
    unittest.main()
