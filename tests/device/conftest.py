"""
Fixtures of the device tests.

    device          a booted device with velkctl on it, one for the whole run; leave it as you found it
    pristine        the same, and the test fails when it left something behind
    fresh_device    a device of the test's own, thrown away afterwards: to reboot, break or kill
    boot_device     the same as a function, with arguments, for tests that need several
    make_package    make_package({"manifest.json": ..., ...}) -> host path of a signed package
    put_package     the same, and copied onto a device: -> path there
    full            whether --full was given: every case, where a fixed sample is run otherwise
"""

from __future__ import annotations

import os
import sys
from collections.abc import Callable, Iterator, Mapping
from pathlib import Path
from typing import Any

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(CHECKOUT / "device" / "kit"))
sys.dont_write_bytecode = True

pytest.register_assert_rewrite("store_support")

from store_support import (  # noqa: E402, F401  (fixtures for whoever asks for them)
    card,
    leaves_nothing,
    leaves_the_device_as_it_was,
    run_import,
    unsigned_allowed,
)
from velkdevice import host, package, snapshot  # noqa: E402
from velkdevice.device import COUNTS, Device  # noqa: E402

# How the test before left the device; a look that differs may only have come too early.
LAST_SEEN: dict[str, snapshot.Snapshot] = {}
SKIP = pytest.StashKey[list[str]]()


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--full", action="store_true", help="also run what takes long (marked full)")


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "full: takes long, so it is run with --full only")
    config.stash[SKIP] = host.missing()


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """On a machine that cannot boot a device every test is skipped, with the reason beside it."""
    lacking = config.stash[SKIP]
    if lacking:
        reason = "this machine cannot boot a device; missing: " + ", ".join(lacking)
        for item in items:
            item.add_marker(pytest.mark.skip(reason=reason))
    if not config.getoption("--full"):
        for item in items:
            if item.get_closest_marker("full"):
                item.add_marker(pytest.mark.skip(reason="takes long: run with --full"))


def pytest_terminal_summary(terminalreporter: Any, config: pytest.Config) -> None:
    for thing in config.stash[SKIP]:
        terminalreporter.write_line(f"DEVICE TESTS NOT RUN, missing: {thing}", red=True, bold=True)


def _velkctl() -> Path | None:
    """The program under test: what the caller names, else that of the debug build."""
    named = os.environ.get("VELKCTL_BINARY")
    built = CHECKOUT / "build" / "debug" / "src" / "velkctl"
    return Path(named) if named else built if built.exists() else None


def _keep_coverage(device: Device) -> None:
    """In a coverage run: take the counts of the programs on the device out, for tools/cover to merge."""
    folder = os.environ.get("VELKCTL_COVERAGE")
    if folder and device.running:
        packed = f"{COUNTS}.tar"
        device.sh('mkdir -p "$1" && tar -cf "$2" -C "$1" .', COUNTS, packed).check()
        device.copy_out(packed, Path(folder) / f"{device.name}.tar")


@pytest.fixture(scope="session")
def full(request: pytest.FixtureRequest) -> bool:
    """Whether everything is wanted, and not a sample of it."""
    return bool(request.config.getoption("--full"))


@pytest.fixture(scope="session")
def device() -> Iterator[Device]:
    with Device(_velkctl()) as booted:
        assert booted.settle() == "running", booted.run(["systemctl", "--failed", "--no-pager"]).stdout
        yield booted
        _keep_coverage(booted)


@pytest.fixture
def pristine(device: Device) -> Iterator[Device]:
    """The common device; what differs after the test from before it makes the test fail."""
    before = LAST_SEEN[device.name] = snapshot.like(LAST_SEEN.get(device.name), device, timeout=1)
    yield device
    after = snapshot.like(before, device)
    LAST_SEEN[device.name] = after
    left = before.differences(after)
    assert not left, "the test left the device changed:\n" + "\n".join(left)


@pytest.fixture
def boot_device() -> Iterator[Callable[..., Device]]:
    booted: list[Device] = []

    def boot(**arguments: Any) -> Device:
        booted.append(Device(_velkctl(), **arguments))
        return booted[-1]

    yield boot
    for one in booted:
        _keep_coverage(one)
        one.close()


@pytest.fixture
def fresh_device(boot_device: Callable[..., Device]) -> Device:
    fresh = boot_device()
    fresh.settle()
    return fresh


@pytest.fixture
def make_package(tmp_path: Path) -> Callable[..., Path]:
    """
    A function that packs described files: make_package(files, name=..., key=..., sign=..., compress=...).
    """

    def make(files: Mapping[str, Any], name: str | None = None, **options: Any) -> Path:
        given = files.get("manifest.json", {})
        inside = (
            given.get("velkPackageConf", {}).get("setup", {}).get("appName")
            if isinstance(given, dict)
            else None
        )
        target = tmp_path / (name or f"{inside or 'package'}.vlp")
        folder = tmp_path / f"tree-{len(list(tmp_path.iterdir()))}"
        folder.mkdir()
        return package.pack(package.write_tree(folder, files), target, **options)

    return make


@pytest.fixture
def put_package(make_package: Callable[..., Path]) -> Iterator[Callable[..., str]]:
    """As `make_package`, with the device in front; the copies on the device go when the test ends."""
    put: list[tuple[Device, str]] = []

    def copy(target: Device, files: Mapping[str, Any], **options: Any) -> str:
        source = make_package(files, **options)
        path = f"/tmp/packages/{source.name}"
        target.copy_in(source, path)
        put.append((target, path))
        return path

    yield copy
    for target, path in put:
        if target.running:
            target.sh('rm -f "$1"; rmdir --ignore-fail-on-non-empty /tmp/packages', path)
