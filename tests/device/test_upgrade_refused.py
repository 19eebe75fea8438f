"""
An upgrade to a package that import refuses: the old version stands as it was, set up and listed; only its data is saved.

Whatever can be seen of the new version before the old one is torn down is seen then, with the words that import has for it.
"""

from __future__ import annotations

import gzip
import json
from collections.abc import Callable, Iterator
from typing import Any

import pytest
import stepper
import store_support as support
from apps import is_locked, without_place
from setups import STORE, failing, program
from store_support import SETTINGS
from test_upgrade import SAMPLE, SAVED, SAMPLE_DONE, Upgrade, camera, old_version, upgrade, version
from velkdevice import package

__all__ = ["camera", "upgrade"]
PATH = "/tmp/packages/New.vlp"
INVALID = (1, "code 1: Invalid application package\n")
NOT_ALLOWED = (2, "code 2: Unsigned package not allowed\n")
UNSIGNED = "Unsigned package, skipping signature verification\n"


def members(**settings: Any) -> list[Any]:
    """The new version as an archive's members."""
    files = old_version(version="2.0.0", **settings)
    return [support.member(name, (text if isinstance(text, str) else json.dumps(text)).encode(), mode=0o755)
            for name, text in files.items()]  # fmt: skip


def packed(**settings: Any) -> bytes:
    return gzip.compress(support.archive(members(**settings)), mtime=0)


@pytest.fixture
def refused(upgrade: Upgrade) -> Iterator[Callable[..., None]]:
    """Require that an upgrade to this package ends so, and that nothing but the backup came of it."""
    device = upgrade.device
    upgrade.prepare()

    def require(data: bytes, expected: tuple[int, str], location: str = "internal", left: int = 0, **options: Any) -> None:
        support.put(device, data, "New.vlp")
        with program(device, "systemctl", 'echo "$@" >>/tmp/fake/calls\nexec "$REAL" "$@"\n') as env:
            options["env"] = env | options.get("env", {})
            result = device.velkctl("install", PATH, location, **options)
            asked = device.read("/tmp/fake/calls").splitlines()
        device.sh(f"rm {PATH}").check()
        assert (result.status, without_place(result.stderr)) == expected
        # Nothing was stopped, and nothing needs a reload.
        assert asked == ["is-active --quiet sdkSample.service"]
        split = support.temporaries(device)
        assert (len(split), is_locked(device)) == (left, False)
        device.sh("rm -f /tmp/velkctl_*").check()
        assert upgrade.left() == SAVED
        assert version(device, "Sample") == "1.0.0"
        [listed] = json.loads(device.velkctl("list").stdout)
        assert (listed["fullyInstalled"], listed["signatureStatus"]) == ("Yes", "Signed")

    yield require
    assert upgrade.to_new() == SAMPLE_DONE
    device.sh("rm -f /tmp/velkctl_*").check()


Refused = Callable[..., None]


@pytest.fixture
def unsigned(upgrade: Upgrade) -> Iterator[None]:
    """Unsigned packages are allowed, from before the look at the old version on."""
    before = upgrade.device.read(SETTINGS)
    support.allow_unsigned(upgrade.device)
    yield
    upgrade.device.write(SETTINGS, before)


def test_a_signature_that_is_none(refused: Refused) -> None:
    refused(packed(), NOT_ALLOWED)
    refused(package.append_signature(packed(), package.Key.trusted().sign(b"other")), support.MISMATCH, left=1)
    refused(support.signed(packed(), package.Key.named("stranger")), support.NOT_OPENPGP, left=1)


def test_a_signature_that_cannot_be_recorded(refused: Refused) -> None:
    data = packed()
    binary = package.append_signature(data, package.Key.trusted().gpg("--detach-sign", data=data))
    text = "code 10: src/store/velkctl-vsf.cpp: Failed to write required fields in VSF for application Sample\n"
    refused(binary, (10, text), left=1)


def test_another_firmware_or_processor(refused: Refused, upgrade: Upgrade) -> None:
    firmware = ("Firmware version 12.4.65 is not compatible with this application. "
                "Compatible versions: [99, 99]\n")  # fmt: skip
    shown = upgrade.device.read("/etc/orvo/device-info")
    firmware = firmware.replace("12.4.65", next(line.split("=")[1] for line in shown.splitlines() if "Version" in line))
    refused(support.signed(packed(compatibleOsVersions=[{"min": "99", "max": "99"}])), (5, "code 5: " + firmware))
    machine = upgrade.device.run(["uname", "-m"]).stdout.strip()
    text = f"code 5: Application with architecture other cannot run on system with architecture {machine}\n"
    refused(support.signed(packed(architecture="other")), (5, text))


def test_a_firmware_version_that_is_not_to_be_had(refused: Refused, upgrade: Upgrade) -> None:
    with failing(upgrade.device, "Get"):
        upgrade.look()
        refused(support.signed(packed(compatibleOsVersions=[{"min": "1", "max": "99"}])), (
            55, "src/system/dbus-call.cpp: DBus call to com.orvo.BasicDeviceInfo1.Get failed: Not today\n"
                "Could not retrieve firmware version from D-Bus\nFailed to retrieve the current firmware version\n"))  # fmt: skip


def test_a_name_in_another_case(refused: Refused, upgrade: Upgrade) -> None:
    upgrade.device.sh(f"mkdir {STORE}/SAMPLE").check()
    text = "code 14: Application 'Sample' already exists in the store with a different case 'SAMPLE'\n"
    upgrade.look()
    try:
        refused(support.signed(packed()), (14, text))
    finally:
        upgrade.device.sh(f"rmdir {STORE}/SAMPLE").check()


def test_a_card_that_cannot_take_it(refused: Refused, upgrade: Upgrade) -> None:
    missing = ("code 10: src/store/store-layout.cpp: Cannot store data on the SD card, "
               "no storage exists at /var/spool/storage/SD_DISK\n")  # fmt: skip
    refused(support.signed(packed()), (10, missing), "sd_card1")


def test_a_layer_needs_unsigned_packages_to_be_allowed(refused: Refused) -> None:
    text = "code 33: Signature validation is not supported for location internal_vlpfs\n"
    refused(support.signed(packed()), (33, text), "internal_vlpfs")


def test_an_archive_that_does_not_unpack(refused: Refused) -> None:
    plain = support.archive(members())
    refused(support.signed(plain[: plain.index(b"LICENSE") + 700]), INVALID)
    refused(support.signed(plain[:1536] + b"\1" * 4096), INVALID)


def test_a_package_without_a_package_conf(refused: Refused) -> None:
    without = [pair for pair in members() if pair[0].name != "package.conf"]
    refused(support.signed(support.archive(without)), INVALID)


@pytest.mark.usefixtures("unsigned")
def test_a_layer_without_a_package_conf(refused: Refused) -> None:
    without = support.archive([pair for pair in members() if pair[0].name != "package.conf"])
    refused(without, (1, UNSIGNED + INVALID[1]), "internal_vlpfs")


def test_no_room_for_the_temporary_data(refused: Refused, upgrade: Upgrade) -> None:
    upgrade.device.sh("mkdir /run/small && mount -t tmpfs -o size=16k none /run/small").check()
    try:
        large = support.archive([*members(), support.member("large", bytes(range(256)) * 400)])
        data = support.signed(large)
        support.put(upgrade.device, data, "New.vlp", "/root/p")
        result = upgrade.device.run(
            ["unshare", "--mount", "sh", "-c", 'mount --bind /run/small /tmp && exec velkctl install "$1"', "sh",
             "/root/p/New.vlp"])  # fmt: skip
    finally:
        upgrade.device.sh("umount /run/small; rmdir /run/small; rm -rf /root/p").check()
    told = without_place(result.stderr)
    assert (result.status, told.startswith("code 10: src/store/package-trailer.cpp: Failed writing ")) == (10, True), told
    assert upgrade.left() == SAVED


def on_small_store(upgrade: Upgrade, size: str) -> None:
    """Let the store be a disk of its own of this size, with the old version on it."""
    script = """
        truncate -s "$1" /var/lib/small.img && mkfs.ext4 -q -F -m 0 -O ^has_journal /var/lib/small.img &&
        mkdir -p /run/store && mount -o loop /var/lib/small.img /run/store && rmdir /run/store/lost+found &&
        cp -a /usr/local/packages/. /run/store && umount /run/store && rmdir /run/store &&
        mount -o loop /var/lib/small.img /usr/local/packages &&
        chattr +i /usr/local/packages/Sample/manifest.json /usr/local/packages/Sample/package.conf
    """
    upgrade.device.sh(script, size).check()


@pytest.fixture
def small_store(upgrade: Upgrade) -> Iterator[Callable[[str], None]]:
    yield lambda size: on_small_store(upgrade, size)
    upgrade.device.sh("umount /usr/local/packages; rm -f /var/lib/small.img").check()


def test_room_is_looked_for_as_it_will_be_without_the_old_version(
    upgrade: Upgrade, small_store: Callable[[str], None]
) -> None:
    """The old one's files count as free: what fits in their place is installed, what does not is refused before."""
    device = upgrade.device
    upgrade.install_old(old_version() | {"ballast": b"x" * (5 << 20)})
    small_store("12M")
    old = device.sh(f"cd {STORE}; find Sample _backup -printf '%p %y %m %u:%g %s\\n' | sort").check().stdout
    free = int(device.sh(f"stat -f -c '%a %S' {STORE}").check().stdout.split()[0]) * int(
        device.sh(f"stat -f -c '%S' {STORE}").check().stdout)  # fmt: skip
    assert free < 7 << 20
    result = device.velkctl("install", support.put(device, support.signed(
        support.archive([*members(), support.member("ballast", b"y" * (13 << 20))])), "New.vlp"))  # fmt: skip
    assert (result.status, result.stderr.startswith("code 3: Package too large. Required: ")) == (3, True), result
    now = device.sh(f"cd {STORE}; find Sample _backup -printf '%p %y %m %u:%g %s\\n' | sort").check().stdout
    assert [line for line in now.splitlines() if "_backup" not in line] == [
        line for line in old.splitlines() if "_backup" not in line]  # fmt: skip
    result = device.velkctl("install", support.put(device, support.signed(
        support.archive([*members(), support.member("ballast", b"y" * (8 << 20))])), "New.vlp"))  # fmt: skip
    assert (result.status, without_place(result.stderr)) == SAMPLE_DONE
    assert device.read(f"{SAMPLE}/localdata/note") == "kept\n"
    device.sh(f"rm {PATH}").check()
    device.velkctl("uninstall", "Sample").check()


def test_an_upgrade_verifies_and_copies_once(upgrade: Upgrade) -> None:
    upgrade.prepare()
    path = upgrade.put_package(upgrade.device, old_version(version="2.0.0"))
    with program(upgrade.device, "gpgv", 'echo run >>/tmp/fake/runs\nexec "$REAL" "$@"\n') as env:
        followed = upgrade.device.run(stepper.argv(["/usr/bin/velkctl", "install", path], "--without-sync"),
                                      env=stepper.ENVIRONMENT | env)  # fmt: skip
        assert upgrade.device.read("/tmp/fake/runs") == "run\n"
    points, end = stepper.parse(upgrade.device.sh('cat "$1" && rm "$1"', stepper.LOG).check().stdout)
    assert (followed.status, end) == (0, "exited 0")
    made = [point.path for point in points if point.path.startswith("/tmp/velkctl_") and point.path.endswith(".vlp")
            and point.call.startswith("open")]  # fmt: skip
    assert len(set(made)) == 1, made
    assert version(upgrade.device, "Sample") == "2.0.0"


@pytest.mark.parametrize("location", ["internal", "internal_vlpfs"])
def test_a_package_that_another_takes_the_place_of(
    refused: Refused, upgrade: Upgrade, unsigned: None, location: str
) -> None:
    """The other one comes when the first one's manifest is read, before anything else of it is."""
    del unsigned
    device = upgrade.device
    other = support.put(device, support.archive(members(vendorId="others")), "Other.vlp")
    script = f'"$REAL" "$@"; status=$?; [ ! -f {other} ] || mv {other} {PATH}; exit $status\n'
    try:
        with program(device, "tar", script):
            device.sh("mkdir -p /run/fake-tar && cp /tmp/fake/tar /run/fake-tar/").check()
        upgrade.look()
        env = {"PATH": "/tmp/fake:/run/fake-tar:" + device.environment["PATH"]}
        refused(support.archive(members()), (1, UNSIGNED + INVALID[1]), location, env=env)
    finally:
        device.sh("rm -rf /run/fake-tar").check()


def test_a_package_among_the_old_version_s_files_does_not_go_with_them(upgrade: Upgrade, unsigned: None) -> None:
    """A signed one is copied before; an unsigned one would be gone once it is to be unpacked."""
    del unsigned
    upgrade.prepare()
    device, path = upgrade.device, f"{SAMPLE}/localdata/New.vlp"
    device.write(path, packed())
    result = device.velkctl("install", path)
    told = f"{UNSIGNED}code 10: Path is not a valid canonicalizable path: {path}\n"
    assert (result.status, without_place(result.stderr), version(device, "Sample")) == (10, told, "1.0.0")
    assert device.exists("/etc/systemd/system/sdkSample.service")
    device.write(path, support.signed(packed()))
    result = device.velkctl("install", path)
    assert (result.status, without_place(result.stderr), version(device, "Sample")) == (*SAMPLE_DONE, "2.0.0")
