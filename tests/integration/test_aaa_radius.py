# AAA method lists against a real RADIUS server (FreeRADIUS on a loopback port, from a private directory):
# accept, reject, challenges, an unreachable server falling through to the local database, a list that starts
# with none, and an unknown list name.
# ctest-labels: radius

import shutil
import unittest

from ftps_harness import BackEnd, Daemon, free_udp_port

RADIUSD = shutil.which("freeradius") or shutil.which("radiusd")
SECRET = "t3stsecret"

RADIUSD_CONF = """
confdir = {dir}
run_dir = ${{confdir}}
log {{ destination = stdout }}
security {{ reject_delay = 0 }}
client test {{
  ipaddr = 127.0.0.1
  secret = t3stsecret
  require_message_authenticator = no
}}
modules {{
  files {{ filename = ${{confdir}}/users }}
  pap {{ normalise = yes }}
  always handled {{ rcode = handled }}
}}
server test {{
  listen {{
    type = auth
    ipaddr = 127.0.0.1
    port = {port}
  }}
  authorize {{
    # chaluser is challenged every time (a second challenge is refused by the FTP server),
    # chalonce until the request carries the State of the challenge back.
    if (&User-Name == "chaluser" || (&User-Name == "chalonce" && !&State)) {{
      update reply {{
        &Reply-Message := "challenge"
        &State := 0x7a7a
      }}
      update control {{ &Response-Packet-Type := 11 }}
      handled
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
DEFAULT   Auth-Type := Reject
"""


OK = b"230 User logged in, proceed.\r\n"
# A refusal: the verdict's own reply, then the login sequence's.
REJECTED = [b"530 Password access denied.\r\n"] * 2
NOT_LOGGED_IN = [b"530 Not logged in.\r\n", b"530 Password access denied.\r\n"]


@unittest.skipIf(RADIUSD is None, "FreeRADIUS is not installed (scripts/setup.sh installs it)")
class RadiusTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # -X: a full trace, which shows every request received.
        cls.radius = BackEnd("ftps-radius", {"radiusd.conf": RADIUSD_CONF, "users": USERS},
                             [RADIUSD, "-X", "-d", "{dir}"], "Ready to process requests")
        cls.addClassCleanup(cls.radius.stop)

    def daemon(self, lists, server):
        platform = {"radius.server": server, "radius.secret": SECRET, "radius.timeout": "1", "radius.retries": "1",
                    **{"aaa.list." + name: methods for name, methods in lists.items()}}
        return Daemon(extra_platform=platform, user_database="[user localbob]\npassword = localpass1\n").start_for(self)

    def test_answering_server(self):
        d = self.daemon({"default": "radius", "open": "none radius"}, "127.0.0.1:%d" % self.radius.port)
        c, replies = d.attempt("raduser", "radpass1")
        self.assertEqual(replies, [OK])
        self.assertEqual(c.cmd("PWD"), b'257 Current working directory is "/".\r\n')
        # One challenge is answered with its State, a second one refuses; the challenge of a
        # refused session does not leak into a fresh attempt of the same user.
        for user, password, replies in (("raduser", "wrong", REJECTED), ("nosuchuser", "radpass1", REJECTED),
                                        ("chalonce", "chalpass", [OK]), ("chaluser", "chalpass", NOT_LOGGED_IN),
                                        ("chalonce", "chalpass", [OK])):
            self.assertEqual(d.attempt(user, password)[1], replies, user)
        # A list that starts with none accepts without asking the server.
        self.assertEqual(d.cli("ftp-server authentication open")[0], 0)
        before = self.radius.output().count("Received Access-Request")
        self.assertEqual(d.attempt("anybody", "anything")[1], [OK])
        self.assertEqual(self.radius.output().count("Received Access-Request"), before,
                         "a list starting with none asked the server")
        # A list the platform file does not define refuses every login.
        self.assertEqual(d.cli("ftp-server authentication nolist")[0], 0)
        self.assertEqual(d.attempt("raduser", "radpass1")[1], NOT_LOGGED_IN)

    def test_silent_server(self):
        d = self.daemon({"default": "radius local", "strict": "radius"}, "127.0.0.1:%d" % free_udp_port())
        # Falls through to the local database when the list goes on.
        self.assertEqual(d.attempt("localbob", "localpass1")[1], [OK])
        self.assertEqual(d.attempt("localbob", "wrong")[1], REJECTED)
        # Only silent servers and nothing after them: not logged in.
        self.assertEqual(d.cli("ftp-server authentication strict")[0], 0)
        self.assertEqual(d.attempt("raduser", "radpass1")[1], NOT_LOGGED_IN)


if __name__ == "__main__":
    unittest.main()
