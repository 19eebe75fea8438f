"""An application's script and the operator's terminal: no way from the one to the other, and a way to end it all the same."""

from __future__ import annotations

import signal

import pytest
from apps import LOCK, app, installation
from setups import STORE, Put, outside, store_app, without_place, workshop  # noqa: F401  (the fixture)
from velkdevice.device import Device

# Types a line wherever a terminal may be, and says where it sits.
TYPIST = r"""#!/usr/bin/perl
open(my $told, '>', 'localdata/told');
for my $place (0, 1, 2, '/dev/tty') {
    my $terminal;
    if ($place =~ /^\d$/ ? open($terminal, '+<&', $place) : open($terminal, '+<', $place)) {
        my $typed = 0;
        for (split //, "typed\n") { $typed++ if ioctl($terminal, 0x5412, $_) }
        print $told "$place: $typed\n";
    }
}
open(my $stat, '<', '/proc/self/stat');
my ($session, $terminal) = (split / /, (split /\) /, <$stat>)[1])[3, 4];
print $told "terminal $terminal\nread " . (defined(<STDIN>) ? 'something' : 'nothing') . "\n";
"""
# An operator's terminal: velkctl, and then whoever reads the terminal.
OPERATOR = "velkctl setup Sample; stty -icanon -echo min 0 time 3; cat"
# Heeds nothing, its child neither.
DEAF = """#!/bin/sh
trap '' INT TERM HUP
sleep 4720 &
touch localdata/ready
while :; do wait; done
"""
# Says what it is sent, and goes.
POLITE = """#!/bin/sh
trap 'echo asked >localdata/asked; exit 0' INT TERM HUP
sleep 4720 &
touch localdata/ready
wait
"""


def with_script(script: str) -> dict[str, object]:
    return installation(app(), postInstallScript="x.sh") | {"x.sh": script}


def test_a_script_types_nothing_into_the_terminal_of_root(workshop: Device, put_package: Put) -> None:  # noqa: F811
    store_app(workshop, put_package, with_script(TYPIST))
    session = workshop.run(["script", "-qec", OPERATOR, "/dev/null"], input=b"")
    assert session.stdout.rstrip("\0\4") == "Successfully set up application Sample\r\n"
    assert workshop.read(f"{STORE}/Sample/localdata/told").splitlines()[-2:] == ["terminal 0", "read nothing"]
    assert "6" not in workshop.read(f"{STORE}/Sample/localdata/told")


# A command that leads a process group of its own, and what it ends with. A shell's background ignores SIGINT.
LEADER = """
env --default-signal setsid sh -c 'echo $$ >/run/leader; exec velkctl setup Sample' 2>&1 &
wait $!; echo "status $?"
"""


@pytest.mark.parametrize("name", ["INT", "TERM", "HUP"])
@pytest.mark.parametrize("script", [DEAF, POLITE], ids=["deaf", "polite"])
def test_a_script_ends_with_the_command(workshop: Device, put_package: Put, script: str, name: str) -> None:  # noqa: F811
    store_app(workshop, put_package, with_script(script))
    before = outside(workshop, "Sample")
    process, told = workshop.start(["sh", "-c", LEADER])
    workshop.wait_for(lambda: workshop.exists(f"{STORE}/Sample/localdata/ready"), "the script")
    # As a terminal does it: the script is not in the group.
    workshop.sh('kill "-$1" -- "-$(cat /run/leader)"; rm /run/leader', name).check()
    said, _ = process.communicate(timeout=60)
    assert told() == ""
    number = int(signal.Signals[f"SIG{name}"])
    lines = [line for line in without_place(said.decode()).splitlines() if not line.startswith("Sending signal ")]
    assert lines == [f"code 10: Interrupted by signal {number}", f"status {128 + number}"]
    assert not workshop.exists(LOCK)
    assert workshop.sh("ps -eo args= | grep -c '^[s]leep 4720'").stdout == "0\n"
    assert workshop.exists(f"{STORE}/Sample/localdata/asked") == (script == POLITE)
    assert outside(workshop, "Sample") == before
