"""How a router begins, builds itself anew and ends while something is in its way."""

import signal
import unittest

from harness import SystemTest, wait_until

PUSH = "EnvelopeConsumer.SendEnvelope"


class CycleTest(SystemTest):
    def pair(self, **settings):
        """A router, agent-1 and agent-2 logged on, and agent-2 in the table on disk: what was
        registered since the last orderly end would be unknown after a forced one."""
        box = self.router(settings=settings)
        self.client_ok(box, "agent-2", "register")
        self.assertEqual(0, box.stop())
        box.start()
        sender = self.peer(box, "agent-1").log_on()
        receiver = self.peer(box, "agent-2").log_on(register=False)
        return box, sender, receiver

    def hang(self, sender, receiver):
        """The router's call hangs at agent-2. It fails once it is released."""
        receiver("behave", method=PUSH, delay_ms=-1, **{"raise": "TRANSIENT"})
        sender("messages.SendMessage", destination="agent-2", text="held up")
        wait_until(lambda: receiver.calls(PUSH) == 1, 10, "the call that hangs")

    def assert_delivered_after_a_start(self, box, receiver):
        self.assertEqual(1, len(box.envelopes()))
        receiver("release")
        box.start()
        receiver.retry("reconnect")
        receiver.wait_received(1)
        self.assertEqual(["held up"], [one["payload"] for one in receiver.received()])
        self.wait_no_envelopes(box)

    def assert_works(self, box):
        agent = self.peer(box, "agent-9")
        agent.retry("connect", host="localhost", port=box.ior_port)
        agent.log_on()
        agent("messages.SendMessage", destination="agent-9", text="to itself")
        agent.wait_received(1)


class Start(CycleTest):
    def test_the_broker_has_the_threads_that_are_configured_and_four_by_default(self):
        box = self.router(settings={"NumORBThreads": 0})
        self.assertIn("Creating ORB runner with 4 threads\n", box.log())
        for number in (1, 7):
            self.assertEqual(0, box.stop())
            box.write_settings(NumORBThreads=number)
            mark = len(box.log())
            box.start()
            self.assertIn(f"Creating ORB runner with {number} threads\n", box.log()[mark:])
            self.assertIn("router", self.client_ok(box, "agent-1", "ping"))

    def test_a_start_on_a_port_in_use_changes_nothing_on_disk(self):
        box = self.router()
        other = self.router("second")
        sender = self.peer(other, "agent-1").log_on()
        for name in ("agent-2", "agent-3"):
            self.client_ok(other, name, "register")
        sender("messages.SendMessage", destination="agent-2", text="waits")
        self.assertEqual(0, other.stop())
        table = other.table().read_bytes()
        kept = {file.name: file.read_bytes() for file in other.envelopes("*")}
        self.assertIn(b"agent-3", table)
        self.assertEqual(1, len(kept))

        own, other.endpoint = other.endpoint, box.endpoint
        mark = len(other.log())
        other.start(wait=False)
        self.assertEqual(1, other.wait_end(20))
        log = other.log()[mark:]
        self.assertIn("This machine may have more IP addresses than are supported or the port may "
                      "already be in use.", log)
        self.assertNotIn("Waiting for messages...", log)
        self.assertEqual(table, other.table().read_bytes())
        self.assertEqual(kept, {file.name: file.read_bytes() for file in other.envelopes("*")})
        self.assert_works(box)

        other.endpoint = own
        other.start()
        line = self.client_ok(other, "agent-2", "receive")
        self.assertIn("waits", line)


class Reload(CycleTest):
    def test_a_reload_that_a_peer_holds_up_ends_the_process_and_keeps_the_message(self):
        box, sender, receiver = self.pair(ResetTimeout=2)
        self.hang(sender, receiver)
        box.process.send_signal(signal.SIGHUP)
        self.assertEqual(0, box.wait_end(15))
        self.assertIn("Resetting router failed to finish after 2 seconds. Forcing router shutdown. "
                      "Router should restart automatically.", box.log())
        self.assert_delivered_after_a_start(box, receiver)

    def test_a_reload_goes_on_when_the_peer_answers_in_time(self):
        box, sender, receiver = self.pair(ResetTimeout=60)
        self.hang(sender, receiver)
        mark = len(box.log())
        box.process.send_signal(signal.SIGHUP)
        box.wait_log("Shutting down...", since=mark)
        receiver("release")
        box.wait_log("Waiting for messages...", 30, since=mark)
        self.assertNotIn("Resetting router failed", box.log())
        receiver.retry("reconnect")
        receiver.wait_received(1)
        self.wait_no_envelopes(box)

    def test_a_reload_asked_for_while_a_cycle_is_built_is_kept(self):
        box = self.router(start=False)
        box.start(wait=False)
        box.wait_log("starting...")
        for _ in range(2):
            box.process.send_signal(signal.SIGHUP)
        self.wait_cycles(box, 0, 2)
        self.assert_works(box)

    def test_a_reload_asked_for_while_the_router_reloads_is_kept(self):
        box = self.router()
        mark = len(box.log())
        box.process.send_signal(signal.SIGHUP)
        box.wait_log("Shutting down...", since=mark)
        for _ in range(2):
            box.process.send_signal(signal.SIGHUP)
        self.wait_cycles(box, mark, 2)
        self.assert_works(box)

    def wait_cycles(self, box, mark, count):
        wait_until(lambda: box.log()[mark:].count("Waiting for messages...") >= count, 30,
                   f"{count} cycles")


class Stop(CycleTest):
    def test_a_stop_while_a_client_hangs_in_a_push_keeps_its_message(self):
        box, sender, receiver = self.pair()
        self.hang(sender, receiver)
        self.assertEqual(0, box.stop())
        self.assert_delivered_after_a_start(box, receiver)

    def test_a_stop_ends_in_time_while_a_logon_waits_for_its_caller(self):
        box = self.router(settings={"LogLevel": 2})
        agent = self.peer(box, "agent-1").connect()
        agent("root.GetClient")
        agent("client.Register")
        agent("behave", method="EnvelopeConsumer.Heartbeat", delay_ms=-1)
        agent.send("client.LogonPushPush")
        box.wait_log("Client::LogonPushPush() called")
        self.assertEqual(0, box.stop())
        with self.assertRaises(Exception):
            agent.answer()
        agent("release")
        box.start()
        agent.retry("reconnect")
        agent("client.LogonPushPush")

    def test_a_stop_while_a_neighbour_hangs_in_a_push_keeps_its_message(self):
        box = self.router()
        sender = self.peer(box, "agent-1").log_on()
        child = self.peer(box, "child", "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("router.Logon")
        child("behave", method="RouterConsumer.SendEnvelope", delay_ms=-1)
        sender("messages.SendMessage", destination="child.x", text="held up")
        wait_until(lambda: child.calls("RouterConsumer.SendEnvelope") == 1, 10, "the call")
        self.assertEqual(0, box.stop())
        file, = box.envelopes()
        self.assertIn("[Destination] child.x", file.read_text().splitlines())
        child("release")


if __name__ == "__main__":
    unittest.main()
