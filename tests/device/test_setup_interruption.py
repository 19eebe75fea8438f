"""setup and teardown killed before their changes where mounts are at stake; then clean: nothing of it all is left."""

from __future__ import annotations

from collections.abc import Callable

import pytest
import stepper
from apps import app, installation, is_locked
from interruption import sample
from setups import STORE, Put, outside, workshop
from velkdevice.device import Device

SAMPLE = 2  # of the changes, in a run that is not asked for all


def world(device: Device) -> list[str]:
    """The device; systemd is first told what became of its files, and to forget what failed."""
    device.sh("systemctl daemon-reload; systemctl reset-failed").check()
    # Half-written files have names that only the dead writer knew; one of them keeps its directory.
    device.sh("find /etc /run -xdev -name '.filesync-*' -delete; rm -f /usr/local/packages/_lock/velkctl_*; "
              "rmdir /run/velkctl-param-groups 2>/dev/null || :").check()  # fmt: skip
    return outside(device, "Sample")


@pytest.mark.parametrize("command", ["setup", "teardown"])
@pytest.mark.parametrize("location", ["sd_card1", "internal_vlpfs"])
def test_what_dies_on_its_way_to_mounts_or_back_is_cleaned_up(
    workshop: Device, unsigned_allowed: None, card: Callable[..., None], put_package: Put, full: bool, location: str,
    command: str,
) -> None:  # fmt: skip
    card("SD_DISK")
    device = workshop
    files = installation(app(), postInstallScript="after.sh") | {"after.sh": "#!/bin/sh\n:\n"}
    device.sh("mkdir -p /var/spool/storage/SD_DISK/packages").check()
    path = put_package(device, files)
    before = world(device)
    argv = ["/usr/bin/velkctl", command, "Sample"]

    def prepare() -> None:
        device.velkctl("import", path, location).check()
        if command == "teardown":
            device.velkctl("setup", "Sample").check()

    prepare()
    whole = stepper.run(device, argv)
    assert whole.end == "exited 0", whole
    device.velkctl("uninstall", "Sample").check()
    count = len(whole.points)
    for number in range(1, count + 1) if full else sample(count, SAMPLE):
        prepare()
        steps = stepper.run(device, argv, kill=number)
        where = f"{location}, {command}: {steps.points[-1] if steps.points else steps}"
        was_locked = is_locked(device)
        cleaned = device.velkctl("clean")
        if device.exists(f"{STORE}/Sample"):  # nothing tells clean of it before the lock, or after
            assert not was_locked, f"{where}\n{cleaned}"
            device.velkctl("uninstall", "Sample").check()
        left = sorted(set(world(device)) ^ set(before))
        assert left == [], f"{where}\n{cleaned}"
