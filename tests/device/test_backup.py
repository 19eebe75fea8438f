"""backup and restore as commands of their own: what is saved, what comes back, and what is left when a step fails."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest
import stepper
from apps import LOCK, app, is_locked, without_place
from setups import LOOK, STORE, look_at, section
from store_support import LAYERS
from velkdevice import package, snapshot
from velkdevice.device import Device

SAMPLE = f"{STORE}/Sample"
BACKUPS = f"{STORE}/_backup"
SAVED = f"{BACKUPS}/Sample"
KEPT = "/run/kept"
BACKED_UP = (0, "", "Backed up application Sample\n")
RESTORED = (0, "", "Restored application Sample\n")
OWN = "velk-sample:velk-sample"
SETTINGS = '[Sample]|Speed="1"|Colour="red"|'
DEFINITION = (
    "group Sample {|parser = Standard2parser|file = \"/etc/dynamic/Sample.conf\"|"
    "dbus = \"--system --dest=com.orvo.Param.Sample /com/orvo/Param/Sample "
    "com.orvo.Param.ChangeNotification string:'$NAME' string:'$VALUE'\"|"
    'accessControl = "admin:3;velk-sample:3;operator:1;viewer:0"|'
    'param Speed {|  mount = "Standard2{Sample}{Speed}"|  type = "string"|}|'
    'param Colour {|  mount = "Standard2{Sample}{Colour}"|  type = "string"|}|}|'
)  # fmt: skip


def look(device: Device, *paths: str) -> dict[str, str]:
    return look_at(device, *(paths or (f"{SAMPLE}/conf", f"{SAMPLE}/localdata", BACKUPS)))


def below(path: str, entries: dict[str, str]) -> dict[str, str]:
    """The same entries by their whole names; "" is the path itself."""
    return {f"{path}/{name}" if name else path: facts for name, facts in entries.items()}


def velkctl(device: Device, *arguments: str, **options: Any) -> tuple[int, str, str]:
    """Status and output of a command, which has given its lock back."""
    result = device.velkctl(*arguments, **options)
    assert not is_locked(device)
    return result.status, result.stdout, without_place(result.stderr)


def failure(text: str, code: int = 10) -> tuple[int, str, str]:
    return code, "", f"code {code}: {text}\n"


def changes(before: dict[str, str], after: dict[str, str]) -> dict[str, str]:
    """What has come or changed, and "gone" for what has gone."""
    come = {name: facts for name, facts in after.items() if before.get(name) != facts}
    return come | {name: "gone" for name in before.keys() - after.keys()}


@pytest.fixture(scope="module")
def home(device: Device, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Device]:
    """The device with the application, its data and settings kept aside; afterwards as it was."""
    before = snapshot.take(device)
    defaults = {"Speed": "1", "Colour": "red"}
    parameters = [{"name": name, "default": value, "type": "string"} for name, value in defaults.items()]
    files = section(app("Sample", runMode="once"), "velkPackageConf.configuration.paramConfig", parameters)
    folder = tmp_path_factory.mktemp("backup")
    packed = package.pack(package.write_tree(folder / "tree", files), folder / "Sample.vlp")
    device.copy_in(packed, f"{KEPT}/Sample.vlp")
    device.velkctl("install", f"{KEPT}/Sample.vlp").check()
    note = f"cd {SAMPLE}/localdata; echo one >note; mkdir -m 700 deep; echo two >deep/note; ln -s /etc/passwd link"
    device.run(["su", "-s", "/bin/sh", "-c", note, "velk-sample"]).check()
    device.velkctl("backup", "Sample").check()
    device.sh(f"tar -cf {KEPT}/own.tar -C {SAMPLE} conf localdata; mv {SAVED} {KEPT}/saved").check()
    yield device
    device.velkctl("uninstall", "Sample").check()
    device.sh(f"rm -r {KEPT}; rmdir {BACKUPS}").check()
    left = before.differences(snapshot.like(before, device))
    assert not left, left


@pytest.fixture
def sample(home: Device) -> Iterator[Device]:
    """The application as it was installed, with no backup; what a test leaves goes before the next."""
    yield home
    home.sh(f"""
        chattr -f -i {BACKUPS} {SAMPLE}; rm -rf {LOCK} {BACKUPS}/* {SAMPLE}/conf* {SAMPLE}/localdata* /tmp/victim
        tar -xpf {KEPT}/own.tar -C {SAMPLE}
    """).check()  # fmt: skip


@pytest.fixture
def saved(sample: Device) -> Device:
    """The application with a backup of just that."""
    sample.sh(f"cp -a {KEPT}/saved {SAVED}").check()
    return sample


DATA = {"localdata": "d 755 velk-sample:root ", "localdata/deep": "d 700 velk-sample:root ",
        "localdata/deep/note": "f 644 velk-sample:root two|", "localdata/link": "l 777 velk-sample:root /etc/passwd",
        "localdata/note": "f 644 velk-sample:root one|"}  # fmt: skip
# What is saved is root's own.
SAVED_DATA = {name: facts.replace("velk-sample", "root") for name, facts in DATA.items()}
SAVED_FILES = {"": "d 755 root:root ", "Sample.conf": f"f 600 root:root {SETTINGS}",
               "param_Sample.conf": f"f 600 root:root {DEFINITION}"}  # fmt: skip
WHOLE = below(SAVED, SAVED_FILES | SAVED_DATA)


# --- what is saved, and what comes back ---


def test_settings_parameters_and_data_are_saved_and_nothing_else_changes(sample: Device) -> None:
    before = look(sample, SAMPLE, BACKUPS)
    assert velkctl(sample, "backup", "Sample") == BACKED_UP
    assert changes(before, look(sample, SAMPLE, BACKUPS)) == WHOLE


def test_what_was_saved_comes_back_and_belongs_to_the_user(saved: Device) -> None:
    saved.sh(f"""
        cd {SAMPLE}; rm -r localdata; mkdir localdata; echo new >localdata/new
        printf '[Sample]\\nSpeed="7"\\nColour="blue"\\nAdded="x"\\n' >conf/Sample.conf; 
        chmod 644 conf/*.conf; chown root: conf/*.conf
    """).check()  # fmt: skip
    assert velkctl(saved, "restore", "Sample") == RESTORED
    seen = look(saved)
    # Saved values win, and what has come since stays.
    files = {"conf/Sample.conf": f'f 600 {OWN} {SETTINGS}Added="x"|',
             "conf/param_Sample.conf": f"f 600 {OWN} {DEFINITION}"}  # fmt: skip
    other = {name: seen[name] for name in (f"{SAMPLE}/conf", BACKUPS)}
    assert seen == other | below(SAMPLE, DATA | files) | WHOLE


def test_a_restored_application_can_be_restored_again(saved: Device) -> None:
    assert velkctl(saved, "restore", "Sample") == RESTORED
    before = look(saved, SAMPLE, BACKUPS)
    assert velkctl(saved, "restore", "Sample") == RESTORED
    assert changes(before, look(saved, SAMPLE, BACKUPS)) == {}


def test_an_application_without_data_is_saved_and_comes_back_without(sample: Device) -> None:
    sample.sh(f"rm -r {SAMPLE}/localdata").check()
    assert velkctl(sample, "backup", "Sample") == BACKED_UP
    before = look(sample, SAMPLE, BACKUPS)
    assert look(sample, BACKUPS) == {BACKUPS: "d 755 root:root "} | below(SAVED, SAVED_FILES)
    assert velkctl(sample, "restore", "Sample") == RESTORED
    assert changes(before, look(sample, SAMPLE, BACKUPS)) == {}


def test_data_that_came_after_the_backup_stays_when_none_was_saved(sample: Device) -> None:
    sample.sh(f"cd {SAMPLE}; mv localdata aside").check()
    velkctl(sample, "backup", "Sample")
    sample.sh(f"cd {SAMPLE}; mv aside localdata").check()
    before = look(sample)
    assert velkctl(sample, "restore", "Sample") == RESTORED
    assert changes(before, look(sample)) == {}


@pytest.mark.parametrize("missing", ["Sample.conf", "param_Sample.conf"])
def test_an_application_without_one_of_the_files_is_saved_and_comes_back_without(sample: Device, missing: str) -> None:
    # The parameter service needs the file that is missing then; an application without parameters has no link to it.
    sample.sh(f"rm {SAMPLE}/conf/{missing}; mv /etc/dynamic/param/Sample.conf {KEPT}/link").check()
    try:
        assert velkctl(sample, "backup", "Sample") == BACKED_UP
        saved = {name: facts for name, facts in SAVED_FILES.items() if name != missing} | SAVED_DATA
        assert look(sample, SAVED) == below(SAVED, saved)
        before = look(sample, f"{SAMPLE}/conf")
        assert velkctl(sample, "restore", "Sample") == RESTORED
        assert changes(before, look(sample, f"{SAMPLE}/conf")) == {}
    finally:
        sample.sh(f"mv {KEPT}/link /etc/dynamic/param/Sample.conf").check()


def test_an_application_of_which_there_is_nothing_has_an_empty_backup(sample: Device) -> None:
    sample.sh(f"rm -r {SAMPLE}/localdata {SAMPLE}/conf; mv /etc/dynamic/param/Sample.conf {KEPT}/link").check()
    try:
        assert velkctl(sample, "backup", "Sample") == BACKED_UP
        before = look(sample, SAMPLE, BACKUPS)
        assert look(sample, SAVED) == {SAVED: "d 755 root:root "}
        assert velkctl(sample, "restore", "Sample") == RESTORED
        assert changes(before, look(sample, SAMPLE, BACKUPS)) == {}
    finally:
        sample.sh(f"mv {KEPT}/link /etc/dynamic/param/Sample.conf").check()


def test_saved_files_without_current_ones_are_copied(saved: Device) -> None:
    before = look(saved, f"{SAMPLE}/conf")
    saved.sh(f"rm {SAMPLE}/conf/*.conf").check()
    assert velkctl(saved, "restore", "Sample") == RESTORED
    assert changes(before, look(saved, f"{SAMPLE}/conf")) == {}


def test_a_parameter_file_that_was_not_saved_is_given_to_the_user(saved: Device) -> None:
    before = look(saved, f"{SAMPLE}/conf")
    saved.sh(f"rm {SAVED}/param_Sample.conf; chown root: {SAMPLE}/conf/*; chmod 644 {SAMPLE}/conf/*").check()
    assert velkctl(saved, "restore", "Sample") == RESTORED
    assert changes(before, look(saved, f"{SAMPLE}/conf")) == {}


def test_a_backup_replaces_the_one_before_and_what_a_dead_one_left(saved: Device) -> None:
    saved.sh(f"""
        cd {BACKUPS}; touch Sample/old Sample/localdata/old; mkdir -p Sample.tmp/old Sample.remove/old
        cd {SAMPLE}/localdata; rm -r deep; echo three >note
    """).check()  # fmt: skip
    assert velkctl(saved, "backup", "Sample") == BACKED_UP
    data = {name: facts.replace("one", "three") for name, facts in SAVED_DATA.items() if "deep" not in name}
    assert look(saved, BACKUPS) == {BACKUPS: "d 755 root:root "} | below(SAVED, SAVED_FILES | data)


# --- what is refused ---


def test_without_a_backup_there_is_nothing_to_restore(sample: Device) -> None:
    before = look(sample, SAMPLE, BACKUPS)
    assert velkctl(sample, "restore", "Sample") == failure("No backup was found for: Sample")
    sample.write(SAVED, "no directory")
    assert velkctl(sample, "restore", "Sample") == failure("No backup was found for: Sample")
    sample.sh(f"rm {SAVED}").check()
    assert changes(before, look(sample, SAMPLE, BACKUPS)) == {}


def test_an_application_that_is_only_stored_is_saved_but_takes_nothing_back(sample: Device) -> None:
    sample.write(f"{STORE}/Bare/localdata/note", "one\n")
    try:
        # That there is no backup is told first.
        assert velkctl(sample, "restore", "Bare") == failure("No backup was found for: Bare")
        assert velkctl(sample, "backup", "Bare") == (0, "", "Backed up application Bare\n")
        before = look(sample, f"{STORE}/Bare", BACKUPS)
        assert velkctl(sample, "restore", "Bare") == failure(
            "Applicaiton Bare is not set up. Please run setup before running 'velkctl restore'.")  # fmt: skip
        assert changes(before, look(sample, f"{STORE}/Bare", BACKUPS)) == {}
        assert look(sample, BACKUPS) == {BACKUPS: "d 755 root:root "} | below(f"{BACKUPS}/Bare", {
            "": "d 755 root:root ", "localdata": "d 755 root:root ",
            "localdata/note": "f 644 root:root one|"})  # fmt: skip
    finally:
        sample.sh(f"rm -r {STORE}/Bare").check()


def test_an_application_in_a_layer_that_is_not_mounted_is_saved_from_its_layer(sample: Device) -> None:
    sample.write(f"{LAYERS}/Bare/upper/conf/Bare.conf", "[Bare]\n")
    sample.write(f"{LAYERS}/Bare/upper/localdata/note", "one\n")
    sample.sh(f"mkdir {STORE}/Bare; echo other >{STORE}/Bare/localdata").check()
    # The unit of its mount tells that it is kept there.
    unit = "/etc/systemd/system/usr-local-packages-Bare.mount"
    sample.write(unit, f"[Mount]\nOptions=lowerdir={LAYERS}/Bare/lower,upperdir={LAYERS}/Bare/upper\n")
    try:
        assert velkctl(sample, "backup", "Bare") == (0, "", "Backed up application Bare\n")
        assert look(sample, f"{BACKUPS}/Bare") == below(f"{BACKUPS}/Bare", {
            "": "d 755 root:root ", "Bare.conf": "f 644 root:root [Bare]|", "localdata": "d 755 root:root ",
            "localdata/note": "f 644 root:root one|"})  # fmt: skip
    finally:
        sample.sh(f"rm -r {STORE}/Bare {LAYERS}/Bare {unit}").check()


def test_a_running_application_is_left_alone(saved: Device) -> None:
    saved.velkctl("start", "Sample").check()
    try:
        before = look(saved, SAMPLE, BACKUPS)
        for command in ("backup", "restore"):
            assert velkctl(saved, command, "Sample") == failure(
                f"Application Sample is still running, please stop it before running {command}.")  # fmt: skip
        assert changes(before, look(saved, SAMPLE, BACKUPS)) == {}
    finally:
        saved.velkctl("stop", "Sample").check()


@pytest.mark.parametrize("command", ["backup", "restore"])
def test_what_is_no_application(sample: Device, command: str) -> None:
    assert velkctl(sample, command, "Nobody") == failure("Application not found in store: Nobody", 4)
    for name in ("../Sample", "1x", "", "a\n"):
        assert velkctl(sample, command, name) == failure("Character sequence in application name is not allowed")
    sample.write(LOCK, "Other")
    result = sample.velkctl(command, "Nobody")
    assert (result.status, result.stdout, result.stderr) == failure(
        f"Another instance is already running, lock file exists: {LOCK}", 12)  # fmt: skip
    assert look(sample, BACKUPS) == {BACKUPS: "d 755 root:root "}


# --- links where the system works as root ---

VICTIM = "/tmp/victim"


def plant(device: Device, script: str) -> dict[str, str]:
    """Do in the application's directory what the application could; what lies outside and must stay as it is then."""
    text = "printf '[Sample]\\nSpeed=9\\n'"
    device.sh(f"mkdir -p {VICTIM}/sub; cd {VICTIM}; {text} | tee Sample.conf param_Sample.conf >sub/note").check()
    device.sh(f"chown velk-sample {SAMPLE}").check()
    device.run(["su", "-s", "/bin/sh", "-c", f"cd {SAMPLE}; {script}", "velk-sample"]).check()
    device.sh(f"chown --reference={SAMPLE}/LICENSE {SAMPLE}").check()
    return look(device, VICTIM, "/etc/passwd")


def test_a_linked_conf_directory_is_not_read(sample: Device) -> None:
    before = look(sample, BACKUPS)
    victim = plant(sample, f"mv conf conf2; ln -s {VICTIM} conf")
    assert velkctl(sample, "backup", "Sample") == failure(
        f"src/system/area.cpp: Failed opening {SAMPLE}/conf: Not a directory")  # fmt: skip
    assert look(sample, VICTIM, "/etc/passwd") == victim
    assert changes(before, look(sample, BACKUPS)) == {}


def test_a_linked_conf_directory_is_not_written_to(saved: Device) -> None:
    victim = plant(saved, f"mv conf conf2; ln -s {VICTIM} conf")
    before = look(saved, SAMPLE, BACKUPS)
    assert velkctl(saved, "restore", "Sample") == failure(
        f"src/system/area.cpp: Failed opening {SAMPLE}/conf: Not a directory")  # fmt: skip
    assert look(saved, VICTIM, "/etc/passwd") == victim
    assert changes(before, look(saved, SAMPLE, BACKUPS)) == {}


def test_linked_files_are_left_out_and_replaced_by_files(saved: Device) -> None:
    before = look(saved, f"{SAMPLE}/conf")
    victim = plant(saved, f"cd conf; ln -sf {VICTIM}/Sample.conf Sample.conf; ln -sf {VICTIM}/sub param_Sample.conf")
    assert velkctl(saved, "restore", "Sample") == RESTORED
    assert (look(saved, VICTIM, "/etc/passwd"), changes(before, look(saved, f"{SAMPLE}/conf"))) == (victim, {})
    plant(saved, f"cd conf; ln -sf {VICTIM}/Sample.conf Sample.conf; rm param_Sample.conf")
    left_out = f"Leaving out {SAMPLE}/conf/Sample.conf, which is no regular file\n"
    assert velkctl(saved, "backup", "Sample") == (0, "", left_out + BACKED_UP[2])
    assert look(saved, f"{SAVED}/Sample.conf") == {}


def test_linked_data_is_unlinked_and_not_saved(sample: Device) -> None:
    victim = plant(sample, f"rm -r localdata; ln -s {VICTIM} localdata")
    before = look(sample, SAMPLE)
    assert velkctl(sample, "backup", "Sample") == BACKED_UP
    assert look(sample, VICTIM, "/etc/passwd") == victim
    assert changes(before, look(sample, SAMPLE)) == {f"{SAMPLE}/localdata": "gone"}
    assert look(sample, SAVED) == below(SAVED, SAVED_FILES)


def test_linked_data_is_replaced_by_what_was_saved(saved: Device) -> None:
    victim = plant(saved, f"rm -r localdata; ln -s {VICTIM} localdata")
    assert velkctl(saved, "restore", "Sample") == RESTORED
    assert look(saved, VICTIM, "/etc/passwd") == victim
    assert look(saved, f"{SAMPLE}/localdata") == below(SAMPLE, DATA)


PLANTS = [f"ln -s {VICTIM}/Sample.conf {{}}", f"ln -s {VICTIM}/sub {{}}", "mkdir -p {}/deep", "echo left >{}",
          "mkfifo {}"]  # fmt: skip


@pytest.mark.parametrize("script", PLANTS[1:])
def test_whatever_lies_where_the_temporary_files_go_goes_first(saved: Device, script: str) -> None:
    velkctl(saved, "restore", "Sample")
    before = look(saved, SAMPLE, BACKUPS)
    names = ("conf/Sample.conf.tmp", "conf/param_Sample.conf.tmp", "localdata.tmp")
    victim = plant(saved, "; ".join(script.format(name) for name in names))
    assert velkctl(saved, "restore", "Sample") == RESTORED
    assert (look(saved, VICTIM, "/etc/passwd"), changes(before, look(saved, SAMPLE, BACKUPS))) == (victim, {})


@pytest.mark.parametrize("script", [PLANTS[0], PLANTS[2], PLANTS[3]])
def test_what_lies_where_the_temporary_files_go_is_not_taken_for_what_was_saved(saved: Device, script: str) -> None:
    saved.sh(f"rm -r {SAVED}/*").check()
    before = look(saved, SAMPLE, BACKUPS)
    victim = plant(saved, "; ".join(script.format(f"conf/{name}.tmp") for name in ("Sample.conf", "param_Sample.conf")))
    assert velkctl(saved, "restore", "Sample") == RESTORED
    assert (look(saved, VICTIM, "/etc/passwd"), changes(before, look(saved, SAMPLE, BACKUPS))) == (victim, {})


# --- steps that fail ---

NO_KEYS = "src/system/key-file.cpp: Failed loading keys from:"


@pytest.mark.parametrize(("name", "text", "log"), [
    ("param_Sample.conf", "group Sample {\n", "param_Sample.conf is not a parameter group file"),
    ("Sample.conf", "[Other]\n", f"{NO_KEYS} Sample.conf Error: there is no group Sample"),
])  # fmt: skip
def test_a_saved_file_that_cannot_be_merged_leaves_everything_as_it_is(
    saved: Device, name: str, text: str, log: str
) -> None:
    saved.write(f"{SAVED}/{name}", text)
    before = look(saved, SAMPLE, BACKUPS)
    assert velkctl(saved, "restore", "Sample") == failure(log)
    assert changes(before, look(saved, SAMPLE, BACKUPS)) == {}


@pytest.mark.parametrize(("name", "text", "log"), [
    ("param_Sample.conf", "group Sample {\n", "{} is not a parameter group file"),
    ("Sample.conf", "[Other]\n", f"{NO_KEYS} {{}} Error: there is no group Sample"),
])  # fmt: skip
def test_a_current_file_that_cannot_be_merged_is_named_and_left(saved: Device, name: str, text: str, log: str) -> None:
    saved.write(f"{SAMPLE}/conf/{name}", text)
    before = look(saved, SAMPLE, BACKUPS)
    assert velkctl(saved, "restore", "Sample") == failure(log.format(f"{SAMPLE}/conf/{name}"))
    assert changes(before, look(saved, SAMPLE, BACKUPS)) == {}


def test_settings_without_a_directory_to_come_back_to(saved: Device) -> None:
    saved.sh(f"rm -r {SAMPLE}/conf").check()
    assert velkctl(saved, "restore", "Sample") == failure(
        f"src/system/area.cpp: Failed opening {SAMPLE}/conf: No such file or directory")  # fmt: skip


def test_parameters_that_cannot_be_loaded_are_told_after_the_settings_and_before_the_data(saved: Device) -> None:
    velkctl(saved, "restore", "Sample")
    saved.sh(f"""
        cd {SAMPLE}; sed -i 's/red/blue/' conf/Sample.conf; echo new >localdata/note
        chattr +i /run/velkctl-param-groups
    """).check()  # fmt: skip
    before = look(saved, SAMPLE, BACKUPS)
    outcome = velkctl(saved, "restore", "Sample")
    saved.sh("chattr -i /run/velkctl-param-groups").check()
    assert outcome == failure("src/integration/cfgtree.cpp: Failed loading parameter configuration file: "
                              "/etc/dynamic/param/Sample.conf")  # fmt: skip
    assert changes(before, look(saved, SAMPLE, BACKUPS)) == {f"{SAMPLE}/conf/Sample.conf": f"f 600 {OWN} {SETTINGS}"}


def test_data_that_no_directory_can_take_the_place_of(saved: Device) -> None:
    saved.sh(f"cd {SAMPLE}; rm -r localdata; echo file >localdata").check()
    place = "src/lifecycle/velkctl-restore.cpp"
    assert velkctl(saved, "restore", "Sample") == failure(
        f"{place}: Failed renaming {SAMPLE}/localdata.tmp to {SAMPLE}/localdata: Not a directory")  # fmt: skip
    assert saved.read(f"{SAMPLE}/localdata") == "file\n"


COPYING = "src/system/copy-tree.cpp: Failed copying {} to {}: {}"


def failing(device: Device, command: str, path: str) -> tuple[int, str, str]:
    """Status and output of a command of which the first writing, or change of the owner, at the path fails."""
    argv = ["/usr/bin/velkctl", command, "Sample"]
    points = stepper.run(device, argv).points
    call = "fchown" if path.startswith("fchown ") else "write"
    number = next(point.number for point in points if f"{point.call} {point.path}" == f"{call} {path.split()[-1]}")
    device.sh(f"echo new >{SAMPLE}/localdata/note").check()
    result = stepper.run(device, argv, fail=number).result
    assert not is_locked(device)
    return result.status, result.stdout, without_place(result.stderr)


@pytest.mark.parametrize(("name", "written"), [
    ("conf/Sample.conf", "Sample.conf"), ("conf/param_Sample.conf", "param_Sample.conf"),
    ("localdata", "localdata/deep/note"),
])  # fmt: skip
def test_a_copy_that_fails_leaves_the_backup_before(saved: Device, name: str, written: str) -> None:
    text = COPYING.format(f"{SAMPLE}/{name}", f"{SAVED}.tmp/{name.split('/')[-1]}", "Input/output error")
    assert failing(saved, "backup", f"{SAVED}.tmp/{written}") == failure(text)
    assert look(saved, BACKUPS) == {BACKUPS: "d 755 root:root "} | WHOLE
    assert velkctl(saved, "backup", "Sample") == BACKED_UP
    assert look(saved, BACKUPS).keys() == {BACKUPS} | WHOLE.keys()


@pytest.mark.parametrize(("name", "target", "written"), [
    ("Sample.conf", "conf/Sample.conf.tmp", "conf/Sample.conf.tmp"),
    ("param_Sample.conf", "conf/param_Sample.conf.tmp", "conf/param_Sample.conf.tmp"),
    ("localdata", "localdata.tmp/localdata", "localdata.tmp/localdata/deep/note"),
    ("localdata", "localdata.tmp/localdata", "fchown localdata.tmp/localdata/deep/note"),
])  # fmt: skip
def test_a_copy_back_that_fails_leaves_what_is_there(saved: Device, name: str, target: str, written: str) -> None:
    velkctl(saved, "restore", "Sample")
    merged = f"{SAVED}.merge" if name.endswith(".conf") else SAVED
    text = COPYING.format(f"{merged}/{name}", f"{SAMPLE}/{target}", "Input/output error")
    before = look(saved)
    call, _, path = written.rpartition(" ")
    found = failing(saved, "restore", f"{call} {SAMPLE}/{path}".strip())
    assert found == failure(text)
    assert changes(before, look(saved)) == {f"{SAMPLE}/localdata/note": "f 644 velk-sample:root new|"}


@pytest.mark.parametrize("older", [False, True])
def test_a_rename_that_fails_leaves_the_backup_before_or_none(sample: Device, older: bool) -> None:
    if older:
        velkctl(sample, "backup", "Sample")
    before = look(sample, SAVED)
    sample.sh(f"echo new >{SAMPLE}/localdata/note").check()
    with stepper.hold(sample, ["/usr/bin/velkctl", "backup", "Sample"], when=f"{SAVED}.tmp/localdata/deep") as held:
        sample.sh(f"chattr +i {BACKUPS}").check()
        outcome = held.let_go()
    sample.sh(f"chattr -i {BACKUPS}").check()
    way = f"{SAVED} to {SAVED}.remove" if older else f"{SAVED}.tmp to {SAVED}"
    text = f"src/lifecycle/velkctl-backup.cpp: Failed renaming {way}: Operation not permitted"
    assert (outcome.status, without_place(outcome.stderr).splitlines()[-1]) == (10, f"code 10: {text}")
    assert not is_locked(sample)
    assert look(sample, SAVED) == before


def test_a_restore_comes_back_to_a_working_directory_that_is_gone(saved: Device) -> None:
    saved.sh(f"echo new >{SAMPLE}/localdata/note").check()
    result = saved.sh("mkdir /tmp/gone && cd /tmp/gone && rmdir /tmp/gone && exec velkctl restore Sample")
    # The shell that velkctl runs for a command of its own complains of the directory too.
    log = [line for line in result.stderr.splitlines() if "getcwd() failed" not in line]
    assert (result.status, log, is_locked(saved)) == (0, ["Restored application Sample"], False)
    assert look(saved, f"{SAMPLE}/localdata") == below(SAMPLE, DATA)


# --- disks that are full ---


def in_small(device: Device, place: str, script: str) -> list[str]:
    """Run a script with a small disk at the place, and on it what was there; nothing stays mounted."""
    whole = f"""
        tar -cf {KEPT}/small.tar -C {place} . && mount -t tmpfs -o size=256k none {place} &&
            cd {place} && tar -xpf {KEPT}/small.tar
        look() {{ {LOOK} }}
        {script}
    """
    return device.run(["unshare", "--mount", "sh", "-c", whole]).check().stdout.splitlines()


def test_a_backup_that_does_not_fit_leaves_the_one_before(saved: Device) -> None:
    saved.sh(f"head -c 400000 /dev/zero >{SAMPLE}/localdata/large").check()
    found = in_small(saved, BACKUPS, f"velkctl backup Sample 2>&1; echo status $?; look {SAVED} {SAVED}.tmp")
    status = found.index("status 10")
    assert "No space left on device" in "".join(found[:status])
    text = COPYING.format(f"{SAMPLE}/localdata", f"{SAVED}.tmp/localdata", "No space left on device")
    assert without_place(found[status - 1]) == f"code 10: {text}"
    assert dict(line.split("\t", 1) for line in found[status + 1 :]) == WHOLE


def test_data_that_does_not_fit_leaves_the_data_that_is_there(sample: Device) -> None:
    sample.sh(f"head -c 400000 /dev/zero >{SAMPLE}/localdata/large").check()
    velkctl(sample, "backup", "Sample")
    sample.sh(f"rm {SAMPLE}/localdata/large; echo new >{SAMPLE}/localdata/note").check()
    before = look(sample)
    found = in_small(sample, SAMPLE, "velkctl restore Sample 2>&1; echo status $?; "
                                     f"look {SAMPLE}/conf {SAMPLE}/localdata*")  # fmt: skip
    status = found.index("status 10")
    text = COPYING.format(f"{SAVED}/localdata", f"{SAMPLE}/localdata.tmp/localdata", "No space left on device")
    assert without_place(found[status - 1]) == f"code 10: {text}"
    seen = dict(line.split("\t", 1) for line in found[status + 1 :])
    assert seen == {name: facts for name, facts in before.items() if not name.startswith(BACKUPS)}


def test_settings_that_do_not_fit_leave_the_ones_that_are_there(saved: Device) -> None:
    before = look(saved, f"{SAMPLE}/conf")
    found = in_small(saved, SAMPLE, "cat /dev/zero >filler 2>/dev/null; velkctl restore Sample 2>&1; echo status $?; "
                                     f"look {SAMPLE}/conf")  # fmt: skip
    text = COPYING.format(f"{SAVED}.merge/Sample.conf", f"{SAMPLE}/conf/Sample.conf.tmp", "No space left on device")
    assert (without_place(found[0]), found[1]) == (f"code 10: {text}", "status 10")
    assert dict(line.split("\t", 1) for line in found[2:]) == before


# --- interrupted ---


def test_wherever_a_backup_dies_there_is_the_one_before_or_the_new_one(sample: Device) -> None:
    old = WHOLE
    new = {name: facts.replace("one|", "new|") for name, facts in WHOLE.items()}
    velkctl(sample, "backup", "Sample")
    sample.sh(f"echo new >{SAMPLE}/localdata/note; cp -a {SAVED} {KEPT}/old").check()
    steps = stepper.run(sample, ["/usr/bin/velkctl", "backup", "Sample"])
    assert (steps.end, look(sample, SAVED)) == ("exited 0", new)
    # Before its copies are complete it does not touch the name.
    first = next(point.number for point in steps.points if point.path == SAVED)
    seen = []
    for number in range(first - 2, len(steps.points) + 1):
        sample.sh(f"rm -rf {LOCK} {BACKUPS}/*; cp -a {KEPT}/old {SAVED}").check()
        assert stepper.run(sample, ["/usr/bin/velkctl", "backup", "Sample"], kill=number).end == "killed"
        found = look(sample, SAVED)
        assert found in (old, new), steps.points[number - 1]
        seen.append("old" if found == old else "new")
    assert [name for place, name in enumerate(seen) if place == 0 or seen[place - 1] != name] == ["old", "new"]
    sample.sh(f"rm -r {KEPT}/old").check()
