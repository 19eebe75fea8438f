"""clean after a backup that died: the data that it was to save is saved before the application goes."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
import stepper
from apps import LOCK, app, is_locked, stored, without_place
from setups import STORE
from stepper import Point
from velkdevice.device import Device

Put = Callable[..., str]
VELKCTL = "/usr/bin/velkctl"
BACKUPS = f"{STORE}/_backup"
NOTE = f"{STORE}/Sample/localdata/note"
SAVED = f"{BACKUPS}/Sample/localdata/note"
CLEANED = "Successfully performed cleanup of application Sample"


@pytest.fixture
def package(pristine: Device, put_package: Put) -> Iterator[str]:
    """The package of an application that is installed and has a note among its data."""
    path = put_package(pristine, app("Sample"))
    pristine.velkctl("install", path).check()
    pristine.write(NOTE, "kept")
    yield path
    pristine.sh("rm -rf /usr/local/packages/_lock/*")
    if stored(pristine):
        pristine.velkctl("uninstall", "Sample").check()
    pristine.sh('rm -rf "$1"', BACKUPS).check()


def points(device: Device, command: str) -> tuple[Point, ...]:
    """The changes of a backup; what it made stays as an older backup."""
    steps = stepper.run(device, [VELKCTL, command, "Sample"])
    assert steps.end == "exited 0", steps.result
    return steps.points


def locked(found: tuple[Point, ...]) -> tuple[int, int]:
    """The first and the last change before which a kill leaves the lock."""
    taken = next(point.number for point in found if point.call.startswith("link") and point.path == LOCK)
    given = next(point.number for point in found if point.call.startswith("unlink") and point.path == LOCK)
    return taken + 1, given


def clean(device: Device) -> tuple[int, list[str]]:
    result = device.velkctl("clean")
    return result.status, without_place(result.stderr).splitlines()


def read(device: Device, path: str) -> str | None:
    return device.read(path) if device.exists(path) else None


@pytest.mark.parametrize("older", [False, True], ids=["the first one", "with an older one"])
def test_the_data_is_saved_and_comes_back(pristine: Device, package: str, older: bool, full: bool) -> None:
    first, last = locked(points(pristine, "backup"))
    tried = range(first, last + 1) if full else sorted({first, (first + last) // 2, last - 2, last - 1, last})
    for number in tried:
        pristine.sh('rm -rf "$1"', BACKUPS).check()
        if older:
            pristine.write(NOTE, "older")
            pristine.velkctl("backup", "Sample").check()
            pristine.write(NOTE, "kept")
        steps = stepper.run(pristine, [VELKCTL, "backup", "Sample"], kill=number)
        assert (steps.end, is_locked(pristine)) == ("killed", True), number
        status, told = clean(pristine)
        where = [str(point) for point in steps.points[-1:]], told
        assert (status, told[-1], stored(pristine), read(pristine, SAVED)) == (0, CLEANED, [], "kept"), where
        # Nothing of the dead command is left beside it, and the lock's directory is empty.
        assert pristine.sh('ls -A "$1" "$2"', BACKUPS, f"{STORE}/_lock").stdout == f"{BACKUPS}:\nSample\n\n{STORE}/_lock:\n"
        pristine.velkctl("install", package).check()
        assert (read(pristine, NOTE), read(pristine, SAVED)) == ("kept", None), where


def test_killed_before_the_lock_is_taken_nothing_happens(pristine: Device, package: str) -> None:
    first, _ = locked(points(pristine, "backup"))
    for number in range(1, first):
        assert stepper.run(pristine, [VELKCTL, "backup", "Sample"], kill=number).end == "killed"
        assert clean(pristine) == (0, ["No cleanup necessary"])
        assert read(pristine, NOTE) == "kept"
    # What the dead ones left belongs to no lock: it changes nothing for one that died without saying what it was.
    pristine.sh('rm -rf "$1"', BACKUPS).check()
    pristine.write(LOCK, "Sample")
    assert clean(pristine) == (0, [f"Removing {STORE}/Sample.tmp", CLEANED])
    assert (stored(pristine), pristine.exists(f"{BACKUPS}/Sample")) == ([], False)
    assert pristine.sh(f"ls -A {STORE}/_lock").stdout == ""


def test_a_clean_that_dies_is_run_again(pristine: Device, package: str, full: bool) -> None:
    first, last = locked(points(pristine, "backup"))
    middle = (first + last) // 2

    def die() -> None:
        pristine.sh('rm -rf "$1"', BACKUPS).check()
        assert stepper.run(pristine, [VELKCTL, "backup", "Sample"], kill=middle).end == "killed"

    die()
    count = len(stepper.run(pristine, [VELKCTL, "clean"]).points)
    for number in range(1, count + 1, 1 if full else max(1, count // 6)):
        pristine.sh(f"rm -rf {STORE}/_lock/*; velkctl uninstall Sample; velkctl install {package}")
        pristine.write(NOTE, "kept")
        die()
        steps = stepper.run(pristine, [VELKCTL, "clean"], kill=number)
        clean(pristine)
        where = [str(point) for point in steps.points[-1:]]
        assert (read(pristine, SAVED), is_locked(pristine)) == ("kept", False), where


def test_a_backup_that_cannot_be_made_is_told_of(pristine: Device, package: str) -> None:
    first, _ = locked(points(pristine, "backup"))
    pristine.sh('rm -rf "$1"', BACKUPS).check()
    stepper.run(pristine, [VELKCTL, "backup", "Sample"], kill=first)
    pristine.sh('rm -rf "$1"; touch "$1"', BACKUPS).check()
    status, told = clean(pristine)
    pristine.sh('rm "$1"', BACKUPS).check()
    assert (status, told[0], told[2:]) == (0, f"Removing {STORE}/Sample.tmp", [CLEANED])
    assert told[1].startswith("Failed to back up Sample: "), told
    assert stored(pristine) == []


@pytest.mark.parametrize("command", ["uninstall", "teardown", "restore"])
def test_after_every_other_command_nothing_is_saved(pristine: Device, package: str, command: str) -> None:
    if command == "restore":
        pristine.velkctl("backup", "Sample").check()
        pristine.write(NOTE, "newer")
    with stepper.hold(pristine, [VELKCTL, command, "Sample"], when=LOCK) as held:
        held.kill()
    status, told = clean(pristine)
    assert (status, told) == (0, [f"Removing {STORE}/Sample.tmp", CLEANED])
    assert (stored(pristine), read(pristine, SAVED)) == ([], "kept" if command == "restore" else None)
