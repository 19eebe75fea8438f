"""
The kit itself: nothing that happens on a device reaches the host, and a device is what it claims to be.

Long, since it lists the ways out.
"""

from __future__ import annotations

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from velkdevice import host, image, package, parts, snapshot
from velkdevice.device import Device, DeviceDead, DeviceError

CHECKOUT = Path(__file__).resolve().parents[2]
Boot = Callable[..., Device]


def wait_until(condition: Callable[[], bool], timeout: float = 20) -> bool:
    end = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.02)
    return True


def tree(folder: Path) -> dict[str, tuple[int, int, int]]:
    """Mode, size and change time of everything below a folder: any write to it shows."""
    found = {}
    for top, folders, files in os.walk(folder):
        for name in (*folders, *files):
            path = os.path.join(top, name)
            status = os.lstat(path)
            found[path] = (status.st_mode, status.st_size, status.st_ctime_ns)
    return found


def host_mounts() -> str:
    return Path("/proc/self/mountinfo").read_text(encoding="utf-8")


def host_loops() -> set[str]:
    return {path.read_text().strip() for path in Path("/sys/block").glob("loop*/loop/backing_file")}


class Host:
    """
    What must not change on the host: its mounts, a folder of files, a process, the image, this checkout.
    """

    def __init__(self, folder: Path) -> None:
        self.canary = folder / "canary"
        self.canary.mkdir()
        (self.canary / "sub").mkdir()
        (self.canary / "sub" / "file").write_text("precious", encoding="utf-8")
        self.process = subprocess.Popen(["sleep", "600"])
        self.before = self.state()

    def state(self) -> tuple[object, ...]:
        return (
            host_mounts(),
            tree(self.canary),
            tree(image.ensure()),
            tree(CHECKOUT / "device"),
            Path("/etc/os-release").read_bytes(),
        )

    def assert_unharmed(self) -> None:
        assert self.process.poll() is None, "a process of the host was killed"
        for before, after in zip(self.before, self.state()):
            assert before == after


@pytest.fixture
def unharmed_host(tmp_path: Path) -> Iterator[Host]:
    watched = Host(tmp_path)
    yield watched
    try:
        watched.assert_unharmed()
    finally:
        watched.process.kill()
        watched.process.wait()


# --- the host is safe from the device ---


def test_unmounting_the_root_and_deleting_everything_stays_inside(
    unharmed_host: Host, fresh_device: Device
) -> None:
    assert fresh_device.run(["umount", "-l", "/"]).status == 0
    fresh_device.run(["rm", "-rf", "--no-preserve-root", "/"], timeout=60)
    unharmed_host.assert_unharmed()
    fresh_device.close()


def test_deleting_everything_ends_the_device_and_nothing_else(
    unharmed_host: Host, fresh_device: Device
) -> None:
    fresh_device.run(["rm", "-rf", "--no-preserve-root", "/"], timeout=60)
    gone = fresh_device.run(["/bin/true"])
    assert (gone.status, gone.stderr) == (127, "velk-enter: /bin/true: No such file or directory\n")
    unharmed_host.assert_unharmed()
    fresh_device.close()


def test_killing_every_process_stays_inside(unharmed_host: Host, fresh_device: Device) -> None:
    before = fresh_device.run(["systemctl", "show", "-P", "MainPID", "httpd"]).stdout
    result = fresh_device.sh("kill -9 -1")
    assert result.status in (0, -signal.SIGKILL)
    assert wait_until(lambda: not fresh_device.sh('test -d "/proc/$1"', before.strip()).status == 0)
    unharmed_host.assert_unharmed()


@pytest.mark.parametrize(
    "command",
    [
        ["date", "--set=2001-01-01"],
        ["mknod", "/tmp/disk", "b", "254", "0"],
        ["sh", "-c", "echo b >/proc/sysrq-trigger"],
        ["sh", "-c", "echo host >/proc/sys/kernel/core_pattern"],
        ["dmesg", "--clear"],
    ],
    ids=["clock", "disk node", "sysrq", "kernel setting", "kernel log"],
)
def test_what_would_reach_the_kernel_is_refused(device: Device, command: list[str]) -> None:
    assert device.run(command).status != 0


def test_no_descriptor_of_the_host_is_inherited(device: Device) -> None:
    assert device.run(["ls", "/proc/self/fd"]).stdout.split() == ["0", "1", "2", "3"]  # 3 is ls's own


def test_the_host_release_file_is_not_within_reach(device: Device) -> None:
    script = "cat /proc/self/mountinfo"
    lines = [line for line in device.sh(script).stdout.splitlines() if " /run/host" in line]
    assert lines
    assert all(" - tmpfs " in line for line in lines)


def test_only_temporary_file_systems_the_image_and_its_own_disk_are_mounted(fresh_device: Device) -> None:
    kinds: dict[str, set[str]] = {}
    for line in fresh_device.read("/proc/self/mountinfo").splitlines():
        kind, source = line.partition(" - ")[2].split()[:2]
        kinds.setdefault(kind, set()).add(source)
    harmless = {"tmpfs", "devpts", "proc", "sysfs", "cgroup2", "mqueue", "hugetlbfs", "ramfs"}
    assert kinds.keys() - harmless == {"overlay", "ext4"}
    assert len(kinds["ext4"]) == 1 and next(iter(kinds["ext4"])).startswith("/dev/loop")


def test_the_host_sees_none_of_a_device_and_nothing_stays_of_it(boot_device: Boot) -> None:
    mounts, loops = host_mounts(), host_loops()
    booted = boot_device()
    assert host_mounts() == mounts
    disk = str(booted.folder / "disk.img")
    assert disk in host_loops() - loops
    booted.close()
    assert disk not in host_loops()
    assert not booted.folder.exists()
    assert not cgroups(booted.name)
    booted.close()  # again is harmless


def cgroups(name: str) -> list[str]:
    """Control groups with that name, seen through a view of our own."""
    script = 'mount -t cgroup2 none /sys/fs/cgroup && find /sys/fs/cgroup -name "$1"'
    command = ["unshare", "--mount", "sh", "-c", script, "sh", name]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.split()


@pytest.mark.parametrize("victim", ["booter", "namespace"])
def test_a_killed_booter_takes_its_device_along(victim: str) -> None:
    """Whatever ends the processes that hold a device, its end is complete, and the next run tidies up."""
    script = (
        "import sys\nfrom velkdevice.device import Device\ndevice = Device()\n"
        "print(device.name, device._process.pid, flush=True)\nsys.stdin.read()\n"
    )
    environment = {**os.environ, "PYTHONPATH": str(host.KIT), "PYTHONDONTWRITEBYTECODE": "1"}
    with subprocess.Popen(
        [sys.executable, "-c", script],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
        env=environment,
    ) as booter:
        assert booter.stdout is not None
        name, supervisor = booter.stdout.readline().split()
        assert f"{name}/disk.img" in "\n".join(host_loops())
        os.kill(booter.pid if victim == "booter" else int(supervisor), signal.SIGKILL)
        assert wait_until(lambda: not processes_of(name))
        booter.kill()
    assert wait_until(lambda: f"{name}/disk.img" not in "\n".join(host_loops()))
    Device().close()
    assert not (host.BUILD / "run" / name).exists()
    assert not cgroups(name)


def processes_of(name: str) -> list[str]:
    """Processes of the host with the device's name in their command line."""
    found = []
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if name.encode() in path.read_bytes():
                found.append(path.parent.name)
        except OSError:
            pass
    return found


# --- the remover ---


def test_the_remover_follows_no_link(tmp_path: Path) -> None:
    (tmp_path / "kept").mkdir()
    (tmp_path / "kept" / "file").touch()
    doomed = tmp_path / "doomed"
    (doomed / "sub").mkdir(parents=True)
    (doomed / "sub" / "folder").symlink_to(tmp_path / "kept")
    (doomed / "dangling").symlink_to("nowhere")
    (doomed / "file").touch()
    host.remove_tree(doomed)
    assert sorted(path.name for path in tmp_path.rglob("*")) == ["file", "kept"]
    host.remove_tree(doomed)  # what is not there needs no removing


@pytest.mark.parametrize("what", ["tmpfs", "bind"])
def test_the_remover_crosses_no_mount(tmp_path: Path, what: str) -> None:
    """In a mount namespace of its own; a bind mount of the same file system has the same device number."""
    (tmp_path / "kept").mkdir()
    (tmp_path / "kept" / "file").touch()
    (tmp_path / "doomed" / "mounted").mkdir(parents=True)
    mount = {
        "tmpfs": "mount -t tmpfs none doomed/mounted; touch doomed/mounted/file",
        "bind": "mount --bind kept doomed/mounted",
    }
    script = f"""
        {mount[what]}
        {sys.executable} -c 'import pathlib, sys; from velkdevice import host
try:
    host.remove_tree(pathlib.Path(sys.argv[1]))
except host.DeviceError as error:
    print(error)' "$PWD/doomed"
        ls doomed/mounted
    """
    result = subprocess.run(
        ["unshare", "--mount", "sh", "-ec", script],
        cwd=tmp_path,
        capture_output=True,
        text=True,
        check=True,
        env={**os.environ, "PYTHONPATH": str(host.KIT), "PYTHONDONTWRITEBYTECODE": "1"},
    )
    assert (
        result.stdout == f"refusing to delete {tmp_path}/doomed/mounted: something is mounted there\nfile\n"
    )
    assert (tmp_path / "kept" / "file").exists()


# --- a dead device runs nothing ---


def test_a_device_that_is_off_runs_nothing_and_comes_back(fresh_device: Device, tmp_path: Path) -> None:
    witness = tmp_path / "ran"
    fresh_device.power_off()
    assert not fresh_device.running
    with pytest.raises(DeviceDead, match=r"^the device is off, so this was not run: touch "):
        fresh_device.run(["touch", str(witness)])
    assert not witness.exists()
    fresh_device.power_on()
    assert fresh_device.run(["true"]).status == 0


def test_a_closed_device_runs_nothing(boot_device: Boot) -> None:
    booted = boot_device()
    booted.close()
    with pytest.raises(DeviceDead, match=r"^the device is off, so this was not run: true$"):
        booted.run(["true"])


def test_descriptors_of_a_dead_device_lead_nowhere(fresh_device: Device, tmp_path: Path) -> None:
    """The moment between a device's death and the news of it: the way in itself refuses."""
    witness = tmp_path / "ran"
    held = [os.dup(descriptor) for descriptor in fresh_device._held]
    fresh_device.cut_power()
    reading, writing = os.pipe()
    numbers = [str(number) for number in (writing, *held)]
    result = subprocess.run(
        [str(parts.ensure() / "velk-enter"), *numbers, "", "touch", str(witness)],
        pass_fds=[writing, *held],
        capture_output=True,
        text=True,
        check=False,
    )
    os.close(writing)
    report = os.read(reading, 4096).decode()
    for descriptor in (reading, *held):
        os.close(descriptor)
    assert (result.returncode, result.stdout, result.stderr) == (125, "", "")
    assert report == "the device is dead: Cannot allocate memory"
    assert not witness.exists()


def test_a_device_whose_supervisor_was_killed_runs_nothing(fresh_device: Device) -> None:
    fresh_device._process.kill()
    fresh_device.wait_down()
    with pytest.raises(DeviceDead, match=r"^the device is off, so this was not run: true$"):
        fresh_device.run(["true"])


# --- several at once, each pristine ---


def test_two_devices_do_not_disturb_each_other(boot_device: Boot) -> None:
    first, second = boot_device(), boot_device()
    first.write("/usr/local/packages/file", "first")
    assert not second.exists("/usr/local/packages/file")
    for one in (first, second):
        assert one.settle() == "running"
    main_pid = second.run(["systemctl", "show", "-P", "MainPID", "httpd"]).stdout
    first.run(["systemctl", "stop", "httpd"]).check()
    first.sh("kill -9 -1")
    first.reboot()
    assert first.read("/usr/local/packages/file") == "first"
    first.cut_power()
    assert second.run(["systemctl", "show", "-P", "MainPID", "httpd"]).stdout == main_pid
    assert second.settle() == "running"
    first.close()
    assert (
        second.run(["curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", "http://localhost/"]).stdout
        == "401"
    )


def test_every_boot_is_pristine(boot_device: Boot) -> None:
    first = boot_device()
    first.settle()
    before = snapshot.take(first)
    first.sh("useradd leftover; touch /etc/left /opt/left /usr/local/packages/left; rm /usr/bin/curl").check()
    assert [line[:2] for line in before.differences(snapshot.take(first))].count("+ ") >= 5
    first.close()
    second = boot_device()
    second.settle()
    assert before.differences(snapshot.take(second)) == []


def test_a_snapshot_tells_every_kind_of_difference(fresh_device: Device) -> None:
    fresh_device.write("/etc/gone", "x")
    fresh_device.write("/etc/changed", "one")
    fresh_device.write("/etc/again", "same")
    before = snapshot.take(fresh_device)
    script = r"""
        set -e
        rm /etc/gone
        printf two >/etc/changed
        touch /etc/again
        ln -s nowhere /opt/link
        touch /usr/local/packages/App
        chattr +i /usr/local/packages/App
        mkdir -m 0751 /opt/folder
        mount -t tmpfs none /opt/folder
        echo spam >/tmp/left
        useradd --system -G video --no-user-group -g sdk -u 800 someone
        printf '[Service]\nExecStart=/bin/sleep infinity\nUser=someone\n' >/etc/systemd/system/left.service
        systemctl daemon-reload
        systemctl start left
    """
    fresh_device.sh(script).check()
    lines = before.differences(snapshot.take(fresh_device))
    fresh_device.wait_for(lambda: "someone" in fresh_device.run(["ps", "-eo", "user"]).stdout, "the service")
    shown = [re.sub(r" [0-9a-f]{16}", " HASH", line) for line in lines]
    users = [line for line in shown if re.search(r"file: /etc/(passwd|group|shadow|gshadow):", line)]
    assert len(users) == 4
    gid = fresh_device.run(["getent", "group", "sdk"]).stdout.split(":")[2]
    video = fresh_device.run(["getent", "group", "video"]).stdout.strip().partition(":")[2]
    assert [line for line in shown if line not in users] == [
        "~ file: /etc/changed: f 644 0:0 3 HASH -> f 644 0:0 3 HASH",
        "- file: /etc/gone: f 644 0:0 1 HASH",
        "+ file: /etc/systemd/system/left.service: f 644 0:0 53 HASH",
        "+ file: /opt/folder: d 1777 0:0",
        "+ file: /opt/link: l 777 0:0 -> nowhere",
        "+ file: /tmp/left: f 644 0:0 5 HASH",
        "+ file: /usr/local/packages/App: f 644 0:0 0 HASH",
        "+ attribute: /usr/local/packages/App: immutable",
        f"+ user: someone: x:800:{gid}::/home/someone:/bin/sh",
        f"~ group: video: x:44: -> {video}",
        "+ unit: left.service: loaded active running",
        "+ unit: opt-folder.mount: loaded active mounted",
        "+ mount: /opt/folder: tmpfs / rw,relatime",
        "+ process: someone sleep: 1",
    ]


# --- commands and files ---


def test_a_command_gives_its_status_and_both_outputs(device: Device) -> None:
    result = device.sh("echo out; echo err >&2; exit 7")
    assert (result.status, result.stdout, result.stderr) == (7, "out\n", "err\n")
    assert device.sh("kill -TERM $$").status == -signal.SIGTERM
    missing = device.run(["no-such-program"])
    assert (missing.status, missing.stderr) == (
        127,
        "velk-enter: no-such-program: No such file or directory\n",
    )
    with pytest.raises(DeviceError, match=r"^/bin/sh -c exit 3 sh ended with 3\n$"):
        device.sh("exit 3").check()


def test_a_command_starts_clean(device: Device, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("SECRET", "of the host")
    kept = {name: value for name, value in device.environment.items() if name not in ("PATH", "LANG")}
    shown = dict(line.split("=", 1) for line in device.run(["env"], env={"MORE": "1"}).stdout.splitlines())
    shown.pop("LLVM_PROFILE_FILE", None)  # in a coverage run
    assert shown == {
        "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
        "LANG": "C.UTF-8",
        "MORE": "1",
        "HOME": "/root",
        **kept,
    }
    assert device.run(["pwd"]).stdout == "/\n"
    assert device.run(["cat"]).stdout == ""  # standard input is empty, not the caller's


def test_what_a_sanitizer_needs_is_passed_on(boot_device: Boot, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("ASAN_OPTIONS", "detect_leaks=1")
    assert boot_device().sh('echo "$ASAN_OPTIONS"').stdout == "detect_leaks=1\n"


def test_a_coverage_run_counts_what_root_runs(boot_device: Boot, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("VELKCTL_COVERAGE", "/nowhere")
    device, told = boot_device(), 'echo "$LLVM_PROFILE_FILE"'
    monkeypatch.delenv("VELKCTL_COVERAGE")
    assert device.sh(told).stdout == "/var/log/coverage/%c%m.profraw\n"
    assert device.sh(told, user="nobody").stdout == "/dev/null\n"


def test_a_sanitizer_build_runs_on_the_device(boot_device: Boot, tmp_path: Path) -> None:
    source = tmp_path / "leak.cpp"
    source.write_text("#include <cstdlib>\nint main() { volatile char* p = new char[7]; p = nullptr; }\n")
    subprocess.run(
        ["c++", "-fsanitize=address,undefined", "-o", str(tmp_path / "leak"), str(source)], check=True
    )
    result = boot_device(extra={"/usr/bin/leak": (tmp_path / "leak", 0o755)}).run(["leak"])
    assert result.status == 1
    assert "7 byte(s) leaked in 1 allocation(s)" in result.stderr


def test_a_command_runs_as_the_user(device: Device) -> None:
    assert (
        device.run(["id"], user="nobody").stdout
        == "uid=65534(nobody) gid=65534(nogroup) groups=65534(nogroup)\n"
    )
    assert device.run(["id", "-un"], user="sdk").stdout == "sdk\n"
    with pytest.raises(DeviceDead, match=r"^no such user on the device: No such file or directory, so"):
        device.run(["id"], user="nobody-there")


def test_input_reaches_the_command(device: Device, tmp_path: Path) -> None:
    (tmp_path / "data").write_bytes(b"\0file")
    assert device.run(["cat"], input="text ä").stdout == "text ä"
    assert device.run(["od", "-An", "-c"], input=b"\0\n").stdout.split() == ["\\0", "\\n"]
    with open(tmp_path / "data", "rb") as data:
        assert device.run(["cat"], input=data).stdout == "\0file"


def test_a_command_that_hangs_is_killed_with_its_children(device: Device) -> None:
    with pytest.raises(DeviceError, match=r"^/bin/sh -c .* took more than 0.5 s on the device$"):
        device.sh("sleep 1234 & sleep 1234", timeout=0.5)
    device.wait_for(lambda: "1234" not in device.run(["ps", "-eo", "args"]).stdout, "the end of the children")


def test_files_go_in_and_come_out(pristine: Device, tmp_path: Path) -> None:
    folder = tmp_path / "folder"
    (folder / "sub").mkdir(parents=True)
    (folder / "sub" / "script").write_text("#!/bin/sh\n")
    (folder / "sub" / "script").chmod(0o750)
    (folder / "link").symlink_to("/etc/passwd")
    pristine.copy_in(folder, "/tmp/kit/folder")
    pristine.copy_in(folder / "sub" / "script", "/tmp/kit/one")
    pristine.write("/tmp/kit/text", "hello", 0o640, "nobody:www")
    listing = pristine.sh("cd /tmp/kit && find . -mindepth 1 -printf '%p %M %u:%g %l\n' | sort").stdout
    assert [line.rstrip() for line in listing.splitlines()] == [
        "./folder drwxr-xr-x root:root",
        "./folder/link lrwxrwxrwx root:root /etc/passwd",
        "./folder/sub drwxr-xr-x root:root",
        "./folder/sub/script -rwxr-x--- root:root",
        "./one -rwxr-x--- root:root",
        "./text -rw-r----- nobody:www",
    ]
    assert pristine.read("/tmp/kit/text") == "hello"
    pristine.copy_out("/tmp/kit/text", tmp_path / "back")
    assert (tmp_path / "back").read_text() == "hello"
    with pytest.raises(DeviceError, match="No such file"):
        pristine.copy_out("/tmp/kit/nothing", tmp_path / "nothing")
    assert not (tmp_path / "nothing").exists()
    assert pristine.exists("/tmp/kit/folder/link") and not pristine.exists("/tmp/kit/nothing")
    pristine.run(["rm", "-r", "/tmp/kit"]).check()


def test_a_link_on_the_device_leads_nowhere_on_the_host(fresh_device: Device, tmp_path: Path) -> None:
    """Absolute links on a device mean the device; writing through one must not write to the host."""
    fresh_device.run(["ln", "-s", str(tmp_path), "/opt/trap"]).check()
    fresh_device.run(["mkdir", "-p", str(tmp_path)]).check()
    fresh_device.write("/opt/trap/file", "x")
    assert fresh_device.exists(f"{tmp_path}/file")
    assert list(tmp_path.iterdir()) == []


# --- packages ---


def test_a_package_has_its_layout_and_a_good_signature(
    pristine: Device, put_package: Callable[..., str]
) -> None:
    path = put_package(pristine, package.application("Kit"))
    script = r"""
        set -e
        size=$(stat -c %s "$1")
        signature=$(tail -c 16 "$1" | od -An -N4 -tu1 | awk '{print $1*16777216+$2*65536+$3*256+$4}')
        tail -c 12 "$1" | od -An -tx1
        head -c $((size - 16 - signature)) "$1" >/tmp/data
        tail -c $((signature + 16)) "$1" | head -c "$signature" >/tmp/sig
        gpgv --keyring /usr/share/velkmanager/velk.public.gpg /tmp/sig /tmp/data 2>/dev/null
        tar -tvzf /tmp/data | awk '{print $1, $2, $6}'
        rm /tmp/data /tmp/sig
    """
    assert pristine.sh(script, path).check().stdout == (
        " 00 00 00 01 65 8d 14 ab 42 07 aa c6\n"
        "-rw-r--r-- root/root manifest.json\n"
        "-rwxr-xr-x root/root Kit\n"
        "-rw-r--r-- root/root LICENSE\n"
        "drwxr-xr-x root/root html/\n"
        "-rw-r--r-- root/root html/index.html\n"
    )


def test_a_strangers_signature_is_none_to_the_device(pristine: Device) -> None:
    pristine.write("/tmp/data", b"data")
    verify = ["gpgv", "--keyring", "/usr/share/velkmanager/velk.public.gpg", "/tmp/sig", "/tmp/data"]
    pristine.write("/tmp/sig", package.Key.trusted().sign(b"data"))
    assert pristine.run(verify).status == 0
    pristine.write("/tmp/sig", package.Key.named("stranger").sign(b"data"))
    assert pristine.run(verify).status == 2
    pristine.write("/tmp/sig", package.Key.trusted().sign(b"other data"))
    assert pristine.run(verify).status == 1
    pristine.run(["rm", "/tmp/sig", "/tmp/data"]).check()


def test_the_same_folder_gives_the_same_archive(tmp_path: Path) -> None:
    first, second = (package.write_tree(tmp_path / name, package.application("Same")) for name in "ab")
    os.utime(second / "LICENSE", (1, 1))
    assert package.archive_of(first) == package.archive_of(second)
    assert package.archive_of(first, compress=False) != package.archive_of(first)
    manifest = json.loads((first / "manifest.json").read_text())
    assert manifest["velkPackageConf"]["setup"]["appName"] == "Same"


# --- a machine that cannot boot one ---


def test_a_machine_without_the_programs_skips_every_test_loudly() -> None:
    command = [
        sys.executable,
        "-m",
        "pytest",
        "-q",
        "-p",
        "no:cacheprovider",
        "-rs",
        str(Path(__file__).parent),
    ]
    result = subprocess.run(
        command, capture_output=True, text=True, check=False, env={"PATH": "/nonexistent"}
    )
    assert result.returncode == 0, result.stdout
    assert re.search(r"^\d+ skipped in ", result.stdout, re.MULTILINE), result.stdout
    assert (
        "DEVICE TESTS NOT RUN, missing: the program systemd-nspawn (package systemd-container)"
        in result.stdout
    )


def test_an_ordinary_user_is_told_what_is_missing(tmp_path: Path) -> None:
    kit = shutil.copytree(host.KIT, tmp_path / "kit")  # the checkout may be in root's home
    for folder in (kit, *kit.parents):
        if folder.is_relative_to("/tmp") and folder != Path("/tmp"):
            folder.chmod(0o755)
    command = [
        "setpriv",
        "--reuid=65534",
        "--regid=65534",
        "--clear-groups",
        sys.executable,
        "-c",
        f"import sys; sys.path.insert(0, {str(kit)!r})\n"
        "from velkdevice import host; print(host.missing())",
    ]
    result = subprocess.run(command, capture_output=True, text=True, check=True, cwd="/")
    assert result.stdout == "['root rights']\n"
