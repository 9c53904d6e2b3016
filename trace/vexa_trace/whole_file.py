"""Files that are there whole or not at all."""

from __future__ import annotations

import os
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import BinaryIO


@contextmanager
def whole_file(path: str) -> Iterator[BinaryIO]:
    """A file to write, beside its place until it is done: an interruption leaves no half of it.

    What a link leads to is written in place, and the link stays: /dev/stdout is one, and root could
    put a file where it was."""
    target = Path(path)
    if target.is_symlink() or (target.exists() and not target.is_file()):
        with open(target, "wb") as file:
            yield file
        return
    handle, aside = tempfile.mkstemp(dir=target.parent, prefix=f".{target.name}.")
    try:
        with os.fdopen(handle, "wb") as file:
            yield file
            os.fchmod(file.fileno(), 0o666 & ~_umask())
        os.replace(aside, target)
    except BaseException:
        os.unlink(aside)
        raise


def _umask() -> int:
    mask = os.umask(0)
    os.umask(mask)
    return mask
