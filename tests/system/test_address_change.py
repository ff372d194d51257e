"""A host whose address changes while its router runs, as a laptop's does."""

import re
import sys
import unittest

from harness import PeerException, SystemTest, run
from hosts import Hosts

NEW_ADDRESS = "198.18.0.99"
IPV6_ADDRESS = "fd00::1"


class AddressChange(SystemTest):
    def setUp(self):
        hosts = Hosts()
        self.addCleanup(hosts.close)
        super().setUp()
        self.home = hosts.add("home")
        self.box = self.router(host=self.home, settings={"CheckNetworkIfInterval": 1,
                                                         "LocalClientsOnly": 0})

    def reference(self):
        """What the newest reference says of the way to the router."""
        ior = re.findall(r"IOR:[0-9a-f]{20,}", self.box.log())[-1]
        return run("catior", ior).stdout.decode()

    def move(self):
        mark = len(self.box.log())
        self.home.ip(f"address add {NEW_ADDRESS}/24 dev net",
                     f"address del {self.home.address}/24 dev net",
                     # The second address of a network goes with the first.
                     f"address replace {NEW_ADDRESS}/24 dev net")
        self.home.address = self.box.address = NEW_ADDRESS
        self.box.wait_log("Waiting for messages...", 30, since=mark)

    def test_the_reference_names_the_new_address_and_no_other(self):
        old = self.home.address
        self.assertIn(old + " ", self.reference())
        self.move()
        self.assertIn(NEW_ADDRESS + " ", self.reference())
        self.assertNotIn(old + " ", self.reference())

    def give_both_kinds(self):
        self.home.add_ipv6(IPV6_ADDRESS)
        self.box.write_settings(LocalClientsOnly=1)
        self.box.reload()
        # It listens there, too.
        connect = "import socket, sys; socket.create_connection((sys.argv[1], int(sys.argv[2])), 5)"
        self.home.run(sys.executable, "-c", connect, IPV6_ADDRESS, str(self.box.tls_port))

    def test_the_reference_names_no_address_of_another_kind(self):
        self.give_both_kinds()
        self.assertIn(self.home.address + " ", self.reference())
        self.assertNotIn(IPV6_ADDRESS, self.reference())

    def test_a_local_client_that_is_refused_once_is_local_afterwards(self):
        self.give_both_kinds()
        peer = self.peer(self.box, "agent-1", host=self.home).log_on()
        with self.home.refusing(self.box.tls_port):
            self.box.reload()
            with self.assertRaises(PeerException) as refused:
                peer("reconnect")
            self.assertEqual("TRANSIENT", refused.exception.name)
        peer.retry("reconnect")

    def test_a_client_finds_the_router_again(self):
        self.move()
        peer = self.peer(self.box, "agent-1", host=self.home).log_on()
        peer("messages.SendMessage", destination="agent-1", text="to myself")
        peer.wait_received(1)


if __name__ == "__main__":
    unittest.main()
