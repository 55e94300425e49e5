"""The long form of the tests under faults: each of them, with every case."""

import os
import unittest

os.environ["JSON_DATABASE_LONG_FAULTS"] = "1"

from test_faults import *  # noqa: E402, F403

if __name__ == "__main__":
    unittest.main()
