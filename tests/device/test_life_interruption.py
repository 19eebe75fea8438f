"""
install, upgrade, uninstall, backup and restore, killed before each of their changes; then clean, then what the operator does.

What must never happen is that data is gone that the application had, or that had been saved: it is in the application or in
the backup, and the operator's next steps (restore, or install when there is nothing to restore into) bring it back.
"""

from __future__ import annotations

import itertools
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pytest
from apps import app
from interruption import FOLDER, TEMPORARY, VELKCTL, Scenario, left_behind, sample, summary
from setups import section
from store_support import CARD, LAYERS, SETTINGS, allow_unsigned
from velkdevice import package, snapshot
from velkdevice.device import Device

# The application keeps a note and a setting; the backup is looked at by the same names.
WORLD = r"""
cd /usr/local/packages
user() { stat -c %U App/localdata; }
note() { su -s /bin/sh -c "echo $1 >App/localdata/note" "$(user)"; }
look() {
    set -- /usr/local/packages /etc/velk/vsf $PLACE
    {
        find "$@" /tmp -xdev \( -path '/tmp/systemd-private-*' -o -name work \) -prune -o \
            \( -type d -printf '%p %y %m %U:%G\n' \) -o -printf '%p %y %m %U:%G %s %l\n' | grep -v '^/tmp d'
        find "$@" -xdev -type f -exec sha256sum {} + | sed 's/\([^ ]*\)  \(.*\)/\2 \1/'
        lsattr -R "$@" 2>/dev/null | sed -n 's/^[^ ]*i[^ ]* \(.*\)/\1 immutable/p'
        find /etc/systemd/system /etc/apache2 /etc/dbus-1/system.d /etc/dynamic /run/http /usr/html/local \
            /run/velkctl-param-groups \( -name '*App*' -o -name '.filesync-*' \) 2>/dev/null
        getent passwd velk-app
    } | sed "$RANDOM_NAMES" | sort
}
wipe() {
    rm -f _lock/*
    velkctl uninstall App
    # A user that was to be kept for a version that never came is found by the next one.
    ! getent passwd velk-app || { velkctl install "$PACKAGES/App.1.vlp" "$LOCATION"; velkctl uninstall App; }
    rm -rf _backup/* /tmp/velkctl_* /etc/velk/vsf/App /etc/velk/vsf/.filesync-*
    find /etc/systemd/system /etc/apache2 /etc/dbus-1/system.d /run/velkctl-param-groups -name '.filesync-*' -delete
    rmdir --ignore-fail-on-non-empty /run/velkctl-param-groups
}
recover() {
    [ -d _backup/App ] || return 0
    if [ -f /etc/systemd/system/sdkApp.service ]; then velkctl restore App
    elif [ -d App ]; then velkctl setup App && velkctl restore App
    else velkctl install "$PACKAGES/App.$VERSION.vlp" "$LOCATION"; fi
}
facts() {
    echo "data $(cat App/localdata/note 2>/dev/null)"
    echo "saved $(cat _backup/App/localdata/note 2>/dev/null)"
    echo "lock $(ls _lock | grep -x velkctl)"
}
"""
TRIAL = r"""
kill=$1; shift
restore >/dev/null 2>&1 || exit 1
section killed; step $STEP_OPTIONS --kill "$kill" "$@"; tail -n 2 "$FOLDER/log"
section clean; velkctl clean; echo "status $?"
section cleaned; facts
section recovery; recover; echo "status $?"
section recovered; facts
section again; "$@"; echo "status $?"
section repeated; look
"""


@dataclass(frozen=True)
class Job:
    """A command: its state before, and the data that must be found again after an interruption."""

    prepare: str
    argv: list[str]
    # Any of these; none at all when nothing is to be kept. The first one is there until the operator restores another.
    data: tuple[str, ...] = ()
    version: int = 1  # that the operator installs where none is left
    repeats: tuple[int, ...] = (0,)  # what the command may answer when it is given again


PLACES = {"internal": "", "sd_card1": CARD, "internal_vlpfs": LAYERS}  # and where its files are beside the store
INSTALLED = 'velkctl install "$PACKAGES/App.1.vlp" "$LOCATION"'
JOBS = {
    "install": Job(":", [VELKCTL, "install", "App.1.vlp"]),
    "upgrade": Job(f"{INSTALLED} && note kept", [VELKCTL, "install", "App.2.vlp"], ("kept",), version=2),
    "upgrade with an older backup": Job(f"{INSTALLED} && note old && velkctl backup App && note kept",
                                        [VELKCTL, "install", "App.2.vlp"], ("kept", "old"), version=2),
    # What is uninstalled is to be gone, and what was saved of it.
    "uninstall": Job(f"{INSTALLED} && note kept && velkctl backup App", [VELKCTL, "uninstall", "App"], repeats=(0, 4)),
    "backup": Job(f"{INSTALLED} && note kept", [VELKCTL, "backup", "App"], ("kept",), repeats=(0, 4)),
    "backup with an older one": Job(f"{INSTALLED} && note old && velkctl backup App && note kept",
                                    [VELKCTL, "backup", "App"], ("kept", "old"), repeats=(0, 4)),
    # What is in the application is to be replaced; what was saved is what counts.
    "restore": Job(f"{INSTALLED} && note kept && velkctl backup App && note newer", [VELKCTL, "restore", "App"],
                   ("kept",), repeats=(0, 10)),  # an installation in between has brought it back already
}  # fmt: skip


@dataclass
class Life(Scenario):
    """A job's command on a device that is brought to the state before it by velkctl itself."""

    job: Job = JOBS["install"]

    @property
    def argv(self) -> list[str]:
        """The job's, with the package of the location, and the location."""
        if self.job.argv[1] != "install":
            return self.job.argv
        return [*self.job.argv[:2], f"{FOLDER}/{self.location}/{self.job.argv[2]}", self.location]

    def trial(self, number: int) -> dict[str, list[str]]:
        return self.script(TRIAL, str(number), *self.argv)

    def judge_life(self, seen: dict[str, list[str]]) -> str:
        """How the trial ended, in words; fails where the data is gone without a reason, or the command cannot be repeated."""
        where = " ".join(seen["killed"][-2].split("\t"))
        told = where + "\n" + "\n".join(f"--- {name}\n" + "\n".join(lines) for name, lines in seen.items() if name != "repeated")
        assert "lock " in seen["cleaned"], told
        found = next(line.split(" ", 1)[1] for line in seen["recovered"] if line.startswith("data "))
        places = [line.split(" ", 1)[1] for line in seen["cleaned"] if not line.startswith("lock ")]
        assert not self.job.data or self.job.data[0] in places, told
        assert not self.job.data or found in self.job.data, told
        assert int(seen["again"][-1].split()[1]) in self.job.repeats, told
        # Killed after its last change an installation is complete, and the repeated one is an upgrade.
        is_upgraded = self.command == "install" and any("/_backup " in line for line in seen["repeated"])
        repeated, after = (self.compared(view, is_upgraded) for view in (seen["repeated"], self.after))
        left = self.leftovers(repeated, after, TEMPORARY)
        assert left is not None, told + "\n" + "\n".join(sorted(set(seen["repeated"]) ^ set(self.after)))
        return " + ".join([f"data {found}", *sorted(left)])

    def compared(self, view: list[str], is_upgraded: bool) -> list[str]:
        """The view, without the data where it may have been saved once more, or come back by another way, meanwhile."""
        is_about_data = is_upgraded or self.command.startswith(("backup", "restore")) or len(self.job.data) > 1
        return [line for line in view if not (is_about_data and ("/localdata" in line or "/_backup" in line))]


@pytest.fixture(scope="module")
def machine(device: Device, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Device]:
    """The device with two versions of a package; afterwards as it was."""
    before = snapshot.take(device)
    folder: Path = tmp_path_factory.mktemp("life")
    settings = device.read(SETTINGS)
    allow_unsigned(device)
    device.insert_card()
    device.sh(f"mkdir -p {CARD}").check()
    for version, location in itertools.product((1, 2), PLACES):
        files = app("App", version=f"{version}.0.0")
        if location != "sd_card1":  # which has no parameters
            files = section(files, "velkPackageConf.configuration.paramConfig",
                            [{"name": "Speed", "default": "1", "type": "string"}])  # fmt: skip
        name = f"{location}/App.{version}.vlp"
        packed = package.pack(package.write_tree(folder / f"{location}{version}", files), folder / f"{location}.vlp")
        device.copy_in(packed, f"{FOLDER}/{name}")
    yield device
    device.sh('rm -r "$1"', FOLDER).check()
    device.remove_card()
    device.write(SETTINGS, settings)
    assert left_behind(before, device) == []


@pytest.fixture
def life(machine: Device, name: str, location: str) -> Iterator[Life]:
    job = JOBS[name]
    variables = f"VERSION={job.version}\nLOCATION={location}\nPLACE={PLACES[location]}\nPACKAGES={FOLDER}/{location}\n"
    world = WORLD + variables + f"restore() {{ wipe; {job.prepare}; }}\n"
    made = Life(machine, name, location, world, job=job)
    try:
        made.learn()
        yield made
    finally:
        made.script("wipe >/dev/null 2>&1; :")


@pytest.mark.parametrize(("name", "location"), [
    pytest.param(name, location, marks=[pytest.mark.full] if " " in name or location != "internal" else [])
    for name, location in itertools.product(JOBS, PLACES)])  # fmt: skip
def test_killed_before_a_change_nothing_is_lost(life: Life, full: bool, capsys: pytest.CaptureFixture[str]) -> None:
    endings: Counter[str] = Counter()
    for number in itertools.count(1) if full else sample(len(life.points), 2):
        seen = life.trial(number)
        if full and seen["killed"][-1] != "killed":
            break  # it came to its end
        assert seen["killed"][-1] == "killed", number
        endings[life.judge_life(seen)] += 1
    if full:
        with capsys.disabled():
            print("\n" + summary(f"{life.command} {life.location}", endings))
