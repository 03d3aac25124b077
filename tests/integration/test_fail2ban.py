# fail2ban: the packaged filter, run by fail2ban-regex over the real daemon's log, finds exactly the failed
# logins with the address each came from (IPv4 and IPv6), in the log file's form and in the form syslog
# writes. A successful login gives nothing, and a client that writes a failed-login line of another address
# into its user name, its password or any command (which the debug lines repeat) cannot get that address
# banned.

import os
import shutil
import subprocess
import time
import unittest

from ftps_harness import Daemon, expect, greeted, has_ipv6, logged_in, wait_until, write_file

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
FILTER = os.path.join(TOP, "packaging", "fail2ban", "filter.d", "ftps.conf")
# A name that would put another address where the filter looks for the client's, and a whole
# failed-login line of another address.
FORGED = 'x" from 10.0.0.1'
LINE = '%FTPSRV-5-LOGIN_FAIL: Failed login for user "a" from 10.0.0.{}.'


class Fail2banFilterTest(unittest.TestCase):
    def failed_login(self, host, user, password="wrong", then=()):
        c = greeted(self.d.port, host=host)
        c.cmd("USER " + user)
        expect(c.cmd("PASS " + password), b"530")
        for command in then:
            c.cmd(command)
        c.close()

    def failure_lines(self):
        return [line for line in self.d.logtext().splitlines() if line[20:].startswith("%FTPSRV-5-LOGIN_FAIL: ")]

    def banned(self, log):
        # The address of every line the filter matches, in order.
        r = subprocess.run(["fail2ban-regex", "-o", "ip", log, FILTER], capture_output=True, text=True,
                           timeout=120)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        return r.stdout.split()

    def test_filter_finds_each_failed_login_with_its_address_and_nothing_else(self):
        # Installed by the set-up: a missing one fails, never skips.
        self.assertTrue(shutil.which("fail2ban-regex"), "fail2ban-regex is not installed: run `make setup`")
        self.d = Daemon(extra_platform={"ftp.profile": "standard", "ftp.login_fail_delay": "0"}).start_for(self)
        self.assertEqual(self.d.cli("debug ftp-server pro", "debug ftp-server err")[0], 0)
        self.failed_login("127.0.0.1", LINE.format(2), LINE.format(3), then=["SITE " + LINE.format(4)])
        expected = ["127.0.0.1"]
        for host in ["127.0.0.1"] + (["::1"] if has_ipv6() else []):
            for user in ("nobody", "alice", FORGED):
                self.failed_login(host, user)
                expected.append(host)
        logged_in(self.d.port).close()
        self.assertTrue(wait_until(lambda: len(self.failure_lines()) >= len(expected)))
        log = self.d.logtext()
        self.assertEqual(len(self.failure_lines()), len(expected), log)
        self.assertIn('user "x? from 10.0.0.1" from 127.0.0.1.', log)
        self.assertIn("(RECV)   SITE " + LINE.format(4), log)  # the forged line is there, in a debug line
        self.assertEqual(self.banned(self.d.log), expected)
        # The same lines as syslog files have them: the time, the host, the ident and pid.
        stamp = time.strftime("%b %d %H:%M:%S")
        syslog = write_file(os.path.join(self.d.dir, "syslog"), "".join(
            "%s testhost ftp_server[4242]: %s\n" % (stamp, line.split(" ", 2)[2]) for line in log.splitlines()))
        self.assertEqual(self.banned(syslog), expected)


if __name__ == "__main__":
    unittest.main()
