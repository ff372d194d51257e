"""Clients that fetch their messages, with and without being told when something waits."""

import json
import signal
import subprocess
import time
import unittest

import harness
from harness import SystemTest, wait_until

# More than a pipe holds: who prints it to a pipe that nobody reads hangs.
TOO_MUCH = "x" * 100000


class Pulling(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router()
        for name in ("agent-1", "agent-2"):
            self.client_ok(self.box, name, "register")

    def send(self, text, *options):
        return self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", text,
                              *options).strip()

    def receive(self, *options, command="receive"):
        """A running agent-2 that has logged on."""
        mark = len(self.box.log())
        process = self.start_client(self.box, "agent-2", "--json", command, "--pull", *options)
        self.box.wait_log("Logged on agent-2 as a client", since=mark)
        return process

    def payload(self, process):
        return json.loads(self.wait_line(process.stdout))["payload"]

    def fetch(self, *options):
        """What agent-2 prints, having ended with 0."""
        lines = self.client_ok(self.box, "agent-2", "--json", "receive", "--pull", *options)
        return [json.loads(line) for line in lines.splitlines()]

    def test_what_waited_is_fetched_and_gone(self):
        numbers = [self.send(str(number), "--priority", "7", "--type", "Greeting",
                             "--options", "colour=blue") for number in range(3)]
        self.assertEqual(3, len(self.box.envelopes()))
        fetched = self.fetch("--count", "3")
        self.assertEqual(numbers, [one["id"] for one in fetched])
        self.assertEqual(["0", "1", "2"], [one["payload"] for one in fetched])
        self.assertEqual(("router.agent-1", "agent-2", "Greeting", 7, "colour=blue"),
                         tuple(fetched[0][key] for key in
                               ("originator", "destination", "type", "priority", "options")))
        self.wait_no_envelopes(self.box)

    def test_what_comes_later_is_found_without_a_notification(self):
        process = self.receive()
        self.send("later")
        self.assertEqual("later", self.payload(process))
        self.assertEqual(0, process.wait(30 * harness.PATIENCE))
        self.wait_no_envelopes(self.box)
        self.assertNotIn("Notifying agent-2", self.box.log())

    def test_the_higher_priority_is_fetched_first(self):
        for priority in (1, 9, 5):
            self.send(str(priority), "--priority", str(priority))
        self.assertEqual(["9", "5", "1"], [one["payload"] for one in self.fetch("--count", "3")])

    def test_count_leaves_the_rest_with_the_router(self):
        for number in range(3):
            self.send(str(number))
        self.assertEqual(["0", "1"], [one["payload"] for one in self.fetch("--count", "2")])
        wait_until(lambda: len(self.box.envelopes()) == 1, 10, "two of three to be gone")
        self.assertEqual(["2"], [one["payload"] for one in self.fetch()])

    def test_the_time_ends_it_with_3_when_there_is_too_little(self):
        self.send("only one")
        done = self.client(self.box, "agent-2", "receive", "--pull", "--count", "2",
                           "--timeout", "1.5")
        self.assertEqual(3, done.returncode)
        self.assertIn("received 1 of 2", done.stderr.decode())
        self.assertIn("only one", done.stdout.decode())
        self.wait_no_envelopes(self.box)

    def test_the_time_ends_one_without_a_count_with_0_if_it_got_anything(self):
        self.send("something")
        fetched = self.fetch("--count", "0", "--timeout", "1.5")
        self.assertEqual(["something"], [one["payload"] for one in fetched])
        done = self.client(self.box, "agent-2", "receive", "--pull", "--count", "0",
                           "--timeout", "0.5")
        self.assertEqual(3, done.returncode)

    def test_the_time_ends_it_however_much_there_is(self):
        peer = self.peer(self.box, "agent-3").log_on()
        peer("bulk", destination="agent-2", count=1000000, size=100)
        began = time.monotonic()
        done = self.client(self.box, "agent-2", "receive", "--pull", "--count", "0",
                           "--timeout", "2")
        took = time.monotonic() - began
        peer("bulk_stop")
        self.assertEqual(0, done.returncode)
        self.assertTrue(done.stdout)
        self.assertLess(took, 10 * harness.PATIENCE)

    def test_the_same_ways_of_ending_with_notifications(self):
        self.send("one")
        self.assertEqual(["one"], [one["payload"] for one in self.fetch("--notify")])
        self.send("two")
        self.assertEqual(["two"], [one["payload"] for one in
                                   self.fetch("--notify", "--count", "0", "--timeout", "1.5")])
        done = self.client(self.box, "agent-2", "receive", "--pull", "--notify",
                           "--timeout", "0.5")
        self.assertEqual(3, done.returncode)
        self.wait_no_envelopes(self.box)

    def test_a_notification_brings_the_next_one_without_waiting_for_a_check(self):
        process = self.receive("--notify", "--check", "1000", "--count", "3")
        for text in ("first", "second", "third"):
            self.send(text)
            self.assertEqual(text, self.payload(process))
        self.assertEqual(0, process.wait(30 * harness.PATIENCE))
        self.wait_no_envelopes(self.box)
        self.assertGreaterEqual(self.box.log().count("Successfully notified agent-2"), 3)

    def test_many_at_once_are_all_found_by_notifications(self):
        process = self.receive("--notify", "--check", "1000", "--count", "200")
        sender = self.peer(self.box, "agent-3").log_on()
        sender("bulk", destination="agent-2", count=200, size=100)
        got = [json.loads(self.wait_line(process.stdout))["id"] for _ in range(200)]
        self.assertEqual(200, len(set(got)))
        self.assertEqual(0, process.wait(30 * harness.PATIENCE))
        self.wait_no_envelopes(self.box)

    def test_a_check_finds_what_no_notification_told_of(self):
        # The second message is sent under the same name, whose logon takes the place of the first.
        self.send("waited")
        process = self.receive("--notify", "--check", "0.3", "--count", "2")
        self.assertEqual("waited", self.payload(process))
        self.client_ok(self.box, "agent-2", "send", "agent-2", "--text", "to myself")
        self.assertEqual("to myself", self.payload(process))

    def test_a_router_with_threshold_threads_asks_first_and_notifies_then(self):
        self.box.write_settings(NumNotificationThresholdThreads=1)
        self.box.reload()
        process = self.receive("--notify", "--check", "1000")
        self.box.wait_log("Successful NotificationThreshold call to agent-2")
        self.send("worth it")
        self.assertEqual("worth it", self.payload(process))

    def test_it_comes_back_after_the_router_was_killed(self):
        process = self.receive("--notify", "--check", "0.3", command="listen")
        self.send("one")
        self.assertEqual("one", self.payload(process))
        self.wait_no_envelopes(self.box)
        self.box.reload()  # a reinitialisation writes the table
        self.box.kill()
        mark = len(self.box.log())
        self.box.start()
        self.box.wait_log("Logged on agent-2 as a client", 20, since=mark)
        self.send("two")
        self.assertEqual("two", self.payload(process))

    def test_an_interrupt_ends_it_and_keeps_what_waits(self):
        process = self.receive("--notify", command="listen")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(0, process.wait(30 * harness.PATIENCE))
        self.send("kept")
        self.assertEqual(["kept"], [one["payload"] for one in self.fetch()])

    def test_killed_between_fetching_and_acknowledging_it_is_supplied_again(self):
        for mode in ((), ("--notify",)):
            self.send(TOO_MUCH)
            mark = len(self.box.log())
            process = self.start_client(self.box, "agent-2", "--json", "receive", "--pull", *mode)
            # It hangs in printing: the pipe is full, and the acknowledgement comes after.
            self.box.wait_log("Supplying message", since=mark)
            self.assertTrue(process.stdout.read(1))
            process.kill()
            process.wait()
            self.assertEqual(1, len(self.box.envelopes()))
            fetched, = self.fetch()
            self.assertEqual(TOO_MUCH, fetched["payload"])
            self.wait_no_envelopes(self.box)

    def test_what_cannot_be_printed_is_not_acknowledged(self):
        self.send("kept")
        command = [str(word) for word in
                   self.client_command(self.box, "agent-2", "receive", "--pull")]
        with open("/dev/full", "wb") as full:
            done = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, timeout=60)
        self.assertEqual(1, done.returncode)
        self.assertIn("cannot write", done.stderr.decode())
        self.assertEqual(["kept"], [one["payload"] for one in self.fetch()])


if __name__ == "__main__":
    unittest.main()
