"""The state of a device as data, so that two moments of it can be compared and the difference read."""

from __future__ import annotations

import os
import time
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from fnmatch import fnmatch

from .device import Device

ROOTS = ("/etc", "/usr", "/opt", "/var", "/run", "/tmp", "/root", "/home", "/srv", "/mnt", "/media")

# What changes on an idle device, or by being looked at. Each entry is a path pattern of find(1), with its
# reason.
EXCLUDED = {
    "/run/systemd": "systemd's own state; the units are compared through systemctl",
    "/run/log": "the journal",
    "/run/udev": "kernel events",
    "/run/dbus": "the bus's containers and sockets",
    "/run/utmp": "log-in records",
    "/run/httpd": "the web server's process id and shared memory change with each reload",
    "/run/lock": "locks of passing programs",
    "/run/mount": "notes of mount(8)",
    "/etc/.updated": "notes of the boot that it has seen this /usr, in newer releases",
    "/var/.updated": "the same",
    "/var/log": "logs",
    "/var/lib/systemd": "stamps of timers, and the random seed",
    "/var/cache/ldconfig": "a cache",
    "/var/tmp/systemd-private-*": "made by systemd for its own services",
    "/tmp/systemd-private-*": "made by systemd for its own services",
    "/etc/.pwd.lock": "made by the first change of a user, and kept",
    "/etc/passwd-": "the tools' copy of the file before the last change",
    "/etc/group-": "the tools' copy of the file before the last change",
    "/etc/shadow-": "the tools' copy of the file before the last change",
    "/etc/gshadow-": "the tools' copy of the file before the last change",
    "/etc/subuid-": "the tools' copy of the file before the last change",
    "/etc/subgid-": "the tools' copy of the file before the last change",
}

# What velkctl makes once and keeps on purpose. Only the entry itself is left out, not what a directory holds.
KEPT = {
    "/usr/local/packages/_lock": "made by the first command that changes something",
    "/usr/local/packages/_backup": "made by the first backup",
    "/etc/dynamic/param": "made by the first setup",
    "/etc/velk/preinstalled": "holds the list of what the firmware ships",
    "/etc/velk/preinstalled/preinstalled-apps.json": "made by the first listing",
    "/usr/local/lib/docker": "made for the first application with container tools",
    "/usr/local/lib/docker/cli-plugins": "made for the first application with container tools",
}

# What setup makes in an application's own directory and teardown leaves there: paths as patterns of fnmatch, below the
# directory or, on a card and in the layer-file store, below one of its layers. Owners and modes there are not compared
# at all: setup gives the files to the application and its pages to the web server, and nothing tells whose they were.
LEFT_IN_APPLICATION = {
    "conf": "made by the first setup; what the application keeps there is its own",
    "localdata": "made by the first setup; the application's data",
    "localdata/*": "written by the application and its scripts",
    "html": "made by setup where the package has no pages",
    "html/LICENSE": "the link by which the web server shows the license",
    "upper/html/*": "a copy of what the package has below, made by the overlay when setup gave it to another group",
    "html/*.cgi": "made empty for a handler that the package does not bring; the application may have written to it",
    "work": "the overlay's own, made by mounting it",
    "work/*": "the overlay's own",
}

# One pass of find for everything but contents; then the hashes of the regular files that can be written.
FILES = r"""
set -f
prune=$1; shift
find "$@" -xdev \( $prune \) -prune -o -printf '%p\0%y %m %U:%G %s\0%l\0'
"""
HASHES = r"""
set -f
prune=$1; shift
find "$@" -xdev \( $prune \) -prune -o -type f -print0 | xargs -0 -r sha256sum -z --
"""
HASHED_ROOTS = (
    "/etc",
    "/opt",
    "/var",
    "/run",
    "/tmp",
    "/root",
    "/usr/local",
    "/usr/html",
    "/usr/share/packages",
    "/usr/share/velk",
    "/usr/share/velkmanager",
    "/usr/lib/systemd",
)
UNIT_KINDS_LEFT_OUT = (".scope", ".device", ".slice")
# Made by nspawn and systemd, with names that differ from boot to boot.
MOUNTS_LEFT_OUT = ("/proc/", "/sys/", "/run/host", "/run/credentials")
# The command that looks; the web server's workers and its pipe to the log, which change with each reload.
PROCESSES_LEFT_OUT = ("ps", "apache2", "httpd", "cat")
# Places with a file system of their own; an application's files lie here.
STORES = ("/usr/local/packages", "/opt", "/var/spool/storage")


@dataclass(frozen=True)
class Snapshot:
    """Sections of named lines: files, attributes, users, groups, units, mounts, processes of other users."""

    sections: dict[str, dict[str, str]]

    def text(self) -> str:
        """All of it, a line per thing."""
        return "".join(
            f"{section}: {name}: {value}\n"
            for section, entries in self.sections.items()
            for name, value in sorted(entries.items())
        )

    def differences(self, later: Snapshot) -> list[str]:
        """What is otherwise in `later`, a line for each thing that came (+), went (-) or changed (~)."""
        lines = []
        for section, before in self.sections.items():
            after = later.sections[section]
            for name in sorted(before.keys() | after.keys()):
                old, new = before.get(name), after.get(name)
                if old is None:
                    lines.append(f"+ {section}: {name}: {new}")
                elif new is None:
                    lines.append(f"- {section}: {name}: {old}")
                elif old != new:
                    lines.append(f"~ {section}: {name}: {old} -> {new}")
        return lines


def like(
    wanted: Snapshot | None,
    device: Device,
    timeout: float = 2,
    view: Callable[[Snapshot], Snapshot] = lambda seen: seen,
) -> Snapshot:
    """
    Look until the device is as `wanted`, or for `timeout` seconds, and return the last look.

    systemd hears of a mount that went, and of a process that ended, a little after it happened.

    @param view  what of a look counts
    """
    end = time.monotonic() + timeout
    seen = view(take(device))
    while wanted is not None and wanted.differences(seen) and time.monotonic() < end:
        time.sleep(0.05)
        seen = view(take(device))
    return seen


def take(device: Device) -> Snapshot:
    """Look at everything that an application could leave on a device."""
    return Snapshot(
        {
            "file": _files(device),
            "attribute": _immutable(device),
            "user": _database(device, "passwd"),
            "group": _database(device, "group"),
            "unit": _units(device),
            "mount": _mounts(device),
            "loop": _loops(device),
            "process": _processes(device),
        }
    )


def application(device: Device, directory: str) -> dict[str, str]:
    """An application's directory: each path below it with its kind, what it holds, and whether it is immutable."""
    script = r"""
        cd "$1" || exit
        find . -mindepth 1 -xdev -printf '%P\t%y%l\n'
        find . -xdev -type f -exec sha256sum -- {} + | sed 's,^\([^ ]*\)  \./\(.*\),\2\t\1,'
        lsattr -R . 2>/dev/null | sed -n 's,^[^ ]*i[^ ]* \./\(.*\),\1\timmutable,p'
    """
    entries: dict[str, str] = {}
    for path, _, fact in (line.partition("\t") for line in device.sh(script, directory).check().stdout.splitlines()):
        entries[path] = f"{entries.get(path, '')} {fact}".strip()
    return entries


def changed_in_application(before: dict[str, str], after: dict[str, str]) -> list[str]:
    """What teardown should have put back in an application's directory: the paths that changed for no listed reason."""
    return [
        f"{path}: {before.get(path)} -> {after.get(path)}"
        for path in sorted(before.keys() | after.keys())
        if before.get(path) != after.get(path) and not _may_be_left(path, path in before)
    ]


def _may_be_left(path: str, was_there: bool) -> bool:
    """Whether a path is one that setup makes for good; one that was there before is only the application's to change."""
    layer, _, below = path.partition("/")
    names = [path] if layer not in ("lower", "upper") else [path, below]
    return not was_there and any(fnmatch(name, pattern) for name in names for pattern in LEFT_IN_APPLICATION)


def _prune() -> str:
    return " -o ".join(f"-path {pattern}" for pattern in EXCLUDED)


def _present(device: Device, roots: Iterable[str]) -> list[str]:
    """The roots that exist; the places with a file system of their own are added, since find stays on one."""
    script = 'for path; do [ -d "$path" ] && echo "$path"; done; :'
    return device.sh(script, *roots, *STORES).check().stdout.split()


def _files(device: Device) -> dict[str, str]:
    listing = device.sh(FILES, _prune(), *_present(device, ROOTS)).check().stdout.split("\0")
    entries = {}
    for path, facts, link in zip(listing[0::3], listing[1::3], listing[2::3]):
        kind, mode, owner, size = facts.split()
        # A directory's size tells of what it once held, not of what it holds.
        entries[path] = (
            f"{kind} {mode} {owner}" + (f" {size}" if kind == "f" else "") + (f" -> {link}" if link else "")
        )
    for record in device.sh(HASHES, _prune(), *_present(device, HASHED_ROOTS)).check().stdout.split("\0"):
        digest, _, path = record.partition("  ")
        if path in entries:
            entries[path] += f" {digest[:16]}"
    return {path: facts for path, facts in entries.items() if path not in KEPT}


def _immutable(device: Device) -> dict[str, str]:
    """Files with the immutable attribute, in the places where an application's files lie."""
    lines = device.sh('for path; do lsattr -R -a "$path" 2>/dev/null; done; :', *STORES).stdout.splitlines()
    pairs = [line.split(" ", 1) for line in lines if " /" in line]
    return {path: "immutable" for flags, path in pairs if "i" in flags}


def _database(device: Device, name: str) -> dict[str, str]:
    entries = [line.partition(":") for line in device.run(["getent", name]).check().stdout.splitlines()]
    return {key: value for key, _, value in entries}


def _units(device: Device) -> dict[str, str]:
    """
    Every unit that is up or failed. What is enabled needs no look of its own: it is a link among the files.
    """
    loaded = device.run(
        ["systemctl", "list-units", "--all", "--no-legend", "--plain", "--no-pager", "--full"]
    )
    entries = {}
    for words in map(str.split, loaded.check().stdout.splitlines()):
        # Being looked at loads a unit, so only what is up or failed counts. A slice stays up once it was
        # used.
        if words and words[0].startswith("run-credentials-"):
            continue  # of systemd's own services; a daemon-reload finds some anew
        if len(words) > 3 and words[2] in ("active", "failed") and not words[0].endswith(UNIT_KINDS_LEFT_OUT):
            entries[words[0]] = " ".join(words[1:4])
    return entries


def _mounts(device: Device) -> dict[str, str]:
    lines = device.read("/proc/self/mountinfo").splitlines()
    entries = {}
    for line in lines:
        before, _, after = line.partition(" - ")
        kind = after.split()[0]
        if not before.split()[4].startswith(MOUNTS_LEFT_OUT):
            entries[before.split()[4]] = f"{kind} {before.split()[3]} {before.split()[5]}"
    return entries


def _loops(device: Device) -> dict[str, str]:
    """
    Loop devices of this device's own files, told by file system and inode.

    A device sees those of all others too, and these may have files of the same names.
    """
    # losetup pads a column with blanks and then escapes them.
    script = r"""
        losetup --list --noheadings --raw --output BACK-MAJ:MIN,BACK-INO,BACK-FILE | sed 's/\\x20//g' |
        while read -r place inode path; do
            echo "$place $inode $(stat -c '%d %i' -- "$path" 2>/dev/null || echo none) $path"
        done
    """
    entries = {}
    for words in map(str.split, device.sh(script).check().stdout.splitlines()):
        if words[2].isdigit():
            place = f"{os.major(int(words[2]))}:{os.minor(int(words[2]))}"
            if (place, words[3]) == (words[0], words[1]):
                entries[words[-1]] = "in use"
    return entries


def _processes(device: Device) -> dict[str, str]:
    """Processes by user and name, with their number; an application's leftovers show as a user of its own."""
    entries: dict[str, int] = {}
    for line in device.run(["ps", "-e", "-o", "stat=,user:40=,comm="]).check().stdout.splitlines():
        state, user, name = line.split(maxsplit=2)
        # What is dead and only waits for init to notice is gone.
        if name not in PROCESSES_LEFT_OUT and not state.startswith("Z"):
            entries[f"{user} {name}"] = entries.get(f"{user} {name}", 0) + 1
    return {name: str(count) for name, count in entries.items()}
