"""clean after an import to a card that died: what it was placing goes, and what came with the card stays."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
import stepper
from apps import LOCK, is_locked, stored, without_place
from interruption import left_behind
from setups import STORE
from store_support import CARD, CARD2, LAYERS, SETTINGS, allow_unsigned, put, remove_app, simple_package
from velkdevice import snapshot
from velkdevice.device import Device

VELKCTL = "/usr/bin/velkctl"
PLACES = {"sd_card1": CARD, "sd_card2": CARD2, "internal_vlpfs": LAYERS}
SLOT = "var-spool-storage-SD_DISK.mount"


@pytest.fixture
def machine(device: Device) -> Iterator[str]:
    """The device with both cards in; the path of a package on it."""
    before = snapshot.take(device)
    settings = device.read(SETTINGS)
    allow_unsigned(device)
    device.insert_card()
    device.sh('mkdir -p "$1" "$2"', CARD, CARD2).check()
    yield put(device, simple_package())
    remove_app(device)
    device.sh('rm -rf /tmp/packages; rm -r "$1"', CARD2.rsplit("/", 1)[0]).check()
    device.remove_card()
    device.write(SETTINGS, settings)
    assert left_behind(before, device) == []


def clean(device: Device) -> tuple[int, list[str]]:
    result = device.velkctl("clean")
    return result.status, without_place(result.stderr).splitlines()


def tree(device: Device, path: str) -> str:
    return device.sh('find "$1" -printf "%p %i %y %m %U:%G %l\\n" | sort', path).stdout


def kill_at(device: Device, package: str, location: str, wanted: Callable[[stepper.Point], bool]) -> None:
    """Kill an import right before its last change of that kind."""
    steps = stepper.run(device, [VELKCTL, "import", package, location])
    assert steps.end == "exited 0", steps.result
    number = [point.number for point in steps.points if wanted(point)][-1]
    device.velkctl("remove", "App").check()
    assert stepper.run(device, [VELKCTL, "import", package, location], kill=number).end == "killed"


def is_root_link(point: stepper.Point) -> bool:
    return point.call.startswith("symlink") and point.path == f"{STORE}/App"


@pytest.mark.parametrize("location", PLACES)
@pytest.mark.parametrize("clock", ["1970-01-02", "2100-01-01"])
def test_what_the_dead_import_placed_goes(device: Device, machine: str, location: str, clock: str) -> None:
    """Whatever the times say: the clock is set wherever it happens to be when a device starts."""
    kill_at(device, machine, location, is_root_link)
    assert device.exists(f"{PLACES[location]}/App") and not device.exists(f"{STORE}/App")
    device.sh('touch -d "$2" "$1"', LOCK, clock).check()
    status, told = clean(device)
    assert (status, stored(device), is_locked(device)) == (10, [], False), told  # it has no user yet
    assert not device.exists(f"{PLACES[location]}/App"), told
    assert device.sh(f"ls -A {STORE}/_lock").stdout == ""


def test_what_came_with_the_card_stays(device: Device, machine: str) -> None:
    """An import to another place died; on the card there is another device's application of that name."""
    device.velkctl("import", machine, "sd_card1").check()
    device.sh(f"rm {STORE}/App /etc/velk/vsf/App").check()
    before = tree(device, CARD)
    for location in ("internal", "sd_card2"):
        with stepper.hold(device, [VELKCTL, "import", machine, location], when=LOCK) as held:
            held.kill()
        device.sh('touch -d @0 "$1"', LOCK).check()
        status, told = clean(device)
        assert (status, told[-1], tree(device, CARD)) == (4, "code 4: Application not found in store: App", before), location


def test_what_lies_where_a_card_is_to_take_it_stays(device: Device, machine: str) -> None:
    """The second card's import replaces nothing, so another device's application is not its own."""
    device.sh('mkdir -p "$1/App/lower" && echo theirs >"$1/App/lower/data"', CARD2).check()
    before = tree(device, f"{CARD2}/App")
    found = stepper.run(device, [VELKCTL, "import", machine, "sd_card2"])
    assert found.end == "exited 10", found.result
    last = max(point.number for point in found.points if point.call.startswith("rename") and point.path == f"{CARD2}/App")
    assert stepper.run(device, [VELKCTL, "import", machine, "sd_card2"], kill=last).end == "killed"
    device.sh('touch -d @0 "$1"', LOCK).check()
    status, told = clean(device)
    assert (status, tree(device, f"{CARD2}/App")) == (4, before), told
    # What was unpacked beside it is the dead import's, and goes.
    assert device.sh('ls -A "$1"', CARD2).stdout == "App\n"


def test_with_the_card_out_nothing_is_touched(device: Device, machine: str) -> None:
    kill_at(device, machine, "sd_card1", is_root_link)
    before = tree(device, CARD)
    device.run(["systemctl", "stop", SLOT]).check()
    status, told = clean(device)
    device.run(["systemctl", "start", SLOT]).check()
    assert (status, told[-1], stored(device)) == (4, "code 4: Application not found in store: App", [])
    assert tree(device, CARD) == before


def test_a_dead_imports_word_is_no_later_locks(device: Device, machine: str) -> None:
    """The lock was deleted by hand; another command died, and on the card there is what the import before it placed."""
    kill_at(device, machine, "sd_card1", is_root_link)
    before = tree(device, CARD)
    device.sh('rm "$1"; printf App >"$1"', LOCK).check()
    status, told = clean(device)
    assert (status, told[-1], tree(device, CARD)) == (4, "code 4: Application not found in store: App", before)
    assert device.sh(f"ls -A {STORE}/_lock").stdout == ""
