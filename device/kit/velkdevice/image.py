"""The device's root file system: made once from the machine's own package sources, then only ever read."""

from __future__ import annotations

import hashlib
import os
import subprocess
import sys
from pathlib import Path

from . import host

RECIPE = host.DEVICE / "image"


def _release() -> str:
    """The code name of the machine's own Debian release; the device gets the same, so that binaries fit."""
    with open("/etc/os-release", encoding="utf-8") as text:
        for line in text:
            if line.startswith("VERSION_CODENAME="):
                return line.strip().split("=", 1)[1].strip('"')
    raise host.DeviceError("the machine's /etc/os-release names no release")


def package_list() -> list[str]:
    """The packages of the image, one a line in the recipe, with the reason behind a #."""
    lines = (RECIPE / "packages").read_text(encoding="utf-8").splitlines()
    return [line.split("#")[0].strip() for line in lines if line.split("#")[0].strip()]


def _sources() -> str:
    """The machine's own Debian sources as one-line entries, whatever form its files have."""
    listing = subprocess.run(
        [
            "apt-get",
            "indextargets",
            "--format",
            "$(ORIGIN)|deb $(REPO_URI) $(RELEASE) $(COMPONENT)",
            "Created-By: Packages",
        ],
        capture_output=True,
        text=True,
        check=True,
    )
    lines = {line.split("|", 1)[1] for line in listing.stdout.splitlines() if line.startswith("Debian|")}
    if not lines:
        raise host.DeviceError("apt knows no Debian source yet: run apt-get update")
    return "".join(f"{line}\n" for line in sorted(lines))


def _key() -> str:
    """A name that changes with the recipe and the release, and with nothing else."""
    digest = hashlib.sha256(_release().encode())
    for name in ("packages", "customize"):
        digest.update((RECIPE / name).read_bytes())
    digest.update((host.DEVICE / "files/usr/lib/sysusers.d/velk-device.conf").read_bytes())
    return digest.hexdigest()[:16]


def ensure(verbose: bool = True) -> Path:
    """
    Return the image's folder, making it first when the recipe or the release changed.

    It is made under another name and renamed at the end: an interrupted run leaves no image that looks
    complete.
    """
    folder = host.BUILD / "image"
    image = folder / f"{_release()}-{_key()}"
    with host.locked("image"):
        if not image.is_dir():
            folder.mkdir(parents=True, exist_ok=True)
            for stale in folder.iterdir():
                if stale.name.startswith("making-"):
                    host.remove_tree(stale)
            _make(image, folder, verbose)
    return image


def _make(image: Path, folder: Path, verbose: bool) -> None:
    making = folder / f"making-{os.getpid()}"
    log = folder / "image.log"
    _say(
        verbose,
        f"making the device's image ({_release()}, {len(package_list())} packages and what they need) ...",
    )
    sources = folder / "sources.list"
    sources.write_text(_sources(), encoding="utf-8")
    command = [
        "mmdebstrap",
        "--mode=root",
        "--variant=essential",
        "--format=directory",
        f"--include={','.join(package_list())}",
        f"--customize-hook={RECIPE / 'customize'} \"$1\" {host.DEVICE / 'files'}",
        _release(),
        str(making),
        str(sources),
    ]
    # Not the caller's environment: a C.UTF-8 image must not depend on who made it.
    environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8", "HOME": "/root"}
    with subprocess.Popen(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=environment
    ) as process:
        assert process.stdout is not None
        with open(log, "w", encoding="utf-8") as record:
            for line in process.stdout:
                record.write(line)
                if line.startswith(("I: ", "E: ")):
                    _say(verbose, "  " + line[3:].rstrip())
    if process.returncode != 0:
        raise host.DeviceError(f"the image could not be made; the whole story is in {log}")
    os.chmod(making, 0o755)
    os.rename(making, image)


def _say(verbose: bool, text: str) -> None:
    if verbose:
        print(f"device: {text}", file=sys.stderr, flush=True)
