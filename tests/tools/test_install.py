"""`cmake --install` puts every file where the standard directories say, below DESTDIR, and nothing outside."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
BINARY = Path(os.environ.get("VELK_PACK_BINARY") or CHECKOUT / "build" / "debug" / "src" / "velk-pack")
BUILD = BINARY.parents[1]

INSTALLED = {
    "velkctl": {
        "usr/lib/systemd/system/velkctl-re-import.service": 0o644,
        "usr/sbin/velkctl": 0o755,
        "usr/share/bash-completion/completions/velkctl": 0o644,
        "usr/share/fish/vendor_completions.d/velkctl.fish": 0o644,
        "usr/share/man/man8/velkctl.8": 0o644,
        "usr/share/velkctl/manifest.schema.json": 0o644,
        "usr/share/zsh/vendor-completions/_velkctl": 0o644,
    },
    "velk-pack": {
        "usr/bin/velk-pack": 0o755,
        "usr/share/bash-completion/completions/velk-pack": 0o644,
        "usr/share/fish/vendor_completions.d/velk-pack.fish": 0o644,
        "usr/share/man/man1/velk-pack.1": 0o644,
        "usr/share/man/man5/velk-manifest.5": 0o644,
        "usr/share/man/man5/vlp.5": 0o644,
        "usr/share/zsh/vendor-completions/_velk-pack": 0o644,
    },
}


def install(folder: Path, *options: str) -> dict[str, int]:
    command = ["cmake", "--install", str(BUILD), "--prefix", "/usr", *options]
    subprocess.run(command, env={**os.environ, "DESTDIR": str(folder)}, check=True, capture_output=True)
    return {
        str(path.relative_to(folder)): path.stat().st_mode & 0o777 for path in folder.rglob("*") if not path.is_dir()
    }


@pytest.mark.parametrize("component", INSTALLED)
def test_a_component_is_installed_whole_and_alone(tmp_path: Path, component: str) -> None:
    assert install(tmp_path, "--component", component) == INSTALLED[component]


def test_the_kit_is_installed_with_what_its_parts_are_compiled_from(tmp_path: Path) -> None:
    found = install(tmp_path, "--component", "velk-device-kit")
    kit = "usr/share/velk-device-kit"
    assert found["usr/sbin/velk-device"] == 0o755
    tracked = subprocess.run(
        ["git", "ls-files", "device"], cwd=CHECKOUT, capture_output=True, text=True, check=True
    ).stdout.split()
    expected = {f"{kit}/{name}" for name in tracked if Path(name).name not in ("demo", ".gitignore")}
    assert expected <= set(found)
    assert not [name for name in found if "__pycache__" in name]
    assert f"{kit}/tests/device/stepper.c" in found


def test_all_components_together_are_what_is_installed_without_a_choice(tmp_path: Path) -> None:
    parts: dict[str, int] = {}
    for component in (*INSTALLED, "velk-device-kit"):
        parts |= install(tmp_path / component, "--component", component)
    assert install(tmp_path / "all") == parts
