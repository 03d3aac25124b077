# Fault injection: the accounted allocator made to fail once, for each memory category on the paths that use
# it (the daemon's test switch FTPS_TEST_MEMFAIL=TYPE:N fails the N-th allocation of that category after
# start); each failure is answered as designed, nothing leaks and the daemon keeps serving. Also a full file
# system under an upload.

import contextlib
import os
import subprocess
import unittest

from ftps_harness import (MEMORY_ROWS as ROW, Daemon, RawClient, greeted, logged_in, memory_idle,
                          start_upload, transfer, whole_session)

INIT, TMP, PCRED_NAME, PCRED_PWD, PCRED_MSG, PCRED_DIR, BUF, CHANG_BUF, WHOLE_BUF, STRING, \
    DATA_BUF, OUTPATH, USER_CNT, INFO, EPOLL = range(15)

GREETING = b"220 TESTSW FTP server <version 1.00> ready.\r\n"
MALLOC_451 = b"451 Local resource failure: malloc.\r\n"
EPOLL_451 = b"451 Local resource failure: epoll.\r\n"
LOCAL_451 = b"451 Requested action aborted. Local error in processing.\r\n"
DENIED = b"530 Password access denied.\r\n"
CONTENT = b"first line\r\nsecond line\r\n" * 4000


def new_daemon():
    d = Daemon()
    os.makedirs(os.path.join(d.flash, "sub"))
    d.put("f.txt", CONTENT)
    return d


class MemoryFaultTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # Allocations the start-up itself makes (the top directory is trimmed once): the injected
        # count starts from the daemon's start, the cases count from the first client.
        d = new_daemon().start()
        cls.startup = {name: row[1] for name, row in d.memory_rows().items()}
        d.stop_checked()

    def inject(self, category, nth, scenario):
        # Runs scenario(daemon) with the nth allocation of category after start-up failing; then
        # expects exactly one failure counted, every row back to zero In Use, a whole session served,
        # and a clean exit.
        d = new_daemon()
        try:
            d.start(env=dict(d.env(), FTPS_TEST_MEMFAIL="%d:%d" % (category, self.startup[ROW[category]] + nth)))
            scenario(d)
            whole_session(logged_in(d.port), "f.txt", CONTENT)
            self.assertTrue(memory_idle(d), d.memory_rows())
            self.assertEqual(d.memory_rows()[ROW[category]][0], 1, "failures counted")
        finally:
            d.stop_checked()

    def test_session_start_failures_close_the_connection(self):
        # The hand-off record, the session's line buffer and each string of its record: closed
        # before the greeting; the session's event waiter: right after it.
        for category in (INFO, WHOLE_BUF, PCRED_DIR, PCRED_NAME, PCRED_PWD, EPOLL):
            def closed(d, greeting=category == EPOLL):
                c = RawClient(d.port)
                if greeting:
                    self.assertEqual(c.reply(), GREETING)
                self.assertTrue(c.closed(), "a reply was sent")
                c.close()
            with self.subTest(category=ROW[category]):
                self.inject(category, 1, closed)

    def test_login_allocation_failures_refuse_that_login_only(self):
        def refused(d, user="alice", password="secret1", replies=DENIED + DENIED, again=True):
            c = greeted(d.port)
            self.assertEqual(c.cmd("USER " + user), b"331 User name okay, need password.\r\n")
            self.assertEqual(c.cmd("PASS " + password) + c.reply(), replies)
            if again:  # the next attempt of the same session succeeds
                self.assertEqual(c.cmd("USER alice"), b"331 User name okay, need password.\r\n")
                self.assertEqual(c.cmd("PASS secret1"), b"230 User logged in, proceed.\r\n")
            c.close()
        # The scratch message of USER; the user's connection slots, first and a later one of the
        # batch taken at the user's first login (those already taken are given back); the AAA
        # element buffer of a name outside the table.
        for category, nth, how in ((PCRED_MSG, 1, {}), (USER_CNT, 1, {}), (USER_CNT, 4, {}),
                                   (TMP, 1, {"user": "carol", "password": "whatever", "again": False,
                                             "replies": b"530 Not logged in.\r\n" + DENIED})):
            with self.subTest(category=ROW[category], nth=nth):
                self.inject(category, nth, lambda d: refused(d, **how))

    def test_transfer_listing_and_path_failures(self):
        def exchange(d, verb, expected, type_cmd=None, upload=None):
            # One command (a transfer when it needs data) after login and its exact replies.
            c = logged_in(d.port)
            if type_cmd:
                c.cmd(type_cmd)
            data_verb = verb.split()[0] in ("RETR", "STOR", "LIST", "NLST")
            self.assertEqual(transfer(c, verb, upload)[0] if data_verb else c.cmd(verb), expected)
            if upload is not None:
                # The partial file is gone before the reply.
                self.assertFalse(os.path.exists(os.path.join(d.flash, "up.bin")), "partial upload kept")
            c.close()

        binary, ascii_ = b"150 Opening BINARY mode data connection.\r\n", b"150 Opening ASCII mode data connection.\r\n"
        not_taken = b"550 Requested action not taken.\r\n"
        cases = [
            (BUF, 1, ("RETR f.txt", binary + MALLOC_451, "TYPE I")),
            (CHANG_BUF, 1, ("RETR f.txt", ascii_ + MALLOC_451, "TYPE A")),
            (DATA_BUF, 1, ("STOR up.bin", binary + MALLOC_451, "TYPE I", CONTENT)),
            # The session's own waiter is the first, the passive wait the second.
            (EPOLL, 3, ("RETR f.txt", binary + EPOLL_451, "TYPE I")),
            (EPOLL, 3, ("STOR up.bin", binary + EPOLL_451, "TYPE I", CONTENT)),
            # A listing is sent by the transfer engine, with its buffers.
            (BUF, 1, ("LIST", ascii_ + MALLOC_451)), (CHANG_BUF, 1, ("NLST", ascii_ + MALLOC_451)),
            (EPOLL, 2, ("LIST", b"425 Can't open data connection.\r\n")),
            (TMP, 1, ("CWD sub", b'550 "sub": No such file or directory.\r\n')), (TMP, 1, ("RETR f.txt", LOCAL_451)),
            (WHOLE_BUF, 2, ("CWD sub", not_taken)), (WHOLE_BUF, 2, ("RETR f.txt", LOCAL_451)),
            (OUTPATH, 1, ("PWD", not_taken)),
        ]
        for category, nth, how in cases:
            with self.subTest(category=ROW[category], nth=nth, verb=how[0]):
                self.inject(category, nth, lambda d: exchange(d, *how))


class DiskFullTest(unittest.TestCase):
    # An upload larger than the file system: 452 and no file left.

    def test_upload_beyond_free_space_is_refused_and_removed(self):
        d = new_daemon()
        self.addCleanup(d.cleanup)
        r = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "ftpsfull", d.flash],
                           capture_output=True, text=True)
        if r.returncode != 0:
            self.skipTest("mounting a small file system needs root: " + (r.stderr.strip() or r.stdout.strip()))
        self.addCleanup(subprocess.run, ["umount", d.flash], capture_output=True)
        self.addCleanup(d.stop)  # before the file system goes
        d.start()
        c = logged_in(d.port)
        for type_cmd in ("TYPE I", "TYPE A"):
            data = start_upload(c, "huge.bin", type_cmd=type_cmd)
            with contextlib.suppress(OSError):  # the daemon may stop reading once the write failed
                data.sendall(b"0123456789abcde\n" * (1 << 17))  # 2 MiB
            data.close()
            self.assertEqual(c.reply(), b"452 Error writing file.\r\n")
            # Gone by the time the client hears of the failure.
            self.assertFalse(os.path.exists(os.path.join(d.flash, "huge.bin")))
        # Space is free again: a small upload succeeds.
        self.assertTrue(transfer(c, "STOR small.bin", b"x" * 1000)[0].endswith(b"226 Transfer complete.\r\n"))
        self.assertEqual(os.path.getsize(os.path.join(d.flash, "small.bin")), 1000)
        c.close()
        self.assertEqual(d.stop(), 0, d.stderr[-4000:])


if __name__ == "__main__":
    unittest.main()
