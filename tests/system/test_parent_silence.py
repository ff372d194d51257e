"""What becomes of a router whose parent is there and does not answer."""

import unittest

from harness import PATIENCE, wait_until
from tree import TreeTest, texts

RESET = "Register parent retry failed after 10 attempts. Resetting router..."


class ParentSilence(TreeTest):
    # They wait beside the other tests: each draws a time until its heartbeat, one minute to two.
    LEAVES = [f"leaf-{number}" for number in range(5)]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        stage = cls.stage()
        cls.frozen = stage.tree(
            {"top": {}, **{name: {"parent": "top"} for name in cls.LEAVES}},
            ActiveConsumer=0, ActiveSupplier=0, HeartbeatInterval=1, HeartbeatTimeout=2)
        cls.frozen.start()
        cls.frozen["top"].freeze()
        # It polls and is polled: nobody to send a heartbeat to.
        cls.polled = stage.tree({"summit": {}, "slope": {"parent": "summit"}},
                                HeartbeatInterval=1)
        cls.polled.start()

    def test_a_parent_that_takes_no_more_messages_ends_a_process_that_watches_it(self):
        tree = self.tree({"top": {}, "leaf": {"parent": "top", "ActiveSupplier": 0,
                                              "MonitorEmSender": 1,
                                              "MonitorEmSenderMaxFailures": 5}})
        tree.start()
        manager = tree.client("EM", at="top")
        agent = tree.client("agent-1", at="leaf")
        tree.settle()
        leaf = tree["leaf"]
        tree["top"].freeze()
        for number in range(6):
            self.assertTrue(leaf.running())
            agent("messages.SendMessage", destination="EM", text=str(number))
        self.assertEqual(0, leaf.wait_end())
        self.assertIn("Failed to send a message to EM or parent 5 consecutive times. The router "
                      "will now restart.", leaf.last_log_line())
        tree["top"].thaw()
        tree.start("leaf")
        wait_until(lambda: {str(number) for number in range(6)} == set(texts(manager)), 20,
                   "all messages to arrive")
        self.wait_no_envelopes(leaf)

    def frozen_parent(self, **settings):
        """A leaf whose connection to its parent is open, and doesn't get an answer any more."""
        tree = self.tree({"top": {}, "leaf": {"parent": "top", "TimeoutInterval": 1,
                                              "ActiveConsumerConnectionTimeout": 6,
                                              "HeartbeatTimeout": 2, "GetIORTimeoutSec": 1,
                                              "GetterInterval": 900, **settings}})
        tree.start()
        tree["top"].freeze()
        leaf = tree["leaf"]
        leaf.wait_log("Communications timeout, logging top off", 30)
        leaf.wait_log("Failed to validate connection to parent router", 30)
        return tree, leaf, len(leaf.log())

    def test_a_parent_that_froze_is_logged_on_to_again_when_it_thaws(self):
        tree, leaf, mark = self.frozen_parent()
        tree["top"].thaw()
        tree.wait_attached("leaf", since=mark)
        manager = tree.client("EM", at="top")
        agent = tree.client("agent-1", at="leaf")
        agent("messages.SendMessage", destination="EM", text="question")
        manager.wait_received(1)
        manager("messages.SendMessage", destination="leaf.agent-1", text="answer")
        agent.wait_received(1)

    def test_a_parent_that_stays_frozen_ends_the_process(self):
        tree, leaf, mark = self.frozen_parent(ResetTimeout=5)
        self.assertEqual(0, leaf.wait_end(90))
        self.assertIn(RESET, leaf.log()[mark:])

    def test_without_an_answer_to_its_heartbeat_a_router_ends(self):
        for name in self.LEAVES:
            leaf = self.frozen[name]
            wait_until(lambda: not leaf.running(), 130, "it to end")
            self.assertEqual(0, leaf.wait_end())
            self.assertIn("Heartbeat to parent timed out, restarting router...",
                          leaf.last_log_line())
            attached = leaf.logged_at("Logged on to parent router")
            called = leaf.logged_at("Calling parent with heartbeat...")
            self.assertTrue(60 <= called - attached <= 125, called - attached)
            patience = leaf.logged_at("Heartbeat to parent timed out") - called
            self.assertTrue(2 <= patience <= 3 * PATIENCE, patience)

    def test_a_heartbeat_between_routers_that_poll_each_other_fails_and_is_mended_by_a_registration(self):
        slope = self.polled["slope"]
        slope.wait_log("Heartbeat to parent failed.", 130)
        mark = slope.log().index("Heartbeat to parent failed.")
        self.polled.wait_attached("slope", since=mark)
        self.assertIn("Already registered with parent router", slope.log()[mark:])
        # At once.
        failed = slope.logged_at("Heartbeat to parent failed.")
        again = slope.logged_at("Already registered with parent router", since=mark)
        self.assertTrue(0 <= again - failed <= 2.5 * PATIENCE, again - failed)
        self.assertTrue(slope.running())


if __name__ == "__main__":
    unittest.main()
