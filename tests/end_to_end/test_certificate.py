"""The action certificate: a key and a self-signed certificate, read back byte by byte."""

from __future__ import annotations

import datetime
import stat
import subprocess
from pathlib import Path
from typing import Any, Sequence

import pytest
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import rsa

from harness import der
from harness.credentials import CredentialFile
from harness.messages import NO_REGISTRY, bad_combination, completed, executable_path, failed
from harness.passwords import KEY_FILE
from harness.sandbox import EXIT_FAILURE, Host, Result

SERVER_NAME = "spa.quorvex.example"
MD5_WITH_RSA = "1.2.840.113549.1.1.4"
COUNTRY, COMMON_NAME = "2.5.4.6", "2.5.4.3"
SUBJECT = [(COUNTRY, "US"), (COMMON_NAME, "Veltrane")]
NETSCAPE = "2.16.840.1.113730.1."
CERT_TYPE, SSL_SERVER_NAME, COMMENT = NETSCAPE + "1", NETSCAPE + "12", NETSCAPE + "13"
# Bit 1 of the certificate type is "SSL server"; six bits are unused.
SERVER_TYPE = bytes([der.BIT_STRING, 2, 6, 0x40])
IA5_STRING = 0x16
KEY_BITS = 1024
PUBLIC_EXPONENT = 65537
LIFETIME = datetime.timedelta(seconds=157_680_000)

SUCCESS = Result(0, b"", completed("certificate"))


def make(host: Host, *more: str, **settings: Any) -> Result:
    """Runs the action certificate."""
    return host.run("--action", "certificate", "--type", "Agent", *more, **settings)


def failure(description: str, stderr: bytes = b"", stdout: bytes = b"") -> Result:
    """A run that failed with this description."""
    return Result(EXIT_FAILURE, stdout, stderr + failed("certificate", description))


NOT_CREATED = failure("Could not create certificates.")


def private_key(pem: bytes) -> rsa.RSAPrivateNumbers:
    """The key of an unencrypted PEM text."""
    key = serialization.load_pem_private_key(pem, password=None)
    assert isinstance(key, rsa.RSAPrivateKey)
    return key.private_numbers()


def only_certificate(pem: bytes) -> der.Certificate:
    """The certificate of a PEM text that holds nothing else."""
    ((label, encoding),) = der.pem_blocks(pem)
    assert label == "CERTIFICATE"
    return der.certificate(encoding)


def is_key_pem(pem: bytes) -> bool:
    """True when the text is one unencrypted private key and nothing else."""
    labels = [label for label, _ in der.pem_blocks(pem)]
    return labels in (["PRIVATE KEY"], ["RSA PRIVATE KEY"])


def is_pair(certificate: bytes, key: bytes) -> bool:
    """True when certificate and key were made for each other."""
    numbers = private_key(key).public_numbers
    return only_certificate(certificate).key == der.RsaPublicKey(numbers.n, numbers.e)


def split_output(stdout: bytes) -> tuple[bytes, bytes]:
    """Certificate and key of a standard output, on which the key comes first."""
    mark = b"-----BEGIN CERTIFICATE-----\n"
    key, _, rest = stdout.partition(mark)
    return mark + rest, key


@pytest.fixture
def printed(host: Host) -> tuple[bytes, bytes]:
    """Certificate and key of a run without output files."""
    result = make(host, environment={"QUORVEX_SSL_SERVER_NAME": SERVER_NAME})
    assert (result.status, result.stderr) == (0, completed("certificate"))
    return split_output(result.stdout)


def test_the_key_is_an_unencrypted_rsa_key_of_the_certificate(printed: tuple[bytes, bytes]) -> None:
    certificate, key = printed
    assert is_key_pem(key)
    assert is_pair(certificate, key)
    public = only_certificate(certificate).key
    assert (public.modulus.bit_length(), public.exponent) == (KEY_BITS, PUBLIC_EXPONENT)


def test_the_certificate_has_its_odd_version_and_no_serial_number(printed: tuple[bytes, bytes]) -> None:
    certificate = only_certificate(printed[0])
    assert (certificate.version, certificate.serial) == (3, 0)


def test_the_certificate_is_signed_by_its_own_key_with_md5(printed: tuple[bytes, bytes]) -> None:
    certificate = only_certificate(printed[0])
    assert certificate.algorithms == (MD5_WITH_RSA, MD5_WITH_RSA)
    assert certificate.key.signed_with_md5(certificate.signed, certificate.signature)


def test_subject_and_issuer_are_country_and_common_name(printed: tuple[bytes, bytes]) -> None:
    certificate = only_certificate(printed[0])
    assert der.name_entries(certificate.subject) == SUBJECT
    assert certificate.issuer.encoding == certificate.subject.encoding


def utc_now() -> datetime.datetime:
    """The time as certificates have it."""
    return datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)


def test_the_certificate_is_good_for_1825_days_from_now(host: Host) -> None:
    before = utc_now().replace(microsecond=0)
    certificate = only_certificate(split_output(make(host).stdout)[0])
    assert before <= certificate.not_before <= utc_now()
    assert certificate.not_after - certificate.not_before == LIFETIME


def test_the_three_extensions_stand_in_order_and_are_not_critical(printed: tuple[bytes, bytes]) -> None:
    extensions = [extension.children() for extension in only_certificate(printed[0]).extensions]
    values = [(oid.oid(), value.content) for oid, value in extensions]
    assert values == [
        (CERT_TYPE, SERVER_TYPE),
        (COMMENT, ia5("veltrane")),
        (SSL_SERVER_NAME, ia5(SERVER_NAME)),
    ]
    assert all(value.tag == der.OCTET_STRING for _, value in extensions)


def ia5(text: str) -> bytes:
    """The DER encoding of a short IA5String."""
    return bytes([IA5_STRING, len(text)]) + text.encode()


def test_openssl_reads_the_certificate_too(printed: tuple[bytes, bytes]) -> None:
    command = ["openssl", "x509", "-noout", "-text", "-nameopt", "RFC2253"]
    text = subprocess.run(command, input=printed[0], check=True, stdout=subprocess.PIPE).stdout.decode()
    lines = [line.strip() for line in text.split("\n")]
    for expected in (
        "Serial Number: 0 (0x0)",
        "Signature Algorithm: md5WithRSAEncryption",
        "Subject: CN=Veltrane,C=US",
        "Issuer: CN=Veltrane,C=US",
        "Public-Key: (1024 bit)",
        "SSL Server",
        "veltrane",
        SERVER_NAME,
    ):
        assert expected in lines


def test_without_the_variable_the_server_name_is_still_there(host: Host) -> None:
    certificate = only_certificate(split_output(make(host).stdout)[0])
    oid, value = certificate.extensions[2].children()
    assert oid.oid() == SSL_SERVER_NAME and len(value.content) > len(ia5(""))


def server_name(host: Host, name: str) -> bytes:
    """The encoded server name of a certificate made with this in the environment."""
    result = make(host, environment={"QUORVEX_SSL_SERVER_NAME": name})
    assert (result.status, result.stderr) == (0, completed("certificate"))
    _, value = only_certificate(split_output(result.stdout)[0]).extensions[2].children()
    return value.content


@pytest.mark.parametrize("name", ["a b", "host:443", "with\nline", " DER:0500", "critical", "@section"])
def test_any_server_name_goes_in_as_it_stands(host: Host, name: str) -> None:
    assert server_name(host, name) == ia5(name)


@pytest.mark.parametrize("name", ["critical,host", "DER:0500", "ASN1:UTF8:x"])
def test_an_instruction_to_openssl_is_no_server_name(host: Host, name: str) -> None:
    assert server_name(host, name) == server_name(host, "")


def test_every_run_makes_a_new_key(host: Host) -> None:
    keys = {only_certificate(split_output(make(host).stdout)[0]).key for _ in range(3)}
    assert len(keys) == 3


def holds_pair(certificate: Path, key: Path) -> None:
    """Checks the two files of a run and that the key is its owner's alone."""
    assert is_key_pem(key.read_bytes())
    assert is_pair(certificate.read_bytes(), key.read_bytes())
    assert stat.S_IMODE(key.stat().st_mode) == 0o600


@pytest.mark.parametrize("slash", ["", "/"])
def test_todisk_with_a_key_directory_needs_nothing_else(host: Host, slash: str) -> None:
    keys = host.work / "keys"
    keys.mkdir()
    host.register_component("Agent", "/nowhere", "/nowhere")
    assert make(host, "--todisk", "--keydir", f"{keys}{slash}") == SUCCESS
    assert sorted(path.name for path in keys.iterdir()) == ["Agent.cert", "Agent.key"]
    holds_pair(keys / "Agent.cert", keys / "Agent.key")


def test_todisk_looks_at_the_registry_even_with_a_key_directory(host: Host) -> None:
    result = make(host, "--todisk", "--keydir", str(host.work))
    assert result == Result(0, executable_path("/opt/quorvex"), NO_REGISTRY + completed("certificate"))


def test_an_empty_key_directory_is_the_current_one(host: Host) -> None:
    assert make(host, "--todisk", "--keydir", "", "--configfile", "/nowhere") == SUCCESS
    holds_pair(host.work / "Agent.cert", host.work / "Agent.key")


@pytest.mark.parametrize("by_option", [True, False], ids=["configfile option", "registry"])
def test_todisk_takes_the_key_directory_from_the_credential_file(host: Host, by_option: bool) -> None:
    keys = host.work / "keys"
    keys.mkdir()
    file = CredentialFile(host.work / "Agent.cfg", keydir=str(keys))
    file.write()
    if not by_option:
        host.register_component("Agent", str(file.path), "/opt/agent")
    option = ("--configfile", str(file.path)) if by_option else ()
    assert make(host, "--todisk", *option) == SUCCESS
    holds_pair(keys / "Agent.cert", keys / "Agent.key")


def test_todisk_reads_the_default_credential_file(host: Host) -> None:
    host.install_default_product()
    CredentialFile(host.etc_quorvex / "Agent.cfg", keydir=str(host.work)).write()
    assert make(host, "--todisk") == Result(0, b"", NO_REGISTRY + completed("certificate"))
    holds_pair(host.work / "Agent.cert", host.work / "Agent.key")


def test_a_password_that_does_not_decrypt_stops_the_certificate(host: Host) -> None:
    file = CredentialFile(host.work / "Agent.cfg", keydir=str(host.work), login="agent_1", passwd="plain")
    file.write()
    (host.work / KEY_FILE).write_bytes(b"key")
    result = make(host, "--todisk", "--configfile", str(file.path))
    assert result == failure("Failed to decrypt password for user agent_1")


def test_todisk_without_any_credential_file_fails(host: Host) -> None:
    result = make(host, "--todisk", "--configfile", "/nowhere")
    description = "Failed to load from file /nowhere\n"
    assert result == failure(description, b"Failed to open input file:/nowhere\n")


def test_todisk_with_a_registry_that_lacks_the_agent_fails(host: Host) -> None:
    host.register_component("Router", "/c", "/p")
    assert make(host, "--todisk", "--keydir", str(host.work)) == failure("Could not open TZRegister")


def test_two_named_files_get_certificate_and_key(host: Host) -> None:
    certificate, key = host.work / "a", host.work / "b"
    options = ("--file", str(certificate), "--file2", str(key), "--configfile", "/nowhere")
    assert make(host, *options) == SUCCESS
    holds_pair(certificate, key)
    assert sorted(path.name for path in host.work.iterdir()) == ["a", "b"]


def test_todisk_wins_over_named_files(host: Host) -> None:
    options = ("--todisk", "--keydir", str(host.work), "--file", "a", "--file2", "b", "--configfile", "/nowhere")
    assert make(host, *options) == SUCCESS
    assert sorted(path.name for path in host.work.iterdir()) == ["Agent.cert", "Agent.key"]


def test_one_named_file_is_a_bad_combination(host: Host) -> None:
    assert make(host, "--file", "a", "--configfile", "/nowhere") == failure(bad_combination("keydir"))
    assert list(host.work.iterdir()) == []


@pytest.mark.parametrize("options", [("--file", "", "--file2", "b"), ("--file", "a", "--file2", ""), ("--file2", "b")])
def test_without_two_names_both_texts_are_printed(host: Host, options: Sequence[str]) -> None:
    result = make(host, *options, "--configfile", "/nowhere")
    assert (result.status, result.stderr) == (0, completed("certificate"))
    assert is_pair(*split_output(result.stdout))
    assert list(host.work.iterdir()) == []


@pytest.mark.parametrize("mask", [0o000, 0o022, 0o777])
def test_a_new_key_file_belongs_to_its_owner_alone(host: Host, mask: int) -> None:
    options = ("--file", "a", "--file2", "b", "--configfile", "/nowhere")
    assert make(host, *options, umask=mask) == SUCCESS
    assert stat.S_IMODE((host.work / "b").stat().st_mode) == 0o600 & ~mask


def test_existing_files_are_replaced_and_keep_their_modes(host: Host) -> None:
    for name, mode in (("a", 0o664), ("b", 0o640)):
        (host.work / name).write_bytes(b"old\n" * 2000)
        (host.work / name).chmod(mode)
    assert make(host, "--file", "a", "--file2", "b", "--configfile", "/nowhere") == SUCCESS
    assert is_pair((host.work / "a").read_bytes(), (host.work / "b").read_bytes())
    assert [stat.S_IMODE((host.work / name).stat().st_mode) for name in "ab"] == [0o664, 0o640]


@pytest.mark.parametrize("certificate", ["missing/a", "directory", "locked/a", "read-only"])
def test_a_certificate_file_that_cannot_be_opened_leaves_the_key_file_untouched(
    host: Host, certificate: str
) -> None:
    make_obstacles(host)
    assert make(host, "--file", certificate, "--file2", "b", "--configfile", "/nowhere") == NOT_CREATED
    assert not (host.work / "b").exists()


@pytest.mark.parametrize("key", ["missing/b", "directory", "locked/b", "read-only"])
def test_a_key_file_that_cannot_be_opened_leaves_an_empty_certificate_file(host: Host, key: str) -> None:
    make_obstacles(host)
    assert make(host, "--file", "a", "--file2", key, "--configfile", "/nowhere") == NOT_CREATED
    assert (host.work / "a").read_bytes() == b""


def make_obstacles(host: Host) -> None:
    """Makes what cannot be opened for writing."""
    (host.work / "directory").mkdir()
    (host.work / "locked").mkdir(mode=0o500)
    (host.work / "read-only").write_bytes(b"old\n")
    (host.work / "read-only").chmod(0o400)


def test_a_key_directory_that_does_not_exist_fails(host: Host) -> None:
    keys = str(host.work / "missing")
    assert make(host, "--todisk", "--keydir", keys, "--configfile", "/nowhere") == NOT_CREATED


PAGE_BYTES = 4096


@pytest.mark.parametrize("pages, taken", [(1, 0), (1, 1)], ids=["room for one file", "no room"])
def test_a_full_disk_fails(host: Host, pages: int, taken: int) -> None:
    host.add_small_disk("/small", pages * PAGE_BYTES)
    options = ("--file", "/small/a", "--file2", "/small/b", "--configfile", "/nowhere")
    shell = f'head -c {taken * PAGE_BYTES} /dev/zero >/small/taken; "$@"'
    assert make(host, *options, shell=shell) == NOT_CREATED


@pytest.mark.parametrize("shell", ['"$@" >/dev/full', '"$@" >&-'], ids=["full", "closed"])
def test_a_failing_standard_output_is_not_looked_at(host: Host, shell: str) -> None:
    assert make(host, shell=shell) == SUCCESS
