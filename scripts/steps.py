"""Steps of the scripts in Python, shown and logged as those of the other scripts: see step in common.sh."""

import pathlib
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent


def step(logs, name, command, limit, **options):
    """Runs a command with its output in a log, and shows that it is running. Returns True if it
    succeeds in time."""
    return subprocess.run(
        ["bash", "-c", 'logs=$0; . scripts/common.sh; step "$@"', str(logs), name, str(limit), *command],
        cwd=ROOT, **options).returncode == 0
