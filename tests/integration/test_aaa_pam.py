# The pam method: a Linux account and a PAM service file made by the test log in through the daemon; a wrong
# password and an unknown account are refused. Needs root (accounts and /etc/pam.d); everything made is
# removed.
# ctest-labels: pam

import os
import secrets
import subprocess
import unittest

from ftps_harness import Daemon

REJECTED = [b"530 Password access denied.\r\n"] * 2


@unittest.skipIf(os.geteuid() != 0, "needs root: creates a Linux account and a PAM service file")
class PamTest(unittest.TestCase):
    def test_account_logs_in_and_wrong_password_is_refused(self):
        tag = secrets.token_hex(4)
        user, password, service = "ftpst" + tag, "Pw-" + secrets.token_hex(6), "ftps-test-unix-" + tag
        # Each step registers its undo before the next one, so a failure half-way leaves nothing.
        subprocess.run(["useradd", "-M", "-s", "/usr/sbin/nologin", user], check=True, capture_output=True)
        self.addCleanup(subprocess.run, ["userdel", user], capture_output=True)
        subprocess.run(["chpasswd"], input="%s:%s\n" % (user, password), check=True, capture_output=True, text=True)
        with open(os.path.join("/etc/pam.d", service), "x") as f:
            self.addCleanup(os.unlink, f.name)
            f.write("auth     required pam_unix.so\naccount  required pam_unix.so\n")
        d = Daemon(extra_platform={"pam.service": service, "aaa.list.default": "pam"}).start_for(self)
        self.assertEqual(d.attempt(user, password)[1], [b"230 User logged in, proceed.\r\n"])
        self.assertEqual(d.attempt(user, password + "x")[1], REJECTED)
        self.assertEqual(d.attempt("ftpst-no-such-user", password)[1], REJECTED)


if __name__ == "__main__":
    unittest.main()
