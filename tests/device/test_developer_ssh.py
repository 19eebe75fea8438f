"""SSH access for the applications of a developer: the operations, against the real user service and user database."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from apps import app, without_place
from setups import STORE, Put, built, failing, section, set_up, store_app
from velkdevice.device import Device

PROGRAM = "/tmp/ssh/developer-ssh"
STATIC = {"user": {"username": "sdk", "group": "sdk"}}
Ssh = Callable[..., tuple[int, str]]


@pytest.fixture
def ssh(pristine: Device) -> Iterator[Ssh]:
    """Runs one of the operations: exit status and log. The applications go afterwards."""
    pristine.copy_in(built("developer-ssh"), PROGRAM)

    def run(*arguments: str) -> tuple[int, str]:
        result = pristine.run([PROGRAM, *arguments])
        assert result.stdout == ""
        return result.status, without_place(result.stderr)

    yield run
    pristine.sh("rm -r /tmp/ssh").check()
    for name in ("Sample", "Other", "Static", "Foreign", "Stored", "developer_mode"):
        if pristine.exists(f"{STORE}/{name}"):
            pristine.velkctl("uninstall", name).check()


def groups(device: Device, user: str = "velk-sample") -> list[str]:
    """The groups beside the user's own."""
    return sorted(set(device.run(["id", "-Gn", user]).check().stdout.split()) - {user})


def with_groups(*names: str, **settings: Any) -> dict[str, Any]:
    return section(app("Sample", **settings), "resources.linux.user.groups", list(names))


def test_access_is_one_group_more_and_nothing_else(ssh: Ssh, device: Device, put_package: Put) -> None:
    set_up(device, put_package, with_groups("video", "audio"))
    entry = device.run(["getent", "passwd", "velk-sample"]).stdout
    assert ssh("enable", "Sample") == (0, "Enabled SSH access for app Sample\n")
    assert groups(device) == ["audio", "ssh-users", "video"]
    assert ssh("enable", "Sample") == (0, "SSH access is already enabled for app Sample\n")
    assert groups(device) == ["audio", "ssh-users", "video"]
    assert ssh("disable", "Sample") == (0, "")
    assert groups(device) == ["audio", "video"]
    assert ssh("disable", "Sample") == (0, "")
    assert device.run(["getent", "passwd", "velk-sample"]).stdout == entry


def test_access_of_an_application_without_groups(ssh: Ssh, device: Device, put_package: Put) -> None:
    set_up(device, put_package, app("Sample"))
    assert ssh("enable-if-dynamic", "Sample") == (0, "Enabled SSH access for app Sample\n")
    assert groups(device) == ["ssh-users"]
    assert ssh("disable", "Sample") == (0, "")
    assert groups(device) == []


def test_a_user_of_the_systems_is_left_alone(ssh: Ssh, device: Device, put_package: Put) -> None:
    set_up(device, put_package, app("Static", **STATIC))
    before = groups(device, "sdk")
    text = "SSH access is not granted for 'Static' running as static user.\n"
    assert ssh("enable-if-dynamic", "Static") == (0, text)
    assert ssh("disable", "Static") == (0, "")
    assert groups(device, "sdk") == before
    # Somebody else gave it access; that is not to be taken back here, and is told.
    device.run(["gpasswd", "-a", "sdk", "ssh-users"]).check()
    outcome = ssh("disable", "Static")
    device.run(["gpasswd", "-d", "sdk", "ssh-users"]).check()
    assert outcome == (10, "code 10: src/lifecycle/developer-ssh.cpp: Application 'Static' uses a static user with SSH enabled\n")


@pytest.mark.parametrize("operation", ["enable", "disable"])
def test_an_application_that_is_not_there(ssh: Ssh, operation: str) -> None:
    text = f"code 29: src/system/file.cpp: Path not found: {STORE}/Nobody/manifest.json\n"
    assert ssh(operation, "Nobody") == (29, text)


def test_an_application_that_is_not_set_up_has_no_user(ssh: Ssh, device: Device, put_package: Put) -> None:
    store_app(device, put_package, app("Sample"))
    status, told = ssh("enable", "Sample")
    assert (status, told) == (10, "code 10: src/system/user-database.cpp: User velk-sample does not exist\n")


@pytest.mark.parametrize("operation", ["enable", "disable"])
def test_a_user_service_that_refuses_is_told(ssh: Ssh, device: Device, put_package: Put, operation: str) -> None:
    set_up(device, put_package, app("Sample"))
    if operation == "disable":
        assert ssh("enable", "Sample")[0] == 0
    before = groups(device)
    with failing(device, "ModifyUser"):
        outcome = ssh(operation, "Sample")
    assert outcome == (10, "code 10: src/system/dbus-call.cpp: DBus call to com.orvo.UserManagement1.Application.ModifyUser "
                           "failed: Not today\n")  # fmt: skip
    assert groups(device) == before


def test_all_applications_of_the_vendor(ssh: Ssh, device: Device, put_package: Put) -> None:
    """Whatever the letter case; not those of others, not those that are not set up, not the developer mode's own."""
    set_up(device, put_package, app("Sample"))
    set_up(device, put_package, app("Other", vendorId="TESTS"))
    set_up(device, put_package, app("Static", **STATIC))
    set_up(device, put_package, app("Foreign", vendorId="others"))
    store_app(device, put_package, app("Stored"))
    mode = section(app("developer_mode"), "velkPackageConf.developerMode",
                   {"vendorId": "tests", "deviceSerialNumber": serial(device)})  # fmt: skip
    set_up(device, put_package, mode)
    assert ssh("vendor", "Tests") == (
        0, "Enabled SSH access for app Other\nEnabled SSH access for app Sample\n"
        "SSH access is not granted for 'Static' running as static user.\n")  # fmt: skip
    users = {name: groups(device, f"velk-{name}") for name in ("sample", "other", "foreign", "developer_mode")}
    assert users == {"sample": ["ssh-users"], "other": ["ssh-users"], "foreign": [], "developer_mode": []}
    assert "ssh-users" not in groups(device, "sdk")


def serial(device: Device) -> str:
    return device.read("/etc/orvo/device-info").split("SerialNumber=")[1].split("\n")[0]


def test_the_first_that_fails_ends_it(ssh: Ssh, device: Device, put_package: Put) -> None:
    set_up(device, put_package, app("Other"))
    set_up(device, put_package, app("Sample"))
    with failing(device, "ModifyUser"):
        status, told = ssh("vendor", "tests")
    assert (status, told.count("ModifyUser")) == (10, 1)
    assert groups(device, "velk-other") + groups(device) == []


def put_manifest(device: Device, name: str, manifest: Any) -> None:
    device.sh('chattr -i "$1"', f"{STORE}/{name}/manifest.json")
    device.write(f"{STORE}/{name}/manifest.json", json.dumps(manifest), 0o444)


def test_what_cannot_be_looked_at_is_a_warning(ssh: Ssh, device: Device, put_package: Put) -> None:
    """The listing goes by the names in the manifests, which may differ from those in the store."""
    files = app("Other")
    set_up(device, put_package, files)
    set_up(device, put_package, app("Sample"))
    broken = files["manifest.json"]
    nameless = json.loads(json.dumps(broken))
    del nameless["velkPackageConf"]["setup"]["appName"]
    elsewhere = json.loads(json.dumps(broken))
    elsewhere["velkPackageConf"]["setup"]["appName"] = "Elsewhere"
    done = "Enabled SSH access for app Sample\n"
    device.sh("touch /etc/systemd/system/sdkElsewhere.service").check()
    for manifest, there, warning in (
        (nameless, False, "Failed getting fullyInstalled field from velkctl list.\n"),
        (elsewhere, False, "Cannot enable SSH for app Elsewhere: manifest not found\n"),
        (elsewhere, True, "Cannot enable SSH for app Elsewhere: failed to parse manifest: Could not read velkPackageConf"),
    ):
        put_manifest(device, "Other", manifest)
        if there:
            put_manifest(device, "Elsewhere", {})
        status, told = ssh("vendor", "tests")
        assert status == 0
        assert warning in told, told
        assert told.endswith(done)
        assert ssh("disable", "Sample") == (0, "")
    device.sh(f"rm -r {STORE}/Elsewhere").check()
    device.sh("rm /etc/systemd/system/sdkElsewhere.service").check()
    put_manifest(device, "Other", broken)
