"""With the settings that a router has where nobody has set any, which takes minutes: run by
scripts/patience.sh and by no test suite."""

import time
import unittest

from harness import wait_until
from tree import QUICK, TreeTest, texts


def unacknowledged(router, other):
    """The connections with the other on which something waits to arrive."""
    return [row for row in router.host.connections(other.host) if not row[4].startswith("00000000:")]


class DefaultKeys(TreeTest):
    def test_a_broken_line_is_given_up_after_two_minutes_acted_upon_after_its_repetition_and_mended(self):
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
        # The call goes over the connection that is there, and is repeated over a new one.
        wait_until(lambda: unacknowledged(tree["leaf"], tree["top"]), 10, "the call to be under way")
        wait_until(lambda: not unacknowledged(tree["leaf"], tree["top"]), 120, "it to be given up")
        given_up = time.monotonic() - start
        self.assertGreater(given_up, 120 - 5)
        self.assertLess(given_up, 120 + 5)
        for name, other in (("leaf", "top"), ("top", "leaf")):
            tree[name].wait_log(f"logging {other} off", 180, since=marks[name])
        # PeerTimeoutSecs, and the attempt to connect for the repetition of the call.
        self.assertLess(time.monotonic() - start, 120 + 30 + 15)
        tree.mend("top", "leaf")
        tree.wait_attached("leaf", since=marks["leaf"], seconds=180)
        wait_until(lambda: "up" in texts(manager) and "down" in texts(agent), 60, "both messages")


if __name__ == "__main__":
    unittest.main(verbosity=2)
