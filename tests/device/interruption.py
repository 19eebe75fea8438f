"""
What the tests of interrupted commands share: commands ended at one of their changes, and where recovery leads.

A scenario is a command, a location and the state before it. A trial brings the device to that state, ends the command
before one of its changes, lets `clean` recover (itself ended before one of its changes first, if asked for), and repeats
the command. A trial is one script on the device, so that hundreds of them take minutes.
"""

from __future__ import annotations

import re
from collections import Counter
from collections.abc import Iterator, Sequence
from dataclasses import dataclass, field

import stepper
from velkdevice import snapshot
from store_support import CARD, CARD2, LAYERS, LOCK, STATES, STORE
from velkdevice.device import Device

LOCATIONS = {"internal": STORE, "sd_card1": CARD, "sd_card2": CARD2, "internal_vlpfs": LAYERS}
COMMANDS = ("import", "remove", "clean")
PACKAGE = "/run/velk-trial/App.vlp"
FOLDER = "/run/velk-trial"
VELKCTL = "/usr/bin/velkctl"

# What one name can stand for: the six random characters of temporary files.
RANDOM_NAMES = r"s,\(/velkctl_\|/\.filesync-\)[A-Za-z0-9]\{6\},\1??????,"

# What a dead command may leave beside the state before or after it, as the beginning of a view's line: in a word, and
# why clean cannot do better. These stay for good, harmless, ...
TEMPORARY = {
    # The package is split before the lock is taken, so that nothing tells clean of it; and it looks at the store only.
    r"/tmp/velkctl_\?{6}\.(sig|vlp) ": "a split package",
    # The writer's own file, of a name that only the dead writer knew.
    rf"{STATES}/\.filesync-\?{{6}} ": "a half-written file",
    # Made before the lock is taken; without a lock clean leaves the lock's directory alone.
    rf"{LOCK}_\?{{6}}\.tmp ": "a file of the lock",
}
# ... and these until the application is imported again.
UNTIL_NEXT = {
    # Clean looks for an application that is being unpacked in the store's root only.
    rf"({CARD}|{CARD2})/App\.tmp[ /]": "files on the card",
}

LIBRARY = r"""
roots() { printf '%s\n' /usr/local/packages /opt/packages/_layers /var/spool/storage/SD_DISK/packages \
                        /var/spool/storage/SD_DISK2/packages /etc/velk/vsf; }
section() { printf '=== %s\n' "$1"; }
look() {
    set -- $(roots | while read -r root; do [ -d "$root" ] && echo "$root"; done)
    {
        find "$@" /tmp -xdev -path '/tmp/systemd-private-*' -prune -o \
            \( -type d -printf '%p %y %m %U:%G\n' \) -o -printf '%p %y %m %U:%G %s %l\n' | grep -v '^/tmp d'
        find "$@" -xdev -type f -exec sha256sum {} + | sed 's/\([^ ]*\)  \(.*\)/\2 \1/'
        lsattr -R "$@" 2>/dev/null | sed -n 's/^[^ ]*i[^ ]* \(.*\)/\1 immutable/p'
        find /etc/systemd/system /etc/apache2 /etc/dbus-1/system.d /etc/dynamic /run/http /usr/html/local \
            -name '*App*' 2>/dev/null
        getent passwd velk-app
    } | sed "$RANDOM_NAMES" | sort
}
wipe() {
    roots | while read -r root; do
        [ -d "$root" ] || continue
        find "$root" -xdev -type f -exec chattr -f -i {} +
        find "$root" -xdev -mindepth 1 ! -name _lock ! -name _backup -delete
    done
    mkdir -p -m 0700 /usr/local/packages/_lock  # which the first command on a device makes
    rm -f /tmp/velkctl_* /usr/local/packages/_lock/*
}
remember() {
    tar -cf "$FOLDER/before.tar" $(roots | while read -r root; do [ -d "$root" ] && echo "$root"; done) 2>/dev/null
    lsattr -R $(roots) 2>/dev/null | sed -n 's/^[^ ]*i[^ ]* \(.*\)/\1/p' >"$FOLDER/immutable"
}
restore() {
    wipe
    tar -xpf "$FOLDER/before.tar" -C / && xargs -r -d '\n' chattr +i <"$FOLDER/immutable"
}
restart() { :; }
step() { /usr/libexec/velk-step --log "$FOLDER/log" "$@" >"$FOLDER/told" 2>"$FOLDER/said"; echo "status $?"; }
"""

TRIAL = r"""
kill=$1 clean_kill=$2; shift 2
restore >/dev/null || exit 1
section killed; step $STEP_OPTIONS $CUT_OPTIONS --kill "$kill" "$@"; tail -n 2 "$FOLDER/log"
restart >/dev/null || exit 1
section dead; look
if [ "$clean_kill" != 0 ]; then
    section clean_killed; step $STEP_OPTIONS $CUT_OPTIONS --kill "$clean_kill" velkctl clean; tail -n 2 "$FOLDER/log"
    restart >/dev/null || exit 1
    section clean_dead; look
fi
section clean; step --without-sync velkctl clean; cat "$FOLDER/said"
section recovered; look
section again; step --without-sync "$@"; cat "$FOLDER/said"
section repeated; look
"""

WHOLE = r"""
restore >/dev/null || exit 1
section before; look
section command; step $STEP_OPTIONS $CUT_OPTIONS "$@"; cat "$FOLDER/log"
restart >/dev/null || exit 1
section after; look
"""


@dataclass(frozen=True)
class Trial:
    """One interruption, and what followed it."""

    where: str  # the call that was not carried out any more
    sections: dict[str, list[str]]

    @property
    def was_killed(self) -> bool:
        return self.sections["killed"][-1] == "killed"

    @property
    def clean_was_killed(self) -> bool:
        return self.sections["clean_killed"][-1] == "killed"

    def status(self, section: str) -> int:
        line = next(line for line in self.sections[section] if line.startswith("status "))
        return int(line.split()[1])


def split_sections(text: str) -> dict[str, list[str]]:
    sections: dict[str, list[str]] = {}
    for line in text.splitlines():
        if line.startswith("=== "):
            sections[line[4:]] = current = []
        else:
            current.append(line)
    return sections


@dataclass
class Scenario:
    """A command on a device that was brought to the state before it; `world` is shell that replaces the library's."""

    device: Device
    command: str
    location: str
    world: str = ""
    step_options: str = "--without-sync"
    cut_options: str = ""
    before: list[str] = field(default_factory=list)
    after: list[str] = field(default_factory=list)
    points: tuple[stepper.Point, ...] = ()

    @property
    def argv(self) -> list[str]:
        return {"import": [VELKCTL, "import", PACKAGE, self.location], "remove": [VELKCTL, "remove", "App"],
                "clean": [VELKCTL, "clean"]}[self.command]  # fmt: skip

    def script(self, text: str, *arguments: str) -> dict[str, list[str]]:
        settings = (f"FOLDER={FOLDER} STEP_OPTIONS='{self.step_options}' CUT_OPTIONS='{self.cut_options}'\n"
                    f"RANDOM_NAMES='{RANDOM_NAMES}'\n")  # fmt: skip
        whole = settings + LIBRARY + self.world + text
        result = self.device.sh(whole, *arguments, env=stepper.ENVIRONMENT, timeout=300)
        assert result.status == 0, result.stdout + result.stderr
        return split_sections(result.stdout)

    def learn(self) -> None:
        """Run the command undisturbed: the state before it, the state after it, and its changes."""
        seen = self.script(WHOLE, *self.argv)
        self.before, self.after = seen["before"], seen["after"]
        self.points, end = stepper.parse("\n".join(seen["command"][1:]))
        assert self.command == "clean" or end == "exited 0", seen["command"]

    def interrupt(self, number: int, clean_number: int = 0) -> Trial:
        """End the command before its change `number`, and the `clean` that follows before its change `clean_number`."""
        sections = self.script(TRIAL, str(number), str(clean_number), *self.argv)
        where = " ".join(sections["killed"][-2].split("\t")) if len(sections["killed"]) > 2 else "the end"
        if "clean_killed" in sections and len(sections["clean_killed"]) > 2:
            where += ", then " + " ".join(sections["clean_killed"][-2].split("\t"))
        return Trial(f"{self.command} {self.location} {where}", sections)

    def every(self) -> Iterator[Trial]:
        """A trial for each change, until the command ends before it could be killed."""
        number = 0
        while True:
            number += 1
            trial = self.interrupt(number)
            if not trial.was_killed:
                return
            yield trial

    # --- judging ---

    def leftovers(self, view: Sequence[str], reference: Sequence[str], allowed: dict[str, str]) -> set[str] | None:
        """What the view holds beside the reference; nothing when some of it is not allowed, or something is missing."""
        if set(reference) - set(view):
            return None
        names = set()
        for line in set(view) - set(reference):
            name = next((name for pattern, name in allowed.items() if re.match(pattern, line)), None)
            if name is None:
                return None
            names.add(name)
        return names

    def judge(self, trial: Trial) -> str:
        """Where the trial ended: "before" or "after", and what stayed beside it; fails when it is nowhere."""
        recovered = trial.sections["recovered"]
        state = next((name for name in ("after", "before") if self.beside(name, recovered) is not None), None)
        assert state, f"{trial.where}: neither before nor after:\n" + self.tell(trial)
        assert trial.status("clean") in (0, 4, 10), trial.where + "\n" + self.tell(trial)
        self.judge_repetition(trial, state)
        return " + ".join([state, *sorted(self.beside(state, recovered) or ())])

    def beside(self, state: str, view: Sequence[str]) -> set[str] | None:
        """What the view holds beside that state, if it is that state."""
        if state == "after":
            # An import that is there completely leaves nothing to be cleared; a removal leaves nothing at all.
            return self.leftovers(view, self.after, TEMPORARY)
        if self.command == "import":
            return self.leftovers(view, self.before, {**TEMPORARY, **UNTIL_NEXT})
        return self.leftovers(view, self.before, TEMPORARY) if self.command == "remove" else None

    def judge_repetition(self, trial: Trial, state: str) -> None:
        """The command, given again, succeeds, or says that it has nothing to do; nothing but stray files is left."""
        done_already = {"import": 14, "remove": 4, "clean": 0}[self.command]
        wanted = 0 if state == "before" else done_already
        assert trial.status("again") == wanted, trial.where + "\n" + self.tell(trial)
        repeated = self.leftovers(trial.sections["repeated"], self.after, TEMPORARY)
        assert repeated is not None, f"{trial.where}: repeated:\n" + self.tell(trial)

    def tell(self, trial: Trial) -> str:
        """The whole trial, for a person; each view by what differs from the state before."""
        lines = []
        for name, content in {"after": self.after, **trial.sections}.items():
            lines.append(f"--- {name}")
            if content and content[0].startswith("status"):
                lines += content
            else:
                lines += [f"- {line}" for line in self.before if line not in content]
                lines += [f"+ {line}" for line in content if line not in self.before]
        return "\n".join(lines)


def left_behind(before: snapshot.Snapshot, device: Device) -> list[str]:
    """How the device differs from before, but for what comes from elsewhere: other devices' loops, systemd's mounts."""
    differences = before.differences(snapshot.like(before, device))
    return [line for line in differences if " loop: " not in line and "unit: run-credentials-" not in line]


def kinds_of_states(trials: Sequence[tuple[int, Trial]]) -> list[int]:
    """
    One change for each kind of state that the deaths left: the first of those whose views list the same things.

    How much of an application's content is there already, or still, makes no difference to what `clean` does with it.
    """
    kinds: dict[frozenset[str], int] = {}
    for number, trial in trials:
        names = frozenset(re.sub(r"(/App(\.tmp)?(/lower|/upper)?)/.*", r"\1/...", line.split()[0])
                          for line in trial.sections["dead"])  # fmt: skip
        kinds.setdefault(names, number)
    return list(kinds.values())


def sample(count: int, wanted: int) -> list[int]:
    """`wanted` of the numbers from 1 to `count`, evenly spread; always the same ones."""
    return sorted({1 + (2 * i + 1) * count // (2 * wanted) for i in range(wanted)} & set(range(1, count + 1)))


def summary(name: str, endings: Counter[str]) -> str:
    parts = ", ".join(f"{count} {ending}" for ending, count in sorted(endings.items()))
    return f"{name}: {sum(endings.values())} interruptions: {parts}"
