"""What of the image, or of anybody else, has a name that setup would use: it stays, whatever velkctl does."""

from __future__ import annotations

from typing import Any

import pytest
from setups import STORE, UNITS, Put, configured, look_at, outside, store_app, velkctl, workshop
from velkdevice.device import Device

RULES = "/etc/apache2/conf.d/vhosts/all/urls_Sample.conf"
TRANSFER = "/etc/apache2/transfer/transfer_Sample.conf"
FCGI = "/etc/apache2/fcgi/fcgi_Sample.conf"
POLICY = "/etc/dbus-1/system.d/Sample.conf"
VALUES = "/etc/dynamic/Sample.conf"
GROUP = "/etc/dynamic/param/Sample.conf"
WEB = "/usr/html/local/Sample"
SOCKETS = "/run/http/Sample"
WRITING = "src/integration/own-files.cpp: Failed writing to file: {}: File exists"
LINKING = "src/system/file.cpp: Failed creating symbolic link from {} to {}: error File exists"

MAKING = "src/integration/http.cpp: Could not create directory /var/run/http/Sample: File exists"
LINKING_GROUP = LINKING.replace("system/file", "integration/cfgtree")


def whole() -> dict[str, Any]:
    """An application that uses every name that there is to use."""
    entries = [{"type": kind, "access": "viewer", "name": f"{kind}.cgi"} for kind in ("transferCgi", "fastCgi")]
    parameters = [{"name": "Speed", "default": "1", "type": "int"}]
    return configured(httpConfig=[{"type": "directory", "access": "viewer"}, *entries], paramConfig=parameters)


def text(path: str, *lines: str) -> str:
    return f"printf '%s\\n' {' '.join(repr(line) for line in lines)} >{path}"


POLICY_OF_THE_IMAGE = text(POLICY, "<busconfig>", '  <policy user="root">', '    <allow own="com.orvo.Camera"/>',
                           "  </policy>", "</busconfig>")  # fmt: skip
# A teardown without a setup, which finds no user.
NO_USER = (
    10, "Failed to teardown user during teardown of Sample: src/system/dbus-call.cpp: DBus call to "
    "com.orvo.UserManagement1.Application.RemoveUser failed: No such user: 'velk-sample'\n"
    "code 10: src/integration/velkctl-teardown.cpp: Failure during teardown of Sample\n")  # fmt: skip
# What is there, how it comes there, how it goes, and what setup says of it.
FOREIGN = {
    "a policy": (POLICY, POLICY_OF_THE_IMAGE, f"rm {POLICY}", WRITING.format(POLICY)),
    "a link to a policy": (POLICY, f"mkdir -p /usr/share/camera; ln -s /usr/share/camera/bus.conf {POLICY}",
                           f"rm {POLICY}; rmdir /usr/share/camera", WRITING.format(POLICY)),
    "values": (VALUES, text(VALUES, "[Sample]", 'Speed="7"'), f"rm {VALUES}",
               LINKING.format(VALUES, f"{STORE}/Sample/conf/Sample.conf")),
    "linked values": (VALUES, f"ln -s /etc/hostname {VALUES}", f"rm {VALUES}",
                      LINKING.format(VALUES, f"{STORE}/Sample/conf/Sample.conf")),
    "a group": (GROUP, f"mkdir -p /etc/dynamic/param /run/velkctl-param-groups; {text(GROUP, 'group Sample {', '}')}; "
                       f"cp {GROUP} /run/velkctl-param-groups/Sample", f"rm -r {GROUP} /run/velkctl-param-groups",
                LINKING_GROUP.format(GROUP, f"{STORE}/Sample/conf/param_Sample.conf")),
    "a group of another case": (
        "/etc/dynamic/param/sample.conf", "mkdir /run/velkctl-param-groups; "
        "echo kept >/run/velkctl-param-groups/Sample; "
        "mkdir -p /etc/dynamic/param; ln -s /etc/hostname /etc/dynamic/param/sample.conf",
        "rm -r /run/velkctl-param-groups; rm /etc/dynamic/param/sample.conf",
        LINKING_GROUP.format("/etc/dynamic/param/sample.conf", f"{STORE}/Sample/conf/param_Sample.conf")),
    "another's pages": (WEB, f"ln -s /usr/html {WEB}", f"rm {WEB}", LINKING.format(WEB, f"{STORE}/Sample/html")),
    "a file below the pages": (WEB, text(WEB, "page"), f"rm {WEB}", LINKING.format(WEB, f"{STORE}/Sample/html")),
    "a transfer snippet": (TRANSFER, text(TRANSFER, "# of the image"), f"rm {TRANSFER}", WRITING.format(TRANSFER)),
    "another's transfer snippet": (TRANSFER, text(TRANSFER, 'TransferMethodProxy "/local/Sample2/x" /run/x'),
                                   f"rm {TRANSFER}", WRITING.format(TRANSFER)),
    "a FastCGI snippet": (FCGI, text(FCGI, '<Directory "/usr/html/local">', "</Directory>"), f"rm {FCGI}",
                          WRITING.format(FCGI)),
    "access rules": (RULES, f": >{RULES}", f"rm {RULES}", WRITING.format(RULES)),
    "a linked snippet": (RULES, f": >/etc/apache2/more; ln -s ../../../more {RULES}",
                         f"rm {RULES} /etc/apache2/more", WRITING.format(RULES)),
    "a directory of sockets": (SOCKETS, f"mkdir {SOCKETS}; {text(f'{SOCKETS}/http', 'socket')}; mkdir {SOCKETS}/more",
                               f"rm -r {SOCKETS}",
                               MAKING),
    "another user's directory of sockets": (
        SOCKETS, f"install -d -o sdk -g sdk {SOCKETS}; {text(f'{SOCKETS}/http', 'socket')}", f"rm -r {SOCKETS}",
        MAKING),
}  # fmt: skip


@pytest.mark.parametrize("name", FOREIGN)
def test_what_is_there_fails_the_setup_and_stays(workshop: Device, put_package: Put, name: str) -> None:
    path, arrange, repair, log = FOREIGN[name]
    workshop.sh("mkdir -p /etc/dynamic/param").check()
    store_app(workshop, put_package, whole())
    try:
        workshop.sh(arrange).check()
        before, there = outside(workshop, "Sample"), look_at(workshop, path)
        assert velkctl(workshop, "setup", "Sample") == (10, f"code 10: {log}\n")
        assert (outside(workshop, "Sample"), look_at(workshop, path)) == (before, there)
        # Nor does a teardown without a setup, or an uninstall, take it for a leftover.
        assert velkctl(workshop, "teardown", "Sample") == NO_USER
        assert (outside(workshop, "Sample"), look_at(workshop, path)) == (before, there)
        workshop.velkctl("uninstall", "Sample")
        assert look_at(workshop, path) == there
    finally:
        workshop.sh(repair).check()


def test_what_came_beside_an_application_stays_when_it_goes(workshop: Device, put_package: Put) -> None:
    """The image, or an operator, has replaced what setup made."""
    store_app(workshop, put_package, whole())
    before = outside(workshop, "Sample")
    workshop.velkctl("setup", "Sample").check()
    paths = (POLICY, VALUES, GROUP, WEB, TRANSFER, FCGI, RULES)
    try:
        for path in paths:
            workshop.sh(f"rm {path}; echo '{'<busconfig/>' if path == POLICY else '# mine'}' >{path}").check()
        there = look_at(workshop, *paths)
        assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
        assert look_at(workshop, *paths) == there
    finally:
        workshop.sh("rm -f /run/velkctl-param-groups/Sample " + " ".join(paths)).check()
        workshop.sh("rmdir /run/velkctl-param-groups")
    assert outside(workshop, "Sample") == before


def test_what_a_killed_command_left_is_the_applications_own(workshop: Device, put_package: Put) -> None:
    """It is in nobody's way longer than it was: written files are replaced, and links go with the next teardown."""
    store_app(workshop, put_package, whole())
    before = outside(workshop, "Sample")
    workshop.velkctl("setup", "Sample").check()
    workshop.sh(f"rm -r {UNITS}/sdkSample.service* {VALUES} {GROUP} {WEB}; install -d -o velk-sample {SOCKETS}; "
                f": >{SOCKETS}/http").check()  # fmt: skip
    assert velkctl(workshop, "setup", "Sample")[0] == 0
    workshop.sh(f"rm -r {UNITS}/sdkSample.service*").check()
    assert velkctl(workshop, "teardown", "Sample") == (0, "Successfully tore down application Sample\n")
    assert outside(workshop, "Sample") == before


def test_sockets_of_a_user_that_has_gone_go_too(workshop: Device, put_package: Put) -> None:
    store_app(workshop, put_package, whole())
    before = outside(workshop, "Sample")
    workshop.sh(f"mkdir -p {SOCKETS}/deep; : >{SOCKETS}/http; chown -R 4711:4711 {SOCKETS}").check()
    assert velkctl(workshop, "teardown", "Sample") == NO_USER
    assert outside(workshop, "Sample") == before


# Each of the names, and the step of the teardown that it belongs to.
CONF = f"{STORE}/Sample/conf"
STEPS = {
    VALUES: "params", GROUP: "params", f"{CONF}/Sample.conf": "params", f"{CONF}/param_Sample.conf": "params",
    POLICY: "params", TRANSFER: "http setup", f"{CONF}/transfercgi.conf": "http setup", FCGI: "http setup",
    f"{CONF}/fcgi.conf": "http setup", f"{STORE}/Sample/html/Sample_fcgi.socket": "http setup", WEB: "http setup",
    RULES: "http setup",
}  # fmt: skip


def there(device: Device) -> set[str]:
    return {path for path in STEPS if device.exists(path)}


@pytest.mark.parametrize("path", STEPS)
def test_a_name_that_cannot_be_removed_leaves_none_of_the_others_behind(
    workshop: Device, put_package: Put, path: str
) -> None:
    store_app(workshop, put_package, whole())
    workshop.velkctl("setup", "Sample").check()
    assert there(workshop) == set(STEPS)
    workshop.sh('rm "$1"; mkdir "$1"', path).check()
    status, told = velkctl(workshop, "teardown", "Sample")
    place = "area" if path.startswith(STORE) else "file"
    assert (status, told) == (
        10, f"Failed to teardown {STEPS[path]} during teardown of Sample: src/system/{place}.cpp: Failed removing "
        f"{path}: Is a directory\n"
        "code 10: src/integration/velkctl-teardown.cpp: Failure during teardown of Sample\n")  # fmt: skip
    left = there(workshop)
    workshop.sh('rmdir "$1"', path).check()
    assert left == {path}


def test_the_first_of_several_failures_is_told(workshop: Device, put_package: Put) -> None:
    store_app(workshop, put_package, whole())
    workshop.velkctl("setup", "Sample").check()
    workshop.sh(f"rm {WEB} {RULES}; mkdir {WEB} {RULES}").check()
    _, told = velkctl(workshop, "teardown", "Sample")
    assert [line for line in told.splitlines() if "Is a directory" in line] == [
        f"Failed to teardown http setup during teardown of Sample: src/system/file.cpp: Failed removing {WEB}: "
        "Is a directory"]  # fmt: skip
    assert there(workshop) == {WEB, RULES}
    workshop.sh(f"rmdir {WEB} {RULES}").check()
