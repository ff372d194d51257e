"""Routers in trees: messages up by bare names, down by the originator's address, across kills and
firewalls, with every way of pushing and fetching on a link."""

import time
import unittest

from harness import wait_until
from hosts import DROP, REFUSE
from tree import TreeTest, texts


class ThreeLevels(TreeTest):
    def test_a_question_to_the_top_by_a_bare_name_is_answered_across_a_kill_of_the_middle(self):
        tree = self.tree({"top": {}, "middle": {"parent": "top"}, "leaf": {"parent": "middle"}})
        tree.start()
        manager = tree.client("EM", at="top")
        agent = tree.client("agent-1", at="leaf")
        tree.settle()

        agent("messages.SendMessage", destination="EM", text="question")
        manager.wait_received(1)
        question = manager.received()[-1]
        self.assertEqual("middle.leaf.agent-1", question["originator"])

        # What is under way at a kill may come twice.
        for name in tree.routers:
            self.wait_no_envelopes(tree[name])
        tree["middle"].kill()
        manager("messages.SendMessage", destination=question["originator"], text="answer")
        agent("messages.SendMessage", destination="EM", text="another")
        tree["leaf"].wait_log("Failed to notify")
        tree.start("middle")
        agent.wait_received(1)
        manager.wait_received(2)
        answer = agent.received()[-1]
        self.assertEqual(("answer", "middle.top.EM"), (answer["payload"], answer["originator"]))
        self.assertEqual(["question", "another"], texts(manager))
        for name in tree.routers:
            self.wait_no_envelopes(tree[name])


class Firewalls(TreeTest):
    def test_a_leaf_that_nobody_can_call_gets_its_messages_by_pull(self):
        self.need_hosts()
        tree = self.tree({
            "top": {},
            # It offers to be fetched from, which is found out to be in vain.
            "refusing": {"parent": "top", "firewall": REFUSE},
            # Where calls vanish, finding out takes a minute.
            "silent": {"parent": "top", "firewall": DROP, "ActiveSupplier": 0}})
        tree.start()
        manager = tree.client("EM", at="top")
        for name in ("refusing", "silent"):
            agent = tree.client(f"agent-{name}", at=name)
            agent("messages.SendMessage", destination="EM", text=f"from {name}")
            manager("messages.SendMessage", destination=f"{name}.agent-{name}", text=f"to {name}")
            agent.wait_received(1)
            self.assertEqual([f"to {name}"], texts(agent))
            self.assertIn("Sent message", tree[name].log())
        manager.wait_received(2)
        log = tree["top"].log()
        self.assertIn("Router::Logon() failed to call back to router supplier", log)
        self.assertIn("Failed to notify refusing", log)
        for name in ("refusing", "silent"):
            self.assertRegex(log, rf"Supplying message \(id=\w+\) to {name}")
            self.wait_no_envelopes(tree[name])
        self.wait_no_envelopes(tree["top"])


class Links(TreeTest):
    def test_messages_pass_both_ways_whoever_pushes_and_whoever_fetches(self):
        children = {f"consumer-{down}-supplier-{up}":
                    {"parent": "top", "ActiveConsumer": down, "ActiveSupplier": up}
                    for down in (0, 1) for up in (0, 1)}
        tree = self.tree({"top": {}, **children}, GetterInterval=1000, GetterShortInterval=1000)
        tree.start()
        manager = tree.client("EM", at="top")
        for number, (name, words) in enumerate(children.items(), 1):
            agent = tree.client(f"agent-{number}", at=name)
            for round_ in (1, 2, 3):
                agent("messages.SendMessage", destination="EM", text=name)
                manager.wait_received((number - 1) * 3 + round_)
                question = manager.received()[-1]
                self.assertEqual((name, f"{name}.agent-{number}"),
                                 (question["payload"], question["originator"]))
                manager("messages.SendMessage", destination=question["originator"], text="answer")
                agent.wait_received(round_)
            down = "Supplying" if words["ActiveConsumer"] else "Sent"
            up = "Supplying" if words["ActiveSupplier"] else "Sent"
            self.assertRegex(tree["top"].log(), rf"{down} message \(id=\w+\) to {name}")
            self.assertRegex(tree[name].log(), rf"{up} message \(id=\w+\) to top")
            self.wait_no_envelopes(tree[name])
        self.wait_no_envelopes(tree["top"])

    def test_a_slow_line_only_takes_its_time(self):
        self.need_hosts()
        tree = self.tree({"top": {}, "leaf": {"parent": "top"}})
        tree.slow_down("top", "leaf", 200)
        tree.start()
        manager = tree.client("EM", at="top")
        agent = tree.client("agent-1", at="leaf")
        start = time.monotonic()
        for round_ in (1, 2, 3):
            agent("messages.SendMessage", destination="EM", text="question")
            manager("messages.SendMessage", destination="leaf.agent-1", text="answer")
            manager.wait_received(round_)
            agent.wait_received(round_)
        # Each time something has crossed the line at least once.
        self.assertGreater(time.monotonic() - start, 3 * 0.2)
        for name in tree.routers:
            self.wait_no_envelopes(tree[name])


class ThreeLevelsDown(TreeTest):
    """Two branches, and a router that moves from one to the other."""

    def start(self, **settings):
        self.far = self.tree({"top": {}, "east": {"parent": "top"}, "south": {"parent": "east"},
                              "west": {"parent": "top"}, "leaf": {"parent": "south"}}, **settings)
        self.far.start()
        self.manager = self.far.client("EM", at="top")
        self.agent = self.far.client("agent-1", at="leaf")

    def move_leaf(self, to="west"):
        self.assertEqual(0, self.far["leaf"].stop())
        self.far.set_parent("leaf", to)
        self.far.restart("leaf")

    def deliver(self, address, count):
        self.manager("messages.SendMessage", destination=address, text=address)
        self.agent.wait_received(count)
        self.assertEqual(address, texts(self.agent)[-1])

    def ask_router(self, address, count):
        """A question that the router of that address answers itself."""
        self.manager("messages.SendMessage", destination=address, type="EM-GetClientStatus",
                     text="agent-1")
        self.manager.wait_received(count)
        answer = self.manager.received()[-1]
        self.assertEqual(("EM-GetClientStatus-Reply", "agent-1"),
                         (answer["type"], answer["payload"]["name"]))
        self.assertEqual("leaf", answer["originator"].split(".")[-1])

    def test_with_logical_routing_a_bare_router_name_is_found_wherever_it_is(self):
        self.start(LogicalRouting=1)
        top = self.far["top"]
        wait_until(lambda: top.log().count("MS-RouterRegistered originator east") == 2, 10,
                   "the news of south and leaf")
        self.deliver("leaf.agent-1", 1)
        self.ask_router("leaf", 1)
        self.far.settle()
        self.move_leaf()
        top.wait_log("MS-RouterRegistered originator west")
        self.deliver("leaf.agent-1", 2)
        self.ask_router("leaf", 2)
        self.assertRegex(top.log(), "Routing to west: .*dest=leaf.agent-1")
        self.assertNotIn("Cannot route", top.log())
        # The map outlives a kill.
        top.kill()
        self.far.restart("top")
        self.deliver("leaf.agent-1", 3)

    def test_a_router_that_moves_back_to_where_it_still_is_registered_is_found_there(self):
        self.start(LogicalRouting=1)
        top = self.far["top"]
        wait_until(lambda: top.log().count("MS-RouterRegistered originator east") == 2, 10,
                   "the news of south and leaf")
        self.far.settle()
        self.move_leaf()
        top.wait_log("MS-RouterRegistered originator west")
        mark = len(top.log())
        self.move_leaf(to="south")
        top.wait_log("MS-RouterRegistered originator east", since=mark)
        self.deliver("leaf.agent-1", 1)
        self.ask_router("leaf", 1)
        self.assertRegex(top.log(), "Routing to east: .*dest=leaf.agent-1")

    def test_without_it_the_whole_path_is_named(self):
        self.start()
        self.deliver("east.south.leaf.agent-1", 1)
        self.ask_router("east.south.leaf", 1)
        self.move_leaf()
        self.deliver("west.leaf.agent-1", 2)
        self.ask_router("west.leaf", 2)
        self.manager("messages.SendMessage", destination="leaf.agent-1", text="lost")
        self.far["top"].wait_log("Cannot route message to leaf")


if __name__ == "__main__":
    unittest.main()
