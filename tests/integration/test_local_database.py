# Logins decided by the local user database, through a method list and with the method-list model switched
# off: the online limit (with its notice in the log), an online amount of 0, login modes without FTP, refused
# remote login, hashed secrets, long account names, and the online count given back at session end.

import os
import re
import unittest

from ftps_harness import Daemon, wait_until

OK = b"230 User logged in, proceed.\r\n"
# The account checks refuse after the password was accepted: one reply only.
REFUSED_BY_ACCOUNT = [b"530 Not logged in.\r\n"]

# Accounts with a password: name, password, further keys, the replies to their login. Names that share
# their first 44 characters are accounts of their own, up to the 63 characters USER takes.
ACCOUNTS = [("zero", "zer0pass", "online_amount = 0", REFUSED_BY_ACCOUNT),
            ("telnetonly", "teln3t", "login_mode = 0x01", REFUSED_BY_ACCOUNT),  # a login mode without FTP
            ("ftpmode", "ftpm0de", "login_mode = 0x11", [OK]),
            ("norlogin", "norl0gin", "reject_remote_login = yes", REFUSED_BY_ACCOUNT),
            ("a" * 44, "pass44", "", [OK]), ("a" * 50, "pass50", "", [OK]), ("a" * 63, "pass63", "", [OK])]
# A name longer than the database holds is reported, and its keys go nowhere.
USER_DATABASE = "".join("[user %s]\npassword = %s\n%s\n" % row[:3] for row in ACCOUNTS) + """
[user limited]
password = lim1ted
online_amount = 2
[user hashed]
; crypt(3) SHA-512 of "hashpass1"
secret = $6$ftpstest$l.aL31DcAc1YdNn4aieRZqQ0tr./7o/OyM6w8qHM3s06DhBYV.9/VbvEVTNEEjpdCB73NvOUBa1dDqQ3qohZB/
[user {a65}]
password = pass65
""".format(a65="a" * 65)
TOO_LONG_LINE = USER_DATABASE.splitlines().index("[user %s]" % ("a" * 65)) + 1


class LocalDatabaseBase:
    def setUp(self):
        self.d = Daemon(user_database=USER_DATABASE,
                        extra_platform={"aaa.new_model": self.new_model, "aaa.list.default": "local"}).start_for(self)

    def test_online_limit_and_account_checks(self):
        (first, replies), second, third = (self.d.attempt("limited", "lim1ted") for _ in range(3))
        self.assertEqual([replies, second[1], third[1]], [[OK], [OK], REFUSED_BY_ACCOUNT])
        lines = [l for l in self.d.logtext().splitlines() if "%LOGIN-" in l] or ["no LIMIT line in the log"]
        self.assertRegex(lines[-1], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d %LOGIN-5-LIMIT: "
                         + re.escape("The number of online users 2 has reached the upper limit 2.") + "$")
        # Given back as a session ends, on either path to the database, to the account that took it
        # whatever USER said last.
        first.cmd("USER other")
        first.cmd("QUIT")
        self.assertTrue(wait_until(lambda: self.d.attempt("limited", "lim1ted")[1] == [OK], 10, 0.2))
        for user, password, _, expected in ACCOUNTS + [("hashed", "hashpass1", "", [OK]),
                                                       ("hashed", "hashpass2", "", [b"530 Password access denied.\r\n"] * 2)]:
            with self.subTest(user=user, password=password):
                self.assertEqual(self.d.attempt(user, password)[1], expected)
        # Reported when the file was loaded (at the first login), with its file, line and section.
        os.set_blocking(self.d.proc.stderr.fileno(), False)
        reported = (self.d.proc.stderr.read() or b"").decode(errors="replace")
        os.set_blocking(self.d.proc.stderr.fileno(), True)
        self.assertIn("users.ini:%d: section 'user %s': user name longer than 64 characters" %
                      (TOO_LONG_LINE, "a" * 65), reported)


class LocalDatabaseThroughMethodListTest(LocalDatabaseBase, unittest.TestCase):
    new_model = "yes"


class LocalDatabaseWithoutMethodListsTest(LocalDatabaseBase, unittest.TestCase):
    new_model = "no"


if __name__ == "__main__":
    unittest.main()
