# The pam method: a Linux account and a PAM service file made by the test log in through the daemon; a wrong
# password and an unknown account are refused. Needs root (accounts and /etc/pam.d); everything made is
# removed.
# ctest-labels: pam

import os
import secrets
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import Daemon  # noqa: E402

PAM_DIR = "/etc/pam.d"
OK = b"230 User logged in, proceed.\r\n"
REJECTED = [b"530 Password access denied.\r\n", b"530 Password access denied.\r\n"]

UNIX_SERVICE = "auth     required pam_unix.so\naccount  required pam_unix.so\n"


def run(*args, stdin=None):
    subprocess.run(args, input=stdin, check=True, capture_output=True, text=True)


@unittest.skipIf(os.geteuid() != 0, "needs root: creates a Linux account and a PAM service file")
class PamTest(unittest.TestCase):
    def setUp(self):
        tag = secrets.token_hex(4)
        self.user, self.password = "ftpst" + tag, "Pw-" + secrets.token_hex(6)
        # Each step registers its undo before the next one, so a failure half-way leaves nothing.
        run("useradd", "-M", "-s", "/usr/sbin/nologin", self.user)
        self.addCleanup(subprocess.run, ["userdel", self.user], capture_output=True)
        run("chpasswd", stdin="%s:%s\n" % (self.user, self.password))
        self.service = "ftps-test-unix-" + tag
        path = os.path.join(PAM_DIR, self.service)
        with open(path, "x") as f:
            self.addCleanup(os.unlink, path)
            f.write(UNIX_SERVICE)

    def test_account_logs_in_and_wrong_password_is_refused(self):
        d = Daemon(extra_platform={"pam.service": self.service, "aaa.list.default": "pam"}).start()
        self.addCleanup(d.stop_checked)
        self.assertEqual(d.attempt(self.user, self.password)[1], [OK])
        self.assertEqual(d.attempt(self.user, self.password + "x")[1], REJECTED)
        self.assertEqual(d.attempt("ftpst-no-such-user", self.password)[1], REJECTED)


if __name__ == "__main__":
    unittest.main()
