"""Files and transfers with real clients: Python's ftplib, curl, lftp and wget upload, download
(byte-identical), list, rename and delete, in passive mode (PASV and EPSV) and active mode
(PORT and EPRT), over IPv4 and IPv6."""

import ftplib
import io
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, ftp_session, has_ipv6, memory_idle  # noqa: E402

USER, PASSWORD = "alice", "secret1"
HOSTS = ["127.0.0.1"] + (["::1"] if has_ipv6() else [])


class ExtendedFTP(ftplib.FTP):
    """ftplib that uses EPSV and EPRT on IPv4 too."""

    def makepasv(self):
        _, port = ftplib.parse229(self.sendcmd("EPSV"), self.sock.getpeername())
        return self.sock.getpeername()[0], port

    def makeport(self):
        sock = socket.create_server(("", 0), family=self.af, backlog=1)
        port = sock.getsockname()[1]
        host = self.sock.getsockname()[0]
        self.sendeprt(host, port)
        if self.timeout is not ftplib._GLOBAL_DEFAULT_TIMEOUT:
            sock.settimeout(self.timeout)
        return sock


class TransferTest(DaemonTestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="ftps-client")

    def tearDown(self):
        shutil.rmtree(self.work, ignore_errors=True)

    def served(self, name):
        return os.path.join(self.d.flash, name)

    def url(self, host, path=""):
        h = "[%s]" % host if ":" in host else host
        return "ftp://%s:%s@%s:%d/%s" % (USER, PASSWORD, h, self.d.port, path)

    def roundtrip_ftplib(self, cls, host, passive):
        data = os.urandom(300_000)
        name = "py-%s-%s-%s.bin" % (cls.__name__, host.replace(":", "_"), passive)
        ftp = ftp_session(self.d.port, host, cls)
        ftp.set_pasv(passive)
        ftp.storbinary("STOR " + name, io.BytesIO(data))
        with open(self.served(name), "rb") as f:
            self.assertEqual(f.read(), data)
        got = io.BytesIO()
        ftp.retrbinary("RETR " + name, got.write)
        self.assertEqual(got.getvalue(), data)
        self.assertIn(name, ftp.nlst())
        listing = []
        ftp.retrlines("LIST", listing.append)
        self.assertTrue(any(l.endswith(" " + name) and l.startswith("-rw") for l in listing), listing)
        ftp.rename(name, name + ".moved")
        self.assertTrue(os.path.exists(self.served(name + ".moved")))
        ftp.delete(name + ".moved")
        self.assertFalse(os.path.exists(self.served(name + ".moved")))
        ftp.quit()

    def test_ftplib_every_mode_and_family(self):
        for host in HOSTS:
            for cls in (ftplib.FTP, ExtendedFTP):
                for passive in (True, False):
                    with self.subTest(host=host, cls=cls.__name__, passive=passive):
                        self.roundtrip_ftplib(cls, host, passive)

    def test_ascii_type_converts_line_ends(self):
        with open(self.served("lines.txt"), "wb") as f:
            f.write(b"one\ntwo\nthree\n")
        ftp = ftp_session(self.d.port)
        raw = []
        ftp.sendcmd("TYPE A")
        conn = ftp.transfercmd("RETR lines.txt")
        while chunk := conn.recv(4096):
            raw.append(chunk)
        conn.close()
        self.assertEqual(ftp.voidresp(), "226 Closing data connection.")
        self.assertEqual(b"".join(raw), b"one\r\ntwo\r\nthree\r\n")
        ftp.storlines("STOR up.txt", io.BytesIO(b"a\r\nb\r\n"))
        with open(self.served("up.txt"), "rb") as f:
            self.assertEqual(f.read(), b"a\nb\n")
        ftp.quit()

    def curl(self, *args):
        r = subprocess.run(["curl", "-sS", "--max-time", "60", *args], capture_output=True, timeout=90)
        self.assertEqual(r.returncode, 0, r.stderr.decode(errors="replace"))
        return r.stdout

    def test_curl_every_mode_and_family(self):
        modes = {"epsv": [], "pasv": ["--disable-epsv"], "eprt": ["-P", "-"],
                 "port": ["-P", "-", "--disable-eprt"]}
        for host in HOSTS:
            for mode, flags in modes.items():
                if mode == "port" and ":" in host:
                    continue  # PORT carries IPv4 addresses only
                with self.subTest(host=host, mode=mode):
                    data = os.urandom(200_000)
                    name = "curl-%s-%s.bin" % (mode, host.replace(":", "_"))
                    src = os.path.join(self.work, name)
                    with open(src, "wb") as f:
                        f.write(data)
                    self.curl(*flags, "-T", src, self.url(host, name))
                    self.assertEqual(self.curl(*flags, self.url(host, name)), data)
                    self.assertIn(name.encode(), self.curl(*flags, self.url(host)))
                    self.curl(*flags, "-Q", "RNFR " + name, "-Q", "RNTO " + name + ".x", self.url(host))
                    self.curl(*flags, "-Q", "DELE " + name + ".x", self.url(host))
                    self.assertFalse(os.path.exists(self.served(name + ".x")))

    def lftp(self, host, script):
        h = "[%s]" % host if ":" in host else host
        cmd = ("set net:max-retries 1; set net:timeout 20; set xfer:clobber on; %s; "
               "open -u %s,%s ftp://%s:%d; %s") % ("", USER, PASSWORD, h, self.d.port, script)
        r = subprocess.run(["lftp", "-c", cmd], capture_output=True, timeout=120, cwd=self.work)
        self.assertEqual(r.returncode, 0, r.stdout.decode() + r.stderr.decode())
        return r.stdout.decode(errors="replace")

    @unittest.skipUnless(shutil.which("lftp"), "lftp not installed")
    def test_lftp_every_mode_and_family(self):
        modes = {"pasv": "set ftp:passive-mode on; set ftp:prefer-epsv no",
                 "epsv": "set ftp:passive-mode on; set ftp:prefer-epsv yes",
                 "active": "set ftp:passive-mode off"}
        for host in HOSTS:
            for mode, settings in modes.items():
                with self.subTest(host=host, mode=mode):
                    data = os.urandom(150_000)
                    name = "lftp-%s-%s.bin" % (mode, host.replace(":", "_"))
                    with open(os.path.join(self.work, name), "wb") as f:
                        f.write(data)
                    out = self.lftp(host, "%s; put %s; ls; mv %s %s.moved; get %s.moved -o back.bin; rm %s.moved"
                                    % (settings, name, name, name, name, name))
                    self.assertIn(name, out)
                    with open(os.path.join(self.work, "back.bin"), "rb") as f:
                        self.assertEqual(f.read(), data)
                    self.assertFalse(os.path.exists(self.served(name + ".moved")))

    def test_wget_downloads_in_both_modes(self):
        data = os.urandom(250_000)
        with open(self.served("wget.bin"), "wb") as f:
            f.write(data)
        for host in HOSTS:
            for flags in ([], ["--no-passive-ftp"]):
                with self.subTest(host=host, flags=flags):
                    out = os.path.join(self.work, "w.bin")
                    r = subprocess.run(["wget", "-q", "-T", "30", "-t", "1", *flags, "-O", out,
                                        self.url(host, "wget.bin")], capture_output=True, timeout=90)
                    self.assertEqual(r.returncode, 0, r.stderr.decode(errors="replace"))
                    with open(out, "rb") as f:
                        self.assertEqual(f.read(), data)

    def test_no_temporary_files_and_memory_back_to_zero(self):
        ftp = ftp_session(self.d.port)
        for _ in range(3):
            ftp.nlst()
            ftp.retrlines("LIST", lambda line: None)
        ftp.quit()
        tmp = os.path.join(self.d.tmpdir, "app", "ftps")
        self.assertEqual([n for n in os.listdir(tmp) if n.startswith(".ftptemp-")], [])
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())


if __name__ == "__main__":
    unittest.main()
