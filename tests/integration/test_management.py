"""Management commands through ftps-cli: refusals with their exact messages (and nothing changed),
malformed type-7 passwords among them, configuration lines, service-password encryption switched
at run time (plain users turn into type-7 lines for good), and write / restart / write round
trips of the saved configuration."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import Daemon, RawClient, read_file  # noqa: E402

TYPE_WORD_REFUSED = ("% Password cannot begin with the word 0 or 7, which the saved configuration reads as the "
                     "password type\n")
TYPE7_LENGTH = "% Invalid encrypted password, min length is 4, max length is 52.\n"


class ManagementTest(unittest.TestCase):
    def setUp(self):
        self.d = Daemon()
        os.makedirs(os.path.join(self.d.flash, "pub"))
        self.d.start()
        self.addCleanup(self.d.stop_checked)

    def running(self):
        rc, out = self.d.cli("show running-config")
        self.assertEqual(rc, 0)
        return out

    def refused(self, line, message):
        before = self.running()
        self.assertEqual(self.d.cli(line), (1, message), line)
        self.assertEqual(self.running(), before, "refused command changed the configuration: " + line)

    def round_trip(self):
        """write, restart, write: the daemon comes back with the same running configuration and
        writes the same file again; returns that configuration."""
        first = self.running()
        self.assertEqual(self.d.cli("write")[0], 0)
        saved = read_file(self.d.startup)
        self.assertEqual(self.d.stop(), 0)
        self.d.start()
        self.assertEqual(self.running(), first)
        self.assertEqual(self.d.cli("write")[0], 0)
        self.assertEqual(read_file(self.d.startup), saved)
        return first

    def test_refusals_print_exact_messages_and_change_nothing(self):
        for line, message in (
                ("ftp-server username bob password 0 " + "a" * 26, "% Password is too long, max length is 25\n"),
                ("ftp-server username bob password !!!", "%Password must include letter or number\n"),
                ("ftp-server username alice password other1", "% User is already exists.\n"),
                ("no ftp-server username nobody", "% User is not exists.\n"),
                ("ftp-server username " + "u" * 65 + " password abc123", "% Username is too long.\n"),
                ("ftp-server authentication " + "l" * 65,
                 "authentication list name(%s) is NULL or too long, max length is 64.\n" % ("l" * 65)),
                ("ftp-server topdir /nope", "topdir /nope don't exist!\n"),
                ("ftp-server topdir /proc", "/proc can't be set as rootdir!\n"),
                # Type-7 texts of 54, 53 and 3 characters, of odd length, with a salt outside its
                # alphabet, not hexadecimal.
                ("ftp-server username bob password 7 A1" + "0" * 52, TYPE7_LENGTH),
                ("ftp-server username bob password 7 A1" + "0" * 51, TYPE7_LENGTH),
                ("ftp-server username bob password 7 A10", TYPE7_LENGTH),
                ("ftp-server username bob password 7 A1234", "% Invalid encrypted password:A1234\n"),
                ("ftp-server username bob password 7 !!4142", "% Invalid encrypted password:!!4142\n"),
                ("ftp-server username bob password 7 A1G0G0", "% Invalid encrypted password:A1G0G0\n")):
            self.refused(line, message)
        # New sessions are still confined to the top directory that was in force.
        c = RawClient(self.d.port)
        c.login()
        self.assertEqual(c.cmd("CWD pub"), b'250 Directory change to "/pub".\r\n')
        c.close()
        self.assertEqual(self.d.cli("ftp-server timeout 3601")[0], 1)
        self.assertEqual(self.d.cli("ftp-server login times 11")[0], 1)
        for i in range(9):
            self.assertEqual(self.d.cli("ftp-server username u%d password passw%d" % (i, i)), (0, ""))
        self.refused("ftp-server username u10 password passw10",
                     "% The number of users has reached the maximum value.\n")

    def test_max_user_connect_is_never_saved(self):
        self.assertEqual(self.d.cli("ftp-server max-user-connect 5"), (0, ""))
        self.assertNotIn("max-user-connect", self.running())

    def test_plain_passwords_replay_as_entered(self):
        # Written back in plain text, a password whose first word is 0 or 7 would replay as that
        # password type: it is refused, in both forms; other plain passwords replay as typed.
        self.refused("ftp-server username amy password 0 7 Ab12", TYPE_WORD_REFUSED)
        self.refused("ftp-server password 0 0", TYPE_WORD_REFUSED)
        for line in ("ftp-server username dave password 0 d4ve  7 0", "ftp-server password 0 07 s4m",
                     "ftp-server username sam"):
            self.assertEqual(self.d.cli(line), (0, ""), line)
        first = self.round_trip()
        self.assertIn("ftp-server username dave password d4ve  7 0\n", first)
        self.assertIn("ftp-server username sam password 07 s4m\n", first)

    def test_write_restart_write_round_trip(self):
        lines = [
            "ftp-server topdir flash:/pub",
            "ftp-server timeout 30",
            "ftp-server login timeout 5",
            "ftp-server login times 4",
            "ftp-server authentication default",
            "ftp-server username bob password b0bpass",
            "service password-encryption",
            "ftp-server username carol password Zk4mVt9q",
        ]
        for line in lines:
            self.assertEqual(self.d.cli(line), (0, ""), line)
        first = self.round_trip()
        for expect in ["ftp-server topdir flash:/pub\n", "ftp-server timeout 30\n",
                       "ftp-server login timeout 5\n", "ftp-server login times 4\n",
                       "ftp-server authentication default\n", "ftp-server enable\n",
                       "service password-encryption\n"]:
            self.assertIn(expect, first)
        # With encryption on, every user is written in type-7 form, those added before it too.
        for user, password in (("alice", "secret1"), ("bob", "b0bpass"), ("carol", "Zk4mVt9q")):
            self.assertRegex(first, r"(?m)^ftp-server username %s password 7 \S{%d}$" % (user, 2 + 2 * len(password)))
        self.assertNotIn("Zk4mVt9q", first)
        self.assertNotIn("b0bpass", first)
        # Switched off again, the users read while it was on keep their type-7 lines.
        self.assertEqual(self.d.cli("no service password-encryption"), (0, ""))
        self.assertEqual([l for l in self.running().splitlines() if "username" in l],
                         [l for l in first.splitlines() if "username" in l])
        # The type-7 users log in with the original password, below the storage-form top directory.
        for user, password in (("alice", "secret1"), ("carol", "Zk4mVt9q")):
            c = RawClient(self.d.port)
            c.login(user, password)
            self.assertEqual(c.cmd("PWD"), b'257 Current working directory is "/".\r\n')
            c.close()
        rc, out = self.d.cli("show ftp-server")
        self.assertIn("topdir : flash:/pub\n", out)


if __name__ == "__main__":
    unittest.main()
