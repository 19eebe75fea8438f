"""A day in the life of a device: random commands to many applications, after each of which everything agrees."""

from __future__ import annotations

import random
from collections.abc import Iterator
from pathlib import Path

import pytest
from day import PACKAGES, Day, population
from store_support import allow_unsigned
from velkdevice import package, snapshot
from velkdevice.device import Device

SEED = 20
# A crash and a start within seconds are no endless loop here.
NO_LIMIT = "/run/systemd/system/service.d/no-limit.conf"


def put_packages(device: Device, day: Day, folder: Path) -> None:
    """Two versions of each application, all of them on the device."""
    for one in day.apps:
        for version in (1, 2):
            tree = package.write_tree(folder / f"{one.name}.{version}", one.files(version))
            package.pack(tree, folder / "packages" / f"{one.name}.{version}.vlp", sign=one.signed)
    device.copy_in(folder / "packages", PACKAGES)


@pytest.fixture
def prepared(pristine: Device, tmp_path: Path) -> Iterator[Device]:
    """The device with a card, unsigned packages allowed, and no limit to how often a service is started."""
    settings = pristine.read("/etc/velk/conf/packageparser.conf")
    before = snapshot.take(pristine)
    allow_unsigned(pristine)
    pristine.insert_card()
    (tmp_path / "packages").mkdir()
    yield pristine
    pristine.sh('rm -r "$1"; rm -f "$2"; systemctl reset-failed; systemctl daemon-reload', PACKAGES, NO_LIMIT)
    pristine.remove_card()
    pristine.write("/etc/velk/conf/packageparser.conf", settings)
    assert before.differences(snapshot.like(before, pristine)) == []


def live(day: Day, tmp_path: Path, commands: int, reboots: int = 0) -> None:
    put_packages(day.device, day, tmp_path)
    for number in range(1, commands + 1):
        if not day.device.exists(NO_LIMIT):
            day.device.write(NO_LIMIT, "[Unit]\nStartLimitIntervalSec=0\n")
            day.device.run(["systemctl", "daemon-reload"]).check()
        day.step()
        day.check()
        if reboots and number % (commands // reboots) == 0:
            day.reboot()
            day.check()
    day.end()


def test_a_morning(prepared: Device, tmp_path: Path) -> None:
    live(Day(prepared, population(8), random.Random(SEED)), tmp_path, commands=60)


@pytest.mark.full
def test_a_whole_day(prepared: Device, tmp_path: Path) -> None:
    live(Day(prepared, population(50), random.Random(SEED)), tmp_path, commands=2000)


@pytest.mark.full
def test_a_day_with_reboots(prepared: Device, tmp_path: Path) -> None:
    live(Day(prepared, population(10), random.Random(SEED + 1)), tmp_path, commands=200, reboots=5)
