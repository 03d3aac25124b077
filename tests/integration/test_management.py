# The process and its management interface against the real daemon: command line, single instance, debug
# switches, memory table, signals and ftps-cli's exit codes; ftps-cli on a pseudo-terminal ('?' lists the next
# keywords with their help texts and keeps the line, Tab completes, an error puts a caret under the bad word);
# refusals with their exact messages (and nothing changed), malformed type-7 passwords among them; and write /
# restart / write round trips of the saved configuration: plain passwords as typed, then service-password
# encryption switched at run time (plain users turn into type-7 lines for good).

import os
import re
import signal
import subprocess
import termios
import unittest

from ftps_harness import (CLI, DAEMON, MEMORY_ROWS, START_WAIT, Daemon, DaemonTestCase, RawClient, Terminal,
                          logged_in, read_file, wait_until)

TYPE_WORD_REFUSED = ("% Password cannot begin with the word 0 or 7, which the saved configuration reads as the "
                     "password type\n")
TYPE7_LENGTH = "% Invalid encrypted password, min length is 4, max length is 52.\n"

ROW = "  %-15s  %-12s  %-8s  %-8s  %-8s\n"
MEMORY_HEAD = ("\nFTPD Dynamic Memory Usage:\n"
               + ROW % ("Memory Block", "Allocs(Fail)", "Allocs", "Free", "In Use")
               + ROW % ("---------------", "------------", "--------", "--------", "--------"))

PROMPT = "TESTSW# "


def listing(text):
    # (name, help) pairs of a help listing: its rows are indented by two blanks.
    return [tuple(re.split(r"\s{2,}", l.strip(), maxsplit=1) + [""])[:2] for l in text.split("\n")
            if l.startswith("  ") and l.strip()]


class Configuration:
    def running(self):
        rc, out = self.d.cli("show running-config")
        self.assertEqual(rc, 0)
        return out

    def refused(self, line, message):
        before = self.running()
        self.assertEqual(self.d.cli(line), (1, message), line)
        self.assertEqual(self.running(), before, "refused command changed the configuration: " + line)


class ManagementTest(Configuration, DaemonTestCase):
    def test_process_frame(self):
        # Usage exits 0 without taking the single-instance guard; a second instance exits 0 too.
        for args in (["-h"], ["--bogus"], ["x", "-d"]):
            self.assertEqual(subprocess.run([DAEMON, *args], env=self.d.env(), capture_output=True,
                                            timeout=10).returncode, 0, args)
        self.assertNotIn("One instance is running.", self.d.keymsg())
        self.assertIn("Usage:  ftp_server.elf [option]", self.d.logtext())
        self.assertEqual(subprocess.run([DAEMON], env=self.d.env(), capture_output=True,
                                        timeout=START_WAIT).returncode, 0)
        self.assertIn("One instance is running.\n", self.d.keymsg())
        self.assertTrue(self.d.port_open(), "first instance still serves")

        for line, out in (("debug ftp-server pro", "debug ftp-server pro debugging is on\n"),
                          ("show debugging", "FTP Server:\n  ftp-server pro debugging is on\n"),
                          ("no debug ftp-server pro", "debug ftp-server pro debugging is off\n")):
            self.assertEqual(self.d.cli(line), (0, out))
        rc, out = self.d.cli("show ftp-server memory")
        self.assertTrue(rc == 0 and out.startswith(MEMORY_HEAD), repr(out[:300]))
        self.assertEqual([r[2:17].rstrip() for r in out[len(MEMORY_HEAD):].splitlines()], MEMORY_ROWS)
        r = subprocess.run([CLI], env=self.d.env(), input=b"# comment\n\nshow ftp-server\n!\n",
                           capture_output=True, timeout=30)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)

    def test_refusals_print_exact_messages_and_change_nothing(self):
        os.makedirs(os.path.join(self.d.flash, "pub"))
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
                # The command-line framework's own refusal, without a terminal: exit code 1 too.
                ("ftp-server login times 11", "% Number 11 out of range 1-10.\n"),
                # Type-7 texts of 53 and 3 characters, of odd length, with a salt outside its
                # alphabet, not hexadecimal.
                ("ftp-server username bob password 7 A1" + "0" * 51, TYPE7_LENGTH),
                ("ftp-server username bob password 7 A10", TYPE7_LENGTH),
                ("ftp-server username bob password 7 A1234", "% Invalid encrypted password:A1234\n"),
                ("ftp-server username bob password 7 !!4142", "% Invalid encrypted password:!!4142\n"),
                ("ftp-server username bob password 7 A1G0G0", "% Invalid encrypted password:A1G0G0\n")):
            self.refused(line, message)
        # New sessions are still confined to the top directory that was in force.
        self.assertEqual(logged_in(self.d.port).cmd("CWD pub"), b'250 Directory change to "/pub".\r\n')
        for i in range(9):
            self.assertEqual(self.d.cli("ftp-server username u%d password passw%d" % (i, i)), (0, ""))
        self.refused("ftp-server username u10 password passw10",
                     "% The number of users has reached the maximum value.\n")

    def test_terminal_lists_completes_and_points_at_errors(self):
        env = dict(self.d.env(), TERM="xterm", HOME="/nonexistent")  # HOME: no personal editrc
        env.pop("EDITRC", None)
        t = Terminal([CLI], env, columns=160)
        self.addCleanup(t.close)
        t.expect(lambda s: s.endswith(PROMPT), "the prompt")

        def type(keys):
            # Only once the editor has the terminal (no canonical mode): keys typed before that are
            # echoed and buffered by the terminal itself, as type-ahead is.
            wait_until(lambda: not termios.tcgetattr(t.fd)[3] & termios.ICANON or t.read(0.01), START_WAIT, 0)
            t.type(keys)

        def run(line):
            # What the terminal showed from the prompt of the line to the next prompt.
            start = len(t.text())
            type(line + "\r")
            shown = t.expect(lambda s: len(s) > start + len(line) and s.endswith(PROMPT), "the next prompt")
            return shown[shown.rfind("\n", 0, start) + 1:]

        def help_for(partial):
            # The listing after partial and '?', which keeps the line as typed.
            start = len(t.text())
            type(partial + "?")
            shown = t.expect(lambda s: s[start:].endswith(PROMPT + partial), "the line again after '?'")
            type("\x15")  # Ctrl-U: the line goes
            return shown[start:]

        login = ("login", "Specify login of FTP Server waits for FTP client's command")
        self.assertIn(login, listing(help_for("ftp-server ")))
        self.assertIn(("PATH", "Name of the directory/file"), listing(help_for("ftp-server topdir ")))
        # Without a blank: the keywords that begin with the word, abbreviations before it allowed.
        self.assertEqual(listing(help_for("ftp lo")), [login])
        start = len(t.text())
        type("ftp-server ti\t")
        t.expect(lambda s: s[start:].endswith("ftp-server timeout "), "the completed keyword")
        run("5")
        self.assertIn("ftp-server timeout 5\n", self.d.cli("show running-config")[1])

        for line, bad, message in (
                ("ftp-server timeot 5", "timeot", "% Unknown command: 'timeot'"),
                ("ftp-server timeout 0", "0", "% Number 0 out of range 1-3600."),
                ("  ftp-server t 5", "t 5", "% Ambiguous command: 't'")):
            shown = run(line).split("\n")
            at = shown.index(message) if message in shown else self.fail(shown)
            self.assertEqual((shown[at - 2], shown[at - 1].strip()), (PROMPT + line, "^"), shown)
            self.assertEqual(shown[at - 1].index("^"), shown[at - 2].rindex(bad), shown)
        # A handler's own refusal names no word: no caret.
        shown = run("no ftp-server username nobody")
        self.assertTrue("% User is not exists." in shown and "^" not in shown, shown)
        # '?' after a bad word points at it too, and keeps the line.
        self.assertEqual(help_for("ftp-server bogus ").split("\n")[-3:-1],
                         [" " * (len(PROMPT) + len("ftp-server ")) + "^", "% Unknown command: 'bogus'"])


class RestartTest(Configuration, unittest.TestCase):
    def setUp(self):
        self.d = Daemon()
        self.addCleanup(self.d.cleanup)

    def test_no_tmpdir_does_not_start(self):
        self.assertEqual(self.d.cli("show ftp-server")[0], 2, "no daemon: 2")
        env = {k: v for k, v in self.d.env().items() if k != "TMPDIR"}
        self.assertEqual(subprocess.run([DAEMON], env=env, capture_output=True, timeout=30).returncode, 0)
        self.assertFalse(self.d.port_open())

    def round_trip(self, sig, status):
        # write, stop by sig (the daemon's exit status: status), restart, write: the daemon comes back
        # with the same running configuration and writes the same file again; returns that
        # configuration.
        first = self.running()
        self.assertEqual(self.d.cli("write")[0], 0)
        saved = read_file(self.d.startup)
        self.assertEqual(self.d.stop(sig), status)
        self.d.start()
        self.assertEqual(self.running(), first)
        self.assertEqual(self.d.cli("write")[0], 0)
        self.assertEqual(read_file(self.d.startup), saved)
        return first

    def test_plain_and_type7_passwords_survive_write_and_restart(self):
        os.makedirs(os.path.join(self.d.flash, "pub"))
        self.d.start_for(self)  # the last start's exit status is checked too
        # Written back in plain text, a password whose first word is 0 or 7 would replay as that
        # password type: it is refused, in both forms; other plain passwords replay as typed.
        self.refused("ftp-server username amy password 0 7 Ab12", TYPE_WORD_REFUSED)
        self.refused("ftp-server password 0 0", TYPE_WORD_REFUSED)
        for line in ("ftp-server username dave password 0 d4ve  7 0", "ftp-server password 0 07 s4m",
                     "ftp-server username sam"):
            self.assertEqual(self.d.cli(line), (0, ""), line)
        first = self.round_trip(signal.SIGINT, 0)
        self.assertIn("ftp-server username dave password d4ve  7 0\n", first)
        self.assertIn("ftp-server username sam password 07 s4m\n", first)

        kept = ["ftp-server topdir flash:/pub", "ftp-server timeout 30", "ftp-server login timeout 5",
                "ftp-server login times 4", "ftp-server authentication default"]
        for line in kept + ["ftp-server max-user-connect 5", "ftp-server username bob password b0bpass",
                            "service password-encryption", "ftp-server username carol password Zk4mVt9q"]:
            self.assertEqual(self.d.cli(line), (0, ""), line)
        first = self.round_trip(signal.SIGTSTP, 1)
        for line in kept + ["ftp-server enable", "service password-encryption"]:
            self.assertIn(line + "\n", first)
        self.assertNotIn("max-user-connect", first)
        # With encryption on, every user is written in type-7 form, those added before it too.
        for user, password in (("alice", "secret1"), ("bob", "b0bpass"), ("carol", "Zk4mVt9q")):
            self.assertRegex(first, r"(?m)^ftp-server username %s password 7 \S{%d}$" % (user, 2 + 2 * len(password)))
        self.assertFalse("Zk4mVt9q" in first or "b0bpass" in first)
        # Switched off again, the users read while it was on keep their type-7 lines.
        self.assertEqual(self.d.cli("no service password-encryption"), (0, ""))
        self.assertEqual([l for l in self.running().splitlines() if "username" in l],
                         [l for l in first.splitlines() if "username" in l])
        # The type-7 users log in with the original password, below the storage-form top directory.
        for user, password in (("alice", "secret1"), ("carol", "Zk4mVt9q")):
            c = RawClient(self.d.port).login(user, password)
            self.assertEqual(c.cmd("PWD"), b'257 Current working directory is "/".\r\n')
            c.close()
        self.assertIn("topdir : flash:/pub\n", self.d.cli("show ftp-server")[1])


if __name__ == "__main__":
    unittest.main()
