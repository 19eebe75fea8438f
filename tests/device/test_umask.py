"""The caller's umask decides nothing: who may use an application's files, and who sees its units and backups."""

from __future__ import annotations

import gzip
import json
import tarfile

import store_support as support
from setups import STORE, workshop  # noqa: F401  (the fixture)
from velkdevice.device import Device

PLACES = (STORE, "/run/http", *(f"/etc/{name}" for name in ("systemd/system", "dynamic", "dbus-1", "apache2", "velk")))
SCRIPT = b"#!/bin/sh\necho >localdata/made; mkdir localdata/below\n"


def wide_package() -> bytes:
    """An application whose archive gives everybody every right, with a script that makes files."""
    files = support.app_files("Sample")["manifest.json"]
    files["velkPackageConf"]["installation"] = {"postInstallScript": "script"}
    members = [
        support.member("manifest.json", json.dumps(files).encode(), mode=0o666),
        support.member("package.conf", support.CONFIGURATION.format("Sample").encode(), mode=0o666),
        support.member("LICENSE", b"free\n", mode=0o666),
        support.member("Sample", b"#!/bin/sh\nexec sleep infinity\n", mode=0o777),
        support.member("script", SCRIPT, mode=0o777),
        support.member("html", type=tarfile.DIRTYPE, mode=0o777),
        support.member("html/index.html", b"<p>\n", mode=0o666),
        support.member("shared", type=tarfile.DIRTYPE, mode=0o777),
        support.member("shared/data", b"x", mode=0o666),
    ]
    return support.signed(gzip.compress(support.archive(members), mtime=0))


def modes(device: Device, mask: str, path: str) -> list[str]:
    """What a life under this umask makes, with its modes and owners."""
    script = 'umask "$1"; velkctl install "$2" && velkctl start Sample && velkctl stop Sample && velkctl backup Sample'
    device.sh(script, mask, path).check()
    found = [line for place in PLACES for line in support.tree(device, place)]
    device.velkctl("uninstall", "Sample").check()
    return found


def test_the_callers_umask_decides_nothing(workshop: Device) -> None:  # noqa: F811
    path = support.put(workshop, wide_package(), "Sample.vlp")
    try:
        usual = modes(workshop, "022", path)
        assert {mask: modes(workshop, mask, path) for mask in ("000", "002", "077", "777")} == dict.fromkeys(
            ("000", "002", "077", "777"), usual
        )
    finally:
        workshop.sh("rm -rf /tmp/packages").check()
    assert f"{STORE}/Sample/Sample f 755 velk-sample:admin" in usual
    assert f"{STORE}/Sample/localdata/made f 644 velk-sample:velk-sample" in usual
    for line in usual:
        kind, mode = line.split()[1:3]
        sticky_or_ours = int(mode, 8) & 0o1022
        assert kind == "l" or sticky_or_ours in (0, 0o1022), line
