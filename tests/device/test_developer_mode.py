"""Developer mode and `validate-manifest`: who may run unsigned. The applications are put straight into the store."""

from __future__ import annotations

import json
import re
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from apps import example
from setups import changed
from store_support import allow_unsigned
from velkdevice import package
from velkdevice.device import Device

STORE = "/usr/local/packages"
STATES = "/etc/velk/vsf"
INFO = "/etc/orvo/device-info"
BAD_STATE = "The installed Developer Mode app is in a bad state: "
NOT_IN_MODE = "code 2: device is not in developer mode\n"


class Developer:
    """A developer-mode application with schemas, and an application that wants to be let in."""

    def __init__(self, device: Device) -> None:
        self.device = device
        info = device.read(INFO)
        found = re.search(r"^SerialNumber=(.*)$", info, re.MULTILINE)
        assert found
        self.serial = found[1]
        self.app("Loose")
        self.mode()
        self.schema("open.json", True)

    def app(self, name: str, signed: bool = False, mode: Any = None, **settings: Any) -> None:
        manifest = package.manifest(name, **settings)
        if mode is not None:
            manifest["velkPackageConf"]["developerMode"] = mode
        self.device.write(f"{STORE}/{name}/manifest.json", json.dumps(manifest), 0o444)
        if signed:
            self.device.write(f"{STATES}/{name}", json.dumps({"signature": "", "state": "confirmed"}))

    def mode(self, signed: bool = True, **fields: Any) -> None:
        """Put the developer-mode application in; a field that is None is left out."""
        given = {"vendorId": "TESTS", "deviceSerialNumber": self.serial, **fields}
        self.device.sh('rm -f "$1"', f"{STATES}/developer_mode").check()
        self.app("developer_mode", signed, {key: value for key, value in given.items() if value is not None})

    def schema(self, name: str, schema: Any) -> None:
        text = schema if isinstance(schema, str) else json.dumps(schema)
        self.device.write(f"{STORE}/developer_mode/schema/{name}", text)

    def without(self, path: str) -> None:
        self.device.sh('rm -rf "$1"', path).check()

    def validate(self, app: str = "Loose") -> tuple[int, str, str]:
        result = self.device.velkctl("validate-manifest", app)
        return result.status, result.stdout, re.sub(r"(src/[\w/.-]+):\d+: ", r"\1: ", result.stderr)


@pytest.fixture
def developer(pristine: Device) -> Iterator[Developer]:
    yield Developer(pristine)
    for name in ("Loose", "developer_mode"):
        pristine.sh('rm -rf "$1" "$2"', f"{STORE}/{name}", f"{STATES}/{name}").check()


def test_an_application_of_the_vendor_is_let_in_whatever_the_letter_case(developer: Developer) -> None:
    assert developer.validate() == (0, "", "")
    info = developer.device.read(INFO)
    with changed(developer.device, INFO, info.replace(developer.serial, "0200000000AB")):
        developer.mode(deviceSerialNumber="0200000000ab")
        assert developer.validate() == (0, "", "")


def test_a_signed_application_needs_no_developer_mode(developer: Developer) -> None:
    developer.without(f"{STORE}/developer_mode")
    assert developer.validate() == (2, "", NOT_IN_MODE)
    developer.app("Loose", signed=True)
    assert developer.validate() == (0, "", "")


def test_an_application_that_is_not_there_is_not_found(developer: Developer) -> None:
    log = f"code 4: src/system/file.cpp: Path not found: {STORE}/Nobody/manifest.json\n"
    assert developer.validate("Nobody") == (4, "", log)


def test_an_unsigned_developer_mode_application_is_none(developer: Developer) -> None:
    developer.mode(signed=False)
    assert developer.validate() == (2, "", NOT_IN_MODE)


def test_a_developer_mode_application_without_its_section_is_none(developer: Developer) -> None:
    developer.app("developer_mode", signed=True)
    assert developer.validate() == (2, "", NOT_IN_MODE)


def test_a_developer_mode_application_on_a_card_is_none(developer: Developer) -> None:
    card = "/var/spool/storage/SD_DISK2/packages"
    move = 'mkdir -p "$1" && mv "$2/developer_mode" "$1" && ln -s "$1/developer_mode" "$2"'
    developer.device.sh(move, card, STORE).check()
    assert developer.validate() == (2, "", NOT_IN_MODE)
    developer.device.sh('rm -rf "$1/developer_mode" /var/spool/storage/SD_DISK2', STORE).check()


@pytest.mark.parametrize("field", ["vendorId", "deviceSerialNumber"])
def test_an_incomplete_section_is_a_bad_state(developer: Developer, field: str) -> None:
    developer.mode(**{field: None})
    text = f"{BAD_STATE}Developer Mode manifest is missing required field: 'developerMode.{field}'\n"
    assert developer.validate() == (2, "", text + NOT_IN_MODE)


def test_another_devices_serial_number_is_a_bad_state(developer: Developer) -> None:
    developer.mode(deviceSerialNumber="another")
    text = f"{BAD_STATE}Device serial number '{developer.serial}' does not match manifest serial number 'another'\n"
    assert developer.validate() == (2, "", text + NOT_IN_MODE)


def test_a_silent_device_information_service_is_a_bad_state(developer: Developer) -> None:
    failing = "/run/orvo-test/fail/Get"
    developer.device.write(failing, "out of order")
    status, output, log = developer.validate()
    developer.device.sh('rm -r "$1"', "/run/orvo-test").check()
    assert (status, output) == (2, "")
    assert log == (
        f"{BAD_STATE}src/system/dbus-call.cpp: DBus call to com.orvo.BasicDeviceInfo1.Get failed: out of order\n"
        + NOT_IN_MODE
    )


def test_another_vendor_is_refused(developer: Developer) -> None:
    developer.app("Loose", vendorId="others")
    assert developer.validate() == (53, "", "code 53: App vendor ID doesn't match devmode vendor ID\n")


def test_an_application_without_a_vendor_is_refused(developer: Developer) -> None:
    developer.app("Loose", vendorId=None)
    assert developer.validate() == (29, "", "code 29: Could not read vendorId from manifest\n")


def test_one_schema_of_several_is_enough(developer: Developer) -> None:
    developer.schema("a.json", False)
    developer.schema("deeper/b.json", "no schema")
    assert developer.validate() == (0, "", "")


def test_without_a_matching_schema_every_failure_is_logged(developer: Developer) -> None:
    developer.schema("open.json", {"required": ["nothing"]})
    status, output, log = developer.validate()
    assert (status, output) == (54, "")
    first, last = log.splitlines()
    schema = f"{STORE}/developer_mode/schema/open.json"
    assert first.startswith(f"Failed to validate Loose using schema file {schema}: Validation failed - ")
    assert last == "code 54: Loose: No valid schemas found - No matching schema for Loose"


@pytest.mark.parametrize("left", ["nothing", "an empty directory", "empty directories"])
def test_a_developer_mode_application_without_schemas_is_told(developer: Developer, left: str) -> None:
    schemas = f"{STORE}/developer_mode/schema"
    developer.without(schemas)
    if left != "nothing":
        developer.device.sh('mkdir -p "$1"', schemas if left == "an empty directory" else f"{schemas}/a/b").check()
    log = "code 10: src/lifecycle/velkctl-developer-mode.cpp: Developer mode app lacks schemas\n"
    assert developer.validate() == (10, "", log)


# --- the application itself, as an operator installs it ---


@pytest.fixture
def example_mode(pristine: Device) -> Iterator[Device]:
    """The device with a card, and an unsigned application of the example's vendor that its schemas accept."""
    pristine.insert_card()
    manifest = package.manifest("Loose", vendorId="VELKCTL-examples")
    pristine.write(f"{STORE}/Loose/manifest.json", json.dumps(manifest), 0o444)
    yield pristine
    pristine.velkctl("uninstall", "developer_mode")
    pristine.sh(f"rm -rf {STORE}/Loose {STATES}/developer_mode /tmp/velkctl_*").check()
    pristine.remove_card()


def test_installed_it_puts_the_device_into_the_mode(
    example_mode: Device, put_package: Callable[..., str]
) -> None:
    path = put_package(example_mode, example("developer_mode"))
    assert example_mode.velkctl("install", path).status == 0
    assert example_mode.velkctl("validate-manifest", "Loose").status == 0
    [mode] = [one for one in json.loads(example_mode.velkctl("list").stdout) if one["appName"] == "developer_mode"]
    assert (mode["developerMode"], mode["signatureStatus"]) == ("Yes", "Signed")
    example_mode.velkctl("uninstall", "developer_mode").check()
    result = example_mode.velkctl("validate-manifest", "Loose")
    assert (result.status, result.stderr) == (2, NOT_IN_MODE)


def test_made_for_another_device_it_is_not_installed(
    example_mode: Device, put_package: Callable[..., str]
) -> None:
    files = example("developer_mode")
    files["manifest.json"]["velkPackageConf"]["developerMode"]["deviceSerialNumber"] = "020000000002"
    result = example_mode.velkctl("install", put_package(example_mode, files))
    text = "code 51: Device serial number '020000000001' does not match manifest serial number '020000000002'\n"
    assert (result.status, result.stderr) == (51, text)
    assert example_mode.sh(f"ls -A {STORE}").stdout.split().count("developer_mode") == 0


def test_unsigned_it_is_not_installed_and_where_that_is_allowed_it_is_none(
    example_mode: Device, put_package: Callable[..., str]
) -> None:
    path = put_package(example_mode, example("developer_mode"), sign=False)
    assert example_mode.velkctl("install", path).stderr == "code 2: Unsigned package not allowed\n"
    settings = example_mode.read("/etc/velk/conf/packageparser.conf")
    allow_unsigned(example_mode)
    example_mode.velkctl("install", path).check()
    example_mode.write("/etc/velk/conf/packageparser.conf", settings)
    result = example_mode.velkctl("validate-manifest", "Loose")
    assert (result.status, result.stderr) == (2, NOT_IN_MODE)


def test_on_a_card_it_is_none(example_mode: Device, put_package: Callable[..., str]) -> None:
    example_mode.velkctl("install", put_package(example_mode, example("developer_mode")), "sd_card1").check()
    result = example_mode.velkctl("validate-manifest", "Loose")
    assert (result.status, result.stderr) == (2, NOT_IN_MODE)


# --- schema directories ---


@pytest.mark.parametrize("text", ["no schema", "", "[1]", '{"$ref": "#/nowhere"}'])
def test_a_schema_that_is_none_matches_nothing(developer: Developer, text: str) -> None:
    developer.schema("open.json", text)
    status, output, log = developer.validate()
    assert (status, output) == (54, "")
    assert log.splitlines()[-1] == "code 54: Loose: No valid schemas found - No matching schema for Loose"
    assert len(log.splitlines()) == 2


def test_schemas_lie_at_any_depth(developer: Developer) -> None:
    developer.without(f"{STORE}/developer_mode/schema/open.json")
    developer.schema("a/b/c/d/open.json", True)
    assert developer.validate() == (0, "", "")


def test_the_failures_of_all_depths_are_told(developer: Developer) -> None:
    for name in ("open.json", "a/refusing.json", "a/b/refusing.json"):
        developer.schema(name, False)
    status, _, log = developer.validate()
    assert status == 54
    told = [line for line in log.splitlines() if line.startswith("Failed to validate Loose using schema file ")]
    assert len(told) == 3


def test_what_is_no_file_in_a_schema_directory_is_passed_over(developer: Developer) -> None:
    developer.device.sh(f"mkfifo {STORE}/developer_mode/schema/a-pipe; ln -s /dev/zero {STORE}/developer_mode/schema/b").check()
    assert developer.validate() == (0, "", "")


def test_validate_manifest_takes_any_name(developer: Developer) -> None:
    """No application has such a name, which is all there is to say."""
    for name in ("../Loose", "1x", "a b"):
        status, output, log = developer.validate(name)
        assert (status, output) == (4, ""), log


@pytest.mark.parametrize("arguments", [[], ["a", "b"]])
def test_validate_manifest_takes_one_argument(pristine: Device, arguments: list[str]) -> None:
    result = pristine.velkctl("validate-manifest", *arguments)
    text = "Too many arguments" if arguments else "Missing positional argument"
    assert (result.status, result.stderr) == (10, f"code 10: {text}\n")
    assert result.stdout.startswith("\nUsage: velkctl validate-manifest [OPTIONS] <APP>\n")
