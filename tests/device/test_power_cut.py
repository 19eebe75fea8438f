"""
The power fails before each change of import, remove and clean: what the disk holds at that moment is all there is.

The store's root lies on one ext4 file system, and on a second the other location, or for the internal one the
verification states, as may be on a device. At the cut they are shut down with nothing flushed, and mounted again.
They commit nothing of their own accord, so that whatever survives was synced on purpose (or by a `sync` on another
device, if tests run side by side: the kernel is one; with `-n 0` there is none). Since nothing orders what goes to
one disk before what goes to another, either of them alone may also have got everything.
"""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator
from typing import Any

import pytest
from interruption import COMMANDS, FOLDER, LOCATIONS, PACKAGE, Scenario, left_behind, sample, summary
from store_support import LOCK, allow_unsigned, simple_package
from velkdevice import snapshot
from velkdevice.device import Device

SYSTEM = f"{FOLDER}/system"
# Where the second disk is when an application goes to a location.
SECOND_DISKS = {"internal": "/etc/velk/vsf", "sd_card1": "/var/spool/storage/SD_DISK",
                "sd_card2": "/var/spool/storage/SD_DISK2", "internal_vlpfs": "/opt/packages/_layers"}  # fmt: skip

# Replaces what the trials do to come to a state: here whole disks are exchanged.
WORLD = r"""
system=$FOLDER/system
CARD_AT=$(cat "$FOLDER/card-at" 2>/dev/null)
bind() { mkdir -p "$1" "$system$1" && mount --bind "$system$1" "$1"; }
plug_in() {
    mkdir -p "$system" "$CARD_AT"
    mount -o loop,commit=1000 "$FOLDER/system.img" "$system" && mount -o loop,commit=1000 "$FOLDER/card.img" "$CARD_AT" &&
        bind /usr/local/packages && { [ "$CARD_AT" = /etc/velk/vsf ] || bind /etc/velk/vsf; }
}
pull_out() {
    umount /etc/velk/vsf /usr/local/packages || return 1
    [ "$CARD_AT" = /etc/velk/vsf ] || umount "$CARD_AT" || return 1
    umount "$system"
}
is_in() { mountpoint -q "$system"; }
remember() { pull_out && for disk in system card; do cp --sparse=always "$FOLDER/$disk.img" "$FOLDER/$disk.before"; done; }
restore() {
    if is_in; then pull_out || return 1; fi
    for disk in system card; do cp --sparse=always "$FOLDER/$disk.before" "$FOLDER/$disk.img" || return 1; done
    plug_in
}
restart() { pull_out; rm -f /tmp/velkctl_*; plug_in; }
"""
FORMAT = r"""
CARD_AT=$1
echo "$1" >"$FOLDER/card-at"
for disk in system card; do
    rm -f "$FOLDER/$disk.img" && truncate -s 24M "$FOLDER/$disk.img" && mkfs.ext4 -q -J size=4 "$FOLDER/$disk.img" || exit 1
done
plug_in && mkdir -p -m 0700 /usr/local/packages/_lock && rmdir "$1/lost+found" || exit 1
case $1 in /var/*) mkdir "$1/packages" ;; esac
"""
# The same with the power on.
STAYS = r"""
restore >/dev/null || exit 1
section before; look
section command; step --without-sync "$@"
section after; look
"""


@pytest.fixture(scope="module")
def machine(device: Device) -> Iterator[Device]:
    """The device with a package; afterwards as it was."""
    before = snapshot.take(device)
    settings = device.read("/etc/velk/conf/packageparser.conf")
    allow_unsigned(device)
    device.write(PACKAGE, simple_package())
    yield device
    device.sh('rm -r "$1"', FOLDER).check()
    device.sh("rmdir /var/spool/storage/SD_DISK /var/spool/storage/SD_DISK2")  # those that were used
    device.write("/etc/velk/conf/packageparser.conf", settings)
    assert left_behind(before, device) == []


@pytest.fixture
def scenario(machine: Device, command: str, location: str, lost: str) -> Iterator[Scenario]:
    """A command at a location, with the disks before it kept on the device."""
    card = SECOND_DISKS[location]
    made = Scenario(machine, command, location, WORLD, step_options="")
    made.cut_options = " ".join(f"--cut {place}" for name, place in (("system", SYSTEM), ("card", card)) if name in lost)
    prepared = {"import": ":", "remove": 'velkctl import "$2" "$3"',
                "clean": 'velkctl import "$2" "$3" && printf App >"$4"'}[command]  # fmt: skip
    try:
        made.script(f"{{ {{ {FORMAT} }} && {prepared} && remember; }} >/dev/null 2>&1", card, PACKAGE, location, LOCK)
        made.learn()
        yield made
    finally:
        made.script("is_in && pull_out; :")


def cases() -> Iterator[Any]:
    """Every command at every location, whichever disk loses what was not synced; some only when all are wanted."""
    for location in LOCATIONS:
        for command in COMMANDS:
            for lost in ("system and card", "system", "card"):
                usual = lost == "system and card" or (command, location) == ("remove", "sd_card1")
                yield pytest.param(command, location, lost, marks=[] if usual else [pytest.mark.full])


@pytest.mark.parametrize(("command", "location", "lost"), cases())
def test_after_a_power_cut_clean_undoes_or_finishes_and_a_finished_command_keeps_its_result(
    scenario: Scenario, lost: str, full: bool, capsys: pytest.CaptureFixture[str]
) -> None:
    # The undisturbed run loses power as well, right after the command ended.
    seen = scenario.script(STAYS, *scenario.argv)
    assert seen["after"] == scenario.after != seen["before"]
    endings: Counter[str] = Counter()
    if not full:
        for number in sample(len(scenario.points), 2):
            trial = scenario.interrupt(number)
            assert trial.was_killed, trial.where
            endings[scenario.judge(trial)] += 1
        return
    for trial in scenario.every():
        endings[scenario.judge(trial)] += 1
    with capsys.disabled():
        print("\n" + summary(f"{scenario.command} {scenario.location}, {lost} lost", endings))


@pytest.mark.parametrize(("command", "location", "lost"), [("import", "internal", "system and card")])
def test_what_is_not_synced_is_lost(scenario: Scenario, lost: str) -> None:
    """The cut is a real one: with every sync left out, nothing of a finished command is there afterwards."""
    scenario.step_options = "--without-sync"
    for _ in range(20):  # until no sync on another device, which reaches these disks too, comes in between
        scenario.learn()
        if scenario.after == scenario.before:
            break
    assert scenario.after == scenario.before
