"""The compiled parts of the kit: the device's services, its Apache module, and the way in."""

from __future__ import annotations

import subprocess
from pathlib import Path

from . import host


def ensure() -> Path:
    """Build what changed and return the folder that holds `orvo-services`, `mod_orvo.so`, `velk-enter` and `velk-step`."""
    folder = host.BUILD / "parts"
    with host.locked("parts"):
        if not (folder / "build.ninja").exists():
            _run(
                [
                    "cmake",
                    "-S",
                    str(host.DEVICE),
                    "-B",
                    str(folder),
                    "-G",
                    "Ninja",
                    "-DCMAKE_BUILD_TYPE=Release",
                ]
            )
        _run(["cmake", "--build", str(folder), "--parallel", "2"])
    return folder


def _run(command: list[str]) -> None:
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode != 0:
        raise host.DeviceError(f"the device's parts do not build:\n{result.stdout}")
