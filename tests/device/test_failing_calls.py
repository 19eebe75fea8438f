"""
Every command, with each of the system calls failing in turn by which velkctl itself changes something.

Whatever fails, the command ends by itself, says why when it fails, and gives the lock back; and the operator's next steps
bring the device to where nothing of the application is left.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pytest
from apps import installation, uninstallation
from interruption import FOLDER, TEMPORARY, VELKCTL, Scenario, left_behind, sample
from setups import STORE, configured, section
from test_life_interruption import WORLD
from velkdevice import package, snapshot
from velkdevice.device import Device

PACKAGE = f"{FOLDER}/App.1.vlp"
ON_LAYERS = f"{FOLDER}/App.2.vlp"

WIPE = r"""
# A layer that an import left when it failed goes with the next import of it.
wipe_all() {
    wipe
    [ ! -d /opt/packages/_layers/App ] || { velkctl import "$FOLDER/App.2.vlp" internal_vlpfs; velkctl remove App; }
} >/dev/null 2>&1
look_at_all() { look; ls -A /opt/packages/_layers; }
"""
# What stays where the call that was to take it away is the one that failed.
LEFT = TEMPORARY | {
    r"/tmp/velkctl_\?{6}\.(sig|vlp) ": "a split package",
    r"/(etc|run)/[\w/.-]*/\.filesync-\?{6}(?: |$)": "a half-written file",
    rf"{STORE}/_backup/App\.(tmp|remove)[ /]": "a copy of the data",
}

TRIAL = r"""
fail=$1; shift
restore >/dev/null 2>&1 || exit 1
section failed; step $STEP_OPTIONS --fail "$fail" "$@"; cat "$FOLDER/said"
section lock; ls _lock
wipe_all
section wiped; look_at_all
"""
# What is left of an application that the store does not have any more goes with the next of that name: at the latest
# when setting it up failed over it.
ONCE_MORE = r"""
{ velkctl install "$FOLDER/App.1.vlp" || velkctl install "$FOLDER/App.1.vlp"; } >/dev/null || exit 1
wipe_all
section wiped; look_at_all
"""
ALLOW_UNSIGNED = "sed -i s/AllowUnsigned=.*/AllowUnsigned=true/ /etc/velk/conf/packageparser.conf"

IMPORT = f"velkctl import {PACKAGE}"
INSTALL = f"velkctl install {PACKAGE}"
LAYERS = f"velkctl install {ON_LAYERS} internal_vlpfs"
SAVE = "note kept && velkctl backup App"
# What is done before, and the command.
JOBS = {
    "import": (":", ["import", PACKAGE]),
    "import to layers": (":", ["import", ON_LAYERS, "internal_vlpfs"]),
    "remove": (IMPORT, ["remove", "App"]),
    "setup": (IMPORT, ["setup", "App"]),
    "setup on layers": (f"velkctl import {ON_LAYERS} internal_vlpfs", ["setup", "App"]),
    "teardown": (INSTALL, ["teardown", "App"]),
    "teardown on layers": (LAYERS, ["teardown", "App"]),
    "backup": (f"{INSTALL} && note kept", ["backup", "App"]),
    "restore": (f"{INSTALL} && {SAVE}", ["restore", "App"]),
    "upgrade": (f"{INSTALL} && note kept", ["install", PACKAGE]),
    "uninstall": (f"{INSTALL} && {SAVE}", ["uninstall", "App"]),
    "start": (INSTALL, ["start", "App"]),
    "stop": (f"{INSTALL} && velkctl start App", ["stop", "App"]),
    "clean": (f"{INSTALL} && printf App >_lock/velkctl", ["clean"]),
}


@dataclass
class Failing(Scenario):
    """A command on a device that is brought to the state before it by velkctl itself."""

    arguments: tuple[str, ...] = ()

    @property
    def argv(self) -> list[str]:
        return [VELKCTL, *self.arguments]

    def judge(self, number: int) -> None:  # type: ignore[override]
        seen = self.script(TRIAL, str(number), *self.argv)
        call = next(point for point in self.points if point.number == number)
        told = f"{self.command}, {call} fails\n" + "\n".join(seen["failed"] + seen["lock"])
        status = int(next(line for line in seen["failed"] if line.startswith("status ")).split()[1])
        assert status < 100, told  # neither a signal nor an assertion
        said = seen["failed"][1:]
        assert status == 0 or any(line.startswith((f"code {status}:", "code 55")) or status == 55 for line in said), told
        is_about_lock = call.path.endswith("_lock/velkctl")
        assert is_about_lock or "velkctl" not in seen["lock"], told
        wiped = seen["wiped"]
        if self.leftovers(wiped, self.nothing, LEFT) is None:
            wiped = self.script(ONCE_MORE)["wiped"]
        left = self.leftovers(wiped, self.nothing, LEFT)
        assert left is not None, told + "\n" + "\n".join(sorted(set(wiped) ^ set(self.nothing)))

    def look_at_nothing(self) -> None:
        self.nothing = self.script("wipe_all; section wiped; look_at_all")["wiped"]


@pytest.fixture(scope="module")
def machine(device: Device, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Device]:
    """The device with a package for each location, in which there is something of everything; afterwards as it was."""
    before = snapshot.take(device)
    settings = device.read("/etc/velk/conf/packageparser.conf")
    folder: Path = tmp_path_factory.mktemp("failing")
    for version in (1, 2):
        files = configured("App", httpConfig=[{"name": "a.cgi", "type": "transferCgi", "access": "admin"}],
                           paramConfig=[{"name": "Speed", "default": "1", "type": "string"}],
                           settingPage="index.html")  # fmt: skip
        files = uninstallation(installation(files, postInstallScript="x.sh"), preUninstallScript="x.sh")
        section(files, "resources.linux.user.groups", ["video"])
        files |= {"x.sh": "#!/bin/sh\n", "html/index.html": "<p>\n", "html/deep/page.html": "<p>\n"}
        packed = package.pack(package.write_tree(folder / f"tree{version}", files), folder / f"App.{version}.vlp",
                              compress=version == 1, sign=version == 1)  # fmt: skip
        device.copy_in(packed, f"{FOLDER}/App.{version}.vlp")
    device.sh(ALLOW_UNSIGNED).check()
    yield device
    device.write("/etc/velk/conf/packageparser.conf", settings)
    device.sh('rm -r "$1"', FOLDER).check()
    assert left_behind(before, device) == []


# The others differ in few calls from these.
ALWAYS = ("import", "remove", "setup", "teardown", "restore", "upgrade", "clean")


@pytest.mark.parametrize("name", [pytest.param(name, marks=[] if name in ALWAYS else [pytest.mark.full]) for name in JOBS])
def test_a_call_that_fails_is_answered_and_leaves_the_lock_free(machine: Device, name: str, full: bool) -> None:
    prepare, arguments = JOBS[name]
    world = WORLD + WIPE + f"VERSION=1\nrestore() {{ wipe_all; {prepare}; }}\n"
    job = Failing(machine, name, "internal", world, arguments=tuple(arguments))
    job.learn()
    job.look_at_nothing()
    own = [point.number for point in job.points if point.program == "velkctl"]
    for number in own if full else [own[index - 1] for index in sample(len(own), 2)]:
        job.judge(number)
