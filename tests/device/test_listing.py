"""The listing of a store with everything in it: compared whole, and every output against its published schema."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from apps import app, configuration, without_place
from setups import STORE, Put, program
from store_support import CARD, LAYERS, STATES, allow_unsigned
from velkdevice import package
from velkdevice.device import Device

SCHEMAS = Path(__file__).resolve().parents[2] / "data"
CACHE = "/etc/velk/preinstalled/preinstalled-apps.json"
IMAGE = "/usr/share/packages"
KEPT_LEGACY = 'PACKAGENAME="Old one"\nAPPNAME=Legacy\nAPPMAJORVERSION=3\nAPPMINORVERSION=4\nAPPMICROVERSION=5\n'
CONFIRMED = json.dumps({"signature": "", "state": "confirmed"})


def put_manifest(device: Device, name: str, manifest: Any, signed: bool = False) -> None:
    """Put an application that consists of a manifest straight into the store."""
    text = manifest if isinstance(manifest, str) else json.dumps(manifest)
    device.write(f"{STORE}/{name}/manifest.json", text, 0o444)
    if signed:
        device.write(f"{STATES}/{name}", CONFIRMED)


def matches(device: Device, text: str, schema: str) -> None:
    """The text passes the schema of that name, as `json-validate` on the device sees it."""
    device.write("/tmp/schemas/input.json", text)
    device.write("/tmp/schemas/schema.json", (SCHEMAS / f"{schema}.schema.json").read_text(encoding="utf-8"))
    result = device.velkctl("json-validate", "/tmp/schemas/input.json", "/tmp/schemas/schema.json")
    device.sh("rm -r /tmp/schemas").check()
    assert (result.status, result.stderr) == (0, ""), text


# --- everything at once ---

ODD = {"velkPackageConf": {"setup": {"appName": "Odd one", "version": 7, "labels": {"a": [1, None]}, "vendor": False},
                           "configuration": {"settingPage": ["a", "b"]}},
       "resources": {"deepLearningProcessor": {"enabled": "true"}}}  # fmt: skip
NAMELESS = {"velkPackageConf": {"setup": {"version": "1.0.0", "friendlyName": "Nameless", "runMode": "never"},
                                "configuration": {"settingPage": "page.html"}}}  # fmt: skip
NUMBERED = {"velkPackageConf": {"setup": {"appName": 5, "vendorUrl": None}}}


@pytest.fixture
def full_store(pristine: Device, put_package: Put) -> Iterator[Device]:
    """The device with applications in every location, of every kind, whole and broken."""
    settings = pristine.read("/etc/velk/conf/packageparser.conf")
    allow_unsigned(pristine)
    pristine.insert_card()
    pristine.insert_card("SD_DISK2")
    pristine.velkctl("install", put_package(pristine, app("Inside", runMode="once", vendorId=None))).check()
    pristine.velkctl("start", "Inside").check()
    pristine.velkctl("install", put_package(pristine, app("Card"), sign=False), "sd_card1").check()
    pristine.velkctl("import", put_package(pristine, app("Card2")), "sd_card2").check()
    layered = configuration(app("Layer", labels=["one"]), settingPage="page.html")
    pristine.velkctl("import", put_package(pristine, layered, sign=False), "internal_vlpfs").check()
    pristine.write(f"{STORE}/Legacy/package.conf", KEPT_LEGACY)
    mode = package.manifest("developer_mode")
    mode["velkPackageConf"]["developerMode"] = {"vendorId": "tests", "deviceSerialNumber": "1"}
    put_manifest(pristine, "developer_mode", mode, signed=True)
    put_manifest(pristine, "Odd", ODD)
    put_manifest(pristine, "Nameless", NAMELESS, signed=True)
    put_manifest(pristine, "Numbered", NUMBERED)
    put_manifest(pristine, "Empty", {})
    put_manifest(pristine, "Unreadable", "{")
    pristine.sh(f"mkdir {STORE}/Nothing; ln -s /nowhere {STORE}/Dangling; : >{STORE}/file").check()
    yield pristine
    for name in ("Inside", "Card"):
        pristine.velkctl("uninstall", name).check()
    for name in ("Card2", "Layer"):
        pristine.velkctl("remove", name).check()
    made = ("Legacy", "developer_mode", "Odd", "Nameless", "Numbered", "Empty", "Unreadable", "Nothing", "Dangling", "file")
    for name in made:
        pristine.sh('rm -rf "$1" "$2"', f"{STORE}/{name}", f"{STATES}/{name}").check()
    pristine.remove_card()
    pristine.remove_card("SD_DISK2")
    pristine.write("/etc/velk/conf/packageparser.conf", settings)


def listed(name: str, **changes: Any) -> dict[str, Any]:
    return {
        "appName": name, "friendlyName": f"{name} of the tests", "vendor": "Tests", "version": "1.0.0",
        "status": "Stopped", "autostart": "Disabled", "bundled": "No", "fullyInstalled": "No",
        "resources": [{"deepLearningProcessor": "No"}], "developerMode": "No", "signatureStatus": "Unknown",
    } | changes  # fmt: skip


EVERYTHING = [
    listed("Card", fullyInstalled="Yes"),
    {},
    listed("Inside", status="Running", autostart="Enabled", fullyInstalled="Yes", signatureStatus="Signed"),
    {**dict(list(listed("Layer").items())[:4]), "labels": ["one"], **dict(list(listed("Layer").items())[4:]),
     "settingPage": "local/Layer/page.html"},
    {"friendlyName": "Nameless", "version": "1.0.0"},
    {"appName": 5, "vendorUrl": None},
    {"appName": "Odd one", "vendor": False, "version": 7, "labels": {"a": [1, None]}, "status": None, "bundled": "No",
     "fullyInstalled": "No", "resources": [{"deepLearningProcessor": "No"}], "developerMode": "No",
     "signatureStatus": "Unknown", "settingPage": ["a", "b"]},
    listed("developer_mode", developerMode="Yes", signatureStatus="Signed"),
]  # fmt: skip

# In the order of the names; an application without a name is not asked about, and told of.
LOG = """\
code 29: Could not read velkPackageConf from manifest
code 29: Could not read appName from manifest
code 29: Could not read from manifest - value is not string
code 10: src/system/systemctl.cpp: Failed running: systemctl is-active --quiet sdkOdd one.service
code 4: Application not found in store: Odd one
"""

MISSING = f"src/system/file.cpp: Path not found: {STORE}/{{}}/manifest.json"
UNLISTED = {
    "Unreadable": (29, "JSON error: string or '}' expected near end of file"),
    "Legacy": (29, MISSING.format("Legacy")), "Dangling": (29, MISSING.format("Dangling")),
}  # fmt: skip


def test_a_store_with_everything_in_it(full_store: Device) -> None:
    check_the_whole_listing(full_store)
    check_one_of_them_alone(full_store)
    check_the_sizes(full_store)
    check_that_a_failing_du_ends_the_sizes(full_store)


def check_the_whole_listing(full_store: Device) -> None:
    result = full_store.velkctl("list").check()
    assert result.stdout == json.dumps(EVERYTHING, indent=4, ensure_ascii=False)
    assert without_place(result.stderr) == LOG
    matches(full_store, result.stdout, "list")
    legacy = full_store.velkctl("list", "--legacy-apps").check()
    # Nor has what has no readable manifest and no package.conf a name here.
    assert legacy.stdout == '["Legacy"]'
    matches(full_store, legacy.stdout, "list-legacy-apps")
    for version, status in (("12.0", 0), ("13.0", 1)):
        answer = full_store.velkctl("firmware-compatibility", version)
        assert answer.status == status
        matches(full_store, answer.stdout, "firmware-compatibility")


def check_one_of_them_alone(full_store: Device) -> None:
    for expected, name in ((EVERYTHING[0], "Card"), (EVERYTHING[3], "Layer"), (EVERYTHING[4], "Nameless")):
        result = full_store.velkctl("list", name).check()
        assert result.stdout == json.dumps([expected], indent=4)
        matches(full_store, result.stdout, "list")
    # These are there, but what they are cannot be read.
    answers = {name: full_store.velkctl("list", name) for name in UNLISTED}
    told = {name: (result.status, result.stdout, without_place(result.stderr)) for name, result in answers.items()}
    assert told == {name: (code, "", f"code {code}: {text}\n") for name, (code, text) in UNLISTED.items()}


def check_the_sizes(full_store: Device) -> None:
    """All locations, in their order."""

    def kib(path: str) -> str:
        return full_store.sh('du -s "$1"', path).check().stdout.split("\t")[0]

    names = ["Empty", "Inside", "Legacy", "Nameless", "Nothing", "Numbered", "Odd", "Unreadable", "developer_mode"]
    # The mount point of the card's application, set up, is a directory in the root; it is kept on the card.
    paths = [f"{STORE}/{name}" for name in names] + [f"{CARD}/Card", CARD.replace("SD_DISK", "SD_DISK2") + "/Card2",
                                                    f"{LAYERS}/Layer"]  # fmt: skip
    wanted = "".join(f"{kib(path)}\t{path.rsplit('/', 1)[1]}\n" for path in paths)
    assert full_store.velkctl("list", "--format", "idd-size").check().stdout == wanted


def check_that_a_failing_du_ends_the_sizes(full_store: Device) -> None:
    with program(full_store, "du", 'case "$*" in *Layer*) exit 1 ;; esac\nexec "$REAL" "$@"\n') as env:
        result = full_store.velkctl("list", "--format=idd-size", env=env)
    assert (result.status, result.stdout) == (10, "")
    assert without_place(result.stderr).startswith(
        f"code 10: src/system/subprocess.cpp: Failed running \"du -s '{LAYERS}/Layer'\"")  # fmt: skip


# --- single values of what is not whole ---


@pytest.mark.parametrize(("conf", "friendly", "version"), [
    ("PACKAGENAME='A name'\nAPPMAJORVERSION=1\nAPPMINORVERSION=2\nAPPMICROVERSION=3\n", (0, "A name", ""), (0, "1.2-3", "")),
    ("APPNAME=Old\nAPPMAJORVERSION=1\nAPPMINORVERSION=2\n", (0, "Old", ""), (0, "1.2-0", "")),
    ("APPMAJORVERSION=1\nAPPMICROVERSION=3\n", (29, "", "well-formed"), (29, "", "well-formed"))])  # fmt: skip
def test_single_values_of_the_older_form(
    pristine: Device, conf: str, friendly: tuple[int, str, str], version: tuple[int, str, str]
) -> None:
    pristine.write(f"{STORE}/Old/package.conf", conf)
    for option, (status, text, said) in (("--friendly-name", friendly), ("--version", version)):
        result = pristine.velkctl("list", option, "Old")
        assert (result.status, result.stdout) == (status, text)
        wanted = "code 29: package.conf line does not contain a well-formed assignment\n" if said else ""
        assert result.stderr == wanted
    pristine.sh(f"rm -r {STORE}/Old").check()


def test_single_values_with_neither_manifest_nor_package_conf(pristine: Device) -> None:
    pristine.sh(f"mkdir {STORE}/Bare").check()
    for option in ("--friendly-name", "--version"):
        result = pristine.velkctl("list", option, "Bare")
        assert (result.status, result.stdout, without_place(result.stderr)) == (
            29, "", f"code 29: src/system/file.cpp: Path not found: {STORE}/Bare/manifest.json\n")  # fmt: skip
    pristine.sh(f"rmdir {STORE}/Bare").check()


def test_the_friendly_name_falls_back_to_the_name(pristine: Device) -> None:
    put_manifest(pristine, "Plain", package.manifest("Plain", friendlyName=None))
    assert pristine.velkctl("list", "--friendly-name", "Plain").check().stdout == "Plain"
    pristine.sh(f"rm -r {STORE}/Plain").check()


def test_a_manifest_without_a_version_has_none(pristine: Device) -> None:
    put_manifest(pristine, "Plain", package.manifest("Plain", version=None))
    result = pristine.velkctl("list", "--version", "Plain")
    assert (result.status, result.stdout, result.stderr) == (29, "", "code 29: Could not read version from manifest\n")
    pristine.sh(f"rm -r {STORE}/Plain").check()


# --- what the firmware ships ---


@pytest.fixture
def image(pristine: Device, make_package: Callable[..., Path]) -> Iterator[Device]:
    """The device with packages in its image: whole, of the older form, broken, and what is none."""
    kept = pristine.read(CACHE) if pristine.exists(CACHE) else None
    pristine.sh('rm -f "$1"', CACHE).check()
    old = {"package.conf": "APPNAME=Old\nAPPMAJORVERSION=3\nAPPMINORVERSION=4\n", "LICENSE": "x"}
    unversioned = app("Unversioned", version=None)
    for name, files in (("z", app("First")), ("a", app("Last", version="2.0.0")), ("m", old), ("n", unversioned)):
        pristine.copy_in(make_package(files, name=f"{name}.vlp"), f"{IMAGE}/{name}.vlp")
    pristine.write(f"{IMAGE}/broken.vlp", "no package")
    pristine.write(f"{IMAGE}/notes.txt", "no package")
    yield pristine
    pristine.sh(f'rm -f {IMAGE}/*.vlp {IMAGE}/notes.txt "$1"', CACHE).check()
    if kept is not None:
        pristine.write(CACHE, kept)


SHIPPED = [{"appName": "Last", "version": "2.0.0"}, {"appName": "Old", "version": "3.4-0"},
           {"appName": "First", "version": "1.0.0"}]  # fmt: skip


def test_broken_packages_are_warned_about_and_left_out(image: Device) -> None:
    result = image.velkctl("list", "--bundled-apps").check()
    assert result.stdout == json.dumps(SHIPPED, indent=2)
    assert image.read(CACHE) == result.stdout
    told = [line for line in result.stderr.splitlines() if line.startswith("Could not read package ")]
    assert told == ["Could not read package broken.vlp: Invalid application package",
                    "Could not read package n.vlp: Could not read version from manifest"]  # fmt: skip
    matches(image, result.stdout, "list-bundled-apps")
    # From now on the cache answers, whatever the image holds.
    image.sh(f"rm {IMAGE}/a.vlp").check()
    again = image.velkctl("list", "--bundled-apps")
    assert (again.stdout, again.stderr) == (result.stdout, "")


def test_a_cache_that_cannot_be_written_is_a_warning(image: Device) -> None:
    image.sh('d=$(dirname "$1"); [ ! -d "$d" ] || rmdir "$d"; : >"$d"', CACHE).check()
    result = image.velkctl("list", "--bundled-apps")
    image.sh('rm "$1"; mkdir "$1"', str(Path(CACHE).parent)).check()
    assert (result.status, result.stdout) == (0, json.dumps(SHIPPED, indent=2))
    assert "preinstalled" in result.stderr.splitlines()[-1]
    assert not image.exists(CACHE)


def test_without_an_image_directory_nothing_ships_and_nothing_is_kept(pristine: Device) -> None:
    kept = pristine.read(CACHE) if pristine.exists(CACHE) else None
    pristine.sh('rm -f "$1"; mv "$2" "$2.away"', CACHE, IMAGE).check()
    result = pristine.velkctl("list", "--bundled-apps")
    pristine.sh('mv "$1.away" "$1"', IMAGE).check()
    assert (result.status, result.stdout, result.stderr) == (0, "[]", f"Could not read {IMAGE}: No such file or directory\n")
    assert not pristine.exists(CACHE)
    matches(pristine, result.stdout, "list-bundled-apps")
    if kept is not None:
        pristine.write(CACHE, kept)


@pytest.mark.parametrize("text", ["", "{", "{}", "[1]", '[{"version": "1"}]', '"text"'])
def test_a_cache_that_is_no_list_bundles_nothing(pristine: Device, text: str) -> None:
    kept = pristine.read(CACHE) if pristine.exists(CACHE) else None
    pristine.write(CACHE, text)
    put_manifest(pristine, "Plain", package.manifest("Plain"), signed=True)
    result = pristine.velkctl("list").check()
    assert json.loads(result.stdout) == [listed("Plain", signatureStatus="Signed")]
    assert result.stderr.startswith(f"Could not parse preinstalled apps file {CACHE}: ")
    assert len(result.stderr.splitlines()) == 1
    pristine.sh('rm -r "$1" "$2" "$3"', f"{STORE}/Plain", f"{STATES}/Plain", CACHE).check()
    if kept is not None:
        pristine.write(CACHE, kept)


# --- the schemas themselves ---

WRONG = [
    ("list", [{"appName": "A"}]), ("list", [listed("A", status="running")]), ("list", [listed("A", extra=1)]),
    ("list", [{"friendlyName": "A", "bundled": "No"}]), ("list", {}), ("list", [listed("A", resources=[])]),
    ("list-legacy-apps", [1]), ("list-legacy-apps", ["A", "A"]), ("list-bundled-apps", [{"appName": "A"}]),
    ("list-bundled-apps", [{"appName": "A", "version": 1}]), ("firmware-compatibility", {"incompatible_apps": []}),
    ("firmware-compatibility", {"A": "reason"}), ("firmware-compatibility", []),
]  # fmt: skip


@pytest.mark.parametrize(("schema", "document"), WRONG)
def test_a_schema_refuses_what_is_not_printed(pristine: Device, schema: str, document: Any) -> None:
    pristine.write("/tmp/schemas/input.json", json.dumps(document))
    pristine.write("/tmp/schemas/schema.json", (SCHEMAS / f"{schema}.schema.json").read_text(encoding="utf-8"))
    result = pristine.velkctl("json-validate", "/tmp/schemas/input.json", "/tmp/schemas/schema.json")
    pristine.sh("rm -r /tmp/schemas").check()
    assert result.status == 10
    assert result.stderr.startswith("Validation failed - ")
