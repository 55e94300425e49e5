"""The long run of test_model. By hand: `python slow_model.py 5000 6000` runs the seeds 5000 to 5999."""

import concurrent.futures
import sys
import unittest

import test_model


def run(first, last):
    """The reports of these seeds, which all processors share."""
    shares = [range(start, min(start + 10, last)) for start in range(first, last, 10)]
    with concurrent.futures.ProcessPoolExecutor() as pool:
        for texts in pool.map(test_model.reports, shares):
            yield from texts


class LongModelTest(unittest.TestCase):
    def test_random_operations(self):
        self.assertEqual("", "\n".join(run(1000, 2050)))


if __name__ == "__main__":
    failed = False
    for text in run(*map(int, sys.argv[1:3])):
        failed = True
        print(text, flush=True)
    sys.exit(failed)
