"""Load: twenty sessions transfer at the same moment (downloads and uploads, both types) while a
twenty-first connection is refused without a reply; every transfer arrives byte for byte, and the
server serves again and gives back its memory once they end."""

import hashlib
import io
import os
import sys
import threading
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import SANITIZED, DaemonTestCase, RawClient, ftp_session, logged_in, wait_until  # noqa: E402

SESSIONS = 20
SIZE = (1 << 20) if SANITIZED else (4 << 20)
BLOCK = 64 * 1024


class GatedReader(io.RawIOBase):
    """An upload source that stops after its first block until every transfer has begun."""

    def __init__(self, data, gate):
        self.data = data
        self.pos = 0
        self.gate = gate

    def readable(self):
        return True

    def readinto(self, b):
        if self.pos == BLOCK:
            self.gate.wait()
        chunk = self.data[self.pos:self.pos + min(len(b), BLOCK)]
        b[:len(chunk)] = chunk
        self.pos += len(chunk)
        return len(chunk)


class LoadTest(DaemonTestCase):
    daemon_kwargs = {"startup": ["ftp-server username alice password secret1",
                                 "ftp-server username bob password secret2"]}

    def test_twenty_transfers_at_once_and_the_twenty_first_refused(self):
        self.assertEqual(self.d.cli("ftp-server max-user-connect 20"), (0, ""))
        payload = os.urandom(SIZE)
        # CR LF pairs only: the ASCII upload stores LF lines.
        text = (b"line of text\r\n" * (SIZE // 14 + 1))[:SIZE - SIZE % 14]
        self.d.put("down.bin", payload)
        baseline = self.d.memory_in_use()

        sessions = [ftp_session(self.d.port, user="alice" if i % 2 == 0 else "bob",
                                password="secret1" if i % 2 == 0 else "secret2") for i in range(SESSIONS)]

        gate = threading.Barrier(SESSIONS + 1, timeout=120)
        results = [None] * SESSIONS
        errors = []

        def download(i, ftp):
            h = hashlib.sha256()
            first = [True]

            def block(b):
                if first[0]:
                    first[0] = False
                    gate.wait()
                h.update(b)
            ftp.retrbinary("RETR down.bin", block, blocksize=BLOCK)
            results[i] = h.digest()

        def upload(i, ftp):
            source = text if i % 4 == 1 else payload
            name = "up%02d.bin" % i
            if i % 4 == 1:
                ftp.storlines("STOR " + name, io.BufferedReader(GatedReader(source, gate)))
            else:
                ftp.storbinary("STOR " + name, GatedReader(source, gate), blocksize=BLOCK)
            results[i] = name

        def run(i, ftp):
            try:
                (download if i % 2 == 0 else upload)(i, ftp)
            except Exception as e:  # reported by the main thread
                errors.append((i, repr(e)))
                gate.abort()

        threads = [threading.Thread(target=run, args=(i, ftp)) for i, ftp in enumerate(sessions)]
        for t in threads:
            t.start()
        # Every session is now inside its transfer.
        try:
            gate.wait()
        except threading.BrokenBarrierError:
            for t in threads:
                t.join(timeout=60)
            self.fail("a transfer failed to start: %s" % errors)
        extra = RawClient(self.d.port, timeout=30)
        self.assertTrue(extra.closed(timeout=30), "the 21st connection was served")
        extra.close()
        for t in threads:
            t.join(timeout=300)
        self.assertEqual(errors, [])

        digest = hashlib.sha256(payload).digest()
        for i in range(SESSIONS):
            if i % 2 == 0:
                self.assertEqual(results[i], digest, "download %d" % i)
            else:
                with open(os.path.join(self.d.flash, results[i]), "rb") as f:
                    got = f.read()
                want = text.replace(b"\r\n", b"\n") if i % 4 == 1 else payload
                if i % 4 == 1:
                    # Each received block is converted by itself, so a CR LF split between two
                    # blocks (where TCP happened to cut the stream) stays a pair; the others
                    # became LF.
                    self.assertLess(got.count(b"\r\n"), want.count(b"\n") // 2, "upload %d" % i)
                    got = got.replace(b"\r\n", b"\n")
                self.assertEqual(hashlib.sha256(got).digest(), hashlib.sha256(want).digest(), "upload %d" % i)
        for ftp in sessions:
            ftp.quit()

        # With the sessions gone a new one is served and the memory rows are back where they were.
        self.assertTrue(wait_until(lambda: self.d.memory_in_use() == baseline, timeout=30),
                        (baseline, self.d.memory_in_use()))
        logged_in(self.d.port).close()


if __name__ == "__main__":
    unittest.main()
