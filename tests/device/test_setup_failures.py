"""Every step of setup fails in turn: its error is the one that is told, and the application is back to stored."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager, nullcontext
from typing import Any

import pytest
from apps import app, installation, is_locked
from setups import SETTINGS, STORE, UNITS, Put, changed, configured, outside, program, store_app, velkctl, workshop
from velkdevice.device import Device

Files = dict[str, Any]
TOOLS = {"docker": "#!/bin/sh\n", "docker-compose": "#!/bin/sh\n"}
FAST = [{"type": "fastCgi", "access": "viewer", "name": "run.cgi"}]
TRANSFER = [{"type": "transferCgi", "access": "viewer", "name": "upload.cgi"}]


@contextmanager
def arranged(device: Device, fault: str, repair: str) -> Iterator[None]:
    device.sh(fault).check()
    try:
        yield
    finally:
        device.sh(repair).check()


@contextmanager
def read_only(device: Device, directory: str) -> Iterator[None]:
    """The directory, and nothing but it, can only be read for a while."""
    with arranged(device, f"mount --bind {directory} {directory} && mount -o remount,bind,ro {directory}",
                  f"umount {directory}"):  # fmt: skip
        yield


@contextmanager
def without_group(device: Device, name: str) -> Iterator[None]:
    with arranged(device, f"sed -i s/^{name}:/no-{name}:/ /etc/group", f"sed -i s/^no-{name}:/{name}:/ /etc/group"):
        yield


def hosting() -> Files:
    return configured(containers={"containerHost": True})


def tools() -> Files:
    return configured(containers={"createDockerSymlinks": True}) | TOOLS


def no_file(path: str) -> str:
    """A file of that name cannot be made: a directory stands there."""
    return f"mkdir -p {path}"


OWNING = f"code 10: src/integration/velkctl-setup.cpp: Failed recursively setting ownership of files in {STORE}/Sample: "
WRITING = "code 10: src/system/file.cpp: Failed writing to file: {}: "

OBSTRUCTED = "Automatic teardown on failed setup failed. Code: 10, Message: "

# What is wrong, the application, how the device comes to it and out of it again, and the beginning of the last line.
FAULTS: list[tuple[str, Files, str, str, str]] = [
    ("the files of sub-ids disagree", hosting(), "echo x:100000:1 >/etc/subuid; echo x:300000:1 >/etc/subgid",
     ": >/etc/subuid; : >/etc/subgid",
     "code 10: src/integration/sub-id.cpp: Entries in /etc/subuid and /etc/subgid do not match\n"),
    ("no file of sub-ids", hosting(), "mv /etc/subgid /etc/subgid.away", "mv /etc/subgid.away /etc/subgid",
     "code 10: src/system/file.cpp: Failed opening /etc/subgid: No such file or directory\n"),
    ("a file that keeps its owner", app() | {"fixed": "x"}, f"chattr +i {STORE}/Sample/fixed",
     f"chattr -i {STORE}/Sample/fixed", OWNING + "Operation not permitted\n"),
    ("a directory in the place of the values", app(), no_file(f"{STORE}/Sample/conf/Sample.conf"),
     f"rmdir {STORE}/Sample/conf/Sample.conf",
     f"code 10: src/system/area.cpp: Failed writing to file: {STORE}/Sample/conf/Sample.conf: "),
    ("a directory in the place of the policy", app(), no_file("/etc/dbus-1/system.d/Sample.conf"),
     "rmdir /etc/dbus-1/system.d/Sample.conf", WRITING.format("/etc/dbus-1/system.d/Sample.conf")),
    ("a link of parameters that is there", app(), "ln -s /nowhere /etc/dynamic/Sample.conf", "rm /etc/dynamic/Sample.conf",
     "code 10: src/system/file.cpp: Failed creating symbolic link from /etc/dynamic/Sample.conf to "
     f"{STORE}/Sample/conf/Sample.conf: error File exists\n"),
    ("a directory that is published", app(), "mkdir /usr/html/local/Sample", "rmdir /usr/html/local/Sample",
     "code 10: src/system/file.cpp: Failed creating symbolic link from /usr/html/local/Sample to "
     f"{STORE}/Sample/html: error File exists\n"),
    ("a directory in the place of the transfer snippet", configured(httpConfig=TRANSFER),
     no_file("/etc/apache2/transfer/transfer_Sample.conf"), "rmdir /etc/apache2/transfer/transfer_Sample.conf",
     WRITING.format("/etc/apache2/transfer/transfer_Sample.conf")),
    ("a directory in the place of the FastCGI snippet", configured(httpConfig=FAST),
     no_file("/etc/apache2/fcgi/fcgi_Sample.conf"), "rmdir /etc/apache2/fcgi/fcgi_Sample.conf",
     WRITING.format("/etc/apache2/fcgi/fcgi_Sample.conf")),
    ("a directory in the place of the access rules", app(), no_file("/etc/apache2/conf.d/vhosts/all/urls_Sample.conf"),
     "rmdir /etc/apache2/conf.d/vhosts/all/urls_Sample.conf",
     WRITING.format("/etc/apache2/conf.d/vhosts/all/urls_Sample.conf")),
    ("a directory in the place of a tool", tools(), "mkdir -p /usr/local/bin/docker", "rmdir /usr/local/bin/docker",
     "code 10: src/system/file.cpp: Failed removing /usr/local/bin/docker: Is a directory\n"),
    ("a link in the place of the drop-in", app(), f"ln -s /etc/velk {UNITS}/sdkSample.service.d",
     f"rm -f {UNITS}/sdkSample.service.d",
     f"code 1: Attempt to use reserved directory '{UNITS}/sdkSample.service.d' as a symlink\n"),
    ("a directory in the place of the unit", app(), no_file(f"{UNITS}/sdkSample.service"),
     f"rmdir {UNITS}/sdkSample.service", WRITING.format(f"{UNITS}/sdkSample.service")),
    ("a script that may not be run", installation(app(), postInstallScript="no/such.sh"), ":", ":",
     "code 10: The manifest lists an install script, 'no/such.sh', but the file is missing.\n"),
]  # fmt: skip


def fails(device: Device, put_package: Put, files: Files, fault: Any, log: str, **options: Any) -> str:
    """
    Set up with something wrong: the last line begins so, and nothing is left. The whole log.

    What is in setup's way can be in that of its teardown too, which then says so, and finishes when it is mended.
    """
    store_app(device, put_package, files)
    before = outside(device, "Sample")
    with fault as arrangement:
        env = arrangement if isinstance(arrangement, dict) else None
        status, told = velkctl(device, "setup", "Sample", env=env, **options)
    last = told.splitlines(keepends=True)[-1]
    assert (status, last[: len(log)]) == (int(log.split()[1][:-1]), log), told
    if OBSTRUCTED in told:
        device.velkctl("teardown", "Sample")
    assert outside(device, "Sample") == before
    assert not is_locked(device)
    return told


@pytest.mark.parametrize(("files", "fault", "repair", "log"), [each[1:] for each in FAULTS], ids=[each[0] for each in FAULTS])
def test_a_step_that_fails(
    workshop: Device, put_package: Put, files: Files, fault: str, repair: str, log: str
) -> None:
    fails(workshop, put_package, files, arranged(workshop, fault, repair), log)


@pytest.mark.parametrize("group", ["admin", "www", "viewer", "operator"])
def test_a_group_of_the_device_that_is_missing(workshop: Device, put_package: Put, group: str) -> None:
    fails(workshop, put_package, app(), without_group(workshop, group),
          f"code 10: src/system/user-database.cpp: Group {group} does not exist\n")  # fmt: skip


READ_ONLY_DIRECTORIES = [
    ("/etc/dynamic", "src/system/file.cpp: Failed creating symbolic link from /etc/dynamic/Sample.conf to "
                     f"{STORE}/Sample/conf/Sample.conf: error "),
    ("/etc/dbus-1/system.d", "src/system/file.cpp: Failed writing to file: /etc/dbus-1/system.d/Sample.conf: "),
    ("/etc/apache2", "src/system/file.cpp: Failed writing to file: /etc/apache2/conf.d/vhosts/all/urls_Sample.conf: "),
    ("/usr/html/local", "src/system/file.cpp: Failed creating symbolic link from /usr/html/local/Sample to "
                        f"{STORE}/Sample/html: error "),
    (UNITS, f"src/system/file.cpp: Failed writing to file: {UNITS}/sdkSample.service: "),
]  # fmt: skip


@pytest.mark.parametrize(("directory", "log"), READ_ONLY_DIRECTORIES)
def test_a_directory_that_can_only_be_read(workshop: Device, put_package: Put, directory: str, log: str) -> None:
    workshop.sh("mkdir -p /etc/dynamic/param").check()
    fails(workshop, put_package, app(), read_only(workshop, directory), f"code 10: {log}")


def test_a_web_server_that_neither_reloads_nor_starts_is_no_failure(workshop: Device, put_package: Put) -> None:
    store_app(workshop, put_package, app())
    script = 'case "$1 $2" in "reload httpd" | "start --quiet") exit 3 ;; esac\nexec "$REAL" "$@"\n'
    with program(workshop, "systemctl", script) as env:
        status, told = velkctl(workshop, "setup", "Sample", env=env)
    assert status == 0
    lines = told.splitlines()
    assert lines[-3].startswith("Failed reloading httpd: src/system/subprocess.cpp: Failed running ")
    assert lines[-2].startswith("Failed to start httpd: src/system/subprocess.cpp: Failed running ")
    workshop.run(["systemctl", "reload", "httpd"]).check()


def test_a_card_that_goes_read_only_before_the_last_step(boot_device: Any, put_package: Put) -> None:
    device = boot_device()
    device.settle()
    device.insert_card()
    card = "/var/spool/storage/SD_DISK"
    script = f'[ "$1" = daemon-reload ] && mount -o remount,ro {card}\nexec "$REAL" "$@"\n'
    store_app(device, put_package, app(), "sd_card1")
    before = [line for line in outside(device, "Sample") if not line.startswith(f"file: {card}/packages/Sample/")]
    with program(device, "systemctl", script) as env:
        status, told = velkctl(device, "setup", "Sample", env=env)
    device.sh(f"mount -o remount,rw {card}").check()
    assert (status, told.splitlines()[-1]) == (
        10, f"code 10: src/system/area.cpp: Failed setting ownership of {STORE}/Sample: Read-only file system")
    after = [line for line in outside(device, "Sample") if not line.startswith(f"file: {card}/packages/Sample/")]
    assert after == before
    assert not is_locked(device)


SIGNALS = [("kill -9 $PPID $$", "code 10: src/system/script.cpp: Failed running after.sh\n")]


@pytest.mark.parametrize(("script", "log"), SIGNALS)
def test_a_script_whose_runner_is_killed(workshop: Device, put_package: Put, script: str, log: str) -> None:
    """The shell that runs the script is ended by a signal: there is no exit status to judge."""
    files = installation(app(), postInstallScript="after.sh") | {"after.sh": f"#!/bin/sh\n{script}\n"}
    fails(workshop, put_package, files, nullcontext(), log)


def test_a_time_out_that_is_no_number(workshop: Device, put_package: Put) -> None:
    settings = "[Install]\nPostInstallScriptTimeout=soon\nPreUninstallScriptTimeout=60\n"
    fails(workshop, put_package, app(), changed(workshop, SETTINGS, settings),
          "code 10: src/system/key-file.cpp: Failed reading key PostInstallScriptTimeout, group Install from ")  # fmt: skip
