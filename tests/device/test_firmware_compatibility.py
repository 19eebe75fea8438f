"""Which applications another firmware would refuse. The applications are put straight into the store."""

from __future__ import annotations

import json
import re
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from apps import without_place
from velkdevice import package
from velkdevice.device import Device

STORE = "/usr/local/packages"
STATES = "/etc/velk/vsf"
SETTINGS = "/etc/velk/conf/packageparser.conf"
DEVEL = "/run/orvo-features/devel"
PREINSTALLED = "/etc/velk/preinstalled/preinstalled-apps.json"
RANGES = [{"min": "10.9", "max": "10.12"}, {"min": "11.5", "max": "12"}]


class Store:
    """Applications and settings put onto the device, and taken away again."""

    def __init__(self, device: Device) -> None:
        self.device = device
        self.kept = {path: device.read(path) for path in (SETTINGS, PREINSTALLED) if device.exists(path)}
        self.apps: list[str] = []

    def app(self, name: str, signed: bool = True, manifest: dict[str, Any] | None = None, **settings: Any) -> None:
        """An application with a manifest; unless it is given, the least one with these settings."""
        self.apps.append(name)
        text = json.dumps(manifest or package.manifest(name, **settings))
        self.device.write(f"{STORE}/{name}/manifest.json", text, 0o444)
        if signed:
            self.device.write(f"{STATES}/{name}", json.dumps({"signature": "", "state": "confirmed"}))

    def legacy(self, name: str, conf: str) -> None:
        self.apps.append(name)
        self.device.write(f"{STORE}/{name}/package.conf", conf)

    def clear(self) -> None:
        for name in self.apps:
            self.device.sh('rm -rf "$1" "$2"', f"{STORE}/{name}", f"{STATES}/{name}").check()
        self.device.sh('rm -f "$1" "$2"', DEVEL, PREINSTALLED).check()
        for path, text in self.kept.items():
            self.device.write(path, text)


@pytest.fixture
def store(device: Device) -> Iterator[Store]:
    store = Store(device)
    yield store
    store.clear()


def ask(store: Store, version: str) -> tuple[int, str, str]:
    result = store.device.velkctl("firmware-compatibility", version)
    return result.status, result.stdout, re.sub(r"(src/[\w/.-]+):\d+: ", r"\1: ", result.stderr)


def entry(name: str, version: str, code: int, reason: str, friendly: str | None = None) -> dict[str, Any]:
    friendly = friendly or f"{name} of the tests"
    return {
        "description": f"{friendly} ({name} {version}): {code} {reason}",
        "appName": name, "friendlyName": friendly, "version": version, "error": code,
    }  # fmt: skip


def refusal(version: str, *entries: dict[str, Any], log: str = "") -> tuple[int, str, str]:
    text = json.dumps({"incompatible_apps": list(entries)}, separators=(",", ":"), ensure_ascii=False)
    return 1, text, f"{log}For fw version {version} the following apps are incompatible: {text}\n"


NO_RANGES = "Manifest is missing required field 'compatibleOsVersions'."
UNSIGNED = "Unsigned apps are not allowed."
LEGACY = "Applications without a manifest.json file are no longer supported."
FINE = (0, "{}", "")


def out_of_range(version: str) -> str:
    ranges = "[10.9, 10.12], [11.5, 12]"
    return f"Firmware version {version} is not compatible with this application. Compatible versions: {ranges}"


@pytest.mark.parametrize("version", ["11", "", "beta", "-1.5", "11.2147483648"])
def test_what_is_no_firmware_version_is_refused(pristine: Device, version: str) -> None:
    text = f"Could not parse firmware version '{version}' - expected at least major.minor format"
    result = pristine.velkctl("firmware-compatibility", "--", version)
    log = re.sub(r":\d+: ", ": ", result.stderr)
    assert (result.status, result.stdout, log) == (10, "", f"code 10: src/manifest/version.cpp: {text}\n")


def test_an_empty_store_fits_every_firmware(pristine: Device) -> None:
    for version in ("11.5", "12.99.1-beta", "13.0", "99.0"):
        assert ask(Store(pristine), version) == FINE


def test_the_ranges_decide(store: Store) -> None:
    store.app("Ranged", compatibleOsVersions=RANGES)
    for version in ("10.9", "10.12.99", "11.5.64-beta", "12.0", "12.99"):
        assert ask(store, version) == FINE
    for version, shown in (("10.8.9", "10.8.9"), ("11.4", "11.4"), ("13.0-x", "13.0")):
        assert ask(store, version) == refusal(version, entry("Ranged", "1.0.0", 5, out_of_range(shown)))


def test_from_13_on_the_ranges_are_required(store: Store) -> None:
    store.app("Without")
    assert ask(store, "12.99") == FINE
    assert ask(store, "13.0") == refusal("13.0", entry("Without", "1.0.0", 29, NO_RANGES))


def test_broken_ranges_count_as_none(store: Store) -> None:
    store.app("Broken", compatibleOsVersions=[])
    assert ask(store, "12.0") == FINE
    assert ask(store, "13.0") == refusal("13.0", entry("Broken", "1.0.0", 29, NO_RANGES))


def test_a_name_without_friendly_name_and_all_in_name_order(store: Store) -> None:
    store.app("Beta", friendlyName=None, version="2.0.0-rc.1")
    store.app("Alpha", friendlyName="Größe \"A\"")
    assert ask(store, "13.0") == refusal(
        "13.0",
        entry("Alpha", "1.0.0", 29, NO_RANGES, 'Größe "A"'),
        entry("Beta", "2.0.0-rc.1", 29, NO_RANGES, "Beta"),
    )


def test_from_13_on_unsigned_applications_are_refused(store: Store) -> None:
    store.app("Loose", signed=False, compatibleOsVersions=[{"min": "1", "max": "99"}])
    assert ask(store, "12.0") == FINE
    assert ask(store, "13.0") == refusal("13.0", entry("Loose", "1.0.0", 2, UNSIGNED))


def test_a_state_that_is_confirmed_in_other_letters_is_not_confirmed(store: Store) -> None:
    store.app("Loose", compatibleOsVersions=[{"min": "1", "max": "99"}])
    assert ask(store, "13.0") == FINE
    for state in ("Confirmed", "CONFIRMED", "confirmed ", ""):
        store.device.write(f"{STATES}/Loose", json.dumps({"signature": "", "state": state}))
        assert ask(store, "13.0") == refusal("13.0", entry("Loose", "1.0.0", 2, UNSIGNED)), state


def test_a_store_that_cannot_be_read_holds_no_application(device: Device) -> None:
    script = f"mount -t tmpfs -o mode=0700 none {STORE} && exec setpriv --reuid nobody --clear-groups "
    for version, kinds in (("12.0", ("manifest",)), ("13.0", ("legacy", "manifest"))):
        command = f"{script} velkctl firmware-compatibility {version}"
        result = device.run(["unshare", "--mount", "sh", "-c", command])
        reason = f"src/store/velkctl-store.cpp: Failed to read store path directory {STORE}: Permission denied\n"
        log = "".join(f"Could not enumerate {kind} apps: {reason}" for kind in kinds)
        assert (result.status, result.stdout, without_place(result.stderr)) == (0, "{}", log)


def test_unsigned_applications_need_the_setting_and_the_marker(store: Store) -> None:
    store.app("Loose", signed=False, compatibleOsVersions=[{"min": "1", "max": "99"}])
    loose = entry("Loose", "1.0.0", 2, UNSIGNED)
    store.device.write(DEVEL, "")
    assert ask(store, "13.0") == refusal("13.0", loose)
    store.device.write(SETTINGS, "[Install]\nAllowUnsigned=true\n")
    assert ask(store, "13.0") == FINE
    store.device.sh('rm "$1"', DEVEL).check()
    assert ask(store, "13.0") == refusal("13.0", loose)


def test_a_setting_that_cannot_be_read_allows_nothing(store: Store) -> None:
    store.app("Loose", signed=False, compatibleOsVersions=[{"min": "1", "max": "99"}])
    store.device.write(DEVEL, "")
    store.device.write(SETTINGS, "[Install]\n")
    reason = "Key file does not have key “AllowUnsigned” in group “Install”"
    log = (
        f"Defaulting to 'false' for [Install].AllowUnsigned, bad keyfile: {SETTINGS}\n"
        "Could not determine if unsigned apps are allowed for firmware version 13.0: src/system/key-file.cpp: "
        f"Failed reading key AllowUnsigned, group Install from {SETTINGS}: {reason}. Proceeding as not allowed.\n"
    )
    assert ask(store, "13.0") == refusal("13.0", entry("Loose", "1.0.0", 2, UNSIGNED), log=log)


def test_without_settings_unsigned_applications_are_refused(store: Store) -> None:
    store.app("Loose", signed=False, compatibleOsVersions=[{"min": "1", "max": "99"}])
    store.device.sh('rm "$1"', SETTINGS).check()
    log = f"Defaulting to 'false' for [Install].AllowUnsigned, no keyfile: {SETTINGS}\n"
    assert ask(store, "13.0") == refusal("13.0", entry("Loose", "1.0.0", 2, UNSIGNED), log=log)


def test_from_13_on_legacy_applications_are_refused(store: Store) -> None:
    version = "APPMAJORVERSION=1\nAPPMINORVERSION=2\n"
    store.legacy("Older", f"APPNAME=older\nPACKAGENAME='The older'\n{version}APPMICROVERSION=3\n")
    store.legacy("Oldest", f"APPNAME=oldest\n{version}")
    store.legacy("Plain", "PACKAGENAME=a;b\nAPPMAJORVERSION=1\n")
    assert ask(store, "12.99") == FINE
    assert ask(store, "13.0") == refusal(
        "13.0",
        entry("Older", "1.2-3", 1, LEGACY, "The older"),
        entry("Oldest", "1.2-0", 1, LEGACY, "oldest"),
        entry("Plain", "unknown", 1, LEGACY, "Plain"),
    )


def test_a_legacy_text_that_is_no_utf8_is_still_answered(store: Store) -> None:
    store.apps.append("Older")
    store.device.write(f"{STORE}/Older/package.conf", b"APPNAME=\xe4\n")
    status, output, _ = ask(store, "13.0")
    assert (status, json.loads(output)["incompatible_apps"][0]["friendlyName"]) == (1, "�")


def test_preinstalled_applications_are_never_reported(store: Store) -> None:
    store.app("Shipped", signed=False)
    store.legacy("ShippedOld", "APPNAME=x\n")
    store.device.write(PREINSTALLED, json.dumps([{"appName": n, "version": "1"} for n in ("Shipped", "ShippedOld")]))
    legacy = "Skipping preinstalled legacy app: ShippedOld\n"
    assert ask(store, "13.0") == (0, "{}", legacy + "Skipping preinstalled manifest app: Shipped\n")
    assert ask(store, "12.0") == (0, "{}", "Skipping preinstalled manifest app: Shipped\n")


@pytest.mark.parametrize(
    "text", ["{", '{"appName": "Shipped"}', '[{"appName": "Shipped"}, {"version": "1"}]', '["Shipped"]']
)
def test_a_malformed_list_of_preinstalled_applications_is_ignored_whole(store: Store, text: str) -> None:
    store.app("Shipped")
    store.device.write(PREINSTALLED, text)
    status, output, log = ask(store, "13.0")
    assert (status, json.loads(output)) == (1, {"incompatible_apps": [entry("Shipped", "1.0.0", 29, NO_RANGES)]})
    assert log.startswith(f"Could not parse preinstalled apps file {PREINSTALLED}: ")
    assert len(log.splitlines()) == 2


def test_a_manifest_that_cannot_be_parsed_is_a_warning(store: Store) -> None:
    store.app("Empty", manifest={"velkPackageConf": {}})
    assert ask(store, "12.0") == (0, "{}", "Could not parse manifest for Could not read setup from manifest\n")


def test_a_manifest_that_cannot_be_loaded_is_two_warnings(store: Store) -> None:
    store.app("Broken")
    store.device.write(f"{STORE}/Broken/manifest.json", "{", 0o444)
    load = "Could not load manifest for Broken: JSON error: string or '}' expected near end of file\n"
    parse = "Could not parse manifest for Could not read velkPackageConf from manifest\n"
    assert ask(store, "12.0") == (0, "{}", load + parse)
    assert ask(store, "13.0") == (0, "{}", load + parse)
    store.device.sh('rm "$1"', f"{STATES}/Broken").check()
    assert ask(store, "13.0") == (0, "{}", load)
    store.device.write(f"{STORE}/Broken/manifest.json", "{}", 0o644)
    reason = f"src/system/file.cpp: File {STORE}/Broken/manifest.json has improper permissions: 0644"
    load = f"Could not load manifest for Broken: {reason}\n"
    assert ask(store, "12.0") == (0, "{}", load + parse)


def test_what_is_no_application_is_left_alone(store: Store) -> None:
    store.app("Whole.tmp")
    store.app("_backup2")
    assert ask(store, "13.0") == FINE


# --- developer mode ---


@pytest.fixture
def developer(store: Store) -> Callable[..., None]:
    """A function that puts the developer-mode application into the store."""

    def put(signed: bool = True, **fields: Any) -> None:
        info = store.device.read("/etc/orvo/device-info")
        serial = re.search(r"^SerialNumber\s*=\s*(.*)$", info, re.MULTILINE)
        assert serial
        manifest = package.manifest("developer_mode", compatibleOsVersions=[{"min": "1", "max": "99"}])
        manifest["velkPackageConf"]["developerMode"] = {
            "vendorId": "Tests", "deviceSerialNumber": serial[1].lower(), **fields
        }  # fmt: skip
        store.app("developer_mode", signed=signed, manifest=manifest)

    return put


def test_developer_mode_allows_unsigned_applications(store: Store, developer: Callable[..., None]) -> None:
    store.app("Loose", signed=False, compatibleOsVersions=[{"min": "1", "max": "99"}])
    developer()
    assert ask(store, "13.0") == FINE


def test_an_unsigned_developer_mode_application_allows_nothing(store: Store, developer: Callable[..., None]) -> None:
    developer(signed=False)
    assert ask(store, "13.0") == refusal("13.0", entry("developer_mode", "1.0.0", 2, UNSIGNED))


def test_another_devices_developer_mode_is_a_bad_state(store: Store, developer: Callable[..., None]) -> None:
    store.app("Loose", signed=False, compatibleOsVersions=[{"min": "1", "max": "99"}])
    developer(deviceSerialNumber="another")
    status, output, log = ask(store, "13.0")
    assert (status, json.loads(output)) == (1, {"incompatible_apps": [entry("Loose", "1.0.0", 2, UNSIGNED)]})
    bad_state = (
        r"The installed Developer Mode app is in a bad state: Device serial number '(.+)' does not match manifest "
        r"serial number 'another'"
    )
    assert re.fullmatch(bad_state, log.splitlines()[0])
