"""install over an application that is not set up any more, as after an upgrade that failed: nothing that was saved is lost."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
from setups import STORE, Put, look_at, program, velkctl
from store_support import CARD, CARD2
from test_upgrade import BACKUPS, DONE, HELLO, answer, camera, change_greeting, hello, install
from velkdevice.device import Device

__all__ = ["camera"]


@pytest.fixture
def carded(camera: Device) -> Iterator[Device]:
    """The device with a card, which is out again afterwards."""
    camera.insert_card()
    yield camera
    if camera.exists(HELLO):
        camera.velkctl("uninstall", "hello")
    camera.remove_card()


def fail_once(device: Device, put_package: Put, location: str) -> None:
    """An upgrade that fails behind its teardown, since the store's files cannot be moved away."""
    root = STORE if location == "internal" else CARD
    with program(device, "chattr", f'"$REAL" "$@" && "$REAL" +i {root}\n') as env:
        path = put_package(device, hello(location, version="2.0.0"))
        result = device.velkctl("install", path, location, env=env)
    device.sh(f"chattr -i {root}").check()
    assert (result.status, device.exists("/etc/systemd/system/sdkhello.service")) == (10, False)


def test_an_upgrade_that_is_tried_again_keeps_settings_and_data(camera: Device, put_package: Put) -> None:
    install(camera, put_package, hello(), "internal")
    change_greeting(camera, "Good day")
    assert answer(camera) == "Good day, this is start number 1.\n"
    for _ in range(2):
        fail_once(camera, put_package, "internal")
        assert "Good day" in camera.read(f"{BACKUPS}/hello/hello.conf")
    assert install(camera, put_package, hello(version="2.0.0"), "internal") == (0, DONE.format("internal"))
    assert answer(camera) == "Good day, this is start number 2.\n"


def test_an_upgrade_on_a_card_that_is_tried_again_keeps_the_data(carded: Device, put_package: Put) -> None:
    install(carded, put_package, hello("sd_card1"), "sd_card1")
    change_greeting(carded, "Good day")
    assert answer(carded) == "Good day, this is start number 1.\n"
    for _ in range(2):
        fail_once(carded, put_package, "sd_card1")
        assert carded.read(f"{BACKUPS}/hello/localdata/starts") == "1\n"
    again = install(carded, put_package, hello("sd_card1", version="2.0.0"), "sd_card1")
    assert again == (0, DONE.format("sd_card1"))
    assert answer(carded) == "Good day, this is start number 2.\n"


def test_a_torn_down_application_on_a_card_keeps_its_data(carded: Device, put_package: Put) -> None:
    install(carded, put_package, hello("sd_card1"), "sd_card1")
    assert answer(carded) == "Hello, this is start number 1.\n"
    change = f"cd {HELLO}/localdata; rm installed; mkdir deep; echo kept >deep/note"
    carded.run(["sh", "-c", change], user="velk-hello").check()
    carded.velkctl("teardown", "hello").check()
    mounts = carded.read("/proc/mounts")
    assert velkctl(carded, "backup", "hello") == (0, "Backed up application hello\n")
    assert carded.read("/proc/mounts") == mounts
    saved = carded.sh(f"cd {BACKUPS}/hello && find . | sort").check().stdout.split()
    assert saved == [".", "./localdata", "./localdata/deep", "./localdata/deep/note", "./localdata/starts"]
    status, told = install(carded, put_package, hello("sd_card1", version="2.0.0"), "sd_card1")
    # That there is no mount to stop is told.
    assert (status, told.splitlines(keepends=True)[-1]) == (0, DONE.format("sd_card1"))
    assert carded.read(f"{HELLO}/localdata/deep/note") == "kept\n"
    assert answer(carded) == "Hello, this is start number 2.\n"


@pytest.mark.parametrize("location", ["sd_card1", "internal_vlpfs"])
def test_a_backup_sees_the_data_also_where_its_mount_was_stopped(
    carded: Device, put_package: Put, unsigned_allowed: None, location: str
) -> None:
    install(carded, put_package, hello(location), location)
    assert answer(carded) == "Hello, this is start number 1.\n"
    carded.sh("systemctl stop usr-local-packages-hello.mount").check()
    assert velkctl(carded, "backup", "hello") == (0, "Backed up application hello\n")
    assert carded.read(f"{BACKUPS}/hello/localdata/starts") == "1\n"
    carded.sh("systemctl start usr-local-packages-hello.mount").check()


def test_an_application_on_a_card_that_was_never_set_up_is_saved_as_it_was_packed(
    carded: Device, put_package: Put
) -> None:
    path = put_package(carded, hello("sd_card1") | {"localdata/packed": "packed\n"})
    carded.velkctl("import", path, "sd_card1").check()
    assert velkctl(carded, "backup", "hello") == (0, "Backed up application hello\n")
    assert carded.read(f"{BACKUPS}/hello/localdata/packed") == "packed\n"


def test_a_card_that_cannot_be_looked_into_keeps_the_backup_before(carded: Device, put_package: Put) -> None:
    install(carded, put_package, hello("sd_card1"), "sd_card1")
    assert answer(carded) == "Hello, this is start number 1.\n"
    carded.velkctl("teardown", "hello").check()
    assert velkctl(carded, "backup", "hello") == (0, "Backed up application hello\n")
    command = ["systemd-run", "--quiet", "--collect", "--pipe", "--wait", "-p", "SystemCallFilter=~fsmount",
               "-p", "SystemCallErrorNumber=EPERM", "-E", "ASAN_OPTIONS", "-E", "LLVM_PROFILE_FILE"]  # fmt: skip
    result = carded.run([*command, "velkctl", "backup", "hello"])
    text = f"Failed to mount {CARD}/hello/upper over {CARD}/hello/lower: Operation not permitted"
    assert (result.status, result.stderr) == (10, f"code 10: src/system/mounts.cpp:{result.stderr.split(':')[2]}: {text}\n")
    assert carded.read(f"{BACKUPS}/hello/localdata/starts") == "1\n"
    assert not carded.exists(f"{BACKUPS}/hello.tmp")


def test_an_uninstallation_takes_away_what_an_interrupted_backup_left(camera: Device, put_package: Put) -> None:
    install(camera, put_package, hello(), "internal")
    camera.sh(f"mkdir -p {BACKUPS}/hello.tmp/localdata {BACKUPS}/hello.remove/localdata").check()
    camera.velkctl("uninstall", "hello").check()
    assert camera.sh(f"ls {BACKUPS}").stdout == ""


def test_a_link_that_leads_nowhere_replaces_nothing_that_was_saved(carded: Device, put_package: Put) -> None:
    """As on the second card, where nothing makes the directory that the store's link leads to."""
    install(carded, put_package, hello(), "internal")
    change_greeting(carded, "Good day")
    assert answer(carded) == "Good day, this is start number 1.\n"
    assert velkctl(carded, "backup", "hello") == (0, "Backed up application hello\n")
    saved = look_at(carded, BACKUPS)
    carded.velkctl("teardown", "hello").check()
    carded.velkctl("remove", "hello").check()
    carded.sh(f"ln -s nowhere/lower {HELLO}; mkdir -p {CARD2}/hello").check()
    found = velkctl(carded, "backup", "hello")
    kept = look_at(carded, BACKUPS)
    carded.sh(f"rm -r {HELLO} {CARD2}; rmdir $(dirname {CARD2})").check()
    assert (found, kept) == ((0, "Backed up application hello\n"), saved)
    assert install(carded, put_package, hello(version="2.0.0"), "internal") == (0, DONE.format("internal"))
    assert answer(carded) == "Good day, this is start number 2.\n"
