"""Explicit FTPS in the standard profile.

Real clients with their FTPS settings (lftp, curl, rclone, Python's ftplib) log in over TLS and
move a tree both ways over IPv4 and IPv6; a client that sends USER in clear text is refused before
its password leaves it. Hostile input (garbage instead of a ClientHello, a handshake cut short, a
plain-text or foreign data connection under PROT P, a flood of handshakes beside a download) gets a
clear reply or a closed connection, and the daemon's memory and descriptors return to where they
were. Also: require = all with
require_reuse = no, SIGHUP taking up a new certificate, a certificate that cannot be loaded
stopping start-up, and the device profile answering AUTH 502 whatever the platform file says."""

import ftplib
import hashlib
import io
import os
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import clients  # noqa: E402
from ftps_harness import Daemon, RawClient, has_ipv6, pasv_port, wait_until  # noqa: E402

USER, PASSWORD = "alice", "secret1"
FAMILIES = [("IPv4", "127.0.0.1")] + ([("IPv6", "::1")] if has_ipv6() else [])
TREE = {"zero.bin": 0, "one.bin": 1025, "nested/deeper/big.bin": 1 << 20, "with space/ü €.txt": 77}
CLIENT_TIMEOUT = 180


def make_certificate(directory, name, cn="localhost"):
    cert, key = os.path.join(directory, name + ".pem"), os.path.join(directory, name + ".key")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key,
                    "-out", cert, "-days", "2", "-subj", "/CN=" + cn], check=True, capture_output=True)
    return cert, key


def client_context():
    ctx = ssl.create_default_context()
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    return ctx


class ResumingFTP(ftplib.FTP_TLS):
    """ftplib whose protected data connections resume the control connection's TLS session, as
    lftp, curl and rclone do by themselves."""

    def ntransfercmd(self, cmd, rest=None):
        conn, size = ftplib.FTP.ntransfercmd(self, cmd, rest)
        if self._prot_p:
            conn = self.context.wrap_socket(conn, server_hostname=self.host, session=self.sock.session)
        return conn, size


def tls_session(port, host="127.0.0.1", cls=ResumingFTP):
    ftp = cls(context=client_context(), timeout=30)
    ftp.connect(host, port)
    ftp.auth()
    ftp.login(USER, PASSWORD)
    ftp.prot_p()
    return ftp


def bare_handshake(port):
    """AUTH TLS and a handshake, then the connection is closed; the served certificate's hash."""
    raw = socket.create_connection(("127.0.0.1", port), timeout=10)
    raw.recv(512)
    raw.sendall(b"AUTH TLS\r\n")
    raw.recv(512)
    with client_context().wrap_socket(raw) as s:
        return hashlib.sha256(s.getpeercert(binary_form=True)).hexdigest()


def ends(sock, timeout=10):
    """True when the peer closes the connection (after an alert, perhaps) within the time-out."""
    sock.settimeout(timeout)
    try:
        while sock.recv(4096):
            pass
        return True
    except ConnectionResetError:
        return True
    except socket.timeout:
        return False


def snapshot(root):
    out = {}
    for dirpath, _, files in os.walk(root):
        for name in files:
            path = os.path.join(dirpath, name)
            with open(path, "rb") as f:
                out[os.path.relpath(path, root)] = hashlib.sha256(f.read()).hexdigest()
    return out


class TlsDaemonCase(unittest.TestCase):
    tls_settings = {}

    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="ftps-tls")
        cls.addClassCleanup(shutil.rmtree, cls.work, True)
        cls.cert, cls.key = make_certificate(cls.work, "server")
        extra = {"ftp.profile": "standard", "tls.certificate": cls.cert, "tls.key": cls.key}
        extra.update(cls.tls_settings)
        cls.d = Daemon(extra_platform=extra, startup=["ftp-server username alice password secret1",
                                                      "ftp-server max-user-connect 20"])
        # Also after a failed start: the daemon's exit status is checked and its files go.
        cls.addClassCleanup(cls.d.stop_checked)
        cls.d.start()
        assert cls.d.cli("debug ftp-server pro")[0] == 0

    def run_client(self, argv, **kw):
        try:
            r = subprocess.run(argv, capture_output=True, timeout=CLIENT_TIMEOUT, **kw)
        except subprocess.TimeoutExpired:
            self.fail("%s did not finish\n%s" % (" ".join(argv), self.d.logtext()[-4000:]))
        if r.returncode != 0:
            self.fail("%s: exit %d\n%s\n%s\n%s" % (" ".join(argv), r.returncode, r.stdout.decode(errors="replace")[-2000:],
                                                  r.stderr.decode(errors="replace")[-2000:], self.d.logtext()[-4000:]))
        return r

    def tls_in_use(self):
        return self.d.memory_in_use().get("TLS")

    def settled(self, fds, tls):
        """Descriptors and TLS allocations back where they were once the sessions have ended."""
        ok = wait_until(lambda: self.d.descriptors() == fds and self.tls_in_use() == tls, timeout=20)
        self.assertTrue(ok, "descriptors %d (was %d), TLS in use %s (was %s)"
                        % (self.d.descriptors(), fds, self.tls_in_use(), tls))
        memory = {k: v for k, v in self.d.memory_in_use().items() if k != "TLS"}
        self.assertEqual([k for k, v in memory.items() if v != 0], [], memory)


class RequiredLogin(TlsDaemonCase):
    """The defaults with a certificate: require = login, require_reuse = yes."""

    def baseline(self):
        # The library sets up its tables on first use, some only once handshakes overlap: a
        # protected session with a data connection and a burst of handshakes come first. A session
        # thread's own TLS state goes when the thread has ended.
        ftp = tls_session(self.d.port)
        ftp.nlst()
        ftp.quit()
        burst = [threading.Thread(target=lambda: [bare_handshake(self.d.port) for _ in range(5)]) for _ in range(4)]
        for t in burst:
            t.start()
        for t in burst:
            t.join()
        time.sleep(1)
        return self.d.descriptors(), self.tls_in_use()

    def test_clear_text_login_is_refused_before_the_password(self):
        c = RawClient(self.d.port)
        c.reply()
        feat = c.cmd("FEAT").decode()
        for line in (" AUTH TLS\r\n", " PBSZ\r\n", " PROT\r\n"):
            self.assertIn(line, feat)
        self.assertEqual(c.cmd("USER alice"), b"530 Log in over TLS: send AUTH TLS first.\r\n")
        self.assertEqual(c.cmd("PBSZ 0"), b"503 PBSZ needs AUTH TLS first.\r\n")
        c.close()
        # A stock client stops at the refusal: its password never crosses the network.
        mark = len(self.d.logtext())
        r = subprocess.run([clients.binary("curl"), "-sS", "ftp://%s:%s@127.0.0.1:%d/" % (USER, "topsecret9", self.d.port)],
                           capture_output=True, timeout=60)
        self.assertNotEqual(r.returncode, 0)
        log = self.d.logtext()[mark:]
        self.assertIn("(RECV)   USER alice", log)
        self.assertNotIn("topsecret9", log)

    def test_real_clients_move_a_tree_both_ways(self):
        tree = os.path.join(self.work, "tree")
        for rel, size in TREE.items():
            os.makedirs(os.path.dirname(os.path.join(tree, rel)), exist_ok=True)
            with open(os.path.join(tree, rel), "wb") as f:
                f.write(os.urandom(size))
        want = snapshot(tree)
        lftp_tls = "set ssl:verify-certificate no; set ftp:ssl-force true; "
        for family, host in FAMILIES:
            url_host = "[%s]" % host if ":" in host else host
            with self.subTest(client="lftp", family=family):
                remote, down = "lftp-" + family, os.path.join(self.work, "lftp-down-" + family)
                self.run_client([clients.binary("lftp"), "-c", "%sopen -u %s,%s ftp://%s:%d; mirror -R %s %s; mirror %s %s"
                                 % (lftp_tls, USER, PASSWORD, url_host, self.d.port, tree, remote, remote, down)])
                self.assertEqual(snapshot(os.path.join(self.d.flash, remote)), want)
                self.assertEqual(snapshot(down), want)
            with self.subTest(client="curl", family=family):
                src = os.path.join(tree, "nested/deeper/big.bin")
                url = "ftp://%s:%s@%s:%d/curl-%s.bin" % (USER, PASSWORD, url_host, self.d.port, family)
                self.run_client([clients.binary("curl"), "-sS", "-k", "--ssl-reqd", "-T", src, url])
                got = self.run_client([clients.binary("curl"), "-sS", "-k", "--ssl-reqd", url]).stdout
                with open(src, "rb") as f:
                    self.assertEqual(got, f.read())
                listing = self.run_client([clients.binary("curl"), "-sS", "-k", "--ssl-reqd", url.rsplit("/", 1)[0] + "/"])
                self.assertIn(("curl-%s.bin" % family).encode(), listing.stdout)
            with self.subTest(client="rclone", family=family):
                conf = os.path.join(self.work, "rclone.conf")
                obscured = self.run_client([clients.binary("rclone"), "obscure", PASSWORD]).stdout.decode().strip()
                with open(conf, "w") as f:
                    f.write("[s]\ntype = ftp\nhost = %s\nport = %d\nuser = %s\npass = %s\nexplicit_tls = true\n"
                            "no_check_certificate = true\n" % (url_host, self.d.port, USER, obscured))
                env = dict(os.environ, RCLONE_CONFIG=conf, HOME=self.work)
                down = os.path.join(self.work, "rclone-down-" + family)
                self.run_client([clients.binary("rclone"), "copy", tree, "s:rclone-" + family], env=env)
                self.run_client([clients.binary("rclone"), "copy", "s:rclone-" + family, down], env=env)
                self.assertEqual(snapshot(os.path.join(self.d.flash, "rclone-" + family)), want)
                self.assertEqual(snapshot(down), want)
            with self.subTest(client="ftplib", family=family):
                ftp = tls_session(self.d.port, host)
                data = os.urandom(300_000)
                ftp.storbinary("STOR py-%s.bin" % family, io.BytesIO(data))
                got = io.BytesIO()
                ftp.retrbinary("RETR py-%s.bin" % family, got.write)
                self.assertEqual(got.getvalue(), data)
                names = [name for name, _ in ftp.mlsd()]
                self.assertIn("py-%s.bin" % family, names)
                ftp.set_pasv(False)
                self.assertIn("py-%s.bin" % family, ftp.nlst())
                ftp.quit()

    def test_hostile_input_leaves_the_daemon_as_it_was(self):
        fds, tls = self.baseline()
        with self.subTest(case="garbage instead of a ClientHello"):
            c = RawClient(self.d.port)
            c.reply()
            self.assertEqual(c.cmd("AUTH TLS"), b"234 AUTH TLS OK.\r\n")
            c.send(b"GET / HTTP/1.1\r\n\r\n" + os.urandom(300))
            self.assertTrue(ends(c.sock))
            c.close()
        with self.subTest(case="handshake cut half-way"):
            raw = socket.create_connection(("127.0.0.1", self.d.port), timeout=10)
            raw.recv(512)
            raw.sendall(b"AUTH TLS\r\n")
            self.assertTrue(raw.recv(512).startswith(b"234"))
            hello = ssl.MemoryBIO(), ssl.MemoryBIO()
            obj = client_context().wrap_bio(*hello)
            try:
                obj.do_handshake()
            except ssl.SSLWantReadError:
                pass
            first = hello[1].read()
            raw.sendall(first[:len(first) // 2])
            raw.close()
        with self.subTest(case="plain data connection under PROT P"):
            ftp = tls_session(self.d.port)
            ftp.sock.settimeout(30)
            port = pasv_port(ftp.sendcmd("PASV").encode())
            ftp.putcmd("LIST")
            plain = socket.create_connection(("127.0.0.1", port), timeout=10)
            self.assertEqual(ftp.getresp()[:3], "150")
            plain.sendall(b"not a handshake\r\n" * 20)
            with self.assertRaises(ftplib.error_temp) as cm:
                ftp.getresp()
            self.assertTrue(str(cm.exception).startswith("425"), cm.exception)
            plain.close()
            self.assertEqual(ftp.voidcmd("NOOP")[:3], "200")
            ftp.quit()
        with self.subTest(case="data connection that does not resume the session"):
            ftp = tls_session(self.d.port, cls=ftplib.FTP_TLS)
            with self.assertRaises((ftplib.error_temp, ssl.SSLError, OSError)):
                ftp.nlst()
            ftp.sock.settimeout(10)
            # The refusal is on the control connection whatever the client made of its side.
            try:
                ftp.voidcmd("NOOP")
            except ftplib.error_temp:
                self.assertEqual(ftp.voidcmd("NOOP")[:3], "200")
            ftp.quit()
        with self.subTest(case="a handshake flood beside a download"):
            data = os.urandom(8 << 20)
            self.d.put("flood.bin", data)
            stop = threading.Event()

            def flood():
                while not stop.is_set():
                    try:
                        bare_handshake(self.d.port)
                    except OSError:
                        pass

            threads = [threading.Thread(target=flood) for _ in range(12)]
            for t in threads:
                t.start()
            try:
                ftp = tls_session(self.d.port)
                got = io.BytesIO()
                ftp.retrbinary("RETR flood.bin", got.write)
                ftp.quit()
            finally:
                stop.set()
                for t in threads:
                    t.join()
            self.assertEqual(got.getvalue(), data)
        with self.subTest(case="the daemon goes on"):
            tls_session(self.d.port).quit()
        self.settled(fds, tls)

    def test_sighup_takes_up_a_new_certificate(self):
        before = bare_handshake(self.d.port)
        cert, key = make_certificate(self.work, "renewed", cn="renewed")
        shutil.copy(cert, self.cert)
        shutil.copy(key, self.key)
        self.d.proc.send_signal(signal.SIGHUP)
        self.assertTrue(wait_until(lambda: bare_handshake(self.d.port) != before, timeout=10))
        self.assertIsNone(self.d.proc.poll())


class RequiredAll(TlsDaemonCase):
    """require = all with require_reuse = no: stock ftplib, whose data connections start new TLS
    sessions, works; clear data connections do not."""

    tls_settings = {"tls.require": "all", "tls.require_reuse": "no"}

    def test_every_data_connection_protected(self):
        ftp = ftplib.FTP_TLS(context=client_context(), timeout=30)
        ftp.connect("127.0.0.1", self.d.port)
        ftp.auth()
        ftp.login(USER, PASSWORD)
        ftp.voidcmd("PBSZ 0")
        with self.assertRaises(ftplib.error_perm) as cm:
            ftp.voidcmd("PROT C")
        self.assertEqual(str(cm.exception), "534 PROT C refused: data connections must be protected.")
        with self.assertRaises(ftplib.error_perm) as cm:
            ftp.nlst()
        self.assertTrue(str(cm.exception).startswith("521"), cm.exception)
        ftp.prot_p()
        ftp.storbinary("STOR stock.bin", io.BytesIO(b"x" * 70000))
        self.assertEqual(ftp.nlst(), ["stock.bin"])
        ftp.quit()


class StartAndProfiles(unittest.TestCase):
    def test_unloadable_key_stops_start_up(self):
        work = tempfile.mkdtemp(prefix="ftps-tls")
        try:
            cert, _ = make_certificate(work, "server")
            d = Daemon(extra_platform={"ftp.profile": "standard", "tls.certificate": cert,
                                       "tls.key": os.path.join(work, "missing.key")})
            try:
                d.start(wait=False)
                d.proc.wait(timeout=30)
                err = d.proc.stderr.read().decode()
                self.assertIn("platform.conf:", err)
                self.assertIn(": key 'key': ", err)
                self.assertIn("missing.key", err)
            finally:
                d.cleanup()
        finally:
            shutil.rmtree(work, ignore_errors=True)

    def test_device_profile_answers_auth_502(self):
        work = tempfile.mkdtemp(prefix="ftps-tls")
        try:
            cert, key = make_certificate(work, "server")
            d = Daemon(extra_platform={"tls.certificate": cert, "tls.key": key}).start()
            try:
                c = RawClient(d.port)
                c.reply()
                self.assertEqual(c.cmd("AUTH TLS"), b"502 Command not implemented.\r\n")
                self.assertNotIn("TLS", d.memory_in_use())
                c.close()
            finally:
                d.stop_checked()
        finally:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    unittest.main()
