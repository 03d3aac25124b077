# The standard profile against raw sockets, with the device profile's answers to the same bytes beside it: one
# table of commands and their exact replies per profile (the device's HELP, SYST and STAT texts, AUTH refused
# although a certificate is configured); command lines however the bytes arrive, CR LF on every reply line,
# long names echoed shortened, no PORT bounce, out-of-sequence PASS counted as nothing; LIST and NLST options,
# MLSD and MLST facts, unlistable paths refused before any data connection without the real path; REST and
# APPE, and uploads that replace their target only once complete (the device writes in place). curl's resumed
# transfers and ranges: test_real_clients.py.

import itertools
import os
import shutil
import threading
import time
import unittest

from ftps_harness import (DaemonTestCase, RawClient, free_port, ftp_session, greeted, has_ipv6, logged_in,
                          memory_idle, read_file, reset, start_upload, transfer, wait_until, write_file)
from test_stalled_transfer import stalled_transfer

GREETING = b"220 TESTSW FTP server <version 1.00> ready.\r\n"
BAD_LINE, NOOP_OK = b"500 Syntax error, command unrecognized.\r\n", b"200 NOOP ok.\r\n"
NOT_IMPLEMENTED, OUT_OF_SEQUENCE = b"502 Command not implemented.\r\n", b"503 Bad sequence of commands.\r\n"
USER_OK, LOGGED_IN = b"331 User name okay, need password.\r\n", b"230 User logged in, proceed.\r\n"
NOT_LOGGED_IN, BAD_ARGS = b"530 Not logged in.\r\n", b"501 Syntax error in parameters or arguments.\r\n"
PORT_OK, BAD_EPRT = b"200 PORT Command okay.\r\n", b"500 Illegal EPRT Command.\r\n"
CHMOD_OK = b"200 SITE CHMOD command successful.\r\n"

DATA, OLD, N = os.urandom(300_000), b"the old version\n" * 1000, 100_000
BINARY = b"150 Opening BINARY mode data connection.\r\n"
SENT = BINARY + b"226 Closing data connection.\r\n"
STORED = BINARY + b"226 Transfer complete.\r\n"
ASCII_STORED = b"150 Opening ASCII mode data connection.\r\n226 Transfer complete.\r\n"
REST_IN_ASCII = b"504 Restart is not supported in ASCII type.\r\n"
BEYOND_END = b"554 Requested action not taken: invalid REST parameter.\r\n"
ABORTED = b"426 Data Connection.\r\n"

TREE = {"a.txt": b"alpha\n", "b.bin": b"\x00\x01", ".hidden": b"h\n", "ro.txt": b"r\n",
        "sub/x.txt": b"x\n", "sub/.dot": b"d\n", "my dir/in.txt": b"i\n",
        "crlf/n0": b"", "crlf/n1": b"", "crlf/n2": b""}
TOP = {"a.txt", "b.bin", "ro.txt", "sub", "my dir", "locked", "crlf", "up"}

# Commands and their replies, in order on one session after login: the exact reply, a test of it,
# or None (any reply, still in CR LF).
SHORTENED = lambda r: r.startswith(b"550") and b"..." in r and len(r) <= 511  # noqa: E731
STANDARD_REPLIES = [
    ("SYST", b"215 UNIX Type: L8.\r\n"),
    ("FEAT", b"211-Features:\r\n EPRT\r\n EPSV\r\n MDTM\r\n MFMT\r\n"
             b" MLST type*;size*;modify*;perm*;unique*;\r\n REST STREAM\r\n SIZE\r\n TVFS\r\n UTF8\r\n211 End\r\n"),
    ("OPTS UTF8 ON", b"200 Always in UTF8 mode.\r\n"),
    # The facts MLST and MLSD send from now on, and back to all of them.
    ("OPTS MLST type;size;bogus;", b"200 MLST OPTS type;size;\r\n"),
    ("MLST a.txt", b"250-Listing a.txt\r\n type=file;size=6; a.txt\r\n250 End\r\n"),
    ("OPTS MLST type;size;modify;perm;unique;", b"200 MLST OPTS type;size;modify;perm;unique;\r\n"),
    # RFC 959's forms: the path first with quotes doubled, the minimum of MODE, STRU, TYPE, ALLO,
    # the X aliases, unknown words 500 and known ones not served 502.
    ("PWD", b'257 "/" is the current directory\r\n'), ('MKD q"dir', b'257 "/q""dir" created\r\n'),
    ('xcwd q"dir', b'250 Directory change to "/q"dir".\r\n'), ("XPWD", b'257 "/q""dir" is the current directory\r\n'),
    ("XCUP", b'250 Directory change to "/".\r\n'), ('XRMD q"dir', b"250 RMD command successful.\r\n"),
    ("MODE S", b"200 Mode set to S.\r\n"), ("MODE Z", b"504 Only mode S is served.\r\n"),
    ("STRU F", b"200 Structure set to F.\r\n"), ("STRU R", b"504 Only structure F is served.\r\n"),
    ("TYPE L 8", b"200 Type set to I.\r\n"), ("TYPE E", b"504 Type not implemented.\r\n"),
    ("TYPE A N", b"200 Type set to A.\r\n"), ("ALLO 100", b"202 ALLO command ignored.\r\n"),
    ("SIZE a.txt", b"550 SIZE not allowed in ASCII mode.\r\n"), ("NOOPX", BAD_LINE), ("SYSTEM", BAD_LINE),
    ("TYPEI", BAD_LINE), ("nOoP", NOOP_OK), ("STOU x", NOT_IMPLEMENTED), ("SITE EXEC ls", b"500 Unknown SITE command.\r\n"),
    ("SITE CHMOD 600 ro.txt", CHMOD_OK), ("SITE CHMOD 444 ro.txt", CHMOD_OK),
    ("SITE CHMOD 644 nope", b'550 "nope": No such file or directory.\r\n'),
    ("MFMT 20200102030405 a.txt", b"213 Modify=20200102030405; a.txt\r\n"), ("MDTM a.txt", b"213 20200102030405\r\n"),
    ("MFMT 2020 a.txt", BAD_ARGS),
    ("SITE UTIME a.txt 20210102030405 20210102030405 20210102030405 UTC",
     b"200 SITE UTIME command successful.\r\n"),
    ("HELP MLSD", b"214 Syntax: MLSD [ <sp> path-name ]\r\n"),
    ("EPSV 3", b"522 Network protocol not supported, use (1).\r\n"),
    ("PORT 127,0,0,1,259,232", b"501 Illegal PORT Command.\r\n"), ("EPRT |1|127.0.0.1|1000|", BAD_EPRT),
    # A USER after the login starts a new one.
    ("USER alice", USER_OK), ("PASS secret1", LOGGED_IN), ("ABOR", b"225 No transfer to abort.\r\n"),
    ("REST 100", b"350 Restarting at 100. Send STORE or RETRIEVE to initiate transfer.\r\n"), ("REST x", BAD_ARGS),
    # Active data connections go to the client itself only.
    ("PORT 10,1,2,3,200,1", b"500 Illegal PORT Command.\r\n"), ("EPRT |1|10.1.2.3|51201|", BAD_EPRT),
    ("PORT 127,0,0,1,200,1", PORT_OK), ("EPRT |1|127.0.0.1|51201|", b"200 EPRT Command okay.\r\n"),
] + [("%s %s" % (verb, "n" * 490), SHORTENED) for verb in ("CWD", "SIZE", "DELE", "RMD")] \
  + [(cmd, None) for cmd in ("MDTM a.txt", "MLST a.txt", "HELP", "STAT", "HELP SITE")]

# The device from its greeting on: its texts to the byte, bare LF where it sends them.
HELP_HEAD = (b"214- The following commands are recognized (* =>is unimplemented).\r\n"
             b"214-    USER    PORT    STOR    MSAM*   RNTO    NLST    MKD     CDUP    OPTS*\n")
DEVICE_REPLIES = [
    ("HELP", lambda r: r.startswith(HELP_HEAD) and r.split(b"\n")[7].startswith(b"214 ")),
    ("HELP retr", b"214 Syntax: RETR <sp> file-name\r\n"), ("HELP xyz", b"502 Unknown command XYZ.\r\n"),
    ("HELP abor", b"214 ABOR    \t(abort operation); unimplemented.\r\n"),
    ("HELP SITE CHMOD", b"214 SITE CHMOD   \t<sp> mode <sp> file-name; unimplemented.\r\n"),
    ("HELP SITE", lambda r: r.startswith(b"214- The following SITE commands are recognized")),
    ("SYST", b"215 UNIX Type: L8.\r\n"), ("STAT", NOT_LOGGED_IN), ("PWD", b"550 Requested action not taken.\r\n"),
    ("CDUP", NOT_LOGGED_IN), ("AUTH TLS", NOT_IMPLEMENTED), ("USER alice", USER_OK), ("PASS secret1", LOGGED_IN),
    ("STAT", b"211- TESTSW FTP server status:\r\n     Logged in as alice.\r\n     TYPE: ASCII.\r\n"
             b"     No data connection.\r\n211 End of status.\r\n"),
] + [(cmd, NOT_IMPLEMENTED) for cmd in ("NOOP", "FEAT", "MLSD", "MLST a.txt", "REST 100", "noop")] + [
    ("MDTM a.txt", lambda r: r.startswith(b"213 ") and not r.endswith(b"\r\n")), ("PORT 10,1,2,3,200,1", PORT_OK),
    # One receive is one command: a line that fills the 512-byte buffer is a bad line.
    ("X" * 510, BAD_LINE),
    ("QUIT", b"221 Service closing control connection(Goodbye).\r\n"),
]


def listed(c, verb):
    # The entry names of a listing that must succeed (the last field of LIST lines).
    replies, data = transfer(c, verb)
    assert replies.startswith(b"150 ") and replies.endswith(b"226 Closing data connection.\r\n"), replies
    return {l.split(None, 8)[8] if verb.startswith("LIST") else l for l in data.decode().splitlines()}


def port_to_nowhere(c):
    return c.cmd("PORT 127,0,0,1,%d,%d" % divmod(free_port(), 256))


class ProfileCase(DaemonTestCase):
    # The listing tree at the top, an empty directory "up" for the transfers.

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for name, data in TREE.items():
            cls.d.put(name, data)
        for name in ("sub/deep", "locked", "up"):
            os.makedirs(os.path.join(cls.d.flash, name))
        os.chmod(os.path.join(cls.d.flash, "ro.txt"), 0o444)
        os.chmod(os.path.join(cls.d.flash, "locked"), 0o555)

    def session(self):
        # A logged-in RawClient in the transfers' directory.
        c = logged_in(self.d.port)
        assert c.cmd("CWD up").startswith(b"250 ")
        return c

    def path(self, name):
        return os.path.join(self.d.flash, "up", name)

    def put(self, name, data):
        if data is not None:
            self.d.put(os.path.join("up", name), data)

    def content(self, name):
        return read_file(self.path(name))

    def hidden(self):
        return [n for n in os.listdir(self.path("")) if n.startswith(".")]

    def check_replies(self, c, table, crlf):
        for cmd, expected in table:
            with self.subTest(cmd=cmd[:24]):
                r = c.cmd(cmd)
                if crlf:
                    self.assertEqual(r.count(b"\n"), r.count(b"\r\n"), r)
                if callable(expected):
                    self.assertTrue(expected(r), r)
                elif expected:
                    self.assertEqual(r, expected)


class StandardProfileTest(ProfileCase):
    daemon_kwargs = {"extra_platform": {"ftp.profile": "standard", "ftp.login_fail_delay": "0"}}

    def test_lines_however_the_bytes_arrive(self):
        c = greeted(self.d.port)
        # Several lines in one segment, lower-case words, a bare LF.
        c.send("user alice\r\npass secret1\nNOOP\r\n")
        self.assertEqual([c.reply()[:3] for _ in range(3)], [b"331", b"230", b"200"])
        # One line in several segments.
        for piece in (b"NO", b"O", b"P\r", b"\n"):
            c.send(piece)
            time.sleep(0.05)
        self.assertEqual(c.reply(), NOOP_OK)
        # A line over the buffer gets one 500, and bad bytes do not desynchronise the session.
        for junk in (b"X" * 1500, b"\x00\xff\x80garbage\r\n"):
            c.send(junk + b"\r\nNOOP\r\n")
            self.assertEqual(c.reply() + c.reply(), BAD_LINE + NOOP_OK)
        c.close()

    def test_replies_to_stock_clients(self):
        c = logged_in(self.d.port)
        self.check_replies(c, STANDARD_REPLIES, crlf=True)
        c.close()
        if has_ipv6():
            # The unspecified address (lftp's active mode) stands for the client's own.
            c = logged_in(self.d.port, "::1")
            self.assertEqual(c.cmd("EPRT |2|::|51201|"), b"200 EPRT Command okay.\r\n")
            self.assertEqual(c.cmd("EPRT |2|::2|51201|"), b"500 Illegal EPRT Command.\r\n")
            c.close()

    def test_links_stay_inside_and_behave_as_entries(self):
        # A link leading out of the top directory is as good as missing (no reply names a real path);
        # one that stays inside works; listings show links as links; DELE removes a link.
        outside = os.path.dirname(self.d.put("../outside/secret", b"secret"))
        self.d.put("ln/file", b"inside\n")
        links = {"out": outside, "rel_out": "../../../outside", "in": "../sub", "dangling": "nothing", "to_f": "file"}
        for name, target in links.items():
            os.symlink(target, os.path.join(self.d.flash, "ln", name))
        c = logged_in(self.d.port)
        c.cmd("TYPE I")
        c.cmd("CWD ln")
        for verb in ("CWD out", "CWD rel_out", "SIZE out/secret", "MLST out", "RETR out/secret", "LIST out",
                     "NLST rel_out", "MLSD out", "STOR out/new"):
            with self.subTest(verb=verb):
                r = transfer(c, verb, b"x")[0] if verb.split()[0] in ("RETR", "LIST", "NLST", "MLSD", "STOR") \
                    else c.cmd(verb)
                self.assertTrue(r.startswith(b"550 "), r)
                self.assertNotIn(self.d.dir.encode(), r)
        self.assertFalse(os.path.exists(os.path.join(outside, "new")))
        self.assertEqual(transfer(c, "RETR in/x.txt")[1], b"x\n")
        listing = transfer(c, "LIST")[1].split(b"\n")
        for name, target in links.items():
            self.assertTrue(any(line.startswith(b"l") and line.endswith(("%s -> %s" % (name, target)).encode())
                                for line in listing), (name, listing))
        # An upload onto a link that stays inside is written through to what it names.
        self.assertEqual(transfer(c, "STOR to_f", b"through\n")[0], STORED)
        self.assertEqual(read_file(os.path.join(self.d.flash, "ln", "file")), b"through\n")
        self.assertTrue(os.path.islink(os.path.join(self.d.flash, "ln", "to_f")))
        for name in ("dangling", "out", "in", "rel_out", "to_f", "file"):
            self.assertEqual(c.cmd("DELE " + name), b"250 Requested file action okay, completed.\r\n")
        self.assertEqual(c.cmd("CDUP")[:3], b"250")
        self.assertEqual(c.cmd("RMD ln"), b"250 RMD command successful.\r\n")
        c.close()

    def test_links_swapped_back_and_forth_never_lead_out(self):
        # A local user flips a file's name and a directory's between links inside and links leading out while
        # a client downloads, uploads, appends, removes, makes and renames through them again and again:
        # nothing outside is ever read, written, removed or made.
        outside = os.path.join(self.d.dir, "outside")
        self.d.put("../outside/flip", b"secret")
        self.d.put("../outside/dir/victim", b"victim")
        self.d.put("race/inside", b"inside")
        race = os.path.join(self.d.flash, "race")
        os.makedirs(os.path.join(race, "insidedir"))
        self.addCleanup(shutil.rmtree, race)
        flips = [("name", "inside", os.path.join(outside, "flip")), ("d", "insidedir", os.path.join(outside, "dir"))]
        stop = threading.Event()

        def flip():
            for target in itertools.cycle((1, 2)):
                for name, *targets in flips:
                    if stop.is_set():
                        return
                    os.symlink(targets[target - 1], os.path.join(race, "t_" + name))
                    os.rename(os.path.join(race, "t_" + name), os.path.join(race, name))

        flipper = threading.Thread(target=flip)
        flipper.start()
        try:
            c = logged_in(self.d.port)
            c.cmd("TYPE I")
            c.cmd("CWD race")
            got = set()
            for _ in range(100):
                got.add(transfer(c, "RETR name")[1])
                for verb in ("STOR name", "APPE name", "STOR d/new", "APPE d/victim"):
                    transfer(c, verb, b"x")
                write_file(os.path.join(race, "insidedir", "victim"), b"v")
                for cmd in ("DELE d/victim", "MKD d/made", "RMD d/made", "RNFR d/new", "RNTO d/victim"):
                    c.cmd(cmd)
            c.close()
        finally:
            stop.set()
            flipper.join()
        self.assertFalse([g for g in got if b"secret" in g])
        self.assertTrue(any(got), "the inside file is served")
        self.assertEqual((read_file(os.path.join(outside, "flip")), os.listdir(os.path.join(outside, "dir")),
                          read_file(os.path.join(outside, "dir", "victim"))), (b"secret", ["victim"], b"victim"))

    def test_abor_during_a_transfer_and_telnet_escapes(self):
        # ABOR ends a running download at once (426, then 226); IAC IAC and CR NUL are one 0xFF and a CR
        # in names. (ABOR after the Telnet interrupt and synch: the BSD clients of test_real_clients.py.)
        self.d.put("big.bin", os.urandom(64 << 20))
        c, data = stalled_transfer(self.d.port, "TYPE I", "RETR big.bin")
        data.recv(4096)
        c.send("ABOR\r\n")
        self.assertEqual(c.reply() + c.reply(), b"426 Connection closed; transfer aborted.\r\n"
                                                b"226 Abort successful.\r\n")
        self.assertEqual(c.cmd("NOOP"), NOOP_OK)
        data.close()
        c.close()
        os.unlink(os.path.join(self.d.flash, "big.bin"))
        c = self.session()
        for line, created in ((b"MKD cr\r\x00x", b"cr\rx"), (b"MKD \xff\xffname", b"\xffname")):
            c.send(line + b"\r\n")
            self.assertEqual(c.reply(), b'257 "/up/' + created + b'" created\r\n')
            self.assertTrue(os.path.isdir(os.path.join(self.path("").encode(), created)))
            os.rmdir(os.path.join(self.path("").encode(), created))
        c.close()

    def test_refused_passwords(self):
        # A refused password gets a single 530 (the 503 after it shows no second one), at the per-user
        # limit too; three end the session even with a 503 PASS between each (the device resets the
        # counts at the 503: test_sessions.py). At the limit the right password gets 421 and the end
        # of the session (clients retry that later).
        def refuse(c):
            c.cmd("USER alice")
            self.assertEqual(c.cmd("PASS wrong"), b"530 Password access denied.\r\n")

        c = greeted(self.d.port)
        for _ in range(2):
            refuse(c)
            self.assertEqual(c.cmd("PASS again"), OUT_OF_SEQUENCE)
        refuse(c)
        self.assertTrue(c.closed())
        c.close()
        # The standard profile's own limit is the session limit: an administrator's is lower.
        self.d.cli("ftp-server max-user-connect 10")
        held = [logged_in(self.d.port) for _ in range(10)]
        c = greeted(self.d.port)
        refuse(c)
        self.assertEqual(c.cmd("PASS again"), OUT_OF_SEQUENCE)
        c.cmd("USER alice")
        self.assertTrue(c.cmd("PASS secret1").startswith(b"421 "))
        self.assertTrue(c.closed())
        for h in held + [c]:
            h.close()
        self.d.cli("no ftp-server max-user-connect")

    def test_listing_options_dot_files_prefixes_and_unlistable_paths(self):
        dots = TOP | {".hidden"}
        cases = [
            ("LIST", TOP), ("LIST -l", TOP), ("LIST -la", dots), ("LIST -A", dots),
            ("LIST -la my dir", {"in.txt"}), ("LIST -a -l sub", {"x.txt", ".dot", "deep"}),
            ("LIST *.txt", {"a.txt", "ro.txt"}), ("LIST .hidden", {".hidden"}),
            ("NLST", TOP), ("NLST -a", dots), ("NLST *.txt", {"a.txt", "ro.txt"}),
            # Each name can go back to RETR as it is: the client's directory part is kept.
            ("NLST sub", {"sub/x.txt", "sub/deep"}), ("NLST /sub/", {"/sub/x.txt", "/sub/deep"}),
            ("NLST sub/*.txt", {"sub/x.txt"}), ("NLST -a sub/x.txt", {"sub/x.txt"}),
            # ".." stops at the top directory.
            ("LIST ../..", TOP), ("NLST ../../../sub/deep/..", {"../../../sub/deep/../x.txt",
                                                                "../../../sub/deep/../deep"}),
        ]
        c = logged_in(self.d.port)
        for verb, names in cases:
            with self.subTest(verb=verb):
                self.assertEqual(listed(c, verb), names)
        # An unlistable path is refused before any data connection, without the real path; the session goes on.
        for verb, code, echo in (("LIST nope", b"550", b'"nope"'), ("NLST -a sub/none", b"550", b'"sub/none"'),
                                 ("LIST missing/*.txt", b"550", b'"missing/*.txt"'),
                                 ("MLSD ../../nope", b"550", b'"../../nope"'), ("MLSD a.txt", b"501", b'"a.txt"')):
            with self.subTest(verb=verb):
                replies, _ = transfer(c, verb)
                self.assertTrue(replies.startswith(code + b" ") and echo in replies, replies)
                self.assertNotIn(self.d.dir.encode(), replies)
                self.assertEqual(listed(c, "NLST sub/*.txt"), {"sub/x.txt"})
        c.close()
        self.assertEqual(self.d.listing_temporaries(), [])
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())

    def test_mlsd_facts_match_the_files(self):
        # MLST: its form in the table of replies, its path resolution that of the listings.
        perms = {"a.txt": "adfrw", "ro.txt": "dfr", "sub": "cdeflmp", "locked": "defl"}
        ftp = ftp_session(self.d.port)
        for sub in ("", "sub"):
            entries = dict(ftp.mlsd(sub))
            top = os.path.join(self.d.flash, sub)
            self.assertEqual(set(entries), set(os.listdir(top)))  # dot files, never "." and ".."
            for name, facts in entries.items():
                st, is_dir = os.stat(os.path.join(top, name)), os.path.isdir(os.path.join(top, name))
                self.assertEqual((facts["type"], facts.get("size"), facts["modify"], facts["unique"], facts["perm"]),
                                 ("dir" if is_dir else "file", None if is_dir else str(st.st_size),
                                  time.strftime("%Y%m%d%H%M%S", time.gmtime(st.st_mtime)),
                                  "%xU%x" % (st.st_dev, st.st_ino), perms.get(name, facts["perm"])), name)
        ftp.quit()

    def test_mlsd_lines_end_in_one_crlf_in_either_type(self):
        # ASCII type converts the staged listing in 512-byte blocks: three lines of 171 bytes put
        # a CR at the end of the first block and its LF at the start of the next.
        top = os.path.join(self.d.flash, "crlf")
        c = logged_in(self.d.port)
        c.cmd("TYPE I")
        _, data = transfer(c, "MLSD crlf")
        for line in data.split(b"\r\n")[:-1]:
            name = line.split(b"; ", 1)[1].decode()
            os.rename(os.path.join(top, name), os.path.join(top, name + "_" * (169 - len(line))))
        _, binary = transfer(c, "MLSD crlf")
        self.assertEqual([len(l) for l in binary.split(b"\r\n")], [169, 169, 169, 0])
        c.cmd("TYPE A")
        self.assertEqual(transfer(c, "MLSD crlf")[1], binary)
        c.close()

    def test_offsets_and_appends(self):
        cases = [
            # type, REST offset, verb, file before, bytes sent, replies, bytes received, file after
            ("I", N, "RETR", DATA, None, SENT, DATA[N:], DATA),
            ("I", len(DATA), "RETR", DATA, None, SENT, b"", DATA),
            ("I", len(DATA) + 1, "RETR", DATA, None, BEYOND_END, b"", DATA),
            ("A", N, "RETR", DATA, None, REST_IN_ASCII, b"", DATA),
            ("I", N, "STOR", DATA[:N], DATA[N:], STORED, b"", DATA),
            # Restarted below the end, the client's bytes overwrite from the offset and the rest stays.
            ("I", N, "STOR", DATA, b"x" * 10, STORED, b"", DATA[:N] + b"x" * 10 + DATA[N + 10:]),
            # A gap the client never sent is refused; the client starts over.
            ("I", N + 1, "STOR", DATA[:N], DATA[N:], BEYOND_END, b"", DATA[:N]),
            ("I", N, "STOR", None, DATA[N:], BEYOND_END, b"", None),
            ("A", N, "STOR", DATA[:N], DATA[N:], REST_IN_ASCII, b"", DATA[:N]),
            ("I", None, "APPE", None, DATA, STORED, b"", DATA),
            ("A", None, "APPE", b"one\n", b"two\r\n", ASCII_STORED, b"", b"one\ntwo\n"),
            # APPE writes at the end whatever REST said.
            ("I", 2, "APPE", b"abc", b"def", STORED, b"", b"abcdef"),
        ]
        for i, (type_, offset, verb, before, upload, replies, received, after) in enumerate(cases):
            with self.subTest(case=i, verb=verb, type=type_, offset=offset):
                name = "offset%d.bin" % i
                self.put(name, before)
                c = self.session()
                c.cmd("TYPE " + type_)
                if offset is not None:
                    self.assertTrue(c.cmd("REST %d" % offset).startswith(b"350 "))
                self.assertEqual(transfer(c, "%s %s" % (verb, name), upload), (replies, received))
                self.assertEqual(self.content(name), after)
                self.assertEqual(self.hidden(), [])
                c.close()

    def test_failed_upload_leaves_the_old_target(self):
        def reset_data(c, data):
            reset(data)
            return c.reply()

        def disable(c, data):
            self.assertEqual(self.d.cli("no ftp-server enable"), (0, ""))
            r = c.reply()
            data.close()
            self.assertEqual(self.d.cli("ftp-server enable"), (0, ""))
            self.assertTrue(wait_until(self.d.port_open))
            return r

        for name, interrupt in (("reset", reset_data), ("disable", disable)):
            with self.subTest(name):
                self.put("keep.bin", OLD)
                c = self.session()
                data = start_upload(c, "keep.bin", DATA[:N])
                # Interrupted once the bytes go to a hidden file.
                self.assertTrue(wait_until(lambda: len(self.hidden()) == 1), os.listdir(self.path('')))
                # The temporary file is gone before the failure reply.
                self.assertEqual(interrupt(c, data), ABORTED)
                self.assertEqual((self.content("keep.bin"), self.hidden()), (OLD, []))
                c.close()
        # A data connection that cannot be made: dataconn replies, then the temporary file goes.
        c = self.session()
        self.assertTrue(port_to_nowhere(c).startswith(b"200 "))
        self.assertEqual(c.cmd("STOR keep.bin"), b"425 Can't build data connection.\r\n")
        self.assertTrue(wait_until(lambda: self.hidden() == []), self.hidden())
        self.assertEqual(self.content("keep.bin"), OLD)
        c.close()

    def test_temporary_name_that_does_not_fit_is_refused(self):
        # The target's real path fits its 512-byte buffer; the temporary name beside it would not.
        rel = "/".join(("d" * 200, "e" * 200, "f" * (490 - len(self.path("")) - 402)))
        os.makedirs(self.path(rel))
        c = self.session()
        self.assertTrue(transfer(c, "STOR %s/x" % rel, b"x")[0].startswith(b"553 "))
        self.assertEqual(os.listdir(self.path(rel)), [])
        c.close()

    def test_uploads_of_one_name_go_to_temporaries_that_are_nobodys(self):
        # Two uploads of one name are held mid-transfer, each in a hidden temporary of its own that no other
        # session lists or addresses; the target changes only once one of them is complete. An ASCII upload
        # whose CR LF is split between two receives stores one LF.
        self.put("race.bin", OLD)
        versions = (DATA, DATA[:N] + b"B" * 50_000)
        clients = [self.session() for _ in versions]
        conns = [start_upload(c, "race.bin", v[:N]) for c, v in zip(clients, versions)]
        self.assertTrue(wait_until(lambda: len(self.hidden()) == 2), os.listdir(self.path('')))
        self.assertEqual(self.content("race.bin"), OLD)
        other = self.session()
        for verb in ("LIST -a", "NLST -a", "MLSD"):
            self.assertNotIn(b".ftps-upload.", transfer(other, verb)[1], verb)
        for temp in self.hidden():
            self.assertTrue(temp.startswith(".ftps-upload."), temp)
            for verb, code in (("RETR", b"550"), ("DELE", b"550"), ("RNFR", b"501"), ("SIZE", b"550"),
                               ("MDTM", b"550")):
                r = transfer(other, "%s %s" % (verb, temp))[0] if verb == "RETR" else other.cmd("%s %s" % (verb, temp))
                self.assertTrue(r.startswith(code), (verb, r))
        for conn, v in zip(conns, versions):
            conn.sendall(v[N:])
            conn.close()
        self.assertEqual([c.reply() for c in clients], [b"226 Transfer complete.\r\n"] * 2)
        self.assertIn(self.content("race.bin"), versions)
        self.assertEqual(self.hidden(), [])
        data = start_upload(other, "split.txt", b"a\r", type_cmd="TYPE A")
        time.sleep(0.2)
        data.sendall(b"\nb\r\n")
        data.close()
        other.reply()
        self.assertEqual(self.content("split.txt"), b"a\nb\n")
        for c in clients + [other]:
            c.close()


class DeviceProfileTest(ProfileCase):
    # The same bytes in the device profile: its replies, listings whose options erase the argument, NLST
    # naming regular files only, a missing path answered after the 150 with the real path, no MLSD or
    # MLST, no TLS although the platform file names a certificate, and uploads written in place.

    daemon_kwargs = {"tls": True}

    def test_same_bytes_get_the_device_answers(self):
        c = RawClient(self.d.port)
        self.assertEqual(c.reply(), GREETING)
        self.check_replies(c, DEVICE_REPLIES, crlf=False)
        self.assertNotIn("TLS", self.d.memory_in_use())
        c = logged_in(self.d.port)
        for verb, names in (("LIST -a", TOP), ("LIST -la sub", TOP), ("LIST *.txt", TOP),
                            ("NLST", {"a.txt", "b.bin", "ro.txt"}), ("NLST sub", {"x.txt"})):
            with self.subTest(verb=verb):
                self.assertEqual(listed(c, verb), names)
        replies, _ = transfer(c, "LIST nope")
        self.assertEqual(replies, b'150 Opening ASCII mode data connection.\r\n550 "%s": '
                         b'No such file or directory.\r\n' % os.path.join(self.d.flash, "nope").encode())
        c.close()

    def test_upload_writes_the_target_in_place(self):
        self.put("inplace.bin", OLD)
        inode = os.stat(self.path("inplace.bin")).st_ino
        c = self.session()
        data = start_upload(c, "inplace.bin", DATA[:N])
        self.assertTrue(wait_until(lambda: self.content("inplace.bin") == DATA[:N]))
        data.sendall(DATA[N:])
        data.close()
        self.assertEqual(c.reply(), b"226 Transfer complete.\r\n")
        self.assertEqual((self.content("inplace.bin"), os.stat(self.path("inplace.bin")).st_ino), (DATA, inode))
        # Opened, and so emptied, before the data connection that then fails.
        port_to_nowhere(c)
        self.assertEqual(c.cmd("STOR inplace.bin"), b"425 Can't build data connection.\r\n")
        self.assertEqual((self.content("inplace.bin"), self.hidden()), (b"", []))
        c.close()


if __name__ == "__main__":
    unittest.main()
