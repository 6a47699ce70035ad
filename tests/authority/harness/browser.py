"""Debian's Chromium, without a window."""

# mypy: allow-untyped-calls

from __future__ import annotations

import os
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from selenium.webdriver import Chrome, ChromeOptions
from selenium.webdriver.chrome.service import Service

from harness.authority import Authority

_SWITCHES = (
    "--headless=new",
    "--no-sandbox",  # which Chromium refuses to work in as root
    "--disable-gpu",
    "--disable-quic",
    "--disable-dev-shm-usage",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--force-color-profile=srgb",
    "--hide-scrollbars",
)


@contextmanager
def chromium() -> Iterator[Chrome]:
    """A browser with a profile of its own; everything it writes is gone afterwards."""
    # A short name: the browser's sockets have paths of 107 bytes at most.
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        options = ChromeOptions()
        for switch in (*_SWITCHES, f"--user-data-dir={folder}/profile"):
            options.add_argument(switch)
        options.binary_location = "/usr/bin/chromium"
        environment = {**os.environ, "HOME": folder, "TMPDIR": folder, "XDG_RUNTIME_DIR": folder}
        driver = Chrome(options=options, service=Service("/usr/bin/chromedriver", env=environment))
        try:
            yield driver
        finally:
            driver.quit()


def set_width(driver: Chrome, width: int, height: int = 800) -> None:
    """Makes the page this wide; a window would not become as narrow as a telephone."""
    metrics = {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600}
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", metrics)


def open_page(driver: Chrome, authority: Authority) -> None:
    """Logs in as an administrator does and opens the page; the address that stays holds no password."""
    scheme, _, place = authority.url.partition("://")
    driver.get(f"{scheme}://admin:{authority.password}@{place}/watch.php")
    driver.get(f"{authority.url}/watch.php")
