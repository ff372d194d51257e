"""Routers below that wait to be asked, and routers below that ask: the dialogue of fetching, with the
router on either side of it."""

import signal
import unittest

from harness import SystemTest, wait_until

GETTER = {"GetterTickSecs": 1, "GetterInterval": 1, "GetterShortInterval": 1,
          "RandomizeGetterInterval": 0}


class Polled(SystemTest):
    """A child router that is a passive supplier."""

    def start(self, **settings):
        self.box = self.router(settings={**GETTER, **settings})
        self.receiver = self.peer(self.box, "agent-2").log_on()
        self.child = self.peer(self.box, "child", "router").connect()
        self.child("root.GetRouter")
        self.child("router.Register")

    def log_on(self):
        self.child("router.Logon", consumer=False, supplier=True)

    def supply(self, *numbers, **message):
        for number in numbers:
            self.child("supply", id=number, originator="child.agent-9", route=["agent-2"],
                       message={"destination": "agent-2", "text": str(number), **message})

    def wait_supplied(self):
        wait_until(lambda: self.child("to_supply") == 0, 10, "all to be acknowledged")

    def test_what_it_holds_at_its_logon_is_fetched_at_once(self):
        self.start(GetterInterval=1000)
        self.supply(1, 2, 3)
        self.log_on()
        self.receiver.wait_received(3)
        self.assertEqual(["1", "2", "3"], [one["payload"] for one in self.receiver.received()])
        self.wait_supplied()
        self.wait_no_envelopes(self.box)

    def test_it_is_asked_again_when_its_interval_has_passed(self):
        self.start()
        self.log_on()
        self.supply(1)
        self.receiver.wait_received(1)
        self.supply(2)
        self.receiver.wait_received(2)
        self.wait_supplied()

    def test_its_notification_is_a_poll_at_once(self):
        self.start(GetterInterval=1000, GetterShortInterval=1000)
        self.log_on()
        wait_until(lambda: self.child.calls("RouterSupplier.GetEnvelope") == 1, 10, "the first poll")
        self.box.wait_log("re-started polling interval for child")
        self.supply(1)
        self.child("router_notify.Notify")
        self.receiver.wait_received(1)
        self.wait_supplied()

    def test_one_that_fails_is_logged_off_and_keeps_what_it_has(self):
        self.start()
        self.supply(1)
        self.child("behave", method="RouterSupplier.GetEnvelope", **{"raise": "TRANSIENT"}, times=2)
        self.log_on()
        self.box.wait_log("Failed to get messages, logging child off")
        self.assertEqual(1, self.child("to_supply"))
        self.log_on()
        self.receiver.wait_received(1)
        self.wait_supplied()

    def test_a_lost_acknowledgement_means_a_second_copy(self):
        self.start()
        self.supply(1)
        self.child("behave", method="RouterSupplier.AcknowledgeEnvelope",
                   **{"raise": "COMM_FAILURE"}, times=2)
        self.log_on()
        self.box.wait_log("Failed to get messages, logging child off")
        self.log_on()
        self.receiver.wait_received(2)
        self.assertEqual({"1"}, {one["payload"] for one in self.receiver.received()})
        self.wait_supplied()

    def test_a_stop_during_a_long_poll_is_orderly(self):
        self.start()
        self.supply(*range(1, 2001))
        self.log_on()
        self.receiver.wait_received(1)
        self.assertEqual(0, self.box.stop())

    def hang(self):
        """A poll that waits for an answer, with a message to be fetched."""
        self.start(GetterInterval=1000, ResetTimeout=60)
        self.supply(1)
        self.child("behave", method="RouterSupplier.GetEnvelope", delay_ms=-1)
        self.log_on()
        wait_until(lambda: self.child.calls("RouterSupplier.GetEnvelope") == 1, 10, "the poll")

    def test_a_stop_while_a_poll_hangs_ends_in_time_and_loses_nothing(self):
        self.hang()
        self.assertEqual(0, self.box.stop())
        self.child("release")
        self.assertEqual(1, self.child("to_supply"))

    def test_a_reload_goes_on_when_the_polled_one_answers(self):
        self.hang()
        mark = len(self.box.log())
        self.box.process.send_signal(signal.SIGHUP)
        self.box.wait_log("Shutting down...", since=mark)
        self.child("release")
        self.box.wait_log("Waiting for messages...", 30, since=mark)
        self.receiver.retry("reconnect")
        self.receiver.wait_received(1)
        self.assertEqual(["1"], [one["payload"] for one in self.receiver.received()])

    def test_a_notification_during_a_poll_is_a_poll_after_it(self):
        self.start(GetterInterval=1000, GetterShortInterval=1000)
        self.child("behave", method="RouterSupplier.GetEnvelope", delay_ms=-1, times=1,
                   **{"raise": "NoEnvelope"})
        self.log_on()
        wait_until(lambda: self.child.calls("RouterSupplier.GetEnvelope") == 1, 10, "the poll")
        self.supply(1)
        self.child("router_notify.Notify")
        self.child("release")
        self.receiver.wait_received(1)
        self.wait_supplied()

    def test_a_command_that_only_the_parent_may_send_is_not_taken(self):
        self.start()
        self.supply(1, type="EM-DoAction")
        self.log_on()
        self.box.wait_log("can only be receieved from the parent")
        self.box.wait_log("Failed to get messages, logging child off")
        self.assertEqual(1, self.child("to_supply"))


class Fetching(SystemTest):
    """A child router that is an active consumer."""

    def start(self, **settings):
        self.box = self.router(settings=settings)
        self.sender = self.peer(self.box, "agent-1").log_on()
        self.child = self.peer(self.box, "child", "router").connect()
        self.child("root.GetRouter")
        self.child("router.Register")

    def log_on(self, **offered):
        self.child("router.Logon", consumer=False, **offered)

    def send(self, text, **message):
        self.sender("messages.SendMessage", destination="child.agent-9", text=text, **message)

    def fetch(self):
        one = self.child.retry("router_supplier.GetEnvelope")
        self.child("router_supplier.AcknowledgeEnvelope", id=one["id"],
                   originator=one["originator"])
        return one["payload"]

    def test_it_is_notified_and_fetches_by_the_qualified_name(self):
        self.start()
        self.log_on(notify=True)
        self.send("a")
        wait_until(lambda: self.child.calls("NotifyConsumer.Notify") == 1, 10, "the notification")
        one = self.child("router_supplier.GetEnvelope")
        self.assertEqual(("a", "router.agent-1"), (one["payload"], one["originator"]))
        again = self.child("router_supplier.GetEnvelope")
        self.assertEqual(one["id"], again["id"])
        self.child("router_supplier.AcknowledgeEnvelope", id=one["id"],
                   originator=one["originator"])
        self.assert_raises("NoEnvelope", self.child, "router_supplier.GetEnvelope")
        self.wait_no_envelopes(self.box)

    def test_below_the_threshold_that_it_asked_for_it_is_left_alone(self):
        self.start(NumNotificationThresholdThreads=1, NumSenderThreads=1)
        self.child("threshold", priority=5)
        self.log_on(notify=True)
        self.box.wait_log("Successful NotificationThreshold call to child")
        self.send("low", prio=4)
        # The only sender has been there when it comes to the next peer.
        self.sender("messages.SendMessage", destination="agent-1", text="to myself")
        self.sender.wait_received(1)
        self.assertEqual(0, self.child.calls("NotifyConsumer.Notify"))
        self.send("high", prio=5)
        wait_until(lambda: self.child.calls("NotifyConsumer.Notify") == 1, 10, "the notification")
        self.assertEqual(["high", "low"], [self.fetch(), self.fetch()])
        self.assertEqual(1, self.child.calls("NotifyConsumer.Notify"))

    def test_after_a_failed_notification_the_threshold_is_asked_for_again(self):
        self.start(NumNotificationThresholdThreads=1, NotificationThresholdThreadIntervalSecs=1,
                   NotificationThresholdInitialRetrySecs=1)
        self.child("behave", method="NotifyConsumer.Notify", **{"raise": "TRANSIENT"}, times=2)
        self.log_on(notify=True)
        self.box.wait_log("Successful NotificationThreshold call to child")
        self.send("a")
        self.box.wait_log("Failed to notify child")
        # The next answer makes the senders look again.
        wait_until(lambda: self.child.calls("NotifyConsumer.Notify") == 3, 20, "the notification")
        self.assertEqual("a", self.fetch())

    def test_one_that_stays_silent_is_logged_off(self):
        self.start(ActiveConsumerConnectionTimeout=2, TimeoutInterval=1)
        self.log_on()
        self.box.wait_log("Communications timeout, logging child off", 15)
        self.assert_raises("OBJECT_NOT_EXIST", self.child, "router_supplier.GetEnvelope")

    def test_heartbeats_keep_it_logged_on(self):
        self.start(ActiveConsumerConnectionTimeout=2, TimeoutInterval=1)
        self.log_on()
        for _ in range(8):
            self.child("router_supplier.Heartbeat")
            self.child("wait_received", count=1, timeout=0.5)  # nothing comes: a pause
        self.assertNotIn("Communications timeout", self.box.log())


if __name__ == "__main__":
    unittest.main()
