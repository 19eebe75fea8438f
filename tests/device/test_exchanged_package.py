"""
A package whose name is given to another one, over and over, while a command reads it.

Each command decides by one package only: what was examined is what is verified, imported and recorded, or nothing is.
"""

from __future__ import annotations

import gzip
import json
from collections import Counter
from collections.abc import Iterator

import pytest
import racer
import store_support as support
from apps import app, without_place
from setups import STORE, program
from store_support import LAYERS, STATES
from velkdevice import package
from velkdevice.device import Device

PLACE = "/tmp/packages"
PATH = f"{PLACE}/Sample.vlp"
DECOY = f"{PLACE}/Decoy.vlp"
UNSIGNED = "Unsigned package, skipping signature verification\n"
INVALID = "code 1: Invalid application package\n"


def archive(name: str = "Sample", mark: str = "one", **settings: str) -> bytes:
    files = app(name, **settings) | {"mark": mark}
    return gzip.compress(support.archive(
        support.member(key, (text if isinstance(text, str) else json.dumps(text)).encode(), mode=0o755)
        for key, text in files.items()), mtime=0)  # fmt: skip


def rounds(full: bool) -> range:
    return range(400 if full else 20)


@pytest.fixture
def camera(pristine: Device) -> Iterator[Device]:
    """The common device, on which unsigned packages are allowed; without the applications afterwards."""
    settings = pristine.read(support.SETTINGS)
    support.allow_unsigned(pristine)
    yield pristine
    for name in ("Sample", "Other"):
        if pristine.exists(f"{STORE}/{name}"):
            pristine.velkctl("uninstall", name)
    pristine.sh(f"rm -rf {PLACE} {STORE}/_backup/* {STATES}/Sample {STATES}/Other /tmp/velkctl_*").check()
    pristine.write(support.SETTINGS, settings)


def mark_and_record(device: Device, name: str) -> tuple[str, str]:
    """Which content is stored, and what is recorded of it; both empty for nothing."""
    script = 'cat "$1" 2>/dev/null; echo; cat "$2" 2>/dev/null'
    mark, _, record = device.sh(script, f"{STORE}/{name}/mark", f"{STATES}/{name}").stdout.partition("\n")
    return mark, json.loads(record)["signature"] if record else ""


def test_no_record_comes_to_another_application(camera: Device, full: bool) -> None:
    """A signed package of one application in turns with an unsigned one of another, which is stored already."""
    other = support.put(camera, archive("Other"), "Decoy.vlp")
    camera.velkctl("import", other).check()
    signature = package.Key.trusted().sign(archive())
    support.put(camera, package.append_signature(archive(), signature), "Sample.vlp")
    endings: Counter[str] = Counter()
    with racer.exchange(camera, PATH, DECOY) as race:
        for _ in rounds(full):
            result = camera.velkctl("import", PATH)
            told = without_place(result.stderr).replace(UNSIGNED, "")
            endings[told] += 1
            found = mark_and_record(camera, "Sample")
            assert found == (("one", signature.decode()) if result.status == 0 else ("", "")), told
            assert mark_and_record(camera, "Other") == ("one", ""), told
            assert not support.temporaries(camera)
            if result.status == 0:
                camera.velkctl("remove", "Sample").check()
    assert race.exchanged
    stored_already = "code 14: Application 'Other' already exists in content store\n"
    assert set(endings) <= {"Successfully imported application 'Sample'\n", INVALID, stored_already}


def test_no_unsigned_content_is_recorded_as_signed(camera: Device, full: bool) -> None:
    """The same application, signed and unsigned."""
    signature = package.Key.trusted().sign(archive())
    support.put(camera, package.append_signature(archive(), signature), "Sample.vlp")
    support.put(camera, archive(mark="two"), "Decoy.vlp")
    with racer.exchange(camera, PATH, DECOY) as race:
        for _ in rounds(full):
            status = camera.velkctl("import", PATH).status
            found = mark_and_record(camera, "Sample")
            assert found in ([("one", signature.decode()), ("two", "")] if status == 0 else [("", "")])
            assert status in (0, 1)
            if status == 0:
                camera.velkctl("remove", "Sample").check()
    assert race.exchanged


def test_no_other_vendor_takes_the_application_over(camera: Device, full: bool) -> None:
    """Both are signed: by the vendor of the stored version, and by another one whom the device trusts as well."""
    camera.velkctl("install", support.put(camera, support.signed(archive(vendorId="one")), "Sample.vlp")).check()
    support.put(camera, support.signed(archive(mark="two", vendorId="two")), "Decoy.vlp")
    with racer.exchange(camera, PATH, DECOY) as race:
        for _ in rounds(full):
            result = camera.velkctl("install", PATH)
            assert result.status in (0, 1, 27), result
            found = camera.sh(f"cat {STORE}/Sample/mark {STORE}/Sample/manifest.json").check().stdout
            assert found.startswith("one") and json.loads(found[3:])["velkPackageConf"]["setup"]["vendorId"] == "one"
            assert camera.exists("/etc/systemd/system/sdkSample.service")
    assert race.exchanged


def test_a_package_is_told_by_itself_and_not_by_the_way_to_it(camera: Device, full: bool) -> None:
    """Directories exchanged leave no trace at the files in them."""
    camera.velkctl("import", support.put(camera, archive("Other"), "Sample.vlp", f"{PLACE}/decoy")).check()
    support.put(camera, support.signed(archive()), "Sample.vlp", f"{PLACE}/real")
    path = f"{PLACE}/real/Sample.vlp"
    with racer.exchange(camera, f"{PLACE}/real", f"{PLACE}/decoy") as race:
        for _ in rounds(full):
            status = camera.velkctl("import", path).status
            mark, record = mark_and_record(camera, "Sample")
            assert (mark, bool(record)) == (("one", True) if status == 0 else ("", False))
            assert mark_and_record(camera, "Other") == ("one", "")
            assert status in (0, 1, 14)
            if status == 0:
                camera.velkctl("remove", "Sample").check()
    assert race.exchanged


def test_a_verification_is_of_one_package(camera: Device, full: bool) -> None:
    good = support.signed(archive())
    support.put(camera, good, "Sample.vlp")
    support.put(camera, package.append_signature(archive(mark="two"), package.Key.trusted().sign(archive())), "Decoy.vlp")
    endings = set()
    with racer.exchange(camera, PATH, DECOY) as race:
        for _ in rounds(full):
            result = camera.velkctl("verify-signature", PATH)
            endings.add((result.status, result.stderr))
    assert race.exchanged
    assert endings <= {(0, f"Successfully verified signature of {PATH}\n"), support.MISMATCH, (1, INVALID)}


@pytest.mark.parametrize("decoy", ["link", "directory", "pipe"])
def test_what_takes_the_package_place_while_it_is_copied_is_not_kept(camera: Device, decoy: str) -> None:
    """An unsigned package is copied by its path into the layer store, where root would read through a link."""
    support.put(camera, archive(), "Sample.vlp")
    make = {"link": "ln -s /etc/shadow", "directory": "mkdir", "pipe": "mkfifo"}[decoy]
    script = f'case "$2" in {PATH}) mv {PATH} {DECOY} && {make} {PATH} ;; esac\nexec "$REAL" "$@"\n'
    with program(camera, "cp", script) as env:
        result = camera.velkctl("import", PATH, "internal_vlpfs", env=env)
    assert (result.status, result.stderr) == (1, UNSIGNED + INVALID)
    assert camera.sh(f"find {LAYERS}/Sample").check().stdout == f"{LAYERS}/Sample\n"
    camera.sh(f"rmdir {LAYERS}/Sample").check()
