# Time-outs, each waited out once and all at the same time (one minute, the smallest setting): the login
# time-out ends a silent session before login without a reply and drops a client that sends but never reads
# its replies; the idle time-out on data connections answers a client that stops reading a download or a
# listing with 426, and clients that ask for a passive port and never connect to it with 425 (downloads,
# listings and uploads alike); a client that stops half-way through a TLS handshake, one that keeps sending
# commands without logging in, and one that trickles a line that never ends are dropped at the login
# time-out too. Other clients are served meanwhile, logged-in sessions go on, and descriptors and memory
# come back to where they were.

import contextlib
import socket
import threading
import time
import unittest

from ftps_harness import (Daemon, DaemonTestCase, RawClient, ends, expect, greeted, half_handshake, logged_in,
                          memory_idle, pasv_connect, wait_until, whole_session)

SMALL = b"x" * 100000


def keep_sending(sock, piece):
    # Sends piece every five seconds until the daemon closes the connection.
    def run():
        with contextlib.suppress(OSError):
            for _ in range(40):
                sock.send(piece)
                time.sleep(5)
    threading.Thread(target=run, daemon=True).start()


def stalled_transfer(port, setup, verb, timeout=10):
    # A transfer under way (150) to a client that does not read: its small receive buffer is soon full.
    c = RawClient(port, timeout=timeout).login()
    c.cmd(setup)
    data = pasv_connect(c, rcvbuf=4096)
    c.send(verb + "\r\n")
    expect(c.reply(), b"150 ")
    return c, data


class TimeoutTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1", "ftp-server login timeout 1"]}

    def test_login_and_data_timeouts(self):
        # A standard daemon with TLS and a client that stops in the middle of its handshake.
        tls_daemon = Daemon(extra_platform={"ftp.profile": "standard"}, tls=True, **self.daemon_kwargs).start_for(self)
        tls_baseline = tls_daemon.descriptors()
        half = half_handshake(tls_daemon.port)
        self.d.put("big.bin", b"z" * (64 << 20))
        self.d.put("f.txt", SMALL)
        self.d.many("many")
        # Whatever the first session opens for good is open before the count.
        whole_session(logged_in(self.d.port), "f.txt", SMALL)
        self.assertTrue(memory_idle(self.d))
        baseline = self.d.descriptors()
        # The idle time-out is read when a session starts: this one keeps the ten minutes and so
        # shows that the login time-out no longer applies once logged in.
        busy = RawClient(self.d.port, timeout=150).login()
        self.assertEqual(self.d.cli("ftp-server timeout 1"), (0, ""))

        deaf = socket.socket()
        deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        deaf.connect(("127.0.0.1", self.d.port))
        deaf.settimeout(2)
        with contextlib.suppress(OSError):
            while True:  # until the daemon, blocked on its replies, stops reading
                deaf.send(b"HELP\r\n" * 50)
        silent, chatty, trickle = greeted(self.d.port, timeout=150), greeted(self.d.port), greeted(tls_daemon.port)
        keep_sending(chatty.sock, b"SYST\r\n")
        keep_sending(trickle.sock, b"N")

        stalled, data_connections = zip(*(stalled_transfer(self.d.port, "TYPE I", verb, timeout=150)
                                          for verb in ("RETR big.bin", "LIST many")))
        waiting = [RawClient(self.d.port, timeout=150).login() for _ in range(3)]
        for c, verb in zip(waiting, ("RETR f.txt", "LIST", "STOR never.bin")):
            self.assertTrue(c.cmd("PASV").startswith(b"227 "))
            c.send(verb + "\r\n")
        start = time.time()
        for _ in range(3):  # served while the others wait
            whole_session(logged_in(self.d.port), "f.txt", SMALL)

        self.assertTrue(silent.closed(timeout=100), "no reply expected, only the close")
        self.assertTrue(ends(half.sock, timeout=30), "a handshake cut short ends at the login time-out")
        for c in (chatty, trickle):
            self.assertTrue(ends(c.sock, timeout=30), "commands or bytes without a login do not hold a session")
            c.close()
        self.assertTrue(wait_until(lambda: tls_daemon.descriptors() <= tls_baseline, timeout=10))
        half.close()
        for c in stalled:
            self.assertEqual(c.reply(), b"426 Connection closed; transfer aborted.\r\n")
        for c in waiting:
            r = c.reply()
            if r.startswith(b"150 "):  # STOR answers before it waits, the others after
                r = c.reply()
            self.assertEqual(r, b"425 Can't open data connection.\r\n")
        self.assertGreater(time.time() - start, 50)
        for c in [busy, *stalled, *waiting]:
            self.assertTrue(c.cmd("SYST").startswith(b"215 "))
            c.close()
        for s in [*data_connections, silent.sock]:
            s.close()
        # The deaf client's replies could not go out for a whole login time-out: it is gone too.
        self.assertTrue(wait_until(lambda: self.d.descriptors() <= baseline, timeout=40),
                        (self.d.descriptors(), baseline))
        deaf.close()
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())


if __name__ == "__main__":
    unittest.main()
