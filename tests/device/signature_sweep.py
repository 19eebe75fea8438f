"""
Runs on the device: changes every byte of a signed package, and cuts it everywhere; tells what still passes.

signature_sweep.py PACKAGE COMMAND CUTS VALUES tries `velkctl COMMAND` on every cut of the package if CUTS is 1, and on
the package with each byte replaced: by the byte with each of VALUES, comma-separated numbers from 1 to 255, taken into
it by exclusive or. It prints how many it tried, and a line for each that passed: "cut LENGTH" or "changed PLACE VALUE".
It needs no module beyond those of a minimal Python.
"""

import os
import sys

SILENT = os.open("/dev/null", os.O_RDWR)
WORKERS = os.cpu_count() or 1


def passes(content, path, command):
    with open(path, "wb") as file:
        file.write(content)
    quiet = [(os.POSIX_SPAWN_DUP2, SILENT, number) for number in (0, 1, 2)]
    process = os.posix_spawn("/usr/bin/velkctl", ["velkctl", command, path], os.environ, file_actions=quiet)
    return os.waitpid(process, 0)[1] == 0


def sweep(package, command, cuts, values, worker):
    """Try this worker's share of everything."""
    path = f"{os.path.dirname(sys.argv[1])}/Swept{worker}.vlp"
    tried, passed = 0, []
    for place in range(worker, len(package), WORKERS):
        if cuts:
            tried += 1
            if passes(package[:place], path, command):
                passed.append(f"cut {place}")
        for value in values:
            changed = package[:place] + bytes([package[place] ^ value]) + package[place + 1 :]
            tried += 1
            if passes(changed, path, command):
                passed.append(f"changed {place} {value}")
    os.unlink(path)
    print("\n".join([f"tried {tried}", *passed]), flush=True)


def main():
    with open(sys.argv[1], "rb") as file:
        package = file.read()
    values = [int(text) for text in sys.argv[4].split(",") if text]
    workers = []
    for number in range(WORKERS):
        process = os.fork()
        if process == 0:
            sweep(package, sys.argv[2], sys.argv[3] == "1", values, number)
            os._exit(0)
        workers.append(process)
    sys.exit(any([os.waitpid(process, 0)[1] for process in workers]))


main()
