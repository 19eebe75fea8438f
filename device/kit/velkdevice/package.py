"""Packages (.vlp): a tar archive of a folder, signed by a throw-away key that the device's keyring holds."""

from __future__ import annotations

import gzip
import io
import json
import os
import shutil
import struct
import subprocess
import tarfile
import tempfile
import time
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from . import host

MAGIC = bytes.fromhex("658D14AB4207AAC6")


@dataclass(frozen=True)
class Key:
    """An OpenPGP key pair in a folder of its own, made once and kept under the build folder."""

    home: Path

    @staticmethod
    def trusted() -> Key:
        """The key whose public half is in every device's keyring."""
        return Key.named("trusted")

    @staticmethod
    def named(name: str, algorithm: str = "ed25519") -> Key:
        """The key of that name, made on first use; any name but "trusted" is a stranger to the device."""
        home = host.BUILD / "keys" / f"{name}-{algorithm}"
        with host.locked("keys"):
            if not (home / "made").exists():
                host.remove_tree(home)
                home.mkdir(parents=True, mode=0o700)
                key = Key(home)
                key.gpg(
                    "--quick-generate-key",
                    f"Throw-away {name} <{name}@velk.invalid>",
                    algorithm,
                    "sign",
                    "never",
                )
                (home / "made").touch()
        return Key(home)

    def gpg(self, *arguments: str, data: bytes | None = None) -> bytes:
        """Run gpg on this key's folder; the agent that it needs ends with the call, so calls take turns."""
        # A socket path is short; the folder's may not be.
        with host.locked("gpg"), tempfile.TemporaryDirectory(prefix="velk-gpg-") as short:
            link = Path(short) / "home"
            link.symlink_to(self.home)
            base = [
                "gpg",
                "--homedir",
                str(link),
                "--batch",
                "--quiet",
                "--pinentry-mode",
                "loopback",
                "--passphrase",
                "",
                "--no-permission-warning",
            ]
            try:
                result = subprocess.run([*base, *arguments], input=data, capture_output=True, check=False)
            finally:
                subprocess.run(
                    ["gpgconf", "--homedir", str(link), "--kill", "all"], capture_output=True, check=False
                )
            # An agent that is still ending would take the next call's socket, and its keys, with it.
            end = time.monotonic() + 5
            while (self.home / "S.gpg-agent").exists() and time.monotonic() < end:
                time.sleep(0.005)
        if result.returncode != 0:
            raise host.DeviceError(f"gpg: {result.stderr.decode()}")
        return result.stdout

    def keyring(self) -> bytes:
        """The public half in binary form, which is the only one that the device's gpgv reads."""
        path = self.home / "public.gpg"
        if not path.exists():
            path.write_bytes(self.gpg("--export"))
        return path.read_bytes()

    def sign(self, data: bytes, *options: str) -> bytes:
        """A detached armoured signature over the data; more gpg options may follow."""
        return self.gpg("--armor", *options, "--detach-sign", data=data)


def trailer(signature_size: int, version: int = 1, magic: bytes = MAGIC) -> bytes:
    """The 16 bytes at the end of a signed package."""
    return struct.pack(">II", signature_size, version) + magic


def append_signature(archive: bytes, signature: bytes, version: int = 1) -> bytes:
    """The package that carries this signature over this archive."""
    return archive + signature + trailer(len(signature), version)


def archive_of(folder: Path, compress: bool = True) -> bytes:
    """
    A tar archive of everything in the folder, the same for the same content.

    Owners are root, times are zero; a file keeps its executable bit and is 0644 or 0755 otherwise. Names have
    no "./" in front and the manifest comes first, as packages have them.
    """
    names = sorted(path.relative_to(folder) for path in folder.rglob("*"))
    names.sort(key=lambda path: path.name != "manifest.json" or len(path.parts) > 1)
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.GNU_FORMAT) as tar:
        for name in names:
            member = tar.gettarinfo(folder / name, arcname=str(name))
            member.uid = member.gid = member.mtime = 0
            member.uname = member.gname = "root"
            member.mode = 0o755 if member.isdir() or member.mode & 0o100 else 0o644
            if member.isreg():
                with open(folder / name, "rb") as data:
                    tar.addfile(member, data)
            else:
                tar.addfile(member)
    return gzip.compress(buffer.getvalue(), mtime=0) if compress else buffer.getvalue()


def prepare(folder: Path) -> None:
    """Run the folder's own `prepare`, if it has one, in it, and remove it: it makes what cannot lie in a checkout."""
    script = folder / "prepare"
    if not script.exists():
        return
    result = subprocess.run([script], cwd=folder, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise host.DeviceError(f"{script}: {result.stdout}{result.stderr}")
    script.unlink()


def pack_source(source: Path, target: Path, **options: Any) -> Path:
    """Make a package of a folder that stays as it is: what `prepare` does, it does in a copy. Options as for `pack`."""
    with tempfile.TemporaryDirectory(prefix="velk-pack-") as scratch:
        folder = Path(scratch) / "folder"
        shutil.copytree(source, folder, symlinks=True)
        prepare(folder)
        return pack(folder, target, **options)


def pack(
    folder: Path, target: Path, key: Key | None = None, sign: bool = True, compress: bool = True
) -> Path:
    """Make the package `target` of a folder, signed with the trusted key unless told otherwise."""
    archive = archive_of(folder, compress)
    data = append_signature(archive, (key or Key.trusted()).sign(archive)) if sign else archive
    target.write_bytes(data)
    return target


def write_tree(folder: Path, files: Mapping[str, Any]) -> Path:
    """
    Lay out an application's folder from a description: name -> text, bytes, JSON value, or (one of them,
    mode).

    Without a mode a file that starts with "#!" is executable; a name that ends in "/" is an empty directory.
    """
    for name, content in files.items():
        content, mode = content if isinstance(content, tuple) else (content, None)
        path = folder / name
        if name.endswith("/"):
            path.mkdir(parents=True, exist_ok=True)
            continue
        path.parent.mkdir(parents=True, exist_ok=True)
        if not isinstance(content, (str, bytes)):
            content = json.dumps(content, indent=2) + "\n"
        data = content.encode() if isinstance(content, str) else content
        path.write_bytes(data)
        os.chmod(path, mode if mode is not None else 0o755 if data[:2] == b"#!" else 0o644)
    return folder


def manifest(name: str, **settings: Any) -> dict[str, Any]:
    """
    The least manifest of an application `name`; `settings` go into its setup section (None leaves a key out).

    What belongs elsewhere is added by the caller: manifest(...)["velkPackageConf"]["configuration"] = {...}.
    """
    setup = {
        "appName": name,
        "friendlyName": f"{name} of the tests",
        "vendor": "Tests",
        "vendorId": "tests",
        "version": "1.0.0",
        "runMode": "never",
    }
    setup.update(settings)
    return {
        "schemaVersion": "1.0.0",
        "velkPackageConf": {"setup": {key: value for key, value in setup.items() if value is not None}},
    }


def application(name: str, **settings: Any) -> dict[str, Any]:
    """
    The files of a small real application: a service that runs until it is told to end, a page and a LICENSE.
    """
    return {
        "manifest.json": manifest(name, **settings),
        name: "#!/bin/sh\nexec sleep infinity\n",
        "LICENSE": "Do what you like.\n",
        "html/index.html": f"<p>{name}\n",
    }
