"""What a system without network namespaces gets: the tree, the ledger and the demo on one host."""

import os
import random
import sys
import unittest
from unittest import mock

import test_tree
from harness import BIN, ROOT, run
from hosts import Missing
from storm import Storm
from tree import TreeTest

NO_HOSTS = {"BRELIX_NO_HOSTS": "1"}


class OneHost(TreeTest):
    def setUp(self):
        with mock.patch.dict(os.environ, NO_HOSTS):
            super().setUp()


class ThreeLevels(OneHost, test_tree.ThreeLevels):
    """Its tests, on one host."""

    def test_there_are_no_hosts(self):
        self.assertIsNone(self.hosts)
        with self.assertRaisesRegex(Missing, "no network namespaces"):
            self.need_hosts()


class Ledger(OneHost):
    def test_routers_are_killed_and_no_line_is_cut(self):
        seed = int(os.environ.get("BRELIX_SEED", random.randrange(10**6)))
        print(f"BRELIX_SEED={seed} ", end="", file=sys.stderr, flush=True)
        storm = Storm(self, kills=3, cuts=2, seed=seed)
        storm.run()
        self.assertEqual(0, storm.cuts)
        self.assertFalse(any(storm.line_interruptions.values()))
        print(storm.report(), file=sys.stderr)


class Demo(unittest.TestCase):
    def test_the_demo_says_so_and_goes_through(self):
        done = run(sys.executable, "-B", ROOT / "scripts/demo_tree.py", timeout=120,
                   env={**os.environ, **NO_HOSTS, "BRELIX_BIN": str(BIN)})
        self.assertEqual(0, done.returncode, done.stderr.decode())
        output = done.stdout.decode()
        self.assertIn("all routers are on this host", output)
        self.assertIn("SIGTERM ends all routers in order", output)


if __name__ == "__main__":
    unittest.main()
