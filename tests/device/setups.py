"""What the tests of setup, teardown and what stands between them share."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

import pytest
from apps import LOCK, app, without_place
from velkdevice import snapshot
from velkdevice.device import Device, Result

Put = Callable[..., str]
STORE = "/usr/local/packages"
UNITS = "/etc/systemd/system"
SETTINGS = "/etc/velk/conf/packageparser.conf"


@pytest.fixture
def workshop(pristine: Device) -> Iterator[Device]:
    """The common device as `pristine`, from which the application Sample goes however the test ended."""
    yield pristine
    pristine.sh(f"rm -f {LOCK}").check()
    if pristine.exists(f"{STORE}/Sample"):
        pristine.velkctl("uninstall", "Sample")


def velkctl(device: Device, *arguments: str, **options: Any) -> tuple[int, str]:
    """Exit status and log of a command that prints nothing else."""
    result = device.velkctl(*arguments, **options)
    assert result.stdout == ""
    return result.status, without_place(result.stderr)


def store_app(device: Device, put_package: Put, files: dict[str, Any], location: str = "internal") -> None:
    """Have the application in the store, not set up."""
    device.velkctl("import", put_package(device, files), location).check()


def set_up(device: Device, put_package: Put, files: dict[str, Any], location: str = "internal") -> str:
    """Have the application set up; its name."""
    store_app(device, put_package, files, location)
    name = files["manifest.json"]["velkPackageConf"]["setup"]["appName"]
    device.velkctl("setup", name).check()
    return str(name)


def leave(device: Device, name: str) -> None:
    """Uninstall what may be half there."""
    device.velkctl("uninstall", name)


def section(files: dict[str, Any], path: str, value: Any) -> dict[str, Any]:
    """The same files with the value at a dotted path of the manifest."""
    *way, last = path.split(".")
    place = files["manifest.json"]
    for key in way:
        place = place.setdefault(key, {})
    place[last] = value
    return files


def configured(name: str = "Sample", **settings: Any) -> dict[str, Any]:
    """An application with these settings in its configuration."""
    files = app(name)
    for key, value in settings.items():
        section(files, f"velkPackageConf.configuration.{key}", value)
    return files


def outside(device: Device, name: str) -> list[str]:
    """The device's state without the application's own files, which setup gives to a user and leaves so."""
    own = (f"{STORE}/{name}", "/var/lib/orvo-cards/")  # and the image of a card, which changes with what lies on it
    return [
        f"{kind}: {thing}: {value}"
        for kind, entries in snapshot.take(device).sections.items()
        for thing, value in sorted(entries.items())
        if not thing.startswith(own)
    ]


# What lies at and below these paths: kind, mode, owner, a link's target, a file's text with | for line ends.
LOOK = r"""
for path; do
    [ -e "$path" ] || [ -L "$path" ] || continue
    find "$path" -printf '%p\t%y %m %u:%g %l' \
        '(' ! -type f -o -exec sh -c 'head -c 2000 "$1" | tr "\n" "|"' - {} \; ')' -printf '\n'
done
"""


def look_at(device: Device, *paths: str) -> dict[str, str]:
    """Each path at and below these, with what it is and what it holds."""
    lines = device.sh(LOOK, *paths).check().stdout.splitlines()
    return dict(line.split("\t", 1) for line in lines)


@contextmanager
def changed(device: Device, path: str, text: str) -> Iterator[None]:
    """A file of the device with another text for a while."""
    before = device.read(path)
    device.write(path, text)
    try:
        yield
    finally:
        device.write(path, before)


@contextmanager
def failing(device: Device, method: str, text: str = "Not today") -> Iterator[None]:
    """The user-management service refuses this method for a while."""
    device.sh('mkdir -p /run/orvo-test/fail; echo "$2" >"/run/orvo-test/fail/$1"', method, text).check()
    try:
        yield
    finally:
        device.sh("rm -r /run/orvo-test").check()


@contextmanager
def program(device: Device, name: str, script: str) -> Iterator[dict[str, str]]:
    """An environment in which a program is this script; "$REAL" in it is the real one."""
    real = device.run(["sh", "-c", f"command -v {name}"]).check().stdout.strip()
    device.write(f"/tmp/fake/{name}", f"#!/bin/sh\nREAL={real}\n{script}", mode=0o755)
    try:
        yield {"PATH": "/tmp/fake:" + device.environment["PATH"]}
    finally:
        device.sh("rm -r /tmp/fake").check()


@contextmanager
def under_the_mounts(device: Device) -> Iterator[str]:
    """A place where the store is seen as if nothing were mounted on what it holds."""
    place = "/run/under-the-mounts"
    device.sh(f'mkdir {place} && mount --bind "$1" {place}', STORE).check()
    try:
        yield place
    finally:
        device.sh(f"umount {place} && rmdir {place}").check()


# What teardown says when it cannot remove the directory that the application was mounted on.
STAYING = (
    f"Unmount of {STORE}/Sample failed, will try with lazy flag\n"
    f"umount: {STORE}/Sample: not mounted.\n"
    f'src/system/subprocess.cpp: Failed running "umount --lazy {STORE}/Sample" with the error: Directory not empty\n'
    f"Leaving behind non-empty directory {STORE}/Sample\n"
)
# What it ends with when it could not take the units away.
UNITS_FAILED = (
    "Failed to teardown systemd during teardown of Sample: src/integration/systemd.cpp: "
    "Failure during teardown of systemd units for Sample\n"
    "code 10: src/integration/velkctl-teardown.cpp: Failure during teardown of Sample\n"
)


def fetch(device: Device, path: str, user: str | None, *options: str) -> tuple[str, str]:
    """Status code and body of a request to the device's web server."""
    login = ["-u", f"{user}:{user}"] if user else []
    url = f"http://localhost{path}"
    result = device.run(["curl", "-s", "--path-as-is", *login, *options, "-w", "\n%{http_code}", url])
    body, _, code = result.stdout.rpartition("\n")
    return code, body


def codes(device: Device, path: str) -> list[str]:
    """The status codes that nobody, viewer, operator and admin get."""
    return [fetch(device, path, user)[0] for user in (None, "viewer", "operator", "admin")]


def own(device: Device, service: str, user: str) -> bool:
    """Whether the user may own the name on the bus."""
    call = ["busctl", "call", "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName", "su", service, "4"]
    result = device.run(call, user=user)
    assert (result.status == 0) != ("AccessDenied" in result.stderr or "Access denied" in result.stderr
                                    or "not allowed to own" in result.stderr), result  # fmt: skip
    return result.status == 0


def show(device: Device, unit: str, *keys: str) -> list[str]:
    """Properties of a unit as systemd holds them."""
    arguments = [part for key in keys for part in ("-p", key)]
    lines = device.run(["systemctl", "show", *arguments, unit]).check().stdout.splitlines()
    values = dict(line.split("=", 1) for line in lines)
    return [values[key] for key in keys]


def verify(device: Device, *units: str) -> Result:
    """What systemd's own checker says of unit files."""
    return device.run(["systemd-analyze", "verify", "--man=no", *units])
