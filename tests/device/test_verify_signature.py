"""The signature of a package: what passes, what is refused and how, and that nothing of it stays."""

from __future__ import annotations

import functools
import gzip
import re
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
import store_support as support
from setups import program
from store_support import MISMATCH, NOT_OPENPGP
from velkdevice import package
from velkdevice.device import Device

DATA = gzip.compress(b"any data at all " * 100, mtime=0)


@functools.cache
def good() -> bytes:
    """A well signed package; made on first use, since a machine that skips these tests may have no gpg."""
    return support.signed(DATA)


PATH = "/tmp/packages/App.vlp"
pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")
USAGE = """
Usage: velkctl verify-signature [OPTIONS] PATH

Verifies the signature of an VELK application

Options:
-h, --help         Print this help and exit

Positional arguments:
PATH               Path to the VELK application package
"""
SUCCESS = (0, f"Successfully verified signature of {PATH}\n")
NOT_ALLOWED = (2, "code 2: Unsigned package not allowed\n")


@pytest.fixture
def verify(device: Device) -> Callable[..., tuple[int, str]]:
    def run(data: bytes, name: str = "App.vlp") -> tuple[int, str]:
        return support.outcome(device.velkctl("verify-signature", support.put(device, data, name)))

    return run


@pytest.fixture
def settings(device: Device) -> Iterator[Callable[[str | None], None]]:
    """Replace the settings file by a text, or take it away; it is back afterwards."""
    before = device.read(support.SETTINGS)

    def change(text: str | None) -> None:
        if text is None:
            device.sh("rm -f " + support.SETTINGS).check()
        else:
            device.write(support.SETTINGS, text)

    yield change
    device.write(support.SETTINGS, before)


@pytest.fixture
def trusting(device: Device) -> Iterator[Callable[..., None]]:
    """Make the device trust further keys for the time of a test."""

    def trust(*keys: package.Key) -> None:
        support.trust(device, package.Key.trusted(), *keys)

    yield trust
    support.trust(device, package.Key.trusted())


# --- the command line ---


@pytest.mark.parametrize(
    ("arguments", "status", "log"),
    [
        (["-h"], 0, ""),
        (["--help"], 0, ""),
        (["-h", "/tmp/x.vlp"], 0, ""),
        ([], 10, "code 10: Missing positional argument\n"),
        (["a", "b"], 10, "code 10: Too many arguments\n"),
    ],
)
def test_usage(device: Device, arguments: list[str], status: int, log: str) -> None:
    result = device.velkctl("verify-signature", *arguments)
    assert (result.status, result.stdout, result.stderr) == (status, USAGE, log)


def test_an_unknown_option_prints_the_usage(device: Device) -> None:
    result = device.velkctl("verify-signature", "--force", PATH)
    assert (result.status, result.stdout) == (10, USAGE)
    assert "unrecognized option '--force'" in result.stderr


# --- what passes ---


def test_a_signed_package_passes(verify: Callable[..., tuple[int, str]]) -> None:
    assert verify(good()) == SUCCESS


def test_the_name_in_the_message_is_the_one_given(device: Device) -> None:
    support.put(device, good())
    result = device.sh("cd /tmp && velkctl verify-signature packages/../packages/App.vlp")
    assert support.outcome(result) == (0, "Successfully verified signature of packages/../packages/App.vlp\n")


@pytest.mark.parametrize("length", [1, 4095, 4096, 4097, 8192, 3 * 1024 * 1024 + 7])
def test_data_of_any_length_passes(verify: Callable[..., tuple[int, str]], length: int) -> None:
    assert verify(support.signed(bytes(range(251)) * (length // 251) + b"x" * (length % 251))) == SUCCESS


def test_keys_of_either_kind_pass(
    verify: Callable[..., tuple[int, str]], trusting: Callable[..., None]
) -> None:
    rsa = package.Key.named("rsa", "rsa2048")
    trusting(rsa)
    assert verify(support.signed(DATA, rsa)) == SUCCESS


@pytest.mark.parametrize(
    "written",
    {
        "other line ends": lambda text: text.replace(b"\n", b"\r\n"),
        "headers": lambda text: text.replace(b"-----\n", b"-----\nVersion: 1\nComment: on a: b, and c\n", 1),
        "blanks behind it": lambda text: text + b" \n\n",
        "no last line end": lambda text: text.rstrip(b"\n"),
        "blank lines in front of it": lambda text: b"\n \t\n\r\n" + text,
        "empty headers": lambda text: text.replace(b"-----\n", b"-----\nVersion:\nComment: \n:\nHash:\r\n", 1),
        "blank lines for one": lambda text: text.replace(b"\n\n", b"\n\n \n\t\n", 1),
        "nearly a megabyte of blank lines in front": lambda text: b"\n" * 1_000_000 + text,
        "nearly a megabyte of blank lines inside": lambda text: text.replace(b"\n\n", b"\n" * 1_000_000, 1),
        "nearly a megabyte of headers": lambda text: text.replace(b"-----\n", b"-----\n" + b"A:\n" * 333_000, 1),
        "no sum": lambda text: re.sub(rb"\n=[\w+/]{4}\n", b"\n", text),
    }.items(),
    ids=lambda item: item[0],
)
def test_an_armour_as_programs_write_it(
    verify: Callable[..., tuple[int, str]], written: tuple[str, Callable[[bytes], bytes]]
) -> None:
    assert verify(package.append_signature(DATA, written[1](package.Key.trusted().sign(DATA)))) == SUCCESS
    assert verify(good()) == SUCCESS


def test_a_binary_signature_passes(verify: Callable[..., tuple[int, str]]) -> None:
    """Though no import can record it."""
    binary = package.Key.trusted().gpg("--detach-sign", data=DATA)
    assert verify(package.append_signature(DATA, binary)) == SUCCESS


def test_a_signature_of_a_later_time_passes(
    verify: Callable[..., tuple[int, str]],
) -> None:
    """The clock of a device that just got its power is anywhere."""
    later = package.Key.trusted().sign(DATA, "--faked-system-time", "20370101T000000!")
    assert verify(package.append_signature(DATA, later)) == SUCCESS


def test_a_link_to_a_package_is_followed_and_its_target_judged(device: Device) -> None:
    support.put(device, good())
    device.sh("ln -s App.vlp '/tmp/packages/a link'").check()
    result = device.velkctl("verify-signature", "/tmp/packages/a link")
    assert support.outcome(result) == (0, "Successfully verified signature of /tmp/packages/a link\n")


# --- what is refused ---


def test_every_bad_signature_is_refused(verify: Callable[..., tuple[int, str]]) -> None:
    table = support.refused_signatures(DATA)
    found = {name: verify(data) for name, (data, _) in table.items()}
    assert found == {name: expected for name, (_, expected) in table.items()}


def test_an_expired_signature_is_refused(
    verify: Callable[..., tuple[int, str]], trusting: Callable[..., None], tmp_path: Path
) -> None:
    old = package.Key(tmp_path)
    old.gpg(
        "--faked-system-time",
        "20200101T000000!",
        "--quick-generate-key",
        "Old <old@velk.invalid>",
        "ed25519",
        "sign",
        "never",
    )
    trusting(old)
    then = ("--faked-system-time", "20200102T000000!")
    assert verify(package.append_signature(DATA, old.sign(DATA, *then))) == SUCCESS
    expired = old.sign(DATA, *then, "--default-sig-expire", "1d")
    assert verify(package.append_signature(DATA, expired)) == MISMATCH


def test_a_keyring_that_is_missing_or_armoured_is_none(
    device: Device, verify: Callable[..., tuple[int, str]]
) -> None:
    device.sh("rm " + support.KEYRING).check()
    missing = verify(good())
    device.write(support.KEYRING, package.Key.trusted().gpg("--armor", "--export"))
    armoured = verify(good())
    support.trust(device, package.Key.trusted())
    assert (missing, armoured) == (NOT_OPENPGP, NOT_OPENPGP)


def test_a_device_without_gpgv_refuses(device: Device) -> None:
    path = support.put(device, good())
    result = device.velkctl("verify-signature", path, env={"PATH": "/nowhere"})
    assert result.status == 2
    assert result.stderr.splitlines()[-1] + "\n" == NOT_OPENPGP[1]


# --- what is no signed package ---


@pytest.mark.parametrize(
    ("what", "expected"),
    [
        ("nothing in it", (1, f"code 1: Package size 0 for {PATH} is too small\n")),
        ("15 bytes", (1, f"code 1: Package size 15 for {PATH} is too small\n")),
        ("16 bytes of text", NOT_ALLOWED),
        ("a text", NOT_ALLOWED),
        ("cut in the data", NOT_ALLOWED),
        ("cut by one byte", NOT_ALLOWED),
    ],
)
def test_what_is_no_package_is_refused(
    verify: Callable[..., tuple[int, str]], what: str, expected: tuple[int, str]
) -> None:
    assert verify(support.packages_with_mistakes()[what]) == expected


def test_a_missing_package_is_refused(device: Device) -> None:
    result = device.velkctl("verify-signature", "/tmp/absent.vlp")
    assert support.outcome(result) == (
        10,
        "code 10: Path is not a valid canonicalizable path: /tmp/absent.vlp\n",
    )


def test_a_directory_is_refused(device: Device) -> None:
    device.sh("mkdir -p /tmp/packages/App.vlp").check()
    status, log = support.outcome(device.velkctl("verify-signature", PATH))
    # The file system decides how far one can seek in a directory, if at all, and so what the reading says.
    assert (status, log.rpartition(": ")[0]) in (
        (2, "code 2: Failed reading 8B for the magic"),
        (1, "code 1: fseek(SEEK_END) failed"),
    ), log


def test_a_pipe_is_refused_and_not_waited_for(device: Device) -> None:
    device.sh("mkdir -p /tmp/packages && mkfifo /tmp/packages/App.vlp").check()
    result = device.velkctl("verify-signature", PATH, timeout=10)
    assert support.outcome(result) == (1, "code 1: fseek(SEEK_END) failed: Illegal seek\n")


@pytest.mark.parametrize(
    "name", ["a package.vlp", "a;b.vlp", "\u00fc.vlp", "App.vlp\n", "a'b.vlp", "a+b.vlp"]
)
def test_a_wrongly_named_package_is_refused_before_it_is_opened(device: Device, name: str) -> None:
    device.sh('mkdir -p /tmp/packages && mkfifo "/tmp/packages/$1"', name).check()
    result = device.velkctl("verify-signature", f"/tmp/packages/{name}", timeout=10)
    message = "code 10: Character sequence in application package file name is not allowed\n"
    assert support.outcome(result) == (10, message)


def test_a_package_that_cannot_be_opened_is_refused(device: Device) -> None:
    support.put(device, good())
    device.sh("chmod 600 /tmp/packages/App.vlp").check()
    result = device.run(["velkctl", "verify-signature", PATH], user="nobody")
    message = (
        f"code 10: src/store/velkctl-verify-signature.cpp:N: Failed opening file: {PATH}: Permission denied\n"
    )
    assert support.outcome(result) == (10, message)


def test_a_full_disk_for_the_temporary_files_is_reported(device: Device) -> None:
    path = support.put(device, support.signed(b"d" * 300_000), directory="/root/packages")
    script = (
        'mount -t tmpfs -o size=64k none /tmp; velkctl verify-signature "$1"; end=$?; ls -A /tmp; exit $end'
    )
    result = device.run(["unshare", "--mount", "sh", "-c", script, "sh", path])
    device.sh("rm -r /root/packages").check()
    assert result.status == 10
    assert result.stdout == ""
    log = support.place(result.stderr)
    assert log.startswith(
        "code 10: src/store/package-trailer.cpp:N: Failed writing 4096B to file: /tmp/velkctl_"
    ), log
    assert log.endswith(".vlp: No space left on device\n"), log


def test_temporary_files_that_cannot_be_deleted_are_a_warning(device: Device) -> None:
    path = support.put(device, good())
    script = '"$REAL" "$@" || exit\nshift $(($# - 2))\nmount --bind "$1" "$1"; mount --bind "$2" "$2"\n'
    with program(device, "gpgv", script) as env:
        # What is mounted is in use, and is not any more when the namespace has gone.
        result = device.run(["unshare", "--mount", "velkctl", "verify-signature", path], env=env)
    left = support.temporaries(device)
    device.sh("rm /tmp/velkctl_*").check()
    status, log = support.outcome(result)
    told = [f"Failed to unlink file: /tmp/{name}: Device or resource busy" for name in left]
    assert [name.rpartition(".")[2] for name in sorted(left, key=lambda name: name[-4:])] == ["sig", "vlp"]
    assert (status, sorted(log.splitlines())) == (0, sorted([*told, SUCCESS[1].strip()]))


# --- unsigned packages and the setting ---


def test_an_unsigned_package_passes_when_the_setting_says_so(
    verify: Callable[..., tuple[int, str]], settings: Callable[[str | None], None]
) -> None:
    settings("[Install]\nAllowUnsigned=true\n")
    assert verify(DATA) == (0, "Unsigned package, skipping signature verification\n" + SUCCESS[1])
    # A signed one is verified all the same.
    assert verify(good()) == SUCCESS
    assert verify(package.append_signature(DATA + b"x", package.Key.trusted().sign(DATA))) == MISMATCH


def test_without_settings_no_unsigned_package_passes(
    verify: Callable[..., tuple[int, str]], settings: Callable[[str | None], None]
) -> None:
    settings(None)
    info = f"Defaulting to 'false' for [Install].AllowUnsigned, no keyfile: {support.SETTINGS}\n"
    assert verify(DATA) == (2, info + NOT_ALLOWED[1])
    assert verify(good()) == SUCCESS


@pytest.mark.parametrize(
    ("text", "reason"),
    [
        (
            "[Install]\nOther=true\n",
            "Key file does not have key \u201cAllowUnsigned\u201d in group \u201cInstall\u201d",
        ),
        ("[Other]\nAllowUnsigned=true\n", "Key file does not have group \u201cInstall\u201d"),
        (
            "[Install]\nAllowUnsigned=maybe\n",
            "Key file contains key \u201cAllowUnsigned\u201d which has a value that cannot be interpreted.",
        ),
    ],
)
def test_settings_that_do_not_say_fail_the_verification_of_an_unsigned_package(
    verify: Callable[..., tuple[int, str]], settings: Callable[[str | None], None], text: str, reason: str
) -> None:
    settings(text)
    warning = f"Defaulting to 'false' for [Install].AllowUnsigned, bad keyfile: {support.SETTINGS}\n"
    failure = f"Failed reading key AllowUnsigned, group Install from {support.SETTINGS}: {reason}\n"
    assert verify(DATA) == (10, warning + "code 10: src/system/key-file.cpp:N: " + failure)
    assert verify(good()) == SUCCESS


def test_settings_that_are_no_key_file_allow_nothing(
    verify: Callable[..., tuple[int, str]], settings: Callable[[str | None], None]
) -> None:
    settings("this is no key file\n")
    assert verify(DATA) == NOT_ALLOWED
