"""Listings of the standard profile: LIST and NLST with option words, dot files, directories and
name prefixes; MLSD and MLST facts as ftplib reads them; paths that cannot be listed refused before
any data connection, without the real path; and the device profile's listings left as they were."""

import os
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, ftp_session, logged_in, memory_idle, transfer  # noqa: E402

TREE = {"a.txt": b"alpha\n", "b.bin": b"\x00\x01", ".hidden": b"h\n", "ro.txt": b"r\n",
        "sub/x.txt": b"x\n", "sub/.dot": b"d\n", "my dir/in.txt": b"i\n",
        "crlf/n0": b"", "crlf/n1": b"", "crlf/n2": b""}
TOP = {"a.txt", "b.bin", "ro.txt", "sub", "my dir", "locked", "crlf"}


def make_tree(top):
    for name, data in TREE.items():
        os.makedirs(os.path.dirname(os.path.join(top, name)), exist_ok=True)
        with open(os.path.join(top, name), "wb") as f:
            f.write(data)
    os.makedirs(os.path.join(top, "sub", "deep"))
    os.makedirs(os.path.join(top, "locked"))
    os.chmod(os.path.join(top, "ro.txt"), 0o444)
    os.chmod(os.path.join(top, "locked"), 0o555)


def listed(c, verb):
    """The entry names of a listing that must succeed (the last field of LIST lines)."""
    replies, data = transfer(c, verb)
    assert replies.startswith(b"150 ") and replies.endswith(b"226 Closing data connection.\r\n"), replies
    lines = data.decode().splitlines()
    return {l.split(None, 8)[8] if verb.startswith("LIST") else l for l in lines}


class StandardListingTest(DaemonTestCase):
    daemon_kwargs = {"extra_platform": {"ftp.profile": "standard"}}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        make_tree(cls.d.flash)

    def test_options_dot_files_directories_and_prefixes(self):
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
        c.close()

    def test_unlistable_path_is_refused_before_any_data_connection(self):
        cases = [("LIST nope", b"550", b'"nope"'), ("NLST -a sub/none", b"550", b'"sub/none"'),
                 ("LIST missing/*.txt", b"550", b'"missing/*.txt"'), ("MLSD ../../nope", b"550", b'"../../nope"'),
                 ("MLSD a.txt", b"501", b'"a.txt"')]
        c = logged_in(self.d.port)
        for verb, code, echo in cases:
            with self.subTest(verb=verb):
                replies, _ = transfer(c, verb)
                self.assertTrue(replies.startswith(code + b" ") and echo in replies, replies)
                self.assertNotIn(self.d.dir.encode(), replies)
                self.assertEqual(listed(c, "NLST sub/*.txt"), {"sub/x.txt"})  # the session goes on
        c.close()
        tmp = os.path.join(self.d.tmpdir, "app", "ftps")
        self.assertEqual([n for n in os.listdir(tmp) if n.startswith(".ftptemp-")], [])
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())

    def check_facts(self, path, facts):
        st = os.stat(path)
        is_dir = os.path.isdir(path)
        self.assertEqual(facts["type"], "dir" if is_dir else "file")
        self.assertEqual(facts.get("size"), None if is_dir else str(st.st_size))
        self.assertEqual(facts["modify"], time.strftime("%Y%m%d%H%M%S", time.gmtime(st.st_mtime)))
        self.assertEqual(facts["unique"], "%xU%x" % (st.st_dev, st.st_ino))

    def test_mlsd_facts_match_the_files(self):
        perms = {"a.txt": "adfrw", "ro.txt": "dfr", "sub": "cdeflmp", "locked": "defl"}
        ftp = ftp_session(self.d.port)
        for sub in ("", "sub"):
            entries = dict(ftp.mlsd(sub))
            top = os.path.join(self.d.flash, sub)
            self.assertEqual(set(entries), set(os.listdir(top)))  # dot files, never "." and ".."
            for name, facts in entries.items():
                with self.subTest(name=name):
                    self.check_facts(os.path.join(top, name), facts)
                    if name in perms:
                        self.assertEqual(facts["perm"], perms[name])
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

    def test_mlst_of_a_file_and_of_a_missing_path(self):
        c = logged_in(self.d.port)
        for arg, real in (("a.txt", "a.txt"), ("sub/../sub", "sub"), ("../..", "")):
            with self.subTest(arg=arg):
                r = c.cmd("MLST " + arg).decode()
                head, line, end = r.split("\r\n")[:3]
                self.assertEqual((head, end), ("250-Listing " + arg, "250 End"))
                self.assertTrue(line.startswith(" ") and line.endswith("; " + arg), line)
                facts = dict(f.split("=", 1) for f in line[1:-len(arg) - 2].split(";"))
                self.check_facts(os.path.join(self.d.flash, real), facts)
        r = c.cmd("MLST nope")
        self.assertEqual(r, b'550 "nope": No such file or directory.\r\n')
        c.close()


class DeviceListingTest(DaemonTestCase):
    """The same commands in the device profile: options erase the argument, NLST names regular
    files only, a missing path is answered after the 150 with the real path, MLSD and MLST are not
    served."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        make_tree(cls.d.flash)

    def test_device_profile_unchanged(self):
        c = logged_in(self.d.port)
        for verb, names in (("LIST -a", TOP), ("LIST -la sub", TOP), ("LIST *.txt", TOP),
                            ("NLST", {"a.txt", "b.bin", "ro.txt"}), ("NLST sub", {"x.txt"})):
            with self.subTest(verb=verb):
                self.assertEqual(listed(c, verb), names)
        replies, _ = transfer(c, "LIST nope")
        self.assertEqual(replies, b'150 Opening ASCII mode data connection.\r\n550 "%s": '
                         b'No such file or directory.\r\n' % os.path.join(self.d.flash, "nope").encode())
        for verb in ("MLSD", "MLST a.txt"):
            self.assertEqual(c.cmd(verb), b"502 Command not implemented.\r\n")
        c.close()


if __name__ == "__main__":
    unittest.main()
