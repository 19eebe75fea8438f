"""Parameters: the files, the loaded group, and who may do what on the bus."""

from __future__ import annotations

from pathlib import Path

import pytest
from apps import app
from setups import STORE, Put, configured, outside, own, set_up, store_app, velkctl, workshop
from velkdevice.device import Device

DATA = Path(__file__).resolve().parents[1] / "data" / "params"
PARAMETERS = [
    {"name": "Speed", "default": "10", "type": "int:min=0;max=100"},
    {"name": "label_2", "default": 'say "hi" $HOME 5% \\', "type": "string"},
]
CONF = f"{STORE}/sample/conf"


def expected(name: str) -> str:
    text = (DATA / name).read_text(encoding="utf-8")
    return text.replace("velk-myapp", "velk-sample").replace("MyApp", "Sample").replace("myApp", "sample")


@pytest.fixture
def low(workshop: Device):  # type: ignore[no-untyped-def]
    """The device, from which the application `sample` goes at the end."""
    yield workshop
    if workshop.exists(f"{STORE}/sample"):
        workshop.velkctl("uninstall", "sample").check()


def test_the_files_are_those_of_the_parameter_service(low: Device, put_package: Put) -> None:
    set_up(low, put_package, configured("sample", paramConfig=PARAMETERS))
    assert low.read(f"{CONF}/sample.conf") == expected("values.conf")
    assert low.read(f"{CONF}/param_sample.conf") == expected("group.conf")
    assert low.read("/etc/dbus-1/system.d/sample.conf") == expected("bus-policy.conf")
    assert low.run(["readlink", "/etc/dynamic/sample.conf", "/etc/dynamic/param/sample.conf"]).stdout.split() == [
        f"{CONF}/sample.conf", f"{CONF}/param_sample.conf"]  # fmt: skip
    assert low.sh(f"stat -c '%a %U:%G' {CONF}/*sample.conf").stdout == "600 velk-sample:velk-sample\n" * 2
    assert low.read("/run/velkctl-param-groups/Sample") == expected("group.conf")
    low.velkctl("teardown", "sample").check()
    assert low.sh("ls -A /etc/dynamic/param /run/velkctl-param-groups 2>/dev/null").stdout.strip() in (
        "", "/etc/dynamic/param:")  # fmt: skip
    assert low.sh(f"ls {CONF}").stdout == ""


def test_without_parameters_there_is_an_empty_group(low: Device, put_package: Put) -> None:
    set_up(low, put_package, app("sample"))
    assert low.read(f"{CONF}/sample.conf") == expected("values-none.conf")
    assert low.read(f"{CONF}/param_sample.conf") == expected("group-none.conf")


def test_each_setup_writes_the_defaults(low: Device, put_package: Put) -> None:
    set_up(low, put_package, configured("sample", paramConfig=PARAMETERS))
    low.write(f"{CONF}/sample.conf", '[Sample]\nSpeed="99"\n', mode=0o600, owner="velk-sample:velk-sample")
    low.velkctl("teardown", "sample").check()
    low.velkctl("setup", "sample").check()
    assert low.read(f"{CONF}/sample.conf") == expected("values.conf")


REFUSED = [
    ([1], "paramConfig in manifest does not contain objects"),
    ([{"name": "a" * 33, "default": "", "type": ""}], "Parameter name must contain between 1 and 32 characters."),
    ([{"name": "1a", "default": "", "type": ""}],
     "Parameter name must only contain alphanumeric characters or '_'."),
    ([{"name": "a", "default": "x\ny", "type": ""}], "Field 'default' in manifest contains a newline"),
    ([{"name": "a", "default": "x"}], "Could not read type from manifest"),
]  # fmt: skip


@pytest.mark.parametrize(("parameters", "text"), REFUSED)
def test_a_broken_rule(workshop: Device, put_package: Put, parameters: list[object], text: str) -> None:
    store_app(workshop, put_package, configured(paramConfig=parameters))
    before = outside(workshop, "Sample")
    assert velkctl(workshop, "setup", "Sample") == (29, f"code 29: {text}\n")
    assert outside(workshop, "Sample") == before


def test_only_the_user_and_root_own_the_service(low: Device, put_package: Put) -> None:
    set_up(low, put_package, app("sample"))
    service = "com.orvo.Param.sample"
    who = {user: own(low, service, user) for user in ("velk-sample", "root", "sdk", "www", "nobody")}
    assert who == {"velk-sample": True, "root": True, "sdk": False, "www": False, "nobody": False}
    assert not own(low, "com.orvo.Param.other", "velk-sample")
    assert not own(low, "com.orvo.Param.sample2", "velk-sample")
    low.velkctl("teardown", "--persist-user", "sample").check()
    low.run(["busctl", "call", "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig"]).check()
    assert not own(low, service, "velk-sample")


def test_a_name_with_two_hyphens_has_a_policy_too(workshop: Device, put_package: Put) -> None:
    try:
        set_up(workshop, put_package, app("a--b"))
        assert own(workshop, "com.orvo.Param.a--b", "velk-a--b")
        assert not own(workshop, "com.orvo.Param.a--b", "sdk")
    finally:
        workshop.velkctl("uninstall", "a--b").check()


def test_the_group_cannot_be_deleted(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    kept = "/run/velkctl-param-groups/Sample"
    workshop.sh(f"rm {kept}; mkdir {kept}").check()
    status, told = velkctl(workshop, "teardown", "Sample")
    assert status == 10
    assert "Failed to teardown params during teardown of Sample: src/integration/cfgtree.cpp: Failed deleting the param " \
           "group: Sample\n" in told  # fmt: skip
    assert workshop.exists("/etc/dynamic/Sample.conf")
    workshop.sh(f"rmdir {kept}").check()
    assert velkctl(workshop, "setup", "Sample")[0] == 10  # the link is still there; its own teardown takes it away
    assert velkctl(workshop, "setup", "Sample")[0] == 0
