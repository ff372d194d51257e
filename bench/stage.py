"""Trees of routers for measurements: as in the system tests, in memory, with the log of a service."""

import contextlib
import json
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/system"))

from harness import Router  # noqa: E402
from hosts import Hosts  # noqa: E402
from hop_rate import BIN, issue, run  # noqa: E402

QUIET = {"LogConsole": 0, "LogLevel": 0, "SyncEnvelopes": 0, "ConnectionCache": 64,
         "LogonRetryInterval": 1, "ConnectRetries": 1, "ConnectRetriesPause": 100}


class QuietRouter(Router):
    """A router whose log is the files of its present run."""

    def start(self, wait=True, seconds=30):
        shutil.rmtree(self.data / "Logs", ignore_errors=True)
        return super().start(wait, seconds)

    def log(self):
        return "".join(file.read_text(errors="replace") for file in self.log_files())


class Stage:
    """A folder in memory with an authority and routers; all ends with the `with`."""

    def __enter__(self):
        self._end = contextlib.ExitStack()
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="brelix-bench-", dir="/dev/shm"))
        self._end.callback(shutil.rmtree, self.folder, True)
        self.identities = self.folder / "identities"
        self.identities.mkdir()
        run(BIN / "brelix-certmgr", "init", "--dir", self.identities / "ca")
        return self

    def __exit__(self, *what):
        return self._end.__exit__(*what)

    def add_router(self, router):
        """As harness.Router asks for it."""
        self._end.callback(router.clean_up)

    def on_end(self, function, *arguments):
        self._end.callback(function, *arguments)

    def identity(self, name, role):
        folder = self.identities / name
        return folder if folder.exists() else issue(self.identities, name, role)

    def hosts(self):
        hosts = Hosts()
        self.on_end(hosts.close)
        return hosts

    def router(self, name, parent=None, identity=None, host=None, **settings):
        """Not started yet, in an empty folder."""
        shutil.rmtree(self.folder / f"router-{name}", ignore_errors=True)
        if parent is not None:
            settings.update(ParentAddress=parent.address, ParentPort=parent.ior_port)
        return QuietRouter(self, None, name, {**QUIET, **settings},
                           identity=identity or self.identity(name, "router"), host=host)

    def children(self, host=None):
        children = Children(self.identities, host)
        self.on_end(children.close)
        return children


class Limits:
    """What a measurement has to keep to; each is told, and `status` is how the program ends."""

    def __init__(self):
        self._missed = False

    def _tell(self, held, bound, value, what):
        self._missed |= not held
        print(f"limit {'kept' if held else 'MISSED'}: {what}: {value:.4g}, {bound}", flush=True)

    def at_least(self, limit, value, what):
        self._tell(value >= limit, f"at least {limit}", value, what)

    def below(self, limit, value, what):
        self._tell(value < limit, f"below {limit}", value, what)

    def none(self, value, what):
        self._tell(value == 0, "none allowed", value, what)

    def status(self):
        return 1 if self._missed else 0


class Children:
    """bench_children, beside everything else or on one of hosts.Hosts."""

    def __init__(self, folder, host=None):
        within = host.within if host else ()
        self.process = subprocess.Popen([*within, BIN / "bench_children", folder],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __call__(self, *words):
        self.process.stdin.write(" ".join(str(word) for word in words) + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        if not answer:
            raise RuntimeError("the children have gone")
        return json.loads(answer)

    def freeze(self):
        self.process.send_signal(signal.SIGSTOP)

    def frozen(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text()
        return status.rpartition(")")[2].split()[0] == "T"

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()
