"""A tree of seven routers under load while routers are killed and lines are cut, and the ledgers of
what was accepted and what arrived.

    storm = Storm(test, kills=10, cuts=3, seed=1)
    storm.run()     # fails if anything that was accepted is missing in the end, or came twice
                    # without a reason
    print(storm.report())

Some kills come two at a time, and some hit a router that is just starting. Where the test has no
hosts nothing is cut.
"""

import random
import time

from harness import PATIENCE, wait_until
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
RATE = 8  # a second, each flow
CALM = 3  # seconds before and after
LULLS = 3  # among the faults, at least
# A child that neither fetches nor pushes learns only by its heartbeat that its parent has forgotten
# its session, so that this takes a minute or two.
SLOW_TO_LEARN = {"west-2": {"parent": "west", "ActiveConsumer": 0, "HeartbeatInterval": 1}}
# Programs under sanitizers are so many times as slow.
SLOWNESS = max(1, PATIENCE / 2)
# A connection over which nothing came through is given up so long after a cut.
NOTICED = 3000 * SLOWNESS
# Both ends of a line have a new session so long after the last fault of theirs, but for a child that
# is slow to learn.
REUNITED = 5000 * SLOWNESS
REUNITED_SLOWLY = 130_000 * SLOWNESS
# How exactly the moments of different programs, and of a log in whole seconds, can be compared.
MARGIN = 500 * SLOWNESS


def now():
    return int(time.monotonic() * 1000)


def client(sender):
    """Its name in the tree: those of agents differ by their router."""
    name, at = sender
    return name if name == "EM" else f"{name}-{at}"


class Storm:
    def __init__(self, test, kills, cuts, seed, slow_to_learn=False):
        self.test = test
        self.kills = kills
        self.cuts = cuts if test.hosts else 0
        self.random = random.Random(seed)
        routers = {**ROUTERS, **(SLOW_TO_LEARN if slow_to_learn else {})}
        self.tree = Tree(test, routers, test.hosts, LogicalRouting=1, LogLevel=0,
                         PeerTimeoutSecs=2, GetterInterval=1, GetterShortInterval=1)
        self.peers = {}
        self.cuts_now = {}  # {line: (its begin, when it is to be mended)}
        # What can interrupt a message's way from one place to the next, as (begin, end) in
        # milliseconds of the steady clock: of each router, and of each line by the router below.
        self.interruptions = {name: [] for name in routers}
        self.line_interruptions = {name: [] for name in self.tree.parents}
        # From each kill until the router is there again.
        self.absences = {name: [] for name in routers}
        self.slow_to_learn = set(SLOW_TO_LEARN) if slow_to_learn else set()
        self.marks = {}
        self.while_starting = 0
        self.seconds = 0
        self.slowest = 0

    def run(self):
        self.tree.start()
        if self.test.hosts:
            # The line that most traffic passes takes its time.
            self.tree.slow_down("top", "east", 5)
        for sender in FLOWS:
            label = client(sender)
            peer = self.tree.client(label, at=sender[1])
            peer("record", file=str(self.test.folder / f"received-{label}"))
            self.peers[sender] = peer
        self.tree.settle()
        self.settled = now()
        self.calm("before")
        self.storm()
        self.calm("after")
        self.check()

    def send(self, phase):
        for sender, destination in FLOWS.items():
            router, _, name = destination.rpartition(".")
            to = f"{router}.{client((name, router))}" if router else name
            self.peers[sender]("bulk", destination=to, count=10**6, rate=RATE, size=300,
                               tag=f"{phase}-{client(sender)}", ledger=self.ledger(phase),
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
        faults = []
        while faults.count("kill") + 2 * faults.count("pair") < self.kills:
            left = self.kills - faults.count("kill") - 2 * faults.count("pair")
            faults.append(self.random.choice(["kill", "kill", "pair"]) if left > 1 else "kill")
        faults += ["cut"] * self.cuts
        self.random.shuffle(faults)
        # Some overlap, and now and then all recover. Without lulls nothing would be out of reach.
        lulls = sum(self.random.random() < 0.3 for _ in faults)
        lulls = self.random.sample(range(len(faults)), max(lulls, min(LULLS, len(faults))))
        for number, fault in enumerate(faults):
            time.sleep(self.random.uniform(3, 5) * SLOWNESS if number in lulls
                       else self.random.uniform(0.1, 1))
            self.mend()
            if fault == "cut":
                self.cut()
            else:
                self.kill(self.random.sample(list(ROUTERS), 2 if fault == "pair" else 1))
        while self.cuts_now:
            self.mend()
            time.sleep(0.1)
        self.stop_sending()
        self.seconds = time.monotonic() - start
        self.wait_arrived("storm")
        self.slowest = time.monotonic() - start - self.seconds

    def kill(self, names):
        begin = now()
        for name in names:
            self.kill_one(name)
        time.sleep(self.random.uniform(0, 0.7))
        if self.random.random() < 0.2:
            for name in names:
                self.tree[name].start(wait=False)
            time.sleep(self.random.uniform(0, 0.3))
            for name in names:
                self.kill_one(name)
            self.while_starting += len(names)
        for name in names:
            self.tree[name].start(wait=False)
        for name in names:
            self.tree[name].wait_log("Waiting for messages...", 30, since=self.marks[name])
            self.absences[name].append((begin, now()))
        for (_, at), peer in self.peers.items():
            if at in names:
                peer.retry("reconnect")

    def kill_one(self, name):
        moment = now()
        self.tree[name].kill()
        self.interruptions[name].append((moment, now()))
        self.marks[name] = len(self.tree[name].log())

    def cut(self):
        line = self.random.choice([one for one in self.tree.parents if one not in self.cuts_now])
        begin = now()
        self.tree.cut(line, self.tree.parents[line])
        self.cuts_now[line] = (begin, now() + self.random.randint(1000, 7000))

    def mend(self):
        for line, (begin, end) in list(self.cuts_now.items()):
            if end <= now():
                self.tree.mend(line, self.tree.parents[line])
                del self.cuts_now[line]
                # It may last longer than was meant, while killed routers start.
                self.line_interruptions[line].append((begin, now() + NOTICED))

    # The ledgers

    def accepted(self, phase):
        """{tag: (id, time at which it was sent)}."""
        with open(self.ledger(phase)) as file:
            rows = [line.split() for line in file]
        return {tag: (id_, int(moment)) for id_, tag, moment in rows}

    def received(self):
        """{tag: [(client, id, originator, time)]}, oldest first."""
        out = {}
        for path in self.test.folder.glob("received-*"):
            for line in path.read_text().splitlines():
                id_, originator, tag, moment = line.split()
                out.setdefault(tag, []).append(
                    (path.name.removeprefix("received-"), id_, originator, int(moment)))
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
        """{tag: time of the first arrival}."""
        received = self.received()
        return {tag: received[tag][0][-1] for tag in self.accepted(phase) if len(received[tag]) > 1}

    def copies(self):
        received = self.received()
        return sum(len(received[tag]) - 1 for tag in self.accepted("storm"))

    # Ways

    def above(self, name):
        """The router and all above it."""
        return [name] + (self.above(self.tree.parents[name]) if name in self.tree.parents else [])

    def way(self, sender):
        """The routers that a message of this sender passes, in order."""
        begin = self.above(sender[1])
        end = self.above(FLOWS[sender].rpartition(".")[0] or "top")
        meeting = next(name for name in begin if name in end)
        return begin[:begin.index(meeting) + 1] + end[:end.index(meeting)][::-1]

    def sessions_begun(self):
        """Each new session interrupts what was under way in the one before: {line: moments}, since
        all were attached."""
        offset = now() - int(time.time() * 1000)
        out = {}
        for line, parent in self.tree.parents.items():
            words = {line: ("Logged on to parent router", f"logging {parent} off"),
                     parent: (f"Logged on {line} as a router", f"logging {line} off")}
            out[line] = []
            for router, texts in words.items():
                for row in self.tree[router].log().splitlines():
                    if any(text in row for text in texts):
                        moment = time.mktime(time.strptime(row[:19], "%d.%m.%Y %H:%M:%S"))
                        begin = int(moment * 1000) + offset
                        if begin > self.settled + MARGIN:
                            out[line].append((begin, begin + 1000))
        return out

    def no_faults_of(self, sessions):
        """Those that no kill of either end and no cut of the line brought about: (line, moment)."""
        out = []
        for line, moments in sessions.items():
            faults = (self.absences[line] + self.absences[self.tree.parents[line]] +
                      self.line_interruptions[line])
            late = REUNITED_SLOWLY if line in self.slow_to_learn else REUNITED
            out += [(line, begin) for begin, end in moments if not any(
                begin <= last + late and first - MARGIN <= end for first, last in faults)]
        return out

    def interruptions_of(self, sender, sessions):
        """All that fell upon the way of a flow."""
        way = self.way(sender)
        lines = [one if self.tree.parents.get(one) == other else other
                 for one, other in zip(way, way[1:])]
        return ([moment for name in way for moment in self.interruptions[name]] +
                [moment for line in lines
                 for moment in self.line_interruptions[line] + sessions[line]])

    def check(self):
        for phase in ("before", "after"):
            self.test.assertGreater(len(self.accepted(phase)), CALM * RATE * len(FLOWS) / 2)
            self.test.assertFalse(self.twice(phase), f"came twice, {phase} the faults")
        self.check_places()
        # A session that ended by itself would excuse copies.
        self.check_sessions(self.sessions_begun())
        self.check_copies()
        for router in self.tree.routers.values():
            self.test.assertFalse(router.envelopes("*.bad"))
            self.test.assertNotIn("Cannot route", router.log())

    def check_places(self):
        """Each message came to its client alone, with its own id and from where it was sent."""
        accepted = {tag: row for phase in ("before", "storm", "after")
                    for tag, row in self.accepted(phase).items()}
        senders = {client(sender): sender for sender in FLOWS}
        for tag, arrivals in self.received().items():
            sender = senders[tag.split("-", 1)[1].rpartition("-")[0]]
            router, _, name = FLOWS[sender].rpartition(".")
            to = client((name, router)) if router else name
            origin = ".".join([*self.way(sender)[-2::-1], client(sender)])
            for place, id_, originator, _ in arrivals:
                # The client may not have learnt that it was accepted.
                expected = accepted[tag][0] if tag in accepted else id_
                self.test.assertEqual((to, expected, origin), (place, id_, originator), tag)

    def check_sessions(self, sessions):
        self.test.assertEqual([], self.no_faults_of(sessions), "new sessions without a fault")

    def check_copies(self):
        """What came twice was under way when something fell upon its way."""
        sent = self.accepted("storm")
        received = self.received()
        at_risk = self.at_risk(sent, received)
        for tag in self.twice("storm"):
            self.test.assertIn(tag, at_risk, f"came twice: {sent[tag]}, {received[tag]}")
        self.untouched = 1 - len(at_risk) / len(sent)
        # Otherwise the comparison would say nothing.
        self.test.assertGreater(self.untouched, 0.02)
        self.test.assertLessEqual(self.copies(), self.kills + self.cuts)

    def at_risk(self, sent, received):
        """The messages upon whose way something fell while they were under way."""
        sessions = self.sessions_begun()
        at_risk = set()
        for sender in FLOWS:
            moments = self.interruptions_of(sender, sessions)
            for tag, (_, begin) in sent.items():
                end = received[tag][0][-1]
                if tag.startswith(f"storm-{client(sender)}-") and any(
                        begin <= last + MARGIN and first - MARGIN <= end
                        for first, last in moments):
                    at_risk.add(tag)
        return at_risk

    def check_the_checks(self):
        """A copy out of reach of every fault is found out, and so are one at a wrong place and a
        session that nothing but itself has ended."""
        sent, received = self.accepted("storm"), self.received()
        line = self.random.choice(sorted(self.tree.parents))
        tag = self.random.choice(sorted(set(sent) - self.at_risk(sent, received)))
        to, id_, originator, moment = received[tag][0]
        row = f"{id_} {originator} {tag} {moment}\n"
        for wrong, check in ((to, self.check_copies),
                             ("EM" if to != "EM" else "b-top", self.check_places)):
            path = self.test.folder / f"received-{wrong}"
            before = path.read_text()
            path.write_text(before + row)
            with self.test.assertRaises(AssertionError):
                check()
            path.write_text(before)
        sessions = self.sessions_begun()
        with self.test.assertRaises(AssertionError):
            self.check_sessions({**sessions, line: [(self.settled, self.settled + 1)]})

    def report(self):
        accepted = len(self.accepted("storm"))
        return (f"{self.kills} kills, {self.while_starting} more of starting routers, and {self.cuts} "
                f"cuts in {self.seconds:.0f} s: {accepted} messages accepted, none lost, "
                f"{self.copies()} came once more, and {self.untouched:.0%} were out of reach of every "
                f"fault; all were there {self.slowest:.0f} s after the last fault")
