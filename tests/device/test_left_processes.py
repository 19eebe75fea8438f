"""What an application's scripts leave running: it ends with the application's user, and before its files are touched."""

from __future__ import annotations

from typing import Any

import pytest
from apps import app, installation, uninstallation
from setups import STORE, Put, section, set_up, show, velkctl, workshop  # noqa: F401  (the fixture)
from velkdevice.device import Device

# Chains in which each process starts the next and ends: whoever looks for one of them finds it gone.
HYDRA = """#!/bin/sh
[ $# = 1 ] || { for head in 1 2 3; do setsid "$0" "$head" >/dev/null 2>&1 & done; exit 0; }
sleep 0.01
"$0" "$1" &
"""
# Heeds nothing, in a session of its own.
STAYER = """#!/bin/sh
trap '' TERM INT HUP
setsid sleep 4720 >/dev/null 2>&1 &
"""
# Those that are dead and only wait for their parent do not count.
COUNT = "ps -o stat= -U \"$1\" | grep -vc '^Z' || true"


def left(device: Device, user: str) -> int:
    """How many processes run as the user, which is a name or a number."""
    return int(device.sh(COUNT, user).check().stdout)


def leaving(script: str = STAYER, name: str = "postInstallScript", place: Any = installation) -> dict[str, Any]:
    return place(app(), **{name: "left.sh"}) | {"left.sh": script}


@pytest.fixture
def number(workshop: Device, put_package: Put) -> str:  # noqa: F811
    """The user id of an application whose script has left a process."""
    set_up(workshop, put_package, leaving())
    workshop.wait_for(lambda: left(workshop, "velk-sample") == 1, "the process that is left")
    return workshop.sh("id -u velk-sample").check().stdout.strip()


def test_what_starts_itself_anew_all_the_time_ends_with_the_application(workshop: Device, put_package: Put) -> None:  # noqa: F811
    set_up(workshop, put_package, leaving(HYDRA))
    workshop.wait_for(lambda: left(workshop, "velk-sample") > 0, "the heads")
    number = workshop.sh("id -u velk-sample").check().stdout.strip()
    assert velkctl(workshop, "uninstall", "Sample")[0] == 0
    assert left(workshop, number) == 0
    set_up(workshop, put_package, app())  # the next user of that number meets nobody
    assert left(workshop, number) == 0


def test_what_the_pre_uninstall_script_leaves_ends_too(workshop: Device, put_package: Put) -> None:  # noqa: F811
    set_up(workshop, put_package, leaving(STAYER, "preUninstallScript", uninstallation))
    number = workshop.sh("id -u velk-sample").check().stdout.strip()
    assert velkctl(workshop, "teardown", "--persist-user", "Sample")[0] == 0
    assert left(workshop, number) == 0


@pytest.mark.parametrize("command", ["backup", "restore", "teardown"])
def test_nobody_is_left_when_files_are_touched(workshop: Device, number: str, command: str) -> None:  # noqa: F811
    if command == "restore":
        workshop.sh(f"mkdir -p {STORE}/_backup/Sample/localdata").check()
    status, log = velkctl(workshop, command, "Sample")
    assert (status, left(workshop, number)) == (0, 0), log


def test_a_failed_setup_leaves_nobody(workshop: Device, put_package: Put) -> None:  # noqa: F811
    files = leaving(STAYER + "exit 77\n")
    workshop.velkctl("import", put_package(workshop, files)).check()
    assert velkctl(workshop, "setup", "Sample")[0] == 10
    assert workshop.sh("ps -eo args= | grep -c '^[s]leep 4720'").stdout == "0\n"


def test_an_application_that_runs_is_not_ended_by_an_upgrade_that_is_refused(
    workshop: Device, put_package: Put  # noqa: F811
) -> None:
    path = put_package(workshop, app(runMode="respawn"))
    workshop.velkctl("install", path).check()
    workshop.velkctl("start", "Sample").check()
    running = show(workshop, "sdkSample.service", "MainPID")
    status, log = velkctl(workshop, "install", path)
    assert (status, log) == (10, "code 10: Application Sample is still running, please stop it before running install.\n")
    assert show(workshop, "sdkSample.service", "MainPID") == running
    workshop.velkctl("stop", "Sample").check()


def test_a_user_of_others_keeps_its_processes(workshop: Device, put_package: Put) -> None:  # noqa: F811
    files = section(leaving(), "velkPackageConf.setup.user", {"username": "sdk", "group": "sdk"})
    set_up(workshop, put_package, files)
    workshop.wait_for(lambda: left(workshop, "sdk") == 1, "the process that is left")
    assert velkctl(workshop, "backup", "Sample")[0] == 0
    assert velkctl(workshop, "uninstall", "Sample")[0] == 0
    assert left(workshop, "sdk") == 1
    workshop.sh("pkill -KILL -U sdk -x sleep").check()
