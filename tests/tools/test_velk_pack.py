"""velk-pack from outside: every command, every message and exit status, and what is left behind."""

from __future__ import annotations

import gzip
import hashlib
import io
import json
import os
import pty
import re
import resource
import shutil
import signal
import struct
import subprocess
import tarfile
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
BINARY = os.environ.get("VELK_PACK_BINARY") or str(CHECKOUT / "build" / "debug" / "src" / "velk-pack")
MAGIC = bytes.fromhex("658D14AB4207AAC6")
HELLO = CHECKOUT / "examples" / "hello"


@dataclass(frozen=True)
class Answer:
    status: int
    stdout: str
    stderr: str


def pack(*arguments: str | Path, **options: Any) -> Answer:
    result = subprocess.run(
        [BINARY, *map(str, arguments)], capture_output=True, check=False, timeout=120, **options
    )
    return Answer(
        result.returncode,
        result.stdout.decode("utf-8", "surrogateescape"),
        result.stderr.decode("utf-8", "surrogateescape"),
    )


def names(folder: Path) -> list[str]:
    return sorted(path.name for path in folder.iterdir())


def manifest_of(name: str = "App", **setup: Any) -> dict[str, Any]:
    return {"velkPackageConf": {"setup": {"appName": name, "version": "1.2.3", "runMode": "never", **setup}}}


@pytest.fixture
def here(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """An empty folder that is the working directory."""
    folder = tmp_path / "here"
    folder.mkdir()
    monkeypatch.chdir(folder)
    return folder


@pytest.fixture
def app(tmp_path: Path) -> Path:
    """The folder of a small application in which nothing is wrong."""
    folder = tmp_path / "tree" / "App"
    (folder / "html" / "deep").mkdir(parents=True)
    (folder / "manifest.json").write_text(json.dumps(manifest_of()))
    (folder / "LICENSE").write_text("free\n")
    (folder / "package.conf").write_text('APPNAME="App"\n')
    (folder / "App").write_text("#!/bin/sh\nexec sleep infinity\n")
    (folder / "App").chmod(0o755)
    (folder / "html" / "index.html").write_text("<p>\n")
    (folder / "link").symlink_to("html/index.html")
    return folder


@dataclass(frozen=True)
class Key:
    home: Path
    fingerprint: str
    keyring: Path

    def gpg(self, *arguments: str, data: bytes | None = None) -> bytes:
        command = ["gpg", "--homedir", str(self.home), "--batch", "--quiet", *arguments]
        return subprocess.run(command, input=data, capture_output=True, check=True).stdout


@pytest.fixture(scope="session")
def key(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Key]:
    """A key of our own, its agent ended afterwards; a socket's path must be short."""
    home = Path(subprocess.check_output(["mktemp", "-d"], text=True).strip())
    made = Key(home, "", home / "public.gpg")
    passphrase = ["--pinentry-mode", "loopback", "--passphrase", ""]
    made.gpg(*passphrase, "--quick-generate-key", "Packer <packer@velk.invalid>", "ed25519", "sign", "never")
    listing = made.gpg("--with-colons", "--list-keys").decode()
    made.keyring.write_bytes(made.gpg("--export"))
    fingerprint = re.search(r"^fpr:+([0-9A-F]{40}):", listing, re.MULTILINE)
    assert fingerprint
    yield Key(home, fingerprint[1], made.keyring)
    subprocess.run(["gpgconf", "--homedir", str(home), "--kill", "all"], check=False)
    shutil.rmtree(home, ignore_errors=True)


@pytest.fixture
def home_of_key(key: Key, monkeypatch: pytest.MonkeyPatch) -> Key:
    monkeypatch.setenv("GNUPGHOME", str(key.home))
    return key


@pytest.fixture
def package(here: Path, app: Path) -> Path:
    """An unsigned package in the working directory."""
    assert pack("build", app).status == 0
    return here / "App.vlp"


@pytest.fixture
def signed(package: Path, home_of_key: Key) -> Path:
    answer = pack("sign", package, "--key", home_of_key.fingerprint)
    assert answer.status == 0, answer.stderr
    return package


# --- build ---


def test_a_folder_becomes_a_package_named_for_its_application(here: Path, app: Path) -> None:
    answer = pack("build", app)
    size = (here / "App.vlp").stat().st_size
    content = sum(path.stat().st_size for path in app.rglob("*") if path.is_file() and not path.is_symlink())
    assert answer == Answer(0, f"Packed 8 entries, {content} bytes, into App.vlp, {size} bytes\n", "")
    assert names(here) == ["App.vlp"]
    assert (here / "App.vlp").stat().st_mode & 0o777 == 0o644


def test_the_archive_holds_the_folder_with_the_manifest_first_and_root_as_owner(package: Path) -> None:
    with tarfile.open(package, "r:gz") as archive:
        members = archive.getmembers()
    assert [(m.name, m.type, oct(m.mode), m.linkname) for m in members] == [
        ("manifest.json", tarfile.REGTYPE, "0o644", ""),
        ("App", tarfile.REGTYPE, "0o755", ""),
        ("LICENSE", tarfile.REGTYPE, "0o644", ""),
        ("html", tarfile.DIRTYPE, "0o755", ""),
        ("html/deep", tarfile.DIRTYPE, "0o755", ""),
        ("html/index.html", tarfile.REGTYPE, "0o644", ""),
        ("link", tarfile.SYMTYPE, "0o777", "html/index.html"),
        ("package.conf", tarfile.REGTYPE, "0o644", ""),
    ]
    assert {(m.uid, m.gid, m.uname, m.gname, m.mtime) for m in members} == {(0, 0, "root", "root", 0)}


def test_what_is_unpacked_is_what_was_packed(package: Path, app: Path, tmp_path: Path) -> None:
    subprocess.run(["tar", "-xf", package, "-C", tmp_path], check=True)
    for path in app.rglob("*"):
        unpacked = tmp_path / path.relative_to(app)
        if path.is_file():
            assert unpacked.read_bytes() == path.read_bytes()
        assert os.path.lexists(unpacked)


def test_the_same_content_gives_the_same_bytes(here: Path, app: Path, tmp_path: Path) -> None:
    assert pack("build", app, "--output", "one.vlp").status == 0
    copy = tmp_path / "copy"
    # Another order of making, other times, another owner's mask.
    for path in sorted(app.rglob("*"), reverse=True):
        target = copy / path.relative_to(app)
        if path.is_dir() and not path.is_symlink():
            target.mkdir(parents=True, exist_ok=True)
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        if path.is_symlink():
            target.symlink_to(os.readlink(path))
            continue
        target.write_bytes(path.read_bytes())
        target.chmod(0o700 if path.stat().st_mode & 0o100 else 0o600)
        os.utime(target, (1, 1))
    assert pack("build", copy, "--output", "two.vlp").status == 0
    assert (here / "one.vlp").read_bytes() == (here / "two.vlp").read_bytes()


def test_a_plain_archive_when_asked_for(here: Path, app: Path) -> None:
    assert pack("build", "--plain", app).status == 0
    with tarfile.open(here / "App.vlp", "r:") as archive:
        assert archive.getnames()[0] == "manifest.json"


def test_names_longer_than_a_header_and_of_any_bytes_survive(here: Path, app: Path) -> None:
    deep = app / "/".join(["d" * 90] * 4)
    deep.mkdir(parents=True)
    (deep / ("f" * 200)).write_text("far down")
    (app / os.fsdecode(b"b\xff\xfe and blanks")).write_text("odd")
    assert pack("build", app).status == 0
    listing = subprocess.run(["tar", "-tf", "App.vlp", "--quoting-style=literal"], capture_output=True, check=True)
    listed = listing.stdout.splitlines()
    assert os.fsencode(str((deep / ("f" * 200)).relative_to(app))) in listed
    assert b"b\xff\xfe and blanks" in listed


def test_every_finding_is_listed_at_once_with_its_key(here: Path, app: Path) -> None:
    broken = manifest_of("1bad", appId="x", compatibleOsVersions=[{"min": "2", "max": "1"}])
    del broken["velkPackageConf"]["setup"]["runMode"]
    broken["velkPackageConf"]["installation"] = {"postInstallScript": "setup.sh"}
    broken["velkPackageConf"]["configuration"] = {
        "settingPage": "../x",
        "httpConfig": [{"type": "odd", "access": "all", "name": "/x"}],
    }
    broken["resources"] = {"linux": {"user": {"groups": 5}}}
    (app / "manifest.json").write_text(json.dumps(broken))
    (app / "LICENSE").unlink()
    (app / "package.conf").unlink()
    os.mkfifo(app / "pipe")
    answer = pack("build", app)
    at = f"velk-pack: {app}/manifest.json: "
    conf = "velkPackageConf."
    assert answer.stderr.splitlines() == [
        f"{at}{conf}setup.appName: Character sequence in application name is not allowed",
        f"{at}{conf}setup.runMode: Could not read runMode from manifest",
        f"{at}{conf}setup.compatibleOsVersions[0]: Invalid compatibleOsVersions range: min 2 > max 1",
        f"{at}{conf}setup.appId: Failed to convert the string to an integer for 'appId'",
        f"{at}{conf}configuration.httpConfig[0].type: Invalid CGI type in manifest",
        f"{at}{conf}configuration.httpConfig[0].access: Invalid access level in manifest",
        f"{at}{conf}configuration.httpConfig[0].name: Field 'httpConfig.name' in manifest contains a path traversal",
        f"{at}resources.linux.user.groups: groups in manifest is not an array",
        f"{at}{conf}configuration.settingPage: Field 'settingPage' in manifest contains a path traversal",
        f"{at}{conf}installation.postInstallScript: names 'setup.sh', which is no file in the folder",
        f"velk-pack: {app}/package.conf: is missing",
        f"velk-pack: {app}/LICENSE: is missing",
        f"velk-pack: {app}/pipe: is neither a file nor a folder nor a link",
    ]
    assert (answer.status, answer.stdout, names(here)) == (29, "", [])
    machine = json.loads(pack("build", app, "--json").stdout)["error"]
    assert (machine["code"], machine["message"], len(machine["findings"])) == (29, "13 findings", 13)
    assert machine["findings"][1] == {
        "file": f"{app}/manifest.json",
        "key": "velkPackageConf.setup.runMode",
        "message": "Could not read runMode from manifest",
    }


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("{", "line 1, column 1: string or '}' expected near end of file"),
        ('{"a": 1,\n "b" 2}', "line 2, column 6: ':' expected near '2'"),
        ("[]", "velkPackageConf: Could not read velkPackageConf from manifest"),
    ],
)
def test_a_manifest_that_cannot_be_read_is_named_with_the_place(here: Path, app: Path, text: str, message: str) -> None:
    (app / "manifest.json").write_text(text)
    assert pack("build", app) == Answer(29, "", f"velk-pack: {app}/manifest.json: {message}\n")
    assert names(here) == []


def test_a_manifest_must_be_a_file(here: Path, app: Path) -> None:
    (app / "manifest.json").rename(app / "other")
    assert pack("build", app) == Answer(29, "", f"velk-pack: {app}/manifest.json: is missing\n")
    (app / "manifest.json").symlink_to("other")
    assert pack("build", app) == Answer(29, "", f"velk-pack: {app}/manifest.json: is no regular file\n")


def test_what_the_manifest_promises_about_files_is_checked(here: Path, app: Path) -> None:
    (app / "App").chmod(0o644)
    (app / "html" / "a\nb").write_text("")
    answer = pack("build", app)
    assert answer == Answer(
        1,
        "",
        f"velk-pack: {app}/App: is the application's program and is not executable\n"
        f"velk-pack: {app}/html: holds a file whose name contains a newline\n",
    )


def test_what_no_device_gives_is_refused(here: Path, app: Path) -> None:
    asking = manifest_of(user={"username": "root", "group": "wheel"})
    asking["velkPackageConf"]["configuration"] = {
        "paramConfig": [{"name": "a b"}],
        "squashfsMounts": [{"path": "image.squashfs", "mountpoint": "image"}, {}],
    }
    asking["resources"] = {
        "dbus": {"requiredMethods": ["*"]},
        "linux": {"user": {"groups": ["video", "shadow"]}},
    }
    (app / "manifest.json").write_text(json.dumps(asking))
    answer = pack("build", app)
    at = f"velk-pack: {app}/manifest.json: "
    images = f"{at}velkPackageConf.configuration.squashfsMounts: names"
    lines = answer.stderr.splitlines()
    assert lines[-6:] == [
        f'{at}resources.dbus: Manifest contains the disallowed dbus method "*"',
        f"{at}resources.linux.user.groups: 'shadow' is not in Allowlist",
        f"{at}velkPackageConf.setup.user.username: 'root' is not in Allowlist",
        f"{at}velkPackageConf.setup.user.group: 'wheel' is not in Allowlist",
        f"{images} 'image.squashfs', which is no file in the folder",
        f"{images} '', which is no file in the folder",
    ]
    assert [line for line in lines if "paramConfig: " in line], lines
    assert (answer.stdout, names(here)) == ("", [])


@pytest.mark.parametrize(
    ("script", "is_there"), [("sub/x.sh", True), ("./sub/../sub//x.sh", True), ("../sub/x.sh", False), ("sub", False)]
)
def test_a_script_is_looked_for_as_a_device_does(here: Path, app: Path, script: str, is_there: bool) -> None:
    (app / "sub").mkdir()
    (app / "sub" / "x.sh").write_text("#!/bin/sh\n")
    manifest = manifest_of()
    manifest["velkPackageConf"]["uninstallation"] = {"preUninstallScript": script}
    (app / "manifest.json").write_text(json.dumps(manifest))
    answer = pack("build", app)
    line = f"velkPackageConf.uninstallation.preUninstallScript: names '{script}', which is no file in the folder"
    expected = "" if is_there else f"velk-pack: {app}/manifest.json: {line}\n"
    assert (answer.status, answer.stderr) == (0 if is_there else 1, expected)


def test_a_folder_that_is_none_is_refused(here: Path, app: Path) -> None:
    assert pack("build", "nowhere") == Answer(10, "", "velk-pack: nowhere: is no folder\n")
    assert pack("build", app / "App") == Answer(10, "", f"velk-pack: {app}/App: is no folder\n")


def test_an_output_that_cannot_be_is_refused_and_leaves_nothing(here: Path, app: Path) -> None:
    rule = "Character sequence in application package file name is not allowed"
    assert pack("build", app, "--output", "a b.vlp") == Answer(10, "", f"velk-pack: a b.vlp: {rule}\n")
    inside = app / "x.vlp"
    assert pack("build", app, "--output", inside) == Answer(
        10, "", f"velk-pack: {inside}: lies in the folder that is to be packed\n"
    )
    assert pack("build", app, "--output", "no/x.vlp") == Answer(
        10, "", "velk-pack: no/x.vlp: the folder for it does not exist\n"
    )
    (here / "x.vlp").mkdir()
    assert pack("build", app, "--output", "x.vlp") == Answer(
        10, "", "velk-pack: x.vlp: cannot be written: Is a directory\n"
    )
    assert names(here) == ["x.vlp"]
    assert not inside.exists()


def room_for(size: int) -> Callable[[], None]:
    """What makes a process find the disk full behind so many bytes of a file."""

    def limit() -> None:
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    return limit


def test_a_full_disk_leaves_the_package_that_was_there(here: Path, app: Path) -> None:
    (app / "noise").write_bytes(os.urandom(200_000))
    (here / "App.vlp").write_text("the one before")

    answer = pack("build", app, preexec_fn=room_for(100_000))
    assert answer == Answer(10, "", "velk-pack: App.vlp: cannot be written: File too large\n")
    assert names(here) == ["App.vlp"]
    assert (here / "App.vlp").read_text() == "the one before"


def test_a_file_that_cannot_be_read_is_named_and_nothing_is_left(here: Path, app: Path) -> None:
    if os.geteuid() != 0:
        pytest.skip("needs root, to be somebody else for a moment")
    (app / "secret").write_text("x")
    (app / "secret").chmod(0)
    for folder in (here, *here.parents, *app.parents):
        if folder.is_relative_to("/tmp") and folder != Path("/tmp"):
            folder.chmod(0o755)
    here.chmod(0o777)
    within_reach = shutil.copy(BINARY, here.parent / "velk-pack")  # the checkout may be in root's home
    somebody_else: dict[str, Any] = {"user": 65534, "group": 65534, "extra_groups": []}
    not_counted = {**os.environ, "LLVM_PROFILE_FILE": "/dev/null"}  # nor could it be
    answer = pack("build", app, executable=within_reach, env=not_counted, **somebody_else)
    assert answer.status == 10
    assert answer.stderr.endswith("/App/secret: cannot be read: Permission denied\n")
    assert names(here) == []


def test_a_file_that_changes_while_it_is_packed_is_named_and_nothing_is_left(here: Path, app: Path) -> None:
    """A file of the kernel's own is shorter than it says."""
    shorter = "/sys/kernel/mm/transparent_hugepage/enabled"
    if os.geteuid() != 0 or not Path(shorter).exists():
        pytest.skip("needs root and the kernel's files, for one to be mounted over another")
    (app / "data").write_text("")
    script = 'mount --bind "$2" "$3/data" && exec "$1" build "$3"'
    command = ["unshare", "--mount", "sh", "-c", script, "sh", BINARY, shorter, str(app)]
    answer = subprocess.run(command, capture_output=True, check=False, text=True)
    assert (answer.returncode, answer.stdout) == (10, "")
    assert answer.stderr == f"velk-pack: {app}/data: changed while it was packed\n"
    assert names(here) == []


def test_the_folder_above_and_the_root_are_places_for_a_package(here: Path, app: Path) -> None:
    assert pack("build", f"{app}/", "--output", "../above.vlp").status == 0
    assert (here.parent / "above.vlp").exists()
    inside = Answer(10, "", "velk-pack: /x y.vlp: Character sequence in application package file name is not allowed\n")
    assert pack("build", app, "--output", "/x y.vlp") == inside


def test_building_answers_a_machine(here: Path, app: Path) -> None:
    answer = json.loads(pack("build", app, "--json").stdout)
    assert answer["package"] == "App.vlp"
    assert answer["entries"] == 8
    assert answer["size"] == (here / "App.vlp").stat().st_size


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
    none = Answer(1, "", "velk-pack: x.vlp: holds no archive\n")
    assert pack("split", "x.vlp") == pack("verify", "x.vlp", "--keyring", key.keyring) == none
    with (here / "x.vlp").open("wb") as package:
        package.truncate(0x80000000)
        package.seek(0, os.SEEK_END)
        package.write(struct.pack(">II", 0x7FFFFFF1, 1) + MAGIC)
    assert pack("info", "x.vlp") == Answer(2, "", "velk-pack: x.vlp: the signature is too large\n")


@pytest.mark.parametrize("command", ["sign", "attach", "verify", "split", "info"])
def test_what_is_no_package_is_refused_by_every_command(here: Path, key: Key, command: str) -> None:
    (here / "sig").write_text("-----BEGIN PGP SIGNATURE-----\n")
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


def made_package(path: Path, members: dict[str, bytes]) -> Path:
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w") as archive:
        for name, data in members.items():
            member = tarfile.TarInfo(name)
            member.size = len(data)
            archive.addfile(member, io.BytesIO(data))
    path.write_bytes(gzip.compress(buffer.getvalue()))
    return path


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
    assert "a?]0;title?b" in answer.stdout


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
    assert [("-rw-r--r--", "hard"), ("?rw-r--r--", "pipe"), ("drw-r--r--", "del?")] == [tuple(e) for e in listed[2:]]
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


# --- new ---


@pytest.mark.parametrize("language", ["shell", "c"])
def test_a_new_application_is_packed_without_a_finding(here: Path, language: str) -> None:
    assert pack("new", "MyApp", "--language", language).status == 0
    folder = here / "MyApp"
    if language == "c":
        subprocess.run(["make", "-C", str(folder)], check=True, capture_output=True)
        folder = folder / "app"
    answer = pack("build", folder)
    assert (answer.status, answer.stderr) == (0, "")
    info = json.loads(pack("info", "MyApp.vlp", "--json").stdout)
    assert info["manifest"]["velkPackageConf"]["setup"]["appName"] == "MyApp"
    assert {"LICENSE", "MyApp", "manifest.json", "package.conf", "html/index.html"} <= {file["name"] for file in info["files"]}
    assert b"@" not in b"".join(p.read_bytes() for p in (here / "MyApp").rglob("*.html"))


def test_a_new_application_needs_a_name_and_a_free_place(here: Path) -> None:
    rule = "Character sequence in application name is not allowed"
    assert pack("new", "1x") == Answer(10, "", f"velk-pack: 1x: {rule}\n")
    assert pack("new", "x", "--language", "cobol") == Answer(
        10, "", "velk-pack: cobol: there is no template in this language\n"
    )
    (here / "x").write_text("")
    assert pack("new", "x") == Answer(14, "", "velk-pack: x: exists already\n")
    assert names(here) == ["x"]


# --- the front end ---


def test_help_goes_to_standard_output(here: Path) -> None:
    main = pack()
    assert main.status == 0
    assert pack("help") == pack("--help") == pack("-h") == main
    for command in ("attach", "build", "info", "new", "sign", "split", "verify"):
        assert f"\n{command:<20}" in main.stdout
        answer = pack(command, "--help")
        assert (answer.status, answer.stderr) == (0, "")
        assert answer.stdout.startswith(f"\nUsage: velk-pack {command} ")
    assert re.fullmatch(r"\d+\.\d+\.\d+\n", pack("--version").stdout)
    assert pack("-v") == pack("--version")


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        (["bild"], "there is no command 'bild'; see 'velk-pack help'"),
        (["build"], "build: Missing positional argument; see 'velk-pack build --help'"),
        (["build", "a", "b"], "build: Too many arguments; see 'velk-pack build --help'"),
        (["build", "--key", "x", "a"], "build: Unknown option; see 'velk-pack build --help'"),
        (["build", "--bogus", "a"], "build: Unknown option; see 'velk-pack build --help'"),
        (["build", "a", "--output"], "build: Missing value of an option; see 'velk-pack build --help'"),
        (["sign", "a"], "sign: Missing option --key; see 'velk-pack sign --help'"),
        (["verify", "a"], "verify: Missing option --keyring; see 'velk-pack verify --help'"),
        (["attach", "a"], "attach: Missing positional argument; see 'velk-pack attach --help'"),
    ],
)
def test_wrong_use_is_one_line_and_status_10(here: Path, arguments: list[str], message: str) -> None:
    assert pack(*arguments) == Answer(10, "", f"velk-pack: {message}\n")


def test_an_error_is_one_json_value_for_a_machine(here: Path) -> None:
    answer = pack("info", "none", "--json")
    assert (answer.status, answer.stderr) == (10, "")
    assert json.loads(answer.stdout) == {
        "error": {"code": 10, "message": "none: cannot be read: No such file or directory", "findings": []}
    }


def test_the_rule_is_shown_however_long_the_files_name_is(here: Path) -> None:
    name = "/".join(["x" * 100] * 30)
    answer = pack("info", name)
    assert answer.stderr.endswith(": cannot be read: No such file or directory\n")


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


# --- what large and what killed things leave ---


def test_what_is_killed_leaves_nothing(here: Path, app: Path) -> None:
    (app / "noise").write_bytes(os.urandom(8_000_000) * 10)
    (here / "App.vlp").write_text("the one before")
    process = subprocess.Popen([BINARY, "build", app], stdout=subprocess.DEVNULL)
    written = 0
    while written < 1_000_000 and process.poll() is None:
        io = Path(f"/proc/{process.pid}/io").read_text(encoding="ascii")
        written = int(dict(line.split(": ") for line in io.splitlines())["wchar"])
    process.kill()
    assert process.wait(60) == -signal.SIGKILL
    assert names(here) == ["App.vlp"]
    assert (here / "App.vlp").read_text() == "the one before"


def test_a_package_too_large_for_a_device_is_not_signed(here: Path) -> None:
    with open("large.vlp", "wb") as file:
        file.write(b"\x1f\x8b")
        file.truncate(1 << 31)  # sparse
    rule = "is 2 GiB or larger, which no device verifies"
    assert pack("sign", "large.vlp", "--key", "x") == Answer(1, "", f"velk-pack: large.vlp: {rule}\n")
    assert names(here) == ["large.vlp"]


def test_a_manifest_of_any_size_cannot_fill_the_memory(here: Path) -> None:
    made_package(here / "x.vlp", {"manifest.json": b" " * (17 << 20)})
    assert pack("info", "x.vlp") == Answer(1, "", "velk-pack: x.vlp: manifest.json: is larger than 16 MiB\n")
