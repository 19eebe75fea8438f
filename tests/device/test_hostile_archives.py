"""
Hostile and damaged archives: each ends as it must, and nothing but the application's own directory is touched.

The archives stand in hostile_archives. They are imported one after another in a single go, and each test looks at
what came of one.
"""

from __future__ import annotations

import ast
import re
import zlib
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import hostile_archives
import pytest
import store_support as support
from hostile_archives import APPLICATION, Case
from velkdevice.device import Device

CASES = hostile_archives.cases()
FOLDER = "/tmp/hostile"
ROOTS = ("/", support.STORE, "/opt", "/var/spool/storage")
REMOVED = (0, "Successfully removed application App\n")


@dataclass(frozen=True)
class Found:
    """What came of one import: how it ended, what it made, and what it should not have done."""

    outcome: tuple[int, str]
    tree: dict[str, str]
    outside: list[str]
    processes: list[str]
    removal: tuple[int | None, str]
    remains: list[str]


def import_all(device: Device, cases: dict[str, Case], location: str, folder: Path) -> dict[str, Found]:
    """Import each archive and remove what was imported."""
    folder.chmod(0o755)  # it is copied with its mode, and the unpacking user must get in
    for number, case in enumerate(cases.values()):
        content = support.signed(case.data) if case.sign else case.data
        (folder / f"{number}.vlp").write_bytes(content)
    before = device.read(support.SETTINGS)
    support.allow_unsigned(device)
    try:
        device.copy_in(folder, FOLDER)
        device.copy_in(Path(__file__).parent / "hostile_import.py", "/root/hostile_import.py")
        command = ["python3", "/root/hostile_import.py", FOLDER, location, *ROOTS]
        lines = device.run(command, timeout=3600).check().stdout.splitlines()
    finally:
        device.sh(f"rm -rf {FOLDER} /root/hostile_import.py /tmp/velkctl_*")
        device.write(support.SETTINGS, before)
    assert len(lines) == len(cases)
    return {name: found_in(line) for name, line in zip(cases, lines)}


def found_in(line: str) -> Found:
    status, log, tree, outside, processes, removal, removal_log, remains = ast.literal_eval(line)
    return Found((status, support.place(log)), tree, outside, processes, (removal, removal_log), remains)


def expected_tree(case: Case, tree: dict[str, str]) -> dict[str, object]:
    """What must lie in the application's directory; where there is a choice, the one that was made of it."""
    if case.outcome[0] != 0:
        return {}
    wanted: hostile_archives.Extra = {**APPLICATION, **case.extra}
    return {
        name: tree[name] if isinstance(facts, tuple) and tree.get(name) in facts else facts
        for name, facts in wanted.items()
    }


def harm(found: Found) -> list[str]:
    """Whatever no package may do, in any location and whether it is accepted or not."""
    raised = [f"{name} {facts}" for name, facts in found.tree.items() if re.match(r"\w [1-7]\d{3} ", facts)]
    return [*found.outside, *raised, *(f"process {name}" for name in found.processes)]


@pytest.fixture(scope="module")
def imported(device: Device, tmp_path_factory: pytest.TempPathFactory) -> dict[str, Found]:
    """All archives, imported into the internal location."""
    return import_all(device, CASES, "internal", tmp_path_factory.mktemp("hostile"))


@pytest.mark.parametrize("name", CASES)
def test_a_hostile_archive_ends_as_it_must_and_stays_inside(imported: dict[str, Found], name: str) -> None:
    case, found = CASES[name], imported[name]
    removal = REMOVED if case.outcome[0] == 0 else (None, "")
    assert found.outcome == case.outcome
    assert found.tree == expected_tree(case, found.tree)
    assert (harm(found), found.removal, found.remains) == ([], removal, [])


# --- with and without pigz ---


@contextmanager
def pigz_replaced(device: Device, script: str | None) -> Iterator[None]:
    """With this script in the place of pigz, or with nothing there; it stays on the device as pigz.real."""
    device.sh("mv /usr/bin/pigz /usr/bin/pigz.real").check()
    try:
        if script is not None:
            device.write("/usr/bin/pigz", f"#!/bin/sh\n{script}", mode=0o755)
        yield
    finally:
        device.sh("mv /usr/bin/pigz.real /usr/bin/pigz").check()


def test_a_device_without_pigz_says_the_same_of_every_stream(device: Device, tmp_path: Path) -> None:
    cases = hostile_archives.streams()
    with pigz_replaced(device, None):
        found = import_all(device, cases, "internal", tmp_path)
    for name, case in cases.items():
        assert (name, found[name].outcome) == (name, case.outcome)
        assert (name, found[name].tree) == (name, expected_tree(case, found[name].tree))
        assert (name, harm(found[name]), found[name].remains) == (name, [], [])


def test_pigz_unpacks_where_it_is(device: Device, tmp_path: Path) -> None:
    """For the look into a signed package, and for the files of a single stream; not where it would pass over rubbish."""
    streams = hostile_archives.streams()
    calls = {"two signed streams joined": 1, "a stream with facts in its header": 1, "a stream and rubbish": 0}
    script = 'echo "$*" >>/tmp/pigz-calls\nexec /usr/bin/pigz.real "$@"\n'
    for number, (name, count) in enumerate(calls.items()):
        folder = tmp_path / str(number)
        folder.mkdir()
        device.sh(">/tmp/pigz-calls; chmod 666 /tmp/pigz-calls").check()
        with pigz_replaced(device, script):
            import_all(device, {name: streams[name]}, "internal", folder)
        assert (name, device.read("/tmp/pigz-calls").splitlines()) == (name, ["-d"] * count)
    device.sh("rm /tmp/pigz-calls").check()


# --- the other locations ---


def on_card(case: Case, path: str) -> tuple[int, str]:
    """The same end, with the paths of another location."""
    return case.outcome[0], case.outcome[1].replace(support.STORE, path)


@pytest.mark.full
def test_each_of_them_on_the_first_card(device: Device, card: Callable[..., None], tmp_path: Path) -> None:
    card(megabytes=1024)
    found = import_all(device, CASES, "sd_card1", tmp_path)
    layout = {".": "d 754 root:root", "upper": "d 755 root:root", "work": "d 755 root:root"}
    for name, case in CASES.items():
        below = {key.removeprefix("lower").lstrip("/") or ".": facts
                 for key, facts in found[name].tree.items() if key.startswith("lower")}  # fmt: skip
        rest = {key: facts for key, facts in found[name].tree.items() if not key.startswith("lower")}
        assert (name, found[name].outcome) == (name, on_card(case, support.CARD))
        assert (name, below) == (name, expected_tree(case, below))
        assert (name, rest) == (name, layout if below else {})
        assert (name, harm(found[name]), found[name].remains) == (name, [], [])


@pytest.mark.full
def test_each_of_them_on_the_second_card(device: Device, card: Callable[..., None], tmp_path: Path) -> None:
    card("SD_DISK2", megabytes=1024)
    found = import_all(device, CASES, "sd_card2", tmp_path)
    for name, case in CASES.items():
        assert (name, found[name].outcome) == (name, on_card(case, support.CARD2))
        assert (name, found[name].tree) == (name, expected_tree(case, found[name].tree))
        assert (name, harm(found[name]), found[name].remains) == (name, [], [])


@pytest.mark.full
def test_each_of_them_as_a_layer_file(device: Device, tmp_path: Path) -> None:
    """Nothing is unpacked but the control files, so more is accepted; what is left of a failure is a layer's parts."""
    layer = {".", "lower.vlp", "upper", "upper/manifest.json", "upper/package.conf"}
    found = import_all(device, CASES, "internal_vlpfs", tmp_path)
    for name, one in found.items():
        assert (name, harm(one)) == (name, [])
        if one.outcome[0] == 0:
            assert (name, set(one.tree), one.removal, one.remains) == (name, layer, REMOVED, [])
        else:
            assert (name, one.tree.keys() <= layer) == (name, True)
            remaining = [line for line in one.remains if not line.startswith(f"{support.LAYERS}/App")]
            assert (name, remaining) == (name, [])
        # What the manifest says, or that there is none, is found out before the location matters.
        if CASES[name].outcome[0] == 29 or CASES[name].outcome == hostile_archives.INVALID_AT_ONCE:
            assert (name, one.outcome) == (name, CASES[name].outcome)


# --- very many members ---


def empty_members(names: Iterator[str]) -> bytes:
    """A compressed archive of an application and these empty files."""
    stream = zlib.compressobj(1, wbits=31)
    parts = [stream.compress(hostile_archives.usual())]
    parts += [stream.compress(hostile_archives.header(name.encode())) for name in names]
    return b"".join([*parts, stream.compress(bytes(1024)), stream.flush()])


@pytest.mark.full
def test_a_million_empty_members_of_one_name(device: Device, tmp_path: Path) -> None:
    case = Case(empty_members("again" for _ in range(1_000_000)), hostile_archives.IMPORTED,
                {"again": hostile_archives.file(0)})  # fmt: skip
    found = import_all(device, {"many": case}, "internal", tmp_path)["many"]
    assert (found.outcome, found.tree) == (case.outcome, expected_tree(case, found.tree))
    assert (harm(found), found.removal, found.remains) == ([], REMOVED, [])


@pytest.mark.full
def test_a_million_empty_members(device: Device, tmp_path: Path) -> None:
    """The disk holds fewer files than that, however much room there is for what is in them."""
    data = empty_members(f"d{number // 1000}/{number}" for number in range(1_000_000))
    case = Case(data, (3, hostile_archives.UNSIGNED + support.DISK_FULL))
    found = import_all(device, {"many": case}, "internal", tmp_path)["many"]
    assert (found.outcome, found.tree) == (case.outcome, {})
    assert (harm(found), found.removal, found.remains) == ([], (None, ""), [])
