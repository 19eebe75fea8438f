"""Try an application: a booted device with the package on it, its page on the host's loopback, and a prompt."""

from __future__ import annotations

import json
import os
import shlex
import signal
import subprocess
import sys
import tempfile
from contextlib import suppress
from pathlib import Path
from typing import Any

from . import host, package
from .device import Device, Result
from .forward import Forward

ON_DEVICE = "/tmp/tried.vlp"
FIRST_WORDS_SECONDS = 2.0


def _velk_pack(*arguments: str | Path) -> str:
    """Run velk-pack and return what it says; its own line is the error."""
    program = os.environ.get("VELK_PACK_BINARY", "velk-pack")
    try:
        result = subprocess.run([program, *map(str, arguments)], capture_output=True, text=True, check=False)
    except FileNotFoundError:
        raise host.DeviceError(f"there is no {program}; VELK_PACK_BINARY names it") from None
    if result.returncode != 0:
        raise host.DeviceError(result.stderr.strip().replace("velk-pack: ", ""))
    return result.stdout


def _sign_for_device(unsigned: Path, target: Path) -> Path:
    """Sign with the throw-away key, the only one that a device trusts."""
    signature = target.with_suffix(".asc")
    signature.write_bytes(package.Key.trusted().sign(unsigned.read_bytes()))
    _velk_pack("attach", unsigned, signature, "--output", target)
    return target


def _trusted(given: Path, folder: Path) -> bool:
    keyring = folder / "keyring.gpg"
    keyring.write_bytes(package.Key.trusted().keyring())
    try:
        _velk_pack("verify", given, "--keyring", keyring)
    except host.DeviceError:
        return False
    return True


def prepare(given: Path, folder: Path) -> Path:
    """
    The package that is tried: of a folder a new one, of a package that the device would not trust a copy signed anew.
    """
    target = folder / "tried.vlp"
    if given.is_dir():
        built = folder / "built.vlp"
        print(_velk_pack("build", given, "--output", built).split(", into")[0], flush=True)
        return _sign_for_device(built, target)
    if not given.is_file():
        raise host.DeviceError(f"{given}: is neither a package nor a folder")
    if _trusted(given, folder):
        return given
    print("The simulated device does not have the key of this package: trying a copy signed for it", flush=True)
    parts = folder / "parts"
    _velk_pack("split", given, "--output", parts)
    return _sign_for_device(next(parts.glob("archive.tar*")), target)


def _step(device: Device, *arguments: str) -> Result:
    """Run velkctl on the device in front of the reader's eyes."""
    print(f"\n$ {shlex.join(['velkctl', *arguments])}", flush=True)
    result = device.velkctl(*arguments, timeout=600)
    print(result.stdout + result.stderr, end="", flush=True)
    return result


def _page_of(manifest: dict[str, Any], port: int) -> str:
    name = manifest["velkPackageConf"]["setup"]["appName"]
    page = manifest["velkPackageConf"].get("configuration", {}).get("settingPage", "")
    return f"http://127.0.0.1:{port}/local/{name}/{page if isinstance(page, str) else ''}"


def _show_log(device: Device, name: str) -> None:
    """The first of the application's log; it may need a moment to say anything, and may have nothing to say."""
    own = ["journalctl", "--quiet", f"_SYSTEMD_UNIT=sdk{name}.service"]
    with suppress(host.DeviceError):
        device.wait_for(lambda: device.run(own).stdout != "", "the application's first words", FIRST_WORDS_SECONDS)
    command = ["journalctl", "--no-pager", "--output=cat", f"--unit=sdk{name}.service"]
    print(f"\n$ {shlex.join(command)}", flush=True)
    print(device.run(command).stdout, end="", flush=True)


def run(given: Path) -> int:
    """Try a package or a folder; the status is that of the installation, else that of the start."""
    with tempfile.TemporaryDirectory(prefix="velk-try-") as place:
        prepared = prepare(given, Path(place))
        manifest = json.loads(_velk_pack("info", "--json", prepared))["manifest"]
        name = manifest["velkPackageConf"]["setup"]["appName"]
        with Device() as device:
            device.settle()
            device.copy_in(prepared, ON_DEVICE)
            installed = _step(device, "install", ON_DEVICE)
            if installed.status != 0:
                return installed.status
            started = _step(device, "start", name)
            _show_log(device, name)
            with Forward(device) as forward:
                print(f"\n{_page_of(manifest, forward.port)}")
                print("users viewer, operator, admin, each with the name as password")
                print(f"journalctl --follow --unit=sdk{name} shows more; exit ends the device", flush=True)
                device.shell()
            return started.status


def main(path: str) -> int:
    """The command `try`; the device ends with it, whatever ends it."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda received, _: sys.exit(128 + received))
    try:
        return run(Path(path))
    except KeyboardInterrupt:
        print(file=sys.stderr)
        return 130
