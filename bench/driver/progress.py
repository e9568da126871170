"""A bar on a terminal, a line a step elsewhere."""

import shutil
import sys
import time


class Progress:
    def __init__(self, steps):
        self._steps = steps
        self._done = 0
        self._title = ""
        self._start = time.monotonic()
        self._tty = sys.stderr.isatty()

    def step(self, title):
        """The next of the steps begins."""
        self._title = title
        if not self._tty:
            print(f"  {self._done + 1}/{self._steps} {title}", file=sys.stderr, flush=True)

    def at(self, detail, part):
        """So much of the step is done, from 0 to 1."""
        if not self._tty:
            return
        whole = (self._done + part) / self._steps
        filled = int(30 * whole)
        text = (f"\r[{'#' * filled}{'.' * (30 - filled)}] {100 * whole:3.0f} % "
                f"{time.monotonic() - self._start:4.0f} s  {self._title}: {detail}")
        width = shutil.get_terminal_size().columns
        print(text[:width].ljust(width), end="", file=sys.stderr, flush=True)

    def finish_step(self):
        self._done += 1

    def end(self):
        if self._tty:
            print("\r" + " " * (shutil.get_terminal_size().columns - 1), end="\r", file=sys.stderr)
