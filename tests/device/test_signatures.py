"""Real signatures on the road of import: who is trusted, what is refused, and every byte of a small package."""

from __future__ import annotations

import gzip
import json
from collections.abc import Callable
from pathlib import Path

import hostile_archives
import pytest
import store_support as support
from store_support import STATES, STORE, Import
from velkdevice import package
from velkdevice.device import Device

pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")

DATA = gzip.compress(hostile_archives.archive(hostile_archives.usual()), mtime=0)
SUCCESS = (0, "Successfully imported application 'App'\n")
NOT_RECORDED = (10, "code 10: src/store/velkctl-vsf.cpp:N: Failed to write required fields in VSF for application App\n")
FOLDER = "/tmp/packages"
INSTALLED = r"""
    cd "$1" && find . -printf '%p %y %m %u:%g %s %l\n' | sort && find . -type f -exec sha256sum {} + | sort
"""


@pytest.mark.parametrize("algorithm", ["ed25519", "rsa3072"])
def test_a_key_of_either_kind_installs(device: Device, run_import: Import, algorithm: str) -> None:
    key = package.Key.named("vendor", algorithm)
    signature = key.sign(DATA)
    support.trust(device, package.Key.trusted(), key)
    try:
        assert run_import(package.append_signature(DATA, signature)) == SUCCESS
    finally:
        support.trust(device, package.Key.trusted())
    assert json.loads(device.read(f"{STATES}/App")) == {"signature": signature.decode(), "state": "confirmed"}


def test_what_verification_refuses_is_not_installed(device: Device, run_import: Import) -> None:
    """Each ends as in verification, but for a package whose archive is gone: that has no manifest to begin with."""
    wanted, found = {}, {}
    for name, (content, expected) in support.refused_signatures(DATA).items():
        no_archive = name in ("no data", "a size that wants one byte more than there is")
        wanted[name] = hostile_archives.INVALID_AT_ONCE if no_archive else expected, True, [], False
        outcome = run_import(content)
        # gpgv has refused it, so its data stays for whoever looks into it.
        data = device.sh("rm -f /tmp/velkctl_*.vlp; ls /tmp | grep ^velkctl_").stdout.split()
        found[name] = outcome, support.lock_is_free(device), data, device.exists(f"{STATES}/App")
        support.is_nowhere(device)
    assert found == wanted


def test_what_is_refused_leaves_an_older_record_as_it_was(device: Device, run_import: Import) -> None:
    device.write(f"{STATES}/App", "older")
    bad = package.append_signature(DATA, package.Key.trusted().sign(DATA + b"x"))
    assert run_import(bad) == support.MISMATCH
    assert device.read(f"{STATES}/App") == "older"
    device.sh("rm /tmp/velkctl_*.vlp").check()


# --- every byte of a small package ---

Sweep = Callable[[str, bool, range | list[int]], tuple[int, list[tuple[int, int]], list[int]]]


@pytest.fixture(scope="module")
def content() -> bytes:
    """One package for all: a signature holds its time, so two of them are two different texts."""
    return support.signed(DATA)


@pytest.fixture
def sweep(device: Device, content: bytes) -> Sweep:
    """Try a command on a package changed in each byte and cut everywhere: how many, what passed by change and by cut."""
    path = support.put(device, content)
    device.copy_in(Path(__file__).parent / "signature_sweep.py", f"{FOLDER}/sweep.py")

    def run(
        command: str, cuts: bool, values: range | list[int]
    ) -> tuple[int, list[tuple[int, int]], list[int]]:
        words = ["python3", f"{FOLDER}/sweep.py", path, command, str(int(cuts)), ",".join(map(str, values))]
        lines = [line.split() for line in device.run(words, timeout=7200).check().stdout.splitlines()]
        device.sh("rm -f /tmp/velkctl_*.vlp")
        tried = sum(int(line[1]) for line in lines if line[0] == "tried")
        assert tried == len(content) * (len(values) + cuts)
        changed = sorted((int(line[1]), int(line[2])) for line in lines if line[0] == "changed")
        return tried, changed, [int(line[1]) for line in lines if line[0] == "cut"]

    return run


def require_the_same_installed(
    device: Device, run_import: Import, content: bytes, changed: list[tuple[int, int]]
) -> None:
    """Import the package with each of these changes; what is installed is what the unchanged one installs."""
    assert run_import(content) == SUCCESS
    wanted = device.sh(INSTALLED, f"{STORE}/App").check().stdout
    for place, value in changed:
        support.remove_app(device)
        outcome = run_import(content[:place] + bytes([content[place] ^ value]) + content[place + 1 :])
        # What verification takes, the record of it may still not: that holds text.
        if outcome == NOT_RECORDED:
            # The data was split off before, and stays for whoever looks into it.
            device.sh("rm -f /tmp/velkctl_*.vlp").check()
            support.is_nowhere(device)
            continue
        assert (place, value, outcome) == (place, value, SUCCESS)
        assert (place, value, device.sh(INSTALLED, f"{STORE}/App").check().stdout) == (place, value, wanted)


def test_a_change_in_the_decoration_changes_nothing_or_cannot_be_recorded(device: Device, run_import: Import) -> None:
    """Both ways that a change which passes can end, whatever the sweeps below find."""
    start = b"-----BEGIN PGP SIGNATURE-----\n"
    signature = package.Key.trusted().sign(DATA).replace(start, start + b"Comment: words\n")
    decorated = package.append_signature(DATA, signature)
    place = decorated.index(b"words", len(DATA))
    no_text = decorated[:place] + bytes([decorated[place] ^ 0x80]) + decorated[place + 1 :]
    assert run_import(no_text) == NOT_RECORDED
    support.remove_app(device)
    require_the_same_installed(device, run_import, decorated, [(place, 0x80), (place, 0x20)])


def require_outside_the_data(content: bytes, changed: list[tuple[int, int]]) -> None:
    """What passed was changed in the signature's armour, not in the data nor in the trailer."""
    end = len(content) - 16
    assert [pair for pair in changed if not len(DATA) < pair[0] < end] == []


def test_every_changed_byte_is_refused_or_changes_nothing(
    device: Device, run_import: Import, content: bytes, sweep: Sweep
) -> None:
    tried, changed, cut = sweep("verify-signature", True, [0x20])
    print(
        f"{tried} packages with one byte changed or cut: {len(changed)} passed, changed in the armour's decoration"
    )
    assert cut == []
    require_outside_the_data(content, changed)
    require_the_same_installed(device, run_import, content, changed)


@pytest.mark.full
def test_every_change_of_every_byte(
    device: Device, run_import: Import, content: bytes, sweep: Sweep
) -> None:
    tried, changed, _ = sweep("verify-signature", False, range(1, 256))
    one_of_each_place = list(dict(changed).items())
    print(
        f"{tried} packages with one byte changed: {len(changed)} passed, changed in {len(one_of_each_place)} places"
    )
    require_outside_the_data(content, changed)
    require_the_same_installed(device, run_import, content, one_of_each_place)


@pytest.mark.full
def test_no_cut_package_is_imported(device: Device, sweep: Sweep) -> None:
    assert sweep("import", True, [])[1:] == ([], [])
    support.is_nowhere(device)
