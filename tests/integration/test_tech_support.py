"""show tech-support: the server's section under its header, with the running line, the status
report and the memory table, every piece indented by two blanks."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import DaemonTestCase, RawClient  # noqa: E402


class TechSupportTest(DaemonTestCase):
    def test_report_holds_status_and_memory_table_indented(self):
        c = RawClient(self.d.port)
        self.addCleanup(c.close)
        c.login()
        rc, out = self.d.cli("show tech-support")
        self.assertEqual(rc, 0)
        self.assertTrue(out.startswith("------------------ app#ftp_server ------------------\n"
                                       "  ftp server is running\n"), out)
        # The status report, as show ftp-server prints it, one blank pair deeper.
        for line in ["      ftp-server information\n", "  enable : Y\n", "  topdir : flash:/\n",
                     "  timeout: 10min\n", "  username:alice\n"]:
            self.assertIn(line, out)
        # The live session is in the report.
        self.assertIn("client IP:127.0.0.1[%d]" % c.sock.getsockname()[1], out)
        # Every row of the memory table, indented (compared up to the counters, which the show
        # commands themselves may move).
        rc, table = self.d.cli("show ftp-server memory")
        rows = [l for l in table.splitlines() if l.strip() and l.startswith("  ")]
        self.assertGreater(len(rows), 10)
        for row in rows:
            self.assertIn("\n  " + row[:19], out)
        self.assertEqual(out.count("FTPD Dynamic Memory Usage:"), 1)


if __name__ == "__main__":
    unittest.main()
