"""
Packing: velk-pack's `build` and `sign` of a large folder beside tar, gzip and gpg run by hand, on this machine.

By hand the archive is made reproducible as well, and the signature and the trailer are put behind a copy of the
archive, which is what a signed package is. `info` and `verify` are shown beside one pass of the same kind.
"""

from __future__ import annotations

import json
import os
import subprocess
import tempfile
import time
from pathlib import Path
from typing import Any

from packages import content

PACK_RATIO = 1.2
MEGABYTES = 100
FILES = 25
ROUNDS = 5

BUILD = (
    "tar --sort=name --owner=root:0 --group=root:0 --mtime=@0 --format=gnu -C \"$1\" -cf - . | gzip -n >hand.tar.gz"
)
SIGN = """
set -e
rm -f hand.asc
gpg --batch --quiet --armor --local-user "$2" --output hand.asc --detach-sign "$1"
cat "$1" hand.asc trailer >hand.vlp
"""
READ = "gzip -dc \"$1\" | tar -tf - >listing"
VERIFY = "gpgv --quiet --keyring \"$PWD/public.gpg\" hand.asc \"$1\""


def _make_folder(folder: Path, noise: bool) -> None:
    from velkdevice import package

    package.write_tree(folder, package.application("Bench") | {"package.conf": 'APPNAME="Bench"\n'})
    data = content(noise)[: MEGABYTES * 1_000_000 // FILES]
    for number in range(FILES):
        (folder / f"data-{number}").write_bytes(data)


def _seconds(argv: list[str], place: Path, environment: dict[str, str]) -> float:
    start = time.monotonic()
    subprocess.run(argv, cwd=place, env=environment, check=True, capture_output=True)
    return time.monotonic() - start


def _one_round(velk_pack: str, place: Path, environment: dict[str, str]) -> dict[str, float]:
    """Everything once, ours and by hand in turns, so that a busy moment of the machine meets both."""

    def ours(*arguments: str) -> float:
        return _seconds([velk_pack, *arguments], place, environment)

    def by_hand(script: str, *arguments: str) -> float:
        return _seconds(["sh", "-c", script, "sh", *arguments], place, environment)

    key = "trusted@velk.invalid"
    return {
        "build by hand": by_hand(BUILD, "App"),
        "build": ours("build", "App", "--output", "unsigned.vlp"),
        "sign by hand": by_hand(SIGN, "unsigned.vlp", key),
        "sign": ours("sign", "unsigned.vlp", "--key", key, "--output", "signed.vlp"),
        "verify by hand": by_hand(VERIFY, "unsigned.vlp"),
        "verify": ours("verify", "signed.vlp", "--keyring", "public.gpg"),
        "info by hand": by_hand(READ, "unsigned.vlp"),
        "info": ours("info", "signed.vlp"),
    }


def _one_folder(report: Any, velk_pack: str, noise: bool) -> None:
    from velkdevice import package

    key = package.Key.trusted()
    with tempfile.TemporaryDirectory() as folder:
        place = Path(folder)
        _make_folder(place / "App", noise)
        (place / "trailer").write_bytes(package.trailer(0))
        (place / "public.gpg").write_bytes(key.keyring())
        (place / "home").symlink_to(key.home)
        environment = {**os.environ, "GNUPGHOME": str(place / "home")}
        try:
            rounds = [_one_round(velk_pack, place, environment) for _ in range(ROUNDS)]
        finally:
            subprocess.run(["gpgconf", "--kill", "all"], env=environment, check=False)
        answer = subprocess.run([velk_pack, "info", "--json", "signed.vlp"], cwd=place, capture_output=True, check=True)
        assert len(json.loads(answer.stdout)["files"]) > FILES
    # The least of the rounds: whatever else the machine does only ever adds.
    best = {name: min(one[name] for one in rounds) for name in rounds[0]}
    kind = "noise" if noise else "text"
    for what in ("build", "sign", "verify", "info"):
        hand = best[f"{what} by hand"]
        note = f"{best[what] * 1e3:.0f} ms and {hand * 1e3:.0f} ms"
        label = f"`velk-pack {what}` of {MEGABYTES} MB of {kind} beside the same by hand"
        if what in ("build", "sign"):
            report.bound(label, best[what] / hand, PACK_RATIO, " times", note)
        else:
            report.say(f"| {label} | {best[what] / hand:.2f} times | - |  | {note} |")


def packing(report: Any, build: Path) -> None:
    """Add the table of packing to the report."""
    report.table("what", "figure", "bound", "", "in absolute figures")
    for noise in (False, True):
        _one_folder(report, str(build / "src/velk-pack"), noise)
