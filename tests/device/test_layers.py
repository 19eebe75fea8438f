"""The layer-file store: packages that are mounted, with a writable layer on top, from installation to their leave."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from apps import app, installation, is_locked, stored, uninstallation, without_gpgv, without_place
from setups import (STAYING, STORE, UNITS, UNITS_FAILED, Put, codes, configured, outside, program, show, store_app,
                    under_the_mounts, velkctl, verify, workshop)
from store_support import LAYERS, allow_unsigned
from velkdevice.device import Device

DATA = Path(__file__).resolve().parents[1] / "data" / "units"
CONTENTS = "opt-packages-_layers-Sample-lower.mount"
OVERLAY = "usr-local-packages-Sample.mount"
SCRIPT = "#!/bin/sh\nid -un >localdata/{0}\n"
WHERE = "internal_vlpfs"


@pytest.fixture
def layered(workshop: Device, unsigned_allowed: None) -> Iterator[Device]:
    """The device, which lets applications into this store; Sample is gone before its settings are as they were."""
    yield workshop
    if workshop.exists(f"{STORE}/Sample"):
        workshop.velkctl("uninstall", "Sample")
    workshop.sh(f"systemctl reset-failed {CONTENTS} {OVERLAY} 2>/dev/null")


def layered_app(**settings: Any) -> dict[str, Any]:
    """A service with pages, a file of its own, and scripts of which the archive makes no programs."""
    files = configured(httpConfig=[{"type": "directory", "access": "viewer"}])
    files["manifest.json"]["velkPackageConf"]["setup"].update(runMode="respawn", **settings)
    files = uninstallation(installation(files, postInstallScript="after.sh"), preUninstallScript="sub/before.sh")
    return files | {
        "after.sh": (SCRIPT.format("after"), 0o644), "sub/before.sh": (SCRIPT.format("before"), 0o644),
        "sub/other.sh": (SCRIPT.format("other"), 0o644), "sub/tool": "#!/bin/sh\n", "html/sub/page.html": "deep\n",
    }  # fmt: skip


def without_links(log: str) -> str:
    """A log without what systemd tells of the links that it makes for the mounts."""
    return "".join(line for line in log.splitlines(keepends=True) if not line.startswith("Created symlink "))


def install(device: Device, put_package: Put, files: dict[str, Any]) -> tuple[int, str]:
    result = device.velkctl("install", put_package(device, files), WHERE)
    assert without_gpgv(result.stdout) == ""
    return result.status, without_links(without_place(result.stderr))


INSTALLED = (0, f"Successfully installed application 'Sample' on '{WHERE}'\n")


def ids(device: Device) -> dict[str, str]:
    """The numbers that stand in the expected files, and what they are on the device."""
    script = "id -u velk-sample; getent group admin www | cut -d: -f3"
    return dict(zip(("991", "4", "33"), device.sh(script).check().stdout.split()))


def expected_contents(device: Device) -> str:
    text = (DATA / "layer-contents-scripts.mount").read_text(encoding="utf-8")
    for path, group in (("/", "4"), ("/LICENSE", "4"), ("/html", "33")):
        text = text.replace(f"{path}:991:{group}", f"{path}:{ids(device)['991']}:{ids(device)[group]}")
    return text


def is_running(device: Device) -> bool:
    return device.run(["systemctl", "is-active", "sdkSample"]).stdout == "active\n"


def mounted(device: Device) -> list[str]:
    """What stands at the application's two mount points: type and options that matter."""
    script = 'for path; do findmnt -n -o FSTYPE,VFS-OPTIONS "$path" || echo none; done'
    lines = device.sh(script, f"{LAYERS}/Sample/lower", f"{STORE}/Sample").stdout.splitlines()
    return [" ".join([line.split()[0], *line.split()[1].split(",")[:1]]) if " " in line else line for line in lines]


def test_an_application_installs_runs_and_leaves(layered: Device, put_package: Put) -> None:
    assert install(layered, put_package, layered_app()) == INSTALLED
    assert layered.read(f"{UNITS}/{CONTENTS}") == expected_contents(layered)
    assert layered.read(f"{UNITS}/{OVERLAY}") == (DATA / "layer-overlay.mount").read_text(encoding="utf-8")
    service = layered.read(f"{UNITS}/sdkSample.service")
    assert f"\nRequires=velk-pre.target\nRequiresMountsFor={STORE}/Sample\n\n[Service]\n" in service
    result = verify(layered, CONTENTS, OVERLAY, "sdkSample.service")
    assert (result.status, result.stderr) == (0, "")
    assert mounted(layered) == ["tmpfs ro", "overlay rw"]
    assert show(layered, CONTENTS, "ActiveState", "UnitFileState") == ["active", "enabled"]
    assert velkctl(layered, "start", "Sample") == (0, "Started application Sample\n")
    assert is_running(layered)
    [listed] = json.loads(layered.velkctl("list").check().stdout)
    assert (listed["appName"], listed["status"], listed["fullyInstalled"]) == ("Sample", "Running", "Yes")
    assert velkctl(layered, "uninstall", "Sample") == (0, "Successfully uninstalled application 'Sample'\n")
    assert not layered.exists(f"{LAYERS}/Sample")


def test_the_mount_options_show_on_every_path(layered: Device, put_package: Put) -> None:
    assert install(layered, put_package, layered_app()) == INSTALLED
    script = """cd "$1" && stat -c '%n %a %U:%G' . LICENSE html html/index.html html/sub html/sub/page.html \\
        Sample after.sh sub sub/before.sh sub/other.sh sub/tool manifest.json"""
    owner = "velk-sample:admin"
    assert layered.sh(script, f"{LAYERS}/Sample/lower").check().stdout.splitlines() == [
        f". 755 {owner}", f"LICENSE 640 {owner}", "html 751 velk-sample:www", "html/index.html 640 velk-sample:www",
        "html/sub 751 velk-sample:www", "html/sub/page.html 640 velk-sample:www", f"Sample 755 {owner}",
        f"after.sh 755 {owner}", f"sub 755 {owner}", f"sub/before.sh 755 {owner}", f"sub/other.sh 644 {owner}",
        f"sub/tool 755 {owner}", f"manifest.json 644 {owner}"]  # fmt: skip
    # What is changed goes to the upper layer; the system's own control files lie there from the import on.
    assert layered.sh(script, f"{STORE}/Sample").check().stdout.splitlines()[-1] == "manifest.json 444 root:root"
    assert layered.read(f"{LAYERS}/Sample/upper/localdata/after") == "velk-sample\n"
    assert layered.sh(f"touch {LAYERS}/Sample/lower/x").status != 0


def test_setup_leaves_modes_and_groups_of_pages_as_they_are(layered: Device, put_package: Put) -> None:
    """Those of the package come from the mount, and what the application has made of pages in its layer is its own."""
    assert install(layered, put_package, layered_app()) == INSTALLED
    layered.velkctl("teardown", "--persist-user", "Sample").check()
    script = """
        cd "$1/html" 2>/dev/null || mkdir "$1/html" && cd "$1/html" && mkdir -p made sub && rm -f LICENSE
        echo made >own.html && echo made >made/own.html && echo made >sub/own.html
        chown -R velk-sample:viewer . && chmod 0700 made && chmod 0715 sub && chmod 0604 own.html */own.html
    """
    layered.sh(script, f"{LAYERS}/Sample/upper").check()
    look = f"cd {STORE}/Sample/html && stat -c '%n %a %G' made sub own.html made/own.html sub/own.html"
    assert velkctl(layered, "setup", "Sample")[0] == 0
    assert layered.sh(look).check().stdout.splitlines() == [
        "made 700 viewer", "sub 715 viewer", "own.html 604 viewer", "made/own.html 604 viewer",
        "sub/own.html 604 viewer"]  # fmt: skip


def test_its_pages_are_served(layered: Device, put_package: Put) -> None:
    assert install(layered, put_package, layered_app()) == INSTALLED
    allowed = ["401", "200", "200", "200"]
    layered.wait_for(lambda: codes(layered, "/local/Sample/index.html") == allowed, "the new rules")
    assert codes(layered, "/local/Sample/sub/page.html") == allowed
    layered.velkctl("teardown", "Sample").check()
    gone = ["401", "404", "404", "404"]
    layered.wait_for(lambda: codes(layered, "/local/Sample/index.html") == gone, "the pages to be gone")


def test_setup_and_teardown_are_inverse(layered: Device, put_package: Put) -> None:
    store_app(layered, put_package, layered_app(), WHERE)
    before = layered_outside(layered)
    assert velkctl(layered, "setup", "Sample")[0] == 0
    assert velkctl(layered, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert layered_outside(layered) == before
    assert layered.read(f"{LAYERS}/Sample/upper/localdata/before") == "velk-sample\n"
    assert layered.run(["readlink", f"{STORE}/Sample"]).stdout == f"{LAYERS}/Sample/upper\n"
    assert velkctl(layered, "setup", "Sample")[0] == 0


def layered_outside(device: Device) -> list[str]:
    """
    As `outside`, without the application's layers, which keep what it wrote.

    systemd remembers of a mount that it failed until it is told to forget, which nothing does on the device.
    """
    device.sh(f"systemctl reset-failed {CONTENTS} {OVERLAY} 2>/dev/null")
    return [line for line in outside(device, "Sample") if f": {LAYERS}/Sample/" not in line] + device.sh(
        f"ls -ld {STORE}/Sample | cut -d' ' -f1,3,4").stdout.splitlines()  # fmt: skip


def test_an_upgrade_keeps_data(layered: Device, put_package: Put) -> None:
    assert install(layered, put_package, layered_app()) == INSTALLED
    layered.sh(f"echo kept >{STORE}/Sample/localdata/note").check()
    assert install(layered, put_package, layered_app(version="2.0.0")) == INSTALLED
    assert layered.velkctl("list", "--version", "Sample").stdout == "2.0.0"
    assert layered.read(f"{STORE}/Sample/localdata/note") == "kept\n"
    assert mounted(layered) == ["tmpfs ro", "overlay rw"]


def test_a_package_of_the_firmware_is_mounted_where_it_is(
    layered: Device, make_package: Callable[..., Path]
) -> None:
    """It stays in the firmware, its signature behind its archive, and the layer is a link to it."""
    path = "/usr/share/packages/Sample.vlp"
    for compress in (True, False):
        layered.copy_in(make_package(layered_app(), compress=compress), path)
        layered.write(f"{path}.json", '{"signed": true}')
        status, log = velkctl(layered, "install", path, WHERE)
        assert (status, without_links(log)) == INSTALLED
        assert layered.run(["readlink", f"{LAYERS}/Sample/lower.vlp"]).stdout == f"{path}\n"
        assert layered.read(f"{STORE}/Sample/html/sub/page.html") == "deep\n"
        assert velkctl(layered, "uninstall", "Sample")[0] == 0
        assert layered.exists(path)
        layered.sh(f"rm {path} {path}.json").check()


def test_it_runs_again_after_a_reboot(fresh_device: Device, put_package: Put) -> None:
    device = fresh_device
    allow_unsigned(device)
    assert install(device, put_package, layered_app()) == INSTALLED
    device.velkctl("start", "Sample").check()
    device.sh(f"echo kept >{STORE}/Sample/localdata/note").check()
    before = device.sh(f"cd {STORE}/Sample; find . -printf '%p %y %m %U:%G\\n' | sort").check().stdout
    device.reboot()
    device.wait_for(lambda: is_running(device), "the application")
    assert mounted(device) == ["tmpfs ro", "overlay rw"]
    assert device.read(f"{STORE}/Sample/localdata/note") == "kept\n"
    assert device.sh(f"cd {STORE}/Sample; find . -printf '%p %y %m %U:%G\\n' | sort").check().stdout == before
    # A first boot finds no link in the store; here the application itself stands there.
    result = device.velkctl("re-import")
    assert (result.status, without_place(result.stderr).splitlines()[-1]) == (
        10, "code 10: src/store/velkctl-re-import.cpp: Failed re-importing Sample: src/system/file.cpp: Failed to remove "
        f"non-empty directory {STORE}/Sample: Device or resource busy")  # fmt: skip
    assert is_running(device)
    assert velkctl(device, "uninstall", "Sample")[0] == 0


# What a new firmware brings along is a pristine system configuration and an empty store; the layers' disk stays.
FIRST_BOOT = f"""
    set -e
    systemctl stop sdkSample.service {OVERLAY} {CONTENTS}
    rm -rf {UNITS}/sdkSample.service* {UNITS}/{OVERLAY} {UNITS}/{CONTENTS} {UNITS}/*.wants/*Sample*
    rm -rf /etc/apache2/conf.d/vhosts/all/* /etc/dbus-1/system.d/Sample.conf /etc/dynamic/* /etc/velk/vsf/*
    rm -rf /usr/html/local/* {STORE}/*
    userdel velk-sample
"""


def test_it_is_found_again_on_a_first_boot(fresh_device: Device, put_package: Put) -> None:
    device = fresh_device
    allow_unsigned(device)
    before = outside(device, "Sample")
    assert install(device, put_package, layered_app()) == INSTALLED
    device.velkctl("start", "Sample").check()
    device.sh(f"echo kept >{STORE}/Sample/localdata/note").check()
    device.sh(FIRST_BOOT).check()
    device.reboot()
    device.settle()
    assert stored(device) == []
    assert velkctl(device, "re-import") == (
        0, "Re-imported vlp mount symlink for Sample\nRe-imported vlp mount symlinks\n")  # fmt: skip
    assert device.run(["readlink", f"{STORE}/Sample"]).stdout == f"{LAYERS}/Sample/upper\n"
    status, log = velkctl(device, "setup", "Sample")
    assert (status, without_links(log)) == (0, "Successfully set up application Sample\n")
    assert velkctl(device, "start", "Sample") == (0, "Started application Sample\n")
    assert is_running(device)
    assert device.read(f"{STORE}/Sample/localdata/note") == "kept\n"
    assert velkctl(device, "uninstall", "Sample") == (0, "Successfully uninstalled application 'Sample'\n")
    left = [line for line in outside(device, "Sample") if line not in before]
    assert [line for line in left if "Sample" in line or "sample" in line] == []


# --- when something fails ---

BROKEN_LAYER = f"chmod u+w {LAYERS}/Sample/lower.vlp; echo 'no package' >{LAYERS}/Sample/lower.vlp"
FAILURES = [
    ("the package is missing", f"rm {LAYERS}/Sample/lower.vlp",
     f"code 10: src/system/file.cpp: Path not found: {LAYERS}/Sample/lower.vlp\n"),
    ("the package cannot be mounted", BROKEN_LAYER,
     f"code 10: src/system/subprocess.cpp: Failed running \"systemctl enable --now '{CONTENTS}' '{OVERLAY}'\""),
    ("the place of the contents is a link", f"ln -s /etc {LAYERS}/Sample/lower",
     f"code 1: Attempt to use reserved directory '{LAYERS}/Sample/lower' as a symlink\n"),
    ("the place of the work is a file", f"touch {LAYERS}/Sample/work",
     f"code 10: src/system/subprocess.cpp: Failed running \"systemctl enable --now '{CONTENTS}' '{OVERLAY}'\""),
]  # fmt: skip


@pytest.mark.parametrize(("fault", "log"), [each[1:] for each in FAILURES], ids=[each[0] for each in FAILURES])
def test_contents_that_cannot_be_mounted_leave_nothing(
    layered: Device, put_package: Put, fault: str, log: str
) -> None:
    """The user that was made for it goes as well, though the contents with the manifest never came up."""
    store_app(layered, put_package, app(), WHERE)
    layered.sh(fault).check()
    before = layered_outside(layered)
    status, told = velkctl(layered, "setup", "Sample")
    assert (status, told.splitlines(keepends=True)[-1][: len(log)]) == (int(log.split()[1][:-1]), log)
    assert layered.run(["id", "velk-sample"]).status == 1
    assert layered_outside(layered) == before
    assert not is_locked(layered)


def test_a_failed_installation_leaves_nothing(layered: Device, put_package: Put) -> None:
    path = put_package(layered, app())
    with program(layered, "systemctl", '[ "$1" = enable ] && exit 3\nexec "$REAL" "$@"\n') as env:
        result = layered.velkctl("install", path, WHERE, env=env)
    assert result.status == 10
    assert "Failed running \"systemctl enable --now" in result.stderr.splitlines()[-1]
    assert stored(layered) == []
    assert layered.run(["id", "velk-sample"]).status == 1
    assert not layered.exists(f"{UNITS}/{OVERLAY}")
    assert not layered.exists(f"{LAYERS}/Sample")
    assert not is_locked(layered)


def test_what_is_not_mounted_any_more_is_torn_down_whole(layered: Device, put_package: Put) -> None:
    store_app(layered, put_package, app(), WHERE)
    before = layered_outside(layered)
    layered.velkctl("setup", "Sample").check()
    layered.sh(f"systemctl stop {OVERLAY} {CONTENTS}").check()
    assert velkctl(layered, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert layered_outside(layered) == before


def test_a_directory_that_hides_a_file_under_its_mount_stays(layered: Device, put_package: Put) -> None:
    store_app(layered, put_package, app(), WHERE)
    layered.velkctl("setup", "Sample").check()
    with under_the_mounts(layered) as store:
        layered.sh(f"echo mine >{store}/Sample/hidden").check()
    found = velkctl(layered, "teardown", "Sample")
    hidden = layered.read(f"{STORE}/Sample/hidden")
    layered.sh(f"cd {STORE} && rm Sample/hidden && rmdir Sample && ln -s {LAYERS}/Sample/upper Sample").check()
    assert (found, hidden) == ((10, STAYING + UNITS_FAILED), "mine\n")


def test_a_busy_mount_is_detached(layered: Device, put_package: Put) -> None:
    store_app(layered, put_package, app(), WHERE)
    before = layered_outside(layered)
    layered.velkctl("setup", "Sample").check()
    holder, told = layered.start(["sh", "-c", f"cd {STORE}/Sample && echo there && exec sleep 4713"])
    try:
        assert holder.stdout and holder.stdout.readline() == b"there\n"
        status, log = velkctl(layered, "teardown", "Sample")
        assert (status, log.splitlines()[-2:]) == (
            0, [f"Unmount of {STORE}/Sample failed, will try with lazy flag", "Successfully tore down application Sample"])
        assert mounted(layered) == ["none", "none"]
    finally:
        holder.kill()
        holder.communicate()
        told()
    assert layered_outside(layered) == before
