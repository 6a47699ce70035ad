"""Where the parts of this project lie that a load is made of."""

from __future__ import annotations

import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
AUTHORITY = ROOT / "authority"

sys.path[:0] = [str(ROOT / folder) for folder in ("tests/end_to_end", "tests/enroll", "enroll")]
