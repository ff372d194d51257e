"""A tree of seven routers under load while routers are killed and lines are cut, and the ledgers of
what was accepted and what arrived.

    storm = Storm(test, kills=10, cuts=3, seed=1)
    storm.run()     # fails if anything that was accepted is missing in the end
    print(storm.report())
"""

import random
import time

from harness import wait_until
from tree import Tree

ROUTERS = {
    "top": {},
    "east": {"parent": "top"},
    "west": {"parent": "top", "ActiveConsumer": 0, "ActiveSupplier": 0},
    "east-1": {"parent": "east", "ActiveSupplier": 0},
    "east-2": {"parent": "east"},
    "west-1": {"parent": "west", "ActiveConsumer": 0, "ActiveSupplier": 0},
    "west-2": {"parent": "west"},
}
# Who sends to whom: up to the management, across the tree, and down.
FLOWS = {
    ("a", "east-1"): "EM",
    ("a", "west-1"): "EM",
    ("a", "east-2"): "west-1.a",
    ("a", "west-2"): "east-2.a",
    ("EM", "top"): "east-1.a",
    ("b", "top"): "west-2.a",
}
RATE = 8
CALM = 3  # seconds before and after
# A child that neither fetches nor pushes learns only by its heartbeat that its parent has forgotten
# its session, so that this takes a minute or two.
SLOW_TO_LEARN = {"west-2": {"parent": "west", "ActiveConsumer": 0, "HeartbeatInterval": 1}}
# Sessions that a fault has ended are begun anew within so many milliseconds.
RECOVERY = 10000
# A fault catches a few calls at work; more copies than that are none of its doing.
COPIES = 3


def now():
    return int(time.monotonic() * 1000)


class Storm:
    def __init__(self, test, kills, cuts, seed, slow_to_learn=False):
        self.test = test
        self.kills = kills
        self.cuts = cuts
        self.random = random.Random(seed)
        routers = {**ROUTERS, **(SLOW_TO_LEARN if slow_to_learn else {})}
        self.tree = Tree(test, routers, test.hosts, LogicalRouting=1, LogLevel=0,
                         PeerTimeoutSecs=2, GetterInterval=1, GetterShortInterval=1,
                         NumSenderThreads=8, NumGetterThreads=4)
        self.peers = {}
        self.cut_until = {}
        self.faults = []  # (begin, end) in milliseconds of the steady clock
        self.seconds = 0
        self.slowest = 0

    def run(self):
        self.tree.start()
        # The line that most traffic passes takes its time.
        self.tree.slow_down("top", "east", 5)
        for name, at in FLOWS:
            label = name if name == "EM" else f"{name}-{at}"
            peer = self.tree.client(label, at=at)
            peer("record", file=str(self.test.folder / f"received-{label}"))
            self.peers[name, at] = peer
        self.tree.settle()
        self.calm("before")
        self.storm()
        self.calm("after")
        self.check()

    def send(self, phase):
        for (name, at), destination in FLOWS.items():
            router, _, client = destination.rpartition(".")
            to = f"{router}.{client}-{router}" if router else client
            self.peers[name, at]("bulk", destination=to, count=10**6, rate=RATE, size=300,
                                 tag=f"{phase}-{name}-{at}", ledger=self.ledger(phase),
                                 reconnect=True, deadline=10**6)

    def stop_sending(self):
        for peer in self.peers.values():
            peer("bulk_stop")
        for peer in self.peers.values():
            done = peer("bulk_wait", seconds=70, timeout=60)
            self.test.assertNotIn("running", done)

    def ledger(self, phase):
        return str(self.test.folder / f"ledger-{phase}")

    def calm(self, phase):
        self.send(phase)
        time.sleep(CALM)
        self.stop_sending()
        self.wait_arrived(phase)

    def storm(self):
        self.send("storm")
        start = time.monotonic()
        faults = ["kill"] * self.kills + ["cut"] * self.cuts
        self.random.shuffle(faults)
        for fault in faults:
            time.sleep(self.random.uniform(0.1, 1.0))
            self.mend()
            if fault == "kill":
                self.kill(self.random.choice(list(ROUTERS)))
            else:
                self.cut()
        while self.cut_until:
            self.mend()
            time.sleep(0.1)
        self.stop_sending()
        self.seconds = time.monotonic() - start
        self.wait_arrived("storm")
        self.slowest = time.monotonic() - start - self.seconds

    def kill(self, name):
        begin = now()
        router = self.tree[name]
        router.kill()
        time.sleep(self.random.uniform(0, 0.7))
        router.start()
        for (_, at), peer in self.peers.items():
            if at == name:
                peer.retry("reconnect")
        self.faults.append((begin, now()))

    def cut(self):
        line = self.random.choice([one for one in self.tree.parents if one not in self.cut_until])
        self.tree.cut(line, self.tree.parents[line])
        length = self.random.randint(1000, 7000)
        self.cut_until[line] = now() + length
        self.faults.append((now(), now() + length))

    def mend(self):
        for line, end in list(self.cut_until.items()):
            if end <= now():
                self.tree.mend(line, self.tree.parents[line])
                del self.cut_until[line]

    # The ledgers

    def accepted(self, phase):
        with open(self.ledger(phase)) as file:
            return {line.split()[1]: int(line.split()[2]) for line in file}

    def received(self):
        """{tag: times at which it came}."""
        out = {}
        for path in self.test.folder.glob("received-*"):
            for line in path.read_text().splitlines():
                _, _, tag, moment = line.split()
                out.setdefault(tag, []).append(int(moment))
        return out

    def wait_arrived(self, phase):
        accepted = set(self.accepted(phase))

        def missing():
            for router in self.tree.routers.values():
                self.test.assertTrue(router.running(), f"{router.name} has ended")
            return accepted - set(self.received())
        wait_until(lambda: not missing(), 90, f"all of {phase} to arrive")
        for router in self.tree.routers.values():
            self.test.wait_no_envelopes(router, 60)

    def twice(self, phase):
        received = self.received()
        return {tag: received[tag] for tag in self.accepted(phase) if len(received[tag]) > 1}

    def copies(self):
        return sum(len(times) - 1 for times in self.twice("storm").values())

    def check(self):
        test = self.test
        for phase in ("before", "after"):
            test.assertGreater(len(self.accepted(phase)), CALM * RATE * len(FLOWS) / 2)
            test.assertFalse(self.twice(phase), f"came twice, {phase} the faults")
        sent = self.accepted("storm")
        for tag, times in self.twice("storm").items():
            test.assertTrue(any(sent[tag] <= end + RECOVERY and begin - 1000 <= min(times)
                                for begin, end in self.faults), f"{tag} came twice: {times}")
        test.assertLessEqual(self.copies(), COPIES * len(self.faults))
        for router in self.tree.routers.values():
            test.assertFalse(router.envelopes("*.bad"))
            test.assertNotIn("Cannot route", router.log())

    def report(self):
        accepted = len(self.accepted("storm"))
        return (f"{self.kills} kills and {self.cuts} cuts in {self.seconds:.0f} s: "
                f"{accepted} messages accepted, none lost, "
                f"{self.copies()} came once more; "
                f"all were there {self.slowest:.0f} s after the last fault")
