"""Runs of the tool whose passes of the wait loop are counted, and whose memory is."""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path
from typing import Mapping, Optional

from harness.sandbox import Host, Result, binary


@dataclass(frozen=True)
class CountedRun:
    """What a run left behind on its streams, and what it took."""

    result: Result
    passes: int
    peak_bytes: int


def run_counted(
    host: Host, *arguments: str, environment: Optional[Mapping[str, str]] = None, **settings: object
) -> CountedRun:
    """Runs the tool with the library that counts, which is built with the tests."""
    library = host.install_library(binary().parent / "tests" / "pass_counter.so")
    passes, status = host.work / "passes", host.work / "status"
    # A sanitizer's library wants to be the first, which it need not be here.
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    preloaded = {"LD_PRELOAD": library, "ASAN_OPTIONS": sanitizer.lstrip(":")}
    kept = {"PASS_COUNT_FILE": str(passes), "PASS_PEAK_FILE": str(status)}
    result = host.run(*arguments, environment={**preloaded, **kept, **(environment or {})}, **settings)  # type: ignore[arg-type]
    count = passes.stat().st_size if passes.exists() else 0
    passes.unlink(missing_ok=True)
    return CountedRun(result, count, _peak_bytes(status))


def _peak_bytes(status: Path) -> int:
    """The peak memory in a process's own account of itself, which is then removed."""
    line = next(line for line in status.read_text().splitlines() if line.startswith("VmHWM:"))
    status.unlink()
    return int(line.split()[1]) * 1024
