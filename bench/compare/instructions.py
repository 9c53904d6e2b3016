"""Instructions of the daemon for a command, a byte or a chunk, counted by callgrind.

Each kind of work is done twice, the second time with twice as much of it: the difference divided
by the difference in work is free of what start and end cost.
"""

import argparse
import os
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Work:
    kind: str
    count: int  # of the first run
    name: str = ""  # of the figure, when it is not the kind's

    @property
    def key(self) -> str:
        return self.name or self.kind


WORKS = (
    Work("modem", 100), Work("modem_at_port", 100), Work("modem_uart_port", 100),
    Work("modem_three_ports", 80), Work("modem_log_off", 100), Work("platform", 100),
    Work("udp", 100), Work("mux", 100), Work("ppp_to_modem", 100), Work("ppp_to_host", 100),
    Work("typed", 100), Work("typed", 4000, "typed_late"),
    # What the second that turns costs the log's stamp, over so many lines, is nothing a byte.
    Work("line_10", 400), Work("line_1000", 400), Work("line_4000", 80), Work("line_16000", 80),
)


# The log has descriptors in decimal, and threads take theirs in any order: with 3 to 9 taken, each
# of the daemon's has two digits in every run.
TAKEN = "exec " + " ".join(f"{descriptor}</dev/null" for descriptor in range(3, 10))
COUNTED = ("/bin/sh", "-c", f'{TAKEN}; exec "$@"', "sh",
           "/usr/bin/valgrind", "-q", "--tool=callgrind")


def total_of(profile: Path) -> int:
    for line in profile.read_text(encoding="ascii", errors="replace").splitlines():
        if line.startswith(("totals:", "summary:")):
            return int(line.split()[1])
    raise SystemExit(f"{profile}: callgrind wrote no total")


def count_instructions(rig: Path, kind: str, count: int, folder: Path) -> int:
    profile = folder / f"{kind}.{count}"
    command: list[str | Path] = [rig, "work", kind, str(count), "--", *COUNTED,
                                 f"--callgrind-out-file={profile}"]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise SystemExit(f"{kind}: {done.stderr.strip()}")
    return total_of(profile)


def cost_of_one(rig: Path, work: Work, folder: Path) -> float:
    once = count_instructions(rig, work.kind, work.count, folder)
    twice = count_instructions(rig, work.kind, 2 * work.count, folder)
    return (twice - once) / work.count


def derived(costs: dict[str, float]) -> dict[str, float]:
    """How the cost grows: what a further byte of a line costs, and three busy ports."""
    figures = {}
    for less, more in ((10, 1000), (1000, 4000), (4000, 16000)):
        grown = costs[f"line_{more}"] - costs[f"line_{less}"]
        figures[f"byte_to_{more}"] = grown / (more - less)
    figures["typed_late_of_typed"] = costs["typed_late"] / costs["typed"]
    one_by_one = costs["modem"] + costs["modem_at_port"] + costs["modem_uart_port"]
    figures["three_ports_of_one_by_one"] = costs["modem_three_ports"] / one_by_one
    return figures


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("rig", type=Path)
    parser.add_argument("kinds", nargs="*", help="only these kinds of work")
    given = parser.parse_args()
    works = [work for work in WORKS if not given.kinds or work.key in given.kinds]
    with tempfile.TemporaryDirectory() as folder, \
            ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
        found = pool.map(lambda work: cost_of_one(given.rig, work, Path(folder)), works)
        costs = {work.key: cost for work, cost in zip(works, found)}
    figures = costs if given.kinds else {**costs, **derived(costs)}
    for key, value in figures.items():
        print(f"{key} {value:.2f}" if value < 100 else f"{key} {value:.0f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
