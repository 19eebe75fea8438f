"""clean: what a command that died left behind, by the lock file that it left."""

from __future__ import annotations

from collections.abc import Callable

from apps import LOCK, app, is_locked, stored, without_place
from setups import program
from store_support import CARD, STATES, STORE, Import, put, simple_package
from velkdevice.device import Device

Put = Callable[..., str]


def clean(device: Device) -> tuple[int, str, str]:
    result = device.velkctl("clean")
    return result.status, result.stdout, without_place(result.stderr)


def leave_lock(device: Device, content: str) -> None:
    """As a command leaves it that died: directory, and the name in the file."""
    device.sh("mkdir -p -m 0700 /usr/local/packages/_lock").check()
    device.write(LOCK, content)


def test_nothing_to_do(pristine: Device) -> None:
    assert clean(pristine) == (0, "", "No cleanup necessary\n")


def test_a_command_that_leaves_nothing_to_undo(pristine: Device) -> None:
    leave_lock(pristine, "no_clean_on_failure")
    assert clean(pristine) == (
        0, "", "Removing /usr/local/packages/no_clean_on_failure.tmp\n"
        "Deleted lock file. No further cleanup necessary.\n")  # fmt: skip
    assert not is_locked(pristine)


def test_an_application_is_torn_down_and_removed(pristine: Device, put_package: Put) -> None:
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.sh("mkdir /usr/local/packages/Sample.tmp && touch /usr/local/packages/Sample.tmp/x").check()
    leave_lock(pristine, "Sample")
    assert clean(pristine) == (
        0, "", "Removing /usr/local/packages/Sample.tmp\n"
        "Successfully performed cleanup of application Sample\n")  # fmt: skip
    assert stored(pristine) == [] and not is_locked(pristine)


def test_an_application_that_is_not_there(pristine: Device) -> None:
    leave_lock(pristine, "Sample")
    status, _, log = clean(pristine)
    assert (status, log) == (4, "Removing /usr/local/packages/Sample.tmp\n"
                                "code 4: Application not found in store: Sample\n")  # fmt: skip
    assert not is_locked(pristine)


def test_an_empty_lock_file(pristine: Device) -> None:
    leave_lock(pristine, "")
    assert clean(pristine) == (10, "", f"code 10: src/lifecycle/velkctl-clean.cpp: Lock file is empty: {LOCK}\n")
    assert not is_locked(pristine)


def test_a_running_application(pristine: Device, put_package: Put) -> None:
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.velkctl("start", "Sample").check()
    leave_lock(pristine, "Sample")
    assert clean(pristine) == (
        10, "", "code 10: Application Sample is still running, please stop it before running clean.\n")  # fmt: skip
    assert not is_locked(pristine)
    pristine.velkctl("uninstall", "Sample").check()


def test_a_line_end_in_the_lock_file_is_seen_by_the_running_test(pristine: Device) -> None:
    leave_lock(pristine, "Sample\n")
    status, _, log = clean(pristine)
    assert (status, log) == (10, "code 10: src/system/systemctl.cpp: Failed running: systemctl is-active --quiet "
                                 "sdkSample\\x0a.service\n")  # fmt: skip
    assert not is_locked(pristine)


def test_stale_temporary_files_go_with_the_lock_and_stay_without(pristine: Device) -> None:
    stale = f"{LOCK}_abcdef.tmp"
    leave_lock(pristine, "no_clean_on_failure")
    pristine.write(stale, "Sample")
    assert clean(pristine)[0] == 0
    assert not pristine.exists(stale)
    pristine.write(stale, "Sample")
    assert clean(pristine) == (0, "", "No cleanup necessary\n")
    assert pristine.exists(stale)
    pristine.sh('rm "$1"', stale).check()


def test_a_name_that_no_application_has(pristine: Device) -> None:
    leave_lock(pristine, "1Sample")
    assert clean(pristine) == (
        10, "", "Removing /usr/local/packages/1Sample.tmp\n"
        "code 10: Character sequence in application name is not allowed\n")  # fmt: skip
    assert not is_locked(pristine)


def test_an_application_that_came_on_a_card_stays(
    pristine: Device, card: Callable[..., None], run_import: Import
) -> None:
    """
    Another device put it there; the command that died was about one of the same name elsewhere, at a time when the clock
    had not been set yet.
    """
    card()
    assert run_import(simple_package(), "sd_card1")[0] == 0
    pristine.sh(f"rm {STORE}/App {STATES}/App").check()
    leave_lock(pristine, "App")
    pristine.sh('touch -d @0 "$1"', LOCK).check()
    assert clean(pristine) == (
        4, "", f"Removing {STORE}/App.tmp\ncode 4: Application not found in store: App\n")  # fmt: skip
    assert pristine.exists(f"{CARD}/App/lower/manifest.json")
    pristine.sh(f"rm /tmp/packages/App.vlp && rmdir /tmp/packages && chattr -i {CARD}/App/lower/* && rm -r {CARD}/App")


def test_an_application_on_a_card_that_is_out_is_still_known(
    pristine: Device, card: Callable[..., None], run_import: Import
) -> None:
    card()
    assert run_import(simple_package(), "sd_card1")[0] == 0
    slot = "var-spool-storage-SD_DISK.mount"
    pristine.run(["systemctl", "stop", slot]).check()
    leave_lock(pristine, "App")
    assert clean(pristine)[0] == 10
    assert not is_locked(pristine)
    assert pristine.exists(f"{STATES}/App") and stored(pristine) == ["App"]
    pristine.run(["systemctl", "start", slot]).check()
    assert pristine.velkctl("remove", "App").status == 0
    assert not pristine.exists(f"{CARD}/App") and stored(pristine) == []
    pristine.sh("rm /tmp/packages/App.vlp && rmdir /tmp/packages").check()


def test_what_goes_on_unpacking_when_only_velkctl_was_killed(pristine: Device) -> None:
    path = put(pristine, simple_package())
    # Makes something until its directory is gone, or two seconds have passed.
    script = 'i=0; while [ $i -lt 1000 ] && mkdir d$i; do i=$((i + 1)); sleep 0.002; done\n'
    with program(pristine, "su", f"({script}) >/dev/null 2>&1") as env:
        kill = "velkctl import $1 & sleep 0.2; while [ ! -d $2/d5 ]; do sleep 0.01; done; kill -9 $!; wait; velkctl clean"
        result = pristine.run(["sh", "-c", kill, "sh", path, f"{STORE}/App.tmp"], env=env)
    assert (result.status, is_locked(pristine), pristine.exists(f"{STORE}/App.tmp")) == (4, False, False)
    pristine.sh("rm -rf /tmp/packages /tmp/velkctl_* /etc/velk/vsf/App")
