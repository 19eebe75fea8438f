"""`velk-pack verify` refuses on a PC what a device refuses, and with the same exit status."""

from __future__ import annotations

import gzip
import json
import os
import re
import subprocess
from collections.abc import Callable
from pathlib import Path

import hostile_archives
import pytest
import store_support as support
from velkdevice import package
from velkdevice.device import Device

CHECKOUT = Path(__file__).resolve().parents[2]
Verify = Callable[[Path], tuple[int, str]]

# What only shows when the archive is unpacked, which a PC leaves to the device: where links lead, what stands in the
# way of a name, how long it may be.
ONLY_WHEN_UNPACKED = {
    "an empty name", "a component of 256 bytes", "a name of 4096 bytes", "a path of 4096 bytes", "a path of a megabyte",
    "a link out and a file through it", "a relative link out and a file through it",
    "a link out and a directory through it", "a link out and a link through it",
    "a link out and a hard link through it", "a link out and a directory in its place",
    "a directory that becomes a link and a file through it", "a chain of links out",
    "a link to the store and a file through it", "a link to the process's own root and a file through it",
    "a link to the working directory and a file through it", "a loop of links and a file through it",
    "a link with an empty target", "a link with a target that is too long", "a hard link out",
    "a hard link to a file above", "a hard link to another application", "a hard link to itself",
    "a hard link to a directory", "a hard link to nothing", "a link to the root and a file through it",
    "a full directory that becomes a file", "another manifest through a link",
    "a manifest that becomes a directory with a file", "a file below a file",
    "a directory above a configuration that is a link out", "a sparse file of 8 EiB",
    "a link out by extension and a file through it",
}  # fmt: skip
# Refused by both, but a device that measures the damaged stream before it unpacks it says so with another status, and
# one that finds no text in a manifest that is a link finds it to be no JSON.
OTHER_STATUS = re.compile(r"a signed stream|a manifest that is a (hard )?link|a configuration that is the manifest")
# A device takes what stands before the cut; nobody makes such a package on purpose.
STRICTER = {"a cut in a header"}


@pytest.fixture(scope="module")
def verify(tmp_path_factory: pytest.TempPathFactory) -> Verify:
    """velk-pack as it was built beside velkctl, with the keyring of the device."""
    velkctl = Path(os.environ.get("VELKCTL_BINARY", CHECKOUT / "build" / "debug" / "src" / "velkctl"))
    program = Path(os.environ.get("VELK_PACK_BINARY", velkctl.parent / "velk-pack"))
    if not program.exists():
        pytest.skip("needs velk-pack beside velkctl")
    keyring = tmp_path_factory.mktemp("keys") / "ring"
    keyring.write_bytes(package.Key.trusted().keyring())

    def run(path: Path) -> tuple[int, str]:
        command = [program, "verify", "--keyring", keyring, path]
        result = subprocess.run(command, capture_output=True, check=False, timeout=120)
        return result.returncode, result.stderr.decode()

    return run


def of_device(device: Device, data: bytes, name: str) -> int:
    """The status with which a device refuses a package, by its signature or else at the import; 0 when it is taken."""
    path = support.put(device, data, name)
    try:
        status = device.velkctl("verify-signature", path).status or device.velkctl("import", path).status
        assert status is not None
        return status
    finally:
        support.remove_app(device)
        device.sh("rm -rf /tmp/packages")


def odd_packages() -> dict[str, tuple[str, bytes]]:
    """Packages under the names of their files, by what is odd about them."""
    key = package.Key.trusted()
    good = support.simple_package()
    data = support.simple_package(sign=False)
    armoured = key.sign(data)

    def of(members: list[tuple[object, bytes]]) -> bytes:
        return support.signed(gzip.compress(support.archive(members), mtime=0))  # type: ignore[arg-type]

    def without(name: str) -> list[tuple[object, bytes]]:
        return [(info, text) for info, text in support.base_members() if info.name != name]

    manifest = json.dumps(support.app_files()["manifest.json"]).encode()
    other = json.dumps(support.app_files(version="7.7.7")["manifest.json"]).encode()
    content = {
        "nothing odd": good,
        "a plain archive": support.simple_package(compress=False),
        "no signature": data,
        "a binary signature": package.append_signature(data, key.gpg("--detach-sign", data=data)),
        "line ends of other systems in the armour": package.append_signature(data, armoured.replace(b"\n", b"\r\n")),
        "headers in the armour": package.append_signature(
            data, armoured.replace(b"-----\n", b"-----\nVersion: 1\nComment: x\n", 1)),
        "a blank line before the armour": package.append_signature(data, b"\n" + armoured),
        "an empty header in the armour": package.append_signature(
            data, armoured.replace(b"-----\n", b"-----\nComment:\n", 1)),
        "no archive at all": support.signed(b"a text, and no archive " * 50),
        "no manifest": of(without("manifest.json")),
        "no package.conf": of(without("package.conf")),
        "a package.conf that is a link": of([*without("package.conf"), support.link("package.conf", "manifest.json")]),
        "a package.conf that is a directory": of([*without("package.conf"), support.folder("package.conf")]),
        "a manifest that is no JSON": of([*without("manifest.json"), support.member("manifest.json", b"{")]),
        "a manifest of another spelling": of([*without("manifest.json"), support.member("./manifest.json", manifest)]),
        "a manifest by an absolute name": of([*without("manifest.json"), support.member("/manifest.json", manifest)]),
        "two manifests": of([*support.base_members(), support.member("manifest.json", manifest)]),
        "another manifest behind": of([*support.base_members(), support.member("./manifest.json", other)]),
        "another manifest before": of([support.member("./manifest.json", other), *support.base_members()]),
        "the same manifest behind": of([*support.base_members(), support.member(".//manifest.json", manifest)]),
        "a version that is none": support.simple_package(version="1.2"),
        "a member above": of([*support.base_members(), support.member("../x")]),
        "a whole stream and rubbish": support.signed(data + b"rubbish"),
    }  # fmt: skip
    table = {what: ("App.vlp", content) for what, content in content.items()}
    table |= {what: ("App.vlp", content) for what, (content, _) in support.refused_signatures(data).items()}
    table |= {what: ("App.vlp", content) for what, content in support.packages_with_mistakes().items()}
    names = ("a package.vlp", "a;b.vlp", "\u00fc.vlp", "App.vlp\n", "a'b.vlp", "a+b.vlp", "-App.vlp", "App", ".vlp")
    return table | {f"a name of {name!r}": (name, good) for name in names}


@pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")
def test_a_pc_and_a_device_refuse_the_same(device: Device, verify: Verify, tmp_path: Path) -> None:
    table = odd_packages()
    on_device = {what: of_device(device, data, name) for what, (name, data) in table.items()}
    on_pc = {}
    for what, (name, data) in table.items():
        (tmp_path / name).write_bytes(data)
        on_pc[what] = verify(tmp_path / name)[0]
    assert on_pc == on_device
    assert sorted(set(on_device.values())) == [0, 1, 2, 10, 29]


def test_an_archive_that_a_device_refuses_is_refused(verify: Verify, tmp_path: Path) -> None:
    """The device's answers to them are compared elsewhere."""
    wanted, found = {}, {}
    for what, case in hostile_archives.cases().items():
        (tmp_path / "App.vlp").write_bytes(support.signed(case.data))
        status, log = verify(tmp_path / "App.vlp")
        if what in ONLY_WHEN_UNPACKED:
            assert case.outcome[0] == 1, what
            continue
        assert log.count("\n") == (status != 0), log
        is_own = OTHER_STATUS.match(what) and case.outcome[0] != 0
        wanted[what] = 1 if what in STRICTER or is_own else case.outcome[0]
        found[what] = status
    assert found == wanted


@pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")
def test_a_data_part_of_2_gib_is_refused(device: Device, verify: Verify, tmp_path: Path) -> None:
    signature = package.Key.trusted().sign(b"x")
    end = signature + package.trailer(len(signature))
    path = tmp_path / "App.vlp"
    with path.open("wb") as file:
        file.truncate(0x80000000)
        file.seek(0, os.SEEK_END)
        file.write(end)
    device.write("/tmp/packages/end", end)
    device.sh("cd /tmp/packages && truncate -s 2G App.vlp && cat end >>App.vlp").check()
    result = device.velkctl("verify-signature", "/tmp/packages/App.vlp")
    device.sh("rm -r /tmp/packages").check()
    assert support.outcome(result) == (
        2, "code 2: Can not read past beginning of file, signature size is too large\n"
    )  # fmt: skip
    assert verify(path) == (2, f"velk-pack: {path}: is 2 GiB or larger, which no device verifies\n")
