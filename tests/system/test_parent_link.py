"""What becomes of a router whose parent is away, frozen, cut off, or not what it should be."""

import time
import unittest

from harness import SANITIZED, wait_until
from tree import TreeTest, texts

SEARCH = "Getting parent router IOR from"
RESET = "Register parent retry failed after 10 attempts. Resetting router..."
LEAVE = "Logged off from parent router"
END = ("Registering with parent failed after resetting router. Forcing router shutdown. "
       "Router should restart automatically.")


class ParentLink(TreeTest):
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
            self.assertTrue(2 <= patience <= 6, patience)

    def test_a_heartbeat_between_routers_that_poll_each_other_fails_and_is_mended_by_a_registration(self):
        slope = self.polled["slope"]
        slope.wait_log("Heartbeat to parent failed.", 130)
        mark = slope.log().index("Heartbeat to parent failed.")
        self.polled.wait_attached("slope", since=mark)
        self.assertIn("Already registered with parent router", slope.log()[mark:])
        # At once.
        failed = slope.logged_at("Heartbeat to parent failed.")
        again = slope.logged_at("Already registered with parent router")
        self.assertLessEqual(again - failed, 5)
        self.assertTrue(slope.running())


if __name__ == "__main__":
    unittest.main()
