"""The scripts of applications: as whom they run, and that nothing of them outlives their time-out."""

from __future__ import annotations

from typing import Any

import pytest
from apps import app, installation, uninstallation
from setups import SETTINGS, STORE, Put, changed, outside, section, set_up, store_app, velkctl, workshop
from velkdevice.device import Device

# Told by the script itself: real, effective, saved and file-system ids, groups, capabilities, and where it runs.
IDENTITY = r"""#!/bin/sh
{
    grep -E '^(Uid|Gid|Groups|Cap(Inh|Prm|Eff|Amb)|NoNewPrivs):' /proc/self/status | tr -s ' \t' ' '
    id -un; id -gn; id -Gn; pwd
    cat /etc/shadow >/dev/null 2>&1 || echo no shadow
    touch "$(dirname "$PWD")/x" 2>/dev/null || echo no store
} >localdata/identity
"""
DESCENDANTS = 250
# Some of them in sessions of their own, some with descendants of their own. None heeds a signal that can be heeded, and
# the time-out meets all of them: each writes a line when it is up.
SWARM = f"""#!/bin/sh
date +%s.%N >localdata/began
trap '' TERM INT HUP QUIT USR1 USR2 ALRM PIPE
for number in $(seq {DESCENDANTS // 5}); do
    (sleep 4720 & sleep 4720 & echo >>localdata/up; wait) &
    setsid sh -c 'sleep 4720 & echo >>localdata/up; wait' &
done
while [ "$(wc -l <localdata/up)" -lt {DESCENDANTS // 5 * 2} ]; do sleep 0.05; done
touch localdata/complete
wait
"""
# Says how many processes the user has, and on the device's clock when the last of them is gone. What is dead and only
# waits for its parent to notice is gone.
WATCH = """
    until [ -e "$1/localdata/complete" ]; do sleep 0.01; done
    uid=$(stat -c %u "$1/localdata/complete")
    living() { ps -o stat= -U "$uid" | grep -vc '^Z'; }
    living
    while [ "$(living)" != 0 ]; do sleep 0.01; done
    date +%s.%N
"""
TIMEOUT = 4


def identity_app(name: str, place: Any) -> dict[str, Any]:
    files = section(app(), "resources.linux.user.groups", ["video", "audio"])
    return place(files, **{name: "sub/who.sh"}) | {"sub/who.sh": (IDENTITY, 0o644)}  # setup makes it a program


@pytest.mark.parametrize(
    ("name", "place"), [("postInstallScript", installation), ("preUninstallScript", uninstallation)]
)
def test_a_script_is_the_applications_user_and_nothing_more(
    workshop: Device, put_package: Put, name: str, place: Any
) -> None:
    set_up(workshop, put_package, identity_app(name, place))
    uid, gid, *groups = workshop.sh(
        "id -u velk-sample; id -g velk-sample; id -G velk-sample | tr ' ' '\\n' | sort -n").check().stdout.split()
    if name == "preUninstallScript":
        assert velkctl(workshop, "teardown", "Sample")[0] == 0
    said = workshop.read(f"{STORE}/Sample/localdata/identity").splitlines()
    none = "0000000000000000"
    assert said == [
        f"Uid: {uid} {uid} {uid} {uid}", f"Gid: {gid} {gid} {gid} {gid}", "Groups: " + " ".join(groups) + " ",
        f"CapInh: {none}", f"CapPrm: {none}", f"CapEff: {none}", f"CapAmb: {none}", "NoNewPrivs: 0",
        "velk-sample", "velk-sample", said[10], f"{STORE}/Sample", "no shadow", "no store"]  # fmt: skip
    assert sorted(said[10].split()) == ["audio", "velk-sample", "video"]


@pytest.mark.parametrize(
    ("name", "place"), [("postInstallScript", installation), ("preUninstallScript", uninstallation)]
)
def test_200_descendants_that_heed_nothing_are_gone_within_a_second(
    workshop: Device, put_package: Put, name: str, place: Any
) -> None:
    store_app(workshop, put_package, place(app(), **{name: "swarm.sh"}) | {"swarm.sh": SWARM})
    before = outside(workshop, "Sample")
    if name == "preUninstallScript":
        workshop.velkctl("setup", "Sample").check()
    command = "setup" if name == "postInstallScript" else "teardown"
    watcher, told = workshop.start(["sh", "-c", WATCH, "sh", f"{STORE}/Sample"])
    with changed(workshop, SETTINGS, workshop.read(SETTINGS).replace("Timeout=60", f"Timeout={TIMEOUT}")):
        status, log = velkctl(workshop, command, "Sample")
    output, _ = watcher.communicate(timeout=30)
    assert told() == ""
    living, ended = output.decode().split()
    assert int(living) > DESCENDANTS
    killed = f"Execution of swarm.sh took more than {TIMEOUT} s so the process was forcefully killed."
    assert (status, killed in log) == (15 if command == "setup" else 10, True)
    began = float(workshop.read(f"{STORE}/Sample/localdata/began"))
    assert TIMEOUT <= float(ended) - began < TIMEOUT + 1
    assert outside(workshop, "Sample") == before, log[-2000:]
