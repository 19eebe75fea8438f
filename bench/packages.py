"""
Packages: verification, import and removal beside the same work done by hand, on a booted simulated device.

The same work is: the start of a program with the same libraries, gpgv on the data part, one copy of it, one pass of
zlib over it, tar as nobody, and the syncs that make the result last. Each is timed alone as well, since that is what
one more pass over the data would cost. An import also has tar look for the manifest before anything else, which is a
way through the whole package when it is compressed: that is no part of the floor, but each ratio is also given with it.
By hand tar has its own gzip; velkctl has it use pigz, which makes up for that look.
"""

from __future__ import annotations

import gzip
import io
import json
import random
import tarfile
import tempfile
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

IMPORT_RATIO = 1.15
VERIFY_RATIO = 1.1
REMOVE_RATIO = 1.2
MEMORY_MIB = 16.0
MEMORY_GROWTH_MIB = 1.0
MEGABYTES = (1, 20, 100)
ROUNDS = (4, 8)
BOUNDS = (("verify", VERIFY_RATIO), ("import", IMPORT_RATIO), ("remove", REMOVE_RATIO))

STORE = "/usr/local/packages"
PACKAGE = "/tmp/bench.vlp"
SIGNATURE = "/tmp/bench.sig"
KEYRING = "/usr/share/velkmanager/velk.public.gpg"
TAR = "su -s /bin/sh -c \"tar --no-same-permissions --no-same-owner -xf '/tmp/by-hand.vlp'\" nobody"

# $2 is the length of the data part. The order is velkctl's own. Whatever does the work has to start first, and each
# control file has to lose its attribute before it can be removed, by a command of its own.
BY_HAND = f"""
gpgv() {{ command gpgv --ignore-time-conflict --keyring {KEYRING} {SIGNATURE} /tmp/by-hand.vlp; }}
set -e
case $1 in
    copy) /tmp/by-hand copy {PACKAGE} /tmp/by-hand.vlp "$2" ;;
    gpgv) gpgv ;;
    inflate) /tmp/by-hand inflate /tmp/by-hand.vlp ;;
    manifest) tar -xOf {PACKAGE} manifest.json || [ $? = 2 ] ;;  # the signature behind the archive
    tar)
        mkdir {STORE}/Bench.tmp; chown nobody {STORE}/Bench.tmp; cd {STORE}/Bench.tmp
        {TAR} ;;
    verify)
        /tmp/trivial
        /tmp/by-hand copy {PACKAGE} /tmp/by-hand.vlp "$2"
        gpgv ;;
    import)
        /tmp/trivial
        /tmp/by-hand copy {PACKAGE} /tmp/by-hand.vlp "$2"
        gpgv; sync; sync
        /tmp/by-hand inflate /tmp/by-hand.vlp
        mkdir {STORE}/Bench.tmp; chown nobody {STORE}/Bench.tmp; cd {STORE}/Bench.tmp
        {TAR}
        cd /; sync -f {STORE}/Bench.tmp
        mv {STORE}/Bench.tmp {STORE}/Bench; /tmp/by-hand flush {STORE}
        sync ;;
    remove)
        /tmp/trivial
        sync; sync
        chattr -i {STORE}/Bench/manifest.json
        chattr -i {STORE}/Bench/package.conf
        rm -rf {STORE}/Bench; sync ;;
esac
"""
PASSES = ("copy", "gpgv", "inflate", "manifest", "tar")


@dataclass(frozen=True)
class Kind:
    """One package to measure."""

    megabytes: int
    compress: bool
    noise: bool

    def __str__(self) -> str:
        return f"{self.megabytes} MB {'of noise' if self.noise else 'of text'}, {'gzip' if self.compress else 'plain'}"


def content(noise: bool) -> bytes:
    """4 MiB; longer data repeats it, which is too far apart for gzip to notice."""
    chance = random.Random(7)
    if noise:
        return chance.randbytes(4 << 20)
    words = [bytes(chance.choices(b"etaoinshrdlu", k=chance.randint(2, 9))) for _ in range(3000)]
    return b" ".join(chance.choices(words, k=900_000))[: 4 << 20]


def archive(kind: Kind) -> bytes:
    from velkdevice import package

    files = package.application("Bench")
    files["package.conf"] = 'APPNAME="Bench"\n'
    data = content(kind.noise)
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.GNU_FORMAT) as tar:
        for name, text in files.items():
            raw = text.encode() if isinstance(text, str) else json.dumps(text).encode()
            member = tarfile.TarInfo(name)
            member.size = len(raw)
            tar.addfile(member, io.BytesIO(raw))
        left, number = kind.megabytes * 1_000_000, 0
        while left > 0:
            member = tarfile.TarInfo(f"data/{number}")
            member.size = min(left, len(data))
            tar.addfile(member, io.BytesIO(data))
            left, number = left - member.size, number + 1
    return gzip.compress(buffer.getvalue(), 1, mtime=0) if kind.compress else buffer.getvalue()


class Bench:
    """A device with the helpers on it, and a package in its place."""

    def __init__(self, device: Any, build: Path) -> None:
        self.device = device
        self.length = 0
        for name in ("measure", "trivial", "by-hand"):
            device.copy_in(build / "bench" / name, f"/tmp/{name}")
            device.run(["chmod", "755", f"/tmp/{name}"]).check()
        device.write("/tmp/by-hand.sh", BY_HAND)

    def put(self, kind: Kind) -> None:
        from velkdevice import package

        data = archive(kind)
        signature = package.Key.trusted().sign(data)
        self.length = len(data)
        with tempfile.NamedTemporaryFile() as file:
            file.write(package.append_signature(data, signature))
            file.flush()
            self.device.copy_in(file.name, PACKAGE)
        self.device.write(SIGNATURE, signature)

    def measure(self, *command: str) -> tuple[float, int]:
        """(seconds, KiB) of a command, nothing of earlier ones being left to write."""
        self.device.run(["sync"])
        words = self.device.run(["/tmp/measure", "1", *command], timeout=600).check().stdout.split()
        if words[0] != "0":
            raise RuntimeError(f"{' '.join(command)}: exit status {words[0]}")
        return int(words[1]) / 1e9, int(words[2])

    def by_hand(self, what: str) -> float:
        taken = self.measure("sh", "/tmp/by-hand.sh", what, str(self.length))[0]
        if what in ("verify", "import"):  # velkctl leaves no copy either, whose memory the next one would be given
            self.device.run(["rm", "-f", "/tmp/by-hand.vlp"]).check()
        return taken

    def velkctl(self, *arguments: str) -> float:
        return self.measure("velkctl", *arguments)[0]

    def verification(self) -> dict[str, float]:
        return {"verify": self.velkctl("verify-signature", PACKAGE)}

    def verification_by_hand(self) -> dict[str, float]:
        return {"verify by hand": self.by_hand("verify")}

    def life(self) -> dict[str, float]:
        return {"import": self.velkctl("import", PACKAGE), "remove": self.velkctl("remove", "Bench")}

    def life_by_hand(self) -> dict[str, float]:
        found = {"import by hand": self.by_hand("import")}
        self.device.sh(f"rm -rf {STORE}/Bench").check()
        self.velkctl("import", PACKAGE)  # with what else a removal has to look for
        return found | {"remove by hand": self.by_hand("remove")}

    def one_round(self, number: int) -> dict[str, float]:
        """
        Everything once, ours and by hand in turns, so that a busy moment of the machine meets both.

        The one that comes first changes: it may find the memory that the other has just given back, or not.
        """
        steps = (self.verification, self.verification_by_hand, self.life, self.life_by_hand)
        found: dict[str, float] = {}
        for step in steps if number % 2 == 0 else reversed(steps):
            found |= step()
        for one in PASSES:
            found[one] = self.by_hand(one)
        self.device.sh(f"rm -rf {STORE}/Bench.tmp /tmp/by-hand.vlp").check()
        return found


def best_of_rounds(bench: Bench) -> dict[str, float]:
    """
    The least of some rounds: whatever else the machine does only ever adds.

    On a busy machine a few rounds are too few to find it, so there are more as long as a bound is broken.
    """
    least, most = ROUNDS
    best = bench.one_round(0)
    for number in range(1, most):
        if number >= least and all(best[what] <= limit * best[f"{what} by hand"] for what, limit in BOUNDS):
            break
        latest = bench.one_round(number)
        best = {name: min(best[name], latest[name]) for name in best}
    return best


def one_package(report: Any, bench: Bench, kind: Kind) -> list[str]:
    """Three ratios for the table of bounds; the cells of the table of passes."""
    bench.put(kind)
    best = best_of_rounds(bench)
    for what, limit in BOUNDS:
        ours, floor = best[what], best[f"{what} by hand"]
        note = f"{ours * 1e3:.0f} ms and {floor * 1e3:.0f} ms"
        if what == "import":
            note += (
                f"; {ours / (floor + best['manifest']):.2f} times a floor with the look for the manifest"
            )
        report.bound(f"`{what}` of {kind} beside the same by hand", ours / floor, limit, " times", note)
    return [
        str(kind),
        *(f"{best[one] * 1e3:.0f} ms ({best[one] / best['import by hand']:.2f})" for one in PASSES),
    ]


def memory(report: Any, bench: Bench) -> None:
    """What the commands keep in memory must not depend on how large the package is."""
    commands: Sequence[Sequence[str]] = (
        ("verify-signature", PACKAGE),
        ("import", PACKAGE),
        ("remove", "Bench"),
    )
    for compress in (False, True):
        peaks: dict[int, list[int]] = {}
        for megabytes in (1, 1000):
            bench.put(Kind(megabytes, compress, noise=not compress))
            peaks[megabytes] = [bench.measure("velkctl", *command)[1] for command in commands]
        form = "gzip" if compress else "plain"
        for command, small, large in zip(commands, *peaks.values()):
            note = f"{small / 1024:.1f} MiB for 1 MB, {large / 1024:.1f} MiB for 1 GB"
            report.bound(f"memory of `{command[0]}`, 1 GB, {form}", large / 1024, MEMORY_MIB, " MiB", note)
            growth = abs(large - small) / 1024
            report.bound(f"its growth from 1 MB to 1 GB, {form}", growth, MEMORY_GROWTH_MIB, " MiB", "")


def packages(report: Any, build: Path) -> None:
    """Add the tables of packages to the report; nothing but a word of it where no device can be booted."""
    from velkdevice import host
    from velkdevice.device import Device

    if host.missing():
        report.say("NOT MEASURED: packages, for which this machine cannot boot a device.")
        return
    with Device(build / "src/velkctl") as device:
        device.settle()
        bench = Bench(device, build)
        report.table("what", "figure", "bound", "", "in absolute figures")
        kinds = [
            Kind(size, compress, noise)
            for size in MEGABYTES
            for compress in (False, True)
            for noise in (False, True)
        ]
        passes = [one_package(report, bench, kind) for kind in kinds]
        memory(report, bench)
        report.say()
        report.say(
            "What each pass costs alone, and (in brackets) beside the whole import by hand: one more of its kind"
        )
        report.say(
            "would add that much. The manifest's is tar's way through the package before it is verified."
        )
        report.say()
        report.table("package", *PASSES)
        for cells in passes:
            report.say("| " + " | ".join(cells) + " |")
