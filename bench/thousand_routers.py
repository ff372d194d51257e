#!/usr/bin/env python3
"""A parent of many child routers: how fast they log on, and what a scan of its table costs.

Half of the children are pushed to; the others fetch and are fetched from, as by default.

Usage: bench/thousand_routers.py [--children N] [--seconds N]
"""

import argparse
import pathlib
import sys
import time

from many_peers import threads
from stage import Stage
from waiting_envelopes import resident

SCANS = {"GetterThread": "GetterTickSecs", "TimeoutThread": "TimeoutInterval"}


def processor_times(pid):
    """Nanoseconds by the name of the thread."""
    times = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            name = (task / "comm").read_text().strip()
            times[name] = times.get(name, 0) + int((task / "schedstat").read_text().split()[0])
        except FileNotFoundError:
            pass  # it has ended
    return times


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--children", type=int, default=1000)
    parser.add_argument("--seconds", type=int, default=20, help="scans of each kind, one a second")
    options = parser.parse_args()
    with Stage() as stage:
        children = stage.children()
        children("identity", "parent")
        parent = stage.router("parent", ConnectionCache=4000,
                              **{setting: 1 for setting in SCANS.values()}).start()
        pid = parent.process.pid
        idle = resident(pid)
        before = sum(processor_times(pid).values())
        children("router", "127.0.0.1", parent.ior_port)
        logons = children("children", options.children - options.children // 2,
                          options.children // 2)
        used = sum(processor_times(pid).values()) - before
        print(f"{options.children} children registered and logged on in {logons['seconds']:.1f} s, "
              f"{logons['per_second']:.0f} a second, {logons['failed']} failed, "
              f"{used / options.children / 1e6:.2f} ms of the parent's processor time each",
              flush=True)
        time.sleep(5)  # the first polls
        print(f"{threads(pid)} threads, {(resident(pid) - idle) / 1024 / options.children:.0f} KiB "
              "a child", flush=True)
        before = processor_times(pid)
        time.sleep(options.seconds)
        after = processor_times(pid)
        for name in SCANS:
            print(f"a scan of {name}: {(after[name] - before[name]) / options.seconds / 1e6:.3f} ms "
                  "of processor time", flush=True)
        everything = sum(after.values()) - sum(before.values())
        print(f"the whole parent, idle but for one of each a second: "
              f"{everything / options.seconds / 1e6:.1f} ms a second", flush=True)
        failures = parent.log().count("Failed to")
        print(f"{failures} failures in the parent's log")
    return 0


if __name__ == "__main__":
    sys.exit(main())
