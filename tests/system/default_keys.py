"""With the settings that a router has where nobody has set any, which takes minutes: run by
scripts/patience.sh and by no test suite."""

import time
import unittest

from harness import wait_until
from tree import QUICK, TreeTest, texts


class DefaultKeys(TreeTest):
    def test_a_broken_line_is_noticed_on_both_sides_two_minutes_and_a_half_after_its_use_and_mended(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        for router in tree.routers.values():
            for key in QUICK:
                router.settings.pop(key, None)
            # Each has something to call the other for.
            router.write_settings(ActiveConsumer=0, ActiveSupplier=0)
        tree.start()
        manager = tree.client("EM", at="top")
        agent = tree.client("agent-1", at="leaf")
        marks = {name: len(tree[name].log()) for name in tree.routers}
        tree.cut("top", "leaf")
        start = time.monotonic()
        agent("messages.SendMessage", destination="EM", text="up")
        manager("messages.SendMessage", destination="leaf.agent-1", text="down")
        for name, other in (("leaf", "top"), ("top", "leaf")):
            tree[name].wait_log(f"logging {other} off", 180, since=marks[name])
        # PeerTimeoutSecs, and the attempt to connect for the repetition of the call.
        self.assertLess(time.monotonic() - start, 120 + 30 + 15)
        tree.mend("top", "leaf")
        tree.wait_attached("leaf", since=marks["leaf"], seconds=180)
        wait_until(lambda: "up" in texts(manager) and "down" in texts(agent), 60, "both messages")


if __name__ == "__main__":
    unittest.main(verbosity=2)
