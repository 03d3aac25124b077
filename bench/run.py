#!/usr/bin/env python3
"""Side-by-side benchmark of this daemon against vsftpd, pure-ftpd and proftpd (black-box peers
from Debian; pure-ftpd and proftpd optional).

All servers run on loopback and serve the same tmpfs directory (with a bind-mounted directory
on the disk for the listing on disk). Every measurement is repeated and interleaved between the
servers, and the median is kept.

The client (bench/ftpbench.cpp) is zero-copy by default: it splices downloads from the socket
into /dev/null and sends uploads with sendfile from a memory file, so that what is measured is
the server. `--client copy` makes the copying client (its own buffers, as ordinary clients) the
first one, and `--copy-rows` names the rows measured with the other client as well; every row
of the report says which client it used. Protected (TLS) transfers pass through the client's
buffers whatever the client: they are decrypted there.

Every server runs in a control group of its own, joined before it is started (so forked,
threaded and orphaned work all count): cgroup v2 where the machine has it (`cpu.stat`
usage_usec; memory from `memory.stat` when the memory controller is on), cgroup v1 otherwise
(`cpuacct.usage`, the memory controller's `memory.stat` and kernel memory). Without any, the
server's process tree is summed.

This daemon runs its standard profile; the device profile is an extra row where the profile
changes the work (uploads, command lines, listings, logins, memory). Every server also runs a
second instance that serves explicit FTPS (AUTH TLS, PROT P) with one self-signed certificate,
for the TLS rows. Nothing is asserted: the figures go into a table with the ratio to the best
peer and a table of targets, written to docs/performance.md unless told otherwise.

Needs root (the peers' anonymous sessions change root and user; bind mounts; control groups)
and the peers installed by bench/setup.sh. Run through `make bench`.
"""

import argparse
import os
import pwd
import resource
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import textwrap
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
CLK = os.sysconf("SC_CLK_TCK")
GIB = 1 << 30
MIB = 1 << 20
KIB = 1 << 10

USER, PASSWORD = "bench", "benchpw1"
# Accounts of this daemon's local user database: one with its own max_rate (KiB/s; 1 GiB then
# takes 32 s), one without.
RATED_USER, UNRATED_USER, LOCAL_PASSWORD = "rated", "unrated", "localpw1"
RATE_KIB = 32 * 1024
# Many sessions: logged-in idle sessions held at once for the memory per session, and clients
# logging in at once. The servers' session limits are raised above them.
IDLE_MANY, BUSY_MANY = 1000, 200
SESSION_LIMIT = 1000
# Descriptors the bench's processes (servers and client) may open: the client holds every idle
# session's socket, and a server holds one or more per session.
NOFILE = 16384
LIST_ENTRIES = 10000
SMALL_FILES, SMALL_SIZE, SMALL_SESSIONS = 2000, 4 * KIB, 4
HELD_SESSIONS = 19
# What decides whether this daemon's records go through the kernel (kernel TLS) or its own loop.
KTLS_STAT = "/proc/net/tls_stat"
# Free page reporting: a virtual machine's kernel hands memory it freed back to the host.
PAGE_REPORTING = "/sys/module/page_reporting/parameters"
# For the run: memory freed in the last five minutes (the longest this kernel takes), up to 8 GiB,
# stays with the machine.
PAGE_REPORTING_HELD = (("min_free_ms", "300000"), ("max_waiting_mib", "8192"))
# A row that begins this long after memory was last touched beforehand touches it again: rows
# that hold sessions or a slow transfer free little, and what they leave free may have gone.
REWARM_AFTER = 120
# Where bench/setup.sh unpacks the optional peers: Debian's FTP server packages conflict with one
# another, so only vsftpd is installed as a package.
PEERS = "/opt/ftps-bench/peers"
ZERO_COPY, COPY = "zero-copy", "copy"


def peer_binary(name, package):
    """The peer's program: installed as a package, or unpacked by bench/setup.sh; None if neither."""
    found = shutil.which(name)
    if found:
        return found
    unpacked = os.path.join(PEERS, package, "usr", "sbin", name)
    return unpacked if os.access(unpacked, os.X_OK) else None


def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def read_text(path):
    with open(path) as f:
        return f.read()


def write_text(path, text):
    with open(path, "w") as f:
        f.write(text)


# ---------------------------------------------------------------------------------------------
# Control groups


def cgroup_mounts():
    """(the cgroup v2 mount point or None, {v1 controller: mount point})."""
    v2, v1 = None, {}
    for line in read_text("/proc/self/mounts").splitlines():
        fields = line.split()
        if len(fields) < 4:
            continue
        mnt, fstype, opts = fields[1], fields[2], fields[3].split(",")
        if fstype == "cgroup2" and (v2 is None or mnt == "/sys/fs/cgroup"):
            v2 = mnt
        elif fstype == "cgroup":
            for o in opts:
                if o in ("cpuacct", "memory"):
                    v1[o] = mnt
    return v2, v1


def own_cgroup(controller):
    """The bench's own group in a hierarchy: "" for v2, a v1 controller's name otherwise. The
    servers' groups are made below it, so that they stay inside whatever holds the bench."""
    for line in read_text("/proc/self/cgroup").splitlines():
        num, ctrls, path = line.split(":", 2)
        if (controller == "" and num == "0") or (controller and controller in ctrls.split(",")):
            return path.lstrip("/")
    return ""


def cgroup_kind():
    """What the machine offers, for the report."""
    v2, v1 = cgroup_mounts()
    parts = []
    if v2:
        parts.append("cgroup v2 at %s (CPU: cpu.stat)" % v2)
    if v1:
        parts.append("cgroup v1 %s" % ", ".join("%s at %s" % kv for kv in sorted(v1.items())))
    return "; ".join(parts) or "none"


class ControlGroup:
    """One server's group in each hierarchy that counts something for it: CPU from v2's
    cpu.stat (always there in v2) or v1's cpuacct, memory from v2's memory controller when the
    bench's group hands it down, else from v1's memory controller."""

    def __init__(self, tag):
        v2, v1 = cgroup_mounts()
        name = "ftps-bench-%s-%d" % (tag, os.getpid())
        self.dirs = []
        self.cpu_file = self.cpu_v2 = None
        self.mem_dir = self.mem_v2 = None
        if v2:
            parent = os.path.join(v2, own_cgroup(""))
            d = self._make(parent, name)
            if d:
                self.cpu_file, self.cpu_v2 = os.path.join(d, "cpu.stat"), True
                try:
                    if "memory" in read_text(os.path.join(parent, "cgroup.subtree_control")).split():
                        self.mem_dir, self.mem_v2 = d, True
                except OSError:
                    pass
        if self.cpu_file is None and "cpuacct" in v1:
            d = self._make(os.path.join(v1["cpuacct"], own_cgroup("cpuacct")), name)
            if d:
                self.cpu_file, self.cpu_v2 = os.path.join(d, "cpuacct.usage"), False
        if self.mem_dir is None and "memory" in v1:
            d = self._make(os.path.join(v1["memory"], own_cgroup("memory")), name)
            if d:
                self.mem_dir, self.mem_v2 = d, False

    def _make(self, parent, name):
        d = os.path.join(parent, name)
        try:
            os.makedirs(d, exist_ok=True)
        except OSError:
            return None
        self.dirs.append(d)
        return d

    def __bool__(self):
        return self.cpu_file is not None

    def join(self):
        """In the server's process, before its program starts."""
        for d in self.dirs:
            write_text(os.path.join(d, "cgroup.procs"), str(os.getpid()))

    def cpu(self):
        text = read_text(self.cpu_file)
        if self.cpu_v2:
            return int(dict(l.split() for l in text.splitlines())["usage_usec"]) / 1e6
        return int(text) / 1e9

    def tasks(self):
        d = self.dirs[0]
        name = "cgroup.threads" if self.cpu_v2 else "tasks"
        return len(read_text(os.path.join(d, name)).split())

    def pids(self):
        found = set()
        for d in self.dirs:
            try:
                found.update(int(x) for x in read_text(os.path.join(d, "cgroup.procs")).split())
            except OSError:
                pass
        return sorted(found)

    def nonfile(self):
        """Bytes of the group's memory that are not file pages: anonymous and kernel memory
        (sockets, page tables, kernel stacks, slab), or None without a memory controller."""
        if not self.mem_dir:
            return None
        stat = dict(l.split() for l in read_text(os.path.join(self.mem_dir, "memory.stat")).splitlines())
        if self.mem_v2:
            return int(stat["anon"]) + int(stat.get("kernel", 0) or sum(
                int(stat.get(k, 0)) for k in ("kernel_stack", "pagetables", "percpu", "sock", "slab")))
        kmem = int(read_text(os.path.join(self.mem_dir, "memory.kmem.usage_in_bytes")))
        return int(stat["total_rss"]) + kmem

    def remove(self):
        for pid in self.pids():
            try:
                os.kill(pid, signal.SIGKILL)
            except OSError:
                pass
        for d in self.dirs:
            for _ in range(50):
                try:
                    os.rmdir(d)
                    break
                except OSError:
                    time.sleep(0.1)


def proc_stat(pid):
    text = read_text("/proc/%d/stat" % pid)
    fields = text[text.rindex(")") + 2:].split()
    # fields[0] is field 3 (state): ppid 4, utime 14, stime 15, cutime 16, cstime 17
    return {"ppid": int(fields[1]), "cpu": sum(int(x) for x in fields[11:15]) / CLK}


def tree(root_pid):
    """The process ids of root_pid and all its descendants (without a control group)."""
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


def pss(pids):
    """Proportional set size of the processes, bytes: shared pages count for their share."""
    total = 0
    for pid in pids:
        try:
            for line in read_text("/proc/%d/smaps_rollup" % pid).splitlines():
                if line.startswith("Pss:"):
                    total += int(line.split()[1]) * KIB
                    break
        except OSError:
            pass
    return total


# ---------------------------------------------------------------------------------------------
# Servers


class Server:
    name = "?"
    # An optional peer that cannot be started is left out of the run instead of ending it.
    optional = False
    # Answers MLSD (RFC 3659); a server that does not is shown as n/a in the MLSD rows.
    mlsd = True
    base_tasks = 1

    def __init__(self, work, share, tls=None):
        self.work = work
        self.share = share
        self.tls = tls
        self.port = free_port()
        self.proc = None
        self.group = None

    @property
    def tag(self):
        """Names the instance's own files and control group."""
        return self.name + "-tls" if self.tls else self.name

    @property
    def pid(self):
        return self.proc.pid

    def spawn(self, argv, env=None):
        group = ControlGroup(self.tag)
        self.group = group if group else None
        if not self.group:
            group.remove()
        self.proc = subprocess.Popen(argv, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                     preexec_fn=self.group.join if self.group else None)
        self.wait_port()
        # The threads (or processes) of a server with no session: once the probe's session is over.
        counts = []
        deadline = time.time() + 5
        while time.time() < deadline and (len(counts) < 5 or len(set(counts[-5:])) > 1):
            counts.append(self.tasks())
            time.sleep(0.1)
        self.base_tasks = counts[-1]
        # The idle footprint, before any measurement: the kernel memory of later work (the
        # dentries and inodes of uploaded files, socket buffers) stays charged to the group.
        self.idle = (self.pss(), self.nonfile())

    def pids(self):
        return self.group.pids() if self.group else tree(self.pid)

    def cpu(self):
        if self.group:
            return self.group.cpu()
        total = 0
        for pid in tree(self.pid):
            try:
                total += proc_stat(pid)["cpu"]
            except (OSError, ValueError):
                pass
        return total

    def pss(self):
        return pss(self.pids())

    def nonfile(self):
        return self.group.nonfile() if self.group else None

    def tasks(self):
        """Threads of the server: a session is a process of a peer's and a thread of this
        daemon's. The control group also holds a session process whose parent ended before it,
        which the process tree loses."""
        if self.group:
            return self.group.tasks()
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

    def wait_port(self):
        deadline = time.time() + 15
        while time.time() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("%s ended at its start (status %d)" % (self.tag, self.proc.returncode))
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=1) as s:
                    s.recv(100)
                    return
            except OSError:
                time.sleep(0.1)
        listening = subprocess.run(["ss", "-Hltn", "sport = :%d" % self.port], capture_output=True,
                                   text=True).stdout.strip()
        raise RuntimeError("%s did not come up (port %d %s)" % (self.tag, self.port,
                                                                "listening" if listening else "not listening"))

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        if self.group:
            self.group.remove()


class Ftps(Server):
    """This daemon in a profile; with tls, (certificate, key), a standard instance that serves
    FTPS with its [tls] defaults (logins only over TLS, data connections must resume)."""
    name = "ftps"
    about = "this daemon"

    def __init__(self, work, share, build, profile="standard", tls=None):
        super().__init__(work, share, tls)
        self.build = build
        self.profile = profile
        self.user, self.password = USER, PASSWORD
        self.dir = os.path.join(work, self.tag)
        # Temporary listing files go below TMPDIR: on the disk, as with a stock /tmp.
        self.tmpdir = os.path.join(self.dir, "t")
        os.makedirs(self.tmpdir)
        self.platform = os.path.join(self.dir, "platform.conf")
        startup = os.path.join(self.dir, "startup.conf")
        # In the standard profile the server's own user may hold as many sessions as the server
        # admits (no max-user-connect): the many-sessions rows log it in a thousand times at once.
        # The device profile's user holds 10 unless raised, to at most its 20 sessions.
        per_user = "ftp-server max-user-connect 20\n" if profile == "device" else ""
        write_text(startup, "ftp-server topdir flash:/\n"
                   "ftp-server username %s password %s\n%s"
                   "ftp-server enable\n" % (USER, PASSWORD, per_user))
        users = os.path.join(self.dir, "users.ini")
        write_text(users, "[user %s]\npassword = %s\nmax_rate = %d\n\n[user %s]\npassword = %s\n" % (
            RATED_USER, LOCAL_PASSWORD, RATE_KIB, UNRATED_USER, LOCAL_PASSWORD))
        # The standard profile's session limits raised for the many-sessions rows; the device
        # profile keeps its own.
        limits = ("max_sessions = %d\nmax_per_address = 0\n" % SESSION_LIMIT) if profile == "standard" else ""
        conf = ("[device]\nproduct_name = BENCH\n[ftp]\ncontrol_port = %d\nprofile = %s\n%s[storage]\n"
                "flash = %s\n[cli]\nstartup_config = %s\n[log]\nsyslog = no\nstderr = no\n"
                "[security]\npwquality = minlen=6 dictcheck=0\n[aaa]\nuser_database = %s\nlist.default = local\n"
                % (self.port, profile, limits, share, startup, users))
        if tls:
            conf += "[tls]\ncertificate = %s\nkey = %s\n" % tls
        write_text(self.platform, conf)

    @property
    def tag(self):
        # Short: the daemon's sockets below TMPDIR (self.dir/t) have room for 64 bytes of path.
        if self.tls:
            return "ftps-tls"
        return "ftps" if self.profile == "standard" else "ftps-dev"

    def start(self):
        env = dict(os.environ, TMPDIR=self.tmpdir, FTPS_PLATFORM=self.platform)
        env.pop("NOTIFY_SOCKET", None)
        self.spawn([os.path.join(self.build, "ftp_server.elf")], env=env)


class Vsftpd(Server):
    name = "vsftpd"
    about = "vsftpd (Debian's package, ASCII conversion switched on)"
    mlsd = False

    def __init__(self, work, share, tls=None):
        super().__init__(work, share, tls)
        self.user, self.password = "anonymous", "bench@"
        self.conf = os.path.join(work, self.tag + ".conf")
        # With tls, (certificate, key): logins only after AUTH TLS, data connections that resume
        # the control connection's session (its default), plain data connections allowed.
        secure = ["ssl_enable=YES", "rsa_cert_file=%s" % tls[0], "rsa_private_key_file=%s" % tls[1],
                  "allow_anon_ssl=YES", "force_anon_logins_ssl=YES", "force_anon_data_ssl=NO",
                  "require_ssl_reuse=YES"] if tls else []
        # Anonymous sessions: the cheapest login the peer has. ASCII conversion is switched on so
        # that TYPE A does the same work as this daemon does.
        write_text(self.conf, "\n".join(secure + [
            "listen=YES", "listen_ipv6=NO", "listen_address=127.0.0.1", "listen_port=%d" % self.port,
            "background=NO", "anonymous_enable=YES", "no_anon_password=YES", "local_enable=NO",
            "anon_root=%s" % share, "write_enable=YES", "anon_upload_enable=YES",
            "anon_mkdir_write_enable=YES", "anon_other_write_enable=YES", "anon_umask=022",
            "ascii_upload_enable=YES", "ascii_download_enable=YES", "dirmessage_enable=NO",
            "xferlog_enable=NO", "pasv_enable=YES", "port_enable=YES", "max_clients=0", "max_per_ip=0",
            "seccomp_sandbox=NO", ""]))

    def start(self):
        self.spawn(["vsftpd", self.conf])


class UnpackedPeer(Server):
    """An optional peer that bench/setup.sh unpacks, logging in anonymously (its cheapest)."""

    optional = True
    program = package = "?"

    def __init__(self, work, share, tls=None):
        super().__init__(work, share, tls)
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
        # name lookups, a session limit above the many-sessions rows' (-c) and a listing cap (2000
        # by default) above the listing test's directory, so that every entry is sent.
        argv = [self.binary, "-S", "127.0.0.1,%d" % self.port, "-4", "-e", "-H", "-f", "none",
                "-c", str(SESSION_LIMIT + 10),
                "-L", "%d:5" % (10 * LIST_ENTRIES), "-g", os.path.join(self.work, self.tag + ".pid")]
        if self.tls:
            # TLS allowed, and required for logins (2): as the other servers' TLS instances. Its
            # certificate is one file with the key (PEM, key first or after; both are read).
            pem = os.path.join(self.work, "pure-ftpd.pem")
            write_text(pem, read_text(self.tls[1]) + read_text(self.tls[0]))
            os.chmod(pem, 0o600)
            argv += ["--tls=2", "--certfile=%s" % pem]
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

    def modules(self):
        """The directory of its loadable modules (mod_tls among them)."""
        base = os.path.dirname(os.path.dirname(os.path.dirname(self.binary)))
        for d in (os.path.join(base, "usr", "lib", "proftpd"), "/usr/lib/proftpd"):
            if os.path.exists(os.path.join(d, "mod_tls.so")):
                return d
        return None

    def command(self):
        conf = os.path.join(self.work, self.tag + ".conf")
        secure = []
        if self.tls:
            mods = self.modules()
            if not mods:
                raise RuntimeError("proftpd has no mod_tls here")
            # mod_tls as a loadable module; TLS required for logins, the data connections'
            # sessions resumed (its default), TLS 1.3 allowed.
            secure = ["ModulePath %s" % mods, "LoadModule mod_tls.c", "TLSEngine on", "TLSProtocol TLSv1.2 TLSv1.3",
                      "TLSRSACertificateFile %s" % self.tls[0], "TLSRSACertificateKeyFile %s" % self.tls[1],
                      "TLSRequired ctrl", "TLSLog none", "TLSVerifyClient off", "TLSRenegotiate none"]
        # Anonymous sessions as for vsftpd, without PAM; uploads go where the ftp user may write
        # (up/); a session limit (MaxInstances) above the many-sessions rows'. TYPE A is converted
        # by default. Its login delay (against the timing of user
        # names) would be measured as login time: off.
        write_text(conf, "\n".join(secure + [
            "ServerType standalone", 'ServerName "bench"', "Port %d" % self.port,
            "DefaultAddress 127.0.0.1", "SocketBindTight on", "UseIPv6 off", "UseReverseDNS off",
            "User nobody", "Group nogroup", "PidFile %s" % os.path.join(self.work, self.tag + ".pid"),
            "ScoreboardFile %s" % os.path.join(self.work, self.tag + ".scoreboard"), "SystemLog NONE",
            "TransferLog NONE", "WtmpLog off", "MaxInstances %d" % (SESSION_LIMIT + 10), "AuthPAM off",
            "AuthOrder mod_auth_unix.c", "UseFtpUsers off",
            "<IfModule mod_delay.c>", "DelayEngine off", "</IfModule>",
            "<IfModule mod_ctrls.c>", "ControlsEngine off", "</IfModule>",
            "<Anonymous %s>" % self.share, "User ftp", "Group nogroup", "UserAlias anonymous ftp",
            "RequireValidShell off", "MaxClients none", "AllowOverwrite on", "</Anonymous>", ""]))
        return [self.binary, "-n", "-q", "-c", conf]


PEER_CLASSES = [Vsftpd, PureFtpd, Proftpd]

# ---------------------------------------------------------------------------------------------
# Rows


class Row:
    """One measurement: key (for --only), title, what the client does, and the metrics shown."""

    def __init__(self, key, title, kind, **kw):
        self.key, self.title, self.kind = key, title, kind
        self.type = kw.get("type", "I")
        self.path = kw.get("path")
        self.size = kw.get("size", 0)
        self.offset = kw.get("offset", 0)
        self.active = kw.get("active", False)
        self.sessions = kw.get("sessions", 1)
        self.verb = kw.get("verb")
        # Rows where the device profile does other work than the standard one.
        self.device = kw.get("device", False)
        # Rows measured over TLS as well.
        self.tls = kw.get("tls", False)
        # Another account than the server's usual one: an account of this daemon's local user
        # database, so that the row is this daemon's alone.
        self.user = kw.get("user")


SMALL = "%s files of %d KiB" % ("{:,}".format(SMALL_FILES), SMALL_SIZE // KIB)
ROWS = [
    Row("retr", "RETR 1 GiB binary, passive", "retr", path="big.bin", size=GIB, tls=True),
    Row("retr-active", "RETR 1 GiB binary, active", "retr", path="big.bin", size=GIB, active=True, tls=True),
    Row("rest", "RETR after REST 512 MiB (the second half)", "retr", path="big.bin", size=GIB // 2,
        offset=GIB // 2, tls=True),
    Row("stor", "STOR 1 GiB binary", "stor", path="up/stor-%s.bin", size=GIB, device=True, tls=True),
    Row("aretr", "RETR 256 MiB ASCII", "retr", type="A", path="text.txt", size=256 * MIB, tls=True),
    Row("astor", "STOR 256 MiB ASCII", "stor", type="A", path="up/stor-%s.txt", size=256 * MIB, device=True,
        tls=True),
    Row("files-retr", "RETR %s, 1 session" % SMALL, "files", path="small", size=SMALL_SIZE, device=True, tls=True),
    Row("files-stor", "STOR %s, 1 session" % SMALL, "files", path="up/files-%s", size=SMALL_SIZE, device=True,
        tls=True),
    Row("files-retr4", "RETR %s, %d sessions" % (SMALL, SMALL_SESSIONS), "files", path="small", size=SMALL_SIZE,
        sessions=SMALL_SESSIONS, device=True, tls=True),
    Row("files-stor4", "STOR %s, %d sessions" % (SMALL, SMALL_SESSIONS), "files", path="up/files-%s",
        size=SMALL_SIZE, sessions=SMALL_SESSIONS, device=True, tls=True),
    Row("logins", "%d clients connect+login+QUIT" % HELD_SESSIONS, "logins", sessions=HELD_SESSIONS, device=True,
        tls=True),
    Row("mretr", "19 concurrent RETR of 10 MiB", "mretr", path="ten.bin"),
    Row("list", "LIST of %d entries (tmpfs)" % LIST_ENTRIES, "list", verb="LIST", path="dir10k", device=True),
    Row("list", "NLST of %d entries (tmpfs)" % LIST_ENTRIES, "list", verb="NLST", path="dir10k", device=True),
    Row("list", "LIST of %d entries (disk)" % LIST_ENTRIES, "list", verb="LIST", path="disk/dir10k", device=True),
    Row("mlsd", "MLSD of %d entries (tmpfs)" % LIST_ENTRIES, "list", verb="MLSD", path="dir10k"),
    Row("mlsd", "MLSD of %d entries (disk)" % LIST_ENTRIES, "list", verb="MLSD", path="disk/dir10k"),
    Row("mem", "Memory", "mem", device=True),
    # max_rate: off costs nothing (the figure of the bench account's downloads between), and on it
    # holds the configured rate over a transfer of about 30 seconds. The peers' own limits are
    # not measured: each would need an instance of its own configured with one.
    Row("rate", "RETR 1 GiB binary, max_rate off (local account without one)", "retr", path="big.bin", size=GIB,
        user=UNRATED_USER),
    Row("rate", "RETR 1 GiB binary, max_rate %d MiB/s (local account)" % (RATE_KIB // 1024), "rate", path="big.bin",
        size=GIB, user=RATED_USER),
    Row("sessions", "{:,} logged-in idle sessions".format(IDLE_MANY), "many", sessions=IDLE_MANY),
    Row("sessions", "%d clients connect+login+QUIT" % BUSY_MANY, "logins", sessions=BUSY_MANY),
]
ROW_KEYS = sorted({r.key for r in ROWS} | {"tls-" + r.key for r in ROWS if r.tls})

# metric -> (unit, higher is better)
UNITS = {"mibs": ("MiB/s", True), "cpu_gib": ("CPU s/GiB", False), "rate": ("files/s", True),
         "cpu_ms_file": ("CPU ms/file", False), "logins": ("sessions/s", True), "cpu_ms": ("CPU ms/session", False),
         "failed": ("failed sessions", False), "ms": ("ms", False), "pss_idle": ("idle PSS MiB", False),
         "nonfile_idle": ("idle non-file MiB", False), "pss_session": ("PSS KiB/session", False),
         "nonfile_session": ("non-file KiB/session", False), "client_cpu_gib": ("client CPU s/GiB", False),
         "client_cpu_ms_file": ("client CPU ms/file", False), "of_rate": ("% of max_rate", False),
         "paired_mibs": ("MiB/s of the bench account, alternating", True)}
# The throughput a row's best peer is chosen by; CPU is compared with that peer's.
PRIMARY = ("mibs", "rate", "logins", "ms")
CLIENT_METRICS = ("client_cpu_gib", "client_cpu_ms_file")


def figure(word):
    """A value of the client's "key=value" words: a number, or a name (a TLS version, a cipher)."""
    try:
        return float(word)
    except ValueError:
        return word


def median(xs):
    return statistics.median(xs) if xs else float("nan")


class Bench:
    def __init__(self, args, plain, device, tls):
        self.args = args
        self.client = os.path.join(args.client_build, "ftpbench")
        # (row title, client, instance tag) -> metric -> list of figures
        self.results = {}
        # (row title, client, instance tag, metric) -> the round of each figure, in step with
        # results: a round measures every server once, in turn.
        self.rounds = {}
        self.round = 0
        self.plain, self.device, self.tls = plain, device, tls
        self.negotiated = {}  # instance tag -> what its TLS data connections used
        self.timing = []      # (row, client, seconds) of the run, for the report
        self.failures = []    # measurements that failed, for the report
        self.before_row = None  # called before each row

    def wanted(self, key):
        return self.args.only_set is None or key in self.args.only_set

    def run_client(self, server, argv, flags=(), timeout=900, user=None):
        login = (user, LOCAL_PASSWORD) if user else (server.user, server.password)
        cmd = [self.client, *flags, argv[0], str(server.port), *login, *(str(x) for x in argv[1:])]
        r = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout)
        if r.returncode != 0:
            raise RuntimeError("%s: %s: %s" % (server.tag, " ".join(cmd[1:]), r.stderr.strip()))
        return {k: figure(v) for k, v in (w.split("=", 1) for w in r.stdout.split())}

    def measured(self, server, argv, flags=(), user=None):
        server.settle()
        c0 = server.cpu()
        out = self.run_client(server, argv, flags, user=user)
        server.settle()
        out["cpu"] = server.cpu() - c0
        if self.args.trace:
            print("    %s %s: %s" % (server.tag, " ".join(str(a) for a in argv[:2]), out), flush=True)
        return out

    def record(self, title, client, server, **metrics):
        row = self.results.setdefault((title, client, server.tag), {})
        for k, v in metrics.items():
            row.setdefault(k, []).append(v)
            self.rounds.setdefault((title, client, server.tag, k), []).append(self.round)

    def interleave(self, servers, reps, fn):
        for i in range(reps):
            self.round += 1
            order = servers if i % 2 == 0 else list(reversed(servers))
            for s in order:
                self.guarded(s, fn)

    def guarded(self, s, fn):
        """One measurement; a failed one is left out and reported, and a server that ended is
        started again, so that one failure does not end the whole run."""
        try:
            fn(s)
        except (RuntimeError, subprocess.TimeoutExpired) as e:
            ended = s.proc.poll() if s.proc else None
            what = str(e).splitlines()[0][:300]
            if ended is not None:
                what += " (the server had ended, status %d%s; started again)" % (
                    ended, " = SIGSEGV" if ended == -signal.SIGSEGV else "")
            print("  failed: %s" % what, flush=True)
            self.failures.append(what)
            if ended is not None:
                s.stop()
                s.start()

    def servers_for(self, row, tls):
        if tls:
            return list(self.tls)
        if row.user:
            return [s for s in self.plain if s.name == "ftps"]
        return self.plain + ([self.device] if row.device and self.device else [])

    def clients_for(self, row, tls):
        """The clients a row is measured with: the first one, and the other one for the rows
        named by --copy-rows. Protected rows have one: their bytes are decrypted in the client."""
        if tls:
            return ["TLS"]
        if row.kind in ("logins", "mem", "many"):
            return ["-"]
        if row.kind not in ("retr", "stor", "files"):
            return [self.args.client]
        other = COPY if self.args.client == ZERO_COPY else ZERO_COPY
        more = [other] if row.key in self.args.copy_rows else []
        return [self.args.client] + more

    def flags(self, client, row, tls):
        f = []
        if tls:
            f.append("--tls")
        if client == COPY:
            f.append("--copy")
        if row.active:
            f.append("--active")
        return f

    def fresh_dir(self, s, pattern):
        """A new empty upload directory of the server's, owned by the ftp user (anonymous
        sessions of the peers write as that user, and pure-ftpd's may not replace a file)."""
        d = os.path.join(s.share, pattern % s.tag)
        shutil.rmtree(d, ignore_errors=True)
        os.makedirs(d)
        shutil.chown(d, "ftp", "ftp")
        return pattern % s.tag

    def run_row(self, row, tls):
        servers = self.servers_for(row, tls)
        reps = self.args.reps
        for client in self.clients_for(row, tls):
            t0 = time.time()
            flags = self.flags(client, row, tls)
            title = ("TLS " if tls else "") + row.title
            print("  %s [%s]" % (title, client), flush=True)
            if row.kind in ("retr", "stor", "files"):
                self.transfer(row, title, client, flags, servers, reps)
            elif row.kind == "logins":
                self.logins(row, title, client, flags, servers, reps)
            elif row.kind == "mretr":
                self.interleave(servers, reps, lambda s: self.mretr(row, title, client, s))
            elif row.kind == "list":
                among = [s for s in servers if s.mlsd] if row.verb == "MLSD" else servers
                self.interleave(among, reps, lambda s: self.listing(row, title, client, s))
            elif row.kind == "mem":
                self.interleave(servers, max(3, reps // 2), lambda s: self.memory(row, title, client, s))
            elif row.kind == "many":
                # Held once per server: a thousand sessions take seconds to open and to end.
                self.interleave(servers, 1, lambda s: self.many(row, title, client, s))
            elif row.kind == "rate":
                # One transfer of about 30 seconds.
                self.interleave(servers, 1, lambda s: self.rated(row, title, client, s))
            self.timing.append((title, client, time.time() - t0))

    def transfer(self, row, title, client, flags, servers, reps):
        record, turn = [False], [0]

        def download(s, user):
            argv = ["retr", row.type, row.path] + ([row.offset] if row.offset else [])
            out = self.measured(s, argv, flags, user=user)
            # A download that ended early would pass for a fast one (ASCII: one more byte per
            # line on the wire).
            expect = row.size if row.type == "I" else row.size // 64 * 65
            if out["bytes"] != expect:
                raise RuntimeError("%s sent %d bytes, not %d" % (s.tag, out["bytes"], expect))
            return out

        def one(s):
            if row.kind == "stor":
                # Each server writes its own file, and as a new one: an anonymous session of
                # pure-ftpd may not replace a file, and a replaced file's pages would be freed
                # inside the measurement.
                name = row.path % s.tag
                try:
                    os.unlink(os.path.join(s.share, name))
                except FileNotFoundError:
                    pass
                out = self.measured(s, ["stor", row.type, name, row.size], flags)
            elif row.kind == "files":
                per_session = SMALL_FILES // row.sessions
                if "%s" in row.path:
                    d, op = self.fresh_dir(s, row.path), "stor"
                else:
                    d, op = row.path, "retr"
                out = self.measured(s, ["files", op, d, per_session, row.size, row.sessions], flags)
                if out["bytes"] != SMALL_FILES * row.size:
                    raise RuntimeError("%s moved %d bytes of small files, not %d"
                                       % (s.tag, out["bytes"], SMALL_FILES * row.size))
            elif row.user:
                # Against the bench account's download of the same moment, the two alternating:
                # this machine's downloads fall into a fast and a slow mode for seconds at a time,
                # and a figure from another row could come from the other mode.
                turn[0] += 1
                users = (None, row.user) if turn[0] % 2 else (row.user, None)
                outs = {u: download(s, u) for u in users}
                out = outs[row.user]
                if record[0]:
                    self.record(title, client, s, paired_mibs=row.size / MIB / outs[None]["seconds"],
                                paired_ratio=outs[None]["seconds"] / out["seconds"])
            else:
                out = download(s, None)
            if "protocol" in out:
                self.negotiated[s.tag] = "%s %s" % (out["protocol"], out["cipher"])
            if not record[0]:
                return
            if row.kind == "files":
                self.record(title, client, s, rate=out["rate"], cpu_ms_file=1000 * out["cpu"] / out["files"],
                            client_cpu_ms_file=1000 * out["client_cpu"] / out["files"])
            else:
                self.record(title, client, s, mibs=row.size / MIB / out["seconds"],
                            cpu_gib=out["cpu"] / (row.size / GIB),
                            client_cpu_gib=out["client_cpu"] / (row.size / GIB))
        # One unrecorded round first: the first transfers of a run were the slowest ones.
        self.interleave(servers, 1, one)
        record[0] = True
        self.interleave(servers, reps, one)

    def logins(self, row, title, client, flags, servers, reps):
        op = "handshakes" if "--tls" in flags else "logins"

        def one(s):
            out = self.measured(s, [op, row.sessions, self.args.login_seconds])
            self.record(title, client, s, logins=out["rate"], cpu_ms=1000 * out["cpu"] / max(out["sessions"], 1),
                        failed=out["failed"])
        self.interleave(servers, max(3, reps // 2), one)

    def mretr(self, row, title, client, s):
        out = self.measured(s, ["mretr", 19, row.path], self.flags(client, row, False))
        self.record(title, client, s, mibs=out["bytes"] / MIB / out["seconds"],
                    cpu_gib=out["cpu"] / (out["bytes"] / GIB))

    def listing(self, row, title, client, s):
        out = self.measured(s, ["list", row.verb, row.path], self.flags(client, row, False))
        self.record(title, client, s, ms=1000 * out["seconds"])

    def held(self, s, sessions, settle=5.0):
        """What each of sessions logged-in sessions adds to the server's footprint of the moment:
        (PSS, non-file memory or None), bytes per session."""
        s.settle(settle)
        time.sleep(0.2)
        idle_pss, idle_nonfile = s.pss(), s.nonfile()
        hold = subprocess.Popen([self.client, "hold", str(s.port), s.user, s.password, str(sessions)],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            if hold.stdout.readline().strip() != "ready":
                raise RuntimeError("%s: %d sessions could not be held" % (s.tag, sessions))
            time.sleep(0.5 + sessions / 1000)
            held_pss, held_nonfile = s.pss(), s.nonfile()
        finally:
            hold.stdin.close()
            hold.wait(30 + sessions / 10)
        s.settle(settle)
        return ((held_pss - idle_pss) / sessions,
                None if idle_nonfile is None else (held_nonfile - idle_nonfile) / sessions)

    def memory(self, row, title, client, s):
        """The idle footprint taken at the server's start, and what each of HELD_SESSIONS
        logged-in sessions adds to the footprint of the moment."""
        per_pss, per_nonfile = self.held(s, HELD_SESSIONS)
        figures = {"pss_idle": s.idle[0] / MIB, "pss_session": per_pss / KIB}
        if per_nonfile is not None:
            figures.update(nonfile_idle=s.idle[1] / MIB, nonfile_session=per_nonfile / KIB)
        self.record(title, client, s, **figures)

    def many(self, row, title, client, s):
        per_pss, per_nonfile = self.held(s, row.sessions, settle=60.0)
        figures = {"pss_session": per_pss / KIB}
        if per_nonfile is not None:
            figures["nonfile_session"] = per_nonfile / KIB
        self.record(title, client, s, **figures)

    def rated(self, row, title, client, s):
        """A download under the account's max_rate: the rate achieved, and as a share of the
        configured one."""
        out = self.measured(s, ["retr", row.type, row.path], user=row.user)
        if out["bytes"] != row.size:
            raise RuntimeError("%s sent %d bytes, not %d" % (s.tag, out["bytes"], row.size))
        mibs = row.size / MIB / out["seconds"]
        self.record(title, client, s, mibs=mibs, cpu_gib=out["cpu"] / (row.size / GIB),
                    of_rate=100 * mibs / (RATE_KIB / KIB))

    def run(self):
        for row in ROWS:
            if self.wanted(row.key):
                self.row_start()
                self.run_row(row, False)
        for row in ROWS:
            if row.tls and self.wanted("tls-" + row.key) and self.tls:
                self.row_start()
                self.run_row(row, True)

    def row_start(self):
        if self.before_row is not None:
            self.before_row()


# ---------------------------------------------------------------------------------------------
# Report


def fmt(v):
    if v != v:
        return "n/a"
    return "%.3g" % v if abs(v) < 100 else "{:,.0f}".format(v)


def row_order(bench):
    """(title, client) in the order measured."""
    out = []
    for (title, client, _tag) in bench.results:
        if (title, client) not in out:
            out.append((title, client))
    return out


def columns(bench, title):
    """Instance tag of each column: this daemon, then the peers, for the row's layer."""
    insts = bench.tls if title.startswith("TLS ") else bench.plain
    return [(s.name, s.tag) for s in insts]


def best_peer(bench, title, client, metric):
    """The peer with the best median of the row's metric, and that median; (None, nan) if none."""
    unit, higher = UNITS[metric]
    figures = []
    for name, tag in columns(bench, title)[1:]:
        v = median(bench.results.get((title, client, tag), {}).get(metric, []))
        if v == v:
            figures.append((name, tag, v))
    if not figures:
        return None, None, float("nan")
    return (max if higher else min)(figures, key=lambda f: f[2])


def row_primary(metrics):
    return next((m for m in PRIMARY if m in metrics), None)


def table(bench):
    cols = [s.name for s in bench.plain]
    lines = ["| Measurement | Client | Unit | %s | ftps ÷ best peer |" % " | ".join(cols),
             "|" + "---|" * (4 + len(cols))]
    dev = bench.device.tag if bench.device else None
    for title, client in row_order(bench):
        cells_of = columns(bench, title)
        mine = bench.results.get((title, client, cells_of[0][1]), {})
        metrics = [m for m in UNITS if m in mine and m not in CLIENT_METRICS]
        primary = row_primary(metrics)
        variants = [("", cells_of[0][1])]
        if dev and (title, client, dev) in bench.results:
            variants.append((" (device profile)", dev))
        for label, first in variants:
            for m in metrics:
                unit, higher = UNITS[m]
                tags = [first] + [t for _, t in cells_of[1:]]
                vals = [median(bench.results.get((title, client, t), {}).get(m, [])) for t in tags]
                if m in (primary, "failed") or primary is None:
                    _, _, ref = best_peer(bench, title, client, m)
                else:
                    # CPU and the like beside a throughput: against the peer with the best throughput.
                    _, tag, _ = best_peer(bench, title, client, primary)
                    ref = median(bench.results.get((title, client, tag), {}).get(m, [])) if tag else float("nan")
                cells = [fmt(v) for v in vals]
                ratio = "n/a" if vals[0] != vals[0] or ref != ref else "-" if not ref else "%.2f×" % (vals[0] / ref)
                lines.append("| %s%s | %s | %s | %s | %s |" % (title, label, client, unit, " | ".join(cells), ratio))
    return "\n".join(lines)


def client_table(bench):
    """The client's own CPU per row and client: the median over all servers and repetitions."""
    lines = ["| Measurement | Client | Client's own CPU (median of all runs) |", "|---|---|---|"]
    for title, client in row_order(bench):
        for m in CLIENT_METRICS:
            xs = [x for (t, c, _), r in bench.results.items() if t == title and c == client for x in r.get(m, [])]
            if xs:
                lines.append("| %s | %s | %s %s |" % (title, client, fmt(median(xs)), UNITS[m][0].replace("client ", "")))
    return "\n".join(lines) if len(lines) > 2 else ""


def targets(bench):
    """The issue's targets, each reached or not (a report, not an assertion): every transfer row
    at or above the best peer of the same run and at or below that peer's CPU per GiB (per file);
    small files' CPU per file at or below pure-ftpd's; the idle footprint, and the memory per
    session of the many idle sessions, at or below every peer's; logins per second of the many
    clients at or above the best peer's; max_rate off at 95 % or more of the bench account's
    download beside each of its own (the median of the pairs), and on within 5 % of the configured
    rate."""
    lines = ["| Target | ftps | Against | Reached |", "|---|---|---|---|"]
    kinds = {r.title: r for r in ROWS}
    for title, client in row_order(bench):
        me = columns(bench, title)[0][1]
        mine = bench.results.get((title, client, me), {})
        row = kinds.get(title[4:] if title.startswith("TLS ") else title)
        if row is not None and row.key == "rate":
            if "of_rate" in mine:
                v = median(mine["of_rate"])
                lines.append("| %s: within 5 %% of the configured rate | %s %% | %d MiB/s | %s |" % (
                    title, fmt(v), RATE_KIB // 1024, "yes" if abs(v - 100) <= 5 else "**no**"))
            elif "mibs" in mine:
                # Each download against the bench account's beside it: the two share the machine's
                # moment, which two medians of downloads in either of its modes do not.
                v, ref = median(mine["paired_ratio"]), median(mine["paired_mibs"])
                lines.append("| %s: at or above 95 %% of the bench account's download beside it (median of the "
                             "pairs' ratios) | %.2f× | ftps %s MiB/s | %s |"
                             % (title, v, fmt(ref), "yes" if v >= 0.95 else "**no**"))
            continue
        checks = []
        if row is not None and row.key == "sessions":
            for m, higher in (("logins", True), ("pss_session", False), ("nonfile_session", False)):
                if m not in mine:
                    continue
                name, _, ref = best_peer(bench, title, client, m)
                if name:
                    checks.append(("%s, %s at or %s every peer's" % (title, UNITS[m][0], "above" if higher else "below"),
                                   m, ">=" if higher else "<=", ref, name))
        elif "mibs" in mine or "rate" in mine:
            thr = "mibs" if "mibs" in mine else "rate"
            cpu = "cpu_gib" if thr == "mibs" else "cpu_ms_file"
            name, tag, ref = best_peer(bench, title, client, thr)
            if name:
                checks.append(("%s, %s at or above the best peer" % (title, UNITS[thr][0]), thr, ">=", ref, name))
                ref_cpu = median(bench.results.get((title, client, tag), {}).get(cpu, []))
                checks.append(("%s, %s at or below the best peer's" % (title, UNITS[cpu][0]), cpu, "<=", ref_cpu, name))
            if thr == "rate":
                pure = [t for n, t in columns(bench, title) if n == "pure-ftpd"]
                if pure:
                    ref_pure = median(bench.results.get((title, client, pure[0]), {}).get(cpu, []))
                    checks.append(("%s, %s at or below pure-ftpd's" % (title, UNITS[cpu][0]), cpu, "<=", ref_pure,
                                   "pure-ftpd"))
        for m in ("pss_idle", "nonfile_idle"):
            if m in mine:
                peers = [(n, median(bench.results.get((title, client, t), {}).get(m, [])))
                         for n, t in columns(bench, title)[1:]]
                peers = [(n, v) for n, v in peers if v == v]
                if peers:
                    n, v = min(peers, key=lambda p: p[1])
                    checks.append(("%s, %s at or below every peer's" % (title, UNITS[m][0]), m, "<=", v, n))
        for what, m, op, ref, name in checks:
            v = median(mine.get(m, []))
            if v != v or ref != ref:
                continue
            ok = v >= ref if op == ">=" else v <= ref
            # The idle footprint is taken once per server, at its start: no rounds to count.
            ahead = "" if m in ("pss_idle", "nonfile_idle") else rounds_ahead(bench, title, client, m, op, name)
            lines.append("| %s [%s] | %s | %s %s | %s%s |" % (what, client, fmt(v), name, fmt(ref), "yes" if ok else "**no**",
                                                              ahead))
    return "\n".join(lines) if len(lines) > 2 else ""


def rounds_ahead(bench, title, client, metric, op, peer):
    """In how many of the rounds that measured both this daemon was at least as good as the peer,
    as text for the target's verdict; empty where the metric is not measured by rounds."""
    cols = dict(columns(bench, title))
    me, them = cols["ftps"], cols.get(peer)
    mine = dict(zip(bench.rounds.get((title, client, me, metric), []),
                    bench.results.get((title, client, me), {}).get(metric, [])))
    theirs = dict(zip(bench.rounds.get((title, client, them, metric), []),
                      bench.results.get((title, client, them), {}).get(metric, [])))
    both = [r for r in mine if r in theirs]
    if len(both) < 3:
        return ""
    ahead = sum(1 for r in both if (mine[r] >= theirs[r] if op == ">=" else mine[r] <= theirs[r]))
    return " (ahead in %d of %d rounds)" % (ahead, len(both))


def source_commit(build):
    """The commit of the daemon's source the build directory was made from, and whether its
    tree held changes."""
    src = ROOT
    try:
        for line in read_text(os.path.join(build, "CMakeCache.txt")).splitlines():
            if line.startswith("CMAKE_HOME_DIRECTORY:"):
                src = line.split("=", 1)[1]
    except OSError:
        pass
    daemon = ["ftp_server", "lib", "platform", "CMakeLists.txt"]
    try:
        head = subprocess.run(["git", "-C", src, "rev-parse", "--short", "HEAD"], capture_output=True, text=True,
                              check=True).stdout.strip()
        last = subprocess.run(["git", "-C", src, "log", "-1", "--format=%h (%s)", "--"] + daemon,
                              capture_output=True, text=True, check=True).stdout.strip()
        dirty = subprocess.run(["git", "-C", src, "status", "--porcelain", "--untracked-files=no", "--"] + daemon,
                               capture_output=True, text=True).stdout.strip()
        return "%s, whose daemon sources were last changed by %s%s" % (
            head, last, "; with uncommitted changes to them" if dirty else "")
    except (OSError, subprocess.CalledProcessError):
        return "unknown (%s is no git checkout)" % src


def tls_path():
    """Which record layer this daemon's TLS connections use on this machine."""
    if os.path.exists(KTLS_STAT):
        return "kernel TLS available (%s): this daemon lets the kernel carry its records" % KTLS_STAT
    return "user-space record layer (this kernel offers no kernel TLS: no %s)" % KTLS_STAT


class FreedMemory:
    """Free page reporting held back for the run where the kernel offers the settings, restored
    after. Memory handed back to the host must be supplied by it anew when it is touched again,
    at the cost of the task that touches it: an upload that reuses the pages the previous one
    freed would pay for it at random, by up to ten times."""

    def __init__(self, scratch):
        self.scratch = scratch
        self.warmed = 0
        self.warms = 0
        self.last_warm = 0.0

    def __enter__(self):
        self.saved = []
        for name, value in PAGE_REPORTING_HELD:
            path = os.path.join(PAGE_REPORTING, name)
            try:
                with open(path) as f:
                    old = f.read().strip()
                with open(path, "w") as f:
                    f.write(value)
                self.saved.append((path, old))
            except OSError:
                pass
        if len(self.saved) == len(PAGE_REPORTING_HELD):
            self.warm()
        return self

    def rewarm(self):
        """Touches memory again where the last time lies REWARM_AFTER seconds back."""
        if self.warmed and time.time() - self.last_warm >= REWARM_AFTER:
            self.warm()

    def warm(self):
        """Touches and frees memory (a quarter of what is available, at most 4 GiB) once held
        back: pages freed last are taken first, so the run's uploads start from memory at hand."""
        with open("/proc/meminfo") as f:
            avail = next((int(l.split()[1]) << 10 for l in f if l.startswith("MemAvailable:")), 0)
        size = min(4 * GIB, avail // 4) // MIB * MIB
        path = os.path.join(self.scratch, "warm")
        block = bytes(MIB)
        # A scratch directory too small only leaves the run without the head start.
        try:
            with open(path, "wb") as f:
                for _ in range(size // MIB):
                    f.write(block)
            self.warmed = size
            self.warms += 1
            self.last_warm = time.time()
        except OSError as e:
            print("memory not touched beforehand: %s" % e, flush=True)
        finally:
            if os.path.exists(path):
                os.unlink(path)

    def __exit__(self, *exc):
        for path, old in reversed(self.saved):
            try:
                with open(path, "w") as f:
                    f.write(old)
            except OSError as e:
                print("cannot restore %s to %s: %s" % (path, old, e), file=sys.stderr)
        return False

    def describe(self):
        if not os.path.isdir(PAGE_REPORTING):
            return ""
        if len(self.saved) == len(PAGE_REPORTING_HELD):
            return (" This virtual machine hands memory its kernel freed back to the host (free page "
                    "reporting), and the host must supply such memory anew when it is touched again, "
                    "charged to the task that touches it; for the run the bench held back memory "
                    "freed in the last five minutes, up to 8 GiB (%s; restored after)%s, so that a "
                    "transfer does not pay at random for the pages freed before it." % (
                        ", ".join("%s=%s" % kv for kv in PAGE_REPORTING_HELD),
                        ", and touched and freed %d MiB before the measurements and again before each "
                        "row that began %d s or more after the last time (%d times in all)" % (
                            self.warmed // MIB, REWARM_AFTER, self.warms) if self.warmed else ""))
        return (" This virtual machine may hand memory its kernel freed back to the host (free page "
                "reporting), which this kernel offers no setting to hold back: the host must supply "
                "such memory anew when it is touched again, so uploads may swing by several times.")


def steadiness(client):
    """The client's fixed CPU-bound work, 20 rounds: 'best, median and worst ms'."""
    out = subprocess.run([client, "spin", "20"], check=True, capture_output=True, text=True).stdout
    ms = sorted(float(line.split("=")[1]) for line in out.split())
    return "%.0f, %.0f and %.0f ms" % (ms[0], median(ms), ms[-1])


def report(bench, args, left_out, load, commit, steady, freed):
    with open("/proc/cpuinfo") as f:
        model = next((l.split(":", 1)[1].strip() for l in f if l.startswith("model name")), "?")
    peers = [s.about for s in bench.plain[1:]]
    named = ", ".join(peers[:-1]) + " and " + peers[-1] if len(peers) > 1 else "".join(peers)
    how = ("its own control group (%s), joined before the server started, so forked, threaded and "
           "orphaned work all count" % cgroup_kind() if all(s.group for s in bench.plain)
           else "its process tree")
    negotiated = "; ".join("%s %s" % kv for kv in sorted(bench.negotiated.items()))
    paras = [
        "Measured side by side on loopback by `make bench` (bench/run.py) from the daemon built at "
        "commit %s, in its release build (as `make install` builds it, without the test switches). "
        "The run starts this daemon in its standard profile and the black-box %s, each "
        "with its own configuration and anonymous login, all serving the same tmpfs directory. "
        "Every figure is the median of %d repetitions interleaved between the servers, the "
        "transfers' after one unrecorded round (logins: %d runs of %g s; memory: %d). Server CPU "
        "is read from %s. A ratio is this daemon's figure divided by the best peer's (for CPU: "
        "the peer with the best throughput in that row). Beside each target: the rounds (every "
        "server measured once, in turn) in which this daemon did at least as well as that peer; "
        "where the machine's moments move every server's figures more than the servers differ, a "
        "target reached or missed by a few percent is ahead in about half of them."
        % (commit, named, args.reps, max(3, args.reps // 2), args.login_seconds, max(3, args.reps // 2), how),
        "Clients: \"zero-copy\" is the benchmark client splicing downloads from the socket into "
        "/dev/null through a pipe and sending uploads with sendfile from a memory file, so that the "
        "client is not what limits a server; \"copy\" reads into and writes from its own 1 MiB "
        "buffer, as ordinary clients do; \"TLS\" is explicit FTPS (AUTH TLS, PBSZ 0, PROT P, TLS 1.3 "
        "required by the client, every data connection resuming the control connection's session) "
        "with one self-signed RSA 2048 certificate for every server, its bytes decrypted and "
        "encrypted by OpenSSL in the client. This daemon's TLS: %s. Negotiated: %s." % (tls_path(), negotiated or "-"),
        "How this daemon moves the bytes measured here: a binary download of a regular file goes out "
        "by sendfile, 4 MiB per call, corked while it takes more than one call (not under a rate "
        "limit); a binary upload into a regular file is "
        "spliced from the connection through the session's pipe (its default size, widened to 1 MiB "
        "for an upload larger than that) into the file, which is synced to its "
        "storage before the transfer's reply; ASCII and protected data pass through its own "
        "buffers (protected downloads go through kernel TLS where the kernel offers it; elsewhere "
        "their records are gathered 64 KiB at a time and go out with Nagle's algorithm on until "
        "the last). A passive listener that served a transfer serves the session's next PASV or "
        "EPSV (no port range is configured here). TLS, RADIUS and "
        "the SNMP sender are modules loaded only when the platform file configures them: the plain "
        "instances run without them, the TLS instance with the TLS module only; the C++ runtime is "
        "linked into the daemon.",
        "Machine: %d CPU(s), %s; client and servers share them (load average %s when the run "
        "began, %.1f when it ended). Single transfers on this virtual machine swing by tens of "
        "percent; the interleaved medians keep the comparison fair, not exact. The machine's own "
        "steadiness: the same CPU-bound work in the client (`ftpbench spin`) took %s of CPU at "
        "best, median and worst over 20 rounds before the measurements, %s after them. The same "
        "work taking more CPU time at one moment than at another is the host's doing (another "
        "guest on the same core, or a virtual CPU held back, which this machine's counters still "
        "charge to the running task): any single figure below may swing as much.%s" % (
            os.cpu_count(), model, load, os.getloadavg()[0], steady[0], steady[1], freed.describe()),
    ]
    intro = "\n\n".join(textwrap.fill(p, 96) for p in paras)
    missing = "\n\n" + textwrap.fill("Not measured: %s." % "; ".join(left_out), 96) if left_out else ""
    if bench.failures:
        missing += "\n\nMeasurements that failed (left out of the medians):\n\n" + "\n".join(
            "- " + f for f in bench.failures)
    return f"""# Performance

{intro}

To reproduce: `make bench` (as root; it installs the peers through bench/setup.sh), or
`python3 bench/run.py --build BUILD_DIR [--only ROWS] [--client copy] [--copy-rows ROWS]` after a
build (`--help` lists the rows).

{table(bench)}

{targets(bench)}

{client_table(bench)}

Small files: {"{:,}".format(SMALL_FILES)} files of {SMALL_SIZE // KIB} KiB, one data connection each,
in one session, or split between {SMALL_SESSIONS} sessions in parallel ({SMALL_FILES // SMALL_SESSIONS}
each); logins are outside the timed part. Every upload writes a new file (a new directory for the
small files), deleted before the next measurement. The ASCII figures count the file's bytes; the wire
carries one more byte per line. The resumed download (REST 536870912, then RETR) counts the half that
is sent. Memory: PSS of all the server's processes (shared pages counted by share) and, where the
machine's control groups count memory, the group's memory that is no file page (anonymous and
kernel: sockets, page tables, stacks, slab). Idle: right after the server's start and first
probe session, before any measurement (later, the kernel memory of the run's work, such as the
uploaded files' dentries and inodes, stays charged to the group). Per session: the footprint
with {HELD_SESSIONS} logged-in sessions less the one just before, divided by {HELD_SESSIONS}. The device profile rows are this daemon's
device profile against the same peers' figures.

Many sessions: {"{:,}".format(IDLE_MANY)} logged-in idle sessions held at once (opened four at a time,
measured once per server), the footprint per session as above; and {BUSY_MANY} clients that connect, log
in and QUIT in a loop for {bench.args.login_seconds:g} s. A session still under way when the time is up
gets 5 s to end, else it is cut (neither done nor failed): a server whose listen queue overflows would
otherwise hold the run while the kernel retries the dropped connections. For these rows every server's
session limits are raised: this daemon's standard profile with `[ftp] max_sessions = {SESSION_LIMIT}` and
`max_per_address = 0` (its own user may hold as many), vsftpd without limits (`max_clients=0`,
`max_per_ip=0`), pure-ftpd with `-c {SESSION_LIMIT + 10}`, proftpd with `MaxInstances {SESSION_LIMIT + 10}`; the
bench raises its descriptor limit (inherited by the servers and the client) to {NOFILE}.

max_rate: this daemon's local user database holds one account with `max_rate = {RATE_KIB}` (KiB/s) and
one without; the off row downloads the 1 GiB file as the account without one, alternating with the
bench account's download of the same file, the order swapped each time; the target is the median of
the ratios of each pair (the two share the machine's moment), the table shows both medians; the on
row as the account with one, once (about {GIB // (RATE_KIB * KIB)} s), the rate achieved as a share
of the configured one. The peers' own limits are
not measured (n/a): each would need an instance of its own configured with one.

The TLS instances: this daemon in its standard profile with a `[tls]` section (its defaults:
logins only over TLS, data connections must resume the control connection's session); vsftpd
with `ssl_enable=YES`, `allow_anon_ssl=YES`, `force_anon_logins_ssl=YES`,
`require_ssl_reuse=YES`; pure-ftpd with `--tls=2` (no login without TLS) and `--certfile`
naming one PEM file that holds the key and the certificate; proftpd with mod_tls (Debian's
proftpd-mod-crypto, unpacked beside proftpd-core) loaded by `LoadModule`, `TLSEngine on`,
`TLSProtocol TLSv1.2 TLSv1.3`, `TLSRequired ctrl` and its default of data connections that
must resume the control connection's session.{missing}
"""


# ---------------------------------------------------------------------------------------------


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
    small = os.path.join(share, "small")
    os.makedirs(small)
    for i in range(SMALL_FILES):
        with open(os.path.join(small, "f-%04d" % i), "wb") as f:
            f.write(os.urandom(SMALL_SIZE))
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
        for n in dirs:
            os.chmod(os.path.join(root, n), 0o755)


def parse_rows(text):
    """--only: row keys, "plain" (every plain row) and "tls" (every TLS row); None: all."""
    if not text:
        return None
    out = set()
    for k in text.split(","):
        if k == "plain":
            out.update(r.key for r in ROWS)
        elif k == "tls":
            out.update("tls-" + r.key for r in ROWS if r.tls)
        elif k in ROW_KEYS:
            out.add(k)
        else:
            raise SystemExit("unknown row %r; rows: plain, tls, %s" % (k, ", ".join(ROW_KEYS)))
    return out


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--build", default=os.path.join(ROOT, "build"), help="the daemon's build directory")
    p.add_argument("--client-build", default=None, help="build directory of the benchmark client")
    p.add_argument("--reps", type=int, default=7)
    p.add_argument("--login-seconds", type=float, default=3.0)
    p.add_argument("--servers", default="", help="comma-separated server names (default: all)")
    p.add_argument("--only", default="", help="comma-separated rows: plain, tls, " + ", ".join(ROW_KEYS))
    p.add_argument("--client", choices=(ZERO_COPY, COPY), default=ZERO_COPY, help="the client of every row")
    p.add_argument("--copy-rows", default="retr,stor",
                   help="rows measured with the other client too (default: retr,stor; empty: none)")
    p.add_argument("--no-device", action="store_true", help="leave out the device profile rows")
    p.add_argument("--no-tls", action="store_true", help="leave out the TLS instances and rows")
    p.add_argument("--doc", default=os.path.join(ROOT, "docs", "performance.md"))
    p.add_argument("--no-doc", action="store_true")
    p.add_argument("--trace", action="store_true", help="print every measurement as it is taken")
    args = p.parse_args()
    # Stopped from outside, the run still stops its servers and gives the machine its settings back.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    # The servers and the client inherit the limit: a stock soft limit of 1024 descriptors is
    # below what a thousand sessions hold.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft != resource.RLIM_INFINITY and soft < NOFILE:
        resource.setrlimit(resource.RLIMIT_NOFILE,
                           (NOFILE, hard if hard == resource.RLIM_INFINITY else max(hard, NOFILE)))
    args.only_set = parse_rows(args.only)
    args.copy_rows = set(filter(None, args.copy_rows.split(",")))
    args.build = os.path.abspath(args.build)
    if args.client_build is None:
        args.client_build = os.path.join(args.build, "bench")
    subprocess.run(["cmake", "-S", HERE, "-B", args.client_build], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", args.client_build, "-j2"], check=True, stdout=subprocess.DEVNULL)
    commit = source_commit(args.build)
    print("daemon: %s; control groups: %s" % (commit, cgroup_kind()), flush=True)

    shm = tempfile.mkdtemp(prefix="ftps-bench-", dir="/dev/shm")
    # proftpd checks, as the ftp user, that the way to the shared directory is open.
    os.chmod(shm, 0o755)
    disk = tempfile.mkdtemp(prefix="ftps-bench-", dir="/var/tmp")
    share = os.path.join(shm, "share")
    everything = []
    load = "%.1f" % os.getloadavg()[0]
    wanted_names = set(filter(None, args.servers.split(","))) or None
    want_tls = not args.no_tls and (args.only_set is None or any(k.startswith("tls-") for k in args.only_set))
    want_device = not args.no_device and any(r.device and (args.only_set is None or r.key in args.only_set)
                                             for r in ROWS)
    try:
        print("preparing files ...", flush=True)
        make_share(share, os.path.join(disk, "disk"))
        cert = None
        if want_tls:
            cert = (os.path.join(disk, "cert.pem"), os.path.join(disk, "key.pem"))
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30",
                            "-subj", "/CN=localhost", "-out", cert[0], "-keyout", cert[1]],
                           check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            os.chmod(cert[1], 0o600)
        left_out = []

        def start(s):
            everything.append(s)
            try:
                s.start()
                return s
            except (RuntimeError, OSError) as e:
                s.stop()
                if not s.optional:
                    raise
                print("%s; left out" % e, flush=True)
                left_out.append(str(e))
                return None

        plain, tls = [], []
        classes = [c for c in PEER_CLASSES if wanted_names is None or c.name in wanted_names]
        if wanted_names is None or "ftps" in wanted_names:
            plain.append(start(Ftps(disk, share, args.build)))
            if want_tls:
                tls.append(start(Ftps(disk, share, args.build, tls=cert)))
        for c in classes:
            plain.append(start(c(disk, share)))
            if want_tls:
                tls.append(start(c(disk, share, tls=cert)))
        plain = [s for s in plain if s]
        tls = [s for s in tls if s]
        device = None
        if want_device and plain and plain[0].name == "ftps":
            device = start(Ftps(disk, share, args.build, profile="device"))
        print("TLS: %s" % tls_path(), flush=True)
        bench = Bench(args, plain, device, tls)
        print("measuring ...", flush=True)
        with FreedMemory(shm) as freed:
            bench.before_row = freed.rewarm
            steady = [steadiness(bench.client)]
            t0 = time.time()
            bench.run()
            print("measured in %.0f s" % (time.time() - t0))
            steady.append(steadiness(bench.client))
        print("steadiness: %s before, %s after" % tuple(steady), flush=True)
        for title, client, secs in bench.timing:
            print("  %5.0f s  %s [%s]" % (secs, title, client))
        text = report(bench, args, left_out, load, commit, steady, freed)
        print(text)
        if not args.no_doc:
            write_text(args.doc, text)
            print("written to %s" % args.doc)
    finally:
        for s in everything:
            s.stop()
        subprocess.run(["umount", os.path.join(share, "disk")], stderr=subprocess.DEVNULL)
        shutil.rmtree(shm, ignore_errors=True)
        shutil.rmtree(disk, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
