"""velk-pack from outside: what it does with packages: sign, attach, verify, show and take apart."""

from __future__ import annotations

import hashlib
import io
import json
import os
import pty
import re
import shutil
import struct
import subprocess
import tarfile
from pathlib import Path

import pytest
from packs import (  # noqa: F401  (fixtures for whoever asks for them)
    BINARY,
    HELLO,
    MAGIC,
    Answer,
    Key,
    app,
    here,
    home_of_key,
    key,
    made_package,
    manifest_of,
    names,
    pack,
    package,
    room_for,
    signed,
)

# --- sign and attach ---


def test_a_signed_package_is_the_archive_a_signature_and_the_trailer(package: Path, home_of_key: Key) -> None:
    archive = package.read_bytes()
    answer = pack("sign", package, "--key", "packer@velk.invalid")
    data = package.read_bytes()
    size, version = struct.unpack(">II", data[-16:-8])
    assert answer == Answer(0, f"Signed {package}, {len(data)} bytes, the signature {size} bytes\n", "")
    assert (data[: len(archive)], version, data[-8:]) == (archive, 1, MAGIC)
    assert len(archive) + size + 16 == len(data)
    signature = data[len(archive) : -16]
    (package.parent / "sig").write_bytes(signature)
    (package.parent / "data").write_bytes(archive)
    subprocess.run(["gpgv", "--keyring", str(home_of_key.keyring), "sig", "data"], check=True, capture_output=True)


def test_signing_elsewhere_leaves_the_unsigned_package(package: Path, home_of_key: Key) -> None:
    before = package.read_bytes()
    assert pack("sign", "--output", "signed.vlp", "--key", home_of_key.fingerprint, package).status == 0
    assert package.read_bytes() == before
    assert names(package.parent) == ["App.vlp", "signed.vlp"]


def test_a_key_that_gpg_does_not_have_signs_nothing(package: Path, home_of_key: Key) -> None:
    before = package.read_bytes()
    answer = pack("sign", package, "--key", "nobody@velk.invalid")
    assert (answer.status, answer.stdout) == (2, "")
    assert re.fullmatch(
        r"velk-pack: [^\n]*App.vlp: gpg made no signature with key 'nobody@velk.invalid': [^\n]*No secret key\n",
        answer.stderr,
    )
    assert package.read_bytes() == before
    assert names(package.parent) == ["App.vlp"]


def test_a_signed_package_is_not_signed_again(signed: Path) -> None:
    before = signed.read_bytes()
    for arguments in (["sign", "--key", "x"], ["attach"]):
        more = ["sig"] if arguments == ["attach"] else []
        answer = pack(*arguments, signed, *more)
        assert answer == Answer(14, "", f"velk-pack: {signed}: is signed already\n")
    assert signed.read_bytes() == before


def test_without_gpg_there_is_one_line(package: Path) -> None:
    answer = pack("sign", package, "--key", "x", env={"PATH": "/nowhere"})
    assert (answer.status, answer.stderr.count("\n")) == (10, 1)
    assert answer.stderr.startswith("velk-pack: gpg: cannot be started: ")


def test_a_full_disk_or_a_bad_name_leaves_the_unsigned_package(package: Path, home_of_key: Key) -> None:
    (package.parent / "sig").write_bytes(home_of_key.gpg("--armor", "--detach-sign", data=package.read_bytes()))
    before, size = package.read_bytes(), package.stat().st_size
    rule = "Character sequence in application package file name is not allowed"
    for command in (["sign", "--key", home_of_key.fingerprint], ["attach"]):
        arguments = [*command, package, *(["sig"] if command == ["attach"] else [])]
        for room in (10, size + 10):  # of the archive itself, and of the signature
            answer = pack(*arguments, preexec_fn=room_for(room))
            assert answer == Answer(10, "", f"velk-pack: {package}: cannot be written: File too large\n")
        assert pack(*arguments, "--output", "a b.vlp") == Answer(10, "", f"velk-pack: a b.vlp: {rule}\n")
        assert package.read_bytes() == before
        assert names(package.parent) == ["App.vlp", "sig"]


def test_a_signature_without_an_archive_is_no_package(here: Path, key: Key) -> None:
    (here / "x.vlp").write_bytes(b"x" * 20 + struct.pack(">II", 20, 1) + MAGIC)
    assert pack("split", "x.vlp") == Answer(1, "", "velk-pack: x.vlp: holds no archive\n")
    assert pack("verify", "x.vlp", "--keyring", key.keyring).status == 2
    with (here / "x.vlp").open("wb") as package:
        package.truncate(0x80000000)
        package.seek(0, os.SEEK_END)
        package.write(struct.pack(">II", 0x7FFFFFF1, 1) + MAGIC)
    assert pack("info", "x.vlp") == Answer(2, "", "velk-pack: x.vlp: the signature is too large\n")


@pytest.mark.parametrize("command", ["sign", "attach", "verify", "split", "info"])
def test_what_is_no_package_is_refused_by_every_command(here: Path, key: Key, command: str) -> None:
    (here / "sig").write_bytes(key.gpg("--armor", "--detach-sign", data=b"x"))
    more = {"sign": ["--key", "x"], "attach": ["sig"], "verify": ["--keyring", str(key.keyring)]}.get(command, [])
    environment = {**os.environ, "GNUPGHOME": str(key.home)}
    (here / "small").write_text("x" * 15)
    assert pack(command, "small", *more) == Answer(1, "", "velk-pack: small: is too small for a package\n")
    assert pack(command, "none", *more) == Answer(
        10, "", "velk-pack: none: cannot be read: No such file or directory\n"
    )
    assert pack(command, ".", *more) == Answer(1, "", "velk-pack: .: is no file\n")
    (here / "text").write_text("no archive at all, but long enough\n" + "x" * 600)
    answer = pack(command, "text", *more, env=environment)
    if command == "verify":
        assert answer == Answer(2, "", "velk-pack: text: is not signed\n")
    elif command == "info":
        assert answer.status == 1
        assert answer.stderr.startswith("velk-pack: text: the archive cannot be read: ")
    else:
        assert answer == Answer(1, "", "velk-pack: text: is neither a tar archive nor a gzip file\n")
    assert names(here) == ["sig", "small", "text"]


@pytest.mark.parametrize(
    ("trailer", "message"),
    [
        (struct.pack(">II", 0, 1) + MAGIC, "Invalid package, missing signature"),
        (struct.pack(">II", 5, 2) + MAGIC, "Invalid signature, incorrect package version"),
        (struct.pack(">II", 5000, 1) + MAGIC, "Signature size outside file boundary: 5000B > 100B"),
    ],
)
def test_a_trailer_that_breaks_a_rule_is_refused_in_the_devices_words(
    here: Path, trailer: bytes, message: str
) -> None:
    (here / "bad.vlp").write_bytes(b"x" * 100 + trailer)
    assert pack("info", "bad.vlp") == Answer(2, "", f"velk-pack: bad.vlp: {message}\n")


def test_a_signature_made_elsewhere_is_put_behind_the_archive(package: Path, key: Key) -> None:
    archive = package.read_bytes()
    (package.parent / "sig").write_bytes(key.gpg("--armor", "--detach-sign", data=archive))
    assert pack("attach", package, "sig", "--output", "attached.vlp").status == 0
    assert pack("verify", "attached.vlp", "--keyring", key.keyring).status == 0
    signature = (package.parent / "sig").read_bytes()
    expected = archive + signature + struct.pack(">II", len(signature), 1) + MAGIC
    assert (package.parent / "attached.vlp").read_bytes() == expected


def test_only_an_armoured_signature_is_attached(package: Path) -> None:
    (package.parent / "sig").write_bytes(b"\x88\x75\x04")
    rule = "holds no armoured signature (gpg --armor --detach-sign makes one)"
    assert pack("attach", package, "sig") == Answer(2, "", f"velk-pack: sig: {rule}\n")
    assert pack("attach", package, "none") == Answer(
        10, "", "velk-pack: none: cannot be read: No such file or directory\n"
    )
    assert names(package.parent) == ["App.vlp", "sig"]


# --- verify ---


def test_a_good_signature_names_who_made_it(signed: Path, key: Key) -> None:
    answer = pack("verify", signed, "--keyring", key.keyring)
    user = "Packer <packer@velk.invalid>"
    assert answer == Answer(0, f"Good signature of {signed} by {user}, key {key.fingerprint}\n", "")
    machine = json.loads(pack("verify", "--json", signed, "--keyring", key.keyring).stdout)
    assert (machine["fingerprint"], machine["user"]) == (key.fingerprint, user)
    assert machine["time"] > 1_600_000_000


def test_a_keyring_is_found_by_a_relative_path(signed: Path, key: Key) -> None:
    shutil.copy(key.keyring, "ring")
    assert pack("verify", signed.name, "--keyring", "ring").status == 0


def test_a_changed_package_does_not_verify(signed: Path, key: Key) -> None:
    data = bytearray(signed.read_bytes())
    data[len(data) // 3] ^= 1
    signed.write_bytes(bytes(data))
    answer = pack("verify", signed, "--keyring", key.keyring)
    assert answer.status == 2
    assert answer.stderr.startswith(f"velk-pack: {signed}: the signature does not match: ")
    assert answer.stderr.count("\n") == 1


def test_a_strangers_package_does_not_verify(signed: Path, tmp_path: Path) -> None:
    (tmp_path / "empty").write_bytes(b"")
    answer = pack("verify", signed, "--keyring", tmp_path / "empty")
    assert answer.status == 2
    assert answer.stderr.startswith(f"velk-pack: {signed}: no key of the keyring made the signature: ")
    assert answer.stderr.count("\n") == 1


def test_an_armoured_keyring_is_told_from_a_wrong_key(signed: Path, key: Key) -> None:
    Path("ring").write_bytes(key.gpg("--armor", "--export"))
    rule = "is armoured, and devices read binary keyrings only (gpg --dearmor makes one)"
    assert pack("verify", signed, "--keyring", "ring") == Answer(10, "", f"velk-pack: ring: {rule}\n")
    assert pack("verify", signed, "--keyring", "none") == Answer(
        10, "", "velk-pack: none: cannot be read: No such file or directory\n"
    )


# --- info ---


def test_info_shows_the_manifest_the_signer_and_every_file(signed: Path, key: Key, app: Path) -> None:
    answer = pack("info", signed)
    assert (answer.status, answer.stderr) == (0, "")
    lines = answer.stdout.splitlines()
    assert lines[0] == str(signed)
    assert "  application   App" in lines
    assert "  version       1.2.3" in lines
    assert f"  package       {signed.stat().st_size} bytes" in lines
    assert f"  signer        {key.fingerprint} (not verified)" in lines
    assert "  contents      8 entries, " + str(
        sum(p.stat().st_size for p in app.rglob("*") if p.is_file() and not p.is_symlink())
    ) + " bytes" in lines
    assert [line.split()[0] + " " + line.split()[-1] for line in lines[-8:]] == [
        "-rw-r--r-- manifest.json",
        "-rwxr-xr-x App",
        "-rw-r--r-- LICENSE",
        "drwxr-xr-x html",
        "drwxr-xr-x html/deep",
        "-rw-r--r-- html/index.html",
        "lrwxrwxrwx link",
        "-rw-r--r-- package.conf",
    ]


def test_info_answers_a_machine(signed: Path, key: Key, app: Path) -> None:
    answer = json.loads(pack("info", signed, "--json").stdout)
    assert answer["manifest"] == json.loads((app / "manifest.json").read_text())
    assert answer["signature"]["fingerprint"] == key.fingerprint
    assert answer["signature"]["verified"] is False
    assert answer["compression"] == "gzip"
    assert answer["findings"] == []
    assert answer["files"][1] == {"name": "App", "type": "-", "mode": 0o755, "size": 30}


def test_info_of_an_unsigned_package_says_so(package: Path) -> None:
    assert "  signature     none\n" in pack("info", package).stdout
    assert json.loads(pack("info", package, "--json").stdout)["signature"] is None


def test_info_makes_no_home_for_gpg(signed: Path, tmp_path: Path) -> None:
    environment = {"HOME": str(tmp_path / "home"), "PATH": os.environ["PATH"]}
    (tmp_path / "home").mkdir()
    assert pack("info", signed, env=environment).status == 0
    assert names(tmp_path / "home") == []


def test_info_shows_the_rules_that_a_foreign_manifest_breaks(here: Path) -> None:
    made_package(here / "x.vlp", {"./manifest.json": json.dumps(manifest_of(version="1.2")).encode()})
    answer = pack("info", "x.vlp")
    assert answer.status == 0
    rule = "Version '1.2' does not follow the semantic version format"
    assert f"  BROKEN RULE   velkPackageConf.setup.version: {rule}\n" in answer.stdout


def test_a_package_cannot_steer_the_terminal(here: Path) -> None:
    manifest = json.dumps(manifest_of(friendlyName="\x1b[2J")).encode()
    made_package(here / "x.vlp", {"manifest.json": manifest, "a\x1b]0;title\x07b": b""})
    answer = pack("info", "x.vlp")
    assert answer.status == 0
    assert "\x1b" not in answer.stdout
    assert "a\\x1b]0;title\\x07b" in answer.stdout


def test_info_of_a_plain_package_with_every_kind_of_member(here: Path) -> None:
    manifest = json.dumps(manifest_of(compatibleOsVersions=[{"min": "11.0", "max": "12.0"}])).encode()
    with tarfile.open(here / "x.vlp", "w") as archive:
        for name in ("manifest.json", "./manifest.json"):  # of two the first one counts
            member = tarfile.TarInfo(name)
            member.size = len(manifest if name == "manifest.json" else b"{")
            archive.addfile(member, io.BytesIO(manifest if name == "manifest.json" else b"{"))
        for name, kind in (("hard", tarfile.LNKTYPE), ("pipe", tarfile.FIFOTYPE), ("del\x7f", tarfile.DIRTYPE)):
            member = tarfile.TarInfo(name)
            member.type, member.linkname = kind, "manifest.json"
            archive.addfile(member)
    answer = pack("info", "x.vlp")
    assert answer.status == 0
    assert re.search(r"^  firmware      .*11\.0.*12\.0", answer.stdout, re.MULTILINE)
    assert re.search(r"^  archive       \d+ bytes, plain$", answer.stdout, re.MULTILINE)
    listed = [line.split()[::2] for line in answer.stdout.splitlines() if line.startswith("    ")]
    assert [("-rw-r--r--", "hard"), ("?rw-r--r--", "pipe"), ("drw-r--r--", "del\\x7f")] == [tuple(e) for e in listed[2:]]
    assert json.loads(pack("info", "x.vlp", "--json").stdout)["compression"] == "none"


def test_an_archive_that_is_broken_off_in_the_manifest_is_refused(here: Path) -> None:
    with tarfile.open(here / "x.vlp", "w") as archive:
        member = tarfile.TarInfo("manifest.json")
        member.size = 10_000
        archive.addfile(member, io.BytesIO(b" " * 10_000))
    (here / "x.vlp").write_bytes((here / "x.vlp").read_bytes()[:5_000])
    answer = pack("info", "x.vlp")
    assert answer.status == 1
    assert answer.stderr.startswith("velk-pack: x.vlp: the archive cannot be read: ")


def test_without_gpg_info_knows_no_signer_and_nothing_is_verified(signed: Path, key: Key) -> None:
    nowhere = {**os.environ, "PATH": "/nowhere"}
    answer = pack("info", signed, env=nowhere)
    assert answer.status == 0
    assert "  signer        unknown (not verified)\n" in answer.stdout
    answer = pack("verify", signed, "--keyring", key.keyring, env=nowhere)
    assert (answer.status, answer.stderr.count("\n")) == (10, 1)
    assert answer.stderr.startswith("velk-pack: gpgv: cannot be started: ")


def test_a_package_without_a_manifest_is_refused(here: Path) -> None:
    made_package(here / "x.vlp", {"other": b""})
    assert pack("info", "x.vlp") == Answer(1, "", "velk-pack: x.vlp: holds no manifest.json\n")
    made_package(here / "x.vlp", {"manifest.json": b"{"})
    assert pack("info", "x.vlp") == Answer(
        29, "", "velk-pack: x.vlp: manifest.json: line 1: string or '}' expected near end of file\n"
    )


def test_a_broken_off_archive_is_refused(package: Path) -> None:
    package.write_bytes(package.read_bytes()[:-40])
    answer = pack("info", package)
    assert answer.status == 1
    assert answer.stderr.startswith(f"velk-pack: {package}: the archive cannot be read: ")


# --- split ---


def test_a_package_is_taken_apart_and_put_together_again(signed: Path, key: Key) -> None:
    data = signed.read_bytes()
    assert pack("split", signed) == Answer(0, f"Took {signed} apart, into App.parts\n", "")
    parts = signed.parent / "App.parts"
    assert names(parts) == ["archive.tar.gz", "signature.asc"]
    assert pack("attach", parts / "archive.tar.gz", parts / "signature.asc", "--output", "again.vlp").status == 0
    assert (signed.parent / "again.vlp").read_bytes() == data


def test_an_unsigned_plain_package_has_one_part(here: Path, app: Path) -> None:
    assert pack("build", app, "--plain", "--output", "p.vlp").status == 0
    assert pack("split", "p.vlp", "--output", "out/").status == 0
    assert names(here / "out") == ["archive.tar"]
    assert (here / "out" / "archive.tar").read_bytes() == (here / "p.vlp").read_bytes()


def test_a_folder_that_exists_is_left_alone(signed: Path) -> None:
    Path("App.parts").mkdir()
    assert pack("split", signed) == Answer(14, "", "velk-pack: App.parts: exists already\n")
    assert names(Path("App.parts")) == []
    assert pack("split", signed, "--output", "no/where") == Answer(
        10, "", "velk-pack: no/where: cannot be made: No such file or directory\n"
    )


def test_a_full_disk_leaves_no_part_and_no_new_application(signed: Path) -> None:
    answer = pack("split", signed, preexec_fn=room_for(10))
    assert answer.status == 10
    assert re.fullmatch(r"velk-pack: App\.parts\.\w+/archive\.tar\.gz: cannot be written: File too large\n", answer.stderr)
    assert pack("new", "x", preexec_fn=room_for(10)).status == 10
    assert names(signed.parent) == ["App.vlp"]


# --- speed's two promises ---


def on_terminal(*arguments: str) -> str:
    """What the command writes to a terminal that is its standard error."""
    reading, writing = pty.openpty()
    process = subprocess.Popen([BINARY, *arguments], stdout=subprocess.DEVNULL, stderr=writing)
    os.close(writing)
    text = b""
    while True:
        try:
            block = os.read(reading, 4096)
        except OSError:
            break
        if not block:
            break
        text += block
    os.close(reading)
    assert process.wait() == 0
    return text.decode()


def test_a_bar_is_drawn_on_a_terminal_and_nowhere_else(here: Path, app: Path) -> None:
    (app / "noise").write_bytes(os.urandom(3_000_000))
    shown = on_terminal("build", str(app))
    assert re.search(r"\rpacking \[#+\.+\]  \d\d%", shown)
    assert shown.endswith("100%\r\x1b[K")
    assert pack("build", app).stderr == ""
    assert on_terminal("build", str(app), "--json") == ""


def test_info_and_verify_read_no_byte_twice(here: Path, app: Path, home_of_key: Key, tmp_path: Path) -> None:
    if not shutil.which("strace"):
        pytest.skip("needs strace")
    (app / "noise").write_bytes(os.urandom(5_000_000))
    assert pack("build", app).status == 0
    assert pack("sign", "App.vlp", "--key", home_of_key.fingerprint).status == 0
    size = (here / "App.vlp").stat().st_size
    for arguments in (["info"], ["verify", "--keyring", str(home_of_key.keyring)]):
        traces = tmp_path / arguments[0]
        traces.mkdir()
        # One file for each process, gpg's and gpgv's too.
        command = ["strace", "-ff", "-y", "-e", "trace=read,pread64,readv,preadv,mmap", "-o", f"{traces}/trace"]
        # A sanitizer's search for leaks traces the process itself.
        environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}
        subprocess.run([*command, BINARY, *arguments, "App.vlp"], env=environment, check=True, capture_output=True)
        whole = "\n".join(trace.read_text() for trace in traces.iterdir())
        lines = [line for line in whole.splitlines() if "App.vlp>" in line]
        read = sum(int(line.rsplit("= ", 1)[1].split()[0]) for line in lines)
        assert not any("mmap" in line for line in lines)
        assert read == size, arguments


def test_a_package_of_the_example_has_a_known_sum(here: Path) -> None:
    """Plain, because what gzip makes of it is the compressor's business."""
    assert pack("build", HELLO, "--plain").status == 0
    with tarfile.open(here / "hello.vlp") as archive:
        sums = {m.name: hashlib.sha256(archive.extractfile(m).read()).hexdigest() for m in archive if m.isfile()}  # type: ignore[union-attr]
    on_disk = {
        str(path.relative_to(HELLO)): hashlib.sha256(path.read_bytes()).hexdigest()
        for path in HELLO.rglob("*")
        if path.is_file()
    }
    assert sums == on_disk
