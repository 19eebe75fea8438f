"""What the host gives: the places of the kit, and whether this machine can boot a device at all."""

from __future__ import annotations

import fcntl
import os
import shutil
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

PYTHON = "/usr/bin/python3"  # the one on the PATH may be another, without the modules of the distribution
KIT = Path(__file__).resolve().parent.parent
DEVICE = KIT.parent
BUILD = Path(os.environ.get("VELK_DEVICE_BUILD") or DEVICE.parent / "build" / "device")

PROGRAMS = {
    "systemd-nspawn": "systemd-container",
    "mmdebstrap": "mmdebstrap",
    "mkfs.ext4": "e2fsprogs",
    "unshare": "util-linux",
    "gpg": "gnupg",
    "cmake": "cmake",
    "ninja": "ninja-build",
    "apxs": "apache2-dev",
}


class DeviceError(Exception):
    """Something that keeps a device from being made, booted or used; the text is meant for a person."""


def _programs_missing() -> list[str]:
    return [
        f"the program {name} (package {package})"
        for name, package in PROGRAMS.items()
        if not shutil.which(name)
    ]


def _kernel_missing() -> list[str]:
    """Try what a device needs of the kernel in a mount namespace of its own, where nothing stays behind."""
    script = """
        try() { name=$1; shift; "$@" >/dev/null 2>&1 || echo "$name"; }
        mount -t tmpfs none /mnt || { echo "mounting (CAP_SYS_ADMIN)"; exit 0; }
        mkdir /mnt/cgroup /mnt/ext4 && truncate -s 8M /mnt/disk && mkfs.ext4 -q -F /mnt/disk
        try "the cgroup2 file system" mount -t cgroup2 none /mnt/cgroup
        try "loop devices" mount -o loop /mnt/disk /mnt/ext4
        mkdir -p /mnt/ext4/lower /mnt/ext4/upper /mnt/ext4/work /mnt/ext4/root
        try "the overlay file system" mount -t overlay none /mnt/ext4/root \\
            -o lowerdir=/mnt/ext4/lower,upperdir=/mnt/ext4/upper,workdir=/mnt/ext4/work
        [ -e /dev/fuse ] || echo "/dev/fuse"
    """
    result = subprocess.run(
        ["unshare", "--mount", "--pid", "--fork", "--mount-proc", "sh", "-c", script],
        capture_output=True,
        text=True,
        check=False,
        timeout=60,
    )
    if result.returncode != 0 and not result.stdout:
        return [f"namespaces ({result.stderr.strip()})"]
    return result.stdout.splitlines()


def missing() -> list[str]:
    """List what this machine lacks to boot a device, as words for a person; empty when it can."""
    if os.geteuid() != 0:
        return ["root rights"]
    lacking = _programs_missing()
    return lacking if lacking else _kernel_missing()


@contextmanager
def locked(name: str) -> Iterator[None]:
    """Hold the build folder's lock `name`, so that two runs do not make the same thing at once."""
    BUILD.mkdir(parents=True, exist_ok=True)
    with open(BUILD / f".{name}.lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def remove_tree(path: Path) -> None:
    """
    Delete a folder of ours, without ever following a link or crossing into another file system.

    A mount point below it is an error that names it, and leaves it alone: what is mounted there may be the
    host's.
    """
    try:
        device = os.lstat(path).st_dev
    except FileNotFoundError:
        return
    if os.path.ismount(path):
        raise DeviceError(f"refusing to delete {path}: something is mounted there")
    parent = os.open(path.parent, os.O_RDONLY | os.O_DIRECTORY)
    try:
        _remove_below(parent, path.name, device, path)
    finally:
        os.close(parent)


def _remove_below(parent: int, name: str, device: int, shown: Path) -> None:
    try:
        folder = os.open(name, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW, dir_fd=parent)
    except NotADirectoryError:
        os.unlink(name, dir_fd=parent)
        return
    except OSError:
        os.unlink(name, dir_fd=parent)  # a link to a directory
        return
    try:
        if os.fstat(folder).st_dev != device or _mount_id(folder) != _mount_id(parent):
            raise DeviceError(f"refusing to delete {shown}: something is mounted there")
        for child in os.listdir(folder):
            _remove_below(folder, child, device, shown / child)
    finally:
        os.close(folder)
    os.rmdir(name, dir_fd=parent)


def _mount_id(descriptor: int) -> str:
    """The mount a descriptor lies on: a bind mount of the same file system has the same device number."""
    with open(f"/proc/self/fdinfo/{descriptor}", encoding="ascii") as info:
        return next(line.split()[1] for line in info if line.startswith("mnt_id:"))
