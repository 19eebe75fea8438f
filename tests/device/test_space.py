"""Room: how much is asked for to the byte, and what a disk that fills up leaves behind."""

from __future__ import annotations

import ast
import gzip
import re
from collections.abc import Callable
from pathlib import Path
from typing import Any

import hostile_archives
import pytest
import store_support as support
from hostile_archives import IMPORTED, UNSIGNED
from store_support import Import
from velkdevice.device import Device

pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was", "unsigned_allowed")

MARGIN = 262144
PLAIN = hostile_archives.archive(hostile_archives.usual())
DIRECTORIES = ("internal", "sd_card1", "sd_card2")  # the locations where packages are unpacked
# Small blocks, no journal, and a part that only root may use: that part is not counted.
SMALL = "-b 1024 -m 5 -O ^has_journal"
CARDS = "/var/spool/storage/SD_DISK /var/spool/storage/SD_DISK2"
FOLDER = "/tmp/space"

Steps = Callable[..., list[Any]]


@pytest.fixture
def on_small_disk(device: Device) -> Steps:
    """on_small_disk(location, mkfs words, packages, *steps): what space_sweep says of each step; see there."""

    def run(location: str, mkfs: str, packages: dict[str, bytes], *steps: str) -> list[Any]:
        try:
            for name, data in packages.items():
                support.put(device, data, name, FOLDER)
            device.copy_in(Path(__file__).parent / "space_sweep.py", f"{FOLDER}/sweep.py")
            # In a namespace of its own nothing stays mounted, whatever happens.
            device.sh(f"mkdir -p {CARDS}").check()
            command = ["unshare", "--mount", "python3", f"{FOLDER}/sweep.py", location, mkfs, *steps]
            lines = device.run(command, timeout=1800).check().stdout.splitlines()
        finally:
            device.sh(f"rmdir {CARDS}; rm -rf {FOLDER} {support.STORE}/App").check()
        return [ast.literal_eval(line) for line in lines]

    return run


def too_large(size: int, available: int) -> tuple[int, str]:
    text = f"Package too large. Required: {size + MARGIN} bytes, available: {available} bytes.\n"
    return 3, f"{UNSIGNED}code 3: {text}"


def sweep(on_small_disk: Steps, location: str, around: list[int]) -> None:
    """Packages of all sizes around the one that just fits; the limit is where it must be, to the byte."""
    packages = {"plain.vlp": PLAIN}
    (available,) = on_small_disk(location, SMALL, packages, "free")
    sizes = [available - MARGIN + more for more in around]
    step = f"sizes:{FOLDER}/plain.vlp:{','.join(map(str, sizes))}"
    found = on_small_disk(location, SMALL, packages, step, "free")
    wanted = [IMPORTED if size + MARGIN <= available else too_large(size, available) for size in sizes]
    assert found == [wanted, available]
    assert IMPORTED in wanted and wanted[-1] != IMPORTED


@pytest.mark.parametrize("location", DIRECTORIES)
def test_a_package_that_just_fits_is_imported_and_one_byte_more_is_refused(
    on_small_disk: Steps, location: str
) -> None:
    sweep(on_small_disk, location, [-1024, -1, 0, 1, 2, 3, 511, 512, 513, 1023, 1024, 1025])


@pytest.mark.full
@pytest.mark.parametrize("location", DIRECTORIES)
def test_every_size_around_what_fits(on_small_disk: Steps, location: str) -> None:
    sweep(on_small_disk, location, list(range(-64, 65)))


def test_the_limit_moves_with_the_free_space(on_small_disk: Steps) -> None:
    """Block by block: what fits depends on what is free at that moment, and nothing of it is lost by imports."""
    size = 1 << 20
    steps = []
    for more in (3072, 2048, 1024, 0):
        # The import itself needs a block for its lock and one for its staging directory.
        steps += [f"leave:{size + MARGIN + more}", "free", f"sizes:{FOLDER}/plain.vlp:{size}", "free"]
    found = on_small_disk("internal", SMALL, {"plain.vlp": PLAIN}, *steps)
    for left, before, outcome, after in zip(*(found[place::4] for place in range(4))):
        assert left > before == after
        assert outcome == [IMPORTED if size + MARGIN <= before else too_large(size, before)]
    assert [outcome[0][0] for outcome in found[2::4]] == [0, 0, 3, 3]


def measured_and_refused(on_small_disk: Steps, data: bytes, size: int) -> None:
    """A small package with much in it is refused for its unpacked size, before anything is unpacked."""
    assert len(data) < 10 << 20
    free, found = on_small_disk("internal", SMALL, {"much.vlp": data}, "free", f"import:{FOLDER}/much.vlp")
    assert found == (*too_large(size, free), [])


def test_a_gibibyte_of_zeros_is_refused_for_what_it_unpacks_to(on_small_disk: Steps) -> None:
    start = hostile_archives.usual() + hostile_archives.header(b"zeros", 1 << 30)
    data = gzip.compress(start, mtime=0) + hostile_archives.zeros(1 << 30)
    measured_and_refused(on_small_disk, data, len(start) + (1 << 30))


@pytest.mark.full
def test_a_million_empty_files_are_refused_for_what_they_unpack_to(on_small_disk: Steps) -> None:
    start = hostile_archives.usual()
    data = (
        gzip.compress(start, mtime=0) + gzip.compress(hostile_archives.header(b"file") * 1000, mtime=0) * 1000
    )
    measured_and_refused(on_small_disk, data, len(start) + 512 * 1_000_000)


# --- disks that fill up ---


def many(count: int, content: bytes) -> bytes:
    return hostile_archives.with_usual(
        *(hostile_archives.entry(f"f{number}", content) for number in range(count))
    )


@pytest.mark.parametrize("location", DIRECTORIES)
@pytest.mark.parametrize(
    ("mkfs", "package"),
    [
        ("-b 4096 -N 4096 -O ^has_journal", many(1900, b"x")),  # no block is left
        ("-b 1024 -N 64 -O ^has_journal", many(100, b"")),  # no inode is left
    ],
    ids=["blocks", "inodes"],
)
def test_a_disk_that_fills_up_while_unpacking_is_reported_as_that(
    on_small_disk: Steps, location: str, mkfs: str, package: bytes
) -> None:
    """It fits by what was measured, but files take more than their bytes; nothing of them stays."""
    packages = {"many.vlp": package, "plain.vlp": PLAIN}
    steps = ["free", f"import:{FOLDER}/many.vlp", "free", f"sizes:{FOLDER}/plain.vlp:{len(PLAIN)}", "free"]
    before, failed, after, then, last = on_small_disk(location, mkfs, packages, *steps)
    assert len(package) + MARGIN <= before
    assert failed == (3, UNSIGNED + support.DISK_FULL, [])
    assert (after, then, last) == (before, [IMPORTED], before)


def test_a_full_layer_location_fails_in_the_copy_and_the_next_import_clears_it(on_small_disk: Steps) -> None:
    packages = {"big.vlp": PLAIN + bytes(2 << 20), "plain.vlp": PLAIN}
    steps = ["leave:1048576", f"import:{FOLDER}/big.vlp", f"import:{FOLDER}/plain.vlp"]
    _, failed, then = on_small_disk("internal_vlpfs", SMALL, packages, *steps)
    copying = f"cp -fdr '{FOLDER}/big.vlp' '{support.LAYERS}/App/lower.vlp'"
    log = support.place(failed[1]).splitlines()
    assert (failed[0], log[0], failed[2]) == (10, UNSIGNED.strip(), ["App", "App/lower.vlp"])
    assert log[-1].startswith(f'code 10: src/system/subprocess.cpp:N: Failed running "{copying}"')
    assert then == (*IMPORTED, ["App/upper", "App/upper/manifest.json", "App/upper/package.conf"])


def test_a_full_store_fails_in_the_lock(on_small_disk: Steps) -> None:
    free, failed = on_small_disk(
        "internal", SMALL, {"plain.vlp": PLAIN}, "full", f"import:{FOLDER}/plain.vlp"
    )
    log = re.sub(r"velkctl_\w{6}\.tmp", "velkctl_XXXXXX.tmp", support.place(failed[1]))
    lock = f"{support.STORE}/_lock/velkctl_XXXXXX.tmp"
    message = f"src/store/lock.cpp:N: Failed writing to temporary lock file {lock}: No space left on device\n"
    assert (free, failed[0], log, failed[2]) == (0, 10, f"{UNSIGNED}code 10: {message}", [])


def test_a_full_card_fails_in_the_staging_directory(on_small_disk: Steps) -> None:
    for location, path in (("sd_card1", support.CARD), ("sd_card2", support.CARD2)):
        free, failed = on_small_disk(
            location, SMALL, {"plain.vlp": PLAIN}, "full", f"import:{FOLDER}/plain.vlp"
        )
        message = (
            f"src/system/file.cpp:N: Could not create directory {path}/App.tmp: No space left on device\n"
        )
        assert (free, failed[0], support.place(failed[1]), failed[2]) == (
            0,
            10,
            f"{UNSIGNED}code 10: {message}",
            [],
        )


def test_no_room_for_the_temporary_data(device: Device) -> None:
    path = support.put(device, support.signed(PLAIN + bytes(range(256)) * 2000), directory="/root/p")
    script = 'mount -t tmpfs -o size=8k none /tmp && velkctl import "$1"; status=$?; ls -A /tmp; exit $status'
    result = device.run(["unshare", "--mount", "sh", "-c", script, "sh", path])
    device.sh("rm -r /root/p").check()
    log = support.place(result.stderr)
    assert (result.status, result.stdout) == (10, "")
    assert log.startswith("code 10: src/store/package-trailer.cpp:N: Failed writing "), log
    assert log.endswith(": No space left on device\n"), log
    support.is_nowhere(device)


def test_no_room_for_the_record_of_the_verification(device: Device, run_import: Import) -> None:
    path = support.put(device, support.simple_package())
    script = 'mount -t tmpfs -o size=4k,nr_inodes=1 none /etc/velk/vsf && velkctl import "$1"'
    result = device.run(["unshare", "--mount", "sh", "-c", script, "sh", path])
    device.sh("rm -f /tmp/velkctl_*")
    message = "src/store/velkctl-vsf.cpp:N: Failed to write required fields in VSF for application App\n"
    assert support.outcome(result) == (10, "code 10: " + message)
    assert run_import(support.simple_package()) == (0, "Successfully imported application 'App'\n")
