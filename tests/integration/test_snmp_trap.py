# Authentication-failure traps received by a real trap receiver (snmptrapd on a loopback port): exactly one
# per failed USER or PASS, none for a successful login, and the session goes on answering while a second sink
# that nobody listens on gets its copies.
# ctest-labels: snmp

import shutil
import time
import unittest

from ftps_harness import BackEnd, Daemon, RawClient, free_udp_port, greeted, wait_until

SNMPTRAPD = shutil.which("snmptrapd")
# SNMPv2-MIB::authenticationFailure, printed by number (-On) whether or not the MIB files are
# installed.
TRAP = "OID: .1.3.6.1.6.3.1.1.5.5"
NEED_PASS, LOGGED_IN = b"331 User name okay, need password.\r\n", b"230 User logged in, proceed.\r\n"


@unittest.skipIf(SNMPTRAPD is None, "snmptrapd is not installed (scripts/setup.sh installs it)")
class SnmpTrapTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # -C: only this configuration file; -n: no name look-ups; -On: numeric OIDs; no MIB files
        # are read; persistent files stay private.
        cls.receiver = BackEnd(
            "ftps-snmp", {"snmptrapd.conf": "disableAuthorization yes\n"},
            [SNMPTRAPD, "-f", "-Lo", "-C", "-n", "-On", "-c", "{dir}/snmptrapd.conf",
             "udp:127.0.0.1:{port}"], "NET-SNMP version",
            env={"SNMP_PERSISTENT_DIR": "{dir}", "MIBS": ""})
        cls.addClassCleanup(cls.receiver.stop)

    def traps(self):
        return self.receiver.output().count(TRAP)

    def daemon(self, registered):
        self.before = self.traps()
        sinks = "127.0.0.1:%d 127.0.0.1:%d" % (free_udp_port(), self.receiver.port)
        d = Daemon(user_database="[user localbob]\npassword = localpass1\n",
                   extra_platform={"snmp.trap_sink": sinks, "aaa.registered": registered}).start_for(self)
        c = RawClient(d.port)
        self.addCleanup(c.close)
        return d, c

    def expect_exactly(self, n, d, *sentinel):
        # n traps since the daemon started: one more failure (the sentinel's commands, in a session of their own)
        # must bring exactly n + 1, so that a duplicate of an earlier trap cannot hide behind a slow
        # receiver.
        s = greeted(d.port)
        for line in sentinel:
            s.cmd(line)
        s.close()
        self.assertTrue(wait_until(lambda: self.traps() - self.before >= n + 1, timeout=10),
                        "traps: %d, expected %d" % (self.traps() - self.before, n + 1))
        time.sleep(0.2)  # let a stray extra copy show before counting (no timing is asserted)
        self.assertEqual(self.traps() - self.before, n + 1)

    def test_one_trap_per_failed_user_or_pass(self):
        d, c = self.daemon(registered="no")
        c.reply()
        # Without AAA a name outside the table is refused at USER.
        self.assertEqual([c.cmd(line) for line in ("USER nobody", "USER alice", "PASS wrong", "USER alice",
                                                   "PASS secret1", "PWD")],
                         [b"530 User nobody access denied.\r\n", NEED_PASS, b"530 Not logged in.\r\n", NEED_PASS,
                          LOGGED_IN, b'257 Current working directory is "/".\r\n'])
        self.expect_exactly(2, d, "USER sentinel")

    def test_refused_pass_through_aaa_sends_one_trap_for_its_two_replies(self):
        d, c = self.daemon(registered="yes")
        self.assertEqual(c.pass_replies("localbob", "wrong"), [b"530 Password access denied.\r\n"] * 2)
        self.assertEqual((c.cmd("USER localbob"), c.cmd("PASS localpass1")), (NEED_PASS, LOGGED_IN))
        self.expect_exactly(1, d, "USER localbob", "PASS wrong")


if __name__ == "__main__":
    unittest.main()
