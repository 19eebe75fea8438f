"""The states of many services, asked in one question, are those that a question for each of them tells."""

from __future__ import annotations

import json
from collections.abc import Iterator

import pytest
from velkdevice import package
from velkdevice.device import Device

STORE = "/usr/local/packages"
UNITS = "/etc/systemd/system"
NO_BUS = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/no-such-bus"}

# The unit of each application, and how it is brought into its state; without a text there is none.
SLEEP = "/bin/sleep infinity"
STATES = {
    "Active": (f"[Service]\nExecStart={SLEEP}\n", "systemctl start $UNIT"),
    "Inactive": (f"[Service]\nExecStart={SLEEP}\n", ""),
    "Stopped": (f"[Service]\nExecStart={SLEEP}\n", "systemctl start $UNIT; systemctl stop $UNIT"),
    "Failed": ("[Service]\nExecStart=/bin/false\n", "systemctl start $UNIT; systemctl is-failed -q --wait $UNIT || :"),
    "Activating": (f"[Service]\nType=oneshot\nExecStart={SLEEP}\n", "systemctl start --no-block $UNIT"),
    "Deactivating": (f"[Service]\nExecStart={SLEEP}\nExecStop={SLEEP}\nTimeoutStopSec=infinity\n",
                     "systemctl start $UNIT; systemctl stop --no-block $UNIT"),
    "Reloading": (f"[Service]\nExecStart={SLEEP}\nExecReload={SLEEP}\nTimeoutStartSec=infinity\n",
                  "systemctl start $UNIT; systemctl reload --no-block $UNIT"),
    "Waiting": ("[Service]\nExecStart=/bin/false\nRestart=always\nRestartSec=infinity\n", "systemctl start $UNIT"),
    "Exited": ("[Service]\nType=oneshot\nRemainAfterExit=yes\nExecStart=/bin/true\n", "systemctl start $UNIT"),
    "Masked": (None, "ln -s /dev/null $FILE; systemctl daemon-reload"),
    "Alias": (None, f"ln -s {UNITS}/sdkActive.service $FILE; systemctl daemon-reload"),
    "Broken": ("[Service]\n", ""),
    "Absent": (None, ""),
}  # fmt: skip
EXPECTED = {
    "Activating": "activating", "Deactivating": "deactivating", "Failed": "failed", "Reloading": "reloading",
    "Waiting": "activating",
}  # fmt: skip


def unit(name: str) -> str:
    return f"sdk{name}.service"


@pytest.fixture
def states(pristine: Device) -> Iterator[Device]:
    """The device with an application for each state that a service can be in."""
    for name, (text, _) in STATES.items():
        pristine.write(f"{STORE}/{name}/manifest.json", json.dumps(package.manifest(name)), 0o444)
        if text:
            pristine.write(f"{UNITS}/{unit(name)}", text)
    pristine.sh("systemctl daemon-reload").check()
    for name, (_, script) in STATES.items():
        pristine.sh(f"UNIT={unit(name)} FILE={UNITS}/{unit(name)}; {script or ':'}")
    for name, state in EXPECTED.items():
        wait = 'for i in $(seq 200); do [ "$(systemctl show -P ActiveState $1)" = $2 ] && exit; sleep 0.05; done; exit 1'
        pristine.sh(wait, unit(name), state).check()
    yield pristine
    names = " ".join(unit(name) for name in STATES)
    pristine.sh(f"systemctl kill -s KILL {names} 2>/dev/null; systemctl stop {names} 2>/dev/null; cd {UNITS} && rm -f {names};"
                f"systemctl daemon-reload; systemctl reset-failed {names} 2>/dev/null; cd {STORE} && rm -rf {' '.join(STATES)}").check()  # fmt: skip


def test_every_state_is_told_as_by_a_question_for_each(states: Device) -> None:
    together = states.velkctl("list")
    alone = states.velkctl("list", env=NO_BUS)
    assert (together.status, together.stderr, together.stdout) == (alone.status, alone.stderr, alone.stdout)
    told = {one["appName"]: one["status"] for one in json.loads(together.stdout)}
    running = {"Active", "Alias", "Exited", "Reloading"}
    assert told == {name: "Running" if name in running else "Stopped" for name in STATES}


def test_one_question_is_asked_for_all_of_them(states: Device) -> None:
    """Only of the one that the service manager knows by another name is it asked again."""
    calls = "/run/systemctl-calls"
    states.write("/run/tools/systemctl", f'#!/bin/sh\necho "$*" >>{calls}\nexec /usr/bin/systemctl "$@"\n', 0o755)
    states.velkctl("list", env={"PATH": "/run/tools:/usr/sbin:/usr/bin:/sbin:/bin"}).check()
    asked = states.read(calls)
    states.sh(f"rm -r /run/tools {calls}").check()
    assert asked == f"is-active --quiet {unit('Alias')}\n"
