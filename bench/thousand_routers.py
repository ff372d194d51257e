#!/usr/bin/env python3
"""A parent of many child routers: how fast they log on, and what a scan of its table costs.

Half of the children are pushed to; the others fetch and are fetched from, as by default. While the
scans are watched their polls come due: each of those children is asked once in about ten seconds.

Ends with 1 if a limit is missed: no logon fails, at least 100 a second, a scan of either kind under
50 milliseconds of processor time, the polls really come, and in the end, when those that fetch have
been silent for long enough, a scan logs each of them off, and none before.

Usage: bench/thousand_routers.py [--children N] [--seconds N]
"""

import argparse
import pathlib
import sys
import time

from hop_rate import cpu_seconds
from many_peers import threads
from stage import Limits, Stage
from waiting_envelopes import resident

SCANS = {"GetterThread": "GetterTickSecs", "TimeoutThread": "TimeoutInterval"}
POLL_SECONDS = 10
FIRST_POLLS_SECONDS = 5
LOGONS_SECONDS = 20  # within which all of them log on
TIMEOUT = "Communications timeout, logging "


def processor_times(pid):
    """Nanoseconds by the name of the thread, of those that live."""
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
    polled = options.children // 2
    limits = Limits()
    with Stage() as stage:
        children = stage.children()
        children("identity", "parent")
        silence = LOGONS_SECONDS + FIRST_POLLS_SECONDS + options.seconds
        parent = stage.router("parent", ConnectionCache=4000, GetterInterval=POLL_SECONDS,
                              GetterShortInterval=POLL_SECONDS,
                              ActiveConsumerConnectionTimeout=silence,
                              **{setting: 1 for setting in SCANS.values()}).start()
        pid = parent.process.pid
        idle = resident(pid)
        before = cpu_seconds(pid)
        children("router", "127.0.0.1", parent.ior_port)
        logons = children("children", options.children - polled, polled)
        used = cpu_seconds(pid) - before
        print(f"{options.children} children registered and logged on in {logons['seconds']:.1f} s, "
              f"{used / options.children * 1e3:.2f} ms of the parent's processor time each",
              flush=True)
        limits.none(logons["failed"], "failed logons")
        limits.at_least(100, logons["per_second"], "logons a second")
        last_logon = time.monotonic()
        time.sleep(FIRST_POLLS_SECONDS)
        print(f"{threads(pid)} threads, {(resident(pid) - idle) / 1024 / options.children:.0f} KiB "
              "a child", flush=True)
        children("report")
        before, everything = processor_times(pid), cpu_seconds(pid)
        time.sleep(options.seconds)
        after, everything = processor_times(pid), cpu_seconds(pid) - everything
        polls = children("report")["polls"]
        # Each interval is drawn from half to one and a half times the configured one.
        limits.at_least(int(polled * options.seconds / POLL_SECONDS / 2), polls,
                        f"polls that came due in {options.seconds} s")
        for name in SCANS:
            limits.below(50, (after[name] - before[name]) / options.seconds / 1e6,
                         f"milliseconds of processor time of a scan of {name}")
        print(f"the whole parent, with one scan of each kind and {polls / options.seconds:.0f} polls "
              f"a second: {everything / options.seconds * 1e3:.1f} ms a second", flush=True)
        log = parent.log()
        limits.none(log.count("Failed to"), "failures in the parent's log")
        limits.none(log.count(TIMEOUT), "children that a scan logged off too early")
        while parent.log().count(TIMEOUT) < polled and time.monotonic() < last_logon + silence + 5:
            time.sleep(0.5)
        limits.at_least(polled, parent.log().count(TIMEOUT),
                        f"children that a scan logged off after {silence} s of silence")
    return limits.status()


if __name__ == "__main__":
    sys.exit(main())
