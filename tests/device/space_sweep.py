"""
Runs on the device, in a mount namespace of its own: imports packages onto a small file system made for the purpose.

space_sweep.py LOCATION MKFS STEP... makes a file system with the words of MKFS behind mkfs.ext4, mounts it where the
location lies, and carries out the steps in order. Each prints one line, a Python value:

    free                  how many bytes an import would find free
    sizes:FILE:N,N...     import FILE lengthened with zeros to N bytes, for each N, and remove it again: (status, log)s
    import:FILE           import FILE: (status, log, what it left on the file system); nothing is removed
    leave:N               fill the file system until only N bytes are free, as near as its blocks allow: bytes free
    full                  fill it until nothing is free, not even for root: bytes free
    empty                 delete what "leave" and "full" wrote, and what imports left

It needs no module beyond those of a minimal Python.
"""

import os
import re
import subprocess
import sys

STORE = "/usr/local/packages"
MOUNTS = {
    "internal": STORE,
    "sd_card1": "/var/spool/storage/SD_DISK",
    "sd_card2": "/var/spool/storage/SD_DISK2",
    "internal_vlpfs": "/opt/packages/_layers",
}
LOCATION = sys.argv[1]
MOUNT = MOUNTS[LOCATION]
PLACE = MOUNT + ("/packages" if LOCATION.startswith("sd_card") else "")
BALLAST = f"{MOUNT}/ballast"


def velkctl(*arguments):
    result = subprocess.run(["velkctl", *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE, timeout=300)  # fmt: skip
    return result.returncode, result.stderr.decode("utf-8", "surrogateescape")


def available():
    facts = os.statvfs(MOUNT)
    return facts.f_bavail * facts.f_frsize


def free():
    """Measured beside what an import makes before it looks: its lock and its staging directory."""
    lock = f"{PLACE}/_lock/measuring"
    if LOCATION == "internal":
        with open(lock, "w") as file:
            file.write("App")
    os.mkdir(f"{PLACE}/App.tmp")
    found = available()
    os.rmdir(f"{PLACE}/App.tmp")
    if LOCATION == "internal":
        os.unlink(lock)
    return found


def tree():
    return sorted(os.path.relpath(os.path.join(path, name), MOUNT) for path, folders, files in os.walk(MOUNT)
                  for name in folders + files)  # fmt: skip


def sizes(path, wanted):
    with open(path, "rb") as file:
        package = file.read()
    outcomes = []
    for size in wanted:
        with open("/tmp/space/sized.vlp", "wb") as file:
            file.write(package + bytes(size - len(package)))
        outcomes.append(velkctl("import", "/tmp/space/sized.vlp", LOCATION))
        if outcomes[-1][0] == 0:
            status, log = velkctl("remove", "App")
            assert status == 0, log
    return outcomes


def one_import(path):
    before = tree()
    status, log = velkctl("import", path, LOCATION)
    return status, log, [name for name in tree() if name not in before]


def fill(limit):
    """Write until as little as `limit` is free, or until no block is left at all."""
    with open(BALLAST, "ab", buffering=0) as file:
        while limit is None or available() > limit:
            room = available() - (limit or 0)
            try:
                file.write(bytes(min(max(room, 1024), 1 << 16)))
            except OSError:
                break
        os.fsync(file.fileno())
    return available()


def empty():
    subprocess.run(["chattr", "-R", "-f", "-i", MOUNT], stderr=subprocess.DEVNULL)
    subprocess.run(
        f"rm -rf {BALLAST} {PLACE}/App {PLACE}/App.tmp {STORE}/App /etc/velk/vsf/App", shell=True, check=True
    )
    return tree()


def prepare():
    os.makedirs("/tmp/space", exist_ok=True)
    with open("/tmp/space/disk", "wb") as disk:
        disk.truncate(8 << 20)
    subprocess.run(["mkfs.ext4", "-q", "-F", *sys.argv[2].split(), "/tmp/space/disk"], check=True)
    subprocess.run(["mount", "-o", "loop", "/tmp/space/disk", MOUNT], check=True)
    os.makedirs(PLACE, exist_ok=True)
    os.makedirs(f"{STORE}/_lock", mode=0o700, exist_ok=True)


def main():
    prepare()
    for step in sys.argv[3:]:
        name, *words = step.split(":")
        if name == "free":
            print(free())
        elif name == "sizes":
            print(sizes(words[0], [int(word) for word in re.findall(r"\d+", words[1])]))
        elif name == "import":
            print(one_import(words[0]))
        elif name == "leave":
            print(fill(int(words[0])))
        elif name == "full":
            print(fill(None))
        elif name == "empty":
            print(empty())
        else:
            sys.exit(f"no step {name}")


main()
