"""The completions, asked in their shells what they offer."""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
COMPLETIONS = CHECKOUT / "completions"


@pytest.fixture
def place(tmp_path: Path) -> Path:
    """A working folder with two packages and other things, and beside it a store with two applications."""
    for name in ("hello", "notes", "_backup", "_lock"):
        (tmp_path / "store" / name).mkdir(parents=True)
    here = tmp_path / "here"
    (here / "deep").mkdir(parents=True)
    for name in ("one.vlp", "two.vlp", "other.txt"):
        (here / name).touch()
    return here


def script_of(name: str, place: Path) -> str:
    """A completion that looks into the test's own store."""
    text = (COMPLETIONS / name).read_text(encoding="utf-8")
    return text.replace("/usr/local/packages", str(place.parent / "store"))


def ask_bash(place: Path, program: str, *words: str) -> set[str]:
    script = script_of(f"{program}.bash", place)
    function = "_" + program.replace("-", "_")
    ask = f'{script}\nCOMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); {function}; printf "%s\\n" "${{COMPREPLY[@]}}"'
    result = subprocess.run(
        ["bash", "--norc", "-u", "-c", ask, "bash", program, *words], cwd=place, capture_output=True, text=True, check=True
    )
    assert result.stderr == ""
    return set(result.stdout.split())


def ask_fish(place: Path, program: str, *words: str) -> set[str]:
    line = " ".join([program, *words])
    script = script_of(f"{program}.fish", place)
    home = {"HOME": str(place.parent), "PATH": "/usr/bin:/bin", "XDG_CONFIG_HOME": str(place.parent / "config")}
    result = subprocess.run(
        ["fish", "--no-config", "-c", f"{script}\ncomplete -C {line!r}"],
        cwd=place, env=home, capture_output=True, text=True, check=True,
    )  # fmt: skip
    return {answer.split("\t")[0] for answer in result.stdout.splitlines()}


def ask_zsh(place: Path, program: str, *words: str) -> set[str]:
    """The completion's own code with the shell's widgets replaced by ones that print what they are given."""
    script = script_of(f"{program}.zsh", place)
    ask = f"""
        compadd() {{ [[ $1 == -a ]] && print -rl -- ${{(P)2}} || print -rl -- ${{@:#--}}; }}
        _files() {{ [[ $1 == -g ]] && print -l ${{~2}} || print -l *; }}
        words=("$@"); CURRENT=$#
        set --
        {script}
    """
    result = subprocess.run(
        ["zsh", "-f", "-c", ask, "zsh", program, *words], cwd=place, capture_output=True, text=True, check=True
    )
    assert result.stderr == ""
    return set(result.stdout.split())


ASK = {"bash": ask_bash, "fish": ask_fish, "zsh": ask_zsh}
SHELLS = pytest.mark.parametrize("shell", ASK)


def ask(shell: str, place: Path, program: str, *words: str) -> set[str]:
    if not shutil.which(shell):
        pytest.skip(f"needs {shell}")
    found = ASK[shell](place, program, *words)
    # zsh itself keeps only what begins as the word does.
    return {word for word in found if word.startswith(words[-1])} if shell == "zsh" else found


@SHELLS
def test_the_first_word_is_a_command_or_a_global_option(shell: str, place: Path) -> None:
    found = ask(shell, place, "velkctl", "")
    assert {"install", "list", "package-conf", "help", "verify-user-group"} <= found
    assert ask(shell, place, "velkctl", "re") == {"remove", "restore", "re-import"}
    assert "--syslog" in ask(shell, place, "velkctl", "--")


@SHELLS
def test_a_command_may_follow_a_global_option(shell: str, place: Path) -> None:
    assert ask(shell, place, "velkctl", "--syslog", "ba") == {"backup"}


@SHELLS
def test_applications_of_the_store_are_offered(shell: str, place: Path) -> None:
    for command in ("start", "stop", "uninstall", "list"):
        assert ask(shell, place, "velkctl", command, "") == {"hello", "notes"}
    assert ask(shell, place, "velkctl", "start", "h") == {"hello"}


@SHELLS
def test_an_option_before_the_application_changes_nothing(shell: str, place: Path) -> None:
    assert ask(shell, place, "velkctl", "uninstall", "--noreload", "n") == {"notes"}


@SHELLS
def test_options_are_those_of_the_command(shell: str, place: Path) -> None:
    assert ask(shell, place, "velkctl", "teardown", "--") == {"--help", "--noreload", "--persist-user"}
    assert ask(shell, place, "velkctl", "clean", "--") == {"--help"}
    assert ask(shell, place, "velk-pack", "build", "--") == {"--help", "--json", "--output", "--plain"}


@SHELLS
def test_a_format_is_offered(shell: str, place: Path) -> None:
    assert ask(shell, place, "velkctl", "list", "--format", "") == {"idd-size"}
    assert ask(shell, place, "velk-pack", "new", "x", "--language", "") == {"c", "shell"}


@SHELLS
def test_packages_are_offered_for_what_takes_one(shell: str, place: Path) -> None:
    for program, command in (("velkctl", "install"), ("velkctl", "verify-signature"), ("velk-pack", "info")):
        found = {word.rstrip("/") for word in ask(shell, place, program, command, "")}
        assert {"one.vlp", "two.vlp"} <= found
        # fish offers the others too, behind those.
        assert shell == "fish" or "other.txt" not in found


def test_bash_offers_a_location_behind_the_package(place: Path) -> None:
    assert ask_bash(place, "velkctl", "install", "one.vlp", "") == {"internal", "sd_card1"}
    assert ask_bash(place, "velkctl", "install", "--noreload", "one.vlp", "s") == {"sd_card1"}


def test_bash_offers_users_and_groups_in_their_places(place: Path) -> None:
    assert ask_bash(place, "velkctl", "verify-user-group", "") == {"hello", "notes"}
    assert "root" in ask_bash(place, "velkctl", "verify-user-group", "hello", "ro")
    assert "daemon" in ask_bash(place, "velkctl", "verify-user-group", "hello", "root", "daem")


def test_bash_offers_files_for_the_option_that_takes_one(place: Path) -> None:
    assert ask_bash(place, "velk-pack", "verify", "one.vlp", "--keyring", "o") == {"one.vlp", "other.txt"}
    assert ask_bash(place, "velk-pack", "build", "") == {"deep"}
