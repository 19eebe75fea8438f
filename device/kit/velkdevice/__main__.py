"""The kit's command line."""

from __future__ import annotations

import sys
from pathlib import Path

from . import host, image, package, parts, snapshot, trial
from .device import Device

HELP = """usage: device/device COMMAND [ARGUMENT...]

check                   say what this machine lacks to boot a device; status 1 if anything
image                   make the image and the compiled parts, if they are not there yet
shell                   boot a device and give a prompt on it
run COMMAND [ARG...]    boot a device, run one command on it, end with its status
pack FOLDER FILE.vlp    make a package of a folder, signed with the key that every device trusts
try FILE.vlp|FOLDER     boot a device, install and start the application, give its web address and a prompt
snapshot                boot a device and print its state as text
help                    this text

The program in $VELKCTL_BINARY is installed on the device as velkctl; `try` packs with the one in $VELK_PACK_BINARY.
"""


def _check() -> int:
    lacking = host.missing()
    for thing in lacking:
        print(f"missing: {thing}")
    return 1 if lacking else 0


def _image() -> int:
    parts.ensure()
    print(image.ensure())
    return 0


def _run(argv: list[str]) -> int:
    with Device() as device:
        process, told = device.start(
            argv, stdin=sys.stdin.buffer, stdout=sys.stdout.buffer, stderr=sys.stderr.buffer
        )
        status = process.wait()
        print(told(), end="", file=sys.stderr)
        return status if status >= 0 else 128 - status


def _shell() -> int:
    with Device() as device:
        device.settle()
        print(f"device: {device.name} is up; leave with exit, and nothing of it stays", file=sys.stderr)
        return device.shell()


def _snapshot() -> int:
    with Device() as device:
        device.settle()
        print(snapshot.take(device).text(), end="")
    return 0


def _main(argv: list[str]) -> int:
    match argv:
        case ["check"]:
            return _check()
        case ["image"]:
            return _image()
        case ["shell"]:
            return _shell()
        case ["run", *command] if command:
            return _run(command)
        case ["try", path]:
            return trial.main(path)
        case ["snapshot"]:
            return _snapshot()
        case ["pack", folder, target]:
            package.pack_source(Path(folder), Path(target))
            return 0
        case ["help"]:
            print(HELP, end="")
            return 0
    print(HELP, end="", file=sys.stderr)
    return 2


if __name__ == "__main__":
    try:
        sys.exit(_main(sys.argv[1:]))
    except host.DeviceError as error:
        print(f"device: {error}", file=sys.stderr)
        sys.exit(1)
