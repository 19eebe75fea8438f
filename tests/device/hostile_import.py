"""
Runs on the device: imports one package after another, and tells what came of each.

hostile_import.py FOLDER LOCATION ROOT... imports FOLDER/0.vlp, FOLDER/1.vlp and so on, and removes what was
imported. For each it prints a line that is a Python tuple: status, standard error, the application's tree, what
changed elsewhere below the roots, processes left, the removal's status and standard error, what the removal left.
It needs no module beyond those of a minimal Python.
"""

import os
import re
import subprocess
import sys

STORE = "/usr/local/packages"
PLACES = {
    "internal": STORE,
    "sd_card1": "/var/spool/storage/SD_DISK/packages",
    "sd_card2": "/var/spool/storage/SD_DISK2/packages",
    "internal_vlpfs": "/opt/packages/_layers",
}
NOT_LOOKED_AT = ["/run/systemd", "/run/log", "/run/udev", "/run/dbus", "/run/lock", "/run/mount", "/run/httpd",
                 "/var/log", "/tmp/hostile", "/var/lib/orvo-cards", "/tmp/systemd-private-*", "/etc/velk/vsf/App", STORE + "/_lock"]  # fmt: skip
PROGRAMS = {"velkctl", "su", "sh", "tar", "gzip", "pigz", "gpgv", "chattr", "cp", "rm"}
NOBODY = 65534
CONTROL_FILES = [
    f"{place}{name}" for place in ("", "lower/", "upper/") for name in ("manifest.json", "package.conf")
]


def run(*arguments):
    result = subprocess.run(["velkctl", *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, timeout=300)  # fmt: skip
    text = result.stderr.decode("utf-8", "surrogateescape")
    return result.returncode, re.sub(r"velkctl_\w{6}", "velkctl_XXXXXX", text)


def everything(roots):
    """Each file with its facts; the time of the last change tells of a changed content, and cannot be set back."""
    prune = []
    for pattern in NOT_LOOKED_AT:
        prune += ["-o", "-path", pattern]
    command = ["find", *roots, "-xdev", "(", *prune[1:], ")", "-prune", "-o", "-type", "d", "-printf",
               r"%p\t%y %m %U:%G\0", "-o", "-printf", r"%p\t%y %m %U:%G %s %C@ %l\0"]  # fmt: skip
    listing = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    return set(listing.split(b"\0"))


def changes(before, after, without=()):
    """What is in one of the listings only, but for what lies at or below some paths."""
    differing = sorted(before ^ after)
    names = [line.split(b"\t")[0] for line in differing]
    return [line.decode("utf-8", "surrogateescape") for line, name in zip(differing, names)
            if not any(name == path or name.startswith(path + b"/") for path in without)]  # fmt: skip


def immutable(names):
    """Those of the names that have the immutable attribute."""
    if not names:
        return set()
    listing = subprocess.run(
        ["lsattr", "-d", "--", *names], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL
    ).stdout
    return {line.split(b" ", 1)[1].decode() for line in listing.splitlines() if b"i" in line.split(b" ")[0]}


def tree(top):
    """What lies below a directory, by its name there; the directory itself is "." . Any depth will do."""
    if os.path.islink(top) or not os.path.isdir(top):
        return {}
    command = ["find", top, "-printf", r"%P\0%y %m %u:%g\0%s\0%n\0%l\0"]
    words = (
        subprocess.run(command, stdout=subprocess.PIPE, check=True)
        .stdout.decode("utf-8", "surrogateescape")
        .split("\0")
    )
    found = {}
    for name, text, size, names, target in zip(*(words[place::5] for place in range(5))):
        text += f" {size}" if text[0] == "f" else f" -> {target}" if text[0] == "l" else ""
        found[name or "."] = text + (f" x{names}" if text[0] == "f" and names != "1" else "")
    for entry in immutable([f"{top}/{name}" for name in CONTROL_FILES if name in found]):
        found[entry[len(top) + 1 :]] += " i"
    return found


def processes():
    """Processes that may belong to an import."""
    found = []
    for number in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{number}/stat", encoding="utf-8", errors="replace") as text:
                content = text.read()
            owner = os.stat(f"/proc/{number}").st_uid
        except OSError:
            continue  # it ended meanwhile
        name, state = content[content.index("(") + 1 : content.rindex(")")], content[content.rindex(")") + 2]
        if state != "Z" and (name in PROGRAMS or owner == NOBODY):
            found.append(name)
    return sorted(found)


def main():
    folder, location, *roots = sys.argv[1:]
    place = f"{PLACES[location]}/App"
    own = (place.encode(), f"{STORE}/App".encode())
    before, running = everything(roots), processes()
    number = 0
    while os.path.exists(f"{folder}/{number}.vlp"):
        status, log = run("import", f"{folder}/{number}.vlp", location)
        made = tree(place)
        outside = changes(before, everything(roots), own)
        left = [name for name in processes() if name not in running]
        removal = run("remove", "App") if os.path.lexists(place) else (None, "")
        subprocess.run(["rm", "-f", "/etc/velk/vsf/App"], check=True)
        remaining = changes(before, everything(roots))
        if os.path.lexists(place):  # the next one must find nothing, and what was left is known by now
            subprocess.run(["chattr", "-R", "-f", "-i", place], stderr=subprocess.DEVNULL)
            subprocess.run(["rm", "-rf", place], check=True)
        print((status, log, made, outside, left, *removal, remaining), flush=True)
        before = everything(roots) if remaining else before
        number += 1


main()
