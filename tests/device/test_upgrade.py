"""
install over an installed application: what is kept, and what is left when one of the steps fails.

The example application is the witness: it counts its starts in its data and greets with its parameter, and its web page
tells both.
"""

from __future__ import annotations

import json
import re
from collections.abc import Iterator
from typing import Any

import pytest
import stepper
from apps import LOCK, app, example, installation, is_locked, stored, uninstallation, without_place
from conftest import LAST_SEEN
from setups import SETTINGS, STORE, UNITS, Put, changed, failing, fetch, look_at, outside, program, section, velkctl
from store_support import CARD, CARD2, LAYERS, allow_unsigned, tree
from velkdevice import snapshot
from velkdevice.device import Device

HELLO = f"{STORE}/hello"
BACKUPS = f"{STORE}/_backup"
DONE = "Successfully installed application 'hello' on '{}'\n"
SAMPLE_DONE = (0, "Successfully installed application 'Sample' on 'internal'\n")
RUNNING = "code 10: Application {} is still running, please stop it before running install.\n"


def hello(location: str = "internal", **settings: Any) -> dict[str, Any]:
    """The example application; for a card without what a card may not have, and with its settings as a file of its own."""
    files = example("hello", **settings)
    if location.startswith("sd_card"):
        configuration = files["manifest.json"]["velkPackageConf"]["configuration"]
        del configuration["httpConfig"], configuration["paramConfig"]
        files["conf/hello.conf"] = '[Hello]\nGreeting="Hello"\n'
    return files


@pytest.fixture
def camera(pristine: Device) -> Iterator[Device]:
    """The common device as `pristine`, from which the applications go however the test ended."""
    yield pristine
    pristine.sh(f"chattr -f -i {STORE} {BACKUPS}; rm -f {LOCK}")
    for name in ("hello", "Sample"):
        if pristine.exists(f"{STORE}/{name}"):
            pristine.velkctl("uninstall", name)
    # What the failures leave on purpose: the saved data, the user that was to be kept, and records of packages.
    pristine.sh(f"chattr -R -f -i {STORE}/*.tmp")
    pristine.sh(f"rm -rf {BACKUPS}/* {STORE}/*.tmp /etc/velk/vsf/hello /etc/velk/vsf/Sample /tmp/velkctl_*")
    for user in ("hello", "sample"):
        call = "gdbus call --system -d com.orvo.UserManagement1 -o /com/orvo/UserManagement1 -m "
        pristine.sh(f"! getent passwd velk-{user} || {call}com.orvo.UserManagement1.Application.RemoveUser velk {user}").check()


PLACES = {"internal": STORE, "sd_card1": CARD, "internal_vlpfs": LAYERS}
# Where the files of the package lie, whatever is mounted.
FILES = {"internal": HELLO, "sd_card1": f"{CARD}/hello/lower", "internal_vlpfs": f"{LAYERS}/hello/upper"}


@pytest.fixture(params=[
    place if place == "internal" else pytest.param(place, marks=pytest.mark.full) for place in PLACES])  # fmt: skip
def place(camera: Device, request: pytest.FixtureRequest) -> Iterator[str]:
    """The location of both versions, on a device where there is one."""
    settings = camera.read(SETTINGS)
    if request.param == "internal_vlpfs":
        allow_unsigned(camera)  # without it nothing goes to the layer store, signed or not
    if request.param == "sd_card1":
        camera.insert_card()
    yield request.param
    if request.param != "internal":
        camera.velkctl("uninstall", "hello")
    if request.param == "sd_card1":
        camera.remove_card()
    camera.write(SETTINGS, settings)


def installs(device: Device, put_package: Put, place: str, **settings: Any) -> None:
    """The example application can be installed there in this version."""
    assert install(device, put_package, hello(place, **settings), place) == (0, DONE.format(place))


def install(device: Device, put_package: Put, files: dict[str, Any], *options: str, **packing: Any) -> tuple[int, str]:
    """Exit status and log of an installation, without what systemctl says of the mounts that it enables."""
    path = put_package(device, files, **packing)
    result = device.velkctl("install", *options[:-1], path, *options[-1:])
    told = [line for line in result.stderr.splitlines(keepends=True) if not line.startswith("Created symlink ")]
    return result.status, without_place("".join(told))


def change_greeting(device: Device, text: str) -> None:
    """As the parameter service does it: the application's own settings file gets another value."""
    device.run(["sh", "-c", f"""printf '[Hello]\\nGreeting="{text}"\\n' >{HELLO}/conf/hello.conf"""], user="velk-hello").check()


def start(device: Device, name: str = "hello") -> None:
    assert velkctl(device, "start", name) == (0, f"Started application {name}\n")


def answer(device: Device) -> str:
    """What the example application answers after one more start; it is stopped again."""
    page = f"{HELLO}/html/status.txt"
    device.sh(f": >{page}").check()
    start(device)
    device.wait_for(lambda: "start number" in device.read(page), "the application to write its page")
    code, text = fetch(device, "/local/hello/status.txt", "admin")
    assert code == "200"
    device.velkctl("stop", "hello").check()
    return text


def version(device: Device, name: str = "hello") -> str:
    return device.velkctl("list", "--version", name).check().stdout


OTHERS = ("file: /etc/passwd:", "file: /etc/group:", "file: /etc/shadow:", "file: /etc/gshadow:", "file: /tmp/packages",
          "file: /var/lib/orvo-cards/")  # fmt: skip


def left(device: Device, since: snapshot.Snapshot) -> list[str]:
    """
    What has come ("+"), gone ("-") or changed ("~") since then, by name; of a saved file also whose it is and its text.

    The files that hold all users are left out, since the users are told themselves, and an image of a card, since what
    lies on the card is; so are the test's own packages.
    """
    held = look_at(device, BACKUPS)
    lines = []
    for line in since.differences(snapshot.take(device)):
        kind, name, _ = line[2:].split(": ", 2)
        if not line[2:].startswith(OTHERS):
            facts = f": {held[name].strip()}" if kind == "file" and name in held else ""
            lines.append(line[0] + ("" if kind == "file" else f"{kind} ") + name + facts)
    return sorted(lines)


def saved(app: str, files: dict[str, str]) -> list[str]:
    """The lines of `left` for a backup of these files."""
    place = f"{BACKUPS}/{app}"
    return sorted([f"+{place}: d 755 root:root", *(f"+{place}/{name}: {facts}" for name, facts in files.items())])


def saved_of_started(device: Device, place: str = "internal") -> list[str]:
    """The same for the example application as it is now: installed there and started once."""
    files = {"hello.conf": 'f 600 root:root [Hello]|Greeting="Hello"|', "localdata": "d 755 root:root",
             "localdata/installed": "f 644 root:root set up for velk-hello|",
             "localdata/starts": "f 644 root:root 1|"}  # fmt: skip
    if place == "sd_card1":  # where the settings are a file of the package, and there are no parameters
        return saved("hello", files | {"hello.conf": files["hello.conf"].replace("600", "644")})
    files["param_hello.conf"] = "f 600 root:root " + device.read(f"{HELLO}/conf/param_hello.conf").replace("\n", "|")
    return saved("hello", files)


# --- data, settings and the user ---


def test_a_stopped_application_keeps_data_settings_and_user(camera: Device, put_package: Put, place: str) -> None:
    installs(camera, put_package, place)
    assert answer(camera) == "Hello, this is start number 1.\n"
    change_greeting(camera, "Good day")
    assert answer(camera) == "Good day, this is start number 2.\n"
    before, owners = outside(camera, "hello"), tree(camera, HELLO)
    installs(camera, put_package, place, version="2.0.0")
    assert version(camera) == "2.0.0"
    # Users, units, web server, parameters and bus are exactly as before; of the application's own files the record of
    # its last start is gone, since an upgrade starts nothing.
    new_package = ("/etc/velk/vsf", "/tmp/packages", f"{LAYERS}/hello/")
    assert [line for line in outside(camera, "hello") if not any(path in line for path in new_package)] == [
        line for line in before if not any(path in line for path in new_package)]  # fmt: skip
    gone, come = sorted(set(owners) - set(tree(camera, HELLO))), sorted(set(tree(camera, HELLO)) - set(owners))
    # Data that came back is the user's, and no group's of its own.
    data = [f"{HELLO}/localdata d 755", f"{HELLO}/localdata/installed f 644", f"{HELLO}/localdata/starts f 644"]
    was = [f"{HELLO}/conf/runstate.conf f 644 root:root", f"{data[0]} velk-hello:admin",
           *(f"{line} velk-hello:velk-hello" for line in data[1:])]  # fmt: skip
    now = [f"{line} velk-hello:root" for line in data]
    if place == "sd_card1":  # where the settings are a file of the package, and become the user's alone
        was.append(f"{HELLO}/conf/hello.conf f 644 velk-hello:admin")
        now.append(f"{HELLO}/conf/hello.conf f 600 velk-hello:velk-hello")
    assert (gone, come) == (sorted(was), sorted(now))
    assert answer(camera) == "Good day, this is start number 3.\n"
    assert (camera.exists(f"{BACKUPS}/hello"), is_locked(camera)) == (False, False)


def test_an_application_that_was_never_started_keeps_its_data(camera: Device, put_package: Put, place: str) -> None:
    installs(camera, put_package, place)
    camera.run(["sh", "-c", f"echo 41 >{HELLO}/localdata/starts"], user="velk-hello").check()
    installs(camera, put_package, place, version="1.0.1")
    assert answer(camera) == "Hello, this is start number 42.\n"


def test_a_running_application_goes_on_running_as_it_is(camera: Device, put_package: Put, place: str) -> None:
    installs(camera, put_package, place)
    start(camera)
    camera.wait_for(lambda: "number 1" in camera.read(f"{HELLO}/html/status.txt"), "the page")
    pid = camera.run(["systemctl", "show", "-P", "MainPID", "sdkhello.service"]).stdout
    before = snapshot.take(camera)
    assert install(camera, put_package, hello(place, version="2.0.0"), place) == (10, RUNNING.format("hello"))
    assert camera.run(["systemctl", "show", "-P", "MainPID", "sdkhello.service"]).stdout == pid
    # The data was saved before the running application was noticed.
    assert left(camera, before) == saved_of_started(camera, place)
    assert version(camera) == "1.0.0"
    assert fetch(camera, "/local/hello/status.txt", "admin") == ("200", "Hello, this is start number 1.\n")


@pytest.mark.parametrize("new", ["1.0.0", "0.9.0"])
def test_the_same_and_an_older_version_are_upgrades_like_any_other(
    camera: Device, put_package: Put, place: str, new: str
) -> None:
    installs(camera, put_package, place)
    change_greeting(camera, "Good day")
    answer(camera)
    installs(camera, put_package, place, version=new)
    assert version(camera) == new
    assert answer(camera) == "Good day, this is start number 2.\n"


def test_parameters_are_merged(camera: Device, put_package: Put) -> None:
    """Saved values win, also those that the new version knows no more; what is new has its default."""
    old = hello()
    parameters = old["manifest.json"]["velkPackageConf"]["configuration"]["paramConfig"]
    parameters.append({"name": "Gone", "default": "old", "type": "string"})
    install(camera, put_package, old, "internal")
    new = hello(version="2.0.0")
    parameters = new["manifest.json"]["velkPackageConf"]["configuration"]["paramConfig"]
    parameters[0]["default"] = "Welcome"
    parameters.append({"name": "Farewell", "default": "Bye", "type": "string"})
    change_greeting(camera, "Good day")
    assert install(camera, put_package, new, "internal") == (0, DONE.format("internal"))
    assert camera.read(f"{HELLO}/conf/hello.conf") == '[Hello]\nGreeting="Good day"\nFarewell="Bye"\n'
    definition = camera.read(f"{HELLO}/conf/param_hello.conf")
    assert [line.split()[1] for line in definition.splitlines() if line.startswith("param ")] == [
        "Greeting", "Farewell", "Gone"]  # fmt: skip
    # The parameter service knows the merged group too.
    assert camera.read("/run/velkctl-param-groups/Hello") == definition
    assert camera.sh(f"stat -c '%a %U:%G' {HELLO}/conf/*hello.conf").stdout == "600 velk-hello:velk-hello\n" * 2
    assert answer(camera) == "Good day, this is start number 1.\n"


STATIC = {"user": {"username": "sdk", "group": "sdk"}}


@pytest.mark.parametrize(("old", "new", "user"), [({}, STATIC, "sdk"), (STATIC, {}, "velk-hello")])
def test_another_user_takes_the_data_over(
    camera: Device, put_package: Put, place: str, old: dict[str, Any], new: dict[str, Any], user: str
) -> None:
    installs(camera, put_package, place, **old)
    answer(camera)
    installs(camera, put_package, place, version="2.0.0", **new)
    owned = camera.sh(f"cd {HELLO}; stat -c '%n %U' localdata localdata/starts conf/hello.conf html").check().stdout
    assert owned.split()[1::2] == [user] * 4
    # An application's own user leaves with it; one of the system's stays.
    assert (camera.run(["id", "velk-hello"]).status == 0) == (user == "velk-hello")
    assert answer(camera) == "Hello, this is start number 2.\n"


USUAL = [("internal_vlpfs", "sd_card1")]


@pytest.mark.parametrize(("old", "new"), [
    pytest.param(old, new, marks=[] if (old, new) in USUAL else [pytest.mark.full])
    for old in PLACES for new in PLACES if (old, new) != ("internal", "internal")])  # fmt: skip
def test_an_upgrade_to_another_location(camera: Device, put_package: Put, old: str, new: str) -> None:
    before = snapshot.take(camera)
    settings = camera.read(SETTINGS)
    allow_unsigned(camera)  # without it nothing goes to the layer store, signed or not
    camera.insert_card()
    try:
        assert install(camera, put_package, hello(old), old) == (0, DONE.format(old))
        change_greeting(camera, "Good day")
        assert answer(camera) == "Good day, this is start number 1.\n"
        assert install(camera, put_package, hello(new, version="2.0.0"), new) == (0, DONE.format(new))
        places = [name for name, path in PLACES.items() if camera.sh('[ -d "$1" ] && [ ! -L "$1" ]', f"{path}/hello").status == 0]
        # What is mounted over the store's root is a directory there.
        assert set(places) - {"internal"} == {new} - {"internal"} and version(camera) == "2.0.0"
        assert answer(camera) == "Good day, this is start number 2.\n"
        camera.velkctl("uninstall", "hello").check()
    finally:
        if camera.exists(HELLO):
            camera.velkctl("uninstall", "hello")
        camera.remove_card()
        camera.write(SETTINGS, settings)
    camera.sh("rm -rf /tmp/packages")
    assert before.differences(snapshot.like(before, camera)) == []


def test_an_upgrade_to_the_second_card_fails_in_setup(camera: Device, put_package: Put) -> None:
    """The link to an application there leads to a directory that nobody makes, so nothing can be set up from it."""
    camera.sh(f"mkdir -p {CARD2}").check()
    installs(camera, put_package, "internal")
    answer(camera)
    data = saved_of_started(camera)
    outcome = install(camera, put_package, hello("sd_card2", version="2.0.0"), "sd_card2")
    on_card = tree(camera, f"{CARD2}/hello")
    camera.sh(f"rmdir {CARD2} $(dirname {CARD2})").check()
    assert outcome == (29, f"code 29: src/system/file.cpp: Path not found: {HELLO}/manifest.json\n")
    user = ["+/var/lib/orvo/api-access/velk-hello", "+group velk-hello", "+user velk-hello"]
    assert (left(camera, LAST_SEEN[camera.name]), on_card, is_locked(camera)) == (sorted(data + user), [], False)


TORN = "src/integration/velkctl-teardown.cpp: Failure during teardown of hello\n"
NOT_FOUND = f"src/system/file.cpp: Path not found: {HELLO}/manifest.json\n"
UNREAD = (
    "Failed to get the manifest JSON object during teardown of hello: {0}"
    "Failed to run remove for plugins during teardown of hello: While calling plugin function remove. "
    "Could not retrieve user for for VELK hello: {0}"
    "Failed to teardown user during teardown of hello: {0}"
)


def test_an_upgrade_from_the_second_card_fails_in_teardown_every_time(camera: Device, put_package: Put) -> None:
    """
    What is imported there is reached by a link to a "lower" directory that this card's applications do not have.

    So the teardown finds no manifest, and an upgrade ends with it; only an uninstallation goes on.
    """
    camera.insert_card("SD_DISK2")
    try:
        without = snapshot.take(camera)
        camera.velkctl("import", put_package(camera, hello("sd_card2")), "sd_card2").check()
        before, on_card = snapshot.take(camera), tree(camera, f"{CARD2}/hello")
        for _ in range(2):
            outcome = install(camera, put_package, hello(version="2.0.0"), "internal")
            assert outcome == (10, UNREAD.format(NOT_FOUND) + "code 10: " + TORN)
            # What could be saved through the link is nothing.
            assert (left(camera, before), tree(camera, f"{CARD2}/hello"), is_locked(camera)) == (
                saved("hello", {}), on_card, False)  # fmt: skip
        told = UNREAD.format(NOT_FOUND) + TORN + "Successfully uninstalled application 'hello'\n"
        assert velkctl(camera, "uninstall", "hello") == (0, told)
        assert (left(camera, without), tree(camera, f"{CARD2}/hello")) == ([], [])
    finally:
        camera.velkctl("uninstall", "hello")
        camera.remove_card("SD_DISK2")
    installs(camera, put_package, "internal", version="2.0.0")


# --- what is installed is in a bad way ---


@pytest.mark.parametrize("harm", [
    f"rm {HELLO}/hello", f"rm -rf {UNITS}/sdkhello.service* {HELLO}/conf/param_hello.conf /etc/dynamic/hello.conf",
    pytest.param(f"rm {UNITS}/sdkhello.service; systemctl daemon-reload", marks=pytest.mark.full),
    pytest.param(f"rm -r {HELLO}/html {HELLO}/LICENSE", marks=pytest.mark.full)])  # fmt: skip
def test_a_broken_application_is_replaced(camera: Device, put_package: Put, place: str, harm: str) -> None:
    installs(camera, put_package, place)
    answer(camera)
    camera.sh(harm).check()
    installs(camera, put_package, place, version="2.0.0")
    assert answer(camera) == "Hello, this is start number 2.\n"


# What is not set up has no mounts to stop, which is told of each and counts for nothing.
OVERLAY, LOWER = "usr-local-packages-hello.mount", "opt-packages-_layers-hello-lower.mount"
NOT_LOADED = {"internal": [], "sd_card1": [OVERLAY], "internal_vlpfs": [OVERLAY, LOWER]}


def replaces_what_is_not_set_up(device: Device, put_package: Put, place: str) -> None:
    """A second version can be installed over the application, which is stored there."""
    status, told = install(device, put_package, hello(place, version="2.0.0"), place)
    assert (status, told.splitlines(keepends=True)[-1]) == (0, DONE.format(place))
    assert re.findall(r"^Failed to stop (\S+): Unit \1 not loaded\.$", told, re.M) == NOT_LOADED[place]


def test_an_application_that_is_only_imported_is_replaced(camera: Device, put_package: Put, place: str) -> None:
    camera.velkctl("import", put_package(camera, hello(place)), place).check()
    replaces_what_is_not_set_up(camera, put_package, place)
    assert answer(camera) == "Hello, this is start number 1.\n"


def test_an_application_that_crashed_is_replaced(camera: Device, put_package: Put, place: str) -> None:
    crashing = hello(place, runMode="once") | {"hello": "#!/bin/sh\necho 6 >localdata/starts\nexit 3\n"}
    assert install(camera, put_package, crashing, place) == (0, DONE.format(place))
    start(camera)
    camera.wait_for(lambda: camera.run(["systemctl", "is-failed", "sdkhello.service"]).status == 0, "the crash")
    installs(camera, put_package, place, version="2.0.0")
    assert answer(camera) == "Hello, this is start number 7.\n"
    camera.run(["systemctl", "reset-failed"]).check()


def test_an_application_that_is_torn_down_keeps_its_data(camera: Device, put_package: Put, place: str) -> None:
    installs(camera, put_package, place)
    change_greeting(camera, "Good day")
    assert answer(camera) == "Good day, this is start number 1.\n"
    camera.velkctl("teardown", "hello").check()
    replaces_what_is_not_set_up(camera, put_package, place)
    # The settings went with the teardown.
    assert answer(camera) == "Hello, this is start number 2.\n"


SERVICE = [f"{UNITS}/sdkhello.service{name}" for name in ("", ".d", ".d/50-orvo-network.conf")]
WEB = ["/etc/apache2/conf.d/vhosts/all/urls_hello.conf", "/usr/html/local/hello"]
PARAMETERS = ["/etc/dbus-1/system.d/hello.conf", "/etc/dynamic/hello.conf", "/etc/dynamic/param/hello.conf",
              "/run/velkctl-param-groups", "/run/velkctl-param-groups/Hello"]  # fmt: skip
MOUNTED = [f"attribute {HELLO}/manifest.json", f"attribute {HELLO}/package.conf", f"mount {HELLO}", f"unit {OVERLAY}",
           f"{UNITS}/{OVERLAY}"]  # fmt: skip
POLLING, LAYER_WANTS = "sdkhello-disk-mounted.service", f"{UNITS}/local-fs.target.wants"
# What a teardown takes away without knowing the manifest.
TORN_DOWN_UNREAD = {place: [f"-{name}" for name in [*WEB, *SERVICE, *names]] for place, names in {
    "internal": [*PARAMETERS, f"{HELLO}/conf/hello.conf", f"{HELLO}/conf/param_hello.conf"],
    "sd_card1": [*MOUNTED, f"{UNITS}/{POLLING}", f"unit {POLLING}", f"{UNITS}/velk.target.wants",
                 f"{UNITS}/velk.target.wants/{OVERLAY}"],
    "internal_vlpfs": [
        *PARAMETERS, *MOUNTED, LAYER_WANTS, f"{LAYER_WANTS}/{LOWER}", f"{LAYER_WANTS}/{OVERLAY}", f"{UNITS}/{LOWER}",
        f"{LAYERS}/hello/lower", f"mount {LAYERS}/hello/lower", f"unit {LOWER}",
        f"{LAYERS}/hello/upper/conf/hello.conf", f"{LAYERS}/hello/upper/conf/param_hello.conf"]}.items()}  # fmt: skip


def test_without_a_readable_manifest_the_old_version_cannot_be_torn_down(camera: Device, put_package: Put, place: str) -> None:
    """Its vendor and its user are unknown, which is no hindrance; that the teardown misses the manifest is one."""
    installs(camera, put_package, place)
    answer(camera)
    camera.sh(f"cd {FILES[place]}; chattr -i manifest.json; echo '{{' >manifest.json").check()
    before, data = snapshot.take(camera), saved_of_started(camera, place)
    outcome = install(camera, put_package, hello(place, version="2.0.0", vendorId="others"), place)
    assert outcome == (10, UNREAD.format("JSON error: string or '}' expected near end of file\n") + "code 10: " + TORN)
    # Where the application was mounted there is the link to it again.
    link = [] if place == "internal" else [f"~{HELLO}"]
    assert (left(camera, before), is_locked(camera)) == (sorted(TORN_DOWN_UNREAD[place] + data + link), False)


def test_an_application_of_the_older_form_is_not_replaced_either(camera: Device, put_package: Put) -> None:
    conf = 'PACKAGENAME="Old one"\nAPPNAME=hello\nAPPMAJORVERSION=3\nAPPMINORVERSION=4\n'
    camera.write(f"{HELLO}/package.conf", conf)
    camera.write(f"{HELLO}/localdata/starts", "8\n")
    assert camera.velkctl("list", "--legacy-apps").stdout == '["hello"]'
    before = snapshot.take(camera)
    assert install(camera, put_package, hello(version="2.0.0"), "internal") == (
        10, UNREAD.format(NOT_FOUND) + "code 10: " + TORN)  # fmt: skip
    data = {"localdata": "d 755 root:root", "localdata/starts": "f 644 root:root 8|"}
    assert (left(camera, before), is_locked(camera)) == (saved("hello", data), False)


# --- each step fails in turn ---


def old_version(**changes: Any) -> dict[str, Any]:
    return section(app("Sample", **changes), "velkPackageConf.configuration.paramConfig",
                   [{"name": "Speed", "default": "1", "type": "string"}])  # fmt: skip


SAMPLE = f"{STORE}/Sample"
DEFINITION = (
    "group Sample {|parser = Standard2parser|file = \"/etc/dynamic/Sample.conf\"|"
    "dbus = \"--system --dest=com.orvo.Param.Sample /com/orvo/Param/Sample "
    "com.orvo.Param.ChangeNotification string:'$NAME' string:'$VALUE'\"|"
    'accessControl = "admin:3;velk-sample:3;operator:1;viewer:0"|'
    'param Speed {|  mount = "Standard2{Sample}{Speed}"|  type = "string"|}|}|'
)  # fmt: skip
SAVED_FILES = {
    "Sample.conf": 'f 600 root:root [Sample]|Speed="7"|', "param_Sample.conf": f"f 600 root:root {DEFINITION}",
    "localdata": "d 755 root:root", "localdata/note": "f 644 root:root kept|",
}  # fmt: skip
SAVED = saved("Sample", SAVED_FILES)
# What a teardown takes away when the user is to stay.
TORN_DOWN = [f"-{path}" for path in (
    "/etc/apache2/conf.d/vhosts/all/urls_Sample.conf", "/etc/dbus-1/system.d/Sample.conf", "/etc/dynamic/Sample.conf",
    "/etc/dynamic/param/Sample.conf", f"{UNITS}/sdkSample.service", f"{UNITS}/sdkSample.service.d",
    f"{UNITS}/sdkSample.service.d/50-orvo-network.conf", "/run/velkctl-param-groups", "/run/velkctl-param-groups/Sample",
    "/usr/html/local/Sample", f"{SAMPLE}/conf/Sample.conf", f"{SAMPLE}/conf/param_Sample.conf")]  # fmt: skip
RECORD = "/etc/velk/vsf/Sample"
USER = ["/var/lib/orvo/api-access/velk-sample", "group velk-sample", "user velk-sample"]
TEARDOWN_FAILED = "code 10: src/integration/velkctl-teardown.cpp: Failure during teardown of Sample\n"
# The user that the new version was to have too stays when there is no new version.
KEPT_USER = [f"+{name}" for name in USER]
# The new version, with the old one's data, which is no group's of its own any more.
UPGRADED = [f"~{path}" for path in (RECORD, f"{SAMPLE}/localdata", f"{SAMPLE}/localdata/note", f"{SAMPLE}/manifest.json")]


class Upgrade:
    """An installed application with data, and the device as it is without it and with it."""

    def __init__(self, device: Device, put_package: Put) -> None:
        self.device, self.put_package = device, put_package
        self.without = LAST_SEEN[device.name]

    def prepare(self, **changes: Any) -> None:
        self.install_old(old_version(**changes))

    def install_old(self, files: dict[str, Any]) -> None:
        assert install(self.device, self.put_package, files, "internal") == SAMPLE_DONE
        used = f"""cd {SAMPLE}; echo kept >localdata/note; printf '[Sample]\\nSpeed="7"\\n' >conf/Sample.conf"""
        self.device.run(["sh", "-c", used], user="velk-sample").check()
        self.look()

    def look(self) -> None:
        """Keep how the device is with the old version, to compare with."""
        self.installed = snapshot.take(self.device)

    def left(self) -> list[str]:
        """What is otherwise than with the old version."""
        return left(self.device, self.installed)

    def left_without(self) -> list[str]:
        """What is otherwise than without any version."""
        return left(self.device, self.without)

    def to_new(self, files: dict[str, Any] | None = None, *options: str, env: Any = None, **packing: Any) -> tuple[int, str]:
        path = self.put_package(self.device, files or old_version(version="2.0.0"), **packing)
        result = self.device.velkctl("install", *options, path, env=env)
        assert not is_locked(self.device)
        return result.status, without_place(result.stderr)


@pytest.fixture
def upgrade(camera: Device, put_package: Put) -> Upgrade:
    return Upgrade(camera, put_package)


def test_another_vendor_changes_nothing(upgrade: Upgrade) -> None:
    upgrade.prepare()
    text = "code 27: Vendor ID in manifest does not match the vendor ID of the previous version\n"
    assert upgrade.to_new(old_version(vendorId="others")) == (27, text)
    assert upgrade.to_new(old_version(vendorId=None)) == (27, text)
    assert upgrade.left() == []


def test_a_backup_that_fails_leaves_the_old_version(upgrade: Upgrade) -> None:
    upgrade.prepare()
    upgrade.device.sh(f"mkdir -p {BACKUPS}; chattr +i {BACKUPS}").check()
    outcome = upgrade.to_new()
    upgrade.device.sh(f"chattr -i {BACKUPS}").check()
    assert outcome == (10, "code 10: src/system/file.cpp: Could not create directory "
                           f"{BACKUPS}/Sample.tmp: Operation not permitted\n")  # fmt: skip
    assert upgrade.left() == []
    assert upgrade.to_new() == SAMPLE_DONE
    assert upgrade.left() == UPGRADED


def test_a_teardown_that_fails_leaves_the_old_version_stored_and_its_data_saved(upgrade: Upgrade) -> None:
    script = {"before.sh": "#!/bin/sh\n"}
    upgrade.install_old(uninstallation(old_version(), preUninstallScript="before.sh") | script)
    upgrade.device.sh(f"rm {SAMPLE}/before.sh").check()
    upgrade.look()
    missing = ("Failed to run pre-uninstall script during teardown of Sample: "
               "The manifest lists an install script, 'before.sh', but the file is missing.\n")  # fmt: skip
    assert upgrade.to_new() == (10, missing + TEARDOWN_FAILED)
    assert upgrade.left() == sorted(TORN_DOWN + SAVED)
    assert version(upgrade.device, "Sample") == "1.0.0"
    listed = json.loads(upgrade.device.velkctl("list").stdout)[0]
    assert (listed["fullyInstalled"], listed["signatureStatus"]) == ("No", "Signed")


def test_a_removal_that_fails_leaves_the_old_version_stored_and_its_data_saved(upgrade: Upgrade) -> None:
    upgrade.prepare()
    upgrade.device.sh(f"chattr +i {STORE}").check()
    status, told = upgrade.to_new()
    upgrade.device.sh(f"chattr -i {STORE}").check()
    assert (status, told) == (10, "code 10: src/store/velkctl-remove.cpp: Failed renaming "
                                  f"{STORE}/Sample to {STORE}/Sample.tmp: Operation not permitted\n")  # fmt: skip
    assert version(upgrade.device, "Sample") == "1.0.0"
    assert upgrade.left() == sorted([*TORN_DOWN, f"-{RECORD}", *SAVED])
    # The settings, which went with the teardown, are those that were saved before.
    assert upgrade.to_new() == SAMPLE_DONE
    assert upgrade.left() == UPGRADED


def test_a_removal_that_fails_half_way_leaves_the_rest_aside_and_the_data_saved(upgrade: Upgrade) -> None:
    upgrade.prepare()
    # What is mounted there can be moved, but not deleted.
    upgrade.device.sh(f"mkdir {SAMPLE}/busy; mount -t tmpfs none {SAMPLE}/busy").check()
    status, told = upgrade.to_new()
    upgrade.device.sh(f"umount {SAMPLE}.tmp/busy").check()
    assert (status, told.splitlines()[-1]) == (10, f"code 10: src/system/tree.cpp: Failed recursive removal of {SAMPLE}.tmp")
    # The order in which files are deleted is the disk's own, so how many are left is not known.
    rest = [line for line in upgrade.left_without() if f"{SAMPLE}.tmp" not in line]
    assert (stored(upgrade.device), rest) == (["Sample.tmp"], sorted(SAVED + KEPT_USER))
    # The next one clears them away.
    assert upgrade.to_new() == SAMPLE_DONE
    assert upgrade.left() == UPGRADED


# What goes wrong with the new version only once the old one is gone.
UNPACKING_FAILS = 'case "$*" in *"tar --no-same"*) exit 1 ;; esac\nexec "$REAL" "$@"\n'


def test_an_import_that_fails_leaves_the_saved_data_alone(upgrade: Upgrade) -> None:
    upgrade.prepare()
    with program(upgrade.device, "su", UNPACKING_FAILS) as env:
        assert upgrade.to_new(env=env) == (1, "code 1: Invalid application package\n")
    assert upgrade.left_without() == sorted(SAVED + KEPT_USER)
    # The data comes back with the next installation.
    assert upgrade.to_new() == SAMPLE_DONE
    assert upgrade.left() == UPGRADED


FAILING_SCRIPT = {"after.sh": "#!/bin/sh\nexit 77\n"}


def calls_of_failure(upgrade: Upgrade, *arguments: Any, su: str = "", **packing: Any) -> list[str]:
    """
    What an upgrade that fails asks of the service manager after its own look at whether the application runs.

    @param su  a script in the place of that program
    """
    with program(upgrade.device, "systemctl", 'echo "$@" >>/tmp/fake/calls\nexec "$REAL" "$@"\n') as env:
        if su:
            upgrade.device.write("/tmp/fake/su", f"#!/bin/sh\nREAL=/usr/bin/su\n{su}", mode=0o755)
        assert upgrade.to_new(*arguments, env=env, **packing)[0] != 0
        running, *calls = upgrade.device.read("/tmp/fake/calls").splitlines()
    assert running == LOOK
    return calls


LOOK = "is-active --quiet sdkSample.service"


def test_after_a_failed_import_the_web_server_is_reloaded_and_not_before(upgrade: Upgrade) -> None:
    upgrade.prepare()
    assert calls_of_failure(upgrade, su=UNPACKING_FAILS) == [LOOK, "reload httpd"]


def test_after_a_failed_removal_the_web_server_is_reloaded_and_not_before(upgrade: Upgrade) -> None:
    upgrade.prepare()
    upgrade.device.sh(f"chattr +i {STORE}").check()
    assert calls_of_failure(upgrade) == [LOOK, "reload httpd"]


def test_after_a_failed_setup_the_web_server_is_reloaded(upgrade: Upgrade) -> None:
    upgrade.prepare()
    files = installation(old_version(version="2.0.0"), postInstallScript="after.sh") | FAILING_SCRIPT
    # The second look is that of the setup, which takes itself back.
    assert calls_of_failure(upgrade, files) == [LOOK, LOOK, "reload httpd"]


def test_a_failed_teardown_of_the_old_version_reloads_nothing(upgrade: Upgrade) -> None:
    script = {"before.sh": "#!/bin/sh\n"}
    upgrade.install_old(uninstallation(old_version(), preUninstallScript="before.sh") | script)
    upgrade.device.sh(f"rm {STORE}/Sample/before.sh").check()
    assert calls_of_failure(upgrade) == [LOOK]


def test_an_application_that_cannot_take_its_data_back_leaves_without_a_reload(upgrade: Upgrade) -> None:
    upgrade.prepare()
    # The looks are those of the restore and of the teardown after it.
    assert calls_of_failure(upgrade, harming()) == [LOOK, "daemon-reload", "reload httpd", LOOK, LOOK]


def test_a_setup_that_fails_leaves_the_saved_data_alone(upgrade: Upgrade) -> None:
    upgrade.prepare()
    files = installation(old_version(version="2.0.0"), postInstallScript="after.sh") | FAILING_SCRIPT
    status, told = upgrade.to_new(files)
    assert (status, told) == (10, f"code 10: src/system/script.cpp: Script {SAMPLE}/after.sh failed with exit code: 77\n")
    assert upgrade.left_without() == SAVED
    assert upgrade.to_new() == SAMPLE_DONE
    assert upgrade.left() == UPGRADED


def test_a_user_service_that_fails_leaves_the_saved_data_alone(upgrade: Upgrade) -> None:
    upgrade.prepare()
    with failing(upgrade.device, "ModifyUser"):
        outcome = upgrade.to_new()
    assert outcome == (10, "code 10: src/system/dbus-call.cpp: DBus call to "
                           "com.orvo.UserManagement1.Application.ModifyUser failed: Not today\n")  # fmt: skip
    assert upgrade.left_without() == SAVED


def test_an_installation_that_is_skipped_leaves_only_the_saved_data_aside(upgrade: Upgrade) -> None:
    """The script of the new version said that it does not want to be installed, which counts as a success."""
    upgrade.prepare()
    files = installation(old_version(version="2.0.0"), postInstallScript="after.sh") | {"after.sh": "#!/bin/sh\nexit 78\n"}
    path = upgrade.put_package(upgrade.device, files)
    status, told = upgrade.to_new(files, "--skip-if-ex-config")
    assert (status, told) == (0, f"Installation of {path} was skipped\n" + KEPT_ASIDE + SAMPLE_DONE[1])
    assert upgrade.left_without() == ASIDE


KEPT_ASIDE = f"The backup of Sample is kept at {BACKUPS}/Sample.aside\n"
ASIDE = saved("Sample.aside", SAVED_FILES)


def harming(*, then: str = "") -> dict[str, Any]:
    """A new version whose script spoils its own settings, so that the saved ones cannot be merged with them."""
    script = f'#!/bin/sh\ncd {SAMPLE} || exit 1\necho no settings >conf/Sample.conf\n{then}'
    return installation(old_version(version="2.0.0"), postInstallScript="after.sh") | {"after.sh": script}


NO_SETTINGS = "Key file contains line “no settings” which is not a key-value pair, group, or comment\n"
BROKEN = f"code 10: src/system/key-file.cpp: Failed loading keys from: {SAMPLE}/conf/Sample.conf Error: " + NO_SETTINGS


def test_saved_settings_that_cannot_be_merged_leave_the_old_version(upgrade: Upgrade) -> None:
    upgrade.prepare()
    upgrade.device.write(f"{SAMPLE}/conf/Sample.conf", "no settings\n", 0o600, "velk-sample")
    text = "code 10: src/system/key-file.cpp: Failed loading keys from: Sample.conf Error: " + NO_SETTINGS
    assert upgrade.to_new() == (10, text)
    broken = saved("Sample", SAVED_FILES | {"Sample.conf": "f 600 root:root no settings|"})
    assert upgrade.left() == sorted([*broken, f"~{SAMPLE}/conf/Sample.conf"])
    assert version(upgrade.device, "Sample") == "1.0.0"


def test_parameters_that_no_set_up_takes_leave_the_old_version(upgrade: Upgrade) -> None:
    upgrade.prepare()
    parameters = [{"name": "1st", "default": "", "type": "string"}]
    files = section(old_version(version="2.0.0"), "velkPackageConf.configuration.paramConfig", parameters)
    assert upgrade.to_new(files) == (29, "code 29: Parameter name must only contain alphanumeric characters or '_'.\n")
    assert (upgrade.left(), version(upgrade.device, "Sample")) == (SAVED, "1.0.0")


def test_saved_data_that_has_no_room_at_the_new_place_leaves_the_old_version(upgrade: Upgrade) -> None:
    upgrade.prepare()
    large = f"{SAMPLE}/localdata/large"
    upgrade.device.sh(f"head -c 30000000 /dev/zero | tr '\\0' x >{large}; chown velk-sample {large}").check()
    upgrade.device.insert_card("SD_DISK2", megabytes=16)
    try:
        path = upgrade.put_package(upgrade.device, old_version(version="2.0.0"))
        upgrade.device.sh(f"mkdir -p {CARD2}").check()
        result = upgrade.device.velkctl("install", path, "sd_card2")  # gpgv tells of the signature on its output
        assert (result.status, re.sub(r"\d{4,}", "N", result.stderr)) == (
            3, "code 3: No room for the saved data of Sample. Required: N bytes, available: N bytes.\n")  # fmt: skip
        assert version(upgrade.device, "Sample") == "1.0.0"
    finally:
        upgrade.device.remove_card("SD_DISK2")


def test_a_restore_that_fails_takes_the_new_version_away_and_keeps_the_saved_data_aside(upgrade: Upgrade) -> None:
    upgrade.prepare()
    assert upgrade.to_new(harming()) == (10, "Failed to restore Sample. Will attempt to uninstall it.\n" + KEPT_ASIDE + BROKEN)
    assert upgrade.left_without() == ASIDE
    # A new installation has nothing to restore; the next one that has takes its place.
    assert upgrade.to_new() == SAMPLE_DONE
    assert [line for line in upgrade.left_without() if BACKUPS in line] == ASIDE
    assert upgrade.to_new() == SAMPLE_DONE
    assert [line for line in upgrade.left_without() if BACKUPS in line] == []


def test_what_is_kept_aside_goes_with_an_uninstallation_and_for_a_newer_one(upgrade: Upgrade) -> None:
    upgrade.prepare()
    upgrade.device.sh(f"mkdir -p {BACKUPS}/Sample.aside/old").check()
    upgrade.to_new(harming())
    assert upgrade.left_without() == ASIDE
    assert velkctl(upgrade.device, "uninstall", "Sample")[0] == 4
    assert upgrade.left_without() == []


def to_new_held(upgrade: Upgrade, script: str) -> tuple[int, str]:
    """The upgrade to the new version, during which something happens when its data is on the way back."""
    path = upgrade.put_package(upgrade.device, old_version(version="2.0.0"))
    command = ["/usr/bin/velkctl", "install", path]
    with stepper.hold(upgrade.device, command, when=f"{SAMPLE}/localdata.tmp/localdata") as held:
        upgrade.device.sh(script).check()
        result = held.let_go()
    return result.status, without_place(result.stderr)


def test_data_that_cannot_be_brought_back_takes_the_new_version_away_too(upgrade: Upgrade) -> None:
    upgrade.prepare()
    outcome = to_new_held(upgrade, f"cd {SAMPLE} && rm -r localdata && echo file >localdata")
    assert outcome == (10, "Failed to restore Sample. Will attempt to uninstall it.\n" + KEPT_ASIDE +
                       "code 10: src/lifecycle/velkctl-restore.cpp: Failed renaming "
                       f"{SAMPLE}/localdata.tmp to {SAMPLE}/localdata: Not a directory\n")  # fmt: skip
    assert upgrade.left_without() == ASIDE


def test_the_saved_data_stays_when_the_new_version_cannot_be_taken_away(upgrade: Upgrade) -> None:
    upgrade.prepare()
    files = uninstallation(harming(then="rm before.sh\n"), preUninstallScript="before.sh")
    status, told = upgrade.to_new(files | {"before.sh": "#!/bin/sh\n"})
    script = ("Failed to run pre-uninstall script during teardown of Sample: "
              "The manifest lists an install script, 'before.sh', but the file is missing.\n")  # fmt: skip
    assert (status, told) == (10, "Failed to restore Sample. Will attempt to uninstall it.\n" + script
                              + "Failed to teardown and/or remove unstable app Sample\n" + BROKEN)  # fmt: skip
    assert version(upgrade.device, "Sample") == "2.0.0"
    gone = [f"-{SAMPLE}/localdata/note", *(f"-{name}" for name in USER)]
    come = [f"+{SAMPLE}/after.sh", f"~{RECORD}", f"~{SAMPLE}/manifest.json"]
    assert upgrade.left() == sorted(TORN_DOWN + gone + come + SAVED)


def test_a_backup_that_cannot_be_deleted_is_told_and_the_new_version_stays(upgrade: Upgrade) -> None:
    upgrade.prepare()
    outcome = to_new_held(upgrade, f"chattr +i {BACKUPS}")
    upgrade.device.sh(f"chattr -i {BACKUPS}").check()
    assert outcome == (10, "code 10: src/lifecycle/velkctl-backup.cpp: Could not remove backup. Rename failed.\n")
    assert version(upgrade.device, "Sample") == "2.0.0"
    assert upgrade.left() == sorted(UPGRADED + SAVED)


def test_a_backup_that_is_deleted_half_way_is_told_and_the_new_version_stays(upgrade: Upgrade) -> None:
    upgrade.prepare()
    status, told = to_new_held(upgrade, f"mkdir {BACKUPS}/Sample/busy; mount -t tmpfs none {BACKUPS}/Sample/busy")
    upgrade.device.sh(f"umount {BACKUPS}/Sample.remove/busy").check()
    assert (status, told.splitlines()[-1]) == (
        10, f"code 10: src/system/tree.cpp: Failed recursive removal of {BACKUPS}/Sample.remove")  # fmt: skip
    # Some of it is left; that is no backup any more, and the next one clears it away.
    assert [line for line in upgrade.left() if f"{BACKUPS}/Sample.remove" not in line] == UPGRADED
    assert upgrade.to_new() == SAMPLE_DONE
    assert upgrade.left() == UPGRADED


def test_a_lock_that_is_held_changes_nothing(upgrade: Upgrade) -> None:
    upgrade.prepare()
    path = upgrade.put_package(upgrade.device, old_version(version="2.0.0"))
    upgrade.device.write(LOCK, "Other")
    result = upgrade.device.velkctl("install", path)
    assert (result.status, result.stderr) == (12, f"code 12: Another instance is already running, lock file exists: {LOCK}\n")
    upgrade.device.sh(f"rm {LOCK}").check()
    assert upgrade.left() == []


def test_another_vendor_is_told_before_a_lock_that_is_held(upgrade: Upgrade) -> None:
    upgrade.prepare()
    path = upgrade.put_package(upgrade.device, old_version(vendorId="others"))
    upgrade.device.write(LOCK, "Other")
    result = upgrade.device.velkctl("install", path)
    text = "code 27: Vendor ID in manifest does not match the vendor ID of the previous version\n"
    assert (result.status, result.stderr, upgrade.device.read(LOCK)) == (27, text, "Other")
    upgrade.device.sh(f"rm {LOCK}").check()
    assert upgrade.left() == []


def test_the_time_outs_are_needed_for_an_upgrade(upgrade: Upgrade) -> None:
    """Without the settings the old version cannot be torn down whole, so it stays stored and its data saved."""
    upgrade.prepare()
    with changed(upgrade.device, SETTINGS, "[Install]\nAllowUnsigned=false\n"):
        status, told = upgrade.to_new()
    unknown = ("Failed to run pre-uninstall script during teardown of Sample: src/system/key-file.cpp: Failed reading key "
               f"PreUninstallScriptTimeout, group Install from {SETTINGS}: "
               "Key file does not have key “PreUninstallScriptTimeout” in group “Install”\n")  # fmt: skip
    assert (status, told) == (10, unknown + TEARDOWN_FAILED)
    assert upgrade.left() == sorted(TORN_DOWN + SAVED)


# --- data in a layer of its own ---


@pytest.mark.parametrize("location", ["sd_card1", pytest.param("internal_vlpfs", marks=pytest.mark.full)])
def test_written_data_follows_its_application_to_a_new_user_number(camera: Device, put_package: Put, location: str) -> None:
    """Setup gives the package's files to the user; what was written lies in another layer, with the old number."""
    settings = camera.read(SETTINGS)
    allow_unsigned(camera)
    camera.insert_card()
    upper = f"{PLACES[location]}/hello/upper"
    try:
        install(camera, put_package, hello(location), location)
        assert answer(camera) == "Hello, this is start number 1.\n"
        camera.velkctl("teardown", "hello").check()
        old = camera.sh(f"stat -c %u {upper}/localdata/starts").check().stdout
        install(camera, put_package, app("Sample"), "internal")  # takes the number over
        assert camera.run(["id", "-u", "velk-sample"]).stdout == old
        camera.velkctl("setup", "hello").check()
        assert camera.sh(f"stat -c %U {HELLO}/localdata/starts").stdout == "velk-hello\n"
        change_greeting(camera, "Good day")  # the settings went with the teardown
        assert answer(camera) == "Good day, this is start number 2.\n"
        # What is the system's own stays so, and what is the web server's.
        shown = camera.sh(f"cd {upper}; stat -c '%n %U:%G' conf/runstate.conf html/status.txt").stdout
        assert shown == "conf/runstate.conf root:root\nhtml/status.txt velk-hello:www\n"
    finally:
        camera.velkctl("uninstall", "hello")
        camera.remove_card()
        camera.write(SETTINGS, settings)
