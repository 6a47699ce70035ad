"""Looks at every process of every machine while a play runs."""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Iterator
from pathlib import Path

_PAUSE_S = 0.1


class Watch:
    """What was seen since the watch began."""

    def __init__(self, *words: str) -> None:
        self._words = [word.encode() for word in words]
        self._end = threading.Event()
        self.looks = 0
        self.commands: set[str] = set()
        self.caught: set[str] = set()
        self.most_enrolments = 0

    @contextlib.contextmanager
    def watching(self) -> Iterator[None]:
        """Looks again and again as long as the work takes."""
        self._end.clear()
        thread = threading.Thread(target=self._watch, daemon=True)
        thread.start()
        try:
            yield
        finally:
            self._end.set()
            thread.join()

    def _watch(self) -> None:
        while not self._end.wait(_PAUSE_S):
            self._look()

    def _look(self) -> None:
        self.looks += 1
        enrolments = 0
        for process in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                command = (process / "cmdline").read_bytes()
                enrolments += self._note(process, command)
        self.most_enrolments = max(self.most_enrolments, enrolments)

    def _note(self, process: Path, command: bytes) -> bool:
        """Notes one process; whether it is an enrolment."""
        arguments = command.decode("utf-8", "replace").rstrip("\0").split("\0")
        if any(word in command + (process / "environ").read_bytes() for word in self._words):
            self.caught.add(" ".join(arguments))
        if Path(arguments[0]).name == "tzregister":
            self.commands.add(" ".join(arguments))
        enrols = any(argument == "/usr/bin/tzregister-enroll" for argument in arguments[:3])
        if enrols:
            self.commands.add(" ".join(arguments))
        return enrols
