"""Answers of the authority's pages, in its line format."""

from __future__ import annotations

from typing import Optional, Sequence, Union

Text = Union[str, bytes]

_ESCAPES = {b"\\": rb"\\", b"\n": rb"\n", b"\r": rb"\r", b"\t": rb"\t", b"|": rb"\x7c"}


def as_bytes(text: Text) -> bytes:
    """The text as it travels."""
    return text.encode() if isinstance(text, str) else text


def escape(value: Text) -> bytes:
    """A value as the authority sends it, on one line and without bars."""
    single = (bytes([byte]) for byte in as_bytes(value))
    return b"".join(_ESCAPES.get(byte, byte) for byte in single)


def data_answer(
    columns: Sequence[tuple[str, str]],
    records: Sequence[Sequence[Text]],
    marker: str = "***BEGIN***",
    end: bytes = b"***DONE***\n",
) -> bytes:
    """A table with these (name, type) columns and escaped values."""
    lines = [marker.encode(), str(len(records)).encode()]
    lines.append("|".join(name for name, _ in columns).encode())
    lines.append("|".join(kind for _, kind in columns).encode())
    lines += [b"|".join(escape(value) for value in record) for record in records]
    return b"\n".join(lines) + b"\n" + end


def error_answer(description: Optional[str] = None, number: int = 17, severity: str = "5") -> bytes:
    """An error block, by default without its description."""
    lines = ["***ERROR***", str(number), f"severity: {severity}", "server: spa.example", "source: catalog"]
    if description is not None:
        lines.append(f"description: {description}***DONE***")
    return "\n".join(lines).encode() + b"\n"


def empty_answer() -> bytes:
    """A data answer without records, which is a success."""
    return data_answer([("returnvalue", "S")], [])


def agent_answer(agent_id: Text = "42", login: Text = "agent_42", password: Text = "s3cret") -> bytes:
    """The answer to a registration."""
    columns = [("agentid", "I"), ("login", "S"), ("password", "S")]
    return data_answer(columns, [[agent_id, login, password]])


def config_answer(template: Text) -> bytes:
    """The answer that carries a configuration-file template."""
    return data_answer([("returnvalue", "S")], [[template]])


def routing_answer(recommended: Text, current: Text) -> bytes:
    """The answer that carries a pool's two routing tables."""
    return data_answer([("cr_recommendedrt", "S"), ("cr_currentrt", "S")], [[recommended, current]])
