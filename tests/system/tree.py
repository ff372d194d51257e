"""A tree of real routers, each on a host of its own.

    tree = Tree(test, {"top": {}, "middle": {"parent": "top"},
                       "leaf": {"parent": "middle", "firewall": REFUSE, "ActiveSupplier": 0}},
                hosts=Hosts())
    tree.start()
    tree.client("EM", at="top")

Each router's words are its settings, apart from "parent", the name of the router above it, and
"firewall", which lets nobody open a connection to its host. Without hosts all routers are on this
one, and there is no firewall.
"""

from harness import Router, SystemTest
from hosts import Hosts, Missing

# What an administrator may leave as it is, but a test can't wait for.
QUICK = {
    "LogonRetryInterval": 1,
    "ConnectRetries": 1,
    "ConnectRetriesPause": 100,
    "TotalConnectRetryTimeSecs": 2,
    "KeepAliveSecs": 1,
    "PeerTimeoutSecs": 3,
    "GetterTickSecs": 1,
    "GetterInterval": 2,
    "GetterShortInterval": 2,
    "RandomizeGetterInterval": 0,
    "ConnectionCache": 100,
}


class Tree:
    """`test` is a SystemTest, or whatever has its folder, add_router and addCleanup. The keywords
    are settings of every router."""

    def __init__(self, test, routers, hosts=None, **settings):
        self.test = test
        self.hosts = hosts
        self.routers = {}
        self.parents = {}
        self.peers = []
        for name, words in routers.items():
            self.add(name, {**settings, **words})

    def add(self, name, words, **options):
        words = {**QUICK, **words}
        parent = words.pop("parent", None)
        firewall = words.pop("firewall", None)
        host = self.hosts.add(name, firewall) if self.hosts else None
        router = Router(self.test, self.test.ca, name, words, host=host, **options)
        self.routers[name] = router
        if parent:
            self.set_parent(name, parent)
        return router

    def set_parent(self, name, parent):
        """Counts from the router's next start on."""
        self.parents[name] = parent
        above = self.routers[parent]
        self.routers[name].write_settings(ParentAddress=above.address, ParentPort=above.ior_port)

    def __getitem__(self, name):
        return self.routers[name]

    def start(self, *names):
        """These, or all; returns when they are up and attached."""
        names = names or tuple(self.routers)
        marks = {name: len(self[name].log()) for name in names}
        for name in names:
            self[name].start(wait=False)
        for name in names:
            self[name].wait_log("Waiting for messages...", 30, since=marks[name])
        for name in names:
            if name in self.parents:
                self.wait_attached(name, since=marks[name])

    def wait_attached(self, name, since=0, seconds=30):
        self[name].wait_log("Logged on to parent router", seconds, since=since)

    def settle(self):
        """Puts all tables on disk: by itself a router writes its own at most once a minute, and
        forgets a younger registration if it is killed."""
        for name, router in self.routers.items():  # parents first
            mark = len(router.log())
            router.reload()
            if name in self.parents:
                self.wait_attached(name, since=mark)
        for _, peer in self.peers:
            peer.retry("reconnect")

    def restart(self, name):
        """After a kill, with the peers of that router."""
        self.start(name)
        for at, peer in self.peers:
            if at == name:
                peer.retry("reconnect")

    # Peers

    def client(self, name, at, form="LogonPushPush", **arguments):
        peer = self.test.peer(self[at], name).log_on(form=form, **arguments)
        self.peers.append((at, peer))
        return peer

    # Lines

    def cut(self, one, other):
        self.hosts.cut(self[one].host, self[other].host)

    def mend(self, one, other):
        self.hosts.mend(self[one].host, self[other].host)

    def slow_down(self, one, other, milliseconds):
        self.hosts.slow_down(self[one].host, self[other].host, milliseconds)


class TreeTest(SystemTest):
    """A test whose routers have hosts of their own where this system makes them. Where it makes
    none all routers are on this one, and tests that need hosts begin with `need_hosts`."""

    def setUp(self):
        self.hosts = None
        try:
            self.hosts = Hosts()
            self.addCleanup(self.hosts.close)
        except Missing as missing:
            self._missing = missing
        super().setUp()

    def need_hosts(self):
        if self.hosts is None:
            raise self._missing

    def tree(self, routers, **settings):
        return Tree(self, routers, self.hosts, **settings)


def texts(peer):
    """What a peer has received, oldest first."""
    return [one["payload"] for one in peer.received()]
