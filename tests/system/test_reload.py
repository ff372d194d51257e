"""SIGHUP: the router builds itself anew and loses nothing."""

import statistics
import unittest

import harness
from harness import SystemTest, wait_until

RELOADS = 80
# So many pass before memory has its level.
SETTLED = 40
# Threads that come and go would leave room unused, more or less of it, in each of many arenas.
ONE_ARENA = {"MALLOC_ARENA_MAX": "1"}


class Reload(SystemTest):
    def test_many_reloads_under_traffic_lose_nothing_and_leak_nothing(self):
        box = self.router(settings={"LogLevel": 0}, environment=ONE_ARENA)
        receiver = self.peer(box, "agent-2", timeout=10).log_on()
        receiver("record", file=str(self.folder / "received"))
        sender = self.peer(box, "agent-1", timeout=10).log_on()
        sender("bulk", destination="agent-2", count=1000000, rate=100, size=300, threads=2,
               ledger=str(self.folder / "ledger"), reconnect=True, deadline=3600)
        fds, rss = [], []
        for number in range(RELOADS):
            before = len(self.accepted())
            box.reload()
            receiver.retry("reconnect")
            wait_until(lambda: len(self.accepted()) > before, 20,
                       f"traffic after reload {number}")
            if number >= SETTLED:
                fds.append(box.fds())
                rss.append(box.rss())
        sender("bulk_stop")
        sender("bulk_wait")
        receiver.retry("reconnect")
        accepted = self.wait_all_received()
        self.wait_no_envelopes(box)
        early, late = statistics.median(rss[:10]), statistics.median(rss[-10:])
        print(f"\nreloads: {RELOADS}, accepted: {len(accepted)}, descriptors {min(fds)}..{max(fds)},"
              f" resident {min(rss)}..{max(rss)} KiB, at first {early}, at last {late}")
        # A few connections come and go with the traffic.
        self.assertLessEqual(max(fds) - min(fds), 8, fds)
        if not harness.SANITIZED:
            # The level goes up and down by a tenth of a megabyte.
            self.assertLessEqual(late, early + 10 * (len(rss) - 10), rss)

    def test_a_reload_while_the_router_starts_is_not_forgotten(self):
        box = self.router(start=False)
        box.start(wait=False)
        wait_until(lambda: "Creating ORB" in box.log(), 10, "the start")
        box.process.send_signal(harness.signal.SIGHUP)
        wait_until(lambda: box.log().count("Waiting for messages...") >= 2, 20, "a second cycle")

    def assert_serves(self, box):
        self.assertEqual("router", self.peer(box, "agent-1").connect()("root.GetName"))

    def test_the_authority_of_the_start_stays_in_force_without_its_file(self):
        box = self.router()
        (box.data / "Private" / "ca.pem").unlink()
        box.reload()
        self.assert_serves(box)
        self.assertEqual(0, box.stop())
        box.start(wait=False)
        self.assertEqual(1, box.wait_end())
        self.assertIn("Router::Start: Caught No CA certificate in certificate store", box.log())

    def test_another_authority_counts_from_the_next_start(self):
        other = harness.Ca(self.folder / "other")
        box = self.router()
        for file in other.issue("router", "router").iterdir():
            harness.shutil.copy(file, box.data / "Private")
        box.reload()
        # The certificate is the new one already, which those of the old authority don't trust.
        with self.assertRaises(harness.PeerException):
            self.peer(box, "agent-1").connect()("root.GetName")
        box.stop()
        box.start()
        stranger = harness.Peer(self, box, ca=other.issue("agent-1")).connect()
        self.assertEqual("router", stranger("root.GetName"))

    def test_without_its_certificate_a_reload_ends_the_router(self):
        box = self.router()
        (box.data / "Private" / "certificate.pem").unlink()
        box.process.send_signal(harness.signal.SIGHUP)
        self.assertEqual(1, box.wait_end())
        self.assertIn("Router::Start: Caught No certificate in certificate store", box.log())

    def test_the_log_goes_on_in_one_file(self):
        box = self.router()
        box.reload()
        box.reload()
        self.assertEqual(1, len(box.log_files()))

    def test_a_stop_during_a_reload_wins(self):
        box = self.router()
        box.process.send_signal(harness.signal.SIGHUP)
        box.process.send_signal(harness.signal.SIGTERM)
        self.assertEqual(0, box.wait_end())
        self.assertRegex(box.last_log_line(), " EOF: ")


if __name__ == "__main__":
    unittest.main()
