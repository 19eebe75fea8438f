"""The record of a verification: it comes with the application that was verified, and no failed import touches it."""

from __future__ import annotations

import gzip
import json
from collections.abc import Callable, Iterator
from typing import Any

import pytest
import stepper
import store_support as support
from interruption import sample
from store_support import CARD, LAYERS, LOCK, STATES, STORE, Import
from velkdevice import package
from velkdevice.device import Device

pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")
RECORD = f"{STATES}/App"
OLD = '{"signature": "old", "state": "confirmed"}'
SUCCESS = (0, "Successfully imported application 'App'\n")
UNSIGNED = "Unsigned package, skipping signature verification\n"
REMOVED = "VSF existed for unsigned application package\n"
NOT_RECORDED = (10, "code 10: src/store/velkctl-vsf.cpp:N: Failed to write required fields in VSF for application App\n")
VELKCTL = "/usr/bin/velkctl"


@pytest.fixture(params=["", OLD], ids=["no record", "an old record"])
def record(device: Device, request: pytest.FixtureRequest) -> Callable[[], str]:
    """What is recorded of the application: at first this."""

    def read() -> str:
        return device.read(RECORD) if device.exists(RECORD) else ""

    if request.param:
        device.write(RECORD, request.param)
    return read


Read = Callable[[], str]


def without(name: str) -> bytes:
    return support.archive([pair for pair in support.base_members() if pair[0].name != name])


# --- imports that fail ---


@pytest.mark.usefixtures("unsigned_allowed")
@pytest.mark.parametrize("sign", [True, False], ids=["signed", "unsigned"])
def test_an_import_that_fails_records_nothing(
    device: Device, run_import: Import, record: Read, sign: bool, card: Callable[..., None]
) -> None:
    def failing(status: int, data: bytes, *location: str) -> None:
        data = gzip.compress(data, mtime=0)
        found = run_import(support.signed(data) if sign else data, *location)
        assert found[0] == status, found
        assert record() == before, found

    before = record()
    failing(5, support.archive(support.base_members(architecture="other")))
    failing(5, support.archive(support.base_members(compatibleOsVersions=[{"min": "99", "max": "99"}])))
    failing(1, without("package.conf"))
    failing(1, without("package.conf"), "internal_vlpfs")
    failing(10, support.archive(support.base_members()), "sd_card1")
    device.sh(f"mkdir {STORE}/APP").check()
    failing(14, support.archive(support.base_members()))
    device.sh(f"rmdir {STORE}/APP; mkdir {STORE}/App").check()
    failing(14, support.archive(support.base_members()))
    device.sh(f"rmdir {STORE}/App").check()
    device.write(LOCK, "Other")
    failing(12, support.archive(support.base_members()))
    device.sh(f"rm {LOCK}; chattr -R -i {LAYERS}/App; rm -rf {LAYERS}/App").check()
    card(megabytes=8)
    failing(3, support.archive([*support.base_members(), support.member("large", bytes(16 << 20))]), "sd_card1")


def test_a_package_of_the_image_that_fails_records_nothing(device: Device, record: Read) -> None:
    before = record()
    path = support.put(device, support.simple_package(sign=False, architecture="other"), "Image.vlp", "/usr/share/packages")
    device.write(path + ".json", '{"signed": true}')
    assert device.velkctl("import", path).status == 5
    device.sh("rm /usr/share/packages/Image.vlp*").check()
    assert record() == before


@pytest.mark.usefixtures("unsigned_allowed")
@pytest.mark.parametrize("location", ["internal", "sd_card1", "internal_vlpfs"])
def test_what_cannot_be_recorded_is_taken_back(device: Device, location: str, card: Callable[..., None]) -> None:
    card()
    path = support.put(device, support.simple_package())
    script = 'mount -t tmpfs -o size=4k,nr_inodes=1 none /etc/velk/vsf && velkctl import "$1" "$2"'
    result = device.run(["unshare", "--mount", "sh", "-c", script, "sh", path, location])
    assert support.outcome(result) == NOT_RECORDED
    support.is_nowhere(device)
    assert support.outcome(device.velkctl("import", path, location)) == SUCCESS


@pytest.mark.usefixtures("unsigned_allowed")
def test_a_record_that_cannot_be_taken_away_keeps_the_unsigned_application_out(device: Device, run_import: Import) -> None:
    device.write(RECORD, OLD)
    device.sh(f"chattr +i {RECORD}").check()
    found = run_import(support.simple_package(sign=False))
    device.sh(f"chattr -i {RECORD}").check()
    text = f"code 10: src/system/file.cpp:N: Failed removing {RECORD}: Operation not permitted\n"
    assert found == (10, UNSIGNED + REMOVED + text)
    support.is_nowhere(device)
    assert device.read(RECORD) == OLD


# --- imports that die ---


def stored(device: Device) -> bool:
    return device.exists(f"{STORE}/App/manifest.json")


def clear(device: Device) -> None:
    """Take away what was imported, or half of it."""
    script = 'for place; do chattr -R -f -i "$place"/App*; rm -rf "$place"/App*; done; rm -f "$1"/_lock/*'
    device.sh(script, STORE, CARD, LAYERS).check()
    device.sh("rm -f /tmp/velkctl_*; rm -rf /etc/velk/vsf/.filesync-*").check()


def interrupted(device: Device, path: str, location: str, full: bool) -> Iterator[bool]:
    """The import killed before its changes, one after the other; whether it is stored then."""
    command = [VELKCTL, "import", path, location]
    device.write(RECORD, OLD)
    whole = stepper.run(device, command)
    assert whole.end == "exited 0"
    numbers = [point.number for point in whole.points]
    # What is done of the record is at the end, and is always looked at.
    for number in numbers if full else sorted({*sample(len(numbers), 3), *numbers[-25:]}):
        clear(device)
        yield from prepared(device, command, number)
    clear(device)


def prepared(device: Device, command: list[str], number: int) -> Iterator[bool]:
    device.write(RECORD, OLD)
    assert stepper.run(device, command, kill=number).end == "killed"
    yield stored(device)


@pytest.mark.usefixtures("unsigned_allowed")
@pytest.mark.parametrize("location", [
    "internal", *(pytest.param(place, marks=pytest.mark.full) for place in ("sd_card1", "internal_vlpfs"))])  # fmt: skip
def test_no_unsigned_application_is_ever_seen_as_signed(
    device: Device, location: str, full: bool, card: Callable[..., None]
) -> None:
    card()
    path = support.put(device, support.simple_package(sign=False))
    device.write(RECORD, OLD)
    seen = {(is_stored, device.exists(RECORD)) for is_stored in interrupted(device, path, location, full)}
    assert seen <= {(False, True), (False, False), (True, False)} and (True, False) in seen


def test_a_signed_application_is_recorded_last(device: Device, full: bool) -> None:
    """Until then the older record is there, whose application was verified too."""
    data = gzip.compress(support.archive(support.base_members()), mtime=0)
    signature = package.Key.trusted().sign(data)
    path = support.put(device, package.append_signature(data, signature))
    new = json.dumps({"signature": signature.decode(), "state": "confirmed"}, indent=2)
    seen: set[tuple[bool, Any]] = set()
    for is_stored in interrupted(device, path, "internal", full):
        text = device.read(RECORD)
        seen.add((is_stored, {OLD: "old", new: "new"}.get(text, text)))
    assert seen == {(False, "old"), (True, "old"), (True, "new")}
