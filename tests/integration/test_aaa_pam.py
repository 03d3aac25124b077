"""The pam method: a Linux account and a PAM service file made by the test log in through the
daemon; a wrong password and an unknown account are refused. Needs root (accounts and /etc/pam.d); everything made is removed."""
# ctest-labels: pam

import os
import secrets
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import Daemon, RawClient  # noqa: E402

PAM_DIR = "/etc/pam.d"
OK = b"230 User logged in, proceed.\r\n"
REJECTED = [b"530 Password access denied.\r\n", b"530 Password access denied.\r\n"]

UNIX_SERVICE = "auth     required pam_unix.so\naccount  required pam_unix.so\n"


def run(*args, stdin=None):
    subprocess.run(args, input=stdin, check=True, capture_output=True, text=True)


@unittest.skipIf(os.geteuid() != 0, "needs root: creates a Linux account and a PAM service file")
class PamTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        tag = secrets.token_hex(4)
        cls.user = "ftpst" + tag
        cls.password = "Pw-" + secrets.token_hex(6)
        cls.services = {}
        # Each step registers its undo before the next one, so a failure half-way leaves nothing.
        try:
            run("useradd", "-M", "-s", "/usr/sbin/nologin", cls.user)
            cls.made_user = True
            run("chpasswd", stdin="%s:%s\n" % (cls.user, cls.password))
            for kind, text in (("unix", UNIX_SERVICE),):
                name = "ftps-test-%s-%s" % (kind, tag)
                path = os.path.join(PAM_DIR, name)
                with open(path, "x") as f:
                    f.write(text)
                cls.services[kind] = name
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        for name in cls.services.values():
            try:
                os.unlink(os.path.join(PAM_DIR, name))
            except FileNotFoundError:
                pass
        cls.services = {}
        if getattr(cls, "made_user", False):
            subprocess.run(["userdel", cls.user], capture_output=True)
            cls.made_user = False

    def daemon(self, service):
        d = Daemon(extra_platform={"pam.service": service, "aaa.list.default": "pam"})
        d.start()
        self.addCleanup(d.stop_checked)
        return d

    def attempt(self, d, user, password):
        c = RawClient(d.port)
        self.addCleanup(c.close)
        return c.pass_replies(user, password)

    def test_account_logs_in_and_wrong_password_is_refused(self):
        d = self.daemon(self.services["unix"])
        self.assertEqual(self.attempt(d, self.user, self.password), [OK])
        self.assertEqual(self.attempt(d, self.user, self.password + "x"), REJECTED)
        self.assertEqual(self.attempt(d, "ftpst-no-such-user", self.password), REJECTED)


if __name__ == "__main__":
    unittest.main()
