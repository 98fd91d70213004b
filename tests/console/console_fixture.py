"""A small fleet for the console's tests: real agents on loopback ports, each in a throwaway
machine of its own (the first with a Tibbet tool whose "clean" task records its arguments), a
hosts file naming them, and `ambrant serve` over them."""

import os
import plistlib
import re
import shutil
import signal
import subprocess
import tempfile
import time


def wait_for(predicate, seconds=30.0, step=0.1):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(step)
    return predicate()


def make_tibbet(root, record):
    bundle = os.path.join(root, "Applications", "Quorvane", "Tibbet.app", "Contents")
    os.makedirs(os.path.join(bundle, "MacOS"))
    os.makedirs(os.path.join(bundle, "Resources"))
    with open(os.path.join(bundle, "Info.plist"), "wb") as out:
        plistlib.dump({"CFBundleIdentifier": "com.quorvane.Tibbet", "CFBundleName": "Tibbet"}, out)
    # The file that marks a bundle as one of the maker's.
    with open(os.path.join(bundle, "QVUpdates.plist"), "wb") as out:
        plistlib.dump({}, out)
    with open(os.path.join(bundle, "Resources", "QVTasks.plist"), "wb") as out:
        plistlib.dump({"QVTasks": [{"id": "clean", "command": ["--clean", "--all"],
                                     "description": "Clean the caches"}]}, out)
    tool = os.path.join(bundle, "MacOS", "Tibbet")
    with open(tool, "w") as out:
        out.write(f"#!/bin/sh\necho \"$@\" >> '{record}'\necho ran\n")
    os.chmod(tool, 0o755)


class Fleet:
    def __init__(self, build, agents=3, listen="127.0.0.1:0", console_password_hash=None):
        self.serve = None
        self.processes = []
        self.dir = None
        try:
            self._start(build, agents, listen, console_password_hash)
        except BaseException:
            self.close()  # a fleet that did not come up leaves nothing running behind
            raise

    def _start(self, build, agents, listen, console_password_hash):
        self.build = build
        self.dir = tempfile.mkdtemp(prefix="kestrin-console-")
        self.record = os.path.join(self.dir, "tibbet.args")
        self.agents = []
        self.addresses = []
        agent = os.path.join(build, "Kestrin.app", "Contents", "MacOS", "Kestrin")
        for i in range(agents):
            machine = os.path.join(self.dir, f"agent{i}")
            for sub in ("home", "root", "run"):
                os.makedirs(os.path.join(machine, sub))
            if i == 0:
                make_tibbet(os.path.join(machine, "root"), self.record)
            env = {"HOME": os.path.join(machine, "home"), "KESTRIN_ROOT": os.path.join(machine, "root"),
                   "XDG_RUNTIME_DIR": os.path.join(machine, "run"), "PATH": "/usr/bin:/bin",
                   "KESTRIN_SOFTWARE_UPDATE_FEED": "http://127.0.0.1:9/no-feed.plist"}
            for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
                if name in os.environ:
                    env[name] = os.environ[name]
            out = open(os.path.join(machine, "agent.out"), "w")
            self.processes.append(subprocess.Popen([agent], env=env, stdout=out, stderr=subprocess.STDOUT))
            self.agents.append(machine)
        for machine in self.agents:
            port = wait_for(lambda: self._port(os.path.join(machine, "agent.out")))
            if not port:
                raise RuntimeError("an agent did not start")
            self.addresses.append(f"127.0.0.1:{port}")
        self.hosts = os.path.join(self.dir, "hosts")
        with open(self.hosts, "w") as out:
            out.write("\n".join(self.addresses) + "\n")
        self.config = os.path.join(self.dir, "console")
        if console_password_hash:
            os.makedirs(os.path.join(self.config, "ambrant"))
            with open(os.path.join(self.config, "ambrant", "console-password"), "w") as out:
                out.write(console_password_hash + "\n")
        serve_out = os.path.join(self.dir, "serve.out")
        self.serve_log = serve_out
        self.serve = subprocess.Popen(
            [os.path.join(build, "src", "admin", "ambrant"), "serve", "--listen", listen,
             "--hosts", self.hosts, "--timeout", "10"],
            env={"XDG_CONFIG_HOME": self.config, "PATH": "/usr/bin:/bin", "HOME": self.dir},
            stdout=open(serve_out, "w"), stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        found = wait_for(lambda: re.search(r"serving the console at (\S+)", self._read(serve_out)))
        if not found:
            raise RuntimeError("ambrant serve did not start: " + self._read(serve_out))
        self.url = found.group(1).rstrip("/")
        self.port = int(self.url.rsplit(":", 1)[1])

    @staticmethod
    def _read(path):
        try:
            with open(path) as f:
                return f.read()
        except OSError:
            return ""

    def _port(self, output):
        ports = re.findall(r"Listening on port ([0-9]+)\n", self._read(output))
        return ports[-1] if ports else None

    def alive(self):
        return self.serve.poll() is None

    def close(self):
        running = [p for p in [self.serve] + self.processes if p is not None]
        for process in running:
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
        for process in running:
            try:
                process.wait(timeout=15)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        if self.dir:
            shutil.rmtree(self.dir, ignore_errors=True)
