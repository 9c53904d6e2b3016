"""What a reader with a big file is told meanwhile."""

from __future__ import annotations

import os
import sys
import time
from collections.abc import Callable, Iterator
from typing import TextIO

_QUIET_S = 1.0  # what is done sooner needs no word
_BETWEEN_S = 0.2
_LINES_BETWEEN = 2048  # between looks at the clock


class Progress:
    """One line on a terminal's standard error, rewritten and in the end removed; elsewhere none."""

    def __init__(
        self, stream: TextIO | None = None, clock: Callable[[], float] = time.monotonic
    ) -> None:
        self._stream = sys.stderr if stream is None else stream
        self._clock = clock
        self._is_shown = self._stream.isatty()
        self._next = clock() + _QUIET_S
        self._width = 0

    def tell(self, text: str) -> None:
        """Soon after another one nothing is shown."""
        if not self._is_shown or self._clock() < self._next:
            return
        self._next = self._clock() + _BETWEEN_S
        self._write(text)

    def begin(self, text: str) -> None:
        """A step that tells nothing until it is done, however long it takes."""
        if self._is_shown:
            self._write(text)

    def end(self) -> None:
        if self._width > 0:
            self._stream.write("\r" + " " * self._width + "\r")
            self._stream.flush()
            self._width = 0

    def _write(self, text: str) -> None:
        self._stream.write("\r" + text.ljust(self._width))
        self._stream.flush()
        self._width = max(self._width, len(text))

    def reading(self, file: TextIO) -> Iterator[str]:
        """The file's lines, with how far they are."""
        size = os.fstat(file.fileno()).st_size
        for number, line in enumerate(file):
            if number % _LINES_BETWEEN == 0:
                done = f"{file.buffer.tell() * 100 // size} %" if size > 0 else f"line {number}"
                self.tell(f"reading, {done}")
            yield line
