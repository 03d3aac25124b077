# Clients that misbehave, on purpose or by bad luck, against one daemon: none of them may pin a session, leak
# a descriptor, take another client's data, or touch a file that a name too long for its real path would name
# cut short; well-behaved clients around them are served as before. (A half-closed control connection and a
# third party on the passive port are soak kinds: test_soak.py; sessions that give back another's count or
# slot: test_local_database.py, test_sessions.py.)

import contextlib
import os
import re
import socket
import threading
import time
import unittest

from ftps_harness import (Daemon, DaemonTestCase, RawClient, greeted, has_ipv6, in_parallel, logged_in,
                          memory_idle, pasv_port, read_file, transfer, wait_until)

CONTENT = bytes(range(256)) * 64
# Deep enough that a name fitting one command line can be too long for its real path.
TOP = "t" * 60
USERS = ["ftp-server username alice password secret1", "ftp-server username bob password secret2"]


class HostileClientsTest(DaemonTestCase):
    @classmethod
    def setUpClass(cls):
        # The top directory exists before the start.
        cls.d = Daemon(startup=USERS, topdir="flash:/" + TOP)
        cls.d.put(TOP + "/f.bin", CONTENT)
        cls.d.start_for(cls)

    def test_replaced_passive_listeners_are_closed(self):
        baseline = self.d.descriptors()
        c = logged_in(self.d.port)
        ports = [pasv_port(c.cmd("PASV")) for _ in range(50)]
        c.cmd("EPSV")
        # Only the last listener still accepts.
        for port in ports[:-1]:
            self.assertRaises(ConnectionRefusedError, socket.create_connection, ("127.0.0.1", port), 5)
        self.assertLess(self.d.descriptors(), baseline + 5)
        c.cmd("QUIT")
        c.close()
        self.assertTrue(wait_until(lambda: self.d.descriptors() <= baseline), (self.d.descriptors(), baseline))
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())

    def test_concurrent_passive_ports_and_listings(self):
        # Sessions that open passive ports and list at the same moment all succeed, with no session
        # waiting for another's port.
        barrier = threading.Barrier(16)

        def client(i):
            c = RawClient(self.d.port).login(*(("alice", "secret1"), ("bob", "secret2"))[i % 2])
            barrier.wait(timeout=30)
            passive = [c.cmd("PASV")[:4] for _ in range(20)]
            barrier.wait(timeout=60)
            listings = [transfer(c, "LIST" if (i + round_) % 2 else "NLST") for round_ in range(10)]
            c.close()
            return passive, [(r[-30:], b"f.bin" in listing) for r, listing in listings]

        self.assertEqual(in_parallel(client, 16, timeout=120),
                         [([b"227 "] * 20, [(b"226 Closing data connection.\r\n", True)] * 10)] * 16)
        self.assertEqual(self.d.listing_temporaries(), [])

    def test_failed_password_is_answered_after_the_delay(self):
        c = greeted(self.d.port)
        c.cmd("USER alice")
        start = time.time()
        self.assertTrue(c.cmd("PASS wrong").startswith(b"530"))
        self.assertGreaterEqual(time.time() - start, 0.9)
        c.close()

    def test_names_whose_real_path_does_not_fit_touch_nothing(self):
        # The real path of each name is longer than the path buffer; cut short it would name an
        # existing file or directory, which must stay as it is.
        d200 = "d" * 200
        real = os.path.join(self.d.flash, TOP, d200) + "/"
        os.makedirs(real)
        cut_len = 511 - len(real)
        self.assertTrue(0 < cut_len < 240, cut_len)
        victim = real + "f" * cut_len
        # Short enough for one command line and its echo in a reply, too long for the real path.
        long_name = d200 + "/" + "f" * (cut_len + 10)
        c = logged_in(self.d.port)
        c.cmd("PASV")  # STOR is refused before its name is looked at without a data address
        for verb in ("DELE", "RMD", "MKD", "SIZE", "STOR", "RNTO"):
            with self.subTest(verb=verb):
                if verb == "RMD":
                    os.mkdir(victim)
                else:
                    self.d.put(victim, b"victim")
                if verb == "RNTO":
                    self.assertTrue(c.cmd("RNFR f.bin").startswith(b"350"))
                r = c.cmd("%s %s" % (verb, long_name))
                self.assertTrue(r.startswith(b"553 " if verb == "RNTO" else b"550 "), r)
                # The victim as it was, and nothing new beside it.
                self.assertEqual(os.listdir(real), [os.path.basename(victim)])
                if verb != "RMD":
                    self.assertEqual(read_file(victim), b"victim")
                (os.rmdir if verb == "RMD" else os.unlink)(victim)
        self.assertTrue(os.path.exists(os.path.join(self.d.flash, TOP, "f.bin")))
        c.close()
        self.assertTrue(memory_idle(self.d), self.d.memory_in_use())


def alice_slots(d):
    text = d.cli("show ftp-server")[1]
    return int(re.search(r"username:alice\n.*\nconnect num\[(\d+)\]", text).group(1))


def each_profile(test):
    # The test once against each profile's daemon, which has one slot per user: the sessions of
    # the run before must have ended.
    def run(self):
        for profile, d in self.daemons.items():
            with self.subTest(profile=profile):
                self.assertTrue(memory_idle(d), d.memory_in_use())
                test(self, profile, d)
    return run


class SecondRoundTest(unittest.TestCase):
    # Both profiles: what a refused address command parsed, a second USER, a client that leaves while its
    # data connection is awaited, the top directory itself, passive listeners across address families.

    @classmethod
    def setUpClass(cls):
        cls.daemons = {p: Daemon(startup=USERS + ["ftp-server max-user-connect 1"], topdir="flash:/top",
                                 extra_platform={"ftp.profile": p, "ftp.login_fail_delay": "0"})
                       for p in ("device", "standard")}
        for d in cls.daemons.values():
            os.makedirs(os.path.join(d.flash, "top"))
            d.start_for(cls)

    @each_profile
    def test_a_refused_address_command_changes_nothing(self, profile, d):
        good, stray = socket.create_server(("127.0.0.1", 0)), socket.create_server(("127.0.0.2", 0))
        port, stray_port = good.getsockname()[1], stray.getsockname()[1]
        c = logged_in(d.port)
        self.assertEqual(c.cmd("PORT 127,0,0,1,%d,%d" % divmod(port, 256)), b"200 PORT Command okay.\r\n")
        # Garbage, a privileged port, and (standard) a stranger's address: refused and forgotten.
        bad = ["EPRT |2|zz::|%d|" % stray_port, "PORT 127,0,0,2,0,1"]
        if profile == "standard":
            bad += ["EPRT |1|127.0.0.2|%d|" % stray_port, "PORT 127,0,0,2,%d,%d" % divmod(stray_port, 256)]
        for cmd in bad:
            self.assertFalse(c.cmd(cmd).startswith(b"200"), cmd)
        c.send("NLST\r\n")
        good.settimeout(10)
        good.accept()[0].close()
        stray.settimeout(0.5)
        self.assertRaises(socket.timeout, stray.accept)
        for sock in (c, good, stray):
            sock.close()

    @each_profile
    def test_a_second_user_ends_the_login_and_its_slot(self, profile, d):
        a = logged_in(d.port)
        self.assertEqual(a.cmd("USER nobody"), b"331 User name okay, need password.\r\n")
        self.assertEqual(a.cmd("MKD x"), b"530 Not logged in.\r\n")
        b = logged_in(d.port)  # alice's only slot is free again
        self.assertEqual(a.cmd("USER alice"), b"331 User name okay, need password.\r\n")
        self.assertNotEqual(a.cmd("PASS secret1")[:3], b"230")  # b holds it now
        self.assertEqual(alice_slots(d), 1)
        a.close()
        b.close()
        self.assertTrue(wait_until(lambda: alice_slots(d) == 0))

    @each_profile
    def test_a_client_that_leaves_while_its_data_connection_is_awaited_frees_its_slot(self, profile, d):
        for verb in ("RETR f.bin", "STOR up.bin", "LIST"):
            d.put("top/f.bin", b"x")
            a = logged_in(d.port)
            a.cmd("PASV")
            a.send(verb + "\r\n")
            time.sleep(0.2)
            a.close()
            # The session ends at once, not at the idle time-out: the slot is free.
            self.assertTrue(wait_until(lambda: alice_slots(d) == 0, timeout=15), verb)
            self.assertEqual([n for n in os.listdir(os.path.join(d.flash, "top")) if n.startswith(".")], [])
            logged_in(d.port).close()
            self.assertTrue(wait_until(lambda: alice_slots(d) == 0, timeout=15), verb)

    @each_profile
    def test_the_top_directory_is_neither_removed_nor_renamed(self, profile, d):
        c = logged_in(d.port)
        for cmd in ("RMD /", "RMD .", "RMD .."):
            self.assertTrue(c.cmd(cmd).startswith(b"550 "), cmd)
        self.assertEqual(c.cmd("RNFR /"), b"550 Requested action not taken.\r\n")
        self.assertTrue(os.path.isdir(os.path.join(d.flash, "top")))
        c.close()

    @each_profile
    def test_a_passive_port_found_between_transfers_serves_nobody(self, profile, d):
        # The standard profile keeps a listener that served a transfer for the next PASV; a stranger at
        # the client's own address that finds it and connects first gets neither the next file nor the port.
        d.put("top/k.bin", CONTENT)
        c = logged_in(d.port)
        c.cmd("TYPE I")

        def fetch():
            port, got = pasv_port(c.cmd("PASV")), bytearray()
            with socket.create_connection(("127.0.0.1", port), 5) as data:
                c.send("RETR k.bin\r\n")
                while chunk := data.recv(65536):
                    got += chunk
            self.assertEqual([c.reply()[:4], c.reply()[:4]], [b"150 ", b"226 "])
            return port, bytes(got)

        served = fetch()[0]
        self.assertEqual(fetch()[0] == served, profile == "standard")
        served = fetch()[0]
        try:
            stranger = socket.create_connection(("127.0.0.1", served), 5)
        except ConnectionRefusedError:
            stranger = None
        self.assertEqual(stranger is None, profile == "device")
        port, got = fetch()
        self.assertNotEqual(port, served)
        self.assertEqual(got, CONTENT)
        if stranger is not None:
            stranger.settimeout(5)
            with contextlib.suppress(ConnectionResetError):
                self.assertEqual(stranger.recv(65536), b"")
            stranger.close()
        c.close()

    @each_profile
    def test_passive_listeners_take_the_client_of_the_control_family_only(self, profile, d):
        c = logged_in(d.port)
        r = c.cmd("EPSV 2")
        if profile == "standard":
            self.assertEqual(r, b"522 Network protocol not supported, use (1).\r\n")
        elif has_ipv6():
            port = int(r.split(b"|||")[1].split(b"|")[0])
            self.assertRaises(OSError, socket.create_connection, ("::1", port), 2)
        c.close()
        if has_ipv6():
            v6 = RawClient(d.port, host="::1").login("bob", "secret2")  # alice's one slot may not be given back yet
            self.assertEqual(v6.cmd("PASV"), b"425 Can't open data connection.\r\n")
            v6.close()


if __name__ == "__main__":
    unittest.main()
