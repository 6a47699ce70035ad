"""A small reader of DER, enough to take a certificate apart byte by byte.

Libraries refuse or repair certificates with an odd version number; this reader
shows what was encoded.
"""

from __future__ import annotations

import base64
import datetime
import hashlib
import re
from dataclasses import dataclass
from typing import Iterator

INTEGER = 0x02
BIT_STRING = 0x03
OCTET_STRING = 0x04
OBJECT_IDENTIFIER = 0x06
UTC_TIME = 0x17

_LONG_FORM = 0x80
_VALUE_BITS = 7
# DigestInfo of an MD5 digest, up to the digest itself.
_MD5_INFO = bytes.fromhex("3020300c06082a864886f70d020505000410")


@dataclass(frozen=True)
class Element:
    """One DER element: its tag, its content, and its whole encoding."""

    tag: int
    content: bytes
    encoding: bytes

    def children(self) -> list["Element"]:
        """The elements inside a constructed element."""
        return list(elements(self.content))

    def integer(self) -> int:
        """The value of an INTEGER."""
        assert self.tag == INTEGER
        return int.from_bytes(self.content, "big", signed=True)

    def oid(self) -> str:
        """The dotted text of an OBJECT IDENTIFIER."""
        assert self.tag == OBJECT_IDENTIFIER
        arcs, value = [self.content[0] // 40, self.content[0] % 40], 0
        for byte in self.content[1:]:
            value = value << _VALUE_BITS | byte & ~_LONG_FORM
            if not byte & _LONG_FORM:
                arcs.append(value)
                value = 0
        return ".".join(map(str, arcs))

    def time(self) -> datetime.datetime:
        """The value of a UTCTime."""
        assert self.tag == UTC_TIME
        return datetime.datetime.strptime(self.content.decode(), "%y%m%d%H%M%SZ")

    def bits(self) -> bytes:
        """The content of a BIT STRING of whole bytes."""
        assert self.tag == BIT_STRING and self.content[0] == 0
        return self.content[1:]


def elements(data: bytes) -> Iterator[Element]:
    """The elements that stand one behind the other in `data`."""
    at = 0
    while at < len(data):
        start, tag, length = at, data[at], data[at + 1]
        at += 2
        if length & _LONG_FORM:
            size = length & ~_LONG_FORM
            length = int.from_bytes(data[at : at + size], "big")
            at += size
        assert at + length <= len(data)
        yield Element(tag, data[at : at + length], data[start : at + length])
        at += length


def element(data: bytes) -> Element:
    """The one element that `data` is."""
    (only,) = elements(data)
    return only


def pem_blocks(text: bytes) -> list[tuple[str, bytes]]:
    """The (label, content) blocks of a PEM text that holds nothing else."""
    pattern = re.compile(rb"-----BEGIN ([A-Z ]+)-----\n([A-Za-z0-9+/=\n]+)-----END \1-----\n")
    blocks = [(found[1].decode(), base64.b64decode(found[2])) for found in pattern.finditer(text)]
    assert pattern.sub(b"", text) == b""
    return blocks


@dataclass(frozen=True)
class RsaPublicKey:
    """An RSA key's public half."""

    modulus: int
    exponent: int

    def signed_with_md5(self, message: bytes, signature: bytes) -> bool:
        """True when the signature is this key's over the message's MD5 digest."""
        length = (self.modulus.bit_length() + 7) // 8
        info = _MD5_INFO + hashlib.md5(message).digest()
        padded = b"\0\1" + b"\xff" * (length - len(info) - 3) + b"\0" + info
        plain = pow(int.from_bytes(signature, "big"), self.exponent, self.modulus)
        return len(signature) == length and plain.to_bytes(length, "big") == padded


def rsa_public_key(info: Element) -> RsaPublicKey:
    """The key in a SubjectPublicKeyInfo."""
    algorithm, key = info.children()
    assert algorithm.children()[0].oid() == "1.2.840.113549.1.1.1"
    modulus, exponent = element(key.bits()).children()
    return RsaPublicKey(modulus.integer(), exponent.integer())


@dataclass(frozen=True)
class Certificate:
    """The fields of an X.509 certificate, as encoded."""

    version: int
    serial: int
    algorithms: tuple[str, str]
    issuer: Element
    not_before: datetime.datetime
    not_after: datetime.datetime
    subject: Element
    key: RsaPublicKey
    extensions: list[Element]
    signed: bytes
    signature: bytes


def certificate(encoding: bytes) -> Certificate:
    """Takes a certificate apart."""
    to_be_signed, algorithm, signature = element(encoding).children()
    version, serial, inner, issuer, validity, subject, key, extensions = to_be_signed.children()
    begin, end = validity.children()
    return Certificate(
        version=element(version.content).integer(),
        serial=serial.integer(),
        algorithms=(inner.children()[0].oid(), algorithm.children()[0].oid()),
        issuer=issuer,
        not_before=begin.time(),
        not_after=end.time(),
        subject=subject,
        key=rsa_public_key(key),
        extensions=element(extensions.content).children(),
        signed=to_be_signed.encoding,
        signature=signature.bits(),
    )


def name_entries(name: Element) -> list[tuple[str, str]]:
    """The (type, text) entries of a name, each in a set of its own."""
    entries = []
    for entry_set in name.children():
        (entry,) = entry_set.children()
        kind, text = entry.children()
        entries.append((kind.oid(), text.content.decode()))
    return entries
