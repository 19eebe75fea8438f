"""The example applications: the demonstration of all of them passes, and their manifests are as the schema wants them."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest
from conftest import CHECKOUT

EXAMPLES = sorted(path.parent.name for path in (CHECKOUT / "examples").glob("*/manifest.json"))


def velkctl() -> Path:
    return Path(os.environ.get("VELKCTL_BINARY") or CHECKOUT / "build" / "debug" / "src" / "velkctl")


def stable_lines(text: str) -> list[str]:
    return [line for line in text.splitlines() if not line.startswith("gpgv: ")]


def test_the_demonstration_of_all_examples_passes() -> None:
    """It ends at the first wrong answer, and compares the device in the end with what it was."""
    environment = {**os.environ, "VELKCTL_BINARY": str(velkctl())}
    result = subprocess.run([CHECKOUT / "device" / "demo", "--all"], env=environment, capture_output=True, text=True,
                            check=False)  # fmt: skip
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr
    assert result.stdout.splitlines()[-1].startswith("Demo passed")
    # The recorded run of the main job is still what it prints; only times and keys differ.
    recorded = stable_lines((CHECKOUT / "docs" / "demo-run.txt").read_text(encoding="utf-8"))[:-1]
    assert stable_lines(result.stdout)[: len(recorded)] == recorded
    # Every example was a part of it.
    assert [name for name in EXAMPLES if f"$ velkctl install /tmp/{name}.vlp\n" not in result.stdout] == []


@pytest.mark.parametrize("name", EXAMPLES)
def test_the_manifest_of_an_example_passes_the_schema(name: str) -> None:
    manifest, schema = CHECKOUT / "examples" / name / "manifest.json", CHECKOUT / "data" / "manifest.schema.json"
    result = subprocess.run([velkctl(), "json-validate", manifest, schema], capture_output=True, text=True, check=False)
    assert (result.returncode, result.stderr) == (0, "")


@pytest.mark.parametrize("name", EXAMPLES)
def test_an_example_says_what_it_is_in_five_lines(name: str) -> None:
    lines = (CHECKOUT / "examples" / name / "README.md").read_text(encoding="utf-8").splitlines()
    assert (lines[0], lines[1], len(lines)) == (f"# {name}", "", 5)
