"""What a caller hands down and what must not bend an answer: ignored and blocked signals, closed descriptors, a language."""

from __future__ import annotations

import itertools
import json

import pytest
import store_support as support
from apps import app, installation, without_place
from setups import STORE, Put, program, set_up, store_app, workshop  # noqa: F401  (the fixture)
from velkdevice import package
from velkdevice.device import Device, Result

# The standard descriptors that a caller can have closed, in all combinations.
CLOSED = [closed for size in (1, 2, 3) for closed in itertools.combinations((0, 1, 2), size)]
HOW = {0: "<&-", 1: ">&-", 2: "2>&-"}
NOT_WRITTEN = "src/cli/velkctl.cpp: Failed writing to standard output: Bad file descriptor\n"


def ignoring(device: Device, signal: str, *arguments: str) -> Result:
    """velkctl, started by somebody who ignores a signal."""
    return device.run(["env", f"--ignore-signal={signal}", "velkctl", *arguments])


def closing(device: Device, closed: tuple[int, ...], *arguments: str) -> Result:
    """velkctl, started with these descriptors closed."""
    return device.sh(f'velkctl "$@" {" ".join(HOW[fd] for fd in closed)}', *arguments)


# --- signals ---


def test_a_foreign_signature_is_bad_when_nobody_waits_for_children(device: Device, put_package: Put) -> None:
    path = put_package(device, app(), key=package.Key.named("stranger"))
    result = ignoring(device, "CHLD", "verify-signature", path)
    assert (result.status, result.stderr) == support.NOT_OPENPGP
    result = ignoring(device, "CHLD", "install", path)
    assert (result.status, result.stderr) == support.NOT_OPENPGP
    assert not device.exists(f"{STORE}/Sample")
    device.sh("rm /tmp/velkctl_*").check()  # kept for whoever looks into the matter


def test_a_stopped_application_is_stopped_when_nobody_waits_for_children(workshop: Device, put_package: Put) -> None:  # noqa: F811
    set_up(workshop, put_package, app())
    usual = workshop.velkctl("list", "Sample").check().stdout
    assert json.loads(usual)[0]["status"] == "Stopped"
    assert ignoring(workshop, "CHLD", "list", "Sample") == Result(
        ("env", "--ignore-signal=CHLD", "velkctl", "list", "Sample"), 0, usual, "")  # fmt: skip


SIGNALS = """#!/bin/sh
grep -E '^Sig(Blk|Ign):' /proc/self/status >localdata/signals
"""


def test_a_script_starts_with_no_signal_ignored_or_blocked(workshop: Device, put_package: Put) -> None:  # noqa: F811
    store_app(workshop, put_package, installation(app(), postInstallScript="x.sh") | {"x.sh": SIGNALS})
    ignored = [f"--ignore-signal={name}" for name in ("CHLD", "PIPE", "ALRM", "USR1", "XCPU", "XFSZ", "HUP", "INT", "TERM")]
    workshop.run(["env", *ignored, "--block-signal", "velkctl", "setup", "Sample"]).check()
    _, blocked, _, still_ignored = workshop.read(f"{STORE}/Sample/localdata/signals").split()
    # Two of the C library's own, above 31, are nobody's to set.
    assert (int(blocked, 16), int(still_ignored, 16) & 0x7FFFFFFF) == (0, 0)


# --- descriptors ---


@pytest.mark.parametrize("closed", CLOSED)
def test_closed_descriptors_make_no_package_bad(workshop: Device, put_package: Put, closed: tuple[int, ...]) -> None:  # noqa: F811
    path = put_package(workshop, app())
    log = {} if 2 in closed else {"verify-signature": workshop.velkctl("verify-signature", path).check().stderr}
    result = closing(workshop, closed, "verify-signature", path)
    assert (result.status, result.stdout) == (0, "") or 1 not in closed and result.status == 0
    assert result.stderr == log.get("verify-signature", "")
    result = closing(workshop, closed, "install", path)
    said = "" if 2 in closed else "Successfully installed application 'Sample' on 'internal'\n"
    assert (result.status, result.stderr) == (0, said)
    usual = workshop.velkctl("list", "Sample").check().stdout
    assert json.loads(usual)[0]["signatureStatus"] == "Signed"
    result = closing(workshop, closed, "list", "Sample")
    if 1 in closed:  # an answer that nobody can have read is none
        assert (result.status, result.stdout, without_place(result.stderr)) == (
            10, "", "" if 2 in closed else f"code 10: {NOT_WRITTEN}")  # fmt: skip
    else:
        assert (result.status, result.stdout, result.stderr) == (0, usual, "")


# --- the language, and units ---

# Speaks English where it is told to, and says very much before.
TAR = """
case "$*" in *-xf*) ;; *) exec "$REAL" "$@";; esac
head -c 3000000 /dev/zero | tr '\\0' x
if [ "$LC_ALL" = C ]; then echo "tar: a: Cannot write: No space left on device"
else echo "tar: a: Schreiben nicht möglich: Auf dem Gerät ist kein Speicherplatz mehr verfügbar"; fi
exit 2
"""


def test_a_full_disk_is_found_in_whatever_language_and_however_much_is_said(
    workshop: Device, put_package: Put  # noqa: F811
) -> None:
    path = put_package(workshop, app())
    # An import that fails behind the verification leaves what that has found.
    with program(workshop, "tar", TAR) as environment:
        result = workshop.velkctl("import", path, env={**environment, "LC_ALL": "de_DE.UTF-8", "LANGUAGE": "de"})
    assert (result.status, result.stderr) == (3, support.DISK_FULL)
    workshop.sh("rm -f /etc/velk/vsf/Sample").check()


def test_sizes_are_in_the_same_units_for_everybody(workshop: Device, put_package: Put) -> None:  # noqa: F811
    set_up(workshop, put_package, app())
    usual = workshop.velkctl("list", "--format", "idd-size").check().stdout
    odd = {"BLOCK_SIZE": "1", "DU_BLOCK_SIZE": "1", "BLOCKSIZE": "1", "POSIXLY_CORRECT": "1"}
    assert workshop.velkctl("list", "--format", "idd-size", env=odd).check().stdout == usual
