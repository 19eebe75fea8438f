"""Import while the system fails it: what it is not told, or what is taken away, on its way."""

from __future__ import annotations

import os
from collections.abc import Callable

import pytest
import store_support as support
from setups import program
from store_support import CARD, STORE, Import
from velkdevice.device import Device

pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")
SUCCESS = (0, "Successfully imported application 'App'\n")
UNSIGNED = "Unsigned package, skipping signature verification\n"


@pytest.mark.parametrize(
    ("arrangement", "text"),
    [
        ("mount -t tmpfs none /proc", "Cannot read mount points"),
        (
            "mount -t tmpfs none /proc && : >/proc/mounts",
            "Mount entry for /var/spool/storage/SD_DISK not found in /proc/mounts",
        ),
    ],
)
@pytest.mark.usefixtures("unsigned_allowed")
def test_a_card_of_which_the_system_tells_nothing(device: Device, arrangement: str, text: str) -> None:
    if "UBSAN_OPTIONS" in os.environ:
        pytest.skip("the sanitizers read their options and what they know of the process below /proc")
    path = support.put(device, support.simple_package(sign=False))
    card = "mount -t tmpfs none /var/spool/storage && mkdir /var/spool/storage/SD_DISK"
    command = f'{card} && {arrangement} && exec velkctl import "$1" sd_card1'
    result = device.run(["unshare", "--mount", "sh", "-c", command, "sh", path])
    message = f"code 10: src/store/store-layout.cpp:N: {text}\n"
    assert support.outcome(result) == (10, UNSIGNED + message)
    support.is_nowhere(device)


@pytest.mark.usefixtures("unsigned_allowed")
def test_a_store_that_cannot_be_listed(device: Device) -> None:
    path = support.put(device, support.simple_package(sign=False))
    command = f"""
        mount -t tmpfs -o mode=0300,uid=nobody none {STORE} &&
        exec setpriv --reuid nobody --clear-groups velkctl import "$1"
    """
    result = device.run(["unshare", "--mount", "sh", "-c", command, "sh", path])
    message = f"code 10: src/store/velkctl-import.cpp:N: Failed to open store path {STORE}: Permission denied\n"
    assert support.outcome(result) == (10, UNSIGNED + message)


@pytest.mark.parametrize("location", ["internal", "internal_vlpfs"])
def test_a_package_that_another_takes_the_place_of(
    device: Device, location: str, unsigned_allowed: None
) -> None:
    """What was checked of the first one says nothing of the second: not even its name."""
    members = support.base_members("Other")
    other = support.put(device, support.signed(support.archive(members)), "Other.vlp")
    path = support.put(device, support.simple_package())
    script = f'"$REAL" "$@"; status=$?; [ ! -f {other} ] || mv {other} {path}; exit $status\n'
    with program(device, "tar", script) as env:
        found = support.outcome(device.velkctl("import", path, location, env=env))
    assert found == (1, "code 1: Invalid application package\n")
    assert not device.exists(f"{STORE}/App")
    device.sh("chattr -R -i /opt/packages/_layers/App; rm -rf /opt/packages/_layers/App /etc/velk/vsf/App")


def test_data_that_is_emptied_behind_its_verification(device: Device, run_import: Import) -> None:
    path = support.put(device, support.simple_package())
    with program(device, "gpgv", '"$REAL" "$@" || exit\nfor data; do :; done\n: >"$data"\n') as env:
        found = support.outcome(device.velkctl("import", path, env=env))
    text = "Failed to validate space for unpacking archive, uncompressed size is 0"
    assert found == (10, f"code 10: src/store/store-layout.cpp:N: {text}\n")
    support.is_nowhere(device)


@pytest.mark.usefixtures("unsigned_allowed")
def test_a_file_system_that_does_not_tell_its_room(device: Device) -> None:
    path = support.put(device, support.simple_package(sign=False))
    command = ["systemd-run", "--quiet", "--collect", "--pipe", "--wait", "-p", "SystemCallFilter=~statfs fstatfs",
               "-p", "SystemCallErrorNumber=EIO", "-E", "ASAN_OPTIONS", "-E", "LLVM_PROFILE_FILE"]  # fmt: skip
    result = device.run([*command, "velkctl", "import", path])
    text = f"Failed to get filesystem stats for {STORE}/App.tmp: Input/output error"
    assert support.outcome(result) == (10, f"{UNSIGNED}code 10: src/store/store-layout.cpp:N: {text}\n")
    support.is_nowhere(device)


def test_data_that_cannot_be_deleted_is_only_told(device: Device) -> None:
    path = support.put(device, support.simple_package())
    script = '"$REAL" "$@" || exit\nfor data; do :; done\nmount --bind "$data" "$data"\n'
    with program(device, "gpgv", script) as env:
        result = device.run(["unshare", "--mount", "velkctl", "import", path], env=env)
    [left] = support.temporaries(device)
    device.sh("rm /tmp/velkctl_*").check()
    told = f"Failed to delete /tmp/{left}: Device or resource busy\n"
    assert support.outcome(result) == (0, told + SUCCESS[1])


@pytest.mark.parametrize(
    ("location", "place", "text"),
    [
        ("internal", "App", f"Failed renaming file: {STORE}/App.tmp: errno Directory not empty"),
        (
            "sd_card1",
            "App/lower",
            f"Failed renaming file {support.CARD}/App.tmp to {support.CARD}/App/lower: Directory not empty",
        ),
    ],
)
def test_a_place_that_is_taken_while_the_package_is_unpacked(
    device: Device, card: Callable[..., None], location: str, place: str, text: str
) -> None:
    card()
    path = support.put(device, support.simple_package())
    script = f'"$REAL" "$@" && mkdir -p ../{place} && echo mine >../{place}/file\n'
    with program(device, "su", script) as env:
        found = support.outcome(device.velkctl("import", path, location, env=env))
    root = support.CARD if location == "sd_card1" else STORE
    assert found == (10, f"code 10: src/store/store-layout.cpp:N: {text}\n")
    assert device.read(f"{root}/{place}/file") == "mine\n"
    assert not device.exists(f"{root}/App.tmp")
