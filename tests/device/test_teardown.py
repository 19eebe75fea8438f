"""teardown: that everything goes, that it goes on past failures, and what it says then."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from apps import LOCK, app, is_locked, uninstallation, without_place
from setups import (SETTINGS, STAYING, STORE, UNITS, UNITS_FAILED, Put, changed, configured, failing, outside, program,
                    section, set_up, store_app, under_the_mounts, velkctl, workshop)  # fmt: skip
from store_support import CARD
from velkdevice.device import Device

COMPOSE = "/usr/local/lib/docker/cli-plugins"
SUMMARY = "code 10: src/integration/velkctl-teardown.cpp: Failure during teardown of Sample\n"


def without_manifest(device: Device) -> None:
    device.sh(f"cd {STORE}/Sample; chattr -i manifest.json; mv manifest.json other.json").check()


def with_manifest(device: Device) -> None:
    device.sh(f"cd {STORE}/Sample; mv other.json manifest.json; chattr +i manifest.json").check()


def test_a_running_application_is_stopped_first(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app(runMode="respawn"))
    workshop.velkctl("start", "Sample").check()
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert workshop.run(["systemctl", "is-active", "sdkSample"]).stdout == "inactive\n"
    assert not workshop.exists(f"{UNITS}/velk.target.wants/sdkSample.service")
    assert workshop.read(f"{STORE}/Sample/conf/runstate.conf") == "ENABLED=no\n"


def test_an_enabled_application_that_has_ended_leaves_no_link(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app(runMode="once") | {"Sample": "#!/bin/sh\nexit 0\n"})
    workshop.velkctl("start", "Sample").check()
    workshop.wait_for(lambda: workshop.run(["systemctl", "is-active", "sdkSample"]).stdout == "inactive\n", "its end")
    assert workshop.sh(f"test -L {UNITS}/velk.target.wants/sdkSample.service").status == 0
    assert velkctl(workshop, "teardown", "Sample")[0] == 0
    assert workshop.sh(f"test -L {UNITS}/velk.target.wants/sdkSample.service").status == 1


def test_a_service_that_does_not_stop_ends_the_teardown(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app(runMode="respawn"))
    workshop.velkctl("start", "Sample").check()
    before = outside(workshop, "Sample")
    with program(workshop, "systemctl", '[ "$1" = stop ] && exit 3\nexec "$REAL" "$@"\n') as env:
        status, told = velkctl(workshop, "teardown", "Sample", env=env)
    assert status == 10
    assert told.startswith("code 10: src/system/subprocess.cpp: Failed running \"systemctl stop --quiet 'sdkSample.service'\"")
    assert outside(workshop, "Sample") == before
    assert not is_locked(workshop)


@pytest.mark.parametrize(
    ("name", "status", "log"),
    [("Nothing", 4, "code 4: Application not found in store: Nothing\n"),
     ("1x", 10, "code 10: Character sequence in application name is not allowed\n"),
     ("../x", 10, "code 10: Character sequence in application name is not allowed\n")])  # fmt: skip
def test_what_is_no_application(workshop: Device, name: str, status: int, log: str) -> None:
    assert velkctl(workshop, "teardown", name) == (status, log)
    assert not is_locked(workshop)


def test_another_command_is_at_work(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    before = outside(workshop, "Sample")
    workshop.write(LOCK, "Other")
    assert velkctl(workshop, "teardown", "Sample") == (
        12, f"code 12: Another instance is already running, lock file exists: {LOCK}\n")  # fmt: skip
    workshop.sh(f"rm {LOCK}").check()
    assert outside(workshop, "Sample") == before


def test_persist_user_keeps_the_user_and_its_ranges(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, configured(containers={"containerHost": True}))
    uid = workshop.run(["id", "-u", "velk-sample"]).check().stdout.strip()
    assert velkctl(workshop, "teardown", "--persist-user", "Sample")[0] == 0
    assert workshop.run(["id", "-u", "velk-sample"]).stdout.strip() == uid
    assert workshop.read("/etc/subuid") == f"{uid}:100000:65536\n"
    assert velkctl(workshop, "setup", "Sample")[0] == 0  # the user is changed now, and keeps its range
    assert workshop.read("/etc/subuid") == workshop.read("/etc/subgid") == f"{uid}:100000:65536\n"
    assert velkctl(workshop, "teardown", "Sample")[0] == 0
    assert workshop.read("/etc/subuid") == workshop.read("/etc/subgid") == ""


def test_a_user_of_the_device_is_never_removed(workshop: Device, put_package: Put) -> None:
    files = section(app(), "velkPackageConf.setup.user", {"username": "sdk", "group": "sdk"})
    set_up(workshop, put_package, files)
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert workshop.run(["id", "-un", "sdk"]).stdout == "sdk\n"


@pytest.mark.parametrize(("user", "status"), [("root", 13), ("velk-other", 29)])
def test_nothing_is_done_as_a_user_that_setup_refuses(
    workshop: Device, put_package: Put, user: str, status: int
) -> None:
    """Else a package could have its script run as anybody, just by failing to be set up."""
    files = section(uninstallation(app(), preUninstallScript="before.sh"), "velkPackageConf.setup.user",
                    {"username": user, "group": user})  # fmt: skip
    section(files, "velkPackageConf.configuration.containers", {"containerHost": True})
    package = put_package(workshop, files | {"before.sh": "#!/bin/sh\nid -un >/tmp/ran-as\n"})
    workshop.write("/etc/subuid", "0:100000:65536\n")
    workshop.write("/etc/subgid", "0:100000:65536\n")
    try:
        assert workshop.velkctl("install", package).status == status
        workshop.velkctl("import", package).check()
        assert velkctl(workshop, "teardown", "Sample")[0] == 0
        assert not workshop.exists("/tmp/ran-as")
        assert workshop.read("/etc/subuid") == workshop.read("/etc/subgid") == "0:100000:65536\n"
    finally:
        workshop.sh("rm -f /tmp/ran-as; : >/etc/subuid; : >/etc/subgid").check()


def test_ranges_that_cannot_be_removed_are_a_warning_only(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, configured(containers={"containerHost": True}))
    workshop.sh("mv /etc/subgid /etc/subgid.away").check()
    try:
        assert velkctl(workshop, "teardown", "Sample") == (
            0, "Failed to teardown subuid/subgid during teardown of Sample: src/integration/sub-id.cpp: Failed finding "
            "either one or both of /etc/subuid and /etc/subuid\nSuccessfully tore down application Sample\n")  # fmt: skip
    finally:
        workshop.sh("rm -f /etc/subgid; mv /etc/subgid.away /etc/subgid; : >/etc/subuid; : >/etc/subgid").check()


def test_without_a_manifest_everything_but_the_user_goes(workshop: Device, put_package: Put) -> None:
    store_app(workshop, put_package, app())
    before = outside(workshop, "Sample")
    workshop.velkctl("setup", "Sample").check()
    without_manifest(workshop)
    status, told = velkctl(workshop, "teardown", "Sample")
    missing = f"src/system/file.cpp: Path not found: {STORE}/Sample/manifest.json\n"
    during = "during teardown of Sample: "
    assert (status, told) == (10, (
        f"Failed to get the manifest JSON object {during}{missing}"
        f"Failed to run remove for plugins {during}While calling plugin function remove. Could not retrieve user for "
        f"for VELK Sample: {missing}"
        f"Failed to teardown user {during}{missing}{SUMMARY}"))  # fmt: skip
    kinds = {line.split(": ")[1] for line in set(outside(workshop, "Sample")) - set(before)}
    assert {kind for kind in kinds if "shadow" not in kind} == {
        "/etc/passwd", "/etc/group", "velk-sample", "/var/lib/orvo/api-access/velk-sample"}  # fmt: skip
    with_manifest(workshop)
    assert velkctl(workshop, "teardown", "Sample")[0] == 0
    assert outside(workshop, "Sample") == before


def test_with_a_manifest_that_does_not_parse_the_user_goes_too(workshop: Device, put_package: Put) -> None:
    store_app(workshop, put_package, app())
    before = outside(workshop, "Sample")
    workshop.velkctl("setup", "Sample").check()
    workshop.sh(f"cd {STORE}/Sample; chattr -i manifest.json; echo '{{}}' >manifest.json; chmod 0444 manifest.json").check()
    status, told = velkctl(workshop, "teardown", "Sample")
    assert status == 10
    assert "Failed to read the manifest during teardown of Sample: Could not read velkPackageConf from manifest\n" in told
    assert told.endswith(SUMMARY)
    assert outside(workshop, "Sample") == before


def test_a_broken_rule_of_the_manifest_does_not_matter(workshop: Device, put_package: Put) -> None:
    store_app(workshop, put_package, app())
    before = outside(workshop, "Sample")
    workshop.velkctl("setup", "Sample").check()
    workshop.sh(f"cd {STORE}/Sample; chattr -i manifest.json; sed -i 's/1.0.0/one/' manifest.json; "
                "chmod 0444 manifest.json; chown root:root manifest.json").check()  # fmt: skip
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert outside(workshop, "Sample") == before


def test_the_user_service_refuses(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    with failing(workshop, "RemoveUser"):
        assert velkctl(workshop, "teardown", "Sample") == (
            10, "Failed to teardown user during teardown of Sample: src/system/dbus-call.cpp: DBus call to "
            f"com.orvo.UserManagement1.Application.RemoveUser failed: Not today\n{SUMMARY}")  # fmt: skip
    assert not workshop.exists(f"{UNITS}/sdkSample.service")
    assert velkctl(workshop, "teardown", "Sample")[0] == 0


def test_the_pre_uninstall_script_runs_as_the_user(workshop: Device, put_package: Put) -> None:
    files = uninstallation(app(), preUninstallScript="before.sh")
    files |= {"before.sh": "#!/bin/sh\nid -un >localdata/who\npwd >>localdata/who\nexit 77\n"}
    set_up(workshop, put_package, files)
    assert velkctl(workshop, "teardown", "Sample") == (
        0, f"Script {STORE}/Sample/before.sh returned non-zero exit code: 77\n"
        "Successfully tore down application Sample\n")  # fmt: skip
    assert workshop.read(f"{STORE}/Sample/localdata/who") == f"velk-sample\n{STORE}/Sample\n"


def test_a_pre_uninstall_script_that_hangs_is_a_failure(workshop: Device, put_package: Put) -> None:
    files = uninstallation(app(), preUninstallScript="before.sh") | {"before.sh": "#!/bin/sh\nsleep 4712 & sleep 4712\n"}
    set_up(workshop, put_package, files)
    short = workshop.read(SETTINGS).replace("PreUninstallScriptTimeout=60", "PreUninstallScriptTimeout=1")
    with changed(workshop, SETTINGS, short):
        status, told = velkctl(workshop, "teardown", "Sample")
    assert status == 10
    assert told.endswith("Failed to run pre-uninstall script during teardown of Sample: Execution of before.sh took more "
                         f"than 1 s so the process was forcefully killed.\n{SUMMARY}")  # fmt: skip
    assert workshop.run(["pgrep", "-f", "sleep 4712"]).stdout == ""
    assert not workshop.exists(f"{UNITS}/sdkSample.service")


def test_a_missing_time_out_is_a_failure(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    with changed(workshop, SETTINGS, "[Install]\nPostInstallScriptTimeout=60\n"):
        status, told = velkctl(workshop, "teardown", "Sample")
    assert (status, told) == (
        10, "Failed to run pre-uninstall script during teardown of Sample: src/system/key-file.cpp: Failed reading key "
        f"PreUninstallScriptTimeout, group Install from {SETTINGS}: Key file does not have key "
        f"“PreUninstallScriptTimeout” in group “Install”\n{SUMMARY}")  # fmt: skip
    assert not workshop.exists(f"{UNITS}/sdkSample.service")


FAULTS: list[tuple[str, str, str]] = [
    (f"rm /etc/dynamic/Sample.conf; mkdir /etc/dynamic/Sample.conf", "rmdir /etc/dynamic/Sample.conf",
     "Failed to teardown params during teardown of Sample: src/system/file.cpp: Failed removing "
     "/etc/dynamic/Sample.conf: Is a directory\n"),
    ("mkdir /etc/apache2/fcgi/fcgi_Sample.conf", "rmdir /etc/apache2/fcgi/fcgi_Sample.conf",
     "Failed to teardown http setup during teardown of Sample: src/system/file.cpp: Failed removing "
     "/etc/apache2/fcgi/fcgi_Sample.conf: Is a directory\n"),
    (f"rm {UNITS}/sdkSample.service; mkdir {UNITS}/sdkSample.service", f"rmdir {UNITS}/sdkSample.service",
     f"src/system/file.cpp: Failed removing {UNITS}/sdkSample.service: Is a directory\n"
     "Failed to teardown systemd during teardown of Sample: src/integration/systemd.cpp: Failure during teardown of "
     "systemd units for Sample\n"),
]  # fmt: skip


@pytest.mark.parametrize(("fault", "repair", "log"), FAULTS)
def test_a_step_that_fails_is_a_warning_and_the_rest_goes(
    workshop: Device, put_package: Put, fault: str, repair: str, log: str
) -> None:
    store_app(workshop, put_package, app())
    before = outside(workshop, "Sample")
    workshop.velkctl("setup", "Sample").check()
    workshop.sh(fault).check()
    assert velkctl(workshop, "teardown", "Sample") == (10, log + SUMMARY)
    assert not is_locked(workshop)
    workshop.sh(repair).check()
    workshop.run(["systemctl", "daemon-reload"]).check()
    workshop.velkctl("setup", "Sample")  # takes away what the failed step did not reach
    workshop.velkctl("teardown", "Sample")
    assert outside(workshop, "Sample") == before


def test_a_docker_link_that_stays_is_a_failure(workshop: Device, put_package: Put) -> None:
    tools: dict[str, Any] = {"docker": "#!/bin/sh\n", "docker-compose": "#!/bin/sh\n"}
    workshop.sh("mkdir -p /usr/local/lib/docker/cli-plugins").check()
    try:
        set_up(workshop, put_package, configured(containers={"createDockerSymlinks": True}) | tools)
        workshop.sh(f"chattr +i {COMPOSE}").check()
        assert velkctl(workshop, "teardown", "Sample") == (
            10, "Failed to teardown docker setup during teardown of Sample: src/system/file.cpp: Failed removing "
            f"{COMPOSE}/docker-compose: Operation not permitted\n{SUMMARY}")  # fmt: skip
    finally:
        workshop.sh(f"chattr -i {COMPOSE}; rm -rf /usr/local/lib/docker").check()


def test_a_service_manager_that_does_not_reload_is_a_failure(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    with program(workshop, "systemctl", '[ "$1" = daemon-reload ] && exit 3\nexec "$REAL" "$@"\n') as env:
        status, told = velkctl(workshop, "teardown", "Sample", env=env)
    assert status == 10
    assert told.startswith("Failed to reload the systemd manager configuration during teardown of Sample: "
                           "src/system/subprocess.cpp: Failed running \"systemctl daemon-reload\"")  # fmt: skip
    assert told.endswith(SUMMARY)
    assert not workshop.exists(f"{UNITS}/sdkSample.service")
    workshop.run(["systemctl", "daemon-reload"]).check()


# What is wrong with each step at once, and how it is put right.
ALL_WRONG = f"""
    set -e
    echo 'no library' >/usr/lib/velkctl/plugins/Broken.so
    rm /etc/dynamic/Sample.conf && mkdir /etc/dynamic/Sample.conf
    mkdir /etc/apache2/fcgi/fcgi_Sample.conf
    chattr +i {COMPOSE}
    mv /etc/subgid /etc/subgid.away
    rm {UNITS}/sdkSample.service && mkdir {UNITS}/sdkSample.service
    mkdir -p /run/orvo-test/fail && echo 'Not today' >/run/orvo-test/fail/RemoveUser
"""
ALL_RIGHT = f"""
    rm -r /usr/lib/velkctl/plugins/Broken.so /etc/dynamic/Sample.conf /etc/apache2/fcgi/fcgi_Sample.conf
    chattr -i {COMPOSE}
    rm -rf /etc/subgid {UNITS}/sdkSample.service /run/orvo-test
    mv /etc/subgid.away /etc/subgid
"""
PREAMBLES = [
    "run remove for plugins", "run pre-uninstall script", "teardown params", "teardown http setup",
    "teardown docker setup", "teardown subuid/subgid", "teardown user", "teardown systemd",
    "reload the systemd manager configuration",
]  # fmt: skip


def test_every_step_fails_and_each_is_tried(workshop: Device, put_package: Put) -> None:
    files = configured(containers={"containerHost": True, "createDockerSymlinks": True})
    files |= {"docker": "#!/bin/sh\n", "docker-compose": "#!/bin/sh\n"}
    store_app(workshop, put_package, files)
    workshop.sh("mkdir -p /usr/local/lib/docker/cli-plugins").check()
    before = outside(workshop, "Sample")
    workshop.velkctl("setup", "Sample").check()
    workshop.sh(ALL_WRONG).check()
    script = '[ "$1" = daemon-reload ] && exit 3\nexec "$REAL" "$@"\n'
    try:
        with changed(workshop, SETTINGS, "[Install]\n"), program(workshop, "systemctl", script) as env:
            status, told = velkctl(workshop, "teardown", "Sample", env=env)
    finally:
        workshop.sh(ALL_RIGHT).check()
    lines = [line for line in told.splitlines() if " during teardown of Sample: " in line]
    assert [line.split(" during teardown of ")[0] for line in lines] == [f"Failed to {what}" for what in PREAMBLES]
    assert (status, told.endswith(SUMMARY)) == (10, True)
    assert not is_locked(workshop)
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert outside(workshop, "Sample") == before
    workshop.sh("rm -r /usr/local/lib/docker").check()


def test_another_applications_overlay_stays(workshop: Device, put_package: Put) -> None:
    """The pattern for the mounts of Sample fits the overlay of Sample-Two too."""
    set_up(workshop, put_package, app())
    other = f"{UNITS}/usr-local-packages-Sample-Two.mount"
    own = f"{UNITS}/usr-local-packages-Sample-data.mount"
    workshop.write(other, f"[Mount]\nWhat=x\nWhere={STORE}/Sample-Two\n")
    workshop.write(own, f"[Mount]\nWhat=x\nWhere={STORE}/Sample/data\n")
    try:
        workshop.velkctl("teardown", "Sample")
        assert workshop.exists(other)
        assert not workshop.exists(own)
    finally:
        workshop.sh(f"rm -f {other} {own}; systemctl daemon-reload").check()


def test_container_links_of_another_application_stay(workshop: Device, put_package: Put) -> None:
    tools: dict[str, Any] = {"docker": "#!/bin/sh\n", "docker-compose": "#!/bin/sh\n"}
    workshop.sh("mkdir -p /usr/local/lib/docker/cli-plugins").check()
    try:
        set_up(workshop, put_package, configured(containers={"createDockerSymlinks": True}) | tools)
        set_up(workshop, put_package, configured("Other", containers={"createDockerSymlinks": True}) | tools)
        links = ["/usr/local/bin/docker", "/usr/local/lib/docker/cli-plugins/docker-compose"]
        taken = [f"{STORE}/Other/docker", f"{STORE}/Other/docker-compose"]
        assert workshop.run(["readlink", *links]).stdout.split() == taken
        assert velkctl(workshop, "teardown", "Sample")[0] == 0
        assert workshop.run(["readlink", *links]).stdout.split() == taken
        assert velkctl(workshop, "teardown", "Other")[0] == 0
        assert workshop.run(["readlink", *links]).stdout == ""
    finally:
        workshop.velkctl("uninstall", "Other")
        workshop.sh("rm -rf /usr/local/lib/docker").check()


LINKS = {"docker": "/usr/local/bin/docker", "docker-compose": "/usr/local/lib/docker/cli-plugins/docker-compose"}
# What may stand where a link of the application was.
FOREIGN = {
    "another application's link": f'ln -sfn "{STORE}/Other/$2" "$1"',
    "a link by another road": f'ln -sfn "{STORE}/../packages/Sample/$2" "$1"',
    "a file": 'rm "$1"; echo mine >"$1"',
    "nothing": 'rm "$1"',
}


@pytest.mark.parametrize("script", FOREIGN.values(), ids=FOREIGN)
def test_only_the_applications_own_container_links_go(workshop: Device, put_package: Put, script: str) -> None:
    """Each of the two links is somebody else's in turn: it stays as it is, the other one goes, and nothing fails."""
    tools: dict[str, Any] = {"docker": "#!/bin/sh\n", "docker-compose": "#!/bin/sh\n"}
    look = 'for path; do stat -c "%F %N" "$path" 2>/dev/null || echo gone; done'
    workshop.sh("mkdir -p /usr/local/lib/docker/cli-plugins").check()
    store_app(workshop, put_package, configured(containers={"createDockerSymlinks": True}) | tools)
    try:
        for tool, link in LINKS.items():
            workshop.velkctl("setup", "Sample").check()
            workshop.sh(script, link, tool).check()
            before = workshop.sh(look, link).stdout
            assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
            others = [path for path in LINKS.values() if path != link]
            assert workshop.sh(look, link, *others).stdout == before + "gone\n"
            workshop.sh('rm -f "$1"', link).check()
    finally:
        workshop.sh("rm -rf /usr/local/lib/docker /usr/local/bin/docker").check()


def test_a_card_directory_that_hides_a_file_under_its_mount_stays(
    workshop: Device, put_package: Put, card: Callable[..., None]
) -> None:
    card()
    store_app(workshop, put_package, app(), "sd_card1")
    workshop.velkctl("setup", "Sample").check()
    with under_the_mounts(workshop) as store:
        workshop.sh(f"echo mine >{store}/Sample/hidden").check()
    found = velkctl(workshop, "teardown", "Sample")
    hidden = workshop.read(f"{STORE}/Sample/hidden")
    workshop.sh(f"cd {STORE} && rm Sample/hidden && rmdir Sample && ln -s {CARD}/Sample/lower Sample").check()
    workshop.velkctl("remove", "Sample").check()
    errors = "src/integration/systemd.cpp: Errors occurred when unmounting filesystems for Sample\n"
    assert (found, hidden) == ((10, STAYING + errors + UNITS_FAILED), "mine\n")


def test_units_that_cannot_be_looked_through(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    command = "mount -t tmpfs none /etc/systemd && exec velkctl teardown --persist-user Sample"
    result = workshop.run(["unshare", "--mount", "sh", "-c", command])
    unread = f"src/integration/systemd.cpp: The systemd path {UNITS} could not be opened\n"
    assert (result.status, result.stdout, without_place(result.stderr)) == (10, "", unread + UNITS_FAILED)
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
