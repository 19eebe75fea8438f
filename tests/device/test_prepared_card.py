"""A card on which somebody prepared the place of the applications: it leads nowhere else on the device."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
import store_support as support
from velkdevice.device import Device

ELSEWHERE = "/var/lib/elsewhere"
CARDS = {"sd_card1": support.CARD, "sd_card2": support.CARD2}
DISKS = {"sd_card1": "SD_DISK", "sd_card2": "SD_DISK2"}


@pytest.fixture
def precious(device: Device) -> Iterator[Callable[[], list[str]]]:
    """A directory of the device with something of an application's name in it, and what it holds by now."""
    device.sh('mkdir -p "$1/App/lower" && echo 1 >"$1/App/lower/data"', ELSEWHERE).check()
    yield lambda: support.tree(device, ELSEWHERE)
    device.sh("chattr -R -i $1; rm -rf $1", ELSEWHERE).check()


def link_out(device: Device, location: str) -> None:
    """Make the card's place of applications a link to a directory of the device."""
    place = CARDS[location]
    device.sh('if [ -e "$1" ]; then mv "$1" "$1.away"; fi; ln -s "$2" "$1"', place, ELSEWHERE).check()


def link_back(device: Device, location: str) -> None:
    device.sh('rm "$1"; mv "$1.away" "$1"', CARDS[location]).check()


@pytest.mark.parametrize("location", CARDS)
@pytest.mark.usefixtures("leaves_nothing")
def test_nothing_is_imported_through_a_link(
    device: Device, card: Callable[..., None], precious: Callable[[], list[str]], location: str
) -> None:
    card(DISKS[location])
    link_out(device, location)
    before = precious()
    path = support.put(device, support.simple_package())
    refused = f"code 1: Attempt to use reserved directory '{CARDS[location]}' as a symlink\n"
    assert support.outcome(device.velkctl("import", path, location)) == (1, refused)
    assert precious() == before
    assert support.store_entries(device) == ["_lock"]


@pytest.mark.parametrize("location", CARDS)
@pytest.mark.usefixtures("leaves_nothing")
def test_nothing_is_removed_or_listed_through_a_link(
    device: Device, card: Callable[..., None], precious: Callable[[], list[str]], location: str
) -> None:
    card(DISKS[location])
    path = support.put(device, support.simple_package())
    device.velkctl("import", path, location).check()
    link_out(device, location)
    before = precious()
    assert device.velkctl("remove", "App").status != 0
    assert device.velkctl("list", "--format", "idd-size").stdout == ""
    assert precious() == before
    link_back(device, location)
    assert device.velkctl("remove", "App").status == 0
    assert not device.exists(CARDS[location] + "/App")
