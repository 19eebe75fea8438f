"""The .deb packages on a device: installed, upgraded, removed, purged; and the unit for the first boot.

Needs the packages that `./dev package` makes; without them there is nothing to test.
"""

from __future__ import annotations

import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from store_support import allow_unsigned
from velkdevice import package
from velkdevice.device import Device

CHECKOUT = Path(__file__).resolve().parents[2]
MADE = CHECKOUT / "build" / "package"
UNIT = "velkctl-re-import.service"
# What the package manager itself writes beside a package's files.
NOTES = ("/var/lib/dpkg/", "/usr/share/doc/", "/var/lib/systemd/deb-systemd-helper-")
# What the packages put where; of the kit the first and the last of many.
EXPECTED = {
    "velkctl": {
        "/usr/sbin/velkctl",
        "/usr/share/velkctl/manifest.schema.json",
        "/usr/share/man/man8/velkctl.8.gz",
        "/usr/share/bash-completion/completions/velkctl",
        "/usr/share/zsh/vendor-completions/_velkctl",
        "/usr/share/fish/vendor_completions.d/velkctl.fish",
        f"/usr/lib/systemd/system/{UNIT}",
    },
    "velk-pack": {
        "/usr/bin/velk-pack",
        "/usr/share/man/man1/velk-pack.1.gz",
        "/usr/share/man/man5/velk-manifest.5.gz",
        "/usr/share/man/man5/vlp.5.gz",
        "/usr/share/bash-completion/completions/velk-pack",
        "/usr/share/zsh/vendor-completions/_velk-pack",
        "/usr/share/fish/vendor_completions.d/velk-pack.fish",
    },
    "velk-device-kit": {
        "/usr/sbin/velk-device",
        "/usr/share/man/man8/velk-device.8.gz",
        "/usr/share/velk-device-kit/device/device",
        "/usr/share/velk-device-kit/device/kit/velkdevice/device.py",
        "/usr/share/velk-device-kit/tests/device/stepper.c",
    },
}


@pytest.fixture(scope="module")
def debs() -> dict[str, Path]:
    found = {path.name.split("_")[0]: path for path in MADE.glob("*.deb") if "dbgsym" not in path.name}
    if set(EXPECTED) - set(found):
        pytest.skip("there are no packages; ./dev package makes them")
    return {name: found[name] for name in EXPECTED}


@pytest.fixture
def bare_device(boot_device: Callable[..., Device]) -> Device:
    """A device without a velkctl of its own."""
    device = boot_device()
    device.settle()
    device.run(["rm", "-f", "/usr/bin/velkctl"]).check()
    return device


def later(deb: Path, folder: Path) -> Path:
    """The same package as a later version."""
    tree = folder / deb.stem
    subprocess.run(["dpkg-deb", "--raw-extract", deb, tree], check=True)
    control = tree / "DEBIAN" / "control"
    text = control.read_text(encoding="utf-8")
    control.write_text(text.replace("\nVersion: 1.0.0\n", "\nVersion: 1.0.0+1\n"), encoding="utf-8")
    target = folder / f"{deb.stem}-later.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "--build", tree, target], check=True, capture_output=True)
    return target


def put(device: Device, deb: Path) -> str:
    path = f"/tmp/{deb.name}"
    device.copy_in(deb, path)
    return path


def dpkg(device: Device, *arguments: str) -> str:
    # What the packages need of a PC is not on a device; of velkctl, all of it is.
    result = device.run(["dpkg", *arguments], env={"DEBIAN_FRONTEND": "noninteractive"})
    assert result.status == 0, result.stdout + result.stderr
    return result.stdout


def files_of(device: Device) -> set[str]:
    """Every file and link that a package could have left."""
    places = ["/usr", "/etc", "/var/lib/systemd", "/var/cache"]
    found = device.run(["find", *places, "-xdev", "!", "-type", "d", "!", "-path", "/var/cache/man/*"]).stdout
    return set(found.splitlines())


def version_of(device: Device, name: str) -> str:
    return device.run(["dpkg-query", "-W", "-f", "${db:Status-Status} ${Version}", name]).stdout


@pytest.mark.parametrize("name", EXPECTED)
def test_a_package_is_installed_upgraded_removed_and_purged(
    bare_device: Device, debs: dict[str, Path], tmp_path: Path, name: str
) -> None:
    device = bare_device
    force = () if name == "velkctl" else ("--force-depends",)
    before = files_of(device)
    dpkg(device, *force, "-i", put(device, debs[name]))
    new = {path for path in files_of(device) - before if not path.startswith(NOTES)}
    assert EXPECTED[name] <= new
    if name != "velk-device-kit":
        assert new == EXPECTED[name]
    assert version_of(device, name) == "installed 1.0.0"
    dpkg(device, *force, "-i", put(device, later(debs[name], tmp_path)))
    assert version_of(device, name) == "installed 1.0.0+1"
    assert EXPECTED[name] <= files_of(device)
    if name == "velk-device-kit":
        device.write("/var/cache/velk-device-kit/image/x", "")
    dpkg(device, "-r", name)
    assert not EXPECTED[name] & files_of(device)
    assert device.exists("/var/cache/velk-device-kit/image/x") == (name == "velk-device-kit")
    dpkg(device, "-P", name)
    assert {path for path in files_of(device) - before if not path.startswith("/var/lib/dpkg/")} == set()
    assert version_of(device, name) in ("", "not-installed ")


def test_the_installed_programs_answer(bare_device: Device, debs: dict[str, Path]) -> None:
    dpkg(bare_device, "-i", put(bare_device, debs["velkctl"]))
    assert bare_device.run(["velkctl", "--version"]).stdout == "1.0.0\n"
    assert bare_device.run(["velkctl", "list"]).stdout == "[]"
    schema = "/usr/share/velkctl/manifest.schema.json"
    bare_device.copy_in(CHECKOUT / "examples" / "hello" / "manifest.json", "/tmp/manifest.json")
    assert bare_device.run(["velkctl", "json-validate", "/tmp/manifest.json", schema]).status == 0
    # Not enabled: that is for the firmware's maker to decide.
    assert bare_device.run(["systemctl", "is-enabled", UNIT]).stdout == "disabled\n"


def test_on_the_first_boot_applications_are_imported_again(
    bare_device: Device, debs: dict[str, Path], put_package: Callable[..., str]
) -> None:
    device = bare_device
    dpkg(device, "-i", put(device, debs["velkctl"]))
    assert device.run(["systemd-analyze", "--man=no", "verify", f"/usr/lib/systemd/system/{UNIT}"]).stderr == ""
    device.run(["systemctl", "enable", "--quiet", UNIT]).check()
    files = package.application("Again") | {"package.conf": 'APPNAME="Again"\n'}
    path = put_package(device, files)
    allow_unsigned(device)  # what lets applications into this store
    assert device.run(["velkctl", "import", path, "internal_vlpfs"]).status == 0
    # As a reset to the factory's state leaves it: the layers are there, the links to them are not.
    device.run(["rm", "/usr/local/packages/Again"]).check()
    device.write("/etc/machine-id", "uninitialized\n", 0o444)  # what makes a boot the first one
    device.reboot()
    device.settle()
    assert device.run(["systemctl", "show", "-p", "ConditionResult,Result", UNIT]).stdout == (
        "Result=success\nConditionResult=yes\n"
    )
    assert device.exists("/usr/local/packages/Again")
    # The next boot is no first one.
    device.reboot()
    assert device.run(["systemctl", "show", "-p", "ConditionResult", UNIT]).stdout == "ConditionResult=no\n"
