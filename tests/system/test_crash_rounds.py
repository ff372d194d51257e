"""Kill -9 at any moment: what the router has accepted, it delivers."""

import random
import unittest

from harness import SystemTest, wait_until

ROUNDS = 10
MESSAGES = 200


class CrashRounds(SystemTest):
    def ids(self, name):
        path = self.folder / name
        lines = path.read_text().splitlines() if path.exists() else []
        return {line.split()[0] for line in lines if line}

    def test_every_accepted_message_is_delivered_at_least_once(self):
        box = self.router()
        receiver = self.peer(box, "agent-2", timeout=10).log_on()
        receiver("record", file=str(self.folder / "received"))
        sender = self.peer(box, "agent-1", timeout=10).log_on()
        box.reload()  # puts the table on disk: who is registered must be known after a kill
        for peer in (sender, receiver):
            peer.retry("reconnect")
        for number in range(ROUNDS):
            # An originating router makes 128 ids a second, so that a round takes at least 1.6.
            sender("bulk", destination="agent-2", count=MESSAGES, size=200, tag=f"round{number}",
                   threads=4, ledger=str(self.folder / "ledger"), reconnect=True, deadline=60)
            done = sender("bulk_wait", timeout=random.uniform(0.05, 1.7))
            box.kill()
            box.start()
            receiver.retry("reconnect")
            if "running" in done:
                done = sender("bulk_wait", seconds=70, timeout=60)
                self.assertNotIn("running", done)
            sender.retry("reconnect")
            accepted = self.ids("ledger")
            wait_until(lambda: accepted <= self.ids("received"), 30,
                       f"every accepted message of round {number} to be delivered")
        self.assertGreater(len(self.ids("ledger")), ROUNDS * MESSAGES // 2)
        self.wait_no_envelopes(box)
        self.assertFalse(box.envelopes("*.bad"))
        self.assertFalse([file for file in (box.data / "Envelopes").iterdir()])


if __name__ == "__main__":
    unittest.main()
