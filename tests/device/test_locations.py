"""The four locations side by side: what is under them, what they share, and cards that come and go."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
import store_support as support
from store_support import CARD, CARD2, LAYERS, STORE, Import
from velkdevice.device import Device

pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was", "unsigned_allowed")

PLACES = {"internal": STORE, "sd_card1": CARD, "sd_card2": CARD2, "internal_vlpfs": LAYERS}
# What the store root holds for an application of each location.
LINKS = {
    "sd_card1": f"{CARD}/{{}}/lower",
    "sd_card2": f"{CARD2}/{{}}/lower",
    "internal_vlpfs": f"{LAYERS}/{{}}/upper",
}
IMPORTED = (0, "Successfully imported application 'App'\n")
REMOVED = (0, "Successfully removed application {}\n")
EXISTS = (14, "code 14: Application 'App' already exists in content store\n")


def remove(device: Device, name: str = "App") -> tuple[int, str]:
    return support.outcome(device.velkctl("remove", name))


def unsigned(outcome: tuple[int, str]) -> tuple[int, str]:
    """How a signed package's outcome reads for an unsigned one."""
    return outcome[0], "Unsigned package, skipping signature verification\n" + outcome[1]


@pytest.fixture
def cards(device: Device, card: Callable[..., None]) -> None:
    card("SD_DISK")
    card("SD_DISK2")


@pytest.fixture
def eject(device: Device) -> Iterator[Callable[[str], None]]:
    """Unmount a card for a while; it is back at the latest when the test ends."""
    out: list[str] = []

    def unmount(disk: str) -> None:
        device.sh('systemctl stop "var-spool-storage-$1.mount"', disk).check()
        out.append(disk)

    yield unmount
    for disk in out:
        device.sh('systemctl start "var-spool-storage-$1.mount"', disk).check()


def reached(device: Device, name: str) -> dict[str, bool]:
    """Which of an application's files are there by way of the store root."""
    return {file: device.sh('[ -f "$1" ]', f"{STORE}/{name}/{file}").status == 0
            for file in ("manifest.json", "package.conf", "LICENSE")}  # fmt: skip


# A package in a layer is not unpacked, and the second card's link leads to what nobody makes there.
REACHED = {
    "internal": (True, True, True), "sd_card1": (True, True, True), "sd_card2": (False, False, False),
    "internal_vlpfs": (True, True, False),
}  # fmt: skip


@pytest.mark.usefixtures("cards")
def test_an_application_for_each_location_side_by_side(device: Device, run_import: Import) -> None:
    before = support.traces(device)
    for number, location in enumerate(PLACES):
        name = f"App{number}"
        outcome = run_import(support.simple_package(name), location)
        assert outcome == (0, f"Successfully imported application '{name}'\n")
    kinds = ["internal d", "sd_card1 l", "sd_card2 l", "internal_vlpfs l"]
    for number, location in enumerate(PLACES):
        name = f"App{number}"
        kind = device.sh("stat -c %F " + f"{STORE}/{name}").stdout[0].replace("s", "l")
        assert f"{location} {kind}" == kinds[number]
        target = device.sh(f"readlink {STORE}/{name}").stdout.strip()
        assert target == LINKS.get(location, "").format(name)
        assert tuple(reached(device, name).values()) == REACHED[location]
        assert device.sh('[ -d "$1" ] && [ ! -L "$1" ]', f"{PLACES[location]}/{name}").status == 0
    for number in (2, 0, 3, 1):
        assert remove(device, f"App{number}") == (0, REMOVED[1].format(f"App{number}"))
    device.sh("rm -rf /tmp/packages")
    assert support.traces(device) == before
    # A card's directory of packages stays, empty, for the next one.
    assert [support.tree(device, path) for path in (CARD, CARD2)] == [
        [f"{path} d 755 root:root"] for path in (CARD, CARD2)
    ]


@pytest.mark.usefixtures("cards")
def test_an_application_is_in_one_location_only(device: Device, run_import: Import) -> None:
    package = support.simple_package()
    for first in PLACES:
        assert run_import(package, first) == IMPORTED
        trees = {path: support.tree(device, f"{path}/App") for path in PLACES.values()}
        assert {second: run_import(package, second) for second in PLACES} == {
            second: EXISTS for second in PLACES
        }
        assert {path: support.tree(device, f"{path}/App") for path in PLACES.values()} == trees
        assert remove(device) == (0, REMOVED[1].format("App"))


@pytest.mark.usefixtures("cards")
@pytest.mark.parametrize(("location", "disk"), [("sd_card1", "SD_DISK"), ("sd_card2", "SD_DISK2")])
def test_an_application_whose_card_is_out(
    device: Device, run_import: Import, eject: Callable[[str], None], location: str, disk: str
) -> None:
    """Its link still keeps its name; it cannot be removed before the card is back."""
    assert run_import(support.simple_package(), location) == IMPORTED
    tree = support.tree(device, f"{PLACES[location]}/App")
    eject(disk)
    assert run_import(support.simple_package(), "internal") == EXISTS
    assert remove(device) == (4, "code 4: Application not found in store: App\n")
    assert device.sh(f"readlink {STORE}/App").stdout == LINKS[location].format("App") + "\n"
    device.sh(f"systemctl start var-spool-storage-{disk}.mount").check()
    assert support.tree(device, f"{PLACES[location]}/App") == tree
    assert remove(device) == (0, REMOVED[1].format("App"))
    assert not device.exists(f"{STORE}/App")


def test_a_second_card_that_knows_no_owners_fails_in_the_staging_directory(
    device: Device, run_import: Import, card: Callable[..., None]
) -> None:
    """Its file system is not asked for, so it is found out only when the unpacking user is to get the directory."""
    if "vfat" not in Path("/proc/filesystems").read_text(encoding="ascii").split():
        pytest.skip("this machine's kernel has no vfat")
    card("SD_DISK2", file_system="vfat")
    message = f"Failed setting ownership of {CARD2}/App.tmp: Operation not permitted\n"
    assert run_import(support.simple_package(), "sd_card2") == (
        10, "code 10: src/system/file.cpp:N: " + message)  # fmt: skip
    support.is_nowhere(device)


def test_the_other_locations_do_not_ask_for_a_card(device: Device, run_import: Import) -> None:
    for location in ("internal", "internal_vlpfs"):
        assert run_import(support.simple_package(), location) == IMPORTED
        assert remove(device) == (0, REMOVED[1].format("App"))
    # Nor does the second one; then it is a directory of the device's own storage.
    assert run_import(support.simple_package(), "sd_card2") == IMPORTED
    assert remove(device) == (0, REMOVED[1].format("App"))
    device.sh(f"rmdir {CARD2} $(dirname {CARD2})").check()


@pytest.mark.usefixtures("cards")
@pytest.mark.parametrize(("location", "disk"), [("sd_card1", "SD_DISK"), ("sd_card2", "SD_DISK2")])
def test_a_card_that_can_only_be_read(device: Device, run_import: Import, location: str, disk: str) -> None:
    path = PLACES[location]
    assert run_import(support.simple_package(), location) == IMPORTED
    tree, state = support.tree(device, path), device.read(f"{support.STATES}/App")
    device.sh(f"mount -o remount,ro /var/spool/storage/{disk}").check()
    try:
        renaming = f"src/store/velkctl-remove.cpp:N: Failed renaming {path}/App to {path}/App.tmp: "
        removal = remove(device)
        # The name is free again: the link is gone, and so is the record.
        left = device.exists(f"{STORE}/App"), device.exists(f"{support.STATES}/App")
        making = f"src/system/file.cpp:N: Could not create directory {path}/Other.tmp: "
        other = run_import(support.simple_package("Other"), location)
    finally:
        device.sh(f"mount -o remount,rw /var/spool/storage/{disk}").check()
    read_only = "Read-only file system\n"
    assert removal == (10, "code 10: " + renaming + read_only)
    assert left == (False, False)
    assert other == (10, "code 10: " + making + read_only)
    assert support.tree(device, path) == tree
    assert state
    assert not device.exists(f"{support.STATES}/Other")


def test_a_layer_is_the_data_part_alone(device: Device, run_import: Import, tmp_path: Path) -> None:
    """Whoever mounts the layer file finds the archive as it was signed, without signature and trailer."""
    for compress in (True, False):
        package = support.simple_package(compress=compress)
        data = package[: len(package) - 16 - int.from_bytes(package[-16:-12], "big")]
        assert run_import(package, "internal_vlpfs") == IMPORTED
        device.copy_out(f"{LAYERS}/App/lower.vlp", tmp_path / "layer")
        assert (tmp_path / "layer").read_bytes() == data
        listing = device.sh(f"tar -tf {LAYERS}/App/lower.vlp").check().stdout.split()
        assert {"manifest.json", "package.conf", "LICENSE"} <= set(listing)
        assert remove(device) == (0, REMOVED[1].format("App"))
    assert not device.exists(f"{LAYERS}/App")


@pytest.mark.full
def test_all_of_them_after_a_reboot(fresh_device: Device, tmp_path: Path) -> None:
    device = fresh_device
    support.allow_unsigned(device)
    for disk in ("SD_DISK", "SD_DISK2"):
        device.insert_card(disk)
    for number, location in enumerate(PLACES):
        path = support.put(device, support.simple_package(f"App{number}", sign=False))
        outcome = support.outcome(device.velkctl("import", path, location))
        assert outcome == unsigned((0, f"Successfully imported application 'App{number}'\n"))
    trees = {path: support.tree(device, path) for path in PLACES.values()}
    device.cut_power()
    device.power_on()
    device.settle()
    assert {path: support.tree(device, path) for path in PLACES.values()} == trees
    for number, location in enumerate(PLACES):
        assert tuple(reached(device, f"App{number}").values()) == REACHED[location]
        assert remove(device, f"App{number}") == (0, REMOVED[1].format(f"App{number}"))
