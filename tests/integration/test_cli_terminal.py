"""ftps-cli on a terminal: the real program under a pseudo-terminal against the real daemon. The
prompt names the product, '?' lists the next keywords with their help texts, Tab completes, an
error puts a caret under the bad word."""

import errno
import fcntl
import os
import pty
import re
import select
import signal
import struct
import sys
import termios
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import CLI, SANITIZED, DaemonTestCase  # noqa: E402

PROMPT = "TESTSW# "
WAIT = 30 if SANITIZED else 10
KILL_LINE = "\x15"  # Ctrl-U
COLUMNS = 160

# The keywords after "ftp-server" with their help texts, as the command tree registers them.
FTP_SERVER_KEYWORDS = [
    ("authentication", "Use an authentication list with this name"),
    ("enable", "Enable FTP Server"),
    ("login", "Specify login of FTP Server waits for FTP client's command"),
    ("max-user-connect", "Set max-user-connect"),
    ("password", "Specify password of FTP Server"),
    ("timeout", "Specify timeout of FTP Server waits for FTP client's command"),
    ("topdir", "Specify path for top-of-tree for FTP Server (clients') operations"),
    ("username", "Specify username of FTP Server"),
]
LOGIN_KEYWORDS = [
    ("timeout", "Specify login timeout of FTP Server waits for FTP client's command"),
    ("times", "Specify login times of FTP Server waits for FTP client's command"),
]
TOPDIR_CHOICES = [(s + ":", "Set ftp-server access directory %s: file system" % s)
                  for s in ("flash2", "flash", "install", "nfs", "sata0", "tmp", "usb0")]
TOPDIR_CHOICES.append(("PATH", "Name of the directory/file"))

ESCAPE = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")


class Terminal:
    """ftps-cli with a pseudo-terminal as its controlling terminal, COLUMNS wide."""

    def __init__(self, env):
        pid, fd = pty.fork()
        if pid == 0:
            try:
                fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 50, COLUMNS, 0, 0))
                env = dict(env, TERM="xterm")
                env.pop("EDITRC", None)
                env["HOME"] = "/nonexistent"  # no personal editrc
                os.execve(CLI, [CLI], env)
            finally:
                os._exit(127)
        self.pid = pid
        self.fd = fd
        self.raw = b""
        self.status = None

    def read(self, timeout):
        r, _, _ = select.select([self.fd], [], [], timeout)
        if not r:
            return False
        try:
            data = os.read(self.fd, 4096)
        except OSError as e:
            if e.errno == errno.EIO:  # the program has ended
                return False
            raise
        self.raw += data
        return bool(data)

    def text(self):
        """The output without cursor movements, bells and carriage returns."""
        return ESCAPE.sub("", self.raw.decode(errors="replace")).replace("\r", "").replace("\x07", "")

    def expect(self, predicate, what):
        deadline = time.time() + WAIT
        while time.time() < deadline:
            if predicate(self.text()):
                return self.text()
            self.read(0.1)
        raise AssertionError("terminal never showed %s; it shows:\n%s" % (what, self.text()[-3000:]))

    def mark(self):
        return len(self.text())

    def type(self, keys):
        # Only once the editor has the terminal (no canonical mode): keys typed before that are
        # echoed and buffered by the terminal itself, as type-ahead is.
        deadline = time.time() + WAIT
        while termios.tcgetattr(self.fd)[3] & termios.ICANON:
            if time.time() > deadline:
                raise AssertionError("the line editor never took the terminal")
            self.read(0.01)
        os.write(self.fd, keys.encode())

    def run(self, line):
        """Types a line and Enter; returns what the terminal showed from the prompt of that line
        to the next prompt."""
        start = self.mark()
        self.type(line + "\r")
        shown = self.expect(lambda t: len(t) > start + len(line) and t.endswith(PROMPT), "the next prompt")
        return shown[shown.rfind("\n", 0, start) + 1:]

    def close(self):
        if self.status is None:
            try:
                os.kill(self.pid, signal.SIGKILL)
                os.waitpid(self.pid, 0)
            except OSError:
                pass
        os.close(self.fd)


def listing(text):
    """(name, help) pairs of a help listing: its rows are indented by two blanks."""
    rows = []
    for line in text.split("\n"):
        if line.startswith("  ") and line.strip():
            parts = re.split(r"\s{2,}", line.strip(), maxsplit=1)
            rows.append((parts[0], parts[1] if len(parts) > 1 else ""))
    return rows


class CliTerminalTest(DaemonTestCase):
    def setUp(self):
        self.t = Terminal(self.d.env())
        self.t.expect(lambda t: t.endswith(PROMPT), "the prompt")

    def tearDown(self):
        self.t.close()

    def running_config(self):
        rc, out = self.d.cli("show running-config")
        self.assertEqual(rc, 0, out)
        return out

    def help_for(self, partial):
        """Types partial and '?'; returns the listing and checks the line is kept as typed."""
        start = self.t.mark()
        self.t.type(partial + "?")
        shown = self.t.expect(lambda t: t[start:].endswith(PROMPT + partial), "the line again after the listing")
        self.t.type(KILL_LINE)
        return shown[start:]

    def test_question_mark_lists_next_keywords_with_their_help_texts(self):
        shown = self.help_for("ftp-server ")
        self.assertEqual(listing(shown), FTP_SERVER_KEYWORDS)

        self.assertEqual(listing(self.help_for("ftp-server login ")), LOGIN_KEYWORDS)
        self.assertEqual(listing(self.help_for("ftp-server topdir ")), TOPDIR_CHOICES)
        # Without a blank: the keywords that begin with the word, abbreviations before it allowed.
        self.assertEqual(listing(self.help_for("ftp lo")), [FTP_SERVER_KEYWORDS[2]])

    def test_tab_completes_keywords_into_the_line(self):
        start = self.t.mark()
        self.t.type("ftp-server ti\t")
        self.t.expect(lambda t: t[start:].endswith("ftp-server timeout "), "the completed keyword")
        self.t.run("5")
        self.assertIn("ftp-server timeout 5\n", self.running_config())

    def test_errors_put_a_caret_under_the_bad_word(self):
        for line, bad, message in (
                ("ftp-server timeot 5", "timeot", "% Unknown command: 'timeot'"),
                ("ftp-server timeout 0", "0", "% Number 0 out of range 1-3600."),
                ("  ftp-server t 5", "t 5", "% Ambiguous command: 't'"),
                ("ftp-server login timeout 31", "31", "% Number 31 out of range 1-30.")):
            shown = self.t.run(line).split("\n")
            self.assertIn(message, shown, shown)
            at = shown.index(message)
            caret, typed = shown[at - 1], shown[at - 2]
            self.assertEqual(caret.strip(), "^", shown)
            self.assertEqual(typed, PROMPT + line, shown)
            self.assertEqual(caret.index("^"), typed.rindex(bad), shown)
        # A handler's own refusal names no word: no caret.
        shown = self.t.run("no ftp-server username nobody")
        self.assertIn("% User is not exists.", shown)
        self.assertNotIn("^", shown)
        # '?' after a bad word points at it too, and keeps the line.
        shown = self.help_for("ftp-server bogus ").split("\n")
        self.assertEqual(shown[-3:-1], [" " * (len(PROMPT) + len("ftp-server ")) + "^",
                                        "% Unknown command: 'bogus'"])


if __name__ == "__main__":
    unittest.main()
