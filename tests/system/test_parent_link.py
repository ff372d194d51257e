"""What becomes of a router whose parent is away or cut off, and how they part."""

import unittest

from harness import wait_until
from tree import TreeTest, texts

SEARCH = "Getting parent router IOR from"
RESET = "Register parent retry failed after 10 attempts. Resetting router..."
LEAVE = "Logged off from parent router"
END = ("Registering with parent failed after resetting router. Forcing router shutdown. "
       "Router should restart automatically.")


class ParentLink(TreeTest):
    def test_the_ladder_of_attempts_starts_afresh_after_a_success_and_ends_the_process_when_nothing_helps(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        tree.start()
        leaf = tree["leaf"]
        mark = len(leaf.log())
        self.assertEqual(0, tree["top"].stop())
        leaf.wait_log(RESET, 40, since=mark)
        self.assertEqual(11, leaf.log()[mark:].split(RESET)[0].count(SEARCH))
        back = len(leaf.log())
        tree.start("top")
        tree.wait_attached("leaf", since=back)
        mark = len(leaf.log())
        self.assertEqual(0, tree["top"].stop())
        self.assertEqual(0, leaf.wait_end(60))
        first, second = leaf.log()[mark:].split(RESET)
        self.assertEqual(11, first.count(SEARCH))
        self.assertEqual(11, second.count(SEARCH))
        self.assertIn("Waiting for messages...", second)
        self.assertIn(END, leaf.last_log_line())

    def test_a_parent_that_has_forgotten_its_child_is_registered_with_anew_after_the_reset(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        tree.start()
        # Before a minute has passed: the child is not in the table on disk.
        tree["top"].kill()
        mark = len(tree["leaf"].log())
        tree["top"].start()
        tree.wait_attached("leaf", since=mark, seconds=40)
        log = tree["leaf"].log()[mark:]
        self.assertEqual(11, log.count("Caught CORBA NotRegistered"))
        self.assertIn("Parent logon failed after 10 attempts. Resetting router...", log)
        self.assertIn("Registered with parent router", log.split("Resetting router...")[1])

    def test_a_broken_line_is_noticed_and_mended_without_an_operator_and_nothing_is_lost(self):
        self.need_hosts()
        children = {"fetching": {}, "pushing": {"ActiveConsumer": 0, "ActiveSupplier": 0},
                    "deaf": {}, "unheard": {}}
        tree = self.tree({"top": {}, **{name: {"parent": "top", **words}
                                        for name, words in children.items()}},
                         NumSenderThreads=8, NumGetterThreads=8)
        tree.start()
        manager = tree.client("EM", at="top")
        agents = {name: tree.client(f"agent-{name}", at=name) for name in children}
        top = tree["top"]
        marks = {name: len(tree[name].log()) for name in children}
        top_mark = len(top.log())
        for name in ("fetching", "pushing"):
            tree.cut("top", name)
        tree["deaf"].host.deafen(top.host)
        top.host.deafen(tree["unheard"].host)
        for name, agent in agents.items():
            agent("messages.SendMessage", destination="EM", text=f"from {name}")
            manager("messages.SendMessage", destination=f"{name}.agent-{name}", text=f"to {name}")
        for name in children:
            tree[name].wait_log("logging top off", 60, since=marks[name])
            top.wait_log(f"logging {name} off", 60, since=top_mark)
        for name in children:
            tree.mend("top", name)
        for name, agent in agents.items():
            tree.wait_attached(name, since=marks[name], seconds=60)
            agent.wait_received(1)
            self.assertEqual({f"to {name}"}, set(texts(agent)))
        wait_until(lambda: {f"from {name}" for name in children} == set(texts(manager)), 30,
                   "all messages to arrive")
        for name in tree.routers:
            self.wait_no_envelopes(tree[name])

    def test_a_stop_takes_leave_of_the_parent_once(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        tree.start()
        self.assertEqual(0, tree["leaf"].stop())
        self.assertEqual(1, tree["leaf"].log().count(LEAVE))
        self.assertEqual(1, tree["top"].log().count("Logged off leaf"))

    def test_a_reload_takes_no_leave_of_the_parent(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        tree.start()
        mark = len(tree["leaf"].log())
        tree["leaf"].reload()
        tree.wait_attached("leaf", since=mark)
        self.assertNotIn(LEAVE, tree["leaf"].log())
        self.assertNotIn("Logged off leaf", tree["top"].log())

    def without_parent(self, leaf):
        """Takes its parent's address out of its settings."""
        leaf.write_settings(ParentAddress="")

    def test_a_stop_after_the_parent_was_taken_away_takes_leave_of_it(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        tree.start()
        self.without_parent(tree["leaf"])
        self.assertEqual(0, tree["leaf"].stop())
        self.assertEqual(1, tree["leaf"].log().count(LEAVE))

    def test_a_reload_after_the_parent_was_taken_away_makes_it_the_top_of_its_tree(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        tree.start()
        leaf = tree["leaf"]
        agent = tree.client("agent-1", at="leaf")
        self.without_parent(leaf)
        mark = len(leaf.log())
        leaf.reload()
        agent.retry("reconnect")
        agent("messages.SendMessage", destination="EM", text="nobody's")
        leaf.wait_log("Cannot route message to EM", since=mark)
        self.assertNotIn(SEARCH, leaf.log()[mark:])
        self.assertNotIn("Logged on to parent router", leaf.log()[mark:])
        self.assertEqual(0, leaf.stop())
        self.assertNotIn(LEAVE, leaf.log())


if __name__ == "__main__":
    unittest.main()
