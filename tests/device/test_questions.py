"""The questions one can ask: user and group names, JSON schemas, values of package.conf. Answers are compared whole."""

from __future__ import annotations

import json
import re
from collections.abc import Callable, Iterator

import pytest
from velkdevice.device import Device

AMEND_LIST = "/usr/share/velk/valid-users-groups.d/amend-list"

Answer = tuple[int, str, str]


def answer(device: Device, *arguments: str) -> Answer:
    result = device.velkctl(*arguments)
    log = re.sub(r"(src/[\w/.-]+):\d+: ", r"\1: ", result.stderr)
    return result.status, result.stdout, log


# --- verify-user-group ---


@pytest.fixture
def amend(device: Device) -> Iterator[Callable[[str], None]]:
    before = device.read(AMEND_LIST)
    yield lambda text: device.write(AMEND_LIST, text)
    device.write(AMEND_LIST, before)


def verify(device: Device, user: str, group: str) -> Answer:
    return answer(device, "verify-user-group", "App", user, group)


def allowed(user: str, group: str) -> Answer:
    return 0, "", f"Successfully verified username '{user}' and groupname '{group}' of the application 'App'\n"


def refused(user: str, group: str) -> Answer:
    text = f"App: User '{user}' or Group '{group}' is not in Allowlist\n"
    return 13, "", f"{text}code 13: {text}"


def test_a_user_and_a_group_of_the_lists_are_verified(pristine: Device) -> None:
    assert verify(pristine, "sdk", "sdk") == allowed("sdk", "sdk")
    assert verify(pristine, "sdk", "video") == allowed("sdk", "video")


@pytest.mark.parametrize(
    ("user", "group"), [("root", "sdk"), ("sdk", "root"), ("SDK", "sdk"), ("sdk", ""), ("", "sdk")]
)
def test_both_must_be_on_their_list(pristine: Device, user: str, group: str) -> None:
    assert verify(pristine, user, group) == refused(user, group)


def test_without_an_amend_list_the_built_in_lists_decide(pristine: Device) -> None:
    pristine.sh('mv "$1" "$1.away"', AMEND_LIST).check()
    assert verify(pristine, "sdk", "sdk") == allowed("sdk", "sdk")
    pristine.sh('mv "$1.away" "$1"', AMEND_LIST).check()


def test_the_amend_list_takes_names_back(device: Device, amend: Callable[[str], None]) -> None:
    amend("# of this device\nDenyUsers games mpd # and nobody else\nDenyGroups video\n")
    assert verify(device, "games", "sdk") == refused("games", "sdk")
    assert verify(device, "mpd", "sdk") == refused("mpd", "sdk")
    assert verify(device, "sdk", "games") == allowed("sdk", "games")
    assert verify(device, "sdk", "video") == refused("sdk", "video")
    assert verify(device, "sdk", "audio") == allowed("sdk", "audio")


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("Foo x\n", "Not allowed label 'Foo' in list"),
        ("DenyUsers " + "n" * 33 + "\n", "value in list too long"),
        ("n" * 33 + " x\n", "value in list too long"),
    ],
)
def test_a_malformed_amend_list_verifies_nobody(
    device: Device, amend: Callable[[str], None], text: str, message: str
) -> None:
    amend(text)
    log = f"code 10: src/manifest/allowlist.cpp: Failed to parse amend-list: {message}\n"
    assert verify(device, "sdk", "sdk") == (10, "", log)


def test_a_name_of_32_characters_in_the_amend_list_is_fine(device: Device, amend: Callable[[str], None]) -> None:
    amend("DenyUsers " + "n" * 32 + "\n")
    assert verify(device, "sdk", "sdk") == allowed("sdk", "sdk")


def test_an_amend_list_of_other_line_ends_takes_names_back(device: Device, amend: Callable[[str], None]) -> None:
    amend("DenyUsers games mpd\r\nDenyGroups video\r\n")
    assert verify(device, "games", "sdk") == refused("games", "sdk")
    assert verify(device, "mpd", "sdk") == refused("mpd", "sdk")
    assert verify(device, "sdk", "video") == refused("sdk", "video")
    assert verify(device, "sdk", "sdk") == allowed("sdk", "sdk")


# --- json-validate ---


@pytest.fixture
def folder(device: Device) -> Iterator[str]:
    path = "/tmp/questions"
    device.sh('mkdir "$1"', path).check()
    yield path
    device.sh('rm -rf "$1"', path).check()


def validate(device: Device, folder: str, document: str, schema: str) -> Answer:
    device.write(f"{folder}/document", document)
    device.write(f"{folder}/schema", schema)
    return answer(device, "json-validate", f"{folder}/document", f"{folder}/schema")


def failure(reason: str) -> Answer:
    return 10, "", f"Validation failed - {reason}\n"


def test_a_valid_document_is_answered_by_the_status_alone(device: Device, folder: str) -> None:
    assert validate(device, folder, '{"a": 1}', '{"required": ["a"]}') == (0, "", "")


def test_an_invalid_document_is_answered_with_the_reason(device: Device, folder: str) -> None:
    assert validate(device, folder, "{}", '{"required": ["a"]}') == failure(
        "At  of {} - required property 'a' not found in object"
    )


def test_files_that_cannot_be_read_are_named(device: Device, folder: str) -> None:
    device.write(f"{folder}/document", "{}")
    none, document = f"{folder}/none", f"{folder}/document"
    assert answer(device, "json-validate", none, none) == (10, "", f"Failed to read input {none}\n")
    assert answer(device, "json-validate", folder, document) == (10, "", f"Failed to read input {folder}\n")
    assert answer(device, "json-validate", document, none) == (10, "", f"Failed to read {none}\n")
    assert answer(device, "json-validate", document, folder) == (10, "", f"Failed to read {folder}\n")


def test_an_iri_that_is_none_ends_the_message(device: Device, folder: str) -> None:
    status, output, log = validate(device, folder, '"no iri"', '{"format": "iri"}')
    assert (status, output) == (10, "")
    assert log.startswith("Validation failed - ") and log.endswith("no iri is not valid iri\n")
    assert validate(device, folder, '"https://müller.example/straße"', '{"format": "iri"}') == (0, "", "")


@pytest.mark.parametrize(
    ("document", "schema", "reason"),
    [
        ("{}", '{"$ref": "#"}', "the schema recurses without end or takes too much stack on this document"),
        ("[" * 100_000, "true", "more than 1000 levels of nesting"),
        ("{}", "[" * 100_000, "more than 1000 levels of nesting"),
    ],
)
def test_what_would_end_the_library_is_survived(
    device: Device, folder: str, document: str, schema: str, reason: str
) -> None:
    assert validate(device, folder, document, schema) == failure(reason)


def test_a_backtracking_pattern_on_a_long_text_is_survived(device: Device, folder: str) -> None:
    status, output, log = validate(device, folder, json.dumps("a" * 200_000), '{"pattern": "^(a|b)*$"}')
    assert (status, output) == (10, "")
    assert log.startswith("Validation failed - ")


def test_the_schema_of_the_manifest_accepts_an_example(device: Device, folder: str) -> None:
    from conftest import CHECKOUT

    schema = (CHECKOUT / "data" / "manifest.schema.json").read_text()
    manifest = (CHECKOUT / "examples" / "hello" / "manifest.json").read_text()
    assert validate(device, folder, manifest, schema) == (0, "", "")
    assert validate(device, folder, manifest.replace('"runMode"', '"runmode"'), schema)[0] == 10


# --- package-conf ---

USAGE = """
Usage: velkctl package-conf KEY LINE

Expect LINE to be on the format "KEY=VALUE", extract VALUE and write it to stdout.
If KEY doesn't match the supplied LINE argument or if LINE contains
syntax errors or constructs that would risk becoming a command injection
or in other ways cause problems for it being used in a Shell script, log
an error, write the error code to stdout and return a non-zero exit code.
"""


@pytest.mark.parametrize(
    ("key", "line", "value"),
    [
        ("APPNAME", "APPNAME=app", "app"),
        ("APPNAME", 'APPNAME="My App"', "My App"),
        ("APPNAME", "APPNAME=", ""),
        ("APPNAME", "APPNAME='a\tb'", "a b"),
        ("APPNAME", "APPNAME='a", "'a"),
        ("-h", "-h=x", "x"),
        ("--", "--=-x", "-x"),
    ],
)
def test_a_value_is_printed_bare(device: Device, key: str, line: str, value: str) -> None:
    assert answer(device, "package-conf", key, line) == (0, f"{value}\n", "")


@pytest.mark.parametrize(
    ("key", "line", "message"),
    [
        ("APP", "APPNAME=x", "package.conf line does not contain a well-formed assignment"),
        ("APPNAME", "APPNAME = x", "package.conf line does not contain a well-formed assignment"),
        ("APPNAME", "APPNAME=My App", "package.conf value 'APPNAME' contains invalid characters"),
        ("APPNAME", "APPNAME='a;b'", "package.conf value 'APPNAME' contains invalid characters"),
        ("APPNAME", "APPNAME=$(reboot)", "package.conf value 'APPNAME' contains invalid characters"),
        ("APPNAME", "APPNAME='a\nb'", "Field 'APPNAME' in manifest contains a newline"),
    ],
)
def test_a_refused_value_prints_the_code(device: Device, key: str, line: str, message: str) -> None:
    assert answer(device, "package-conf", key, line) == (29, "29\n", f"code 29: {message}\n")


def test_the_usage_goes_to_standard_error(device: Device) -> None:
    assert answer(device, "package-conf", "-h") == (0, "", USAGE)
    assert answer(device, "package-conf", "--help") == (0, "", USAGE)


@pytest.mark.parametrize("arguments", [[], ["KEY"], ["KEY", "KEY=x", "more"], ["-h", "x", "y"]])
def test_any_other_number_of_arguments_is_wrong(device: Device, arguments: list[str]) -> None:
    expected = (10, "10\n", USAGE + "code 10: Wrong number of arguments\n")
    assert answer(device, "package-conf", *arguments) == expected
