"""Service-password encryption switched at run time and the type-7 form: plain users turn into
type-7 lines for good, a type-7 text written by one daemon logs in on another, and malformed
type-7 texts are refused with their exact messages."""

import os
import re
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import Daemon, RawClient  # noqa: E402

LENGTH_MESSAGE = "% Invalid encrypted password, min length is 4, max length is 52.\n"


class PasswordEncryptionTest(unittest.TestCase):
    def daemon(self, startup):
        d = Daemon(startup=startup)
        d.start()
        self.addCleanup(d.stop_checked)
        return d

    def user_lines(self, d):
        rc, out = d.cli("show running-config")
        self.assertEqual(rc, 0)
        return re.findall(r"^ftp-server username .*$", out, re.M)

    def login(self, d, user, password):
        c = RawClient(d.port)
        try:
            c.login(user, password)
        finally:
            c.close()

    def test_switching_on_turns_plain_users_into_type7_for_good(self):
        d = self.daemon(["ftp-server username alice password secret1"])
        self.assertEqual(self.user_lines(d), ["ftp-server username alice password secret1"])
        self.assertEqual(d.cli("service password-encryption"), (0, ""))
        [line] = self.user_lines(d)
        self.assertRegex(line, r"^ftp-server username alice password 7 \S{16}$")
        # Switching off again keeps the encrypted form of a user read while it was on.
        self.assertEqual(d.cli("no service password-encryption"), (0, ""))
        self.assertEqual(self.user_lines(d), [line])
        self.login(d, "alice", "secret1")

    def test_malformed_type7_texts_are_refused(self):
        d = self.daemon([])
        cases = [
            ("A1" + "0" * 52, LENGTH_MESSAGE),                        # 54 characters
            ("A1" + "0" * 51, LENGTH_MESSAGE),                        # 53 characters
            ("A10", LENGTH_MESSAGE),                                  # 3 characters
            ("A1234", "% Invalid encrypted password:A1234\n"),        # odd length
            ("!!4142", "% Invalid encrypted password:!!4142\n"),      # salt outside its alphabet
            ("A1G0G0", "% Invalid encrypted password:A1G0G0\n"),      # not hexadecimal
        ]
        for text, message in cases:
            self.assertEqual(d.cli("ftp-server username bob password 7 " + text), (1, message), text)
        self.assertEqual(self.user_lines(d), [])


if __name__ == "__main__":
    unittest.main()
