"""Import: the layout of each location, everything that is refused, and what stays afterwards."""

from __future__ import annotations

import base64
import gzip
import json
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
import store_support as support
from store_support import STATES, STORE, Import
from velkdevice import package
from velkdevice.device import Device

PATH = "/tmp/packages/App.vlp"
SUCCESS = (0, "Successfully imported application 'App'\n")
UNSIGNED = "Unsigned package, skipping signature verification\n"
INVALID = (1, "code 1: Invalid application package\n")
USAGE = """
Usage: velkctl import [OPTIONS] PATH

Imports an VELK application to the content store

Options:
-h, --help         Print this help and exit

Positional arguments:
PATH               Path to the VELK application package
LOCATION           Optional installation location
                     Valid values: internal, sd_card1
                     Default value: internal
"""
pytestmark = pytest.mark.usefixtures("leaves_nothing", "leaves_the_device_as_it_was")
# The unpacked files as every location but the layer one holds them, below any path.
CONTENT = [
    "/App f 755 nobody:nogroup",
    "/LICENSE f 644 nobody:nogroup",
    "/manifest.json f 444 root:root i",
    "/package.conf f 444 root:root i",
]


def holding(path: str, top: str) -> list[str]:
    return [f"{path} {top}", *(path + line for line in CONTENT)]


# --- the command line ---


@pytest.mark.parametrize(
    ("arguments", "status", "log"),
    [
        (["-h"], 0, ""),
        (["--help", "x"], 0, ""),
        ([], 10, "code 10: Missing positional argument\n"),
        (["a", "internal", "c"], 10, "code 10: Too many arguments\n"),
    ],
)
def test_usage(device: Device, arguments: list[str], status: int, log: str) -> None:
    result = device.velkctl("import", *arguments)
    assert (result.status, result.stdout, result.stderr) == (status, USAGE, log)


def test_an_unknown_location_is_refused(run_import: Import) -> None:
    assert run_import(support.simple_package(), "SD_CARD1") == (
        33,
        "code 33: 'SD_CARD1' is not a valid installation location\n",
    )


# --- the layouts ---


@pytest.mark.parametrize("compress", [True, False])
def test_into_the_internal_location(device: Device, run_import: Import, compress: bool) -> None:
    assert run_import(support.simple_package(compress=compress), "internal") == SUCCESS
    assert support.tree(device, f"{STORE}/App") == holding(f"{STORE}/App", "d 755 nobody:root")
    assert (support.store_entries(device), support.temporaries(device)) == (["App", "_lock"], [])


def test_the_verification_is_recorded_with_the_signature(device: Device, run_import: Import) -> None:
    data = support.archive(support.base_members())
    signature = package.Key.trusted().sign(data)
    assert run_import(package.append_signature(data, signature)) == SUCCESS
    text = device.read(f"{STATES}/App")
    assert text == json.dumps({"signature": signature.decode(), "state": "confirmed"}, indent=2)
    assert support.tree(device, f"{STATES}/App") == [f"{STATES}/App f 644 root:root"]


def test_members_with_a_dot_in_front_are_found(device: Device, run_import: Import) -> None:
    members = support.base_members()
    for info, _ in members:
        info.name = "./" + info.name
    assert run_import(support.signed(gzip.compress(support.archive(members)))) == SUCCESS
    assert support.tree(device, f"{STORE}/App") == holding(f"{STORE}/App", "d 755 nobody:root")


def test_onto_the_first_card(device: Device, run_import: Import, card: Callable[..., None]) -> None:
    card()
    assert run_import(support.simple_package(), "sd_card1") == SUCCESS
    path = f"{support.CARD}/App"
    assert support.tree(device, path) == [
        f"{path} d 754 root:root",
        *holding(f"{path}/lower", "d 755 nobody:root"),
        f"{path}/upper d 755 root:root",
        f"{path}/work d 755 root:root",
    ]
    assert support.tree(device, f"{STORE}/App") == [f"{STORE}/App l 777 root:root{path}/lower"]
    assert not device.exists(path + ".tmp")


def test_onto_the_first_card_over_what_an_interrupted_import_left(
    device: Device, run_import: Import, card: Callable[..., None]
) -> None:
    card()
    script = """
        mkdir -p $1/App/lower $1/App.tmp
        touch $1/App/lower/x $1/App.tmp/y
        chattr +i $1/App/lower/x $1/App.tmp/y
    """
    device.sh(script, support.CARD).check()
    assert run_import(support.simple_package(), "sd_card1") == SUCCESS
    assert [line.split()[0] for line in support.tree(device, support.CARD)] == [
        support.CARD,
        f"{support.CARD}/App",
        *(
            f"{support.CARD}/App/lower{name}"
            for name in ("", "/App", "/LICENSE", "/manifest.json", "/package.conf")
        ),
        f"{support.CARD}/App/upper",
        f"{support.CARD}/App/work",
    ]


def test_onto_the_second_card(device: Device, run_import: Import, card: Callable[..., None]) -> None:
    """Laid out like the internal location, on any file system; the link points to "lower" all the same."""
    card("SD_DISK2")
    assert run_import(support.simple_package(), "sd_card2") == SUCCESS
    path = f"{support.CARD2}/App"
    assert support.tree(device, path) == holding(path, "d 755 nobody:root")
    assert support.tree(device, f"{STORE}/App") == [f"{STORE}/App l 777 root:root{path}/lower"]


def test_without_a_first_card(device: Device, run_import: Import) -> None:
    message = "Cannot store data on the SD card, no storage exists at /var/spool/storage/SD_DISK\n"
    assert run_import(support.simple_package(), "sd_card1") == (
        10,
        "code 10: src/store/store-layout.cpp:N: " + message,
    )
    support.is_nowhere(device)


@pytest.mark.parametrize("file_system", ["vfat", "ext3"])
def test_a_first_card_without_unix_permissions(
    device: Device, run_import: Import, card: Callable[..., None], file_system: str
) -> None:
    if file_system not in Path("/proc/filesystems").read_text(encoding="ascii").split():
        pytest.skip(f"this machine's kernel has no {file_system}")
    card(file_system=file_system)
    message = (
        f"sd_card1 uses file system {file_system} which does not support Unix file permissions. "
        "Please reformat to a file system that supports Unix file permissions, such as ext4.\n"
    )
    assert run_import(support.simple_package(), "sd_card1") == (
        10,
        "code 10: src/store/store-layout.cpp:N: " + message,
    )
    support.is_nowhere(device)


@pytest.mark.usefixtures("unsigned_allowed")
@pytest.mark.parametrize("sign", [True, False])
def test_as_a_layer_file(device: Device, run_import: Import, sign: bool) -> None:
    data = gzip.compress(support.archive(support.base_members()), mtime=0)
    log = "" if sign else UNSIGNED
    assert run_import(support.signed(data) if sign else data, "internal_vlpfs") == (0, log + SUCCESS[1])
    path = f"{support.LAYERS}/App"
    assert support.tree(device, path) == [
        f"{path} d 755 root:root",
        f"{path}/lower.vlp f 644 root:root",
        f"{path}/upper d 755 root:root",
        f"{path}/upper/manifest.json f 444 root:root i",
        f"{path}/upper/package.conf f 444 root:root i",
    ]
    assert support.tree(device, f"{STORE}/App") == [f"{STORE}/App l 777 root:root{path}/upper"]
    assert device.sh(f"base64 -w0 {path}/lower.vlp").stdout == base64.b64encode(data).decode()
    assert device.exists(f"{STATES}/App") == sign


@pytest.mark.usefixtures("unsigned_allowed")
def test_as_a_layer_file_over_what_an_import_left_that_failed(device: Device, run_import: Import) -> None:
    members = [pair for pair in support.base_members() if pair[0].name != "package.conf"]
    status, log = run_import(support.archive(members), "internal_vlpfs")
    assert (status, log) == (1, UNSIGNED + INVALID[1])
    assert support.tree(device, f"{support.LAYERS}/App/upper")[1:] == [
        f"{support.LAYERS}/App/upper/manifest.json f 444 root:root i"
    ]
    assert not device.exists(f"{STORE}/App")
    assert run_import(support.archive(support.base_members()), "internal_vlpfs") == (0, UNSIGNED + SUCCESS[1])


def test_a_layer_file_needs_unsigned_packages_to_be_allowed(device: Device, run_import: Import) -> None:
    message = "code 33: Signature validation is not supported for location internal_vlpfs\n"
    assert run_import(support.simple_package(), "internal_vlpfs") == (33, message)
    support.is_nowhere(device)
    assert not device.exists(f"{STATES}/App")


# --- packages that the image ships ---


@pytest.fixture
def image_package(device: Device) -> Iterator[Callable[..., str]]:
    def put(data: bytes, sidecar: str | None) -> str:
        path = support.put(device, data, "Image.vlp", "/usr/share/packages")
        if sidecar is not None:
            device.write(path + ".json", sidecar)
        return path

    yield put
    support.remove_app(device)
    device.sh("rm -f /usr/share/packages/Image.vlp*")


def test_a_package_that_the_image_verified_needs_no_gpgv(
    device: Device, image_package: Callable[..., str]
) -> None:
    path = image_package(support.simple_package(sign=False), '{"signed": true}')
    assert support.outcome(device.velkctl("import", path)) == SUCCESS
    assert json.loads(device.read(f"{STATES}/App")) == {"signature": "", "state": "confirmed"}
    support.remove_app(device)
    device.sh("mkdir -p /tmp/packages && cp /usr/share/packages/Image.vlp* /tmp/packages").check()
    result = device.velkctl("import", "/tmp/packages/Image.vlp")
    assert support.outcome(result) == (2, "code 2: Unsigned package not allowed\n")


def test_an_image_package_in_the_layer_location_is_linked(
    device: Device, image_package: Callable[..., str]
) -> None:
    path = image_package(support.simple_package(sign=False), '{"signed": true}')
    assert support.outcome(device.velkctl("import", path, "internal_vlpfs")) == SUCCESS
    layer = f"{support.LAYERS}/App/lower.vlp"
    assert support.tree(device, layer) == [f"{layer} l 777 root:root{path}"]


@pytest.mark.parametrize(
    "sidecar", [None, '{"signed": false}', '{"signed": "true"}', "{}", "[true]", "no json"]
)
def test_an_image_package_that_is_not_called_signed_is_verified(
    device: Device, image_package: Callable[..., str], sidecar: str | None
) -> None:
    path = image_package(support.simple_package(sign=False), sidecar)
    assert support.outcome(device.velkctl("import", path)) == (2, "code 2: Unsigned package not allowed\n")
    assert not device.exists(f"{STATES}/App")


# --- verification and the record of it ---


@pytest.mark.usefixtures("unsigned_allowed")
def test_an_unsigned_package_takes_an_old_record_away(device: Device, run_import: Import) -> None:
    device.write(f"{STATES}/App", '{"signature": "", "state": "confirmed"}')
    assert run_import(support.simple_package(sign=False)) == (
        0,
        UNSIGNED + "VSF existed for unsigned application package\n" + SUCCESS[1],
    )
    assert not device.exists(f"{STATES}/App")


def test_a_bad_signature_leaves_its_data_for_whoever_looks_into_it(
    device: Device, run_import: Import
) -> None:
    data = gzip.compress(support.archive(support.base_members()))
    bad = package.append_signature(data, package.Key.trusted().sign(data + b"x"))
    assert run_import(bad) == (2, "code 2: Bad signature, doesn't match keyring\n")
    left = support.temporaries(device)
    assert len(left) == 1 and left[0].endswith(".vlp")
    assert device.sh(f"stat -c '%a %s' /tmp/{left[0]}").stdout == f"644 {len(data)}\n"
    assert not device.exists(f"{STATES}/App")
    device.sh("rm /tmp/velkctl_*")
    support.is_nowhere(device)


def test_a_signature_that_is_no_text_cannot_be_recorded(device: Device, run_import: Import) -> None:
    data = support.archive(support.base_members())
    binary = package.append_signature(data, package.Key.trusted().gpg("--detach-sign", data=data))
    message = "src/store/velkctl-vsf.cpp:N: Failed to write required fields in VSF for application App\n"
    assert run_import(binary) == (10, "code 10: " + message)
    device.sh("rm -f /tmp/velkctl_*")


def test_settings_without_the_key_fail_even_a_signed_package(device: Device, run_import: Import) -> None:
    before = device.read(support.SETTINGS)
    device.write(support.SETTINGS, "[Install]\nOther=1\n")
    status, log = run_import(support.simple_package())
    device.write(support.SETTINGS, before)
    assert (status, log.splitlines()[0]) == (
        10,
        f"Defaulting to 'false' for [Install].AllowUnsigned, bad keyfile: {support.SETTINGS}",
    )
    failure = "code 10: src/system/key-file.cpp:N: Failed reading key AllowUnsigned, group Install from "
    assert log.splitlines()[1].startswith(failure)
    support.is_nowhere(device)


@pytest.mark.parametrize(
    ("what", "expected"),
    [
        ("nothing in it", INVALID),
        ("15 bytes", INVALID),
        ("16 bytes of text", INVALID),
        ("a text", INVALID),
        ("cut in the data", INVALID),
    ],
)
def test_what_is_no_package_is_refused(
    device: Device, run_import: Import, what: str, expected: tuple[int, str]
) -> None:
    status, log = run_import(support.packages_with_mistakes()[what])
    assert (status, log.splitlines()[-1] + "\n") == expected, log
    support.is_nowhere(device)
    assert not device.exists(f"{STATES}/App")


def test_a_package_cut_in_its_trailer_is_unsigned(device: Device, run_import: Import) -> None:
    plain = support.simple_package(compress=False)
    assert run_import(plain[:-1]) == (2, "code 2: Unsigned package not allowed\n")
    support.is_nowhere(device)


def test_a_missing_or_wrongly_named_package_is_refused(device: Device, run_import: Import) -> None:
    result = device.velkctl("import", "/tmp/absent.vlp")
    assert support.outcome(result) == (
        10,
        "code 10: Path is not a valid canonicalizable path: /tmp/absent.vlp\n",
    )
    assert run_import(support.simple_package(), name="an app.vlp") == (
        10,
        "code 10: Character sequence in application package file name is not allowed\n",
    )
    assert support.store_entries(device) == ["_lock"]


# --- the manifest ---


def with_manifest(manifest: bytes) -> bytes:
    members = [pair for pair in support.base_members() if pair[0].name != "manifest.json"]
    return support.signed(support.archive([support.member("manifest.json", manifest), *members]))


def with_setup(**settings: Any) -> bytes:
    return support.simple_package(**settings)


@pytest.mark.parametrize(
    ("settings", "expected"),
    [
        ({"appName": "1App"}, (29, "code 29: Character sequence in application name is not allowed\n")),
        ({"appName": "no_clean_on_failure"}, (
            29, "code 29: Character sequence in application name is not allowed\n")),
        ({"appName": None}, (29, "code 29: Could not read appName from manifest\n")),
        ({"version": "1.2"}, (29, "code 29: Version '1.2' does not follow the semantic version format\n")),
        ({"runMode": None}, (29, "code 29: Could not read runMode from manifest\n")),
    ],
)
def test_a_manifest_that_breaks_a_rule_is_refused(
    device: Device, run_import: Import, settings: dict[str, Any], expected: tuple[int, str]
) -> None:
    assert run_import(with_setup(**settings)) == expected
    support.is_nowhere(device)


def test_a_manifest_that_is_no_json_is_refused(device: Device, run_import: Import) -> None:
    assert run_import(with_manifest(b"{nonsense")) == (
        29,
        "code 29: Invalid manifest: string or '}' expected near 'nonsense'\n",
    )
    support.is_nowhere(device)


def test_a_package_without_a_manifest_is_refused(device: Device, run_import: Import) -> None:
    members = [pair for pair in support.base_members() if pair[0].name != "manifest.json"]
    status, log = run_import(support.signed(support.archive(members)))
    assert (status, log.splitlines()[-1] + "\n") == INVALID
    support.is_nowhere(device)


def test_a_manifest_that_is_a_link_is_refused(device: Device, run_import: Import) -> None:
    members = [pair for pair in support.base_members() if pair[0].name != "manifest.json"]
    hostile = support.archive([support.link("manifest.json", "/etc/passwd"), *members])
    status, log = run_import(support.signed(hostile))
    assert (status, log) == (29, "code 29: Invalid manifest: '[' or '{' expected near end of file\n")
    support.is_nowhere(device)


@pytest.mark.parametrize(
    ("name", "substitutes"),
    [
        # The manifest is read before unpacking, so another member takes its place only then.
        ("manifest.json", [support.link("./manifest.json", "LICENSE")]),
        ("manifest.json", [support.folder("./manifest.json")]),
        ("manifest.json", [support.member("./manifest.json", type=b"6")]),
        ("package.conf", []),
        ("package.conf", [support.link("package.conf", "LICENSE")]),
        ("package.conf", [support.link("package.conf", "/etc/passwd")]),
        ("package.conf", [support.folder("package.conf")]),
        ("package.conf", [support.member("package.conf", type=b"6")]),
        ("package.conf", [support.member("package.conf", type=b"1", linkname="manifest.json")]),
        ("package.conf", [support.member("package.conf", type=b"1", linkname="LICENSE")]),
    ],
    ids=lambda value: value if isinstance(value, str) else "+".join(str(info.type) for info, _ in value),
)
def test_a_control_file_that_is_none_is_refused(
    device: Device, run_import: Import, name: str, substitutes: list[Any]
) -> None:
    members = [pair for pair in support.base_members() if name == "manifest.json" or pair[0].name != name]
    status, log = run_import(support.signed(support.archive([*members, *substitutes])))
    assert (status, log) == INVALID
    support.is_nowhere(device)
    assert device.sh("stat -c '%a %U' /etc/passwd").stdout == "644 root\n"


# --- does it fit this device ---


def test_a_firmware_outside_the_ranges_is_refused(device: Device, run_import: Import) -> None:
    version = json_or_key(device.read("/etc/orvo/device-info"), "Version")
    status, log = run_import(
        with_setup(compatibleOsVersions=[{"min": "1", "max": "1.5"}, {"min": "2", "max": "2"}])
    )
    shown = ".".join(version.split(".")[:3])
    assert (status, log) == (
        5,
        f"code 5: Firmware version {shown} is not compatible with this application. Compatible versions: "
        "[1, 1.5], [2, 2]\n",
    )
    support.is_nowhere(device)


def json_or_key(text: str, key: str) -> str:
    """A value of the device's readable information file."""
    for line in text.splitlines():
        name, _, value = line.partition("=")
        if name.strip() == key:
            return value.strip().strip('"')
    raise AssertionError(text)


def test_a_firmware_inside_a_range_passes(run_import: Import) -> None:
    assert (
        run_import(with_setup(compatibleOsVersions=[{"min": "1", "max": "1"}, {"min": "2", "max": "99"}]))
        == SUCCESS
    )


def test_without_the_device_service_only_packages_with_ranges_fail(
    device: Device, run_import: Import
) -> None:
    device.sh("systemctl mask --quiet --runtime --now orvo-services.service").check()
    try:
        without = run_import(with_setup())
        support.remove_app(device)
        status, log = run_import(with_setup(compatibleOsVersions=[{"min": "1", "max": "99"}]))
    finally:
        device.sh("systemctl unmask --quiet --runtime orvo-services && systemctl start orvo-services").check()
    assert without == SUCCESS
    call = "src/system/dbus-call.cpp:N: DBus call to com.orvo.BasicDeviceInfo1.Get failed"
    assert (status, log) == (55, (
        f"{call}: Unit orvo-services.service is masked.\n"
        "Could not retrieve firmware version from D-Bus\n"
        "Failed to retrieve the current firmware version\n"))  # fmt: skip
    support.is_nowhere(device)


def test_another_architecture_is_refused(device: Device, run_import: Import) -> None:
    machine = device.run(["uname", "-m"]).stdout.strip()
    for good in ("all", machine):
        assert run_import(with_setup(architecture=good)) == SUCCESS
        support.remove_app(device)
    for bad in ("mips", "ALL", machine.upper(), ""):
        message = f"Application with architecture {bad} cannot run on system with architecture {machine}\n"
        assert run_import(with_setup(architecture=bad)) == (5, "code 5: " + message)
        support.is_nowhere(device)


# --- what is in the store already ---


def test_an_application_that_is_there_is_refused_and_its_record_stays(
    device: Device, run_import: Import
) -> None:
    message = (14, "code 14: Application 'App' already exists in content store\n")
    assert run_import(support.simple_package()) == SUCCESS
    before = support.tree(device, f"{STORE}/App")
    data = support.archive(support.base_members())
    signature = package.Key.trusted().sign(data)
    record = device.read(f"{STATES}/App")
    assert json.loads(record)["signature"] != signature.decode()
    assert run_import(package.append_signature(data, signature)) == message
    assert support.tree(device, f"{STORE}/App") == before
    assert device.read(f"{STATES}/App") == record
    support.remove_app(device)
    device.sh(f"ln -s /nowhere {STORE}/App").check()
    assert run_import(package.append_signature(data, signature)) == message
    assert not device.exists(f"{STATES}/App")


def test_a_name_in_another_case_is_refused_first(device: Device, run_import: Import) -> None:
    device.sh(f"mkdir {STORE}/aPP {STORE}/App").check()
    message = "code 14: Application 'App' already exists in the store with a different case 'aPP'\n"
    assert run_import(support.simple_package()) == (14, message)
    device.sh(f"rm -r {STORE}/aPP {STORE}/App").check()
    device.sh(f"touch {STORE}/APP").check()
    message = "code 14: Application 'App' already exists in the store with a different case 'APP'\n"
    assert run_import(support.simple_package()) == (14, message)
    device.sh(f"rm {STORE}/APP").check()


def test_a_lock_that_is_held_is_respected(device: Device, run_import: Import) -> None:
    device.write(support.LOCK, "Other", 0o600)
    message = f"code 12: Another instance is already running, lock file exists: {support.LOCK}\n"
    assert run_import(support.simple_package()) == (12, message)
    assert device.read(support.LOCK) == "Other"
    assert device.sh(f"ls {STORE}/_lock").stdout == "velkctl\n"
    device.sh(f"rm {support.LOCK}").check()
    support.is_nowhere(device)


def test_leftovers_of_an_interrupted_import_are_cleared(device: Device, run_import: Import) -> None:
    for leftover in (
        "mkdir $1/App.tmp && touch $1/App.tmp/x && chattr +i $1/App.tmp/x",
        "touch $1/App.tmp",
        "ln -s /etc $1/App.tmp",
    ):
        device.sh(leftover, STORE).check()
        assert run_import(support.simple_package()) == SUCCESS
        assert support.tree(device, f"{STORE}/App") == holding(f"{STORE}/App", "d 755 nobody:root")
        assert support.store_entries(device) == ["App", "_lock"]
        support.remove_app(device)
    assert device.sh("stat -c '%a %U:%G' /etc").stdout == "755 root:root\n"


def test_a_planted_link_at_a_cards_place_is_refused(
    device: Device, run_import: Import, card: Callable[..., None]
) -> None:
    card("SD_DISK2")
    device.sh(f"mkdir -p {support.CARD2} && ln -s /etc {support.CARD2}/App").check()
    message = f"code 1: Attempt to use reserved directory '{support.CARD2}/App' as a symlink\n"
    assert run_import(support.simple_package(), "sd_card2") == (1, message)
    assert not device.exists("/etc/manifest.json")
    assert not device.exists(f"{support.CARD2}/App.tmp")


@pytest.mark.parametrize("command", ["import", "install"])
def test_a_pipe_is_refused_and_not_waited_for(device: Device, command: str) -> None:
    device.sh("mkdir -p /tmp/packages && mkfifo /tmp/packages/App.vlp").check()
    result = device.velkctl(command, "/tmp/packages/App.vlp", timeout=10)
    assert support.outcome(result) == (1, "code 1: Invalid application package\n")
    support.is_nowhere(device)


def test_a_reader_of_the_log_that_goes_away_ends_nothing(device: Device) -> None:
    path = support.put(device, support.simple_package())
    script = 'mkfifo /tmp/log && { true </tmp/log & exec 2>/tmp/log; wait; rm /tmp/log; velkctl import "$1"; }'
    assert device.sh(script, path).status == 0
    assert "App" in support.store_entries(device)
