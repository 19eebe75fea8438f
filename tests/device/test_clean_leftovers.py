"""clean and the files that dead commands left: all of them go, and nothing else; and staging directories that stay."""

from __future__ import annotations

import gzip
from collections.abc import Callable, Iterator

import pytest
import stepper
from apps import LOCK, app, is_locked, stored, without_place
from setups import STORE, UNITS, program
from store_support import CARD, STATES, archive, base_members, put, simple_package, temporaries
from velkdevice import package
from velkdevice.device import Device

Put = Callable[..., str]
VELKCTL = "/usr/bin/velkctl"
NOTHING = "No cleanup necessary"
# Beside a target in each of these a whole file is written by way of a temporary one.
PLACES = [UNITS, f"{UNITS}/sdkOther.service.d", "/etc/apache2/transfer", "/etc/apache2/fcgi", "/etc/apache2/conf.d/vhosts/all",
          "/etc/dbus-1/system.d", "/etc/dynamic", STATES, "/etc/velk/preinstalled", "/etc", "/run/velkctl-param-groups",
          f"{STORE}/Sample/conf"]  # fmt: skip
# What looks like a temporary file in a directory, and is none of a dead command.
OTHERS = r"""
cd "$1" && mkdir .filesync-Direct .filesync-direct2 && echo x >.filesync-direct2/.filesync-Abc123
ln -s /etc/passwd .filesync-Linked; mkfifo .filesync-Piped1; echo x >.filesync-Nobody; chown nobody .filesync-Nobody
echo x >.filesync-Short; echo x >.filesync-Longer7; echo x >.filesync-Abc.12; echo x >x.filesync-Abc123
"""


def clean(device: Device) -> tuple[int, list[str]]:
    result = device.velkctl("clean")
    return result.status, without_place(result.stderr).splitlines()


def found(device: Device) -> list[str]:
    """Everything that is called like a temporary file, wherever it is."""
    script = r"find /etc /run /tmp /usr/local/packages -xdev \( -name '*filesync-*' -o -path '/tmp/velkctl_*' \) -print | sort"
    return device.sh(script).stdout.splitlines()


@pytest.fixture
def machine(pristine: Device, put_package: Put) -> Iterator[Device]:
    """The device with an application, and every directory that a file may be written in."""
    pristine.velkctl("install", put_package(pristine, app("Sample"))).check()
    made = pristine.sh('for d; do [ -d "$d" ] || { mkdir -p "$d" && echo "$d"; }; done', *PLACES).check().stdout.split()
    yield pristine
    pristine.sh('rm -rf /usr/local/packages/_lock/* /tmp/velkctl_* /tmp/packages; find /etc /run /usr/local/packages -xdev '
                "-name '*filesync-*' -prune -exec rm -rf {} +").check()  # fmt: skip
    if stored(pristine):
        pristine.velkctl("uninstall", "Sample").check()
    pristine.sh('for d; do rmdir "$d"; done', *made)


@pytest.mark.parametrize("lock", ["", "no_clean_on_failure"])
def test_what_dead_commands_left_goes_and_nothing_else(machine: Device, lock: str) -> None:
    """With a lock file and without one: verify-signature takes none."""
    left = [f"{place}/.filesync-Ab3xYz" for place in PLACES] + ["/tmp/velkctl_a1B2c3.sig", "/tmp/velkctl_a1B2c4.vlp"]
    for path in left:
        machine.write(path, "x", mode=0o600)
    machine.sh("echo x >/tmp/velkctl_whole1.vlp; chmod 1644 /tmp/velkctl_whole1.vlp").check()
    # Complete, and not worked with: left on purpose. And what somebody else made, or what is no file.
    machine.sh("cd /tmp; echo x >velkctl_refuse.vlp; chmod 644 velkctl_refuse.vlp; echo x >velkctl_nobody.sig; "
               "chown nobody velkctl_nobody.sig; ln -s /etc/passwd velkctl_linked.sig; mkdir velkctl_folder.sig; "
               "echo x >velkctl_short.sig; echo x >velkctl_a1B2c3.tmp").check()  # fmt: skip
    for place in ("/etc", f"{STORE}/Sample/conf"):
        machine.sh(OTHERS, place).check()
    dead = sorted([*left, "/tmp/velkctl_whole1.vlp"])
    before = found(machine)
    assert set(dead) < set(before)
    if lock:
        machine.write(LOCK, lock)
    status, told = clean(machine)
    assert (status, sorted(told[:-1]), is_locked(machine)) == (
        0, sorted([f"Removing {path}" for path in dead] + ([f"Removing {STORE}/{lock}.tmp"] if lock else [])), False)  # fmt: skip
    assert found(machine) == [path for path in before if path not in dead]
    assert clean(machine) == (0, [NOTHING])


@pytest.mark.parametrize("command", ["verify-signature", "import", "start"])
def test_killed_anywhere_a_command_leaves_no_file(machine: Device, command: str, full: bool) -> None:
    argument = "Sample" if command == "start" else put(machine, simple_package("Other"), "Other.vlp")
    line = [VELKCTL, command, argument]

    def restore() -> None:
        machine.velkctl("stop", "Sample")
        machine.velkctl("remove", "Other")
        machine.sh("rm -f /etc/velk/vsf/Other")

    steps = stepper.run(machine, line)
    assert steps.end == "exited 0", steps.result
    near = [point.number + 1 for point in steps.points if point.call.startswith("open") and "XXXXXX" not in point.path]
    for number in range(1, len(steps.points) + 1) if full else near[:: max(1, len(near) // 6)]:
        restore()
        steps = stepper.run(machine, line, kill=number)
        told = clean(machine)
        assert found(machine) == [], ([str(point) for point in steps.points[-1:]], told)
    restore()


def test_the_files_of_a_living_command_stay(machine: Device) -> None:
    """It stands in the middle of a verification, without a lock."""
    path = put(machine, simple_package("Other"), "Other.vlp")
    dead = "/tmp/velkctl_a1B2c3.sig"
    with program(machine, "gpgv", 'touch /tmp/fake/reached; read line </tmp/fake/gate; exec "$REAL" "$@"\n') as env:
        machine.sh("mkfifo /tmp/fake/gate").check()
        process, _ = machine.start([VELKCTL, "verify-signature", path], env=env)
        machine.wait_for(lambda: machine.exists("/tmp/fake/reached"), "the verification to begin")
        before = temporaries(machine)
        assert len(before) == 2
        machine.write(LOCK, "no_clean_on_failure")
        assert clean(machine)[1][-1] == "Deleted lock file. No further cleanup necessary."
        assert temporaries(machine) == before
        machine.write(dead, "x")
        assert clean(machine) == (0, [NOTHING])
        machine.sh("echo go >/tmp/fake/gate").check()
        process.communicate(timeout=60)
    assert (process.returncode, temporaries(machine)) == (0, [dead.rsplit("/", 1)[1]])
    assert clean(machine) == (0, [f"Removing {dead}", NOTHING])


@pytest.mark.parametrize(("user", "is_swept"), [(None, False), ("nobody", True)])
def test_only_a_living_command_of_root_keeps_files(machine: Device, user: str | None, is_swept: bool) -> None:
    """An application can run velkctl as itself and keep it from ending."""
    dead = "/tmp/velkctl_a1B2c3.sig"
    machine.write(dead, "x")
    machine.sh("mkdir -p /tmp/fake && cp /usr/bin/sleep /tmp/fake/velkctl").check()
    process, _ = machine.start(["/tmp/fake/velkctl", "600"], user=user)
    machine.wait_for(lambda: machine.sh("pgrep -x velkctl").status == 0, "it to run")
    found = clean(machine)
    machine.sh("pkill -x velkctl; rm -r /tmp/fake").check()
    process.communicate(timeout=60)
    assert found == (0, [f"Removing {dead}", NOTHING] if is_swept else [NOTHING])


def test_data_whose_signature_was_refused_stays(machine: Device) -> None:
    data = gzip.compress(archive(base_members("Other")))
    path = put(machine, package.append_signature(data, package.Key.trusted().sign(data + b"x")), "Other.vlp")
    assert machine.velkctl("import", path).status == 2
    left = temporaries(machine)
    assert (len(left), clean(machine), temporaries(machine)) == (1, (0, [NOTHING]), left)


# --- staging directories and unfinished backups ---


def test_unfinished_backups_go(machine: Device) -> None:
    machine.velkctl("backup", "Sample").check()
    machine.sh('cd "$1/_backup" && mkdir Sample.tmp Sample.remove Other.tmp && touch Other.tmp/x', STORE).check()
    machine.write(LOCK, "no_clean_on_failure")
    status, told = clean(machine)
    names = [f"{STORE}/{name}" for name in ("no_clean_on_failure.tmp", "_backup/Other.tmp", "_backup/Sample.remove",
                                            "_backup/Sample.tmp")]  # fmt: skip
    assert (status, told[:-1]) == (0, [f"Removing {name}" for name in names])
    assert machine.sh(f"ls -A {STORE}/_backup").stdout == "Sample\n"


def test_staging_directories_go_wherever_they_are(machine: Device) -> None:
    machine.insert_card()
    machine.sh('mkdir -p "$1/Sample.tmp/x" "$1/Other.tmp" "$2/Sample.tmp/x"', CARD, STORE).check()
    machine.write(LOCK, "Sample")
    status, told = clean(machine)
    left = machine.sh('ls -A "$1"; ls -A "$2"; rm -r "$1"', CARD, STORE).stdout.split()
    machine.remove_card()
    assert (status, told[:2]) == (0, [f"Removing {STORE}/Sample.tmp", f"Removing {CARD}/Sample.tmp"])
    assert sorted(left) == ["Other.tmp", "_backup", "_lock"] or sorted(left) == ["Other.tmp", "_lock"]


def test_what_still_unpacks_is_ended(machine: Device) -> None:
    """Only velkctl was killed; what it started makes one file after the other, by the unprivileged user."""
    path = put(machine, simple_package("Other"), "Other.vlp")
    script = 'case "$*" in *-xf*) i=0; while [ $i -lt 20000 ]; do mkdir d$i; i=$((i + 1)); done;; *) exec "$REAL" "$@";; esac\n'
    kill = r"""
        velkctl import "$1" >/dev/null 2>&1 &
        until [ -d "$2/d5" ]; do sleep 0.01; kill -0 $! || exit 1; done
        kill -9 $!; wait
        velkctl clean; status=$?
        ls -d "$2"; pgrep -u nobody tar; exit $status
    """
    with program(machine, "tar", script) as env:
        result = machine.sh(kill, path, f"{STORE}/Other.tmp", env=env)
    lines = [line for line in result.stderr.splitlines() if not line.startswith("Sending signal 9 to process ")]
    assert (result.status, result.stdout) == (4, ""), result
    assert [line for line in lines if "velkctl_" not in line] == [
        f"Removing {STORE}/Other.tmp", "code 4: Application not found in store: Other",
        f"ls: cannot access '{STORE}/Other.tmp': No such file or directory"]  # fmt: skip
    machine.sh("rm -f /etc/velk/vsf/Other")


def test_whoever_logged_in_and_stands_there_lives_on(machine: Device) -> None:
    machine.sh(f"mkdir {STORE}/Other.tmp").check()
    machine.write(LOCK, "Other")
    login = f"cd {STORE}/Other.tmp; velkctl clean; echo still $?"
    result = machine.run(["script", "-qec", f"sh -c '{login}'", "/dev/null"])
    assert result.stdout.splitlines()[-1].strip() == "still 4", result
    assert not machine.exists(f"{STORE}/Other.tmp")
    machine.sh(f"mkdir {STORE}/Other.tmp").check()
    machine.write(LOCK, "Other")
    login = f"cd {STORE}/Other.tmp; touch /tmp/fake/stands; read line </tmp/fake/gate; echo still"
    machine.sh("mkdir /tmp/fake; mkfifo /tmp/fake/gate").check()
    process, _ = machine.start(["script", "-qec", f"sh -c '{login}'", "/dev/null"])
    machine.wait_for(lambda: machine.exists("/tmp/fake/stands"), "somebody to log in")
    assert clean(machine)[0] == 4
    lives = process.poll() is None
    machine.sh("timeout 10 sh -c 'echo go >/tmp/fake/gate'; rm -r /tmp/fake").check()
    out, _ = process.communicate(timeout=60)
    assert lives
    assert out.decode().strip() == "still"


@pytest.fixture
def stuck(machine: Device) -> Iterator[str]:
    """A staging directory that cannot be removed, since something is mounted in it."""
    staging = f"{STORE}/Other.tmp"
    machine.sh('mkdir -p "$1/in" && mount -t tmpfs none "$1/in"', staging).check()
    yield staging
    machine.sh('umount "$1/in"; rm -rf "$1"', staging).check()


def test_one_that_cannot_be_removed_is_tried_twice(machine: Device, stuck: str) -> None:
    machine.write(LOCK, "Other")
    status, told = clean(machine)
    once = [line for line in told if line == f"src/system/tree.cpp: Failed recursive removal of {stuck}"]
    assert (status, len(once), told[0], is_locked(machine)) == (4, 2, f"Removing {stuck}", False), told
    assert len(told) <= 6, told


def test_nothing_is_unpacked_over_one_that_cannot_be_removed(machine: Device, stuck: str) -> None:
    path = put(machine, simple_package("Other"), "Other.vlp")
    result = machine.velkctl("import", path)
    last = without_place(result.stderr).splitlines()[-1]
    assert (result.status, last) == (
        10, f"code 10: src/store/store-layout.cpp: Leftover staging directory cannot be removed: {stuck}")  # fmt: skip
    assert machine.sh(f"ls -A {stuck}").stdout == "in\n"
    assert (stored(machine), is_locked(machine), temporaries(machine)) == (["Other.tmp", "Sample"], False, [])
    machine.sh("rm -f /etc/velk/vsf/Other")
