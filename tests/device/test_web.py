"""The web server: what is published, who gets it, and how requests reach the application."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest
import stepper
from apps import app, without_place
from setups import STORE, Put, codes, configured, fetch, set_up, store_app, velkctl, workshop
from velkdevice import package
from velkdevice.device import Device

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
NOTES = "notes"
DATA = Path(__file__).resolve().parents[1] / "data" / "web"
RULES = "/etc/apache2/conf.d/vhosts/all/urls_Sample.conf"
TRANSFER = "/etc/apache2/transfer/transfer_Sample.conf"
FCGI = "/etc/apache2/fcgi/fcgi_Sample.conf"

# nobody, viewer, operator, admin
ALLOWED = {
    "viewer": ["401", "200", "200", "200"],
    "operator": ["401", "403", "200", "200"],
    "admin": ["401", "403", "403", "200"],
}
GONE = ["401", "404", "404", "404"]

# A web handler on a Unix socket: plain HTTP for "transfer", FastCGI for "fcgi".
HANDLER = r"""#!/usr/bin/python3
import os, socket, struct, sys
kind, path = sys.argv[1:]
if os.path.lexists(path):
    os.unlink(path)
os.makedirs(os.path.dirname(path), exist_ok=True)
server = socket.socket(socket.AF_UNIX)
server.bind(path)
os.chmod(path, 0o777)
server.listen()

def record(kind, request, data):
    return struct.pack(">BBHHBB", 1, kind, request, len(data), 0, 0) + data

while True:
    peer, _ = server.accept()
    if kind == "transfer":
        head = b""
        while b"\r\n\r\n" not in head:
            head += peer.recv(65536)
        body = b"transfer " + head.split(b" ")[1]
        peer.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
    else:
        stream = peer.makefile("rb")
        while True:
            _, what, request, length, padding, _ = struct.unpack(">BBHHBB", stream.read(8))
            stream.read(length + padding)
            if what == 5 and length == 0:
                break
        answer = b"Content-Type: text/plain\r\n\r\nfcgi by " + str(os.getuid()).encode()
        peer.sendall(record(6, request, answer) + record(6, request, b"") + record(3, request, bytes(8)))
    peer.close()
"""
PROGRAM = f"""#!/bin/sh
python3 {STORE}/Sample/handler.py transfer /var/run/http/Sample/http &
exec python3 {STORE}/Sample/handler.py fcgi "$FCGI_SOCKET_NAME"
"""


def site(access: str, *entries: dict[str, str], **more: str) -> dict[str, Any]:
    config = [{"type": "directory", "access": access}, *entries]
    return configured(httpConfig=config) | {"html/sub/page.html": "in sub\n"} | more


def check_configuration(device: Device) -> None:
    result = device.run(["apachectl", "-t"])
    assert (result.status, result.stderr.strip().splitlines()[-1]) == (0, "Syntax OK"), result


@pytest.mark.parametrize("access", ["viewer", "operator", "admin"])
def test_pages_are_for_the_group_of_the_directory(workshop: Device, put_package: Put, access: str) -> None:
    set_up(workshop, put_package, site(access))
    check_configuration(workshop)
    workshop.wait_for(lambda: codes(workshop, "/local/Sample/index.html") == ALLOWED[access], "the new rules")
    assert codes(workshop, "/local/Sample/sub/page.html") == ALLOWED[access]
    assert fetch(workshop, "/local/Sample/sub/page.html", "admin")[1] == "in sub\n"
    assert fetch(workshop, "/local/Sample/LICENSE", "admin") == ("200", "Do what you like.\n")
    rules = [rule for rule in workshop.read(RULES).split("</Directory>\n\n") if rule]
    assert rules == [
        f'<Directory "/usr/html/local/Sample">\n  <Files "index.html">\n    Require orvo-group {access}\n  </Files>\n',
        f'<Directory "/usr/html/local/Sample/sub">\n  <Files "page.html">\n    Require orvo-group {access}\n  </Files>\n']
    workshop.velkctl("teardown", "Sample").check()
    workshop.wait_for(lambda: codes(workshop, "/local/Sample/index.html") == GONE, "the pages to be gone")
    assert codes(workshop, "/local/Sample/LICENSE") == GONE


def test_without_an_entry_pages_are_for_administrators(workshop: Device, put_package: Put) -> None:
    set_up(workshop, put_package, app())
    workshop.wait_for(lambda: codes(workshop, "/local/Sample/index.html") == ALLOWED["admin"], "the new rules")
    assert not workshop.exists(TRANSFER)
    assert not workshop.exists(FCGI)
    assert not workshop.exists(f"{STORE}/Sample/html/Sample_fcgi.socket")


def test_requests_reach_the_applications_handlers(workshop: Device, put_package: Put) -> None:
    files = site("admin", {"type": "transferCgi", "access": "viewer", "name": "upload.cgi"},
                 {"type": "fastCgi", "access": "operator", "name": "run.cgi"},
                 {"type": "transferCgi", "access": "operator", "name": "sub/more.cgi"})  # fmt: skip
    files |= {"Sample": PROGRAM, "handler.py": HANDLER}
    set_up(workshop, put_package, files)
    check_configuration(workshop)
    transfer = (DATA / "transfer.conf").read_text(encoding="utf-8").splitlines()[0]
    assert workshop.read(TRANSFER) == f"{transfer}\n" + transfer.replace("upload.cgi", "sub/more.cgi") + "\n"
    fcgi = (DATA / "fcgi.conf").read_text(encoding="utf-8").splitlines(keepends=True)
    assert workshop.read(FCGI) == "".join(fcgi[:4] + fcgi[7:])
    assert workshop.read(f"{STORE}/Sample/conf/transfercgi.conf") == workshop.read(TRANSFER)
    assert workshop.read(f"{STORE}/Sample/conf/fcgi.conf") == workshop.read(FCGI)
    owners = workshop.sh(f"cd {STORE}/Sample/html; stat -c '%n %a %U:%G' *.cgi sub/more.cgi Sample_fcgi.socket sub").stdout
    assert owners.splitlines() == [
        "run.cgi 750 velk-sample:operator", "upload.cgi 750 velk-sample:viewer", "sub/more.cgi 750 velk-sample:operator",
        "Sample_fcgi.socket 750 velk-sample:viewer", "sub 751 velk-sample:www"]  # fmt: skip
    workshop.velkctl("start", "Sample").check()
    workshop.wait_for(lambda: fetch(workshop, "/local/Sample/upload.cgi", "admin")[0] == "200", "the handlers")
    workshop.wait_for(lambda: fetch(workshop, "/local/Sample/run.cgi", "admin")[0] == "200", "the FastCGI handler")
    assert codes(workshop, "/local/Sample/upload.cgi") == ALLOWED["viewer"]
    assert codes(workshop, "/local/Sample/sub/more.cgi") == ALLOWED["operator"]
    assert codes(workshop, "/local/Sample/run.cgi") == ALLOWED["operator"]
    uid = workshop.run(["id", "-u", "velk-sample"]).stdout.strip()
    assert fetch(workshop, "/local/Sample/run.cgi", "operator")[1] == f"fcgi by {uid}"
    assert codes(workshop, "/local/Sample/index.html") == ALLOWED["admin"]
    workshop.velkctl("teardown", "Sample").check()
    assert not any(workshop.exists(path) for path in (TRANSFER, FCGI, RULES, "/var/run/http/Sample"))
    workshop.wait_for(lambda: codes(workshop, "/local/Sample/run.cgi") == GONE, "the pages to be gone")


def test_names_hold_one_file_each_whatever_is_in_them(workshop: Device, put_package: Put) -> None:
    names = ['say "hi".html', "back\\slash.html", "per%cent.html", "do$llar ${x}.html", "ümlaut <b> ' .html", "#.html"]
    files = configured(httpConfig=[{"type": "directory", "access": "viewer"}])
    files |= {f"html/{name}": f"page {number}\n" for number, name in enumerate(names)}
    files |= {'html/dir "q" \\ %/page.html': "deep\n"}
    set_up(workshop, put_package, files)
    check_configuration(workshop)
    urls = ["say%20%22hi%22.html", "back%5Cslash.html", "per%25cent.html", "do$llar%20$%7Bx%7D.html",
            "%C3%BCmlaut%20%3Cb%3E%20'%20.html", "%23.html"]  # fmt: skip
    workshop.wait_for(lambda: codes(workshop, "/local/Sample/index.html") == ALLOWED["viewer"], "the new rules")
    for number, url in enumerate(urls):
        assert fetch(workshop, f"/local/Sample/{url}", "viewer") == ("200", f"page {number}\n"), url
    assert fetch(workshop, "/local/Sample/dir%20%22q%22%20%5C%20%25/page.html", "viewer") == ("200", "deep\n")


def test_a_handler_keeps_its_file_and_gets_its_group(workshop: Device, put_package: Put) -> None:
    files = site("viewer", {"type": "transferCgi", "access": "operator", "name": "sub//page.html"})
    set_up(workshop, put_package, files)
    assert workshop.read(f"{STORE}/Sample/html/sub/page.html") == "in sub\n"
    assert workshop.run(["stat", "-c", "%U:%G", f"{STORE}/Sample/html/sub/page.html"]).stdout == "velk-sample:operator\n"
    assert '  <Files "page.html">\n    Require orvo-group operator\n' in workshop.read(RULES)


REFUSED = [
    ({"type": "otherCgi", "access": "viewer", "name": "x"}, 29, "Invalid CGI type in manifest"),
    ({"type": "fastCgi", "access": "root", "name": "x"}, 29, "Invalid access level in manifest"),
    ({"type": "fastCgi", "access": "viewer", "name": "../x"}, 29,
     "Field 'httpConfig.name' in manifest contains a path traversal"),
    ({"type": "fastCgi", "access": "viewer", "name": "none/x.cgi"}, 10,
     f"src/system/area.cpp: Failed creating file {STORE}/Sample/html/none/x.cgi: No such file or directory"),
]  # fmt: skip


@pytest.mark.parametrize(("entry", "code", "text"), REFUSED)
def test_a_handler_that_is_refused(
    workshop: Device, put_package: Put, entry: dict[str, str], code: int, text: str
) -> None:
    path = put_package(workshop, site("viewer", entry))
    result = workshop.velkctl("install", path)
    assert (result.status, without_place(result.stderr).splitlines()[-1]) == (code, f"code {code}: {text}")


def test_a_link_in_the_pages_does_not_lead_out(workshop: Device, put_package: Put) -> None:
    files = site("viewer", {"type": "transferCgi", "access": "viewer", "name": "out/x.cgi"})
    workshop.velkctl("import", put_package(workshop, files)).check()
    workshop.sh(f"ln -s /etc/velk {STORE}/Sample/html/out; ln -s /etc/hostname {STORE}/Sample/html/host").check()
    before = workshop.sh("stat -c '%a %U:%G' /etc/velk /etc/hostname; ls /etc/velk").stdout
    assert velkctl(workshop, "setup", "Sample") == (
        1, f"code 1: Path {STORE}/Sample/html/out/x.cgi is outside of application directory {STORE}/Sample\n")  # fmt: skip
    assert workshop.sh("stat -c '%a %U:%G' /etc/velk /etc/hostname; ls /etc/velk").stdout == before


def test_a_page_that_goes_while_rules_are_made_has_none_and_is_told(workshop: Device, put_package: Put) -> None:
    """Held at the first page, when the names of all of them have been read."""
    pages = ("a.html", "b.html", "index.html")
    store_app(workshop, put_package, site("viewer", **{f"html/{name}": name for name in pages}))
    html = f"{STORE}/Sample/html"
    with stepper.hold(workshop, ["velkctl", "setup", "Sample"], when=f"{html}/LICENSE") as held:
        workshop.sh(f"cd {html} && rm *.html").check()
        result = held.let_go()
    told = without_place(result.stderr).splitlines()
    known = [name for name in pages if f'"{name}"' in workshop.read(RULES)]
    assert len(known) <= 1  # the one that it had in its hands, if it had one already
    gone = "Failed to add Apache permission configs for file {}/{}, file does not exist"
    assert (result.status, sorted(told)) == (0, sorted([
        *(gone.format(html, name) for name in pages if name not in known), "Successfully set up application Sample"]))


# What each resource of the example asks for. The license is a link, which has no rule of its own: it is for every login.
RESOURCES = {
    "index.html": "viewer", "about/index.html": "viewer", "LICENSE": "viewer", "notes.cgi": "operator",
    "time.cgi": "viewer",
}  # fmt: skip


def test_who_gets_what_of_an_example(pristine: Device, tmp_path: Path) -> None:
    path = f"/tmp/{NOTES}.vlp"
    pristine.copy_in(package.pack(EXAMPLES / NOTES, tmp_path / f"{NOTES}.vlp"), path)
    pristine.velkctl("install", path).check()
    try:
        check_configuration(pristine)
        pristine.velkctl("start", NOTES).check()
        for handler in ("notes.cgi", "time.cgi"):
            pristine.wait_for(lambda: fetch(pristine, f"/local/{NOTES}/{handler}", "admin")[0] == "200", handler)  # noqa: B023
        found = {page: codes(pristine, f"/local/{NOTES}/{page}") for page in RESOURCES}
        assert found == {page: ALLOWED[access] for page, access in RESOURCES.items()}
        long = " ".join(["ünï"] * 300)
        for text in ("Anna was here", long):
            assert fetch(pristine, f"/local/{NOTES}/notes.cgi?a=b", "operator", "--data-binary", text)[0] == "200"
        assert fetch(pristine, f"/local/{NOTES}/notes.cgi", "operator") == ("200", f"Anna was here\n{long}\n")
        pristine.velkctl("teardown", NOTES).check()
        pristine.wait_for(lambda: codes(pristine, f"/local/{NOTES}/index.html") == GONE, "the pages to be gone")
        found = {page: codes(pristine, f"/local/{NOTES}/{page}") for page in RESOURCES}
        assert found == dict.fromkeys(RESOURCES, GONE)
    finally:
        pristine.velkctl("uninstall", NOTES).check()
        pristine.sh(f"rm {path}").check()
