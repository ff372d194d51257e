#!/usr/bin/env python3
"""Start with many files, and what each envelope costs that waits for a client that is away.

Usage: bench/waiting_envelopes.py [--files N]...   (default 100000 and 1000000, on /dev/shm)
"""

import argparse
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

from hop_rate import BIN, cpu_seconds, free_port, issue, run, wait_for


def any_of_string(text):
    data = text.encode() + b"\0"
    raw = (0x12).to_bytes(4, "little") + bytes(4) + len(data).to_bytes(4, "little") + data
    return raw.hex()


def write_files(folder, count):
    certificate = any_of_string("-----BEGIN CERTIFICATE-----\n" + "x" * 40)
    payload = any_of_string("x" * 64)
    for index in range(count):
        text = (f"[PersistentIndex] {index}\n[FromParent] 0\n[Originator] router1.agent-1\n"
                f"[OriginatorCertificate] {certificate}\n[PhysicalDestination] agent-2\n"
                f"[MessageId] {index}\n[Destination] agent-2\n[Priority] {index % 3}\n[TTL] 0\n"
                f"[Type] Status.Report\n[Data] {payload}\n"
                "[Timestamps] (2,(agent-1,1763712000),(router1,1763712000))\n[Options] \n")
        with open(f"{folder}/{index:08x}.msg", "w") as file:
            file.write(text)


def resident(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) * 1024
    return 0


def wait_until_idle(pid, seconds):
    deadline = time.monotonic() + seconds
    last = cpu_seconds(pid)
    while time.monotonic() < deadline:
        time.sleep(1)
        now = cpu_seconds(pid)
        if now - last < 0.02:
            return
        last = now
    raise RuntimeError("the router did not come to rest")


def measure(work, count):
    home = work / "router"
    shutil.rmtree(home, ignore_errors=True)
    envelopes = home / "Router" / "Envelopes"
    envelopes.mkdir(parents=True)
    shutil.copytree(work / "identity", home / "Router" / "Private")
    root = "SOFTWARE\\Brelix\\Messaging System"
    (home / "router.config").write_text(f'[{root}]\n"UseRelativeDataLocation"=dword:1\n')
    (home / "brelix.config").write_text(
        f'[{root}\\Router]\n"IORSenderPort"=dword:{free_port():x}\n"LogConsole"=dword:0\n')
    (home / "Router" / "table_router.txt").write_text("agent-2.0..\n")
    write_files(envelopes, count)
    log = open(home / "stderr", "w")
    begin = time.monotonic()
    router = subprocess.Popen([str(BIN / "brelix-message-router")], cwd=home, stderr=log)
    try:
        logs = home / "Router" / "Logs"
        wait_for(lambda: "Waiting for messages" in "".join(
            f.read_text(errors="replace") for f in sorted(logs.glob("*.log"))[-2:]), 600,
            "the router")
        ready = time.monotonic() - begin
        wait_until_idle(router.pid, 900)
        return ready, resident(router.pid)
    finally:
        router.terminate()
        router.wait(60)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, action="append")
    options = parser.parse_args()
    work = pathlib.Path(tempfile.mkdtemp(prefix="brelix-waiting-", dir="/dev/shm"))
    try:
        run(BIN / "brelix-certmgr", "init", "--dir", work / "ca")
        issue(work, "identity", "router")
        _, idle = measure(work, 0)
        print(f"no envelopes: {idle / 1e6:.1f} MB resident", flush=True)
        for count in options.files or [100000, 1000000]:
            ready, memory = measure(work, count)
            print(f"{count} envelopes: start {ready:.1f} s to \"Waiting for messages...\", "
                  f"{memory / 1e6:.1f} MB resident, {(memory - idle) / count:.0f} bytes each",
                  flush=True)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
