"""
The first process of a device's own process and mount namespace: mounts its disk, boots it, boots it again.

It is started by `device.py` and talks to it over one socket. Everything that is mounted exists only in this
namespace, and everything that runs is below this process, so its end, whatever ended it, is the end of all of
it. The other end of the socket closing is an order to end.
"""

from __future__ import annotations

import json
import os
import select
import signal
import socket
import stat
import subprocess
import sys
from pathlib import Path
from typing import Any

REBOOTED = 133  # nspawn's status for "boot me again" when it may not make a new unit
NAMESPACES = ("mnt", "pid", "uts", "ipc", "net", "cgroup")
# Numbers are the kernel's; the host hands out loop devices to all devices together, so there must be many
# nodes.
NODES = [("loop-control", stat.S_IFCHR, 0o660, 10, 237), ("fuse", stat.S_IFCHR, 0o666, 10, 229)] + [
    (f"loop{number}", stat.S_IFBLK, 0o660, 7, number) for number in range(128)
]
# Places that need a real file system under them: an overlay cannot have its upper directory on an overlay.
PLACES = {"packages": "/usr/local/packages", "opt": "/opt", "storage": "/var/spool/storage"}


def _call(*command: str) -> None:
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {result.stderr.strip()}")


class Supervisor:
    """One device: its mounts, its container, and the conversation with the process that booted it."""

    def __init__(self, settings: dict[str, Any], control: socket.socket) -> None:
        self.settings = settings
        self.control = control
        self.place = Path(settings["run"]) / "mnt"
        self.container: subprocess.Popen[bytes] | None = None
        self.leader = 0
        self.root = -1
        self.announced = False
        self.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)

    # --- what it mounts ---

    def prepare(self) -> None:
        """Mount everything; all of it is private to this namespace."""
        _call("mount", "-t", "tmpfs", "none", "/run")  # nspawn leaves notes there; the host's stays as it is
        _call("mount", "-t", "cgroup2", "none", "/sys/fs/cgroup")  # the same view on hosts of either kind
        group = Path("/sys/fs/cgroup" + self.settings["cgroup"])
        group.mkdir(parents=True)
        (group / "cgroup.procs").write_text("0", encoding="ascii")
        _call("mount", "-t", "tmpfs", "none", str(self.place))
        self.hide_release()
        disk = self.place / "disk"
        root = self.place / "root"
        for folder in (disk, root):
            folder.mkdir()
        _call("mount", "-o", "loop,noinit_itable", self.settings["disk"], str(disk))
        for name in ("upper", "work", *PLACES):
            (disk / name).mkdir(exist_ok=True)
        lower = f"{self.settings['payload']}:{self.settings['image']}"
        options = f"lowerdir={lower},upperdir={disk}/upper,workdir={disk}/work"
        _call("mount", "-t", "overlay", "-o", options, "none", str(root))
        self.notify.bind("/run/device-notify")

    def hide_release(self) -> None:
        """
        Put a copy over the host's release file, which nspawn binds into every container.

        It is the only file of the host that would be within reach of a device that remounts things at will.
        """
        real = os.path.realpath("/etc/os-release")
        copy = self.place / "os-release"
        copy.write_bytes(Path(real).read_bytes())
        _call("mount", "--bind", str(copy), real)

    # --- what it boots ---

    def start(self) -> None:
        """Boot the container; its console goes to a file in the run folder."""
        disk = self.place / "disk"
        binds = [f"--bind={disk}/{name}:{path}" for name, path in PLACES.items()]
        command = [
            "systemd-nspawn",
            "--quiet",
            f"--directory={self.place}/root",
            f"--machine={self.settings['name']}",
            "--hostname=camera",
            "--register=no",
            "--keep-unit",
            "--console=pipe",
            "--private-network",
            "--notify-ready=yes",
            "--resolv-conf=off",
            "--timezone=off",
            "--link-journal=no",
            *binds,
            "--drop-capability=CAP_MKNOD",  # with it, the host's disk would be one node away
            "--boot",
            "systemd.firstboot=off",
            "systemd.show_status=error",
        ]
        environment = {
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
            "NOTIFY_SOCKET": "/run/device-notify",
            "SYSTEMD_NSPAWN_TMPFS_TMP": "0",  # large packages pass through /tmp; they belong on the disk
        }
        with open(Path(self.settings["run"]) / "console.log", "ab") as console:
            self.container = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=console, stderr=console, env=environment
            )
        self.leader = 0
        self.announced = False

    def hear_nspawn(self) -> None:
        """Learn the process id of the device's init, and give it the nodes that nspawn does not make."""
        for line in self.notify.recv(4096).decode().splitlines():
            key, _, value = line.partition("=")
            if key == "X_NSPAWN_LEADER_PID":
                self.leader = int(value)
                self.root = os.open(f"/proc/{self.leader}/root", os.O_RDONLY | os.O_DIRECTORY)
                self.make_nodes()

    def make_nodes(self) -> None:
        for name, kind, mode, major, minor in NODES:
            path = f"dev/{name}"
            try:
                os.mknod(path, kind | mode, os.makedev(major, minor), dir_fd=self.root)
                os.chmod(path, mode, dir_fd=self.root)
            except FileExistsError:
                pass

    def announce(self) -> None:
        """When the device has come up, hand its namespaces and its root to the process that booted it."""
        try:
            os.stat("run/orvo-booted", dir_fd=self.root, follow_symlinks=False)
        except OSError:
            return
        descriptors = [os.open(f"/proc/{self.leader}/ns/{name}", os.O_RDONLY) for name in NAMESPACES]
        socket.send_fds(self.control, [b'{"event": "up"}'], [*descriptors, self.root])
        for descriptor in (*descriptors, self.root):
            os.close(descriptor)
        self.root = -1
        self.announced = True

    def container_ended(self, status: int) -> None:
        if self.root >= 0:
            os.close(self.root)
            self.root = -1
        self.container = None
        self.tell(event="down", status=status)
        if status == REBOOTED:
            self.start()

    # --- the conversation ---

    def tell(self, **event: Any) -> None:
        self.control.send(json.dumps(event).encode())

    def obey(self) -> bool:
        """Carry out one order; false when the other side is gone."""
        order = self.control.recv(4096).decode()
        if order == "start" and self.container is None:
            self.start()
        elif order == "cut" and self.leader:
            os.kill(self.leader, signal.SIGKILL)
        return bool(order)

    def serve(self) -> None:
        while True:
            waiting_for_boot = self.root >= 0 and not self.announced
            pause = 0.01 if waiting_for_boot else 0.1
            ready, _, _ = select.select([self.control, self.notify], [], [], pause)
            if self.control in ready and not self.obey():
                return
            if self.notify in ready:
                self.hear_nspawn()
            if self.root >= 0 and not self.announced:
                self.announce()
            self.reap()

    def reap(self) -> None:
        """Collect what ended: the container, and whatever it left to the first process of this namespace."""
        while True:
            try:
                process, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if process == 0:
                return
            if self.container is not None and process == self.container.pid:
                self.container.returncode = os.waitstatus_to_exitcode(status)
                self.container_ended(self.container.returncode)


def main() -> None:
    settings = json.loads(sys.argv[1])
    control = socket.socket(fileno=int(sys.argv[2]))
    supervisor = Supervisor(settings, control)
    try:
        supervisor.prepare()
        supervisor.start()
        supervisor.serve()
    except (BrokenPipeError, ConnectionResetError):
        pass  # the other side is gone, and so are we
    except Exception as trouble:  # whatever it is, the other side must hear of it
        supervisor.tell(event="failed", text=str(trouble))
        raise


if __name__ == "__main__":
    main()
