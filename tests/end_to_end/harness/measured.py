"""Runs whose memory is measured."""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path

from harness.sandbox import Host, Result

MEBIBYTE = 1 << 20

# What a run gets at all, so that one that runs wild does no harm.
_LIMIT_BYTES = 3 << 30

# Waits for the tool and notes the most memory that it had at any time; this
# program's own few mebibytes are the least that can come out.
_WATCH = """
import os, resource, sys
resource.setrlimit(resource.RLIMIT_AS, (int(sys.argv[3]),) * 2)
child = os.posix_spawn(sys.argv[4], sys.argv[4:], {**os.environ, "LD_PRELOAD": sys.argv[2]})
status, usage = os.wait4(child, 0)[1:]
with open(sys.argv[1], "w") as peak:
    peak.write(str(usage.ru_maxrss * 1024))
sys.exit(os.waitstatus_to_exitcode(status) % 256)
"""


@dataclass(frozen=True)
class MeasuredRun:
    """What a run left on its streams, and the most memory that it had, in bytes."""

    result: Result
    peak: int


def measured_run(host: Host, peak_file: Path, *arguments: str, time_limit: float) -> MeasuredRun:
    """Runs the tool on this host, its pauses being moments; `peak_file` lies outside of the host."""
    library = host.install_library(Path(os.environ["TZREGISTER_FAULTS_LIBRARY"]))
    peak_file.write_bytes(b"")
    host.shown.append(peak_file)
    script = f"exec /usr/bin/python3 -c '{_WATCH}' {peak_file} {library} {_LIMIT_BYTES} \"$@\""
    result = host.run(*arguments, shell=script, time_limit=time_limit)
    return MeasuredRun(result, int(peak_file.read_text()))
