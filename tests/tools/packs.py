"""What the tests of velk-pack share: running it, a small application, a key, and packages made otherwise."""

from __future__ import annotations

import gzip
import io
import json
import os
import re
import resource
import shutil
import signal
import subprocess
import tarfile
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
BINARY = os.environ.get("VELK_PACK_BINARY") or str(CHECKOUT / "build" / "debug" / "src" / "velk-pack")
MAGIC = bytes.fromhex("658D14AB4207AAC6")
HELLO = CHECKOUT / "examples" / "hello"


@dataclass(frozen=True)
class Answer:
    status: int
    stdout: str
    stderr: str


def pack(*arguments: str | Path, **options: Any) -> Answer:
    result = subprocess.run(
        [BINARY, *map(str, arguments)], capture_output=True, check=False, timeout=120, **options
    )
    return Answer(
        result.returncode,
        result.stdout.decode("utf-8", "surrogateescape"),
        result.stderr.decode("utf-8", "surrogateescape"),
    )


def names(folder: Path) -> list[str]:
    return sorted(path.name for path in folder.iterdir())


def manifest_of(name: str = "App", **setup: Any) -> dict[str, Any]:
    return {"velkPackageConf": {"setup": {"appName": name, "version": "1.2.3", "runMode": "never", **setup}}}


@pytest.fixture
def here(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """An empty folder that is the working directory."""
    folder = tmp_path / "here"
    folder.mkdir()
    monkeypatch.chdir(folder)
    return folder


@pytest.fixture
def app(tmp_path: Path) -> Path:
    """The folder of a small application in which nothing is wrong."""
    folder = tmp_path / "tree" / "App"
    (folder / "html" / "deep").mkdir(parents=True)
    (folder / "manifest.json").write_text(json.dumps(manifest_of()))
    (folder / "LICENSE").write_text("free\n")
    (folder / "package.conf").write_text('APPNAME="App"\n')
    (folder / "App").write_text("#!/bin/sh\nexec sleep infinity\n")
    (folder / "App").chmod(0o755)
    (folder / "html" / "index.html").write_text("<p>\n")
    (folder / "link").symlink_to("html/index.html")
    return folder


@dataclass(frozen=True)
class Key:
    home: Path
    fingerprint: str
    keyring: Path

    def gpg(self, *arguments: str, data: bytes | None = None) -> bytes:
        command = ["gpg", "--homedir", str(self.home), "--batch", "--quiet", *arguments]
        return subprocess.run(command, input=data, capture_output=True, check=True).stdout


@pytest.fixture(scope="session")
def key(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Key]:
    """A key of our own, its agent ended afterwards; a socket's path must be short."""
    home = Path(subprocess.check_output(["mktemp", "-d"], text=True).strip())
    made = Key(home, "", home / "public.gpg")
    passphrase = ["--pinentry-mode", "loopback", "--passphrase", ""]
    made.gpg(*passphrase, "--quick-generate-key", "Packer <packer@velk.invalid>", "ed25519", "sign", "never")
    listing = made.gpg("--with-colons", "--list-keys").decode()
    made.keyring.write_bytes(made.gpg("--export"))
    fingerprint = re.search(r"^fpr:+([0-9A-F]{40}):", listing, re.MULTILINE)
    assert fingerprint
    yield Key(home, fingerprint[1], made.keyring)
    subprocess.run(["gpgconf", "--homedir", str(home), "--kill", "all"], check=False)
    shutil.rmtree(home, ignore_errors=True)


@pytest.fixture
def home_of_key(key: Key, monkeypatch: pytest.MonkeyPatch) -> Key:
    monkeypatch.setenv("GNUPGHOME", str(key.home))
    return key


@pytest.fixture
def package(here: Path, app: Path) -> Path:
    """An unsigned package in the working directory."""
    assert pack("build", app).status == 0
    return here / "App.vlp"


@pytest.fixture
def signed(package: Path, home_of_key: Key) -> Path:
    answer = pack("sign", package, "--key", home_of_key.fingerprint)
    assert answer.status == 0, answer.stderr
    return package


def room_for(size: int) -> Callable[[], None]:
    """What makes a process find the disk full behind so many bytes of a file."""

    def limit() -> None:
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    return limit


def made_package(path: Path, members: dict[str, bytes]) -> Path:
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w") as archive:
        for name, data in members.items():
            member = tarfile.TarInfo(name)
            member.size = len(data)
            archive.addfile(member, io.BytesIO(data))
    path.write_bytes(gzip.compress(buffer.getvalue()))
    return path
