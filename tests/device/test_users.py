"""The users of applications, as the user-management service and the system's databases know them."""

from __future__ import annotations

from typing import Any

import pytest
from apps import app
from setups import Put, failing, outside, section, set_up, store_app, velkctl, workshop
from velkdevice.device import Device

AMEND_LIST = "/usr/share/velk/valid-users-groups.d/amend-list"
DLPU = "/run/orvo-features/dlpu"
CALL = "code 10: src/system/dbus-call.cpp: DBus call to com.orvo.UserManagement1.Application"
LATE = "Failed to teardown user during teardown of Sample: "


def granted(device: Device, user: str = "velk-sample") -> list[str]:
    return device.read(f"/var/lib/orvo/api-access/{user}").splitlines()


def groups_of(device: Device, user: str = "velk-sample") -> list[str]:
    return device.run(["id", "-Gn", user]).check().stdout.split()


def refused(device: Device, put_package: Put, files: dict[str, Any]) -> tuple[int, str]:
    """What setup answers; everything is as before."""
    store_app(device, put_package, files)
    before = outside(device, "Sample")
    answer = velkctl(device, "setup", "Sample")
    assert outside(device, "Sample") == before
    return answer


def last_line(told: str) -> str:
    return told.splitlines()[-1]


def test_an_application_has_a_user_of_its_own(workshop: Device, put_package: Put) -> None:
    name = "Foo_Bar-9"
    try:
        set_up(workshop, put_package, app(name))
        assert groups_of(workshop, "velk-foo_bar-9") == ["velk-foo_bar-9"]
        assert granted(workshop, "velk-foo_bar-9") == []
        unit = workshop.read(f"/etc/systemd/system/sdk{name}.service")
        assert "\nUser=velk-foo_bar-9\nGroup=velk-foo_bar-9\n" in unit
    finally:
        workshop.velkctl("uninstall", name).check()
    assert workshop.run(["id", "velk-foo_bar-9"]).status == 1


def test_groups_and_conditional_groups(workshop: Device, put_package: Put) -> None:
    files = section(app(), "resources.linux.user.groups", ["video", "audio"])
    # One that may be joined, one that the device lacks, one that may not be joined.
    section(files, "resources.linux.user.conditionalGroups", ["render", "scanner", "root"])
    assert workshop.run(["getent", "group", "scanner"]).status != 0
    set_up(workshop, put_package, files)
    assert sorted(groups_of(workshop)) == ["audio", "render", "velk-sample", "video"]


def test_a_user_that_is_there_already_is_changed(workshop: Device, put_package: Put) -> None:
    workshop.run(["useradd", "--system", "--user-group", "--groups", "audio", "velk-sample"]).check()
    set_up(workshop, put_package, section(app(), "resources.linux.user.groups", ["video"]))
    assert groups_of(workshop) == ["velk-sample", "video"]


METHODS = {"requiredMethods": ["com.orvo.b.X", "com.orvo.foo.*"], "conditionalMethods": ["com.orvo.a.X"]}


@pytest.mark.parametrize("required", [False, True])
def test_the_service_is_told_the_methods(workshop: Device, put_package: Put, required: bool) -> None:
    files = section(app(), "resources.dbus", METHODS)
    section(files, "resources.deepLearningProcessor", {"enabled": True, "required": required})
    if required:
        workshop.sh(f"mkdir -p $(dirname {DLPU}); : >{DLPU}").check()
    try:
        set_up(workshop, put_package, files)
        methods = ["com.orvo.b.X", "com.orvo.foo.*", "com.orvo.a.X", "com.orvo.Nerva1.DlpuAuth"]
        assert granted(workshop) == methods
    finally:
        workshop.sh(f"rm -f {DLPU}").check()


def test_a_group_that_the_device_lacks_is_the_services_refusal(workshop: Device, put_package: Put) -> None:
    files = section(app(), "resources.linux.user.groups", ["scanner"])
    status, told = refused(workshop, put_package, files)
    assert (status, last_line(told)) == (10, f"{CALL}.AddUser failed: No such group: 'scanner'")


def test_a_group_that_the_amend_list_denies(workshop: Device, put_package: Put) -> None:
    workshop.write(AMEND_LIST, "DenyGroups video\n")
    try:
        files = section(app(), "resources.linux.user.groups", ["audio", "video"])
        status, told = refused(workshop, put_package, files)
        assert (status, last_line(told)) == (13, "code 13: Sample: Secondary Group 'video' is not in Allowlist")
    finally:
        workshop.write(AMEND_LIST, "")


def test_an_amend_list_that_does_not_parse_refuses_groups_and_drops_conditional_ones(
    workshop: Device, put_package: Put
) -> None:
    workshop.write(AMEND_LIST, "Allow audio\n")
    try:
        status, told = refused(workshop, put_package, section(app(), "resources.linux.user.groups", ["video"]))
        workshop.velkctl("remove", "Sample").check()
        set_up(workshop, put_package, section(app(), "resources.linux.user.conditionalGroups", ["video"]))
        left = groups_of(workshop)
    finally:
        workshop.write(AMEND_LIST, "")
    text = "src/manifest/allowlist.cpp: Failed to parse amend-list: Not allowed label 'Allow' in list"
    assert (status, last_line(told)) == (10, f"code 10: {text}")
    assert left == ["velk-sample"]


MALFORMED = [
    ("resources.linux.user.groups", {}, "groups in manifest is not an array"),
    ("resources.linux.user.groups", [1], "groups in manifest does not contain strings"),
    ("resources.linux.user.conditionalGroups", "x", "conditionalGroups in manifest is not an array"),
    ("resources.linux.user.conditionalGroups", [None], "conditionalGroups in manifest does not contain strings"),
    ("resources.dbus.requiredMethods", "x", "requiredMethods in manifest is not an array"),
    ("resources.dbus.conditionalMethods", [{}], "conditionalMethods in manifest does not contain strings"),
    ("resources.dbus.conditionalMethods", ["*"], 'Manifest contains the disallowed dbus method "*"'),
]


@pytest.mark.parametrize(("path", "value", "text"), MALFORMED)
def test_a_malformed_list(workshop: Device, put_package: Put, path: str, value: Any, text: str) -> None:
    status, told = refused(workshop, put_package, section(app(), path, value))
    assert (status, last_line(told)) == (29, f"code 29: {text}")


@pytest.mark.parametrize("method", ["AddUser", "ModifyUser", "SetAPIAccessRights", "RemoveUser"])
def test_the_service_refuses(workshop: Device, put_package: Put, method: str) -> None:
    store_app(workshop, put_package, app())
    if method == "ModifyUser":
        workshop.velkctl("setup", "Sample").check()
        workshop.velkctl("teardown", "--persist-user", "Sample").check()
    if method == "RemoveUser":
        workshop.velkctl("setup", "Sample").check()
    with failing(workshop, method, f"No {method} today"):
        status, told = velkctl(workshop, "teardown" if method == "RemoveUser" else "setup", "Sample")
    assert status == 10
    reason = f"DBus call to com.orvo.UserManagement1.Application.{method} failed: No {method} today"
    assert (LATE if method == "RemoveUser" else "code 10: ") + f"src/system/dbus-call.cpp: {reason}\n" in told


def test_the_service_is_off(fresh_device: Device, put_package: Put) -> None:
    device = fresh_device
    store_app(device, put_package, app())
    device.sh("systemctl mask --now orvo-services.service; systemctl daemon-reload").check()
    before = outside(device, "Sample")
    status, told = velkctl(device, "setup", "Sample")
    assert status == 10
    assert last_line(told).startswith(f"{CALL}.AddUser failed: ")
    assert outside(device, "Sample") == before


# --- users of the device ---


def test_an_application_may_run_as_a_user_of_the_device(workshop: Device, put_package: Put) -> None:
    before = workshop.read("/etc/passwd")
    set_up(workshop, put_package, section(app(), "velkPackageConf.setup.user", {"username": "sdk", "group": "video"}))
    assert workshop.read("/etc/passwd") == before
    unit = workshop.read("/etc/systemd/system/sdkSample.service")
    assert "\nUser=sdk\nGroup=video\n" in unit
    owner = workshop.run(["stat", "-c", "%U:%G", "/usr/local/packages/Sample/conf/Sample.conf"]).stdout
    assert owner == "sdk:video\n"


STATIC: list[tuple[dict[str, Any], dict[str, Any], int, str]] = [
    ({"username": "sdk", "group": "sdk"}, {"dbus": {}}, 29,
     "Manifest contains dbus methods together with a legacy user"),
    ({"username": "sdk", "group": "sdk"}, {"deepLearningProcessor": {"enabled": True}}, 29,
     "Manifest requests DLPU access together with a legacy user"),
    ({"username": "sdk"}, {}, 29, "Manifest contains one of user/group but lacks the other"),
    ({"username": "nobody-here", "group": "sdk"}, {}, 29, "User in manifest does not exist"),
    ({"username": "sdk", "group": "nobody-here"}, {}, 29, "Group in manifest does not exist"),
    ({"username": "root", "group": "sdk"}, {}, 13, "Sample: User 'root' or Group 'sdk' is not in Allowlist"),
    ({"username": "sdk", "group": "root"}, {}, 13, "Sample: User 'sdk' or Group 'root' is not in Allowlist"),
]  # fmt: skip


@pytest.mark.parametrize(("user", "resources", "code", "text"), STATIC)
def test_a_user_of_the_device_has_its_rules(
    workshop: Device, put_package: Put, user: dict[str, Any], resources: dict[str, Any], code: int, text: str
) -> None:
    files = section(app(), "velkPackageConf.setup.user", user)
    files["manifest.json"]["resources"] = resources
    status, told = refused(workshop, put_package, files)
    logged = f"{text}\n" if code == 13 else ""
    assert (status, told) == (code, f"{logged}code {code}: {text}\n")
