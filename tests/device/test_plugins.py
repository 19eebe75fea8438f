"""Plug-ins: what they are told at which step, and what becomes of an application that one of them refuses."""

from __future__ import annotations

import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from apps import app, is_locked
from setups import UNITS, Put, outside, set_up, store_app, velkctl, workshop
from velkdevice.device import Device

PLUGINS = "/usr/lib/velkctl/plugins"

# Records its calls, and refuses the function that the file /run/plugin-refuses names.
SOURCE = r"""
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <jansson.h>

int velkctl_plugin(const char* function, const json_t* manifest, const char* user, char* message, size_t size) {
    const json_t* setup = json_object_get(json_object_get(manifest, "velkPackageConf"), "setup");
    const char* app = json_string_value(json_object_get(setup, "appName"));
    FILE* calls = fopen("/run/plugin-calls", "a");
    fprintf(calls, NAME " %s %s %s %d\n", function, app, user, access("/etc/systemd/system/sdkSample.service", 0) == 0);
    fclose(calls);
    char refused[32] = "";
    FILE* file = fopen("/run/plugin-refuses", "r");
    if (file) {
        if (fscanf(file, "%31s", refused) != 1)
            refused[0] = 0;
        fclose(file);
    }
    if (strcmp(refused, function) != 0)
        return 0;
    snprintf(message, size, "no %s today", function);
    return 42;
}
"""


@pytest.fixture
def plugged(workshop: Device, tmp_path: Path) -> Iterator[Device]:
    """The device with two plug-ins, of which only their names differ."""
    (tmp_path / "plugin.c").write_text(SOURCE, encoding="utf-8")
    workshop.sh(f"mkdir -p {PLUGINS}").check()
    for name in ("b", "a"):
        library = tmp_path / f"{name}.so"
        subprocess.run(["cc", "-shared", "-fPIC", "-Wall", "-Werror", f'-DNAME="{name}"', "-o", library,
                        tmp_path / "plugin.c", "-ljansson"], check=True)  # fmt: skip
        workshop.copy_in(library, f"{PLUGINS}/{name}.so")
    yield workshop
    workshop.sh(f"rm -f {PLUGINS}/*.so /run/plugin-*").check()
    if workshop.exists("/usr/local/packages/Sample"):
        workshop.velkctl("uninstall", "Sample").check()


def calls(device: Device) -> list[str]:
    """What they were told since the last look."""
    text = device.read("/run/plugin-calls") if device.exists("/run/plugin-calls") else ""
    device.sh("rm -f /run/plugin-calls").check()
    return text.splitlines()


def told(function: str, unit_exists: int, names: str = "ab") -> list[str]:
    return [f"{name} {function} Sample velk-sample {unit_exists}" for name in names]


def test_each_is_told_in_the_order_of_names(plugged: Device, put_package: Put) -> None:
    set_up(plugged, put_package, app())
    assert calls(plugged) == told("validate", 0) + told("config", 1)
    assert velkctl(plugged, "teardown", "Sample")[0] == 0
    assert calls(plugged) == told("remove", 1)


@pytest.mark.parametrize("function", ["validate", "config"])
def test_a_refusal_undoes_the_setup(plugged: Device, put_package: Put, function: str) -> None:
    store_app(plugged, put_package, app())
    owners = "cd /usr/local/packages/Sample && find . -printf '%p %U:%G\\n' | sort"
    files = plugged.sh(owners).check().stdout
    before = outside(plugged, "Sample")
    plugged.write("/run/plugin-refuses", function)
    assert velkctl(plugged, "setup", "Sample") == (
        10, f"code 10: Problem calling VELK plugin function {function}. Error code was 42: a.so: no {function} today\n")
    plugged.sh("rm /run/plugin-refuses").check()
    made = told("validate", 0, "a") if function == "validate" else told("validate", 0) + told("config", 1, "a")
    assert calls(plugged) == made + told("remove", int(function == "config"))
    assert outside(plugged, "Sample") == before
    assert not is_locked(plugged)
    if function == "validate":
        assert plugged.sh(owners).check().stdout == files


def test_a_refused_removal_is_a_warning_and_a_failure(plugged: Device, put_package: Put) -> None:
    set_up(plugged, put_package, app())
    plugged.write("/run/plugin-refuses", "remove")
    assert velkctl(plugged, "teardown", "Sample") == (
        10, "Failed to run remove for plugins during teardown of Sample: Problem calling VELK plugin function remove. "
        "Error code was 42: a.so: no remove today\n"
        "code 10: src/integration/velkctl-teardown.cpp: Failure during teardown of Sample\n")  # fmt: skip
    assert not plugged.exists(f"{UNITS}/sdkSample.service")


def test_what_is_no_plug_in(plugged: Device, put_package: Put) -> None:
    store_app(plugged, put_package, app())
    plugged.write(f"{PLUGINS}/Broken.so", "no library")
    status, text = velkctl(plugged, "setup", "Sample")
    assert status == 10
    assert "Problem calling VELK plugin function validate. Error code was 10: " in text
    assert calls(plugged) == []
