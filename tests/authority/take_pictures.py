"""Takes the pictures of the page for administrators that stand under docs/.

An authority of its own and some made-up hosts are in them. They differ from time to
time by the times shown; only who takes them sees whether they show the page as it is.
"""

from __future__ import annotations

import tempfile
from pathlib import Path

from harness.authority import REGISTRATION, Authority
from harness.browser import chromium, open_page, set_width
from harness.programs import AUTHORITY, start, stop

DOCS = AUTHORITY.parent / "docs"

HOSTS = ("web01", "web02", "web03", "db01", "db02", "mail01", "build01")
PICTURES = {"watch-page.png": (1040, 820), "watch-page-narrow.png": (360, 640)}


def fill(authority: Authority) -> None:
    """Lets hosts register, make data selections and be refused."""
    for number, host in enumerate(HOSTS, 11):
        register = {**REGISTRATION, "login": "admin", "passwd": authority.password, "hostName": f"{host}.example"}
        server = str(int(host.startswith("db")))
        authority.page("agent", {**register, "isServerAgent": server}, X_Forwarded_For=f"192.0.2.{number}")
    for agent, name in ((1, "home directories"), (4, "databases & logs")):
        rules = {"dstypeid": "2", "dataselection": "include /srv"}
        authority.ask("dataselection", action="createDS", agentid=str(agent), name=name, **rules)
    authority.page("agent", {**REGISTRATION, "login": "admin", "passwd": "x"}, X_Forwarded_For="203.0.113.9")


def main() -> None:
    """Takes the pictures."""
    with tempfile.TemporaryDirectory() as folder:
        process, url = start(AUTHORITY / "serve", "--data", f"{folder}/spa")
        try:
            authority = Authority(url, Path(folder) / "spa")
            fill(authority)
            with chromium() as browser:
                open_page(browser, authority)
                for name, size in PICTURES.items():
                    set_width(browser, *size)
                    browser.save_screenshot(str(DOCS / name))
                    print(f"Took docs/{name}")
        finally:
            stop(process)


if __name__ == "__main__":
    main()
