"""Texts of a manifest with everything odd in them: refused, or read back as exactly what was meant and nothing more."""

from __future__ import annotations

from typing import Any
from urllib.parse import quote

import pytest
from apps import app, without_gpgv, without_place
from setups import STORE, UNITS, Put, codes, configured, fetch, section, set_up, show, store_app, velkctl, verify, workshop
from test_web import ALLOWED, HANDLER, PROGRAM, check_configuration
from velkdevice import package
from velkdevice.device import Device

TEXTS = {
    "quotes": "a \"b\" 'c' `d` \"",
    "backslashes": r"a\b \n \\ \x41 \ c",
    "percent signs": "100% %n %H %% %",
    "dollar signs": "$HOME ${PATH} $(id) $$ $",
    "brackets and comments": "[Install] # ; }{ <a> & =",
    "no ASCII": "ünï 中文 \u202e 🎥",
    "many": "x" * 4096,
}
NEWLINES = {"a line feed": "a\nUser=root", "a carriage return": "a\rUser=root", "at the end": "a\n"}


def keys(unit: str) -> list[str]:
    """What entries a unit file has, section by section."""
    return [line.split("=")[0] for line in unit.splitlines() if line]


@pytest.fixture
def plain_keys(workshop: Device, put_package: Put) -> list[str]:
    set_up(workshop, put_package, app())
    found = keys(workshop.read(f"{UNITS}/sdkSample.service"))
    workshop.velkctl("uninstall", "Sample").check()
    return found


def test_a_name_for_people_is_only_that(workshop: Device, put_package: Put, plain_keys: list[str]) -> None:
    for text in TEXTS.values():
        set_up(workshop, put_package, app(friendlyName=text))
        assert keys(workshop.read(f"{UNITS}/sdkSample.service")) == plain_keys
        assert show(workshop, "sdkSample.service", "Description", "User", "Group") == [
            text.strip(), "velk-sample", "velk-sample"]  # fmt: skip
        result = verify(workshop, "sdkSample.service")
        assert (result.status, result.stderr) == (0, "")
        workshop.velkctl("uninstall", "Sample").check()


# Run options are a command line in the service manager's own way of writing; each with the words that it reads.
OPTIONS = [
    (r'''--a "b  c" 'd "e"' f\\g''', r'''--a b  c d "e" f\g'''),
    ("5% 100%, [Install] # no-comment", "5% 100%, [Install] # no-comment"),
    ("$HOME ${PATH} $$", "$HOME ${PATH} $$"),  # replaced when the service starts
    ("ünï 中文", "ünï 中文"),
    ("x" * 4096, "x" * 4096),
]


def test_run_options_are_only_arguments(workshop: Device, put_package: Put, plain_keys: list[str]) -> None:
    for options, words in OPTIONS:
        set_up(workshop, put_package, app(runOptions=options))
        assert keys(workshop.read(f"{UNITS}/sdkSample.service")) == plain_keys
        [command, user] = show(workshop, "sdkSample.service", "ExecStart", "User")
        program = f"{STORE}/Sample/Sample"
        assert command.split(" ; ignore_errors")[0] == f"{{ path={program} ; argv[]={program} {words}"
        assert user == "velk-sample"
        workshop.velkctl("uninstall", "Sample").check()


def test_a_newline_is_refused_before_anything_is_stored(pristine: Device, put_package: Put) -> None:
    for field in ("friendlyName", "runOptions", "runMode"):
        for text in NEWLINES.values():
            result = pristine.velkctl("import", put_package(pristine, app(**{field: text})))
            assert (result.status, without_gpgv(result.stdout), result.stderr) == (
                29, "", f"code 29: Field '{field}' in manifest contains a newline\n")  # fmt: skip
            assert not pristine.exists(f"{STORE}/Sample")


def test_a_name_that_is_none_is_refused(pristine: Device, put_package: Put) -> None:
    for name in (*TEXTS.values(), *NEWLINES.values(), "a b", "a.b", "ü", "x" * 101):
        path = put_package(pristine, app() | {"manifest.json": package.manifest(name)}, name="odd.vlp")
        result = pristine.velkctl("import", path)
        refusal = "code 29: Character sequence in application name is not allowed\n"
        assert (result.status, result.stderr) == (29, refusal), name


# --- parameters ---


def blocks(definition: str) -> list[str]:
    """The blocks of a group definition, and how often it is closed."""
    lines = definition.splitlines()
    return [line for line in lines if not line.startswith(" ") and " = " not in line]


def test_parameter_texts_are_one_value_each(workshop: Device, put_package: Put) -> None:
    parameters = [{"name": f"p{number}", "default": text, "type": text.replace('"', "")}
                  for number, text in enumerate(TEXTS.values())]  # fmt: skip
    set_up(workshop, put_package, configured(paramConfig=parameters))
    conf = f"{STORE}/Sample/conf"
    assert workshop.read(f"{conf}/Sample.conf").splitlines() == [
        "[Sample]", *(f'{one["name"]}="{one["default"]}"' for one in parameters)]  # fmt: skip
    definition = workshop.read("/run/velkctl-param-groups/Sample")  # as the parameter library has read it
    assert definition == workshop.read(f"{conf}/param_Sample.conf")
    wanted = [line for one in parameters for line in (f"param {one['name']} {{", "}")]
    assert blocks(definition) == ["group Sample {", *wanted, "}"]
    assert [line.strip() for line in definition.splitlines() if line.startswith("  type")] == [
        f'type = "{one["type"]}"' for one in parameters]  # fmt: skip


def refused(device: Device, put_package: Put, parameter: dict[str, str]) -> tuple[int, str]:
    """What setup answers to the parameter; the application has left the store again."""
    store_app(device, put_package, configured(paramConfig=[parameter]))
    answer = velkctl(device, "setup", "Sample")
    device.velkctl("remove", "Sample").check()
    return answer


def test_a_newline_in_a_parameter_is_refused(workshop: Device, put_package: Put) -> None:
    for key in ("default", "type"):
        for text in NEWLINES.values():
            answer = refused(workshop, put_package, {"name": "p", "default": "1", "type": "int"} | {key: text})
            assert answer == (29, f"code 29: Field '{key}' in manifest contains a newline\n")


def test_a_parameter_name_is_a_word(workshop: Device, put_package: Put) -> None:
    for name in (TEXTS["quotes"], TEXTS["many"], NEWLINES["at the end"], "ü", "$a", "a-b", "a%n", "a\x0b"):
        reason = ("must contain between 1 and 32 characters." if len(name.encode()) > 32
                  else "must only contain alphanumeric characters or '_'.")  # fmt: skip
        answer = refused(workshop, put_package, {"name": name, "default": "1", "type": "int"})
        assert answer == (29, f"code 29: Parameter name {reason}\n"), name


# --- handlers of web requests ---

HANDLERS = ['say "hi".cgi', "back\\slash.cgi", "per%cent%20.cgi", "do$llar {x}.cgi", "ünï <b> ' #.cgi", "[a-z]*\\.cgi"]
# Left to Apache: a FastCGI request whose name holds a question mark, which its proxy takes for the query's.
PATTERNS = ["*", "[i]ndex.html", "?ndex.html", "a\\[*?]b", "[!a]*"]


def test_handlers_of_any_name_get_their_requests_and_no_others(workshop: Device, put_package: Put) -> None:
    entries = [{"type": "directory", "access": "admin"}]
    for kind in ("transferCgi", "fastCgi"):
        entries += [{"type": kind, "access": "operator", "name": f"{kind} {name}"} for name in HANDLERS]
    files = configured(httpConfig=entries) | {"Sample": PROGRAM, "handler.py": HANDLER}
    set_up(workshop, put_package, files)
    check_configuration(workshop)
    workshop.velkctl("start", "Sample").check()
    for kind, answer in (("transferCgi", "transfer "), ("fastCgi", "fcgi ")):
        for name in HANDLERS:
            url = "/local/Sample/" + quote(f"{kind} {name}")
            workshop.wait_for(lambda: fetch(workshop, url, "operator")[0] == "200", url)  # noqa: B023
            assert fetch(workshop, url, "operator")[1].startswith(answer), name
            assert fetch(workshop, url, "viewer")[0] == "403", name
    assert codes(workshop, "/local/Sample/index.html") == ALLOWED["admin"]
    assert fetch(workshop, "/local/Sample/fastCgi%20z.cgi", "admin")[0] == "404"


def test_a_page_named_like_a_pattern_has_its_own_rule_and_leaves_the_others_theirs(
    workshop: Device, put_package: Put
) -> None:
    """Pages of a package, of which some belong to a group of their own, in a directory that looks like a pattern too."""
    entries = [{"type": "directory", "access": "admin"}]
    entries += [{"type": "transferCgi", "access": "operator", "name": f"[d]*/{name}"} for name in PATTERNS]
    files = configured(httpConfig=entries) | {"html/dir/index.html": "other\n", "html/[d]*/index.html": "index\n"}
    set_up(workshop, put_package, files | {f"html/[d]*/{name}": "page\n" for name in PATTERNS})
    check_configuration(workshop)
    workshop.wait_for(lambda: codes(workshop, "/local/Sample/index.html") == ALLOWED["admin"], "the new rules")
    assert codes(workshop, "/local/Sample/dir/index.html") == ALLOWED["admin"]
    assert codes(workshop, f"/local/Sample/{quote('[d]*')}/index.html") == ALLOWED["admin"]
    for name in PATTERNS:  # nothing answers on the socket, so who may is told that
        assert codes(workshop, f"/local/Sample/{quote(f'[d]*/{name}')}") == ["401", "403", "503", "503"], name


def test_a_page_named_like_the_mark_of_an_expression_opens_no_other_page(workshop: Device, put_package: Put) -> None:
    """Apache takes the word for an expression that follows, and without one for an expression that fits all names."""
    entries = [{"type": "directory", "access": "admin"}, {"type": "transferCgi", "access": "viewer", "name": "~"}]
    set_up(workshop, put_package, configured(httpConfig=entries) | {"html/~": "page\n", "html/~a.html": "other\n"})
    check_configuration(workshop)
    workshop.wait_for(lambda: codes(workshop, "/local/Sample/~")[0] == "401", "the new rules")
    found = {page: codes(workshop, f"/local/Sample/{page}") for page in ("index.html", "~a.html", "~")}
    # Nothing answers on the socket, so who may is told that.
    assert found == {"index.html": ALLOWED["admin"], "~a.html": ALLOWED["admin"], "~": ["401", "503", "503", "503"]}


@pytest.mark.parametrize(("name", "code", "text"), [
    ("a\nb", 29, "Field 'httpConfig.name' in manifest contains a newline"),
    ("a\r", 29, "Field 'httpConfig.name' in manifest contains a newline"),
    ("x" * 4096, 10, f"src/system/file.cpp: Failed to check existence of {STORE}/Sample/html/xxx"),
], ids=["line feed", "carriage return", "too long"])  # fmt: skip
def test_a_handler_of_no_name(workshop: Device, put_package: Put, name: str, code: int, text: str) -> None:
    files = configured(httpConfig=[{"type": "fastCgi", "access": "viewer", "name": name}])
    result = workshop.velkctl("install", put_package(workshop, files))
    assert (result.status, without_place(result.stderr).splitlines()[-1].startswith(f"code {code}: {text}")) == (code, True)


# --- users ---


def test_method_names_reach_the_user_service_one_by_one(workshop: Device, put_package: Put) -> None:
    methods = [f"com.orvo.x.{text}" for text in TEXTS.values()]
    set_up(workshop, put_package, section(app(), "resources.dbus.requiredMethods", methods))
    assert workshop.read("/var/lib/orvo/api-access/velk-sample") == "".join(f"{method}\n" for method in methods)


STRANGE = [TEXTS["quotes"], TEXTS["no ASCII"], TEXTS["many"], NEWLINES["a line feed"]]
STRANGE_USERS: list[tuple[str, Any, int, str]] = [
    *(("velkPackageConf.setup.user", {"username": text, "group": "sdk"}, 29, "User in manifest does not exist")
      for text in STRANGE),
    *(("velkPackageConf.setup.user", {"username": "sdk", "group": text}, 29, "Group in manifest does not exist")
      for text in STRANGE),
    *(("resources.linux.user.groups", ["video", text], 13, f"Sample: Secondary Group '{text}' is not in Allowlist")
      for text in STRANGE),
]  # fmt: skip


def test_users_and_groups_of_no_name_are_refused(workshop: Device, put_package: Put) -> None:
    for path, value, code, reason in STRANGE_USERS:
        store_app(workshop, put_package, section(app(), path, value))
        status, told = velkctl(workshop, "setup", "Sample")
        said = told[told.rindex(f"code {code}: ") :]
        whole = f"code {code}: {reason}".replace("\n", "\\x0a").replace("\r", "\\x0d") + "\n"
        whole = whole.replace("\u202e", "\\xe2\\x80\\xae")
        assert (status, said[:200]) == (code, whole[:200]), path  # an error's text has its bounds
        assert workshop.run(["id", "velk-sample"]).status == 1
        workshop.velkctl("remove", "Sample").check()
