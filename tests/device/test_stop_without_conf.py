"""An application that deleted its own `conf`: it is stopped all the same, and goes as a whole."""

from __future__ import annotations

import pytest
from apps import app, is_locked, stored
from setups import STORE, UNITS, Put, set_up, velkctl, workshop
from velkdevice.device import Device

__all__ = ["workshop"]
SAMPLE = f"{STORE}/Sample"
RECORD = f"{SAMPLE}/conf/runstate.conf"
UNRECORDED = (
    f"src/integration/runstate.cpp: Failed writing to file: {RECORD}: src/system/area.cpp: "
    f"Failed opening {SAMPLE}/conf: No such file or directory\n"
)


@pytest.fixture
def runs(workshop: Device, put_package: Put) -> Device:
    """The device with an application that runs and has taken its configuration away."""
    set_up(workshop, put_package, app("Sample", runMode="once"))
    workshop.velkctl("start", "Sample").check()
    workshop.sh('rm -r "$1/conf"', SAMPLE).check()
    return workshop


def is_active(device: Device) -> bool:
    return device.run(["systemctl", "is-active", "--quiet", "sdkSample"]).status == 0


def test_a_stop_fails_as_it_always_did(runs: Device) -> None:
    status, told = velkctl(runs, "stop", "Sample")
    assert (status, told.startswith("code 10: src/integration/runstate.cpp: Failed writing to file: ")) == (10, True)
    assert (is_active(runs), is_locked(runs)) == (False, False)


@pytest.mark.parametrize("command", ["uninstall", "teardown"])
def test_it_goes(runs: Device, command: str) -> None:
    status, told = velkctl(runs, command, "Sample")
    assert (status, is_active(runs), is_locked(runs)) == (0, False, False), told
    assert told.splitlines()[0].startswith(f"src/integration/runstate.cpp: Failed writing to file: {RECORD}: "), told
    assert runs.sh(f"ls -A {UNITS} {UNITS}/*.wants | grep Sample").stdout == ""
    assert stored(runs) == ([] if command == "uninstall" else ["Sample"])
    assert runs.sh("getent passwd velk-sample").stdout == ""


def test_one_that_does_not_stop_stays(runs: Device) -> None:
    script = '#!/bin/sh\n[ "$1" = stop ] && exit 3\nexec /usr/bin/systemctl "$@"\n'
    runs.write("/run/no-stop/systemctl", script, 0o755)
    status, told = velkctl(runs, "teardown", "Sample", env={"PATH": "/run/no-stop:" + runs.environment["PATH"]})
    runs.sh("rm -r /run/no-stop").check()
    assert (status, is_active(runs), stored(runs)) == (10, True, ["Sample"]), told
    assert "Failed running \"systemctl stop --quiet 'sdkSample.service'\"" in told


def test_a_new_version_takes_its_place(runs: Device, put_package: Put) -> None:
    assert velkctl(runs, "stop", "Sample")[0] == 10
    newer = put_package(runs, app("Sample", version="2.0.0", runMode="once"))
    result = runs.velkctl("install", newer)
    assert (result.status, is_locked(runs), stored(runs)) == (0, False, ["Sample"]), result
    assert '"2.0.0"' in runs.read(f"{SAMPLE}/manifest.json")
