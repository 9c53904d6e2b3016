#!/usr/bin/env python3
"""Holds docs/rooms.md against the sources.

Every source file of the daemon has a row there, under the floor that it stands on, and includes
only what stands on its own floor or below. A row reads: | floor | `file` | what it holds |
An upward call that is meant has a row of its own: | `from` | `to` | why |
Every folder of sources beside the daemon has a row in the page's last table, which says from where
its files may include: | `folder` | what it holds | folders, or "the daemon", or "the bench" |
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = "docs/rooms.md"
DAEMON = ["include", "platform/include", "main", "port_bridge/src", "atcmd_fwd/src", "socket/src",
          "cmux/src", "qmi_service/src"]
BESIDE = ["platform/standin", "bench", "tests", "fuzz"]


def folder_of(path):
    return str(path.parent.relative_to(ROOT))


def stem_of(path):
    """A pair foo.h and foo.cpp is one row without an ending."""
    return f"{folder_of(path)}/{path.stem}"


def included(path):
    return re.findall(r'^#include "([^"]+)"', path.read_text(), re.M)


def daemon_faults(files, headers, page):
    rows = re.findall(r"^\| *(\d+) *\| *`([^`]+)`", page, re.M)
    floors = {file: int(floor) for floor, file in rows}
    meant = set(re.findall(r"^\| *`([^`]+)` *\| *`([^`]+)`", page, re.M))
    used = set()
    if list(floors.values()) != sorted(floors.values()):
        yield f"{PAGE}: the floors do not stand in their order"
    for path in files:
        name, stem = path.relative_to(ROOT), stem_of(path)
        if stem not in floors:
            yield f"{name}: no row `{stem}` in {PAGE}"
        for header in included(path):
            target = headers.get(header)
            if target is None or folder_of(target) not in DAEMON:
                yield f"{name} includes {header}, which is no file of the daemon's"
            elif floors.get(stem_of(target), 0) > floors.get(stem, 9):
                used.add((stem, stem_of(target)))
                if (stem, stem_of(target)) not in meant:
                    yield f"{name} includes {header} of a higher floor"
    for file in floors.keys() - {stem_of(path) for path in files}:
        yield f"{PAGE} names `{file}`, which is not there"
    for source, target in sorted(meant - used):
        yield f"{PAGE} excuses {source} for including {target}, which it does not"


def beside_faults(files, headers, page):
    table = page.partition("## Beside the daemon")[2]
    rows = {}
    for folder, words in re.findall(r"^\| *`([^`]+)` *\|[^|]*\|([^|]*)\|", table, re.M):
        rows[folder] = set(re.findall(r"`([^`]+)`", words))
        rows[folder] |= set(DAEMON) if "the daemon" in words else set()
        rows[folder] |= {folder_of(path) for path in files
                         if "the bench" in words and folder_of(path).startswith("bench/")}
    used = {}
    for path in files:
        folder, name = folder_of(path), path.relative_to(ROOT)
        if folder not in rows:
            yield f"{name}: no row `{folder}` in {PAGE}"
            continue
        for header in included(path):
            target = headers.get(header)
            if target is None or folder_of(target) == folder:
                continue
            used.setdefault(folder, set()).add(folder_of(target))
            if folder_of(target) not in rows[folder]:
                yield f"{name} includes {header} of {folder_of(target)}, which {PAGE} does not tell"
    for folder, words in re.findall(r"^\| *`([^`]+)` *\|[^|]*\|([^|]*)\|", table, re.M):
        for unused in set(re.findall(r"`([^`]+)`", words)) - used.get(folder, set()):
            yield f"{PAGE} lets {folder} include from {unused}, which it does not"


def main():
    page = (ROOT / PAGE).read_text()
    daemon = [path for folder in DAEMON for path in sorted((ROOT / folder).glob("*.[hc]*"))]
    beside = [path for folder in BESIDE for path in sorted((ROOT / folder).rglob("*.[hc]*"))
              if path.suffix in (".h", ".cpp")]
    headers = {}
    faults = []
    for path in daemon + beside:
        if path.suffix != ".h":
            continue
        if path.name in headers:
            faults.append(f"{path.relative_to(ROOT)}: {headers[path.name]} has the same name")
        headers.setdefault(path.name, path)
    faults += daemon_faults(daemon, headers, page)
    faults += beside_faults(beside, headers, page)
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
