"""What brelix-client tells its caller, with no router and with one."""

import json
import os
import signal
import socket
import subprocess
import threading
import unittest

import harness
from harness import SystemTest, run, wait_until


class Usage(unittest.TestCase):
    def client(self, *arguments, **keywords):
        environment = {key: value for key, value in os.environ.items() if key != "BRELIX_IDENTITY"}
        return run(harness.BIN / "brelix-client", *arguments, env=environment, **keywords)

    def test_help_and_version_end_with_0_on_standard_output(self):
        for word in ("--help", "--version"):
            done = self.client(word)
            self.assertEqual(0, done.returncode)
            self.assertTrue(done.stdout)
            self.assertFalse(done.stderr)

    def test_help_tells_the_exit_status(self):
        text = self.client("--help").stdout.decode()
        for line in ("0  done", "1  failed", "2  bad usage", "3  timed out", "4  refused"):
            self.assertIn(line, text)

    def test_every_command_has_help(self):
        for command in ("register", "unregister", "send", "receive", "listen", "cancel", "ping",
                        "status", "heartbeat", "subscribe"):
            done = self.client(command, "--help")
            self.assertEqual(0, done.returncode, command)
            self.assertIn("Usage", done.stdout.decode())

    def test_bad_usage_ends_with_2_and_one_line(self):
        rows = [
            [],
            ["dance"],
            ["ping"],  # no identity
            ["--identity", ".", "--port", "0", "ping"],
            ["--identity", ".", "--port", "70000", "ping"],
            ["--identity", ".", "--port", "1\n2", "ping"],
            ["--identity", ".", "--timeout", "-1", "ping"],
            ["--identity", ".", "--json", "--text", "ping"],
            ["--identity", ".", "send"],
            ["--identity", ".", "send", "agent"],  # no payload
            ["--identity", ".", "send", "agent", "--text", "a", "--file", "b"],
            ["--identity", ".", "send", "agent", "--text", "a", "-"],
            ["--identity", ".", "send", "agent", "--text", "a", "--priority", "high"],
            ["--identity", ".", "send", "agent", "--text", "a", "--ttl", "99999999999"],
            ["--identity", ".", "receive", "--count", "-1"],
            ["--identity", ".", "receive", "--notify"],  # of no use without --pull
            ["--identity", ".", "listen", "--notify"],
            ["--identity", ".", "cancel", "agent"],
            ["--identity", ".", "status"],
            ["--identity", ".", "subscribe"],
            ["--identity", ".", "subscribe", "everybody"],
        ]
        for row in rows:
            done = self.client(*row)
            self.assertEqual(2, done.returncode, row)
            self.assertFalse(done.stdout, row)
            text = done.stderr.decode()
            self.assertTrue(text.startswith("brelix-client: "), text)
            self.assertEqual(1, text.count("\n"), text)

    def test_an_unknown_word_is_named(self):
        for row in (["dance"], ["--identity", ".", "dance"], ["ping", "--dance"]):
            self.assertIn("unknown: " + row[-1], self.client(*row).stderr.decode(), row)


class WithoutRouter(SystemTest):
    def client_at(self, port, *arguments, timeout="1"):
        return run(harness.BIN / "brelix-client", "--port", port, "--identity",
                   self.ca.issue("agent-1"), "--timeout", timeout, *arguments)

    def assert_ends(self, done, status, *words):
        text = done.stderr.decode()
        self.assertEqual(status, done.returncode, text)
        self.assertTrue(text.startswith("brelix-client: "), text)
        self.assertEqual(1, text.count("\n"), text)
        for word in words:
            self.assertIn(word, text)

    def serve(self, answer):
        """A listener that gives each caller to `answer`; returns its port."""
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)

        def accept():
            while True:
                try:
                    connection, _ = listener.accept()
                except OSError:
                    return
                try:
                    answer(connection)
                except OSError:
                    pass
        threading.Thread(target=accept, daemon=True).start()
        return listener.getsockname()[1]

    def test_nobody_at_the_port_ends_with_1(self):
        self.assert_ends(self.client_at(harness.free_port(), "ping"), 1, "cannot reach a router")

    def test_an_unknown_host_ends_with_1(self):
        done = run(harness.BIN / "brelix-client", "--host", "no-such-host.invalid", "--identity",
                   self.ca.issue("agent-1"), "ping")
        self.assert_ends(done, 1, "no-such-host.invalid")

    def test_a_silent_port_ends_with_3_in_time(self):
        held = []
        port = self.serve(held.append)
        self.assert_ends(self.client_at(port, "ping"), 3, "in time")
        for connection in held:
            connection.close()

    def test_a_port_that_dribbles_ends_with_3_in_time(self):
        def dribble(connection):
            stop = threading.Event()
            self.addCleanup(stop.set)
            with connection:
                while not stop.wait(0.05):
                    connection.sendall(b"0")
        self.assert_ends(self.client_at(self.serve(dribble), "ping"), 3, "in time")

    def test_a_port_that_says_nothing_ends_with_1(self):
        port = self.serve(lambda connection: connection.close())
        self.assert_ends(self.client_at(port, "ping"), 1, "closed the connection")

    def test_a_port_of_another_kind_ends_with_1(self):
        def greet(connection):
            with connection:
                connection.sendall(b"220 mail\r\n")
        self.assert_ends(self.client_at(self.serve(greet), "ping"), 1, "no object reference")

    def test_a_port_that_never_stops_ends_with_1(self):
        def flood(connection):
            with connection:
                while True:
                    connection.sendall(b"0" * 65536)
        self.assert_ends(self.client_at(self.serve(flood), "ping", timeout="20"), 1,
                         "no object reference")

    def test_a_reference_that_is_none_ends_with_1(self):
        def lie(connection):
            with connection:
                connection.sendall(b"IOR:" + b"ff" * 100)
        self.assert_ends(self.client_at(self.serve(lie), "ping"), 1)

    def test_a_missing_identity_ends_with_1(self):
        done = run(harness.BIN / "brelix-client", "--identity", self.folder, "ping")
        self.assert_ends(done, 1, "ca.pem")

    def test_a_damaged_identity_ends_with_1(self):
        folder = self.folder / "identity"
        folder.mkdir()
        source = self.ca.issue("agent-1")
        for file in source.iterdir():
            (folder / file.name).write_bytes(file.read_bytes())
        (folder / "certificate.pem").write_text("no certificate")
        done = run(harness.BIN / "brelix-client", "--identity", folder, "register")
        self.assert_ends(done, 1, "certificate.pem")
        (folder / "certificate.pem").write_bytes(
            (self.ca.issue("agent-2") / "certificate.pem").read_bytes())
        done = run(harness.BIN / "brelix-client", "--identity", folder, "register")
        self.assert_ends(done, 1, "do not belong together")


class WithRouter(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router()

    def assert_ends(self, done, status, *words):
        WithoutRouter.assert_ends(self, done, status, *words)

    def test_ping_prints_name_and_time(self):
        name, time, unit = self.client_ok(self.box, "agent-1", "ping").split()
        self.assertEqual(("router", "us"), (name, unit))
        self.assertGreater(int(time), 0)
        answer = json.loads(self.client_ok(self.box, "agent-1", "--json", "ping"))
        self.assertEqual("router", answer["router"])

    def test_ping_needs_no_certificate(self):
        folder = self.folder / "stranger"
        folder.mkdir()
        (folder / "ca.pem").write_bytes((self.ca.issue("agent-1") / "ca.pem").read_bytes())
        done = run(harness.BIN / "brelix-client", "--port", self.box.ior_port, "--identity", folder,
                   "ping")
        self.assertEqual(0, done.returncode, done.stderr)

    def test_a_router_of_another_authority_is_not_believed(self):
        other = harness.Ca(self.folder / "other")
        done = run(harness.BIN / "brelix-client", "--port", self.box.ior_port, "--identity",
                   other.issue("agent-1"), "--timeout", "5", "ping")
        self.assert_ends(done, 1)

    def test_a_client_of_our_authority_cannot_play_the_router(self):
        box = self.router("other", start=False, identity=self.ca.issue("agent-9"))
        box.start(wait=False)
        box.wait_log("Router certificate does not contain router role")

    def test_register_twice_is_refused(self):
        self.assertEqual("registered agent-1\n", self.client_ok(self.box, "agent-1", "register"))
        self.assert_ends(self.client(self.box, "agent-1", "register"), 4, "AlreadyRegistered")

    def test_what_needs_a_registration_is_refused_without(self):
        self.assert_ends(self.client(self.box, "agent-1", "unregister"), 4, "NotRegistered")
        self.assert_ends(self.client(self.box, "agent-1", "send", "agent-2", "--text", "a"), 4,
                         "NotRegistered")
        self.assert_ends(self.client(self.box, "agent-1", "receive"), 4, "NotRegistered")

    def test_a_reserved_type_is_refused(self):
        self.client_ok(self.box, "agent-1", "register")
        for kind in ("MS-Reply", "ms"):
            done = self.client(self.box, "agent-1", "send", "agent-2", "--type", kind, "--text", "")
            self.assert_ends(done, 4, "IllegalMessageType")

    def test_payloads_arrive_as_they_were_sent(self):
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")
        file = self.folder / "payload"
        file.write_bytes(b"from a file\n")
        binary = self.folder / "binary"
        binary.write_bytes(b"a\0b")
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", "Grüße \x1b[31m")
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--file", file)
        self.client_ok(self.box, "agent-1", "send", "agent-2", "-", input=b"from a pipe")
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--file", binary)
        self.client_ok(self.box, "agent-1", "send", "agent-2", "-", input=b"\xff\xfe")
        lines = self.client_ok(self.box, "agent-2", "--json", "receive", "--count", "5")
        first, second, third, fourth, fifth = map(json.loads, lines.splitlines())
        self.assertEqual("Grüße \x1b[31m", first["payload"])
        self.assertEqual("from a file\n", second["payload"])
        self.assertEqual("from a pipe", third["payload"])
        self.assertNotIn("payload", fourth)
        self.assertTrue(fourth["payload_hex"].endswith("03000000610062"), fourth)
        self.assertEqual("string", fifth["payload_type"])
        self.assertTrue(fifth["payload_hex"].endswith("03000000fffe00"), fifth)

    def test_text_output_lets_no_control_character_of_a_sender_through(self):
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", "\x1b[2J\nid: forged")
        text = self.client_ok(self.box, "agent-2", "receive")
        self.assertNotIn("\x1b", text)
        self.assertEqual(1, text.count("payload"))
        self.assertNotIn("\nid: forged", text)

    def test_receive_that_gets_nothing_ends_with_3(self):
        self.client_ok(self.box, "agent-1", "register")
        self.assert_ends(self.client(self.box, "agent-1", "receive", "--timeout", "0.5"), 3)
        self.assert_ends(
            self.client(self.box, "agent-1", "receive", "--count", "0", "--timeout", "0.5"), 3,
            "nothing received")

    def test_receive_takes_no_more_than_it_was_asked_for(self):
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")
        for number in range(3):
            self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", f"{number}")
        seen = []
        for _ in range(3):
            line = self.client_ok(self.box, "agent-2", "--json", "receive")
            seen.append(json.loads(line)["payload"])
        self.assertEqual(["0", "1", "2"], seen)
        self.wait_no_envelopes(self.box)

    def test_an_envelope_that_cannot_be_written_stays_with_the_router(self):
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", "kept")
        command = [str(word) for word in self.client_command(self.box, "agent-2", "receive")]
        with open("/dev/full", "wb") as full:
            done = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, timeout=60)
        self.assert_ends(done, 1, "cannot write")
        self.assertEqual(1, len(self.box.envelopes()))
        line = self.client_ok(self.box, "agent-2", "--json", "receive")
        self.assertEqual("kept", json.loads(line)["payload"])

    def test_an_interrupted_listen_ends_with_0_and_an_interrupted_receive_with_1(self):
        self.client_ok(self.box, "agent-1", "register")
        for command, status in (("listen", 0), ("receive", 1)):
            for number in (signal.SIGINT, signal.SIGTERM):
                mark = len(self.box.log())
                process = self.start_client(self.box, "agent-1", command)
                self.box.wait_log("Logged on agent-1 as a client", since=mark)
                process.send_signal(number)
                self.assertEqual(status, process.wait(30 * harness.PATIENCE), command)

    def test_listen_comes_back_after_the_router_was_killed(self):
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")
        process = self.start_client(self.box, "agent-2", "--json", "--timeout", "5", "listen",
                                    "--check", "0.2")
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", "one")
        self.assertEqual("one", json.loads(self.wait_line(process.stdout))["payload"])
        self.box.reload()  # a reinitialisation writes the table
        self.box.kill()
        mark = len(self.box.log())
        self.box.start()
        self.box.wait_log("Logged on agent-2 as a client", 20, since=mark)
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", "two")
        self.assertEqual("two", json.loads(self.wait_line(process.stdout))["payload"])

    def test_listen_comes_back_after_its_name_sent_something(self):
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")
        process = self.start_client(self.box, "agent-2", "--json", "listen", "--check", "0.2")
        self.box.wait_log("Logged on agent-2 as a client")
        self.client_ok(self.box, "agent-2", "send", "agent-2", "--text", "to myself")
        self.assertEqual("to myself", json.loads(self.wait_line(process.stdout))["payload"])

    def test_cancel_withdraws_only_what_waits(self):
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")
        number = self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", "a").strip()
        self.assertRegex(number, "^[0-9A-F]{8}$")
        self.assertEqual(1, len(self.box.envelopes()))
        self.assert_ends(self.client(self.box, "agent-2", "cancel", "agent-2", number), 1)
        self.client_ok(self.box, "agent-1", "cancel", "agent-2", number)
        self.wait_no_envelopes(self.box)
        self.assert_ends(self.client(self.box, "agent-1", "cancel", "agent-2", number), 1)
        self.assert_ends(self.client(self.box, "agent-1", "cancel", "agent-2", "xyz"), 2)


if __name__ == "__main__":
    unittest.main()
