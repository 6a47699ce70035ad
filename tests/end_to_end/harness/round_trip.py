"""A host that is provisioned first and then talks with the account that it was given."""

from __future__ import annotations

from pathlib import Path
from typing import Optional

from harness.answers import agent_answer, config_answer
from harness.passwords import KEY_FILE, MASK
from harness.raw_server import RawServer, http_answer
from harness.sandbox import Host

_KEY = b"the host's key file"
_TEMPLATE = """\
[spa]
url={url}
[paths]
keydir=keys
[systemaccount]
login=template login
passwd=template word
[main]
agentid=42
"""

# --agentType (None: the file is fetched without a registration), whether the
# host has a key file, and the login and password that travel afterwards.
ACCOUNTS = [
    ("0", True, ("agent_42", "p|w d")),
    ("2", True, ("TWLX_AGENT", MASK)),
    ("2", False, ("TWLX_AGENT", MASK)),
    (None, False, ("template login", "template word")),
    ("1", False, ("template login", "template word")),
]


def provision(
    host: Host, server: RawServer, agent_type: Optional[str], has_key: bool, next_answer: bytes
) -> Path:
    """Writes the host's configuration file by the tool and returns its key directory.

    The server answers what that takes, and then the next request with this.
    """
    keys = host.work / "keys"
    if has_key:
        keys.mkdir()
        (keys / KEY_FILE).write_bytes(_KEY)
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(host.work))
    template = http_answer(config_answer(_TEMPLATE.format(url=server.url)))
    registration = [http_answer(agent_answer(password="p|w d"))] if agent_type else []
    server.replies = [*registration, template, http_answer(next_answer)]
    action = ("--action", "register", "--agentType", agent_type) if agent_type else ("--action", "configfile")
    account = ("--url", server.url, "--login", "admin", "--passwd", "secret")
    assert host.run(*action, "--type", "Agent", *account, "--hostname", "h", "--todisk").status == 0
    return keys
