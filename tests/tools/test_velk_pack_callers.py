"""velk-pack from outside: what a caller hands down and what must not bend its answer."""

from __future__ import annotations

import itertools
import subprocess
from pathlib import Path

import pytest
from packs import (  # noqa: F401  (fixtures for whoever asks for them)
    BINARY,
    Answer,
    Key,
    app,
    here,
    home_of_key,
    key,
    pack,
    package,
    signed,
)

CLOSED = [closed for size in (1, 2, 3) for closed in itertools.combinations((0, 1, 2), size)]
HOW = {0: "<&-", 1: ">&-", 2: "2>&-"}
NOT_WRITTEN = "velk-pack: standard output: Bad file descriptor\n"


def ignoring_children(*arguments: str | Path) -> Answer:
    command = ["env", "--ignore-signal=CHLD", BINARY, *map(str, arguments)]
    result = subprocess.run(command, capture_output=True, check=False, text=True, timeout=120)
    return Answer(result.returncode, result.stdout, result.stderr)


def closing(closed: tuple[int, ...], *arguments: str | Path) -> Answer:
    script = f'"$0" "$@" {" ".join(HOW[fd] for fd in closed)}'
    command = ["sh", "-c", script, BINARY, *map(str, arguments)]
    result = subprocess.run(command, capture_output=True, check=False, text=True, timeout=120)
    return Answer(result.returncode, result.stdout, result.stderr)


def test_a_changed_package_is_bad_when_nobody_waits_for_children(signed: Path, home_of_key: Key) -> None:  # noqa: F811
    data = bytearray(signed.read_bytes())
    data[20] ^= 1
    signed.write_bytes(data)
    usual = pack("verify", signed, "--keyring", home_of_key.keyring)
    assert usual.status == 2
    assert ignoring_children("verify", signed, "--keyring", home_of_key.keyring) == usual


@pytest.mark.parametrize("closed", CLOSED)
def test_closed_descriptors_make_no_package_bad(signed: Path, home_of_key: Key, closed: tuple[int, ...]) -> None:  # noqa: F811
    before = signed.read_bytes()
    usual = pack("verify", signed, "--keyring", home_of_key.keyring)
    assert usual.status == 0
    answer = closing(closed, "verify", signed, "--keyring", home_of_key.keyring)
    if 1 in closed:  # an answer that nobody can have read is none
        assert answer == Answer(10, "", "" if 2 in closed else NOT_WRITTEN)
    else:
        assert answer == Answer(0, usual.stdout, "" if 2 in closed else usual.stderr)
    assert signed.read_bytes() == before
