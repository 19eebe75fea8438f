"""What a removal does while somebody exchanges parts of the tree, and with trees that are deep or mounted on."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
import racer
from apps import LOCK, without_place
from setups import STORE, look_at
from velkdevice.device import Device

APP = f"{STORE}/Racing"
OUTSIDE = f"{STORE}/Other"
USER = "sdk"


@pytest.fixture
def place(pristine: Device) -> Iterator[Device]:
    """The device, on which an application's directory may be anything."""
    yield pristine
    pristine.sh(f"""
        chattr -R -f -i {APP} {APP}.tmp {OUTSIDE}; umount -q {APP}.tmp/* {APP}/*
        rm -rf {APP} {APP}.tmp {OUTSIDE} {LOCK} {STORE}/_backup
    """)  # fmt: skip


# A chain of directories deeper than any path can be long, with a file at each level when there is a third word.
CHAIN = """
import os, sys
os.makedirs(sys.argv[1]); os.chdir(sys.argv[1])
for level in range(int(sys.argv[2])):
    if len(sys.argv) > 3: open("file", "w").close(); os.mkdir("side")
    os.mkdir("d"); os.chdir("d")
"""


def chain(device: Device, path: str, levels: int, *more: str) -> None:
    device.run(["python3", "-c", CHAIN, path, str(levels), *more]).check()


def test_a_removal_deletes_nothing_behind_what_is_exchanged_for_a_link(place: Device, full: bool) -> None:
    # Another's immutable files have the names and the place, seen through the link, of those that are to be removed.
    many = "for i in $(seq 60); do echo >f$i; done; chattr +i f*"
    place.sh(f"mkdir -p {OUTSIDE}/d; cd {OUTSIDE}/d; {many}").check()
    before = look_at(place, OUTSIDE)
    raced = 0
    for _ in range(200 if full else 10):
        place.sh(f"""
            mkdir -p {APP}/a/d; ln -s {OUTSIDE} {APP}/link; chown -R {USER} {APP}
            cd {APP}/a/d; {many}
        """).check()  # fmt: skip
        with racer.link(place, OUTSIDE, f"{APP}.tmp/a", f"{APP}.tmp/z", user=USER, seconds=20) as race:
            place.velkctl("remove", "Racing")
        raced += race.exchanged
        assert look_at(place, OUTSIDE) == before
        assert place.sh(f"lsattr {OUTSIDE}/d | grep -c ^....i").check().stdout == "60\n"
        place.sh(f"chattr -R -f -i {APP}.tmp; rm -rf {APP}.tmp {APP}")
    assert raced


def test_immutable_files_and_directories_are_removed(place: Device) -> None:
    place.sh(f"mkdir -p {APP}/a/b; echo >{APP}/a/b/f; mkfifo {APP}/a/p; chattr -R -f +i {APP}/a; chattr +i {APP}/a/b {APP}/a")
    result = place.velkctl("remove", "Racing")
    assert (result.status, result.stderr) == (0, "Successfully removed application Racing\n")
    assert look_at(place, APP, f"{APP}.tmp") == {}


@pytest.mark.parametrize("levels", [3000, 40000])
def test_a_tree_of_any_depth_is_removed(place: Device, levels: int) -> None:
    chain(place, f"{APP}/deep", levels, *(["more"] if levels == 3000 else []))
    result = place.run(["sh", "-c", "ulimit -v 200000; exec velkctl remove Racing"], timeout=300)
    assert (result.status, result.stderr) == (0, "Successfully removed application Racing\n")
    assert look_at(place, APP, f"{APP}.tmp") == {}


@pytest.mark.parametrize("where", ["d", "f"])
def test_what_is_mounted_inside_from_the_same_file_system_is_not_emptied(place: Device, where: str) -> None:
    place.sh(f"""
        mkdir -p {OUTSIDE}/d {APP}/d; echo kept >{OUTSIDE}/d/f; echo kept >{OUTSIDE}/f; echo >{APP}/f
        mount --bind {OUTSIDE}/{where} {APP}/{where}
    """).check()  # fmt: skip
    before = look_at(place, OUTSIDE)
    result = place.velkctl("remove", "Racing")
    after = look_at(place, OUTSIDE)
    place.sh(f"umount {APP}.tmp/{where}").check()
    assert after == before
    assert (result.status, without_place(result.stderr)) == (10, (
        f"src/system/tree.cpp: Failed to remove {APP}.tmp/{where}: Device or resource busy\n"
        f"code 10: src/system/tree.cpp: Failed recursive removal of {APP}.tmp\n"))  # fmt: skip
