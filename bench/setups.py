"""
Setup and teardown of an application with many files, on a booted simulated device.

The same by hand is what no setup can do without: the start of a program with the same libraries, the calls of the user
service and of the bus, one pass over the files that gives them away, the two dozen entries in the configuration of others
(as a first setup has left them), the scripts as the application's user (looked at every 100 ms, as velkctl looks at them),
the service manager's and the web server's reload, and the syncs around the lock. velkctl's own work is the processor
time of both commands without reloads and scripts, with ever more files.
"""

from __future__ import annotations

import json
import statistics
from pathlib import Path
from typing import Any

RATIO = 1.2
FILE_US = 20.0
LINEAR_RATIO = 1.5
FILES = 500
MANY = (500, 5000, 20000)
ROUNDS = 7

STORE = "/usr/local/packages"
COMMANDS = ("setup", "teardown")
APP = "Bench"
USER = "velk-bench"
# What a setup leaves in the configuration of others.
MADE = (
    f"/etc/systemd/system/sdk{APP}.service /etc/systemd/system/sdk{APP}.service.d /etc/dbus-1/system.d/{APP}.conf "
    f"/etc/apache2/conf.d/vhosts/all/urls_{APP}.conf /etc/dynamic/{APP}.conf /etc/dynamic/param/{APP}.conf "
    f"/usr/html/local/{APP}"
)

# An application of $2 files, of which every fifth is a page; the manifest is on standard input.
MAKE = f"""
    set -e
    chattr -fR -i {STORE}/{APP} 2>/dev/null || :
    rm -rf {STORE}/{APP}
    mkdir -p {STORE}/{APP}/html/pages {STORE}/{APP}/data
    cd {STORE}/{APP}
    install -m 444 /dev/stdin manifest.json
    echo license >LICENSE
    printf '#!/bin/sh\\necho "$0" >>localdata/ran\\n' | tee after.sh >before.sh
    printf '#!/bin/sh\\n' >{APP}; chmod 755 {APP} after.sh before.sh
    seq -f "data/%.0f" "$(($1 * 4 / 5))" | xargs touch
    seq -f "html/pages/%.0f.html" "$(($1 / 5))" | xargs touch
    chattr +i manifest.json
    sync
"""

BY_HAND = f"""
call() {{ busctl --quiet call com.orvo.UserManagement1 /com/orvo/UserManagement1 \\
          com.orvo.UserManagement1.Application "$@"; }}
script() {{
    (cd {STORE}/{APP} && exec setpriv --reuid {USER} --regid {USER} --init-groups sh -c "{STORE}/{APP}/$1") &
    while kill -0 $! 2>/dev/null; do sleep 0.1; done
}}
set -e
/tmp/trivial
sync; sync
case $1 in
    setup)
        call AddUser ssas velk bench 0
        call SetAPIAccessRights ssas velk bench 0
        chown -hR {USER}:admin {STORE}/{APP} 2>/dev/null || :
        tar -xf /tmp/made.tar -C /
        busctl --quiet call org.freedesktop.DBus / org.freedesktop.DBus ReloadConfig
        script after.sh ;;
    teardown)
        systemctl is-active --quiet sdk{APP}.service || :
        script before.sh
        rm -rf {MADE}
        call RemoveUser ss velk bench ;;
esac
systemctl daemon-reload
systemctl reload httpd
sync
"""


def manifest(scripts: bool) -> str:
    from velkdevice import package

    made = package.manifest(APP)
    conf = made["velkPackageConf"]
    conf["configuration"] = {"httpConfig": [{"type": "directory", "access": "viewer"}],
                             "paramConfig": [{"name": "Speed", "default": "1", "type": "int"}]}  # fmt: skip
    if scripts:
        conf["installation"] = {"postInstallScript": "after.sh"}
        conf["uninstallation"] = {"preUninstallScript": "before.sh"}
    return json.dumps(made)


class Bench:
    """A device with the helpers on it."""

    def __init__(self, device: Any, build: Path) -> None:
        self.device = device
        for name in ("measure", "trivial"):
            device.copy_in(build / "bench" / name, f"/tmp/{name}")
            device.run(["chmod", "755", f"/tmp/{name}"]).check()
        device.write("/tmp/by-hand.sh", BY_HAND)

    def make(self, files: int, scripts: bool) -> None:
        self.device.sh(MAKE, str(files), input=manifest(scripts)).check()

    def measure(self, *command: str) -> tuple[float, float]:
        """Seconds from start to end, and seconds of the processor."""
        self.device.run(["sync"])
        words = self.device.run(["/tmp/measure", "1", *command], timeout=600).check().stdout.split()
        if words[0] != "0":
            raise RuntimeError(f"{' '.join(command)}: exit status {words[0]}")
        return int(words[1]) / 1e9, int(words[3]) / 1e9

    def one_round(self) -> list[float]:
        return [self.measure("velkctl", command, APP)[0] for command in COMMANDS]

    def one_round_by_hand(self) -> list[float]:
        return [self.measure("sh", "/tmp/by-hand.sh", command)[0] for command in COMMANDS]

    def own_work(self) -> float:
        return sum(self.measure("velkctl", command, "--noreload", APP)[1] for command in COMMANDS)


def beside_by_hand(report: Any, bench: Bench) -> None:
    bench.make(FILES, scripts=True)
    bench.device.velkctl("setup", APP).check()
    bench.device.sh(f"tar -cf /tmp/made.tar -C / {MADE.replace(' /', ' ')[1:]}").check()
    bench.device.velkctl("teardown", APP).check()
    rounds = [(bench.one_round(), bench.one_round_by_hand()) for _ in range(ROUNDS)]
    # The least of the rounds: whatever else the machine does only ever adds.
    ours, by_hand = ([min(one[which][part] for one in rounds) for part in (0, 1)] for which in (0, 1))
    parts = ", ".join(f"{name} {a * 1e3:.0f} ms and {b * 1e3:.0f} ms"
                      for name, a, b in zip(COMMANDS, ours, by_hand))  # fmt: skip
    report.bound(f"`setup` and `teardown` of {FILES} files beside the same by hand", sum(ours) / sum(by_hand), RATIO,
                 " times", parts)  # fmt: skip


def own_work(report: Any, bench: Bench) -> None:
    best: list[float] = []
    for files in MANY:
        bench.make(files, scripts=False)
        best.append(min(bench.own_work() for _ in range(ROUNDS)))
    slopes = [(later - earlier) / (more - fewer) * 1e6
              for earlier, later, fewer, more in zip(best, best[1:], MANY, MANY[1:])]  # fmt: skip
    note = ", ".join(f"{time * 1e3:.0f} ms for {files}" for time, files in zip(best, MANY))
    report.bound("processor time of one file more, in both", statistics.mean(slopes), FILE_US, " us", note)
    report.bound(f"that time from {MANY[1]} to {MANY[2]} beside from {MANY[0]} to {MANY[1]}", slopes[1] / slopes[0],
                 LINEAR_RATIO, " times", f"{slopes[1]:.1f} us and {slopes[0]:.1f} us")  # fmt: skip


def setups(report: Any, build: Path) -> None:
    """Add the table of setup and teardown to the report; only a word of it where no device can be booted."""
    from velkdevice import host
    from velkdevice.device import Device

    if host.missing():
        report.say("NOT MEASURED: setup and teardown, for which this machine cannot boot a device.")
        return
    with Device(build / "src/velkctl") as device:
        device.settle()
        bench = Bench(device, build)
        report.table("what", "figure", "bound", "", "in absolute figures")
        beside_by_hand(report, bench)
        own_work(report, bench)
