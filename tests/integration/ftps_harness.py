# Integration harness: starts the real daemon with its own TMPDIR, platform file, startup
# configuration and free control port, and drives it over sockets and ftps-cli.

import concurrent.futures
import contextlib
import ctypes
import errno
import fcntl
import ftplib
import hashlib
import os
import pty
import re
import select
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import tempfile
import termios
import threading
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


_prctl = ctypes.CDLL(None, use_errno=True).prctl
PR_SET_PDEATHSIG = 1


def die_with_test():
    # For Popen's preexec_fn: a test runner that is killed takes its daemons and services with it
    # instead of leaving them running. The signal follows the thread that started the process, so
    # only the main thread's children get it.
    if threading.current_thread() is not threading.main_thread():
        return None
    return lambda: _prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)


def free_port():
    # Free on both families (a dual-stack socket takes it on both): the daemon binds the any-address of each.
    with socket.socket(socket.AF_INET6) as s:
        s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
        s.bind(("::", 0))
        return s.getsockname()[1]


def listening(port):
    # Seen without connecting to the port.
    with open("/proc/net/tcp") as f:
        return any(int(fields[1].rsplit(":", 1)[1], 16) == port and fields[3] == "0A"
                   for fields in map(str.split, f.readlines()[1:]))


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def has_ipv6():
    with contextlib.suppress(OSError), socket.socket(socket.AF_INET6) as s:
        s.bind(("::1", 0))
        return True
    return False


class Daemon:
    # One daemon in a private directory. startup: lines of the startup configuration (default: one
    # user); extra_platform: "section.key": value pairs of the platform file; tls: a self-signed
    # certificate of its own (cert, key) named in [tls].

    def __init__(self, startup=None, enable=True, extra_platform=None, user_database=None, topdir="flash:/",
                 tls=False):
        # A short TMPDIR: the daemon's socket paths must fit 64 bytes.
        self.dir = tempfile.mkdtemp(prefix="ftps", dir="/tmp")
        self.tmpdir, self.flash = os.path.join(self.dir, "t"), os.path.join(self.dir, "flash")
        os.makedirs(self.tmpdir)
        os.makedirs(self.flash)
        self.port, self.proc, self.sessions, self.enabled = free_port(), None, [], enable
        self.log, self.platform = (os.path.join(self.dir, name) for name in ("daemon.log", "platform.conf"))
        lines = (["ftp-server topdir " + topdir] if topdir else []) \
            + (startup if startup is not None else ["ftp-server username alice password secret1"]) \
            + (["ftp-server enable"] if enable else [])
        self.startup = write_file(os.path.join(self.dir, "startup.conf"), "\n".join(lines) + "\n")
        # The advisory password policy would comment on the tests' short passwords.
        sections = {"device": {"product_name": "TESTSW"}, "ftp": {"control_port": self.port},
                    "storage": {"flash": self.flash}, "cli": {"startup_config": self.startup},
                    "log": {"syslog": "no", "file": self.log, "stderr": "no"}, "aaa": {},
                    "security": {"pwquality": "minlen=6 dictcheck=0"}}
        if user_database is not None:
            sections["aaa"]["user_database"] = write_file(os.path.join(self.dir, "users.ini"), user_database)
        if tls:
            self.cert, self.key = make_certificate(self.dir, "server")
            sections["tls"] = {"certificate": self.cert, "key": self.key}
        for key, value in (extra_platform or {}).items():
            section, name = key.split(".", 1)
            sections.setdefault(section, {})[name] = value
        write_file(self.platform, "".join("[%s]\n" % name + "".join("%s = %s\n" % kv for kv in keys.items())
                                          for name, keys in sections.items()))

    def env(self):
        env = dict(os.environ, TMPDIR=self.tmpdir, FTPS_PLATFORM=self.platform)
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
        self.proc = subprocess.Popen([program], env=env or self.env(), stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, preexec_fn=die_with_test())
        if wait:
            self.wait_ready()
        return self

    def wait_ready(self):
        # Seen without connecting: a probe session would take allocations of its own (and move
        # an injected failure).
        if not wait_until(lambda: self.proc.poll() is not None or self.cli_ok() and
                          (not self.enabled or listening(self.port)), START_WAIT, 0.1):
            raise AssertionError("daemon not ready")
        if self.proc.poll() is not None:
            raise AssertionError("daemon exited early: %d %s" % (self.proc.returncode,
                                                                   self.proc.communicate()[1].decode()))

    def cli_ok(self):
        with contextlib.suppress(subprocess.TimeoutExpired):
            return self.cli("show ftp-server memory", timeout=5)[0] == 0
        return False

    def port_open(self, family=socket.AF_INET):
        host = "::1" if family == socket.AF_INET6 else "127.0.0.1"
        with contextlib.suppress(OSError):
            socket.create_connection((host, self.port), 1).close()
            return True
        return False

    def cli(self, *lines, timeout=30):
        args = [CLI] + [arg for line in lines for arg in ("-c", line)]
        r = subprocess.run(args, env=self.env(), capture_output=True, timeout=timeout)
        return r.returncode, r.stdout.decode(errors="replace") + r.stderr.decode(errors="replace")

    def keymsg(self):
        return read_text(os.path.join(self.tmpdir, "app", "ftps", ".init_msg.txt"))

    def logtext(self):
        return read_text(self.log)

    def put(self, rel, data=b""):
        return write_file(os.path.join(self.flash, rel), data)

    def many(self, rel, n=40000):
        # Empty files with long names: the listing is far larger than any socket buffer.
        os.makedirs(os.path.join(self.flash, rel))
        for i in range(n):
            open(os.path.join(self.flash, rel, "%05d-%s" % (i, "n" * 120)), "w").close()

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.proc.pid))

    def listing_temporaries(self):
        return [n for n in os.listdir(os.path.join(self.tmpdir, "app", "ftps")) if n.startswith(".ftptemp-")]

    def memory_rows(self):
        # Category name -> (failed, allocs, frees, in use).
        rows = {}
        for line in self.cli("show ftp-server memory")[1].splitlines():
            parts = line.split()
            if len(parts) >= 5 and all(p.isdigit() for p in parts[-4:]):
                rows[" ".join(parts[:-4])] = tuple(int(p) for p in parts[-4:])
        return rows

    def memory_in_use(self):
        return {name: row[3] for name, row in self.memory_rows().items()}

    def attempt(self, user, password):
        # A new session (open until the daemon stops) and its replies to PASS.
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
            err = self.proc.communicate(timeout=START_WAIT)[1]
        except subprocess.TimeoutExpired:
            self.proc.kill()
            err = self.proc.communicate()[1]
        self.stderr, rc, self.proc = err.decode(errors="replace"), self.proc.returncode, None
        return rc

    def cleanup(self):
        self.stop()
        shutil.rmtree(self.dir, ignore_errors=True)

    def stop_checked(self):
        # A non-zero exit (a crash, a sanitizer report) fails.
        rc = self.stop()
        self.cleanup()
        if rc != 0:
            raise AssertionError("daemon exit status %s: %s" % (rc, getattr(self, "stderr", "")[-4000:]))

    def start_for(self, test, env=None):
        # Started for a test (or a test class, at class level): its exit status is checked at the end,
        # and its files go, also after a failed start.
        (test.addClassCleanup if isinstance(test, type) else test.addCleanup)(self.stop_checked)
        return self.start(env=dict(self.env(), **(env or {})))


class DaemonTestCase(unittest.TestCase):
    # One daemon per test case class; daemon_env: extra environment of the daemon.
    daemon_kwargs, daemon_env = {}, {}

    @classmethod
    def setUpClass(cls):
        cls.d = Daemon(**cls.daemon_kwargs).start_for(cls, cls.daemon_env)


def in_parallel(fn, n, timeout=None):
    # fn(0) ... fn(n - 1) at the same time, each in a thread of its own: their results, or the first
    # exception.
    with concurrent.futures.ThreadPoolExecutor(n) as pool:
        return list(pool.map(fn, range(n), timeout=timeout))


def write_file(path, data=b""):
    # Bytes or text; the directories on the way are made.
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb" if isinstance(data, bytes) else "w") as f:
        f.write(data)
    return path


def read_file(path):
    # None for a missing file.
    with contextlib.suppress(FileNotFoundError), open(path, "rb") as f:
        return f.read()


def read_text(path):
    return (read_file(path) or b"").decode(errors="replace")


def wait_until(predicate, timeout=10.0, step=0.05):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if predicate():
            return True
        time.sleep(step)
    return predicate()


class BackEnd:
    # A back-end server (RADIUS, trap receiver) in the foreground, ready once its output shows ready.

    def __init__(self, prefix, files, argv, ready, env=None):
        self.dir = tempfile.mkdtemp(prefix=prefix)
        self.port = free_udp_port()
        for name, text in files.items():
            write_file(os.path.join(self.dir, name), text.format(dir=self.dir, port=self.port))
        self.out = open(os.path.join(self.dir, "out.log"), "w+")
        argv = [a.format(dir=self.dir, port=self.port) for a in argv]
        env = dict(os.environ, **{k: v.format(dir=self.dir) for k, v in (env or {}).items()})
        self.proc = subprocess.Popen(argv, stdout=self.out, stderr=subprocess.STDOUT, env=env,
                                     preexec_fn=die_with_test())
        if not wait_until(lambda: ready in self.output() or self.proc.poll() is not None, timeout=20) \
                or self.proc.poll() is not None:
            text = self.output()
            self.stop()
            raise AssertionError("%s not ready: %s" % (argv[0], text))

    def output(self):
        return read_text(self.out.name)

    def stop(self):
        self.proc.terminate()  # nothing if it has ended
        try:
            self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.out.close()
        shutil.rmtree(self.dir, ignore_errors=True)


class RawClient:
    # A control connection read reply by reply, for exact texts.

    def __init__(self, port, host="127.0.0.1", timeout=10, source=None):
        self.sock = socket.create_connection((host, port), timeout, (source, 0) if source else None)
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
        # Multi-line replies up to their last line (the code and a blank).
        out = line = self.recv_line()
        while out[3:4] == b"-" and not line.startswith(out[:3] + b" "):
            line = self.recv_line()
            out += line
        return out

    def send(self, text):
        self.sock.sendall(text.encode() if isinstance(text, str) else text)

    def cmd(self, text):
        self.send(text + "\r\n")
        return self.reply()

    def closed(self, timeout=5):
        # Closed by the server without anything more sent.
        self.sock.settimeout(timeout)
        with contextlib.suppress(ConnectionResetError, socket.timeout):
            return self.sock.recv(1) == b""
        return False

    def close(self):
        self.sock.close()

    def login(self, user="alice", password="secret1"):
        self.reply()  # greeting
        assert self.cmd("USER " + user).startswith(b"331"), "USER refused"
        expect(self.cmd("PASS " + password), b"230")
        return self

    def pass_replies(self, user, password):
        # Every reply to PASS: NOOP (not served) marks where they end, and that a session that
        # logged in has counted itself online.
        self.reply()
        assert self.cmd("USER " + user).startswith(b"331"), "USER refused"
        replies = [self.cmd("PASS " + password)]
        self.send("NOOP\r\n")
        while not replies[-1].startswith(b"502"):
            replies.append(self.reply())
        return replies[:-1]


def greeted(port, **kw):
    c = RawClient(port, **kw)
    c.reply()
    return c


def logged_in(port, host="127.0.0.1"):
    return RawClient(port, host).login()


def ftp_session(port, host="127.0.0.1", cls=ftplib.FTP, user="alice", password="secret1"):
    # An FTP_TLS class logs in over TLS and protects its data connections.
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
    expect(reply, b"227 ")
    nums = reply[reply.index(b"(") + 1:reply.index(b")")].split(b",")
    return int(nums[4]) * 256 + int(nums[5])


def pasv_connect(c, rcvbuf=None):
    # A small receive buffer for a client that stops reading.
    s = socket.socket()
    s.settimeout(20)
    if rcvbuf:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
    s.connect(("127.0.0.1", pasv_port(c.cmd("PASV"))))
    return s


def reset(sock):
    # As a client that vanishes does.
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def transfer(c, verb, upload=None):
    # (the replies as one byte string, the data read); sending or reading in vain goes on to the replies.
    data, got = pasv_connect(c), bytearray()
    c.send(verb + "\r\n")
    first = c.reply()
    if first.startswith(b"150"):
        with contextlib.suppress(OSError):
            if upload is not None:
                data.sendall(upload)
            else:
                while chunk := data.recv(65536):
                    got += chunk
    data.close()
    return (first + c.reply() if first.startswith(b"150") else first), bytes(got)


def start_upload(c, name, first=b"", type_cmd="TYPE I"):
    # STOR answered 150, its first bytes sent: the data connection.
    c.cmd(type_cmd)
    data = pasv_connect(c)
    c.send("STOR %s\r\n" % name)
    expect(c.reply(), b"150 ")
    data.sendall(first)
    return data


def whole_session(c, name, content, tag=""):
    # Up to QUIT: LIST and NLST naming the file, RETR of it, then STOR, SIZE and DELE of a copy.
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
    return wait_until(lambda: all(v == 0 for k, v in d.memory_in_use().items() if k not in ignore),
                      timeout=timeout)


def ends(sock, timeout=10):
    # Closed by the peer (after what it still sent) within the time-out; a reset counts.
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
    cert, key = os.path.join(directory, name + ".pem"), os.path.join(directory, name + ".key")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key,
                    "-out", cert, "-days", "2", "-subj", "/CN=" + cn], check=True, capture_output=True)
    return cert, key


def client_context(version=None, tickets=True):
    # Takes the tests' self-signed certificates; version caps the protocol; without tickets,
    # TLS 1.2 resumes by session identifier (as curl does).
    ctx = ssl.create_default_context()
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    if version is not None:
        ctx.maximum_version = version
    if not tickets:
        ctx.options |= ssl.OP_NO_TICKET
    return ctx


class ResumingFTP(ftplib.FTP_TLS):
    # Protected data connections resume the control connection's TLS session (as lftp, curl and
    # rclone do), or the one kept (kept) right after the handshake that follows AUTH TLS.
    kept = None

    def ntransfercmd(self, cmd, rest=None):
        conn, size = ftplib.FTP.ntransfercmd(self, cmd, rest)
        if self._prot_p:
            session = self.kept if self.kept is not None else self.sock.session
            conn = self.context.wrap_socket(conn, server_hostname=self.host, session=session)
        return conn, size


def tls_handshake(port):
    # AUTH TLS and a whole handshake, then closed: the served certificate's sha256.
    c = greeted(port)
    expect(c.cmd("AUTH TLS"), b"234 ")
    with client_context().wrap_socket(c.sock) as s:
        return hashlib.sha256(s.getpeercert(binary_form=True)).hexdigest()


def half_handshake(port):
    # AUTH TLS and the first half of a ClientHello, then nothing more.
    c = greeted(port, timeout=150)
    expect(c.cmd("AUTH TLS"), b"234 AUTH TLS OK.\r\n")
    bios = ssl.MemoryBIO(), ssl.MemoryBIO()
    with contextlib.suppress(ssl.SSLWantReadError):
        client_context().wrap_bio(*bios).do_handshake()
    hello = bios[1].read()
    c.send(hello[:len(hello) // 2])
    return c


class Terminal:
    # A program with a pseudo-terminal of its own as its controlling terminal, columns wide.

    def __init__(self, argv, env, columns=80):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            try:
                fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 50, columns, 0, 0))
                os.execve(argv[0], argv, env)
            finally:
                os._exit(127)
        self.raw = b""

    def read(self, timeout):
        if select.select([self.fd], [], [], timeout)[0]:
            try:
                self.raw += os.read(self.fd, 4096)
            except OSError as e:
                if e.errno != errno.EIO:  # EIO: the program has ended
                    raise

    def text(self):
        # The output without cursor movements, bells and carriage returns.
        return re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\r|\x07", "", self.raw.decode(errors="replace"))

    def expect(self, predicate, what, timeout=START_WAIT):
        # read() gives None: the predicate is asked again after every read.
        if not wait_until(lambda: predicate(self.text()) or self.read(0.1), timeout, 0):
            raise AssertionError("terminal never showed %s; it shows:\n%s" % (what, self.text()[-3000:]))
        return self.text()

    def type(self, keys):
        os.write(self.fd, keys.encode())

    def close(self):
        with contextlib.suppress(OSError):
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.fd)
