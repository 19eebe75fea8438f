"""Archives that somebody made to do harm, or that broke on the way, each with what import must make of it."""

from __future__ import annotations

import gzip
import json
import random
import zlib
from dataclasses import dataclass, field

import store_support as support

END = bytes(1024)
NOBODY = "nobody:nogroup"


# What lies at a name; where tar may do one thing or another, all that are harmless.
Extra = dict[str, str | tuple[str, ...]]


@dataclass(frozen=True)
class Case:
    """An archive, how its import ends, and what lies in the application's directory beside the usual files."""

    data: bytes
    outcome: tuple[int, str]
    extra: Extra = field(default_factory=dict)
    sign: bool = False


def header(
    name: bytes, size: int | bytes = 0, kind: bytes = b"0", link: bytes = b"", mode: int = 0o644, uid: int = 0,
    user: bytes = b"root", checksum: int | None = None, device: tuple[int, int] = (0, 0), magic: bytes = b"ustar  \0",
) -> bytes:  # fmt: skip
    """One block that begins a member; no field is checked for sense."""
    size_field = size if isinstance(size, bytes) else b"%011o\0" % size
    block = (
        name[:100].ljust(100, b"\0") + b"%07o\0" % mode + (b"%07o\0" % uid) * 2 + size_field + b"%011o\0" % 0
    )
    tail = kind + link[:100].ljust(100, b"\0") + magic + user.ljust(32, b"\0") * 2
    tail = (tail + b"%07o\0%07o\0" % device).ljust(512 - 156, b"\0")
    total = sum(block) + 8 * 32 + sum(tail) if checksum is None else checksum
    return block + b"%06o\0 " % total + tail


def padded(data: bytes) -> bytes:
    return data + bytes(-len(data) % 512)


def entry(name: str | bytes, data: bytes = b"", **facts: object) -> bytes:
    """A member with its data, under a name of any length."""
    raw = name.encode() if isinstance(name, str) else name
    before = long_name(raw) if len(raw) > 100 else b""
    target = facts.get("link", b"")
    assert isinstance(target, bytes)
    if len(target) > 100:
        before += long_name(target, b"K")
    return before + header(raw, facts.pop("size", len(data)), **facts) + padded(data)  # type: ignore[arg-type]


def long_name(name: bytes, kind: bytes = b"L") -> bytes:
    return header(b"././@LongLink", len(name) + 1, kind) + padded(name + b"\0")


def symlink(name: str | bytes, target: str | bytes) -> bytes:
    return entry(name, kind=b"2", link=target.encode() if isinstance(target, str) else target, mode=0o777)


def hard_link(name: str | bytes, target: str) -> bytes:
    return entry(name, kind=b"1", link=target.encode())


def directory(name: str, mode: int = 0o755) -> bytes:
    return entry(name, kind=b"5", mode=mode)


def pax(*records: tuple[str, bytes], kind: bytes = b"x") -> bytes:
    """Extended facts about the next member, or about all that follow."""
    lines = b""
    for key, value in records:
        body = b" " + key.encode() + b"=" + value + b"\n"
        length = len(body)
        while length != len(body) + len(str(length)):
            length = len(body) + len(str(length))
        lines += str(length).encode() + body
    return entry("pax", lines, kind=kind)


MANIFEST = json.dumps(support.app_files()["manifest.json"]).encode()
CONFIGURATION = support.CONFIGURATION.format("App").encode()
PROGRAM = b"#!/bin/sh\nexec sleep infinity\n"
# What an import of the usual members makes.
APPLICATION = {
    ".": "d 755 nobody:root",
    "manifest.json": f"f 444 root:root {len(MANIFEST)} i",
    "package.conf": f"f 444 root:root {len(CONFIGURATION)} i",
    "App": f"f 755 {NOBODY} {len(PROGRAM)}",
}


def usual(*without: str) -> bytes:
    """The members of an ordinary application."""
    members = {
        "manifest.json": MANIFEST,
        "package.conf": CONFIGURATION,
        "App": PROGRAM,
    }
    return b"".join(
        entry(name, data, mode=0o755 if name == "App" else 0o644)
        for name, data in members.items()
        if name not in without
    )


def with_usual(*members: bytes) -> bytes:
    return archive(usual(), *members)


def archive(*members: bytes) -> bytes:
    """These members and an end, in whole records as tar writes them."""
    data = b"".join(members) + END
    return data + bytes(-len(data) % 10240)


UNSIGNED = "Unsigned package, skipping signature verification\n"
IMPORTED = (0, UNSIGNED + "Successfully imported application 'App'\n")
INVALID = (1, UNSIGNED + "code 1: Invalid application package\n")
# Found out before the signature is looked at.
INVALID_AT_ONCE = (1, "code 1: Invalid application package\n")
SIGNED = (0, "Successfully imported application 'App'\n")
SIGNED_INVALID = INVALID_AT_ONCE


def invalid_manifest(reason: str) -> tuple[int, str]:
    return 29, f"code 29: Invalid manifest: {reason}\n"


def bad_gzip(reason: str) -> tuple[int, str]:
    place = "src/system/archive.cpp:N"
    data = "/tmp/velkctl_XXXXXX.vlp"
    return 10, f"code 10: {place}: Failed to read gzip archive {data}: {data}: {reason}\n"


def imported(*members: bytes) -> Case:
    return Case(with_usual(*members), IMPORTED)


def imported_with(extra: Extra, *members: bytes) -> Case:
    return Case(with_usual(*members), IMPORTED, extra)


def unreadable(*members: bytes) -> Case:
    """The whole archive is read for the manifest, so some faults are found before anything else happens."""
    return Case(with_usual(*members), INVALID_AT_ONCE)


def refused(*members: bytes) -> Case:
    return Case(with_usual(*members), INVALID)


def file(size: int, mode: int = 644, names: int = 1) -> str:
    return f"f {mode} {NOBODY} {size}" + (f" x{names}" if names > 1 else "")


def folder(mode: int = 755) -> str:
    return f"d {mode} {NOBODY}"


def link(target: str) -> str:
    return f"l 777 {NOBODY} -> {target}"


def names() -> dict[str, Case]:
    """Names that lead elsewhere, or that are hard to write down."""
    control = bytes(code for code in range(1, 32)) + b"\x7f\x1b[31m"
    return {
        "a file above": refused(entry("../outside", b"x")),
        "a file above by a detour": refused(entry("html/../../outside", b"x")),
        "a file above behind a dot": refused(entry("./../outside", b"x")),
        "a detour that ends inside": refused(entry("html/../inside", b"x")),
        "the directory above": refused(directory("..")),
        "a directory above": refused(directory("../outside/")),
        "a link above": refused(symlink("../outside", "x")),
        "a hard link above": refused(hard_link("../outside", "App")),
        "another application's file": refused(entry("../Other/manifest.json", b"x")),
        "two dots that are a name": imported_with({"..outside": file(1), "a..b": file(1)},
                                                  entry("..outside", b"x"), entry("a..b", b"x")),
        "an absolute file": imported_with({"etc": folder(), "etc/hostile": file(1)}, entry("/etc/hostile", b"x")),
        "an absolute file with many slashes": imported_with(
            {"etc": folder(), "etc/hostile": file(1)}, entry("////etc//hostile", b"x")),
        "an absolute file above": refused(entry("/../etc/hostile", b"x")),
        "an absolute file that is there": imported_with(
            {"etc": folder(), "etc/passwd": file(1)}, entry("/etc/passwd", b"x")),
        "the root directory": imported(directory("/", 0o777)),
        "the directory itself": imported(directory("./", 0o777)),
        "an empty name": refused(entry("", b"x")),
        "a newline": imported_with({"a\nb": file(1)}, entry("a\nb", b"x")),
        "a name that looks like two lines of a list": imported_with(
            {"x\n": folder(), "x\n/etc": folder(), "x\n/etc/passwd": file(1)}, entry("x\n/etc/passwd", b"x")),
        "control characters": imported_with({control.decode(): file(1)}, entry(control, b"x")),
        "bytes that are no text": imported_with({"\udcff\udcfe\udc80": file(1)}, entry(b"\xff\xfe\x80", b"x")),
        "what a shell would run": imported_with(
            {"$(touch hostile)": file(1), "`reboot`": file(1), "';reboot;'": file(1)},
            entry("$(touch hostile)", b"x"), entry("`reboot`", b"x"), entry("';reboot;'", b"x")),
        "what tar would take for an option": imported_with(
            {"--checkpoint-action=exec=reboot": file(1), "-rf": file(1)},
            entry("--checkpoint-action=exec=reboot", b"x"), entry("-rf", b"x")),
        "a component of 255 bytes": imported_with({"n" * 255: file(1)}, entry("n" * 255, b"x")),
        "a component of 256 bytes": refused(entry("n" * 256, b"x")),
        "a name of 4096 bytes": refused(entry("n" * 4096, b"x")),
        "a path of 4096 bytes": refused(entry("d/" * 2047 + "ff", b"x")),
        "a path of a megabyte": refused(entry("d/" * 500_000 + "f", b"x")),
        "names that differ in case": imported_with(
            {"manifest.JSON": file(1), "APP": file(1), "app": file(1), "Package.conf": file(1)},
            entry("manifest.JSON", b"x"), entry("APP", b"x"), entry("app", b"x"), entry("Package.conf", b"x")),
        "a name with a slash behind": imported_with({"x": folder(644)}, entry("x/", b"")),
    }  # fmt: skip


def deep() -> dict[str, Case]:
    """A path that is allowed, but longer than any path once the store's own is in front."""
    parts = ["d" * 250] * 16 + ["e" * 60]
    inside = {"/".join(parts[:depth]): folder() for depth in range(1, 18)}
    return {"a path that only fits from inside": imported_with(inside, directory("/".join(parts)))}


def links() -> dict[str, Case]:
    """Links out, and things that go through them."""
    return {
        "a link out": imported_with({"out": link("/etc/passwd")}, symlink("out", "/etc/passwd")),
        "a link out and a file through it": refused(symlink("out", "/tmp"), entry("out/hostile", b"x")),
        "a relative link out and a file through it": refused(
            symlink("out", "../../../../tmp"), entry("out/hostile", b"x")),
        "a link out and a directory through it": refused(symlink("out", "/tmp"), directory("out/hostile")),
        "a link out and a link through it": refused(symlink("out", "/tmp"), symlink("out/hostile", "x")),
        "a link out and a hard link through it": refused(symlink("out", "/etc"), hard_link("stolen", "out/passwd")),
        "a link out and a file in its place": imported_with(
            {"out": (file(1), link("/etc/hostile"))}, symlink("out", "/etc/hostile"), entry("out", b"x")),
        "a link out and a directory in its place": refused(
            symlink("out", "/tmp"), directory("out"), entry("out/f", b"x")),
        "a directory that becomes a link": imported_with(
            {"out": link("/tmp")}, directory("out"), symlink("out", "/tmp")),
        "a directory that becomes a link and a file through it": refused(
            directory("out"), symlink("out", "/tmp"), entry("out/hostile", b"x")),
        "a chain of links out": refused(
            symlink("a", "b"), symlink("b", ".."), directory("c"), entry("a/hostile", b"x")),
        "a link inside and a file through it": imported_with(
            {"d": folder(), "in": link("d"), "d/f": file(1)},
            directory("d"), symlink("in", "d"), entry("in/f", b"x")),
        "a link to the store and a file through it": refused(
            symlink("out", "/usr/local/packages"), entry("out/Other/manifest.json", b"x")),
        "a link to the process's own root and a file through it": refused(
            symlink("out", "/proc/self/root/tmp"), entry("out/hostile", b"x")),
        "a link to the working directory and a file through it": refused(
            symlink("out", "/proc/self/cwd/.."), entry("out/hostile", b"x")),
        "a loop of links": imported_with({"a": link("b"), "b": link("a")}, symlink("a", "b"), symlink("b", "a")),
        "a loop of links and a file through it": refused(
            symlink("a", "b"), symlink("b", "a"), entry("a/hostile", b"x")),
        "a link to nothing": imported_with({"a": link("/no/where")}, symlink("a", "/no/where")),
        "a link with an empty target": refused(symlink("a", "")),
        "a link with a target that is too long": refused(symlink("a", "t" * 5000)),
        "a hard link out": refused(hard_link("stolen", "/etc/passwd")),
        "a hard link to a file above": refused(hard_link("stolen", "../../../../etc/passwd")),
        "a hard link to another application": refused(hard_link("stolen", "/usr/local/packages/Other/manifest.json")),
        "a hard link to a link out and a file through it": imported_with(
            {"out": link("/etc/hostile"), "h": (file(1), link("/etc/hostile"))},
            symlink("out", "/etc/hostile"), hard_link("h", "out"), entry("h", b"x")),
        "a hard link to itself": refused(hard_link("self", "self")),
        "a hard link to a directory": refused(directory("d"), hard_link("h", "d")),
        "a hard link to nothing": refused(hard_link("h", "absent")),
        "a link to the root and a file through it": refused(symlink("out", "/"), entry("out/tmp/hostile", b"x")),
        "a link at a place of the system": imported_with({"conf": link("/etc")}, symlink("conf", "/etc")),
        "a link with a long target": imported_with({"a": link("t" * 4000)}, symlink("a", "t" * 4000)),
        "a program that is a link": imported_with({"App": link("/bin/sh")}, symlink("App", "/bin/sh")),
        "a hard link inside": imported_with(
            {"App": file(30, 755, 2), "alias": file(30, 755, 2)}, hard_link("alias", "App")),
        # What protects a control file would protect the other name, and whoever has that name has the file.
        "a hard link to the manifest": refused(hard_link("alias", "manifest.json")),
    }  # fmt: skip


def kinds() -> dict[str, Case]:
    """Members that are no file, and rights that no file of an application may have."""
    capability = b"\x01\x00\x00\x02\xff\xff\xff\xff\x00\x00\x00\x00\xff\xff\xff\xff\x00\x00\x00\x00"
    return {
        "a character device": refused(entry("null", kind=b"3", device=(1, 3))),
        "a whiteout": imported_with({"gone": f"c 644 {NOBODY}"}, entry("gone", kind=b"3")),
        "a block device": refused(entry("disk", kind=b"4", device=(7, 0))),
        "a FIFO": imported_with({"pipe": f"p 644 {NOBODY}"}, entry("pipe", kind=b"6")),
        "a FIFO and a file in its place": imported_with(
            {"pipe": file(1)}, entry("pipe", kind=b"6"), entry("pipe", b"x")),
        "a file and a FIFO in its place": imported_with(
            {"pipe": f"p 644 {NOBODY}"}, entry("pipe", b"x"), entry("pipe", kind=b"6")),
        "a hard link to a FIFO and a file in its place": imported_with(
            {"pipe": f"p 644 {NOBODY}", "h": file(1)},
            entry("pipe", kind=b"6"), hard_link("h", "pipe"), entry("h", b"x")),
        "a socket": imported_with({"socket": file(0)}, entry("socket", kind=b"s")),
        "a kind that nobody knows": imported_with({"x": file(3)}, entry("x", b"abc", kind=b"Z")),
        "a volume's label": imported_with({}, entry("label", kind=b"V")),
        "a directory with a list of names": imported_with({"d": folder()}, entry("d/", b"Yhostile\0\0", kind=b"D", mode=0o755)),
        "the rest of a file on another volume": unreadable(entry("x", b"abc", kind=b"M")),
        "set-id bits on files": imported_with(
            {"s": file(1, 755), "g": file(1, 755), "t": file(1, 755), "a": file(1, 755)},
            entry("s", b"x", mode=0o4755), entry("g", b"x", mode=0o2755), entry("t", b"x", mode=0o1755),
            entry("a", b"x", mode=0o7777)),
        "set-id bits on directories": imported_with(
            {"s": folder(), "g": folder(), "g/inside": folder(), "t": folder()},
            directory("s", 0o4755), directory("g", 0o2777), directory("g/inside"), directory("t", 0o7777)),
        "set-id bits on the control files": Case(
            entry("manifest.json", MANIFEST, mode=0o7777)
            + usual("manifest.json") + END, IMPORTED, {"manifest.json": f"f 444 root:root {len(MANIFEST)} i"}),
        "set-id bits on the directory itself": imported(directory("./", 0o7777)),
        "capabilities": imported_with(
            {"x": file(1, 755)},
            pax(("SCHILY.xattr.security.capability", capability)) + entry("x", b"x", mode=0o755)),
        "access lists": imported_with(
            {"x": file(1)}, pax(("SCHILY.acl.access", b"user::rwx,user:root:rwx,group::r-x,mask::rwx,other::rwx"))
            + entry("x", b"x")),
        "no rights at all": imported_with(
            {"d": folder(0), "d/f": file(1, 0), "f": file(1, 0)},
            directory("d", 0), entry("d/f", b"x", mode=0), entry("f", b"x", mode=0)),
        "the directory itself without rights": imported_with({".": "d 0 nobody:root"}, directory("./", 0)),
        "foreign owners": imported_with(
            {"a": file(1), "b": file(1), "c": file(1)},
            entry("a", b"x", uid=0, user=b"sdk"), entry("b", b"x", uid=33, user=b"www-data"),
            entry("c", b"x", uid=0o7777777, user=b"")),
        "an owner beyond all numbers": unreadable(
            pax(("uid", b"99999999999999999999"), ("gid", b"-1")) + entry("a", b"x")),
    }  # fmt: skip


def duplicates() -> dict[str, Case]:
    """The same name more than once, the control files above all."""
    other = json.dumps(support.app_files("Other")["manifest.json"]).encode()
    return {
        "a file twice": imported_with({"f": file(2)}, entry("f", b"x"), entry("f", b"xy")),
        "a file that becomes a directory": imported_with({"f": folder()}, entry("f", b"x"), directory("f")),
        "a directory that becomes a file": imported_with({"d": file(1)}, directory("d"), entry("d", b"x")),
        "a full directory that becomes a file": refused(directory("d"), entry("d/f", b"x"), entry("d", b"x")),
        "the manifest twice": Case(
            with_usual(entry("manifest.json", MANIFEST)), invalid_manifest("end of file expected near '{'")),
        "another manifest under another spelling": Case(with_usual(entry("./manifest.json", other)), INVALID),
        "another manifest through a link": Case(
            with_usual(symlink("here", "."), entry("here/manifest.json", other)), INVALID),
        "another manifest by an absolute name": Case(with_usual(entry("/manifest.json", other)), INVALID),
        "another manifest by a hard link": Case(
            with_usual(entry("other", other), hard_link("./manifest.json", "other")), INVALID),
        "the same manifest under another spelling": imported(entry("./manifest.json", MANIFEST)),
        "a manifest that becomes a link": refused(symlink("./manifest.json", "/etc/passwd")),
        "a manifest that becomes a directory": refused(directory("./manifest.json")),
        "a manifest that becomes a directory with a file": refused(entry("./manifest.json/x", b"x")),
        "a manifest that becomes a device": refused(entry("./manifest.json", kind=b"3", device=(1, 3))),
        "a manifest that is a link": Case(
            symlink("manifest.json", "real") + entry("real", MANIFEST) + usual("manifest.json") + END,
            invalid_manifest("'[' or '{' expected near end of file")),
        "a manifest that is a hard link": Case(
            entry("real", MANIFEST) + hard_link("manifest.json", "real") + usual("manifest.json") + END,
            invalid_manifest("'[' or '{' expected near end of file")),
        "a manifest that is a directory": Case(
            directory("manifest.json") + entry("manifest.json/x", MANIFEST) + usual("manifest.json") + END, INVALID),
        "a file below a file": refused(entry("App/x", b"x")),
        "the other manifest twice": Case(
            with_usual(entry("manifest.json", other)), invalid_manifest("end of file expected near '{'")),
        "a configuration that is a hard link": Case(
            usual("package.conf") + entry("real", b"\n") + hard_link("package.conf", "real") + END, INVALID),
        "a configuration twice": imported_with(
            {"package.conf": "f 444 root:root 1 i"}, entry("package.conf", b"\n")),
        "a configuration that becomes a link": refused(symlink("package.conf", "manifest.json")),
        "a configuration that becomes a link out": refused(symlink("package.conf", "/etc/passwd")),
        "a configuration that becomes a directory": refused(directory("package.conf")),
        "a configuration that is a FIFO": Case(
            usual("package.conf") + entry("package.conf", kind=b"6") + END, INVALID),
        "a configuration that is the manifest": Case(
            usual("package.conf") + hard_link("package.conf", "manifest.json") + END, INVALID),
        "a directory above a configuration that is a link out": Case(
            usual("package.conf") + symlink("d", "/etc") + hard_link("package.conf", "d/passwd") + END, INVALID),
    }  # fmt: skip


def sparse(name: str, pieces: bytes, real_size: int) -> bytes:
    """A member of the older sparse form, with one block of data; `pieces` are places and lengths."""
    block = bytearray(header(name.encode(), 512, b"S"))
    block[386 : 386 + len(pieces)] = pieces
    block[483:495] = b"%011o\0" % real_size
    block[148:156] = b" " * 8
    block[148:156] = b"%06o\0 " % sum(block)
    return bytes(block) + b"x" * 512


def sparse_by_extension(name: str, real_size: int, table: bytes) -> bytes:
    """A member of the newer sparse form, with one block of data; the table stands before the data."""
    facts = pax(("GNU.sparse.major", b"1"), ("GNU.sparse.minor", b"0"), ("GNU.sparse.name", name.encode()),
                ("GNU.sparse.realsize", b"%d" % real_size))  # fmt: skip
    return facts + entry("holes", padded(table) + b"x" * 512, magic=b"ustar\x0000")


def sizes() -> dict[str, Case]:
    """Members that say one size and have another."""
    eight_gib = 8 << 30
    pieces = b"%011o\0" % 0 + b"%011o\0" % 512 + b"%011o\0" % (eight_gib - 1) + b"%011o\0" % 0
    big = (0x80 << 88 | eight_gib).to_bytes(12, "big")
    return {
        "a sparse file of 8 GiB": imported_with(
            {"holes": file(eight_gib - 1)},
            sparse("holes", pieces, eight_gib - 1)),
        "a sparse file of 8 GiB in the newer form": imported_with(
            {"holes": file(eight_gib)},
            sparse_by_extension("holes", eight_gib, b"1\n%d\n512\n" % (eight_gib - 512))),
        "a sparse file with a name above": refused(sparse_by_extension("../outside", 512, b"1\n0\n512\n")),
        "a sparse file with a map of nonsense": unreadable(sparse_by_extension("holes", 512, b"many\n")),
        "a sparse file with a map without end": unreadable(sparse_by_extension("holes", 512, b"99999999999\n0\n")),
        "a sparse file with a piece before its start": unreadable(
            sparse_by_extension("holes", 512, b"1\n-512\n512\n")),
        "a sparse file of 8 EiB": refused(
            sparse_by_extension("holes", (1 << 63) - 1, b"1\n%d\n512\n" % ((1 << 63) - 513))),
        "a size beyond the archive": unreadable(entry("x", b"abc", size=1 << 20)),
        "a size of 8 GiB": unreadable(entry("x", b"abc", size=big)),
        "a negative size": unreadable(entry("x", b"abc", size=b"\xff" * 12)),
        "a size that is no number": unreadable(entry("x", b"abc", size=b"nonsense\0\0\0\0")),
        "a size by extension beyond the archive": unreadable(pax(("size", b"99999999999")) + entry("x", b"abc")),
        "a wrong checksum": unreadable(entry("x", b"abc", checksum=1), entry("y", b"abc")),
        "a long name of a terabyte": unreadable(header(b"././@LongLink", (0x80 << 88 | 1 << 40).to_bytes(12, "big"), b"L")),
        "extended facts of a terabyte": unreadable(header(b"pax", (0x80 << 88 | 1 << 40).to_bytes(12, "big"), b"x")),
        "extended facts that are none": unreadable(entry("pax", b"nonsense\n", kind=b"x"), entry("x", b"abc")),
        "extended facts with a length beyond them": unreadable(entry("pax", b"99 path=x\n", kind=b"x"), entry("x", b"abc")),
        "a name above by extension": refused(pax(("path", b"../outside")) + entry("x", b"abc")),
        "an absolute name by extension": imported_with(
            {"etc": folder(), "etc/hostile": file(3)}, pax(("path", b"/etc/hostile")) + entry("x", b"abc")),
        "a name by extension with a zero byte": imported_with(
            {"in": file(3)}, pax(("path", b"in\0../outside")) + entry("x", b"abc")),
        "a link out by extension and a file through it": refused(
            pax(("linkpath", b"/tmp")) + symlink("out", "x"), entry("out/hostile", b"x")),
        "an immutable file by extension": imported_with(
            {"x": file(3)}, pax(("SCHILY.fflags", b"schg,uappnd")) + entry("x", b"abc")),
        "facts that nobody knows": imported_with(
            {"x": file(3)}, pax(("no.such.thing", b"x" * 100_000)) + entry("x", b"abc")),
        "facts about all that follows": refused(pax(("path", b"../outside"), kind=b"g") + entry("x", b"abc")),
        "no magic": imported_with({"x": file(3)}, entry("x", b"abc", magic=b"nonono\0\0")),
        "a time beyond all clocks": imported_with(
            {"x": file(3)}, pax(("mtime", b"9000000000000000000")) + entry("x", b"abc")),
        "no end": Case(usual(), IMPORTED),
        "one block of end": Case(usual() + bytes(512), IMPORTED),
        "a second archive behind the end": Case(with_usual() + with_usual(entry("late", b"x")), IMPORTED),
        "an archive and rubbish": Case(with_usual() + b"rubbish" * 1000, IMPORTED),
        "rubbish between the members": unreadable(b"rubbish!" * 64, entry("late", b"x")),
        "a cut in a header": Case(usual() + header(b"x", 5)[:100], IMPORTED),
        "a cut in a file": Case(usual() + header(b"x", 5000) + b"x" * 512, INVALID_AT_ONCE),
    }  # fmt: skip


def streams() -> dict[str, Case]:
    """Compressed streams that are damaged, joined, or other than they seem."""
    noise = random.Random(1).randbytes(200_000)
    plain = with_usual(entry("noise", noise))
    packed = gzip.compress(plain, mtime=0)
    whole: Extra = {"noise": file(len(noise))}
    wrong_sum = packed[:-8] + bytes([packed[-8] ^ 1]) + packed[-7:]
    wrong_length = packed[:-1] + bytes([packed[-1] ^ 1])
    broken = packed[: len(packed) // 2] + bytes(32) + packed[len(packed) // 2 + 32 :]
    half = len(plain) // 1024 * 512
    joined = gzip.compress(plain[:half], mtime=0) + gzip.compress(plain[half:], mtime=0)
    with_facts = b"\x1f\x8b\x08\x1c" + bytes(6) + b"\x04\0xxxx" + b"../../etc/passwd\0" + b"a comment\0"
    facts = with_facts + zlib.compress(plain)[2:-4] + packed[-8:]
    early_manifest = gzip.compress(plain, 0, mtime=0)
    empty_manifest = gzip.compress(archive(usual("manifest.json"), entry("manifest.json")), mtime=0)
    return {
        "a stream cut in two": Case(packed[: len(packed) // 2], INVALID_AT_ONCE),
        "a signed stream cut in two": Case(early_manifest[: len(packed) // 2], bad_gzip("unexpected end of file"), sign=True),
        "a signed stream without its last byte": Case(packed[:-1], bad_gzip("unexpected end of file"), sign=True),
        "a stream with a wrong sum": Case(wrong_sum, INVALID_AT_ONCE),
        "a signed stream with a wrong sum": Case(wrong_sum, bad_gzip("incorrect data check"), sign=True),
        "a signed stream with a wrong length": Case(wrong_length, bad_gzip("incorrect length check"), sign=True),
        "a signed stream that is broken inside": Case(broken, bad_gzip("incorrect data check"), sign=True),
        "two streams joined": Case(joined, IMPORTED, whole),
        "two signed streams joined": Case(joined, SIGNED, whole, sign=True),
        "an archive behind the archive, compressed": Case(
            packed + gzip.compress(archive(entry("../x", b"x")), mtime=0), IMPORTED, whole),
        "a stream and an empty one": Case(packed + gzip.compress(b"", mtime=0), IMPORTED, whole),
        "a stream and rubbish": Case(packed + b"rubbish", INVALID_AT_ONCE),
        "a signed stream and rubbish": Case(packed + b"rubbish", SIGNED_INVALID, sign=True),
        "a signed stream and rubbish that ends in its size": Case(packed + b"rubbish" + packed[-4:], SIGNED_INVALID, sign=True),
        "a stream that is a plain archive too": Case(archive_and_stream(plain), IMPORTED, whole),
        "a signed stream that is a plain archive too": Case(archive_and_stream(plain), SIGNED, whole, sign=True),
        "a signed stream with an empty manifest": Case(empty_manifest, INVALID_AT_ONCE, sign=True),
        "a signed stream and a byte": Case(packed + b"x", SIGNED_INVALID, sign=True),
        "a signed stream and the start of another": Case(packed + packed[:5], bad_gzip("unexpected end of file"), sign=True),
        "a signed stream and zeros": Case(packed + bytes(512), SIGNED, whole, sign=True),
        "a stream and zeros": Case(packed + bytes(512), IMPORTED, whole),
        "a stream with facts in its header": Case(facts, IMPORTED, whole),
        "a stream in a stream": Case(gzip.compress(packed, mtime=0), INVALID_AT_ONCE),
        "an empty stream": Case(gzip.compress(b"", mtime=0), INVALID_AT_ONCE),
        "only the start of a stream": Case(packed[:20], INVALID_AT_ONCE),
        "a stream of noise": Case(b"\x1f\x8b\x08\0" + noise[:5000], INVALID_AT_ONCE),
        "a zlib stream": Case(zlib.compress(plain), INVALID_AT_ONCE),
        "noise": Case(noise, INVALID_AT_ONCE),
        "zeros": Case(bytes(10240), INVALID_AT_ONCE),
        "a manifest of 1 GiB of zeros": Case(big_manifest(), INVALID_AT_ONCE),
    }  # fmt: skip


def archive_and_stream(plain: bytes) -> bytes:
    """A stream of this archive behind a header field that, with the header, is a plain archive of something else."""
    length = len(archive(header(b"x"), usual(), entry("other", b"other")))
    start = b"\x1f\x8b\x08\x04" + bytes(6) + (length - 12).to_bytes(2, "little")
    return archive(header(start), usual(), entry("other", b"other")) + gzip.compress(plain, mtime=0)[10:]


def zeros(length: int) -> bytes:
    """Gzip streams of zeros, joined, so that no gigabyte is ever in memory; the length is one of whole 16 MiB."""
    return gzip.compress(bytes(16 << 20), mtime=0) * (length >> 24)


def big_manifest() -> bytes:
    size = 1 << 30
    start = gzip.compress(header(b"manifest.json", size), mtime=0)
    return start + zeros(size) + gzip.compress(usual("manifest.json") + END, mtime=0)


def manifests() -> dict[str, Case]:
    """What stands in a manifest."""

    def named(text: bytes) -> bytes:
        setup = support.app_files("HERE")["manifest.json"]
        manifest = json.dumps(setup).encode().replace(b'"HERE"', text)
        return entry("manifest.json", manifest) + usual("manifest.json") + END

    bad_name = (29, "code 29: Character sequence in application name is not allowed\n")
    return {
        "a name above": Case(named(b'"../Other"'), bad_name),
        "a name with a slash": Case(named(b'"App/x"'), bad_name),
        "an absolute name": Case(named(b'"/etc"'), bad_name),
        "a name with a newline": Case(named(b'"App\\n"'), bad_name),
        "a name of 101 letters": Case(named(b'"' + b"A" * 101 + b'"'), bad_name),
        "a name with an accent": Case(named('"Äpp"'.encode()), bad_name),
        "a name with a zero": Case(
            named(b'"App\\u0000x"'), invalid_manifest("\\u0000 is not allowed without JSON_ALLOW_NUL near '\"App\\u0000x\"'")),
        "the lock's name": Case(named(b'"_lock"'), bad_name),
        "a name that is no text": Case(
            named(b"7"), (29, "code 29: Could not read from manifest - value is not string\n")),
        "a manifest without end": Case(
            entry("manifest.json", b"[" * 100_000) + usual("manifest.json") + END,
            invalid_manifest("maximum parsing depth reached near '['")),
        "a manifest of bytes": Case(
            entry("manifest.json", b"\xff\xfe{}") + usual("manifest.json") + END,
            invalid_manifest("unable to decode byte 0xff")),
    }  # fmt: skip


def cases() -> dict[str, Case]:
    """All of them, by name."""
    tables = [names(), deep(), links(), kinds(), duplicates(), sizes(), streams(), manifests()]
    together: dict[str, Case] = {}
    for table in tables:
        assert not together.keys() & table.keys(), together.keys() & table.keys()
        together |= table
    return together
