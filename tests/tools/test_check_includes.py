"""tools/check-includes accepts a checkout in order and refuses every way of leaving it."""

import pathlib
import subprocess

import pytest

TOOL = pathlib.Path(__file__).resolve().parents[2] / "tools/check-includes"

IN_ORDER = {
    "src/platform/library.h": "",
    "src/platform/builtin/library.cpp": '#include "platform/library.h"\n#include "base/log.h"\n',
    "src/base/log.h": '#include "platform/library.h"\n#include <string>\n',
    "src/base/paths.h": 'constexpr const char* kStore = "/usr/local/packages";\n',
    "src/system/file.h": '#include "base/log.h"\n',
    "src/manifest/manifest.h": '#include "system/file.h"\n',
    "src/store/store.h": '#include "manifest/manifest.h"\n',
    "src/pack/sign.h": '#include "store/store.h"\n',
    "src/integration/units.h": '#include "store/store.h"\n',
    "src/lifecycle/install.h": '#include "integration/units.h"\n',
    "src/cli/main.cpp": '#include "lifecycle/install.h"\n#include "base/log.h"\n',
}


@pytest.fixture
def check(tmp_path):
    """Run the tool on the checkout in order with some files replaced: (exit status, its lines)."""

    def run(changes):
        for name, text in {**IN_ORDER, **changes}.items():
            file = tmp_path / name
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(text)
        result = subprocess.run([TOOL, tmp_path], capture_output=True, text=True)
        assert result.stderr == ""
        return result.returncode, result.stdout.splitlines()

    return run


def test_rooms_in_order_pass(check):
    assert check({}) == (0, ["check-includes: the rooms are in order"])


@pytest.mark.parametrize(
    "name, target, room",
    [
        ("src/platform/library.h", "base/log.h", "platform"),
        ("src/platform/builtin/library.cpp", "system/file.h", "platform/builtin"),
        ("src/base/log.h", "system/file.h", "base"),
        ("src/system/file.h", "manifest/manifest.h", "system"),
        ("src/manifest/manifest.h", "store/store.h", "manifest"),
        ("src/store/store.h", "integration/units.h", "store"),
        ("src/integration/units.h", "lifecycle/install.h", "integration"),
        ("src/pack/sign.h", "lifecycle/install.h", "pack"),
        ("src/lifecycle/install.h", "pack/sign.h", "lifecycle"),
    ],
)
def test_a_room_may_not_include_a_higher_one(check, name, target, room):
    status, lines = check({name: f'#pragma once\n#include "{target}"\n'})
    assert (status, lines) == (1, [f'{name}:2: {room} may not include "{target}"'])


def test_only_the_stand_ins_see_the_stand_ins(check):
    changes = {"src/platform/builtin/inner.h": "", "src/system/file.h": '#include "platform/builtin/inner.h"\n'}
    assert check(changes) == (1, ['src/system/file.h:1: system may not include "platform/builtin/inner.h"'])


@pytest.mark.parametrize("target", ["file.h", "../base/log.h", "base/absent.h", "elsewhere/file.h"])
def test_an_include_is_written_from_src(check, target):
    status, lines = check({"src/system/file.h": f'#include "{target}"\n'})
    assert (status, lines) == (1, [f'src/system/file.h:1: "{target}" is no header written from src/'])


def test_a_new_room_must_be_put_into_the_order(check):
    status, lines = check({"src/attic/old.h": ""})
    assert (status, lines) == (1, ["src/attic/old.h:1: room 'attic' is not in the order of tools/check-includes"])


@pytest.mark.parametrize(
    "line, path",
    [
        ('open("/etc/velk/conf");', "/etc/velk/conf"),
        ('open("/proc/mounts");', "/proc/mounts"),
        ('run("cp \'/usr/share/x\' /tmp");', "/usr/share/x"),
        ('text += "ExecStart=/usr/bin/tool\\n";', "/usr/bin/tool"),
        ('auto s = R"(a /var/run/x b)";', "/var/run/x"),
        ('f(\'"\'); open("/opt/packages");', "/opt/packages"),
        ("int n = 1'000; open(\"/run/x\");", "/run/x"),
        ('open("/usr");', "/usr"),
    ],
)
def test_a_fixed_path_stands_in_paths_only(check, line, path):
    status, lines = check({"src/system/file.cpp": f"// first\n{line}\n"})
    assert status == 1
    assert lines[0] == f"src/system/file.cpp:2: the fixed path {path} belongs into base/paths.h"


@pytest.mark.parametrize(
    "line",
    [
        '// as in "/etc/velk/conf"',
        '/* "/etc/velk/conf"\n */',
        'run("chattr +i > /dev/null 2>&1");',
        'run("su -s /bin/sh -c x");',
        'call("/com/orvo/BasicDeviceInfo1");',
        'f(directory + "/etcetera", "/conf", "%s/usr/x", "html/usr/x", "[\\\\/]etc");',
        'f(\'"\', "x", \'"\'); // "/etc/x"',
    ],
)
def test_what_only_looks_like_a_fixed_path_passes(check, line):
    assert check({"src/system/file.cpp": line + "\n"})[0] == 0
