"""A message's way from one client to another, and across the death of the router between them."""

import json
import time
import unittest

from harness import SystemTest, wait_until


class Delivery(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router()

    def pair(self):
        """agent-1 logged on, agent-2 registered and away; the table is on disk."""
        sender = self.peer(self.box, "agent-1").log_on()
        self.client_ok(self.box, "agent-2", "register")
        return sender

    def settle(self, sender):
        """A reinitialisation puts the table on disk at once; it is otherwise written once a minute
        at most, and what was registered since would be unknown after a kill."""
        self.box.reload()
        sender.retry("reconnect")

    def test_a_message_is_pushed_with_everything_that_came_with_it(self):
        sender = self.peer(self.box, "agent-1").log_on()
        receiver = self.peer(self.box, "agent-2").log_on()
        before = int(time.time())
        number = sender("messages.SendMessage", destination="agent-2", type="Greeting", prio=7,
                        ttl=600, options="colour=blue", text="hello")
        receiver.wait_received(1)
        envelope, = receiver.received()
        stamps = envelope.pop("stamps")
        self.assertEqual(
            {"id": number, "originator": "router.agent-1", "destination": "agent-2",
             "type": "Greeting", "priority": 7, "ttl": envelope["ttl"], "options": "colour=blue",
             "payload": "hello", "hops": 1}, envelope)
        self.assertTrue(590 <= envelope["ttl"] <= 600, envelope["ttl"])
        self.assertEqual(["agent-1", "router"], [stamp["name"] for stamp in stamps])
        self.assertTrue(before <= stamps[0]["time"] <= before + 60, stamps)
        self.assertTrue(0 <= stamps[1]["time"] <= 60, stamps)
        self.wait_no_envelopes(self.box)

    def test_an_address_through_the_router_and_one_straight_to_the_client_both_arrive(self):
        sender = self.peer(self.box, "agent-1").log_on()
        receiver = self.peer(self.box, "agent-2").log_on()
        sender("messages.SendMessage", destination="router.agent-2", text="a")
        sender("messages.SendMessage", destination="agent-2", text="b")
        sender("messages.SendMessage", destination=":.agent-2", text="c")
        receiver.wait_received(3)
        self.assertEqual(["a", "b", "c"], [one["payload"] for one in receiver.received()])

    def test_a_message_to_nobody_is_logged_and_gone(self):
        sender = self.peer(self.box, "agent-1").log_on()
        sender("messages.SendMessage", destination="nobody", type="Lost", text="a")
        self.box.wait_log("Cannot route message to nobody")
        self.box.wait_log(
            "Delivery failed(Unrouteable) for message type Lost, originator router.agent-1")
        self.wait_no_envelopes(self.box)

    def test_a_message_for_one_who_is_away_is_one_file_with_thirteen_lines(self):
        sender = self.pair()
        sender("messages.SendMessage", destination="agent-2", type="Note", prio=3, text="abc",
               options="keep")
        file, = self.box.envelopes()
        self.assertRegex(file.name, "^[0-9a-f]{8}[.]msg$")
        lines = file.read_text().splitlines()
        keys = [line[1:line.index("]")] for line in lines]
        self.assertEqual(
            ["PersistentIndex", "FromParent", "Originator", "OriginatorCertificate",
             "PhysicalDestination", "MessageId", "Destination", "Priority", "TTL", "Type", "Data",
             "Timestamps", "Options"], keys)
        self.assertIn("[Originator] router.agent-1", lines)
        self.assertIn("[Data] 12000000000000000400000061626300", lines)
        self.assertIn("[Options] keep", lines)

    def test_kill_9_loses_no_accepted_message(self):
        sender = self.pair()
        self.settle(sender)
        number = sender("messages.SendMessage", destination="agent-2", text="survivor")
        self.box.kill()
        self.assertEqual(1, len(self.box.envelopes()))
        self.box.start()
        line = self.client_ok(self.box, "agent-2", "--json", "receive")
        envelope = json.loads(line)
        self.assertEqual((number, "survivor", "router.agent-1"),
                         (envelope["id"], envelope["payload"], envelope["originator"]))
        self.wait_no_envelopes(self.box)

    def test_order_and_priority_hold_across_a_restart(self):
        sender = self.pair()
        self.settle(sender)
        for text, priority in (("c", 1), ("d", 1), ("a", 9), ("b", 9), ("e", 0)):
            sender("messages.SendMessage", destination="agent-2", prio=priority, text=text)
        self.box.kill()
        self.box.start()
        lines = self.client_ok(self.box, "agent-2", "--json", "receive", "--count", "5")
        self.assertEqual(list("abcde"), [json.loads(line)["payload"] for line in lines.split("\n")
                                         if line])

    def test_an_expired_message_is_not_delivered(self):
        sender = self.pair()
        sender("messages.SendMessage", destination="agent-2", ttl=-1, type="Late", text="late")
        sender("messages.SendMessage", destination="agent-2", text="in time")
        line = self.client_ok(self.box, "agent-2", "--json", "receive")
        self.assertEqual("in time", json.loads(line)["payload"])
        self.assertIn("Delivery failed(Timeout) for message type Late", self.box.log())
        self.wait_no_envelopes(self.box)

    def test_a_client_that_fails_is_logged_off_and_keeps_its_message(self):
        sender = self.peer(self.box, "agent-1").log_on()
        receiver = self.peer(self.box, "agent-2").log_on()
        receiver("behave", method="EnvelopeConsumer.SendEnvelope", **{"raise": "TRANSIENT"})
        sender("messages.SendMessage", destination="agent-2", text="again")
        self.box.wait_log("Failed to send messages, logging agent-2 off")
        self.assertEqual(2, receiver.calls("EnvelopeConsumer.SendEnvelope"))
        self.assertEqual(1, len(self.box.envelopes()))
        receiver("release")
        receiver("client.LogonPushPush")
        receiver.wait_received(1)
        self.wait_no_envelopes(self.box)

    def test_one_system_exception_is_answered_with_a_second_try(self):
        sender = self.peer(self.box, "agent-1").log_on()
        receiver = self.peer(self.box, "agent-2").log_on()
        receiver("behave", method="EnvelopeConsumer.SendEnvelope", times=1,
                 **{"raise": "COMM_FAILURE"})
        sender("messages.SendMessage", destination="agent-2", text="a")
        receiver.wait_received(1)
        self.assertNotIn("logging agent-2 off", self.box.log())

    def test_unregistering_routes_what_waited_anew(self):
        sender = self.pair()
        sender("messages.SendMessage", destination="agent-2", text="a")
        self.client_ok(self.box, "agent-2", "unregister")
        self.box.wait_log("Cannot route message to agent-2")
        self.wait_no_envelopes(self.box)

    def test_a_slow_client_holds_up_no_other(self):
        sender = self.peer(self.box, "agent-1").log_on()
        slow = self.peer(self.box, "agent-2").log_on()
        quick = self.peer(self.box, "agent-3").log_on()
        slow("behave", method="EnvelopeConsumer.SendEnvelope", delay_ms=-1)
        sender("messages.SendMessage", destination="agent-2", text="slow")
        wait_until(lambda: slow.calls("EnvelopeConsumer.SendEnvelope") == 1, 10, "the slow call")
        for number in range(20):
            sender("messages.SendMessage", destination="agent-3", text=str(number))
        quick.wait_received(20)
        slow("release")
        slow.wait_received(1)


class Stopping(SystemTest):
    def assert_orderly(self, box, status, began):
        self.assertEqual(0, status)
        self.assertLess(time.monotonic() - began, 10.5)
        self.assertRegex(box.last_log_line(), " EOF: ")

    def test_a_stop_keeps_what_was_not_delivered(self):
        box = self.router()
        sender = self.peer(box, "agent-1").log_on()
        self.client_ok(box, "agent-2", "register")
        for number in range(5):
            sender("messages.SendMessage", destination="agent-2", text=str(number))
        began = time.monotonic()
        self.assert_orderly(box, box.stop(), began)
        self.assertEqual(5, len(box.envelopes()))
        box.start()
        lines = self.client_ok(box, "agent-2", "--json", "receive", "--count", "5")
        self.assertEqual(5, len(lines.splitlines()))

    def test_a_stop_during_traffic_is_orderly_and_loses_nothing(self):
        box = self.router()
        receiver = self.peer(box, "agent-2").log_on()
        receiver("record", file=str(self.folder / "received"))
        sender = self.peer(box, "agent-1").log_on()
        sender("bulk", destination="agent-2", count=100000, size=500, rate=100,
               ledger=str(self.folder / "ledger"))
        receiver.wait_received(50)
        began = time.monotonic()
        self.assert_orderly(box, box.stop(), began)
        sender("bulk_stop")
        sender("bulk_wait")
        box.start()
        receiver.retry("reconnect")
        self.assertGreater(len(self.wait_all_received()), 50)
        self.wait_no_envelopes(box)

    def test_a_stop_ends_in_time_while_a_peer_hangs_in_a_call(self):
        box = self.router()
        sender = self.peer(box, "agent-1").log_on()
        receiver = self.peer(box, "agent-2").log_on()
        receiver("behave", method="EnvelopeConsumer.SendEnvelope", delay_ms=-1)
        sender("messages.SendMessage", destination="agent-2", text="a")
        wait_until(lambda: receiver.calls("EnvelopeConsumer.SendEnvelope"), 10, "the call")
        self.assertEqual(0, box.stop())
        self.assertEqual(1, len(box.envelopes()))
        receiver("release")

    def test_a_second_router_on_the_same_port_ends_with_1(self):
        box = self.router()
        other = self.router("second", start=False, endpoint=box.endpoint)
        other.start(wait=False)
        self.assertEqual(1, other.wait_end(20))
        self.assertIn("the port may already be in use", other.log())
        self.assertIn("router", self.client_ok(box, "agent-1", "ping"))


if __name__ == "__main__":
    unittest.main()
