"""Soak: thousands of sessions, one after another and several at once, mixing whole sessions
(login, LIST, NLST, RETR, STOR, SIZE, DELE, QUIT) with clients that vanish (before the greeting,
after login, in a download, an upload or a listing, with a half-sent line or an unused passive
port) and hostile ones (a half-closed control connection, a flood of PASV, a third party on the
passive port, names too long for their real path, a wrong password, replies never read). One
session of each kind runs before the baseline. Afterwards memory and descriptors are at the
baseline, no temporary or partial file is left, and the daemon still serves. The long form runs
for twenty minutes."""

# ctest-labels: long

import os
import random
import socket
import sys
import threading
import time
import traceback
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import (Daemon, RawClient, expect, pasv_connect, pasv_port, reset, wait_until,  # noqa: E402
                          whole_session)

SMALL = os.urandom(48 * 1024)
BIG_SIZE = 8 << 20
# The top directory is deep enough that a name fitting one command line can be too long for its
# real path.
TOP = "s" * 40


class Refused(Exception):
    """A connection limit refused the session: before the greeting, or at the user's limit."""


def session(port, user, password="secret1", answer=b"230", login=True):
    c = RawClient(port, timeout=60)
    try:
        c.reply()
    except (EOFError, ConnectionResetError):
        c.close()
        raise Refused()
    if login:
        expect(c.cmd("USER " + user), b"331")
        r = c.cmd("PASS " + password)
        if r.startswith(b"421") and answer == b"230":
            c.close()
            raise Refused()
        expect(r, answer)
    return c


def whole(port, user, tag):
    whole_session(session(port, user), "small.bin", SMALL, tag)


def vanish_before_greeting(port, user, tag):
    reset(socket.create_connection(("127.0.0.1", port), timeout=30))


def vanish_after_login(port, user, tag):
    reset(session(port, user).sock)


def vanish_in_transfer(verb, type_="I", stall=0.0):
    """Vanishes once some bytes moved (after a while of not reading, with stall)."""
    def kind(port, user, tag):
        c = session(port, user)
        c.cmd("TYPE " + type_)
        d = pasv_connect(c)
        c.send(verb.replace("%s", tag) + "\r\n")
        expect(c.reply(), b"150")
        if verb.startswith("STOR"):
            d.sendall(SMALL[:10000])
        else:
            d.recv(65536)
        time.sleep(stall)
        reset(d)
        reset(c.sock)
    return kind


def half_line(port, user, tag):
    c = session(port, user)
    c.send(b"LIS")
    c.close()


def half_closed(login):
    """A client that shuts its sending side gets at most one reply, then the session ends."""
    def kind(port, user, tag):
        c = session(port, user, login=login)
        c.sock.shutdown(socket.SHUT_WR)
        got = b""
        while chunk := c.sock.recv(65536):
            got += chunk
        assert got.count(b"\r\n") <= 1, got[:200]
        c.close()
    return kind


def passive_flood(count):
    """Asks for count passive ports (the last one unused) and quits."""
    def kind(port, user, tag):
        c = session(port, user)
        for _ in range(count):
            expect(c.cmd("EPSV" if tag.endswith("1") else "PASV"), b"22")
        expect(c.cmd("QUIT"), b"221")
        c.close()
    return kind


def passive_thief(port, user, tag):
    """A connection to the passive port from another address is closed without a byte of the
    file, and the client's own connection still gets the whole file."""
    c = session(port, user)
    c.cmd("TYPE I")
    data_port = pasv_port(c.cmd("PASV"))
    thief = socket.create_connection(("127.0.0.1", data_port), timeout=30, source_address=("127.0.0.2", 0))
    c.send("RETR small.bin\r\n")
    assert thief.recv(65536) == b"", "the third party got data"
    thief.close()
    d = socket.create_connection(("127.0.0.1", data_port), timeout=30)
    expect(c.reply(), b"150 ")
    got = bytearray()
    while chunk := d.recv(65536):
        got += chunk
    d.close()
    r = c.reply()
    assert r == b"226 Closing data connection.\r\n" and got == SMALL, (r, len(got))
    c.close()


def long_name(port, user, tag):
    c = session(port, user)
    name = "x" * 200 + "/" + "y" * 255
    for verb in ("DELE", "MKD", "SIZE"):
        expect(c.cmd("%s %s" % (verb, name)), b"550")
    c.close()


def wrong_password(port, user, tag):
    session(port, user, "wrong", b"530").close()


def never_reads(port, user, tag):
    c = session(port, user)
    c.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    c.sock.settimeout(0.5)
    try:
        for _ in range(200):
            c.send(b"HELP\r\n" * 20)
    except OSError:
        pass
    reset(c.sock)


KINDS = [whole, whole, whole, whole, vanish_before_greeting, vanish_after_login,
         vanish_in_transfer("RETR big.bin"), vanish_in_transfer("STOR p%s.bin"),
         vanish_in_transfer("LIST many", "A", 0.2), half_line, passive_flood(1), passive_flood(20),
         half_closed(False), half_closed(True), passive_thief, long_name, wrong_password, never_reads]


def files_below(top):
    return {os.path.relpath(os.path.join(dirpath, n), top)
            for dirpath, dirnames, filenames in os.walk(top) for n in dirnames + filenames}


class SoakBase:
    """The soak itself; the concrete classes choose how many sessions it runs."""

    SESSIONS = 3000
    DURATION = None  # seconds; when set, the sessions run for this long instead of a count
    WORKERS = 6

    def setUp(self):
        self.d = Daemon(startup=["ftp-server username alice password secret1",
                                 "ftp-server username bob password secret1"], topdir="flash:/" + TOP)
        self.top = os.path.join(self.d.flash, TOP)
        self.d.put(TOP + "/small.bin", SMALL)
        self.d.put(TOP + "/big.bin", os.urandom(1 << 20) * (BIG_SIZE >> 20))
        self.d.many(TOP + "/many", 3000)
        self.d.start()
        self.addCleanup(self.d.stop_checked)
        self.assertEqual(self.d.cli("ftp-server max-user-connect 20"), (0, ""))

    def run_kind(self, kind, user, tag, stats):
        for _ in range(50):
            try:
                kind(self.d.port, user, tag)
                stats["done"] += 1
                return
            except Refused:
                # Sessions that vanished are still being ended by the daemon; try again.
                stats["refused"] += 1
                time.sleep(0.05)
        raise AssertionError("refused 50 times in a row")

    def test_sessions_leave_nothing_behind(self):
        # One of each kind first, so that everything opened once for the life of the process is
        # open before the baseline is taken.
        stats = {"done": 0, "refused": 0}
        for i, kind in enumerate(KINDS):
            self.run_kind(kind, "alice", "warm%d" % i, stats)
        base_files = {"small.bin", "big.bin", "many"}
        self.assertTrue(wait_until(lambda: set(os.listdir(self.top)) == base_files, timeout=30))
        time.sleep(1)
        memory = self.d.memory_in_use()
        self.assertTrue(all(v == 0 for v in memory.values()), memory)
        fds = self.d.descriptors()
        tmp = files_below(self.d.tmpdir)

        start, errors = time.time(), []

        def run(seed, user, count, seconds):
            r, i = random.Random(seed), 0
            while (time.time() - start < seconds) if self.DURATION else i < count:
                self.run_kind(r.choice(KINDS), user, "%s_%d" % (seed, i), stats)
                i += 1

        def worker(w):
            try:
                run(w, "alice" if w % 2 else "bob", (self.SESSIONS - sequential) // self.WORKERS, self.DURATION)
            except Exception:
                errors.append("worker %d: %s" % (w, traceback.format_exc()))

        # A quarter of the count, or of the time, one session after another; the rest at once.
        sequential = self.SESSIONS // 4
        run("s", "alice", sequential, (self.DURATION or 0) / 4)
        threads = [threading.Thread(target=worker, args=(w,)) for w in range(self.WORKERS)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        self.assertEqual(errors, [])

        self.assertTrue(wait_until(lambda: (self.d.memory_in_use(), self.d.descriptors(), files_below(self.d.tmpdir))
                                   == (memory, fds, tmp), timeout=60),
                        "memory %s (was %s), descriptors %d (were %d), temporary files %s (were %s)" %
                        (self.d.memory_in_use(), memory, self.d.descriptors(), fds,
                         sorted(files_below(self.d.tmpdir)), sorted(tmp)))
        self.assertEqual(set(os.listdir(self.top)), base_files)
        whole(self.d.port, "alice", "final")
        sys.stderr.write("soak: %d sessions in %.0f s, %d refused while others were ending; "
                         "memory %s, %d descriptors\n" %
                         (stats["done"], time.time() - start, stats["refused"], self.d.memory_in_use(),
                          self.d.descriptors()))


class SoakTest(SoakBase, unittest.TestCase):
    DURATION = 20 * 60


if __name__ == "__main__":
    unittest.main()
