#!/usr/bin/env python3
"""Holds docs/rooms.md against the sources.

Every source file of the daemon has a row there, under the floor that it stands on, and includes
only what stands on its own floor or below. A row reads: | floor | `file` | what it holds |
An upward call that is meant has a row of its own: | `from` | `to` | why |
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
FOLDERS = ["include", "platform/include", "main", "port_bridge/src", "atcmd_fwd/src", "socket/src",
           "cmux/src", "qmi_service/src"]


def main():
    rows = re.findall(r"^\| *(\d+) *\| *`([^`]+)`", (ROOT / "docs/rooms.md").read_text(), re.M)
    floors = {file: int(floor) for floor, file in rows}
    table = (ROOT / "docs/rooms.md").read_text()
    meant = set(re.findall(r"^\| *`([^`]+)` *\| *`([^`]+)`", table, re.M))
    used = set()
    # A pair foo.h and foo.cpp is one row without an ending.
    stems = {}
    faults = []
    for folder in FOLDERS:
        for path in sorted((ROOT / folder).glob("*.[hc]*")):
            stem = f"{folder}/{path.stem}"
            stems[path] = stem
            if stem not in floors:
                faults.append(f"{path.relative_to(ROOT)}: no row `{stem}` in docs/rooms.md")
    by_header = {path.name: stem for path, stem in stems.items() if path.suffix == ".h"}
    for path, stem in stems.items():
        for header in re.findall(r'^#include "([^"]+)"', path.read_text(), re.M):
            target = by_header.get(header)
            if target and floors.get(target, 0) > floors.get(stem, 9):
                if (stem, target) in meant:
                    used.add((stem, target))
                    continue
                faults.append(f"{path.relative_to(ROOT)} includes {header} of a higher floor")
    for file in floors:
        if file not in stems.values():
            faults.append(f"docs/rooms.md names `{file}`, which is not there")
    for source, target in sorted(meant - used):
        faults.append(f"docs/rooms.md excuses {source} for including {target}, which it does not")
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
