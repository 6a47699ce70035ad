"""Configuration-file templates for the raw server, and what they become."""

from __future__ import annotations

from pathlib import Path
from typing import Optional

AGENT_TEMPLATE = """\
# Settings of the agent
; kept by the authority

[paths]
zeta=stays/relative
# where changing things lie

   # and nothing else
var=var
KeyDir = keys\t
log=/var/log/agent
temp=
pid=C:/pid
rtdir=c:rtdir
[Logging]
level = a = b
[systemaccount]
# filled in at registration
passwd=old
login=old
# dropped
"""

AGENT_PROVISIONED = """\

# Settings of the agent
; kept by the authority
[paths]
KeyDir={base}/keys
log=/var/log/agent
pid=C:/pid
rtdir={base}/c:rtdir
temp=

# where changing things lie
# and nothing else
var={base}/var
zeta=stays/relative
[Logging]
level=a = b
[systemaccount]
login={login}

# filled in at registration
passwd={passwd}
"""


def agent_provisioned(base: object, account: Optional[tuple[str, str]] = None) -> bytes:
    """AGENT_TEMPLATE under a storage path, with a (login, stored password) or as it stood."""
    login, passwd = account or ("old", "old")
    return AGENT_PROVISIONED.format(base=base, login=login, passwd=passwd).encode()


def stored_option(path: Path, option: str) -> bytes:
    """The value of the file's only option of this name."""
    start = option.encode() + b"="
    values = [line[len(start) :] for line in path.read_bytes().split(b"\n") if line.startswith(start)]
    assert len(values) == 1
    return values[0]
