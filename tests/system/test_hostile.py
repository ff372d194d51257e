"""What a stranger can send before it is refused, and what a client can send that means harm."""

import os
import random
import resource
import socket
import ssl
import struct
import unittest

import giop
import harness
from harness import SystemTest, wait_until
from tree import Tree

MEGABYTE = 1024  # resident memory is counted in KiB


class Hostile(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router()
        self.agent = self.peer(self.box, "agent-1").log_on()
        self.root = giop.Ior(giop.fetch_ior(self.box.ior_port))

    def assert_well(self, before, megabytes=64):
        """The router lives, serves another client, and has not grown much."""
        self.assertTrue(self.box.running(), self.box.stderr())
        self.agent("messages.SendMessage", destination="agent-1", text="still here")
        self.agent.wait_received(self.agent("received")["count"] or 1)
        if not harness.SANITIZED:
            self.assertLess(self.box.rss() - before, megabytes * MEGABYTE)

    def plain(self):
        return socket.create_connection(("127.0.0.1", self.box.tls_port), 20)

    def tls(self, identity=None):
        return giop.tls("127.0.0.1", self.box.tls_port, identity)

    def send_and_drop(self, connection, data):
        with connection:
            try:
                connection.sendall(data)
                connection.settimeout(0.05)
                connection.recv(4096)
            except (OSError, ssl.SSLError):
                pass

    def test_rubbish_in_place_of_tls(self):
        before = self.box.rss()
        chance = random.Random(1)
        hello = b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"
        for number in range(200):
            data = chance.randbytes(chance.randrange(1, 3000))
            self.send_and_drop(self.plain(), data if number % 2 else hello + data)
        self.send_and_drop(self.plain(), b"\x16\x03\x01\xff\xff")
        self.send_and_drop(self.plain(), b"GET / HTTP/1.0\r\n\r\n")
        self.assert_well(before)

    def test_rubbish_in_place_of_giop(self):
        before = self.box.rss()
        chance = random.Random(2)
        good = giop.request(self.root.key, "GetName")
        for number in range(200):
            data = bytearray(good)
            for _ in range(chance.randrange(1, 8)):
                data[chance.randrange(len(data))] = chance.randrange(256)
            if number % 4 == 0:
                data = chance.randbytes(chance.randrange(1, 500))
            self.send_and_drop(self.tls(), bytes(data))
        self.assert_well(before)

    def test_every_kind_of_message_and_giant_lengths(self):
        before = self.box.rss()
        for kind in range(10):
            for size in (0, 1, 4, 16, 0x7FFFFFFF, 0xFFFFFFFF):
                data = giop.header(kind, size) + os.urandom(min(size, 16))
                self.send_and_drop(self.tls(), data)
        # Lengths within a message of modest size.
        for field in (b"\xff\xff\xff\x7f", b"\xff\xff\xff\xff", b"\x00\x00\x00\x80"):
            body = struct.pack("<IB3xHxx", 1, 3, 0) + field
            self.send_and_drop(self.tls(), giop.header(0, len(body) + 64) + body + b"\0" * 64)
        self.assert_well(before)

    def test_fragments_without_end(self):
        before = self.box.rss()
        start = bytearray(giop.request(self.root.key, "GetName"))
        start[6] = 3  # more fragments follow
        part = bytearray(giop.header(7, 4 + 65536) + struct.pack("<I", 1) + b"x" * 65536)
        part[6] = 3
        for _ in range(3):
            with self.tls() as connection:
                try:
                    connection.sendall(bytes(start))
                    for _ in range(200):
                        connection.sendall(bytes(part))
                except (OSError, ssl.SSLError):
                    pass
        self.assert_well(before)

    def test_half_messages_hold_up_nobody(self):
        before = self.box.rss()
        whole = giop.request(self.root.key, "GetName")
        held = []
        try:
            for number in range(100):
                connection = self.tls()
                connection.sendall((b"GIOP\1\2", whole[:12], whole[:20])[number % 3])
                held.append(connection)
            for _ in range(20):
                self.agent("messages.Heartbeat")
            self.assert_well(before)
            times = self.agent("measure", method="messages.Heartbeat", count=100)
            self.assertLess(times["median"], 100000 if harness.SANITIZED else 10000, times)
        finally:
            for connection in held:
                connection.close()

    def test_a_connection_in_the_middle_of_a_message_is_ended(self):
        with self.tls() as connection:
            connection.sendall(giop.request(self.root.key, "GetName")[:20])
            connection.settimeout(50 * harness.PATIENCE / 2)
            try:
                self.assertEqual(b"", connection.recv(1))
            except (ConnectionError, ssl.SSLError) as error:
                self.assertNotIsInstance(error, TimeoutError)

    def test_crafted_payloads_of_a_client_that_is_logged_on(self):
        """Each of these crashes, hangs or bloats the ORB's own decoder."""
        before = self.box.rss()
        messages = giop.Ior(self.agent("ior_of", target="messages"))
        attacks = {
            "cut off struct": bytes.fromhex("0f000000160000000100000009000000") + b"IDL:x:1.0\0",
            "cut off value": bytes.fromhex("1d000000080000000100000005000000"),
            "fixed": bytes.fromhex("1c00000063000100"),
            "anys in anys": b"\x0b\0\0\0" * 100000,
            "26 anys": b"\x0b\0\0\0" * 26 + b"\0" * 4,
            "4 GB encapsulation": bytes.fromhex("0f000000f0ffffff01000000"),
            "indirection": bytes.fromhex("ffffffff" "fcffffff"),
            "giant string": bytes.fromhex("12000000" "00000000" "ffffffff") + b"abc",
            "giant sequence": bytes.fromhex("13000000" "0c000000" "01000000" "0a000000"
                                            "00000000" "ffffffff"),
        }

        def string(text):
            data = text.encode() + b"\0"
            return struct.pack("<I", len(data)) + data + b"\0" * (-len(data) % 4)

        start = string("agent-1") + struct.pack("<ii", 0, 0) + string("T") + string("")
        for name, attack in attacks.items():
            with self.tls(self.ca.issue("agent-1")) as connection:
                connection.sendall(giop.request(messages.key, "SendMessage", start + attack))
                connection.settimeout(20 * harness.PATIENCE)
                status, exception, _ = giop.reply(connection)
                self.assertEqual((2, "IDL:omg.org/CORBA/MARSHAL:1.0"), (status, exception), name)
        self.assertFalse(self.box.envelopes())
        self.assert_well(before)

    def test_strings_without_an_end_are_delivered_as_they_are_and_mean_nothing_to_the_router(self):
        """The ORB takes them in, and looks into them only when somebody takes them out."""
        messages = giop.Ior(self.agent("ior_of", target="messages"))
        identity = self.ca.issue("agent-1")

        def string(text):
            data = text.encode() + b"\0"
            return struct.pack("<I", len(data)) + data + b"\0" * (-len(data) % 4)

        def send(kind, route, payload):
            start = string(route) + struct.pack("<ii", 0, 0) + string(kind) + string("")
            with self.tls(identity) as connection:
                connection.sendall(giop.request(messages.key, "SendMessage", start + payload))
                connection.settimeout(20 * harness.PATIENCE)
                self.assertEqual((0, None), giop.reply(connection)[:2])

        payloads = (bytes.fromhex("12000000" "00000000" "04000000") + b"abcd",
                    bytes.fromhex("12000000" "00000000" "00000000"))
        for payload in payloads:
            for route in (":", ":.:", "router"):
                for kind in ("EM-GetClientStatus", "EM-Heartbeat", "EM-NotifyClientUpdates", "X"):
                    send(kind, route, payload)
        self.wait_no_envelopes(self.box)
        self.box.wait_log("EM-GetClientStatus - Badly formatted message originator")
        self.assertTrue(self.box.running(), self.box.stderr()[-3000:])
        self.assertEqual(0, self.box.stop())

    def test_texts_of_peers_are_printed_and_not_interpreted(self):
        for text in ("%s%s%s%n", "%100000d", "{0}", "a\nb"):
            try:
                self.agent("messages.SendMessage", destination=text, type=text, options=text)
            except harness.PeerException as exception:
                self.assertEqual("Rejected", exception.name)
        self.box.wait_log("Cannot route message to %s%s%s%n")

    def test_names_of_every_length_are_refused_or_routed(self):
        before = self.box.rss()
        for size in (0, 1, 4096, 1 << 16, 1 << 20):
            self.agent("messages.SendMessage", destination="d" * size, type="t" * size)
        self.agent("messages.SendMessage", destination="." * 100000)
        self.agent("messages.SendMessage", destination="a." * 100000)
        self.wait_no_envelopes(self.box)
        self.assert_well(before)


class LongRoutes(SystemTest):
    """Envelopes whose routes have ten thousand hops, by every way in."""

    HOPS = 10000
    # The first hop and all the others, and where the envelope ends.
    ROUTES = {
        ("agent-2", "x"): "agent-2",
        ("child-2", "y"): "child-2",
        ("stranger", "x"): "Cannot route message to stranger",
        ("router", "router"): "Cannot route message to router",
        (":", ":"): "Cannot route message to :",
    }

    def setUp(self):
        super().setUp()
        self.box = self.router(settings={"GetterTickSecs": 1})
        self.peers = {"agent-2": self.peer(self.box, "agent-2").log_on()}
        self.child = self.neighbour("child")
        self.peers["child-2"] = self.neighbour("child-2")
        self.peers["child-2"]("router.Logon")
        self.before = self.box.rss()

    def neighbour(self, name):
        peer = self.peer(self.box, name, "router").connect()
        peer("root.GetRouter")
        peer("router.Register")
        return peer

    def envelopes(self):
        for number, (first, rest) in enumerate(self.ROUTES, 1):
            route = [first] + [rest] * (self.HOPS - 1)
            yield {"id": number, "originator": "child.agent-9", "route": route,
                   "message": {"destination": ".".join(route), "text": first}}

    def check(self):
        for end in self.ROUTES.values():
            if end in self.peers:
                self.peers[end].wait_received(1)
                self.assertEqual((end, self.HOPS), (self.peers[end].received()[0]["payload"],
                                                    self.peers[end].received()[0]["hops"]))
            else:
                self.box.wait_log(end)
        self.check_well()

    def check_well(self):
        self.wait_no_envelopes(self.box)
        self.assertTrue(self.box.running())
        if not harness.SANITIZED:
            self.assertLess(self.box.rss() - self.before, 64 * MEGABYTE)
        longest = max(len(line) for line in self.box.log().splitlines())
        self.assertLess(longest, 8192, "a line of the log")

    def test_from_a_neighbour_that_pushes_them(self):
        self.child("router.Logon")
        for envelope in self.envelopes():
            self.child("router_consumer.SendEnvelope", **envelope)
        self.check()

    def test_from_a_neighbour_that_is_asked_for_them(self):
        for envelope in self.envelopes():
            self.child("supply", **envelope)
        self.child("router.Logon", consumer=False, supplier=True)
        self.check()
        wait_until(lambda: self.child("to_supply") == 0, 10, "all to be acknowledged")

    def test_a_question_whose_answer_goes_ten_thousand_hops(self):
        self.child("router.Logon")
        originator = "child-2" + ".x" * (self.HOPS - 1)
        certificate = (self.ca.issue("agent-1") / "certificate.pem").read_text()
        self.child("router_consumer.SendEnvelope", id=1, originator=originator, route=["router"],
                   certificate=certificate,
                   message={"destination": "router", "type": "EM-GetClientStatus",
                            "text": "agent-2"})
        child = self.peers["child-2"]
        child.wait_received(1)
        answer = child.received()[0]
        self.assertEqual(("EM-GetClientStatus-Reply", self.HOPS, originator),
                         (answer["type"], answer["hops"], answer["destination"]))
        self.check_well()

    def test_up_to_a_parent_that_cannot_route_them(self):
        tree = Tree(self, {"top": {}, "leaf": {"parent": "top"}})
        tree.start()
        agent = tree.client("agent-1", at="leaf")
        for first in ("stranger", ":", "leaf", "top"):
            agent("messages.SendMessage", destination=".".join([first] * self.HOPS))
        tree["leaf"].wait_log("Cannot route message to leaf")
        for hop in ("stranger", ":", "top"):
            tree["top"].wait_log(f"Cannot route message to {hop}")
        for router in tree.routers.values():
            self.wait_no_envelopes(router)
            self.assertTrue(router.running())


class ManyConnections(SystemTest):
    """Bounded threads and memory, whatever connects."""

    THREAD_LIMIT = 700

    def setUp(self):
        super().setUp()
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        # Ours and the router's come from limits of the same size.
        self.most = min(10000, hard - 2000)
        if self.most < 2000:
            self.skipTest("needs 4000 file descriptors")

    def hold(self, count, make):
        held = []

        def release():
            for connection in held:
                connection.close()
        self.addCleanup(release)
        for _ in range(count):
            try:
                held.append(make())
            except OSError:
                # Refusing is a way to bound them.
                pass
        return held

    def assert_served(self, box, agent):
        times = agent("measure", method="messages.Heartbeat", count=50)
        self.assertLess(times["median"], 200000 if harness.SANITIZED else 20000, times)
        self.assertIn("router", self.client_ok(box, "agent-2", "ping"))
        self.assertLess(box.threads(), self.THREAD_LIMIT)

    def test_ten_thousand_connections_that_say_nothing(self):
        box = self.router(settings={"ConnectionCache": 20000})
        agent = self.peer(box, "agent-1").log_on()
        before = box.rss()
        self.hold(self.most, lambda: socket.create_connection(("127.0.0.1", box.tls_port), 20))
        self.assert_served(box, agent)
        if not harness.SANITIZED:
            self.assertLess(box.rss() - before, 300 * MEGABYTE)

    def test_two_thousand_strangers_with_half_a_message(self):
        box = self.router(settings={"ConnectionCache": 20000})
        agent = self.peer(box, "agent-1").log_on()
        before = box.rss()
        half = giop.request(giop.Ior(giop.fetch_ior(box.ior_port)).key, "GetName")[:30]

        def stranger():
            connection = giop.tls("127.0.0.1", box.tls_port)
            connection.sendall(half)
            return connection
        self.hold(500 if harness.SANITIZED else 2000, stranger)
        self.assert_served(box, agent)
        if not harness.SANITIZED:
            self.assertLess(box.rss() - before, 300 * MEGABYTE)

    def test_the_ior_port_stands_a_thousand_silent_connections(self):
        box = self.router()
        self.hold(1500, lambda: socket.create_connection(("127.0.0.1", box.ior_port), 20))
        self.assertTrue(giop.fetch_ior(box.ior_port))


if __name__ == "__main__":
    unittest.main()
