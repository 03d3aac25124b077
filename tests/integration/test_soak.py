# Soak: thousands of sessions, one after another and several at once, mixing whole sessions
# (login, LIST, NLST, RETR, STOR, SIZE, DELE, QUIT) with clients that vanish (before the greeting,
# after login, in a download, an upload or a listing, with a half-sent line) and hostile ones (a
# half-closed control connection, a third party on the passive port, a wrong password, replies
# never read), and against a second daemon serving FTPS a TLS mix (whole protected sessions,
# strangers first on a protected data port, floods of unauthenticated handshakes, KeyUpdate floods,
# uploads cut without the closing alert, garbage instead of a ClientHello, plain data connections
# under PROT P). One session of each kind runs before the baseline. Afterwards memory and descriptors of both daemons are at the baseline, no
# temporary or partial file is left, and both still serve. The long form runs for twenty minutes.
# (Passive ports flooded or left unused, names too long for their real path: test_hostile_clients.py,
# memory checked after them too.)

# ctest-labels: long

import contextlib
import ftplib
import io
import os
import random
import socket
import ssl
import sys
import tempfile
import time
import unittest
from functools import partial

from ftps_harness import (Daemon, RawClient, client_context, ends, expect, in_parallel, memory_idle, pasv_connect,
                          pasv_port, reset, tls_handshake, wait_until, whole_session)
from test_tls_attacks import cut_upload, final_reply, key_update_flood, retrieved, stranger_first, tls_session

SMALL = os.urandom(48 * 1024)
TOP = "s" * 40  # the served directory, below the flash's root


class Refused(Exception):
    pass  # a connection limit refused the session: before the greeting, or at the user's limit


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


def vanish_in_transfer(verb, type_, stall, port, user, tag):
    # Vanishes once some bytes moved (after a while of not reading, with stall).
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


def half_closed(login, port, user, tag):
    # A client that shuts its sending side gets at most one reply, then the session ends.
    c = session(port, user, login=login)
    c.sock.shutdown(socket.SHUT_WR)
    got = c.sock.makefile("rb").read()
    assert got.count(b"\r\n") <= 1, got[:200]
    c.close()


def passive_thief(port, user, tag):
    # A connection to the passive port from another address is closed without a byte of the
    # file, and the client's own connection still gets the whole file.
    c = session(port, user)
    c.cmd("TYPE I")
    data_port = pasv_port(c.cmd("PASV"))
    thief = socket.create_connection(("127.0.0.1", data_port), timeout=30, source_address=("127.0.0.2", 0))
    c.send("RETR small.bin\r\n")
    assert thief.recv(65536) == b"", "the third party got data"
    thief.close()
    with socket.create_connection(("127.0.0.1", data_port), timeout=30) as d:
        expect(c.reply(), b"150 ")
        got = d.makefile("rb").read()
    assert (c.reply(), got) == (b"226 Closing data connection.\r\n", SMALL), "the client's own transfer failed"
    c.close()


def never_reads(port, user, tag):
    c = session(port, user)
    c.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    c.sock.settimeout(0.5)
    with contextlib.suppress(OSError):
        for _ in range(200):
            c.send(b"HELP\r\n" * 20)
    reset(c.sock)


def vanish(port, user, tag):
    reset(session(port, user).sock)


def half_line(port, user, tag):
    c = session(port, user)
    c.send(b"LIS")
    c.close()


def wrong_password(port, user, tag):
    session(port, user, "wrong", b"530").close()


KINDS = [whole, whole, whole, whole, vanish, half_line, wrong_password, passive_thief, never_reads,
         lambda port, user, tag: reset(socket.create_connection(("127.0.0.1", port), 30)),  # before the greeting
         partial(vanish_in_transfer, "RETR big.bin", "I", 0), partial(vanish_in_transfer, "STOR p%s.bin", "I", 0),
         partial(vanish_in_transfer, "LIST many", "A", 0.2), partial(half_closed, False), partial(half_closed, True)]


# --- The TLS mix, against the daemon that serves FTPS

def tls_login(port, user):
    try:
        return tls_session(port, user=user)
    except (EOFError, ConnectionError, ftplib.error_temp):
        raise Refused()


def tls_whole(port, user, tag):
    ftp = tls_login(port, user)
    ftp.storbinary("STOR t%s.bin" % tag, io.BytesIO(SMALL))
    assert retrieved(ftp, "t%s.bin" % tag) == SMALL
    ftp.delete("t%s.bin" % tag)
    ftp.quit()


def tls_first_comer(port, user, tag):
    # A stranger at the client's address, first on its protected data port, with a session of its own.
    ftp = tls_login(port, user)
    assert stranger_first(ftp, "RETR small.bin", client_context())[::2] == (b"", "425"), "the stranger was served"
    ftp.quit()


def tls_handshake_flood(port, user, tag):
    for _ in range(10):
        try:
            tls_handshake(port)
        except (EOFError, ConnectionError, ssl.SSLError):
            raise Refused()


def tls_key_updates(port, user, tag):
    # A TLS 1.3 handshake after AUTH TLS, a few thousand KeyUpdate requests, then a reset.
    raw = socket.create_connection(("127.0.0.1", port), timeout=30)
    try:
        with tempfile.NamedTemporaryFile(prefix="ftps-keys") as keys:
            flood = key_update_flood(raw, keys.name, 3000)
        raw.settimeout(5)
        raw.sendall(flood)
    except AssertionError:
        raise Refused()
    except OSError:
        pass
    finally:
        reset(raw)


def tls_cut_upload(port, user, tag):
    ftp = tls_login(port, user)
    assert cut_upload(ftp, "c%s.bin" % tag, SMALL) == "426", "an upload cut without its alert was taken"
    ftp.quit()


def tls_garbage_hello(port, user, tag):
    # Garbage where the ClientHello belongs ends the connection.
    c = session(port, user, login=False)
    expect(c.cmd("AUTH TLS"), b"234 ")
    c.send(b"GET / HTTP/1.1\r\n\r\n" + os.urandom(300))
    assert ends(c.sock), "the connection stayed open after garbage instead of a ClientHello"
    c.close()


def tls_plain_data(port, user, tag):
    # A plain data connection under PROT P is refused with 425; the session goes on.
    ftp = tls_login(port, user)
    address = ftplib.parse229(ftp.sendcmd("EPSV"), ftp.sock.getpeername())
    ftp.putcmd("LIST")
    with socket.create_connection(address, timeout=30) as plain:
        assert final_reply(ftp) == "150"
        plain.sendall(b"not a handshake\r\n" * 20)
        assert final_reply(ftp) == "425", "a plain data connection was served under PROT P"
    assert ftp.voidcmd("NOOP")[:3] == "200"
    ftp.quit()


TLS_KINDS = [tls_whole, tls_whole, tls_first_comer, tls_handshake_flood, tls_key_updates, tls_cut_upload,
             tls_garbage_hello, tls_plain_data]


def files_below(top):
    return {os.path.relpath(os.path.join(dirpath, n), top)
            for dirpath, dirnames, filenames in os.walk(top) for n in dirnames + filenames}


class SoakBase:
    # The soak itself; the concrete classes choose how many sessions it runs.

    SESSIONS = 3000
    DURATION = None  # seconds; when set, the sessions run for this long instead of a count
    WORKERS = 6

    def setUp(self):
        users = ["ftp-server username alice password secret1", "ftp-server username bob password secret1"]
        self.d = Daemon(startup=users + ["ftp-server max-user-connect 20"], topdir="flash:/" + TOP)
        # The TLS mix logs in with the attack tests' helpers and passwords.
        self.t = Daemon(startup=users[:1] + ["ftp-server username bob password secret2"], topdir="flash:/" + TOP,
                        tls=True, extra_platform={"ftp.profile": "standard", "ftp.max_per_address": "0"})
        self.d.put(TOP + "/big.bin", os.urandom(1 << 20) * 8)
        self.d.many(TOP + "/many", 3000)
        self.base_files = {self.d: {"small.bin", "big.bin", "many"}, self.t: {"small.bin"}}
        for d in (self.d, self.t):
            d.put(TOP + "/small.bin", SMALL)
            d.start_for(self)

    def state(self):
        return [(d.memory_in_use(), d.descriptors(), files_below(d.tmpdir)) for d in (self.d, self.t)]

    def top_files(self):
        return {d: set(os.listdir(os.path.join(d.flash, TOP))) for d in (self.d, self.t)}

    def run_kind(self, kind, user, tag, stats):
        for _ in range(50):
            try:
                kind(self.t.port if kind in TLS_KINDS else self.d.port, user, tag)
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
        stats, kinds = {"done": 0, "refused": 0}, KINDS + TLS_KINDS
        # The TLS library makes the key's blinding for threads other than its first user once two
        # sessions sign at the same time: one session stays open while the others run.
        held = tls_login(self.t.port, "bob")
        for i, kind in enumerate(kinds):
            self.run_kind(kind, "alice", "warm%d" % i, stats)
        held.quit()
        self.assertTrue(wait_until(lambda: self.top_files() == self.base_files, 30), self.top_files())
        time.sleep(1)
        # Only the TLS library's context stays between sessions.
        for d in (self.d, self.t):
            self.assertTrue(memory_idle(d, ignore=("TLS",)), d.memory_in_use())
        baseline, start = self.state(), time.time()

        def run(seed, user, count, seconds):
            r, i = random.Random(seed), 0
            while (time.time() - start < seconds) if self.DURATION else i < count:
                self.run_kind(r.choice(kinds), user, "%s_%d" % (seed, i), stats)
                i += 1

        # A quarter of the count, or of the time, one session after another; the rest at once.
        run("s", "alice", self.SESSIONS // 4, (self.DURATION or 0) / 4)
        in_parallel(lambda w: run(w, "alice" if w % 2 else "bob", (self.SESSIONS - self.SESSIONS // 4) // self.WORKERS,
                                  self.DURATION), self.WORKERS)

        self.assertTrue(wait_until(lambda: self.state() == baseline, timeout=60),
                        "memory, descriptors, temporary files: %s, were %s" % (self.state(), baseline))
        self.assertEqual(self.top_files(), self.base_files)
        whole(self.d.port, "alice", "final")
        tls_whole(self.t.port, "alice", "final")
        sys.stderr.write("soak: %d sessions in %.0f s, %d refused while others were ending\n"
                         % (stats["done"], time.time() - start, stats["refused"]))


class SoakTest(SoakBase, unittest.TestCase):
    DURATION = 20 * 60


if __name__ == "__main__":
    unittest.main()
