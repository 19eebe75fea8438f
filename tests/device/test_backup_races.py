"""backup and restore while the application exchanges what they read and write, and what they never wait for."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
import racer
from apps import LOCK, without_place
from setups import STORE, Put, configured, look_at, set_up
from velkdevice.device import Device

SAMPLE = f"{STORE}/Sample"
BACKUPS = f"{STORE}/_backup"
SAVED = f"{BACKUPS}/Sample"
OUTSIDE = "/var/lib/outside"
USER = "velk-sample"
DEFAULTS = [{"name": "Speed", "default": "1", "type": "string"}]


@pytest.fixture
def racing(pristine: Device, put_package: Put) -> Iterator[Device]:
    """The application, set up, whose user owns its directory as a set-up leaves it; and what is none of its business."""
    pristine.sh(f"mkdir -m 755 -p {OUTSIDE}/deep; echo secret >{OUTSIDE}/secret; echo secret >{OUTSIDE}/deep/secret; "
                f"chmod 600 {OUTSIDE}/secret {OUTSIDE}/deep/secret").check()  # fmt: skip
    set_up(pristine, put_package, configured(paramConfig=DEFAULTS))
    yield pristine
    pristine.sh(f"rm -rf {LOCK} {SAMPLE}/conf/*.conf").check()
    pristine.velkctl("uninstall", "Sample").check()
    pristine.sh(f"rm -r {OUTSIDE}; rmdir {BACKUPS}").check()


def as_user(device: Device, script: str) -> None:
    device.run(["su", "-s", "/bin/sh", "-c", f"cd {SAMPLE}; {script}", USER]).check()


# What runs as the application's user ends when the work begins, so somebody else races in its place.


def rounds(full: bool, few: int, many: int) -> range:
    return range(many if full else few)


def test_a_backup_holds_nothing_from_behind_a_directory_exchanged_for_a_link(racing: Device, full: bool) -> None:
    as_user(racing, f"""
        cd localdata; for i in $(seq 40); do mkdir -p d$i/deep; echo own >d$i/secret; echo own >d$i/deep/secret; done
        mkdir ../out; for i in $(seq 40); do ln -s {OUTSIDE} ../out/d$i; done
    """)  # fmt: skip
    pairs = [path for i in range(1, 41) for path in (f"{SAMPLE}/localdata/d{i}", f"{SAMPLE}/out/d{i}")]
    exchanged = 0
    with racer.exchange(racing, *pairs, seconds=600) as race:
        for _ in rounds(full, 12, 600):
            assert racing.velkctl("backup", "Sample").status == 0
            found = racing.sh(f"grep -rl secret {SAVED}/localdata || true").check().stdout
            assert found == ""
    exchanged += race.exchanged
    assert exchanged


def test_a_backup_holds_nothing_of_a_file_exchanged_for_a_link(racing: Device, full: bool) -> None:
    as_user(racing, f"cd localdata; echo own >f; ln -s {OUTSIDE}/secret link; ln -s {OUTSIDE}/secret ../conf/link")
    pairs = [f"{SAMPLE}/localdata/f", f"{SAMPLE}/localdata/link", f"{SAMPLE}/conf/Sample.conf", f"{SAMPLE}/conf/link"]
    with racer.exchange(racing, *pairs, seconds=600) as race:
        for _ in rounds(full, 15, 600):
            result = racing.velkctl("backup", "Sample")
            # A link may be met where the settings were when they were looked at.
            assert result.status == 0 or "Failed copying" in result.stderr, result
            assert racing.sh(f"find {BACKUPS} -type f -exec grep -l secret {{}} +").stdout == ""
    assert race.exchanged


def test_a_restore_writes_and_gives_away_nothing_outside(racing: Device, full: bool) -> None:
    as_user(racing, f"""
        cd localdata; mkdir deep; echo planted >planted; echo planted >deep/planted; ln -s {OUTSIDE} ../out
    """)  # fmt: skip
    racing.velkctl("backup", "Sample").check()
    before = look_at(racing, OUTSIDE)
    raced = 0
    for _ in rounds(full, 10, 300):
        with racer.exchange(racing, f"{SAMPLE}/localdata.tmp", f"{SAMPLE}/out", seconds=60) as race:
            racing.velkctl("restore", "Sample")
        raced += race.exchanged
        assert look_at(racing, OUTSIDE) == before
        racing.sh(f"rm -rf {SAMPLE}/localdata.tmp {SAMPLE}/out; ln -s {OUTSIDE} {SAMPLE}/out").check()
    assert raced


def test_a_restore_gives_away_nothing_by_way_of_its_temporary_settings(racing: Device, full: bool) -> None:
    racing.velkctl("backup", "Sample").check()
    before = look_at(racing, OUTSIDE)
    as_user(racing, f"cd conf; ln -s {OUTSIDE}/secret link; ln -s {OUTSIDE} dir")
    raced = 0
    for _ in rounds(full, 10, 300):
        names = [f"{SAMPLE}/conf/Sample.conf.tmp", f"{SAMPLE}/conf/link"]
        with racer.exchange(racing, *names, seconds=60) as race:
            racing.velkctl("restore", "Sample")
        raced += race.exchanged
        assert look_at(racing, OUTSIDE) == before
        racing.sh(f"cd {SAMPLE}/conf; rm -rf Sample.conf.tmp link; ln -s {OUTSIDE}/secret link").check()
    assert raced


def bounded(device: Device, *arguments: str) -> tuple[int, str]:
    """A command that neither waits for anything nor fills the memory."""
    limited = ["sh", "-c", 'ulimit -v 500000; exec timeout 60 velkctl "$@"', "sh", *arguments]
    result = device.run(limited)
    return result.status, without_place(result.stderr)


@pytest.mark.parametrize("name", ["Sample.conf", "param_Sample.conf"])
@pytest.mark.parametrize("plant", ["mkfifo", "ln -s /dev/zero", "mkdir"])
def test_settings_that_are_no_regular_file_are_left_out_and_not_waited_for(
    racing: Device, name: str, plant: str
) -> None:
    as_user(racing, f"rm conf/{name}; {plant} conf/{name}")
    assert bounded(racing, "backup", "Sample") == (0, (
        f"Leaving out {SAMPLE}/conf/{name}, which is no regular file\nBacked up application Sample\n"))  # fmt: skip
    assert f"{SAVED}/{name}" not in look_at(racing, BACKUPS)


@pytest.mark.parametrize("name", ["Sample.conf", "param_Sample.conf"])
def test_settings_that_are_too_large_are_refused(racing: Device, name: str) -> None:
    racing.velkctl("backup", "Sample").check()
    before = look_at(racing, BACKUPS)
    as_user(racing, f"truncate -s 2G conf/{name}")
    for command, source, to in (("backup", f"{SAMPLE}/conf/{name}", f"{SAVED}.tmp/{name}"),
                                ("restore", f"{SAMPLE}/conf/{name}", f"{SAVED}.merge/current-{name}")):  # fmt: skip
        assert bounded(racing, command, "Sample") == (
            10, f"code 10: src/system/copy-tree.cpp: Failed copying {source} to {to}: File too large\n")  # fmt: skip
        assert look_at(racing, BACKUPS) == before


def test_whatever_lies_among_the_data_is_saved_as_what_it_is_and_comes_back(racing: Device) -> None:
    as_user(racing, """
        cd localdata; mkfifo -m 640 pipe; mkdir -m 750 d; echo one >d/one; ln d/one two; chmod 4755 two; ln -s two link
        ln link also; truncate -s 50M sparse; echo end >>sparse; echo data >$(printf 'a\\nb'); chmod 000 d/one
    """)  # fmt: skip
    racing.sh(f"mknod {SAMPLE}/localdata/device c 1 3 2>/dev/null || touch {SAMPLE}/localdata/none").check()
    facts = ("find . -printf '%p %y %m %n %s %l\\n' | sort; find . -type f ! -name sparse -exec cat {} +; tail -c 4 sparse; "
             "du -s sparse | cut -f1")  # fmt: skip
    before = racing.sh(f"cd {SAMPLE}/localdata && rm -f device && {facts}").check().stdout.replace("4000", "000")
    for command in ("backup", "restore"):
        racing.velkctl(command, "Sample").check()
    assert racing.sh(f"cd {SAVED}/localdata && {facts}").check().stdout == before
    assert racing.sh(f"cd {SAMPLE}/localdata && {facts}; find . -user root").check().stdout == before
    assert look_at(racing, f"{SAMPLE}/localdata.tmp", f"{SAVED}.tmp", f"{SAVED}.merge") == {}


CHAIN = """
import os, sys
os.chdir(sys.argv[1])
for level in range(int(sys.argv[2])): os.mkdir("d"); os.chdir("d")
open("end", "w").close()
"""
DEPTH = """
import os, sys
os.chdir(sys.argv[1])
level = 0
while os.path.isdir("d"): os.chdir("d"); level += 1
print(level, os.listdir("."), os.stat(".").st_uid == int(sys.argv[2]))
"""


@pytest.mark.parametrize("levels", [3000, 40000])
def test_data_of_any_depth_is_saved_and_comes_back(racing: Device, levels: int) -> None:
    racing.run(["python3", "-c", CHAIN, f"{SAMPLE}/localdata", str(levels)]).check()
    assert bounded(racing, "backup", "Sample") == (0, "Backed up application Sample\n")
    assert bounded(racing, "restore", "Sample") == (0, "Restored application Sample\n")
    uid = racing.sh(f"id -u {USER}").check().stdout.strip()
    for place, owner in ((f"{SAVED}/localdata", "0"), (f"{SAMPLE}/localdata", uid)):
        assert racing.run(["python3", "-c", DEPTH, place, owner]).check().stdout == f"{levels} ['end'] True\n"
