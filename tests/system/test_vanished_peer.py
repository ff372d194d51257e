"""Peers whose host is cut off: nothing closes their connections, and nothing answers any more."""

import re
import shutil
import subprocess
import unittest

from harness import SystemTest, wait_until
from hosts import Hosts


class VanishedPeer(SystemTest):
    """Finding out takes half a minute each time, so that all begin together: a stage is a router and
    those near it on one host, and on another a peer, which has just vanished when a test begins."""

    STAGES = ("idle", "in_a_call", "before_a_call", "in_a_poll", "in_a_notification")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.stages = {}
        for name in cls.STAGES:
            cls.stages[name] = cls.stage(name)
            cls.stages[name].set()
            getattr(cls.stages[name], name)()

    def setUp(self):
        self.hosts = Hosts()
        self.addCleanup(self.hosts.close)
        super().setUp()

    def set(self):
        self.near = self.hosts.add("near")
        self.far = self.hosts.add("far")
        self.box = self.router(
            host=self.near,
            settings={"LocalClientsOnly": 0, "KeepAliveSecs": 1, "PeerTimeoutSecs": 3,
                      "NumSenderThreads": 1, "ConnectionCache": 100})
        self.sender = self.near_peer("agent-1")
        self.receiver = self.near_peer("agent-3")

    def cut(self):
        self.hosts.cut(self.near, self.far)

    def near_peer(self, name):
        return self.peer(self.box, name).log_on()

    def far_peer(self, *roles):
        return self.peer(self.box, "agent-2", *roles, host=self.far)

    def send(self, destination):
        self.sender("messages.SendMessage", destination=destination, text=destination)

    def vanish_in(self, peer, method):
        wait_until(lambda: peer.calls(method), 10, "the call")
        self.cut()

    def assert_the_only_sender_is_free_again(self, words):
        self.receiver.wait_received(1, 30)
        self.assertIn(words, self.box.log())
        wait_until(lambda: len(self.box.envelopes()) == 1, 10, "only the undelivered one to stay")

    def idle(self):
        self.far_peer().log_on()
        self.assertTrue(self.near.connections(self.far))
        self.cut()

    # By its name it comes first: with the others half a minute has passed.
    def test_a_silent_ones_connections_are_given_up(self):
        stage = self.stages["idle"]
        wait_until(lambda: not stage.near.connections(stage.far), 10,
                   "the connections to be given up")

    def in_a_call(self):
        far = self.far_peer().log_on()
        far("behave", method="EnvelopeConsumer.SendEnvelope", delay_ms=-1)
        self.send("agent-2")
        self.vanish_in(far, "EnvelopeConsumer.SendEnvelope")
        self.send("agent-3")

    def test_one_that_took_a_call_and_vanished_holds_no_sender_for_ever(self):
        self.stages["in_a_call"].assert_the_only_sender_is_free_again(
            "Failed to send messages, logging agent-2 off")

    def before_a_call(self):
        far = self.far_peer().log_on()
        self.send("agent-2")
        far.wait_received(1)
        self.wait_no_envelopes(self.box)
        self.cut()
        self.send("agent-2")
        self.send("agent-3")

    def test_one_that_vanishes_before_the_call_holds_no_sender_for_ever(self):
        self.stages["before_a_call"].assert_the_only_sender_is_free_again(
            "Failed to send messages, logging agent-2 off")

    def in_a_poll(self):
        child = self.far_peer("router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("behave", method="RouterSupplier.GetEnvelope", delay_ms=-1)
        child("router.Logon", consumer=False, supplier=True)
        self.vanish_in(child, "RouterSupplier.GetEnvelope")

    def test_one_that_vanishes_in_a_poll_is_logged_off(self):
        self.stages["in_a_poll"].box.wait_log("Failed to get messages, logging agent-2 off", 60)

    def in_a_notification(self):
        far = self.far_peer()
        far("behave", method="NotifyConsumer.Notify", delay_ms=-1)
        far.log_on(form="Logon", consumer=False, notify=True)
        self.send("agent-2")
        self.vanish_in(far, "NotifyConsumer.Notify")
        self.send("agent-3")

    def test_one_that_vanishes_in_a_notification_holds_no_sender_for_ever(self):
        self.stages["in_a_notification"].assert_the_only_sender_is_free_again(
            "Failed to notify agent-2")


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
