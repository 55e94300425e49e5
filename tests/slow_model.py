"""The long run of test_model. By hand: `python slow_model.py 5000 6000` runs the seeds 5000 to 5999."""

import concurrent.futures
import sys
import unittest

import test_model


def reports(first, last):
    """A report for each ten of these seeds that have one; all processors share the work."""
    shares = [range(start, min(start + 10, last)) for start in range(first, last, 10)]
    with concurrent.futures.ProcessPoolExecutor() as pool:
        for share, text in zip(shares, pool.map(test_model.first_report, shares)):
            if share.stop % 200 == 0:
                print(f"seeds up to {share.stop}", file=sys.stderr, flush=True)
            if text:
                yield text


class LongModelTest(unittest.TestCase):
    def test_random_operations(self):
        self.assertEqual("", "\n".join(reports(1000, 2050)))


if __name__ == "__main__":
    sys.exit("\n".join(reports(*map(int, sys.argv[1:3]))))
