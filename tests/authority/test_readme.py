"""The examples of the README."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

import pytest

from harness.answers import HOST
from harness.authority import Front
from harness.programs import AUTHORITY, TIMEOUT_S

PASSWORD = re.compile(r"[A-Za-z0-9_-]{32}")


def examples(readme: str) -> list[tuple[str, str]]:
    """Commands and what they print, from the console blocks that call the pages."""
    blocks = re.findall(r"^```console\n(.*?)^```$", readme, re.M | re.S)
    pairs = [re.split(r"^\$ ", block, flags=re.M)[1:] for block in blocks]
    found = [example.partition("\n") for block in pairs for example in block if re.search("curl|^spa ", example)]
    return [(command, printed) for command, _, printed in found]


def test_the_examples_of_the_readme_print_what_it_says(front: Front) -> None:
    readme = (AUTHORITY / "README.md").read_text()
    setup = re.findall(r"^```sh\n(.*?)^```$", readme, re.M | re.S)[0]
    own = {"OWN_SPA": front.authority.url, "OWN_DATA": str(front.authority.data), "OWN_TLS": front.url}
    values = "DATA=$OWN_DATA SPA=$OWN_SPA TLS=$OWN_TLS"
    (front.authority.data / "cert.pem").write_bytes(front.certificate.read_bytes())
    found = examples(readme)
    assert len(found) == 8
    for command, expected in found:
        done = subprocess.run(
            ["bash", "-c", f"{setup}\n{values}\n{command}"], capture_output=True, text=True, env={**os.environ, **own}
        )
        printed = done.stdout.replace("\r", "").replace(front.authority.url, "http://127.0.0.1:41741")
        printed = printed.replace(f"server: {HOST}", "server: spa.example")
        assert PASSWORD.sub("PASSWORD", printed) == PASSWORD.sub("PASSWORD", expected), command


@pytest.mark.parametrize("scheme", ["vrmo", "https"])
def test_three_commands_let_the_tool_trust_the_front(front: Front, tmp_path: Path, scheme: str) -> None:
    readme = (AUTHORITY / "README.md").read_text()
    [block] = re.findall(r"^```console\n(\$ install .*?)^```$", readme, re.M | re.S)
    lines = block.splitlines()
    commands = [line.removeprefix("$ ") for line in lines if line.startswith("$ ")]
    assert len(commands) == 3
    data = tmp_path / "spa"
    (data / "cert.pem").write_bytes(front.certificate.read_bytes())
    script = "\n".join(["set -e", *commands]).replace("/tmp/spa", str(data))
    script = script.replace("vrmo://127.0.0.1:43423", front.url.replace("https", scheme))
    environment = {"PATH": f"{Path(os.environ['TZREGISTER_BINARY']).parent}:/usr/bin:/bin"}
    done = subprocess.run(
        ["bash", "-c", script], capture_output=True, text=True, env=environment, timeout=TIMEOUT_S, cwd=tmp_path
    )
    assert (done.returncode, done.stdout + done.stderr) == (0, lines[-1] + "\n")
    pages = front.authority.rows("SELECT page FROM requests")
    assert pages == [("vrmo.php" if scheme == "vrmo" else "ws_storagepool.php",)]
