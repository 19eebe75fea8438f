"""Names in an application's pages: each has its own rule, and none makes a configuration that the server refuses."""

from __future__ import annotations

import re
from collections.abc import Iterator
from contextlib import contextmanager
from urllib.parse import quote

import pytest
from setups import STORE, Put, codes, outside, store_app, velkctl, workshop
from test_web import ALLOWED, TRANSFER, check_configuration, site
from velkdevice.device import Device

HTML = f"{STORE}/Sample/html"
WEB = "/usr/html/local/Sample"
FCGI = "/etc/apache2/fcgi/fcgi_Sample.conf"

CHARACTERS = [each for each in map(chr, range(1, 128)) if each not in "/\n\r"] + ["\udcff", "ü"]
WORDS = [
    "${DEFINED}", "${PATH}", "${LANG}", "${UNDEFINED}", "${DEFINED}.html", "x${DEFINED}y", "$${DEFINED}",
    "${${DEFINED}}", "${DEFINED", "${}", "$\\{DEFINED}", "\\${DEFINED}", "\\\\${DEFINED}", "${DEFINED}\\",
    "[${DEFINED}]", "*${DEFINED}",
    "[$]{DEFINED}", "%{DEFINED}", "%{ENV:PATH}", "\"${DEFINED}\"", "$1", "$0", "%1", "\\", "\\\\", "a\\", "[a", "[a]",
    "[]", "~", "~ a", "  ", "a\\\"b", "#", "<Files>", "other", "a" * 255, "$" * 255, "${" * 127, "*" * 255,
    "\\" * 255, "[" * 255,
]  # fmt: skip
NAMES = sorted({*CHARACTERS, *(each + "x" for each in CHARACTERS), *(f"x{each}y" for each in CHARACTERS),
                *("x" + each for each in CHARACTERS), *WORDS} - {"."})  # fmt: skip

# Makes a page of each name, with its number in it. The device's Python is a small one.
MAKE = r"""
import os, sys
for number, name in enumerate(eval(sys.stdin.read())):
    path = os.path.join(os.fsencode(sys.argv[1]), name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as page:
        page.write(str(number))
"""
MARK = "\n@{}@\n"


def raw(name: str) -> bytes:
    return name.encode("utf-8", "surrogateescape")


def make_pages(device: Device, names: list[str]) -> None:
    device.run(["python3", "-c", MAKE, HTML], input=repr([raw(name) for name in names])).check()


def ask(device: Device, names: list[str], user: str) -> dict[str, tuple[str, bool]]:
    """What the user gets of each: the status, and whether it is that page."""
    urls = "".join(f'url = "http://localhost/local/Sample/{quote(raw(name), "/")}"\n' for name in names)
    mark = MARK.format("%{http_code}").replace("\n", "\\n")
    options = ["-s", "--path-as-is", "--globoff", "-u", f"{user}:{user}", "-w", mark, "-K", "-"]
    told = device.run(["curl", *options], input=urls).check().stdout
    answers = re.findall(r"(.*?)\n@(\d+)@\n", told, re.DOTALL)
    assert len(answers) == len(names)
    return {name: (code, body == str(number)) for number, (name, (body, code)) in enumerate(zip(names, answers))}


@contextmanager
def defined(device: Device) -> Iterator[None]:
    """The web server has a variable of its own, beside those of its environment."""
    device.write("/etc/apache2/transfer/transfer_.conf", "Define DEFINED other\nDefine DEFINED.html other\n")
    try:
        yield
    finally:
        device.sh("rm /etc/apache2/transfer/transfer_.conf").check()


def test_a_page_of_any_name_is_for_those_of_the_rule_and_nobody_else(workshop: Device, put_package: Put) -> None:
    names = NAMES + [f"directory/{name}/page" for name in NAMES if name != ".."]
    store_app(workshop, put_package, site("admin"))
    make_pages(workshop, names)
    with defined(workshop):
        workshop.velkctl("setup", "Sample").check()
        check_configuration(workshop)
        workshop.wait_for(lambda: codes(workshop, "/local/Sample/index.html") == ALLOWED["admin"], "the new rules")
        strangers = ask(workshop, names, "viewer")
        assert {name: got for name, got in strangers.items() if got != ("403", False)} == {}
        own = ask(workshop, names, "admin")
        assert {name: got for name, got in own.items() if got != ("200", True)} == {}
        workshop.velkctl("teardown", "Sample").check()


def test_a_script_of_any_name_is_that_of_its_rule(workshop: Device, put_package: Put) -> None:
    """Nothing answers on the socket, so who may is told that."""
    names = [name for name in WORDS if "/" not in name and name not in ("  ",) and len(name) < 200]
    entries = [{"type": "fastCgi", "access": "operator", "name": name} for name in names]
    store_app(workshop, put_package, site("admin", *entries))
    with defined(workshop):
        workshop.velkctl("setup", "Sample").check()
        check_configuration(workshop)
        workshop.wait_for(lambda: codes(workshop, "/local/Sample/index.html") == ALLOWED["admin"], "the new rules")
        assert {got[0] for got in ask(workshop, names, "viewer").values()} == {"403"}
        assert {name: got for name, got in ask(workshop, names, "operator").items() if got[0] != "503"} == {}
        workshop.velkctl("teardown", "Sample").check()


VARIABLE = "code 29: Field 'httpConfig.name' in manifest contains a variable of the web server\n"


@pytest.mark.parametrize("name", ["${DEFINED}.cgi", "a/${x", "$${x}"])
def test_a_handler_whose_address_the_server_would_change_is_refused(
    workshop: Device, put_package: Put, name: str
) -> None:
    """There is no way to write it so that the server leaves it alone."""
    store_app(workshop, put_package, site("admin", {"type": "transferCgi", "access": "viewer", "name": name}))
    before = outside(workshop, "Sample")
    assert velkctl(workshop, "setup", "Sample") == (29, VARIABLE)
    assert outside(workshop, "Sample") == before


# --- what the server would refuse ---

DEEP = r"""
import os, sys
os.chdir(sys.argv[1])
left, part = int(sys.argv[2]), int(sys.argv[3])
while left > 1:
    length = min(left - 1, part)
    name = sys.argv[4] * length
    os.mkdir(name)
    os.chdir(name)
    left -= length + 1
"""
MANY = r"""
import os, sys
os.chdir(sys.argv[1])
for number in range(int(sys.argv[2])):
    os.close(os.open("%s%d" % (sys.argv[3], number), os.O_CREAT | os.O_WRONLY))
"""
READING = f"code 10: src/integration/http.cpp: Failed reading files in directory {WEB}: "
TOO_LONG, TOO_LARGE = "File name too long\n", "File too large\n"


# The length of the path to the deepest directory, and of each name, its character, and what setup says, if anything.
PATHS = [
    (3900, 200, "d", ""), (4088, 200, "d", READING + TOO_LONG), (4064, 255, "d", READING + TOO_LONG),
    (20000, 255, "d", READING + TOO_LONG), (3000, 200, "*", READING + TOO_LONG), (1300, 200, "*", ""),
    (2100, 250, "\\", ""), (3970, 250, "\\", ""), (3500, 1, "d", READING + TOO_LARGE), (1500, 1, "d", ""),
]  # fmt: skip


@pytest.mark.parametrize(("length", "part", "character", "log"), PATHS)
def test_a_path_of_any_length_leaves_the_server_working(
    workshop: Device, put_package: Put, length: int, part: int, character: str, log: str
) -> None:
    store_app(workshop, put_package, site("admin"))
    before = outside(workshop, "Sample")
    workshop.run(["python3", "-c", DEEP, HTML, str(length), str(part), character]).check()
    status, told = velkctl(workshop, "setup", "--noreload", "Sample")
    check_configuration(workshop)
    assert (status, told) == ((10, log) if log else (0, "Successfully set up application Sample\n"))
    if log:
        assert outside(workshop, "Sample") == before


@pytest.mark.parametrize(("count", "name", "log"), [
    (20_000, "page", ""), (50_000, "page", READING + TOO_LARGE), (9_000, "*" * 200, READING + TOO_LARGE),
])  # fmt: skip
def test_any_number_of_pages_leaves_the_server_working(
    workshop: Device, put_package: Put, count: int, name: str, log: str
) -> None:
    store_app(workshop, put_package, site("admin"))
    workshop.run(["python3", "-c", MANY, HTML, str(count), name]).check()
    status, told = velkctl(workshop, "setup", "--noreload", "Sample")
    check_configuration(workshop)
    assert (status, told) == ((10, log) if log else (0, "Successfully set up application Sample\n"))


@pytest.mark.parametrize(("kind", "snippet"), [("transferCgi", TRANSFER), ("fastCgi", FCGI)])
@pytest.mark.parametrize(("name", "fits"), [
    ("./" * 1900 + "a.cgi", True), ("./" * 2000 + "a.cgi", False), ("./" * 800 + "\\" * 200, True),
])  # fmt: skip
def test_a_handlers_name_of_any_length_leaves_the_server_working(
    workshop: Device, put_package: Put, kind: str, snippet: str, name: str, fits: bool
) -> None:
    entry = {"type": kind, "access": "viewer", "name": "sub/" + name}
    store_app(workshop, put_package, site("admin", entry))
    status, told = velkctl(workshop, "setup", "--noreload", "Sample")
    check_configuration(workshop)
    refusal = f"code 10: src/integration/http.cpp: Failed writing to file: {snippet}: {TOO_LONG}"
    assert (status, told) == ((0, "Successfully set up application Sample\n") if fits else (10, refusal))
