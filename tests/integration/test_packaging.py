# Installation and packaging: what "make install" puts below DESTDIR (for the /usr prefix and another one),
# that the unit passes systemd-analyze verify, that the example startup configuration works with the real
# daemon, and what the .deb holds.

import ftplib
import os
import shutil
import stat
import subprocess
import tempfile
import unittest

from ftps_harness import BUILD_DIR, Daemon, ftp_session, read_file, write_file

INSTALLED = dict.fromkeys(("usr/sbin/ftp_server.elf", "usr/bin/ftps-cli"), 0o755) | dict.fromkeys((
    "usr/share/man/man8/ftp_server.elf.8", "usr/share/man/man8/ftps-cli.8", "usr/share/man/man5/ftps-platform.5",
    "lib/systemd/system/ftp_server.service", "usr/share/doc/ftps/examples/platform.conf",
    "usr/share/doc/ftps/examples/startup.conf", "etc/ftps/platform.conf", "etc/fail2ban/filter.d/ftps.conf",
    "etc/fail2ban/jail.d/ftps.conf",
    # The modules the daemon loads when TLS, RADIUS, PAM or trap sinks are configured.
    "usr/lib/ftps/ftps-tls.so", "usr/lib/ftps/ftps-radius.so", "usr/lib/ftps/ftps-pam.so",
    "usr/lib/ftps/ftps-snmp.so"), 0o644)


def install(destdir, prefix="/usr"):
    env = dict(os.environ, DESTDIR=destdir)
    r = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", prefix], env=env,
                       capture_output=True, text=True, timeout=120)
    if r.returncode != 0:
        raise AssertionError("cmake --install failed: %s%s" % (r.stdout, r.stderr))
    return r.stdout


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="ftps-install")
        cls.addClassCleanup(shutil.rmtree, cls.dir, True)
        cls.root = os.path.join(cls.dir, "root")
        install(cls.root)

    def path(self, rel):
        return os.path.join(self.root, rel)

    def test_prefixes_and_a_kept_platform_file(self):
        # Which files, with which modes: the package test, which holds exactly that list.
        unit = read_file(self.path("lib/systemd/system/ftp_server.service"))
        self.assertIn(b"\nExecStart=/usr/sbin/ftp_server.elf\n", unit)
        conf = self.path("etc/ftps/platform.conf")
        self.assertEqual(read_file(conf), read_file(self.path("usr/share/doc/ftps/examples/platform.conf")))
        # An edited platform file survives a reinstall.
        write_file(conf, read_file(conf) + b"[device]\nproduct_name = EDITED\n")
        install(self.root)
        self.assertTrue(read_file(conf).endswith(b"product_name = EDITED\n"))
        other = os.path.join(self.dir, "local")
        install(other, prefix="/usr/local")
        self.assertIn(b"\nExecStart=/usr/local/sbin/ftp_server.elf\n",
                      read_file(os.path.join(other, "usr/local/lib/systemd/system/ftp_server.service")))
        self.assertFalse(os.path.exists(os.path.join(other, "lib/systemd")))

    def test_installed_daemon_finds_its_tls_module(self):
        # Below a prefix of its own, which no path built into the program names: the module is looked
        # for relative to the program: a login over TLS, then PBSZ and PROT.
        root = os.path.join(self.dir, "opt")
        install(root, prefix="/opt/ftps")
        d = Daemon(extra_platform={"ftp.profile": "standard"}, tls=True)
        self.addCleanup(d.cleanup)
        d.start(program=os.path.join(root, "opt/ftps/sbin/ftp_server.elf"))
        ftp_session(d.port, cls=ftplib.FTP_TLS).quit()

    @unittest.skipIf(shutil.which("systemd-analyze") is None, "systemd-analyze is not installed")
    def test_unit_passes_systemd_analyze_verify(self):
        # The unit as installed, started from the program below DESTDIR; its man pages are found
        # there too. verify reports problems but exits 0 for many, so its output must be empty.
        text = read_file(self.path("lib/systemd/system/ftp_server.service")).decode()
        unit = write_file(os.path.join(self.dir, "unit", "ftp_server.service"),
                          text.replace("ExecStart=/usr/sbin/", "ExecStart=%s/" % self.path("usr/sbin")))
        env = dict(os.environ, MANPATH=self.path("usr/share/man"))
        r = subprocess.run(["systemd-analyze", "verify", unit], env=env, capture_output=True, text=True,
                           timeout=120)
        self.assertEqual((r.returncode, r.stdout + r.stderr), (0, ""))

    def test_example_startup_configuration_replays_cleanly(self):
        lines = read_file(self.path("usr/share/doc/ftps/examples/startup.conf")).decode().splitlines()
        d = Daemon(startup=lines, enable=False, topdir=None).start_for(self)
        rc, out = d.cli("show running-config")
        self.assertEqual(rc, 0, out)
        for line in ("ftp-server topdir flash:/", "ftp-server username operator password ChangeMe2024",
                     "ftp-server enable"):
            self.assertIn(line + "\n", out)
        self.assertNotIn("startup-config line", d.logtext())
        self.assertTrue(d.port_open())


@unittest.skipIf(shutil.which("dpkg-deb") is None or shutil.which("cpack") is None,
                 "dpkg-deb or cpack is not installed")
class DebTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="ftps-deb")
        cls.addClassCleanup(shutil.rmtree, cls.dir, True)
        config = os.path.join(BUILD_DIR, "CPackConfig.cmake")
        r = subprocess.run(["cpack", "--config", config, "-G", "DEB", "-B", cls.dir], capture_output=True,
                           text=True, timeout=600)
        if r.returncode != 0:
            raise AssertionError("cpack failed: %s%s" % (r.stdout, r.stderr))
        debs = [f for f in os.listdir(cls.dir) if f.endswith(".deb")]
        assert len(debs) == 1, debs
        cls.deb = os.path.join(cls.dir, debs[0])

    def dpkg_deb(self, *args):
        r = subprocess.run(["dpkg-deb", *args], capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        return r.stdout

    def test_package_holds_the_installed_files_libraries_and_conffile(self):
        files = {f[-1][2:]: f[0] for f in map(str.split, self.dpkg_deb("-c", self.deb).splitlines())
                 if f[0].startswith("-")}
        self.assertEqual(files, {p: stat.filemode(stat.S_IFREG | m) for p, m in INSTALLED.items()})
        self.assertEqual(self.dpkg_deb("-f", self.deb, "Package").strip(), "ftps")
        depends = self.dpkg_deb("-f", self.deb, "Depends")
        for lib in ("libc6", "libedit2", "libinih1", "libpam0g", "libpwquality1", "libssl3", "libradcli4",
                    "libsnmp40"):
            self.assertRegex(depends, r"\b%s\b" % lib)
        self.assertEqual(self.dpkg_deb("-I", self.deb, "conffiles").split(),
                         ["/etc/ftps/platform.conf", "/etc/fail2ban/filter.d/ftps.conf",
                          "/etc/fail2ban/jail.d/ftps.conf"])


if __name__ == "__main__":
    unittest.main()
