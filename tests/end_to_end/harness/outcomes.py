"""What each action leaves behind when all goes well, whatever random numbers went into it."""

from __future__ import annotations

import base64
import re
from dataclasses import dataclass, field
from typing import Callable, Mapping

from harness.answers import agent_answer, config_answer, empty_answer, routing_answer
from harness.messages import completed, written_to
from harness.passwords import decrypt
from harness.registered_host import KEY
from harness.sandbox import Result

PASSWORD = "s3cret"
TABLES = (b"recommended table\n" * 900, b"current table\n" * 900)
_TEMPLATE = b"[paths]\nkeydir=keys\nlog=log\n[systemaccount]\nlogin=old\npasswd=old\n" + b"#" * 20_000 + b"\n[end]\n"
_CONFIG = re.compile(
    rb"\[paths\]\nkeydir=(?P<base>[^\n]*)/keys\nlog=(?P=base)/log\n\[systemaccount\]\n"
    rb"login=(?P<login>[^\n]*)\npasswd=(?P<passwd>[^\n]*)\n\n#{20000}\n\[end\]\n"
)
_PAGES = {
    "ws_storagepool.php": empty_answer(),
    "ws_agent.php": agent_answer(password=PASSWORD),
    "ws_configfile.php": config_answer(_TEMPLATE),
    "ws_dataselection.php": empty_answer(),
}


def _is_registered(content: bytes) -> bool:
    """True for the whole file that a registration writes."""
    found = _CONFIG.fullmatch(content)
    if found is None or found["login"] != b"agent_42":
        return False
    return decrypt(KEY, found["passwd"]) == PASSWORD.encode()


def _is_fetched(content: bytes) -> bool:
    """True for the whole file that the action configfile writes."""
    found = _CONFIG.fullmatch(content)
    return found is not None and (found["login"], found["passwd"]) == (b"old", b"old")


def _is_pem(content: bytes, label: bytes) -> bool:
    """True for one PEM block, whole, and nothing else; what it says is another test's."""
    found = re.fullmatch(rb"-----BEGIN (%b)-----\n([A-Za-z0-9+/=\n]+)-----END (%b)-----\n" % (label, label), content)
    if found is None or found[1] != found[3]:
        return False
    der = base64.b64decode(found[2])
    # A sequence whose length stands in two bytes: all of these are that long.
    return der[:2] == b"\x30\x82" and int.from_bytes(der[2:4], "big") == len(der) - 4


def _is_certificate(content: bytes) -> bool:
    """True for a certificate."""
    return _is_pem(content, b"CERTIFICATE")


def _is_key(content: bytes) -> bool:
    """True for a private key."""
    return _is_pem(content, b"(?:RSA )?PRIVATE KEY")


@dataclass(frozen=True)
class Outcome:
    """An action, what the authority's pages say to it, and how its files look when they are whole."""

    action: str
    files: Mapping[str, Callable[[bytes], bool]] = field(default_factory=dict)
    stdout: bytes = b""
    pages: Mapping[str, bytes] = field(default_factory=lambda: _PAGES)

    @property
    def result(self) -> Result:
        """The streams and the status of a run that succeeded."""
        return Result(0, self.stdout, completed(self.action))

    def is_whole(self, name: str, content: bytes) -> bool:
        """True when this is the file that the action was to write."""
        return name in self.files and self.files[name](content)


_WRITTEN = written_to("/etc/quorvex/Agent.cfg")
_ALL = (
    Outcome("discover"),
    Outcome("register", {"Agent.cfg": _is_registered}, _WRITTEN),
    Outcome("configfile", {"Agent.cfg": _is_fetched}, _WRITTEN),
    Outcome(
        "routingtables",
        {"recommended": lambda content: content == TABLES[0], "current": lambda content: content == TABLES[1]},
        pages={"ws_agent.php": routing_answer(*TABLES)},
    ),
    Outcome("createds"),
    Outcome("certificate", {"Agent.cert": _is_certificate, "Agent.key": _is_key}),
)

OUTCOMES = {outcome.action: outcome for outcome in _ALL}
