# Explicit FTPS in the standard profile: a client that sends USER in clear text is refused before its
# password leaves it; require = all with require_reuse = no; SIGHUP taking up a new certificate; a
# certificate that cannot be loaded stopping start-up. Attackers of the TLS sessions and data
# connections: test_tls_attacks.py; hostile input beside a leak check: the soak's TLS mix
# (test_soak.py); a handshake cut short: test_stalled_transfer.py; real clients over FTPS:
# test_real_clients.py; the device profile answering AUTH 502 whatever the platform file says:
# test_standard_profile.py.

import ftplib
import io
import signal
import unittest

from ftps_harness import (Daemon, DaemonTestCase, client_context, greeted, make_certificate, tls_handshake,
                          wait_until)

TLS_PROFILE = {"ftp.profile": "standard"}


class RequiredLogin(DaemonTestCase):
    # The defaults with a certificate: require = login, require_reuse = yes.
    daemon_kwargs = {"extra_platform": TLS_PROFILE, "tls": True}

    def test_clear_text_login_is_refused_before_the_password(self):
        # Refused at USER (no 331), a client stops before its password crosses the network.
        c = greeted(self.d.port)
        feat = c.cmd("FEAT").decode()
        self.assertTrue(all(line in feat for line in (" AUTH TLS\r\n", " PBSZ\r\n", " PROT\r\n")), feat)
        self.assertEqual(c.cmd("USER alice"), b"530 Log in over TLS: send AUTH TLS first.\r\n")
        self.assertEqual(c.cmd("PBSZ 0"), b"503 PBSZ needs AUTH TLS first.\r\n")
        c.close()

    def test_sighup_takes_up_a_new_certificate(self):
        before = tls_handshake(self.d.port)
        make_certificate(self.d.dir, "server", cn="renewed")  # over the files the platform file names
        self.d.proc.send_signal(signal.SIGHUP)
        self.assertTrue(wait_until(lambda: tls_handshake(self.d.port) != before, timeout=10))


class RequiredAll(DaemonTestCase):
    # require = all with require_reuse = no: stock ftplib, whose data connections start new TLS sessions,
    # works; clear data connections do not.

    daemon_kwargs = {"extra_platform": dict(TLS_PROFILE, **{"tls.require": "all", "tls.require_reuse": "no"}),
                     "tls": True}

    def test_every_data_connection_protected(self):
        ftp = ftplib.FTP_TLS(context=client_context(), timeout=30)
        ftp.connect("127.0.0.1", self.d.port)
        ftp.login("alice", "secret1")
        ftp.voidcmd("PBSZ 0")
        self.assertRaisesRegex(ftplib.error_perm, r"^534 PROT C refused: data connections must be protected\.$",
                               ftp.voidcmd, "PROT C")
        self.assertRaisesRegex(ftplib.error_perm, "^521 ", ftp.nlst)
        ftp.prot_p()
        ftp.storbinary("STOR stock.bin", io.BytesIO(b"x" * 70000))
        self.assertEqual(ftp.nlst(), ["stock.bin"])
        ftp.quit()


class StartUp(unittest.TestCase):
    def test_unloadable_key_stops_start_up(self):
        d = Daemon(extra_platform=dict(TLS_PROFILE, **{"tls.key": "/nonexistent/missing.key"}), tls=True)
        self.addCleanup(d.cleanup)
        err = d.start(wait=False).proc.communicate(timeout=30)[1].decode()
        for part in ("platform.conf:", ": key 'key': ", "missing.key"):
            self.assertIn(part, err)


if __name__ == "__main__":
    unittest.main()
