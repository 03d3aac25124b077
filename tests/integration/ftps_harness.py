"""Integration harness: starts the real daemon with its own TMPDIR, platform file, startup
configuration and free control port, and drives it over sockets and ftps-cli."""

import ftplib
import hashlib
import os
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import tempfile
import time
import unittest

BUILD_DIR = os.environ.get(
    "FTPS_BUILD_DIR",
    os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "build"))
DAEMON = os.path.join(BUILD_DIR, "ftp_server.elf")
CLI = os.path.join(BUILD_DIR, "ftps-cli")
SANITIZED = bool(os.environ.get("FTPS_SANITIZE"))
# Generous waits: sanitizer builds start and run several times slower.
START_WAIT = 30 if SANITIZED else 10
# The rows of show ftp-server memory, in the order of the categories' numbers.
MEMORY_ROWS = ["INIT", "TMP MALLOC", "PCRED NAME", "PCRED PWD", "PCRED MSG", "PCRED DIR", "BUF", "CHANG BUF",
               "WHOLE BUF", "STRING", "DATA BUF", "OUTPATH", "USER CNT", "INFO", "EPOLL"]


def free_port():
    """A TCP port free on both families (the daemon binds the any-address of each)."""
    for _ in range(50):
        with socket.socket(socket.AF_INET) as s4, socket.socket(socket.AF_INET6) as s6:
            s4.bind(("0.0.0.0", 0))
            s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
            try:
                s6.bind(("::", s4.getsockname()[1]))
                return s4.getsockname()[1]
            except OSError:
                pass
    raise RuntimeError("no free port")


def listening(port):
    """True when something listens on the TCP port over IPv4, seen without connecting to it."""
    with open("/proc/net/tcp") as f:
        return any(int(fields[1].rsplit(":", 1)[1], 16) == port and fields[3] == "0A"
                   for fields in map(str.split, f.readlines()[1:]))


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def has_ipv6():
    try:
        with socket.socket(socket.AF_INET6) as s:
            s.bind(("::1", 0))
        return True
    except OSError:
        return False


class Daemon:
    """One daemon process in a private directory.

    startup: lines of the startup configuration (default: one user); enable: whether it enables the
    server; extra_platform: extra "section.key": value pairs of the platform file; tls: a
    self-signed certificate of its own (cert, key) named in the [tls] section."""

    def __init__(self, startup=None, enable=True, extra_platform=None, user_database=None, topdir="flash:/",
                 tls=False):
        # A short TMPDIR: the daemon's socket paths must fit 64 bytes.
        self.dir = tempfile.mkdtemp(prefix="ftps", dir="/tmp")
        self.tmpdir = os.path.join(self.dir, "t")
        self.flash = os.path.join(self.dir, "flash")
        os.makedirs(self.tmpdir)
        os.makedirs(self.flash)
        self.port = free_port()
        self.log = os.path.join(self.dir, "daemon.log")
        self.platform = os.path.join(self.dir, "platform.conf")
        self.startup = os.path.join(self.dir, "startup.conf")
        self.proc = None
        self.sessions = []
        lines = []
        if topdir:
            lines.append("ftp-server topdir %s" % topdir)
        lines += startup if startup is not None else ["ftp-server username alice password secret1"]
        if enable:
            lines.append("ftp-server enable")
        with open(self.startup, "w") as f:
            f.write("\n".join(lines) + "\n")
        sections = {
            "device": {"product_name": "TESTSW"},
            "ftp": {"control_port": str(self.port)},
            "storage": {"flash": self.flash},
            "cli": {"startup_config": self.startup},
            "log": {"syslog": "no", "file": self.log, "stderr": "no"},
            "aaa": {},
            # The advisory password policy would comment on the tests' short passwords.
            "security": {"pwquality": "minlen=6 dictcheck=0"},
        }
        if user_database is not None:
            db = os.path.join(self.dir, "users.ini")
            with open(db, "w") as f:
                f.write(user_database)
            sections["aaa"]["user_database"] = db
        if tls:
            self.cert, self.key = make_certificate(self.dir, "server")
            sections["tls"] = {"certificate": self.cert, "key": self.key}
        for key, value in (extra_platform or {}).items():
            section, name = key.split(".", 1)
            sections.setdefault(section, {})[name] = value
        with open(self.platform, "w") as f:
            for section, keys in sections.items():
                f.write("[%s]\n" % section)
                for k, v in keys.items():
                    f.write("%s = %s\n" % (k, v))
        self.enabled = enable

    def env(self):
        env = dict(os.environ)
        env["TMPDIR"] = self.tmpdir
        env["FTPS_PLATFORM"] = self.platform
        env.pop("NOTIFY_SOCKET", None)
        if SANITIZED:
            # A sanitizer report must fail the test: ASan and UBSan end the daemon at the first
            # report with status 1, TSan ends it with status 66 at exit; every test checks the
            # exit status. Suppressions cover third-party libraries only.
            supp = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "sanitizers")
            env.setdefault("ASAN_OPTIONS", "halt_on_error=1:exitcode=1:detect_leaks=1")
            env.setdefault("UBSAN_OPTIONS", "halt_on_error=1:print_stacktrace=1")
            env.setdefault("LSAN_OPTIONS", "suppressions=" + os.path.join(supp, "lsan.supp"))
            env.setdefault("TSAN_OPTIONS", "halt_on_error=0:exitcode=66:suppressions=" +
                           os.path.join(supp, "tsan.supp"))
        return env

    def start(self, wait=True, env=None, program=DAEMON):
        self.proc = subprocess.Popen([program], env=env or self.env(),
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if wait:
            self.wait_ready()
        return self

    def wait_ready(self):
        deadline = time.time() + START_WAIT
        while time.time() < deadline:
            if self.proc.poll() is not None:
                out, err = self.proc.communicate()
                raise AssertionError("daemon exited early: %d %s" % (self.proc.returncode, err.decode()))
            # Seen without connecting: a probe session would take allocations of its own (and move
            # an injected failure).
            if self.cli_ok() and (not self.enabled or listening(self.port)):
                return
            time.sleep(0.1)
        raise AssertionError("daemon not ready")

    def cli_ok(self):
        try:
            rc, _ = self.cli("show ftp-server memory", timeout=5)
            return rc == 0
        except subprocess.TimeoutExpired:
            return False

    def port_open(self, family=socket.AF_INET):
        host = "127.0.0.1" if family == socket.AF_INET else "::1"
        try:
            with socket.create_connection((host, self.port), timeout=1):
                return True
        except OSError:
            return False

    def cli(self, *lines, timeout=30):
        args = [CLI]
        for line in lines:
            args += ["-c", line]
        r = subprocess.run(args, env=self.env(), capture_output=True, timeout=timeout)
        return r.returncode, r.stdout.decode(errors="replace") + r.stderr.decode(errors="replace")

    def keymsg(self):
        return (read_file(os.path.join(self.tmpdir, "app", "ftps", ".init_msg.txt")) or b"").decode(errors="replace")

    def logtext(self):
        return (read_file(self.log) or b"").decode(errors="replace")

    def put(self, rel, data=b""):
        """Writes a file below the flash directory (parents made); returns its path."""
        path = os.path.join(self.flash, rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def many(self, rel, n=40000):
        """A directory of n empty files with long names: its listing is far larger than any socket buffer."""
        os.makedirs(os.path.join(self.flash, rel))
        for i in range(n):
            open(os.path.join(self.flash, rel, "%05d-%s" % (i, "n" * 120)), "w").close()

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.proc.pid))

    def listing_temporaries(self):
        return [n for n in os.listdir(os.path.join(self.tmpdir, "app", "ftps")) if n.startswith(".ftptemp-")]

    def memory_rows(self):
        """Category name -> (failed, allocs, frees, in use), from show ftp-server memory."""
        rows = {}
        for line in self.cli("show ftp-server memory")[1].splitlines():
            parts = line.split()
            if len(parts) >= 5 and all(p.isdigit() for p in parts[-4:]):
                rows[" ".join(parts[:-4])] = tuple(int(p) for p in parts[-4:])
        return rows

    def memory_in_use(self):
        return {name: row[3] for name, row in self.memory_rows().items()}

    def attempt(self, user, password):
        """A new session and its replies to USER and PASS (RawClient.pass_replies); the session
        stays open until the daemon is stopped."""
        c = RawClient(self.port)
        self.sessions.append(c)
        return c, c.pass_replies(user, password)

    def stop(self, sig=signal.SIGTERM):
        for c in self.sessions:
            c.close()
        self.sessions = []
        if self.proc is None:
            return None
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
        # Read the output while waiting: a daemon that writes much (sanitizer reports) at exit
        # would otherwise block on a full pipe and be taken for hung.
        try:
            out, err = self.proc.communicate(timeout=START_WAIT)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            out, err = self.proc.communicate()
        self.stderr = err.decode(errors="replace")
        rc = self.proc.returncode
        self.proc = None
        return rc

    def cleanup(self):
        self.stop()
        shutil.rmtree(self.dir, ignore_errors=True)

    def stop_checked(self):
        """Stops and removes the daemon; a non-zero exit (a crash, a sanitizer report) fails."""
        rc = self.stop()
        stderr = getattr(self, "stderr", "")
        self.cleanup()
        if rc != 0:
            raise AssertionError("daemon exit status %s: %s" % (rc, stderr[-4000:]))


class DaemonTestCase(unittest.TestCase):
    """Starts one daemon per test case class unless a test makes its own."""

    daemon_kwargs = {}

    @classmethod
    def setUpClass(cls):
        cls.d = Daemon(**cls.daemon_kwargs).start()

    @classmethod
    def tearDownClass(cls):
        cls.d.stop_checked()


def read_file(path):
    """The file's bytes, or None when it does not exist."""
    try:
        with open(path, "rb") as f:
            return f.read()
    except FileNotFoundError:
        return None


def wait_until(predicate, timeout=10.0, step=0.05):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if predicate():
            return True
        time.sleep(step)
    return predicate()


class BackEnd:
    """A back-end server (RADIUS, trap receiver) in the foreground in a private directory, its
    output in a file; ready once that output shows the ready text."""

    def __init__(self, prefix, files, argv, ready, env=None):
        self.dir = tempfile.mkdtemp(prefix=prefix)
        self.port = free_udp_port()
        for name, text in files.items():
            with open(os.path.join(self.dir, name), "w") as f:
                f.write(text.format(dir=self.dir, port=self.port))
        self.out = open(os.path.join(self.dir, "out.log"), "w+")
        argv = [a.format(dir=self.dir, port=self.port) for a in argv]
        env = dict(os.environ, **{k: v.format(dir=self.dir) for k, v in (env or {}).items()})
        self.proc = subprocess.Popen(argv, stdout=self.out, stderr=subprocess.STDOUT, env=env)
        if not wait_until(lambda: ready in self.output() or self.proc.poll() is not None, timeout=20) \
                or self.proc.poll() is not None:
            text = self.output()
            self.stop()
            raise AssertionError("%s not ready: %s" % (argv[0], text))

    def output(self):
        self.out.flush()
        with open(self.out.name, errors="replace") as f:
            return f.read()

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.out.close()
        shutil.rmtree(self.dir, ignore_errors=True)


class RawClient:
    """A control connection read reply by reply, for exact texts."""

    def __init__(self, port, host="127.0.0.1", timeout=10):
        self.sock = socket.create_connection((host, port), timeout=timeout)
        self.buf = b""

    def recv_line(self):
        while b"\n" not in self.buf:
            chunk = self.sock.recv(4096)
            if not chunk:
                raise EOFError("connection closed")
            self.buf += chunk
        line, self.buf = self.buf.split(b"\n", 1)
        return line + b"\n"

    def reply(self):
        """One whole reply (multi-line replies up to their last line), as bytes."""
        first = self.recv_line()
        out = first
        if len(first) >= 4 and first[3:4] == b"-":
            code = first[:3]
            while True:
                line = self.recv_line()
                out += line
                if line[:3] == code and line[3:4] == b" ":
                    break
        return out

    def send(self, text):
        self.sock.sendall(text.encode() if isinstance(text, str) else text)

    def cmd(self, text):
        self.send(text + "\r\n")
        return self.reply()

    def closed(self, timeout=5):
        """True when the server closes the connection without sending anything more."""
        self.sock.settimeout(timeout)
        try:
            data = self.sock.recv(1)
            return data == b""
        except (ConnectionResetError, socket.timeout):
            return False

    def close(self):
        self.sock.close()

    def login(self, user="alice", password="secret1"):
        self.reply()  # greeting
        assert self.cmd("USER " + user).startswith(b"331"), "USER refused"
        r = self.cmd("PASS " + password)
        assert r.startswith(b"230"), r
        return r

    def pass_replies(self, user, password):
        """After the greeting: every reply to PASS (a refusal may send more than one: NOOP, which
        is not served, marks where they end; its answer also means a session that logged in has
        counted itself online)."""
        self.reply()
        assert self.cmd("USER " + user).startswith(b"331"), "USER refused"
        replies = [self.cmd("PASS " + password)]
        self.send("NOOP\r\n")
        while not replies[-1].startswith(b"502"):
            replies.append(self.reply())
        return replies[:-1]


def greeted(port, **kw):
    """A control connection (RawClient arguments) whose greeting has been read."""
    c = RawClient(port, **kw)
    c.reply()
    return c


def logged_in(port, host="127.0.0.1"):
    c = RawClient(port, host)
    c.login()
    return c


def ftp_session(port, host="127.0.0.1", cls=ftplib.FTP, user="alice", password="secret1"):
    """An ftplib client logged in (as the default user unless told); an FTP_TLS class logs in over
    TLS and protects its data connections."""
    tls = issubclass(cls, ftplib.FTP_TLS)
    ftp = cls(context=client_context()) if tls else cls()
    ftp.connect(host, port, timeout=60)
    ftp.login(user, password)
    if tls:
        ftp.prot_p()
    return ftp


def expect(reply, start):
    assert reply.startswith(start), reply


def pasv_port(reply):
    """The port a 227 reply names."""
    expect(reply, b"227 ")
    nums = reply[reply.index(b"(") + 1:reply.index(b")")].split(b",")
    return int(nums[4]) * 256 + int(nums[5])


def pasv_connect(c, rcvbuf=None):
    """PASV on a RawClient and the data connection to the port it names (with a small receive
    buffer when asked, for a client that stops reading)."""
    port = pasv_port(c.cmd("PASV"))
    s = socket.socket()
    s.settimeout(20)
    if rcvbuf:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
    s.connect(("127.0.0.1", port))
    return s


def reset(sock):
    """Closes with a reset, as a client that vanishes does."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def transfer(c, verb, upload=None):
    """PASV, verb and its data: (the replies from the first on as one byte string, the data read).
    A client that sends or reads in vain (the server gave up) just goes on to the replies."""
    data = pasv_connect(c)
    c.send(verb + "\r\n")
    first = c.reply()
    got = bytearray()
    if first.startswith(b"150"):
        data.settimeout(20)
        try:
            if upload is not None:
                data.sendall(upload)
            else:
                while chunk := data.recv(65536):
                    got += chunk
        except OSError:
            pass
        data.close()
        return first + c.reply(), bytes(got)
    data.close()
    return first, b""


def start_upload(c, name, first=b"", type_cmd="TYPE I"):
    """The type, PASV and STOR name answered 150; sends first; returns the data connection."""
    c.cmd(type_cmd)
    data = pasv_connect(c)
    c.send("STOR %s\r\n" % name)
    r = c.reply()
    assert r.startswith(b"150 "), r
    data.sendall(first)
    return data


def whole_session(c, name, content, tag=""):
    """Goes on with a logged-in RawClient up to QUIT: TYPE I, LIST and NLST naming the file, RETR of
    it compared with content, then STOR, SIZE and DELE of a copy."""
    assert c.cmd("TYPE I") == b"200 Type set to I.\r\n"
    for verb in ("LIST", "NLST"):
        r, listing = transfer(c, verb)
        assert r.endswith(b"226 Closing data connection.\r\n") and name.encode() in listing, (verb, r)
    r, got = transfer(c, "RETR " + name)
    assert r.endswith(b"226 Closing data connection.\r\n") and got == content, (r, len(got))
    copy = "w%s.bin" % tag
    expect(transfer(c, "STOR " + copy, content)[0], b"150 Opening BINARY mode data connection.\r\n226 ")
    assert c.cmd("SIZE " + copy) == b"213 %d\r\n" % len(content)
    expect(c.cmd("DELE " + copy), b"250 ")
    expect(c.cmd("QUIT"), b"221 ")
    c.close()


def memory_idle(d, timeout=20, ignore=()):
    """Every memory category (but those in ignore) back at zero In Use within the time-out."""
    return wait_until(lambda: all(v == 0 for k, v in d.memory_in_use().items() if k not in ignore),
                      timeout=timeout)


def ends(sock, timeout=10):
    """True when the peer closes the connection (after what it still sent, perhaps) within the
    time-out; a reset counts as closed."""
    sock.settimeout(timeout)
    try:
        while sock.recv(4096):
            pass
        return True
    except ConnectionResetError:
        return True
    except socket.timeout:
        return False


# --- TLS

def make_certificate(directory, name, cn="localhost"):
    """A self-signed certificate and its key in directory: (certificate path, key path)."""
    cert, key = os.path.join(directory, name + ".pem"), os.path.join(directory, name + ".key")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key,
                    "-out", cert, "-days", "2", "-subj", "/CN=" + cn], check=True, capture_output=True)
    return cert, key


def client_context():
    """A client context that takes the tests' self-signed certificates."""
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


def tls_handshake(port):
    """AUTH TLS and a whole handshake, then the connection is closed; the served certificate's
    sha256."""
    c = greeted(port)
    expect(c.cmd("AUTH TLS"), b"234 ")
    with client_context().wrap_socket(c.sock) as s:
        return hashlib.sha256(s.getpeercert(binary_form=True)).hexdigest()


def half_handshake(port):
    """AUTH TLS and the first half of a ClientHello, then nothing more: the RawClient."""
    c = greeted(port, timeout=150)
    expect(c.cmd("AUTH TLS"), b"234 AUTH TLS OK.\r\n")
    bios = ssl.MemoryBIO(), ssl.MemoryBIO()
    try:
        client_context().wrap_bio(*bios).do_handshake()
    except ssl.SSLWantReadError:
        pass
    hello = bios[1].read()
    c.send(hello[:len(hello) // 2])
    return c
