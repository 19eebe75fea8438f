"""
The whole life: `list` beside the questions that it must ask, an upgrade beside the work that it must have done, and the
installation of the example beside what other installers take for the same files, on a booted simulated device.

By hand means a shell script of the commands that an installation or an upgrade is made of: the same programs with the same
arguments in the same order, the same calls on the bus, the same syncs and flushes. What the script writes itself (units,
settings, rules of the web server) it takes from a copy of what velkctl wrote, so that it has nothing to work out.
"""

from __future__ import annotations

import json
import shutil
import subprocess
import tempfile
from collections.abc import Callable
from pathlib import Path
from typing import Any

from packages import KEYRING, STORE, Kind, archive

CHECKOUT = Path(__file__).resolve().parents[1]
LIST_RATIO = 1.1
OWN_MICROSECONDS = 100.0
UPGRADE_RATIO = 1.15
SCRIPT_RATIO = 1.0
COUNTS = {10: 60, 100: 10, 1000: 5}  # applications, and how often each of the two is run
ROUNDS = 7

# $1 is what to do, $2 the application, $3 the package, $4 the length of its data part. The files that a setup writes lie
# in /tmp/config.tar, their names in /tmp/config.
BY_HAND = f"""
app=$2 package=$3 user=velk-$(echo "$2" | tr '[:upper:]' '[:lower:]')
sync_times() {{ for time in $(seq "$1"); do sync; done; }}
manage() {{
    method=$1; shift
    busctl call com.orvo.UserManagement1 /com/orvo/UserManagement1 com.orvo.UserManagement1.Application "$method" "$@"
}}
is_active() {{ systemctl is-active --quiet "sdk$app.service" || :; }}
look() {{ tar -xOf "$package" manifest.json || [ $? = 2 ]; }}  # the signature behind the archive
bring() {{
    look
    /tmp/by-hand copy "$package" /tmp/by-hand.vlp "$1"
    gpgv --ignore-time-conflict --keyring {KEYRING} /tmp/bench.sig /tmp/by-hand.vlp
    /tmp/by-hand inflate /tmp/by-hand.vlp
    mkdir {STORE}/$app.tmp; chown nobody {STORE}/$app.tmp; cd {STORE}/$app.tmp
    su -s /bin/sh -c "tar --no-same-permissions --no-same-owner -xf '/tmp/by-hand.vlp'" nobody
    chown root:root manifest.json package.conf; chmod 0444 manifest.json package.conf
    chattr +i manifest.json; chattr +i package.conf
    /tmp/by-hand flush {STORE}/$app.tmp
    cd /; mv {STORE}/$app.tmp {STORE}/$app; /tmp/by-hand flush {STORE}
    rm /tmp/by-hand.vlp
}}
set_up() {{
    manage "$1" ssas velk "${{user#velk-}}" 0
    mkdir -p {STORE}/$app/conf {STORE}/$app/localdata
    chown -h -R "$user:admin" {STORE}/$app 2>/dev/null || :  # the two control files stay root's
    tar -xf /tmp/config.tar -C / --no-overwrite-dir
    (cd / && xargs /tmp/by-hand flush </tmp/config)
    busctl call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus ReloadConfig
    manage SetAPIAccessRights ssas velk "${{user#velk-}}" 0
    script=$(sed -n 's/.*"postInstallScript": "\\([^"]*\\)".*/\\1/p' {STORE}/$app/manifest.json)
    # A script is looked after every 100 ms, as velkctl looks.
    [ -z "$script" ] || (cd {STORE}/$app && su -s /bin/sh -c "./$script" "$user" && sleep 0.1)
    systemctl daemon-reload
    systemctl reload httpd
}}
set -e
case $1 in
    install)
        /tmp/trivial
        look; sync_times 2
        bring "$4"; set_up AddUser
        sync_times 2 ;;
    upgrade)
        /tmp/trivial
        look; sync_times 2
        mkdir -p {STORE}/_backup/$app.tmp
        for file in conf/$app.conf conf/param_$app.conf localdata; do cp -fdr {STORE}/$app/$file {STORE}/_backup/$app.tmp; done
        sync; mv {STORE}/_backup/$app.tmp {STORE}/_backup/$app; sync_times 4
        is_active; is_active
        (cd / && xargs rm -f </tmp/config)
        mv {STORE}/$app {STORE}/$app.tmp
        chattr -i {STORE}/$app.tmp/manifest.json; chattr -i {STORE}/$app.tmp/package.conf
        rm -rf {STORE}/$app.tmp; /tmp/by-hand flush {STORE}
        bring "$4"; set_up ModifyUser
        is_active
        cp -fdr {STORE}/_backup/$app/localdata {STORE}/$app/localdata.tmp
        chown -hR "$user" {STORE}/$app/localdata.tmp
        rm -rf {STORE}/$app/localdata; sync; mv {STORE}/$app/localdata.tmp {STORE}/$app/localdata
        /tmp/by-hand flush {STORE}/$app {STORE}/$app/conf
        sync; mv {STORE}/_backup/$app {STORE}/_backup/$app.remove; sync; rm -rf {STORE}/_backup/$app.remove; sync_times 2 ;;
esac
"""

# What setup writes for an application, to be taken over by the script.
KEEP_CONFIGURATION = r"""
cd /; { find etc/systemd/system etc/apache2 etc/dbus-1/system.d etc/dynamic usr/html/local -name "*$1*" ! -type d
        find "usr/local/packages/$1/conf" -type f; find etc/systemd/system -path "*$1*/*" -type f; } | sort -u >/tmp/all
tar -cf /tmp/config.tar -T /tmp/all
while read -r file; do [ -L "$file" ] || echo "$file"; done </tmp/all >/tmp/config
"""


class Bench:
    """A device with the helpers on it; times in seconds, nothing of earlier work being left to write."""

    def __init__(self, device: Any, build: Path) -> None:
        self.device = device
        for name in ("measure", "own-time", "trivial", "by-hand"):
            device.copy_in(build / "bench" / name, f"/tmp/{name}")
            device.run(["chmod", "755", f"/tmp/{name}"]).check()
        device.write("/tmp/by-hand.sh", BY_HAND)
        self.length = 0

    def put(self, data: bytes, path: str) -> None:
        """Put the package of this archive, signed; by hand knows the signature already."""
        from velkdevice import package

        signature = package.Key.trusted().sign(data)
        self.length = len(data)
        with tempfile.NamedTemporaryFile() as file:
            file.write(package.append_signature(data, signature))
            file.flush()
            self.device.copy_in(file.name, path)
        self.device.write("/tmp/bench.sig", signature)

    def time(self, *command: str) -> float:
        self.device.run(["sync"])
        words = self.device.run(["/tmp/measure", "1", *command], timeout=600).check().stdout.split()
        if words[0] != "0":
            raise RuntimeError(f"{' '.join(command)}: exit status {words[0]}")
        return int(words[1]) / 1e9

    def own_time(self, *command: str) -> float:
        words = self.device.run(["/tmp/own-time", *command], timeout=600).check().stdout.split()
        if words[0] != "0":
            raise RuntimeError(f"{' '.join(command)}: exit status {words[0]}")
        return int(words[1]) / 1e9

    def by_hand(self, what: str, app: str, package: str) -> float:
        return self.time("sh", "/tmp/by-hand.sh", what, app, package, str(self.length))

    def keep_configuration(self, app: str) -> None:
        self.device.sh(KEEP_CONFIGURATION, app).check()


def least(rounds: int, *works: Callable[[], float]) -> list[float]:
    """The least time of each, run in turns: whatever else the machine does only ever adds."""
    times = [[work() for work in works] for _ in range(rounds)]
    return [min(column) for column in zip(*times)]


# --- list ---


def fill_store(device: Any, count: int) -> None:
    """Let the store hold applications that are set up as far as the listing looks."""
    from velkdevice import package

    script = """
        cat >/tmp/manifest.json
        for number in $(seq "$1"); do
            directory=/usr/local/packages/Bench$number
            mkdir -p "$directory/conf"
            sed "s/NAME/Bench$number/" /tmp/manifest.json >"$directory/manifest.json"
            chmod 0444 "$directory/manifest.json"
            echo ENABLED=yes >"$directory/conf/runstate.conf"
            echo '{"signature": "", "state": "confirmed"}' >"/etc/velk/vsf/Bench$number"
            printf '[Service]\\nExecStart=/bin/true\\n' >"/etc/systemd/system/sdkBench$number.service"
        done
        systemctl daemon-reload
    """
    device.sh(script, str(count), input=json.dumps(package.manifest("NAME"), indent=2)).check()


def listing(report: Any, bench: Bench) -> None:
    def questions(count: int) -> list[str]:
        return ["/tmp/by-hand", "active", str(count)]

    def started(count: int) -> list[str]:
        """The same with the start of a program with velkctl's libraries."""
        return ["sh", "-c", f"/tmp/trivial; exec {' '.join(questions(count))}"]

    def of_nothing() -> float:
        bench.device.sh("mount -t tmpfs none /usr/local/packages").check()
        try:
            return bench.own_time("velkctl", "list")
        finally:
            bench.device.sh("umount /usr/local/packages").check()

    def own(count: int, rounds: int) -> tuple[float, float]:
        """
        Ours and theirs without the start, which is what a listing of nothing takes.

        That is taken in the same moments: a machine may run slower for some seconds.
        """
        ours, theirs, start, bare_start = least(
            rounds,
            lambda: bench.own_time("velkctl", "list"),
            lambda: bench.own_time(*questions(count)),
            of_nothing,
            lambda: bench.own_time(*questions(0)),
        )
        return ours - start, theirs - bare_start

    for count, rounds in COUNTS.items():
        fill_store(bench.device, count)
        ours, theirs = least(rounds, lambda: bench.time("velkctl", "list"), lambda: bench.time(*started(count)))
        note = f"{ours * 1e3:.0f} ms and {theirs * 1e3:.0f} ms"
        report.bound(f"`list` of {count} applications beside their active tests by hand", ours / theirs, LIST_RATIO,
                     " times", note)  # fmt: skip
        ours, theirs = own(count, rounds)
        note = f"{ours * 1e3:.1f} ms and {theirs * 1e3:.1f} ms of processor time, without the start"
        report.bound(f"velkctl's own part of `list` for each of {count}", (ours - theirs) / count * 1e6,
                     OWN_MICROSECONDS, " us", note)  # fmt: skip
    bench.device.sh("rm -rf /usr/local/packages/Bench* /etc/velk/vsf/Bench* /etc/systemd/system/sdkBench*; "
                    "systemctl daemon-reload").check()  # fmt: skip


# --- upgrade ---


def upgrade(report: Any, bench: Bench) -> None:
    path = "/tmp/bench.vlp"
    bench.put(archive(Kind(20, compress=True, noise=False)), path)
    bench.time("velkctl", "install", path)
    bench.keep_configuration("Bench")
    ours, theirs = least(ROUNDS, lambda: bench.time("velkctl", "install", path),
                         lambda: bench.by_hand("upgrade", "Bench", path))  # fmt: skip
    note = f"{ours * 1e3:.0f} ms and {theirs * 1e3:.0f} ms"
    report.bound("upgrade of a 20 MB application beside the same by hand", ours / theirs, UPGRADE_RATIO, " times", note)
    bench.time("velkctl", "uninstall", "Bench")


# --- the example, beside other installers ---

UNIT = "[Service]\nExecStart={0}/hello\nWorkingDirectory={0}\nRestart=always\n[Install]\nWantedBy=multi-user.target\n"
PORTABLE = {
    "/usr/bin/portablectl": "/usr/bin/portablectl",
    "/usr/lib/systemd/systemd-portabled": "/usr/lib/systemd/systemd-portabled",
    "/usr/lib/systemd/system/systemd-portabled.service": "/usr/lib/systemd/system/systemd-portabled.service",
    "/usr/share/dbus-1/system.d/org.freedesktop.portable1.conf": "/usr/share/dbus-1/system.d/org.freedesktop.portable1.conf",
    "/usr/share/dbus-1/system-services/org.freedesktop.portable1.service":
        "/usr/share/dbus-1/system-services/org.freedesktop.portable1.service",
    "/usr/lib/systemd/portable": "/usr/lib/systemd/portable",
}  # fmt: skip


def put_deb(device: Any, folder: Path) -> None:
    """A package of the same files and one unit; what it does beside unpacking is to tell the service manager."""
    tree = folder / "deb"
    shutil.copytree(CHECKOUT / "examples" / "hello", tree / "usr/local/packages/hello")
    (tree / "etc/systemd/system").mkdir(parents=True)
    (tree / "etc/systemd/system/sdkhello.service").write_text(UNIT.format(f"{STORE}/hello"), encoding="utf-8")
    control = tree / "DEBIAN"
    control.mkdir()
    (control / "control").write_text("Package: velk-hello\nVersion: 1.0.0\nArchitecture: all\nMaintainer: nobody\n"
                                     "Description: example\n", encoding="utf-8")  # fmt: skip
    (control / "postinst").write_text("#!/bin/sh\nsystemctl daemon-reload\n", encoding="utf-8")
    (control / "postinst").chmod(0o755)
    command = ["dpkg-deb", "--root-owner-group", "-Zgzip", "-b", tree, folder / "hello.deb"]
    subprocess.run(command, check=True, capture_output=True)
    device.copy_in(folder / "hello.deb", "/tmp/hello.deb")


def put_portable(device: Any) -> None:
    """The machine's own portable services, which the camera has no use for otherwise, and a tree of the same files."""
    for source, target in PORTABLE.items():
        device.copy_in(Path(source), target)
    device.copy_in(CHECKOUT / "examples" / "hello", "/var/lib/portables/velk-hello/app")
    device.write("/var/lib/portables/velk-hello/usr/lib/systemd/system/velk-hello.service", UNIT.format("/app"))
    script = r"""
        chmod 755 /usr/bin/portablectl /usr/lib/systemd/systemd-portabled
        ln -s systemd-portabled.service /usr/lib/systemd/system/dbus-org.freedesktop.portable1.service
        cd /var/lib/portables/velk-hello
        mkdir -p etc proc sys dev run tmp var/tmp bin lib lib64 root
        cp /etc/os-release etc/; cp /etc/machine-id etc/; : >etc/resolv.conf
        systemctl daemon-reload
        busctl call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus ReloadConfig
    """
    device.sh(script).check()


def measured_install(bench: Bench, undo: tuple[str, ...], install: Callable[[], float]) -> Callable[[], float]:
    """An installation that is undone after its time was taken."""

    def work() -> float:
        seconds = install()
        bench.device.run(list(undo), timeout=60).check()
        return seconds

    return work


def example(report: Any, bench: Bench) -> None:
    from velkdevice import package

    path, folder = "/tmp/hello.vlp", CHECKOUT / "examples" / "hello"
    bench.put(package.archive_of(folder), path)
    bench.time("velkctl", "install", path)
    bench.keep_configuration("hello")
    bench.time("velkctl", "uninstall", "hello")
    with tempfile.TemporaryDirectory() as scratch:
        put_deb(bench.device, Path(scratch))
    put_portable(bench.device)
    undo = ("velkctl", "uninstall", "hello")
    ours, script, dpkg, portable = least(
        ROUNDS, measured_install(bench, undo, lambda: bench.time("velkctl", "install", path)),
        measured_install(bench, undo, lambda: bench.by_hand("install", "hello", path)),
        measured_install(bench, ("dpkg", "-P", "velk-hello"), lambda: bench.time("dpkg", "-i", "/tmp/hello.deb")),
        measured_install(bench, ("portablectl", "detach", "--now", "velk-hello"),
                         lambda: bench.time("portablectl", "attach", "--now", "velk-hello")))  # fmt: skip
    absolute = f"{ours * 1e3:.0f} ms and {{:.0f}} ms"
    report.bound("`install` of the example beside the same steps in a shell script", ours / script, SCRIPT_RATIO, " times",
                 absolute.format(script * 1e3))  # fmt: skip
    for name, seconds in (("dpkg -i` of a package with the same files and one unit", dpkg),
                          ("portablectl attach --now` of the same tree", portable)):  # fmt: skip
        report.say(f"| `install` of the example beside `{name} | {ours / seconds:.2f} times | none | | "
                   f"{absolute.format(seconds * 1e3)} |")  # fmt: skip
    dominating(report, bench)


def dominating(report: Any, bench: Bench) -> None:
    """What an installation's time goes into: each of the commands that it cannot do without, alone."""
    parts = {
        "`systemctl reload httpd`": ["systemctl", "reload", "httpd"],
        "`systemctl daemon-reload`": ["systemctl", "daemon-reload"],
        "`gpgv`, the data part and the key ring": ["sh", "-c", f"gpgv --keyring {KEYRING} /tmp/bench.sig /tmp/hello.vlp"],
        "one `sync`": ["sync"],
        "one `su` to run `tar`": ["su", "-s", "/bin/sh", "-c", "tar --version", "nobody"],
    }
    found = []
    for name, command in parts.items():
        times = []
        for _ in range(ROUNDS):
            words = bench.device.run(["/tmp/measure", "1", *command]).check().stdout.split()
            times.append(int(words[1]) / 1e9)
        found.append(f"{name} {min(times) * 1e3:.0f} ms")
    report.say()
    report.say("What an installation must run, each alone: " + ", ".join(found) + ".")


def lifecycle(report: Any, build: Path) -> None:
    """Add the table to the report; nothing but a word of it where no device can be booted."""
    from velkdevice import host
    from velkdevice.device import Device

    if host.missing():
        report.say("NOT MEASURED: the life of applications, for which this machine cannot boot a device.")
        return
    with Device(build / "src/velkctl") as device:
        device.settle()
        bench = Bench(device, build)
        report.table("what", "figure", "bound", "", "in absolute figures")
        listing(report, bench)
        upgrade(report, bench)
        example(report, bench)
