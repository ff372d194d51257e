"""Who a router is, who its peers are, and what peers of either kind may have it call."""

import struct
import subprocess
import time
import unittest

import giop
import harness
from harness import Peer, Router, SECTION, SystemTest, wait_until

PUSH = "RouterConsumer.SendEnvelope"


class NamedRouter(Router):
    """A router that is started with -name, which moves its section and its folder."""

    def __init__(self, test, ca, short_name, **options):
        self.short_name = short_name
        super().__init__(test, ca, **options)
        self.data = self.data.rename(self.folder / short_name)

    def write_settings(self, **changes):
        self.settings.update(changes)
        (self.folder / "brelix.config").write_text(harness.config_text({
            SECTION: {"UseRelativeDataLocation": 1},
            SECTION + "\\" + self.short_name: self.settings}))

    def start(self, wait=True, seconds=30):
        with open(self.folder / "stderr.txt", "ab") as stderr:
            self.process = subprocess.Popen(
                [harness.BIN / "brelix-message-router", "-config", "./brelix.config",
                 "-NAME", self.short_name, "-ORBendPoint", self.endpoint],
                cwd=self.folder, stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr)
        self.wait_log("Waiting for messages...", seconds)
        return self


class Name(SystemTest):
    def test_a_router_of_another_name_uses_its_own_section_and_folder_and_no_others(self):
        box = NamedRouter(self, self.ca, "Other").start()
        sender = self.peer(box, "agent-1").log_on()
        # Its certificate gives the name in addresses.
        self.assertEqual("router", sender("root.GetName"))
        self.client_ok(box, "agent-2", "register")
        sender("messages.SendMessage", destination="agent-2", text="waits")
        self.assertEqual(["Other"], [file.parent.parent.name for file in box.envelopes()])
        self.assertEqual(0, box.stop())
        self.assertEqual({"agent-1.0..", "agent-2.0.."}, set(box.table().read_text().splitlines()))
        log, = box.log_files()
        self.assertRegex(log.name, "^Other-.*[.]log$")
        self.assertFalse((box.folder / "Router").exists())
        self.assertEqual({"Other"}, {path.name for path in box.folder.iterdir() if path.is_dir()})
        self.assertNotIn("\\Router]", (box.folder / "brelix.config").read_text())


class Cdr:
    """Little endian, aligned from the start of an operation's arguments."""

    def __init__(self):
        self.data = b""

    def raw(self, data):
        self.data += data
        return self

    def align(self, size):
        return self.raw(b"\0" * (-len(self.data) % size))

    def ulong(self, value):
        return self.align(4).raw(struct.pack("<I", value))

    def octets(self, data):
        return self.ulong(len(data)).raw(data)

    def string(self, text):
        return self.octets(text.encode() + b"\0")

    def reference(self, text):
        """A stringified reference, or None for nil."""
        if text is None:
            return self.string("").ulong(0)
        ior = giop.Ior(text)
        self.string(ior.type_id).ulong(len(ior.profiles))
        for tag, profile in ior.profiles:
            self.ulong(tag).octets(profile)
        return self

    def envelope(self, originator, route, number, destination, kind):
        self.string("").string(originator).ulong(len(route))
        for name in route:
            self.string(name)
        self.ulong(0).ulong(number)  # no stamps
        self.string(destination).ulong(0).ulong(0).string(kind).string("")
        return self.ulong(0)  # an any without a value


def disguised(text, interface=None, loopback=False):
    """A reference to the same object that pretends to another interface, or that has another
    address, so that a router does not take the object for its own. None stays None."""
    if text is None:
        return None
    ior = giop.Ior(text)
    profile = next(data for tag, data in ior.profiles if tag == giop.TAG_IIOP)
    if loopback:
        body = Cdr().raw(bytes([1, 1, 2])).string("127.0.0.1").align(2)
        body.raw(struct.pack("<H", ior.port)).octets(ior.key).ulong(len(ior.components))
        for tag, data in ior.components.items():
            body.ulong(tag).octets(data)
        profile = body.data
    type_id = f"IDL:BrelixMessaging/{interface}:1.0" if interface else ior.type_id
    whole = Cdr().raw(b"\1").string(type_id).ulong(1).ulong(giop.TAG_IIOP).octets(profile)
    return "IOR:" + whole.data.hex()


def disguises(text, interface):
    return [disguised(text), disguised(text, interface), disguised(text, loopback=True),
            disguised(text, interface, loopback=True)]


class Forged(SystemTest):
    """Requests that no client library would make."""

    # One thread, so that a call to itself that waited for another would hang.
    SETTINGS = {"NumORBThreads": 1}
    DONE = (0, None)
    UNREACHABLE = (1, "IDL:BrelixMessaging/UnreachableConsumer:1.0")

    def call(self, box, identity, door, operation, body):
        with giop.tls("127.0.0.1", box.tls_port, identity, 30 * harness.PATIENCE) as connection:
            connection.sendall(giop.request(giop.Ior(door).key, operation, body.data))
            return giop.reply(connection)[:2]

    def neighbour(self, box, name, **arguments):
        peer = self.peer(box, name, "router").connect()
        peer("root.GetRouter")
        peer("router.Register")
        peer("router.Logon", **arguments)
        return peer

    def assert_serves(self, box, agent):
        """The router lives and delivers."""
        self.assertTrue(box.running(), box.stderr()[-3000:])
        before = agent("received")["count"]
        agent("messages.SendMessage", destination="agent-1", text="still here")
        agent.wait_received(before + 1)

    def assert_ends_well(self, box):
        self.assertEqual(0, box.stop())
        self.assertRegex(box.last_log_line(), " EOF: ")

    def test_a_client_cannot_use_a_neighbours_object_to_speak_as_a_router(self):
        box = self.router()
        agent = self.peer(box, "agent-1").log_on()
        self.peer(box, "agent-2").log_on()
        child = self.neighbour(box, "child")
        door = child("ior_of", target="router_consumer")

        def envelope():
            return Cdr().envelope("EM", ["router", "agent-1"], 5, "router.agent-1", "Note")
        for name in ("agent-2", "agent-3"):
            self.assertEqual((1, "IDL:BrelixMessaging/Rejected:1.0"),
                             self.call(box, self.ca.issue(name), door, "SendEnvelope", envelope()))
        self.assertEqual(0, agent("received")["count"])
        self.assertFalse(box.envelopes())
        # The neighbour itself may say the very same.
        self.assertEqual(self.DONE, self.call(box, self.ca.issue("child", "router"), door,
                                              "SendEnvelope", envelope()))
        agent.wait_received(1)
        self.assertEqual(["EM"], [one["originator"] for one in agent.received()])

    def test_whoever_has_a_certificate_may_ask_for_the_threshold(self):
        box = self.router(settings={"NotifyThreshold": 7})
        child = self.neighbour(box, "child", consumer=False, supplier=True)
        self.assertEqual(7, child("router_notify.NotificationThreshold"))
        door = child("ior_of", target="router_notify")
        for identity, answer in ((self.ca.issue("stranger"), (0, None, struct.pack("<I", 7))),
                                 (None, (1, "IDL:BrelixMessaging/Rejected:1.0"))):
            with giop.tls("127.0.0.1", box.tls_port, identity,
                          30 * harness.PATIENCE) as connection:
                connection.sendall(giop.request(giop.Ior(door).key, "NotificationThreshold", b""))
                self.assertEqual(answer, giop.reply(connection)[:len(answer)])

    def test_a_client_that_offers_the_routers_own_objects_does_no_harm(self):
        box = self.router(settings=self.SETTINGS)
        agent = self.peer(box, "agent-1").log_on()
        puller = self.peer(box, "agent-3").log_on(form="LogonPushPull", notify=True)
        self.client_ok(box, "agent-2", "register")
        child = self.neighbour(box, "child")
        door = agent("ior_of", target="client")
        own = {"root": giop.fetch_ior(box.ior_port), "client": door,
               "messages": agent("ior_of", target="messages"),
               "supplier": puller("ior_of", target="supplier"),
               "neighbour's": child("ior_of", target="router_consumer")}
        forms = {"LogonPushPush": ("EnvelopeConsumer",),
                 "Logon": ("EnvelopeConsumer", "NotifyConsumer"),
                 "LogonPushPull": ("NotifyConsumer",)}
        for name, reference in own.items():
            for form, interfaces in forms.items():
                for offered in zip(*(disguises(reference, one) for one in interfaces)):
                    body = Cdr()
                    for one in offered:
                        body.reference(one)
                    answer = self.call(box, self.ca.issue("agent-2"), door, form, body)
                    if form == "LogonPushPush":
                        self.assertIn(answer, (self.DONE, self.UNREACHABLE), name)
                    else:
                        self.assertEqual(self.DONE, answer, (name, form))
                    agent("messages.SendMessage", destination="agent-2", text="bait")
                    self.assert_serves(box, agent)
        box.wait_log("Failed to send messages, logging agent-2 off")
        self.assert_ends_well(box)

    def test_a_neighbour_that_offers_the_routers_own_objects_does_no_harm(self):
        box = self.router(settings=self.SETTINGS)
        agent = self.peer(box, "agent-1").log_on()
        pushed = self.neighbour(box, "child-1")
        polled = self.neighbour(box, "child-2", consumer=False, supplier=True, notify=True)
        self.neighbour(box, "child-3")("router.Logoff")
        door = pushed("ior_of", target="router")
        consumers = (pushed("ior_of", target="router_consumer"), giop.fetch_ior(box.ior_port),
                     agent("ior_of", target="messages"), None)
        supplier = disguises(polled("ior_of", target="router_supplier"), "RouterSupplier")
        notify = disguises(polled("ior_of", target="router_notify"), "NotifyConsumer")
        for callback in (0, 1):
            box.write_settings(LogonCallback=callback)
            for consumer in consumers:
                for offered in zip(disguises(consumer, "RouterConsumer"), supplier, notify):
                    body = Cdr()
                    for one in offered:
                        body.reference(one)
                    self.assertEqual(self.DONE, self.call(box, self.ca.issue("child-3", "router"),
                                                          door, "Logon", body))
                    agent("messages.SendMessage", destination="child-3.x", text="bait")
                    self.assert_serves(box, agent)
        box.wait_log("Failed to send messages, logging child-3 off")
        for message in ("down", "again"):
            agent("messages.SendMessage", destination="child-1.x", text=message)
        pushed.wait_received(2)
        self.assert_ends_well(box)


class Neighbours(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router(settings={"LogonCallback": 0})
        self.agent = self.peer(self.box, "agent-1").log_on()

    def child(self, **options):
        child = self.peer(self.box, "child", "router", **options).connect()
        child("root.GetRouter")
        return child

    def wait_logged_off(self):
        self.box.wait_log("Failed to send messages, logging child off")
        self.assertEqual(1, len(self.box.envelopes()))

    def test_a_neighbour_that_fails_twice_is_logged_off_and_keeps_its_message(self):
        child = self.child()
        child("router.Register")
        child("router.Logon")
        child("behave", method=PUSH, times=2, **{"raise": "TRANSIENT"})
        self.agent("messages.SendMessage", destination="child.x", text="again")
        self.wait_logged_off()
        self.assertEqual(2, child.calls(PUSH))
        wait_until(lambda: self.answer(child, "router.Logoff") == "NotLoggedOn", 10, "the logoff")
        self.assertEqual(0, child("received")["count"])
        child("router.Logon")
        child.wait_received(1)
        self.assertEqual(["again"], [one["payload"] for one in child.received()])
        self.wait_no_envelopes(self.box)

    def test_a_neighbour_that_fails_once_is_called_again_at_once(self):
        child = self.child()
        child("router.Register")
        child("router.Logon")
        child("behave", method=PUSH, times=1, **{"raise": "COMM_FAILURE"})
        self.agent("messages.SendMessage", destination="child.x", text="a")
        child.wait_received(1)
        self.assertEqual(2, child.calls(PUSH))
        self.assertNotIn("logging child off", self.box.log())

    def test_without_the_call_back_the_sender_finds_out_that_a_neighbour_is_unreachable(self):
        nowhere = f"giop:ssl:127.0.0.1:{harness.free_port()}"
        far = self.child(orb_args=["-ORBendPoint", "giop:ssl:127.0.0.1:0",
                                   "-ORBendPointPublish", nowhere])
        far("router.Register")
        far("router.Logon")
        self.box.wait_log("Logged on child as a router")
        self.assertNotIn("behind a firewall", self.box.log())
        self.agent("messages.SendMessage", destination="child.x", text="later")
        self.wait_logged_off()
        self.assertEqual({}, far("calls"))
        near = self.child()
        near("router.Logon")
        near.wait_received(1)
        self.wait_no_envelopes(self.box)

    @staticmethod
    def answer(peer, operation):
        try:
            return peer(operation)
        except harness.PeerException as exception:
            return exception.name


class Certificates(SystemTest):
    def test_a_client_whose_certificate_runs_out_is_logged_off_and_returns_with_a_new_one(self):
        box = self.router()
        sender = self.peer(box, "agent-1").log_on()
        end = time.time() + 4 * harness.PATIENCE
        stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(end))
        brief = Peer(self, box, identity=self.ca.issue("agent-2", label="brief", not_after=stamp))
        brief.log_on()
        brief("messages.Heartbeat")
        brief("client.Logoff")
        brief("client.LogonPushPush")

        self.wait_expired(brief, "messages.Heartbeat")
        box.wait_log("Heartbeat() called with expired certificate, logging caller off...")
        # No other call is open to it either.
        for operation in ("client.Logoff", "client.LogonPushPush", "root.GetClient"):
            self.assert_raises("CertificateExpired", brief, operation)

        renewed = self.peer(box, "agent-2").connect()
        renewed("root.GetClient")
        self.assert_raises("NotLoggedOn", renewed, "client.Logoff")
        sender("messages.SendMessage", destination="agent-2", text="waits")
        box.wait_log("Routing to agent-2")
        self.assertEqual(0, brief.calls("EnvelopeConsumer.SendEnvelope"))
        renewed("client.LogonPushPush")
        renewed.wait_received(1)
        self.wait_no_envelopes(box)


class PlainTcp(SystemTest):
    def test_without_tls_not_even_the_type_of_an_object_is_told(self):
        box = self.router(start=False)
        box.endpoint = f"giop:tcp::{box.tls_port}"
        box.start()
        root = giop.Ior(giop.fetch_ior(box.ior_port))
        kind = Cdr().string("IDL:BrelixMessaging/MessageRouter:1.0").data
        for key in (root.key, b"no such object"):
            for operation, body in (("_is_a", kind), ("_non_existent", b""), ("_interface", b""),
                                    ("GetCRL", b""), ("_x", b"")):
                with giop.socket.create_connection(("127.0.0.1", box.tls_port), 20) as connection:
                    connection.sendall(giop.request(key, operation, body))
                    self.assertEqual((2, "IDL:omg.org/CORBA/NO_PERMISSION:1.0"),
                                     giop.reply(connection)[:2], operation)

    def test_over_tls_a_stranger_may_ask_for_the_type(self):
        box = self.router()
        root = giop.Ior(giop.fetch_ior(box.ior_port))
        for name, answer in (("MessageRouter", b"\1"), ("Client", b"\0")):
            with giop.tls("127.0.0.1", box.tls_port) as connection:
                connection.sendall(giop.request(
                    root.key, "_is_a", Cdr().string(f"IDL:BrelixMessaging/{name}:1.0").data))
                self.assertEqual((0, None, answer), giop.reply(connection), name)


if __name__ == "__main__":
    unittest.main()
