"""
The device as the camera that it stands for: what its image brings, its web server and its two services.

Long, since it is the list of what a camera must be for velkctl.
"""

from __future__ import annotations

import json
import re
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from velkdevice import snapshot
from velkdevice.device import Device

Boot = Callable[..., Device]


def lines(text: str) -> list[str]:
    return text.splitlines()


# --- what works as on hardware ---


def test_it_boots_to_running(boot_device: Boot) -> None:
    assert boot_device().settle() == "running"


def test_the_immutable_attribute_holds_against_root(pristine: Device) -> None:
    for folder in ("/usr/local/packages", "/opt/packages/_layers", "/var/spool/storage", "/etc", "/tmp"):
        script = """
            cd "$1" && touch fixed && chattr +i fixed
            { rm -f fixed; echo x >fixed; } 2>/dev/null
            lsattr fixed
        """
        assert re.match(r"-+i-+e?-+ fixed\n$", pristine.sh(script, folder).stdout), folder
        pristine.sh('cd "$1" && chattr -i fixed && rm fixed', folder).check()


@pytest.mark.parametrize("place", ["/usr/local/packages", "/opt/packages/_layers", "/var/spool/storage"])
def test_an_overlay_can_lie_on_every_store(pristine: Device, place: str) -> None:
    script = """
        set -e
        mkdir -p "$1/lower" "$1/upper" "$1/work" "$1/merged"
        echo below >"$1/lower/file"
        mount -t overlay none "$1/merged" -o "lowerdir=$1/lower,upperdir=$1/upper,workdir=$1/work,nosuid"
        echo above >"$1/merged/file"
        rm "$1/merged/file"
        echo new >"$1/merged/new"
        ls "$1/merged" "$1/lower"
        umount "$1/merged"
        rm -r "$1"
    """
    shown = pristine.sh(script, f"{place}/overlay").check().stdout
    assert shown == f"{place}/overlay/lower:\nfile\n\n{place}/overlay/merged:\nnew\n"


def test_a_squash_image_mounts_through_a_loop_device(pristine: Device) -> None:
    script = """
        set -e
        mkdir -p /usr/local/packages/squash/tree /usr/local/packages/squash/point
        cd /usr/local/packages/squash
        echo inside >tree/file
        mksquashfs tree image -quiet -no-progress
        mount -t squashfs -o ro,nosuid,nodev image point
        cat point/file
        ! touch point/other 2>/dev/null
        umount point
        cd / && rm -r /usr/local/packages/squash
    """
    assert pristine.sh(script).check().stdout == "inside\n"


def test_su_becomes_nobody(device: Device) -> None:
    result = device.run(["su", "-s", "/bin/sh", "nobody", "-c", "id -u; id -g"])
    assert (result.status, result.stdout) == (0, "65534\n65534\n")


def test_a_unit_starts_is_restarted_and_stops(pristine: Device) -> None:
    unit = """
        [Unit]
        After=velk-pre.target
        Requires=velk-pre.target
        [Service]
        LimitSTACK=8M:infinity
        Slice=extension-velk.slice
        ExecStart=/bin/sleep infinity
        Restart=always
        RestartSec=0
        User=sdk
        [Install]
        WantedBy=velk.target
    """
    pristine.write("/etc/systemd/system/sdkKit.service", re.sub("^ +", "", unit, flags=re.MULTILINE))
    pristine.sh("systemctl daemon-reload && systemctl enable --quiet --now sdkKit").check()

    def main_pid() -> str:
        return pristine.run(["systemctl", "show", "-P", "MainPID", "sdkKit"]).stdout.strip()

    first = main_pid()
    groups = lines(pristine.sh('cat "/proc/$1/cgroup"', first).stdout)
    assert "0::/extension.slice/extension-velk.slice/sdkKit.service" in groups
    pristine.run(["kill", "-KILL", first]).check()
    pristine.wait_for(lambda: main_pid() not in ("0", first), "the restart")
    pristine.sh("systemctl disable --quiet --now sdkKit && rm /etc/systemd/system/sdkKit.service").check()
    pristine.sh("systemctl daemon-reload").check()
    assert pristine.run(["ps", "-u", "sdk", "-o", "pid="]).stdout == ""


def test_an_enabled_application_starts_with_the_device(fresh_device: Device) -> None:
    unit = "[Service]\nExecStart=/bin/sleep infinity\n[Install]\nWantedBy=velk.target\n"
    fresh_device.write("/etc/systemd/system/sdkKit.service", unit)
    fresh_device.sh("systemctl daemon-reload && systemctl enable --quiet sdkKit").check()
    fresh_device.reboot()
    assert fresh_device.settle() == "running"
    assert fresh_device.run(["systemctl", "is-active", "sdkKit"]).stdout == "active\n"


def test_the_log_takes_what_is_sent_to_it(device: Device) -> None:
    device.run(["logger", "-t", "kit", "-p", "daemon.warning", "a line of the kit"]).check()
    script = "journalctl -t kit -o json --no-pager | tail -n 1"
    device.wait_for(lambda: device.sh(script).stdout != "", "the line in the log")
    entry = json.loads(device.sh(script).stdout)
    assert (entry["MESSAGE"], entry["PRIORITY"]) == ("a line of the kit", "4")


# --- power and cards ---


def test_a_reboot_keeps_the_disk_and_empties_memory(fresh_device: Device) -> None:
    fresh_device.sh(
        "for d in /etc /opt /usr/local/packages /var/spool/storage /run /tmp; do touch $d/kit; done"
    ).check()
    boot = fresh_device.read("/proc/sys/kernel/random/boot_id")
    fresh_device.reboot()
    assert fresh_device.read("/proc/sys/kernel/random/boot_id") != boot
    kept = lines(
        fresh_device.sh("ls -d /*/kit /usr/local/packages/kit /var/spool/storage/kit 2>/dev/null").stdout
    )
    assert kept == ["/etc/kit", "/opt/kit", "/usr/local/packages/kit", "/var/spool/storage/kit"]


def test_a_cut_of_power_keeps_what_was_written(fresh_device: Device) -> None:
    fresh_device.write("/usr/local/packages/kit", "written")
    fresh_device.cut_power()
    assert not fresh_device.running
    fresh_device.power_on()
    assert fresh_device.settle() == "running"
    assert fresh_device.read("/usr/local/packages/kit") == "written"


@pytest.mark.parametrize("file_system", ["ext4", "ext3", "vfat"])
def test_a_card_is_mounted_and_leaves_nothing(pristine: Device, file_system: str) -> None:
    if file_system not in Path("/proc/filesystems").read_text(encoding="ascii").split():
        pytest.skip(f"this machine's kernel has no {file_system}")
    pristine.insert_card(file_system=file_system)
    mount = pristine.run(["findmnt", "-n", "-o", "FSTYPE", "/var/spool/storage/SD_DISK"])
    assert mount.stdout == f"{file_system}\n"
    assert snapshot.take(pristine).sections["loop"] == {"/var/lib/orvo-cards/SD_DISK.img": "in use"}
    pristine.write("/var/spool/storage/SD_DISK/packages/file", "on the card")
    pristine.remove_card()


def test_a_card_is_there_after_a_reboot_and_its_overlay_too(fresh_device: Device) -> None:
    """The mount of an application on a card waits for multi-user.target and is wanted by velk.target."""
    fresh_device.insert_card()
    lower, upper, work = (
        f"/var/spool/storage/SD_DISK/packages/Kit/{name}" for name in ("lower", "upper", "work")
    )
    fresh_device.run(["mkdir", "-p", lower, upper, work, "/usr/local/packages/Kit"]).check()
    units = {
        "sdkKit-disk-mounted.service": (
            "[Unit]\nRequires=multi-user.target\nAfter=multi-user.target\n\n[Service]\n"
            'ExecStartPre=sh -c "while ! [ -d /var/spool/storage/SD_DISK/packages ]; do sleep 1; done"\n'
            "ExecStart=echo null > /dev/null\nRemainAfterExit=yes\n"
        ),
        "usr-local-packages-Kit.mount": (
            "[Unit]\nAfter=sdkKit-disk-mounted.service\nWants=sdkKit-disk-mounted.service\n"
            "DefaultDependencies=no\n\n"
            "[Mount]\nWhat=overlay\nWhere=/usr/local/packages/Kit\nType=overlay\n"
            f"Options=lowerdir={lower},upperdir={upper},workdir={work},nosuid\n\n"
            "[Install]\nWantedBy=velk.target\n"
        ),
    }
    for name, text in units.items():
        fresh_device.write(f"/etc/systemd/system/{name}", text)
    fresh_device.sh(
        "systemctl daemon-reload; systemctl enable --quiet --now usr-local-packages-Kit.mount"
    ).check()
    for _ in range(2):
        mounted = ["findmnt", "-n", "-o", "FSTYPE", "/usr/local/packages/Kit"]
        fresh_device.wait_for(lambda: fresh_device.run(mounted).stdout == "overlay\n", "the overlay")
        assert fresh_device.settle() == "running"
        assert "ordering cycle" not in fresh_device.run(["journalctl", "-b", "--no-pager"]).stdout
        fresh_device.reboot()


# --- what the image brings ---

DIRECTORIES = """
    drwxr-xr-x /etc/apache2
    drwxr-xr-x /etc/apache2/conf.d/vhosts/all
    drwxr-xr-x /etc/apache2/fcgi
    drwxr-xr-x /etc/apache2/transfer
    drwxr-xr-x /etc/dbus-1/system.d
    drwxr-xr-x /etc/dynamic
    drwxr-xr-x /etc/systemd/system
    drwxr-xr-x /etc/velk/conf
    drwxr-xr-x /etc/velk/preinstalled
    drwxr-xr-x /etc/velk/vsf
    drwxr-xr-x /opt/packages/_layers
    drwxr-xr-x /run/orvo-features
    drwxr-xr-x /usr/html/local
    drwxr-xr-x /usr/lib/velkctl/plugins
    drwxr-xr-x /usr/local/packages
    drwxr-xr-x /usr/share/packages
    drwxr-xr-x /usr/share/velk/valid-users-groups.d
    drwxr-xr-x /usr/share/velkmanager
    drwxr-xr-x /var/spool/storage
    drwxrwxrwt /tmp
    drwxrwxrwt /var/run/http
"""


def test_every_directory_of_the_image_is_there(fresh_device: Device) -> None:
    wanted = [line.strip() for line in lines(DIRECTORIES) if line.strip()]
    paths = [line.split()[1] for line in wanted]
    shown = fresh_device.run(["stat", "-c", "%A %n %u:%g", *paths]).check().stdout
    assert lines(shown) == [f"{line} 0:0" for line in wanted]
    for path in (
        "/etc/velk/vsf",
        "/etc/dynamic",
        "/usr/share/packages",
        "/usr/local/packages",
        "/usr/html/local",
    ):
        assert fresh_device.run(["ls", "-A", path]).stdout == "", path


def test_every_file_of_the_image_is_there(device: Device) -> None:
    settings = "[Install]\nAllowUnsigned=false\nPostInstallScriptTimeout=60\nPreUninstallScriptTimeout=60\n"
    assert device.read("/etc/velk/conf/packageparser.conf") == settings
    for path in ("/usr/share/velk/valid-users-groups.d/amend-list", "/etc/subuid", "/etc/subgid"):
        assert device.read(path) == ""
    paths = ["/usr/share/velkmanager/velk.public.gpg", "/etc/subuid", "/etc/velk/conf/packageparser.conf"]
    assert set(lines(device.run(["stat", "-c", "%a %u:%g", *paths]).check().stdout)) == {"644 0:0"}
    assert not device.exists("/run/orvo-features/devel")
    assert not device.exists("/usr/share/velk/no-such-file")


def test_every_user_and_group_of_the_image_is_there(device: Device) -> None:
    groups = [
        "admin",
        "operator",
        "viewer",
        "www",
        "sdk",
        "ssh-users",
        "video",
        "audio",
        "render",
        "input",
        "gpio",
        "i2c",
        "spi",
    ]
    shown = [line.split(":")[0] for line in lines(device.run(["getent", "group", *groups]).check().stdout)]
    assert shown == groups
    for user in ("sdk", "viewer", "operator", "admin", "www"):
        assert device.run(["id", "-gn", user]).check().stdout == f"{user}\n"
        assert int(device.run(["id", "-u", user]).stdout) < 1000


def test_the_application_target_is_not_ordered_against_the_others(device: Device) -> None:
    def show(unit: str, key: str) -> set[str]:
        return set(device.run(["systemctl", "show", "-P", key, unit]).check().stdout.split())

    assert "velk.target" in show("multi-user.target", "Wants")
    assert "velk.target" not in show("multi-user.target", "After")
    assert not show("velk.target", "Before") & {"multi-user.target", "default.target", "graphical.target"}
    assert "velk-pre.target" in show("velk.target", "After")
    states = device.run(["systemctl", "is-active", "velk-pre.target", "velk.target", "httpd.service"]).stdout
    assert states == "active\nactive\nactive\n"


def test_the_units_of_the_image_are_sound(device: Device) -> None:
    units = [
        "velk.target",
        "velk-pre.target",
        "extension-velk.slice",
        "httpd.service",
        "orvo-services.service",
    ]
    result = device.run(["systemd-analyze", "verify", "--man=no", *units])
    assert (result.status, result.stdout, result.stderr) == (0, "", "")


# --- the web server ---


def fetch(device: Device, path: str, user: str | None, *options: str) -> tuple[str, str]:
    login = ["-u", f"{user}:{user}"] if user else []
    result = device.run(["curl", "-s", *login, *options, "-w", "\n%{http_code}", f"http://localhost{path}"])
    body, _, code = result.stdout.rpartition("\n")
    return code, body


WHO = [None, "viewer", "operator", "admin"]
MATRIX = {
    "viewer": ["401", "200", "200", "200"],
    "operator": ["401", "403", "200", "200"],
    "admin": ["401", "403", "403", "200"],
    "ssh-users": ["401", "403", "403", "403"],
    "no-such-group": ["401", "403", "403", "403"],
}


@pytest.fixture
def site(pristine: Device) -> Iterator[Device]:
    """An application's page as setup leaves it: below a link in the web root, its files in group www."""
    script = """
        set -e
        mkdir -p /usr/local/packages/Site/html
        cd /usr/local/packages/Site
        for group in viewer operator admin ssh-users no-such-group; do
            echo "page for $group" >html/$group.html
        done
        chown -R sdk:www html
        chmod 0640 html/*
        chmod 0751 html
        ln -s /usr/local/packages/Site/html /usr/html/local/Site
        {
            echo '<Directory "/usr/html/local/Site">'
            for group in viewer operator admin ssh-users no-such-group; do
                printf '  <Files "%s.html">\\n    Require orvo-group %s\\n  </Files>\\n' $group $group
            done
            echo '</Directory>'
        } >/etc/apache2/conf.d/vhosts/all/urls_Site.conf
    """
    pristine.sh(script).check()
    reload(pristine)
    yield pristine
    pristine.sh(
        "rm -r /usr/local/packages/Site /usr/html/local/Site; rm -f /etc/apache2/*/*_Site.conf"
    ).check()
    pristine.sh("rm /etc/apache2/conf.d/vhosts/all/urls_Site.conf").check()
    reload(pristine)


def reload(device: Device) -> None:
    device.run(["systemctl", "reload", "httpd"]).check()


@pytest.mark.parametrize("group", MATRIX)
def test_a_page_is_for_its_group_and_those_above(site: Device, group: str) -> None:
    site.wait_for(lambda: fetch(site, "/local/Site/admin.html", "viewer")[0] == "403", "the new rules")
    answers = [fetch(site, f"/local/Site/{group}.html", user) for user in WHO]
    assert [code for code, _ in answers] == MATRIX[group]
    assert all(body == f"page for {group}\n" for code, body in answers if code == "200")


def test_the_password_counts_and_unlisted_files_are_for_every_login(site: Device) -> None:
    wrong = site.run(
        ["curl", "-s", "-o", "/dev/null", "-u", "admin:wrong", "-w", "%{http_code}", "http://localhost/"]
    )
    assert wrong.stdout == "401"
    assert [fetch(site, "/local/Site/unknown.html", user)[0] for user in WHO] == ["401", "404", "404", "404"]
    assert [fetch(site, "/", user)[0] for user in WHO] == ["401", "200", "200", "200"]


def test_a_change_of_group_counts_at_once(site: Device) -> None:
    site.run(["usermod", "-a", "-G", "ssh-users", "viewer"]).check()
    try:
        assert fetch(site, "/local/Site/ssh-users.html", "viewer")[0] == "200"
    finally:
        site.run(["gpasswd", "-d", "viewer", "ssh-users"]).check()
    assert fetch(site, "/local/Site/ssh-users.html", "viewer")[0] == "403"


SERVER = """
import os, socket, sys
path = sys.argv[1]
os.umask(0)
listening = socket.socket(socket.AF_UNIX)
listening.bind(path)
listening.listen()
while True:
    peer, _ = listening.accept()
    request = b""
    while b"\\r\\n\\r\\n" not in request:
        request += peer.recv(65536)
    head, _, body = request.partition(b"\\r\\n\\r\\n")
    length = [int(line[15:]) for line in head.split(b"\\r\\n") if line.lower().startswith(b"content-length:")]
    while len(body) < (length[0] if length else 0):
        body += peer.recv(65536)
    answer = head.split(b"\\r\\n")[0] + b"|" + body + b"|" + os.popen("id -un").read().strip().encode()
    head = b"HTTP/1.1 200 OK\\r\\nConnection: close\\r\\nContent-Length: %d\\r\\n\\r\\n" % len(answer)
    peer.sendall(head + answer)
    peer.close()
"""


@pytest.fixture
def transfer(site: Device) -> Iterator[Device]:
    """An HTTP server on a Unix socket, run as an application's user, and the page names that lead to it."""
    site.write("/usr/local/packages/Site/server.py", SERVER)
    script = """
        set -e
        cd /usr/local/packages/Site
        for name in 'run.cgi' 'with blank.cgi'; do
            touch "html/$name"; chown sdk:operator "html/$name"; chmod 0750 "html/$name"
            printf 'TransferMethodProxy "/local/Site/%s" /var/run/http/Site/http\\n' "$name"
        done >/etc/apache2/transfer/transfer_Site.conf
        printf '<Directory "/usr/html/local/Site">\\n<Files "%s">\\n%s\\n</Files>\\n</Directory>\\n' \\
            run.cgi 'Require orvo-group operator' >>/etc/apache2/conf.d/vhosts/all/urls_Site.conf
        systemctl reload httpd
    """
    site.sh(script).check()
    site.run(["mkdir", "/var/run/http/Site"], user="sdk").check()
    server, told = site.start(
        ["python3", "/usr/local/packages/Site/server.py", "/var/run/http/Site/http"], user="sdk"
    )
    try:
        site.wait_for(lambda: site.exists("/var/run/http/Site/http"), "the server")
        site.wait_for(lambda: fetch(site, "/local/Site/run.cgi", "operator")[0] == "200", "the proxy")
        yield site
    finally:
        server.kill()
        said = server.communicate()
        site.run(["rm", "-r", "/var/run/http/Site"]).check()
    assert (said, told()) == ((b"", b""), "")


def test_a_transfer_request_reaches_the_socket_with_all_it_brings(transfer: Device) -> None:
    answer = fetch(transfer, "/local/Site/run.cgi?a=1&b=%20", "operator", "--data-binary", "some body")
    assert answer == ("200", "POST /local/Site/run.cgi?a=1&b=%20 HTTP/1.1|some body|sdk")
    assert fetch(transfer, "/local/Site/with%20blank.cgi", "viewer") == (
        "200",
        "GET /local/Site/with%20blank.cgi HTTP/1.1||sdk",
    )


def test_a_transfer_request_obeys_the_rules_of_its_file(transfer: Device) -> None:
    assert [fetch(transfer, "/local/Site/run.cgi", user)[0] for user in WHO] == ["401", "403", "200", "200"]


def test_only_the_exact_path_is_transferred(transfer: Device) -> None:
    assert fetch(transfer, "/local/Site/run.cgix", "admin")[0] == "404"
    assert fetch(transfer, "/local/Site/viewer.html", "viewer") == ("200", "page for viewer\n")


@pytest.mark.parametrize(
    "line",
    [
        "TransferMethodProxy",
        "TransferMethodProxy /a",
        "TransferMethodProxy a /b",
        "TransferMethodProxy /a b",
        "<Directory /usr/html>\nRequire orvo-group\n</Directory>",
    ],
)
def test_a_faulty_directive_is_refused_and_the_server_goes_on(pristine: Device, line: str) -> None:
    pristine.write("/etc/apache2/transfer/transfer_bad.conf", line + "\n")
    try:
        assert pristine.run(["apachectl", "-t"]).status == 1
        assert pristine.run(["systemctl", "reload", "httpd"]).status == 1
        assert fetch(pristine, "/", "viewer")[0] == "200"
    finally:
        pristine.run(["rm", "/etc/apache2/transfer/transfer_bad.conf"]).check()
    reload(pristine)


def test_a_stopped_server_cannot_be_reloaded_but_started(fresh_device: Device) -> None:
    fresh_device.run(["systemctl", "stop", "httpd"]).check()
    assert fresh_device.run(["systemctl", "reload", "httpd"]).status == 1
    fresh_device.run(["systemctl", "start", "--quiet", "httpd"]).check()
    assert fetch(fresh_device, "/", "viewer")[0] == "200"


# --- the services on the system bus ---


def call(
    device: Device, service: str, interface: str, method: str, *arguments: str, user: str | None = None
) -> str:
    """What the method answers, or its error's name and text, as gdbus prints them."""
    result = device.run(
        [
            "gdbus",
            "call",
            "--system",
            "-d",
            f"com.orvo.{service}",
            "-o",
            f"/com/orvo/{service}",
            "-m",
            f"com.orvo.{service}{interface}.{method}",
            "--",
            *arguments,
        ],
        user=user,
    )
    return (result.stdout or result.stderr.removeprefix("Error: GDBus.Error:")).rstrip("\n")


def info(device: Device, keys: str, user: str | None = None) -> str:
    return call(device, "BasicDeviceInfo1", "", "Get", keys, user=user)


def users(device: Device, method: str, *arguments: str, user: str | None = None) -> str:
    return call(device, "UserManagement1", ".Application", method, *arguments, user=user)


def test_device_information_comes_from_the_readable_file(pristine: Device) -> None:
    both = "({'Version': '11.8.64', 'SerialNumber': '020000000001'},)"
    assert info(pristine, "['Version', 'SerialNumber']") == both
    assert info(pristine, "['Version', 'Weight']", user="nobody") == "({'Version': '11.8.64'},)"
    assert info(pristine, "@as []") == "(@a{ss} {},)"
    before = pristine.read("/etc/orvo/device-info")
    pristine.write("/etc/orvo/device-info", "# another\nVersion=12.0=x\n")
    assert info(pristine, "['Version', 'SerialNumber']") == "({'Version': '12.0=x'},)"
    pristine.run(["rm", "/etc/orvo/device-info"]).check()
    error = "com.orvo.BasicDeviceInfo1.Error.Unreadable: /etc/orvo/device-info cannot be read"
    assert info(pristine, "['Version']") == error
    pristine.write("/etc/orvo/device-info", before)


def test_a_user_is_added_changed_granted_and_removed(pristine: Device) -> None:
    assert users(pristine, "AddUser", "velk", "foo_bar-1", "['video', 'www']") == "()"
    entry = pristine.run(["getent", "passwd", "velk-foo_bar-1"]).stdout.strip().split(":")
    assert entry[4:] == ["Application", "/nonexistent", "/usr/sbin/nologin"]
    assert int(entry[2]) < 1000
    assert pristine.run(["id", "-gn", "velk-foo_bar-1"]).stdout == "velk-foo_bar-1\n"
    assert set(pristine.run(["id", "-Gn", "velk-foo_bar-1"]).stdout.split()) == {
        "velk-foo_bar-1",
        "video",
        "www",
    }

    assert users(pristine, "ModifyUser", "velk", "foo_bar-1", "['audio']") == "()"
    assert set(pristine.run(["id", "-Gn", "velk-foo_bar-1"]).stdout.split()) == {"velk-foo_bar-1", "audio"}
    assert users(pristine, "ModifyUser", "velk", "foo_bar-1", "@as []") == "()"
    assert pristine.run(["id", "-Gn", "velk-foo_bar-1"]).stdout == "velk-foo_bar-1\n"

    rights = "/var/lib/orvo/api-access/velk-foo_bar-1"
    assert (
        users(pristine, "SetAPIAccessRights", "velk", "foo_bar-1", "['com.orvo.A.b', 'com.orvo.C.*']") == "()"
    )
    assert pristine.read(rights) == "com.orvo.A.b\ncom.orvo.C.*\n"
    assert users(pristine, "SetAPIAccessRights", "velk", "foo_bar-1", "@as []") == "()"
    assert pristine.read(rights) == ""

    assert users(pristine, "RemoveUser", "velk", "foo_bar-1") == "()"
    for database in ("passwd", "group"):
        assert pristine.run(["getent", database, "velk-foo_bar-1"]).status == 2
    assert not pristine.exists(rights)


def test_a_user_without_groups_is_added(pristine: Device) -> None:
    assert users(pristine, "AddUser", "velk", "plain", "@as []") == "()"
    assert pristine.run(["id", "-Gn", "velk-plain"]).stdout == "velk-plain\n"
    assert users(pristine, "RemoveUser", "velk", "plain") == "()"


@pytest.mark.parametrize(
    ("method", "arguments", "error"),
    [
        ("ModifyUser", ("velk", "nix", "@as []"), "UnknownUser: No such user: 'velk-nix'"),
        ("RemoveUser", ("velk", "nix"), "UnknownUser: No such user: 'velk-nix'"),
        ("SetAPIAccessRights", ("velk", "nix", "['a']"), "UnknownUser: No such user: 'velk-nix'"),
        ("AddUser", ("velk", "old", "@as []"), "UserExists: User exists: 'velk-old'"),
        ("AddUser", ("velk", "new", "['nix']"), "UnknownGroup: No such group: 'nix'"),
        ("AddUser", ("velk", "new", "['video,root']"), "UnknownGroup: No such group: 'video,root'"),
        ("AddUser", ("velk", "new", "['']"), "UnknownGroup: No such group: ''"),
        ("ModifyUser", ("velk", "old", "['-G']"), "UnknownGroup: No such group: '-G'"),
        (
            "SetAPIAccessRights",
            ("velk", "old", "['a\\nb']"),
            "InvalidMethod: Not the name of a method: an empty text or one of several lines",
        ),
        ("AddUser", ("root", "new", "@as []"), "UnknownPlatform: No such platform: 'root'"),
        ("AddUser", ("velk", "", "@as []"), "InvalidName: Not the name of an application: ''"),
        ("AddUser", ("velk", "../x", "@as []"), "InvalidName: Not the name of an application: '../x'"),
        ("AddUser", ("velk", "Upper", "@as []"), "InvalidName: Not the name of an application: 'Upper'"),
        ("AddUser", ("velk", "a:b", "@as []"), "InvalidName: Not the name of an application: 'a:b'"),
        ("AddUser", ("velk", "-x", "@as []"), "InvalidName: Not the name of an application: '-x'"),
        ("RemoveUser", ("velk", "ä"), "InvalidName: Not the name of an application: 'ä'"),
        ("AddUser", ("velk", "a" * 28, "@as []"), f"InvalidName: Name too long for a user: '{'a' * 28}'"),
    ],
)
def test_a_faulty_call_is_answered_by_an_error_and_changes_nothing(
    pristine: Device, method: str, arguments: tuple[str, ...], error: str
) -> None:
    if "old" in arguments:
        assert users(pristine, "AddUser", "velk", "old", "['video']") == "()"
    assert users(pristine, method, *arguments) == f"com.orvo.UserManagement1.Error.{error}"
    if "old" in arguments:
        assert set(pristine.run(["id", "-Gn", "velk-old"]).stdout.split()) == {"velk-old", "video"}
        assert users(pristine, "RemoveUser", "velk", "old") == "()"


def test_the_longest_name_makes_a_user(pristine: Device) -> None:
    assert users(pristine, "AddUser", "velk", "a" * 27, "@as []") == "()"
    assert pristine.run(["id", "-un", "velk-" + "a" * 27]).status == 0
    assert users(pristine, "RemoveUser", "velk", "a" * 27) == "()"


def test_a_user_who_still_runs_something_is_not_removed(pristine: Device) -> None:
    assert users(pristine, "AddUser", "velk", "busy", "@as []") == "()"
    process, _ = pristine.start(["sleep", "600"], user="velk-busy")
    pristine.wait_for(lambda: "sleep" in pristine.run(["ps", "-u", "velk-busy"]).stdout, "the process")
    answer = users(pristine, "RemoveUser", "velk", "busy")
    assert re.fullmatch(
        r"com\.orvo\.UserManagement1\.Error\.Failed: "
        r"userdel: user velk-busy is currently used by process \d+",
        answer,
    )
    pristine.run(["pkill", "-u", "velk-busy"]).check()
    process.communicate()
    assert users(pristine, "RemoveUser", "velk", "busy") == "()"


@pytest.mark.parametrize("method", ["AddUser", "ModifyUser", "RemoveUser", "SetAPIAccessRights"])
def test_a_test_can_make_a_method_of_user_management_fail(pristine: Device, method: str) -> None:
    pristine.write(f"/run/orvo-test/fail/{method}", "out of order today\n")
    arguments = ("velk", "x") if method == "RemoveUser" else ("velk", "x", "@as []")
    assert users(pristine, method, *arguments) == "com.orvo.UserManagement1.Error.Wanted: out of order today"
    assert pristine.run(["id", "velk-x"]).status == 1
    pristine.run(["rm", "-r", "/run/orvo-test"]).check()


def test_a_test_can_make_device_information_fail(pristine: Device) -> None:
    pristine.write("/run/orvo-test/fail/Get", "out of order today\n")
    assert info(pristine, "['Version']") == "com.orvo.BasicDeviceInfo1.Error.Wanted: out of order today"
    pristine.run(["rm", "-r", "/run/orvo-test"]).check()
    assert info(pristine, "['Version']") == "({'Version': '11.8.64'},)"


def test_only_root_may_manage_users(pristine: Device) -> None:
    for user in ("nobody", "sdk", "admin"):
        answer = users(pristine, "AddUser", "velk", "intruder", "@as []", user=user)
        assert answer.startswith("org.freedesktop.DBus.Error.AccessDenied: "), answer
    assert pristine.run(["id", "velk-intruder"]).status == 1


def test_the_services_start_when_they_are_asked(fresh_device: Device) -> None:
    for service, ask in (
        ("BasicDeviceInfo1", lambda: info(fresh_device, "['Version']")),
        ("UserManagement1", lambda: users(fresh_device, "RemoveUser", "velk", "nix")),
    ):
        fresh_device.run(["systemctl", "stop", "orvo-services"]).check()
        assert "ServiceUnknown" not in ask(), service
        assert fresh_device.run(["systemctl", "is-active", "orvo-services"]).stdout == "active\n"
