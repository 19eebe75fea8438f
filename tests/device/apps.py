"""What the device tests of whole commands share: a small application, and looking at what is left of it."""

from __future__ import annotations

import json
import os
import re
from pathlib import Path
from typing import Any

from velkdevice import package
from velkdevice.device import Device

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
LOCK = "/usr/local/packages/_lock/velkctl"


def app(name: str = "Sample", **settings: Any) -> dict[str, Any]:
    """The files of a complete small application."""
    files = package.application(name, **settings)
    files["package.conf"] = f'APPNAME="{name}"\n'
    return files


def example(name: str, **settings: Any) -> dict[str, Any]:
    """The files of an example application; `settings` go into its manifest's setup."""
    folder = EXAMPLES / name
    files: dict[str, Any] = {
        str(path.relative_to(folder)): path.read_bytes() for path in sorted(folder.rglob("*")) if path.is_file()
    }
    files["manifest.json"] = json.loads(files["manifest.json"])
    files["manifest.json"]["velkPackageConf"]["setup"].update(settings)
    return files


def configuration(files: dict[str, Any], **settings: Any) -> dict[str, Any]:
    """The same files with these keys in the manifest's configuration section."""
    files["manifest.json"]["velkPackageConf"].setdefault("configuration", {}).update(settings)
    return files


def installation(files: dict[str, Any], **settings: Any) -> dict[str, Any]:
    """The same files with these keys in the manifest's installation section."""
    files["manifest.json"]["velkPackageConf"].setdefault("installation", {}).update(settings)
    return files


def uninstallation(files: dict[str, Any], **settings: Any) -> dict[str, Any]:
    """The same files with these keys in the manifest's uninstallation section."""
    files["manifest.json"]["velkPackageConf"].setdefault("uninstallation", {}).update(settings)
    return files


def built(program: str) -> Path:
    """A program for the tests, of the build that velkctl is from."""
    velkctl = os.environ.get("VELKCTL_BINARY") or EXAMPLES.parent / "build" / "debug" / "src" / "velkctl"
    return Path(velkctl).parents[1] / "tests" / program


def without_place(log: str) -> str:
    """A log without the numbers of source lines, which every change to the source moves."""
    return re.sub(r"(src/[\w/.-]+):\d+: ", r"\1: ", log)


def without_gpgv(output: str) -> str:
    """Standard output without what gpgv, which writes there too, says of a signature."""
    return "".join(line for line in output.splitlines(keepends=True) if not line.startswith("gpgv: "))


def is_locked(device: Device) -> bool:
    return device.exists(LOCK)


def stored(device: Device) -> list[str]:
    """What lies in the store beside the lock's and the backups' directories."""
    return [name for name in device.sh("ls -A /usr/local/packages").check().stdout.split()
            if name not in ("_lock", "_backup", "lost+found")]  # fmt: skip
