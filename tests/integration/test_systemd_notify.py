# Supervision by systemd without systemd: the daemon gets a notification socket of its own and a watchdog
# period, announces READY=1 once it serves, keeps sending WATCHDOG=1, and withholds it as soon as its listener
# thread stops notifying (the test-only switch silences the listener three seconds after READY=1).

import os
import socket
import time
import unittest

from ftps_harness import SANITIZED, Daemon, read_file, wait_until

WATCHDOG_SECS = 2  # the daemon checks every half period
SILENT_AFTER = 8   # seconds after the listener starts; READY=1 comes at 5
SLOW = 3 if SANITIZED else 1


def receive(sock, messages, timeout, until=None):
    # Reads datagrams (each may carry several lines) into messages, as (time, line) pairs, for up to
    # timeout seconds or until a line equal to until has come; returns that line's time or None.
    deadline = time.time() + timeout
    while not (found := [at for at, line in messages if line == until]) and (left := deadline - time.time()) > 0:
        sock.settimeout(left)
        try:
            messages += [(time.time(), line) for line in sock.recv(4096).decode(errors="replace").splitlines()]
        except socket.timeout:
            break
    return found[0] if found else None


def task_named(pid, name):
    # Thread id of the daemon's thread with that name, or None.
    return next((int(tid) for tid in os.listdir("/proc/%d/task" % pid)
                 if (read_file("/proc/%d/task/%s/comm" % (pid, tid)) or b"").strip() == name.encode()), None)


class SystemdNotifyTest(unittest.TestCase):
    def test_ready_once_serving_then_watchdog_until_the_listener_is_silenced(self):
        # A datagram socket standing in for systemd's.
        self.d = Daemon()
        self.addCleanup(self.d.cleanup)
        notify, messages = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM), []
        self.addCleanup(notify.close)
        notify.bind(os.path.join(self.d.dir, "notify"))
        env = dict(self.d.env(), NOTIFY_SOCKET=notify.getsockname(), WATCHDOG_USEC=str(WATCHDOG_SECS * 1000000),
                   FTPS_TEST_LISTENER_SILENT_AFTER=str(SILENT_AFTER))
        self.d.start(env=env, wait=False)
        self.assertIsNotNone(receive(notify, messages, 30 * SLOW, until="READY=1"), "no READY=1: %s" % messages)
        # Ready means ready: the management socket answers and the port accepts.
        self.assertTrue(self.d.cli_ok())
        self.assertTrue(self.d.port_open())
        self.assertTrue(wait_until(lambda: "cli_client_ready.\n" in self.d.keymsg(), timeout=5 * SLOW))
        listener = task_named(self.d.proc.pid, "ftps_main")

        # Watchdogs flow until the listener goes quiet, then stop for good while the process lives.
        self.assertTrue(wait_until(lambda: "watchdog withheld" in self.d.logtext(), timeout=30 * SLOW),
                        self.d.logtext())
        self.assertIn("thread %d has not notified" % listener, self.d.logtext())
        receive(notify, messages, 0.5)  # a beat sent just before the verdict may still be in flight
        lines = [line for _, line in messages]
        self.assertGreaterEqual(lines[lines.index("READY=1"):].count("WATCHDOG=1"), 2, lines)
        stopped_at = time.time()
        receive(notify, messages, 3 * WATCHDOG_SECS * SLOW)
        self.assertEqual([line for at, line in messages if at > stopped_at and line == "WATCHDOG=1"], [])
        self.assertEqual([line for _, line in messages if line == "READY=1"], ["READY=1"])
        self.assertTrue(self.d.cli_ok(), "the daemon itself keeps running")
        self.assertEqual(self.d.stop(), 0)


if __name__ == "__main__":
    unittest.main()
