"""Real FTP clients against the daemon.

The standard profile's acceptance: lftp mirror both ways, rclone (copy, sync with deletes, check,
lsjson, nested mkdir, purge, and a 300 MiB download), curl resume and ranges, wget mirroring, ncftp
recursive get and put, GNU inetutils ftp choosing binary type from SYST, Python's ftplib MLSD and
ftputil, and Node's basic-ftp; each over IPv4 and IPv6 where the client can. The tree they move
has nested and empty directories, names with blanks, UTF-8 names, dot files and files of 0, 512,
1024, 1025 bytes and 1 MiB, and every copy is compared byte for byte.

The device profile (the default) is driven by the clients it has always served: ftplib and curl in
every data-connection mode (PASV, EPSV, PORT, EPRT), lftp (in each mode too), wget, rclone and
inetutils ftp, so that a change that breaks them shows. wget runs in passive and active mode in
both profiles, every client otherwise with its default settings. Once a class's clients are done, no listing
temporary is left and every memory category is back at zero.

A missing client fails the test (clients.py), it is never skipped. On a failure the message
carries the client's output and the server's side of the conversation: both daemons run with
`debug ftp-server pro`, which logs every command and reply."""

import datetime
import ftplib
import hashlib
import io
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import clients  # noqa: E402
from ftps_harness import Daemon, ftp_session, has_ipv6, memory_idle, read_file  # noqa: E402

USER, PASSWORD = "alice", "secret1"
FAMILIES = [("IPv4", "127.0.0.1")] + ([("IPv6", "::1")] if has_ipv6() else [])
# Generous: a client that hangs on a server fault is stopped and reported, never waited for.
CLIENT_TIMEOUT = 180

# Sizes around the daemon's 512-byte conversion blocks and 1 KiB receive blocks, an empty file and
# one of many chunks; names with blanks, UTF-8 names in several scripts, nested and empty
# directories.
TREE_FILES = {
    "zero.bin": 0,
    "block 512.bin": 512,
    "block-1024.bin": 1024,
    "block-1025.bin": 1025,
    "one MiB.bin": 1 << 20,
    "with space/inner file.txt": 300,
    "nested/deeper/deepest/leaf.bin": 1025,
    "nested/deeper/side.bin": 512,
    "ünïcödé/Grüße €.txt": 77,
    "日本語/ファイル 1.dat": 1024,
}
DOT_FILES = {
    ".hidden": 100,
    ".config/settings": 1024,
    "nested/.dot dir/x": 5,
}
EMPTY_DIRS = ("empty", "nested/deeper/empty too", "ünïcödé/leer")


# The standard daemon runs in a time zone far from UTC, so that a time given in local time where
# the protocol wants UTC (MDTM, MLSD/MLST modify) shows in what the clients do with it.
FAR_TIME_ZONE = "XST-5:30"

# rclone logs these at ERROR level against any server that has MDTM but no MFMT, and without a
# common hash; neither counts as an error in its exit status. Any other ERROR line fails.
RCLONE_BENIGN_ERRORS = ("SetModTime is not supported", "No common hash found")


def build_tree(root, dot_files=True):
    files = dict(TREE_FILES, **(DOT_FILES if dot_files else {}))
    for rel, size in files.items():
        path = os.path.join(root, rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(os.urandom(size))
    for rel in EMPTY_DIRS:
        os.makedirs(os.path.join(root, rel), exist_ok=True)


def snapshot(root, ignore=()):
    """Relative path -> "dir" or (size, sha256) for everything below root; names in ignore left out."""
    entries = {}
    for dirpath, dirnames, filenames in os.walk(root):
        rel = os.path.relpath(dirpath, root)
        for name in dirnames:
            entries[os.path.normpath(os.path.join(rel, name))] = "dir"
        for name in filenames:
            if name not in ignore:
                path = os.path.join(dirpath, name)
                entries[os.path.normpath(os.path.join(rel, name))] = (os.path.getsize(path), file_sha256(path))
    return entries


def sizes(root):
    """Relative path -> "dir" or the file's size, for everything below root."""
    return {p: ("dir" if v == "dir" else v[0]) for p, v in snapshot(root).items()}


def tree_difference(expected_root, actual_root, ignore=()):
    """What differs between the two trees, as text; empty when they are the same byte for byte."""
    if not os.path.isdir(actual_root):
        return "%s does not exist" % actual_root
    want, got = snapshot(expected_root, ignore), snapshot(actual_root, ignore)
    describe = lambda e: e if e == "dir" else "%d bytes, sha256 %s..." % (e[0], e[1][:16])  # noqa: E731
    lines = ["missing:    %s" % p for p in sorted(set(want) - set(got))]
    lines += ["unexpected: %s" % p for p in sorted(set(got) - set(want))]
    lines += ["differs:    %s (expected %s, got %s)" % (p, describe(want[p]), describe(got[p]))
              for p in sorted(set(want) & set(got)) if want[p] != got[p]]
    return "\n".join(lines)


def compare_bytes(got, want):
    """Empty when equal, else a short account of how they differ."""
    if got == want:
        return ""
    if got is None:
        return "no file"
    at = next((i for i, (a, b) in enumerate(zip(got, want)) if a != b), min(len(got), len(want)))
    return "%d bytes instead of %d, first difference at byte %d" % (len(got), len(want), at)


def file_sha256(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        while chunk := f.read(1 << 20):
            h.update(chunk)
    return h.hexdigest()


def utc_stamp(path):
    """The file's modification time as MDTM and MLSD give it: YYYYMMDDHHMMSS in UTC."""
    return time.strftime("%Y%m%d%H%M%S", time.gmtime(os.stat(path).st_mtime))


def iso_stamp(text):
    """An ISO 8601 time as a client reports it, as YYYYMMDDHHMMSS in UTC."""
    stamp = datetime.datetime.fromisoformat(text.replace("Z", "+00:00"))
    return stamp.astimezone(datetime.timezone.utc).strftime("%Y%m%d%H%M%S")


def url_host(host):
    return "[%s]" % host if ":" in host else host


def tail(text, lines=60):
    parts = text.splitlines()
    return "\n".join((["[... %d lines before]" % (len(parts) - lines)] if len(parts) > lines else [])
                     + parts[-lines:])


class RealClientCase:
    """One daemon per class (profile and environment from the class attributes), the tree served
    read-only as "tree", and a private directory and HOME for the clients; the tests of the
    clients both profiles serve. Mixed into a unittest.TestCase for each profile."""

    profile = None           # platform value of [ftp] profile; None: the default
    daemon_environment = {}  # extra environment of the daemon
    dot_files = True         # whether the tree holds dot files
    lftp_settings = ""       # lftp's settings
    lftp_modes = {"default": ""}  # lftp's data-connection modes: name -> settings

    @classmethod
    def setUpClass(cls):
        extra = {"ftp.profile": cls.profile} if cls.profile else {}
        # rclone opens up to 12 sessions at its default concurrency (8 checkers and 4 transfers),
        # more than the default limit of 10 per user.
        cls.d = Daemon(extra_platform=extra, startup=["ftp-server username alice password secret1",
                                                      "ftp-server max-user-connect 20"])
        cls.work = tempfile.mkdtemp(prefix="ftps-clients")
        try:
            cls.d.start(env=dict(cls.d.env(), **cls.daemon_environment))
            rc, out = cls.d.cli("debug ftp-server pro")
            if rc != 0:
                raise AssertionError("debug ftp-server pro failed: " + out)
            cls.tree = os.path.join(cls.work, "tree")
            build_tree(cls.tree, cls.dot_files)
            shutil.copytree(cls.tree, os.path.join(cls.d.flash, "tree"))
            # Each client with its default settings: no user configuration (HOME is private), a
            # UTF-8 locale as for any user with UTF-8 names, no proxy.
            home = os.path.join(cls.work, "home")
            os.makedirs(home)
            cls.client_env = {k: v for k, v in os.environ.items()
                              if k.lower() not in ("ftp_proxy", "all_proxy", "no_proxy")}
            cls.client_env.update(HOME=home, XDG_CONFIG_HOME=os.path.join(home, ".config"),
                                  XDG_CACHE_HOME=os.path.join(home, ".cache"),
                                  LANG="C.UTF-8", LC_ALL="C.UTF-8")
        except BaseException:
            cls.d.cleanup()
            shutil.rmtree(cls.work, ignore_errors=True)
            raise

    @classmethod
    def tearDownClass(cls):
        try:
            # Whatever the clients did, nothing is left behind once their sessions have ended.
            assert cls.d.listing_temporaries() == [], cls.d.listing_temporaries()
            assert memory_idle(cls.d), cls.d.memory_in_use()
        finally:
            shutil.rmtree(cls.work, ignore_errors=True)
            cls.d.stop_checked()

    # --- paths and addresses

    def served(self, *rel):
        return os.path.join(self.d.flash, *rel)

    def local(self, *rel):
        return os.path.join(self.work, *rel)

    def url(self, host, path=""):
        return "ftp://%s:%s@%s:%d/%s" % (USER, PASSWORD, url_host(host), self.d.port, path)

    # --- the conversation and the clients

    def mark(self):
        """Marks where the daemon's log stands: a failure shows the conversation from here on."""
        self._log_mark = os.path.getsize(self.d.log) if os.path.exists(self.d.log) else 0

    def conversation(self):
        time.sleep(0.2)  # the daemon logs a reply just after sending it
        text = (read_file(self.d.log) or b"")[getattr(self, "_log_mark", 0):].decode(errors="replace")
        return "server side of the conversation (debug ftp-server pro):\n" + tail(text, 120)

    def run_client(self, argv, cwd=None, input=None, env=None, timeout=CLIENT_TIMEOUT, check=True):
        """Runs one client command; a time-out or (with check) a non-zero exit status fails with
        its output and the conversation."""
        shown = " ".join(argv)
        try:
            r = subprocess.run(argv, cwd=cwd or self.work, input=input, env=env or self.client_env,
                               capture_output=True, timeout=timeout)
        except subprocess.TimeoutExpired as e:
            self.fail("%s\ndid not finish within %d s\nstdout:\n%s\nstderr:\n%s\n%s" % (
                shown, timeout, tail((e.stdout or b"").decode(errors="replace")),
                tail((e.stderr or b"").decode(errors="replace")), self.conversation()))
        r.out = r.stdout.decode(errors="replace")
        r.err = r.stderr.decode(errors="replace")
        if check and r.returncode != 0:
            self.fail("%s\nexit status %d\nstdout:\n%s\nstderr:\n%s\n%s" % (
                shown, r.returncode, tail(r.out), tail(r.err), self.conversation()))
        return r

    def assertSameTree(self, expected_root, actual_root, what, ignore=()):
        diff = tree_difference(expected_root, actual_root, ignore)
        if diff:
            self.fail("%s is not the tree it should be:\n%s\n%s" % (what, diff, self.conversation()))

    def assertSameBytes(self, got, want, what):
        diff = compare_bytes(got, want)
        if diff:
            self.fail("%s: %s\n%s" % (what, diff, self.conversation()))

    def lftp(self, host, commands, settings=""):
        script = "%sopen -u %s,%s ftp://%s:%d; %s" % (settings, USER, PASSWORD, url_host(host),
                                                     self.d.port, commands)
        return self.run_client([clients.binary("lftp"), "-c", script])

    def rclone_remotes(self):
        """Writes an rclone configuration with one ftp remote per family into the work directory
        (the password obscured by rclone itself); returns the environment that selects it."""
        path = self.local("rclone.conf")
        if not os.path.exists(path):
            obscured = self.run_client([clients.binary("rclone"), "obscure", PASSWORD]).out.strip()
            with open(path, "w") as f:
                for name, host in FAMILIES:
                    # rclone 1.60 joins host and port itself: an IPv6 address goes in brackets.
                    f.write("[%s]\ntype = ftp\nhost = %s\nport = %d\nuser = %s\npass = %s\n\n"
                            % (name, url_host(host), self.d.port, USER, obscured))
        return dict(self.client_env, RCLONE_CONFIG=path)

    def rclone(self, *args):
        r = self.run_client([clients.binary("rclone"), *args], env=self.rclone_remotes())
        errors = [line for line in r.err.splitlines()
                  if " ERROR " in line and not any(b in line for b in RCLONE_BENIGN_ERRORS)]
        if errors:
            self.fail("rclone %s logged errors:\n%s\n%s" % (" ".join(args), "\n".join(errors),
                                                            self.conversation()))
        return r

    def time_mismatches(self, local_root, served_root):
        """Files below local_root whose modification time (to the second) is not the served one's."""
        out = []
        for dirpath, _, filenames in os.walk(local_root):
            for name in filenames:
                rel = os.path.relpath(os.path.join(dirpath, name), local_root)
                want, got = utc_stamp(os.path.join(served_root, rel)), utc_stamp(os.path.join(dirpath, name))
                if want != got:
                    out.append("%s: %s, served %s (UTC)" % (rel, got, want))
        return out

    # --- the clients both profiles serve

    def test_lftp_mirror_both_ways(self):
        for family, host in FAMILIES:
            for mode, setting in self.lftp_modes.items():
                with self.subTest(family=family, mode=mode):
                    self.mark()
                    remote, down = "lftp-%s-%s" % (family, mode), "lftp-down-%s-%s" % (family, mode)
                    settings = self.lftp_settings + setting
                    self.lftp(host, 'mirror -R tree "%s"' % remote, settings)
                    self.assertSameTree(self.tree, self.served(remote), "the tree lftp mirror -R uploaded")
                    self.lftp(host, 'mirror "%s" "%s" && mv "%s" "%s.moved"' % (remote, down, remote, remote),
                              settings)
                    self.assertSameTree(self.tree, self.local(down), "the tree lftp mirror downloaded")
                    self.assertFalse(os.path.exists(self.served(remote)), "lftp mv left the directory")
                    if self.profile == "standard":
                        # lftp gives each file the time that MLSD reported (UTC).
                        wrong = self.time_mismatches(self.local(down), self.served(remote + ".moved"))
                        self.assertEqual(wrong, [], "lftp mirror set other times than the served files':\n"
                                         + self.conversation())

    def test_wget_mirror(self):
        for family, host in FAMILIES:
            for flags in ([], ["--no-passive-ftp"]):
                with self.subTest(family=family, flags=flags):
                    self.mark()
                    dest = self.local("wget-%s-%d" % (family, len(flags)))
                    self.run_client([clients.binary("wget"), "-m", "-nv", "-nH", "--cut-dirs=1", *flags, "-P", dest,
                                     self.url(host, "tree/")])
                    # -m keeps wget's own .listing file in every directory.
                    self.assertSameTree(self.tree, dest, "the tree wget -m downloaded", ignore={".listing"})

    def test_inetutils_ftp_takes_binary_type_from_syst(self):
        """put and get of a binary file without a `binary` command: the client must pick binary
        type from SYST's reply, so both transfers open in BINARY mode and no byte changes."""
        data = os.urandom(100_000) + b"a\r\nb\nc\rd\r\r\n\x00\xff" * 100 + b"\r"
        src = self.local("inetutils.src")
        with open(src, "wb") as f:
            f.write(data)
        for family, host in FAMILIES:
            with self.subTest(family=family):
                self.mark()
                name, back = "inetutils-%s.bin" % family, self.local("inetutils-%s.back" % family)
                # Driven through standard input: -n (no auto-login) and a user command.
                script = "user %s %s\nput %s %s\nget %s %s\nquit\n" % (USER, PASSWORD, src, name, name, back)
                r = self.run_client([clients.binary("inetutils-ftp"), "-n", "-v", host, str(self.d.port)],
                                    input=script.encode())
                self.assertSameBytes(read_file(self.served(name)), data, "put\n" + r.out)
                self.assertSameBytes(read_file(back), data, "get\n" + r.out)
                self.assertEqual(r.out.count("150 Opening BINARY mode data connection."), 2,
                                 "both transfers must run in binary type\n%s\n%s" % (r.out, self.conversation()))


class StandardProfileClients(RealClientCase, unittest.TestCase):
    profile = "standard"
    daemon_environment = {"TZ": FAR_TIME_ZONE}

    def test_rclone_copy_sync_check_lsjson_mkdir_purge(self):
        for family, _ in FAMILIES:
            with self.subTest(family=family):
                self.mark()
                top = family + ":rclone-" + family
                self.rclone("mkdir", top + "/made/on/demand")
                self.assertTrue(os.path.isdir(self.served("rclone-" + family, "made", "on", "demand")),
                                "rclone mkdir of a nested path\n" + self.conversation())
                self.rclone("copy", "--create-empty-src-dirs", self.tree, top + "/copy")
                served = self.served("rclone-" + family, "copy")
                self.assertSameTree(self.tree, served, "the tree rclone copy uploaded")
                # Without hashes on FTP, a plain check compares names and sizes.
                self.rclone("check", self.tree, top + "/copy")

                listed = json.loads(self.rclone("lsjson", "-R", top + "/copy").out)
                self.assertEqual({e["Path"]: ("dir" if e["IsDir"] else e["Size"]) for e in listed}, sizes(self.tree),
                                 "rclone lsjson -R\n" + self.conversation())
                for e in listed:
                    if not e["IsDir"]:
                        self.assertEqual(iso_stamp(e["ModTime"]), utc_stamp(os.path.join(served, e["Path"])),
                                         "rclone lsjson ModTime of %s\n%s" % (e["Path"], self.conversation()))

                # sync: files and directories gone from the source are deleted, changes copied.
                changed = self.local("rclone-changed-" + family)
                shutil.copytree(self.tree, changed)
                os.remove(os.path.join(changed, "block 512.bin"))
                shutil.rmtree(os.path.join(changed, "with space"))
                shutil.rmtree(os.path.join(changed, "nested", "deeper", "deepest"))
                with open(os.path.join(changed, "block-1024.bin"), "wb") as f:
                    f.write(os.urandom(2000))
                with open(os.path.join(changed, "ünïcödé", "neu €.txt"), "wb") as f:
                    f.write(os.urandom(1500))
                os.makedirs(os.path.join(changed, "new empty"))
                self.mark()
                self.rclone("sync", "--create-empty-src-dirs", changed, top + "/copy")
                self.assertSameTree(changed, served, "the tree after rclone sync")

                with self.subTest(family=family, step="check --download"):
                    # Compares the contents themselves: at the default concurrency (8 checkers)
                    # rclone holds more sessions at once than for a copy.
                    self.mark()
                    self.rclone("check", "--download", changed, top + "/copy")

                self.mark()
                self.rclone("purge", top)
                self.assertFalse(os.path.exists(self.served("rclone-" + family)),
                                 "rclone purge left the directory\n" + self.conversation())

    def test_rclone_downloads_300_mib_single_stream(self):
        # Sparse apart from a few random blocks (one across a MiB boundary): quick to make.
        size = 300 << 20
        os.makedirs(self.served("big"), exist_ok=True)
        big = self.served("big", "300MiB.bin")
        with open(big, "wb") as f:
            f.truncate(size)
            for offset in (0, (1 << 20) - 1000, (150 << 20) + 12345, size - 65536):
                f.seek(offset)
                f.write(os.urandom(65536 if offset == size - 65536 else 4096))
        digest = file_sha256(big)
        try:
            for family, _ in FAMILIES:
                with self.subTest(family=family):
                    self.mark()
                    dest = self.local("big-" + family)
                    # One stream: rclone 1.60 closes its own extra multi-thread streams early and
                    # counts the server's 426 for each as an error, against any server.
                    self.rclone("copy", "--multi-thread-streams", "0", family + ":big/300MiB.bin", dest)
                    got = os.path.join(dest, "300MiB.bin")
                    self.assertEqual(os.path.getsize(got), size, self.conversation())
                    self.assertEqual(file_sha256(got), digest,
                                     "300 MiB download differs\n" + self.conversation())
                    shutil.rmtree(dest)
        finally:
            shutil.rmtree(self.served("big"), ignore_errors=True)

    def test_curl_resume_and_ranges(self):
        curl = clients.binary("curl")
        data = os.urandom(3_000_000)
        os.makedirs(self.served("curl"), exist_ok=True)
        with open(self.served("curl", "data.bin"), "wb") as f:
            f.write(data)
        for family, host in FAMILIES:
            with self.subTest(family=family, case="resumed download"):
                self.mark()
                out = self.local("curl-%s.bin" % family)
                self.run_client([curl, "-sS", "-o", out, self.url(host, "curl/data.bin")])
                # A broken download: what is left of it is an unaligned prefix.
                os.truncate(out, 1_234_567)
                self.run_client([curl, "-sS", "-C", "-", "-o", out, self.url(host, "curl/data.bin")])
                self.assertSameBytes(read_file(out), data, "curl -C - download")
            for rng, want in (("100-1123", data[100:1124]), ("2999000-", data[2999000:]),
                              ("0-0", data[:1]), ("-500", data[-500:]),
                              ("2999990-3000100", data[2999990:])):
                with self.subTest(family=family, range=rng):
                    self.mark()
                    got = self.run_client([curl, "-sS", "-r", rng, self.url(host, "curl/data.bin")]).stdout
                    self.assertSameBytes(got, want, "curl -r " + rng)
            with self.subTest(family=family, case="resumed upload"):
                self.mark()
                name = "curl/up-%s.bin" % family
                with open(self.served(name), "wb") as f:
                    f.write(data[:1_000_001])
                src = self.local("curl-up.bin")
                with open(src, "wb") as f:
                    f.write(data)
                self.run_client([curl, "-sS", "-C", "-", "-T", src, self.url(host, name)])
                self.assertSameBytes(read_file(self.served(name)), data, "curl -C - -T upload")

    def test_ncftp_recursive_get_and_put(self):
        # ncftp 3.2 has no IPv6: it takes ::1 for an unknown host name. IPv4 only.
        login = ["-u", USER, "-p", PASSWORD, "-P", str(self.d.port)]
        self.mark()
        dest = self.local("ncftpget")
        os.makedirs(dest)
        self.run_client([clients.binary("ncftpget"), "-R", "-V", *login, "127.0.0.1", dest, "/tree"])
        self.assertSameTree(self.tree, os.path.join(dest, "tree"), "the tree ncftpget -R downloaded")
        self.mark()
        self.run_client([clients.binary("ncftpput"), "-R", "-V", "-m", *login, "127.0.0.1", "/ncftpput/into",
                         self.tree])
        self.assertSameTree(self.tree, self.served("ncftpput", "into", "tree"),
                            "the tree ncftpput -R uploaded")

    def test_ftplib_mlsd(self):
        want = {p: ("dir", None) if v == "dir" else ("file", v) for p, v in sizes(self.tree).items()}
        for family, host in FAMILIES:
            with self.subTest(family=family):
                self.mark()
                ftp = ftp_session(self.d.port, host, user=USER, password=PASSWORD)
                got, times = {}, {}
                pending = [""]
                try:
                    while pending:
                        rel = pending.pop()
                        for name, facts in ftp.mlsd("tree/" + rel if rel else "tree"):
                            kind = facts.get("type")
                            if kind in ("cdir", "pdir"):
                                continue
                            path = rel + "/" + name if rel else name
                            got[path] = (kind, int(facts["size"]) if kind == "file" else None)
                            if kind == "dir":
                                pending.append(path)
                            else:
                                times[path] = facts.get("modify")
                except ftplib.all_errors as e:
                    self.fail("MLSD walk of the tree: %r\n%s" % (e, self.conversation()))
                self.assertEqual(got, want, "MLSD walk of the tree\n" + self.conversation())
                wrong = {p: t for p, t in times.items() if t != utc_stamp(self.served("tree", p))}
                self.assertEqual(wrong, {}, "MLSD modify facts, not the files' times in UTC\n"
                                 + self.conversation())
                with self.assertRaises(ftplib.error_perm) as cm:
                    list(ftp.mlsd("tree/no such dir"))
                self.assertTrue(str(cm.exception).startswith("550"), cm.exception)
                ftp.quit()
            with self.subTest(family=family, case="facts chosen with OPTS MLST"):
                self.mark()
                ftp = ftp_session(self.d.port, host, user=USER, password=PASSWORD)
                try:
                    entries = dict(ftp.mlsd("tree/ünïcödé", facts=["type", "size"]))
                except ftplib.error_perm as e:
                    self.fail("mlsd(facts=...): %s\n%s" % (e, self.conversation()))
                finally:
                    ftp.close()
                self.assertEqual(entries["Grüße €.txt"].get("size"), "77", entries)

    def test_ftputil_walk_and_transfer(self):
        ftputil = clients.ftputil()

        class Session(ftplib.FTP):
            def __init__(self, host, port):
                super().__init__(timeout=60)
                self.connect(host, port)
                self.login(USER, PASSWORD)

        expected = sizes(self.tree)
        # ftputil lists without -a: dot files may be left out, nothing else.
        visible = {p: v for p, v in expected.items()
                   if not any(part.startswith(".") for part in p.split(os.sep))}
        for family, host in FAMILIES:
            with self.subTest(family=family):
                self.mark()
                with ftputil.FTPHost(host, self.d.port, session_factory=Session) as ftp:
                    seen = {}
                    for top, dirs, files in ftp.walk("/tree"):
                        rel = top[len("/tree"):].lstrip("/")
                        for name in dirs:
                            seen[os.path.join(rel, name)] = "dir"
                        for name in files:
                            seen[os.path.join(rel, name)] = ftp.stat(ftp.path.join(top, name)).st_size
                    self.assertEqual({p: v for p, v in seen.items() if p in visible}, visible,
                                     "ftputil walk\n" + self.conversation())
                    self.assertEqual(set(seen) - set(expected), set(),
                                     "ftputil walk\n" + self.conversation())
                    remote = "/ftputil-%s-ünï €.bin" % family
                    ftp.upload(os.path.join(self.tree, "one MiB.bin"), remote)
                    back = self.local("ftputil-%s.bin" % family)
                    ftp.download(remote, back)
                self.assertEqual(file_sha256(back), file_sha256(os.path.join(self.tree, "one MiB.bin")),
                                 "ftputil round trip\n" + self.conversation())

    def test_basic_ftp_list_upload_download(self):
        node_dir = clients.node_dir()
        top_level = {name: ("dir" if os.path.isdir(os.path.join(self.tree, name))
                            else os.path.getsize(os.path.join(self.tree, name)))
                     for name in os.listdir(self.tree)}
        for family, host in FAMILIES:
            with self.subTest(family=family):
                self.mark()
                remote = "basic-ftp %s/up load" % family
                down = self.local("basic-ftp-down-" + family)
                job = {"host": host, "port": self.d.port, "user": USER, "password": PASSWORD,
                       "verbose": True,
                       "steps": [["list", "tree"], ["list", "tree/ünïcödé"],
                                 ["uploadFromDir", self.tree, remote], ["downloadToDir", down, remote]]}
                r = self.run_client([clients.binary("node"), "basic_ftp_steps.js", json.dumps(job)],
                                    cwd=node_dir, check=False)
                try:
                    result = json.loads(r.out.strip().splitlines()[-1])
                except (ValueError, IndexError):
                    result = {"error": "no result (exit status %d)" % r.returncode}
                if "error" in result:
                    self.fail("basic-ftp failed at step %s: %s\nclient log:\n%s\n%s" % (
                        result.get("step"), result["error"], tail(r.err), self.conversation()))
                listed, sub = result["results"][0], result["results"][1]
                self.assertEqual({e["name"]: ("dir" if e["isDirectory"] else e["size"]) for e in listed},
                                 top_level, "basic-ftp list(\"tree\")\n" + self.conversation())
                self.assertEqual([(e["name"], e["size"]) for e in sub if e["isFile"]],
                                 [("Grüße €.txt", 77)], "basic-ftp list(\"tree/ünïcödé\")")
                for e in listed:
                    if e["isFile"]:
                        self.assertEqual(iso_stamp(e["modifiedAt"]), utc_stamp(self.served("tree", e["name"])),
                                         "basic-ftp modifiedAt of %s" % e["name"])
                self.assertSameTree(self.tree, self.served(remote),
                                    "the tree basic-ftp uploadFromDir uploaded")
                self.assertSameTree(self.tree, down, "the tree basic-ftp downloadToDir downloaded")




class ExtendedFTP(ftplib.FTP):
    """ftplib that uses EPSV and EPRT on IPv4 too."""

    def makepasv(self):
        _, port = ftplib.parse229(self.sendcmd("EPSV"), self.sock.getpeername())
        return self.sock.getpeername()[0], port

    def makeport(self):
        sock = socket.create_server(("", 0), family=self.af, backlog=1)
        self.sendeprt(self.sock.getsockname()[0], sock.getsockname()[1])
        sock.settimeout(self.timeout)
        return sock


class DeviceProfileClients(RealClientCase, unittest.TestCase):
    """The clients the device profile has always served. Its LIST leaves dot files out whatever the
    options, so the tree has none."""

    dot_files = False
    # The device ends MDTM replies with a bare LF; lftp then waits seconds for the rest of the
    # line before it takes it. It mirrors without MDTM (and without trying TLS), over PASV (EPSV
    # over IPv6), EPSV, and in active mode (PORT, EPRT over IPv6).
    lftp_settings = "set ftp:ssl-allow no; set ftp:use-mdtm no; "
    lftp_modes = {"pasv": "set ftp:prefer-epsv no; ", "epsv": "set ftp:prefer-epsv yes; ",
                  "active": "set ftp:passive-mode off; "}

    def test_ftplib_every_mode_and_family(self):
        data = os.urandom(300_000)
        for family, host in FAMILIES:
            for cls in (ftplib.FTP, ExtendedFTP):
                for passive in (True, False):
                    with self.subTest(family=family, cls=cls.__name__, passive=passive):
                        self.mark()
                        name = "py-%s-%s-%s.bin" % (cls.__name__, family, passive)
                        ftp = ftp_session(self.d.port, host, cls)
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
                        self.assertTrue(os.path.exists(self.served(name + ".moved")))
                        ftp.delete(name + ".moved")
                        self.assertFalse(os.path.exists(self.served(name + ".moved")))
                        ftp.quit()

    def test_ascii_type_converts_line_ends(self):
        with open(self.served("lines.txt"), "wb") as f:
            f.write(b"one\ntwo\nthree\n")
        ftp = ftp_session(self.d.port)
        ftp.sendcmd("TYPE A")
        conn = ftp.transfercmd("RETR lines.txt")
        raw = b""
        while chunk := conn.recv(4096):
            raw += chunk
        conn.close()
        self.assertEqual(ftp.voidresp(), "226 Closing data connection.")
        self.assertEqual(raw, b"one\r\ntwo\r\nthree\r\n")
        ftp.storlines("STOR up.txt", io.BytesIO(b"a\r\nb\r\n"))
        self.assertEqual(read_file(self.served("up.txt")), b"a\nb\n")
        ftp.quit()

    def test_curl_every_mode_and_family(self):
        curl = clients.binary("curl")
        src = os.path.join(self.tree, "one MiB.bin")
        modes = {"epsv": [], "pasv": ["--disable-epsv"], "eprt": ["-P", "-"], "port": ["-P", "-", "--disable-eprt"]}
        for family, host in FAMILIES:
            for mode, flags in modes.items():
                if mode == "port" and family == "IPv6":
                    continue  # PORT carries IPv4 addresses only
                with self.subTest(family=family, mode=mode):
                    self.mark()
                    name = "curl-%s-%s.bin" % (mode, family)
                    run = lambda *args: self.run_client([curl, "-sS", *flags, *args]).stdout  # noqa: E731
                    run("-T", src, self.url(host, name))
                    self.assertSameBytes(read_file(self.served(name)), read_file(src), "curl upload")
                    self.assertSameBytes(run(self.url(host, name)), read_file(src), "curl download")
                    self.assertIn(name.encode(), run(self.url(host)))
                    run("-Q", "RNFR " + name, "-Q", "RNTO " + name + ".x", self.url(host))
                    run("-Q", "DELE " + name + ".x", self.url(host))
                    self.assertFalse(os.path.exists(self.served(name + ".x")))

    def test_rclone_copy_both_ways(self):
        # A flat directory into one that exists: the device answers LIST of a missing directory
        # 150 and then 550, which rclone takes for a failure rather than for "not found".
        flat = self.local("flat")
        os.makedirs(flat)
        for name in TREE_FILES:
            if "/" not in name:
                shutil.copy2(os.path.join(self.tree, name), flat)
        for family, _ in FAMILIES:
            with self.subTest(family=family):
                self.mark()
                os.makedirs(self.served("rclone-" + family))
                self.rclone("copy", flat, "%s:rclone-%s" % (family, family))
                self.assertSameTree(flat, self.served("rclone-" + family), "the files rclone copy uploaded")
                down = self.local("rclone-down-" + family)
                self.rclone("copy", "%s:rclone-%s" % (family, family), down)
                self.assertSameTree(flat, down, "the files rclone copy downloaded")


if __name__ == "__main__":
    unittest.main()
