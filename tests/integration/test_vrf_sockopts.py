# The device's VRF socket options never reach Linux: under strace, a daemon that serves passive and active
# transfers over IPv4 and IPv6 makes no setsockopt with IPPROTO_IP option 51 or 53 or IPPROTO_IPV6 option 102
# or 104 (numbers that mean other things on Linux). The debug lines name the VRF by its number, 0 for the
# default VRF.

import io
import os
import re
import shutil
import signal
import subprocess
import unittest

from ftps_harness import DAEMON, Daemon, ftp_session, has_ipv6, read_file

STRACE = shutil.which("strace")
IPPROTO_IP, IPPROTO_IPV6 = 0, 41
DEVICE_OPTIONS = {(IPPROTO_IP, 51), (IPPROTO_IP, 53), (IPPROTO_IPV6, 102), (IPPROTO_IPV6, 104)}
# strace -X raw prints levels and options as numbers: setsockopt(5, 0x29, 0x1a, [1], 4) = 0
CALL = re.compile(r"setsockopt\(\d+, (0x[0-9a-f]+|\d+), (0x[0-9a-f]+|\d+),")


@unittest.skipUnless(STRACE and subprocess.run([STRACE, "-qq", "-o", os.devnull, "true"]).returncode == 0,
                     "strace is missing or cannot trace here")
class VrfSockoptTest(unittest.TestCase):
    def stop(self):
        # Ends the daemon, strace's child; strace ends with it and with its status.
        proc, self.d.proc = self.d.proc, None
        if proc.poll() is None:
            for pid in read_file("/proc/%d/task/%d/children" % (proc.pid, proc.pid)).split():
                os.kill(int(pid), signal.SIGTERM)
            try:
                proc.wait(timeout=30)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        return proc.returncode

    def test_transfers_never_pass_device_vrf_options(self):
        self.d = Daemon()
        self.addCleanup(self.d.cleanup)
        trace, env = os.path.join(self.d.dir, "strace.txt"), self.d.env()
        # The leak checker cannot run under a tracer (it traces the process itself at exit).
        if "ASAN_OPTIONS" in env:
            env["ASAN_OPTIONS"] = env["ASAN_OPTIONS"].replace("detect_leaks=1", "detect_leaks=0")
        self.d.proc = subprocess.Popen([STRACE, "-f", "-qq", "-X", "raw", "-e", "trace=setsockopt", "-o", trace,
                                        DAEMON], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: self.d.proc and self.stop())
        self.d.wait_ready()
        self.assertEqual(self.d.cli("debug ftp-server pro")[0], 0)
        # The transfers only have to run (their bytes in every mode and family: test_real_clients.py).
        for host in ["127.0.0.1"] + (["::1"] if has_ipv6() else []):
            for passive in (True, False):
                ftp = ftp_session(self.d.port, host)
                ftp.set_pasv(passive)
                name, data = "f-%s-%d.bin" % (host, passive), os.urandom(20000)
                ftp.storbinary("STOR " + name, io.BytesIO(data))
                ftp.retrbinary("RETR " + name, lambda block: None)
                ftp.nlst()
                ftp.quit()
        # The trace is complete once the daemon has ended.
        self.assertEqual(self.stop(), 0)
        calls = [(int(m.group(1), 0), int(m.group(2), 0))
                 for m in CALL.finditer(read_file(trace).decode(errors="replace"))]
        self.assertTrue(calls, "strace saw no setsockopt at all: the trace is not working")
        self.assertEqual([c for c in calls if c in DEVICE_OPTIONS], [])
        log = self.d.logtext()
        self.assertRegex(log, r"getdatasock fd \d+ receive ip vrf is 0\b")
        if has_ipv6():
            self.assertIn("getdatasock receive ipv6 vrf is 0", log)


if __name__ == "__main__":
    unittest.main()
