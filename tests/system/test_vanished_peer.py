"""Peers whose host is cut off: nothing closes their connections, and nothing answers any more."""

import re
import shutil
import subprocess
import unittest

from harness import SystemTest, wait_until
from hosts import Hosts


class VanishedPeer(SystemTest):
    """The router and those near it on one host, and a peer on another."""

    def setUp(self):
        hosts = Hosts()
        self.addCleanup(hosts.close)
        super().setUp()
        self.near = hosts.add("near")
        self.far = hosts.add("far")
        self.cut = lambda: hosts.cut(self.near, self.far)
        self.box = self.router(
            host=self.near,
            settings={"LocalClientsOnly": 0, "KeepAliveSecs": 1, "PeerTimeoutSecs": 3,
                      "NumSenderThreads": 1, "ConnectionCache": 100})

    def near_peer(self, name):
        return self.peer(self.box, name).log_on()

    def far_peer(self, name):
        return self.peer(self.box, name, host=self.far).log_on()

    def test_the_connections_of_a_silent_one_are_given_up(self):
        self.far_peer("agent-2")
        self.assertTrue(self.near.connections(self.far))
        self.cut()
        wait_until(lambda: not self.near.connections(self.far), 20,
                   "the connections to be given up")

    def test_one_that_took_a_call_and_vanished_holds_no_sender_for_ever(self):
        sender = self.near_peer("agent-1")
        near = self.near_peer("agent-3")
        far = self.far_peer("agent-2")
        far("behave", method="EnvelopeConsumer.SendEnvelope", delay_ms=-1)
        sender("messages.SendMessage", destination="agent-2", text="a")
        wait_until(lambda: far.calls("EnvelopeConsumer.SendEnvelope"), 10, "the call")
        self.cut()
        # The only sender is in that call.
        sender("messages.SendMessage", destination="agent-3", text="b")
        near.wait_received(1, 60)
        self.assertIn("Failed to send messages, logging agent-2 off", self.box.log())
        wait_until(lambda: len(self.box.envelopes()) == 1, 10, "only the undelivered one to stay")

    def test_one_that_vanishes_before_the_call_holds_no_sender_for_ever(self):
        sender = self.near_peer("agent-1")
        near = self.near_peer("agent-3")
        far = self.far_peer("agent-2")
        sender("messages.SendMessage", destination="agent-2", text="a")
        far.wait_received(1)
        self.cut()
        sender("messages.SendMessage", destination="agent-2", text="b")
        sender("messages.SendMessage", destination="agent-3", text="c")
        near.wait_received(1, 60)
        self.assertIn("Failed to send messages, logging agent-2 off", self.box.log())
        wait_until(lambda: len(self.box.envelopes()) == 1, 10, "only the undelivered one to stay")

    def far_child(self, method, **offered):
        """A child router that takes that call and vanishes in it."""
        child = self.peer(self.box, "child", "router", host=self.far).connect()
        child("root.GetRouter")
        child("router.Register")
        child("behave", method=method, delay_ms=-1)
        child("router.Logon", consumer=False, **offered)
        return child

    def test_one_that_vanishes_in_a_poll_is_logged_off(self):
        child = self.far_child("RouterSupplier.GetEnvelope", supplier=True)
        wait_until(lambda: child.calls("RouterSupplier.GetEnvelope"), 10, "the poll")
        self.cut()
        self.box.wait_log("Failed to get messages, logging child off", 60)

    def test_one_that_vanishes_in_a_notification_holds_no_sender_for_ever(self):
        sender = self.near_peer("agent-1")
        near = self.near_peer("agent-3")
        far = self.peer(self.box, "agent-2", host=self.far)
        far("behave", method="NotifyConsumer.Notify", delay_ms=-1)
        far.log_on(form="Logon", consumer=False, notify=True)
        sender("messages.SendMessage", destination="agent-2", text="a")
        wait_until(lambda: far.calls("NotifyConsumer.Notify"), 10, "the notification")
        self.cut()
        # The only sender is in that call.
        sender("messages.SendMessage", destination="agent-3", text="b")
        near.wait_received(1, 30)
        self.assertIn("Failed to notify agent-2", self.box.log())
        wait_until(lambda: len(self.box.envelopes()) == 1, 10, "only the unfetched one to stay")


class Keys(SystemTest):
    def keep_alive_seconds(self, box):
        """The time to the next probe of one of the router's connections; 0 where none is planned."""
        rows = subprocess.run(["ss", "-tnoH", f"sport = :{box.tls_port}"], check=True,
                              capture_output=True).stdout.decode().splitlines()
        timers = [re.search(r"timer:\(keepalive,(?:(\d+)min)?(?:(\d+)(?:\.\d+)?sec)?", row)
                  for row in rows]
        return max((60 * int(timer[1] or 0) + int(timer[2] or 0) for timer in timers if timer),
                   default=0)

    def test_the_keys_count_from_the_next_reinitialisation_on(self):
        if shutil.which("ss") is None:
            self.skipTest("needs the program ss")
        box = self.router()
        peer = self.peer(box, "agent-1").log_on()
        wait_until(lambda: 30 < self.keep_alive_seconds(box) <= 60, 10, "the probe of the default")
        box.write_settings(KeepAliveSecs=500)
        box.reload()
        peer.retry("reconnect")
        wait_until(lambda: 300 < self.keep_alive_seconds(box) <= 500, 10, "the probe of the key")


if __name__ == "__main__":
    unittest.main()
