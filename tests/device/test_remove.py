"""Removal from every location, and the links that a first boot makes anew."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from typing import Any

import pytest
import store_support as support
from store_support import CARD, CARD2, LAYERS, STATES, STORE, Import
from velkdevice import package
from velkdevice.device import Device

pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")

REMOVED = (0, "Successfully removed application App\n")
NOT_FOUND = (4, "code 4: Application not found in store: App\n")
BAD_NAME = (10, "code 10: Character sequence in application name is not allowed\n")
REMOVE_USAGE = """
Usage: velkctl remove [OPTIONS] APP

Removes an VELK application from the content store

Options:
-h, --help         Print this help and exit

Positional arguments:
APP                Name of the application
"""
RE_IMPORT_USAGE = """
Usage: velkctl re-import [OPTIONS]

Re-imports an application that is installed as vlp mounted.
Meant to be run during first boot before pre-installing and restoring applications.

Options:
-h, --help         Print this help and exit
"""


def remove(device: Device, app: str = "App") -> tuple[int, str]:
    return support.outcome(device.velkctl("remove", app))


def re_import(device: Device) -> tuple[int, str]:
    return support.outcome(device.velkctl("re-import"))


def nothing_left(device: Device) -> None:
    support.is_nowhere(device)
    assert not device.exists(f"{STATES}/App")
    assert support.lock_is_free(device)


# --- the command lines ---


@pytest.mark.parametrize(
    ("arguments", "status", "usage", "log"),
    [
        (["remove", "-h"], 0, REMOVE_USAGE, ""),
        (["remove", "--help", "x", "y"], 0, REMOVE_USAGE, ""),
        (["remove"], 10, REMOVE_USAGE, "code 10: Missing positional argument\n"),
        (["remove", "a", "b"], 10, REMOVE_USAGE, "code 10: Too many arguments\n"),
        (["re-import", "-h"], 0, RE_IMPORT_USAGE, ""),
        (["re-import", "a"], 10, RE_IMPORT_USAGE, "code 10: Too many arguments\n"),
    ],
)
def test_usage(device: Device, arguments: list[str], status: int, usage: str, log: str) -> None:
    result = device.velkctl(*arguments)
    assert (result.status, result.stdout, result.stderr) == (status, usage, log)


@pytest.mark.parametrize(("command", "usage"), [("remove", REMOVE_USAGE), ("re-import", RE_IMPORT_USAGE)])
def test_an_unknown_option_prints_the_usage(device: Device, command: str, usage: str) -> None:
    result = device.velkctl(command, "--all")
    assert (result.status, result.stdout) == (10, usage)
    assert "unrecognized option '--all'" in result.stderr


# --- removal ---


def test_from_the_internal_location(device: Device, run_import: Import) -> None:
    assert run_import(support.simple_package())[0] == 0
    assert remove(device) == REMOVED
    nothing_left(device)
    assert remove(device) == NOT_FOUND


@pytest.mark.parametrize(("disk", "location"), [("SD_DISK", "sd_card1"), ("SD_DISK2", "sd_card2")])
def test_from_a_card(
    device: Device, run_import: Import, card: Callable[..., None], disk: str, location: str
) -> None:
    card(disk)
    assert run_import(support.simple_package(), location)[0] == 0
    assert remove(device) == REMOVED
    nothing_left(device)


@pytest.mark.usefixtures("unsigned_allowed")
def test_from_the_layer_location(device: Device, run_import: Import) -> None:
    assert run_import(support.simple_package(), "internal_vlpfs")[0] == 0
    assert remove(device) == REMOVED
    nothing_left(device)


def test_the_same_again_after_a_removal(device: Device, run_import: Import) -> None:
    for _ in range(2):
        assert run_import(support.simple_package())[0] == 0
        assert remove(device) == REMOVED
    nothing_left(device)


@pytest.mark.parametrize("name", ["1App", "..", "a/b", "App.tmp", "_lock", "A" * 101, "App\n", ""])
def test_a_bad_name_is_refused(device: Device, name: str) -> None:
    assert remove(device, name) == BAD_NAME


def test_what_is_not_there_is_not_found(device: Device) -> None:
    assert remove(device) == NOT_FOUND
    device.sh(f"touch {STORE}/App").check()
    assert remove(device) == NOT_FOUND
    device.sh(f"rm {STORE}/App").check()
    # A link whose card is gone is an entry of the store, but there is nothing to remove.
    device.sh(f"ln -s {CARD}/App/lower {STORE}/App").check()
    assert remove(device) == NOT_FOUND
    assert device.exists(f"{STORE}/App")


def test_what_is_mounted_in_it_is_not_removed(device: Device, run_import: Import) -> None:
    assert run_import(support.simple_package())[0] == 0
    device.sh(f"mkdir {STORE}/App/mnt && mount -t tmpfs none {STORE}/App/mnt && touch {STORE}/App/mnt/precious").check()
    status, log = remove(device)
    try:
        message = f"code 10: src/system/tree.cpp:N: Failed recursive removal of {STORE}/App.tmp"
        assert (status, log.splitlines()[-1]) == (10, message)
        assert device.exists(f"{STORE}/App.tmp/mnt/precious")
    finally:
        device.sh(f"cd {STORE} && umount App*/mnt && chattr -i App.tmp/*.json App.tmp/*.conf; rm -r App.tmp").check()


def test_an_application_that_is_set_up_is_refused(device: Device, run_import: Import) -> None:
    assert run_import(support.simple_package())[0] == 0
    before = support.tree(device, f"{STORE}/App")
    unit = "/etc/systemd/system/sdkApp.service"
    message = "code 10: Application App is set up. Please run teardown before running 'velkctl remove'.\n"
    device.write(unit, "[Service]\nExecStart=/bin/true\n")
    found = remove(device)
    device.sh(f"rm {unit}").check()
    assert found == (10, message)
    assert support.tree(device, f"{STORE}/App") == before
    assert device.exists(f"{STATES}/App")
    assert support.lock_is_free(device)
    # What is no regular file is no unit of ours.
    device.sh(f"mkdir {unit}").check()
    found = remove(device)
    device.sh(f"rmdir {unit}").check()
    assert found == REMOVED


def test_a_lock_that_is_held_is_respected(device: Device, run_import: Import) -> None:
    assert run_import(support.simple_package())[0] == 0
    device.write(support.LOCK, "Other", 0o600)
    message = f"code 12: Another instance is already running, lock file exists: {support.LOCK}\n"
    assert remove(device) == (12, message)
    assert (device.read(support.LOCK), device.exists(f"{STORE}/App")) == ("Other", True)
    device.sh(f"rm {support.LOCK}").check()


@pytest.fixture
def stuck_record(device: Device) -> Iterator[None]:
    """A verification state "file" that cannot be deleted as one."""
    device.sh(f"rm -f {STATES}/App; mkdir {STATES}/App").check()
    yield
    device.sh(f"rmdir {STATES}/App").check()


WARNING = f"src/system/file.cpp:N: Failed removing {STATES}/App: Is a directory\n"


def test_a_record_that_stays_is_a_failure_but_the_application_goes(
    device: Device, run_import: Import, request: pytest.FixtureRequest
) -> None:
    assert run_import(support.simple_package())[0] == 0
    request.getfixturevalue("stuck_record")
    assert remove(device) == (55, WARNING)
    support.is_nowhere(device)
    assert support.lock_is_free(device)


def test_a_record_that_stays_on_a_card_too(
    device: Device, run_import: Import, card: Callable[..., None], request: pytest.FixtureRequest
) -> None:
    card("SD_DISK2")
    assert run_import(support.simple_package(), "sd_card2")[0] == 0
    request.getfixturevalue("stuck_record")
    assert remove(device) == (55, WARNING)
    support.is_nowhere(device)


@pytest.mark.parametrize(
    "leftover",
    [
        "mkdir -p $1/App.tmp/a && touch $1/App.tmp/a/x && chattr +i $1/App.tmp/a/x",
        "touch $1/App.tmp",
        "ln -s /etc $1/App.tmp",
    ],
)
def test_leftovers_of_an_interrupted_removal_are_cleared(
    device: Device, run_import: Import, leftover: str
) -> None:
    assert run_import(support.simple_package())[0] == 0
    device.sh(leftover, STORE).check()
    assert remove(device) == REMOVED
    nothing_left(device)
    assert device.exists("/etc/passwd")


@dataclass
class StuckDirectories:
    """Directories made mount points, which can be neither renamed nor removed."""

    device: Device
    mounted: list[str]

    def stick(self, path: str) -> None:
        self.device.sh('mount --bind "$1" "$1"', path).check()
        self.mounted.append(path)

    def free(self, path: str) -> None:
        """Let go of one, by the path where it lies now."""
        self.device.sh('umount "$1"', path).check()
        self.mounted.pop()


@pytest.fixture
def stuck(device: Device) -> Iterator[StuckDirectories]:
    directories = StuckDirectories(device, [])
    yield directories
    for path in list(directories.mounted):
        directories.free(path)


RENAMING = (
    "code 10: src/store/velkctl-remove.cpp:N: Failed renaming {0} to {0}.tmp: Device or resource busy\n"
)


def test_an_application_that_cannot_be_moved_aside_stays(
    device: Device, run_import: Import, stuck: StuckDirectories
) -> None:
    assert run_import(support.simple_package())[0] == 0
    stuck.stick(f"{STORE}/App")
    assert remove(device) == (10, RENAMING.format(f"{STORE}/App"))
    assert device.exists(f"{STORE}/App/manifest.json")
    assert support.lock_is_free(device)


def test_on_a_card_its_link_goes_all_the_same(
    device: Device, run_import: Import, card: Callable[..., None], stuck: StuckDirectories
) -> None:
    card("SD_DISK2")
    assert run_import(support.simple_package(), "sd_card2")[0] == 0
    stuck.stick(f"{CARD2}/App")
    found = remove(device)
    assert found == (10, RENAMING.format(f"{CARD2}/App"))
    assert (device.exists(f"{CARD2}/App/manifest.json"), device.exists(f"{STORE}/App")) == (True, False)


def test_what_cannot_be_removed_is_reported_and_cleared_by_the_next(
    device: Device, run_import: Import, stuck: StuckDirectories
) -> None:
    assert run_import(support.simple_package())[0] == 0
    device.sh(f"mkdir {STORE}/App/held").check()
    stuck.stick(f"{STORE}/App/held")
    status, log = remove(device)
    moved = f"{STORE}/App.tmp"
    assert (status, log.splitlines()[-1]) == (
        10,
        f"code 10: src/system/tree.cpp:N: Failed recursive removal of {moved}",
    )
    assert support.lock_is_free(device)
    assert not device.exists(f"{STORE}/App")
    stuck.free(f"{moved}/held")
    assert run_import(support.simple_package())[0] == 0
    assert not device.exists(moved)


def test_a_link_that_became_a_directory_is_removed_with_a_failure(
    device: Device, run_import: Import, card: Callable[..., None]
) -> None:
    """As long as the unit of its mount tells that the application is on the card."""
    card("SD_DISK")
    assert run_import(support.simple_package(), "sd_card1")[0] == 0
    unit = "/etc/systemd/system/usr-local-packages-App.mount"
    device.write(unit, f"[Mount]\nOptions=lowerdir={CARD}/App/lower,upperdir={CARD}/App/upper\n")
    device.sh(f"rm {STORE}/App && mkdir {STORE}/App && touch {STORE}/App/x").check()
    outcome = remove(device)
    device.sh(f"rm {unit}").check()
    assert outcome == (10, f"code 10: src/system/file.cpp:N: Failed removing {STORE}/App: Is a directory\n")
    nothing_left(device)


# --- the links of a first boot ---


@pytest.fixture
def layer(device: Device) -> Iterator[Callable[..., None]]:
    """Put an application into the layer location by hand."""
    made: list[str] = []

    def put(name: str, mode: int = 0o444, **settings: Any) -> None:
        upper = f"{LAYERS}/{name}/upper"
        device.write(f"{upper}/manifest.json", json.dumps(package.manifest(name, **settings)), mode)
        made.append(name)

    yield put
    for name in made:
        device.sh('rm -rf "$1/$3" "$2/$3"', STORE, LAYERS, name).check()


SUCCESS = "Re-imported vlp mount symlinks\n"


def linked(*names: str) -> str:
    return "".join(f"Re-imported vlp mount symlink for {name}\n" for name in names)


def test_without_layers_there_is_nothing_to_do(device: Device) -> None:
    assert re_import(device) == (0, SUCCESS)
    device.sh(f"mv {LAYERS} {LAYERS}.away").check()
    missing = re_import(device)
    device.sh(f"mv {LAYERS}.away {LAYERS}").check()
    assert missing == (0, SUCCESS)


def test_every_layer_is_linked_in_the_order_of_names(device: Device, layer: Callable[..., None]) -> None:
    for name in ("beta", "Alpha", "alpha2"):
        layer(name)
    assert re_import(device) == (0, linked("Alpha", "alpha2", "beta") + SUCCESS)
    for name in ("beta", "Alpha", "alpha2"):
        path = f"{STORE}/{name}"
        assert support.tree(device, path) == [f"{path} l 777 root:root{LAYERS}/{name}/upper"]


def test_only_a_layer_with_a_good_manifest_is_linked(device: Device, layer: Callable[..., None]) -> None:
    layer("App")
    layer("Writable", 0o644)
    layer("App.tmp")
    device.sh(f"mkdir {LAYERS}/Empty {LAYERS}/NoUpper && touch {LAYERS}/File").check()
    found = re_import(device)
    device.sh(f"rm -r {LAYERS}/Empty {LAYERS}/NoUpper {LAYERS}/File").check()
    assert found == (0, linked("App") + SUCCESS)
    assert not device.exists(f"{STORE}/App.tmp")


def test_an_empty_directory_gives_way_and_a_full_one_does_not(
    device: Device, layer: Callable[..., None]
) -> None:
    for name in ("A", "B", "C"):
        layer(name)
    device.sh(f"mkdir -p {STORE}/A {STORE}/B && touch {STORE}/B/x").check()
    reason = f"src/system/file.cpp:N: Failed to remove non-empty directory {STORE}/B: Directory not empty"
    log = (
        linked("A")
        + f"code 10: {reason}\n"
        + linked("C")
        + f"code 10: src/store/velkctl-re-import.cpp:N: Failed re-importing B: {reason}\n"
    )
    assert re_import(device) == (10, log)
    assert device.sh(f"readlink {STORE}/A {STORE}/C").stdout == f"{LAYERS}/A/upper\n{LAYERS}/C/upper\n"
    assert device.exists(f"{STORE}/B/x")


def test_a_link_that_is_there_fails_and_stays(device: Device, layer: Callable[..., None]) -> None:
    layer("A")
    layer("B")
    assert re_import(device)[0] == 0
    device.sh(f"rm {STORE}/B && ln -s /elsewhere {STORE}/B").check()

    def reason(name: str) -> str:
        link = (
            f"Failed creating symbolic link from {STORE}/{name} to {LAYERS}/{name}/upper: error File exists"
        )
        return "src/system/file.cpp:N: " + link

    log = (
        f"code 10: {reason('A')}\ncode 10: {reason('B')}\n"
        f"code 10: src/store/velkctl-re-import.cpp:N: Failed re-importing A: {reason('A')}\n"
    )
    status, found = re_import(device)
    # A message holds 255 characters at most.
    assert status == 10
    assert [line[:200] for line in found.splitlines()] == [line[:200] for line in log.splitlines()]
    assert device.sh(f"readlink {STORE}/A {STORE}/B").stdout == f"{LAYERS}/A/upper\n/elsewhere\n"


def test_a_layer_location_that_cannot_be_listed_fails_once(device: Device) -> None:
    above = LAYERS.rpartition("/")[0]
    device.sh(f"mv {above} {above}.away && touch {above}").check()
    found = re_import(device)
    device.sh(f"rm {above} && mv {above}.away {above}").check()
    reason = f"Failed to read store path directory {LAYERS}: Not a directory\n"
    assert found == (10, "code 10: src/store/velkctl-store.cpp:N: " + reason)


def test_a_layer_that_was_imported_is_linked_again(
    device: Device, run_import: Import, unsigned_allowed: None
) -> None:
    assert run_import(support.simple_package(), "internal_vlpfs")[0] == 0
    device.sh(f"rm {STORE}/App").check()
    assert re_import(device) == (0, linked("App") + SUCCESS)
    assert remove(device) == REMOVED
    nothing_left(device)
