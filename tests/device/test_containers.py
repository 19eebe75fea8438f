"""What an application that hosts containers has on the device: what it takes away is its own and nobody else's."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest
from setups import Put, configured, section, set_up, velkctl, workshop
from velkdevice.device import Device

SOCKET = "/var/run/docker.sock"
TOOLS = {"docker": "#!/bin/sh\n", "docker-compose": "#!/bin/sh\n"}
TORN_DOWN = (0, "Successfully tore down application Sample\n")


@pytest.fixture
def engine(workshop: Device) -> Iterator[Device]:
    """The device, with a place for the tools, and without ranges and socket in the end."""
    workshop.sh("mkdir -p /usr/local/lib/docker/cli-plugins").check()
    yield workshop
    workshop.sh(f"rm -rf /usr/local/lib/docker {SOCKET}; : >/etc/subuid; : >/etc/subgid").check()


def hosting(**settings: Any) -> dict[str, Any]:
    return configured(containers={"containerHost": True, "createDockerSymlinks": True, **settings}) | TOOLS


def uid_of(device: Device) -> str:
    return device.run(["id", "-u", "velk-sample"]).check().stdout.strip()


def ranges(device: Device) -> list[str]:
    return [device.read(path) for path in ("/etc/subuid", "/etc/subgid")]


@pytest.mark.parametrize(
    ("made", "left"),
    [("ln -s /var/run/user/$1/docker.sock", "none"), ("ln -s /var/run/user/1/docker.sock", "l /var/run/user/1/docker.sock"),
     ("mkfifo", "p "), ("mkdir", "d "), ("touch", "f ")])  # fmt: skip
def test_only_the_link_to_its_own_socket_goes(engine: Device, put_package: Put, made: str, left: str) -> None:
    set_up(engine, put_package, hosting())
    engine.sh(f"{made} {SOCKET}", uid_of(engine)).check()
    assert velkctl(engine, "teardown", "Sample") == TORN_DOWN
    assert engine.sh(f"find {SOCKET} -printf '%y %l' 2>/dev/null || echo -n none").stdout == left


def test_a_file_of_ranges_that_ends_within_a_line_keeps_that_line(engine: Device, put_package: Put) -> None:
    for path in ("/etc/subuid", "/etc/subgid"):
        engine.write(path, "someone:100000:65536")
    set_up(engine, put_package, hosting())
    line = f"{uid_of(engine)}:200000:65536\n"
    assert ranges(engine) == [f"someone:100000:65536\n{line}"] * 2
    assert velkctl(engine, "teardown", "Sample") == TORN_DOWN
    assert ranges(engine) == ["someone:100000:65536\n"] * 2


def test_a_group_with_a_high_number_is_no_range(engine: Device, put_package: Put) -> None:
    """Its line comes first, and is what setup finds when it comes again."""
    engine.sh("groupmod -g 4242 video").check()
    try:
        set_up(engine, put_package, section(hosting(), "resources.linux.user.groups", ["video"]))
        uid = uid_of(engine)
        expected = [f"{uid}:100000:65536\n", f"{uid}:4242:1\n{uid}:100000:65536\n"]
        assert ranges(engine) == expected
        assert velkctl(engine, "teardown", "--persist-user", "Sample") == TORN_DOWN
        assert velkctl(engine, "setup", "Sample")[0] == 0
        assert ranges(engine) == expected
        engine.velkctl("uninstall", "Sample").check()
    finally:
        engine.sh("groupmod -g 44 video").check()


def test_the_ranges_of_a_user_of_the_device_stay(engine: Device, put_package: Put) -> None:
    files = section(hosting(), "velkPackageConf.setup.user", {"username": "sdk", "group": "sdk"})
    uid = engine.run(["id", "-u", "sdk"]).check().stdout.strip()
    for path in ("/etc/subuid", "/etc/subgid"):
        engine.write(path, f"{uid}:500000:65536\n")
    set_up(engine, put_package, files)
    assert velkctl(engine, "teardown", "Sample") == TORN_DOWN
    assert ranges(engine) == [f"{uid}:500000:65536\n"] * 2
