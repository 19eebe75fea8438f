"""tools/check-help accepts this checkout and refuses every way in which two of its sources can differ."""

from __future__ import annotations

import shutil
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
READ = (
    "src/cli",
    "src/pack",
    "src/manifest/manifest-rules.cpp",
    "src/base/velkctl-error.h",
    "man",
    "completions",
    "docs/troubleshooting.md",
)
Check = Callable[[str, str, str], tuple[int, list[str]]]


@pytest.fixture
def check(tmp_path: Path) -> Check:
    """Run the tool on a copy in which one text of one file is replaced: (exit status, its lines)."""
    for name in READ:
        source, target = CHECKOUT / name, tmp_path / name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copytree(source, target) if source.is_dir() else shutil.copy(source, target)

    def run(name: str, old: str, new: str) -> tuple[int, list[str]]:
        path = tmp_path / name
        text = path.read_text(encoding="utf-8")
        assert old in text
        path.write_text(text.replace(old, new), encoding="utf-8")
        result = subprocess.run([CHECKOUT / "tools/check-help", tmp_path], capture_output=True, text=True, check=False)
        assert result.stderr == ""
        return result.returncode, result.stdout.splitlines()

    return run


def test_this_checkout_agrees_with_itself(check: Check) -> None:
    assert check("src/cli/velkctl.cpp", '{"backup"', '{"backup"') == (
        0,
        ["check-help: programs, manual and completions agree"],
    )


@pytest.mark.parametrize(
    ("name", "old", "new", "lines"),
    [
        (
            "src/cli/cmd-setup.cpp",
            '{{"noreload"}}',
            '{{"noreload"}, {"fast"}}',
            [
                "src/cli/cmd-setup.cpp: takes ['fast', 'noreload'], its help names ['noreload']",
                "man/velkctl.8.md: the option --fast of setup is missing",
                "completions/velkctl.bash: the option --fast of setup is missing",
                "completions/velkctl.zsh: the option --fast of setup is missing",
                "completions/velkctl.fish: the option --fast of setup is missing",
            ],
        ),
        (
            "src/pack/velk-pack.cpp",
            '" output plain "',
            '" output "',
            [
                "src/pack/velk-pack.cpp: build takes ['output'], its help names ['output', 'plain']",
                "man/velk-pack.1.md: build has no option --plain",
                "completions/velk-pack.bash: build has no option --plain",
                "completions/velk-pack.zsh: build has no option --plain",
                "completions/velk-pack.fish: build has no option --plain",
            ],
        ),
        (
            "man/velkctl.8.md",
            "## clean\n",
            "## cleanse\n",
            [
                "man/velkctl.8.md: the command clean of velkctl is missing",
                "man/velkctl.8.md: velkctl has no command cleanse",
                "man/velkctl.8.md: the section cleanse does not say how it is called",
                "man/velkctl.8.md: the section cleanse has no example",
            ],
        ),
        (
            "man/velk-pack.1.md",
            "    velk-pack split hello.vlp\n",
            "",
            ["man/velk-pack.1.md: the section split has no example"],
        ),
        (
            "completions/velkctl.bash",
            '[stop]=""',
            '[halt]=""',
            [
                "completions/velkctl.bash: the command stop of velkctl is missing",
                "completions/velkctl.bash: velkctl has no command halt",
            ],
        ),
        (
            "completions/velkctl.fish",
            "-l persist-user",
            "-l persist",
            [
                "completions/velkctl.fish: the option --persist-user of teardown is missing",
                "completions/velkctl.fish: teardown has no option --persist",
            ],
        ),
        (
            "completions/velk-pack.zsh",
            '[info]="" ',
            "",
            ["completions/velk-pack.zsh: the command info of velk-pack is missing"],
        ),
        ("man/velk-manifest.5.md", "realTimePriority", "priority", [
            "man/velk-manifest.5.md: the key velkPackageConf.configuration.cpuScheduling.realTimePriority is missing",
        ]),
        ("man/velkctl.8.md", "**36**\n", "**37**\n", [
            "man/velkctl.8.md: the exit status 36 is missing",
            "man/velkctl.8.md: there is no exit status 37",
        ]),
        ("docs/troubleshooting.md", "## 12\n", "## Locks\n", ["docs/troubleshooting.md: the exit status 12 is missing"]),
        ("src/base/velkctl-error.h", "VELKCTL_ERROR_NO_DLPU = 36", "VELKCTL_ERROR_NO_DLPU = 38", [
            "man/velkctl.8.md: the exit status 38 is missing",
            "man/velkctl.8.md: there is no exit status 36",
            "docs/troubleshooting.md: the exit status 38 is missing",
            "docs/troubleshooting.md: there is no exit status 36",
        ]),
    ],
)  # fmt: skip
def test_a_difference_is_told(check: Check, name: str, old: str, new: str, lines: list[str]) -> None:
    assert check(name, old, new) == (1, lines)
