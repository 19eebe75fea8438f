"""velk-pack with packages that somebody made to do harm: what they cost, and what they show."""

from __future__ import annotations

import gzip
import io
import json
import os
import re
import struct
import subprocess
import sys
import tarfile
import zlib
from pathlib import Path

import pytest
from packs import (  # noqa: F401  (fixtures for whoever asks for them)
    BINARY,
    MAGIC,
    Answer,
    Key,
    app,
    here,
    home_of_key,
    key,
    made_package,
    manifest_of,
    pack,
    package,
    signed,
)

KIB_OF_MEMORY = 120 << 10
# What steers a terminal, ends a line in some of them, or turns the direction of what is shown or is not seen at all.
CONTROLS = ["\x1b", "\x7f", "\x80", "\x9b", "\x9f", *"\u061c\u200b\u200e\u200f\u2028\u2029\ufeff"]
CONTROLS += [*"\u202a\u202b\u202c\u202d\u202e\u2066\u2067\u2068\u2069"]


# What a process took at most counts what it was before it became another program, so a small one starts it.
MEASURE = """
import os, subprocess, sys
process = subprocess.Popen(sys.argv[2:], stdout=open(sys.argv[1], "wb"), stderr=subprocess.STDOUT)
_, status, usage = os.wait4(process.pid, 0)
print(os.waitstatus_to_exitcode(status), usage.ru_maxrss)
"""


def measured(*arguments: str | Path) -> tuple[int, str, int]:
    """How a command ended, what it said, and the most memory that it or a program of its own took, in KiB."""
    command = [sys.executable, "-c", MEASURE, "said", BINARY, *map(str, arguments)]
    status, memory = subprocess.check_output(command, text=True).split()
    return int(status), Path("said").read_text(), int(memory)


def openpgp(tag: int, body: bytes) -> bytes:
    return bytes([0xC0 | tag, 0xFF]) + struct.pack(">I", len(body)) + body


def compressed(body: bytes) -> bytes:
    """A packet of compressed packets."""
    deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
    return openpgp(8, b"\x01" + deflate.compress(body) + deflate.flush())


def with_signature(package: Path, signature: bytes) -> Path:
    package.write_bytes(package.read_bytes() + signature + struct.pack(">II", len(signature), 1) + MAGIC)
    return package


@pytest.mark.parametrize(
    "packets",
    {
        "very many packets": openpgp(13, b"a") * 6_000_000,
        "one packet of zeros": openpgp(13, bytes(200_000_000)),
        "a literal of zeros": openpgp(11, b"b\0\0\0\0\0" + bytes(200_000_000)),
        "a signature without end": openpgp(2, b"\x04\0\x01\x02\0\0\xff" + bytes(60_000_000)),
    }.items(),
    ids=lambda item: item[0],
)
def test_a_signature_of_compressed_packets_costs_little(package: Path, packets: tuple[str, bytes]) -> None:
    with_signature(package, compressed(compressed(packets[1])))
    status, text, memory = measured("info", package)
    assert (status, memory < KIB_OF_MEMORY) == (0, True), (memory, text[-500:])
    assert "  signer        unknown (not verified)\n" in text


def test_a_signature_of_more_than_a_device_reads_is_not_read(package: Path, key: Key) -> None:
    with_signature(package, bytes((1 << 20) + 1))
    refused = Answer(2, "", f"velk-pack: {package}: the signature is too large\n")
    assert pack("info", package) == pack("split", package) == refused
    assert pack("verify", package, "--keyring", key.keyring) == refused


def list_of(count: int, *members: tuple[str, bytes]) -> bytes:
    """An archive of these members and so many empty ones, compressed."""
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w") as archive:
        for name, data in members:
            member = tarfile.TarInfo(name)
            member.size = len(data)
            archive.addfile(member, io.BytesIO(data))
    deflate = zlib.compressobj(1, zlib.DEFLATED, 31)
    block = tarfile.TarInfo("x").tobuf() * 1000
    packed = deflate.compress(buffer.getvalue().rstrip(b"\0").ljust(1024 * 8, b"\0"))
    for _ in range(count // 1000):
        packed += deflate.compress(block)
    return packed + deflate.compress(bytes(1024)) + deflate.flush()


def test_a_list_without_end_costs_little(here: Path) -> None:
    manifest = json.dumps(manifest_of()).encode()
    archive = list_of(2_000_000, ("manifest.json", manifest + b" " * (8192 - 512 - len(manifest) - 8) + b"\n" * 8))
    (here / "x.vlp").write_bytes(archive)
    status, text, memory = measured("info", "x.vlp")
    assert (status, text) == (1, "velk-pack: x.vlp: the archive has more names than any application\n")
    assert memory < KIB_OF_MEMORY


@pytest.mark.parametrize("control", CONTROLS, ids=lambda control: f"U+{ord(control):04X}")
def test_nothing_in_a_package_steers_or_misleads(here: Path, control: str) -> None:
    manifest = json.dumps(manifest_of(friendlyName=f"Fine{control}App", version=f"1{control}"), ensure_ascii=False)
    members = {"manifest.json": manifest.encode(), f"html/gpj{control}.exe": b""}
    name = f"x{control}.vlp"
    made_package(here / name, members)
    shown = "".join(f"\\x{byte:02x}" for byte in control.encode())
    answer = pack("info", name)
    assert (answer.status, answer.stderr) == (0, "")
    assert control not in answer.stdout
    assert answer.stdout.startswith(f"x{shown}.vlp\n")
    assert f"  name          Fine{shown}App\n" in answer.stdout
    assert f": Version '1{shown}' does not follow" in answer.stdout
    assert f"  html/gpj{shown}.exe\n" in answer.stdout
    machine = pack("info", "--json", name)
    assert control not in machine.stdout
    assert json.loads(machine.stdout)["files"][1]["name"] == f"html/gpj{control}.exe"
    refused = pack("split", f"no{control}")
    assert refused.stderr == f"velk-pack: no{shown}: cannot be read: No such file or directory\n"
    assert control not in pack("split", "--json", f"no{control}").stdout


def test_bytes_that_are_no_text_are_shown_as_such(here: Path) -> None:
    block = tarfile.TarInfo("name").tobuf()
    named = block.replace(b"name", b"\x9b2J\xff", 1)
    total = 8 * 32 + sum(named[:148]) + sum(named[156:])
    named = named[:148] + b"%06o\0 " % total + named[156:]
    manifest = json.dumps(manifest_of()).encode()
    header = tarfile.TarInfo("manifest.json")
    header.size = len(manifest)
    (here / "x.vlp").write_bytes(
        gzip.compress(header.tobuf() + manifest + bytes(-len(manifest) % 512) + named + bytes(1024))
    )
    assert pack("info", "x.vlp").stdout.endswith("  \\x9b2J\\xff\n")


def test_a_signers_name_cannot_steer_the_terminal(signed: Path, tmp_path: Path) -> None:
    """Whoever fills the keyring is not always whoever reads the answer."""
    fake = tmp_path / "bin"
    fake.mkdir()
    (fake / "gpgv").write_text(
        "#!/bin/sh\ncat >/dev/null\n"
        "printf '[GNUPG:] GOODSIG 1 A\\302\\233\\342\\200\\256B\\n[GNUPG:] VALIDSIG F 1 2\\n'\n"
    )
    (fake / "gpgv").chmod(0o755)
    (tmp_path / "ring").write_bytes(b"")
    environment = {**os.environ, "PATH": f"{fake}:{os.environ['PATH']}"}
    answer = pack("verify", signed, "--keyring", tmp_path / "ring", env=environment)
    assert answer == Answer(0, f"Good signature of {signed} by A\\xc2\\x9b\\xe2\\x80\\xaeB, key F\n", "")


# --- what a user has set ---


@pytest.mark.parametrize(
    "environment",
    [{"TAR_OPTIONS": "--no-such-option"}, {"TAR_OPTIONS": "--exclude=*"}, {"GZIP": "-l"}, {"POSIXLY_CORRECT": "1"}],
    ids=str,
)
def test_how_a_user_runs_tar_changes_no_verdict(signed: Path, key: Key, environment: dict[str, str]) -> None:
    command = ["verify", "--keyring", key.keyring, signed]
    assert pack(*command, env={**os.environ, **environment}) == pack(*command)
    assert pack(*command).status == 0


# --- attach makes nothing that a device refuses ---


def test_text_around_a_signature_is_not_attached(package: Path, key: Key) -> None:
    signature = key.gpg("--armor", "--detach-sign", data=package.read_bytes())
    before = package.read_bytes()
    for text in (b"more\n" + signature, signature + b"more\n", signature + b"\n" * (1 << 20)):
        Path("sig").write_bytes(text)
        rule = "holds more than the signature, which no device takes"
        assert pack("attach", package, "sig") == Answer(2, "", f"velk-pack: sig: {rule}\n")
    assert package.read_bytes() == before
    Path("sig").write_bytes(signature)
    assert pack("attach", package, "sig").status == 0
    assert re.fullmatch(r"Good signature of \S+ by .*\n", pack("verify", package, "--keyring", key.keyring).stdout)
