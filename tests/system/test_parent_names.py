"""Routers and parents whose names are not what they should be."""

import time
import unittest

from harness import SANITIZED, wait_until
from tree import TreeTest, texts

SEARCH = "Getting parent router IOR from"
END = ("Registering with parent failed after resetting router. Forcing router shutdown. "
       "Router should restart automatically.")


class ParentNames(TreeTest):
    def impostor(self, tree, label, name, parent):
        """A router `label` whose certificate bears the name of another."""
        identity = self.ca.issue(name, "router", label=f"{label}-as-{name}")
        tree.add(label, {"parent": parent}, identity=identity)
        return tree[label]

    def test_a_router_that_bears_its_parents_name_or_is_its_own_parent_is_refused(self):
        tree = self.tree({"top": {}, "self": {}})
        tree.set_parent("self", "self")
        twin = self.impostor(tree, "twin", "top", "top")
        for router in tree.routers.values():
            router.start()
        before = tree["top"].fds()
        for router in (twin, tree["self"]):
            self.assertEqual(0, router.wait_end(90))
            self.assertEqual(22, router.log().count(SEARCH))
            self.assertEqual(22, router.log().count("RegisterParent: Caught CORBA Rejected"))
            self.assertIn(END, router.last_log_line())
        self.assertEqual(22, tree["top"].log().count("Self registration by top is illegal"))
        self.assertLess(tree["top"].fds(), before + 5)

    def test_two_routers_that_name_each_other_as_parent_do_each_other_no_harm(self):
        tree = self.tree({"a": {}, "b": {}})
        tree.set_parent("a", "b")
        tree.set_parent("b", "a")
        start = time.monotonic()
        routers = list(tree.routers.values())
        for router in routers:
            router.start(wait=False)
        for name in tree.routers:
            tree.wait_attached(name)
        before = [(router.rss(), router.threads(), router.fds()) for router in routers]
        client = tree.client("agent-1", at="a")
        client("messages.SendMessage", destination="nobody", text="lost")
        # Each logon takes the place of the other's.
        for router in routers:
            wait_until(lambda: router.log().count("Logged on to parent router") >= 5, 30,
                       "five sessions")
        for router, (rss, threads, fds) in zip(routers, before):
            log = router.log()
            self.assertLess(log.count("Logged on to parent router"),
                            2 + time.monotonic() - start, "at most one a second")
            self.assertLess(log.count("MS-RouterRegistered"), 20)
            self.assertLess(router.rss(), rss + (200000 if SANITIZED else 8000))
            self.assertLess(router.threads(), threads + 10)
            self.assertLess(router.fds(), fds + 10)
            self.wait_no_envelopes(router)
        # Each session that ended may have done so before an acknowledgement.
        ends = sum(router.log().count("Cannot route message to nobody") for router in routers)
        sessions = sum(router.log().count("Logged on to parent router") for router in routers)
        self.assertTrue(1 <= ends <= sessions, ends)
        for router in routers:
            self.assertEqual(0, router.stop())

    def test_a_router_that_bears_the_name_of_its_parents_parent_does_no_lasting_harm(self):
        tree = self.tree({"top": {}, "middle": {"parent": "top"}})
        tree.start()
        twin = self.impostor(tree, "twin", "top", "middle")
        twin.start()
        middle = tree["middle"]
        wait_until(lambda: middle.log().count("Logged on top as a router") >= 3, 30,
                   "three sessions of the impostor")
        self.assertLess(middle.log().count("Logged on"), 20)
        self.assertEqual(0, twin.stop())
        manager = tree.client("EM", at="top")
        agent = tree.client("agent-1", at="middle")
        agent("messages.SendMessage", destination="EM", text="question")
        manager.wait_received(1)
        self.assertIn("question", texts(manager))


if __name__ == "__main__":
    unittest.main()
