"""The front end: help texts, versions, wrong uses, where the log goes. Every answer is compared whole."""

from __future__ import annotations

import uuid
from pathlib import Path

import pytest
from velkdevice.device import Device

USAGE = Path(__file__).resolve().parents[1] / "data" / "usage"
COMMANDS = sorted(path.stem for path in USAGE.glob("*.txt") if path.stem != "main")
# The two whose usage goes elsewhere or that take no positional argument at all.
COMMON = [name for name in COMMANDS if name != "package-conf"]
TOO_FEW = {"json-validate": "Too few arguments", "verify-user-group": "Missing positional arguments"}
LEAST = {"clean": 0, "list": 0, "re-import": 0, "json-validate": 2, "verify-user-group": 3}
MOST = {"import": 2, "install": 2, "list": 1}


def usage(name: str) -> str:
    return (USAGE / f"{name}.txt").read_text()


def answer(device: Device, *arguments: str) -> tuple[int, str, str]:
    result = device.velkctl(*arguments)
    return result.status, result.stdout, result.stderr


def test_the_main_help_is_printed_without_arguments_and_by_help(device: Device) -> None:
    assert answer(device) == (0, usage("main"), "")
    assert answer(device, "help") == (0, usage("main"), "")


def test_words_behind_help_are_ignored(device: Device) -> None:
    assert answer(device, "help", "install", "--bogus") == (0, usage("main"), "")


def test_an_unknown_global_option_prints_the_help_and_exits_10(device: Device) -> None:
    assert answer(device, "--bogus") == (10, usage("main"), "/usr/bin/velkctl: unrecognized option '--bogus'\n")
    assert answer(device, "-x", "list") == (10, usage("main"), "/usr/bin/velkctl: invalid option -- 'x'\n")


@pytest.mark.parametrize("option", ["-v", "--version", "--vers"])
def test_the_version_is_printed(device: Device, option: str) -> None:
    assert answer(device, option) == (0, "1.0.0\n", "")


def test_the_version_option_wins_over_a_command(device: Device) -> None:
    assert answer(device, "-v", "list") == (10, "", "code 10: Unexpected command argument 'list'\n")
    assert answer(device, "-v", "a", "b") == (10, "", "code 10: Unexpected command argument 'a'\n")


@pytest.mark.parametrize("word", ["Backup", "backup ", "backu", ""])
def test_command_names_are_compared_exactly(device: Device, word: str) -> None:
    assert answer(device, word) == (10, usage("main"), f"code 10: Unknown command '{word}'\n")


@pytest.mark.parametrize("name", COMMON)
@pytest.mark.parametrize("option", ["-h", "--help", "--he"])
def test_every_command_prints_its_usage(device: Device, name: str, option: str) -> None:
    assert answer(device, name, option, "x", "y", "z", "u") == (0, usage(name), "")


@pytest.mark.parametrize("name", COMMON)
def test_every_command_refuses_an_unknown_option(device: Device, name: str) -> None:
    assert answer(device, name, "--bogus", "-h") == (10, usage(name), f"{name}: unrecognized option '--bogus'\n")


@pytest.mark.parametrize("name", [name for name in COMMON if LEAST.get(name, 1) > 0])
def test_every_command_misses_a_positional_argument(device: Device, name: str) -> None:
    given = ["a"] * (LEAST.get(name, 1) - 1)
    text = TOO_FEW.get(name, "Missing positional argument")
    assert answer(device, name, *given) == (10, usage(name), f"code 10: {text}\n")


@pytest.mark.parametrize("name", COMMON)
def test_every_command_refuses_too_many_arguments(device: Device, name: str) -> None:
    most = MOST.get(name, LEAST.get(name, 1))
    assert answer(device, name, *["a"] * (most + 1)) == (10, usage(name), "code 10: Too many arguments\n")


def test_options_behind_a_positional_argument_are_arguments(device: Device) -> None:
    assert answer(device, "backup", "a", "--help") == (10, usage("backup"), "code 10: Too many arguments\n")


def test_a_global_option_behind_the_command_is_the_commands(device: Device) -> None:
    assert answer(device, "list", "--syslog") == (10, usage("list"), "list: unrecognized option '--syslog'\n")


def test_the_log_goes_to_the_system_log_on_request(device: Device) -> None:
    word = f"Bogus-{uuid.uuid4().hex}"
    assert answer(device, "--syslog", word) == (10, usage("main"), "")

    def logged() -> list[str]:
        lines = device.run(["journalctl", "--no-pager", "-o", "cat", "-t", "velkctl"]).check().stdout.splitlines()
        return [line for line in lines if word in line]

    device.wait_for(lambda: logged() != [], "the line in the system log")
    assert logged() == [f"code 10: Unknown command '{word}'"]


@pytest.mark.parametrize("count", [1, 40])
def test_an_answer_that_cannot_be_written_is_no_success(device: Device, count: int) -> None:
    """Whether it waits to be written to the end, or fails before since it is long."""
    device.sh("for i in $(seq $1); do mkdir /usr/local/packages/$(printf %0200d $i); done; "
              "for i in /usr/local/packages/0*; do echo x >$i/package.conf; done", str(count)).check()  # fmt: skip
    result = device.sh("velkctl list --legacy-apps >/dev/full")
    device.sh("rm -r /usr/local/packages/0*").check()
    assert result.status == 10
    assert result.stderr.endswith(": Failed writing to standard output: No space left on device\n")


@pytest.mark.parametrize("option", ["-h", "--help"])
def test_package_conf_explains_itself_on_standard_error(device: Device, option: str) -> None:
    assert answer(device, "package-conf", option) == (0, "", usage("package-conf"))


@pytest.mark.parametrize("arguments", [[], ["A"], ["-h", "A", "B"]])
def test_package_conf_wants_two_arguments(device: Device, arguments: list[str]) -> None:
    status, output, log = answer(device, "package-conf", *arguments)
    assert (status, output) == (10, "10\n")
    assert log == usage("package-conf") + "code 10: Wrong number of arguments\n"


LIST_ERRORS = [
    (["--friendly-name"], "Missing positional argument"),
    (["--version"], "Missing positional argument"),
    (["--legacy-apps", "a"], "--legacy-apps does not take an APP argument"),
    (["--format=idd-size", "a"], "--format does not take an APP argument"),
    (["--format", "x", "--legacy-apps"], "--format is incompatible with --legacy-apps"),
    (["--bundled-apps", "a"], "--bundled-apps does not take an APP argument"),
    (["--format", "json"], "--format does not support the argument 'json'"),
    # The first check in order speaks.
    (["--friendly-name", "--bundled-apps", "--format=x"], "Missing positional argument"),
    (["--legacy-apps", "--format=x", "--bundled-apps", "a"], "--legacy-apps does not take an APP argument"),
    (["--bundled-apps", "--format=x", "a"], "--format does not take an APP argument"),
]


@pytest.mark.parametrize(("arguments", "text"), LIST_ERRORS)
def test_list_refuses_wrong_combinations_in_order(device: Device, arguments: list[str], text: str) -> None:
    assert answer(device, "list", *arguments) == (10, usage("list"), f"code 10: {text}\n")


def test_list_wants_an_argument_for_format(device: Device) -> None:
    assert answer(device, "list", "--format") == (10, usage("list"), "list: option '--format' requires an argument\n")
