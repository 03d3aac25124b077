"""AAA method lists against a real RADIUS server (FreeRADIUS on a loopback port, from a private
directory): accept, reject, challenges, an unreachable server falling through to the local
database, a list that starts with none, and an unknown list name."""
# ctest-labels: radius

import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import Daemon, RawClient  # noqa: E402

RADIUSD = shutil.which("freeradius") or shutil.which("radiusd")
SECRET = "t3stsecret"

RADIUSD_CONF = """
confdir = {dir}
raddbdir = ${{confdir}}
logdir = ${{confdir}}
run_dir = ${{confdir}}
db_dir = ${{confdir}}
pidfile = ${{run_dir}}/radiusd.pid
correct_escapes = true
max_request_time = 30
cleanup_delay = 0
max_requests = 1024
log {{
  destination = stdout
}}
security {{
  reject_delay = 0
  status_server = no
}}
thread pool {{
  start_servers = 1
  max_servers = 4
  min_spare_servers = 1
  max_spare_servers = 2
}}
client test {{
  ipaddr = 127.0.0.1
  secret = {secret}
  require_message_authenticator = no
}}
modules {{
  files {{
    filename = ${{confdir}}/users
  }}
  pap {{
    normalise = yes
  }}
  always handled {{
    rcode = handled
  }}
  always reject {{
    rcode = reject
  }}
}}
server test {{
  listen {{
    type = auth
    ipaddr = 127.0.0.1
    port = {port}
  }}
  authorize {{
    # Challenged every time: a second challenge is refused by the FTP server.
    if (&User-Name == "chaluser") {{
      update reply {{
        &Reply-Message := "challenge"
        &State := 0x01
      }}
      update control {{
        &Response-Packet-Type := 11
      }}
      handled
    }}
    # Challenged until the request carries the State of the challenge back.
    if (&User-Name == "chalonce" && !&State) {{
      update reply {{
        &Reply-Message := "challenge"
        &State := 0x7a7a
      }}
      update control {{
        &Response-Packet-Type := 11
      }}
      handled
    }}
    # Accepted only from the loopback address, as the FTP server reports its peer.
    if (&User-Name == "fromlo" && !(&Calling-Station-Id == "127.0.0.1")) {{
      reject
    }}
    files
    pap
  }}
  authenticate {{
    Auth-Type PAP {{
      pap
    }}
  }}
}}
"""

USERS = """raduser   Cleartext-Password := "radpass1"
chalonce  Cleartext-Password := "chalpass"
chaluser  Cleartext-Password := "chalpass"
fromlo    Cleartext-Password := "lopass1"
DEFAULT   Auth-Type := Reject
"""


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


class RadiusServer:
    """FreeRADIUS in the foreground on a loopback port, configured in a private directory."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="ftps-radius")
        self.port = free_udp_port()
        with open(os.path.join(self.dir, "radiusd.conf"), "w") as f:
            f.write(RADIUSD_CONF.format(dir=self.dir, port=self.port, secret=SECRET))
        with open(os.path.join(self.dir, "users"), "w") as f:
            f.write(USERS)
        self.out = open(os.path.join(self.dir, "out.log"), "w+")
        # -X: a full trace, which shows every request received.
        self.proc = subprocess.Popen([RADIUSD, "-X", "-d", self.dir],
                                     stdout=self.out, stderr=subprocess.STDOUT)
        deadline = time.time() + 20
        while time.time() < deadline:
            if self.proc.poll() is not None:
                text = self.output()
                self.stop()
                raise AssertionError("FreeRADIUS exited: " + text)
            if "Ready to process requests" in self.output():
                return
            time.sleep(0.1)
        text = self.output()
        self.stop()
        raise AssertionError("FreeRADIUS not ready: " + text)

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


OK = b"230 User logged in, proceed.\r\n"
# A refusal: the verdict's own reply, then the login sequence's.
REJECTED = [b"530 Password access denied.\r\n", b"530 Password access denied.\r\n"]
NOT_LOGGED_IN = [b"530 Not logged in.\r\n", b"530 Password access denied.\r\n"]

LOCAL_DB = """[user localbob]
password = localpass1
"""


@unittest.skipIf(RADIUSD is None, "FreeRADIUS is not installed (scripts/setup.sh installs it)")
class RadiusTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.radius = RadiusServer()
        cls.dead_port = free_udp_port()  # nothing answers there

    @classmethod
    def tearDownClass(cls):
        cls.radius.stop()

    def stop_checked(self, d):
        """Stops the daemon; a non-zero exit (a crash, a sanitizer report) fails the test."""
        rc = d.stop()
        stderr = getattr(d, "stderr", "")
        d.cleanup()
        self.assertEqual(rc, 0, stderr[-4000:])

    def daemon(self, lists, servers=None, auth=None):
        platform = {"radius.server": servers or "127.0.0.1:%d" % self.radius.port,
                    "radius.secret": SECRET, "radius.timeout": "1", "radius.retries": "1"}
        for name, methods in lists.items():
            platform["aaa.list." + name] = methods
        startup = ["ftp-server username alice password secret1"]
        if auth:
            startup.append("ftp-server authentication " + auth)
        d = Daemon(startup=startup, extra_platform=platform, user_database=LOCAL_DB)
        d.start()
        self.addCleanup(self.stop_checked, d)
        return d

    def attempt(self, d, user, password):
        """The connection and every reply to PASS (a refusal may send more than one: NOOP, which
        is not served, marks where they end)."""
        c = RawClient(d.port)
        self.addCleanup(c.close)
        c.reply()
        self.assertTrue(c.cmd("USER " + user).startswith(b"331"))
        replies = [c.cmd("PASS " + password)]
        if replies[0].startswith(b"230"):
            return c, replies
        c.send("NOOP\r\n")
        while True:
            r = c.reply()
            if r.startswith(b"502"):
                return c, replies
            replies.append(r)

    def test_accept_and_reject_by_the_server(self):
        d = self.daemon({"default": "radius"})
        c, replies = self.attempt(d, "raduser", "radpass1")
        self.assertEqual(replies, [OK])
        self.assertEqual(c.cmd("PWD"), b'257 Current working directory is "/".\r\n')
        c, replies = self.attempt(d, "raduser", "wrong")
        self.assertEqual(replies, REJECTED)
        c, replies = self.attempt(d, "nosuchuser", "radpass1")
        self.assertEqual(replies, REJECTED)

    def test_concurrent_logins_each_get_their_own_verdict(self):
        d = self.daemon({"default": "radius"})
        results = {}

        def one(i):
            password = "radpass1" if i % 2 == 0 else "wrong%d" % i
            try:
                results[i] = self.attempt(d, "raduser", password)[1]
            except Exception as e:  # reported below, with the others
                results[i] = repr(e)
        threads = [threading.Thread(target=one, args=(i,)) for i in range(8)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        for i in range(8):
            self.assertEqual(results[i], [OK] if i % 2 == 0 else REJECTED, i)

    def test_request_carries_peer_address_port_and_service(self):
        d = self.daemon({"default": "radius"})
        _, replies = self.attempt(d, "fromlo", "lopass1")
        self.assertEqual(replies, [OK])
        trace = self.radius.output()
        request = trace[trace.rindex("Received Access-Request"):]
        for attribute in ['User-Name = "fromlo"', "NAS-Port = 21", "Service-Type = Login-User",
                          'Calling-Station-Id = "127.0.0.1"']:
            self.assertIn(attribute, request)

    def test_one_challenge_is_answered_with_its_state_and_a_second_refused(self):
        d = self.daemon({"default": "radius"})
        _, replies = self.attempt(d, "chalonce", "chalpass")
        self.assertEqual(replies, [OK])
        _, replies = self.attempt(d, "chaluser", "chalpass")
        self.assertEqual(replies, NOT_LOGGED_IN)
        # The challenge of a refused session does not leak into a fresh attempt of the same user.
        c, replies = self.attempt(d, "chalonce", "chalpass")
        self.assertEqual(replies, [OK])

    def test_unreachable_server_falls_through_to_local(self):
        d = self.daemon({"default": "radius local"}, servers="127.0.0.1:%d" % self.dead_port)
        _, replies = self.attempt(d, "localbob", "localpass1")
        self.assertEqual(replies, [OK])
        _, replies = self.attempt(d, "localbob", "wrong")
        self.assertEqual(replies, REJECTED)

    def test_second_server_answers_when_the_first_is_silent(self):
        servers = "127.0.0.1:%d 127.0.0.1:%d" % (self.dead_port, self.radius.port)
        d = self.daemon({"default": "radius"}, servers=servers)
        _, replies = self.attempt(d, "raduser", "radpass1")
        self.assertEqual(replies, [OK])

    def test_only_silent_servers_refuse_with_not_logged_in(self):
        d = self.daemon({"default": "radius"}, servers="127.0.0.1:%d" % self.dead_port)
        _, replies = self.attempt(d, "raduser", "radpass1")
        self.assertEqual(replies, NOT_LOGGED_IN)

    def test_list_starting_with_none_and_unknown_list(self):
        d = self.daemon({"open": "none radius", "default": "radius"}, auth="open")
        before = self.radius.output().count("Received Access-Request")
        _, replies = self.attempt(d, "anybody", "anything")
        self.assertEqual(replies, [OK])
        self.assertEqual(self.radius.output().count("Received Access-Request"), before,
                         "a list starting with none asked the server")

        d2 = self.daemon({"default": "radius"}, auth="nolist")
        _, replies = self.attempt(d2, "raduser", "radpass1")
        self.assertEqual(replies, NOT_LOGGED_IN)


if __name__ == "__main__":
    unittest.main()
