"""What the tests of packages and the content store share: packages, odd archives, views of the store."""

from __future__ import annotations

import gzip
import io
import json
import re
import tarfile
from collections.abc import Callable, Iterable, Iterator, Mapping
from typing import Any

import pytest
from velkdevice import package, snapshot
from velkdevice.device import Device, Result

STORE = "/usr/local/packages"
CARD = "/var/spool/storage/SD_DISK/packages"
CARD2 = "/var/spool/storage/SD_DISK2/packages"
LAYERS = "/opt/packages/_layers"
LOCK = f"{STORE}/_lock/velkctl"
SETTINGS = "/etc/velk/conf/packageparser.conf"
KEYRING = "/usr/share/velkmanager/velk.public.gpg"
STATES = "/etc/velk/vsf"
MISMATCH = (2, "code 2: Bad signature, doesn't match keyring\n")
NOT_OPENPGP = (2, "code 2: Bad signature, no valid OpenPGP data found\n")
DISK_FULL = "code 3: Package too large. The package file is too large or the disk is full.\n"
CONFIGURATION = 'PACKAGENAME="An application"\nAPPNAME="{0}"\nAPPTYPE="all"\n'


def app_files(name: str = "App", **settings: Any) -> dict[str, Any]:
    """The files of an application that can be imported; `settings` go into the manifest's setup."""
    return {**package.application(name, **settings), "package.conf": CONFIGURATION.format(name)}


def place(text: str) -> str:
    """The text without the numbers of source lines, which every change to the source moves."""
    return re.sub(r"(src/[\w/.-]+):\d+: ", r"\1:N: ", text)


def outcome(result: Result) -> tuple[int, str]:
    """How a command ended: its status and what it logged, lines in the source left out."""
    return result.status, place(result.stderr)


def member(name: str, data: bytes = b"", **facts: Any) -> tuple[tarfile.TarInfo, bytes]:
    """A member of an archive with any facts that a tar header can hold."""
    info = tarfile.TarInfo(name)
    info.size = len(data)
    info.mode = 0o644
    for fact, value in facts.items():
        setattr(info, fact, value)
    return info, data


def link(name: str, target: str) -> tuple[tarfile.TarInfo, bytes]:
    return member(name, type=tarfile.SYMTYPE, linkname=target)


def folder(name: str) -> tuple[tarfile.TarInfo, bytes]:
    return member(name, type=tarfile.DIRTYPE, mode=0o755)


def base_members(name: str = "App", **settings: Any) -> list[tuple[tarfile.TarInfo, bytes]]:
    """The members of a package that can be imported."""
    files = app_files(name, **settings)
    text = {key: value if isinstance(value, str) else json.dumps(value) for key, value in files.items()}
    return [
        member(key, value.encode(), mode=0o755 if value.startswith("#!") else 0o644)
        for key, value in text.items()
        if "/" not in key
    ]


def archive(members: Iterable[tuple[tarfile.TarInfo, bytes]]) -> bytes:
    """A plain archive of these members, in this order, names and all as given."""
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.GNU_FORMAT) as tar:
        for info, data in members:
            tar.addfile(info, io.BytesIO(data))
    return buffer.getvalue()


def signed(data: bytes, key: package.Key | None = None) -> bytes:
    """The package of this data part, signed."""
    return package.append_signature(data, (key or package.Key.trusted()).sign(data))


def simple_package(name: str = "App", compress: bool = True, sign: bool = True, **settings: Any) -> bytes:
    """A package in memory."""
    data = archive(base_members(name, **settings))
    data = gzip.compress(data, mtime=0) if compress else data
    return signed(data) if sign else data


def allow_unsigned(device: Device, text: str = "true") -> None:
    device.write(
        SETTINGS,
        f"[Install]\nAllowUnsigned={text}\nPostInstallScriptTimeout=60\n" "PreUninstallScriptTimeout=60\n",
    )


def trust(device: Device, *keys: package.Key) -> None:
    """Make these the keys of the device's keyring."""
    device.write(KEYRING, b"".join(key.keyring() for key in keys))


def tree(device: Device, path: str) -> list[str]:
    """Everything at and below a path: name, kind, mode, owner, link target, and "i" for what is immutable."""
    script = r"""
        [ -e "$1" ] || [ -L "$1" ] || exit 0
        immutable=$(lsattr -R -d "$1" 2>/dev/null; lsattr -R "$1" 2>/dev/null)
        find "$1" -printf '%p\t%y %m %u:%g%l\n' | sort | while IFS="	" read -r name facts; do
            flag=
            echo "$immutable" | grep -q "^[^ ]*i[^ ]* $name\$" && flag=" i"
            echo "$name $facts$flag"
        done
    """
    return device.sh(script, path).check().stdout.splitlines()


def remove_app(device: Device, name: str = "App") -> None:
    """Take away every trace that an import of the application can leave, by hand, and any lock."""
    script = """
        for path in "$1/$5" "$2/$5" "$3/$5" "$4/$5"; do
            [ -e "$path" ] || [ -L "$path" ] || continue
            [ -L "$path" ] || chattr -R -f -i "$path"
            rm -rf "$path" "$path.tmp"
        done
        rm -rf "/etc/velk/vsf/$5" /tmp/velkctl_* "$1/_lock"
        mkdir -m 700 "$1/_lock"
    """
    device.sh(script, STORE, CARD, CARD2, LAYERS, name)


def put(device: Device, data: bytes, name: str = "App.vlp", directory: str = "/tmp/packages") -> str:
    """Put a package onto the device."""
    path = f"{directory}/{name}"
    device.write(path, data)
    return path


def lock_is_free(device: Device) -> bool:
    return not device.exists(LOCK)


def temporaries(device: Device) -> list[str]:
    return device.sh("ls /tmp | grep ^velkctl_").stdout.split()


def traces(device: Device) -> str:
    """What any work on packages and the store could leave, in one look; cheaper than a whole snapshot."""
    script = """
        find /tmp /usr/local/packages /opt/packages /var/spool/storage /etc/velk -xdev \\
            '(' -path '/tmp/systemd-private-*' -o -path /usr/local/packages/_lock ')' -prune -o -printf '%p %y %m %u:%g %l\\n' | sort
        lsattr -R /usr/local/packages /opt/packages /var/spool/storage 2>/dev/null | grep '^[^ ]*i[^ ]* '
        ps -eo user:20,stat,args | awk '$1 == "nobody" && $2 !~ /^Z/'
        :
    """
    return device.sh(script).check().stdout


def packages_with_mistakes() -> Mapping[str, bytes]:
    """What somebody may take for a package, by what is wrong with it."""
    good = simple_package()
    return {
        "nothing in it": b"",
        "15 bytes": b"x" * 15,
        "16 bytes of text": b"x" * 16,
        "a text": b"This is a text and no package at all.\n" * 20,
        "cut in the data": good[: len(good) // 2],
        "cut by one byte": good[:-1],
    }


def refused_signatures(data: bytes) -> dict[str, tuple[bytes, tuple[int, str]]]:
    """Packages of this data that end in the magic and must not pass, and what verification says of them."""
    key = package.Key.trusted()
    good = signed(data, key)
    signature = key.sign(data)
    stranger = package.Key.named("stranger")
    binary = key.gpg("--detach-sign", data=data)
    length = len(signature)
    missing = (2, "code 2: Invalid package, missing signature\n")
    version = (2, "code 2: Invalid signature, incorrect package version\n")
    return {
        "tampered data": (package.append_signature(data[:-1] + b"!", signature), MISMATCH),
        "data cut": (package.append_signature(data[:-1], signature), MISMATCH),
        "data lengthened": (package.append_signature(data + b"\0", signature), MISMATCH),
        "another key": (signed(data, stranger), NOT_OPENPGP),
        "an RSA key that is not trusted": (signed(data, package.Key.named("rsa", "rsa2048")), NOT_OPENPGP),
        "a signed message": (package.append_signature(data, key.gpg("--armor", "--sign", data=data)), NOT_OPENPGP),
        "a clear-signed text": (
            package.append_signature(data, key.gpg("--armor", "--clear-sign", data=data)), NOT_OPENPGP),
        "an unknown second signature": (package.append_signature(data, signature + stranger.sign(data)), NOT_OPENPGP),
        "an unknown first signature": (package.append_signature(data, stranger.sign(data) + signature), NOT_OPENPGP),
        "an unknown second binary signature": (
            package.append_signature(data, binary + stranger.gpg("--detach-sign", data=data)), NOT_OPENPGP),
        "an empty armour": (
            package.append_signature(data, b"-----BEGIN PGP SIGNATURE-----\n\n-----END PGP SIGNATURE-----\n"), NOT_OPENPGP),
        "a blank signature": (package.append_signature(data, b"\n"), NOT_OPENPGP),
        "text behind the signature": (package.append_signature(data, signature + b"and more\n"), NOT_OPENPGP),
        "text behind the signature that ends like one": (
            package.append_signature(data, signature + b"and more\n-----END PGP SIGNATURE-----\n"), NOT_OPENPGP),
        "text before the signature's last line": (
            package.append_signature(data, signature.replace(b"-----END", b"more\n-----END")), NOT_OPENPGP),
        "text in front of the signature": (package.append_signature(data, b"more\n" + signature), NOT_OPENPGP),
        "text between blank lines in front of the signature": (
            package.append_signature(data, b"\n\nmore\n\n" + signature), NOT_OPENPGP),
        "text behind an empty header": (
            package.append_signature(data, signature.replace(b"-----\n\n", b"-----\nComment:\n\nmore text\n\n", 1)), NOT_OPENPGP),
        "very many blank lines behind the signature": (
            package.append_signature(data, signature + b"\n" * (1 << 20)), NOT_OPENPGP),
        "a comment of a megabyte in the signature": (
            package.append_signature(data, signature.replace(b"-----\n", b"-----\nComment: " + b"x" * (1 << 20) + b"\n", 1)),
            NOT_OPENPGP),
        "bytes behind the signature": (package.append_signature(data, signature + bytes(range(256))), NOT_OPENPGP),
        "bytes behind a binary signature": (package.append_signature(data, binary + b"and more"), NOT_OPENPGP),
        "text in the place of the last line": (
            package.append_signature(data, signature[:signature.rindex(b"-----END")] + b"and more\n"), NOT_OPENPGP),
        "a signature in the armour of a message": (
            package.append_signature(data, signature.replace(b"PGP SIGNATURE", b"PGP MESSAGE")), NOT_OPENPGP),
        "a signature of size 0": (data + signature + package.trailer(0), missing),
        "a signature of size 0 and version 2": (data + signature + package.trailer(0, 2), missing),
        "version 0": (package.append_signature(data, signature, 0), version),
        "version 2": (package.append_signature(data, signature, 2), version),
        "a size that wants one byte more than there is": (
            signature + package.trailer(length + 1),
            (2, f"code 2: Signature size outside file boundary: {length + 1}B > {length}B\n")),
        "the largest size": (
            data + signature + package.trailer(0xFFFFFFFF),
            (2, f"code 2: Signature size outside file boundary: 4294967295B > {len(data) + length}B\n")),
        "no data": (signature + package.trailer(length), MISMATCH),
        "a size that meets the data": (data + signature + package.trailer(length + 1), NOT_OPENPGP),
        "a size that takes in all data": (data + signature + package.trailer(length + len(data)), NOT_OPENPGP),
        "a size that leaves out the start of the signature": (data + signature + package.trailer(length - 1), NOT_OPENPGP),
        "two trailers": (good + package.trailer(length), NOT_OPENPGP),
        "two trailers, the first one in the signature": (good + package.trailer(length + 16), NOT_OPENPGP),
        "signed twice over": (package.append_signature(good, signature), MISMATCH),
    }  # fmt: skip


def store_entries(device: Device) -> list[str]:
    """What the store's root holds; the place of the backups stays for good once there was one."""
    return device.sh(f"ls -A {STORE} | grep -vx _backup").stdout.split()


def is_nowhere(device: Device, name: str = "App") -> None:
    """Require that the application is nowhere and no temporary file left; the record of it may stay."""
    places = [STORE, CARD, CARD2, LAYERS]
    found = [
        f"{path}/{entry}"
        for path in places
        for entry in (name, name + ".tmp")
        if device.exists(f"{path}/{entry}")
    ]
    assert (found, temporaries(device)) == ([], [])


# --- fixtures, offered to all tests by conftest ---

Import = Callable[..., tuple[int, str]]


@pytest.fixture
def leaves_nothing(device: Device) -> Iterator[None]:
    """After taking the application away nothing is left; the lock is given back by the command itself."""
    before = traces(device)
    yield
    lock_was_free = lock_is_free(device)
    remove_app(device)
    device.sh("rm -rf /tmp/packages")
    assert lock_was_free
    left = sorted(set(before.splitlines()) ^ set(traces(device).splitlines()))
    assert not left, left


@pytest.fixture(scope="module")
def leaves_the_device_as_it_was(device: Device) -> Iterator[None]:
    before = snapshot.take(device)
    yield
    left = before.differences(snapshot.take(device))
    assert not left, left


@pytest.fixture
def unsigned_allowed(device: Device) -> Iterator[None]:
    before = device.read(SETTINGS)
    allow_unsigned(device)
    yield
    device.write(SETTINGS, before)


@pytest.fixture
def run_import(device: Device) -> Callable[..., tuple[int, str]]:
    def run(data: bytes, *location: str, name: str = "App.vlp") -> tuple[int, str]:
        return outcome(device.velkctl("import", put(device, data, name), *location))

    return run


@pytest.fixture
def card(device: Device) -> Iterator[Callable[..., None]]:
    """Insert a card, and take it out again at the end."""
    inserted: list[str] = []

    def insert(disk: str = "SD_DISK", **options: Any) -> None:
        device.insert_card(disk, **options)
        inserted.append(disk)

    yield insert
    remove_app(device)
    for disk in inserted:
        device.remove_card(disk)
