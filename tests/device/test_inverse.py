"""setup and teardown are inverse: for the examples, and for applications in whose manifests any two settings meet."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Mapping
from pathlib import Path
from typing import Any

import pairwise
import pytest
from setups import STORE, UNITS, Put, codes, own, velkctl, verify
from store_support import CARD, LAYERS, allow_unsigned
from velkdevice import package, snapshot
from velkdevice.device import Device

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
SHAPES = pairwise.shapes()
SAMPLE = 8  # of the shapes, in a run that is not asked for all
AREAS = {"internal": STORE, "sd_card1": CARD, "internal_vlpfs": LAYERS}
PACKAGES = "/tmp/packages"
GONE = ["401", "404", "404", "404"]


@pytest.fixture(scope="module")
def slotted(device: Device) -> Iterator[tuple[Device, snapshot.Snapshot]]:
    """The common device with a card and with every location in reach; and how it is without an application."""
    settings = device.read("/etc/velk/conf/packageparser.conf")
    allow_unsigned(device)
    device.insert_card()
    device.sh(f"mkdir -p {CARD}").check()
    yield device, snapshot.take(device)
    device.remove_card()
    device.write("/etc/velk/conf/packageparser.conf", settings)


def without_application(seen: snapshot.Snapshot, name: str) -> snapshot.Snapshot:
    """The device without what the store has of an imported application, and without the image of the card it is on."""
    its = (*(f"{area}/{name}" for area in AREAS.values()), f"/etc/velk/vsf/{name}", "/var/lib/orvo-cards", PACKAGES)
    return snapshot.Snapshot({
        kind: {thing: fact for thing, fact in entries.items()
               if not any(thing == path or thing.startswith(path + "/") for path in its)}
        for kind, entries in seen.sections.items()})  # fmt: skip


# What systemd's checker says of a squash image on a card. The overlay there waits for the whole system to be up, and an
# image's mount is meant to come early, like every mount: a circle when all of it is to be started at once, which the
# checker tries and no boot does.
CIRCLE = ("Found ordering cycle", "Found dependency on", "to break ordering cycle", "Unable to break cycle",
          "cyclic ordering dependency", "Transaction order is cyclic")  # fmt: skip


def check_set_up(device: Device, name: str, location: str) -> None:
    """Everything that setup wrote is accepted by the program that it is for."""
    assert device.run(["apachectl", "-t"]).stderr.strip().splitlines()[-1] == "Syntax OK"
    units = device.sh(f"cd {UNITS} && ls -d sdk{name}.service sdk{name}-*.service *packages*{name}*.mount 2>/dev/null")
    result = verify(device, *units.stdout.split())
    expected = CIRCLE if location == "sd_card1" else ()
    assert [line for line in result.stderr.splitlines() if not any(part in line for part in expected)] == []


def inverse(device: Device, path: str, name: str, location: str, base: snapshot.Snapshot) -> None:
    """Import, set up, tear down and remove the application; nothing of it is left but what is listed."""
    device.velkctl("import", path, location).check()
    area = f"{AREAS[location]}/{name}"
    before = snapshot.application(device, area)
    entry = device.sh('stat -c %F "$1"; readlink "$1"', f"{STORE}/{name}").stdout
    assert velkctl(device, "setup", name)[0] == 0
    check_set_up(device, name, location)
    assert velkctl(device, "teardown", name)[0] == 0
    assert snapshot.changed_in_application(before, snapshot.application(device, area)) == []
    assert device.sh('stat -c %F "$1"; readlink "$1"', f"{STORE}/{name}").stdout == entry
    device.wait_for(lambda: codes(device, f"/local/{name}/index.html") == GONE, "the pages to be gone")
    device.wait_for(lambda: not own(device, f"com.orvo.Param.{name}", "root"), "the bus policy to be gone")
    bare = without_application(base, name)
    seen = snapshot.like(bare, device, view=lambda seen: without_application(seen, name))
    assert bare.differences(seen) == []
    device.velkctl("remove", name).check()


def shape_parameters() -> list[Any]:
    return [pytest.param(shape, id=f"{number}-{shape['location']}", marks=[pytest.mark.full] if number >= SAMPLE else [])
            for number, shape in enumerate(SHAPES)]  # fmt: skip


@pytest.mark.parametrize("shape", shape_parameters())
def test_an_application_of_any_shape(
    slotted: tuple[Device, snapshot.Snapshot], put_package: Put, shape: Mapping[str, str]
) -> None:
    device, base = slotted
    path = put_package(device, pairwise.application(dict(shape)))
    try:
        inverse(device, path, shape["name"], shape["location"], base)
    finally:
        if device.exists(f"{STORE}/{shape['name']}"):
            device.velkctl("uninstall", shape["name"])


def test_any_two_settings_meet_in_some_shape() -> None:
    met = set().union(*map(pairwise.pairs_of, SHAPES))
    assert met == set(pairwise.all_pairs())
    assert len(SHAPES) == pairwise.COUNT
    assert len({tuple(shape.items()) for shape in SHAPES}) == pairwise.COUNT


@pytest.mark.parametrize("example", sorted(path.name for path in EXAMPLES.iterdir() if path.is_dir()))
def test_an_example(slotted: tuple[Device, snapshot.Snapshot], tmp_path: Path, example: str) -> None:
    device, base = slotted
    target = f"{PACKAGES}/{example}.vlp"
    device.copy_in(package.pack_source(EXAMPLES / example, tmp_path / f"{example}.vlp"), target)
    try:
        inverse(device, target, example, "internal", base)
    finally:
        device.sh(f"rm -r {PACKAGES}").check()
