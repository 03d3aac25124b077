"""Authentication-failure traps received by a real trap receiver (snmptrapd on a loopback port):
exactly one per failed USER or PASS, none for a successful login, and the session goes on
answering while a second sink that nobody listens on gets its copies."""
# ctest-labels: snmp

import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import Daemon, RawClient, wait_until  # noqa: E402

SNMPTRAPD = shutil.which("snmptrapd")
# SNMPv2-MIB::authenticationFailure, printed by number (-On) whether or not the MIB files are
# installed.
TRAP = "OID: .1.3.6.1.6.3.1.1.5.5"


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


class TrapReceiver:
    """snmptrapd in the foreground, printing every trap on its standard output."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="ftps-snmp")
        self.port = free_udp_port()
        conf = os.path.join(self.dir, "snmptrapd.conf")
        with open(conf, "w") as f:
            f.write("disableAuthorization yes\n")
        self.out = open(os.path.join(self.dir, "out.log"), "w+")
        # -C: only this configuration file; -n: no name look-ups; -On: numeric OIDs; no MIB files
        # are read; persistent files stay private.
        env = dict(os.environ, SNMP_PERSISTENT_DIR=self.dir, MIBS="")
        self.proc = subprocess.Popen(
            [SNMPTRAPD, "-f", "-Lo", "-C", "-n", "-On", "-c", conf, "udp:127.0.0.1:%d" % self.port],
            stdout=self.out, stderr=subprocess.STDOUT, env=env)
        if not wait_until(lambda: "NET-SNMP version" in self.output() or self.proc.poll() is not None,
                          timeout=15):
            self.stop()
            raise AssertionError("snmptrapd not ready")
        if self.proc.poll() is not None:
            text = self.output()
            self.stop()
            raise AssertionError("snmptrapd exited: " + text)

    def output(self):
        self.out.flush()
        with open(self.out.name, errors="replace") as f:
            return f.read()

    def count(self):
        return self.output().count(TRAP)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.out.close()
        shutil.rmtree(self.dir, ignore_errors=True)


@unittest.skipIf(SNMPTRAPD is None, "snmptrapd is not installed (scripts/setup.sh installs it)")
class SnmpTrapTest(unittest.TestCase):
    def setUp(self):
        self.receiver = TrapReceiver()
        self.addCleanup(self.receiver.stop)

    def stop_checked(self, d):
        """Stops the daemon; a non-zero exit (a crash, a sanitizer report) fails the test."""
        rc = d.stop()
        stderr = getattr(d, "stderr", "")
        d.cleanup()
        self.assertEqual(rc, 0, stderr[-4000:])

    def daemon(self, registered):
        sinks = "127.0.0.1:%d 127.0.0.1:%d" % (free_udp_port(), self.receiver.port)
        d = Daemon(user_database="[user localbob]\npassword = localpass1\n",
                   extra_platform={"snmp.trap_sink": sinks, "aaa.registered": registered})
        d.start()
        self.addCleanup(self.stop_checked, d)
        return d

    def expect_exactly(self, n, sentinel):
        """n traps so far: one more failure (the sentinel) must bring exactly n + 1, so that a
        duplicate of an earlier trap cannot hide behind a slow receiver."""
        sentinel()
        self.assertTrue(wait_until(lambda: self.receiver.count() >= n + 1, timeout=10),
                        "traps: %d, expected %d" % (self.receiver.count(), n + 1))
        time.sleep(0.2)  # let a stray extra copy show before counting (no timing is asserted)
        self.assertEqual(self.receiver.count(), n + 1)

    def test_one_trap_per_failed_user_or_pass(self):
        d = self.daemon(registered="no")
        c = RawClient(d.port)
        self.addCleanup(c.close)
        c.reply()
        # Without AAA a name outside the table is refused at USER.
        self.assertEqual(c.cmd("USER nobody"), b"530 User nobody access denied.\r\n")
        self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
        self.assertEqual(c.cmd("PASS wrong"), b"530 Not logged in.\r\n")
        self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
        self.assertEqual(c.cmd("PASS secret1"), b"230 User logged in, proceed.\r\n")
        self.assertEqual(c.cmd("PWD"), b'257 Current working directory is "/".\r\n')

        def sentinel():
            s = RawClient(d.port)
            s.reply()
            s.cmd("USER sentinel")
            s.close()
        self.expect_exactly(2, sentinel)

    def test_refused_pass_through_aaa_sends_one_trap_for_its_two_replies(self):
        d = self.daemon(registered="yes")
        c = RawClient(d.port)
        self.addCleanup(c.close)
        c.reply()
        self.assertEqual(c.cmd("USER localbob"), b"331 User name okay, need password.\r\n")
        self.assertEqual(c.cmd("PASS wrong"), b"530 Password access denied.\r\n")
        self.assertEqual(c.reply(), b"530 Password access denied.\r\n")
        self.assertEqual(c.cmd("USER localbob"), b"331 User name okay, need password.\r\n")
        self.assertEqual(c.cmd("PASS localpass1"), b"230 User logged in, proceed.\r\n")

        def sentinel():
            s = RawClient(d.port)
            s.reply()
            s.cmd("USER localbob")
            s.cmd("PASS wrong")
            s.close()
        self.expect_exactly(1, sentinel)


if __name__ == "__main__":
    unittest.main()
