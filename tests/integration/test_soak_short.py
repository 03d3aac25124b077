# The soak in a short form for every test run: a few hundred mixed sessions, sequential and
# overlapping, then the same checks that nothing is left behind.

import unittest

from ftps_harness import SANITIZED
from test_soak import SoakBase


class ShortSoakTest(SoakBase, unittest.TestCase):
    SESSIONS = 200 if SANITIZED else 400
    WORKERS = 4


if __name__ == "__main__":
    unittest.main()
