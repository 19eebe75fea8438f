"""install and uninstall as the operator uses them: the whole road, and everything that can go wrong on it."""

from __future__ import annotations

import json
from collections.abc import Callable
from pathlib import Path

import pytest
from apps import (LOCK, app, configuration, installation, is_locked, stored, uninstallation, without_gpgv,
                  without_place)
from velkdevice import package, snapshot
from velkdevice.device import Device

Put = Callable[..., str]

# A script that outlives its time-out of 2 s, with children of its own.
HANGING = "#!/bin/sh\nsleep 1000 &\n(sleep 1000; sleep 1000) &\nsleep 1000\n"
SETTINGS = "/etc/velk/conf/packageparser.conf"


def velkctl(device: Device, *arguments: str) -> tuple[int, str, str]:
    result = device.velkctl(*arguments)
    return result.status, without_gpgv(result.stdout), without_place(result.stderr)


def install_fails(device: Device, path: str, code: int, log: str) -> None:
    """Installing the package fails with exactly this, and nothing of it is left."""
    before = stored(device)
    assert velkctl(device, "install", path) == (code, "", log)
    assert stored(device) == before
    assert not is_locked(device)


def test_an_application_installs_runs_and_leaves(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app("Sample", runMode="respawn"))
    assert velkctl(pristine, "install", path) == (
        0, "", "Successfully installed application 'Sample' on 'internal'\n")  # fmt: skip
    assert not is_locked(pristine)
    assert velkctl(pristine, "start", "Sample") == (0, "", "Started application Sample\n")
    assert pristine.run(["systemctl", "is-active", "sdkSample.service"]).stdout == "active\n"
    [listed] = json.loads(pristine.velkctl("list").check().stdout)
    assert (listed["status"], listed["autostart"], listed["signatureStatus"]) == ("Running", "Enabled", "Signed")
    assert velkctl(pristine, "stop", "Sample") == (0, "", "Stopped application Sample\n")
    assert velkctl(pristine, "uninstall", "Sample") == (
        0, "", "Successfully uninstalled application 'Sample'\n")  # fmt: skip
    assert velkctl(pristine, "list") == (0, "[]", "")


def test_a_running_application_is_stopped_by_uninstall(pristine: Device, put_package: Put) -> None:
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.velkctl("start", "Sample").check()
    assert velkctl(pristine, "uninstall", "Sample") == (
        0, "", "Successfully uninstalled application 'Sample'\n")  # fmt: skip


def test_noreload_leaves_the_service_manager_alone(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app("Sample"))
    pristine.velkctl("install", "--noreload", path).check()
    # Not reloaded, so systemd has not seen the unit file of the slice's new member yet.
    assert pristine.exists("/etc/systemd/system/sdkSample.service")
    pristine.velkctl("uninstall", "--noreload", "Sample").check()
    pristine.run(["systemctl", "daemon-reload"]).check()
    pristine.run(["systemctl", "reload", "httpd"]).check()


def test_the_location_is_named_on_the_command_line(device: Device, put_package: Put) -> None:
    path = put_package(device, app("Sample"))
    assert velkctl(device, "install", path, "nowhere") == (
        33, "", "code 33: 'nowhere' is not a valid installation location\n")  # fmt: skip
    assert velkctl(device, "install", path, "Internal") == (
        33, "", "code 33: 'Internal' is not a valid installation location\n")  # fmt: skip
    assert velkctl(device, "install", path, "internal")[0] == 0
    device.velkctl("uninstall", "Sample").check()


# --- packages that are none ---


def test_a_package_that_is_not_there(pristine: Device) -> None:
    install_fails(pristine, "/tmp/none.vlp", 10, "code 10: Path is not a valid canonicalizable path: /tmp/none.vlp\n")


def test_a_package_with_a_name_that_is_not_allowed(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app(), name="sam ple.vlp")
    install_fails(
        pristine, path, 10, "code 10: Character sequence in application package file name is not allowed\n")  # fmt: skip


@pytest.mark.parametrize("data", [b"", b"x" * 15, b"just some text, long enough to be looked into\n" * 100])
def test_a_file_that_is_no_archive(pristine: Device, data: bytes) -> None:
    pristine.write("/tmp/text.vlp", data)
    install_fails(pristine, "/tmp/text.vlp", 1, "code 1: Invalid application package\n")
    pristine.sh("rm /tmp/text.vlp").check()


def test_a_directory_in_place_of_a_package(pristine: Device) -> None:
    status, _, log = velkctl(pristine, "install", "/tmp")
    assert (status, log) == (10, "code 10: src/system/file.cpp: Failed opening /tmp/manifest.json: "
                                 "No such file or directory\n")  # fmt: skip


def test_a_truncated_package(pristine: Device, make_package: Callable[..., Path]) -> None:
    whole = make_package(app()).read_bytes()
    pristine.write("/tmp/cut.vlp", whole[: len(whole) // 4])
    status, _, log = velkctl(pristine, "install", "/tmp/cut.vlp")
    # A gzip stream that ends early may still have shown its first member, the manifest.
    assert (status, log) in [(1, "code 1: Invalid application package\n"),
                             (2, "code 2: Unsigned package not allowed\n")]  # fmt: skip
    assert stored(pristine) == [] and not is_locked(pristine)
    pristine.sh("rm /tmp/cut.vlp").check()


def test_an_unsigned_package(pristine: Device, put_package: Put) -> None:
    install_fails(pristine, put_package(pristine, app(), sign=False), 2, "code 2: Unsigned package not allowed\n")


def test_a_package_signed_by_a_stranger(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app(), key=package.Key.named("stranger"))
    status, _, log = velkctl(pristine, "install", path)
    assert (status, log.splitlines()[-1]) == (2, "code 2: Bad signature, no valid OpenPGP data found")
    assert stored(pristine) == [] and not is_locked(pristine)
    pristine.sh("rm /tmp/velkctl_*.vlp").check()  # stays after a rejection, as it is meant to


# --- manifests ---


def test_a_package_without_a_manifest(pristine: Device, put_package: Put) -> None:
    files = app()
    del files["manifest.json"]
    install_fails(pristine, put_package(pristine, files), 1, "code 1: Invalid application package\n")


def test_a_manifest_that_is_no_json(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, {**app(), "manifest.json": "{\n"})
    install_fails(pristine, path, 29, "code 29: Invalid manifest: string or '}' expected near end of file\n")


def test_a_manifest_that_breaks_a_rule(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app(version="1.2"), name="old.vlp")
    install_fails(pristine, path, 29, "code 29: Version '1.2' does not follow the semantic version format\n")


def test_a_name_that_is_none(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, {**app(), "manifest.json": package.manifest("../Sample")}, name="bad.vlp")
    install_fails(pristine, path, 29, "code 29: Character sequence in application name is not allowed\n")


# --- scripts ---


def test_the_scripts_run_as_the_applications_user(pristine: Device, put_package: Put) -> None:
    script = "#!/bin/sh\nid -un >localdata/who\npwd >localdata/where\n"
    files = installation(app("Sample"), postInstallScript="after.sh") | {"after.sh": script}
    pristine.velkctl("install", put_package(pristine, files)).check()
    assert pristine.read("/usr/local/packages/Sample/localdata/who") == "velk-sample\n"
    assert pristine.read("/usr/local/packages/Sample/localdata/where") == "/usr/local/packages/Sample\n"
    pristine.velkctl("uninstall", "Sample").check()


def test_a_script_that_is_missing(pristine: Device, put_package: Put) -> None:
    files = installation(app("Sample"), postInstallScript="after.sh")
    status, _, log = velkctl(pristine, "install", put_package(pristine, files))
    assert status == 10
    assert log.endswith("code 10: The manifest lists an install script, 'after.sh', but the file is missing.\n")
    assert stored(pristine) == [] and not is_locked(pristine)


def test_a_script_that_fails_with_77(pristine: Device, put_package: Put) -> None:
    files = installation(app("Sample"), postInstallScript="after.sh") | {"after.sh": "#!/bin/sh\nexit 77\n"}
    status, _, log = velkctl(pristine, "install", put_package(pristine, files))
    assert status == 10
    assert log.endswith("code 10: src/system/script.cpp: Script /usr/local/packages/Sample/after.sh failed with exit "
                        "code: 77\n")  # fmt: skip
    assert stored(pristine) == [] and not is_locked(pristine)


def test_a_script_that_merely_fails_is_a_warning(pristine: Device, put_package: Put) -> None:
    files = installation(app("Sample"), postInstallScript="after.sh") | {"after.sh": "#!/bin/sh\nexit 3\n"}
    assert velkctl(pristine, "install", put_package(pristine, files)) == (
        0, "", "Script /usr/local/packages/Sample/after.sh returned non-zero exit code: 3\n"
        "Successfully installed application 'Sample' on 'internal'\n")  # fmt: skip
    pristine.velkctl("uninstall", "Sample").check()


def test_a_script_that_asks_to_skip_the_installation(pristine: Device, put_package: Put) -> None:
    files = installation(app("Sample"), postInstallScript="after.sh") | {"after.sh": "#!/bin/sh\nexit 78\n"}
    path = put_package(pristine, files)
    assert velkctl(pristine, "install", "--skip-if-ex-config", path) == (
        0, "", f"Installation of {path} was skipped\nSuccessfully installed application 'Sample' on 'internal'\n")  # fmt: skip
    assert stored(pristine) == [] and not is_locked(pristine)


def test_78_is_an_ordinary_status_without_the_option(pristine: Device, put_package: Put) -> None:
    files = installation(app("Sample"), postInstallScript="after.sh") | {"after.sh": "#!/bin/sh\nexit 78\n"}
    assert velkctl(pristine, "install", put_package(pristine, files)) == (
        0, "", "Script /usr/local/packages/Sample/after.sh returned non-zero exit code: 78\n"
        "Successfully installed application 'Sample' on 'internal'\n")  # fmt: skip
    pristine.velkctl("uninstall", "Sample").check()


def test_a_script_that_hangs_is_killed_with_its_children(pristine: Device, put_package: Put) -> None:
    settings = pristine.read(SETTINGS)
    pristine.write(SETTINGS, "[Install]\nAllowUnsigned=false\nPostInstallScriptTimeout=1\nPreUninstallScriptTimeout=1\n")
    files = installation(app("Sample"), postInstallScript="after.sh") | {"after.sh": HANGING}
    status, _, log = velkctl(pristine, "install", put_package(pristine, files))
    pristine.write(SETTINGS, settings)
    assert status == 15
    assert log.endswith("code 15: Execution of after.sh took more than 1 s so the process was forcefully killed.\n")
    assert stored(pristine) == [] and not is_locked(pristine)
    # The users' processes are compared by `pristine`; sleep would show there under its user's number.
    assert pristine.run(["pgrep", "-x", "sleep"]).stdout == ""


def test_a_pre_uninstall_script_that_hangs_does_not_hold_up_uninstall(pristine: Device, put_package: Put) -> None:
    settings = pristine.read(SETTINGS)
    files = uninstallation(app("Sample"), preUninstallScript="before.sh") | {"before.sh": HANGING}
    pristine.velkctl("install", put_package(pristine, files)).check()
    pristine.write(SETTINGS, "[Install]\nAllowUnsigned=false\nPostInstallScriptTimeout=1\nPreUninstallScriptTimeout=1\n")
    status, _, log = velkctl(pristine, "uninstall", "Sample")
    pristine.write(SETTINGS, settings)
    assert status == 0
    assert "Failed to run pre-uninstall script during teardown of Sample: Execution of before.sh took more than 1 s" in log
    assert log.endswith("Successfully uninstalled application 'Sample'\n")
    assert pristine.run(["pgrep", "-x", "sleep"]).stdout == ""


# --- the device in a bad way ---


def test_no_room(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app("Sample") | {"big": b"x" * (1 << 20)})
    # Leaves less than the package needs, whatever size the store has.
    pristine.sh("free=$(df --output=avail -B1 /usr/local/packages | tail -n 1); "
                "fallocate -l $((free - 1000000)) /usr/local/packages/filler").check()  # fmt: skip
    status, _, log = velkctl(pristine, "install", path)
    pristine.sh("rm /usr/local/packages/filler").check()
    assert status == 3
    assert log.startswith("code 3: Package too large. Required: ")
    assert stored(pristine) == [] and not is_locked(pristine)


def test_without_the_user_service(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app("Sample"))
    pristine.sh("mkdir -p /run/orvo-test/fail && echo 'no more users' >/run/orvo-test/fail/AddUser").check()
    status, _, log = velkctl(pristine, "install", path)
    pristine.sh("rm -r /run/orvo-test").check()
    assert status == 10
    assert log.endswith("code 10: src/system/dbus-call.cpp: DBus call to com.orvo.UserManagement1.Application.AddUser "
                        "failed: no more users\n")  # fmt: skip
    assert stored(pristine) == [] and not is_locked(pristine)


def test_without_a_web_server(pristine: Device, put_package: Put) -> None:
    """A failed reload is followed by a start, so the web server is up again afterwards."""
    path = put_package(pristine, app("Sample"))
    pristine.run(["systemctl", "stop", "httpd"]).check()
    status, _, log = velkctl(pristine, "install", path)
    assert status == 0
    assert log.endswith("Started httpd successfully after a failed reload\n"
                        "Successfully installed application 'Sample' on 'internal'\n")  # fmt: skip
    assert pristine.run(["systemctl", "is-active", "httpd"]).stdout == "active\n"
    pristine.velkctl("uninstall", "Sample").check()


def test_without_the_service_manager(fresh_device: Device, put_package: Put) -> None:
    """systemctl that cannot reach systemd fails setup; the application leaves again."""
    path = put_package(fresh_device, app("Sample"))
    before = stored(fresh_device)
    fresh_device.write("/usr/local/bin/systemctl", "#!/bin/sh\necho 'no service manager' >&2\nexit 1\n", 0o755)
    status, _, log = velkctl(fresh_device, "install", path)
    assert status == 10
    assert 'code 10: src/system/subprocess.cpp: Failed running "systemctl daemon-reload"' in log.splitlines()[-1]
    assert stored(fresh_device) == before and not is_locked(fresh_device)
    assert not fresh_device.exists("/etc/systemd/system/sdkSample.service")


# --- locks, names, upgrades ---


def test_a_lock_of_another_command_refuses_every_change(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app("Sample"))
    pristine.velkctl("install", path).check()
    pristine.write(LOCK, "no_clean_on_failure")
    text = f"code 12: Another instance is already running, lock file exists: {LOCK}\n"
    for command in (["install", path], ["uninstall", "Sample"], ["start", "Sample"], ["stop", "Sample"],
                    ["setup", "Sample"], ["teardown", "Sample"], ["remove", "Sample"], ["backup", "Sample"],
                    ["restore", "Sample"]):  # fmt: skip
        assert velkctl(pristine, *command) == (12, "", text), command
    assert is_locked(pristine)
    assert pristine.velkctl("clean").status == 0
    pristine.velkctl("uninstall", "Sample").check()


def test_uninstall_of_what_is_not_there(pristine: Device) -> None:
    assert velkctl(pristine, "uninstall", "Nobody") == (4, "", "code 4: Application not found in store: Nobody\n")
    assert not is_locked(pristine)


BACKUPS = "/usr/local/packages/_backup"


def test_an_uninstallation_that_cannot_delete_the_backup_changes_nothing(pristine: Device, put_package: Put) -> None:
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.velkctl("backup", "Sample").check()
    before = snapshot.take(pristine)
    pristine.sh(f"chattr +i {BACKUPS}").check()
    outcome = velkctl(pristine, "uninstall", "Sample")
    pristine.sh(f"chattr -i {BACKUPS}").check()
    assert outcome == (
        10, "", "code 10: src/lifecycle/velkctl-backup.cpp: Could not remove backup. Rename failed.\n")  # fmt: skip
    assert (before.differences(snapshot.take(pristine)), is_locked(pristine)) == ([], False)
    assert velkctl(pristine, "uninstall", "Sample")[0] == 0
    pristine.sh(f"rmdir --ignore-fail-on-non-empty {BACKUPS}").check()


def test_an_application_that_cannot_be_removed_from_the_store_counts_as_uninstalled(
    pristine: Device, put_package: Put
) -> None:
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.sh("chattr +i /usr/local/packages").check()
    outcome = velkctl(pristine, "uninstall", "Sample")
    pristine.sh("chattr -i /usr/local/packages").check()
    assert outcome == (0, "", "src/store/velkctl-remove.cpp: Failed renaming /usr/local/packages/Sample to "
                              "/usr/local/packages/Sample.tmp: Operation not permitted\n"
                              "Successfully uninstalled application 'Sample'\n")  # fmt: skip
    assert (stored(pristine), is_locked(pristine)) == (["Sample"], False)
    assert not pristine.exists("/etc/systemd/system/sdkSample.service")
    pristine.velkctl("remove", "Sample").check()


@pytest.mark.parametrize("name", ["../etc", "1app", "a b", "", "a\n"])
def test_uninstall_of_a_name_that_is_none(pristine: Device, name: str) -> None:
    assert velkctl(pristine, "uninstall", name) == (
        10, "", "code 10: Character sequence in application name is not allowed\n")  # fmt: skip


def test_an_upgrade_keeps_data_and_user(pristine: Device, put_package: Put) -> None:
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    pristine.sh("echo kept >/usr/local/packages/Sample/localdata/note").check()
    uid = pristine.run(["id", "-u", "velk-sample"]).stdout
    assert velkctl(pristine, "install", put_package(pristine, app("Sample", version="2.0.0"))) == (
        0, "", "Successfully installed application 'Sample' on 'internal'\n")  # fmt: skip
    assert pristine.velkctl("list", "--version", "Sample").stdout == "2.0.0"
    assert pristine.read("/usr/local/packages/Sample/localdata/note") == "kept\n"
    assert pristine.run(["id", "-u", "velk-sample"]).stdout == uid
    assert not pristine.exists("/usr/local/packages/_backup/Sample")
    pristine.velkctl("uninstall", "Sample").check()


def test_an_upgrade_of_a_running_application_is_refused(pristine: Device, put_package: Put) -> None:
    path = put_package(pristine, app("Sample"))
    pristine.velkctl("install", path).check()
    pristine.velkctl("start", "Sample").check()
    assert velkctl(pristine, "install", path) == (
        10, "", "code 10: Application Sample is still running, please stop it before running install.\n")  # fmt: skip
    assert pristine.exists("/usr/local/packages/_backup/Sample")
    assert pristine.exists("/etc/systemd/system/sdkSample.service")
    pristine.velkctl("uninstall", "Sample").check()


def test_an_upgrade_by_another_vendor_is_refused(pristine: Device, put_package: Put) -> None:
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    path = put_package(pristine, app("Sample", vendorId="others"))
    assert velkctl(pristine, "install", path) == (
        27, "", "code 27: Vendor ID in manifest does not match the vendor ID of the previous version\n")  # fmt: skip
    assert velkctl(pristine, "install", put_package(pristine, app("Sample", vendorId="TESTS")))[0] == 0
    pristine.velkctl("uninstall", "Sample").check()


def test_web_settings_keep_an_application_off_the_card(device: Device, put_package: Put) -> None:
    files = configuration(app("Sample"), httpConfig=[])
    device.insert_card()
    status, _, log = velkctl(device, "install", put_package(device, files), "sd_card1")
    device.remove_card()
    assert (status, log) == (34, "code 34: Manifest includes HTTP or parameter configuration which means the "
                                 "application can only be installed to the default location\n")  # fmt: skip
