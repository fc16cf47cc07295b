"""Steps of the scripts in Python, shown and logged as those of the other scripts: see common.sh."""

import os
import pathlib
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
STARTED = int(os.environ.setdefault("QUORVEL_STARTED", str(int(time.time()))))


def say(text):
    """Prints a line after the time since the outermost script started."""
    minutes, seconds = divmod(int(time.time()) - STARTED, 60)
    print(f"{minutes}:{seconds:02}  {text}", flush=True)


def step(logs, name, command, limit, **options):
    """Runs a command with its output in a log, and shows that it is running. Returns True if it
    succeeds in time."""
    return subprocess.run(
        ["bash", "-c", 'logs=$0; . scripts/common.sh; step "$@"', str(logs), name, str(limit), *command],
        cwd=ROOT, **options).returncode == 0
