"""A script is a file of the application itself: what is a link, or lies behind one, is not run."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest
from apps import app, installation, uninstallation
from setups import STORE, Put, outside, section, store_app, velkctl, workshop
from store_support import LAYERS
from test_layers import WHERE, layered
from velkdevice.device import Device

SAMPLE = f"{STORE}/Sample"
WITNESS = "/tmp/witness"
SCRIPT = f"#!/bin/sh\nid -un >>{WITNESS}\n"
LEADS_OUT = "Path {0}/{1} is outside of application directory {0}"
# How a link comes into the directory "$1", the script's name then, and what is said of it by setup and by the runner.
OPERATIONS = ("Failed setting permissions for", "Failed to stat")
INSIDE = "src/system/area.cpp: {2} {0}/{1}: Too many levels of symbolic links"
LINKS = {
    "a link out": ('ln -sf /tmp/foreign/run.sh "$1/run.sh"', "run.sh", 1, LEADS_OUT),
    "a relative link out": ('ln -sf ../../../../../../../tmp/foreign/run.sh "$1/run.sh"', "run.sh", 1, LEADS_OUT),
    "a linked directory": ('rm -r "$1/sub"; ln -s /tmp/foreign "$1/sub"', "sub/run.sh", 1, LEADS_OUT),
    "a link inside": ('mv "$1/run.sh" "$1/own.sh"; ln -s own.sh "$1/run.sh"', "run.sh", 10, INSIDE),
    "a linked directory inside": ('mv "$1/sub" "$1/own"; ln -s own "$1/sub"', "sub/run.sh", 10, INSIDE),
}  # fmt: skip


@pytest.fixture
def camera(workshop: Device) -> Iterator[Device]:
    """The device with a script of somebody else's on it."""
    workshop.write("/tmp/foreign/run.sh", SCRIPT, mode=0o755)
    yield workshop
    if workshop.exists(SAMPLE):  # whose script may run once more
        workshop.velkctl("uninstall", "Sample")
    workshop.sh(f"rm -rf /tmp/foreign {WITNESS}").check()


def scripted(place: Any, name: str) -> dict[str, Any]:
    key = "postInstallScript" if place is installation else "preUninstallScript"
    return place(app(), **{key: name}) | {"run.sh": (SCRIPT, 0o755), "sub/run.sh": (SCRIPT, 0o755)}


@pytest.mark.parametrize("name", LINKS)
@pytest.mark.parametrize("place", [installation, uninstallation])
def test_setup_refuses_a_script_behind_a_link(camera: Device, put_package: Put, place: Any, name: str) -> None:
    arrange, script, code, log = LINKS[name]
    store_app(camera, put_package, scripted(place, script))
    camera.sh(arrange, SAMPLE).check()
    before = outside(camera, "Sample")
    status, told = velkctl(camera, "setup", "Sample")
    assert (status, told.splitlines()[-1]) == (code, f"code {code}: " + log.format(SAMPLE, script, OPERATIONS[0]))
    assert not camera.exists(WITNESS)
    assert outside(camera, "Sample") == before


def refused(log: str, script: str) -> str:
    reason = log.format(SAMPLE, script, OPERATIONS[1])
    return (f"Failed to run pre-uninstall script during teardown of Sample: {reason}\n"
            "code 10: src/integration/velkctl-teardown.cpp: Failure during teardown of Sample\n")  # fmt: skip


@pytest.mark.parametrize("name", LINKS)
def test_teardown_runs_no_script_behind_a_link(camera: Device, put_package: Put, name: str) -> None:
    """The application has put the link there since."""
    arrange, script, _, log = LINKS[name]
    store_app(camera, put_package, scripted(uninstallation, script))
    before = outside(camera, "Sample")
    camera.velkctl("setup", "Sample").check()
    camera.sh(arrange, SAMPLE).check()
    assert velkctl(camera, "teardown", "Sample") == (10, refused(log, script))
    assert not camera.exists(WITNESS)
    assert outside(camera, "Sample") == before


@pytest.mark.parametrize("name", ["a link out", "a linked directory inside"])
def test_the_layer_store_runs_no_script_behind_a_link(
    layered: Device, camera: Device, put_package: Put, name: str
) -> None:
    """The application has put the link into its writable layer, in which the next setup finds it too."""
    arrange, script, code, log = LINKS[name]
    files = scripted(uninstallation, script)
    store_app(camera, put_package, installation(files, postInstallScript=script), WHERE)
    camera.velkctl("setup", "Sample").check()
    assert camera.read(WITNESS) == "velk-sample\n"
    camera.sh(arrange, SAMPLE).check()
    _, told = velkctl(camera, "teardown", "Sample")
    assert refused(log, script).splitlines()[0] in told.splitlines()
    assert camera.exists(f"{LAYERS}/Sample/upper/{script.split('/')[0]}")
    status, told = velkctl(camera, "setup", "Sample")
    assert (status, told.splitlines()[-1]) == (code, f"code {code}: " + log.format(SAMPLE, script, OPERATIONS[1]))
    assert camera.read(WITNESS) == "velk-sample\n"


def test_a_script_that_goes_is_still_told_as_missing(camera: Device, put_package: Put) -> None:
    store_app(camera, put_package, scripted(uninstallation, "run.sh"))
    camera.velkctl("setup", "Sample").check()
    camera.sh(f"rm {SAMPLE}/run.sh").check()
    assert velkctl(camera, "teardown", "Sample")[1].splitlines()[0] == (
        "Failed to run pre-uninstall script during teardown of Sample: The manifest lists an install script, "
        "'run.sh', but the file is missing.")  # fmt: skip


# --- whose script it is ---

HOST = "velkPackageConf.configuration.containers"
AMEND_LIST = "/usr/share/velk/valid-users-groups.d/amend-list"
# Gives the application in the directory "$1" the name "$2".
RENAME = """
    cd "$1" && chattr -i manifest.json
    sed -i "s|\\"Sample\\"|\\"$2\\"|" manifest.json && chmod 0444 manifest.json
"""
DONE = "Successfully tore down application Sample\n"


@pytest.mark.parametrize("name", ["Sam ple", "../Sample", "", "Other"])
def test_a_user_of_its_own_is_not_told_by_the_name_in_the_manifest(camera: Device, put_package: Put, name: str) -> None:
    store_app(camera, put_package, section(scripted(uninstallation, "run.sh"), HOST, {"containerHost": True}))
    before = outside(camera, "Sample")
    camera.velkctl("setup", "Sample").check()
    assert camera.read("/etc/subuid") != ""
    camera.sh(RENAME, SAMPLE, name).check()
    camera.sh('grep -q "\\"appName\\": *\\"$2\\"" "$1/manifest.json"', SAMPLE, name).check()
    assert velkctl(camera, "teardown", "Sample") == (0, DONE)
    assert camera.read(WITNESS) == "velk-sample\n"
    assert camera.read("/etc/subuid") == camera.read("/etc/subgid") == ""
    camera.sh(f"rm {WITNESS}").check()
    assert outside(camera, "Sample") == before


def of_sdk(user: str = "sdk") -> dict[str, Any]:
    files = section(scripted(uninstallation, "run.sh"), "velkPackageConf.setup.user", {"username": user, "group": user})
    return section(files, HOST, {"containerHost": True})


REFUSAL = "Sample: User '{0}' or Group '{0}' is not in Allowlist\n"


def test_a_user_that_is_denied_later_is_told_once(camera: Device, put_package: Put) -> None:
    store_app(camera, put_package, of_sdk())
    camera.velkctl("setup", "Sample").check()
    camera.write(AMEND_LIST, "DenyUsers sdk\n")
    told = velkctl(camera, "teardown", "Sample")
    camera.write(AMEND_LIST, "")
    assert told == (0, REFUSAL.format("sdk") + DONE)
    assert not camera.exists(WITNESS)


def test_a_refused_user_is_told_once(camera: Device, put_package: Put) -> None:
    """As a warning, and as what the command ends with."""
    store_app(camera, put_package, of_sdk("root"))
    assert velkctl(camera, "setup", "Sample") == (13, REFUSAL.format("root") + "code 13: " + REFUSAL.format("root"))
    assert not camera.exists(WITNESS)


def test_a_static_user_is_not_told_by_the_name_in_the_manifest(camera: Device, put_package: Put) -> None:
    store_app(camera, put_package, of_sdk())
    camera.velkctl("setup", "Sample").check()
    camera.sh(RENAME, SAMPLE, "a b").check()
    assert velkctl(camera, "teardown", "Sample")[0] == 0
    assert camera.read(WITNESS) == "sdk\n"
