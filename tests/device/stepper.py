"""
Commands on the device, followed call by call: ended, held or merely counted at what they change.

    steps = stepper.run(device, [...])              every changing call of the command and of all its children
    stepper.run(device, [...], kill=7)              SIGKILL to all of it before the seventh
    stepper.run(device, [...], fail=7)              the seventh fails
    with stepper.hold(device, [...], when=LOCK) as held:
        ...                                         it stands still before its first change for which LOCK exists
        result = held.let_go()                      and goes on to its end

The program behind it is stepper.c, on the device as /usr/libexec/velk-step; its options are told there. A script on the
device that steps many times calls it itself: see `argv`.
"""

from __future__ import annotations

import os
import signal
import subprocess
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass

from velkdevice.device import Device, Result

STEP = "/usr/libexec/velk-step"
LOG = "/run/velk-step.log"
# The leak check of a sanitizer build follows processes in the same way, and only one can.
ENVIRONMENT = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}


@dataclass(frozen=True)
class Point:
    """One call that changes something: which one of the command, of which program, and what it is about."""

    number: int
    program: str
    call: str
    path: str

    def __str__(self) -> str:
        return f"{self.number}: {self.program} {self.call} {self.path}"


@dataclass(frozen=True)
class Steps:
    """What a followed command did: its calls in order, how it ended ("exited 0", "killed"), and what it said."""

    points: tuple[Point, ...]
    end: str
    result: Result


def argv(command: Sequence[str], *options: str, log: str = LOG) -> list[str]:
    """The command line that follows a command."""
    return [STEP, "--log", log, *options, *command]


def parse(log: str) -> tuple[tuple[Point, ...], str]:
    """The calls in a log, and its last line: how the command ended."""
    lines = [line for line in log.splitlines() if line != "held"]
    points = []
    for line in lines[:-1]:
        number, program, call, path = line.split("\t")
        points.append(Point(int(number), program, call, path))
    return tuple(points), lines[-1] if lines else ""


def run(
    device: Device,
    command: Sequence[str],
    kill: int | None = None,
    sync: bool = False,
    cut: Sequence[str] = (),
    fail: int | None = None,
) -> Steps:
    """
    Run a command to its end, or to the kill before its call number `kill`.

    @param fail  the number of a call that is not carried out, but fails with "Input/output error"
    @param sync  carry out and count the calls that sync; without it they return at once
    @param cut   directories whose ext4 file systems lose power at the end
    """
    options = [] if sync else ["--without-sync"]
    options += ["--kill", str(kill)] if kill else []
    options += ["--fail", str(fail)] if fail else []
    options += [part for directory in cut for part in ("--cut", directory)]
    result = device.run(argv(command, *options), env=ENVIRONMENT)
    return Steps(*parse(device.sh('cat "$1" && rm "$1"', LOG).check().stdout), result)


class Held:
    """A command that stands still."""

    def __init__(self, process: subprocess.Popen[bytes], told: Callable[[], str], command: Sequence[str]) -> None:
        self._process, self._told, self._command = process, told, tuple(command)
        self._result: Result | None = None

    def let_go(self, timeout: float = 60) -> Result:
        """Let the command go on, and wait for its end."""
        if self._result is None:
            out, err = self._process.communicate(timeout=timeout)  # the end of its input is the sign
            trouble = self._told()
            assert not trouble, trouble
            self._result = Result(self._command, self._process.returncode, out.decode(), err.decode())
        return self._result

    def kill(self) -> None:
        """End it where it stands, if it is still there."""
        if self._process.poll() is None:
            os.killpg(self._process.pid, signal.SIGKILL)
            self._process.communicate()
            self._told()


@contextmanager
def hold(device: Device, command: Sequence[str], when: str, sync: bool = False) -> Iterator[Held]:
    """Start a command and go on once it stands before its first change for which the path `when` exists."""
    options = ["--hold-when", when] if sync else ["--without-sync", "--hold-when", when]
    device.sh('rm -f "$1"', LOG).check()
    process, told = device.start(argv(command, *options), stdin=subprocess.PIPE, env=ENVIRONMENT)
    held = Held(process, told, command)
    try:
        device.wait_for(lambda: _stands(device, process), f"{' '.join(command)} to be held")
        yield held
    finally:
        held.kill()
        device.sh('rm -f "$1"', LOG)


def _stands(device: Device, process: subprocess.Popen[bytes]) -> bool:
    log = device.sh('cat "$1" 2>/dev/null', LOG).stdout.splitlines()
    assert "held" in log or process.poll() is None, f"the command ended before it could be held: {log}"
    return "held" in log
