"""Real routers, real clients and real TLS for the system tests.

Every wait has a deadline. The programs come from the folder in BRELIX_BIN.
"""

import itertools
import json
import os
import pathlib
import random
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import traceback
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("BRELIX_BIN", ROOT / "build/release/bin"))
SANITIZED = os.environ.get("BRELIX_SANITIZE", "")
# Sanitizers make everything slower; a deadline is there to end a hang, not to measure.
PATIENCE = 6 if SANITIZED else 2
SECTION = r"SOFTWARE\Brelix\Messaging System"
SANITIZER_REPORT = re.compile(
    r"ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|runtime error:|DEADLYSIGNAL")


class Timeout(AssertionError):
    pass


def wait_until(condition, seconds, what):
    """Returns the condition's first true value; fails with `what` when the time runs out."""
    end = time.monotonic() + seconds * PATIENCE
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= end:
            raise Timeout(f"timed out after {seconds * PATIENCE} s: {what}")
        time.sleep(0.02)


class Ports:
    """A block of TCP ports for this process, below the range from which the system gives its own.
    A router keeps its ports while it is down: other tests, which run at the same time, must not
    take them."""

    SIZE = 300
    FIRST, LAST = 20000, 32000

    def __init__(self):
        blocks = range(self.FIRST, self.LAST, self.SIZE)
        for first in random.sample(blocks, len(blocks)):
            # The name is the claim, and goes with the process.
            claim = socket.socket(socket.AF_UNIX)
            try:
                claim.bind(f"\0brelix-test-ports-{first}")
            except OSError:
                claim.close()
                continue
            self._claim = claim
            self._ports = itertools.cycle(range(first, first + self.SIZE))
            return
        raise AssertionError("no block of ports is left")

    def take(self):
        for port in itertools.islice(self._ports, self.SIZE):
            with socket.socket() as probe:
                try:
                    probe.bind(("", port))
                    return port
                except OSError:
                    continue
        raise AssertionError("no free port")


_ports = []


def free_port():
    """A TCP port that nobody uses."""
    if not _ports:
        _ports.append(Ports())
    return _ports[0].take()


def run(*command, timeout=60, **keywords):
    return subprocess.run([str(word) for word in command], timeout=timeout * PATIENCE,
                          capture_output=True, **keywords)


class Ca:
    """A certification authority in a folder of its own."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self._issued = {}
        self._certmgr("init", "--dir", self.folder / "authority")

    def _certmgr(self, *arguments):
        done = run(BIN / "brelix-certmgr", *arguments)
        if done.returncode != 0:
            raise AssertionError(f"brelix-certmgr {arguments}: {done.stderr.decode()}")

    def issue(self, name, *roles, label=None, **options):
        """The folder with ca.pem, certificate.pem and key.pem; the same for the same label."""
        label = label or "-".join((name, *roles))
        if label not in self._issued:
            folder = self.folder / label
            extra = []
            for role in roles or ("none",):
                extra += ["--role", role]
            for key, value in options.items():
                extra += ["--" + key.replace("_", "-"), str(value)]
            self._certmgr("issue", "--ca", self.folder / "authority", "--name", name, *extra,
                          "--out", folder)
            self._issued[label] = folder
        return self._issued[label]


def config_text(sections):
    """The store's text: {section: {key: value}}; integers in hexadecimal."""
    lines = []
    for section, values in sections.items():
        lines.append(f"[{section}]")
        for key, value in values.items():
            if isinstance(value, str):
                lines.append(f'"{key}"="{value}"')
            else:
                lines.append(f'"{key}"=dword:{int(value) & 0xFFFFFFFF:x}')
        lines.append("")
    return "\n".join(lines) + "\n"


class Router:
    """One router in a folder of its own, with a fixed TLS port, so that it is found again."""

    def __init__(self, test, ca, name="router", settings=None, endpoint=None, identity=None,
                 host=None, environment=None):
        """`host`: where it runs, one of hosts.Hosts; this host if there is none. `environment`: what
        its own has beside this process's."""
        self.test = test
        self.name = name
        self.host = host
        self.within = host.within if host else ()
        self.environment = environment or {}
        self.address = host.address if host else "localhost"
        self.folder = test.folder / f"router-{name}"
        self.data = self.folder / "Router"
        self.ior_port = free_port()
        self.tls_port = free_port()
        self.endpoint = endpoint or f"giop:ssl::{self.tls_port}"
        self.process = None
        self._log = ""
        self._log_position = 0
        self.settings = {"IORSenderPort": self.ior_port, "LogConsole": 1, "LogLevel": 1}
        self.settings.update(settings or {})
        private = self.data / "Private"
        private.mkdir(parents=True)
        private.chmod(0o700)
        for file in (identity or ca.issue(name, "router")).iterdir():
            shutil.copy(file, private)
        (private / "key.pem").chmod(0o600)
        (self.folder / "router.config").write_text(
            config_text({SECTION: {"UseRelativeDataLocation": 1}}))
        self.write_settings()
        test.add_router(self)

    def write_settings(self, **changes):
        """Puts the settings into the store, as an administrator's edit: beside and renamed over."""
        self.settings.update(changes)
        text = config_text({SECTION: {"UseRelativeDataLocation": 1},
                            SECTION + r"\Router": self.settings})
        new = self.folder / "brelix.config.new"
        new.write_text(text)
        new.rename(self.folder / "brelix.config")

    # Life

    def start(self, wait=True, seconds=30):
        if self.process is not None:
            raise AssertionError("the router runs already")
        mark = len(self.log())
        with open(self.folder / "stderr.txt", "ab") as stderr:
            self.process = subprocess.Popen(
                [*self.within, BIN / "brelix-message-router", "-config", "./brelix.config",
                 "-ORBendPoint", self.endpoint],
                cwd=self.folder, stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr,
                env={**os.environ, **self.environment})
        if wait:
            self.wait_log("Waiting for messages...", seconds, since=mark)
        return self

    def running(self):
        return self.process is not None and self.process.poll() is None

    def stop(self, seconds=12):
        """SIGTERM and the orderly end; returns the exit status."""
        self.process.send_signal(signal.SIGTERM)
        return self.wait_end(seconds)

    def wait_end(self, seconds=12):
        try:
            status = self.process.wait(seconds * (PATIENCE if SANITIZED else 1))
        except subprocess.TimeoutExpired:
            raise Timeout(f"the router did not end within {seconds} s") from None
        self.process = None
        return status

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process = None

    def freeze(self):
        """It does nothing any more, and its connections stay open."""
        self.process.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.process.send_signal(signal.SIGCONT)

    def reload(self, seconds=30):
        """SIGHUP, and the wait until the router is up again."""
        mark = len(self.log())
        self.process.send_signal(signal.SIGHUP)
        self.wait_log("Waiting for messages...", seconds, since=mark)

    def ask_to_end(self):
        if self.process is not None:
            self.process.send_signal(signal.SIGTERM)
            self.process.send_signal(signal.SIGCONT)

    def clean_up(self):
        self.ask_to_end()
        if self.process is not None:
            try:
                self.process.wait(20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()

    # What it wrote

    def log(self):
        """Everything logged by all the processes of this router: the copy on standard error, since
        old log files go."""
        path = self.folder / "stderr.txt"
        if path.exists():
            with open(path, "rb") as file:
                file.seek(self._log_position)
                # Whole lines: the last one may still be on its way.
                fresh = file.read()
                fresh = fresh[:fresh.rfind(b"\n") + 1]
            self._log_position += len(fresh)
            self._log += fresh.decode(errors="replace")
        return self._log

    def log_files(self):
        return sorted((self.data / "Logs").glob("*.log"))

    def last_log_line(self):
        return self.log_files()[-1].read_text(errors="replace").splitlines()[-1]

    def wait_log(self, text, seconds=10, since=0):
        def seen():
            if text in self.log()[since:]:
                return True
            if self.process is not None and self.process.poll() is not None:
                raise AssertionError(
                    f"the router ended with status {self.process.returncode} before it logged "
                    f"{text!r}; standard error:\n{self.stderr()[-3000:]}")
            return False
        wait_until(seen, seconds, f"the log line {text!r}")

    def logged_at(self, text, since=0):
        """The time of the first line with the text, in whole seconds; `since` may stand within it."""
        log = self.log()
        lines = log[log.rfind("\n", 0, since) + 1:].splitlines()
        line = next(line for line in lines if text in line)
        return time.mktime(time.strptime(line[:19], "%d.%m.%Y %H:%M:%S"))

    def stderr(self):
        path = self.folder / "stderr.txt"
        return path.read_text(errors="replace") if path.exists() else ""

    def envelopes(self, pattern="*.msg"):
        return sorted((self.data / "Envelopes").glob(pattern))

    def table(self):
        return self.data / "table_router.txt"

    # What it uses

    def _status(self, key):
        for line in pathlib.Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            if line.startswith(key + ":"):
                return int(line.split()[1])
        raise AssertionError(key)

    def rss(self):
        """Resident memory in KiB."""
        return self._status("VmRSS")

    def threads(self):
        return self._status("Threads")

    def fds(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))


class PeerException(Exception):
    """A CORBA exception that a peer's call ended with; `name` is its short name."""

    def __init__(self, answer):
        super().__init__(answer.get("exception") or answer.get("error"))
        self.name = answer.get("exception", "")
        self.answer = answer


class Peer:
    """brelix-test-peer: one client, neighbour router or stranger."""

    def __init__(self, test, router, identity=None, ca=None, server=True, timeout=20, host=None,
                 **options):
        """`host`: where it runs, one of hosts.Hosts; beside the router if there is none."""
        self.host = router.address if host else "localhost"
        within = (host or router).within
        self.process = subprocess.Popen([*within, BIN / "brelix-test-peer"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self._buffer = b""
        self.router = router
        test.addCleanup(self.close)
        arguments = {"identity": str(identity) if identity else None, "server": server,
                     "timeout": timeout * PATIENCE / 2, **options}
        if ca is not None:
            arguments["ca"] = str(ca)
        self("open", **arguments)

    def __call__(self, op, seconds=60, **arguments):
        """One command; its result, or a PeerException."""
        self.send(op, **arguments)
        return self.answer(seconds)

    def send(self, op, **arguments):
        self.process.stdin.write(json.dumps({"op": op, **arguments}).encode() + b"\n")
        self.process.stdin.flush()

    def answer(self, seconds=60):
        end = time.monotonic() + seconds * PATIENCE
        while b"\n" not in self._buffer:
            ready, _, _ = select.select([self.process.stdout], [], [],
                                        max(0, end - time.monotonic()))
            if not ready:
                raise Timeout("the test peer does not answer")
            chunk = os.read(self.process.stdout.fileno(), 1 << 16)
            if not chunk:
                raise AssertionError("the test peer ended: " +
                                     self.process.stderr.read().decode(errors="replace")[-3000:])
            self._buffer += chunk
        line, self._buffer = self._buffer.split(b"\n", 1)
        answer = json.loads(line)
        if not answer["ok"]:
            raise PeerException(answer)
        return answer["result"]

    def connect(self):
        self("connect", host=self.host, port=self.router.ior_port)
        return self

    def retry(self, op, seconds=20, **arguments):
        """Until it succeeds, while a router comes up."""
        def attempt():
            try:
                return (self(op, **arguments),)
            except PeerException:
                return None
        return wait_until(attempt, seconds, op)[0]

    def log_on(self, register=True, form="LogonPushPush", **arguments):
        """Connects, registers and logs on as a client."""
        self.connect()
        self("root.GetClient")
        if register:
            self("client.Register")
        self("client." + form, **arguments)
        return self

    def wait_received(self, count, seconds=30):
        if not self("wait_received", seconds + 5, count=count, timeout=seconds * PATIENCE):
            got = self("received")["count"]
            raise Timeout(f"{got} of {count} envelopes received")

    def received(self):
        return self("received")["last"]

    def calls(self, method):
        return self("calls").get(method, 0)

    def close(self):
        if self.process.poll() is None:
            self.process.stdin.close()
            try:
                self.process.wait(15)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        report = self.process.stderr.read().decode(errors="replace")
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            stream.close()
        if SANITIZER_REPORT.search(report):
            raise AssertionError("a sanitizer's report of the test peer:\n" + report[-12000:])


class SystemTest(unittest.TestCase):
    """A test with a temporary folder, a certification authority and routers that end with it."""

    maxDiff = 4000
    _stages = []

    @classmethod
    def setUpClass(cls):
        cls.class_folder = pathlib.Path(tempfile.mkdtemp(prefix="brelix-system-"))
        cls.addClassCleanup(shutil.rmtree, cls.class_folder, True)
        cls.ca = Ca(cls.class_folder / "certificates")

    def setUp(self):
        self.folder = self.class_folder / self._testMethodName
        self.folder.mkdir()
        self._routers = []
        self._tails = []
        self._reports = []  # what went wrong in its clean-ups
        # Added first, so it runs last: peers have left by then.
        self.addCleanup(self._clean_up_routers)

    @classmethod
    def stage(cls, method="runTest"):
        """An instance that is no test: what is started with it lasts as long as the class. Each of
        several has a method of its own, by whose name its folder goes."""
        stage = cls(method)
        cls._stages = [*cls._stages, stage]
        cls.addClassCleanup(stage._end_stage)
        stage.setUp()
        return stage

    def addCleanup(self, function, /, *arguments, **keywords):
        super().addCleanup(self._note_failure, function, *arguments, **keywords)

    def _note_failure(self, function, /, *arguments, **keywords):
        try:
            function(*arguments, **keywords)
        except Exception:
            self._reports.append(traceback.format_exc())
            raise

    def _end_stage(self):
        # Of an instance that is no test nobody is told what went wrong at its end.
        if not self.doCleanups():
            raise AssertionError("the end of a stage failed\n" + "\n".join(self._reports))

    def add_router(self, router):
        self._routers.append(router)

    def _clean_up_routers(self):
        reports = []
        for router in self._routers:
            router.ask_to_end()
        for router in self._routers:
            router.clean_up()
            self._tails.append((router, router.stderr()[-12000:]))
            found = SANITIZER_REPORT.search(router.stderr())
            if found:
                reports.append(router.stderr()[found.start():][:12000])
        if reports:
            self.fail("a sanitizer's report:\n" + "\n".join(reports))

    def run(self, result=None):
        before = len(result.failures) + len(result.errors) if result else 0
        super().run(result)
        if result and len(result.failures) + len(result.errors) > before:
            tails = [(router, router.stderr()[-4000:])
                     for stage in self._stages for router in stage._routers]
            for router, tail in getattr(self, "_tails", []) + tails:
                print(f"\n--- {self.id()}: end of the log of router {router.name}\n{tail}",
                      file=sys.stderr)

    # What peers have written down, a line a message; the last line may be half written.

    def accepted(self, ledger="ledger"):
        """{(id, tag)} of a bulk job's ledger."""
        return {(id_, tag) for id_, tag, _ in self._rows(ledger)}

    def received(self, record="received"):
        """{(id, tag)} of a record of arrivals."""
        return {(id_, tag) for id_, _, tag, _ in self._rows(record)}

    def _rows(self, name):
        path = self.folder / name
        lines = path.read_text().splitlines(keepends=True) if path.exists() else []
        return [line.split() for line in lines if line.endswith("\n")]

    def wait_all_received(self, seconds=30):
        accepted = self.accepted()
        wait_until(lambda: accepted <= self.received(), seconds, "every accepted message")
        return accepted

    # Shorthands

    def router(self, name="router", start=True, **options):
        router = Router(self, self.ca, name, **options)
        return router.start() if start else router

    def peer(self, router, name, *roles, **options):
        """A peer with a valid certificate of that name."""
        return Peer(self, router, identity=self.ca.issue(name, *roles), **options)

    def client(self, router, name, *arguments, **keywords):
        """Runs brelix-client under a name; returns the completed process."""
        return run(*self.client_command(router, name, *arguments), **keywords)

    def client_command(self, router, name, *arguments):
        return [*router.within, BIN / "brelix-client", "--port", str(router.ior_port), "--identity",
                self.ca.issue(name), *[str(word) for word in arguments]]

    def client_ok(self, router, name, *arguments, **keywords):
        """Its standard output; fails unless the status is 0."""
        done = self.client(router, name, *arguments, **keywords)
        self.assertEqual(0, done.returncode, done.stderr.decode())
        return done.stdout.decode()

    def start_client(self, router, name, *arguments):
        process = subprocess.Popen(
            [str(word) for word in self.client_command(router, name, *arguments)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)

        def end():
            if process.poll() is None:
                process.kill()
            process.wait()
            process.stdout.close()
            process.stderr.close()
        self.addCleanup(end)
        return process

    def wait_line(self, stream, seconds=30):
        """One line of a running program's output."""
        line = b""
        end = time.monotonic() + seconds * PATIENCE
        while not line.endswith(b"\n"):
            ready, _, _ = select.select([stream], [], [], max(0, end - time.monotonic()))
            if not ready:
                raise Timeout("no line of output")
            byte = os.read(stream.fileno(), 1)
            if not byte:
                raise AssertionError(f"the program ended after {line!r}")
            line += byte
        return line.decode()

    def assert_raises(self, name, call, *arguments, **keywords):
        """The call ends with the CORBA exception of that name."""
        with self.assertRaises(PeerException) as caught:
            call(*arguments, **keywords)
        self.assertEqual(name, caught.exception.name, caught.exception.answer)
        return caught.exception.answer

    def wait_expired(self, call, *arguments):
        """Calls until the caller's certificate has run out."""
        def refused():
            try:
                call(*arguments)
            except PeerException as exception:
                return exception.name
        self.assertEqual("CertificateExpired", wait_until(refused, 10, "the certificate to expire"))

    def wait_no_envelopes(self, router, seconds=20):
        wait_until(lambda: not router.envelopes(), seconds, "the envelope files to go")
