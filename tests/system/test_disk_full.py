"""A full disk: refused, nothing lost, and accepted again once there is room."""

import os
import unittest

import harness
from harness import SystemTest, run


class DiskFull(SystemTest):
    def setUp(self):
        super().setUp()
        self.disk = self.folder / "disk"
        self.disk.mkdir()
        if os.geteuid() != 0 or run("mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs",
                                    self.disk).returncode != 0:
            self.skipTest("needs the right to mount a small file system")
        self.addCleanup(self.unmount)
        self.box = self.router(settings={"EnvelopeDir": str(self.disk)})

    def unmount(self):
        for router in self._routers:
            router.clean_up()
        run("umount", "-l", self.disk)

    def files(self):
        return sorted(path.name for path in self.disk.iterdir())

    def test_the_sender_is_refused_until_there_is_room_again(self):
        sender = self.peer(self.box, "agent-1").log_on()
        self.client_ok(self.box, "agent-2", "register")
        accepted = []
        for number in range(1000):
            try:
                accepted.append(sender("messages.SendMessage", destination="agent-2",
                                       text=f"{number} " + "x" * 8000))
            except harness.PeerException as exception:
                self.assertEqual("Rejected", exception.name)
                break
        else:
            self.fail("the disk never got full")
        self.assertGreater(len(accepted), 3)
        # What was accepted is whole, and nothing lies beside it.
        self.assertEqual(len(accepted), len(self.files()), self.files())
        for name in self.files():
            self.assertRegex(name, "^[0-9a-f]{8}[.]msg$")
            self.assertEqual(13, len((self.disk / name).read_text().splitlines()), name)
        for _ in range(20):
            self.assert_raises("Rejected", sender, "messages.SendMessage", destination="agent-2",
                               text="x" * 8000)
        self.assertEqual(len(accepted), len(self.files()))
        self.assertIn("bad stream", self.box.log())

        receiver = self.peer(self.box, "agent-2")
        receiver.connect()
        receiver("client.LogonPushPush")
        receiver.wait_received(len(accepted))
        self.assertEqual(accepted, [one["id"] for one in receiver.received()])
        harness.wait_until(lambda: not self.files(), 20, "the files to go")
        sender("messages.SendMessage", destination="agent-2", text="x" * 8000)
        receiver.wait_received(len(accepted) + 1)

    def test_a_neighbour_is_refused_as_well_and_keeps_its_copy(self):
        self.client_ok(self.box, "agent-2", "register")
        child = self.peer(self.box, "child", "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("router.Logon")
        (self.disk / "ballast").write_bytes(b"x" * (250 << 10))
        envelope = dict(originator="child.agent-9", id=5, route=["agent-2"],
                        message={"destination": "agent-2", "text": "x" * 8000})
        self.assert_raises("Rejected", child, "router_consumer.SendEnvelope", **envelope)
        self.assertEqual(["ballast"], self.files())
        (self.disk / "ballast").unlink()
        child("router_consumer.SendEnvelope", **envelope)
        self.assertEqual(1, len(self.files()))

    def test_a_kill_on_a_full_disk_loses_nothing(self):
        sender = self.peer(self.box, "agent-1").log_on()
        self.client_ok(self.box, "agent-2", "register")
        self.box.reload()
        sender.retry("reconnect")
        accepted = set()
        for _ in range(1000):
            try:
                accepted.add(sender("messages.SendMessage", destination="agent-2",
                                    text="x" * 8000))
            except harness.PeerException:
                break
        self.box.kill()
        self.box.start()
        receiver = self.peer(self.box, "agent-2").connect()
        receiver("client.LogonPushPush")
        receiver.wait_received(len(accepted))
        self.assertEqual(accepted, {one["id"] for one in receiver.received()})


if __name__ == "__main__":
    unittest.main()
