"""Runs the rig, sums up what it says, and writes the table, the JSON and the picture."""

import argparse
import json
import os
import platform
import subprocess
import sys
import time
from pathlib import Path
from typing import Any

from . import page, svg
from .figures import judge, sum_up

WORK_KINDS = ("modem", "platform", "udp", "mux")
BUILD = Path(__file__).resolve().parents[3] / "build"


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="script/bench-compare", description=__doc__)
    parser.add_argument("--rig", type=Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true",
                        help="two short rounds: a look, no figure to quote")
    parser.add_argument("--rounds", type=int, default=5, help="turns of each contestant (5)")
    parser.add_argument("--json", type=Path, default=BUILD / "performance.json",
                        help="where the outcome goes (build/performance.json)")
    parser.add_argument("--svg", type=Path, default=BUILD / "performance.svg",
                        help="where the picture goes (build/performance.svg)")
    parser.add_argument("--update", type=Path, metavar="PAGE",
                        help="put table and picture into this page, too")
    parser.add_argument("--strict", action="store_true",
                        help="status 1 when a target is missed; wants a machine with nothing to do")
    parsed = parser.parse_args()
    if parsed.rounds < 1:
        parser.error("--rounds wants a number over 0")
    if parsed.update is not None:
        parsed.svg = parsed.update.parent / "picture" / "performance.svg"
    try:
        check_places(parsed)
    except OSError as failure:
        parser.error(f"{failure.filename}: {failure.strerror}")
    return parsed


def check_places(given: argparse.Namespace) -> None:
    """What cannot be written is told now, not when the minutes of measuring are over."""
    if given.update is not None:
        page.check(given.update)
    for path in (given.json, given.svg):
        path.parent.mkdir(parents=True, exist_ok=True)
        with path.open("a", encoding="utf-8"):
            pass


def machine() -> dict[str, str]:
    lines = Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()
    names = [line.split(":", 1)[1].strip() for line in lines if line.startswith("model name")]
    return {"cpu": names[0] if names else platform.machine(), "cores": str(os.cpu_count()),
            "kernel": platform.release().split("-")[0],
            "system": platform.freedesktop_os_release()["PRETTY_NAME"]}


def tell(progress: str) -> None:
    """One line that is written over, for whoever watches."""
    if sys.stderr.isatty():
        print(progress.ljust(60), end="\r", file=sys.stderr, flush=True)


def run_rounds(rig: Path, options: list[str], rounds: int) -> list[dict[str, Any]]:
    """Every object that the rig prints; tells on standard error whose turn is over."""
    records: list[dict[str, Any]] = []
    with subprocess.Popen([rig, "rounds", *options], stdout=subprocess.PIPE, text=True) as run:
        assert run.stdout is not None
        for line in run.stdout:
            record = json.loads(line)
            records.append(record)
            tell(f"round {record['round'] + 1} of {rounds}: {record['by']}, {record['figure']}")
    tell("")
    if run.returncode != 0:
        raise SystemExit(1)
    return records


def cpu_of_work(rig: Path, count: int) -> dict[str, float]:
    """CPU time of the daemon for a command of each kind, in microseconds."""
    times = {}
    for kind in WORK_KINDS:
        tell(f"CPU time: {kind}")
        done = subprocess.run([rig, "work", kind, str(count)], capture_output=True, text=True,
                              check=False)
        if done.returncode != 0:
            raise SystemExit(done.stderr)
        times[kind] = float(json.loads(done.stdout)["cpu_us_each"])
    return times


def measure(given: argparse.Namespace) -> dict[str, Any]:
    rounds = 2 if given.quick else given.rounds
    options = ["--rounds", str(rounds)]
    if given.quick:
        options += ["--latency-commands", "200", "--rate-seconds", "0.3",
                    "--to-modem-seconds", "0.3", "--to-host-seconds", "0.3"]
    load_before = os.getloadavg()[0]
    records = run_rounds(given.rig, options, rounds)
    return {"date": time.strftime("%Y-%m-%d"), "machine": machine(), "rounds": rounds,
            "load_before": load_before, "figures": sum_up(records),
            "cpu_us": cpu_of_work(given.rig, 100 if given.quick else 1000),
            "load_after": os.getloadavg()[0]}


def main() -> int:
    given = arguments()
    outcome = measure(given)
    verdicts = judge(outcome["figures"])
    outcome["targets"] = [vars(verdict) for verdict in verdicts]
    given.json.write_text(json.dumps(outcome, indent=1) + "\n", encoding="utf-8")
    given.svg.write_text(svg.draw(outcome["figures"], page.machine_text(outcome).replace("`", "")),
                         encoding="utf-8")
    if given.update:
        page.update(given.update, outcome, verdicts, "picture/performance.svg")
    for rows in (page.rows_of(outcome["figures"]), page.verdict_rows(verdicts),
                 page.cpu_rows(outcome["cpu_us"])):
        print(page.as_text(rows) + "\n")
    print(f"{given.json}, {given.svg}")
    return 1 if given.strict and not all(verdict.met for verdict in verdicts) else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
