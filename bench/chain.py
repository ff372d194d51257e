#!/usr/bin/env python3
"""A chain of routers: the rate through three hops against one, a pulled link against a pushed one,
and how long one message takes through three hops against a bare TLS call.

The messages of a rate are queued at the leaf while nobody is above it; the clock runs from the first
to the last arrival at the client at the top.

Usage: bench/chain.py [--count N] [--messages N] [--rounds N]
"""

import argparse
import json
import statistics
import subprocess
import sys

from hop_rate import BIN, cpu_seconds, measure_hop, measure_raw, run
from stage import Stage

PUSHED = {"ActiveConsumer": 0, "ActiveSupplier": 0}
PULLED = {}  # the defaults: each end fetches


class Tree:
    """Routers one above the other, and a client at the top."""

    def __init__(self, stage, names, settings):
        self.stage = stage
        self.routers = []
        for name in reversed(names):
            above = self.routers[0] if self.routers else None
            self.routers.insert(0, stage.router(name, above, **(settings if above else {})))
        self.leaf = self.routers[0]
        self.client = None

    def fill(self, count):
        """Puts messages into the leaf that it can't get rid of yet, and stops it."""
        self.leaf.start()
        run(BIN / "bench_sender", "--identity", self.stage.identity("neighbour", "router"),
            "--port", self.leaf.ior_port, "--count", count, "--warmup", 0)
        self.leaf.stop()

    def open(self, count):
        """All but the leaf, each attached, and the client, which waits for so many."""
        for router in reversed(self.routers[1:]):
            self.start(router)
        self.client = subprocess.Popen(
            [BIN / "bench_receiver", "--identity", self.stage.identity("receiver", "none"),
             "--port", str(self.routers[-1].ior_port), "--count", str(count)],
            stdout=subprocess.PIPE, text=True)
        self.stage.on_end(self.client.kill)
        if self.client.stdout.readline() != "ready\n":
            raise RuntimeError("no client")

    def start(self, router):
        router.start()
        if router is not self.routers[-1]:
            router.wait_log("Logged on to parent router", 20)

    def result(self):
        received = json.loads(self.client.stdout.readline())
        self.client.wait()
        if not received["complete"]:
            raise RuntimeError(f"only {received['count']} arrived")
        return received

    def close(self):
        for router in self.routers:
            router.stop()


def measure_rate(stage, names, settings, count):
    """Messages a second, and the processor time a message of each router and of the client at the
    top, in microseconds."""
    tree = Tree(stage, names, settings)
    tree.fill(count)
    tree.open(count)
    before = [cpu_seconds(router.process.pid) for router in tree.routers[1:]]
    tree.leaf.start(wait=False)
    received = tree.result()
    used = [cpu_seconds(router.process.pid) for router in tree.routers]
    used = [used[0]] + [after - start for after, start in zip(used[1:], before)]
    tree.close()
    return received["per_second"], [seconds / count * 1e6 for seconds in used] + [received["processor_us"]]


def measure_latency(stage, names, settings, messages):
    """One message at a time, from a client of the leaf to one of the top."""
    tree = Tree(stage, names, settings)
    tree.open(messages + 20)
    tree.start(tree.leaf)
    run(BIN / "bench_sender", "--identity", stage.identity("agent", "none"), "--port",
        tree.leaf.ior_port, "--as-client", "--stamp", "--rate", 50, "--count", messages,
        "--warmup", 20)
    received = tree.result()
    tree.close()
    return received["stamped"]


def processors(rate, microseconds):
    return (" + ".join(f"{us:.0f}" for us in microseconds) +
            f" us of processor time, {rate * sum(microseconds) / 1e6:.1f} processors busy")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=20000, help="messages of a rate")
    parser.add_argument("--messages", type=int, default=500, help="messages of a latency")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    ratios = {"three hops": [], "pulled link": [], "latency": []}
    with Stage() as stage:
        for name, role in (("raw", "router"), ("router", "router"), ("neighbour", "router"),
                           ("receiver", "none")):
            stage.identity(name, role)
        for _ in range(options.rounds):
            raw = measure_raw(stage.folder, stage.identities, options.count, None, False)
            hop = measure_hop(stage.folder, stage.identities, options.count, stage.folder, False)
            chain, chain_cpu = measure_rate(stage, ["leaf", "middle", "top"], PUSHED, options.count)
            pushed, _ = measure_rate(stage, ["leaf", "top"], PUSHED, options.count)
            pulled, pulled_cpu = measure_rate(stage, ["leaf", "top"], PULLED, options.count)
            latency = measure_latency(stage, ["leaf", "middle", "top"], PUSHED, options.messages)
            ratios["three hops"].append(chain / hop["per_second"])
            ratios["pulled link"].append(pulled / pushed)
            ratios["latency"].append(latency["median_us"] / raw["median_us"])
            hop_cpu = [hop["cpu_us"], hop["ends_cpu_us"]]
            print(f"bare call {raw['median_us']:.0f} us; one hop {hop['per_second']:.0f}/s "
                  f"({processors(hop['per_second'], hop_cpu)})\n"
                  f"three hops {chain:.0f}/s, ratio {ratios['three hops'][-1]:.2f} "
                  f"({processors(chain, chain_cpu)})\n"
                  f"one link: pushed {pushed:.0f}/s, pulled {pulled:.0f}/s, ratio "
                  f"{ratios['pulled link'][-1]:.2f} "
                  f"({processors(pulled, pulled_cpu)})\n"
                  f"one message through three hops: median {latency['median_us']:.0f} us, 99th "
                  f"percentile {latency['p99_us']:.0f} us, {ratios['latency'][-1]:.1f} bare calls",
                  flush=True)
    for what, values in ratios.items():
        print(f"{what}: median ratio {statistics.median(values):.2f}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
