"""The stepper itself: that it sees every change, of every child, and that nothing happens after the kill."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
import stepper
from velkdevice.device import Device

PLACE = "/tmp/stepped"
# A change by the shell, by a child, by a child's child at the end of a pipe, and one in the background.
SCRIPT = f"""
    cd {PLACE} && echo one >file
    chmod 600 file
    echo text | tee -a file >/dev/null
    (mkdir directory && mv file directory/moved) & wait
    ln -s nowhere link
    rm -r directory
"""
COMMAND = ["/bin/sh", "-c", SCRIPT]
CHANGES = [
    "sh openat file", f"sh write {PLACE}/file", "chmod fchmodat file", "tee openat file", f"tee write {PLACE}/file",
    "mkdir mkdir directory", "mv renameat2 directory/moved", "ln symlinkat link", "rm unlinkat moved",
    "rm unlinkat directory",
]  # fmt: skip
# What is there when the script ends before each of the changes, and at last after all of them.
STATES = [
    "", "file 0 644", "file 4 644", "file 4 600", "file 4 600", "file 9 600", "directory file 9 600",
    "directory directory/moved 9 600", "directory directory/moved 9 600 link", "directory link", "link",
]  # fmt: skip


@pytest.fixture
def place(device: Device) -> Iterator[Device]:
    empty(device)
    yield device
    device.sh('rm -rf "$1"', PLACE).check()
    assert not device.exists(stepper.LOG)


def empty(device: Device) -> None:
    device.sh('rm -rf "$1" && mkdir "$1"', PLACE).check()


def look(device: Device) -> str:
    """Names, and for files size and mode."""
    script = """cd "$1" && find . -mindepth 1 \\( -type f -printf '%P %s %m\\n' -o -printf '%P\\n' \\) | sort"""
    return " ".join(device.sh(script, PLACE).check().stdout.split())


def test_every_change_is_seen_and_numbered(place: Device) -> None:
    steps = stepper.run(place, COMMAND)
    assert [f"{point.program} {point.call} {point.path}" for point in steps.points] == CHANGES
    assert [point.number for point in steps.points] == list(range(1, len(CHANGES) + 1))
    assert (steps.end, steps.result.status, steps.result.stderr) == ("exited 0", 0, "")
    assert look(place) == STATES[-1]


@pytest.mark.parametrize("number", range(1, len(CHANGES) + 1))
def test_a_kill_leaves_what_was_done_and_nothing_more(place: Device, number: int) -> None:
    steps = stepper.run(place, COMMAND, kill=number)
    assert (steps.end, steps.result.status) == ("killed", 137)
    assert look(place) == STATES[number - 1]


def test_a_call_that_fails_changes_nothing_and_says_so(place: Device) -> None:
    script = f"cd {PLACE} && echo one >file && chmod 600 file; mkdir directory; ln -s nowhere link"
    steps = stepper.run(place, ["/bin/sh", "-c", script], fail=4)
    assert [point.call for point in steps.points] == ["openat", "write", "fchmodat", "mkdir", "symlinkat"]
    assert steps.result.stderr == "mkdir: cannot create directory \u2018directory\u2019: Input/output error\n"
    assert (steps.end, look(place)) == ("exited 0", "file 4 600 link")


def test_a_kill_reaches_children_that_change_nothing(place: Device) -> None:
    script = f"sleep 98765 & sleep 98765 | sleep 98765 & (setsid sleep 98765 &) ; mkdir {PLACE}/reached"
    assert stepper.run(place, ["/bin/sh", "-c", script], kill=1).end == "killed"
    assert look(place) == ""
    assert place.run(["pgrep", "-f", "^sleep 98765"]).stdout == ""


def test_a_kill_beyond_the_last_change_is_none(place: Device) -> None:
    steps = stepper.run(place, COMMAND, kill=len(CHANGES) + 1)
    assert (steps.end, steps.result.status) == ("exited 0", 0)
    assert look(place) == STATES[-1]


def test_syncs_are_carried_out_and_counted_only_when_asked_for(place: Device) -> None:
    command = ["/bin/sh", "-c", f"sync {PLACE}; sync"]
    assert stepper.run(place, command).points == ()
    assert [point.call for point in stepper.run(place, command, sync=True).points] == ["fsync", "sync"]


def test_what_changes_nothing_is_not_counted(place: Device) -> None:
    script = "cat /etc/passwd | grep root >/dev/null; echo said; kill -0 $$; ls -l / >/dev/null"
    steps = stepper.run(place, ["/bin/sh", "-c", script])
    assert (steps.points, steps.result.stdout) == ((), "said\n")


def test_messages_to_services_attributes_and_mounts_count(place: Device) -> None:
    script = f"cd {PLACE} && chattr +i . && chattr -i . && mount -t tmpfs none . && umount {PLACE}"
    calls = [f"{point.program} {point.call}" for point in stepper.run(place, ["/bin/sh", "-c", script]).points]
    assert calls[:2] == ["chattr ioctl", "chattr ioctl"] and calls[-1] == "umount umount2"
    assert "mount mount" in calls or "mount move_mount" in calls
    asked = stepper.run(place, ["busctl", "get-property", "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                "org.freedesktop.systemd1.Manager", "Version"])  # fmt: skip
    assert asked.result.status == 0 and "sendmsg" in {point.call for point in asked.points}


def test_the_end_is_the_commands_own(place: Device) -> None:
    for script, status, end in (("exit 7", 7, "exited 7"), ("kill -TERM $$", 143, "ended by signal 15")):
        steps = stepper.run(place, ["/bin/sh", "-c", script])
        assert (steps.result.status, steps.end) == (status, end)
    missing = stepper.run(place, ["/nothing/here"])
    assert (missing.result.status, missing.end) == (127, "exited 127")


def test_bad_options_are_trouble_of_its_own(place: Device) -> None:
    for arguments in ([], ["--kill"], ["--what", "1", "true"], ["--kill", "1"]):
        result = place.run([stepper.STEP, *arguments])
        assert (result.status, result.stderr[:18]) == (125, "usage: velk-step [")


def test_a_held_command_stands_still_and_goes_on(place: Device) -> None:
    with stepper.hold(place, COMMAND, when=f"{PLACE}/directory") as held:
        assert look(place) == STATES[6]
        result = held.let_go()
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert look(place) == STATES[-1]


def test_a_held_command_that_is_left_is_killed(place: Device) -> None:
    with stepper.hold(place, COMMAND, when=f"{PLACE}/directory"):
        pass
    place.wait_for(lambda: place.run(["pgrep", "velk-step"]).stdout == "", "the stepper to be gone")
    assert look(place) == STATES[6]


def what_a_cut_keeps(place: Device) -> str:
    """What is on a file system, and in its file "kept", after a cut that follows two writes, one of them synced."""
    mount = 'mount -o loop,commit=1000 "$1.img" "$1"'
    place.sh(f'truncate -s 16M "$1.img" && mkfs.ext4 -q "$1.img" && {mount}', PLACE).check()
    script = f"cd {PLACE} && echo kept >kept && sync kept . && echo lost >lost && mkdir lost-too && true >never"
    try:
        steps = stepper.run(place, ["/bin/sh", "-c", script], kill=8, sync=True, cut=[PLACE])
        assert (steps.end, steps.points[-1].path) == ("killed", "never"), steps
        assert place.sh('touch "$1/more"', PLACE).status != 0
        place.sh(f'umount "$1" && {mount}', PLACE).check()
        return place.sh('ls "$1" && cat "$1/kept"', PLACE).stdout
    finally:
        place.sh('umount "$1"; rm "$1.img"', PLACE).check()


def test_a_cut_keeps_what_was_synced_and_nothing_else(place: Device) -> None:
    # A sync on any device of this machine reaches every file system of its kernel, so one may come in between.
    kept = [what_a_cut_keeps(place) for _ in range(5)]
    assert all("kept\n" in each and each.endswith("kept\n") for each in kept), kept
    assert "kept\nlost+found\nkept\n" in kept, kept


def test_the_parts_of_a_log_are_told_apart() -> None:
    points, end = stepper.parse("1\ttar\topenat\ta name\nheld\n2\tsh\twrite\t/x\nexited 0\n")
    assert [str(point) for point in points] == ["1: tar openat a name", "2: sh write /x"] and end == "exited 0"
    assert stepper.parse("") == ((), "")


def test_a_command_that_ends_before_it_can_be_held_is_an_error(place: Device) -> None:
    with pytest.raises(AssertionError, match="ended before it could be held"):
        with stepper.hold(place, ["/bin/true"], when="/"):
            pytest.fail("it cannot stand")
