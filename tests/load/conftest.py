"""Finds what the load's tests share."""

from __future__ import annotations

import paths  # noqa: F401
