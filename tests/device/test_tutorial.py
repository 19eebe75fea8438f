"""docs/first-application.md, block by block: what a reader types is typed, and what the page shows must come."""

from __future__ import annotations

import os
import re
import subprocess
import tempfile
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pytest
from velkdevice import image, parts

CHECKOUT = Path(__file__).resolve().parents[2]
PAGE = CHECKOUT / "docs" / "first-application.md"
BLOCK = re.compile(r"^```(\S+)(?: (\w+))?\n(.*?)^```$", re.MULTILINE | re.DOTALL)


@dataclass(frozen=True)
class Block:
    """A block of commands, how it is meant, and the text that the page shows for it."""

    kind: str  # "" for the reader's own shell, or one of setup, fails, try, prompt
    commands: str
    shown: str


def blocks() -> list[Block]:
    found: list[Block] = []
    for language, kind, text in BLOCK.findall(PAGE.read_text(encoding="utf-8")):
        if language == "sh":
            found.append(Block(kind, text, ""))
        else:
            assert language == "text" and found, f"a block of {language} that is nobody's output"
            found[-1] = Block(found[-1].kind, found[-1].commands, text)
    return found


def expect(block: Block, output: str) -> None:
    """Each line that the page shows is a line of the output, in this order; "..." stands for anything."""
    lines = iter(output.splitlines())
    for shown in block.shown.splitlines():
        pattern = ".*".join(re.escape(part) for part in shown.split("..."))
        assert any(re.fullmatch(pattern, line) for line in lines), f"{shown!r} is not in order in:\n{output}"


@pytest.fixture
def environment(monkeypatch: pytest.MonkeyPatch) -> Iterator[dict[str, str]]:
    velkctl = Path(os.environ.get("VELKCTL_BINARY", CHECKOUT / "build" / "debug" / "src" / "velkctl"))
    if not (velkctl.parent / "velk-pack").exists():
        pytest.skip("needs velk-pack beside velkctl")
    with tempfile.TemporaryDirectory(prefix="velk-gpg-") as home:  # a socket's path must be short
        yield {
            **os.environ,
            "GNUPGHOME": home,
            "PATH": f"{velkctl.parent}:{os.environ['PATH']}",
            "VELKCTL_BINARY": str(velkctl),
            "VELK_PACK_BINARY": str(velkctl.parent / "velk-pack"),
        }
        subprocess.run(["gpgconf", "--homedir", home, "--kill", "all"], check=False)


def test_every_block_of_the_tutorial_does_what_the_page_says(environment: dict[str, str], tmp_path: Path) -> None:
    image.ensure(verbose=False)
    parts.ensure()

    def run(command: list[str], typed: str | None = None) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            command, cwd=tmp_path, env=environment, input=typed, check=False, timeout=300, text=True,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        )  # fmt: skip

    page = blocks()
    assert [block.kind for block in page] == ["setup", "", "", "", "", "fails", "try", "prompt", ""]
    for block in page:
        if block.kind == "setup":
            continue  # the programs under test are on the PATH already
        if block.kind == "try":
            assert block.commands == "./dev try weather.vlp\n"
            continue  # what is typed at its prompt comes next
        if block.kind == "prompt":
            result = run([str(CHECKOUT / "device" / "device"), "try", "weather.vlp"], block.commands)
        else:
            result = run(["bash", "-eu", "-c", block.commands])
        assert (result.returncode != 0) == (block.kind == "fails"), result.stdout
        expect(block, result.stdout)
