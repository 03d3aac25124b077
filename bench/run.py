#!/usr/bin/env python3
"""Side-by-side benchmark of this daemon against vsftpd, pure-ftpd and proftpd (black-box peers
from Debian; the last two optional).

All servers run on loopback and serve the same tmpfs directory (with a bind-mounted directory
on the disk for the listing on disk). Every measurement is repeated and interleaved between the
servers, and the median is kept. Server CPU is read from /proc/PID/stat of the server's whole
process tree: its cpuacct control group when the machine has one (every process the server ever
forked counts, also those reaped without a wait), otherwise each process's own and waited-for
children's time. Nothing is asserted: the figures are printed as a table with
the ratio to each peer and written to docs/performance.md.

Needs root (the peers' anonymous sessions change root and user; the bind mounts) and the peers
installed by bench/setup.sh. A peer that is missing or does not come up is left out of the run,
except vsftpd, which the targets are judged against. Run through `make bench`.

This daemon runs in its device profile; what only its standard profile serves (MLSD, REST) is
measured on a second instance in that profile, whose figures go into the same column. The TLS
measurements (explicit FTPS: AUTH TLS, PROT P) run against a third instance in the standard
profile with a [tls] section and a second vsftpd with TLS switched on, both with the same
self-signed certificate made at the start; the other peers are not measured over TLS.
"""

import argparse
import os
import pwd
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import textwrap
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
CLK = os.sysconf("SC_CLK_TCK")
PAGE = os.sysconf("SC_PAGE_SIZE")
GIB = 1 << 30
MIB = 1 << 20

USER, PASSWORD = "bench", "benchpw1"
LIST_ENTRIES = 10000
TLS_RETR, TLS_STOR, TLS_LOGINS = "TLS RETR 1 GiB binary", "TLS STOR 1 GiB binary", "TLS handshakes+logins"
# What decides whether this daemon's records go through the kernel (kernel TLS) or its own loop.
KTLS_STAT = "/proc/net/tls_stat"
# Where bench/setup.sh unpacks the optional peers: Debian's FTP server packages conflict with one
# another, so only vsftpd is installed as a package.
PEERS = "/opt/ftps-bench/peers"


def peer_binary(name, package):
    """The peer's program: installed as a package, or unpacked by bench/setup.sh; None if neither."""
    found = shutil.which(name)
    if found:
        return found
    unpacked = os.path.join(PEERS, package, "usr", "sbin", name)
    return unpacked if os.access(unpacked, os.X_OK) else None


def free_port():
    import socket
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def proc_stat(pid):
    with open("/proc/%d/stat" % pid) as f:
        text = f.read()
    fields = text[text.rindex(")") + 2:].split()
    # fields[0] is field 3 (state): ppid 4, utime 14, stime 15, cutime 16, cstime 17, rss 24
    return {"ppid": int(fields[1]), "cpu": sum(int(x) for x in fields[11:15]) / CLK,
            "rss": int(fields[21]) * PAGE}


def tree(root_pid):
    """The process ids of root_pid and all its descendants."""
    children = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                children.setdefault(proc_stat(int(name))["ppid"], []).append(int(name))
            except (OSError, ValueError):
                pass
    out, todo = [], [root_pid]
    while todo:
        pid = todo.pop()
        out.append(pid)
        todo.extend(children.get(pid, []))
    return out


def tree_sum(root_pid, key):
    total = 0
    for pid in tree(root_pid):
        try:
            total += proc_stat(pid)[key]
        except (OSError, ValueError):
            pass
    return total


CPUACCT = "/sys/fs/cgroup/cpuacct"


class Server:
    name = "?"
    # An optional peer that cannot be started is left out of the run instead of ending it.
    optional = False
    # Answers MLSD (RFC 3659); a server that does not is shown as n/a in the MLSD rows.
    mlsd = True

    def __init__(self, work, share):
        self.work = work
        self.share = share
        self.port = free_port()
        self.proc = None
        self.cgroup = None

    @property
    def pid(self):
        return self.proc.pid

    def spawn(self, argv, env=None):
        self.proc = subprocess.Popen(argv, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if os.path.isdir(CPUACCT) and os.access(CPUACCT, os.W_OK):
            group = os.path.join(CPUACCT, "ftps-bench-%s-%d" % (self.tag, os.getpid()))
            try:
                os.makedirs(group, exist_ok=True)
                with open(os.path.join(group, "cgroup.procs"), "w") as f:
                    f.write(str(self.proc.pid))
                self.cgroup = group
            except OSError:
                self.cgroup = None
        self.wait_port()
        # The threads (or processes) of a server with no session: once the probe's session is over.
        counts = []
        deadline = time.time() + 5
        while time.time() < deadline and (len(counts) < 5 or len(set(counts[-5:])) > 1):
            counts.append(self.tasks())
            time.sleep(0.1)
        self.base_tasks = counts[-1]

    def cpu(self):
        if self.cgroup:
            with open(os.path.join(self.cgroup, "cpuacct.usage")) as f:
                return int(f.read()) / 1e9
        return tree_sum(self.pid, "cpu")

    def rss(self):
        return tree_sum(self.pid, "rss")

    def tasks(self):
        """Threads of the server: a session is a process of a peer's and a thread of this
        daemon's. The control group's list also holds a session process whose parent ended
        before it (seen with pure-ftpd and vsftpd in the login test), which the tree loses."""
        if self.cgroup:
            with open(os.path.join(self.cgroup, "tasks")) as f:
                return len(f.read().split())
        total = 0
        for pid in tree(self.pid):
            try:
                total += len(os.listdir("/proc/%d/task" % pid))
            except OSError:
                pass
        return total

    def settle(self, timeout=5.0):
        """Waits until the sessions of the last measurement are gone (their CPU then counts, and
        the next measurement finds every session slot free)."""
        deadline = time.time() + timeout
        while time.time() < deadline and self.tasks() > self.base_tasks:
            time.sleep(0.02)

    base_tasks = 1

    @property
    def tag(self):
        """Names the server's own files and control group: one per running instance."""
        return self.name

    def wait_port(self):
        import socket
        deadline = time.time() + 15
        while time.time() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("%s ended at its start (status %d)" % (self.name, self.proc.returncode))
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=1) as s:
                    s.recv(100)
                    return
            except OSError:
                time.sleep(0.1)
        raise RuntimeError("%s did not come up" % self.name)

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        if self.cgroup:
            for _ in range(50):
                try:
                    os.rmdir(self.cgroup)
                    break
                except OSError:
                    time.sleep(0.1)


class Ftps(Server):
    """This daemon, in the device profile, or in the standard profile when profile is "standard"
    (a second instance that serves MLSD and REST; its figures go into the ftps column too). With
    tls, (certificate, key), a standard instance that serves FTPS with its [tls] defaults."""
    name = "ftps"

    def __init__(self, work, share, build, profile="device", tls=None):
        super().__init__(work, share)
        self.build = build
        self.profile = profile
        self.tls = tls
        self.user, self.password = USER, PASSWORD
        self.dir = os.path.join(work, self.tag)
        # Temporary listing files go below TMPDIR: on the disk, as with a stock /tmp.
        self.tmpdir = os.path.join(self.dir, "t")
        os.makedirs(self.tmpdir)
        self.platform = os.path.join(self.dir, "platform.conf")
        startup = os.path.join(self.dir, "startup.conf")
        with open(startup, "w") as f:
            f.write("ftp-server topdir flash:/\n"
                    "ftp-server username %s password %s\n"
                    "ftp-server max-user-connect 20\n"
                    "ftp-server enable\n" % (USER, PASSWORD))
        with open(self.platform, "w") as f:
            f.write("[device]\nproduct_name = BENCH\n[ftp]\ncontrol_port = %d\nprofile = %s\n[storage]\n"
                    "flash = %s\n[cli]\nstartup_config = %s\n[log]\nsyslog = no\nstderr = no\n"
                    "[security]\npwquality = minlen=6 dictcheck=0\n" % (self.port, profile, share, startup))
            if tls:
                f.write("[tls]\ncertificate = %s\nkey = %s\n" % tls)

    @property
    def tag(self):
        # Short: the daemon's sockets below TMPDIR (self.dir/t) have room for 64 bytes of path.
        if self.tls:
            return self.name + "-tls"
        return self.name if self.profile == "device" else self.name + "-std"

    def start(self):
        env = dict(os.environ, TMPDIR=self.tmpdir, FTPS_PLATFORM=self.platform)
        env.pop("NOTIFY_SOCKET", None)
        self.spawn([os.path.join(self.build, "ftp_server.elf")], env=env)


class Vsftpd(Server):
    name = "vsftpd"
    about = "vsftpd (Debian's package, ASCII conversion switched on)"
    mlsd = False

    def __init__(self, work, share, tls=None):
        super().__init__(work, share)
        self.user, self.password = "anonymous", "bench@"
        self.tls = tls
        self.conf = os.path.join(work, self.tag + ".conf")
        # With tls, (certificate, key): TLS as this daemon's [tls] defaults have it, logins only
        # after AUTH TLS, data connections that resume the control connection's session (its
        # default), plain data connections allowed. Its TLS versions are the library's defaults
        # (the configuration names none above TLS 1.0).
        secure = ["ssl_enable=YES", "rsa_cert_file=%s" % tls[0], "rsa_private_key_file=%s" % tls[1],
                  "allow_anon_ssl=YES", "force_anon_logins_ssl=YES", "force_anon_data_ssl=NO",
                  "require_ssl_reuse=YES"] if tls else []
        # Anonymous sessions: the cheapest login the peer has, against the daemon's own user table.
        # ASCII conversion is switched on so that TYPE A does the same work as this daemon does.
        with open(self.conf, "w") as f:
            f.write("\n".join(secure + [
                "listen=YES", "listen_ipv6=NO", "listen_address=127.0.0.1", "listen_port=%d" % self.port,
                "background=NO", "anonymous_enable=YES", "no_anon_password=YES", "local_enable=NO",
                "anon_root=%s" % share, "write_enable=YES", "anon_upload_enable=YES",
                "anon_mkdir_write_enable=YES", "anon_other_write_enable=YES", "anon_umask=022",
                "ascii_upload_enable=YES", "ascii_download_enable=YES", "dirmessage_enable=NO",
                "xferlog_enable=NO", "pasv_enable=YES", "max_clients=0", "max_per_ip=0",
                "seccomp_sandbox=NO", ""]))

    @property
    def tag(self):
        return self.name + "-tls" if self.tls else self.name

    def start(self):
        self.spawn(["vsftpd", self.conf])


class UnpackedPeer(Server):
    """An optional peer that bench/setup.sh unpacks, logging in anonymously (its cheapest)."""

    optional = True
    program = package = "?"

    def __init__(self, work, share):
        super().__init__(work, share)
        self.user, self.password = "anonymous", "bench@"
        self.binary = peer_binary(self.program, self.package)

    def start(self):
        if not self.binary:
            raise RuntimeError("%s is not installed (bench/setup.sh unpacks it)" % self.name)
        self.spawn(self.command())


class PureFtpd(UnpackedPeer):
    name = program = package = "pure-ftpd"
    about = "pure-ftpd (unpacked from Debian's package, converts TYPE A by itself)"

    def command(self):
        # Everything is on its command line (TYPE A is converted without a switch): no syslog, no
        # name lookups, and a listing cap (2000 by default) above the listing test's directory,
        # so that every entry is sent.
        argv = [self.binary, "-S", "127.0.0.1,%d" % self.port, "-4", "-e", "-H", "-f", "none", "-c", "100",
                "-L", "%d:5" % (10 * LIST_ENTRIES), "-g", os.path.join(self.work, "pure-ftpd.pid")]
        # Its anonymous root is the ftp user's home directory: the share is bind-mounted there in
        # a mount namespace of its own, as is an empty /run for its session files, so that the
        # machine's directories stay as they are. The shell execs: the server keeps the pid.
        script = 'mount --rbind "$1" "$2" && mount -t tmpfs none /run && shift 2 && exec "$@"'
        return ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, self.name,
                self.share, pwd.getpwnam("ftp").pw_dir] + argv


class Proftpd(UnpackedPeer):
    name = program = "proftpd"
    package = "proftpd-core"
    about = "proftpd (unpacked from Debian's package, converts TYPE A by itself, login delay off)"

    def command(self):
        conf = os.path.join(self.work, "proftpd.conf")
        # Anonymous sessions as for vsftpd, without PAM; uploads go where the ftp user may write
        # (up/). TYPE A is converted by default. Its login delay (against the timing of user
        # names) would be measured as login time: off.
        with open(conf, "w") as f:
            f.write("\n".join([
                "ServerType standalone", 'ServerName "bench"', "Port %d" % self.port,
                "DefaultAddress 127.0.0.1", "SocketBindTight on", "UseIPv6 off", "UseReverseDNS off",
                "User nobody", "Group nogroup", "PidFile %s" % os.path.join(self.work, "proftpd.pid"),
                "ScoreboardFile %s" % os.path.join(self.work, "proftpd.scoreboard"), "SystemLog NONE",
                "TransferLog NONE", "WtmpLog off", "MaxInstances 100", "AuthPAM off",
                "AuthOrder mod_auth_unix.c", "UseFtpUsers off",
                "<IfModule mod_delay.c>", "DelayEngine off", "</IfModule>",
                "<IfModule mod_ctrls.c>", "ControlsEngine off", "</IfModule>",
                "<Anonymous %s>" % self.share, "User ftp", "Group nogroup", "UserAlias anonymous ftp",
                "RequireValidShell off", "MaxClients none", "AllowOverwrite on", "</Anonymous>", ""]))
        return [self.binary, "-n", "-q", "-c", conf]


def bench_wants(args, key):
    return not args.tests or key in args.tests.split(",")


def figure(word):
    """A value of the client's "key=value" words: a number, or a name (a TLS version, a cipher)."""
    try:
        return float(word)
    except ValueError:
        return word


class Bench:
    def __init__(self, args, standard=None, tls=()):
        self.args = args
        self.client = os.path.join(args.client_build, "ftpbench")
        self.results = {}  # (test, server) -> dict of metric -> list
        # This daemon in the standard profile, which stands in for it where the device profile
        # has no such command (MLSD, REST).
        self.standard = standard
        # The instances that serve FTPS, which stand in for their servers in the TLS rows.
        self.tls = tls
        self.negotiated = {}  # server -> what its TLS data connections used

    def run_client(self, server, *argv, timeout=600, tls=False):
        op = (["--tls"] if tls else []) + [argv[0]]
        rest = [str(x) for x in argv[1:]]
        cmd = [self.client, *op, str(server.port), server.user, server.password, *rest]
        r = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout)
        if r.returncode != 0:
            raise RuntimeError("%s %s: %s" % (server.name, " ".join(op + rest), r.stderr.strip()))
        return {k: figure(v) for k, v in (w.split("=", 1) for w in r.stdout.split())}

    def record(self, test, server, **metrics):
        row = self.results.setdefault((test, server.name), {})
        for k, v in metrics.items():
            row.setdefault(k, []).append(v)

    def measured(self, server, *argv, tls=False):
        server.settle()
        c0 = server.cpu()
        out = self.run_client(server, *argv, tls=tls)
        server.settle()
        out["cpu"] = server.cpu() - c0
        return out

    def interleave(self, servers, reps, fn):
        for i in range(reps):
            order = servers if i % 2 == 0 else list(reversed(servers))
            for s in order:
                fn(s)

    def standard_servers(self, servers):
        return [self.standard if self.standard and s.name == self.standard.name else s for s in servers]

    def tls_servers(self, servers):
        return [t for s in servers for t in self.tls if t.name == s.name]

    def transfer(self, test, op, type_, path, size, servers, reps, offset=0, tls=False):
        """size counts the bytes sent: for a RETR from offset, those after it. With tls, over
        protected connections."""
        def one(s):
            if op == "stor":
                # Each server writes its own file, and as a new one: an anonymous session of
                # pure-ftpd may not replace a file, and a replaced file's pages would be freed
                # inside the measurement.
                name = path % s.name
                try:
                    os.unlink(os.path.join(s.share, name))
                except FileNotFoundError:
                    pass
                out = self.measured(s, "stor", type_, name, size, tls=tls)
            elif offset:
                out = self.measured(s, "retr", type_, path, offset)
                if out["bytes"] != size:
                    raise RuntimeError("%s sent %d bytes after REST %d, not %d"
                                       % (s.name, out["bytes"], offset, size))
            else:
                out = self.measured(s, "retr", type_, path, tls=tls)
                # A TLS download that ended early without close_notify would pass for a fast one.
                if tls and out["bytes"] != size:
                    raise RuntimeError("%s sent %d bytes, not %d" % (s.name, out["bytes"], size))
            if "protocol" in out:
                self.negotiated[s.name] = "%s %s" % (out["protocol"], out["cipher"])
            if record:
                self.record(test, s, mibs=size / MIB / out["seconds"], cpu_gib=out["cpu"] / (size / GIB))
        # One unrecorded round first: the first transfers of a run were the slowest ones.
        record = False
        self.interleave(servers, 1, one)
        record = True
        self.interleave(servers, reps, one)

    def wanted(self, key):
        return bench_wants(self.args, key)

    def run(self, servers, share):
        a = self.args
        reps = a.reps
        if self.wanted("retr"):
            self.transfer("RETR 1 GiB binary", "retr", "I", "big.bin", GIB, servers, reps)
        if self.wanted("rretr"):
            self.transfer("RETR 1 GiB binary after REST 512 MiB", "retr", "I", "big.bin", GIB // 2,
                          self.standard_servers(servers), reps, offset=GIB // 2)
        if self.wanted("stor"):
            self.transfer("STOR 1 GiB binary", "stor", "I", "up/stor-%s.bin", GIB, servers, reps)
        if self.wanted("aretr"):
            self.transfer("RETR 256 MiB ASCII", "retr", "A", "text.txt", 256 * MIB, servers, reps)
        if self.wanted("astor"):
            self.transfer("STOR 256 MiB ASCII", "stor", "A", "up/stor-%s.txt", 256 * MIB, servers, reps)
        def logins(s):
            out = self.measured(s, "logins", 19, a.login_seconds)
            self.record("19 clients connect+USER+PASS+QUIT", s, rate=out["rate"],
                        cpu_ms=1000 * out["cpu"] / max(out["sessions"], 1), failed=out["failed"])
        if self.wanted("logins"):
            self.interleave(servers, max(3, reps // 2), logins)
        self.run_rest(servers, reps)
        self.run_tls(servers, reps)

    def run_tls(self, servers, reps):
        """The FTPS rows, on the instances that serve it."""
        a = self.args
        tls = self.tls_servers(servers)
        if self.wanted("tretr"):
            self.transfer(TLS_RETR, "retr", "I", "big.bin", GIB, tls, reps, tls=True)
        if self.wanted("tstor"):
            self.transfer(TLS_STOR, "stor", "I", "up/tstor-%s.bin", GIB, tls, reps, tls=True)

        def handshakes(s):
            out = self.measured(s, "handshakes", 19, a.login_seconds)
            self.record(TLS_LOGINS, s, rate=out["rate"], cpu_ms=1000 * out["cpu"] / max(out["sessions"], 1),
                        failed=out["failed"])
        if self.wanted("thandshake"):
            self.interleave(tls, max(3, reps // 2), handshakes)

    def run_rest(self, servers, reps):
        def mretr(s):
            out = self.measured(s, "mretr", 19, "ten.bin")
            self.record("19 concurrent RETR of 10 MiB", s, mibs=out["bytes"] / MIB / out["seconds"],
                        cpu_gib=out["cpu"] / (out["bytes"] / GIB))
        if self.wanted("mretr"):
            self.interleave(servers, reps, mretr)

        mlsd = [s for s in self.standard_servers(servers) if s.mlsd]
        for where, path in (("tmpfs", "dir10k"), ("disk", "disk/dir10k")):
            for verb, key, among in (("LIST", "list", servers), ("NLST", "list", servers), ("MLSD", "mlsd", mlsd)):
                def listing(s, verb=verb, path=path, where=where):
                    out = self.measured(s, "list", verb, path)
                    self.record("%s of %d entries (%s)" % (verb, LIST_ENTRIES, where), s,
                                ms=1000 * out["seconds"], kib=out["bytes"] / 1024)
                if self.wanted(key):
                    self.interleave(among, reps, listing)

        for s in servers if self.wanted("rss") else []:
            s.settle()
            self.record("RSS idle", s, mib=s.rss() / MIB)
            hold = subprocess.Popen([self.client, "hold", str(s.port), s.user, s.password, "19"],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            line = hold.stdout.readline()
            if line.strip() == "ready":
                time.sleep(0.5)
                self.record("RSS with 19 logged-in sessions", s, mib=s.rss() / MIB)
            hold.stdin.close()
            hold.wait(30)


def make_share(share, disk):
    os.makedirs(share)
    os.chmod(share, 0o755)
    with open(os.path.join(share, "big.bin"), "wb") as f:
        block = os.urandom(MIB)
        for _ in range(GIB // MIB):
            f.write(block)
    with open(os.path.join(share, "ten.bin"), "wb") as f:
        f.write(os.urandom(10 * MIB))
    line = (b"".join(bytes([97 + i % 26]) for i in range(63)) + b"\n") * 16384
    with open(os.path.join(share, "text.txt"), "wb") as f:
        for _ in range(256 * MIB // len(line)):
            f.write(line)
    up = os.path.join(share, "up")
    os.makedirs(up)
    shutil.chown(up, "ftp", "ftp")
    for base in (share, disk):
        d = os.path.join(base, "dir10k")
        os.makedirs(d)
        for i in range(LIST_ENTRIES):
            with open(os.path.join(d, "file-%05d.dat" % i), "wb") as f:
                f.write(b"x" * (i % 300))
        os.chmod(d, 0o755)
    os.makedirs(os.path.join(share, "disk"))
    subprocess.run(["mount", "--bind", disk, os.path.join(share, "disk")], check=True)
    for root, dirs, files in os.walk(share):
        for n in files:
            os.chmod(os.path.join(root, n), 0o644)


def median(xs):
    return statistics.median(xs) if xs else float("nan")


UNITS = {"mibs": ("MiB/s", True), "cpu_gib": ("CPU s/GiB", False), "rate": ("sessions/s", True),
         "cpu_ms": ("CPU ms/session", False), "failed": ("refused or failed sessions", False), "ms": ("ms", False), "mib": ("MiB", False)}


def table(bench, servers):
    names = [s.name for s in servers]
    peers = names[1:]
    head = "| Measurement | Unit | " + " | ".join(names) + " | " + \
        " | ".join("ratio to %s" % p for p in peers) + " |"
    lines = [head, "|" + "---|" * (2 + len(names) + len(peers))]
    tests = []
    for (test, _server) in bench.results:
        if test not in tests:
            tests.append(test)
    for test in tests:
        metrics = [m for m in UNITS if m in bench.results.get((test, names[0]), {})]
        for m in metrics:
            unit, higher_better = UNITS[m]
            vals = [median(bench.results.get((test, n), {}).get(m, [])) for n in names]
            # n/a: the server does not serve the command (vsftpd has no MLSD).
            cells = ["n/a" if v != v else "%.3g" % v if v < 100 else "%.0f" % v for v in vals]
            if m == "rate" and sum(v == v for v in vals[1:]) > 1:
                # The peers differ most in logins: the fastest of them is set in bold (among two
                # or more: only vsftpd is measured over TLS).
                best = max(range(1, len(vals)), key=lambda i: vals[i] if vals[i] == vals[i] else -1)
                cells[best] = "**%s**" % cells[best]
            ratios = []
            for v in vals[1:]:
                ratios.append("n/a" if v != v else "%.2f×" % (vals[0] / v) if v else "-")
            lines.append("| %s | %s | %s | %s |" % (test, unit, " | ".join(cells), " | ".join(ratios)))
    return "\n".join(lines)


# The targets, each as (measurement, metric, test on the ratio or the value[, against]):
# the ratio is to the first peer, or with BEST to the best peer with a figure, or with the name of
# another measurement to this daemon's own figure there.
BEST = "the best peer"
MLSD_TMPFS, MLSD_DISK = ("MLSD of %d entries (%s)" % (LIST_ENTRIES, w) for w in ("tmpfs", "disk"))
TARGETS = [
    ("RETR 1 GiB binary", "mibs", "ratio >= 1.0"), ("RETR 1 GiB binary", "cpu_gib", "ratio <= 1.0"),
    ("STOR 1 GiB binary", "mibs", "ratio >= 1.0"), ("STOR 1 GiB binary", "cpu_gib", "ratio <= 1.0"),
    ("RETR 256 MiB ASCII", "mibs", "ratio >= 1.0"), ("STOR 256 MiB ASCII", "mibs", "ratio >= 1.0"),
    ("19 clients connect+USER+PASS+QUIT", "rate", "ratio >= 2.5"),
    ("LIST of %d entries (tmpfs)" % LIST_ENTRIES, "ms", "ratio <= 2.0"),
    ("NLST of %d entries (tmpfs)" % LIST_ENTRIES, "ms", "ratio <= 2.0"),
    ("LIST of %d entries (disk)" % LIST_ENTRIES, "ms", "value < 1000"),
    ("NLST of %d entries (disk)" % LIST_ENTRIES, "ms", "value < 1000"),
    ("RSS with 19 logged-in sessions", "mib", "ratio <= 1.0"),
    (MLSD_TMPFS, "ms", "ratio <= 1.0", "LIST of %d entries (tmpfs)" % LIST_ENTRIES),
    (MLSD_TMPFS, "ms", "ratio <= 1.0", BEST),
    (MLSD_DISK, "ms", "ratio <= 1.0", "LIST of %d entries (disk)" % LIST_ENTRIES),
    (MLSD_DISK, "ms", "ratio <= 1.0", BEST),
    ("RETR 1 GiB binary after REST 512 MiB", "mibs", "ratio >= 1.0", BEST),
    (TLS_RETR, "mibs", "ratio >= 1.0"), (TLS_RETR, "cpu_gib", "ratio <= 1.0"),
    (TLS_STOR, "mibs", "ratio >= 1.0"), (TLS_STOR, "cpu_gib", "ratio <= 1.0"),
    (TLS_LOGINS, "rate", "ratio >= 1.0"),
]


def best_peer(bench, servers, test, metric):
    """The peer with the best median figure of the measurement, and its figures; None if none has one."""
    figures = [(s.name, bench.results.get((test, s.name), {}).get(metric)) for s in servers[1:]]
    figures = [(n, f) for n, f in figures if f]
    if not figures:
        return None, None
    pick = max if UNITS[metric][1] else min
    return pick(figures, key=lambda nf: median(nf[1]))


def targets(bench, servers):
    """Each target against the first peer unless it names what else: reached or not (a report, not
    an assertion)."""
    if len(servers) < 2:
        return ""
    me, peer = servers[0].name, servers[1].name
    lines = ["| Target (against %s unless named) | Figure | Reached |" % peer, "|---|---|---|"]
    for test, metric, rule, *against in TARGETS:
        mine = bench.results.get((test, me), {}).get(metric)
        named = ""
        if not against:
            theirs = bench.results.get((test, peer), {}).get(metric)
        elif against[0] == BEST:
            whom, theirs = best_peer(bench, servers, test, metric)
            named = " %s (%s)" % (BEST, whom)
        else:
            theirs = bench.results.get((against[0], me), {}).get(metric)
            named = " this daemon's %s" % against[0]
        if not mine or not theirs:
            continue
        value = median(mine)
        ratio = value / median(theirs) if median(theirs) else float("nan")
        what, op, bound = rule.split()
        x = ratio if what == "ratio" else value
        ok = {">=": x >= float(bound), "<=": x <= float(bound), "<": x < float(bound)}[op]
        shown = "%.2f×" % ratio if what == "ratio" else "%.0f %s" % (value, UNITS[metric][0])
        lines.append("| %s, %s %s %s%s | %s | %s |" % (test, UNITS[metric][0], op, bound if what == "value"
                                                        else bound + "×", named, shown, "yes" if ok else "no"))
    return "\n".join(lines)


def tls_path():
    """Which record layer this daemon's TLS connections use on this machine."""
    if os.path.exists(KTLS_STAT):
        return "TLS: kernel TLS available (%s): this daemon lets the kernel carry its records" % KTLS_STAT
    return "TLS: user-space record layer (this kernel offers no kernel TLS: no %s)" % KTLS_STAT


def tls_note(bench):
    """The line above the table on the TLS rows: the record layer, and what was negotiated."""
    if not bench.negotiated:
        return ""
    used = "; ".join("%s %s" % (n, v) for n, v in sorted(bench.negotiated.items()))
    return "%s. Data connections negotiated: %s." % (tls_path(), used)


def write_doc(path, text, args, servers, left_out, load, goals, tls_line=""):
    with open("/proc/cpuinfo") as f:
        model = next((l.split(":", 1)[1].strip() for l in f if l.startswith("model name")), "?")
    how = ("its cpuacct control group, so every process it forked counts"
           if all(s.cgroup for s in servers) else "its whole process tree")
    peers = [s.about for s in servers[1:]]
    named = ", ".join(peers[:-1]) + " and " + peers[-1] if len(peers) > 1 else "".join(peers)
    intro = "\n\n".join(textwrap.fill(p, 96) for p in [
        "Measured side by side on loopback by `make bench` (bench/run.py), which starts this daemon "
        "and the black-box %s %s, each with its own configuration and anonymous login, all serving "
        "the same tmpfs directory. Every figure is the "
        "median of %d interleaved repetitions, the transfers' after one unrecorded round (the login "
        "test: %d runs of %g s). Server CPU is the CPU "
        "time of each server measured through %s. This daemon logs clients in against its own user "
        "table, the peers take anonymous logins (their cheapest). A ratio is this daemon's figure "
        "divided by the peer's: above 1 is better for throughput and sessions per second, below 1 is "
        "better for CPU, time and memory." % ("peer" if len(peers) == 1 else "peers", named, args.reps,
                                              max(3, args.reps // 2), args.login_seconds, how),
        "Machine: %d CPU(s), %s; client and servers share them (load average %s when the run "
        "began, %s when it ended, of which the run's own client and server make up to 2), and other "
        "work (builds, tests) may share the machine as well: figures from such a run swing, between "
        "runs more than the ratios do. Single transfers move by some tens of "
        "percent from one to the next (on this virtual machine, now and then a transfer of any "
        "server runs at half speed with twice the CPU per byte); the interleaved medians keep the "
        "comparison fair, not exact."
        % (os.cpu_count(), model, load, "%.1f" % os.getloadavg()[0])])
    missing = "\n\n" + textwrap.fill("Not measured: %s." % "; ".join(left_out), 96) if left_out else ""
    tls_line = textwrap.fill(tls_line, 96) + "\n\n" if tls_line else ""
    doc = f"""# Performance

{intro}

To reproduce: `make bench` (as root; it installs the peers through bench/setup.sh), or
`python3 bench/run.py --build BUILD_DIR` after a build.

{tls_line}{text}

{goals}

The ASCII figures count the file's bytes per second; the wire carries one more byte per line.
The listing on the disk lists a directory on the disk bind-mounted into the shared directory;
this daemon's temporary listing files (`TMPDIR`) are on the disk as well.{missing}

The MLSD rows and the resumed download (REST 536870912, then RETR of the file's second half;
its throughput and CPU count the half that is sent) are this daemon in its standard profile
(`[ftp] profile = standard`), which serves MLSD and REST, started as a second instance beside
the first. Every other row is the device profile, as before: the standard profile changes what
they measure as well (its listings are staged whole before the data connection opens, its
uploads go through a hidden file that is renamed over the target). vsftpd does not serve MLSD
(n/a); pure-ftpd and proftpd do, and their MLSD listings carry every entry (theirs with `.`
and `..` besides).

The TLS rows are explicit FTPS (AUTH TLS, PBSZ 0, PROT P; every data connection resumes the
control connection's TLS session, which both servers require by default) with a self-signed
RSA 2048 certificate that the run makes, against a third instance of this daemon in the
standard profile with a `[tls]` section (its defaults: logins only over TLS, data connections
must resume) and a second vsftpd with `ssl_enable=YES`, `allow_anon_ssl=YES` and
`force_anon_logins_ssl=YES` (its `require_ssl_reuse` left at YES). The client is the same
OpenSSL one for both and takes what each server chooses. pure-ftpd and proftpd are not
measured over TLS (n/a). "TLS handshakes+logins" is 19 clients that each connect, AUTH TLS,
handshake, USER, PASS and QUIT in a loop.

Every upload writes a new file: the server's previous upload is deleted before each
measurement, outside the timed part. Binary uploads are bound by the kernel's copy of the
received bytes into the file's tmpfs pages (this daemon splices them from the connection, so
that copy is the only one), so the servers that do least besides come out close: in single runs
on this machine the STOR binary ratio to vsftpd has ranged from just below 1.0 to 1.6×. Binary
downloads splice 1 MiB of file pages per chunk into the connection, which measured about a tenth
less CPU per byte than sendfile.
"""
    with open(path, "w") as f:
        f.write(doc)


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--build", default=os.path.join(ROOT, "build"), help="the daemon's build directory")
    p.add_argument("--client-build", default=None, help="build directory of the benchmark client")
    p.add_argument("--reps", type=int, default=15)
    p.add_argument("--login-seconds", type=float, default=3.0)
    p.add_argument("--only", default="", help="comma-separated server names (default: all)")
    p.add_argument("--tests", default="",
                   help="comma-separated subset of retr,rretr,stor,aretr,astor,logins,mretr,list,mlsd,rss,"
                   "tretr,tstor,thandshake (default: all)")
    p.add_argument("--doc", default=os.path.join(ROOT, "docs", "performance.md"))
    p.add_argument("--no-doc", action="store_true")
    args = p.parse_args()
    args.build = os.path.abspath(args.build)
    if args.client_build is None:
        args.client_build = os.path.join(args.build, "bench")
    subprocess.run(["cmake", "-S", HERE, "-B", args.client_build], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", args.client_build, "-j2"], check=True, stdout=subprocess.DEVNULL)

    shm = tempfile.mkdtemp(prefix="ftps-bench-", dir="/dev/shm")
    # proftpd checks, as the ftp user, that the way to the shared directory is open.
    os.chmod(shm, 0o755)
    disk = tempfile.mkdtemp(prefix="ftps-bench-", dir="/var/tmp")
    share = os.path.join(shm, "share")
    servers, instances = [], []
    load = "%.1f" % os.getloadavg()[0]
    try:
        print("preparing files ...", flush=True)
        make_share(share, os.path.join(disk, "disk"))
        # vsftpd stays the first peer: the targets are judged against it.
        servers = [Ftps(disk, share, args.build), Vsftpd(disk, share), PureFtpd(disk, share),
                   Proftpd(disk, share)]
        if args.only:
            servers = [s for s in servers if s.name in args.only.split(",")]
        started, left_out = [], []
        for s in servers:
            try:
                s.start()
                started.append(s)
            except (RuntimeError, OSError) as e:
                s.stop()
                if not s.optional:
                    raise
                print("%s; left out" % e, flush=True)
                left_out.append(str(e))
        servers = started
        # MLSD and REST are served in the standard profile only: a second instance of this daemon
        # measures them, so that the device profile's rows stay as they were.
        standard = None
        if any(s.name == "ftps" for s in servers) and (bench_wants(args, "mlsd") or bench_wants(args, "rretr")):
            standard = Ftps(disk, share, args.build, profile="standard")
            instances.append(standard)
            standard.start()
        # FTPS: an instance of this daemon and of vsftpd each, with one certificate for both.
        tls = []
        if any(bench_wants(args, t) for t in ("tretr", "tstor", "thandshake")):
            cert = (os.path.join(disk, "cert.pem"), os.path.join(disk, "key.pem"))
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30",
                            "-subj", "/CN=localhost", "-out", cert[0], "-keyout", cert[1]],
                           check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            for s in servers:
                if s.name == "ftps":
                    tls.append(Ftps(disk, share, args.build, profile="standard", tls=cert))
                elif s.name == "vsftpd":
                    tls.append(Vsftpd(disk, share, tls=cert))
            for t in tls:
                instances.append(t)
                t.start()
            print(tls_path(), flush=True)
        bench = Bench(args, standard, tls)
        print("measuring ...", flush=True)
        bench.run(servers, share)
        text = table(bench, servers)
        tls_line = tls_note(bench)
        if tls_line:
            print(tls_line)
        print(text)
        goals = targets(bench, servers)
        print(goals)
        if not args.no_doc:
            write_doc(args.doc, text, args, servers, left_out, load, goals, tls_line)
            print("written to %s" % os.path.relpath(args.doc, ROOT))
    finally:
        for s in servers + instances:
            s.stop()
        subprocess.run(["umount", os.path.join(share, "disk")], stderr=subprocess.DEVNULL)
        shutil.rmtree(shm, ignore_errors=True)
        shutil.rmtree(disk, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
