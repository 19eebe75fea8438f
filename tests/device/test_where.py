"""Where an application is: what this device recorded counts, and not what a card holds that comes from elsewhere."""

from __future__ import annotations

import json
from collections.abc import Iterator
from typing import Any

import pytest
from apps import app, is_locked
from setups import STORE, UNITS, Put, velkctl
from store_support import CARD
from velkdevice import package, snapshot
from velkdevice.device import Device

SAMPLE = f"{STORE}/Sample"
PREPARED = f"{CARD}/Sample"
BACKUP = f"{STORE}/_backup/Sample"
OVERLAY = "usr-local-packages-Sample.mount"
OUT = f"What Sample left at {PREPARED} cannot be reached and stays there\n"


def prepare(device: Device) -> None:
    """Have on the card what an application of that name would have there: its own program, settings and data."""
    manifest = json.dumps(package.manifest("Sample", version="9.9.9", runMode="once"))
    device.write(f"{PREPARED}/lower/manifest.json", manifest, 0o444)
    device.write(f"{PREPARED}/lower/Sample", "#!/bin/sh\nid -u >localdata/foreign\n", 0o755)
    device.write(f"{PREPARED}/lower/localdata/note", "foreign\n")
    script = 'cd "$1"; mkdir upper work; touch lower/LICENSE lower/package.conf; cp -r lower/. .'
    device.sh(script, PREPARED).check()


def tree(device: Device, path: str) -> str:
    return device.sh('cd "$1" && find . -printf "%p %M %U:%G %s %l\\n" | sort', path).check().stdout


@pytest.fixture
def with_card(device: Device) -> Iterator[Device]:
    """The device with a card; however the test ends, without it and without the application."""
    before = snapshot.take(device)
    device.insert_card()
    yield device
    if device.exists(f"{UNITS}/{OVERLAY}") or device.exists(SAMPLE):
        device.velkctl("uninstall", "Sample")
    device.remove_card()
    device.sh("rm -rf /tmp/packages").check()
    left = before.differences(snapshot.like(before, device))
    assert not left, left


@pytest.fixture
def taken_over(with_card: Device, put_package: Put) -> Device:
    """The same with an application in the internal store, and a card that holds a directory of its name."""
    put = put_package(with_card, app("Sample", runMode="once"))
    with_card.velkctl("import", put).check()
    prepare(with_card)
    return with_card


def eject(device: Device) -> None:
    device.sh("systemctl stop var-spool-storage-SD_DISK.mount").check()


def test_a_card_does_not_take_an_application_over(taken_over: Device) -> None:
    device, prepared = taken_over, tree(taken_over, PREPARED)
    assert velkctl(device, "setup", "Sample") == (0, "Successfully set up application Sample\n")
    assert not device.exists(f"{UNITS}/{OVERLAY}") and device.sh(f"findmnt {SAMPLE}").status != 0
    assert velkctl(device, "start", "Sample") == (0, "Started application Sample\n")
    assert not device.exists(f"{SAMPLE}/localdata/foreign")
    assert json.loads(device.velkctl("list", "Sample").stdout)[0]["version"] == "1.0.0"
    sizes = device.velkctl("list", "--format", "idd-size").stdout.splitlines()
    assert [line.split("\t")[1] for line in sizes] == ["Sample"]
    assert sizes[0].split("\t")[0] == device.sh(f"du -s {SAMPLE}").stdout.split("\t")[0]
    assert device.velkctl("stop", "Sample").status in (0, 7)
    assert velkctl(device, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert velkctl(device, "remove", "Sample") == (0, "Successfully removed application Sample\n")
    assert not device.exists(SAMPLE)
    assert tree(device, PREPARED) == prepared


def test_a_card_does_not_replace_an_applications_backup(taken_over: Device) -> None:
    device = taken_over
    device.velkctl("setup", "Sample").check()
    device.write(f"{SAMPLE}/localdata/note", "mine\n")
    device.velkctl("teardown", "Sample").check()
    device.velkctl("backup", "Sample").check()
    assert device.read(f"{BACKUP}/localdata/note") == "mine\n"


def test_an_upgrade_replaces_the_application_that_is_stored_here(taken_over: Device, put_package: Put) -> None:
    device, prepared = taken_over, tree(taken_over, PREPARED)
    new = put_package(device, app("Sample", runMode="once", version="2.0.0"))
    done = "Successfully installed application 'Sample' on 'internal'\n"
    result = device.velkctl("install", new)
    assert (result.status, result.stderr) == (0, done)
    assert json.loads(device.velkctl("list", "Sample").stdout)[0]["version"] == "2.0.0"
    assert tree(device, PREPARED) == prepared


def test_an_application_on_a_card_stays_there_while_the_card_is_out(with_card: Device, put_package: Put) -> None:
    """It is neither torn down as one of the internal store nor forgotten, and works again with the card."""
    device = with_card
    device.velkctl("install", put_package(device, app("Sample", runMode="once")), "sd_card1").check()
    device.sh(f"systemctl stop {OVERLAY}").check()
    eject(device)
    assert device.velkctl("teardown", "Sample").status == 10  # its manifest cannot be read
    assert device.sh(f"readlink {SAMPLE}").stdout == f"{PREPARED}/lower\n"
    assert velkctl(device, "remove", "Sample") == (4, "code 4: Application not found in store: Sample\n")
    assert device.sh(f"readlink {SAMPLE}").stdout == f"{PREPARED}/lower\n"
    device.sh("systemctl start var-spool-storage-SD_DISK.mount").check()
    assert velkctl(device, "setup", "Sample") == (0, "Successfully set up application Sample\n")
    assert device.sh(f"findmnt -n -o FSTYPE {SAMPLE}").stdout == "overlay\n"


def test_without_the_card_nothing_is_saved_and_nothing_saved_is_lost(with_card: Device, put_package: Put) -> None:
    device = with_card
    device.velkctl("install", put_package(device, app("Sample", runMode="once")), "sd_card1").check()
    device.write(f"{SAMPLE}/localdata/note", "mine\n")
    device.velkctl("backup", "Sample").check()
    device.sh(f"systemctl stop {OVERLAY}").check()
    eject(device)
    failed = (10, "code 10: src/lifecycle/velkctl-backup.cpp: Failed backing up Sample: "
              f"Its files at {PREPARED} cannot be reached\n")  # fmt: skip
    units = tree(device, UNITS)
    new = put_package(device, app("Sample", runMode="once", version="2.0.0"))
    for command in (("backup", "Sample"), ("install", new), ("install", new, "sd_card1")):
        assert velkctl(device, *command) == failed
        assert (device.read(f"{BACKUP}/localdata/note"), tree(device, UNITS), is_locked(device)) == ("mine\n", units, False)
    device.sh(f"systemctl start var-spool-storage-SD_DISK.mount && systemctl start {OVERLAY}").check()
    device.velkctl("install", new, "sd_card1").check()
    assert device.read(f"{SAMPLE}/localdata/note") == "mine\n"


@pytest.mark.parametrize("mounted", [False, True])
def test_an_uninstallation_without_the_card_takes_all_units_away(
    with_card: Device, put_package: Put, mounted: bool
) -> None:
    device = with_card
    units = device.sh(f"ls -A {UNITS} {UNITS}/*.wants").stdout
    device.velkctl("install", put_package(device, app("Sample", runMode="once")), "sd_card1").check()
    if mounted:
        device.sh("umount --lazy /var/spool/storage/SD_DISK; systemctl stop var-spool-storage-SD_DISK.mount").check()
    else:
        device.sh(f"systemctl stop {OVERLAY}").check()
        eject(device)
    status, log = velkctl(device, "uninstall", "Sample")
    assert (status, OUT in log, is_locked(device)) == (0, True, False)
    assert log.endswith("Successfully uninstalled application 'Sample'\n")
    assert device.sh(f"ls -A {UNITS} {UNITS}/*.wants").stdout == units
    assert not device.sh(f"ls -d {SAMPLE} /etc/velk/vsf/Sample").stdout
    assert device.sh(f"findmnt {SAMPLE}").status != 0
    device.sh("systemctl start var-spool-storage-SD_DISK.mount").check()
    assert device.exists(f"{PREPARED}/lower/manifest.json")
    # With the card back the name is free, and the next installation there takes the place of what stayed.
    device.velkctl("install", put_package(device, app("Sample", runMode="once")), "sd_card1").check()


def test_what_no_device_recorded_is_found_in_the_order_of_the_locations(with_card: Device) -> None:
    """So an import that died before its link is found again, and taken away by the operator."""
    prepare(with_card)
    result: Any = with_card.velkctl("remove", "Sample")
    assert (result.status, result.stderr) == (4, "code 4: Application not found in store: Sample\n")
    with_card.sh(f"ln -s {PREPARED}/lower {SAMPLE}").check()
    assert velkctl(with_card, "remove", "Sample") == (0, "Successfully removed application Sample\n")
    assert not with_card.exists(PREPARED)
