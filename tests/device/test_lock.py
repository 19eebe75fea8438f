"""The operation lock: who holds it, what a command that died leaves, and how `clean` gets rid of that."""

from __future__ import annotations

import os
import re
import signal
import subprocess
from collections.abc import Iterator

import pytest
import stepper
import store_support as support
from apps import built, without_gpgv
from store_support import LOCK, STORE, Import
from velkdevice.device import Device

pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")

USAGE = """
Usage: velkctl clean

Clean up after an interrupted command to bring the system back to a good state
"""
HELD = (12, f"code 12: Another instance is already running, lock file exists: {LOCK}\n")
IMPORTED = (0, "Successfully imported application 'App'\n")


def clean(device: Device) -> tuple[int, str]:
    return support.outcome(device.velkctl("clean"))


def last_line(found: tuple[int, str]) -> tuple[int, str]:
    return found[0], found[1].splitlines()[-1]


@pytest.fixture
def blocked_su(device: Device) -> Iterator[dict[str, str]]:
    """
    An environment in which `su` says that it was reached and then waits, so that an import stands still
    with the lock held; a line through the gate ends the wait.
    """
    script = '#!/bin/sh\ntouch /run/blocked/reached\nread line </run/blocked/gate\nexec /usr/bin/su "$@"\n'
    device.write("/run/blocked/su", script, 0o755)
    device.sh("mkfifo /run/blocked/gate").check()
    yield {"PATH": "/run/blocked:" + device.environment["PATH"]}
    device.sh("rm -r /run/blocked").check()


def start_import(device: Device, environment: dict[str, str]) -> subprocess.Popen[bytes]:
    """Start an import and return when it holds the lock and is about to unpack."""
    path = support.put(device, support.simple_package())
    process, _ = device.start(["/usr/bin/velkctl", "import", path], env=environment)
    device.wait_for(lambda: device.exists("/run/blocked/reached"), "the import to unpack")
    return process


def kill(process: subprocess.Popen[bytes]) -> None:
    """Kill a command and all that it started, at once."""
    os.killpg(process.pid, signal.SIGKILL)
    process.communicate()


# --- the command line ---


@pytest.mark.parametrize(
    ("arguments", "status", "log"),
    [
        (["-h"], 0, ""),
        (["--help", "App"], 0, ""),
        (["App"], 10, "code 10: Too many arguments\n"),
        (["App", "-h"], 10, "code 10: Too many arguments\n"),
    ],
)
def test_usage(device: Device, arguments: list[str], status: int, log: str) -> None:
    result = device.velkctl("clean", *arguments)
    assert (result.status, result.stdout, result.stderr) == (status, USAGE, log)


def test_an_unknown_option_prints_the_usage(device: Device) -> None:
    result = device.velkctl("clean", "--force")
    assert (result.status, result.stdout) == (10, USAGE)


# --- holding it ---


def test_a_command_at_work_keeps_every_other_one_away(device: Device, blocked_su: dict[str, str]) -> None:
    process = start_import(device, blocked_su)
    assert device.read(LOCK) == "App"
    assert support.tree(device, f"{STORE}/_lock") == [
        f"{STORE}/_lock d 700 root:root",
        f"{LOCK} f 600 root:root",
    ]
    device.sh(f"mkdir {STORE}/Other").check()
    others = support.put(device, support.simple_package("Other"), "Other.vlp")
    commands = (
        ["import", others],
        ["remove", "Other"],
        ["install", others],
        ["setup", "Other"],
        ["start", "Other"],
        ["stop", "Other"],
        ["teardown", "Other"],
        ["uninstall", "Other"],
        ["backup", "Other"],
        ["restore", "Other"],
        ["remove", "App"],
    )
    found = {" ".join(command): last_line(support.outcome(device.velkctl(*command))) for command in commands}
    device.sh(f"rmdir {STORE}/Other; echo go >/run/blocked/gate").check()
    _, log = process.communicate(timeout=60)
    assert found == {" ".join(command): (12, HELD[1].strip()) for command in commands}
    assert (process.returncode, log.decode()) == IMPORTED
    assert not device.exists(LOCK)
    assert device.sh(f"ls -A {STORE}/_lock").stdout == ""
    assert not device.exists("/etc/velk/vsf/Other")


def test_the_lock_directory_is_made_anew_for_root_only(device: Device, run_import: Import) -> None:
    device.sh(f"rm -rf {STORE}/_lock").check()
    assert run_import(support.simple_package()) == IMPORTED
    assert support.tree(device, f"{STORE}/_lock") == [f"{STORE}/_lock d 700 root:root"]


def test_a_lock_that_cannot_be_made_fails(device: Device, run_import: Import) -> None:
    device.sh(f"rm -rf {STORE}/_lock && touch {STORE}/_lock").check()
    found = run_import(support.simple_package())
    device.sh(f"rm {STORE}/_lock").check()
    message = f"src/store/lock.cpp:N: Failed creating directory {STORE}/_lock: Not a directory\n"
    assert found == (10, "code 10: " + message)
    support.is_nowhere(device)


def test_a_full_disk_fails_to_lock(device: Device) -> None:
    path = support.put(device, support.simple_package())
    script = f'mount -t tmpfs -o size=4k,nr_inodes=1 none {STORE}/_lock && velkctl import "$1"'
    result = device.run(["unshare", "--mount", "sh", "-c", script, "sh", path])
    pattern = f"{STORE}/_lock/velkctl_"
    status, log = support.outcome(result)
    assert status == 10
    assert log.startswith(f"code 10: src/store/lock.cpp:N: Could not create temporary file: {pattern}"), log
    assert log.endswith(".tmp: No space left on device\n"), log
    support.is_nowhere(device)


def test_a_lock_that_is_taken_twice_keeps_its_first_name_and_goes_with_the_second_release(device: Device) -> None:
    device.copy_in(built("direct-calls"), "/tmp/direct-calls")
    result = device.run(["/tmp/direct-calls", "nested-locks"])
    device.sh("rm /tmp/direct-calls").check()
    assert (result.status, result.stdout, result.stderr) == (0, "First\nFirst\nFirst\n(none)\n", "")
    assert device.sh(f"ls -A {STORE}/_lock").stdout == ""


def test_a_command_of_several_holds_the_lock_until_its_work_is_done(device: Device) -> None:
    path = support.put(device, support.simple_package())
    for command in (["install", path], ["uninstall", "App"]):
        steps = stepper.run(device, ["/usr/bin/velkctl", *command])
        assert steps.end == "exited 0", steps.result
        changes = [point for point in steps.points if point.path.startswith((STORE, "/etc/"))]
        given_back = [point for point in changes if point.call == "unlink" and point.path == LOCK]
        assert given_back == changes[-1:], [str(point) for point in changes]


def test_a_lock_that_cannot_be_linked_leaves_no_temporary(device: Device) -> None:
    """The file system has an inode for the temporary file and none for a second name of it."""
    path = support.put(device, support.simple_package())
    script = (
        f"mkdir -p -m 700 {STORE}/_lock && mount -t tmpfs -o size=4k,nr_inodes=2 none {STORE}/_lock || exit; "
        f'velkctl import "$1"; end=$?; ls -A {STORE}/_lock; exit $end'
    )
    result = device.run(["unshare", "--mount", "sh", "-c", script, "sh", path])
    message = f"code 10: src/store/lock.cpp:N: Failed creating file {LOCK}: No space left on device\n"
    assert (support.outcome(result), without_gpgv(result.stdout)) == ((10, message), "")
    support.is_nowhere(device)


def test_a_lock_that_cannot_be_deleted_is_only_told(device: Device, run_import: Import) -> None:
    device.sh(f"mkdir -p -m 700 {STORE}/_lock && chattr +a {STORE}/_lock").check()
    status, log = run_import(support.simple_package())
    left = device.sh(f"chattr -a {STORE}/_lock; ls -A {STORE}/_lock; rm {STORE}/_lock/*").check().stdout.split()
    temporary = re.search(r"velkctl_\w{6}\.tmp", log)
    assert temporary, log
    told = (
        f"Could not delete temporary file {STORE}/_lock/{temporary[0]}: Operation not permitted\n"
        "Unlinking lock file failed: Operation not permitted\n"
    )
    assert (status, log) == (0, told + IMPORTED[1])
    assert left == ["velkctl", temporary[0]]


# --- clean ---


def test_stale_temporaries_survive_a_command(device: Device, run_import: Import) -> None:
    device.write(f"{LOCK}_abcdef.tmp", "stale")
    assert run_import(support.simple_package()) == IMPORTED
    assert device.sh(f"ls {STORE}/_lock").stdout == "velkctl_abcdef.tmp\n"


def test_a_lock_that_cannot_be_read_is_an_error(device: Device) -> None:
    device.sh(f"mkdir -p {LOCK}").check()
    found = clean(device)
    device.sh(f"rmdir {LOCK}").check()
    reason = f"src/system/file.cpp:N: Failed opening {LOCK}: Is a directory"
    assert found == (10, f"code 10: src/store/lock.cpp:N: Failed reading file: {LOCK}: Error: {reason}\n")


def test_an_import_that_died_while_unpacking_is_cleaned_up(
    device: Device, blocked_su: dict[str, str]
) -> None:
    kill(start_import(device, blocked_su))
    assert device.read(LOCK) == "App"
    assert device.exists(f"{STORE}/App.tmp")
    # Until then nothing goes.
    path = support.put(device, support.simple_package())
    assert support.outcome(device.velkctl("import", path)) == HELD
    status, log = clean(device)
    assert (status, log.splitlines()[-1]) == (4, "code 4: Application not found in store: App")
    assert log.startswith(f"Removing {STORE}/App.tmp\n")
    assert not device.exists(LOCK)
    device.sh("rm -f /tmp/velkctl_*")  # of the import that died and of the one that was kept away
    support.is_nowhere(device)
    assert support.outcome(device.velkctl("import", path)) == IMPORTED


def test_an_application_that_a_command_left_half_done_is_removed(device: Device, run_import: Import) -> None:
    """It was never set up, so there is no user to take down, which is reported; all the rest is done."""
    assert run_import(support.simple_package()) == IMPORTED
    device.write(LOCK, "App")
    status, log = clean(device)
    assert (status, log.splitlines()[-1]) == (
        10,
        "code 10: src/integration/velkctl-teardown.cpp:N: Failure during teardown of App",
    )
    assert not device.exists(LOCK)
    assert not device.exists("/etc/velk/vsf/App")
    support.is_nowhere(device)
