#!/usr/bin/env python3
"""A chain of routers: the rate through three hops against one, a pulled link against a pushed one,
and how long one message takes through three hops against a bare TLS call.

The messages of a rate are queued at the first router while nobody can take them; the clock runs from
the first to the last arrival at the client of the last router. One hop is measured in two ways: so,
and fed by a neighbour while it delivers, as bench/hop_rate.py does.

What one message costs in processor time through one hop and through three is printed beside it, and
what the ratio could be at best with the processors that there are: three hops are three pushes and
three receipts.

Ends with 1 if a limit is missed: a pulled link at least half of a pushed one, the median latency
under 15 bare calls, both at a moderate pace and both one after the other, and three hops at least
0.7 of one hop.

Usage: bench/chain.py [--count N] [--messages N] [--rounds N]
"""

import argparse
import json
import os
import statistics
import subprocess
import sys

from hop_rate import BIN, cpu_seconds, measure_hop, measure_raw, run
from stage import Limits, Stage

PUSHED = {"ActiveConsumer": 0, "ActiveSupplier": 0}
PULLED = {}  # the defaults: each end fetches
PACE = 50  # messages and bare calls a second, where it is their latency that counts


class Chain:
    """Routers in the order in which a message passes them, and a client at the last. The names go up
    the tree, or down, where `down`."""

    def __init__(self, stage, names, settings, down=False):
        self.stage = stage
        self.down = down
        routers = []
        for name in names if down else reversed(names):  # parents first
            above = routers[-1] if routers else None
            routers.append(stage.router(name, above, **(settings if above else {})))
        self.routers = routers if down else routers[::-1]
        self.first, self.last = self.routers[0], self.routers[-1]
        # Of an unknown client the way up is the default.
        self.destination = ".".join([*names[1:], "receiver"]) if down else "receiver"
        self.client = None
        self.used = {}

    def fill(self, count):
        """Puts messages into the first router that it can't get rid of yet, and stops all."""
        self.first.start()
        if self.first is self.last:
            run(BIN / "bench_receiver", "--identity", self.stage.identity("receiver", "none"),
                "--port", self.first.ior_port, "--register-only")
        elif self.down:
            # A child has to be known.
            self.routers[1].start()
            self.wait_attached(self.routers[1])
            self.routers[1].stop()
        run(BIN / "bench_sender", "--identity", self.stage.identity("neighbour", "router"),
            "--port", self.first.ior_port, "--destination", self.destination, "--count", count,
            "--warmup", 0)
        self.first.stop()

    def wait_attached(self, router):
        router.wait_log("Logged on to parent router", 20)

    def start(self, router):
        router.start()
        self.used[router] = cpu_seconds(router.process.pid)

    def open(self, count, *options):
        """All but the first router, and the client, which waits for so many."""
        for router in reversed(self.routers[1:]):
            self.start(router)
            if not self.down and router is not self.last:
                self.wait_attached(router)
        if self.first is self.last:
            self.start(self.first)
        self.client = subprocess.Popen(
            [BIN / "bench_receiver", "--identity", self.stage.identity("receiver", "none"),
             "--port", str(self.last.ior_port), "--count", str(count), *options],
            stdout=subprocess.PIPE, text=True)
        self.stage.on_end(self.client.kill)
        if self.client.stdout.readline() != "ready\n":
            raise RuntimeError("no client")

    def result(self):
        received = json.loads(self.client.stdout.readline())
        self.client.wait()
        if not received["complete"]:
            raise RuntimeError(f"only {received['count']} arrived")
        return received

    def processor_times(self, count):
        """What a message took of each router since it was up, in microseconds."""
        return [(cpu_seconds(router.process.pid) - self.used[router]) / count * 1e6
                for router in self.routers]

    def close(self):
        for router in self.routers:
            router.stop()


def measure_rate(stage, names, settings, count, down=False):
    """Messages a second, and the processor time a message of each router and of the client, in
    microseconds."""
    chain = Chain(stage, names, settings, down)
    chain.fill(count)
    chain.open(count)
    if chain.first is not chain.last:
        chain.start(chain.first)
    received = chain.result()
    used = chain.processor_times(count) + [received["processor_us"]]
    chain.close()
    return received["per_second"], used


def measure_latency(stage, names, settings, messages, pace):
    """One message at a time, through all routers, `pace` a second or each as soon as the one before
    has arrived. They come from a client, or, at full speed, from a neighbour: a router gives its own
    clients' messages 128 new ids a second at most. What the last router does after the client has the
    message is not part of its latency, and may fall upon the next one."""
    arrivals = stage.folder / "arrivals"
    arrivals.unlink(missing_ok=True)
    os.mkfifo(arrivals)
    chain = Chain(stage, names, settings)
    limit = 60 + (messages / pace if pace else messages / 100)
    chain.open(messages + 20, "--arrivals", arrivals, "--limit", str(round(limit)))
    chain.start(chain.first)
    chain.wait_attached(chain.first)
    sender = (["--identity", stage.identity("agent", "none"), "--as-client", "--rate", pace] if pace
              else ["--identity", stage.identity("neighbour", "router"), "--destination",
                    chain.destination])
    run(BIN / "bench_sender", *sender, "--port", chain.first.ior_port, "--arrivals", arrivals,
        "--stamp", "--count", messages, "--warmup", 20)
    received = chain.result()
    chain.close()
    return received["stamped"]


def processors(rate, microseconds):
    return (" + ".join(f"{us:.0f}" for us in microseconds) +
            f" us of processor time, {rate * sum(microseconds) / 1e6:.1f} processors busy")


class Round:
    """Everything once; `ratios` by what they are of."""

    def __init__(self, stage, options):
        self.stage = stage
        self.count = options.count
        self.messages = options.messages
        self.ratios = {}
        self.hops()
        self.links()
        self.latency()

    def ratio(self, what, one, other):
        self.ratios[what] = one / other
        return f"{self.ratios[what]:.2f}"

    def hops(self):
        fed = measure_hop(self.stage.folder, self.stage.identities, self.count, self.stage.folder,
                          False)
        queued, queued_cpu = measure_rate(self.stage, ["only"], PUSHED, self.count)
        chain, chain_cpu = measure_rate(self.stage, ["leaf", "middle", "top"], PUSHED, self.count)
        print(f"one hop, fed while it delivers: {fed['per_second']:.0f}/s "
              f"({processors(fed['per_second'], [fed['cpu_us'], fed['ends_cpu_us']])})\n"
              f"one hop, already queued: {queued:.0f}/s ({processors(queued, queued_cpu)})\n"
              f"three hops, already queued: {chain:.0f}/s ({processors(chain, chain_cpu)})\n"
              f"three hops against one: {self.ratio('three hops', chain, queued)}, against one that "
              f"is fed meanwhile {self.ratio('three hops, fed', chain, fed['per_second'])}; "
              "processor time of one hop against three "
              f"{self.ratio('processor time', sum(queued_cpu), sum(chain_cpu))}, and of one that is "
              f"fed {(fed['cpu_us'] + fed['ends_cpu_us']) / sum(chain_cpu):.2f}\n"
              "at best, if three hops took three times the processor time of the one: "
              f"{self.ratio('three hops, at best', os.cpu_count() * 1e6, 3 * queued * sum(queued_cpu))}",
              flush=True)

    def links(self):
        for what, names, down in (("fetched from the child", ["leaf", "top"], False),
                                  ("fetched by the child", ["top", "leaf"], True)):
            pushed, _ = measure_rate(self.stage, names, PUSHED, self.count, down)
            pulled, used = measure_rate(self.stage, names, PULLED, self.count, down)
            print(f"one link: pushed {pushed:.0f}/s, {what} {pulled:.0f}/s, ratio "
                  f"{self.ratio(what, pulled, pushed)} ({processors(pulled, used)})", flush=True)

    def latency(self):
        for what, pace, messages in ((f"at {PACE} a second", PACE, self.messages),
                                     ("one after the other", 0, self.count)):
            bare = measure_raw(self.stage.folder, self.stage.identities, messages, None, False,
                               rate=pace)
            latency = measure_latency(self.stage, ["leaf", "middle", "top"], PUSHED, messages, pace)
            print(f"{what}: bare call {bare['median_us']:.0f} us, one message through three hops "
                  f"{latency['median_us']:.0f} us, 99th percentile {latency['p99_us']:.0f} us, "
                  f"{self.ratio('latency ' + what, latency['median_us'], bare['median_us'])} bare "
                  "calls", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=20000, help="messages of a rate")
    parser.add_argument("--messages", type=int, default=500, help="messages of a latency")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    with Stage() as stage:
        for name, role in (("raw", "router"), ("router", "router"), ("neighbour", "router"),
                           ("receiver", "none")):
            stage.identity(name, role)
        rounds = [Round(stage, options).ratios for _ in range(options.rounds)]
    medians = {what: statistics.median(one[what] for one in rounds) for what in rounds[0]}
    for what, value in medians.items():
        print(f"{what}: median ratio {value:.2f}")
    limits = Limits()
    for what in ("fetched from the child", "fetched by the child"):
        limits.at_least(0.5, medians[what], f"a link that is {what}, against a pushed one")
    for what in (what for what in medians if what.startswith("latency")):
        limits.below(15, medians[what], f"bare calls in the {what}")
    limits.at_least(0.7, medians["three hops"], "three hops against one")
    return limits.status()


if __name__ == "__main__":
    sys.exit(main())
