"""
Two velkctl at once, in every pairing of the commands that take the operation lock.

The first stands still under the lock, before its first change there, while the second comes, is refused and changes nothing;
then the first goes on and ends as it does alone. `clean` and `re-import` are no part of this: neither takes the lock, `clean`
because it is there to clear it from whoever holds it, `re-import` because it runs before anything else can.
"""

from __future__ import annotations

from collections.abc import Iterator

import pytest
import stepper
from apps import LOCK, app, without_place
from interruption import left_behind
from velkdevice import package, snapshot
from velkdevice.device import Device, Result

REFUSED = f"code 12: Another instance is already running, lock file exists: {LOCK}\n"


@pytest.fixture(scope="module")
def machine(device: Device, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Device]:
    """The device with two packages and, installed from one of them, an application that nobody but a second one uses."""
    for name in ("App", "Other"):
        folder = tmp_path_factory.mktemp(name)
        packed = package.pack(package.write_tree(folder / "tree", app(name)), folder / f"{name}.vlp")
        device.copy_in(packed, f"/run/two/{name}.vlp")
    # The directories that the first installation makes stay for those after it.
    device.velkctl("install", "/run/two/Other.vlp").check()
    device.velkctl("uninstall", "Other").check()
    before = snapshot.take(device)
    device.velkctl("install", "/run/two/Other.vlp").check()
    yield device
    device.velkctl("uninstall", "Other").check()
    assert left_behind(before, device) == []
    device.sh("rm -r /run/two").check()


# How the device is made ready for each command that is alone on it, and what it does there.
Steps = tuple[tuple[str, ...], ...]
IMPORT, INSTALL = ("import", "/run/two/App.vlp"), ("install", "/run/two/App.vlp")
FIRST: dict[str, tuple[Steps, tuple[str, ...]]] = {
    "import": ((), IMPORT),
    "install": ((), INSTALL),
    "upgrade": ((INSTALL,), INSTALL),
    "remove": ((IMPORT,), ("remove", "App")),
    "uninstall": ((INSTALL,), ("uninstall", "App")),
    "setup": ((IMPORT,), ("setup", "App")),
    "teardown": ((INSTALL,), ("teardown", "App")),
    "start": ((INSTALL,), ("start", "App")),
    "stop": ((INSTALL, ("start", "App")), ("stop", "App")),
    "backup": ((INSTALL,), ("backup", "App")),
    "restore": ((INSTALL, ("backup", "App")), ("restore", "App")),
}


def seconds(name: str) -> dict[str, tuple[str, ...]]:
    """The commands that come second, for an application of that name."""
    path = f"/run/two/{name}.vlp"
    return {"import": ("import", path), "install": ("install", path)} | {
        command: (command, name)
        for command in ("remove", "uninstall", "setup", "teardown", "start", "stop", "backup", "restore")
    }


def view(device: Device) -> list[str]:
    """What the commands could mix up: the store with its content, states, backups, units, snippets and users."""
    script = r"""
        find /usr/local/packages /etc/velk /etc/systemd/system /etc/apache2 /etc/dbus-1/system.d /etc/dynamic /opt/packages \
            /run/http /usr/html/local -xdev \( -type d -printf '%p d %m %U:%G\n' \) -o -printf '%p %y %m %U:%G %s %l\n'
        find /usr/local/packages /etc/velk /etc/systemd/system /etc/apache2 -xdev -type f -exec sha256sum {} +
        ls /tmp | grep '^velkctl_'
        lsattr -R /usr/local/packages | grep '^[^ ]*i'
        getent passwd | grep '^velk-'
        systemctl is-active sdkApp sdkOther
        :
    """
    return sorted(device.sh(script).check().stdout.splitlines())


def put_away(device: Device) -> None:
    """Take the first command's application away, however far it came."""
    device.sh('rm -f "$1" "$1"_*', LOCK)
    device.velkctl("stop", "App")
    device.velkctl("uninstall", "App")
    device.sh("rm -rf /usr/local/packages/_backup/App").check()


def outcome(device: Device, result: Result) -> tuple[int, str, list[str]]:
    return result.status, without_place(result.stderr), view(device)


@pytest.mark.parametrize("name", FIRST)
def test_one_wins_and_the_other_changes_nothing(machine: Device, name: str, full: bool) -> None:
    ready, command = FIRST[name]

    def prepare() -> None:
        for step in ready:
            machine.velkctl(*step).check()

    try:
        prepare()
        alone = outcome(machine, stepper.run(machine, ["/usr/bin/velkctl", *command]).result)
        put_away(machine)
        prepare()
        with stepper.hold(machine, ["/usr/bin/velkctl", *command], when=LOCK) as held:
            refuse_all(machine, "App", closely=full)
            if full:
                refuse_all(machine, "Other", closely=True)
            together = outcome(machine, held.let_go())
        assert together == alone
        assert not machine.exists(LOCK)
    finally:
        put_away(machine)


def refuse_all(device: Device, app_name: str, closely: bool) -> None:
    """
    Let each command come second; look after each of them, or only after the last.

    A setup looks for the application before it takes the lock, and so misses the one that is only on its way into the store.
    """
    before = view(device)
    is_stored = device.exists(f"/usr/local/packages/{app_name}")
    missing = 4, f"code 4: Application not found in store: {app_name}\n"
    for name, command in seconds(app_name).items():
        result = device.velkctl(*command)
        assert (result.status, result.stderr) == (missing if name == "setup" and not is_stored else (12, REFUSED)), name
        assert not closely or view(device) == before, name
    assert view(device) == before
