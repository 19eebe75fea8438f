"""Applications whose units would have one name: the second is refused, and neither takes the other's away."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest
from apps import app, stored
from setups import STORE, UNITS, Put, configured, look_at, show, store_app, velkctl, workshop
from store_support import CARD
from velkdevice.device import Device


@pytest.fixture
def crowded(workshop: Device) -> Iterator[Device]:
    """The device with a card; no application of a test stays."""
    workshop.insert_card()
    yield workshop
    for name in stored(workshop):
        workshop.velkctl("uninstall", name)
    workshop.remove_card()
    workshop.sh("systemctl reset-failed 2>/dev/null; :")


def refusal(unit: str, name: str, other: str) -> tuple[int, str]:
    return 10, f"code 10: The unit {unit} that application {name} needs is one of application {other}\n"


def units(device: Device) -> dict[str, str]:
    return look_at(device, UNITS)


def tear_down_what_is_not_set_up(device: Device, name: str) -> None:
    """Its user, which it does not have, is all that cannot be taken away."""
    status, told = velkctl(device, "teardown", name)
    lines = [line.split(" during teardown of ")[0] for line in told.splitlines() if f"of {name}: " in line]
    assert (status, lines) == (10, ["Failed to teardown user"]), told


def with_image(name: str, point: str) -> dict[str, Any]:
    files = configured(name, squashfsMounts=[{"path": "LICENSE", "mountpoint": point}])
    return files | {f"{point}/": ""}


POLLING = "sdkFoo-disk-mounted.service"


def test_an_application_is_not_taken_for_the_wait_for_a_card(crowded: Device, put_package: Put) -> None:
    store_app(crowded, put_package, app("Foo"), "sd_card1")
    store_app(crowded, put_package, app("Foo-disk-mounted"))
    assert velkctl(crowded, "setup", "Foo")[0] == 0
    before = units(crowded)
    refused = refusal(POLLING, "Foo-disk-mounted", "Foo")
    assert velkctl(crowded, "setup", "Foo-disk-mounted") == refused
    assert crowded.run(["id", "velk-foo-disk-mounted"]).status == 1
    assert '"status": "Running"' not in crowded.velkctl("list", "Foo-disk-mounted").stdout
    tear_down_what_is_not_set_up(crowded, "Foo-disk-mounted")
    assert units(crowded) == before
    assert show(crowded, POLLING, "LoadState", "ActiveState") == ["loaded", "active"]
    assert velkctl(crowded, "remove", "Foo-disk-mounted")[0] == 0
    assert units(crowded) == before
    assert velkctl(crowded, "uninstall", "Foo")[0] == 0
    assert not any("Foo" in path for path in units(crowded))


def test_the_wait_for_a_card_is_not_written_over_an_application(crowded: Device, put_package: Put) -> None:
    store_app(crowded, put_package, app("Foo"), "sd_card1")
    store_app(crowded, put_package, app("Foo-disk-mounted"))
    assert velkctl(crowded, "setup", "Foo-disk-mounted")[0] == 0
    before = units(crowded)
    assert velkctl(crowded, "setup", "Foo") == refusal(POLLING, "Foo", "Foo-disk-mounted")
    tear_down_what_is_not_set_up(crowded, "Foo")
    assert units(crowded) == before
    assert crowded.run(["readlink", f"{STORE}/Foo"]).stdout == f"{CARD}/Foo/lower\n"
    assert velkctl(crowded, "uninstall", "Foo-disk-mounted")[0] == 0
    assert velkctl(crowded, "setup", "Foo")[0] == 0


@pytest.mark.parametrize(("point", "other", "others"), [("bar/a", "Foo-bar", "a"), ("bar", "Foo-bar", "")])
def test_an_image_s_mount_is_only_one_application_s(
    crowded: Device, put_package: Put, point: str, other: str, others: str
) -> None:
    unit = f"usr-local-packages-Foo-{point.replace('/', '-')}.mount"
    store_app(crowded, put_package, with_image("Foo", point))
    where = "internal" if others else "sd_card1"
    store_app(crowded, put_package, with_image(other, others) if others else app(other), where)
    assert velkctl(crowded, "setup", "Foo")[0] == 0
    before = units(crowded)
    assert velkctl(crowded, "setup", other) == refusal(unit, other, "Foo")
    tear_down_what_is_not_set_up(crowded, other)
    assert units(crowded) == before
    assert velkctl(crowded, "teardown", "Foo")[0] == 0
    assert not crowded.exists(f"{UNITS}/{unit}")


def test_a_unit_of_the_system_stays(crowded: Device, put_package: Put) -> None:
    unit = "usr-local-packages-Sample-data.mount"
    crowded.write(f"{UNITS}/{unit}", "[Mount]\nWhat=tmpfs\nType=tmpfs\n")
    store_app(crowded, put_package, with_image("Sample", "data"))
    assert velkctl(crowded, "setup", "Sample") == (
        10, f"code 10: The unit {unit} that application Sample needs is one of the system\n")  # fmt: skip
    tear_down_what_is_not_set_up(crowded, "Sample")
    left = crowded.exists(f"{UNITS}/{unit}")
    crowded.sh(f"rm -f {UNITS}/{unit}").check()
    assert left


def test_a_device_node_on_a_card_is_none(crowded: Device, put_package: Put) -> None:
    store_app(crowded, put_package, app("Sample"), "sd_card1")
    before = units(crowded)
    assert velkctl(crowded, "setup", "Sample")[0] == 0
    options = crowded.run(["findmnt", "-n", "-o", "OPTIONS", f"{STORE}/Sample"]).check().stdout.strip().split(",")
    assert {"nosuid", "nodev", f"upperdir={CARD}/Sample/upper"} <= set(options)
    drop_in = f"{UNITS}/usr-local-packages-Sample.mount.d"
    layers = f"{CARD}/Sample"
    assert crowded.read(f"{drop_in}/50-nodev.conf") == (
        f"[Mount]\nOptions=lowerdir={layers}/lower,upperdir={layers}/upper,workdir={layers}/work,nosuid,nodev\n")  # fmt: skip
    assert velkctl(crowded, "teardown", "Sample")[0] == 0
    assert units(crowded) == before
