"""Peers whose host is cut off: nothing closes their connections, and nothing answers any more."""

import ctypes
import os
import re
import shutil
import subprocess
import unittest

from harness import SystemTest, free_port, wait_until

# Of a network that is for documentation, so that it stands in nobody's way.
HOST = "198.51.100.1"
FAR = "198.51.100.2"
CLONE_NEWNET = 0x40000000


def connections(address):
    """The established TCP connections of this host with an address."""
    number = "".join(f"{int(part):02X}" for part in reversed(address.split(".")))
    with open("/proc/net/tcp") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    return [row for row in rows if row[2].startswith(number) and row[3] == "01"]


class VanishedPeer(SystemTest):
    """The router and those near it, and a peer elsewhere: two network namespaces that are joined to
    each other alone. Routers of other tests see nothing of their addresses."""

    def setUp(self):
        if os.geteuid() != 0 or shutil.which("ip") is None:
            self.skipTest("needs root and the program ip, for network namespaces")
        self.enter_namespace()
        # Added first, so it runs last: the router has ended by then.
        super().setUp()
        self.far = f"brelix-{os.getpid()}"
        self.ip("netns", "add", self.far)
        self.addCleanup(self.ip, "netns", "delete", self.far)
        self.ip("link", "add", "near", "type", "veth", "peer", "name", "far", "netns", self.far)
        self.ip("address", "add", f"{HOST}/30", "dev", "near")
        self.ip("-n", self.far, "address", "add", f"{FAR}/30", "dev", "far")
        for device in ("lo", "near"):
            self.ip("link", "set", device, "up")
        self.ip("-n", self.far, "link", "set", "far", "up")
        self.box = self.router(
            endpoint=f"giop:ssl:{HOST}:{free_port()}",
            settings={"LocalClientsOnly": 0, "KeepAliveSecs": 1, "PeerTimeoutSecs": 3,
                      "NumSenderThreads": 1, "ConnectionCache": 100})

    def enter_namespace(self):
        """A new one, for this thread and all that it starts."""
        system = ctypes.CDLL(None, use_errno=True)
        home = os.open("/proc/self/ns/net", os.O_RDONLY)
        if system.unshare(CLONE_NEWNET) != 0:
            os.close(home)
            self.skipTest("this system makes no network namespaces")

        def return_home():
            failed = system.setns(home, CLONE_NEWNET)
            os.close(home)
            if failed:
                raise AssertionError("this process can't leave the namespace")
        self.addCleanup(return_home)

    def ip(self, *words):
        done = subprocess.run(["ip", *words], capture_output=True)
        self.assertEqual(0, done.returncode, (words, done.stderr))

    def far_peer(self, name):
        return self.peer(self.box, name, host=HOST,
                         within=("ip", "netns", "exec", self.far)).log_on()

    def cut(self):
        """The far host has no address any more: what is sent to it is lost without a word."""
        self.ip("-n", self.far, "address", "flush", "dev", "far")

    def test_the_connections_of_a_silent_one_are_given_up(self):
        self.far_peer("agent-2")
        self.assertTrue(connections(FAR))
        self.cut()
        wait_until(lambda: not connections(FAR), 20, "the connections to be given up")

    def test_one_that_took_a_call_and_vanished_holds_no_sender_for_ever(self):
        sender = self.peer(self.box, "agent-1", host=HOST).log_on()
        near = self.peer(self.box, "agent-3", host=HOST).log_on()
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
        sender = self.peer(self.box, "agent-1", host=HOST).log_on()
        near = self.peer(self.box, "agent-3", host=HOST).log_on()
        far = self.far_peer("agent-2")
        sender("messages.SendMessage", destination="agent-2", text="a")
        far.wait_received(1)
        self.cut()
        sender("messages.SendMessage", destination="agent-2", text="b")
        sender("messages.SendMessage", destination="agent-3", text="c")
        near.wait_received(1, 60)
        self.assertIn("Failed to send messages, logging agent-2 off", self.box.log())
        wait_until(lambda: len(self.box.envelopes()) == 1, 10, "only the undelivered one to stay")


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
        box = self.router(settings={"KeepAliveSecs": 500})
        peer = self.peer(box, "agent-1").log_on()
        wait_until(lambda: 300 < self.keep_alive_seconds(box) <= 500, 10, "the probe of the default")
        box.write_settings(KeepAliveSecs=50)
        box.reload()
        peer.retry("reconnect")
        wait_until(lambda: 30 < self.keep_alive_seconds(box) <= 50, 10, "the probe of the new key")


if __name__ == "__main__":
    unittest.main()
