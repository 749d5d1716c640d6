#!/usr/bin/python3
"""The demo's scanner services: the end-to-end tests' fakes, run until SIGTERM.

  demo_scanners.py AS_PATH VS_PATH [WORD=VERDICT ...]

Every request is printed; an anti-spam request holding WORD gets VERDICT,
anything else is clean.
"""

import signal
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests/e2e"))
from scanners import FakeAntiSpam, FakeVirusScanner  # noqa: E402


def main(argv):
    verdicts = {w: int(v, 0) for w, v in (a.split("=", 1) for a in argv[2:])}

    def spam(line):
        print("anti-spam request:", line, flush=True)
        return next((v for w, v in verdicts.items() if w in line), None)

    def virus(line):
        print("virus scan request:", line.replace("\t", " | "), flush=True)

    fakes = [FakeAntiSpam(argv[0], spam), FakeVirusScanner(argv[1], virus)]
    signal.signal(signal.SIGTERM, lambda *_: None)
    signal.pause()
    for fake in fakes:
        fake.stop()


if __name__ == "__main__":
    main(sys.argv[1:])
