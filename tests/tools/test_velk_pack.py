"""velk-pack from outside: packing a folder, starting a new one, the front end; every message and what is left behind."""

from __future__ import annotations

import io
import json
import os
import re
import shutil
import signal
import subprocess
import tarfile
from pathlib import Path
from typing import Any

import pytest
from packs import (  # noqa: F401  (fixtures for whoever asks for them)
    BINARY,
    Answer,
    app,
    here,
    made_package,
    manifest_of,
    names,
    pack,
    package,
    room_for,
)

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
    assert pack("info", "x.vlp") == Answer(1, "", "velk-pack: x.vlp: manifest.json: is larger than 1 MiB\n")
