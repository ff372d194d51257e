#!/usr/bin/env python3
"""Many peers: idle clients that have logged on, then strangers with half messages on top.

Prints threads, resident memory a peer, and the round trip of one active client against that of the
same router while it was idle.

Usage: bench/many_peers.py [--clients N] [--strangers N]
"""

import argparse
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile

from hop_rate import BIN, free_port, run, wait_for
from waiting_envelopes import resident


def threads(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("Threads:"):
            return int(line.split()[1])
    return 0


def descriptors(pid):
    return len(list(pathlib.Path(f"/proc/{pid}/fd").iterdir()))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--clients", type=int, default=2000)
    parser.add_argument("--strangers", type=int, default=1000)
    options = parser.parse_args()
    work = pathlib.Path(tempfile.mkdtemp(prefix="brelix-many-", dir="/dev/shm"))
    crowd = router = None
    try:
        crowd = subprocess.Popen([str(BIN / "bench_crowd"), str(work / "identities")],
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert crowd.stdout.readline() == "made\n"
        home = work / "router"
        (home / "Router").mkdir(parents=True)
        shutil.copytree(work / "identities" / "router", home / "Router" / "Private")
        port = free_port()
        root = "SOFTWARE\\Brelix\\Messaging System"
        (home / "router.config").write_text(f'[{root}]\n"UseRelativeDataLocation"=dword:1\n')
        (home / "brelix.config").write_text(
            f'[{root}\\Router]\n"IORSenderPort"=dword:{port:x}\n"LogConsole"=dword:0\n'
            '"ConnectionCache"=dword:4000\n')
        router = subprocess.Popen([str(BIN / "brelix-message-router")], cwd=home,
                                  stderr=open(home / "stderr", "w"))
        logs = home / "Router" / "Logs"
        wait_for(lambda: any("Waiting for messages" in f.read_text() for f in logs.glob("*.log")),
                 20, "the router")

        def tell(command):
            crowd.stdin.write(command + "\n")
            crowd.stdin.flush()
            answer = crowd.stdout.readline().strip()
            if not answer:
                raise RuntimeError("the crowd has gone")
            return answer

        def ping():
            return json.loads(run(BIN / "bench_ping", "--identity",
                                  work / "identities" / "active", "--port", port).stdout)

        def report(what, round_trip, base, peers=0):
            line = (f"{what}: {threads(router.pid)} threads, {descriptors(router.pid)} descriptors, "
                    f"{resident(router.pid) / 1e6:.1f} MB resident, round trip median "
                    f"{round_trip['median_us']:.0f} us, 99th percentile {round_trip['p99_us']:.0f} us")
            if peers:
                line += (f", ratio {round_trip['median_us'] / base['median_us']:.2f}, "
                         f"{(resident(router.pid) - idle_memory) / 1024 / peers:.1f} KiB a peer")
            print(line, flush=True)

        tell(f"router {port}")
        base = ping()
        idle_memory = resident(router.pid)
        report("idle router", base, base)
        tell(f"idle {options.clients}")
        report(f"{options.clients} clients", ping(), base, options.clients)
        admitted = tell(f"strangers {options.strangers}")
        report(f"with {options.strangers} strangers ({admitted.split()[1]} finished TLS)", ping(),
               base, options.clients)
        router.terminate()
        print(f"stopped with status {router.wait(20)}")
    finally:
        if crowd:
            crowd.stdin.close()
            crowd.wait(20)
        if router and router.poll() is None:
            router.kill()
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
