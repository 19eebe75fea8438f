"""Parameter files are the application's: whatever it makes of them, root loads only the application's own group."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
from apps import LOCK, without_place
from setups import STORE, Put, configured, set_up, workshop
from velkdevice.device import Device

CONF = f"{STORE}/Sample/conf"
FILE = f"{CONF}/param_Sample.conf"
SAVED = f"{STORE}/_backup/Sample/param_Sample.conf"
LOADED = "/run/velkctl-param-groups"
OTHER = 'group Other {\nparser = Standard2parser\nfile = "/etc/dynamic/Other.conf"\n}\n'
RESTORED = (0, "Restored application Sample\n")
REFUSED = (10, "code 10: src/integration/cfgtree.cpp: Failed loading parameter configuration file: "
               "/etc/dynamic/param/Sample.conf\n")  # fmt: skip
PARAMETERS = [{"name": "Speed", "default": "1", "type": "int:min=0;max=9"}]


@pytest.fixture
def camera(workshop: Device, put_package: Put) -> Iterator[Device]:
    """An application with parameters and a backup that has no definition of them, beside another group."""
    set_up(workshop, put_package, configured(paramConfig=PARAMETERS))
    workshop.velkctl("backup", "Sample").check()
    workshop.sh(f"rm {SAVED}").check()
    workshop.write(f"{LOADED}/Other", OTHER)
    yield workshop
    workshop.sh(f"rm -rf {LOADED}/Other {FILE} /tmp/other; rm -f {LOCK}").check()
    workshop.velkctl("uninstall", "Sample").check()
    workshop.sh(f"rmdir {LOADED} 2>/dev/null || [ ! -e {LOADED} ]").check()


def restore(device: Device) -> tuple[int, str]:
    """What `restore` answers, in little memory and within a time in which it may not be waiting for anything."""
    result = device.sh("ulimit -v 400000; exec timeout -s KILL 60 velkctl restore Sample")
    device.sh(f"rm -f {LOCK}").check()
    return result.status, without_place(result.stderr)


def loaded(device: Device) -> dict[str, str]:
    return {name: device.read(f"{LOADED}/{name}") for name in device.sh(f"ls {LOADED}").check().stdout.split()}


# What an application makes of its file "$1".
NO_FILES = [
    'rm "$1"; mkfifo -m 666 "$1"', 'ln -sf /dev/zero "$1"', 'rm "$1"; mkdir "$1"', 'ln -sf /nowhere "$1"',
    'echo "group Other {\n}" >/tmp/other; ln -sf /tmp/other "$1"', ': >"$1"',
]  # fmt: skip


@pytest.mark.parametrize("script", NO_FILES)
def test_what_is_no_small_file_is_neither_waited_for_nor_loaded(camera: Device, script: str) -> None:
    before = loaded(camera)
    camera.sh(script, FILE).check()
    assert restore(camera) == REFUSED
    assert loaded(camera) == before


def test_a_large_file_is_not_loaded(camera: Device) -> None:
    before = loaded(camera)
    camera.sh('printf %1048576s >>"$1"', FILE).check()
    copied = f"src/system/copy-tree.cpp: Failed copying {FILE} to {FILE}.tmp: File too large\n"
    assert restore(camera) == (10, f"code 10: {copied}")
    assert loaded(camera) == before


def test_without_a_definition_there_is_nothing_to_load(camera: Device) -> None:
    before = loaded(camera)
    camera.sh(f"rm {FILE}").check()
    assert (restore(camera), loaded(camera)) == (RESTORED, before)


# What is exchanged for what in the definition.
FOREIGN = [
    ("group Sample {", "group Other {"), ("group Sample {", "group sample {"), ("/dynamic/Sample", "/dynamic/Other"),
    ("Standard2{Sample}", "Standard2{Other}"), ("{Speed}", "{Slow}"),
    ("Standard2{Sample}{Speed}", "Standard2{Other}{X}"),
    ("param Speed {", "param Other {"), ("param Speed {", "param 1 {"), ("Standard2parser", "Otherparser"),
    ("--system --dest=com.orvo.Param.Sample", "--system --dest=com.orvo.Other"), ("'$VALUE'", "'$VALUE'; reboot"),
    ('  type = "', '  run = "'), ("}\n}\n", "}\n}\ngroup Other {\n}\n"), ("}\n}\n", "}\n"), ("}\n}\n", "}\n}\n\0"),
    ("int:", 'int" mount = "Standard2{Other}{X}'), ("parser = Standard2parser\n", "param Other {\n}\n\n"),
]  # fmt: skip


def test_a_definition_that_says_anything_of_another_group_is_not_loaded(camera: Device) -> None:
    before = loaded(camera)
    definition = camera.read(FILE)
    for old, new in FOREIGN:
        assert old in definition
        camera.write(FILE, definition.replace(old, new))
        assert (restore(camera), loaded(camera)) == (REFUSED, before), new


def test_what_the_application_may_say_of_its_own_group_is_loaded(camera: Device) -> None:
    changed = camera.read(FILE).replace("operator:1;viewer:0", "operator:3;viewer:1").replace("max=9", "max=99")
    changed = changed.removesuffix("}\n") + 'param New {\n  type = "string"\n  mount = "Standard2{Sample}{New}"\n}\n}\n'
    camera.write(FILE, changed)
    assert restore(camera) == RESTORED
    assert loaded(camera) == {"Other": OTHER, "Sample": changed}


# Puts a definition of the other group in the file's place, again and again until the file "$2" has gone.
RACER = """
    cd "$1" || exit
    while [ -e "$2" ]; do
        printf 'group Other {\\nparser = Standard2parser\\n}\\n' >evil && mv -f evil param_Sample.conf
        cp good param_Sample.conf
    done
"""


def test_a_definition_that_is_exchanged_meanwhile_is_not_loaded(camera: Device, full: bool) -> None:
    before = loaded(camera)
    camera.sh('cp -p "$1" "$2/good"; cp -p "$1" "$3"; chown velk-sample: "$2"; : >/tmp/race', FILE, CONF, SAVED).check()
    racer, _ = camera.start(["sh", "-c", RACER, "sh", CONF, "/tmp/race"], user="velk-sample")
    try:
        for _ in range(400 if full else 25):
            camera.velkctl("restore", "Sample")
            assert loaded(camera) == before
    finally:
        camera.sh("rm /tmp/race").check()
        racer.wait(timeout=30)


def test_setup_loads_what_it_made_itself(workshop: Device, put_package: Put) -> None:
    """Whoever exchanges the file while setup works, which it makes anew, has no say in what is loaded."""
    set_up(workshop, put_package, configured(paramConfig=PARAMETERS))
    assert workshop.read(f"{LOADED}/Sample") == workshop.read(FILE)
