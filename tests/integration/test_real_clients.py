# Real FTP clients against the daemon, each with its default settings, over IPv4 and IPv6 where the client
# can. One class per way of serving: the device profile (the default), the standard profile, and explicit FTPS
# (the standard profile with a certificate: each client with its TLS settings, logins over TLS and protected
# data connections).
#
# Every way: lftp mirror both ways (the device in each data-connection mode), ftplib and curl in every data-
# connection mode, rclone copy both ways. Without TLS: wget -m in passive and active mode, GNU inetutils ftp
# choosing binary type from SYST. The standard profile: rclone sync with deletes, check, lsjson, nested mkdir,
# purge and a 300 MiB download, curl resume and ranges, ncftp recursive get and put, Node's basic-ftp. The
# tree they move has nested and empty directories, names with blanks, UTF-8 names, dot files and files of 0,
# 512, 1024, 1025 bytes and 1 MiB; every copy is compared byte for byte.
#
# Once a class's clients are done, no listing temporary is left and every memory category is back at zero. A
# missing client fails (clients.py), never skips. A failure shows the client's output and the server's side of
# the conversation (`debug ftp-server pro` logs every command and reply).

import contextlib
import datetime
import ftplib
import hashlib
import io
import json
import os
import pty
import select
import shutil
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import clients  # noqa: E402
from ftps_harness import Daemon, ResumingFTP, ftp_session, has_ipv6, memory_idle, read_file  # noqa: E402

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

# The standard daemon runs in a time zone far from UTC, so that a time given in local time where
# the protocol wants UTC (MDTM, MLSD/MLST modify) shows in what the clients do with it.
FAR_TIME_ZONE = "XST-5:30"

CURL_MODES = {"epsv": [], "pasv": ["--disable-epsv"], "eprt": ["-P", "-"], "port": ["-P", "-", "--disable-eprt"]}

# rclone logs these at ERROR level against any server that has MDTM but no MFMT, and without a
# common hash; neither counts as an error in its exit status. Any other ERROR line fails.
RCLONE_BENIGN_ERRORS = ("SetModTime is not supported", "No common hash found")


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)
    return path


def file_sha256(path):
    with open(path, "rb") as f:
        return hashlib.file_digest(f, "sha256").hexdigest()


def snapshot(root, ignore=()):
    # Relative path -> "dir" or (size, sha256) for everything below root; names in ignore left out.
    entries = {}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in dirnames + [n for n in filenames if n not in ignore]:
            path = os.path.join(dirpath, name)
            entries[os.path.relpath(path, root)] = \
                "dir" if name in dirnames else (os.path.getsize(path), file_sha256(path))
    return entries


def sizes(root):
    # Relative path -> "dir" or the file's size, for everything below root.
    return {p: ("dir" if v == "dir" else v[0]) for p, v in snapshot(root).items()}


def utc_stamp(path):
    # The file's modification time as MDTM and MLSD give it: YYYYMMDDHHMMSS in UTC.
    return time.strftime("%Y%m%d%H%M%S", time.gmtime(os.stat(path).st_mtime))


def iso_stamp(text):
    # An ISO 8601 time as a client reports it, as YYYYMMDDHHMMSS in UTC.
    stamp = datetime.datetime.fromisoformat(text.replace("Z", "+00:00"))
    return stamp.astimezone(datetime.timezone.utc).strftime("%Y%m%d%H%M%S")


def url_host(host):
    return "[%s]" % host if ":" in host else host


def tail(text, lines=60):
    parts = (text.decode(errors="replace") if isinstance(text, bytes) else text).splitlines()
    return "\n".join(["[... %d lines before]" % (len(parts) - lines)] * (len(parts) > lines) + parts[-lines:])


def on_terminal(argv, before, after, pause=1.5):
    # Runs a client on a terminal of its own: types the lines of before, waits, types Ctrl-C, then the
    # lines of after; its whole output.
    pid, fd = pty.fork()
    if pid == 0:
        os.execvp(argv[0], argv)
    out = bytearray()

    def pump(seconds):
        end = time.time() + seconds
        while time.time() < end:
            if select.select([fd], [], [], 0.1)[0]:
                try:
                    out.extend(os.read(fd, 65536))
                except OSError:
                    return

    for line in before:
        os.write(fd, line.encode() + b"\r")
        pump(0.3)
    pump(pause)
    os.write(fd, b"\x03")
    pump(2)
    for line in after:
        os.write(fd, line.encode() + b"\r")
        pump(0.5)
    pump(CLIENT_TIMEOUT / 10)
    os.waitpid(pid, 0)
    os.close(fd)
    return out.decode(errors="replace")


class RealClientCase:
    # One daemon per class (its way of serving from the class attributes), the tree served as "tree", a
    # private directory and HOME for the clients, and the tests every way serves. Mixed into a
    # unittest.TestCase for each way.

    profile = None           # platform value of [ftp] profile; None: the default
    tls = False              # explicit FTPS: a certificate, and every client told to use TLS
    daemon_environment = {}  # extra environment of the daemon
    dot_files = True         # whether the tree holds dot files
    lftp_settings = ""       # lftp's settings
    lftp_modes = {"default": ""}  # lftp's data-connection modes: name -> settings
    curl_flags = []          # curl's flags for every transfer
    curl_modes = ("epsv", "pasv", "eprt", "port")  # curl's data-connection modes (CURL_MODES)
    rclone_options = ""      # lines of the rclone remotes
    ftplib_class = ftplib.FTP

    @classmethod
    def setUpClass(cls):
        extra = {"ftp.profile": cls.profile} if cls.profile else {}
        # rclone opens up to 12 sessions at its default concurrency (8 checkers and 4 transfers),
        # more than the default limit of 10 per user.
        cls.d = Daemon(extra_platform=extra, tls=cls.tls, startup=["ftp-server username alice password secret1",
                                                                   "ftp-server max-user-connect 20"])
        # Also after a failed start: the daemon's exit status is checked and its files go.
        cls.addClassCleanup(cls.d.stop_checked)
        cls.work = os.path.join(cls.d.dir, "clients")
        cls.d.start(env=dict(cls.d.env(), **cls.daemon_environment))
        assert cls.d.cli("debug ftp-server pro")[0] == 0
        cls.tree = os.path.join(cls.work, "tree")
        for rel, size in dict(TREE_FILES, **(DOT_FILES if cls.dot_files else {})).items():
            write(os.path.join(cls.tree, rel), os.urandom(size))
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
        # library keeps tables of its own: the TLS row is test_ftps.py's).
        assert cls.d.listing_temporaries() == [], cls.d.listing_temporaries()
        assert memory_idle(cls.d, ignore={"TLS"}), cls.d.memory_in_use()

    def served(self, *rel):
        return os.path.join(self.d.flash, *rel)

    def local(self, *rel):
        return os.path.join(self.work, *rel)

    def url(self, host, path=""):
        return "ftp://%s:%s@%s:%d/%s" % (USER, PASSWORD, url_host(host), self.d.port, path)

    # --- the conversation and the clients

    def mark(self):
        # Marks where the daemon's log stands: a failure shows the conversation from here on.
        self._log_mark = os.path.getsize(self.d.log) if os.path.exists(self.d.log) else 0

    @contextlib.contextmanager
    def step(self, **params):
        # A subtest whose failure shows the conversation from its start on.
        with self.subTest(**params):
            self.mark()
            yield

    def conversation(self):
        time.sleep(0.2)  # the daemon logs a reply just after sending it
        text = (read_file(self.d.log) or b"")[getattr(self, "_log_mark", 0):]
        return "server side of the conversation (debug ftp-server pro):\n" + tail(text, 120)

    def run_client(self, argv, cwd=None, input=None, env=None, check=True):
        # Runs one client command; a time-out or (with check) a non-zero exit status fails with its
        # output and the conversation.
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
        if not os.path.isdir(actual_root):
            self.fail("%s: %s does not exist\n%s" % (what, actual_root, self.conversation()))
        want, got = snapshot(expected_root, ignore), snapshot(actual_root, ignore)
        describe = lambda e: e if e == "dir" else "%d bytes, sha256 %s..." % (e[0], e[1][:16])  # noqa: E731
        lines = ["missing:    %s" % p for p in sorted(set(want) - set(got))]
        lines += ["unexpected: %s" % p for p in sorted(set(got) - set(want))]
        lines += ["differs:    %s (expected %s, got %s)" % (p, describe(want[p]), describe(got[p]))
                  for p in sorted(set(want) & set(got)) if want[p] != got[p]]
        if lines:
            self.fail("%s is not the tree it should be:\n%s\n%s" % (what, "\n".join(lines), self.conversation()))

    def assertSameBytes(self, got, want, what):
        if got != want:
            at = next((i for i, (a, b) in enumerate(zip(got or b"", want)) if a != b), min(len(got or b""), len(want)))
            self.fail("%s: %s\n%s" % (what, "no file" if got is None else "%d bytes instead of %d, first "
                                      "difference at byte %d" % (len(got), len(want), at), self.conversation()))

    def lftp(self, host, commands, settings=""):
        script = "%sopen -u %s,%s ftp://%s:%d; %s" % (settings, USER, PASSWORD, url_host(host),
                                                     self.d.port, commands)
        return self.run_client([clients.binary("lftp"), "-c", script])

    def rclone(self, *args):
        # rclone with one ftp remote per family (named after it); any ERROR line it logs fails.
        config = self.local("rclone.conf")
        if not os.path.exists(config):
            obscured = self.run_client([clients.binary("rclone"), "obscure", PASSWORD]).out.strip()
            with open(config, "w") as f:
                for name, host in FAMILIES:
                    # rclone 1.60 joins host and port itself: an IPv6 address goes in brackets.
                    f.write("[%s]\ntype = ftp\nhost = %s\nport = %d\nuser = %s\npass = %s\n%s\n"
                            % (name, url_host(host), self.d.port, USER, obscured, self.rclone_options))
        r = self.run_client([clients.binary("rclone"), *args], env=dict(self.client_env, RCLONE_CONFIG=config))
        errors = [line for line in r.err.splitlines()
                  if " ERROR " in line and not any(b in line for b in RCLONE_BENIGN_ERRORS)]
        if errors:
            self.fail("rclone %s logged errors:\n%s\n%s" % (" ".join(args), "\n".join(errors), self.conversation()))
        return r

    # --- the clients every way serves

    def test_lftp_mirror_both_ways(self):
        for family, host in FAMILIES:
            for mode, setting in self.lftp_modes.items():
                with self.step(family=family, mode=mode):
                    remote, down = "lftp-%s-%s" % (family, mode), self.local("lftp-down-%s-%s" % (family, mode))
                    settings = self.lftp_settings + setting
                    self.lftp(host, 'mirror -R tree "%s"' % remote, settings)
                    self.assertSameTree(self.tree, self.served(remote), "the tree lftp mirror -R uploaded")
                    self.lftp(host, 'mirror "%s" "%s" && mv "%s" "%s.moved"' % (remote, down, remote, remote),
                              settings)
                    self.assertSameTree(self.tree, down, "the tree lftp mirror downloaded")
                    self.assertFalse(os.path.exists(self.served(remote)), "lftp mv left the directory")
                    if self.profile == "standard":
                        # lftp gives each file the time that MLSD reported (UTC).
                        wrong = [p for p, v in snapshot(down).items() if v != "dir" and utc_stamp(
                            os.path.join(down, p)) != utc_stamp(self.served(remote + ".moved", p))]
                        self.assertEqual(wrong, [], "lftp mirror set other times than the served files'\n"
                                         + self.conversation())

    def test_ftplib_every_mode_and_family(self):
        data = os.urandom(300_000)
        # ftplib uses PASV and PORT over IPv4, EPSV and EPRT over IPv6.
        for family, host in FAMILIES:
            for passive in (True, False):
                with self.step(family=family, passive=passive):
                    name = "py-%s-%s.bin" % (family, passive)
                    ftp = ftp_session(self.d.port, host, cls=self.ftplib_class)
                    self.assertEqual(ftp.getwelcome(), "220 TESTSW FTP server <version 1.00> ready.")
                    ftp.set_pasv(passive)
                    ftp.storbinary("STOR " + name, io.BytesIO(data))
                    self.assertSameBytes(read_file(self.served(name)), data, "STOR")
                    got = io.BytesIO()
                    ftp.retrbinary("RETR " + name, got.write)
                    self.assertSameBytes(got.getvalue(), data, "RETR")
                    self.assertIn(name, ftp.nlst())
                    for path, entry in (("", name), ("tree", "one MiB.bin")):
                        lines = []
                        ftp.retrlines("LIST " + path, lines.append)
                        self.assertTrue(any(l.endswith(" " + entry) and l.startswith("-rw") for l in lines), lines)
                    ftp.rename(name, name + ".moved")
                    ftp.delete(name + ".moved")
                    self.assertEqual([n for n in os.listdir(self.served()) if n.startswith(name)], [])
                    ftp.quit()

    def test_curl_every_mode_and_family(self):
        curl = clients.binary("curl")
        src = read_file(os.path.join(self.tree, "one MiB.bin"))
        for family, host in FAMILIES:
            for mode in self.curl_modes:
                if mode == "port" and family == "IPv6":
                    continue  # PORT carries IPv4 addresses only
                with self.step(family=family, mode=mode):
                    name = "curl-%s-%s.bin" % (mode, family)
                    flags = self.curl_flags + CURL_MODES[mode]
                    run = lambda *args: self.run_client([curl, "-sS", *flags, *args]).stdout  # noqa: E731
                    run("-T", os.path.join(self.tree, "one MiB.bin"), self.url(host, name))
                    self.assertSameBytes(read_file(self.served(name)), src, "curl upload")
                    self.assertSameBytes(run(self.url(host, name)), src, "curl download")
                    self.assertIn(name.encode(), run(self.url(host)))
                    run("-Q", "RNFR " + name, "-Q", "RNTO " + name + ".x", "-Q", "DELE " + name + ".x", self.url(host))
                    self.assertEqual([n for n in os.listdir(self.served()) if n.startswith(name)], [])

    def test_rclone_copy_both_ways(self):
        source = self.rclone_source()
        for family, _ in FAMILIES:
            with self.step(family=family):
                top, served = "%s:rclone-%s" % (family, family), self.served("rclone-" + family, "copy")
                os.makedirs(served)
                self.rclone("copy", "--create-empty-src-dirs", source, top + "/copy")
                self.assertSameTree(source, served, "the tree rclone copy uploaded")
                down = self.local("rclone-down-" + family)
                self.rclone("copy", "--create-empty-src-dirs", top + "/copy", down)
                self.assertSameTree(source, down, "the tree rclone copy downloaded")
                self.rclone_more(family, top)

    def rclone_source(self):
        return self.tree

    def rclone_more(self, family, top):
        # What a way of serving checks further with rclone, once the source is on the server.
        pass


class ClearTextClientCase(RealClientCase):
    # The clients that have no FTPS, for the ways of serving without TLS.

    def test_wget_mirror(self):
        for family, host in FAMILIES:
            for flags in ([], ["--no-passive-ftp"]):
                with self.step(family=family, flags=flags):
                    dest = self.local("wget-%s-%d" % (family, len(flags)))
                    self.run_client([clients.binary("wget"), "-m", "-nv", "-nH", "--cut-dirs=1", *flags, "-P", dest,
                                     self.url(host, "tree/")])
                    # -m keeps wget's own .listing file in every directory.
                    self.assertSameTree(self.tree, dest, "the tree wget -m downloaded", ignore={".listing"})

    def test_inetutils_ftp_takes_binary_type_from_syst(self):
        # put and get of a binary file without a `binary` command: the client must pick binary type
        # from SYST's reply, so both transfers open in BINARY mode and no byte changes.
        data = os.urandom(100_000) + b"a\r\nb\nc\rd\r\r\n\x00\xff" * 100 + b"\r"
        src = write(self.local("inetutils.src"), data)
        for family, host in FAMILIES:
            with self.step(family=family):
                name, back = "inetutils-%s.bin" % family, self.local("inetutils-%s.back" % family)
                # Driven through standard input: -n (no auto-login) and a user command.
                script = "user %s %s\nput %s %s\nget %s %s\nquit\n" % (USER, PASSWORD, src, name, name, back)
                r = self.run_client([clients.binary("inetutils-ftp"), "-n", "-v", host, str(self.d.port)],
                                    input=script.encode())
                self.assertSameBytes(read_file(self.served(name)), data, "put\n" + r.out)
                self.assertSameBytes(read_file(back), data, "get\n" + r.out)
                self.assertEqual(r.out.count("150 Opening BINARY mode data connection."), 2,
                                 "both transfers must run in binary type\n%s\n%s" % (r.out, self.conversation()))


class StandardProfileClients(ClearTextClientCase, unittest.TestCase):
    profile = "standard"
    daemon_environment = {"TZ": FAR_TIME_ZONE}
    curl_modes = ("epsv",)  # every data-connection mode: ftplib's test

    def rclone_more(self, family, top):
        served = self.served("rclone-" + family, "copy")
        # Without hashes on FTP, a plain check compares names and sizes.
        self.rclone("check", self.tree, top + "/copy")
        listed = json.loads(self.rclone("lsjson", "-R", top + "/copy").out)
        self.assertEqual({e["Path"]: ("dir" if e["IsDir"] else e["Size"]) for e in listed}, sizes(self.tree),
                         "rclone lsjson -R\n" + self.conversation())
        wrong = [e for e in listed if not e["IsDir"]
                 and iso_stamp(e["ModTime"]) != utc_stamp(os.path.join(served, e["Path"]))]
        self.assertEqual(wrong, [], "rclone lsjson ModTime\n" + self.conversation())

        # sync: files and directories gone from the source are deleted, changes copied.
        changed = self.local("rclone-changed-" + family)
        shutil.copytree(self.tree, changed)
        os.remove(os.path.join(changed, "block 512.bin"))
        for gone in ("with space", "nested/deeper/deepest"):
            shutil.rmtree(os.path.join(changed, gone))
        write(os.path.join(changed, "block-1024.bin"), os.urandom(2000))
        write(os.path.join(changed, "ünïcödé", "neu €.txt"), os.urandom(1500))
        os.makedirs(os.path.join(changed, "new empty"))
        self.mark()
        self.rclone("sync", "--create-empty-src-dirs", changed, top + "/copy")
        self.assertSameTree(changed, served, "the tree after rclone sync")
        # Compares the contents themselves: at the default concurrency (8 checkers) rclone
        # holds more sessions at once than for a copy.
        self.mark()
        self.rclone("check", "--download", changed, top + "/copy")
        self.mark()
        self.rclone("mkdir", top + "/made/on/demand")
        self.assertTrue(os.path.isdir(self.served("rclone-" + family, "made", "on", "demand")),
                        "rclone mkdir of a nested path\n" + self.conversation())
        self.mark()
        self.rclone("purge", top)
        self.assertFalse(os.path.exists(self.served("rclone-" + family)),
                         "rclone purge left the directory\n" + self.conversation())

    def test_what_stock_clients_parse_and_keep(self):
        # ftplib's pwd and MKD parsed (quotes doubled) and selected MLSD facts; lftp keeping times (MFMT) and modes (SITE
        # CHMOD) in a mirror; rclone keeping times and listing a link; curl creating directories and
        # sending SITE CHMOD.
        ftp = ftp_session(self.d.port)
        self.assertEqual(ftp.pwd(), "/")
        self.assertEqual(ftp.mkd('q"dir'), '/q"dir')
        ftp.rmd('q"dir')
        facts = {name: f for name, f in ftp.mlsd("tree", facts=["type", "size"])}
        self.assertEqual(facts["one MiB.bin"], {"type": "file", "size": str(1 << 20)})
        ftp.quit()

        for family, host in FAMILIES:
            with self.step(family=family, client="lftp"):
                remote = "kept-" + family
                self.lftp(host, 'chmod 600 "tree/one MiB.bin"; mirror -R tree "%s"' % remote)
                self.assertEqual(os.stat(self.served("tree", "one MiB.bin")).st_mode & 0o777, 0o600)
                wrong = [p for p, v in snapshot(self.tree).items() if v != "dir" and
                         (utc_stamp(self.served(remote, p)) != utc_stamp(os.path.join(self.tree, p))
                          or os.stat(self.served(remote, p)).st_mode & 0o777 != os.stat(os.path.join(self.tree, p)).st_mode & 0o777)]
                self.assertEqual(wrong, [], "lftp mirror -R kept neither times nor modes\n" + self.conversation())
                os.chmod(self.served("tree", "one MiB.bin"), 0o644)
            with self.step(family=family, client="rclone"):
                self.rclone("copy", self.tree, "%s:rclone-times-%s" % (family, family))
                wrong = [p for p, v in snapshot(self.tree).items() if v != "dir" and utc_stamp(
                    self.served("rclone-times-" + family, p)) != utc_stamp(os.path.join(self.tree, p))]
                self.assertEqual(wrong, [], "rclone copy kept no times\n" + self.conversation())
                os.symlink("block 512.bin", self.served("rclone-times-" + family, "link.bin"))
                listed = {e["Path"]: e["Size"] for e in json.loads(self.rclone(
                    "lsjson", "%s:rclone-times-%s" % (family, family)).out)}
                self.assertEqual(listed.get("link.bin"), 512, listed)
            with self.step(family=family, client="curl"):
                curl = [clients.binary("curl"), "-sS"]
                self.run_client(curl + ["--ftp-create-dirs", "-T", os.path.join(self.tree, "block 512.bin"),
                                        self.url(host, "made-%s/by/curl/f.bin" % family)])
                made = self.served("made-%s/by/curl/f.bin" % family)
                self.assertEqual(os.path.getsize(made), 512)
                self.run_client(curl + ["-Q", "SITE CHMOD 600 made-%s/by/curl/f.bin" % family, self.url(host)])
                self.assertEqual(os.stat(made).st_mode & 0o777, 0o600)

    def test_bsd_clients_navigate_and_interrupt_a_download(self):
        # GNU inetutils ftp and tnftp on a terminal: pwd, mkdir, cd and Ctrl-C during a get, which
        # sends Telnet's interrupt and synch and ABOR; the session goes on.
        big = self.served("sparse.bin")
        with open(big, "wb") as f:
            f.truncate(20 << 30)
        try:
            for client in ("inetutils-ftp", "tnftp"):
                with self.step(client=client):
                    out = on_terminal([clients.binary(client), "-n", "-v", "127.0.0.1", str(self.d.port)],
                                      ["user %s %s" % (USER, PASSWORD), "binary", "mkdir bsd", "cd bsd", "pwd", "cd ..",
                                       "get sparse.bin /dev/null"], ["pwd", "rmdir bsd", "quit"])
                    for text in ('"/bsd"', "426 Connection closed; transfer aborted.", "226 Abort successful.",
                                 "221 Service closing"):
                        self.assertIn(text, out, "%s\n%s" % (out, self.conversation()))
                    self.assertFalse(os.path.exists(self.served("bsd")))
        finally:
            os.unlink(big)

    def test_rclone_downloads_300_mib_single_stream(self):
        # Sparse apart from a few random blocks (one across a MiB boundary): quick to make.
        size = 300 << 20
        big = write(self.served("big", "300MiB.bin"), b"")
        with open(big, "wb") as f:
            f.truncate(size)
            for offset in (0, (1 << 20) - 1000, (150 << 20) + 12345, size - 65536):
                f.seek(offset)
                f.write(os.urandom(65536 if offset == size - 65536 else 4096))
        digest = file_sha256(big)
        try:
            for family, _ in FAMILIES:
                with self.step(family=family):
                    dest = self.local("big-" + family)
                    # One stream: rclone 1.60 closes its own extra multi-thread streams early and
                    # counts the server's 426 for each as an error, against any server.
                    self.rclone("copy", "--multi-thread-streams", "0", family + ":big/300MiB.bin", dest)
                    got = os.path.join(dest, "300MiB.bin")
                    self.assertEqual((os.path.getsize(got), file_sha256(got)), (size, digest),
                                     "300 MiB download differs\n" + self.conversation())
                    shutil.rmtree(dest)
        finally:
            shutil.rmtree(self.served("big"), ignore_errors=True)

    def test_curl_resume_and_ranges(self):
        curl = clients.binary("curl")
        data = os.urandom(3_000_000)
        write(self.served("curl", "data.bin"), data)
        src = write(self.local("curl-up.bin"), data)
        for family, host in FAMILIES:
            with self.step(family=family, case="resumed download"):
                # What a broken download leaves: an unaligned prefix.
                out = write(self.local("curl-%s.bin" % family), data[:1_234_567])
                self.run_client([curl, "-sS", "-C", "-", "-o", out, self.url(host, "curl/data.bin")])
                self.assertSameBytes(read_file(out), data, "curl -C - download")
            for rng, want in (("100-1123", data[100:1124]), ("2999000-", data[2999000:]),
                              ("0-0", data[:1]), ("-500", data[-500:]),
                              ("2999990-3000100", data[2999990:])):
                with self.step(family=family, range=rng):
                    got = self.run_client([curl, "-sS", "-r", rng, self.url(host, "curl/data.bin")]).stdout
                    self.assertSameBytes(got, want, "curl -r " + rng)
            with self.step(family=family, case="resumed upload"):
                name = "curl/up-%s.bin" % family
                write(self.served(name), data[:1_000_001])
                self.run_client([curl, "-sS", "-C", "-", "-T", src, self.url(host, name)])
                self.assertSameBytes(read_file(self.served(name)), data, "curl -C - -T upload")

    def test_ncftp_recursive_get_and_put(self):
        # ncftp 3.2 has no IPv6: it takes ::1 for an unknown host name. IPv4 only.
        login = ["-u", USER, "-p", PASSWORD, "-P", str(self.d.port), "127.0.0.1"]
        dest = self.local("ncftpget")
        os.makedirs(dest)
        self.mark()
        self.run_client([clients.binary("ncftpget"), "-R", "-V", *login, dest, "/tree"])
        self.assertSameTree(self.tree, os.path.join(dest, "tree"), "the tree ncftpget -R downloaded")
        self.mark()
        self.run_client([clients.binary("ncftpput"), "-R", "-V", "-m", *login, "/ncftpput/into", self.tree])
        self.assertSameTree(self.tree, self.served("ncftpput", "into", "tree"), "the tree ncftpput -R uploaded")

    def test_basic_ftp_list_upload_download(self):
        top_level = {name: ("dir" if os.path.isdir(os.path.join(self.tree, name))
                            else os.path.getsize(os.path.join(self.tree, name)))
                     for name in os.listdir(self.tree)}
        for family, host in FAMILIES:
            with self.step(family=family):
                remote, down = "basic-ftp %s/up load" % family, self.local("basic-ftp-down-" + family)
                job = {"host": host, "port": self.d.port, "user": USER, "password": PASSWORD, "verbose": True,
                       "steps": [["list", "tree"], ["list", "tree/ünïcödé"],
                                 ["uploadFromDir", self.tree, remote], ["downloadToDir", down, remote]]}
                r = self.run_client([clients.binary("node"), "basic_ftp_steps.js", json.dumps(job)],
                                    cwd=clients.node_dir(), check=False)
                try:
                    result = json.loads(r.out.strip().splitlines()[-1])
                except (ValueError, IndexError):
                    result = {"error": "no result (exit status %d)" % r.returncode}
                if "error" in result:
                    self.fail("basic-ftp failed at step %s: %s\nclient log:\n%s\n%s" % (
                        result.get("step"), result["error"], tail(r.err), self.conversation()))
                listed, sub = result["results"][:2]
                self.assertEqual({e["name"]: ("dir" if e["isDirectory"] else e["size"]) for e in listed},
                                 top_level, "basic-ftp list(\"tree\")\n" + self.conversation())
                self.assertEqual([(e["name"], e["size"]) for e in sub if e["isFile"]],
                                 [("Grüße €.txt", 77)], "basic-ftp list(\"tree/ünïcödé\")")
                wrong = [e for e in listed if e["isFile"]
                         and iso_stamp(e["modifiedAt"]) != utc_stamp(self.served("tree", e["name"]))]
                self.assertEqual(wrong, [], "basic-ftp modifiedAt")
                self.assertSameTree(self.tree, self.served(remote), "the tree basic-ftp uploadFromDir uploaded")
                self.assertSameTree(self.tree, down, "the tree basic-ftp downloadToDir downloaded")


class DeviceProfileClients(ClearTextClientCase, unittest.TestCase):
    # The clients the device profile has always served. Its LIST leaves dot files out whatever the
    # options, so the tree has none.

    dot_files = False
    # The device ends MDTM replies with a bare LF; lftp then waits seconds for the rest of the
    # line before it takes it. It mirrors without MDTM (and without trying TLS), over PASV (EPSV
    # over IPv6), EPSV, and in active mode (PORT, EPRT over IPv6).
    lftp_settings = "set ftp:ssl-allow no; set ftp:use-mdtm no; "
    lftp_modes = {"pasv": "set ftp:prefer-epsv no; ", "epsv": "set ftp:prefer-epsv yes; ",
                  "active": "set ftp:passive-mode off; "}

    def test_ascii_type_converts_line_ends(self):
        write(self.served("lines.txt"), b"one\ntwo\nthree\n")
        ftp = ftp_session(self.d.port)
        ftp.sendcmd("TYPE A")
        conn, raw = ftp.transfercmd("RETR lines.txt"), b""
        while chunk := conn.recv(4096):
            raw += chunk
        conn.close()
        self.assertEqual((ftp.voidresp(), raw), ("226 Closing data connection.", b"one\r\ntwo\r\nthree\r\n"))
        ftp.storlines("STOR up.txt", io.BytesIO(b"a\r\nb\r\n"))
        self.assertEqual(read_file(self.served("up.txt")), b"a\nb\n")
        ftp.quit()

    def rclone_source(self):
        # A flat directory into one that exists: the device answers LIST of a missing directory
        # 150 and then 550, which rclone takes for a failure rather than for "not found".
        flat = self.local("flat")
        os.makedirs(flat, exist_ok=True)
        for name in TREE_FILES:
            if "/" not in name:
                shutil.copy2(os.path.join(self.tree, name), flat)
        return flat


class ExplicitTlsClients(RealClientCase, unittest.TestCase):
    # The standard profile with a certificate and its defaults (logins over TLS only, protected data
    # connections resume the login's TLS session); each client with its TLS settings and the certificate
    # taken as it is.

    profile = "standard"
    tls = True
    daemon_environment = {"TZ": FAR_TIME_ZONE}
    lftp_settings = "set ssl:verify-certificate no; set ftp:ssl-force true; "
    curl_flags = ["-k", "--ssl-reqd"]
    # One mode: curl 7.88 fails its own active data connections under TLS ("sa_addr inet_ntop()
    # failed"), and passive ones differ only in the command.
    curl_modes = ("epsv",)
    rclone_options = "explicit_tls = true\nno_check_certificate = true\n"
    ftplib_class = ResumingFTP


if __name__ == "__main__":
    unittest.main()
