"""Who may call what."""

import time
import unittest

import giop
import harness
from harness import Peer, SystemTest, wait_until


class Strangers(SystemTest):
    def stranger(self, box):
        return Peer(self, box, ca=self.ca.issue("agent-1")).connect()

    def test_a_caller_without_certificate_has_four_operations_and_no_more(self):
        box = self.router()
        stranger = self.stranger(box)
        self.assertEqual("router", stranger("root.GetName"))
        self.assertTrue(stranger("root.GetCertification"))
        self.assertEqual("", stranger("root.GetCACertificate"))
        self.assertEqual("", stranger("root.GetCRL"))
        self.assert_raises("Rejected", stranger, "root.GetClient")
        self.assert_raises("Rejected", stranger, "root.GetRouter")

    def test_the_doors_stay_shut_for_a_stranger_who_knows_their_keys(self):
        """The doors' references are the same for everybody, so that they can be passed on."""
        box = self.router()
        agent = self.peer(box, "agent-1").connect()
        agent("root.GetClient")
        neighbour = self.peer(box, "child", "router").connect()
        neighbour("root.GetRouter")
        client = giop.Ior(agent("ior_of", target="client"))
        router = giop.Ior(neighbour("ior_of", target="router"))
        rows = [(client, "Register"), (client, "Unregister"), (client, "Logoff"),
                (router, "Register"), (router, "Unregister"), (router, "Logoff")]
        for door, operation in rows:
            with giop.tls("127.0.0.1", box.tls_port) as connection:
                connection.sendall(giop.request(door.key, operation))
                self.assertEqual((1, "IDL:BrelixMessaging/Rejected:1.0"),
                                 giop.reply(connection)[:2], operation)
        self.assertNotIn("Registered", box.log())

    def test_the_per_peer_objects_are_not_open_to_a_stranger(self):
        box = self.router()
        agent = self.peer(box, "agent-1").log_on()
        messages = giop.Ior(agent("ior_of", target="messages"))
        with giop.tls("127.0.0.1", box.tls_port) as connection:
            connection.sendall(giop.request(messages.key, "Heartbeat"))
            self.assertEqual((1, "IDL:BrelixMessaging/Rejected:1.0"), giop.reply(connection)[:2])

    def test_a_caller_over_plain_tcp_gets_no_permission(self):
        box = self.router(start=False)
        box.endpoint = f"giop:tcp::{box.tls_port}"
        box.start()
        root = giop.Ior(giop.fetch_ior(box.ior_port))
        for operation in ("GetName", "GetClient", "GetCertification"):
            with giop.socket.create_connection(("127.0.0.1", box.tls_port), 20) as connection:
                connection.sendall(giop.request(root.key, operation))
                self.assertEqual((2, "IDL:omg.org/CORBA/NO_PERMISSION:1.0"),
                                 giop.reply(connection)[:2], operation)

    def test_a_router_with_tls_has_no_plain_port(self):
        box = self.router()
        root = giop.Ior(giop.fetch_ior(box.ior_port))
        self.assertEqual(0, root.port)
        self.assertEqual(box.tls_port, root.tls_port)
        with giop.socket.create_connection(("127.0.0.1", box.tls_port), 20) as connection:
            connection.sendall(giop.request(root.key, "GetName"))
            connection.settimeout(40)
            try:
                self.assertNotIn(b"GIOP", connection.recv(4096))
            except ConnectionError:
                pass

    def test_a_certificate_of_another_authority_does_not_get_in(self):
        box = self.router()
        other = harness.Ca(self.folder / "other")
        folder = self.folder / "mixed"
        folder.mkdir()
        for file in other.issue("agent-1").iterdir():
            (folder / file.name).write_bytes(file.read_bytes())
        (folder / "ca.pem").write_bytes((self.ca.issue("agent-1") / "ca.pem").read_bytes())
        peer = Peer(self, box, identity=folder).connect()
        with self.assertRaises(harness.PeerException) as caught:
            peer("root.GetName")
        self.assertIn(caught.exception.name, ("TRANSIENT", "COMM_FAILURE"))
        box.wait_log("SSL connection alert, peer address ")


class Expired(SystemTest):
    def expired(self, box, name):
        folder = self.ca.issue(name, label=name + "-expired", not_after="2020-01-01T00:00:00Z")
        return Peer(self, box, identity=folder).connect()

    def test_an_expired_caller_is_told_so_and_logged_off(self):
        box = self.router()
        agent = self.peer(box, "agent-1").log_on()
        agent("messages.Heartbeat")
        late = self.expired(box, "agent-1")
        self.assert_raises("CertificateExpired", late, "root.GetClient")
        box.wait_log("GetClient() called with expired certificate, logging caller off...")
        self.assertNotIn("MessageRouter::GetClient() called", box.log())
        # The logon that the valid certificate of the same name had is gone.
        self.assert_raises("OBJECT_NOT_EXIST", agent, "messages.Heartbeat")
        self.assert_raises("NotLoggedOn", agent, "client.Logoff")

    def test_an_expired_caller_still_reaches_what_leads_to_a_new_certificate(self):
        box = self.router()
        late = self.expired(box, "agent-2")
        self.assertEqual("router", late("root.GetName"))
        self.assertTrue(late("root.GetCertification"))
        self.assertEqual("", late("root.GetCACertificate"))
        self.assertEqual("", late("root.GetCRL"))
        self.assert_raises("CertificateExpired", late, "root.GetRouter")

    def test_a_certificate_that_expires_during_a_connection_counts_at_the_next_call(self):
        box = self.router()
        end = time.time() + 4 * harness.PATIENCE
        stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(end))
        folder = self.ca.issue("agent-4", label="agent-4-brief", not_after=stamp)
        brief = Peer(self, box, identity=folder).log_on()
        brief("messages.Heartbeat")

        self.wait_expired(brief, "messages.Heartbeat")
        self.assertGreaterEqual(time.time(), end - 1)
        box.wait_log("Heartbeat() called with expired certificate, logging caller off...")

    def test_an_expired_caller_whom_nobody_knows_is_told_just_the_same(self):
        box = self.router()
        self.assert_raises("CertificateExpired", self.expired(box, "agent-3"), "root.GetClient")


class Roles(SystemTest):
    def test_the_router_door_is_for_routers(self):
        box = self.router()
        self.assert_raises("Rejected", self.peer(box, "agent-1").connect(), "root.GetRouter")
        self.assert_raises("Rejected", self.peer(box, "boss", "management").connect(),
                           "root.GetRouter")
        self.assertTrue(self.peer(box, "child", "router").connect()("root.GetRouter"))

    def test_a_client_cannot_use_the_reference_of_the_router_door(self):
        box = self.router()
        child = self.peer(box, "child", "router").connect()
        child("root.GetRouter")
        door = giop.Ior(child("ior_of", target="router"))
        with giop.tls("127.0.0.1", box.tls_port, self.ca.issue("agent-1")) as connection:
            for number, operation in enumerate(("Register", "Unregister", "Logoff")):
                connection.sendall(giop.request(door.key, operation, number=number))
                self.assertEqual((1, "IDL:BrelixMessaging/Rejected:1.0"),
                                 giop.reply(connection)[:2], operation)

    def test_a_router_does_not_register_with_itself(self):
        box = self.router()
        twin = Peer(self, box, identity=self.ca.issue("router", "router")).connect()
        twin("root.GetRouter")
        self.assert_raises("Rejected", twin, "router.Register")
        box.wait_log("Self registration by router is illegal")

    def test_management_commands_come_only_from_their_endpoint(self):
        box = self.router()
        agent = self.peer(box, "agent-1").log_on()
        for kind in ("EM-DoAction", "em-setconfiguration"):
            self.assert_raises("Rejected", agent, "messages.SendMessage", destination="agent-1",
                               type=kind)
        box.wait_log("CreateFromClient: Message of type EM-DoAction receieved from unexpected "
                     "originator: agent-1")
        endpoint = self.peer(box, "EM").log_on()
        endpoint("messages.SendMessage", destination="agent-1", type="EM-DoAction")
        agent.wait_received(1)
        agent("messages.SendMessage", destination="agent-1", type="EM-DoAction-x")
        agent.wait_received(2)

    def test_management_commands_from_a_router_come_only_from_the_parent(self):
        box = self.router()
        child = self.peer(box, "child", "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("router.Logon")
        self.assert_raises("Rejected", child, "router_consumer.SendEnvelope", originator="EM",
                           id=1, route=["agent-1"],
                           message={"type": "EM-DoAction", "destination": "agent-1"})
        box.wait_log("CreateFromRouter: Message of type EM-DoAction can only be receieved from "
                     "the parent")
        self.assertFalse(box.envelopes())

    def test_system_types_are_refused_and_their_lookalikes_pass(self):
        box = self.router()
        agent = self.peer(box, "agent-1").log_on()
        for kind in ("MS-Reply", "ms-reply", "MS", "mS"):
            self.assert_raises("IllegalMessageType", agent, "messages.SendMessage",
                               destination="agent-1", type=kind)
        for number, kind in enumerate(("M", "", "M-S", "S"), 1):
            agent("messages.SendMessage", destination="agent-1", type=kind)
            agent.wait_received(number)

    def test_a_line_with_a_bracket_in_the_options_is_refused(self):
        """It would be read back from the file as a field of its own: another's certificate."""
        box = self.router()
        agent = self.peer(box, "agent-1").log_on()
        self.assert_raises("Rejected", agent, "messages.SendMessage", destination="agent-1",
                           options="a\n[OriginatorCertificate] 00000000")
        self.assertFalse(box.envelopes())
        agent("messages.SendMessage", destination="agent-1", options="a\nb")
        agent.wait_received(1)


class ClosedDoors(SystemTest):
    def test_an_administrators_edit_counts_while_the_router_runs(self):
        box = self.router()
        agent = self.peer(box, "agent-1").connect()
        child = self.peer(box, "child", "router").connect()

        def answer(peer, operation):
            try:
                return peer(operation)
            except harness.PeerException as exception:
                return exception.name

        def doors():
            return (answer(agent, "root.GetClient"), answer(child, "root.GetRouter"),
                    answer(agent, "root.GetCertification"))
        self.assertEqual((True, True, True), doors())
        box.write_settings(NoClientInterface=1, NoRouterInterface=2, NoCertificationInterface=1)
        wait_until(lambda: doors() == ("Rejected", "Rejected", False), 1, "the doors to close")
        box.write_settings(NoClientInterface=0, NoRouterInterface=0, NoCertificationInterface=0)
        wait_until(lambda: doors() == (True, True, True), 1, "the doors to open")

    def test_callers_on_this_host_are_local_whichever_of_its_addresses_they_use(self):
        box = self.router()
        root = giop.Ior(giop.fetch_ior(box.ior_port))
        self.assertFalse(root.host.startswith("127."), root.host)
        for host in ("127.0.0.1", root.host):
            with giop.tls(host, box.tls_port, self.ca.issue("agent-1")) as connection:
                connection.sendall(giop.request(root.key, "GetClient"))
                self.assertEqual(0, giop.reply(connection)[0], host)


if __name__ == "__main__":
    unittest.main()
