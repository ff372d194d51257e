"""Registration and logon, as clients and neighbour routers do them."""

import unittest

import giop
from harness import SystemTest, wait_until


class Clients(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router()

    def agent(self, name="agent-1"):
        agent = self.peer(self.box, name).connect()
        agent("root.GetClient")
        return agent

    def test_registration_is_refused_twice_and_taken_back_once(self):
        agent = self.agent()
        agent("client.Register")
        self.assert_raises("AlreadyRegistered", agent, "client.Register")
        agent("client.Unregister")
        self.assert_raises("NotRegistered", agent, "client.Unregister")
        self.box.wait_log("Registered client agent-1")
        self.box.wait_log("Unregistered client agent-1")

    def test_no_form_of_logon_works_without_a_registration(self):
        agent = self.agent()
        for form in ("Logon", "LogonPushPush", "LogonPushPull"):
            self.assert_raises("NotRegistered", agent, "client." + form)
        self.assert_raises("NotRegistered", agent, "client.Logoff")

    def test_a_logoff_needs_a_logon(self):
        agent = self.agent()
        agent("client.Register")
        self.assert_raises("NotLoggedOn", agent, "client.Logoff")
        agent("client.LogonPushPush")
        agent("client.Logoff")
        self.assert_raises("NotLoggedOn", agent, "client.Logoff")

    def test_registration_survives_an_orderly_restart_and_logon_does_not(self):
        agent = self.agent()
        agent("client.Register")
        agent("client.LogonPushPush")
        self.assertEqual(0, self.box.stop())
        self.assertEqual("agent-1.0..\n", self.box.table().read_text())
        self.box.start()
        again = self.agent()
        self.assert_raises("AlreadyRegistered", again, "client.Register")
        self.assert_raises("NotLoggedOn", again, "client.Logoff")
        again("client.LogonPushPush")

    def test_the_doors_live_through_a_restart(self):
        agent = self.agent()
        agent("client.Register")
        self.assertEqual(0, self.box.stop())
        self.box.start()
        agent.retry("client.LogonPushPush")

    def test_a_consumer_that_fails_once_is_called_twice(self):
        agent = self.agent()
        agent("client.Register")
        for form in ("Logon", "LogonPushPush"):
            before = agent.calls("EnvelopeConsumer.Heartbeat")
            agent("behave", method="EnvelopeConsumer.Heartbeat", times=1,
                  **{"raise": "TRANSIENT"})
            agent("client." + form)
            self.assertEqual(2, agent.calls("EnvelopeConsumer.Heartbeat") - before)
            self.box.wait_log(f"Client::{form}() successfully called back to client")

    def test_a_logon_goes_on_without_a_consumer_that_fails_twice(self):
        agent = self.agent()
        agent("client.Register")
        agent("behave", method="EnvelopeConsumer.Heartbeat", times=2, **{"raise": "TRANSIENT"})
        agent("client.Logon")
        self.box.wait_log("Client::Logon() failed to call back to client")
        self.assertNotIn("successfully called back", self.box.log())
        agent("messages.SendMessage", destination="agent-1", text="a")
        self.box.wait_log("Routing to agent-1")
        self.assertEqual(0, agent.calls("EnvelopeConsumer.SendEnvelope"))
        self.assertEqual(1, len(self.box.envelopes()))

    def test_a_logon_with_nothing_to_call_makes_a_puller(self):
        agent = self.agent()
        agent("client.Register")
        agent("client.Logon", consumer=False)
        self.box.wait_log("Logged on agent-1 as a client")
        agent("messages.Heartbeat")
        self.assertEqual({}, agent("calls"))

    def test_pure_push_without_a_reachable_consumer_is_refused(self):
        agent = self.agent()
        agent("client.Register")
        self.assert_raises("UnreachableConsumer", agent, "client.LogonPushPush", consumer=False)
        agent("behave", method="EnvelopeConsumer.Heartbeat", **{"raise": "TRANSIENT"})
        self.assert_raises("UnreachableConsumer", agent, "client.LogonPushPush")
        log = self.box.log()
        # Once for the nil consumer; twice where the test failed as well.
        self.assertEqual(3, log.count("Client::LogonPushPush() failed to call back to client"))
        self.assertNotIn("successfully", log.replace("Successfully validated", ""))
        agent("release")
        self.assert_raises("NotLoggedOn", agent, "client.Logoff")

    def test_a_refused_logon_leaves_the_earlier_one_alone(self):
        agent = self.agent()
        agent("client.Register")
        agent("client.LogonPushPush")
        self.assert_raises("UnreachableConsumer", agent, "client.LogonPushPush", consumer=False)
        agent("messages.Heartbeat")

    def test_a_second_logon_replaces_the_first_without_a_logoff(self):
        first = self.agent()
        first("client.Register")
        first("client.LogonPushPush")
        second = self.agent()
        second("client.LogonPushPush")
        self.assert_raises("OBJECT_NOT_EXIST", first, "messages.Heartbeat")
        second("messages.SendMessage", destination="agent-1", text="a")
        second.wait_received(1)
        self.assertEqual(0, first("received")["count"])

    def test_a_second_peer_cannot_use_the_first_ones_object_for_itself(self):
        """The caller's certificate decides, not the object that it calls."""
        first = self.peer(self.box, "agent-1").log_on()
        door = giop.Ior(first("ior_of", target="messages"))
        with giop.tls("127.0.0.1", self.box.tls_port, self.ca.issue("agent-2")) as connection:
            connection.sendall(giop.request(door.key, "Heartbeat"))
            self.assertEqual((1, "IDL:BrelixMessaging/Rejected:1.0"), giop.reply(connection)[:2])

    def test_cancel_finds_only_the_callers_own_messages(self):
        one = self.peer(self.box, "agent-1").log_on()
        two = self.peer(self.box, "agent-2").log_on()
        three = self.agent("agent-3")
        three("client.Register")
        number = one("messages.SendMessage", destination="agent-3", text="a")
        self.box.wait_log("Routing to agent-3")
        self.assertFalse(two("messages.Cancel", originator="agent-3", id=number))
        self.assertFalse(one("messages.Cancel", originator="unknown", id=number))
        self.assertFalse(one("messages.Cancel", originator="agent-3", id="00000000"))
        self.assertEqual(1, len(self.box.envelopes()))
        self.assertTrue(one("messages.Cancel", originator="agent-3", id=number))
        self.assertFalse(one("messages.Cancel", originator="agent-3", id=number))
        self.assertFalse(self.box.envelopes())

    def test_many_logons_of_one_name_at_once_leave_one(self):
        agents = [self.agent() for _ in range(6)]
        agents[0]("client.Register")
        for _ in range(5):
            for agent in agents:
                agent.send("client.LogonPushPush")
            for agent in agents:
                agent.answer()
        agents[0]("messages.SendMessage" if self.alive(agents[0]) else "root.GetName",
                  destination="agent-1")
        self.assertEqual(1, sum(self.alive(agent) for agent in agents))

    @staticmethod
    def alive(agent):
        try:
            agent("messages.Heartbeat")
            return True
        except Exception:
            return False


class Neighbours(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router()

    def child(self, **arguments):
        child = self.peer(self.box, "child", "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("router.Logon", **arguments)
        return child

    def test_a_neighbours_envelope_reaches_our_client_as_it_came(self):
        agent = self.peer(self.box, "agent-1").log_on()
        child = self.child()
        child("router_consumer.SendEnvelope", originator="child.agent-9", id=0x12345678,
              route=["router", "agent-1"], stamps=[["agent-9", 1700000000], ["child", 3]],
              message={"type": "Note", "destination": "router.agent-1", "prio": -1, "text": "x"})
        agent.wait_received(1)
        envelope, = agent.received()
        self.assertEqual(("12345678", "child.agent-9", "router.agent-1", "Note", -1, "x"),
                         tuple(envelope[key] for key in
                               ("id", "originator", "destination", "type", "priority", "payload")))
        self.assertEqual([("agent-9", 1700000000), ("child", 3)],
                         [(stamp["name"], stamp["time"]) for stamp in envelope["stamps"]][:2])
        self.wait_no_envelopes(self.box)

    def test_a_clients_message_reaches_the_neighbour_with_its_whole_route(self):
        agent = self.peer(self.box, "agent-1").log_on()
        child = self.child()
        agent("messages.SendMessage", destination="child.agent-9", text="down")
        child.wait_received(1)
        envelope, = child.received()
        self.assertEqual(("router.agent-1", "child.agent-9", "down"),
                         (envelope["originator"], envelope["destination"], envelope["payload"]))

    def test_a_neighbours_consumer_is_not_tested_by_default_and_its_supplier_is(self):
        child = self.child(supplier=True)
        self.assertEqual(0, child.calls("RouterConsumer.Heartbeat"))
        self.assertEqual(1, child.calls("RouterSupplier.Heartbeat"))
        self.box.wait_log("Router::Logon() successfully called back to router supplier")
        self.box.wait_log("Logged on child as a router")

    def test_a_supplier_that_does_not_answer_is_left_out(self):
        child = self.peer(self.box, "child", "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("behave", method="RouterSupplier.Heartbeat", times=2, **{"raise": "TRANSIENT"})
        child("router.Logon", supplier=True)
        self.box.wait_log("Router::Logon() failed to call back to router supplier")
        self.assertEqual(2, child.calls("RouterSupplier.Heartbeat"))

    def test_with_the_call_back_on_a_silent_consumer_is_left_out_with_a_warning(self):
        self.box.write_settings(LogonCallback=1)
        child = self.peer(self.box, "child", "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("behave", method="RouterConsumer.Heartbeat", **{"raise": "TRANSIENT"})
        child("router.Logon")
        self.box.wait_log("Router::Logon() failed to call back to router consumer")
        self.box.wait_log(
            "child is likely to be behind a firewall, causing slow message delivery")
        child("release")
        child("router.Logon")
        self.box.wait_log("Router::Logon() successfully called back to router consumer")

    def test_heartbeats_at_the_consumer(self):
        child = self.child()
        child("router_consumer.Heartbeat")
        child("router.Logoff")
        self.box.wait_log("Logged off child")
        self.assert_raises("NotLoggedOn", child, "router.Logoff")

    def test_a_logged_on_neighbour_is_restored_after_a_kill(self):
        agent = self.peer(self.box, "agent-1").log_on()
        child = self.child()
        self.box.reload()  # closes the logons, but writes the table before that
        self.assertRegex(self.box.table().read_text(), r"(?m)^child\.1\.IOR:[0-9a-f]+\.$")
        self.box.kill()
        self.box.start()
        self.assertIn("Restoring logon for child", self.box.log())
        agent.retry("reconnect")
        agent("messages.SendMessage", destination="child.x", text="back")
        child.wait_received(1)

    def test_two_neighbours_that_call_each_other_in_their_logon_do_not_wait_for_each_other(self):
        self.box.write_settings(NumORBThreads=1, LogonCallback=1)
        self.box.reload()
        children = []
        for name in ("child-1", "child-2", "child-3"):
            child = self.peer(self.box, name, "router").connect()
            child("root.GetRouter")
            child("router.Register")
            child("behave", method="RouterConsumer.Heartbeat", delay_ms=100)
            children.append(child)
        for child in children:
            child.send("router.Logon", supplier=True)
        for child in children:
            child.answer()
        wait_until(lambda: self.box.log().count(" as a router") >= 3, 10, "three logons")


class Narrowing(SystemTest):
    def test_a_routers_supplier_is_an_envelope_supplier_as_well(self):
        box = self.router()
        agent = self.peer(box, "agent-1").log_on(form="LogonPushPull")
        for name in ("BrelixMessaging/RouterSupplier", "BrelixMessaging/EnvelopeSupplier",
                     "omg.org/CORBA/Object"):
            self.assertTrue(agent("is_a", target="supplier", id=f"IDL:{name}:1.0"), name)
        self.assertFalse(agent("is_a", target="supplier", id="IDL:BrelixMessaging/Router:1.0"))
        self.assertFalse(
            agent("is_a", target="messages", id="IDL:BrelixMessaging/RouterSupplier:1.0"))


if __name__ == "__main__":
    unittest.main()
