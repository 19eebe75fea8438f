"""The listing: every key of an application's object, one application, single values, sizes, what the firmware ships."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from apps import app, configuration
from velkdevice.device import Device

Put = Callable[..., str]
CACHE = "/etc/velk/preinstalled/preinstalled-apps.json"


@pytest.fixture
def installed(pristine: Device, put_package: Put) -> Iterator[Device]:
    """The device with one application that uses every key that the listing shows."""
    files = configuration(
        app("Sample", vendor="V", vendorUrl="https://v.invalid", appId="7", labels=["a", "b"],
            compatibleOsVersions=[{"min": "1", "max": "99"}]),
        settingPage="page.html")  # fmt: skip
    files["manifest.json"]["resources"] = {"deepLearningProcessor": {"enabled": True}}
    pristine.velkctl("install", put_package(pristine, files)).check()
    yield pristine
    pristine.velkctl("uninstall", "Sample").check()


def expected(**changes: Any) -> dict[str, Any]:
    return {
        "appId": "7", "appName": "Sample", "friendlyName": "Sample of the tests", "vendor": "V",
        "vendorUrl": "https://v.invalid", "version": "1.0.0", "labels": ["a", "b"],
        "compatibleOsVersions": [{"min": "1", "max": "99"}], "status": "Stopped", "autostart": "Disabled",
        "bundled": "No", "fullyInstalled": "Yes", "resources": [{"deepLearningProcessor": "Yes"}],
        "developerMode": "No", "signatureStatus": "Signed", "settingPage": "local/Sample/page.html",
    } | changes  # fmt: skip


def test_an_empty_store_is_an_empty_array(pristine: Device) -> None:
    assert pristine.velkctl("list").stdout == "[]"


def test_the_listing_whole_as_it_is_printed(installed: Device) -> None:
    result = installed.velkctl("list").check()
    assert result.stdout == json.dumps([expected()], indent=4)
    assert result.stderr == ""
    assert list(json.loads(result.stdout)[0]) == list(expected())


def test_one_application_is_listed_alone(installed: Device) -> None:
    assert installed.velkctl("list", "Sample").check().stdout == json.dumps([expected()], indent=4)


def test_an_application_that_is_not_there_is_told_by_the_status_alone(pristine: Device) -> None:
    for option in ([], ["--version"], ["--friendly-name"]):
        result = pristine.velkctl("list", *option, "Nobody")
        assert (result.status, result.stdout, result.stderr) == (4, "", "")


def test_a_name_that_is_none(pristine: Device) -> None:
    result = pristine.velkctl("list", "a/b")
    assert (result.status, result.stderr) == (10, "code 10: Character sequence in application name is not allowed\n")


def test_running_and_enabled(installed: Device) -> None:
    installed.velkctl("start", "Sample").check()
    [listed] = json.loads(installed.velkctl("list").stdout)
    # Its run mode is "never": running now, not at boot.
    assert listed == expected(status="Running", autostart="Disabled")
    installed.velkctl("stop", "Sample").check()
    assert installed.velkctl("stop", "Sample").status == 7
    [listed] = json.loads(installed.velkctl("list").stdout)
    assert listed == expected(status="Stopped", autostart="Enabled")


def test_a_run_state_is_read_by_its_beginning(installed: Device) -> None:
    path = "/usr/local/packages/Sample/conf/runstate.conf"
    for content, autostart in (("ENABLED=yesterday", "Enabled"), ("ENABLED=no\n", "Disabled"), ("", "Disabled")):
        installed.write(path, content)
        [listed] = json.loads(installed.velkctl("list").stdout)
        assert listed == expected(autostart=autostart)


def test_an_application_that_is_not_set_up(installed: Device) -> None:
    installed.velkctl("teardown", "Sample").check()
    [listed] = json.loads(installed.velkctl("list").stdout)
    assert listed == expected(fullyInstalled="No")
    installed.velkctl("setup", "Sample").check()


def test_a_broken_verification_state_is_unknown_and_a_warning(installed: Device) -> None:
    path = "/etc/velk/vsf/Sample"
    whole = installed.read(path)
    installed.write(path, "[]")
    result = installed.velkctl("list")
    assert json.loads(result.stdout) == [expected(signatureStatus="Unknown")]
    assert "Invalid JSON in VSF for application Sample" in result.stderr
    installed.write(path, json.dumps({"signature": "", "state": "Confirmed"}))
    assert json.loads(installed.velkctl("list").stdout) == [expected(signatureStatus="Unknown")]
    installed.write(path, whole)


def test_single_values(installed: Device) -> None:
    assert installed.velkctl("list", "--friendly-name", "Sample").check().stdout == "Sample of the tests"
    assert installed.velkctl("list", "--version", "Sample").check().stdout == "1.0.0"
    assert installed.velkctl("list", "--version", "--friendly-name", "Sample").check().stdout == "Sample of the tests"


def test_sizes(installed: Device) -> None:
    size = installed.sh("du -s /usr/local/packages/Sample").check().stdout.split("\t")[0]
    assert installed.velkctl("list", "--format=idd-size").check().stdout == f"{size}\tSample\n"


def test_sizes_of_nothing(pristine: Device) -> None:
    result = pristine.velkctl("list", "--format", "idd-size")
    assert (result.status, result.stdout) == (0, "")


def test_an_application_of_the_older_form(pristine: Device) -> None:
    conf = 'PACKAGENAME="Old one"\nAPPNAME=Old\nAPPMAJORVERSION=3\nAPPMINORVERSION=4\n'
    pristine.sh("mkdir /usr/local/packages/Old").check()
    pristine.write("/usr/local/packages/Old/package.conf", conf)
    assert pristine.velkctl("list", "--legacy-apps").check().stdout == '["Old"]'
    assert pristine.velkctl("list").check().stdout == "[]"
    assert pristine.velkctl("list", "--friendly-name", "Old").check().stdout == "Old one"
    assert pristine.velkctl("list", "--version", "Old").check().stdout == "3.4-0"
    pristine.sh("rm -r /usr/local/packages/Old").check()


def test_of_several_lists_the_first_in_their_order_is_printed(installed: Device) -> None:
    installed.write("/usr/local/packages/Old/package.conf", "APPNAME=Old\n")
    installed.write(CACHE, '["ships"]')
    try:
        shipped, legacy, sizes = (installed.velkctl("list", "--bundled-apps", *more).check().stdout
                                  for more in ([], ["--legacy-apps"], ["--format=idd-size"]))  # fmt: skip
        # For one application the name comes before the version.
        names = installed.velkctl("list", "--version", "--friendly-name", "Sample").check().stdout
    finally:
        installed.sh(f"rm -r /usr/local/packages/Old {CACHE}").check()
    assert (shipped, legacy) == ('["ships"]', '["Old"]')
    assert [line.split("\t")[1] for line in sizes.splitlines()] == ["Old", "Sample"]
    assert names == "Sample of the tests"


def test_directories_that_are_no_applications_are_passed_over(installed: Device) -> None:
    installed.sh("cp -a /usr/local/packages/Sample /usr/local/packages/Sample.tmp").check()
    assert len(json.loads(installed.velkctl("list").check().stdout)) == 1
    installed.sh("rm -rf /usr/local/packages/Sample.tmp").check()


def test_what_the_firmware_ships(fresh_device: Device, make_package: Callable[..., Any]) -> None:
    fresh_device.copy_in(make_package(app("Sample")), "/usr/share/packages/sample.vlp")
    fresh_device.copy_in(make_package(app("Other", version="2.1.0")), "/usr/share/packages/another.vlp")
    fresh_device.write("/usr/share/packages/readme.txt", "no package")
    shipped = [{"appName": "Other", "version": "2.1.0"}, {"appName": "Sample", "version": "1.0.0"}]
    assert fresh_device.velkctl("list", "--bundled-apps").check().stdout == json.dumps(shipped, indent=2)
    assert fresh_device.read(CACHE) == json.dumps(shipped, indent=2)
    fresh_device.velkctl("install", "/usr/share/packages/sample.vlp").check()
    [listed] = json.loads(fresh_device.velkctl("list").stdout)
    assert listed["bundled"] == "Yes"
    fresh_device.write(CACHE, "as it is")
    assert fresh_device.velkctl("list", "--bundled-apps").check().stdout == "as it is"
    result = fresh_device.velkctl("list")
    assert json.loads(result.stdout)[0]["bundled"] == "No"
    assert result.stderr.startswith(f"Could not parse preinstalled apps file {CACHE}: ")
