"""The long form of the tests under faults: each of them, with every case."""

import os
import unittest

os.environ["JSON_DATABASE_LONG_FAULTS"] = "1"

from test_bad_files import *  # noqa: E402, F403
from test_company import *  # noqa: E402, F403
from test_disk import *  # noqa: E402, F403
from test_hostile_objects import *  # noqa: E402, F403
from test_memory import *  # noqa: E402, F403
from test_targets import *  # noqa: E402, F403

if __name__ == "__main__":
    unittest.main()
