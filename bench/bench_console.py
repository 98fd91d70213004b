#!/usr/bin/env python3
"""The browser console over a facility's worth of idle agents on this machine (200 unless
KESTRIN_BENCH_CONSOLE says otherwise): the time from starting `ambrant serve` to the first full
table (every row reachable and filled in), how long the table and each workstation page take to
answer, and how many events a second reach a page's WebSocket when every agent broadcasts at once.

    python3 bench/bench_console.py build-rel"""

import json
import os
import socket
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "console"))
from console_fixture import Fleet, wait_for  # noqa: E402
from http_test import frame, read_frame, request, websocket  # noqa: E402,F401

PAGES = ["initialConfiguration", "systemSpecs", "ambrantAppInfo", "vantryPluginTree", "gatherLogs",
         "qvAppTasks", "qmasterJobs", "feldaneBackups", "listQuorvaneSoftwareUpdates"]


def main():
    build = os.path.abspath(sys.argv[1])
    count = int(os.environ.get("KESTRIN_BENCH_CONSOLE", "200"))
    started = time.monotonic()
    fleet = Fleet(build, agents=count)
    try:
        served = time.monotonic()

        def full():
            status, body, _ = request(fleet, "GET", "/api/state")
            rows = json.loads(body)["agents"] if status == 200 else []
            return len(rows) == count and all(r["reachable"] and r["model"] for r in rows)
        if not wait_for(full, 120, 0.05):
            print("the table never filled")
            return 1
        table = time.monotonic() - served
        print(f"agents: {count}, started in {served - started:.1f} s")
        print(f"first full table after ambrant serve started: {table:.2f} s")

        timings = []
        for _ in range(20):
            t = time.monotonic()
            request(fleet, "GET", "/api/state")
            timings.append(time.monotonic() - t)
        timings.sort()
        print(f"GET /api/state with {count} rows: median {timings[10] * 1000:.1f} ms, "
              f"slowest {timings[-1] * 1000:.1f} ms")
        agent = fleet.addresses[0]
        for selector in PAGES:
            t = time.monotonic()
            status, _, _ = request(fleet, "POST", "/api/call", {"agent": agent, "selector": selector})
            print(f"page {selector}: {(time.monotonic() - t) * 1000:.1f} ms (status {status})")

        # Every agent broadcasts `rounds` errors; count what the WebSocket delivers, and when.
        s, head = websocket(fleet.port, origin=f"http://127.0.0.1:{fleet.port}")
        read_frame(s)  # the table
        received = [0]
        last = [time.monotonic()]

        def reader():
            s.settimeout(10)
            try:
                while True:
                    opcode, payload = read_frame(s)
                    if opcode == 1 and payload.startswith(b'{"type":"events"'):
                        received[0] += len(json.loads(payload)["events"])
                        last[0] = time.monotonic()
            except (OSError, EOFError):
                pass
        thread = threading.Thread(target=reader)
        thread.start()
        rounds = 5
        ambrant = os.path.join(build, "src", "admin", "ambrant")
        env = {"XDG_CONFIG_HOME": os.path.join(fleet.dir, "poster"), "PATH": "/usr/bin:/bin"}
        t = time.monotonic()
        posters = [subprocess.Popen([ambrant, "fleet", "performErrorCallbackSelector:withObject:withObject:",
                                     '"addStringToQueue:hostname:"', f'"burst {i}"', '"studio."', "--hosts",
                                     fleet.hosts, "--timeout", "20"], env=env, stdout=subprocess.DEVNULL)
                   for i in range(rounds)]
        for poster in posters:
            poster.wait()
        wait_for(lambda: received[0] >= rounds * count, 30)
        elapsed = last[0] - t
        s.close()
        thread.join()
        print(f"events: {received[0]} of {rounds * count} reached the page in {elapsed:.2f} s, "
              f"{received[0] / elapsed:.0f} a second")
    finally:
        fleet.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
