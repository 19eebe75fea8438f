"""clean beside who lives: a command at work, another clean, and what outlives the command that started it."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
import stepper
from apps import LOCK, app, installation, is_locked, stored, without_place
from setups import STORE
from velkdevice.device import Device

Put = Callable[..., str]
VELKCTL = "/usr/bin/velkctl"
HELD = (12, f"code 12: Another instance is already running, lock file exists: {LOCK}\n")
NOTE = f"{STORE}/Sample/localdata/note"
SAVED = f"{STORE}/_backup/Sample/localdata/note"


def clean(device: Device) -> tuple[int, str]:
    result = device.velkctl("clean")
    return result.status, without_place(result.stderr)


def files(device: Device) -> str:
    """The store with everything in it, times included."""
    script = 'find "$1" -printf "%p %i %y %m %U:%G %T@ %l\\n" | sort; find "$1" -type f -exec sha256sum {} +'
    return device.sh(script, STORE).check().stdout


@pytest.fixture
def installed(pristine: Device, put_package: Put) -> Iterator[Device]:
    """The common device with an application that has a note among its data."""
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.write(NOTE, "kept")
    yield pristine
    pristine.sh("rm -f /usr/local/packages/_lock/*")
    if stored(pristine):
        pristine.velkctl("uninstall", "Sample").check()
    pristine.sh("rm -rf /usr/local/packages/_backup/*").check()


def test_a_backup_at_work_is_left_to_its_work(installed: Device) -> None:
    with stepper.hold(installed, [VELKCTL, "backup", "Sample"], when=LOCK) as held:
        before = files(installed)
        assert clean(installed) == HELD
        assert files(installed) == before
        result = held.let_go()
    assert (result.status, result.stderr) == (0, "Backed up application Sample\n")
    assert (installed.read(NOTE), installed.read(SAVED), is_locked(installed)) == ("kept", "kept", False)
    assert installed.sh(f"ls -A {STORE}/_lock").stdout == ""


def test_of_two_cleans_at_once_the_second_does_nothing(installed: Device) -> None:
    installed.write(LOCK, "Sample")
    with stepper.hold(installed, [VELKCTL, "clean"], when=LOCK) as held:
        before = files(installed)
        assert clean(installed) == HELD
        assert files(installed) == before
        result = held.let_go()
    assert (result.status, result.stderr.splitlines()[-1]) == (
        0, "Successfully performed cleanup of application Sample")  # fmt: skip
    assert (stored(installed), is_locked(installed)) == ([], False)
    assert clean(installed) == (0, "No cleanup necessary\n")


def test_cleans_without_end_end_with_one_cleanup(installed: Device) -> None:
    """Whoever comes first does it; the others are refused, or come when all is done."""
    installed.write(LOCK, "Sample")
    script = 'for i in 1 2 3 4 5 6; do velkctl clean 2>&1 & done; wait'
    lines = installed.sh(script).check().stdout.splitlines()
    done = "Successfully performed cleanup of application Sample"
    others = {done, f"Removing {STORE}/Sample.tmp", HELD[1].strip(), "No cleanup necessary"}
    assert (lines.count(done), set(lines) - others) == (1, set())
    assert (stored(installed), is_locked(installed)) == ([], False)


def test_what_a_dead_command_started_does_not_keep_the_lock(pristine: Device, put_package: Put) -> None:
    """The process that waits for a script is velkctl's own, and has all that it had."""
    script = "#!/bin/sh\ntouch localdata/reached\nwhile [ ! -e localdata/go ]; do sleep 0.02; done\n"
    described = installation(app("Sample"), postInstallScript="wait.sh")
    package = put_package(pristine, described | {"wait.sh": script, "localdata/": b""})
    kill = r"""
        velkctl install "$1" >/dev/null 2>&1 &
        until [ -e "$2/Sample/localdata/reached" ]; do sleep 0.02; kill -0 $! || exit 1; done
        kill -9 $!; wait; pgrep -x velkctl >/dev/null || exit 2
        velkctl clean; status=$?; pgrep -x velkctl | xargs -r kill -9; exit $status
    """
    result = pristine.sh(kill, package, STORE)
    pristine.sh("pgrep -f wait.sh | xargs -r kill -9")
    # The user of a script that still runs may be busy: then it is found by the next version.
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.velkctl("uninstall", "Sample").check()
    assert result.status in (0, 10) and HELD[1] not in result.stderr, result
    assert (stored(pristine), is_locked(pristine)) == ([], False)


def test_a_lock_of_another_command_is_not_given_back(installed: Device) -> None:
    """Somebody deleted the first one by hand, and a second command came."""
    with stepper.hold(installed, [VELKCTL, "backup", "Sample"], when=LOCK) as held:
        installed.sh('rm "$1"; printf Other >"$1"', LOCK).check()
        result = held.let_go()
    assert (result.status, result.stderr) == (
        0, "Unlinking lock file failed: It is another command's\nBacked up application Sample\n")  # fmt: skip
    assert installed.read(LOCK) == "Other"
    assert installed.sh(f"ls -A {STORE}/_lock").stdout == "velkctl\n"


def test_a_lock_that_is_deleted_by_hand_leaves_no_note(installed: Device) -> None:
    with stepper.hold(installed, [VELKCTL, "backup", "Sample"], when=LOCK) as held:
        installed.sh('rm "$1"', LOCK).check()
        assert clean(installed) == (0, "No cleanup necessary\n")
        result = held.let_go()
    assert (result.status, result.stderr) == (
        0, "Unlinking lock file failed: No such file or directory\nBacked up application Sample\n")  # fmt: skip
    assert installed.sh(f"ls -A {STORE}/_lock").stdout == ""


# Dead locks are made and cleaned as fast as it goes; whatever file a living command needs must not be taken for one.
RACE = r"""
LOCK=$2; mkdir -p -m 0700 "$3/_lock"
printf no_clean_on_failure >"$3/_lock/dead"
for i in $(seq "$1"); do ln "$3/_lock/dead" "$LOCK" 2>/dev/null; velkctl clean; done >/dev/null 2>&1 &
for i in $(seq "$1"); do velkctl stop Nothing 2>&1; done | sort | uniq -c
wait
rm -f "$3/_lock/dead" "$LOCK"; ls -A "$3/_lock"
"""


def test_cleans_take_nothing_from_who_is_about_to_take_the_lock(pristine: Device, full: bool) -> None:
    lines = pristine.sh(RACE, "2000" if full else "60", LOCK, STORE, timeout=1200).check().stdout.splitlines()
    told = {line.split(None, 1)[1] for line in lines}
    assert told <= {HELD[1].strip(), "code 4: Application not found in store: Nothing"}, lines
