"""
A day in the life of a device: what random commands must lead to, by a model of what the commands promise.

The model knows for each application whether it is stored, where, in which version, set up, running, wanted at boot, which
data it has and which is saved, and for each command the exit status and what changes. `view` asks the device for the same
things, each from who is responsible for it: the listing, the files, the service manager, the user database.
"""

from __future__ import annotations

import json
import random
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

from apps import app
from setups import STORE
from velkdevice.device import Device

MODES = ("once", "respawn", "respawnOnFailure", "never")
LOCATIONS = ("internal", "sd_card1", "internal_vlpfs")
PACKAGES = "/var/lib/velk-day"

# One look at everything; a section for each that is responsible.
VIEW = r"""
cd /usr/local/packages
section() { echo "=== $1"; }
section listing; velkctl list 2>/dev/null; echo
section stored; ls -A | grep -v -e '^_' -e lost+found
section units; ls /etc/systemd/system | sed -n 's/^sdk\(.*[^d]\)\.service$/\1/p' | grep -v disk-mounted
section wanted; ls /etc/systemd/system/velk.target.wants 2>/dev/null | sed -n 's/^sdk\(.*\)\.service$/\1/p'
section active
systemctl list-units 'sdk*.service' --state=active,activating --plain --no-legend --no-pager |
    sed -n 's/^sdk\([^ ]*\)\.service.*/\1/p' | grep -v disk-mounted
section users; getent passwd | sed -n 's/^velk-\([^:]*\):.*/\1/p' | sort
section processes; ps -eo user:40= | sed -n 's/^velk-//p' | sort -u
section saved; ls -A _backup
section data; for file in */localdata/note; do [ ! -f "$file" ] || echo "${file%%/*} $(cat "$file")"; done
section saved_data; for file in _backup/*/localdata/note; do
    [ ! -f "$file" ] || { name=${file#_backup/}; echo "${name%%/*} $(cat "$file")"; }
done
section lock; ls _lock
"""


@dataclass
class Saved:
    """What a backup holds: whether the data's directory, and what was in it."""

    has_directory: bool
    data: str


@dataclass
class App:
    """One application: what it is, and what has become of it."""

    name: str
    mode: str
    static: bool
    signed: bool
    location: str | None = None
    version: int = 0
    set_up: bool = False
    running: bool = False
    wanted: bool = False  # the service manager starts it at boot
    record: str = ""  # what the run state file says; "" without one
    record_below: str = ""  # and the one that was written to a card's own files, while setup's layer was not mounted
    has_directory: bool = False  # localdata and conf, made by the first setup
    data: str = ""
    has_user: bool = False
    saved: Saved | None = None

    @property
    def shows_files(self) -> bool:
        """Whether what was written since the setup is seen: on a card it lies in a layer that setup mounts."""
        return self.location is not None and (self.set_up or self.location != "sd_card1")

    @property
    def seen_record(self) -> str:
        return self.record or self.record_below if self.shows_files else self.record_below

    def write_record(self, text: str) -> None:
        if self.shows_files:
            self.record = text
        else:
            self.record_below = text

    def forget(self) -> None:
        """Its place in the store is gone."""
        self.location, self.set_up, self.running, self.wanted = None, False, False, False
        self.record, self.record_below, self.has_directory, self.data = "", "", False, ""

    def files(self, version: int) -> dict[str, Any]:
        settings = {"user": {"username": "sdk", "group": "sdk"}} if self.static else {}
        return app(self.name, version=f"{version}.0.0", runMode=self.mode, **settings)

    def listed(self) -> dict[str, Any]:
        enabled = self.seen_record == "yes"
        return {
            "appName": self.name, "friendlyName": f"{self.name} of the tests", "vendor": "Tests",
            "version": f"{self.version}.0.0", "status": "Running" if self.running else "Stopped",
            "autostart": "Enabled" if enabled else "Disabled", "bundled": "No",
            "fullyInstalled": "Yes" if self.set_up else "No", "resources": [{"deepLearningProcessor": "No"}],
            "developerMode": "No", "signatureStatus": "Signed" if self.signed else "Unknown",
        }  # fmt: skip


def population(count: int) -> list[App]:
    """Applications of every run mode, some with a user of the system's, some from a signed package."""
    return [App(f"{'aBcDeF'[number % 6]}pp_{number}", MODES[number % 4], number % 7 == 3, number % 10 == 0)
            for number in range(count)]  # fmt: skip


# --- what each command promises: the exit status, and the change of the model ---


def import_app(one: App, location: str, version: int) -> int:
    if one.location:
        return 14
    one.location, one.version = location, version
    return 0


def setup(one: App) -> int:
    if not one.location:
        return 4
    if one.set_up:
        return 10
    one.set_up = one.has_directory = True
    one.has_user = not one.static
    return 0


def teardown(one: App, persist: bool = False) -> int:
    if not one.location:
        return 4
    if one.running:
        one.write_record("no")
    # A user that is not there cannot be removed, which is told at the end; all else is done.
    lacks_user = not (persist or one.static or one.has_user)
    one.set_up = one.running = one.wanted = False
    one.has_user = one.has_user and persist
    return 10 if lacks_user else 0


def remove(one: App) -> int:
    if not one.location:
        return 4
    if one.set_up:
        return 10
    one.forget()
    return 0


def back_up(one: App) -> int:
    if not one.location:
        return 4
    if one.running:
        return 10
    one.saved = Saved(one.has_directory, one.data)
    return 0


def restore(one: App) -> int:
    if not one.location:
        return 4
    if one.running or not one.saved or not one.set_up:
        return 10
    if one.saved.has_directory:
        one.data = one.saved.data
    return 0


def install(one: App, location: str, version: int) -> int:
    if one.location:
        if one.running:
            one.saved = Saved(True, one.data)  # saved before the running application is noticed
            return 10
        back_up(one)
        one.forget()
    import_app(one, location, version)
    setup(one)
    if one.saved:
        restore(one)
    one.saved = None
    return 0


def uninstall(one: App) -> int:
    one.saved = None
    if not one.location:
        return 4
    teardown(one)
    one.forget()
    return 0


def start(one: App) -> int:
    if not one.location:
        return 4
    if not one.set_up:
        return 10
    was_running = one.running
    one.running, one.wanted = True, one.mode != "never"
    one.write_record("yes" if one.wanted else "no")
    return 6 if was_running else 0


def stop(one: App) -> int:
    if not one.location:
        return 4
    if one.running:
        one.running = one.wanted = False
        one.write_record("no")
        return 0
    if not one.has_directory:
        return 10  # there is no place for the record
    one.write_record("yes")
    return 7


# --- the day ---


@dataclass
class Day:
    """The device and the model, going through the same commands."""

    device: Device
    apps: list[App]
    chance: random.Random
    locations: tuple[str, ...] = LOCATIONS
    told: list[str] = field(default_factory=list)

    def velkctl(self, wanted: int, *arguments: str) -> None:
        self.told.append(f"velkctl {' '.join(arguments)}")
        result = self.device.velkctl(*arguments)
        assert result.status == wanted, f"{self.recent()}: {result.status} for {wanted}\n{result.stderr}"

    def recent(self) -> str:
        name = self.told[-1].split()[-1].rsplit("/", 1)[-1].split(".")[0]
        return "\n".join([line for line in self.told if name in line][-12:])

    def package(self, one: App, version: int) -> str:
        return f"{PACKAGES}/{one.name}.{version}.vlp"

    def work(self, one: App) -> None:
        """The application writes data of its own, as itself."""
        if one.set_up:
            one.data = str(self.chance.randrange(10**9))
            self.told.append(f"{one.data} into {one.name}")
            user = "sdk" if one.static else f"velk-{one.name.lower()}"
            script = f'echo "$1" >{STORE}/{one.name}/localdata/note'
            self.device.run(["sh", "-c", script, "sh", one.data], user=user).check()

    def crash(self, one: App) -> None:
        """The application dies; the service manager starts it again or not, by its run mode."""
        if not one.running:
            return
        self.told.append(f"crash of {one.name}")
        unit = f"sdk{one.name}.service"
        pid = self.device.run(["systemctl", "show", "-P", "MainPID", unit]).check().stdout.strip()
        self.device.run(["kill", "-9", pid]).check()
        one.running = one.mode.startswith("respawn")
        wanted = "active" if one.running else "failed"

        def settled() -> bool:
            shown = self.device.run(["systemctl", "show", "-P", "MainPID", "-P", "ActiveState", unit]).stdout.split()
            return shown[1] == wanted and shown[0] != pid

        self.device.wait_for(settled, f"{unit} to be {wanted} again")

    def reboot(self) -> None:
        self.told.append("reboot")
        self.device.reboot()
        self.device.settle()
        for one in self.apps:
            one.running = one.wanted

    def step(self) -> None:
        """One random command to a random application, its answer compared."""
        one = self.chance.choice(self.apps)
        location, version = self.chance.choice(self.locations), self.chance.choice((1, 2))
        path = self.package(one, version)
        commands: list[tuple[int, Callable[[], None]]] = [
            (6, lambda: self.velkctl(install(one, location, version), "install", path, location)),
            (2, lambda: self.velkctl(import_app(one, location, version), "import", path, location)),
            (3, lambda: self.velkctl(setup(one), "setup", one.name)),
            (2, lambda: self.velkctl(teardown(one), "teardown", one.name)),
            (1, lambda: self.velkctl(teardown(one, True), "teardown", "--persist-user", one.name)),
            (1, lambda: self.velkctl(remove(one), "remove", one.name)),
            (6, lambda: self.velkctl(start(one), "start", one.name)),
            (6, lambda: self.velkctl(stop(one), "stop", one.name)),
            (3, lambda: self.velkctl(back_up(one), "backup", one.name)),
            (3, lambda: self.velkctl(restore(one), "restore", one.name)),
            (2, lambda: self.velkctl(uninstall(one), "uninstall", one.name)),
            (4, lambda: self.work(one)),
            (1, lambda: self.crash(one)),
        ]
        weights = [weight for weight, _ in commands]
        self.chance.choices([command for _, command in commands], weights)[0]()

    def expected(self) -> dict[str, Any]:
        stored = sorted((one for one in self.apps if one.location), key=lambda one: one.name.encode())

        def names(condition: Callable[[App], Any]) -> list[str]:
            return sorted(one.name for one in self.apps if condition(one))

        return {
            "listing": [one.listed() for one in stored],
            "stored": [one.name for one in stored],
            "units": names(lambda one: one.set_up),
            "wanted": names(lambda one: one.wanted),
            "active": names(lambda one: one.running),
            "users": sorted(one.name.lower() for one in self.apps if one.has_user),
            "processes": sorted(one.name.lower() for one in self.apps if one.running and not one.static),
            "saved": names(lambda one: one.saved),
            "data": sorted(f"{one.name} {one.data}" for one in stored if one.shows_files and one.data),
            "saved_data": sorted(f"{one.name} {one.saved.data}" for one in self.apps if one.saved and one.saved.data),
            "lock": [],
        }

    def view(self) -> dict[str, Any]:
        """What the device says of itself, in the same words."""
        sections: dict[str, list[str]] = {}
        for line in self.device.sh(VIEW).stdout.splitlines():
            if line.startswith("=== "):
                sections[line[4:]] = current = []
            else:
                current.append(line)
        seen: dict[str, Any] = {name: sorted(lines) for name, lines in sections.items()}
        seen["listing"] = json.loads("\n".join(sections["listing"]))
        seen["stored"] = sorted(sections["stored"], key=str.encode)
        return seen

    def check(self) -> None:
        expected, seen = self.expected(), self.view()
        differing = {name: (seen.get(name), expected[name]) for name in expected if seen.get(name) != expected[name]}
        assert not differing, f"after\n{self.recent()}\nseen and expected:\n" + "\n".join(
            f"{name}:\n  {was}\n  {wanted}" for name, (was, wanted) in differing.items())  # fmt: skip

    def end(self) -> None:
        """Everything goes, also the users that were kept without an application and what was saved."""
        for one in self.apps:
            if one.has_user and not one.location:
                self.velkctl(install(one, "internal", 1), "install", self.package(one, 1))
            self.velkctl(uninstall(one), "uninstall", one.name)
        self.check()
