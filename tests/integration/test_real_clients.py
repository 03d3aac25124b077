# Real FTP clients against the daemon, each with its default settings. One class per way of serving: the
# device profile (the default), the standard profile, and explicit FTPS (the standard profile with a
# certificate: each client with its TLS settings, logins over TLS and protected data connections).
#
# Every way: lftp mirror both ways (the device in each data-connection mode), curl and rclone copy both ways
# over IPv4, ftplib in every data-connection mode over IPv4 and IPv6 (EPSV and EPRT). Without TLS: wget -m,
# GNU inetutils ftp choosing binary type from SYST. The standard profile: rclone check, nested mkdir and
# purge, curl resume and ranges, ncftp recursive get and put, Node's basic-ftp, inetutils ftp and tnftp
# interrupting a download. The tree they move has nested and empty directories, names with
# blanks, UTF-8 names, dot files and files of 0, 512, 1024, 1025 bytes and 1 MiB; every copy is compared
# byte for byte.
#
# Once a class's clients are done, no listing temporary is left and every memory category is back at zero. A
# missing client fails (clients.py), never skips. A failure shows the client's output and the server's side of
# the conversation (`debug ftp-server pro` logs every command and reply).

import contextlib
import ftplib
import hashlib
import io
import json
import os
import re
import shutil
import subprocess
import time
import unittest

import clients
from ftps_harness import DaemonTestCase, ResumingFTP, Terminal, ftp_session, has_ipv6, logged_in, memory_idle, \
    read_file, transfer, write_file

USER, PASSWORD = "alice", "secret1"
FAMILIES = [("IPv4", "127.0.0.1")] + ([("IPv6", "::1")] if has_ipv6() else [])
# Generous: a client that hangs on a server fault is stopped and reported, never waited for.
CLIENT_TIMEOUT = 180

# Sizes around the daemon's 512-byte conversion blocks and 1 KiB receive blocks, an empty file and
# one of many chunks; names with blanks, UTF-8 names in several scripts, nested and empty
# directories.
TREE_FILES = {"zero.bin": 0, "block 512.bin": 512, "block-1024.bin": 1024, "block-1025.bin": 1025,
              "one MiB.bin": 1 << 20, "with space/inner file.txt": 300, "nested/deeper/deepest/leaf.bin": 1025,
              "nested/deeper/side.bin": 512, "ünïcödé/Grüße €.txt": 77, "日本語/ファイル 1.dat": 1024}
DOT_FILES = {".hidden": 100, ".config/settings": 1024, "nested/.dot dir/x": 5}
EMPTY_DIRS = ("empty", "nested/deeper/empty too", "ünïcödé/leer")

# rclone logs these at ERROR level against any server that has MDTM but no MFMT, and without a
# common hash; neither counts as an error in its exit status. Any other ERROR line fails.
RCLONE_BENIGN_ERRORS = ("SetModTime is not supported", "No common hash found")


def snapshot(root, ignore=()):
    # Relative path -> "dir" or (size, sha256) for everything below root; names in ignore left out.
    entries = {}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in dirnames + [n for n in filenames if n not in ignore]:
            path = os.path.join(dirpath, name)
            entries[os.path.relpath(path, root)] = \
                "dir" if name in dirnames else (os.path.getsize(path), hashlib.sha256(read_file(path)).hexdigest())
    return entries


def utc_stamp(path):
    # The file's modification time as MDTM and MLSD give it: YYYYMMDDHHMMSS in UTC.
    return time.strftime("%Y%m%d%H%M%S", time.gmtime(os.stat(path).st_mtime))


def tail(text, lines=60):
    parts = (text.decode(errors="replace") if isinstance(text, bytes) else text).splitlines()
    return "\n".join(["[... %d lines before]" % (len(parts) - lines)] * (len(parts) > lines) + parts[-lines:])


class RealClientCase:
    # One daemon per class (its way of serving from the class attributes), the tree served as "tree", a
    # private directory and HOME for the clients, and the tests every way serves. Mixed into a
    # DaemonTestCase for each way.

    profile = "device"       # platform value of [ftp] profile
    tls = False              # explicit FTPS: a certificate, and every client told to use TLS
    dot_files = True         # whether the tree holds dot files
    lftp_settings = ""       # lftp's settings
    lftp_modes = {"default": ""}  # lftp's data-connection modes: name -> settings
    curl_flags = []          # curl's flags for every transfer
    rclone_options = ""      # lines of the rclone remote
    ftplib_class = ftplib.FTP
    maxDiff = None
    # The daemon runs in a time zone far from UTC, so that a time given in local time where the
    # protocol wants UTC (MDTM, MLSD/MLST modify) shows in what the clients do with it.
    daemon_env = {"TZ": "XST-5:30"}

    @classmethod
    def setUpClass(cls):
        # rclone opens up to 12 sessions at its default concurrency (8 checkers and 4 transfers),
        # more than the default limit of 10 per user.
        cls.daemon_kwargs = {"extra_platform": {"ftp.profile": cls.profile}, "tls": cls.tls, "startup": [
            "ftp-server username alice password secret1", "ftp-server max-user-connect 20"]}
        super().setUpClass()
        assert cls.d.cli("debug ftp-server pro")[0] == 0
        cls.work, cls.tree = os.path.join(cls.d.dir, "clients"), os.path.join(cls.d.dir, "clients", "tree")
        for rel, size in dict(TREE_FILES, **(DOT_FILES if cls.dot_files else {})).items():
            write_file(os.path.join(cls.tree, rel), os.urandom(size))
        for rel in EMPTY_DIRS:
            os.makedirs(os.path.join(cls.tree, rel), exist_ok=True)
        shutil.copytree(cls.tree, os.path.join(cls.d.flash, "tree"))
        # Each client with its default settings: no user configuration (HOME is private), a
        # UTF-8 locale as for any user with UTF-8 names, no proxy.
        home = os.path.join(cls.work, "home")
        os.makedirs(home)
        cls.client_env = dict({k: v for k, v in os.environ.items() if k.lower() not in ("ftp_proxy", "all_proxy",
                              "no_proxy")}, HOME=home, XDG_CONFIG_HOME=home + "/.config",
                              XDG_CACHE_HOME=home + "/.cache", LANG="C.UTF-8", LC_ALL="C.UTF-8")

    @classmethod
    def tearDownClass(cls):
        # Whatever the clients did, nothing is left behind once their sessions have ended (the TLS
        # library keeps tables of its own: the TLS row is the soak's).
        assert cls.d.listing_temporaries() == [], cls.d.listing_temporaries()
        assert memory_idle(cls.d, ignore={"TLS"}), cls.d.memory_in_use()

    def served(self, *rel):
        return os.path.join(self.d.flash, *rel)

    def local(self, *rel):
        return os.path.join(self.work, *rel)

    def url(self, path=""):
        return "ftp://%s:%s@127.0.0.1:%d/%s" % (USER, PASSWORD, self.d.port, path)

    # --- the conversation and the clients

    @contextlib.contextmanager
    def step(self, **params):
        # A subtest whose failure shows the conversation from its start on.
        with self.subTest(**params):
            self.mark()
            yield

    def mark(self):
        # Marks where the daemon's log stands: a failure shows the conversation from here on.
        self._log_mark = os.path.getsize(self.d.log) if os.path.exists(self.d.log) else 0

    def conversation(self):
        time.sleep(0.2)  # the daemon logs a reply just after sending it
        text = (read_file(self.d.log) or b"")[getattr(self, "_log_mark", 0):]
        return "server side of the conversation (debug ftp-server pro):\n" + tail(text, 120)

    def run_client(self, argv, cwd=None, input=None, env=None, check=True):
        # Runs one client command; a time-out or (with check) a non-zero exit status fails with its
        # output and the conversation. A failure after it shows the conversation from its start on.
        self.mark()
        try:
            r = subprocess.run(argv, cwd=cwd or self.work, input=input, env=env or self.client_env,
                               capture_output=True, timeout=CLIENT_TIMEOUT)
            failure = "exit status %d" % r.returncode if check and r.returncode else None
        except subprocess.TimeoutExpired as e:
            r, failure = e, "did not finish within %d s" % CLIENT_TIMEOUT
        if failure:
            self.fail("%s\n%s\nstdout:\n%s\nstderr:\n%s\n%s" % (" ".join(argv), failure, tail(r.stdout or b""),
                                                               tail(r.stderr or b""), self.conversation()))
        r.out, r.err = r.stdout.decode(errors="replace"), r.stderr.decode(errors="replace")
        return r

    def assertSameTree(self, expected_root, actual_root, what, ignore=()):
        # The difference shows as a diff of path -> "dir" or (size, sha256).
        want, got = snapshot(expected_root, ignore), snapshot(actual_root, ignore)
        if got != want:
            self.assertEqual(got, want, "%s is not the tree it should be\n%s" % (what, self.conversation()))

    def assertSameBytes(self, got, want, what):
        if got != want:
            self.fail("%s: %s bytes, not the %d expected\n%s" % (what, None if got is None else len(got), len(want),
                                                                 self.conversation()))

    def wrong_times(self, root, served):
        # The files below root whose times differ from their copies below served.
        return [p for p, v in snapshot(root).items()
                if v != "dir" and utc_stamp(os.path.join(root, p)) != utc_stamp(os.path.join(served, p))]

    def lftp(self, commands, settings=""):
        script = "%sopen -u %s,%s ftp://127.0.0.1:%d; %s" % (settings, USER, PASSWORD, self.d.port, commands)
        return self.run_client([clients.binary("lftp"), "-c", script])

    def curl(self, *args):
        return self.run_client([clients.binary("curl"), "-sS", *self.curl_flags, *args]).stdout

    def rclone(self, *args):
        # rclone with one ftp remote ("ftp:"); any ERROR line it logs fails.
        config = self.local("rclone.conf")
        if not os.path.exists(config):
            obscured = self.run_client([clients.binary("rclone"), "obscure", PASSWORD]).out.strip()
            write_file(config, "[ftp]\ntype = ftp\nhost = 127.0.0.1\nport = %d\nuser = %s\npass = %s\n%s\n"
                       % (self.d.port, USER, obscured, self.rclone_options))
        r = self.run_client([clients.binary("rclone"), *args], env=dict(self.client_env, RCLONE_CONFIG=config))
        errors = [line for line in r.err.splitlines()
                  if " ERROR " in line and not any(b in line for b in RCLONE_BENIGN_ERRORS)]
        if errors:
            self.fail("rclone %s logged errors:\n%s\n%s" % (" ".join(args), "\n".join(errors), self.conversation()))
        return r

    # --- the clients every way serves

    def test_lftp_mirror_both_ways(self):
        # Over IPv4: ftplib below takes IPv6.
        for mode, setting in self.lftp_modes.items():
            with self.step(mode=mode):
                remote, down = "lftp-" + mode, self.local("lftp-down-" + mode)
                settings = self.lftp_settings + setting
                self.lftp('mirror -R tree "%s"' % remote, settings)
                self.assertSameTree(self.tree, self.served(remote), "the tree lftp mirror -R uploaded")
                self.lftp('mirror "%s" "%s" && mv "%s" "%s.moved"' % (remote, down, remote, remote), settings)
                self.assertSameTree(self.tree, down, "the tree lftp mirror downloaded")
                self.assertFalse(os.path.exists(self.served(remote)), "lftp mv left the directory")
                if self.profile == "standard":
                    # lftp gives each file the time that MLSD reported (UTC).
                    self.assertEqual(self.wrong_times(down, self.served(remote + ".moved")), [],
                                     "lftp mirror set other times than the served files'\n" + self.conversation())

    def test_ftplib_every_mode_and_family(self):
        data = os.urandom(300_000)
        # ftplib uses PASV and PORT over IPv4, EPSV and EPRT over IPv6.
        for family, host in FAMILIES:
            for passive in (True, False):
                with self.step(family=family, passive=passive):
                    name = "py-%s-%s.bin" % (family, passive)
                    ftp = ftp_session(self.d.port, host, cls=self.ftplib_class)
                    ftp.set_pasv(passive)
                    ftp.storbinary("STOR " + name, io.BytesIO(data))
                    self.assertSameBytes(read_file(self.served(name)), data, "STOR")
                    got = io.BytesIO()
                    ftp.retrbinary("RETR " + name, got.write)
                    self.assertSameBytes(got.getvalue(), data, "RETR")
                    self.assertIn(name, ftp.nlst())
                    ftp.rename(name, name + ".moved")
                    ftp.delete(name + ".moved")
                    self.assertEqual([n for n in os.listdir(self.served()) if n.startswith(name)], [])
                    ftp.quit()

    def test_curl_upload_download(self):
        # In curl's default mode: ftplib above runs every data-connection mode, and renames and deletes.
        src, name = read_file(os.path.join(self.tree, "one MiB.bin")), "curl.bin"
        self.curl("-T", os.path.join(self.tree, "one MiB.bin"), self.url(name))
        self.assertSameBytes(read_file(self.served(name)), src, "curl upload")
        self.assertSameBytes(self.curl(self.url(name)), src, "curl download")

    def test_rclone_copy_both_ways(self):
        source, served = self.rclone_source(), self.served("rclone", "copy")
        os.makedirs(served)
        self.rclone("copy", "--create-empty-src-dirs", source, "ftp:rclone/copy")
        self.assertSameTree(source, served, "the tree rclone copy uploaded")
        self.rclone("copy", "--create-empty-src-dirs", "ftp:rclone/copy", self.local("rclone-down"))
        self.assertSameTree(source, self.local("rclone-down"), "the tree rclone copy downloaded")
        self.rclone_more()

    def rclone_source(self):
        return self.tree

    def rclone_more(self):
        # What a way of serving checks further with rclone, once the source is on the server as rclone/copy.
        pass


class ClearTextClientCase(RealClientCase):
    # The clients that have no FTPS, for the ways of serving without TLS.

    def test_wget_mirror(self):
        # Passive: ftplib takes active mode too.
        dest = self.local("wget")
        self.run_client([clients.binary("wget"), "-m", "-nv", "-nH", "--cut-dirs=1", "-P", dest, self.url("tree/")])
        # -m keeps wget's own .listing file in every directory.
        self.assertSameTree(self.tree, dest, "the tree wget -m downloaded", ignore={".listing"})

    def test_inetutils_ftp_takes_binary_type_from_syst(self):
        # put and get of a binary file without a `binary` command: the client must pick binary type
        # from SYST's reply, or the line ends in the data change on the way. Driven through standard
        # input: -n (no auto-login) and a user command.
        data = os.urandom(100_000) + b"a\r\nb\nc\rd\r\r\n\x00\xff" * 100 + b"\r"
        src, back = write_file(self.local("inetutils.src"), data), self.local("inetutils.back")
        script = "user %s %s\nput %s up.bin\nget up.bin %s\nquit\n" % (USER, PASSWORD, src, back)
        r = self.run_client([clients.binary("inetutils-ftp"), "-n", "-v", "127.0.0.1", str(self.d.port)],
                            input=script.encode())
        self.assertSameBytes(read_file(self.served("up.bin")), data, "put\n" + r.out)
        self.assertSameBytes(read_file(back), data, "get\n" + r.out)


class StandardProfileClients(ClearTextClientCase, DaemonTestCase):
    profile = "standard"

    def rclone_more(self):
        # Compares the contents themselves: at the default concurrency (8 checkers) rclone holds more
        # sessions at once than for a copy. (Times in UTC: the lftp mirrors'; deletes: purge.)
        self.rclone("check", "--download", self.tree, "ftp:rclone/copy")
        self.rclone("mkdir", "ftp:rclone/made/on/demand")
        self.assertTrue(os.path.isdir(self.served("rclone", "made", "on", "demand")),
                        "rclone mkdir of a nested path\n" + self.conversation())
        self.rclone("purge", "ftp:rclone")
        self.assertFalse(os.path.exists(self.served("rclone")), "rclone purge left the directory\n"
                         + self.conversation())

    def test_what_stock_clients_keep(self):
        # lftp keeping times (MFMT) and modes (SITE CHMOD) in a mirror; rclone listing a link. (Nested
        # directories made on demand: rclone mkdir.)
        with self.step(client="lftp"):
            self.lftp('chmod 600 "tree/one MiB.bin"; mirror -R tree kept')
            self.assertEqual(os.stat(self.served("tree", "one MiB.bin")).st_mode & 0o777, 0o600)
            mode = lambda root, p: os.stat(os.path.join(root, p)).st_mode & 0o777  # noqa: E731
            wrong = [p for p, v in snapshot(self.tree).items() if v != "dir" and mode(self.served("kept"), p)
                     != mode(self.tree, p)] + self.wrong_times(self.tree, self.served("kept"))
            self.assertEqual(wrong, [], "lftp mirror -R kept neither times nor modes\n" + self.conversation())
            os.chmod(self.served("tree", "one MiB.bin"), 0o644)
        with self.step(client="rclone"):
            os.symlink("block 512.bin", self.served("kept", "link.bin"))
            listed = {e["Path"]: e["Size"] for e in json.loads(self.rclone("lsjson", "ftp:kept").out)}
            self.assertEqual(listed.get("link.bin"), 512, listed)

    def test_bsd_clients_navigate_and_interrupt_a_download(self):
        # GNU inetutils ftp and tnftp on a terminal: pwd, mkdir, cd and Ctrl-C during a get, which
        # sends Telnet's interrupt and synch and ABOR; the session goes on.
        os.truncate(write_file(self.served("sparse.bin")), 20 << 30)
        self.addCleanup(os.unlink, self.served("sparse.bin"))
        # Each line typed once the one before has its reply (tnftp shows pwd's path in words of its own).
        steps = [("user %s %s" % (USER, PASSWORD), "230 "), ("binary", "200 "), ("mkdir bsd", '257 "/bsd"'),
                 ("cd bsd", "250 "), ("pwd", '257 "/bsd"|directory: /bsd\n'), ("cd ..", "250 "),
                 ("get sparse.bin /dev/null", "150 "), ("\x03", r"226 Abort successful\."),
                 ("pwd", '257 "/"|directory: /\n'), ("rmdir bsd", "250 "), ("quit", "221 Service closing")]
        for client in ("inetutils-ftp", "tnftp"):
            with self.step(client=client):
                t = Terminal([clients.binary(client), "-n", "-v", "127.0.0.1", str(self.d.port)], self.client_env)
                self.addCleanup(t.close)
                for keys, shown in steps:
                    start = len(t.text())
                    t.type(keys if keys == "\x03" else keys + "\r")
                    t.expect(lambda s: re.search(shown, s[start:]), "%r after %r" % (shown, keys), CLIENT_TIMEOUT)
                self.assertIn("426 Connection closed; transfer aborted.", t.text())

    def test_curl_resume_and_ranges(self):
        data = os.urandom(3_000_000)
        write_file(self.served("curl", "data.bin"), data)
        with self.step(case="resumed download"):
            # What a broken download leaves: an unaligned prefix.
            out = write_file(self.local("curl.bin"), data[:1_234_567])
            self.curl("-C", "-", "-o", out, self.url("curl/data.bin"))
            self.assertSameBytes(read_file(out), data, "curl -C - download")
        # A range ended early (the client closes the data connection), one from the end (SIZE), one beyond the end.
        for rng, want in (("100-1123", data[100:1124]), ("-500", data[-500:]), ("2999990-3000100", data[2999990:])):
            with self.step(range=rng):
                self.assertSameBytes(self.curl("-r", rng, self.url("curl/data.bin")), want, "curl -r " + rng)
        with self.step(case="resumed upload"):
            write_file(self.served("curl/up.bin"), data[:1_000_001])
            self.curl("-C", "-", "-T", write_file(self.local("curl-up.bin"), data), self.url("curl/up.bin"))
            self.assertSameBytes(read_file(self.served("curl/up.bin")), data, "curl -C - -T upload")

    def test_ncftp_recursive_get_and_put(self):
        # ncftp 3.2 has no IPv6: it takes ::1 for an unknown host name.
        login = ["-u", USER, "-p", PASSWORD, "-P", str(self.d.port), "127.0.0.1"]
        os.makedirs(dest := self.local("ncftpget"))
        self.run_client([clients.binary("ncftpget"), "-R", "-V", *login, dest, "/tree"])
        self.assertSameTree(self.tree, os.path.join(dest, "tree"), "the tree ncftpget -R downloaded")
        self.run_client([clients.binary("ncftpput"), "-R", "-V", "-m", *login, "/ncftpput/into", self.tree])
        self.assertSameTree(self.tree, self.served("ncftpput", "into", "tree"), "the tree ncftpput -R uploaded")

    def test_basic_ftp_upload_and_download_dirs(self):
        # downloadToDir parses the MLSD of every directory it takes (the facts themselves:
        # test_standard_profile.py).
        remote, down = "basic-ftp/up load", self.local("basic-ftp-down")
        job = {"host": "127.0.0.1", "port": self.d.port, "user": USER, "password": PASSWORD, "verbose": True,
               "steps": [["uploadFromDir", self.tree, remote], ["downloadToDir", down, remote]]}
        # A failed step exits 1: its number and error in the output, the client's log in its errors.
        self.run_client([clients.binary("node"), "basic_ftp_steps.js", json.dumps(job)], cwd=clients.node_dir())
        self.assertSameTree(self.tree, self.served(remote), "the tree basic-ftp uploadFromDir uploaded")
        self.assertSameTree(self.tree, down, "the tree basic-ftp downloadToDir downloaded")


class DeviceProfileClients(ClearTextClientCase, DaemonTestCase):
    # The clients the device profile has always served. Its LIST leaves dot files out whatever the
    # options, so the tree has none.

    dot_files = False
    # The device ends MDTM replies with a bare LF; lftp then waits seconds for the rest of the
    # line before it takes it. It mirrors without MDTM (and without trying TLS), over PASV, EPSV, and
    # in active mode.
    lftp_settings = "set ftp:ssl-allow no; set ftp:use-mdtm no; "
    lftp_modes = {"pasv": "set ftp:prefer-epsv no; ", "epsv": "set ftp:prefer-epsv yes; ",
                  "active": "set ftp:passive-mode off; "}

    def test_ascii_type_converts_line_ends(self):
        write_file(self.served("lines.txt"), b"one\ntwo\nthree\n")
        c = logged_in(self.d.port)
        c.cmd("TYPE A")
        # (ASCII uploads: test_sessions.py, the APPE cases of test_standard_profile.py.)
        self.assertEqual(transfer(c, "RETR lines.txt"), (b"150 Opening ASCII mode data connection.\r\n226 Closing "
                                                          b"data connection.\r\n", b"one\r\ntwo\r\nthree\r\n"))
        c.close()

    def rclone_source(self):
        # A flat directory into one that exists: the device answers LIST of a missing directory
        # 150 and then 550, which rclone takes for a failure rather than for "not found".
        return shutil.copytree(self.tree, self.local("flat"),
                               ignore=lambda top, names: [n for n in names if os.path.isdir(os.path.join(top, n))])


class ExplicitTlsClients(RealClientCase, DaemonTestCase):
    # The standard profile with a certificate and its defaults (logins over TLS only, protected data
    # connections resume the login's TLS session); each client with its TLS settings and the certificate
    # taken as it is.

    profile = "standard"
    tls = True
    lftp_settings = "set ssl:verify-certificate no; set ftp:ssl-force true; "
    curl_flags = ["-k", "--ssl-reqd"]
    rclone_options = "explicit_tls = true\nno_check_certificate = true\n"
    ftplib_class = ResumingFTP


if __name__ == "__main__":
    unittest.main()
