"""A manifest of very many values, in a package of a few kilobytes that nobody verified yet."""

from __future__ import annotations

import gzip
import json

import pytest
import store_support as support
from velkdevice import package
from velkdevice.device import Device

LIMIT = 1 << 20
ROOM = 300_000  # KiB of address space, of which the program takes a part for itself
INVALID = "code 1: Invalid application package\n"
pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")


def manifest_of(size: int) -> bytes:
    """A valid manifest of that size that takes as much memory as it can."""
    text = json.dumps(support.app_files()["manifest.json"]).encode()
    return (text[:-1] + b',"x":[' + b"{}," * ((size - len(text) - 10) // 3) + b"0]}").ljust(size)


def package_with(*manifests: tuple[str, bytes], key: package.Key | None = None) -> bytes:
    others = [member for member in support.base_members() if member[0].name != "manifest.json"]
    members = [support.member(name, text) for name, text in manifests] + others
    return support.signed(gzip.compress(support.archive(members), mtime=0), key)


def imported(device: Device, data: bytes) -> tuple[int, str]:
    script = f'ulimit -v {ROOM}; exec velkctl import "$1"'
    return support.outcome(device.sh(script, support.put(device, data)))


def test_the_largest_manifest_is_imported(device: Device) -> None:
    done = (0, "Successfully imported application 'App'\n")
    assert imported(device, package_with(("manifest.json", manifest_of(LIMIT)))) == done


@pytest.mark.parametrize("size", [LIMIT + 1, 16 << 20])
def test_a_larger_manifest_is_refused_before_it_costs_anything(device: Device, size: int) -> None:
    data = package_with(("manifest.json", manifest_of(size)), key=package.Key.named("stranger"))
    assert imported(device, data) == (1, INVALID)


def test_a_larger_manifest_in_the_place_of_the_one_that_was_read_is_refused(device: Device) -> None:
    small = json.dumps(support.app_files()["manifest.json"]).encode()
    data = package_with(("manifest.json", small), ("./manifest.json", manifest_of(16 << 20)))
    assert imported(device, data) == (1, INVALID)
