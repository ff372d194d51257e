"""Every message that a tree accepts arrives, whatever is killed or cut meanwhile."""

import os
import random
import sys
import unittest

from storm import Storm
from tree import TreeTest


class Ledger(TreeTest):
    def test_what_was_accepted_arrives_and_only_what_was_under_way_at_a_fault_comes_twice(self):
        seed = int(os.environ.get("BRELIX_SEED", random.randrange(10**6)))
        kills = int(os.environ.get("BRELIX_KILLS", 10))
        cuts = int(os.environ.get("BRELIX_CUTS", 3))
        print(f"BRELIX_SEED={seed} ", end="", file=sys.stderr, flush=True)
        storm = Storm(self, kills, cuts, seed, slow_to_learn="BRELIX_KILLS" in os.environ)
        storm.run()
        storm.check_the_checks()
        print(storm.report(), file=sys.stderr)


if __name__ == "__main__":
    unittest.main()
