"""Images that an application brings: root mounts what setup has fixed, where setup has fixed it, and nothing else."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
import racer
from apps import installation, is_locked
from setups import STORE, UNITS, Put, configured, outside, program, set_up, store_app, velkctl, workshop
from store_support import CARD, LAYERS, allow_unsigned
from velkdevice.device import Device

SAMPLE = f"{STORE}/Sample"
USER = "velk-sample"
FIXED = ("images", "images/db.sqfs", "data", "data/db")
WHERE = {"internal": SAMPLE, "sd_card1": f"{CARD}/Sample", "internal_vlpfs": f"{LAYERS}/Sample"}
SYSTEM = "/usr/local/sbin"


@pytest.fixture
def image(workshop: Device, tmp_path: Path) -> bytes:
    """A squash image with a file and a directory."""
    workshop.sh("mkdir -p /tmp/squash/db && echo inside | tee /tmp/squash/file >/tmp/squash/db/file && "
                "mksquashfs /tmp/squash /tmp/squash.img -quiet -no-progress").check()  # fmt: skip
    workshop.copy_out("/tmp/squash.img", tmp_path / "image")
    workshop.sh("rm -r /tmp/squash /tmp/squash.img").check()
    return (tmp_path / "image").read_bytes()


@pytest.fixture
def system(workshop: Device) -> Iterator[str]:
    """A directory of the system, which the application would like to have its image in."""
    workshop.sh(f"mkdir -p {SYSTEM}/db").check()
    yield SYSTEM
    forget(workshop)
    workshop.sh(f"rmdir {SYSTEM}/db").check()


@pytest.fixture
def places(workshop: Device) -> Iterator[Device]:
    """The device with a card, open for packages in layers."""
    settings = workshop.read("/etc/velk/conf/packageparser.conf")
    allow_unsigned(workshop)
    workshop.insert_card()
    yield workshop
    workshop.sh("rm -f /usr/local/packages/_lock/velkctl").check()
    if workshop.exists(SAMPLE):
        workshop.velkctl("uninstall", "Sample")
    workshop.remove_card()
    workshop.write("/etc/velk/conf/packageparser.conf", settings)
    workshop.sh("systemctl reset-failed 2>/dev/null; :")


def with_images(image: bytes, *points: str, **settings: Any) -> dict[str, Any]:
    """An application that wants its image at these places."""
    mounts = [{"path": "images/db.sqfs", "mountpoint": point} for point in points or ("data/db",)]
    files = configured(squashfsMounts=mounts, **settings)
    files["manifest.json"]["velkPackageConf"]["setup"]["runMode"] = "respawn"
    return files | {"images/db.sqfs": image} | {f"{point}/": "" for point in points or ("data/db",)}


def immutable(device: Device, *places: str) -> list[str]:
    """What is immutable there, apart from the control files, the place itself left out of each path."""
    script = r"""
        for place; do
            [ -d "$place" ] && lsattr -R "$place" 2>/dev/null | sed -n "s|^[^ ]*i[^ ]* $place/||p"
        done | grep -vxE '(.*/)?(manifest.json|package.conf)' | sort -u
    """
    return device.sh(script, *places).stdout.splitlines()


def mounted(device: Device, kind: str = "squashfs") -> list[str]:
    return device.sh("findmnt -rn -t \"$1\" -o TARGET | sed 's/\\\\x20/ /g'", kind).stdout.splitlines()


def forget(device: Device) -> None:
    """Stop the application and its image, and let the service manager start them as often as wanted."""
    device.sh("systemctl stop sdkSample.service; systemctl stop 'usr-local-packages-Sample-*.mount'; "
              "systemctl reset-failed; while umount \"$1/db\" || umount \"$1\"; do :; done 2>/dev/null", SYSTEM)  # fmt: skip


# --- an application that exchanges names ---


def test_a_mount_point_is_not_exchanged_while_the_image_is_mounted(
    workshop: Device, put_package: Put, image: bytes, system: str, full: bool
) -> None:
    set_up(workshop, put_package, with_images(image, "data"))
    workshop.sh(f"ln -s {system} {SAMPLE}/decoy").check()
    with racer.exchange(workshop, f"{SAMPLE}/data", f"{SAMPLE}/decoy", user=USER, seconds=600) as race:
        for _ in range(400 if full else 40):
            workshop.velkctl("start", "Sample")
            assert [point for point in mounted(workshop) if point.startswith(system)] == []
            forget(workshop)
            if not full and immutable(workshop, SAMPLE):
                break  # nothing can be exchanged, so it is enough to have tried
    assert race.exchanged == 0
    workshop.velkctl("start", "Sample").check()
    assert mounted(workshop) == [f"{SAMPLE}/data"]
    workshop.velkctl("stop", "Sample").check()


def test_what_is_exchanged_while_setup_works_is_not_mounted(
    workshop: Device, put_package: Put, image: bytes, system: str, full: bool
) -> None:
    """Setup may fail then, and leaves nothing fixed; when it succeeds it has fixed what it says."""
    set_up(workshop, put_package, with_images(image))
    workshop.velkctl("teardown", "--persist-user", "Sample").check()
    workshop.sh(f"cp -a {SAMPLE}/images {SAMPLE}/others; ln -s {system} {SAMPLE}/decoy; "
                f"chown -h {USER} {SAMPLE}/decoy").check()  # fmt: skip
    for _ in range(60 if full else 5):
        with racer.exchange(workshop, f"{SAMPLE}/data", f"{SAMPLE}/decoy", f"{SAMPLE}/images", f"{SAMPLE}/others",
                            user=USER, seconds=60):  # fmt: skip
            status, told = velkctl(workshop, "setup", "Sample")
            if status == 0:
                assert workshop.run(["stat", "-c", "%F", f"{SAMPLE}/data"]).stdout == "directory\n"
                workshop.velkctl("start", "Sample")
                assert set(mounted(workshop)) <= {f"{SAMPLE}/data/db"}
                forget(workshop)
        if status == 0:
            assert immutable(workshop, SAMPLE) == sorted(FIXED)
            workshop.velkctl("teardown", "--persist-user", "Sample").check()
        else:
            assert status in (1, 10, 29), told
        assert immutable(workshop, SAMPLE) == [], told


def test_an_image_is_not_exchanged_for_that_of_another(workshop: Device, put_package: Put, image: bytes) -> None:
    set_up(workshop, put_package, with_images(image, "data"))
    workshop.sh("mkdir -m 700 /root/private && mkdir /tmp/s && echo secret >/tmp/s/file && "
                "mksquashfs /tmp/s /root/private/image -quiet -no-progress && rm -r /tmp/s").check()  # fmt: skip
    exchange = f"cd {SAMPLE}; mv images aside; mkdir images; rm -f images/db.sqfs; ln -s /root/private/image images/db.sqfs"
    workshop.sh(exchange, user=USER)
    workshop.velkctl("start", "Sample")
    shown = workshop.sh(f"cat {SAMPLE}/data/file").stdout
    workshop.sh("rm -r /root/private").check()
    assert shown == "inside\n"
    # Nor is it written to: what is mounted is not changed under the kernel.
    assert workshop.sh(f"echo x >{SAMPLE}/images/db.sqfs", user=USER).status != 0


# --- what is fixed, and for how long ---

ATTEMPTS = """
    cd "$1"; mv images other; mv images/db.sqfs images/other; mv data other; rmdir data/db; mv data/db data/other
    ln -s /etc data/db; rm -f images/db.sqfs; touch images/new data/new; ln images/db.sqfs linked
    ls -d other images/other data/other linked images/new data/new
"""


@pytest.mark.parametrize("location", WHERE)
def test_images_and_mount_points_are_fixed_from_setup_to_teardown(
    places: Device, put_package: Put, image: bytes, location: str
) -> None:
    area = WHERE[location]
    set_up(places, put_package, with_images(image), location)
    assert immutable(places, SAMPLE) == sorted(FIXED)
    assert places.sh(ATTEMPTS, SAMPLE, user=USER).stdout == ""
    for layer in ("lower", "upper"):
        assert places.sh(ATTEMPTS, f"{area}/{layer}", user=USER).stdout == ""
    places.velkctl("start", "Sample").check()
    assert places.read(f"{SAMPLE}/data/db/file") == "inside\n"
    for _ in range(2):
        assert velkctl(places, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
        assert immutable(places, SAMPLE, area) == []
        assert velkctl(places, "setup", "Sample")[0] == 0
        assert immutable(places, SAMPLE) == sorted(FIXED)
    places.velkctl("start", "Sample").check()
    assert places.read(f"{SAMPLE}/data/db/file") == "inside\n"
    places.velkctl("stop", "Sample").check()
    result = places.velkctl("install", put_package(places, with_images(image)), location)
    assert result.status == 0, result
    assert velkctl(places, "uninstall", "Sample") == (0, "Successfully uninstalled application 'Sample'\n")
    assert not places.exists(area)


@pytest.mark.parametrize("location", ["sd_card1", "internal_vlpfs"])
def test_what_an_application_has_put_in_the_place_of_a_mount_point_is_refused(
    places: Device, put_package: Put, image: bytes, system: str, location: str
) -> None:
    """Its writable layer keeps it, so it comes to light when the layers are mounted on each other."""
    set_up(places, put_package, with_images(image), location)
    places.velkctl("teardown", "Sample").check()
    places.sh(f"cd {WHERE[location]}/upper && rm -rf data && ln -s {system} data").check()
    status, told = velkctl(places, "setup", "Sample")
    assert status == 29, told
    assert immutable(places, SAMPLE, WHERE[location]) == []
    assert not any("Sample" in line for line in places.sh(f"ls {UNITS}").stdout.splitlines())


def test_a_failed_setup_releases_what_it_has_fixed(workshop: Device, put_package: Put, image: bytes) -> None:
    files = installation(with_images(image), postInstallScript="after.sh") | {"after.sh": "#!/bin/sh\nexit 77\n"}
    store_app(workshop, put_package, files)
    before = outside(workshop, "Sample")
    assert velkctl(workshop, "setup", "Sample")[0] == 10
    assert immutable(workshop, SAMPLE) == []
    assert outside(workshop, "Sample") == before


@pytest.mark.parametrize("location", WHERE)
def test_a_setup_that_dies_leaves_nothing_fixed_behind(
    places: Device, put_package: Put, image: bytes, location: str
) -> None:
    store_app(places, put_package, with_images(image), location)
    killer = '[ "$1" = daemon-reload ] && kill -9 $(cut -d" " -f4 /proc/$PPID/stat)\nexec "$REAL" "$@"\n'
    with program(places, "systemctl", killer) as env:
        assert velkctl(places, "setup", "Sample", env=env)[0] == -9
    assert immutable(places, SAMPLE) == sorted(FIXED)
    assert is_locked(places)
    assert places.velkctl("clean").status == 0
    assert not places.exists(WHERE[location])
    assert not places.exists(SAMPLE)


@pytest.mark.parametrize("location", WHERE)
def test_what_was_left_fixed_hinders_no_setup(
    places: Device, put_package: Put, image: bytes, location: str
) -> None:
    """As after a death between fixing and the first unit, or on a first boot that finds the layers fixed."""
    set_up(places, put_package, with_images(image), location)
    units = places.sh(f"cd {UNITS} && tar -cf - $(ls | grep Sample) | base64").check().stdout
    places.velkctl("teardown", "Sample").check()
    root = {"internal": SAMPLE, "sd_card1": f"{CARD}/Sample/lower", "internal_vlpfs": f"{LAYERS}/Sample/upper"}[location]
    places.sh('cd "$1" && chattr +i images/db.sqfs images data/db data', root).check()
    assert units and velkctl(places, "setup", "Sample")[0] == 0
    assert immutable(places, SAMPLE) == sorted(FIXED)
    assert velkctl(places, "teardown", "Sample")[0] == 0
    assert immutable(places, SAMPLE, WHERE[location]) == []


def test_mounts_may_share_directories_and_images(workshop: Device, put_package: Put, image: bytes) -> None:
    mounts = [{"path": "data/db.sqfs", "mountpoint": "data/one"}, {"path": "data/db.sqfs", "mountpoint": "data/two"},
              {"path": "over/db.sqfs", "mountpoint": "over"}]  # fmt: skip
    files = with_images(image) | {"data/db.sqfs": image, "data/one/": "", "data/two/": "", "over/db.sqfs": image}
    files["manifest.json"]["velkPackageConf"]["configuration"]["squashfsMounts"] = mounts
    set_up(workshop, put_package, files)
    workshop.velkctl("start", "Sample").check()
    assert sorted(mounted(workshop)) == [f"{SAMPLE}/data/one", f"{SAMPLE}/data/two", f"{SAMPLE}/over"]
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert immutable(workshop, SAMPLE) == []


def refused(key: str, path: str, why: str) -> str:
    return f"code 29: The {key} '{SAMPLE}/{path}' referenced from squashfsMounts {why}\n"


WRITTEN = "lies in a directory that is written to"
REFUSED = [
    ("an image behind a link", [("linked.sqfs", "data/db")], "ln -s images/db.sqfs linked.sqfs",
     refused("path", "linked.sqfs", "leads through a symbolic link")),
    ("a mount point behind a link", [("images/db.sqfs", "linked/db")], "ln -s data linked",
     refused("mountpoint", "linked/db", "leads through a symbolic link")),
    ("an image with a second name", [("images/db.sqfs", "data/db")], "ln images/db.sqfs second",
     refused("path", "images/db.sqfs", "is not a file of the application alone")),
    ("a control file", [("manifest.json", "data/db")], ":", refused("path", "manifest.json", "is a control file")),
    ("a mount on a control file", [("images/db.sqfs", "package.conf")], ":",
     refused("mountpoint", "package.conf", "is a control file")),
    ("a mount in the data", [("images/db.sqfs", "localdata/db")], "mkdir -p localdata/db",
     refused("mountpoint", "localdata/db", WRITTEN)),
    ("a mount in the configuration", [("images/db.sqfs", "conf")], "mkdir -p conf", refused("mountpoint", "conf", WRITTEN)),
    ("a mount in another", [("images/db.sqfs", "data"), ("images/db.sqfs", "data/db")], ":",
     refused("mountpoint", "data/db", "lies below another mount point")),
    ("missing and escaping", [("nothing", "../x")], ":",
     "code 29: The relative path ../x tried to escape the application directory\n"),
]  # fmt: skip


@pytest.mark.parametrize(("mounts", "change", "log"), [each[1:] for each in REFUSED], ids=[each[0] for each in REFUSED])
def test_what_cannot_be_fixed_is_refused(
    workshop: Device, put_package: Put, image: bytes, mounts: list[tuple[str, str]], change: str, log: str
) -> None:
    files = with_images(image)
    named = [{"path": path, "mountpoint": point} for path, point in mounts]
    files["manifest.json"]["velkPackageConf"]["configuration"]["squashfsMounts"] = named
    store_app(workshop, put_package, files)
    workshop.sh(f"cd {SAMPLE} && {change}").check()
    before = outside(workshop, "Sample")
    assert velkctl(workshop, "setup", "Sample") == (29, log)
    assert outside(workshop, "Sample") == before
    assert immutable(workshop, SAMPLE) == []
    controls = workshop.sh(f"cd {SAMPLE} && lsattr manifest.json package.conf | cut -c5").check().stdout
    assert controls == "i\ni\n"


def test_a_mount_beside_an_application_s_own_socket_is_refused(
    workshop: Device, put_package: Put, image: bytes
) -> None:
    files = with_images(image, "html/db", httpConfig=[{"type": "fastCgi", "name": "run", "access": "viewer"}])
    store_app(workshop, put_package, files)
    assert velkctl(workshop, "setup", "Sample") == (29, refused("mountpoint", "html/db", WRITTEN))


# --- names that are no unit's ---

ODD = ["my-db", "my db", "100%", "a:b", "a@b", "a*b"]


@pytest.mark.parametrize("point", ODD)
def test_a_unit_that_was_never_loaded_needs_no_stop(
    workshop: Device, put_package: Put, image: bytes, point: str
) -> None:
    set_up(workshop, put_package, with_images(image, point))
    assert velkctl(workshop, "start", "Sample") == (0, "Started application Sample\n")
    # Only a name that the service manager would give the unit itself is mounted; the application runs all the same.
    assert mounted(workshop) == ([f"{SAMPLE}/{point}"] if point == "a:b" else [])
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert mounted(workshop) == []
    assert not any("Sample" in line for line in workshop.sh(f"ls {UNITS}").stdout.splitlines())
    assert velkctl(workshop, "setup", "Sample")[0] == 0
    result = workshop.velkctl("install", put_package(workshop, with_images(image, point)))
    assert (result.status, result.stderr) == (0, "Successfully installed application 'Sample' on 'internal'\n")
