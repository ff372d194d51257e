"""Kill -9 at any moment: what the router has accepted, it delivers."""

import random
import unittest

from harness import SystemTest

ROUNDS = 10
# More than the 128 ids of each of three seconds: a round takes two at least.
MESSAGES = 400


class CrashRounds(SystemTest):
    def test_every_accepted_message_is_delivered_at_least_once(self):
        box = self.router()
        receiver = self.peer(box, "agent-2", timeout=10).log_on()
        receiver("record", file=str(self.folder / "received"))
        sender = self.peer(box, "agent-1", timeout=10).log_on()
        box.reload()  # puts the table on disk: who is registered must be known after a kill
        for peer in (sender, receiver):
            peer.retry("reconnect")
        accepted = set()
        for number in range(ROUNDS):
            sender("bulk", destination="agent-2", count=MESSAGES, size=200, tag=f"round{number}",
                   threads=4, ledger=str(self.folder / "ledger"), reconnect=True, deadline=60)
            self.assertIn("running", sender("bulk_wait", timeout=random.uniform(0.05, 0.95)))
            box.kill()
            box.start()
            receiver.retry("reconnect")
            done = sender("bulk_wait", seconds=70, timeout=60)
            self.assertNotIn("running", done)
            sender.retry("reconnect")
            before, accepted = accepted, self.wait_all_received()
            # The kill costs each thread a message or two, of which it never learns the fate.
            self.assertGreater(len(accepted - before), MESSAGES // 2, done)
        ids = {id_ for id_, _ in accepted}
        self.assertEqual(len(accepted), len(ids), "ids were given out twice")
        self.wait_no_envelopes(box)
        self.assertFalse(box.envelopes("*.bad"))
        self.assertFalse([file for file in (box.data / "Envelopes").iterdir()])


if __name__ == "__main__":
    unittest.main()
