# The soak in a short form for every test run: a few hundred mixed sessions, sequential and
# overlapping, then the same checks that nothing is left behind.

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ftps_harness import SANITIZED  # noqa: E402
from test_soak import SoakBase  # noqa: E402


class ShortSoakTest(SoakBase, unittest.TestCase):
    SESSIONS = 200 if SANITIZED else 400
    WORKERS = 4


if __name__ == "__main__":
    unittest.main()
