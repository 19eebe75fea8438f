"""start and stop for each run mode, against the real service manager."""

from __future__ import annotations

import json

import pytest
from apps import LOCK, app, built, is_locked, without_place
from setups import STORE, UNITS, Put, program, set_up, store_app, velkctl, workshop
from velkdevice.device import Device

UNIT = "sdkSample.service"


def state(device: Device) -> tuple[str, bool, str]:
    """Whether it runs, whether it is enabled, and what is recorded."""
    active = device.run(["systemctl", "is-active", UNIT]).stdout.strip()
    enabled = device.sh(f"test -L {UNITS}/velk.target.wants/{UNIT}").status == 0
    record = f"{STORE}/Sample/conf/runstate.conf"
    return active, enabled, device.read(record) if device.exists(record) else "none"


def main_pid(device: Device) -> str:
    return device.run(["systemctl", "show", "-P", "MainPID", UNIT]).check().stdout.strip()


@pytest.mark.parametrize("mode", ["once", "respawn", "respawnOnFailure", "never"])
def test_start_and_stop(workshop: Device, put_package: Put, mode: str) -> None:
    set_up(workshop, put_package, app(runMode=mode))
    assert state(workshop) == ("inactive", False, "none")
    at_boot = mode != "never"
    record = "ENABLED=yes\n" if at_boot else "ENABLED=no\n"
    assert velkctl(workshop, "start", "Sample") == (0, "Started application Sample\n")
    assert state(workshop) == ("active", at_boot, record)
    first = main_pid(workshop)
    assert velkctl(workshop, "start", "Sample") == (6, "Application Sample was already started\n")
    assert state(workshop) == ("active", at_boot, record)
    assert main_pid(workshop) != first
    assert velkctl(workshop, "stop", "Sample") == (0, "Stopped application Sample\n")
    assert state(workshop) == ("inactive", False, "ENABLED=no\n")
    assert velkctl(workshop, "stop", "Sample") == (7, "Application Sample was already stopped\n")
    assert state(workshop) == ("inactive", False, "ENABLED=yes\n")
    assert workshop.run(["stat", "-c", "%a %U", f"{STORE}/Sample/conf/runstate.conf"]).stdout == "644 root\n"
    assert not is_locked(workshop)


def test_the_calls_to_the_service_manager(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app(runMode="never"))

    def calls(command: str) -> list[str]:
        with program(workshop, "systemctl", 'echo "$@" >>/tmp/fake/calls\nexec "$REAL" "$@"\n') as env:
            workshop.velkctl(command, "Sample", env=env)
            return workshop.read("/tmp/fake/calls").splitlines()

    asked = f"is-active --quiet {UNIT}"
    verbs = {verb: f"{verb} --quiet {UNIT}" for verb in ("enable", "disable", "restart", "stop")}
    assert calls("start") == [asked, verbs["enable"], verbs["disable"], verbs["restart"]]
    assert calls("stop") == [asked, verbs["stop"], verbs["disable"]]
    assert calls("stop") == [asked]


def test_an_unknown_run_mode_is_refused_before_anything_is_done(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app(runMode="Never"))
    assert velkctl(workshop, "start", "Sample") == (29, "code 29: Invalid runMode value\n")
    assert state(workshop) == ("inactive", False, "none")
    assert not is_locked(workshop)


def test_a_missing_run_mode_is_refused(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    manifest = f"{STORE}/Sample/manifest.json"
    workshop.sh(f"chattr -i {manifest}; sed -i 's/runMode/other/' {manifest}; chmod 0444 {manifest}").check()
    assert velkctl(workshop, "start", "Sample") == (29, "code 29: Could not read runMode from manifest\n")


@pytest.mark.parametrize("command", ["start", "stop"])
def test_what_is_no_application(workshop: Device, command: str) -> None:
    assert velkctl(workshop, command, "Nothing") == (4, "code 4: Application not found in store: Nothing\n")
    assert velkctl(workshop, command, "1x") == (10, "code 10: Character sequence in application name is not allowed\n")
    workshop.sh(f"mkdir -p $(dirname {LOCK})").check()
    workshop.write(LOCK, "Other")
    assert velkctl(workshop, command, "Nothing") == (
        12, f"code 12: Another instance is already running, lock file exists: {LOCK}\n")  # fmt: skip
    workshop.sh(f"rm {LOCK}").check()


def test_an_application_that_is_not_set_up_does_not_start(workshop: Device, put_package: Put) -> None:
    store_app(workshop, put_package, app())
    status, told = velkctl(workshop, "start", "Sample")
    assert status == 10
    assert "code 10: src/system/subprocess.cpp: Failed running \"systemctl enable --quiet 'sdkSample.service'\"" in told
    assert not is_locked(workshop)


@pytest.mark.parametrize("verb", ["enable", "disable", "restart"])
def test_a_failed_call_ends_the_start(workshop: Device, put_package: Put, verb: str) -> None:
    set_up(workshop, put_package, app(runMode="never"))
    with program(workshop, "systemctl", f'[ "$1" = {verb} ] && exit 3\nexec "$REAL" "$@"\n') as env:
        status, told = velkctl(workshop, "start", "Sample", env=env)
    assert status == 10
    assert told.startswith(f"code 10: src/system/subprocess.cpp: Failed running \"systemctl {verb} --quiet '{UNIT}'\"")
    assert state(workshop) == ("inactive", verb == "disable", "none")
    assert not is_locked(workshop)


@pytest.mark.parametrize("verb", ["stop", "disable"])
def test_a_failed_call_ends_the_stop(workshop: Device, put_package: Put, verb: str) -> None:
    set_up(workshop, put_package, app(runMode="once"))
    workshop.velkctl("start", "Sample").check()
    with program(workshop, "systemctl", f'[ "$1" = {verb} ] && exit 3\nexec "$REAL" "$@"\n') as env:
        assert velkctl(workshop, "stop", "Sample", env=env)[0] == 10
    assert state(workshop) == ("active" if verb == "stop" else "inactive", True, "ENABLED=yes\n")


def test_the_record_is_not_written_through_a_link(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app(runMode="once"))
    workshop.sh(f"cd {STORE}/Sample; rm -r conf; ln -s /etc/velk conf").check()
    status, told = velkctl(workshop, "stop", "Sample")
    assert status == 10
    assert told.startswith(f"code 10: src/integration/runstate.cpp: Failed writing to file: {STORE}/Sample/conf/runstate.conf: ")
    assert not workshop.exists("/etc/velk/runstate.conf")


@pytest.mark.parametrize("plant", ["mkfifo", "mkdir", "ln -s /dev/zero", "truncate -s 4G"])
def test_whatever_an_application_puts_in_place_of_the_record_holds_nothing_up(
    workshop: Device, put_package: Put, plant: str
) -> None:
    set_up(workshop, put_package, app())
    workshop.run(["sh", "-c", f"cd {STORE}/Sample/conf; {plant} runstate.conf"], user="velk-sample").check()
    [listed] = json.loads(workshop.velkctl("list", timeout=30).check().stdout)
    assert listed["autostart"] == "Disabled"


@pytest.mark.parametrize("text", ["ENABLED=yes\n", "ENABLED=yesterday", "ENABLED=no\n", "ENABLED=ye", "", "x ENABLED=yes"])
def test_the_record_counts_by_its_beginning(workshop: Device, put_package: Put, text: str) -> None:
    set_up(workshop, put_package, app())
    workshop.write(f"{STORE}/Sample/conf/runstate.conf", text)
    wanted = '"Enabled"' if text.startswith("ENABLED=yes") else '"Disabled"'
    assert f'"autostart":{wanted}' in workshop.velkctl("list").check().stdout.replace('": "', '":"')


def test_a_record_that_cannot_be_read_is_an_error_and_not_a_no(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    workshop.copy_in(built("direct-calls"), "/tmp/direct-calls")
    conf = f"{STORE}/Sample/conf"

    def ask(*name: str) -> tuple[int, str, str]:
        result = workshop.run(["/tmp/direct-calls", "is-enabled", *name])
        return result.status, result.stdout, without_place(result.stderr)

    def unreadable(reason: str) -> tuple[int, str, str]:
        return 10, "", ("code 10: Failed reading runstate for application Sample. Code: 10 Message: "
                        f"src/integration/runstate.cpp: Failed opening {conf}/runstate.conf: {reason}\n")  # fmt: skip

    assert ask("Sample") == unreadable("No such file or directory")
    workshop.write(f"{conf}/runstate.conf", "ENABLED=yes\n")
    assert ask("Sample") == (0, "yes\n", "")
    workshop.write(f"{conf}/runstate.conf", "ENABLED=no\n")
    assert ask("Sample") == (0, "no\n", "")
    workshop.sh(f"cd {conf}; mv runstate.conf kept; ln -s kept runstate.conf").check()
    assert ask("Sample") == unreadable("Too many levels of symbolic links")
    workshop.sh(f"cd {conf}; rm runstate.conf; mkdir runstate.conf").check()
    assert ask("Sample") == unreadable("Is a directory")
    assert ask("Nothing") == (4, "", "code 4: Application not found in store: Nothing\n")
    assert ask() == (10, "", "code 10: runstate_is_enabled: Invalid argument: appname is NULL\n")
    workshop.sh("rm /tmp/direct-calls").check()


@pytest.mark.parametrize(("mode", "status", "runs"), [
    ("once", 1, False), ("once", 0, False), ("respawn", 0, True), ("respawn", 1, True), ("respawnOnFailure", 1, True),
    ("respawnOnFailure", 0, False), ("never", 1, False)])  # fmt: skip
def test_after_its_end_it_runs_again_by_its_mode(
    workshop: Device, put_package: Put, mode: str, status: int, runs: bool
) -> None:
    program_text = f"#!/bin/sh\n[ -e localdata/again ] && exec sleep infinity\n: >localdata/again\nexit {status}\n"
    set_up(workshop, put_package, app(runMode=mode) | {"Sample": program_text})
    workshop.velkctl("start", "Sample").check()
    wanted = "active" if runs else "failed" if status else "inactive"

    def settled() -> bool:
        return workshop.exists(f"{STORE}/Sample/localdata/again") and state(workshop)[0] == wanted and (
            not runs or workshop.sh(f"pgrep -u velk-sample sleep").status == 0)  # fmt: skip

    workshop.wait_for(settled, "what becomes of it")
    workshop.sh(f"systemctl reset-failed {UNIT}")


@pytest.mark.parametrize(("mode", "after"), [
    ("once", "failed"), ("respawn", "active"), ("respawnOnFailure", "active"), ("never", "failed")])  # fmt: skip
def test_killed_it_runs_again_by_its_mode(workshop: Device, put_package: Put, mode: str, after: str) -> None:
    """A crash changes nothing of what is wanted at boot, nor of the record."""
    set_up(workshop, put_package, app(runMode=mode))
    workshop.velkctl("start", "Sample").check()
    before, pid = state(workshop), main_pid(workshop)
    workshop.run(["kill", "-SEGV", pid]).check()
    workshop.wait_for(lambda: state(workshop)[0] == after and main_pid(workshop) != pid, f"it to be {after}")
    assert state(workshop)[1:] == before[1:]
    if after == "failed":
        # It counts as stopped: start brings it up again, whatever it ended with.
        assert velkctl(workshop, "start", "Sample") == (0, "Started application Sample\n")
    assert state(workshop)[0] == "active"


# What was done to an application before the reboot, and its listing after it: status and autostart.
BEFORE_REBOOT = {
    "untouched": ([], ("Stopped", "Disabled")),
    "started": (["start"], ("Running", "Enabled")),
    "stopped": (["start", "stop"], ("Stopped", "Disabled")),
    # Stopping what does not run records it as wanted; the service manager is not told, so it does not come up.
    "stopped twice": (["start", "stop", "stop"], ("Stopped", "Enabled")),
    "crashed": (["start", "kill"], ("Running", "Enabled")),
}


def test_after_a_reboot_it_runs_when_it_was_started_and_not_stopped(fresh_device: Device, put_package: Put) -> None:
    wanted = {}
    for number, (commands, shown) in enumerate(BEFORE_REBOOT.values()):
        for mode in ("once", "respawn", "respawnOnFailure", "never") if commands == ["start"] else ("once", "never"):
            name = f"{mode.capitalize()}{number}"
            set_up(fresh_device, put_package, app(name, runMode=mode))
            for command in commands:
                if command == "kill":
                    fresh_device.run(["systemctl", "kill", "-s", "KILL", f"sdk{name}.service"]).check()
                else:
                    assert fresh_device.velkctl(command, name).status in (0, 7)
            # What is never to run at boot does not, and says so.
            wanted[name] = ("Stopped", "Disabled") if mode == "never" and "Running" in shown else shown
    fresh_device.reboot()
    fresh_device.settle()
    listed = json.loads(fresh_device.velkctl("list").check().stdout)
    assert {one["appName"]: (one["status"], one["autostart"]) for one in listed} == wanted
