#!/usr/bin/env python3
"""Starts three agents and the console, then drives the console in Debian's Chromium with
tests/browser/console.test.mjs. Screenshots go to BUILD_DIR/test-artefacts/console. Skipped
(77) where there is no Chromium, no node or no puppeteer-core (scripts/install-deps brings all
three).

usage: browser_test.py BUILD_DIR"""

import os
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(__file__))
from console_fixture import Fleet  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
BROWSER_TESTS = os.path.join(HERE, "..", "browser")


def main():
    build = os.path.abspath(sys.argv[1])
    chromium = os.environ.get("KESTRIN_CHROMIUM", "/usr/bin/chromium")
    missing = [what for what, there in (
        ("chromium", os.path.exists(chromium)),
        ("node", shutil.which("node")),
        ("puppeteer-core", os.path.isdir(os.path.join(BROWSER_TESTS, "node_modules", "puppeteer-core"))),
    ) if not there]
    if missing:
        print("skipped: no " + ", ".join(missing))
        return 77
    shots = os.path.join(build, "test-artefacts", "console")
    fleet = Fleet(build)
    try:
        result = subprocess.run(
            ["node", os.path.join(BROWSER_TESTS, "console.test.mjs"), fleet.url + "/",
             os.path.join(build, "src", "admin", "ambrant"), fleet.record, shots] + fleet.addresses,
            timeout=240)
        print(f"screenshots: {shots}")
        return result.returncode
    finally:
        fleet.close()


if __name__ == "__main__":
    sys.exit(main())
