"""Who may own, ask and hear an application's parameter service on the real bus, before, during and after."""

from __future__ import annotations

import os
import shlex
import signal
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from apps import app
from setups import Put, own, store_app, velkctl, workshop
from velkdevice.device import Device

HERE = Path(__file__).resolve().parent
PEER = "/run/bus-peer"
SERVICE = "com.orvo.Param.Sample"
STRANGERS = ("sdk", "www", "nobody", "velk-other")


@pytest.fixture
def peered(workshop: Device, tmp_path: Path) -> Iterator[Device]:
    """The device with a program that speaks on the bus, and with another application's user."""
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "gio-2.0"], capture_output=True, text=True, check=True)
    subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-o", tmp_path / "peer", HERE / "bus-peer.c",
                    *shlex.split(flags.stdout)], check=True)  # fmt: skip
    workshop.copy_in(tmp_path / "peer", PEER)
    workshop.run(["chmod", "755", PEER]).check()
    workshop.run(["useradd", "--system", "--user-group", "velk-other"]).check()
    yield workshop
    workshop.sh(f"rm {PEER}; userdel velk-other").check()


@contextmanager
def peer(device: Device, what: str, user: str, expected: bytes) -> Iterator[subprocess.Popen[bytes]]:
    """The program at work as this user, from the moment that it has said what is expected."""
    process, told = device.start([PEER, what, SERVICE], user=user)
    try:
        assert process.stdout is not None
        assert process.stdout.readline() == expected + b"\n"
        yield process
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        told()


def asked(device: Device, user: str) -> str:
    return device.run([PEER, "ask", SERVICE], user=user).stdout.strip()


def heard(device: Device, owner: str, user: str) -> str:
    """What a signal of the service's owner brings to the user."""
    with peer(device, "hear", user, b"listening") as listener:
        assert device.run([PEER, "tell", SERVICE], user=owner).stdout == "told\n"
        assert listener.stdout is not None
        return listener.stdout.readline().decode().strip()


def test_the_user_and_root_own_the_service_and_everybody_talks_to_it(peered: Device, put_package: Put) -> None:
    store_app(peered, put_package, app())
    everybody = ("root", *STRANGERS)
    assert {user: own(peered, SERVICE, user) for user in everybody} == {user: False for user in everybody}
    peered.velkctl("setup", "Sample").check()
    users = ("velk-sample", *everybody)
    owners = {user: own(peered, SERVICE, user) for user in users}
    assert owners == {user: user in ("velk-sample", "root") for user in users}
    for owner in ("velk-sample", "root"):
        with peer(peered, "serve", owner, b"owned"):
            assert {user: asked(peered, user) for user in users} == {user: "answer" for user in users}
        assert {user: heard(peered, owner, user) for user in users} == {user: "changed" for user in users}
    assert [own(peered, f"com.orvo.Param.{name}", "velk-sample") for name in ("Other", "Sample2", "sample")] == [False] * 3
    assert velkctl(peered, "teardown", "Sample")[0] == 0
    peered.wait_for(lambda: not own(peered, SERVICE, "root"), "the bus to forget the policy")
    assert {user: own(peered, SERVICE, user) for user in everybody} == {user: False for user in everybody}
