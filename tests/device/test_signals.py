"""
Every command that changes something, sent a signal that asks it to end before each of its changes in turn.

Whenever that is, it ends by that signal, gives the lock back and leaves nothing half-done: what was there before, or what
is there when it is done, or what the operator's next command finishes.
"""

from __future__ import annotations

import signal
import subprocess
from dataclasses import dataclass, field

import pytest
from apps import LOCK, app, installation, is_locked, stored
from interruption import sample
from setups import Put, changed, outside
from test_failing_calls import JOBS, WIPE, Failing, machine  # noqa: F401  (the fixture)
from test_life_interruption import WORLD
from velkdevice.device import Device

SIGNALS = {"INT": signal.SIGINT, "TERM": signal.SIGTERM, "HUP": signal.SIGHUP}
TRIAL = r"""
number=$1; signal=$2; group=$3; shift 3
restore >/dev/null 2>&1 || exit 1
section signalled; step $STEP_OPTIONS --signal "$signal" --at "$number" $group "$@"; cat "$FOLDER/said"
section lock; ls _lock
section state; look
section again; "$@" 2>&1; echo "status $?"
wipe_all
section wiped; look_at_all
"""
# What the command may answer when it is given again, when it was done or half-done: there is nothing left to do.
DONE_ALREADY = {"import": 14, "import to layers": 14, "remove": 4, "setup": 10, "setup on layers": 10,
                "uninstall": 4, "start": 6, "stop": 7}  # fmt: skip
# Lines of a state that only what is half-done has.
HALF_DONE = ("/tmp/velkctl_", ".tmp ", ".tmp/", ".remove", ".filesync-")


@dataclass
class Signalled(Failing):
    """A command on a device that is brought to the state before it by velkctl itself."""

    endings: dict[str, int] = field(default_factory=dict)

    def send(self, number: int, name: str, group: bool) -> None:
        """Send the signal before the change of this number, and judge what came of it."""
        seen = self.script(TRIAL, str(number), str(int(SIGNALS[name])), "--group" if group else "", *self.argv)
        told = f"{self.command}, {name}{' to the group' if group else ''} before {self.points[number - 1]}\n"
        told += "\n".join(seen["signalled"] + seen["lock"])
        assert f"status {128 + SIGNALS[name]}" in seen["signalled"], told
        assert seen["lock"] == [], told
        half_done = [line for line in seen["state"] if any(sign in line for sign in HALF_DONE)]
        assert half_done == [], told + "\n".join(half_done)
        ending = next((end for end in ("before", "after") if seen["state"] == getattr(self, end)), "in between")
        self.endings[ending] = self.endings.get(ending, 0) + 1
        again = int(seen["again"][-1].split()[1])
        assert again in (0, DONE_ALREADY.get(self.command, 0)), told + "\n" + "\n".join(seen["again"])
        assert seen["wiped"] == self.nothing, told + "\n" + "\n".join(sorted(set(seen["wiped"]) ^ set(self.nothing)))


# The others differ in few calls from these.
ALWAYS = ("import", "setup", "backup", "restore", "upgrade", "uninstall")


@pytest.mark.parametrize("name", [pytest.param(name, marks=[] if name in ALWAYS else [pytest.mark.full]) for name in JOBS])
def test_a_signal_is_carried_out_when_all_is_taken_back(machine: Device, name: str, full: bool) -> None:  # noqa: F811
    prepare, arguments = JOBS[name]
    world = WORLD + WIPE + f"VERSION=1\nrestore() {{ wipe_all; {prepare}; }}\n"
    job = Signalled(machine, name, "internal", world, arguments=tuple(arguments))
    job.learn()
    job.look_at_nothing()
    numbers = [*range(1, len(job.points) + 1)] if full else sample(len(job.points), 4)
    for index, number in enumerate(numbers):
        job.send(number, list(SIGNALS)[index % 3], group=index % 2 == 0)
    if full:
        print(f"{name}: {job.endings}")
