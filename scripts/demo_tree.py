#!/usr/bin/env python3
"""The second half of demo.sh: routers in a tree of three levels. Takes the programs from the folder
in BRELIX_BIN; leaves nothing running and nothing behind, also when it is interrupted."""

import json
import pathlib
import re
import signal
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/system"))

from harness import SystemTest  # noqa: E402
from hosts import REFUSE, Hosts, Missing  # noqa: E402
from tree import Tree  # noqa: E402

CLIENTS = {"EM": "top", "agent-3": "leaf", "agent-4": "fenced"}


def step(text):
    print(f"\n== {text}", flush=True)


def say(text):
    print(text, flush=True)


class Demo(SystemTest):
    """Not a test: what a test starts and takes down again is just what is needed here."""

    def play(self):
        self.tree = self.plant()
        self.register()
        originator = self.question()
        self.kill_the_middle()
        self.answer(originator)
        self.behind_the_firewall()
        step("SIGTERM ends all routers in order")
        for name in reversed(self.tree.routers):
            self.assertEqual(0, self.tree[name].stop())
            say(f"{name:7} status 0; its log ends with: {self.tree[name].last_log_line()}")

    def plant(self):
        step("A tree: top, middle below it, leaf and fenced below middle")
        try:
            hosts = Hosts()
            self.addCleanup(hosts.close)
        except Missing as missing:
            say(f"No network namespaces here ({missing}): all routers are on this host, and there is "
                "no firewall before any of them.")
            hosts = None
        tree = Tree(self, {
            "top": {}, "middle": {"parent": "top"}, "leaf": {"parent": "middle"},
            "fenced": {"parent": "middle", "firewall": REFUSE}}, hosts)
        tree.start()
        for name, router in tree.routers.items():
            above = f", below {tree.parents[name]}" if name in tree.parents else ""
            say(f"{name:7} at {router.address}{above}")
        if hosts:
            say("Nobody can open a connection to the host of fenced: its firewall has")
            say(tree["fenced"].host.run("nft", "list", "chain", "inet", "brelix", "firewall").strip())
        return tree

    def register(self):
        step("Clients register: EM at the top, agent-3 at leaf, agent-4 at fenced")
        for name, at in CLIENTS.items():
            self.command(name, "register")
        # The tables go to disk at once; by themselves they do within a minute.
        self.tree.settle()

    def command(self, name, *words):
        """Shows a client's command, runs it, and returns what it printed."""
        at = self.tree[CLIENTS[name]]
        shown = " ".join(f"'{word}'" if " " in str(word) else str(word) for word in words)
        say(f"   [{at.name}] $ brelix-client --identity {name} {shown}")
        return self.client_ok(at, name, *words)

    def send(self, name, destination, text):
        say(self.command(name, "send", destination, "--text", text).strip())

    def receive(self, name, text):
        printed = self.command(name, "--json", "receive", "--count", "1", "--timeout", "20")
        envelope = json.loads(printed)
        say(printed.strip())
        self.assertEqual(text, envelope["payload"])
        return envelope["originator"]

    def question(self):
        step('agent-3 at the bottom sends to "EM"; unknown names go up, hop by hop')
        self.send("agent-3", "EM", "Is anybody up there?")
        return self.receive("EM", "Is anybody up there?")

    def kill_the_middle(self):
        step("kill -9 of middle")
        # What is under way at a kill may come twice.
        self.wait_all_delivered()
        self.tree["middle"].kill()

    def answer(self, originator):
        step(f"EM answers to the originator's address, {originator}; the answer waits at the top")
        self.send("EM", originator, "Always.")
        say("(An id is one router's own: the originator's makes it one of a kind.)")
        self.assertEqual(1, len(self.tree["top"].envelopes()))
        say(f"top/Envelopes: {self.tree['top'].envelopes()[0].name}")
        step("middle is started again; its neighbours find it, and the answer goes on")
        below = {name: len(self.tree[name].log()) for name in ("leaf", "fenced")}
        start = time.monotonic()
        self.tree.start("middle")
        self.receive("agent-3", "Always.")
        for name, mark in below.items():
            self.tree.wait_attached(name, since=mark)
        self.wait_all_delivered()
        say(f"All envelope files are gone, {time.monotonic() - start:.1f} seconds after the start.")

    def behind_the_firewall(self):
        middle, fenced = self.tree["middle"], self.tree["fenced"]
        if self.tree.hosts:
            step("EM writes to agent-4 at fenced, which nobody can call: fenced fetches it")
            knock = f"exec 3<>/dev/tcp/{fenced.address}/{fenced.ior_port}"
            with self.assertRaisesRegex(AssertionError, "Connection refused"):
                middle.host.run("bash", "-c", knock)
        else:
            step("EM writes to agent-4 at fenced, which fetches (and could be behind a firewall)")
        mark = len(middle.log())
        self.send("EM", "middle.fenced.agent-4", "Come and get it.")
        self.receive("agent-4", "Come and get it.")
        self.send("agent-4", "EM", "Thank you.")
        self.receive("EM", "Thank you.")
        self.wait_all_delivered()
        log = middle.log()[mark:]
        if self.tree.hosts:
            say("What middle's log said of it (it tries to call fenced once, and then waits for it):")
        for line in log.splitlines():
            if re.search(r"otif\w+ fenced|Supplying message .* to fenced", line):
                say(line)
        self.assertEqual(1, len(re.findall(r"Supplying message \(.*\) to fenced", log)))
        self.assertNotRegex(log, r"Sent message \(.*\) to fenced")

    def wait_all_delivered(self):
        for router in self.tree.routers.values():
            self.wait_no_envelopes(router)


def interrupted(*_):
    # The first one is enough; what follows must not be disturbed.
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: None)
    raise SystemExit(130)


def main():
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, interrupted)
    try:
        Demo.setUpClass()
        demo = Demo()
        demo.setUp()
        try:
            demo.play()
        except Exception:
            for router in demo._routers:
                print(f"demo: the log of {router.name} ends with\n{router.stderr()[-2000:]}",
                      file=sys.stderr)
            raise
        finally:
            demo.doCleanups()
    finally:
        Demo.doClassCleanups()


if __name__ == "__main__":
    main()
