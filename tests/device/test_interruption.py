"""import, remove and clean, killed before each of their changes; then clean, killed as well; then the command again."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator

import pytest
from interruption import COMMANDS, FOLDER, LOCATIONS, PACKAGE, Scenario, kinds_of_states, left_behind, sample, summary
from store_support import LOCK, allow_unsigned, simple_package
from velkdevice import snapshot
from velkdevice.device import Device

Endings = Counter[str]


@pytest.fixture(scope="module")
def machine(device: Device) -> Iterator[Device]:
    """The device with both cards in and a package; afterwards as it was."""
    before = snapshot.take(device)
    settings = device.read("/etc/velk/conf/packageparser.conf")
    allow_unsigned(device)
    device.insert_card()
    device.sh("mkdir -p /var/spool/storage/SD_DISK/packages /var/spool/storage/SD_DISK2/packages").check()
    device.write(PACKAGE, simple_package())
    yield device
    device.sh('rm -r "$1"; rmdir /var/spool/storage/SD_DISK2/packages /var/spool/storage/SD_DISK2', FOLDER).check()
    device.remove_card()
    device.write("/etc/velk/conf/packageparser.conf", settings)
    assert left_behind(before, device) == []


@pytest.fixture
def scenario(machine: Device, command: str, location: str) -> Iterator[Scenario]:
    """A command at a location with the state before it kept on the device."""
    made = Scenario(machine, command, location)
    prepared = {"import": ":", "remove": 'velkctl import "$1" "$2"',
                "clean": 'velkctl import "$1" "$2" && printf App >"$3"'}[command]  # fmt: skip
    made.script(f"{{ wipe; {prepared} && remember; }} >/dev/null 2>&1", PACKAGE, location, LOCK)
    made.learn()
    yield made
    made.script("wipe")


# What the deaths leave beside a state, all of it and nothing else.
LEFT = {
    "import": {"a file of the lock"},
    "remove": {"a file of the lock"},
    "clean": set(),
}

# An application that is set up is brought to that state anew for each trial; nothing else knows all that belongs to it.
SET_UP = r"""
restore() {
    rm -f /usr/local/packages/_lock/*
    velkctl uninstall App
    wipe
    velkctl install "$FOLDER/App.vlp" "$LOCATION" && printf App >/usr/local/packages/_lock/velkctl
}
"""

everywhere = pytest.mark.parametrize(
    ("command", "location"), [(command, location) for location in LOCATIONS for command in COMMANDS]
)


@everywhere
def test_killed_before_a_change_a_command_is_undone_or_finished_by_clean(
    scenario: Scenario, full: bool, capsys: pytest.CaptureFixture[str]
) -> None:
    endings: Endings = Counter()
    if not full:
        for number in sample(len(scenario.points), 4):
            trial = scenario.interrupt(number)
            assert trial.was_killed, trial.where
            endings[scenario.judge(trial)] += 1
        return
    for trial in scenario.every():
        endings[scenario.judge(trial)] += 1
    left = {name for ending in endings for name in ending.split(" + ")[1:]}
    assert left == LEFT[scenario.command]
    with capsys.disabled():
        print("\n" + summary(f"{scenario.command} {scenario.location}", endings))


@everywhere
def test_killed_itself_clean_is_run_again(
    scenario: Scenario, full: bool, capsys: pytest.CaptureFixture[str]
) -> None:
    endings: Endings = Counter()
    if not full:
        count = len(scenario.points)
        for number, clean_number in ((count // 2, 5), (count * 3 // 4, 25)):
            endings[scenario.judge(scenario.interrupt(number, clean_number))] += 1
        return
    trials = [(number, trial) for number, trial in enumerate(scenario.every(), 1)]
    for number in kinds_of_states(trials):
        clean_number = 1
        while (trial := scenario.interrupt(number, clean_number)).clean_was_killed:
            endings[scenario.judge(trial)] += 1
            clean_number += 1
    with capsys.disabled():
        print("\n" + summary(f"{scenario.command} {scenario.location}, then clean", endings))


@pytest.mark.parametrize("location", ["internal", "sd_card1"])
def test_killed_in_a_teardown_clean_is_run_again(
    machine: Device, location: str, full: bool, capsys: pytest.CaptureFixture[str]
) -> None:
    scenario = Scenario(machine, "clean", location, f"LOCATION={location}\n{SET_UP}")
    endings: Endings = Counter()
    try:
        scenario.learn()
        trials = scenario.every() if full else map(scenario.interrupt, sample(len(scenario.points), 2))
        for trial in trials:
            endings[scenario.judge(trial)] += 1
    finally:
        scenario.script("{ rm -f /usr/local/packages/_lock/*; velkctl uninstall App; wipe; } >/dev/null 2>&1")
    if full:
        with capsys.disabled():
            print("\n" + summary(f"clean {location}, of an application that is set up", endings))
