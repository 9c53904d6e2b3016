#!/usr/bin/env python3
"""Runs clang-tidy over the project's own sources, a few at a time.

A file that passed leaves a stamp, the hash of what the preprocessor makes of it and of how it is
read, and is not read again until that changes. As with ccache the stamps serve every checkout of
this machine; VEXA_TIDY_STAMPS names another place for them.
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
STAMPS = pathlib.Path(os.environ.get("VEXA_TIDY_STAMPS") or
                      pathlib.Path.home() / ".cache" / "vexa_at_client" / "tidy")
TIDY = "clang-tidy-14"
# Options with a value that only steer outputs and precompiled headers.
DROPPED_WITH_VALUE = {"-o", "-include", "-MF", "-MT"}
DROPPED = {"-c", "-Winvalid-pch", "-MD"}


def preprocess_command(entry):
    words = shlex.split(entry["command"])
    while not words[0].endswith("++"):
        words.pop(0)
    kept, skip = [words[0], "-E", "-P", "-C"], False  # a NOLINT is a comment
    for word in words[1:]:
        if skip:
            skip = False
        elif word in DROPPED_WITH_VALUE:
            skip = True
        elif word not in DROPPED:
            kept.append(word)
    return kept


def stamp_of(entry, tidy, text):
    """Paths below the checkout do not count."""
    command = shlex.join(preprocess_command(entry)).replace(str(ROOT), ".")
    read_by = tidy + (ROOT / ".clang-tidy").read_bytes() + command.encode()
    return STAMPS / hashlib.sha256(read_by + text).hexdigest()[:32]


def check(entry, tidy):
    """The output of clang-tidy when it objects, else an empty text."""
    text = subprocess.run(preprocess_command(entry), cwd=entry["directory"], capture_output=True,
                          check=False).stdout
    stamp = stamp_of(entry, tidy, text)
    if text and stamp.exists():
        return ""
    command = [TIDY, "--quiet", "--extra-arg=-Wno-unknown-warning-option", "-p",
               ROOT / "build" / "host", entry["file"]]
    run = subprocess.run(command, capture_output=True, text=True, check=False)
    if run.returncode == 0:
        stamp.touch()
        return ""
    return run.stdout + run.stderr


def main():
    STAMPS.mkdir(parents=True, exist_ok=True)
    entries = json.loads((ROOT / "build" / "host" / "compile_commands.json").read_text())
    tests = str(ROOT / "tests")
    build = str(ROOT / "build")
    entries = [e for e in entries if not e["file"].startswith((tests, build))]
    tidy = subprocess.run([TIDY, "--version"], capture_output=True, check=True).stdout
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(int(sys.argv[1])) as pool:
        for entry, words in zip(entries, pool.map(check, entries, [tidy] * len(entries))):
            if words:
                failed += 1
                print(f"{entry['file']}:\n{words}")
    print(f"tidy: {len(entries) - failed} files passed, {failed} did not", file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
