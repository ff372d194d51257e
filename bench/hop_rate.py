#!/usr/bin/env python3
"""Hop rate: envelopes through one router, one link in and one out, against bare TLS calls.

The baseline of each case is measured in the same run: a bare server over the same ORB and TLS that
takes the same envelopes and, in the cases on a disk, stores one file a call in the same way.

Usage: bench/hop_rate.py [--count N] [--case tmpfs|ext4|ext4-sync]... [--rounds N]
The ext4 cases need root: they make a journaled file system of their own.
"""

import argparse
import json
import pathlib
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import os

ROOT = pathlib.Path(__file__).resolve().parent.parent
BIN = pathlib.Path(os.environ.get("BRELIX_BIN", ROOT / "build/release/bin"))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run(*arguments):
    return subprocess.run([str(a) for a in arguments], check=True, capture_output=True, text=True)


def wait_for(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return
        time.sleep(0.02)
    raise RuntimeError(f"timed out: {what}")


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Journaled:
    """An ext4 with a journal, on a file of its own."""

    def __init__(self, folder):
        self.image = folder / "ext4.img"
        self.mount = folder / "ext4"
        self.mount.mkdir()
        run("truncate", "-s", "4G", self.image)
        run("mkfs.ext4", "-q", "-F", self.image)
        run("mount", "-o", "loop", self.image, self.mount)

    def close(self):
        subprocess.run(["umount", str(self.mount)], check=False)


def issue(folder, name, role):
    target = folder / name
    run(BIN / "brelix-certmgr", "issue", "--ca", folder / "ca", "--name", name, "--role", role,
        "--out", target)
    return target


def measure_raw(work, identities, count, store, sync, rate=None):
    ior = work / "raw.ior"
    ior.unlink(missing_ok=True)
    arguments = [BIN / "bench_raw_server", "--identity", identities / "raw", "--ior-file", ior]
    if store is not None:
        (store / "raw").mkdir(exist_ok=True)
        arguments += ["--store", store / "raw"] + (["--sync"] if sync else [])
    server = subprocess.Popen([str(a) for a in arguments], stdin=subprocess.PIPE)
    try:
        wait_for(ior.exists, 20, "the bare server")
        pace = ["--rate", rate] if rate else []
        result = run(BIN / "bench_sender", "--identity", identities / "neighbour", "--ior-file",
                     ior, "--count", count, *pace)
        return json.loads(result.stdout)
    finally:
        server.stdin.close()
        server.wait(20)


def measure_hop(work, identities, count, store, sync):
    home = work / "router"
    shutil.rmtree(home, ignore_errors=True)
    private = home / "Router" / "Private"
    private.parent.mkdir(parents=True)
    shutil.copytree(identities / "router", private)
    envelopes = store / "Envelopes"
    shutil.rmtree(envelopes, ignore_errors=True)
    envelopes.mkdir()
    port = free_port()
    root = "SOFTWARE\\Brelix\\Messaging System"
    (home / "router.config").write_text(f'[{root}]\n"UseRelativeDataLocation"=dword:1\n')
    (home / "brelix.config").write_text(
        f'[{root}\\Router]\n"IORSenderPort"=dword:{port:x}\n"LogConsole"=dword:0\n'
        f'"SyncEnvelopes"=dword:{1 if sync else 0}\n"EnvelopeDir"="{envelopes}"\n'
        '"ConnectionCache"=dword:64\n')
    log = open(home / "stderr", "w")
    router = subprocess.Popen([str(BIN / "brelix-message-router")], cwd=home, stderr=log)
    receiver = None
    warmup = 200
    try:
        logs = home / "Router" / "Logs"
        wait_for(lambda: any("Waiting for messages" in f.read_text()
                             for f in logs.glob("*.log")), 20, "the router")
        receiver = subprocess.Popen(
            [str(BIN / "bench_receiver"), "--identity", str(identities / "receiver"), "--port",
             str(port), "--count", str(count + warmup)], stdout=subprocess.PIPE, text=True)
        assert receiver.stdout.readline() == "ready\n"
        before = cpu_seconds(router.pid)
        begin = time.monotonic()
        sent = json.loads(run(BIN / "bench_sender", "--identity", identities / "neighbour",
                              "--port", port, "--count", count, "--warmup", warmup).stdout)
        received = json.loads(receiver.stdout.readline())
        used = cpu_seconds(router.pid) - before
        wall = time.monotonic() - begin
        if not received["complete"]:
            raise RuntimeError(f"only {received['count']} arrived")
        rate = min(sent["per_second"], received["per_second"])
        return {"sent_per_second": sent["per_second"],
                "received_per_second": received["per_second"], "per_second": rate,
                "cpu_us": used / (count + warmup) * 1e6, "wall": wall,
                "ends_cpu_us": sent["processor_us"] + received["processor_us"]}
    finally:
        if receiver:
            receiver.wait(20)
        router.terminate()
        router.wait(20)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=20000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--case", action="append", choices=["tmpfs", "ext4", "ext4-sync"])
    options = parser.parse_args()
    work = pathlib.Path(tempfile.mkdtemp(prefix="brelix-hop-", dir="/dev/shm"))
    disk = pathlib.Path(tempfile.mkdtemp(prefix="brelix-hop-", dir="/var/tmp"))
    journaled = None
    try:
        identities = work / "identities"
        identities.mkdir()
        run(BIN / "brelix-certmgr", "init", "--dir", identities / "ca")
        for name, role in (("raw", "router"), ("router", "router"), ("neighbour", "router"),
                           ("receiver", "none")):
            issue(identities, name, role)
        for case in options.case or ["tmpfs", "ext4", "ext4-sync"]:
            store = work
            count = options.count
            if case != "tmpfs":
                journaled = journaled or Journaled(disk)
                store = journaled.mount
            if case == "ext4-sync":
                count = max(200, count // 20)
            ratios, costs = [], []
            for _ in range(options.rounds):
                raw = measure_raw(work, identities, count, None if case == "tmpfs" else store,
                                  case == "ext4-sync")
                hop = measure_hop(work, identities, count, store, case == "ext4-sync")
                ratios.append(hop["per_second"] / raw["per_second"])
                costs.append(hop["cpu_us"])
                print(f"{case}: bare {raw['per_second']:.0f}/s (median {raw['median_us']:.0f} us), "
                      f"hop {hop['per_second']:.0f}/s, ratio {ratios[-1]:.2f}, "
                      f"router {hop['cpu_us']:.0f} us of processor time a message", flush=True)
            print(f"{case}: median ratio {statistics.median(ratios):.2f}, "
                  f"median processor time {statistics.median(costs):.0f} us", flush=True)
    finally:
        if journaled:
            journaled.close()
        shutil.rmtree(work, ignore_errors=True)
        shutil.rmtree(disk, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
