"""
A booted device: commands, files, reboots, cards, and an end that leaves nothing on the host.

One long module, since all of it stands on what was opened when the device was booted: its root, its namespaces, its cgroup.
"""

from __future__ import annotations

import ctypes
import errno
import fcntl
import io
import json
import os
import select
import shutil
import signal
import socket
import subprocess
import tarfile
import threading
import time
import uuid
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import IO, Any

from . import host, image, package, parts
from .host import DeviceError
from .supervisor import NAMESPACES

DISK_BYTES = 6 << 30  # sparse: what is not written takes no room
CLONE_NEWNET = 0x40000000
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
# What a sanitizer run needs inside the device; all else of the caller's environment stays outside.
PASSED_ON = ("ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS")
# Where the programs of a coverage run, which has VELKCTL_COVERAGE set, keep their counts: %c as they happen, whatever
# kills them, and %m in one file a program.
COUNTS = "/var/log/coverage"
COUNTS_FILE = f"{COUNTS}/%c%m.profraw"


class DeviceDead(DeviceError):
    """The device is off or dead, so nothing was run."""


@dataclass(frozen=True)
class Result:
    """How a command on the device ended. A negative status is the signal that ended it."""

    argv: tuple[str, ...]
    status: int
    stdout: str
    stderr: str

    def check(self) -> Result:
        """Return the result itself if the command succeeded, else raise with everything it said."""
        if self.status != 0:
            raise DeviceError(f"{' '.join(self.argv)} ended with {self.status}\n{self.stdout}{self.stderr}")
        return self


class Device:
    """
    One simulated device, booted pristine; use it as a context manager, or call `close`.

    Namespaces and root are opened once at each boot and held: whatever runs goes through these descriptors,
    never through a process id or a path, so that nothing meant for the device can reach the host.
    """

    def __init__(
        self,
        velkctl: Path | str | None = None,
        extra: Mapping[str, tuple[Path | str | bytes, int]] | None = None,
        verbose: bool = True,
    ) -> None:
        """
        Prepare and boot a device.

        @param velkctl  the program to install as /usr/bin/velkctl; without it $VELKCTL_BINARY, else none at
                        all
        @param extra    more files: absolute path on the device -> (host file or its bytes, permission bits)
        """
        self.environment = {"PATH": PATH, "LANG": "C.UTF-8"}
        self.environment.update({name: os.environ[name] for name in PASSED_ON if name in os.environ})
        self._counts = "VELKCTL_COVERAGE" in os.environ
        self.boot_seconds = 0.0
        self._held: list[int] = []
        self._up = False
        sweep()
        self._parts = parts.ensure()
        base = image.ensure(verbose)
        self.name = f"velk-{uuid.uuid4().hex[:8]}"
        self.folder = host.BUILD / "run" / self.name
        self.cgroup = _own_cgroup().rstrip("/") + "/" + self.name
        self._lock = _make_run_folder(self.folder, self.cgroup)
        try:
            self._fill_payload(velkctl or os.environ.get("VELKCTL_BINARY"), extra or {})
            _make_disk(self.folder / "disk.img")
            self._launch(base)
            self.wait_up()
        except BaseException:
            self.close()
            raise

    # --- making it ---

    def _fill_payload(
        self, velkctl: Path | str | None, extra: Mapping[str, tuple[Path | str | bytes, int]]
    ) -> None:
        """Lay out everything that this boot adds to the image; it becomes a layer of the root file system."""
        files: dict[str, tuple[Path | str | bytes, int]] = {
            "/usr/libexec/orvo-services": (self._parts / "orvo-services", 0o755),
            "/usr/libexec/velk-step": (self._parts / "velk-step", 0o755),
            "/usr/lib/apache2/modules/mod_orvo.so": (self._parts / "mod_orvo.so", 0o644),
            "/usr/share/velkmanager/velk.public.gpg": (package.Key.trusted().keyring(), 0o644),
        }
        if velkctl is not None:
            files["/usr/bin/velkctl"] = (velkctl, 0o755)
        files.update(extra)
        payload = self.folder / "payload"
        _copy_device_files(host.DEVICE / "files", payload)
        _make_device_links(host.DEVICE / "links", payload)
        for path, (source, mode) in files.items():
            target = payload / path.lstrip("/")
            _make_parents(target, payload)
            if isinstance(source, bytes):
                target.write_bytes(source)
            else:
                shutil.copyfile(source, target)
            target.chmod(mode)

    def _launch(self, base: Path) -> None:
        settings = {
            "name": self.name,
            "run": str(self.folder),
            "cgroup": self.cgroup,
            "image": str(base),
            "payload": str(self.folder / "payload"),
            "disk": str(self.folder / "disk.img"),
        }
        self._control, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with theirs, open(self.folder / "supervisor.log", "ab") as log:
            self._process = subprocess.Popen(
                [
                    "unshare",
                    "--mount",
                    "--pid",
                    "--fork",
                    "--kill-child",
                    "--mount-proc",
                    "--propagation",
                    "private",
                    host.PYTHON,
                    "-m",
                    "velkdevice.supervisor",
                    json.dumps(settings),
                    str(theirs.fileno()),
                ],
                pass_fds=[theirs.fileno()],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
                cwd="/",
                env={
                    "PATH": PATH,
                    "LANG": "C.UTF-8",
                    "PYTHONPATH": str(host.KIT),
                    "PYTHONDONTWRITEBYTECODE": "1",
                },
            )

    # --- what became of it ---

    def _hear(self, timeout: float) -> dict[str, Any] | None:
        """Take in one event of the supervisor, or none within `timeout` seconds."""
        if self._control.fileno() < 0:
            raise DeviceDead("the device is closed")
        if not select.select([self._control], [], [], timeout)[0]:
            return None
        try:
            message, descriptors, _, _ = socket.recv_fds(self._control, 4096, 16)
        except OSError as trouble:
            if trouble.errno != errno.ECONNRESET:
                raise
            message, descriptors = b"", []
        if not message:
            self._let_go()
            return {"event": "gone"}
        event: dict[str, Any] = json.loads(message)
        self._let_go()
        if event["event"] == "up":
            self._held = descriptors
            self._up = True
        return event

    def _let_go(self) -> None:
        self._up = False
        while self._held:
            os.close(self._held.pop())

    @property
    def running(self) -> bool:
        """Whether the device is up, by the last that was heard of it."""
        while self._control.fileno() >= 0:
            event = self._hear(0)
            if event is None or event["event"] == "gone":
                break
        return self._up

    def wait_up(self, timeout: float = 60) -> None:
        """
        Wait until the device has booted and its start-up work is done; DeviceError when it does not come.
        """
        start = time.monotonic()
        while not self.running:
            event = self._hear(max(0.0, start + timeout - time.monotonic()))
            if event is None:
                raise DeviceError(f"the device did not come up in {timeout} s:\n{self.console()}")
            if event["event"] == "gone" or event["event"] == "failed":
                reason = event.get("text") or (self.folder / "supervisor.log").read_text(encoding="utf-8")
                raise DeviceError(f"the device does not boot: {reason}\n{self.console()}")
            if event["event"] == "down" and event["status"] != 133:
                raise DeviceDead(f"the device went down while booting\n{self.console()}")
        self.boot_seconds = time.monotonic() - start

    def wait_down(self, timeout: float = 60) -> None:
        """Wait until the device is off."""
        end = time.monotonic() + timeout
        while self._up:
            if self._hear(max(0.0, end - time.monotonic())) is None:
                raise DeviceError(f"the device did not go down in {timeout} s:\n{self.console()}")

    def console(self) -> str:
        """What the device printed on its console in all its boots."""
        try:
            return (self.folder / "console.log").read_text(encoding="utf-8", errors="replace")
        except FileNotFoundError:
            return ""

    # --- using it ---

    def _command(self, argv: Sequence[str], user: str | None, report: int) -> tuple[list[str], list[int]]:
        if not self.running:
            raise DeviceDead(f"the device is off, so this was not run: {' '.join(argv)}")
        numbers = [str(number) for number in (report, *self._held)]
        return [str(self._parts / "velk-enter"), *numbers, user or "", *argv], [report, *self._held]

    def _counted(self, user: str | None) -> dict[str, str]:
        """What a program of a coverage run is told; only root's can write where the counts are."""
        return {"LLVM_PROFILE_FILE": "/dev/null" if user else COUNTS_FILE} if self._counts else {}

    def run(
        self,
        argv: Sequence[str],
        user: str | None = None,
        input: str | bytes | IO[bytes] | None = None,  # noqa: A002 - as in subprocess
        timeout: float = 120,
        env: Mapping[str, str] | None = None,
    ) -> Result:
        """
        Run a command on the device and wait for it.

        It starts in / with a clean environment and `env` added. Raises DeviceDead when the device is not up,
        and DeviceError when the command took longer than `timeout` seconds (then it and its process group are
        killed).
        """
        stdout, stderr = io.BytesIO(), io.BytesIO()
        status = self.stream(argv, stdout, stderr, user=user, input=input, timeout=timeout, env=env)
        texts = [part.getvalue().decode("utf-8", "surrogateescape") for part in (stdout, stderr)]
        return Result(tuple(argv), status, *texts)

    def stream(
        self,
        argv: Sequence[str],
        stdout: io.BytesIO | IO[bytes],
        stderr: io.BytesIO | IO[bytes],
        user: str | None = None,
        input: str | bytes | IO[bytes] | None = None,  # noqa: A002
        timeout: float = 120,
        env: Mapping[str, str] | None = None,
    ) -> int:
        """Like `run`, with the output into given places: a BytesIO, or a real file for something large."""
        process, told = self.start(
            argv,
            user=user,
            stdin=_stdin_of(input),
            stdout=_pipe_or_file(stdout),
            stderr=_pipe_or_file(stderr),
            env=env,
        )
        data = input.encode() if isinstance(input, str) else input if isinstance(input, bytes) else None
        try:
            out, err = process.communicate(data, timeout=timeout)
        except subprocess.TimeoutExpired as late:
            raise DeviceError(f"{' '.join(argv)} took more than {timeout} s on the device") from late
        finally:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)
                process.communicate()
            trouble = told()
        if trouble:
            raise DeviceDead(f"{trouble}, so this was not run: {' '.join(argv)}")
        for part, text in ((stdout, out), (stderr, err)):
            if text is not None:
                part.write(text)
        return process.returncode

    def start(
        self,
        argv: Sequence[str],
        user: str | None = None,
        stdin: int | IO[bytes] = subprocess.DEVNULL,
        stdout: int | IO[bytes] = subprocess.PIPE,
        stderr: int | IO[bytes] = subprocess.PIPE,
        env: Mapping[str, str] | None = None,
    ) -> tuple[subprocess.Popen[bytes], Callable[[], str]]:
        """
        Start a command on the device and return at once.

        The second thing returned tells, once the process ended, why the device could not be entered ("" if it
        could). The process leads a process group of its own, so os.killpg reaches all of it.
        """
        reading, writing = os.pipe()
        try:
            command, descriptors = self._command(argv, user, writing)
            process = subprocess.Popen(
                command,
                stdin=stdin,
                stdout=stdout,
                stderr=stderr,
                pass_fds=descriptors,
                cwd="/",
                env={**self.environment, **self._counted(user), **(env or {})},
                start_new_session=True,
            )
        except BaseException:
            os.close(reading)
            raise
        finally:
            os.close(writing)

        def told() -> str:
            with open(reading, "rb", closefd=True) as report:
                return report.read().decode()

        return process, told

    def velkctl(self, *arguments: str, **options: Any) -> Result:
        """Run velkctl on the device with these arguments; options as for `run`."""
        return self.run(["/usr/bin/velkctl", *arguments], **options)

    def sh(self, script: str, *arguments: str, **options: Any) -> Result:
        """Run a shell script on the device, the arguments as $1 and on."""
        return self.run(["/bin/sh", "-c", script, "sh", *arguments], **options)

    def shell(self) -> int:
        """Give the caller's terminal a prompt on the device, and return its exit status."""
        reading, writing = os.pipe()
        with open(reading, "rb"), open(writing, "wb"):
            command, descriptors = self._command(["/bin/bash", "-l"], None, writing)
            environment = {**self.environment, "TERM": os.environ.get("TERM", "dumb"), "PS1": "camera:\\w# "}
            return subprocess.run(
                command, pass_fds=descriptors, env=environment, cwd="/", check=False
            ).returncode

    def connect(self, port: int) -> socket.socket:
        """A connection to a port of the device's loopback; OSError when nobody listens there."""
        if not self.running:
            raise ConnectionRefusedError(errno.ECONNREFUSED, "the device is off")
        network = self._held[NAMESPACES.index("net")]
        made: list[socket.socket] = []
        reasons: list[OSError] = []

        # A socket stays in the network in which it was made, and a thread of its own may leave its own for good.
        def make() -> None:
            try:
                if ctypes.CDLL(None, use_errno=True).setns(network, CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "the device's network cannot be entered")
                made.append(socket.create_connection(("127.0.0.1", port)))
            except OSError as reason:
                reasons.append(reason)

        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        if reasons:
            raise reasons[0]
        return made[0]

    # --- files; always through a process on the device, so that its links mean what they mean there ---

    def read(self, path: str) -> str:
        """The text of a file on the device."""
        return self.run(["cat", "--", path]).check().stdout

    def write(self, path: str, text: str | bytes, mode: int = 0o644, owner: str = "root:root") -> None:
        """Make or replace a file on the device, its directory included."""
        script = 'mkdir -p "$(dirname "$1")" && rm -f "$1" && cat >"$1" && chown "$3" "$1" && chmod "$2" "$1"'
        self.sh(script, path, f"{mode:o}", owner, input=text).check()

    def exists(self, path: str) -> bool:
        """Whether anything is there, a dangling link included."""
        return self.sh('[ -e "$1" ] || [ -L "$1" ]', path).status == 0

    def copy_in(self, source: Path | str, path: str) -> None:
        """
        Copy a host file (streamed, however large) to `path`, or a host folder's whole content into `path`.
        """
        source = Path(source)
        if source.is_dir():
            archive = io.BytesIO()
            with tarfile.open(fileobj=archive, mode="w") as tar:
                tar.add(source, arcname=".", filter=_as_root)
            self.sh('mkdir -p "$1" && tar -x -p -C "$1"', path, input=archive.getvalue()).check()
            return
        with open(source, "rb") as data:
            self.sh(
                'mkdir -p "$(dirname "$1")" && cat >"$1" && chmod "$2" "$1"',
                path,
                f"{source.stat().st_mode & 0o777:o}",
                input=data,
                timeout=600,
            ).check()

    def copy_out(self, path: str, target: Path | str) -> None:
        """Copy one file of the device to a host file."""
        error = io.BytesIO()
        with open(target, "wb") as data:
            status = self.stream(["cat", "--", path], data, error, timeout=600)
        if status != 0:
            Path(target).unlink()
            raise DeviceError(error.getvalue().decode())

    def wait_for(self, condition: Callable[[], bool], what: str, timeout: float = 20) -> None:
        """Wait until the condition holds; DeviceError that names `what` when it does not in time."""
        end = time.monotonic() + timeout
        while not condition():
            if time.monotonic() > end:
                raise DeviceError(f"waited {timeout} s in vain for {what}")
            time.sleep(0.02)

    # --- power ---

    def settle(self, timeout: float = 30) -> str:
        """Wait until systemd has no more start-up work, and return its state ("running", "degraded")."""
        return self.run(["systemctl", "is-system-running", "--wait"], timeout=timeout).stdout.strip()

    def reboot(self, timeout: float = 60) -> None:
        """Reboot in good order and wait until it is up again; the disk stays as it is."""
        self.run(["systemctl", "reboot"])
        self.wait_down(timeout)
        self.wait_up(timeout)

    def power_off(self, timeout: float = 60) -> None:
        """Shut down in good order; `power_on` boots it again from the same disk."""
        self.run(["systemctl", "poweroff"])
        self.wait_down(timeout)

    def cut_power(self) -> None:
        """Kill everything on the device at once, as when the plug is pulled."""
        if self.running:
            self._control.send(b"cut")
            self.wait_down()

    def power_on(self, timeout: float = 60) -> None:
        """Boot a device that is off; what was on its disk is still there."""
        if not self.running:
            self._control.send(b"start")
            self.wait_up(timeout)

    # --- cards ---

    def insert_card(self, disk: str = "SD_DISK", file_system: str = "ext4", megabytes: int = 256) -> None:
        """
        Put a freshly made card into its slot: a loop file mounted at /var/spool/storage/<disk>, after a
        reboot too.

        @param file_system  ext2, ext3, ext4 or vfat; the host's kernel must know it
        """
        unit = f"var-spool-storage-{disk}.mount"
        text = (
            f"[Unit]\nDescription=Card {disk}\n\n[Mount]\nWhat=/var/lib/orvo-cards/{disk}.img\n"
            f"Where=/var/spool/storage/{disk}\nType={file_system}\nOptions=loop\n\n"
            "[Install]\nWantedBy=multi-user.target\n"
        )
        self.write(f"/etc/systemd/system/{unit}", text)
        script = f"""
            set -e
            mkdir -p /var/lib/orvo-cards
            truncate -s {megabytes}M /var/lib/orvo-cards/{disk}.img
            mkfs.{file_system} /var/lib/orvo-cards/{disk}.img >/dev/null 2>&1
            systemctl daemon-reload
            systemctl enable --quiet --now {unit}
        """
        self.sh(script).check()

    def remove_card(self, disk: str = "SD_DISK") -> None:
        """Take the card out and destroy it; nothing of it stays on the device."""
        unit = f"var-spool-storage-{disk}.mount"
        script = f"""
            systemctl disable --quiet --now {unit} || umount --lazy /var/spool/storage/{disk}
            rm -f /etc/systemd/system/{unit} /var/lib/orvo-cards/{disk}.img
            rmdir --ignore-fail-on-non-empty /var/lib/orvo-cards /var/spool/storage/{disk}
            systemctl daemon-reload
        """
        self.sh(script).check()

    # --- the end ---

    def close(self) -> None:
        """End the device, whatever it is doing, and remove its folder; safe to call again."""
        if hasattr(self, "_process"):
            self._control.close()
            self._let_go()
            try:
                self._process.wait(20)
            except subprocess.TimeoutExpired:
                self._process.kill()  # the namespace's first process dies with it
                self._process.wait(20)
        _remove_run_folder(self.folder)
        os.close(self._lock) if self._lock >= 0 else None
        self._lock = -1

    def __enter__(self) -> Device:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def _stdin_of(given: str | bytes | IO[bytes] | None) -> int | IO[bytes]:
    if given is None:
        return subprocess.DEVNULL
    return subprocess.PIPE if isinstance(given, (str, bytes)) else given


def _pipe_or_file(target: io.BytesIO | IO[bytes]) -> int | IO[bytes]:
    return subprocess.PIPE if isinstance(target, io.BytesIO) else target


def _as_root(member: tarfile.TarInfo) -> tarfile.TarInfo:
    member.uid = member.gid = 0
    member.uname = member.gname = "root"
    return member


def _make_parents(target: Path, top: Path) -> None:
    """Make the folders above `target`; the mode is exact, since it shows through on the device."""
    missing = [folder for folder in target.parents if folder.is_relative_to(top) and not folder.exists()]
    for folder in reversed(missing):
        folder.mkdir()
        folder.chmod(0o755)


def _copy_device_files(source: Path, payload: Path) -> None:
    """Copy the device's own files with exact modes: a checkout keeps of them only the executable bit."""
    payload.mkdir()
    payload.chmod(0o755)
    for folder, folders, files in os.walk(source):
        for name in (*folders, *files):
            path = Path(folder) / name
            target = payload / path.relative_to(source)
            _make_parents(target, payload)
            if path.is_dir():
                target.mkdir()
                target.chmod(0o755)
            else:
                shutil.copyfile(path, target)
                target.chmod(0o755 if path.stat().st_mode & 0o100 else 0o644)


def _make_device_links(listing: Path, payload: Path) -> None:
    """Make the device's own links; a list of them survives whatever way a checkout is carried about."""
    for line in listing.read_text(encoding="utf-8").splitlines():
        words = line.split("#")[0].split()
        if words:
            path, to = words
            target = payload / path.lstrip("/")
            _make_parents(target, payload)
            target.symlink_to(to)


def _make_disk(path: Path) -> None:
    with open(path, "wb") as disk:
        disk.truncate(DISK_BYTES)
    options = "lazy_itable_init=1,lazy_journal_init=1,nodiscard,root_owner=0:0"
    subprocess.run(["mkfs.ext4", "-q", "-F", "-m", "0", "-E", options, str(path)], check=True)


def _own_cgroup() -> str:
    """The caller's own place in the unified hierarchy; a device gets a group of its own below it."""
    for line in Path("/proc/self/cgroup").read_text(encoding="ascii").splitlines():
        if line.startswith("0::"):
            path = line[3:]
            return "/" if path.startswith("/..") else path
    return "/"


def _make_run_folder(folder: Path, cgroup: str) -> int:
    """Make a device's folder and return the held lock that says it is alive."""
    (folder / "mnt").mkdir(parents=True)
    (folder / "cgroup").write_text(cgroup, encoding="utf-8")
    # It is held before it has its name: a sweep of another process must not find it free.
    lock = os.open(folder / "alive.new", os.O_CREAT | os.O_RDWR | os.O_CLOEXEC, 0o600)
    fcntl.flock(lock, fcntl.LOCK_EX)
    os.rename(folder / "alive.new", folder / "alive")
    return lock


def _remove_run_folder(folder: Path) -> None:
    """
    Delete what a device left, once its mounts are gone with their namespace.

    The disk's loop device going away is the sign: it is released by the last unmount and by nothing earlier.
    """
    if not folder.exists():
        return
    disk = str(folder / "disk.img")
    end = time.monotonic() + 20
    while disk in _backing_files():
        if time.monotonic() > end:
            raise DeviceError(f"{disk} is still mounted somewhere; {folder} is left alone")
        time.sleep(0.02)
    _remove_cgroup((folder / "cgroup").read_text(encoding="utf-8"))
    host.remove_tree(folder)


def _backing_files() -> list[str]:
    files = []
    for path in Path("/sys/block").glob("loop*/loop/backing_file"):
        try:
            files.append(path.read_text(encoding="utf-8").strip())
        except OSError:
            pass  # released while we looked
    return files


def _remove_cgroup(cgroup: str) -> None:
    """
    Remove a dead device's empty groups, through a view of our own: the host may show them anywhere or
    nowhere.
    """
    script = """
        mount -t cgroup2 none /sys/fs/cgroup && cd "/sys/fs/cgroup$1" 2>/dev/null || exit 0
        for try in 1 2 3 4 5 6 7 8 9 10; do
            find . -depth -mindepth 1 -type d -exec rmdir {} + 2>/dev/null
            cd / && rmdir "/sys/fs/cgroup$1" 2>/dev/null && exit 0
            sleep 0.1
            cd "/sys/fs/cgroup$1" || exit 0
        done
        exit 1
    """
    command = ["unshare", "--mount", "sh", "-c", script, "sh", cgroup]
    if subprocess.run(command, stdin=subprocess.DEVNULL, check=False).returncode != 0:
        raise DeviceError(f"the control group {cgroup} could not be removed")


def sweep() -> None:
    """Remove what runs left that were killed before they could clean up; living devices hold their lock."""
    for folder in (host.BUILD / "run").glob("velk-*"):
        try:
            lock = os.open(folder / "alive", os.O_RDWR | os.O_CLOEXEC)
        except FileNotFoundError:
            continue  # being made at this moment, or being removed
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            _remove_run_folder(folder)
        except BlockingIOError:
            pass
        finally:
            os.close(lock)
