"""Hosts of a test's own: network namespaces on one switch, which reach each other and nothing else.

The namespaces have no names. They are held open by this process and end with it and with what runs
in them, however it ends, and routers elsewhere see nothing of their devices and addresses.
"""

import contextlib
import ctypes
import os
import shutil
import subprocess
import sys
import unittest

CLONE_NEWNET = 0x40000000
NETWORK = "198.18.0."  # for measurements in closed networks, so that it stands in nobody's way

# What a host takes in. Packets vanish without a word, as on a broken line.
RULES = """
table inet brelix {
  set deaf { type ipv4_addr; }
  chain input { type filter hook input priority 0; ip saddr @deaf drop; }
}
"""
# Only connections that begin here, as behind an office's firewall.
FIREWALL = """
table inet brelix {
  chain firewall {
    type filter hook input priority 1;
    iifname lo accept
    ct state established,related accept
    %s
  }
}
"""
# Connections to one port, by IPv4 alone.
REFUSED = """
table ip brelix_refused {
  chain input { type filter hook input priority 2; tcp dport %d reject with tcp reset; }
}
"""
# To the caller a firewall that refuses is a closed port; one that drops is silence.
REFUSE = "meta l4proto tcp reject with tcp reset"
DROP = "drop"
# What the relay sends itself bears a mark, and is not turned back into it.
SLOW = """
table ip brelix_slow {
  chain output {
    type nat hook output priority -100;
    meta mark 81 accept
    ip daddr %s tcp dport 1-65535 redirect to :%d
  }
}
"""
RELAY_PORT = 1081


class Missing(unittest.SkipTest):
    """This system makes no such hosts."""


def _check():
    if os.environ.get("BRELIX_NO_HOSTS"):
        raise Missing("BRELIX_NO_HOSTS says that there are no network namespaces")
    if not sys.platform.startswith("linux") or os.geteuid() != 0:
        raise Missing("needs root, to make network namespaces")
    for program in ("ip", "nsenter", "nft"):
        if shutil.which(program) is None:
            raise Missing(f"needs the program {program}, for network namespaces")


def _new_namespace():
    """The descriptor of a new one; this thread stays where it is."""
    system = ctypes.CDLL(None, use_errno=True)
    home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    try:
        if system.unshare(CLONE_NEWNET) != 0:
            raise Missing("this system makes no network namespaces")
        namespace = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        if system.setns(home, CLONE_NEWNET) != 0:
            raise AssertionError("this process can't leave the namespace")
        return namespace
    finally:
        os.close(home)


class Place:
    """A namespace, and the command that runs others in it."""

    def __init__(self):
        self._descriptor = _new_namespace()
        self.path = f"/proc/{os.getpid()}/fd/{self._descriptor}"
        self.within = ("nsenter", f"--net={self.path}", "--")

    def run(self, *words, text=None):
        done = subprocess.run([*self.within, *words], input=text and text.encode(),
                              capture_output=True)
        if done.returncode != 0:
            raise AssertionError(f"{words}: {done.stderr.decode()}")
        return done.stdout.decode()

    def ip(self, *lines):
        self.run("ip", "-batch", "-", text="\n".join(lines) + "\n")

    def close(self):
        os.close(self._descriptor)


class Host(Place):
    """One host: an address of its own, at which programs run that are started with `within`."""

    def __init__(self, name, number):
        super().__init__()
        self.name = name
        self.address = NETWORK + str(number)
        self._relay = None
        self._deaf_to = set()

    def connections(self, other):
        """The established TCP connections with another host, as rows of the system's table."""
        number = "".join(f"{int(part):02X}" for part in reversed(other.address.split(".")))
        rows = [line.split() for line in self.run("cat", "/proc/self/net/tcp").splitlines()[1:]]
        return [row for row in rows if row[2].startswith(number) and row[3] == "01"]

    def deafen(self, other):
        """Nothing from there arrives here any more; what is sent from here still arrives there."""
        self._deaf_to.add(other.address)
        self.run("nft", "add", "element", "inet", "brelix", "deaf", f"{{ {other.address} }}")

    def hear(self, other):
        if other.address not in self._deaf_to:
            return
        self._deaf_to.remove(other.address)
        self.run("nft", "delete", "element", "inet", "brelix", "deaf", f"{{ {other.address} }}")

    def raise_firewall(self, answer=REFUSE):
        self.run("nft", "-f", "-", text=FIREWALL % answer)

    def add_ipv6(self, address):
        """Besides the IPv4 address."""
        self.run("sh", "-c", "echo 0 > /proc/sys/net/ipv6/conf/lo/disable_ipv6 && "
                             "echo 0 > /proc/sys/net/ipv6/conf/net/disable_ipv6")
        self.ip(f"address add {address}/64 dev net nodad")

    @contextlib.contextmanager
    def refusing(self, port):
        """Meanwhile nobody can open a connection to the port by IPv4, this host included."""
        self.run("nft", "-f", "-", text=REFUSED % port)
        try:
            yield
        finally:
            self.run("nft", "delete", "table", "ip", "brelix_refused")

    def slow_down(self, other, milliseconds):
        """On connections that begin here everything takes so long, each way. One such other a host."""
        assert self._relay is None
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "relay.py")
        self._relay = subprocess.Popen(
            [*self.within, sys.executable, "-B", script, str(RELAY_PORT), str(milliseconds)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if self._relay.stdout.readline() != b"ready\n":
            raise AssertionError("the relay does not start")
        self.run("nft", "-f", "-", text=SLOW % (other.address, RELAY_PORT))

    def close(self):
        if self._relay is not None:
            self._relay.stdin.close()  # it ends with its input
            try:
                self._relay.wait(10)
            except subprocess.TimeoutExpired:
                self._relay.kill()
                self._relay.wait()
            self._relay.stdout.close()
        super().close()


class Hosts:
    """Makes them, and takes them away again. Raises Missing where this can't be done."""

    def __init__(self):
        _check()
        self._switch = Place()
        self._hosts = []
        self._switch.ip("link add switch type bridge", "link set switch up")

    def add(self, name, firewall=None):
        """`firewall`: REFUSE or DROP; then nobody can open a connection to it."""
        number = len(self._hosts) + 1
        host = Host(name, number)
        self._hosts.append(host)
        self._switch.ip(f"link add port{number} type veth peer name net netns {host.path}",
                        f"link set port{number} master switch up")
        # No addresses by themselves: a router takes every change of them for a new network.
        host.run("sh", "-c", "echo 1 > /proc/sys/net/ipv6/conf/all/disable_ipv6; "
                             "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6")
        host.ip(f"address add {host.address}/24 dev net", "link set lo up", "link set net up")
        host.run("nft", "-f", "-", text=RULES)
        if firewall:
            host.raise_firewall(firewall)
        return host

    @staticmethod
    def slow_down(one, other, milliseconds):
        one.slow_down(other, milliseconds)
        other.slow_down(one, milliseconds)

    @staticmethod
    def cut(one, other):
        one.deafen(other)
        other.deafen(one)

    @staticmethod
    def mend(one, other):
        one.hear(other)
        other.hear(one)

    def close(self):
        with contextlib.ExitStack() as stack:  # one that fails doesn't keep the others open
            for place in (self._switch, *reversed(self._hosts)):
                stack.callback(place.close)
