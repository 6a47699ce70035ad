"""System-account passwords as they stand in configuration files.

Written from the format, not from the tool's code, so that the two check each
other: a version mark, then base64url of salt, nonce, cipher text and tag.
"""

from __future__ import annotations

import base64
import os

from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.hkdf import HKDF

KEY_FILE = "auth.key"
MASK = "*" * 10

_MARK = b"qx1."
_LABEL = b"system account password"
_SALT_BYTES = 16
_NONCE_BYTES = 12
_KEY_BYTES = 32


def _cipher(key_material: bytes, salt: bytes) -> AESGCM:
    """AES-256-GCM under the key that the key file and the salt give."""
    return AESGCM(HKDF(hashes.SHA256(), _KEY_BYTES, salt, _LABEL).derive(key_material))


def encrypt(key_material: bytes, password: bytes) -> str:
    """A stored password as the tool would write it."""
    salt, nonce = os.urandom(_SALT_BYTES), os.urandom(_NONCE_BYTES)
    sealed = salt + nonce + _cipher(key_material, salt).encrypt(nonce, password, _MARK)
    return (_MARK + base64.urlsafe_b64encode(sealed).rstrip(b"=")).decode()


def decrypt(key_material: bytes, stored: bytes) -> bytes:
    """The plain password; raises when the text is not what the key file made."""
    assert stored.startswith(_MARK) and b"=" not in stored
    text = stored[len(_MARK) :]
    sealed = base64.urlsafe_b64decode(text + b"=" * (-len(text) % 4))
    salt, rest = sealed[:_SALT_BYTES], sealed[_SALT_BYTES:]
    return _cipher(key_material, salt).decrypt(rest[:_NONCE_BYTES], rest[_NONCE_BYTES:], _MARK)
