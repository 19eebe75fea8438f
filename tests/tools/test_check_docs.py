"""tools/check-docs accepts a checkout that agrees with itself and refuses every disagreement that it looks for."""

import hashlib
import pathlib
import subprocess

import pytest

TOOL = pathlib.Path(__file__).resolve().parents[2] / "tools/check-docs"

TABLE = """const Command kCommands[] = {
    {"backup", cmd_backup, "Backup"},
    {"re-import", cmd_re_import,
     "Restore links"},
};
"""
AGREEING = {
    "src/cli/velkctl.cpp": TABLE,
    "src/base/log.h": "/** Writes a line. */\nvoid log_line(const char* text);\n",
    "tests/device/test_cli.py": 'device.velkctl("backup", "App")\ndevice.run("velkctl re-import")\n',
    "README.md": "Use `velkctl backup App`, `velkctl --help` or\n\n```\nvelkctl re-import\n```\n",
}


@pytest.fixture
def check(tmp_path):
    """Run the tool on the agreeing checkout with some files replaced: (exit status, its lines)."""

    def run(changes):
        for name, text in {**AGREEING, **changes}.items():
            file = tmp_path / name
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(text)
        result = subprocess.run([TOOL, tmp_path], capture_output=True, text=True)
        assert result.stderr == ""
        return result.returncode, result.stdout.splitlines()

    return run


def test_a_checkout_that_agrees_passes(check):
    assert check({}) == (0, ["check-docs: sources and documentation agree"])


@pytest.mark.parametrize(
    "header, line, name",
    [
        ("void f();\n", 1, "f"),
        ("/** Doc. */\nvoid f();\n\nvoid g();\n", 4, "g"),
        ("// --- Section ---\nvoid f();\n", 2, "f"),
        ("/** Doc. */\n\nvoid f();\n", 3, "f"),
        ("#include <string>\nstd::string f(const std::string& path,\n              int mode);\n", 2, "f"),
        ("[[nodiscard]] std::optional<int> f(int a = 1);\n", 1, "f"),
        ("inline int f(int a) {\n    return a;\n}\n", 1, "f"),
        ("namespace paths {\ninline int f(int a) { return a; }\n}\n", 2, "f"),
        ('extern "C" {\nvoid f();\n}\n', 2, "f"),
        ("template <typename T>\nT* f(T* x);\n", 1, "f"),
        ("/** A record. */\nstruct R {\n    int a;\n};\nvoid f(R r);\n", 5, "f"),
        ("int a;  // not about f\nvoid f();\n", 2, "f"),
        ("void f(const char* format, ...) __attribute__((format(printf, 1, 2)));\n", 1, "f"),
    ],
)
def test_a_function_without_a_comment_is_refused(check, header, line, name):
    status, lines = check({"src/base/log.h": header})
    assert (status, lines) == (1, [f"src/base/log.h:{line}: {name} has no comment above it"])


@pytest.mark.parametrize(
    "header",
    [
        "/** Doc. */\nvoid f();\nvoid g();\n",
        "/* What f and g share. */\n\nvoid f();\nvoid g();\n",
        "/** Doc. */\ninline int f() {\n    if (g) {\n    }\n    return 1;\n}\ninline int g() {\n    return 2;\n}\n",
        "/// Doc.\nvoid f();\n",
        "/**\n * Doc.\n */\n[[nodiscard]] bool f(int a,\n                     int b);\nbool g();\n",
        "/** A record. */\nstruct R {\n    R();\n    void method();\n    int a = f(1);\n};\n",
        "using F = int (*)(int);\ntypedef int (*G)(int);\nint n = 3;\n",
        "#define CALL(x) \\\n    f(x)\n#ifdef X\n#error \"f()\"\n#endif\n",
        "class C;\nstruct S;\nenum E : int { A = 1 };\n",
        'const char* text = "void f();";\n',
    ],
)
def test_a_function_with_a_comment_passes(check, header):
    assert check({"src/base/log.h": header}) == (0, ["check-docs: sources and documentation agree"])


@pytest.mark.parametrize(
    "tests", ["# backup and re-import\n", 'x("backups", "re-import")\n', 'x("velkctl re-import")\nbackup = 1\n']
)
def test_a_command_that_no_test_names_is_refused(check, tests):
    status, lines = check({"tests/device/test_cli.py": tests})
    assert status == 1
    assert "src/cli/velkctl.cpp: no test names the command backup" in lines


def test_a_unit_test_may_name_a_command(check):
    changes = {"tests/device/test_cli.py": "", "tests/unit/cli/x-test.cpp": 'run("backup"); run("re-import");\n'}
    assert check(changes)[0] == 0


def test_a_checkout_without_a_command_table_is_refused(check):
    assert check({"src/cli/velkctl.cpp": "int main() {}\n"}) == (
        1,
        ["src/cli/velkctl.cpp:1: no command table found"],
    )


@pytest.mark.parametrize("text", ["Use `velkctl rewind App`.\n", "```\nvelkctl rewind App\n```\n"])
def test_the_readme_names_no_other_command(check, text):
    assert check({"README.md": text}) == (1, ["README.md: velkctl has no command rewind"])


def test_a_picture_must_be_drawn_from_its_text_as_it_is(check):
    text = "digraph {}\n"
    mark = f"<!-- drawn from a.dot {hashlib.sha256(text.encode()).hexdigest()} -->\n"
    assert check({"docs/pictures/a.dot": text, "docs/pictures/a.svg": f"<svg/>\n{mark}"})[0] == 0
    lines = ["docs/pictures/a.svg: is not drawn from its text as it is; tools/pictures draws it"]
    assert check({"docs/pictures/a.dot": text + "\n", "docs/pictures/a.svg": f"<svg/>\n{mark}"}) == (1, lines)


def test_a_link_must_lead_to_a_file(check):
    assert check({"docs/a.md": "[b](b.md#part) [far](https://example.invalid/x)\n", "docs/b.md": ""})[0] == 0
    assert check({"docs/c.md": "[b](../b.md)\n"}) == (1, ["docs/c.md: the link to ../b.md leads nowhere"])
