"""
Names that an application exchanges over and over while root works.

    with racer.exchange(device, "/place/one", "/place/decoy", user="velk-sample") as race:
        device.velkctl("backup", "Sample")
    assert race.exchanged
    with racer.link(device, "/etc", "/place/directory", "/place/aside", user="velk-sample"):
        ...

The program behind it is racer.c, which the first race copies to the device. A name that is not there yet is waited for,
so a race can begin before root makes it. At the end of the block, or after `seconds` at the latest, the names mean what
they meant at first.
"""

from __future__ import annotations

import os
import signal
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager

from apps import built
from velkdevice.device import Device

PROGRAM = "/tmp/velk-racer"


class Race:
    """How often something was exchanged; known once the race is over."""

    exchanged = 0


@contextmanager
def exchange(device: Device, *names: str, user: str | None = None, seconds: float = 60) -> Iterator[Race]:
    """Exchange the two names of each pair, the second of which is the decoy, in one step."""
    with _race(device, user, seconds, "exchange", *names) as race:
        yield race


@contextmanager
def link(
    device: Device, target: str, name: str, aside: str, user: str | None = None, seconds: float = 60
) -> Iterator[Race]:
    """Put a link to the target in the place of the name and take it away again; what had the name waits aside."""
    with _race(device, user, seconds, "link", target, name, aside) as race:
        yield race


@contextmanager
def _race(device: Device, user: str | None, seconds: float, *arguments: str) -> Iterator[Race]:
    if not device.exists(PROGRAM):
        device.copy_in(built("racer"), PROGRAM)
    command = [PROGRAM, "--seconds", str(seconds), *arguments]
    process, told = device.start(command, user=user, stdin=subprocess.PIPE)
    race = Race()
    try:
        assert process.stdout and process.stdout.readline() == b"racing\n", told()
        yield race
        out, err = process.communicate(timeout=seconds + 60)  # the end of its input is the sign
        assert (process.returncode, err) == (0, b""), told()
        race.exchanged = int(out)
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
        device.sh('rm -f "$1"', PROGRAM)
