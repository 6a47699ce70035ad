"""Certificates for the servers of the tests.

A `CertificateAuthority` signs servers' certificates; what is wrong with a
certificate (its names, its time, its issuer) is the case's choice.
"""

from __future__ import annotations

import datetime
import ipaddress
import ssl
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Optional, Sequence

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

_DAY = datetime.timedelta(days=1)
LOOPBACK_NAMES = ("127.0.0.1", "localhost")


@dataclass(frozen=True)
class ServerFiles:
    """A server's certificate and key in PEM files."""

    certificate: Path
    key: Path

    def context(self) -> ssl.SSLContext:
        """A server's TLS settings with this certificate."""
        settings = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        settings.load_cert_chain(self.certificate, self.key)
        return settings


def _name(text: str) -> x509.Name:
    """A subject or issuer with just a common name."""
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, text)])


def _alternative_names(names: Sequence[str]) -> x509.SubjectAlternativeName:
    """The names that a server's certificate is good for."""
    entries: list[x509.GeneralName] = []
    for name in names:
        if name.replace(".", "").isdigit():
            entries.append(x509.IPAddress(ipaddress.ip_address(name)))
        else:
            entries.append(x509.DNSName(name))
    return x509.SubjectAlternativeName(entries)


class CertificateAuthority:
    """Issues certificates; its own lies in `file`. Its name is its directory's unless one is given."""

    def __init__(self, directory: Path, name: Optional[str] = None) -> None:
        directory.mkdir(parents=True)
        self._directory = directory
        self._name = _name(name or directory.name)
        self._key = ec.generate_private_key(ec.SECP256R1())
        self.file = directory / "ca.pem"
        certificate = self._certificate(self._name, self._key.public_key(), (-_DAY, 2 * _DAY), ca=True)
        self.file.write_bytes(_pem(certificate))

    def hashed_name(self) -> str:
        """The file name under which OpenSSL finds this authority in a directory."""
        command = ["openssl", "x509", "-noout", "-hash", "-in", str(self.file)]
        return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip() + ".0"

    def server(
        self,
        names: Sequence[str] = LOOPBACK_NAMES,
        valid: tuple[datetime.timedelta, datetime.timedelta] = (-_DAY, _DAY),
        file_name: str = "server",
    ) -> ServerFiles:
        """A server's key and certificate, by default valid for loopback now."""
        key = ec.generate_private_key(ec.SECP256R1())
        certificate = self._certificate(_name("server"), key.public_key(), valid, names=names)
        files = ServerFiles(self._directory / f"{file_name}.pem", self._directory / f"{file_name}.key")
        files.certificate.write_bytes(_pem(certificate))
        files.key.write_bytes(
            key.private_bytes(
                serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
            )
        )
        return files

    def expired_server(self) -> ServerFiles:
        """A server whose certificate was good until yesterday."""
        return self.server(valid=(-2 * _DAY, -_DAY), file_name="expired")

    def future_server(self) -> ServerFiles:
        """A server whose certificate will be good from tomorrow on."""
        return self.server(valid=(_DAY, 2 * _DAY), file_name="future")

    def _certificate(
        self,
        subject: x509.Name,
        public_key: ec.EllipticCurvePublicKey,
        valid: tuple[datetime.timedelta, datetime.timedelta],
        names: Optional[Sequence[str]] = None,
        ca: bool = False,
    ) -> x509.Certificate:
        """A certificate signed by this authority, valid around now."""
        now = datetime.datetime.now(datetime.timezone.utc)
        builder = (
            x509.CertificateBuilder()
            .subject_name(subject)
            .issuer_name(self._name)
            .public_key(public_key)
            .serial_number(x509.random_serial_number())
            .not_valid_before(now + valid[0])
            .not_valid_after(now + valid[1])
            .add_extension(x509.BasicConstraints(ca=ca, path_length=None), critical=True)
        )
        if names is not None:
            builder = builder.add_extension(_alternative_names(names), critical=False)
        return builder.sign(self._key, hashes.SHA256())


def _pem(certificate: x509.Certificate) -> bytes:
    """The certificate as it lies in a file."""
    return certificate.public_bytes(serialization.Encoding.PEM)
